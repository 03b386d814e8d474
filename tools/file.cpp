#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <strings.h>

#include "zstz.h"

int complain(Exit code, const char* format, const char* a, const char* b) {
    fputs("zstz: ", stderr);
    fprintf(stderr, format, a, b);
    fputc('\n', stderr);
    return code;
}

// ---------------------------------------------------------------- files

int reportLastError(const char* file) {
    ZPROP_error error;
    zstzPropLastError(&error);
    const char* where = error.file == nullptr ? file : error.file;
    const char* text = error.text == nullptr ? "failed" : error.text;
    if (error.line > 0) {
        fprintf(stderr, "%s:%d: error: bad line: %s\n", where, error.line, text);
        return badData;
    }
    static const int kInvalidData = 44;
    if (error.number == kInvalidData) {
        fprintf(stderr, "%s: error: not a side database\n", where);
        return badData;
    }
    fprintf(stderr, "%s: error: %s\n", where, text);
    return fileError;
}

int openFile(const char* file, const Options& options, Handle& handle) {
    ZPROP_handle* opened = nullptr;
    const int result =
        zstzPropOpenWith(&opened, file, ZPROP_OPEN_UPDATE, ZPCACHE_STRICT | ZPCACHE_KEEP_LINES,
                         options.storeMode, options.wait);
    if (result != ZPROP_OK)
        return reportLastError(file);
    handle.reset(opened);
    return done;
}

bool isThere(ZPROP_handle* handle, const char* file, const char* stanza, const char* key) {
    int error = 0;
    if (zstzPropExists(handle, stanza, key, &error) != 0)
        return true;
    if (key == nullptr || zstzPropExists(handle, stanza, nullptr, &error) == 0)
        fprintf(stderr, "%s: no stanza [%s]\n", file, stanza);
    else
        fprintf(stderr, "%s: no key %s in [%s]\n", file, key, stanza);
    return false;
}

int walkValues(ZPROP_handle* handle, const char* file, const char* stanza, const char* key,
               Walk& walk) {
    ZPROP_iter_handle* made = nullptr;
    if (zstzPropIter_init(handle, stanza, key, &made) != ZPROP_OK)
        return reportLastError(file);
    walk.reset(made);
    return done;
}

int stanzasOf(ZPROP_handle* handle, const char* file, Words& out) {
    char** names = nullptr;
    if (zstzPropGetStanzas(handle, &names) != ZPROP_OK)
        return reportLastError(file);
    for (char** name = names; *name != nullptr; ++name)
        out.push_back(*name);
    zstzPropFreeStanzas(names);
    return done;
}

int keysOf(ZPROP_handle* handle, const char* file, const char* stanza, Words& out) {
    Walk walk;
    if (const int failed = walkValues(handle, file, stanza, nullptr, walk))
        return failed;
    int error = 0;
    while (zstzPropIter_next(walk.get(), &error) != 0)
        out.push_back(zstzPropIter_getKey(walk.get(), &error));
    return done;
}

int valuesOf(ZPROP_handle* handle, const char* file, const char* stanza, const char* key,
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

// ---------------------------------------------------------------- what the format can hold

// A line is read in pieces of 8191 bytes, its newline counted; more wouldn't come back whole.
static const size_t kLongestLine = 8191;

static bool isBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

static bool hasLineEnd(const char* text) { return strpbrk(text, "\n\r") != nullptr; }

static bool hasBlankEnds(const char* text) {
    const size_t length = strlen(text);
    return length != 0 && (isBlank(text[0]) || isBlank(text[length - 1]));
}

int checkStanza(const char* stanza) {
    if (*stanza == '\0' || hasLineEnd(stanza) || strchr(stanza, ']') != nullptr ||
        strlen(stanza) + 3 > kLongestLine)
        return complain(usage, "a stanza's name can't be empty, hold ] or a line end: %s", stanza);
    return done;
}

int checkKey(const char* key) {
    if (*key == '\0' || hasLineEnd(key) || hasBlankEnds(key) || strchr(key, '=') != nullptr ||
        *key == '#' || *key == '[')
        return complain(usage,
                        "a key can't be empty, hold = or a line end, begin with # or [, or have "
                        "blanks at its ends: %s",
                        key);
    return done;
}

static int checkValue(const char* key, const char* value) {
    if (hasLineEnd(value) || hasBlankEnds(value))
        return complain(usage, "a value can't hold a line end or have blanks at its ends");
    if (strlen(key) + strlen(value) + 4 > kLongestLine)
        return complain(usage, "the entry is longer than a line can be");
    return done;
}

int checkEntry(const char* stanza, const char* key, const char* value) {
    const int result = checkStanza(stanza);
    if (result != done)
        return result;
    return checkKey(key) != done ? usage : checkValue(key, value);
}

int checkComment(const char* text) {
    if (*text == '\0' || hasLineEnd(text) || hasBlankEnds(text) || strlen(text) + 2 > kLongestLine)
        return complain(usage, "a comment is one line of text, without blanks at its ends");
    return done;
}

bool parseInteger(const char* text, unsigned int& number) {
    char* end;
    errno = 0;
    const unsigned long long parsed = strtoull(text, &end, 0);
    number = static_cast<unsigned int>(parsed);
    return *text != '\0' && *text != '-' && !isBlank(*text) && *end == '\0' && errno == 0 &&
           parsed <= 0xFFFFFFFFull;
}

bool parseBoolean(const char* text, int& truth) {
    for (const char* word : {"yes", "y", "true", "t", "1"})
        if (strcasecmp(text, word) == 0) {
            truth = 1;
            return true;
        }
    for (const char* word : {"no", "n", "false", "f", "0"})
        if (strcasecmp(text, word) == 0) {
            truth = 0;
            return true;
        }
    return false;
}
