// layers.cpp: what scripts/prove-layers asks of the library: which files, values and entries a
// layered configuration has, and what a change makes of it.
//
// From each line of the input, with tabs in between: prefix, project, name, suffix, flags,
// ":"-separated roots and extra files, and a dialect; "-" stands for none. For a change these
// follow, all texts with %XX for what isn't a letter, a digit or one of "_./": "new" or the last
// question's "same" object; "update" or "store"; the target's root and drop-in; and each
// "set STANZA KEY VALUE", "add STANZA KEY VALUE", "bare STANZA KEY", "delete STANZA KEY",
// "delete STANZA". The answer, with such texts:
//
//   S COUNT PATH LINE                          after a change: what is shadowed
//   F STATE PATH                               each file, in their order
//   V STANZA KEY                               each key, followed by
//   v VALUE PATH LINE                          its values; "v - - 0" if it has no divider
//   E STANZA KEY VALUE PATH LINE COUNTS        each entry
//   !io CALL ERRNO PATH, or !data LINE PATH    what was raised, in place of S, V, v and E; of
//   or !refused                                a change in place of S alone
//   .
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "Z/ZDialects.h"
#include "Z/ZExceptionText.h"
#include "Z/ZLayers.h"
#include "Z/ZPropertiesUpdate.h"
#include "Z/zlayersfile.h"
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

static string meant(const string& text) {
    string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%')
            out += static_cast<char>(strtoul(text.substr(i + 1, 2).c_str(), nullptr, 16)), i += 2;
        else
            out += text[i];
    }
    return out;
}

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
            if (store.isBare(key))
                puts("v - - 0");
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

static void showFiles(const ZLayerSet& set) {
    static const char* const kStates[] = {"counts", "masks", "hidden", "repeated", "bad"};
    for (const ZLayer& layer : set.layers())
        printf("F %s %s\n", kStates[layer.found.state], shown(layer.found.path.getChars()).c_str());
}

static void showContent(const ZLayerSet& set, const ZSCFData& model) {
    showValues(set, model);
    set.forEachValue(model, [](const ZLayerValue& value) {
        printf("E %s %s %s %s %d %d\n", shown(value.stanza).c_str(), shown(value.key).c_str(),
               shown(value.value).c_str(), shown(value.layer->found.path.getChars()).c_str(),
               value.line, value.counts);
    });
}

// What a call has raised, as it is shown; empty for nothing.
static string failureOf(const std::function<void()>& call) {
    try {
        call();
    } catch (ZPropertiesIOException& e) {
        return "!io " + shown(e.api()) + " " + std::to_string(e.excerrno()) + " " +
               shown(e.propFile());
    } catch (ZPropertiesInvalidDataException& e) {
        return "!data " + std::to_string(e.badline()) + " " + shown(e.propFile());
    } catch (ZInvalidParameterException&) {
        return "!refused";
    }
    return "";
}

static void showLoad(const ZLayersTerms& terms) {
    ZLayerSet set(terms);
    ZSCFData model;
    if (terms.dialect != nullptr)
        ZModelReading::storeOf(model).setDialect(std::make_shared<const ZDialect>(*terms.dialect));
    const string failure = failureOf([&] { set.load(model, 0); });
    showFiles(set);
    if (failure.empty())
        showContent(set, model);
    else
        puts(failure.c_str());
}

static void makeChange(ZLayers& layers, const string& change) {
    std::vector<string> words = split(change, ' ');
    for (string& word : words)
        word = meant(word);
    const char *const stanza = words[1].c_str(), *key = words.size() > 2 ? words[2].c_str() : "";
    if (words[0] == "set")
        layers.setValue(stanza, key, words[3].c_str());
    else if (words[0] == "add")
        layers.addValue(stanza, key, words[3].c_str(), 0);
    else if (words[0] == "bare")
        layers.setBare(stanza, key);
    else if (words.size() > 2)
        layers.deleteKey(stanza, key);
    else
        layers.deleteStanza(stanza);
}

static void showChange(const ZLayersTerms& terms, const std::vector<string>& parts) {
    static std::unique_ptr<ZLayers> layers;
    const bool inUpdate = parts[9] == "update";
    const string root = meant(parts[10]), dropIn = meant(parts[11]);
    if (parts[8] == "new")
        layers.reset(new ZLayers(terms));
    const string failure = failureOf([&] {
        layers->setTarget(root.c_str(), parts[11] == "-" ? nullptr : dropIn.c_str());
        std::unique_ptr<ZPropertiesUpdate> update;
        if (inUpdate)
            update.reset(new ZPropertiesUpdate(*layers, 0));
        for (size_t i = 12; i < parts.size(); ++i)
            makeChange(*layers, parts[i]);
        if (inUpdate)
            update->commit();
        else
            layers->store(nullptr);
    });
    ZLCString file;
    int line = 0;
    const unsigned int count = layers->shadowed(file, line);
    if (failure.empty())
        printf("S %u %s %d\n", count, shown(file.getChars()).c_str(), line);
    else
        puts(failure.c_str());
    const ZLayersFile& own = ZLayersFile::of(*layers);
    showFiles(own.set());
    showContent(own.set(), own.model());
}

static void answer(const string& question) {
    const std::vector<string> parts = split(question, '\t');
    if (parts.size() != 8 && parts.size() < 12)
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
    ZDialect dialect;
    if (parts[7] != "-") {
        ZDialects::get(parts[7].c_str(), dialect);
        terms.dialect = &dialect;
    }
    if (parts.size() == 8)
        showLoad(terms);
    else
        showChange(terms, parts);
    puts(".");
    fflush(stdout);
}

int main() {
    setenv("QELDIR", "/opt/Quillmere/nls/QEL", 0);
    for (string line; std::getline(std::cin, line);)
        answer(line);
    return 0;
}
