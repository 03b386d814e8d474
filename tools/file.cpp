// file.cpp: files, and what is told about them.
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "zstz.h"

// ---------------------------------------------------------------- messages

const char* colourOf(FILE* stream, Colour colour) {
    static const char* const kCodes[] = {"\033[31m", "\033[32m", "\033[m"};
    static int wanted[2] = {-1, -1};  // of standard output and error
    int& isWanted = wanted[stream == stderr];
    if (isWanted == -1) {
        const char *none = getenv("NO_COLOR"), *terminal = getenv("TERM");
        isWanted = isatty(fileno(stream)) == 1 && (none == nullptr || *none == '\0') &&
                   terminal != nullptr && strcmp(terminal, "dumb") != 0;
    }
    return isWanted == 1 ? kCodes[colour] : "";
}

Exit complain(Exit code, const char* format, const char* a, const char* b) {
    fputs("zstz: ", stderr);
    fprintf(stderr, format, a, b);
    fputc('\n', stderr);
    return code;
}

Exit reportError(Exit code, const char* file, const std::string& text) {
    fprintf(stderr, "%s: %serror:%s %s\n", file, colourOf(stderr, red),
            colourOf(stderr, plainColour), text.c_str());
    return code;
}

Failed lastFailure(const char* file) {
    ZPROP_error error;
    zstzPropLastError(&error);
    const bool namesFile = error.file != nullptr && *error.file != '\0';
    Failed failed = {fileError, namesFile ? error.file : file, error.line, lastErrorText()};
    if (error.line > 0) {
        failed.code = badData;
    } else if (error.number == invalidData) {
        failed.code = badData;
        failed.text = kNotASide;
    }
    return failed;
}

Exit report(const Failed& failed) {
    return failed.line > 0
               ? reportError(failed.code, (failed.file + ":" + std::to_string(failed.line)).c_str(),
                             "bad line: " + failed.text)
               : reportError(failed.code, failed.file.c_str(), failed.text);
}

Exit reportLastError(const char* file) { return report(lastFailure(file)); }

bool wasRefused() {
    ZPROP_error error;
    return zstzPropLastError(&error) == refused;
}

Exit reportStoring(ZPROP_handle* handle, const char* file) {
    Failed failed = lastFailure(file);
    if (wasRefused() && dialectOf(handle) != nullptr)
        failed.code = usage;
    return report(failed);
}

std::string lastErrorText() {
    ZPROP_error error;
    zstzPropLastError(&error);
    return error.text == nullptr ? "failed" : error.text;
}

// ---------------------------------------------------------------- files

static const unsigned long kAttributes = ZPCACHE_STRICT | ZPCACHE_KEEP_LINES;

bool readAll(FILE* stream, std::string& text) {
    char piece[64 * 1024];
    for (size_t got; (got = fread(piece, 1, sizeof piece, stream)) != 0;)
        text.append(piece, got);
    return ferror(stream) == 0;
}

Exit readStandardInput(std::string& text) {
    static bool wasRead = false;
    if (wasRead)
        return complain(usage, "standard input can be read once only");
    wasRead = true;
    return readAll(stdin, text) ? done : complain(fileError, "standard input: %s", strerror(errno));
}

Exit openText(const char* file, const std::string& text, const Options& options, Handle& handle) {
    ZPROP_handle* opened = nullptr;
    const ZDialect* dialect;
    if (const Exit failed = dialectFor(file, options, dialect))
        return failed;
    if (zstzPropOpenDialectBytes(&opened, text.data(), text.size(), dialect, kAttributes) !=
        ZPROP_OK)
        return reportLastError(file);
    handle.reset(opened);
    return done;
}

void adviseWaiting(int result) {
    if (result == ZPROP_ERR_LOCKED)
        complain(fileError, "somebody else has it locked; --wait SECONDS waits longer");
}

Exit reportLocking(const char* file, int result) {
    const Exit failed = reportLastError(file);
    adviseWaiting(result);
    return failed;
}

Exit openFile(const char* file, const Options& options, Handle& handle) {
    if (isStandardInput(file)) {
        std::string text;
        const Exit failed = readStandardInput(text);
        return failed != done ? failed : openText(file, text, options, handle);
    }
    if (*file == '\0')
        return complain(usage, "FILE is empty");
    if (options.isLayers(file))
        return openLayers(options, handle);
    ZPROP_handle* opened = nullptr;
    const ZDialect* dialect;
    if (const Exit failed = dialectFor(file, options, dialect))
        return failed;
    const int result = zstzPropOpenDialect(&opened, file, ZPROP_OPEN_UPDATE, dialect, kAttributes,
                                           options.storeMode, options.wait);
    if (result != ZPROP_OK)
        return reportLocking(file, result);
    handle.reset(opened);
    return done;
}

// ---------------------------------------------------------------- what is there

bool hasEntry(ZPROP_handle* handle, const char* stanza, const char* key) {
    int error = 0;
    return zstzPropExists(handle, stanza, key, &error) != 0;
}

bool isHidden(ZPROP_handle* handle, const char* stanza, const char* key) {
    int error = 0;
    return zstzPropIsHidden(handle, stanza, key, &error) != 0;
}

bool isBare(ZPROP_handle* handle, const char* stanza, const char* key) {
    int error = 0;
    return zstzPropIsBare(handle, stanza, key, &error) != 0;
}

// Whether one letter more, less or other, two that have changed places, or their case make one name
// the other.
static bool isNear(const std::string& a, const std::string& b) {
    if (a.size() < 3 || b.size() < 3)
        return false;  // these are all alike
    if (strcasecmp(a.c_str(), b.c_str()) == 0)
        return true;
    const std::string &shorter = a.size() < b.size() ? a : b, &longer = a.size() < b.size() ? b : a;
    const size_t more = longer.size() - shorter.size();
    if (more > 1)
        return false;
    size_t at = 0;
    while (at < shorter.size() && shorter[at] == longer[at])
        ++at;
    if (more == 1 || at + 1 >= shorter.size())
        return shorter.compare(at + 1 - more, shorter.npos, longer, at + 1, longer.npos) == 0;
    const bool changedPlaces = shorter[at] == longer[at + 1] && shorter[at + 1] == longer[at];
    return shorter.compare(at + 1, shorter.npos, longer, at + 1, longer.npos) == 0 ||
           (changedPlaces &&
            shorter.compare(at + 2, shorter.npos, longer, at + 2, longer.npos) == 0);
}

// The only name that is near the wanted one; empty without one.
static std::string nearestOf(const Words& names, const char* wanted) {
    std::string found;
    for (const std::string& name : names) {
        if (!isNear(name, wanted))
            continue;
        if (!found.empty())
            return "";
        found = name;
    }
    return found;
}

bool isThere(ZPROP_handle* handle, const char* file, const char* stanza, const char* key) {
    if (hasEntry(handle, stanza, key))
        return true;
    Words names;
    if (key == nullptr || !hasEntry(handle, stanza, nullptr)) {
        fprintf(stderr, "%s: no stanza [%s]", file, stanza);
        stanzasOf(handle, file, names);
        const std::string near = nearestOf(names, stanza);
        if (near.empty())
            fprintf(stderr, "; see zstz list %s\n", file);
        else
            fprintf(stderr, "; did you mean [%s]?\n", near.c_str());
    } else {
        fprintf(stderr, "%s: no key %s in [%s]", file, key, stanza);
        keysOf(handle, file, stanza, names);
        const std::string near = nearestOf(names, key);
        if (near.empty())
            fprintf(stderr, "; see zstz list %s %s\n", file, stanza);
        else
            fprintf(stderr, "; did you mean %s?\n", near.c_str());
    }
    return false;
}

Exit walkValues(ZPROP_handle* handle, const char* file, const char* stanza, const char* key,
                Walk& walk) {
    ZPROP_iter_handle* made = nullptr;
    if (zstzPropIter_init(handle, stanza, key, &made) != ZPROP_OK)
        return reportLastError(file);
    walk.reset(made);
    return done;
}

// A list of names that the library has made.
static Exit takeNames(int result, char** names, const char* file, Words& out) {
    if (result != ZPROP_OK)
        return reportLastError(file);
    for (char** name = names; *name != nullptr; ++name)
        out.push_back(*name);
    zstzPropFreeStanzas(names);
    return done;
}

Exit stanzasOf(ZPROP_handle* handle, const char* file, Words& out) {
    char** names = nullptr;
    const int result = zstzPropGetStanzas(handle, &names);
    return takeNames(result, names, file, out);
}

Exit keysOf(ZPROP_handle* handle, const char* file, const char* stanza, Words& out) {
    char** names = nullptr;
    const int result = zstzPropGetKeys(handle, stanza, &names);
    return takeNames(result, names, file, out);
}

Exit valuesOf(ZPROP_handle* handle, const char* file, const char* stanza, const char* key,
              Words& out) {
    char** values = nullptr;
    ZPROP_item item = {ZPROP_ITEM_VALUES, stanza, key, ZPROP_ITEM_OPTIONAL, &values};
    if (zstzPropGetValues(handle, &item, 1) != ZPROP_OK)
        return reportLastError(file);
    for (char** value = values; *value != nullptr; ++value)
        out.push_back(*value);
    zstzPropFreeValuesList(handle, &item, 1);
    return done;
}
