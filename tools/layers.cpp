// layers.cpp: layered configurations: in the place of FILE by --layers, and the commands layers and
// cat.
#include <unistd.h>

#include <Z/zlayers.h>

#include <algorithm>
#include <cstdlib>
#include <map>

#include "zstz.h"

static bool endsWith(const std::string& text, const char* end) {
    const size_t length = strlen(end);
    return text.size() > length && text.compare(text.size() - length, length, end) == 0;
}

namespace {

// What --to says: a root's main file, or a drop-in of it; one of /etc without a root.
struct Target {
    explicit Target(const std::string& to) {
        const size_t name = to.find('/') + 1;  // 0 without one
        if (endsWith(to, ".conf"))
            dropIn = to.substr(name);
        root = name != 0 ? to.substr(0, name - 1) : dropIn.empty() ? to : "etc";
        isGood =
            (name == 0 || !dropIn.empty()) && (root == "etc" || root == "run" || root == "user");
    }

    std::string root, dropIn;
    bool isGood;
};

// The terms, with what they point to.
class LayersTerms {
public:
    explicit LayersTerms(const LayerOptions& options) {
        const size_t colon = options.name.find(':');
        name = options.name.substr(0, colon);
        project = colon == std::string::npos ? "" : options.name.substr(colon + 1);
        root = options.root;
        terms.size = sizeof terms;
        terms.name = name.c_str();
        terms.project = project.empty() ? nullptr : project.c_str();
        terms.prefix = root.empty() ? nullptr : root.c_str();
        terms.dialect = options.dialect;
        terms.flags = options.withUser || Target(options.to).root == "user" ? ZLAYERS_USER : 0;
    }
    LayersTerms(const LayersTerms&) = delete;

    // The main file of /etc, as messages name it.
    std::string mainFile() const {
        return root + "/etc/" + (project.empty() ? "" : project + "/") + name + ".conf";
    }

    ZLayersTerms terms = {};
    std::string name, project, root;
};

// A file's name as a line holds it: others may name theirs as they like.
std::string shown(std::string path) {
    for (char& c : path)
        if (static_cast<unsigned char>(c) < ' ' || c == 0x7f)
            c = '?';
    return path;
}

// One file of them, to be kept.
struct File {
    explicit File(const ZLayerInfo& info)
        : path(info.path),
          kind(info.kind),
          state(info.state),
          other(info.other == nullptr ? "" : info.other),
          line(info.line),
          reason(info.reason == nullptr ? "" : info.reason) {
        if (state == ZLAYER_BAD && line == 0 && reason.empty())
            reason = kNotASide;
    }

    Exit badness() const {
        return state != ZLAYER_BAD ? done : line > 0 || reason == kNotASide ? badData : fileError;
    }

    std::string path;
    ZLayerKind kind;
    ZLayerState state;
    std::string other;
    int line;
    std::string reason;
    bool isShadowed = false;  // has entries, and later files give all of their keys
};

// An entry of one of the files, to be kept.
struct Entry {
    explicit Entry(const ZLayerEntry& entry)
        : stanza(entry.stanza),
          key(entry.key),
          value(entry.value),
          file(entry.file),
          line(entry.line),
          isHidden(entry.isHidden != 0),
          counts(entry.counts != 0),
          isBare(entry.isBare != 0) {}

    std::string place() const {
        return line > 0 ? shown(file) + ":" + std::to_string(line) : shown(file);
    }

    std::string stanza, key, value, file;
    int line;
    bool isHidden;
    bool counts;
    bool isBare;
};

// By stanza and key, those of one key in the order of their files.
typedef std::pair<std::string, std::string> Names;
typedef std::map<Names, std::vector<Entry>> Entries;

}  // namespace

// Keeps all that a walk brings.
template <typename Kept, typename Given>
static int keep(void* list, const Given* given) {
    static_cast<std::vector<Kept>*>(list)->push_back(Kept(*given));
    return 0;
}

static Exit filesOf(ZPROP_handle* handle, const char* label, std::vector<File>& files) {
    return zstzLayers_forEachFile(handle, keep<File, ZLayerInfo>, &files) == ZPROP_OK
               ? done
               : reportLastError(label);
}

// The name is told before the library sees it, as what was typed.
static Exit parseName(LayerOptions& layers) {
    const std::string name = layers.name.substr(0, layers.name.find(':'));
    if (name.empty() || name.find('/') != std::string::npos)
        return complain(usage, "no NAME or NAME:PROJECT of a layered configuration: %s",
                        layers.name.c_str());
    if (layers.root.empty())
        return done;
    const std::unique_ptr<char, decltype(&free)> real(realpath(layers.root.c_str(), nullptr),
                                                      &free);
    if (real == nullptr)
        return complain(fileError, "%s: no such folder", layers.root.c_str());
    layers.root = strcmp(real.get(), "/") == 0 ? "" : real.get();
    return done;
}

// ---------------------------------------------------------------- in the place of a file

std::string LayerOptions::label() const { return "--layers " + name; }

Exit checkForLayers(const char* command, const Terms& terms) {
    static const struct {
        const char *command, *why;
    } kRefused[] = {
        {"comment", "a comment belongs to one file"},
        {"rename", "a name that other files give can't be changed in one of them"},
        {"disable", "comments belong to one file"},
        {"merge", "give the files themselves"},
        {"layers", "it takes NAME itself"},
        {"cat", "it takes NAME itself"},
    };
    for (const auto& refused : kRefused)
        if (strcmp(command, refused.command) == 0)
            return complain(usage, "%s doesn't go with --layers: %s", command, refused.why);
    return terms.uncomment ? complain(usage,
                                      "--uncomment doesn't go with --layers: comments "
                                      "belong to one file")
                           : done;
}

Exit useLayers(Words& words, Options& options) {
    LayerOptions& layers = options.layers;
    const std::string command = words[0];
    const bool takesName = command == "layers" || command == "cat";
    if (takesName && words.size() > 1 && layers.name.empty())
        layers.name = words[1];
    else if (layers.name.empty())
        return layers.isTold() ? complain(usage,
                                          "--root, --to, --user, --origin and --all-layers "
                                          "go with --layers")
                               : done;
    else if (const Exit failed = checkForLayers(command.c_str(), options.terms))
        return failed;
    layers.isChanged =
        command == "set" || command == "add" || command == "unset" || command == "edit";
    layers.mayBeEmpty = layers.isChanged || command == "watch";
    const struct {
        bool isGiven;
        const char *option, *why;
    } kRefused[] = {
        {options.backups != 0, "--backup", "keep the file that is changed yourself"},
        {options.create, "--create", "the file is made as needed"},
        {options.editor, "--editor", "edit the file itself, see zstz layers"},
        {options.storeMode != ZPROP_STORE_SAFE, "--store", "changes are always stored safely"},
    };
    for (const auto& refused : kRefused)
        if (refused.isGiven)
            return complain(usage, "%s doesn't go with a layered configuration: %s", refused.option,
                            refused.why);
    if (!layers.to.empty() && !layers.isChanged)
        return complain(usage, "--to goes with set, add, unset and edit");
    if (!layers.to.empty() && !Target(layers.to).isGood)
        return complain(usage,
                        "--to takes etc, run, user or NAME.conf, or both as run/NAME.conf: %s",
                        layers.to.c_str());
    if (layers.withOrigins() && command != "get" && command != "list")
        return complain(usage, "--origin and --all-layers go with get and list");
    if (layers.withOrigins() && options.hasDefault)
        return complain(usage, "--default doesn't go with --origin: it comes from no file");
    if (!takesName)
        words.insert(words.begin() + 1, layers.label());
    return parseName(layers);
}

// Where changes go: what --to says; else the main file of /etc, or a drop-in of it where there is
// none.
static Exit setTarget(ZPROP_handle* handle, const LayersTerms& terms, const LayerOptions& options) {
    const std::string label = options.label();
    const Target target(options.to);
    const char* root = target.root == "run" ? "/run" : "/etc";
    const char* dropIn = target.dropIn.empty() ? nullptr : target.dropIn.c_str();
    if (target.root == "user") {
        root = nullptr;  // the highest, if there is one
        const char *config = getenv("XDG_CONFIG_HOME"), *home = getenv("HOME");
        if (!(config != nullptr && *config == '/') && !(home != nullptr && *home == '/'))
            return complain(usage, "--to user needs HOME or XDG_CONFIG_HOME");
    } else if (options.to.empty()) {
        std::vector<File> files;
        if (const Exit failed = filesOf(handle, label.c_str(), files))
            return failed;
        dropIn = "50-local.conf";
        for (const File& file : files)
            if (file.kind == ZLAYER_MAIN && file.state == ZLAYER_COUNTS &&
                file.path == terms.mainFile())
                dropIn = nullptr;
    }
    return zstzLayers_setTarget(handle, root, dropIn) == ZPROP_OK
               ? done
               : complain(usage, "no target of %s: --to %s", label.c_str(), options.to.c_str());
}

int openLayers(const Options& options, ZPROP_handle** handle) {
    LayersTerms terms(options.layers);
    terms.terms.flags |= options.layers.mayBeEmpty ? ZLAYERS_MAY_BE_EMPTY : 0;
    return zstzLayers_open(handle, &terms.terms, ZPROP_OPEN_UPDATE, ZPCACHE_STRICT, options.wait);
}

Exit openLayers(const Options& options, Handle& handle) {
    ZPROP_handle* opened = nullptr;
    const int result = openLayers(options, &opened);
    if (result != ZPROP_OK)
        return reportLocking(options.layers.label().c_str(), result);
    handle.reset(opened);
    return options.layers.isChanged ? setTarget(opened, LayersTerms(options.layers), options.layers)
                                    : done;
}

Exit reportShadowed(const char* file, bool would) {
    const Failed by = lastFailure(file);
    fprintf(stderr, "%s%s%s: note: gives another value still; the change %s stored below it\n",
            by.file.c_str(), by.line > 0 ? ":" : "",
            by.line > 0 ? std::to_string(by.line).c_str() : "", would ? "would be" : "is");
    return shadowed;
}

// ---------------------------------------------------------------- values with their origin

static void printEntry(const Entry& entry, bool valueOnly, const Options& options) {
    if (options.json) {
        printf("{\"stanza\": %s, \"key\": %s, \"value\": %s, \"file\": %s, \"line\": %s",
               jsonOf(entry.stanza).c_str(), jsonOf(entry.key).c_str(),
               entry.value.empty() ? "null" : jsonOfValues({entry.value}, entry.isHidden).c_str(),
               jsonOf(entry.file).c_str(),
               entry.line > 0 ? std::to_string(entry.line).c_str() : "null");
        puts(!options.layers.all ? "}"
             : entry.counts      ? ", \"counts\": true}"
                                 : ", \"counts\": false}");
        return;
    }
    const char* sign = !options.layers.all ? "" : entry.counts ? "+ " : "- ";
    printf("%s%s:", sign, entry.place().c_str());
    if (!valueOnly)
        printf(" [%s] %s%s", entry.stanza.c_str(), entry.key.c_str(), entry.isBare ? "" : " =");
    printf("%s%s\n", entry.value.empty() ? "" : " ", inLines(entry.value).c_str());
}

// By which an entry is found.
static Names namesOf(const std::string& stanza, const std::string& key, const Options& options) {
    const ZDialect* dialect = options.layers.dialect;
    if (dialect == nullptr)
        return {stanza, key};
    return {folded(*dialect, stanza, true), folded(*dialect, key, false)};
}

static Exit entriesOf(ZPROP_handle* handle, const char* file, const Options& options,
                      Entries& entries) {
    std::vector<Entry> all;
    if (zstzLayers_forEachEntry(handle, keep<Entry, ZLayerEntry>, &all) != ZPROP_OK)
        return reportLastError(file);
    for (const Entry& entry : all)
        if (entry.counts || options.layers.all)
            entries[namesOf(entry.stanza, entry.key, options)].push_back(entry);
    return done;
}

Exit getOrigins(ZPROP_handle* handle, const Words& words, const Options& options) {
    Entries entries;
    if (const Exit failed = entriesOf(handle, words[0].c_str(), options, entries))
        return failed;
    for (size_t i = 1; i < words.size(); i += 2) {
        const auto found = entries.find(namesOf(words[i], words[i + 1], options));
        if (found == entries.end())
            continue;
        const std::vector<Entry>& all = found->second;
        for (size_t at = options.all || options.layers.all ? 0 : all.size() - 1; at < all.size();
             ++at)
            printEntry(all[at], true, options);
    }
    return done;
}

Exit listOrigins(ZPROP_handle* handle, const char* file, const char* only, const Options& options) {
    Entries entries;
    if (const Exit failed = entriesOf(handle, file, options, entries))
        return failed;
    Words stanzas;
    if (only != nullptr)
        stanzas.push_back(only);
    else if (const Exit failed = stanzasOf(handle, file, stanzas))
        return failed;
    for (const std::string& stanza : stanzas) {
        Words keys;
        if (const Exit failed = keysOf(handle, file, stanza.c_str(), keys))
            return failed;
        for (const std::string& key : keys)
            for (const Entry& entry : entries[namesOf(stanza, key, options)])
                printEntry(entry, false, options);
    }
    return done;
}

// ---------------------------------------------------------------- layers, check, cat

static const char* const kKinds[] = {"main", "drop-in", "extra"};

// Whatever the state of its files is.
static int openAnyState(const LayersTerms& own, const Options& options, Handle& handle) {
    ZLayersTerms terms = own.terms;
    terms.flags |= ZLAYERS_SKIP_BAD | ZLAYERS_MAY_BE_EMPTY;
    ZPROP_handle* opened = nullptr;
    const int result =
        zstzLayers_open(&opened, &terms, ZPROP_OPEN_READ, ZPCACHE_STRICT, options.wait);
    handle.reset(opened);
    return result;
}

// Which files have entries, and whether any of these counts.
static Exit findCounting(ZPROP_handle* handle, const char* name,
                         std::map<std::string, bool>& counting) {
    const auto note = [](void* to, const ZLayerEntry* entry) {
        bool& counts = (*static_cast<std::map<std::string, bool>*>(to))[entry->file];
        counts = counts || entry->counts != 0;
        return 0;
    };
    return zstzLayers_forEachEntry(handle, note, &counting) == ZPROP_OK ? done
                                                                        : reportLastError(name);
}

static void printFile(const File& file, const std::vector<File>& files) {
    std::string state;
    if (file.isShadowed) {
        state = ", shadowed";
    } else if (file.state == ZLAYER_MASKS) {
        state = ", masks";
    } else if (file.state == ZLAYER_HIDDEN) {
        state = ", hidden by " + file.other;
        for (const File& other : files)
            if (other.path == file.other && other.state == ZLAYER_MASKS)
                state = ", masked by " + file.other;
    } else if (file.state == ZLAYER_REPEATED) {
        state = ", repeated as " + file.other;
    } else if (file.state == ZLAYER_BAD) {
        state = (file.line > 0 ? ", bad line: " : ", bad: ") + file.reason;
    }
    const std::string line = file.line > 0 ? ":" + std::to_string(file.line) : "";
    printf("%s%s: %s%s\n", shown(file.path).c_str(), line.c_str(), kKinds[file.kind],
           shown(state).c_str());
}

static void printFileAsJSON(const File& file) {
    static const char* const kStates[] = {"counts", "masks", "hidden", "repeated", "bad"};
    printf("{\"file\": %s, \"kind\": \"%s\", \"state\": \"%s\"", jsonOf(file.path).c_str(),
           kKinds[file.kind], file.isShadowed ? "shadowed" : kStates[file.state]);
    if (!file.other.empty())
        printf(", \"other\": %s", jsonOf(file.other).c_str());
    if (file.line > 0)
        printf(", \"line\": %d", file.line);
    if (!file.reason.empty())
        printf(", \"error\": %s", jsonOf(file.reason).c_str());
    puts("}");
}

Exit layers(const Words& words, const Options& options) {
    const char* name = words[0].c_str();
    const LayersTerms own(options.layers);
    Handle handle;
    const int result = openAnyState(own, options, handle);
    if (result != ZPROP_OK)
        return reportLocking(name, result);
    std::vector<File> files;
    std::map<std::string, bool> counting;
    Exit failed = filesOf(handle.get(), name, files);
    if (failed == done)
        failed = findCounting(handle.get(), name, counting);
    if (failed != done)
        return failed;
    if (files.empty())
        return complain(fileError, "%s: no file; looked for %s, drop-ins, and in lower roots", name,
                        own.mainFile().c_str());
    Exit worst = done;
    for (File& file : files) {
        const auto found = counting.find(file.path);
        file.isShadowed = file.state == ZLAYER_COUNTS && found != counting.end() && !found->second;
        if (options.json)
            printFileAsJSON(file);
        else
            printFile(file, files);
        worst = std::max(worst, file.badness());
    }
    return worst;
}

void findBad(const Options& options, const std::function<void(const Failed&)>& tell) {
    const LayersTerms own(options.layers);
    const std::string label = options.layers.label();
    Handle handle;
    std::vector<File> files;
    const int result = openAnyState(own, options, handle);
    if (result != ZPROP_OK ||
        zstzLayers_forEachFile(handle.get(), keep<File, ZLayerInfo>, &files) != ZPROP_OK) {
        tell(lastFailure(label.c_str()));
        adviseWaiting(result);
        return;
    }
    if (files.empty())
        tell({fileError, own.mainFile(), 0, "no such file, nor one in lower roots, nor drop-ins"});
    for (const File& file : files)
        if (file.badness() != done)
            tell({file.badness(), shown(file.path), file.line, shown(file.reason)});
}

Exit cat(const Words& words, const Options& options) {
    std::vector<LayerText> files;
    const int result = readCounting(LayersTerms(options.layers).terms, options.wait, files);
    if (result != ZPROP_OK)
        return reportLocking(words[0].c_str(), result);
    if (files.empty())
        return complain(fileError, "%s: no file; see zstz layers", words[0].c_str());
    Exit worst = done;
    bool isFirst = true;
    for (const LayerText& file : files) {
        if (file.error != 0) {
            worst = reportError(fileError, shown(file.path).c_str(), strerror(file.error));
            continue;
        }
        printf("%s# %s\n", isFirst ? "" : "\n", shown(file.path).c_str());
        isFirst = false;
        fwrite(file.text.data(), 1, file.text.size(), stdout);
        if (!file.text.empty() && file.text.back() != '\n')
            putchar('\n');
    }
    return worst;
}
