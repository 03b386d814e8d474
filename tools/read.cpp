#include <cstdio>

#include "zstz.h"

Exit get(const Words& words, const Options& options) {
    const char *file = words[0].c_str(), *stanza = words[1].c_str(), *key = words[2].c_str();
    Handle handle;
    if (const Exit failed = openFile(file, options, handle))
        return failed;
    if (!isThere(handle.get(), file, stanza, key))
        return notFound;
    Words values;
    if (const Exit failed = valuesOf(handle.get(), file, stanza, key, values))
        return failed;
    if (options.all) {
        for (const std::string& value : values)
            puts(value.c_str());
    } else {
        puts(values.empty() ? "" : values.back().c_str());
    }
    return done;
}

static Exit listEntries(ZPROP_handle* handle, const char* file, const char* stanza) {
    if (!isThere(handle, file, stanza, nullptr))
        return notFound;
    Words keys;
    if (const Exit failed = keysOf(handle, file, stanza, keys))
        return failed;
    for (const std::string& key : keys) {
        Words values;
        if (const Exit failed = valuesOf(handle, file, stanza, key.c_str(), values))
            return failed;
        for (const std::string& value : values)
            printf("%s = %s\n", key.c_str(), value.c_str());
        if (values.empty())
            printf("%s =\n", key.c_str());
    }
    return done;
}

Exit list(const Words& words, const Options& options) {
    const char* file = words[0].c_str();
    Handle handle;
    if (const Exit failed = openFile(file, options, handle))
        return failed;
    if (words.size() > 1)
        return listEntries(handle.get(), file, words[1].c_str());
    Words stanzas;
    if (const Exit failed = stanzasOf(handle.get(), file, stanzas))
        return failed;
    for (const std::string& stanza : stanzas)
        puts(stanza.c_str());
    return done;
}

Exit check(const Words& words, const Options& options) {
    Exit worst = done;
    for (const std::string& file : words) {
        Handle handle;
        const Exit result = openFile(file.c_str(), options, handle);
        worst = result > worst ? result : worst;
    }
    return worst;
}

// ---------------------------------------------------------------- diff

namespace {

// One of the two files that are compared.
struct Side {
    const char* file;
    char sign;
    Handle handle;

    bool has(const char* stanza, const char* key) const {
        int error = 0;
        return zstzPropExists(handle.get(), stanza, key, &error) != 0;
    }
    bool hides(const char* stanza, const char* key) const {
        int error = 0;
        return zstzPropIsHidden(handle.get(), stanza, key, &error) != 0;
    }
    // Prints what this side has of the key. What is hidden stays so.
    Exit print(const char* stanza, const char* key) const {
        if (hides(stanza, key)) {
            printf("%c [%s] %s (hidden)\n", sign, stanza, key);
            return done;
        }
        Words values;
        if (const Exit failed = valuesOf(handle.get(), file, stanza, key, values))
            return failed;
        for (const std::string& value : values)
            printf("%c [%s] %s = %s\n", sign, stanza, key, value.c_str());
        if (values.empty())
            printf("%c [%s] %s =\n", sign, stanza, key);
        return done;
    }
};

}  // namespace

// Prints what one side has and the other lacks, and, once for both, where their values differ.
static Exit printDifferences(const Side& here, const Side& there, bool printChanged, bool& found) {
    Words stanzas;
    if (const Exit failed = stanzasOf(here.handle.get(), here.file, stanzas))
        return failed;
    for (const std::string& name : stanzas) {
        const char* stanza = name.c_str();
        if (!there.has(stanza, nullptr)) {
            printf("%c [%s]\n", here.sign, stanza);
            found = true;
        }
        Words keys;
        if (const Exit failed = keysOf(here.handle.get(), here.file, stanza, keys))
            return failed;
        for (const std::string& keyName : keys) {
            const char* key = keyName.c_str();
            const bool inBoth = there.has(stanza, key);
            if (inBoth && !printChanged)
                continue;
            if (inBoth) {
                Words left, right;
                Exit failed = valuesOf(here.handle.get(), here.file, stanza, key, left);
                if (failed == done)
                    failed = valuesOf(there.handle.get(), there.file, stanza, key, right);
                if (failed != done)
                    return failed;
                if (left == right && here.hides(stanza, key) == there.hides(stanza, key))
                    continue;
            }
            found = true;
            Exit failed = here.print(stanza, key);
            if (failed == done && inBoth)
                failed = there.print(stanza, key);
            if (failed != done)
                return failed;
        }
    }
    return done;
}

Exit diff(const Words& words, const Options& options) {
    Side before = {words[0].c_str(), '-', nullptr}, after = {words[1].c_str(), '+', nullptr};
    Exit failed = openFile(before.file, options, before.handle);
    if (failed == done)
        failed = openFile(after.file, options, after.handle);
    bool found = false;
    if (failed == done)
        failed = printDifferences(before, after, true, found);
    if (failed == done)
        failed = printDifferences(after, before, false, found);
    return failed != done ? failed : found ? differ : done;
}
