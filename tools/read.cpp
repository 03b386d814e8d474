#include "zstz.h"

#include <algorithm>

// ---------------------------------------------------------------- get

// Prints the values of one key as `get` does. A key that isn't there has the default one.
static Exit printValues(ZPROP_handle* handle, const char* file, const char* stanza, const char* key,
                        const Options& options) {
    Words values;
    if (!hasEntry(handle, stanza, key))
        values.push_back(options.defaultText);
    else if (const Exit failed = valuesOf(handle, file, stanza, key, values))
        return failed;
    if (options.all && options.json) {
        puts(jsonList(values).c_str());
    } else if (options.json) {
        puts(values.empty() ? jsonOfNone(isBare(handle, stanza, key)).c_str()
                            : jsonOf(values.back()).c_str());
    } else if (options.all) {
        for (const std::string& value : values)
            puts(value.c_str());
    } else {
        puts(values.empty() ? "" : values.back().c_str());
    }
    return done;
}

Exit get(const Words& words, const Options& options) {
    if (words.size() % 2 == 0)
        return complain(usage, "get takes FILE and pairs of STANZA and KEY");
    if ((options.all || options.layers.all) && !options.json && words.size() > 3)
        return complain(usage, "%s with several keys goes with --json",
                        options.all ? "--all" : "--all-layers");
    const char* file = words[0].c_str();
    Handle handle;
    if (const Exit failed = openFile(file, options, handle))
        return failed;
    // Either a line for each or none.
    bool areThere = true;
    for (size_t i = 1; !options.hasDefault && i < words.size(); i += 2)
        areThere = isThere(handle.get(), file, words[i].c_str(), words[i + 1].c_str()) && areThere;
    if (!areThere)
        return notFound;
    if (options.layers.withOrigins())
        return getOrigins(handle.get(), words, options);
    for (size_t i = 1; i < words.size(); i += 2)
        if (const Exit failed =
                printValues(handle.get(), file, words[i].c_str(), words[i + 1].c_str(), options))
            return failed;
    return done;
}

// ---------------------------------------------------------------- list

static Exit listEntries(ZPROP_handle* handle, const char* file, const char* stanza) {
    Words keys;
    if (const Exit failed = keysOf(handle, file, stanza, keys))
        return failed;
    for (const std::string& key : keys) {
        Words values;
        if (const Exit failed = valuesOf(handle, file, stanza, key.c_str(), values))
            return failed;
        for (const std::string& value : values)
            printf("%s = %s\n", key.c_str(), inLines(value).c_str());
        if (values.empty())
            printf("%s%s\n", key.c_str(), isBare(handle, stanza, key.c_str()) ? "" : " =");
    }
    return done;
}

namespace {

// Prints entries, as a walk over all of them brings them, as nested objects: a line a key.
class JSONPrinter {
public:
    // Of all stanzas if `only` is null.
    JSONPrinter(ZPROP_handle* handle, const char* only) : handle_(handle), only_(only) {
        putchar('{');
    }

    void take(const ZPROP_entry& entry) {
        if (entry.key == nullptr) {
            endStanza();
            if (only_ != nullptr && strcmp(only_, entry.stanza) != 0)
                return;
            isOpen_ = true;
            isFirstKey_ = true;
            stanza_ = entry.stanza;
            if (only_ == nullptr)
                printf("%s\n%s: {", isFirst_ ? "" : ",", jsonNameOf(entry.stanza).c_str());
            isFirst_ = false;
            return;
        }
        if (!isOpen_)
            return;
        if (!hasKey_ || key_ != entry.key)
            endKey();
        hasKey_ = true;
        key_ = entry.key;
        areHidden_ = entry.hidden != 0;
        if (entry.value != nullptr)
            values_.push_back(entry.value);
    }
    void end() {
        endStanza();
        fputs(only_ != nullptr || isFirst_ ? "}\n" : "\n}\n", stdout);
    }

private:
    void endKey() {
        if (hasKey_)
            printf("%s\n  %s: %s", isFirstKey_ ? "" : ",", jsonNameOf(key_).c_str(),
                   (values_.empty() ? jsonOfNone(isBare(handle_, stanza_.c_str(), key_.c_str()))
                                    : jsonOfValues(values_, areHidden_))
                       .c_str());
        isFirstKey_ = isFirstKey_ && !hasKey_;
        hasKey_ = false;
        values_.clear();
    }
    void endStanza() {
        endKey();
        if (isOpen_ && !isFirstKey_)
            putchar('\n');
        if (isOpen_ && only_ == nullptr)
            putchar('}');
        isOpen_ = false;
    }

    ZPROP_handle* const handle_;
    const char* const only_;
    bool isFirst_ = true, isFirstKey_ = true, isOpen_ = false, hasKey_ = false, areHidden_ = false;
    std::string stanza_, key_;
    Words values_;
};

}  // namespace

static Exit listAsJSON(ZPROP_handle* handle, const char* file, const char* stanza) {
    JSONPrinter printer(handle, stanza);
    const auto take = [](void* to, const ZPROP_entry* entry) {
        static_cast<JSONPrinter*>(to)->take(*entry);
        return 0;
    };
    if (zstzPropForEach(handle, take, &printer) != ZPROP_OK)
        return reportLastError(file);
    printer.end();
    return done;
}

Exit list(const Words& words, const Options& options) {
    const char* file = words[0].c_str();
    const char* stanza = words.size() > 1 ? words[1].c_str() : nullptr;
    Handle handle;
    if (const Exit failed = openFile(file, options, handle))
        return failed;
    if (stanza != nullptr && !isThere(handle.get(), file, stanza, nullptr))
        return notFound;
    if (options.layers.withOrigins())
        return listOrigins(handle.get(), file, stanza, options);
    if (options.json)
        return listAsJSON(handle.get(), file, stanza);
    if (stanza != nullptr)
        return listEntries(handle.get(), file, stanza);
    Words stanzas;
    if (const Exit failed = stanzasOf(handle.get(), file, stanzas))
        return failed;
    for (const std::string& name : stanzas)
        puts(name.c_str());
    return done;
}

// ---------------------------------------------------------------- check

static void printAsJSON(const char* file, const Failed& failed) {
    printf("{\"file\": %s, \"ok\": false, \"in\": %s, ", jsonOf(file).c_str(),
           jsonOf(failed.file).c_str());
    if (failed.line > 0)
        printf("\"line\": %d, \"error\": \"bad line\", \"text\": %s}\n", failed.line,
               jsonOf(failed.text).c_str());
    else
        printf("\"error\": %s}\n", jsonOf(failed.text).c_str());
}

// Tells what is wrong with one file, if anything is.
static Exit checkFile(const char* file, const Options& options,
                      const std::function<void(const Failed&)>& tell) {
    ZPROP_handle* opened = nullptr;
    const ZDialect* dialect;
    int result;
    if (*file == '\0')
        return complain(usage, "FILE is empty");
    if (const Exit failed = dialectFor(file, options, dialect))
        return failed;
    if (isStandardInput(file)) {
        std::string text;
        if (const Exit failed = readStandardInput(text))
            return failed;
        result =
            zstzPropOpenDialectBytes(&opened, text.data(), text.size(), dialect, ZPCACHE_STRICT);
    } else {
        result = zstzPropOpenDialect(&opened, file, ZPROP_OPEN_READ, dialect, ZPCACHE_STRICT,
                                     options.storeMode, options.wait);
    }
    const Handle handle(opened);
    if (result != ZPROP_OK)
        tell(lastFailure(file));
    adviseWaiting(result);
    return done;
}

Exit check(const Words& words, const Options& options) {
    Exit worst = done;
    for (const std::string& file : words) {
        Exit result = done;
        const auto tell = [&](const Failed& failed) {
            result = std::max(result, failed.code);
            if (options.json)
                printAsJSON(file.c_str(), failed);
            else
                report(failed);
        };
        if (options.isLayers(file.c_str()))
            findBad(options, tell);
        else if (const Exit failed = checkFile(file.c_str(), options, tell))
            result = failed;
        if (options.json && result == done)
            printf("{\"file\": %s, \"ok\": true}\n", jsonOf(file).c_str());
        worst = std::max(worst, result);
    }
    return worst;
}
