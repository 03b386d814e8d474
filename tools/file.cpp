#include <cstdio>

#include "zstz.h"

Exit complain(Exit code, const char* format, const char* a, const char* b) {
    fputs("zstz: ", stderr);
    fprintf(stderr, format, a, b);
    fputc('\n', stderr);
    return code;
}

// ---------------------------------------------------------------- files

Exit reportLastError(const char* file) {
    ZPROP_error error;
    zstzPropLastError(&error);
    const char* where = error.file == nullptr ? file : error.file;
    const char* text = error.text == nullptr ? "failed" : error.text;
    if (error.line > 0) {
        fprintf(stderr, "%s:%d: error: bad line: %s\n", where, error.line, text);
        return badData;
    }
    if (error.number == invalidData) {
        fprintf(stderr, "%s: error: not a side database\n", where);
        return badData;
    }
    fprintf(stderr, "%s: error: %s\n", where, text);
    return fileError;
}

std::string lastErrorText() {
    ZPROP_error error;
    zstzPropLastError(&error);
    return error.text == nullptr ? "failed" : error.text;
}

Exit openFile(const char* file, const Options& options, Handle& handle) {
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

Exit walkValues(ZPROP_handle* handle, const char* file, const char* stanza, const char* key,
                Walk& walk) {
    ZPROP_iter_handle* made = nullptr;
    if (zstzPropIter_init(handle, stanza, key, &made) != ZPROP_OK)
        return reportLastError(file);
    walk.reset(made);
    return done;
}

Exit stanzasOf(ZPROP_handle* handle, const char* file, Words& out) {
    char** names = nullptr;
    if (zstzPropGetStanzas(handle, &names) != ZPROP_OK)
        return reportLastError(file);
    for (char** name = names; *name != nullptr; ++name)
        out.push_back(*name);
    zstzPropFreeStanzas(names);
    return done;
}

Exit keysOf(ZPROP_handle* handle, const char* file, const char* stanza, Words& out) {
    Walk walk;
    if (const Exit failed = walkValues(handle, file, stanza, nullptr, walk))
        return failed;
    int error = 0;
    while (zstzPropIter_next(walk.get(), &error) != 0)
        out.push_back(zstzPropIter_getKey(walk.get(), &error));
    return done;
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
