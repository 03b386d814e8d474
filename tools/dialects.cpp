// dialects.cpp: files of other programs: which dialect a file has, dialects, and convert.
#include <Z/zdialects.h>

#include <cerrno>

#include "zstz.h"

static const char kDefault[] = "default";  // the library's own; no preset is reached by this name
static const char kOwnDescription[] = "Stanza files: this library's own.";

// ---------------------------------------------------------------- which one

// The preset of this name, read once; null for the library's own.
static Exit namedDialect(const std::string& name, const ZDialect*& dialect) {
    static std::map<std::string, ZDialect> known;
    dialect = nullptr;
    if (name == kDefault)
        return done;
    const auto found = known.find(name);
    if (found != known.end()) {
        dialect = &found->second;
        return done;
    }
    ZDialect read = {};
    const int result = zstzDialect_get(name.c_str(), &read);
    if (result == ZPROP_ERR_PARAM || zstzPropLastErrno() == ENOENT)
        return complain(usage, "no such dialect: %s; see zstz dialects", name.c_str());
    // Switches that clash are the fault of no line.
    if (result != ZPROP_OK)
        return lastFailure(name.c_str()).text == kNotASide
                   ? reportError(badData, name.c_str(), lastErrorText())
                   : reportLastError(name.c_str());
    dialect = &(known[name] = read);
    return done;
}

// The preset that the patterns choose; empty without one.
static Exit fittingPreset(const char* file, std::string& name, std::string& pattern) {
    if (presetFor(file, name, pattern) == ZPROP_OK)
        return done;
    const Exit failed = reportLastError(file);
    return complain(failed, "which dialect %s has can't be told; --dialect says it", file);
}

Exit dialectFor(const char* file, const Options& options, const ZDialect*& dialect) {
    std::string name = options.dialect, pattern;
    dialect = options.isLayers(file) ? options.layers.dialect : nullptr;
    if (*file == '\0' || options.isLayers(file))
        return done;
    if (name.empty() && !isStandardInput(file))
        if (const Exit failed = fittingPreset(file, name, pattern))
            return failed;
    return name.empty() ? done : namedDialect(name, dialect);
}

Exit takeLayersDialect(Options& options) {
    return options.dialect.empty() ? done : namedDialect(options.dialect, options.layers.dialect);
}

// ---------------------------------------------------------------- names and values

std::string inLines(const std::string& value, const char* indent) {
    std::string out;
    for (const char c : value) {
        out += c;
        if (c == '\n')
            out += indent;
    }
    return out;
}

const char* Counterparts::find(const std::string& name) {
    if (has(name))
        return name.c_str();
    const ZDialect* dialect = dialectOf(here_);
    if (dialect == nullptr || dialect->names == ZDIALECT_EXACT)
        return nullptr;
    if (!isListed_) {
        Words names;
        const bool isStanza = stanza_ == nullptr;
        if ((isStanza ? stanzasOf(there_, file_, names) : keysOf(there_, file_, stanza_, names)) !=
            done)
            return nullptr;
        for (const std::string& other : names)
            names_.emplace(folded(*dialect, other, isStanza), other);
        isListed_ = true;
    }
    const auto found = names_.find(folded(*dialect, name, stanza_ == nullptr));
    return found == names_.end() ? nullptr : found->second.c_str();
}

// ---------------------------------------------------------------- dialects

static void printDialect(bool asJSON, const char* name, const char* description) {
    if (asJSON)
        printf("{\"dialect\": %s, \"description\": %s}\n", jsonOf(name).c_str(),
               jsonOf(description).c_str());
    else
        printf("%-16s %s\n", name, description);
}

static Exit listDialects(const Options& options) {
    const auto print = [](void* asJSON, const char* name, const char* description) {
        printDialect(*static_cast<bool*>(asJSON), name, description);
        return 0;
    };
    bool asJSON = options.json;
    printDialect(asJSON, kDefault, kOwnDescription);
    return zstzDialect_forEach(print, &asJSON) == ZPROP_OK ? done : reportLastError("zstz");
}

Exit dialects(const Words& words, const Options& options) {
    if (words.empty())
        return listDialects(options);
    for (const std::string& file : words) {
        std::string name, pattern;
        if (file.empty())
            return complain(usage, "FILE is empty");
        const bool isText = isStandardInput(file.c_str());
        if (!isText)
            if (const Exit failed = fittingPreset(file.c_str(), name, pattern))
                return failed;
        if (name.empty())
            name = kDefault;
        if (options.json)
            printf("{\"file\": %s, \"dialect\": %s, \"pattern\": %s}\n", jsonOf(file).c_str(),
                   jsonOf(name).c_str(), pattern.empty() ? "null" : jsonOf(pattern).c_str());
        else
            printf("%s: %s (%s%s)\n", file.c_str(), name.c_str(),
                   isText            ? "standard input has no path"
                   : pattern.empty() ? "no pattern fits"
                                     : "by the pattern ",
                   pattern.c_str());
    }
    return done;
}

// ---------------------------------------------------------------- convert

namespace {

// What a conversion leaves out.
struct LeftOut {
    const char* file;
    bool isAny = false;
};

}  // namespace

static void tellLeftOut(void* data, int line, const char* text, const char* reason) {
    LeftOut& left = *static_cast<LeftOut*>(data);
    left.isAny = true;
    fprintf(stderr, "%s:%d: %s: %s\n", left.file, line, text, reason);
}

Exit convert(const Words& words, const Options& options) {
    const char* file = words[0].c_str();
    const ZDialect *from, *to;
    std::string text;
    if (options.toDialect.empty())
        return complain(usage, "convert needs --to NAME; see zstz dialects");
    if (*file == '\0')
        return complain(usage, "FILE is empty");
    Exit failed = namedDialect(options.toDialect, to);
    if (failed == done)
        failed = dialectFor(file, options, from);
    if (failed == done && isStandardInput(file)) {
        failed = readStandardInput(text);
    } else if (failed == done) {
        const int result = readText(file, options.wait, text);
        failed = result == ZPROP_OK ? done : reportLocking(file, result);
    }
    if (failed != done)
        return failed;
    LeftOut left = {file};
    char* made = nullptr;
    size_t size = 0;
    if (zstzDialect_convert(from, text.data(), text.size(), to, tellLeftOut, &left, &made, &size) !=
        ZPROP_OK)
        return reportLastError(file);
    fwrite(made, 1, size, stdout);
    zstzPropFree(made);
    return left.isAny ? leftOut : done;
}
