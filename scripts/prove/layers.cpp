// layers.cpp: what scripts/prove-layers asks of the library: which files, values and entries a
// layered configuration has.
//
// From each line of the input, with tabs in between: prefix, project, name, suffix, flags, and
// ":"-separated roots and extra files; "-" stands for none. The answer, each text with %XX for what
// isn't a letter, a digit or one of "_./":
//
//   F STATE PATH                               each file, in their order
//   V STANZA KEY                               each key, followed by
//   v VALUE PATH LINE                          its values
//   E STANZA KEY VALUE PATH LINE COUNTS        each entry
//   !io CALL ERRNO PATH, or !data LINE PATH    what the load has raised, in place of V, v and E
//   .
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "Z/zlayerset.h"
#include "Z/zmodelreading.h"

using std::string;

static string shown(const char* text, size_t size) {
    string out;
    for (size_t i = 0; i < size; ++i) {
        char code[4];
        const unsigned char c = static_cast<unsigned char>(text[i]);
        snprintf(code, sizeof code, "%%%02X", c);
        const bool isPlain = c < 0x80 && (isalnum(c) != 0 || strchr("_./", c) != nullptr);
        out += isPlain ? string(1, text[i]) : code;
    }
    return out;
}
static string shown(ZSpan text) { return shown(text.data, text.size); }
static string shown(const char* text) { return shown(text, strlen(text)); }

static std::vector<string> split(const string& text, char between) {
    std::vector<string> parts(1);
    for (const char c : text) {
        if (c == between)
            parts.emplace_back();
        else
            parts.back() += c;
    }
    return parts;
}

static const char* orNull(const string& text) { return text == "-" ? nullptr : text.c_str(); }

// Those of a list, and a null.
static std::vector<const char*> pointers(const std::vector<string>& list) {
    std::vector<const char*> made;
    for (const string& part : list)
        if (part != "-")
            made.push_back(part.c_str());
    made.push_back(nullptr);
    return made;
}

static void showValues(const ZLayerSet& set, const ZSCFData& model) {
    ZPStore& store = ZModelReading::storeOf(model);
    store.forEachStanza([&](ZPId stanza) {
        ZPStore::Cursor walk(store, stanza);
        for (ZPId key = walk.nextKey(); key != ZPStore::none; key = walk.nextKey()) {
            walk.moveTo(key);
            const ZSpan owner = store.text().span(store.stanza(stanza).name),
                        name = store.text().span(store.key(key).name);
            printf("V %s %s\n", shown(owner).c_str(), shown(name).c_str());
            const ZPValueView values = store.values(key, ZPStore::plain);
            for (uint32_t i = 0; i < values.count(); ++i) {
                const ZLayer* layer = nullptr;
                int line = 0;
                const bool has = set.origin(model, string(owner.data, owner.size).c_str(),
                                            string(name.data, name.size).c_str(), i, layer, line);
                printf("v %s %s %d\n", shown(values[i]).c_str(),
                       has ? shown(layer->found.path.getChars()).c_str() : "?", line);
            }
        }
    });
}

static void answer(const string& question) {
    const std::vector<string> parts = split(question, '\t');
    if (parts.size() != 7)
        exit(2);
    const std::vector<string> rootList = split(parts[5], ':'), extraList = split(parts[6], ':');
    const std::vector<const char*> roots = pointers(rootList), extra = pointers(extraList);
    ZLayersTerms terms = {};
    terms.size = sizeof terms;
    terms.prefix = orNull(parts[0]);
    terms.project = orNull(parts[1]);
    terms.name = parts[2].c_str();
    terms.suffix = parts[3].c_str();
    terms.flags = strtoul(parts[4].c_str(), nullptr, 10);
    terms.roots = roots.data();
    terms.extra = extra.data();
    ZLayerSet set(terms);
    ZSCFData model;
    string failure;
    try {
        set.load(model, 0);
    } catch (ZPropertiesIOException& e) {
        failure = "!io " + shown(e.api()) + " " + std::to_string(e.excerrno()) + " " +
                  shown(e.propFile());
    } catch (ZPropertiesInvalidDataException& e) {
        failure = "!data " + std::to_string(e.badline()) + " " + shown(e.propFile());
    }
    static const char* const kStates[] = {"counts", "masks", "hidden", "repeated", "bad"};
    for (const ZLayer& layer : set.layers())
        printf("F %s %s\n", kStates[layer.found.state], shown(layer.found.path.getChars()).c_str());
    if (failure.empty()) {
        showValues(set, model);
        set.forEachValue(model, [](const ZLayerValue& value) {
            printf("E %s %s %s %s %d %d\n", shown(value.stanza).c_str(), shown(value.key).c_str(),
                   shown(value.value).c_str(), shown(value.layer->found.path.getChars()).c_str(),
                   value.line, value.counts);
        });
    } else {
        puts(failure.c_str());
    }
    puts(".");
    fflush(stdout);
}

int main() {
    setenv("QELDIR", "/opt/Quillmere/nls/QEL", 0);
    for (string line; std::getline(std::cin, line);)
        answer(line);
    return 0;
}
