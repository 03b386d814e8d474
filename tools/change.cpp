// change.cpp: changes are checked first, all of them, then made in one update: all or none.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "zstz.h"

// ---------------------------------------------------------------- single changes

namespace {

// One change, its words behind the name of the file: set s k v.
struct Change {
    Words words;
    const char* type = nullptr;  // of set

    const char* word(size_t i) const { return i < words.size() ? words[i].c_str() : nullptr; }
    bool is(const char* name) const { return words[0] == name; }
};

}  // namespace

static int checkTyped(const Change& change) {
    const char* value = change.word(3);
    unsigned int number;
    int truth;
    if (change.type == nullptr || strcmp(change.type, "string") == 0)
        return done;
    if (strcmp(change.type, "integer") == 0)
        return parseInteger(value, number)
                   ? done
                   : complain(usage, "not an integer from 0 to 4294967295: %s", value);
    if (strcmp(change.type, "boolean") == 0)
        return parseBoolean(value, truth) ? done : complain(usage, "neither yes nor no: %s", value);
    return complain(usage, "no such type: %s", change.type);
}

// Whether the change can be made in any file.
static int checkChange(const Change& change) {
    static const struct {
        const char* name;
        size_t least, most;
    } kKinds[] = {{"set", 3, 3}, {"add", 3, 3}, {"unset", 1, 3}, {"comment", 1, 3}};
    for (const auto& kind : kKinds) {
        if (!change.is(kind.name))
            continue;
        const size_t count = change.words.size() - 1;
        if (count < kind.least || count > kind.most)
            return complain(usage, "wrong number of arguments for %s; see zstz --help", kind.name);
        if (change.type != nullptr && !change.is("set"))
            return complain(usage, "--type goes with set");
        if (change.is("unset"))
            return done;
        if (change.is("comment")) {
            int failed = checkComment(change.words.back().c_str());
            if (failed == done && count > 1)
                failed = checkStanza(change.word(1));
            return failed == done && count > 2 ? checkKey(change.word(2)) : failed;
        }
        if (const int failed = checkEntry(change.word(1), change.word(2), change.word(3)))
            return failed;
        if (change.is("add") && *change.word(3) == '\0')
            return complain(usage, "an empty value can't be added");
        return checkTyped(change);
    }
    return complain(usage, "no such change: %s; see zstz --help", change.word(0));
}

// A change that failed for another reason than the file. With names and values that are checked,
// what can be wrong with it is that text would go where hidden values are.
static int refuse(ZPROP_handle* handle, const char* file, const char* stanza, const char* key) {
    ZPROP_error error;
    zstzPropLastError(&error);
    const std::string why = error.text == nullptr ? "failed" : error.text;
    int ignored = 0;
    const bool hidden = *key != '\0' && zstzPropIsHidden(handle, stanza, key, &ignored) != 0;
    static const int kInvalidParameter = 22;
    fprintf(stderr, "%s: error: can't change [%s] %s: %s\n", file, stanza, key,
            hidden                              ? "its values are hidden; unset it first"
            : error.number == kInvalidParameter ? "the file wouldn't give it back"
                                                : why.c_str());
    return badData;
}

static int set(ZPROP_handle* handle, const char* file, const Change& change) {
    const char *stanza = change.word(1), *key = change.word(2), *value = change.word(3);
    const std::string type = change.type == nullptr ? "string" : change.type;
    unsigned int number = 0;
    int truth = 0;
    const int result = type == "integer" && parseInteger(value, number)
                           ? zstzPropSetIntegerValue(handle, stanza, key, number)
                       : type == "boolean" && parseBoolean(value, truth)
                           ? zstzPropSetBooleanValue(handle, stanza, key, truth)
                           : zstzPropSetStringValue(handle, stanza, key, value);
    return result == ZPROP_OK ? done : refuse(handle, file, stanza, key);
}

static int add(ZPROP_handle* handle, const char* file, const char* stanza, const char* key,
               const char* value) {
    Walk walk;
    if (const int failed = walkValues(handle, file, stanza, key, walk))
        return failed;
    int error = 0;
    while (zstzPropIter_next(walk.get(), &error) != 0) {
    }
    if (error == ZPROP_OK && zstzPropIter_addValue(walk.get(), value) == ZPROP_OK)
        return done;
    walk.reset();
    return refuse(handle, file, stanza, key);
}

// Removes every such value of the key.
static int unsetValue(ZPROP_handle* handle, const char* file, const char* stanza, const char* key,
                      const char* value) {
    Walk walk;
    if (const int failed = walkValues(handle, file, stanza, key, walk))
        return failed;
    bool found = false;
    int error = 0;
    while (zstzPropIter_next(walk.get(), &error) != 0) {
        const char* current = zstzPropIter_getValue(walk.get(), 0, &error);
        if (current == nullptr || strcmp(current, value) != 0)
            continue;
        if (zstzPropIter_rmvValue(walk.get()) != ZPROP_OK)
            return refuse(handle, file, stanza, key);
        found = true;
    }
    if (!found) {
        fprintf(stderr, "%s: no value %s of %s in [%s]\n", file, value, key, stanza);
        return notFound;
    }
    return done;
}

static int unset(ZPROP_handle* handle, const char* file, const Change& change) {
    const char *stanza = change.word(1), *key = change.word(2), *value = change.word(3);
    if (!isThere(handle, file, stanza, key))
        return notFound;
    if (value != nullptr)
        return unsetValue(handle, file, stanza, key, value);
    const int result = key == nullptr ? zstzPropRemoveStanza(handle, stanza)
                                      : zstzPropRemoveKey(handle, stanza, key);
    return result == ZPROP_OK ? done : refuse(handle, file, stanza, key == nullptr ? "" : key);
}

static int comment(ZPROP_handle* handle, const char* file, const Change& change) {
    const char* text = change.words.back().c_str();
    const size_t names = change.words.size() - 2;
    const int result = names == 0 ? zstzPropAddFileComment(handle, text)
                       : names == 1
                           ? zstzPropAddStanzaComment(handle, change.word(1), text)
                           : zstzPropAddLineComment(handle, change.word(1), change.word(2), text);
    return result == ZPROP_OK ? done
                              : refuse(handle, file, names > 0 ? change.word(1) : "",
                                       names > 1 ? change.word(2) : "");
}

static int apply(ZPROP_handle* handle, const char* file, const Change& change) {
    if (change.is("set"))
        return set(handle, file, change);
    if (change.is("add"))
        return add(handle, file, change.word(1), change.word(2), change.word(3));
    return change.is("unset") ? unset(handle, file, change) : comment(handle, file, change);
}

// ---------------------------------------------------------------- updates

// Makes an empty file that the library can open. One that is there stays as it is.
static int createFile(const char* file) {
    const int descriptor = open(file, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (descriptor == -1 && errno != EEXIST)
        return complain(fileError, "%s: %s", file, strerror(errno));
    if (descriptor != -1)
        close(descriptor);
    return done;
}

// Opens the file and lets `changes` run as one update.
template <typename Changes>
static int update(const char* file, const Options& options, Changes changes) {
    if (options.create)
        if (const int failed = createFile(file))
            return failed;
    Handle handle;
    if (const int failed = openFile(file, options, handle))
        return failed;
    if (zstzPropBegin(handle.get(), options.wait) != ZPROP_OK)
        return reportLastError(file);
    if (const int failed = changes(handle.get()))
        return failed;  // closing takes back what was done
    if (zstzPropCommit(handle.get()) != ZPROP_OK)
        return reportLastError(file);
    int stored = options.storeMode;
    if (zstzPropLastStoreMode(handle.get(), &stored) == ZPROP_OK && stored < options.storeMode)
        fprintf(stderr,
                "%s: note: changed in place, without a journal: it couldn't be given the "
                "file's owner and access\n",
                file);
    return done;
}

int change(const Words& words, const Options& options) {
    Change change;
    change.words = words;
    change.words.erase(change.words.begin() + 1);  // the file
    change.type = options.type;
    if (const int failed = checkChange(change))
        return failed;
    const char* file = words[1].c_str();
    return update(file, options, [&](ZPROP_handle* handle) { return apply(handle, file, change); });
}

// ---------------------------------------------------------------- edit

// The words of a line, as a shell would divide them: by blanks, but for what stands in quotes or
// behind a backslash. False if a quote is left open.
static bool divide(const std::string& line, Words& words) {
    bool inWord = false;
    char quote = '\0';
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (quote != '\0' && c == quote) {
            quote = '\0';
            continue;
        }
        const bool isBlank = quote == '\0' && strchr(" \t\r", c) != nullptr;
        if (isBlank) {
            inWord = false;
            continue;
        }
        if (!inWord)
            words.push_back("");
        inWord = true;
        if (quote == '\0' && (c == '\'' || c == '"'))
            quote = c;
        else if (c == '\\' && quote != '\'' && i + 1 < line.size())
            words.back() += line[++i];
        else
            words.back() += c;
    }
    return quote == '\0';
}

// The change that a line says.
static int readChange(const std::string& line, Change& change, std::string& type) {
    if (!divide(line, change.words))
        return complain(usage, "a quote isn't closed: %s", line.c_str());
    if (change.words.size() > 2 && change.words[1] == "--type") {
        type = change.words[2];
        change.type = type.c_str();
        change.words.erase(change.words.begin() + 1, change.words.begin() + 3);
    }
    return change.words.empty() ? complain(usage, "an empty change") : checkChange(change);
}

// All of standard input, but for empty lines and those that begin with #.
static void readLines(Words& lines) {
    std::string line;
    for (int c; (c = getchar()) != EOF || !line.empty();) {
        if (c != '\n' && c != EOF) {
            line += static_cast<char>(c);
            continue;
        }
        const size_t first = line.find_first_not_of(" \t\r");
        if (first != std::string::npos && line[first] != '#')
            lines.push_back(line);
        line.clear();
    }
}

int edit(const Words& words, const Options& options) {
    Words lines(words.begin() + 1, words.end());
    if (lines.empty())
        readLines(lines);
    std::vector<Change> changes(lines.size());
    Words types(lines.size());
    for (size_t i = 0; i < lines.size(); ++i)
        if (const int failed = readChange(lines[i], changes[i], types[i])) {
            fprintf(stderr, "zstz: nothing is done, because of: %s\n", lines[i].c_str());
            return failed;
        }
    const char* file = words[0].c_str();
    return update(file, options, [&](ZPROP_handle* handle) -> int {
        for (size_t i = 0; i < changes.size(); ++i)
            if (const int failed = apply(handle, file, changes[i])) {
                fprintf(stderr, "zstz: nothing is done, because of: %s\n", lines[i].c_str());
                return failed;
            }
        return done;
    });
}

// ---------------------------------------------------------------- merge

// Makes the values of one key those of the other file.
static int takeOver(ZPROP_handle* base, ZPROP_handle* over, const char* file, const char* overFile,
                    const char* stanza, const char* key) {
    int error = 0;
    Words now, wanted;
    int failed = valuesOf(over, overFile, stanza, key, wanted);
    if (failed == done)
        failed = valuesOf(base, file, stanza, key, now);
    if (failed != done)
        return failed;
    if (now == wanted && zstzPropExists(base, stanza, key, &error) != 0)
        return done;
    // The C interface puts no hidden values in, and text must not show what was hidden.
    if (zstzPropIsHidden(over, stanza, key, &error) != 0) {
        fprintf(stderr, "%s: error: [%s] %s is hidden and can't be taken over\n", overFile, stanza,
                key);
        return badData;
    }
    const char* first = wanted.empty() ? "" : wanted[0].c_str();
    if (zstzPropSetStringValue(base, stanza, key, first) != ZPROP_OK)
        return refuse(base, file, stanza, key);
    for (size_t i = 1; i < wanted.size(); ++i)
        if ((failed = add(base, file, stanza, key, wanted[i].c_str())) != done)
            return failed;
    return done;
}

// Removes what only the first file has.
static int removeOthers(ZPROP_handle* base, ZPROP_handle* over, const char* file) {
    Words stanzas;
    if (const int failed = stanzasOf(base, file, stanzas))
        return failed;
    for (const std::string& stanza : stanzas) {
        int error = 0;
        if (stanza == "configuration-database")  // says where hidden values are
            continue;
        if (zstzPropExists(over, stanza.c_str(), nullptr, &error) == 0) {
            if (zstzPropRemoveStanza(base, stanza.c_str()) != ZPROP_OK)
                return refuse(base, file, stanza.c_str(), "");
            continue;
        }
        Words keys;
        if (const int failed = keysOf(base, file, stanza.c_str(), keys))
            return failed;
        for (const std::string& key : keys)
            if (zstzPropExists(over, stanza.c_str(), key.c_str(), &error) == 0 &&
                zstzPropRemoveKey(base, stanza.c_str(), key.c_str()) != ZPROP_OK)
                return refuse(base, file, stanza.c_str(), key.c_str());
    }
    return done;
}

int merge(const Words& words, const Options& options) {
    const char *file = words[0].c_str(), *overFile = words[1].c_str();
    Handle over;
    if (const int failed = openFile(overFile, options, over))
        return failed;
    return update(file, options, [&](ZPROP_handle* base) -> int {
        Words stanzas;
        if (const int failed = stanzasOf(over.get(), overFile, stanzas))
            return failed;
        for (const std::string& stanza : stanzas) {
            Words keys;
            if (stanza == "configuration-database")
                continue;
            if (const int failed = keysOf(over.get(), overFile, stanza.c_str(), keys))
                return failed;
            for (const std::string& key : keys)
                if (const int failed =
                        takeOver(base, over.get(), file, overFile, stanza.c_str(), key.c_str()))
                    return failed;
        }
        return options.remove ? removeOthers(base, over.get(), file) : done;
    });
}
