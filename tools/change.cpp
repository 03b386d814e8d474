// change.cpp: changes are checked first, all of them, then made in one update: all or none.
#include <cerrno>
#include <cstdlib>

#include "zstz.h"

// ---------------------------------------------------------------- single changes

namespace {

// One change, its words behind the name of the file: set s k v.
struct Change {
    Words words;
    Terms terms;              // of set
    unsigned int number = 0;  // the value as one, of an integer
    int truth = 0;            // of a boolean

    const char* word(size_t i) const { return i < words.size() ? words[i].c_str() : nullptr; }
    bool is(const char* name) const { return words[0] == name; }
};

}  // namespace

// What a message calls the place of a change; null or empty is what doesn't belong to it.
static std::string placeOf(const char* stanza, const char* key) {
    const auto hasText = [](const char* text) { return text != nullptr && *text != '\0'; };
    if (stanza == nullptr)
        return "the file";
    return std::string("[") + stanza + "]" + (hasText(key) ? " " : "") + (hasText(key) ? key : "");
}

namespace {

// Why a change failed: what the last call has met, or something else.
struct Refusal {
    Refusal() : why(lastErrorText()), isOfText(wasRefused()) {}
    explicit Refusal(const std::string& text) : why(text), isOfText(false) {}

    std::string why;
    bool isOfText;  // the file can't hold it
};

}  // namespace

// A change that failed for another reason than the file. With names and values that were tried out,
// what can be wrong with it is that text would go where hidden values are.
static Exit refuse(ZPROP_handle* handle, const char* file, const char* stanza, const char* key,
                   Refusal refusal = Refusal()) {
    if (key != nullptr && isHidden(handle, stanza, key))
        refusal = Refusal("its values are hidden; unset it first");
    const bool isSide = stanza != nullptr && strcmp(stanza, ZPROP_SIDE_STANZA) == 0;
    return reportError(refusal.isOfText && !isSide ? usage : badData, file,
                       "can't change " + placeOf(stanza, key) + ": " + refusal.why);
}

// A condition that doesn't hold.
static Exit tellUnmet(const char* file, const char* stanza, const char* key, const char* why) {
    fprintf(stderr, "%s: %s %s\n", file, placeOf(stanza, key).c_str(), why);
    return unmet;
}

// Whether the change may be made to the key as it is now.
static Exit checkConditions(ZPROP_handle* handle, const char* file, const Change& change) {
    const char *stanza = change.word(1), *key = change.word(2);
    const bool exists = hasEntry(handle, stanza, key);
    if (change.terms.ifMissing && exists)
        return tellUnmet(file, stanza, key, "is there already");
    if (!change.terms.ifEquals)
        return done;
    Words values;
    if (const Exit failed = valuesOf(handle, file, stanza, key, values))
        return failed;
    const bool isEqual = values.empty() ? change.terms.equals.empty()
                                        : values.size() == 1 && values[0] == change.terms.equals;
    return exists && isEqual ? done : tellUnmet(file, stanza, key, "has another value");
}

// Reads the key's value, which is this text, as its type. What it isn't, if it is none; else null.
static const char* readTyped(ZPROP_handle* handle, Change& change, const char* value) {
    const char *stanza = change.word(1), *key = change.word(2);
    int error = ZPROP_OK;
    if (change.terms.type == integerType) {
        // A look-up takes the nearest number for one that is out of range, and lets a minus wrap.
        change.number = zstzPropGetIntegerValue(handle, stanza, key, 1, &error);
        const bool isGood =
            error == ZPROP_OK && *value != '-' && strtoull(value, nullptr, 0) == change.number;
        return isGood ? nullptr : "not an integer from 0 to 4294967295";
    }
    if (change.terms.type == booleanType)
        change.truth = zstzPropGetBooleanValue(handle, stanza, key, 1, &error);
    return error == ZPROP_OK ? nullptr : "neither yes nor no";
}

// Whether the value that a sample has brought is of the type.
static Exit checkSample(ZPROP_handle* handle, const char* file, Change change) {
    const char *stanza = change.word(1), *key = change.word(2);
    Words values;
    if (const Exit failed = valuesOf(handle, file, stanza, key, values))
        return failed;
    const std::string value = values.empty() ? "" : values.back();
    const char* fault = readTyped(handle, change, value.c_str());
    return fault == nullptr
               ? done
               : refuse(handle, file, stanza, key, Refusal(std::string(fault) + ": " + value));
}

// Turns the sample of a key that isn't there into its entry.
static Exit uncomment(ZPROP_handle* handle, const char* file, const Change& change) {
    const char *stanza = change.word(1), *key = change.word(2);
    bool found = hasEntry(handle, stanza, key);
    if (!found && uncommentEntry(handle, stanza, key, found) != ZPROP_OK)
        return refuse(handle, file, stanza, key);
    if (found && change.word(3) == nullptr)
        return checkSample(handle, file, change);
    // A value makes the entry where there is no sample.
    return found || change.word(3) != nullptr
               ? done
               : tellUnmet(file, stanza, key, "has no sample, as # KEY = VALUE; give it a VALUE");
}

static Exit set(ZPROP_handle* handle, const char* file, const Change& change) {
    const char *stanza = change.word(1), *key = change.word(2);
    Exit failed = checkConditions(handle, file, change);
    if (failed == done && change.terms.uncomment)
        failed = uncomment(handle, file, change);
    if (failed == done && change.terms.bare)
        return zstzPropSetBare(handle, stanza, key) == ZPROP_OK ? done
                                                                : refuse(handle, file, stanza, key);
    if (failed != done || change.word(3) == nullptr)
        return failed;
    const int result = change.terms.type == integerType
                           ? zstzPropSetIntegerValue(handle, stanza, key, change.number)
                       : change.terms.type == booleanType
                           ? zstzPropSetBooleanValue(handle, stanza, key, change.truth)
                           : zstzPropSetStringValue(handle, stanza, key, change.word(3));
    return result == ZPROP_OK ? done : refuse(handle, file, stanza, key);
}

// Adds a value behind the last of the key. False, and why, if it can't be.
static bool addValue(ZPROP_handle* handle, const char* stanza, const char* key, const char* value,
                     Refusal& refusal) {
    ZPROP_iter_handle* made = nullptr;
    int result = zstzPropIter_init(handle, stanza, key, &made);
    const Walk walk(made);
    while (result == ZPROP_OK && zstzPropIter_next(walk.get(), &result) != 0) {
    }
    if (result == ZPROP_OK)
        result = zstzPropIter_addValue(walk.get(), value);
    if (result != ZPROP_OK)
        refusal = Refusal();  // the end of the walk is a call too
    return result == ZPROP_OK;
}

static Exit add(ZPROP_handle* handle, const char* file, const char* stanza, const char* key,
                const char* value) {
    Refusal refusal;
    return addValue(handle, stanza, key, value, refusal)
               ? done
               : refuse(handle, file, stanza, key, refusal);
}

// Removes every such value of the key.
static Exit unsetValue(ZPROP_handle* handle, const char* file, const char* stanza, const char* key,
                       const char* value) {
    Walk walk;
    if (const Exit failed = walkValues(handle, file, stanza, key, walk))
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

static Exit unset(ZPROP_handle* handle, const char* file, const Change& change) {
    const char *stanza = change.word(1), *key = change.word(2), *value = change.word(3);
    if (!isThere(handle, file, stanza, key))
        return notFound;
    if (value != nullptr)
        return unsetValue(handle, file, stanza, key, value);
    const int result = key == nullptr ? zstzPropRemoveStanza(handle, stanza)
                                      : zstzPropRemoveKey(handle, stanza, key);
    return result == ZPROP_OK ? done : refuse(handle, file, stanza, key);
}

// What a comment is about: one of the names ahead of its text; null where it is about more.
static const char* commented(const Change& change, size_t i) {
    return i + 1 < change.words.size() ? change.word(i) : nullptr;
}

static int addComment(ZPROP_handle* handle, const Change& change) {
    const char *stanza = commented(change, 1), *key = commented(change, 2);
    const char* text = change.words.back().c_str();
    return stanza == nullptr ? zstzPropAddFileComment(handle, text)
           : key == nullptr  ? zstzPropAddStanzaComment(handle, stanza, text)
                             : zstzPropAddLineComment(handle, stanza, key, text);
}

static Exit comment(ZPROP_handle* handle, const char* file, const Change& change) {
    return addComment(handle, change) == ZPROP_OK
               ? done
               : refuse(handle, file, commented(change, 1), commented(change, 2));
}

// The last word is the new name, of the stanza or key ahead of it.
static Exit rename(ZPROP_handle* handle, const char* file, const Change& change) {
    const char *stanza = change.word(1), *key = commented(change, 2);
    const char* name = change.words.back().c_str();
    if (!isThere(handle, file, stanza, key))
        return notFound;
    // Another spelling of the same name is none that is taken.
    const ZDialect* dialect = dialectOf(handle);
    const bool isSame =
        dialect != nullptr && folded(*dialect, name, key == nullptr) ==
                                  folded(*dialect, key == nullptr ? stanza : key, key == nullptr);
    if (!isSame &&
        hasEntry(handle, key == nullptr ? name : stanza, key == nullptr ? nullptr : name))
        return tellUnmet(file, key == nullptr ? name : stanza, key == nullptr ? nullptr : name,
                         "is there already; unset it first");
    bool found = false;
    return renameEntry(handle, stanza, key, name, found) != ZPROP_OK
               ? refuse(handle, file, stanza, nullptr)
           : found ? done
                   : tellUnmet(file, stanza, key, "isn't in the file");
}

static Exit disable(ZPROP_handle* handle, const char* file, const Change& change) {
    const char *stanza = change.word(1), *key = change.word(2);
    bool found = false;
    if (!isThere(handle, file, stanza, key))
        return notFound;
    if (disableEntry(handle, stanza, key, found) != ZPROP_OK)
        return reportError(badData, file,
                           "can't change " + placeOf(stanza, key) + ": " + lastErrorText());
    return found ? done : tellUnmet(file, stanza, key, "isn't in the file");
}

static Exit apply(ZPROP_handle* handle, const char* file, const Change& change) {
    if (change.is("set"))
        return set(handle, file, change);
    if (change.is("add"))
        return add(handle, file, change.word(1), change.word(2), change.word(3));
    if (change.is("rename"))
        return rename(handle, file, change);
    if (change.is("disable"))
        return disable(handle, file, change);
    return change.is("unset") ? unset(handle, file, change) : comment(handle, file, change);
}

// ---------------------------------------------------------------- checks

namespace {

// An empty text on which changes are tried out: names and values that the library refuses there it
// refuses in any file.
class Trial {
public:
    Trial(const char* file, const Options& options) : file_(file), options_(options) {}

    // Tries out what a change brings, and reads the value if it has a type.
    Exit run(Change& change) {
        if (handle_ == nullptr)
            if (const Exit failed = openText(file_, "", options_, handle_))
                return failed;
        // In an empty text there is none that could be repeated, and no value beside another.
        const ZDialect* dialect = dialectOf(handle_.get());
        if (dialect != nullptr && dialect->repeated == ZDIALECT_NUMBERED) {
            Change first = change;
            first.words[1] = withoutNumber(first.words[1]);
            const Exit failed = tryOut(first, dialect);
            change.number = first.number;
            change.truth = first.truth;
            return failed;
        }
        return tryOut(change, dialect);
    }

private:
    Exit tryOut(Change& change, const ZDialect* dialect) {
        if (change.is("comment"))
            return addComment(handle_.get(), change) == ZPROP_OK
                       ? done
                       : refuse(commented(change, 1), commented(change, 2), lastErrorText());
        const char *stanza = change.word(1), *key = change.word(2), *value = change.word(3);
        const bool isOnly = dialect != nullptr && dialect->values == ZDIALECT_LAST_VALUE;
        if (change.terms.bare)
            return zstzPropSetBare(handle_.get(), stanza, key) == ZPROP_OK
                       ? done
                       : refuse(stanza, key, lastErrorText());
        if (change.is("rename")) {
            const bool isStanza = commented(change, 2) == nullptr;
            if (change.words.back() == change.words[change.words.size() - 2])
                return complain(usage, "%s is the name that it has", change.words.back().c_str());
            stanza = isStanza ? key : stanza;
            key = isStanza ? "key" : value;
            value = "";
        }
        Refusal refusal;
        if (zstzPropSetStringValue(handle_.get(), stanza, key, value) != ZPROP_OK)
            return refuse(stanza, key, lastErrorText());
        if (change.is("add") && !isOnly && !addValue(handle_.get(), stanza, key, value, refusal))
            return refuse(stanza, key, refusal.why);
        const char* fault = value == nullptr ? nullptr : readTyped(handle_.get(), change, value);
        return fault == nullptr ? done : complain(usage, "%s: %s", fault, value);
    }

    static Exit refuse(const char* stanza, const char* key, const std::string& why) {
        return complain(usage, "can't change %s: %s", placeOf(stanza, key).c_str(), why.c_str());
    }

    const char* const file_;
    const Options& options_;
    Handle handle_;
};

}  // namespace

// Whether the change can be made in any file.
static Exit checkChange(Change& change, Trial& trial) {
    const Command* command = findCommand(change.words[0]);
    if (command == nullptr || !command->isChange())
        return complain(usage, "no such change: %s; see zstz --help", change.word(0));
    // Its name stands in the place of the file.
    if (const Exit failed = checkCount(*command, change.words.size()))
        return failed;
    if (const Exit failed = checkTerms(command->name, change.terms))
        return failed;
    if (change.is("set") && change.terms.bare && change.word(3) != nullptr)
        return complain(usage, "set takes no VALUE with --bare");
    if (change.is("set") && change.word(3) == nullptr && !change.terms.uncomment &&
        !change.terms.bare)
        return complain(usage, "set takes a VALUE, but with --uncomment or --bare");
    return change.is("unset") || change.is("disable") ? done : trial.run(change);
}

// ---------------------------------------------------------------- one change

Exit change(const Words& words, const Options& options) {
    Change change;
    change.words = words;
    change.words.erase(change.words.begin() + 1);  // the file
    change.terms = options.terms;
    const char* file = words[1].c_str();
    if (*file == '\0')
        return complain(usage, "FILE is empty");
    Trial trial(file, options);
    if (const Exit failed = checkChange(change, trial))
        return failed;
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

// Takes the options behind a change's name.
static Exit takeTerms(Change& change) {
    Words& words = change.words;
    while (words.size() > 1) {
        const std::string option = words[1];
        const bool takesWord = option == "--type" || option == "--if-equals";
        if (takesWord && words.size() < 3)
            return complain(usage, "%s needs a word behind it", option.c_str());
        if (option == "--if-missing") {
            change.terms.ifMissing = true;
        } else if (option == "--uncomment") {
            change.terms.uncomment = true;
        } else if (option == "--bare") {
            change.terms.bare = true;
        } else if (option == "--if-equals") {
            change.terms.ifEquals = true;
            change.terms.equals = words[2];
        } else if (option == "--type") {
            if (const Exit failed = parseType(words[2].c_str(), change.terms.type))
                return failed;
        } else {
            return done;
        }
        words.erase(words.begin() + 1, words.begin() + (takesWord ? 3 : 2));
    }
    return done;
}

// The change that a line says.
static Exit readChange(const std::string& line, Change& change, Trial& trial) {
    if (!divide(line, change.words))
        return complain(usage, "a quote isn't closed: %s", line.c_str());
    if (const Exit failed = takeTerms(change))
        return failed;
    return change.words.empty() ? complain(usage, "an empty change") : checkChange(change, trial);
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

Exit edit(const Words& words, const Options& options) {
    Words lines(words.begin() + 1, words.end());
    if (options.editor)
        return lines.empty() ? editByEditor(words[0].c_str(), options)
                             : complain(usage, "edit takes changes or --editor");
    if (lines.empty() && isStandardInput(words[0].c_str()))
        return complain(usage, "with standard input as FILE, changes are arguments");
    if (lines.empty())
        readLines(lines);
    std::vector<Change> changes(lines.size());
    const char* file = words[0].c_str();
    Trial trial(file, options);
    for (size_t i = 0; i < lines.size(); ++i) {
        Exit failed = readChange(lines[i], changes[i], trial);
        if (failed == done && options.isLayers(words[0].c_str()))
            failed = checkForLayers(changes[i].word(0), changes[i].terms);
        if (failed != done) {
            fprintf(stderr, "zstz: nothing is done, because of: %s\n", lines[i].c_str());
            return failed;
        }
    }
    return update(file, options, [&](ZPROP_handle* handle) -> Exit {
        for (size_t i = 0; i < changes.size(); ++i)
            if (const Exit failed = apply(handle, file, changes[i])) {
                fprintf(stderr, "zstz: nothing is done, because of: %s\n", lines[i].c_str());
                return failed;
            }
        return done;
    });
}

// ---------------------------------------------------------------- merge

namespace {

// The two files of a merge.
struct Merge {
    ZPROP_handle *const base, *const over;
    const char *const file, *const overFile;
    // By the place in the base: the name that was taken over there.
    std::map<std::pair<std::string, std::string>, std::string> taken;

    // Makes the values of one key those of the other file. The names are that file's; `baseStanza`
    // is the base's.
    Exit takeOver(const char* stanza, const char* key, const char* baseStanza, const char* baseKey);
    Exit takeStanza(const std::string& stanza, Counterparts& stanzas);
    Exit removeOthers();

private:
    bool isSpelledTwice(const char* stanza, const char* key, const char* name);
};

}  // namespace

// Whether the base takes two names of the other file for the same.
bool Merge::isSpelledTwice(const char* stanza, const char* key, const char* name) {
    const ZDialect* dialect = dialectOf(base);
    if (dialect == nullptr || dialect->names == ZDIALECT_EXACT)
        return false;
    const auto place = std::make_pair(folded(*dialect, stanza, true),
                                      key == nullptr ? "" : "=" + folded(*dialect, key, false));
    return taken.emplace(place, name).first->second != name;
}

static const char kSpelledTwice[] = "another spelling of the same name was taken over already";

Exit Merge::takeOver(const char* stanza, const char* key, const char* baseStanza,
                     const char* baseKey) {
    Words now, wanted;
    const char* name = baseKey == nullptr ? key : baseKey;
    if (isSpelledTwice(baseStanza, name, key))
        return reportError(usage, file,
                           "can't change " + placeOf(stanza, key) + ": " + kSpelledTwice);
    Exit failed = valuesOf(over, overFile, stanza, key, wanted);
    // A name that the base can't hold may not be asked for.
    if (failed == done && baseKey != nullptr)
        failed = valuesOf(base, file, baseStanza, name, now);
    if (failed != done)
        return failed;
    const bool bare = isBare(over, stanza, key);
    if (now == wanted && baseKey != nullptr &&
        (!now.empty() || bare == isBare(base, baseStanza, name)))
        return done;
    // The C interface puts no hidden values in, and text must not show what was hidden.
    if (isHidden(over, stanza, key))
        return reportError(badData, overFile,
                           placeOf(stanza, key) + " is hidden and can't be taken over");
    const char* first = wanted.empty() ? "" : wanted[0].c_str();
    const int result = bare ? zstzPropSetBare(base, baseStanza, name)
                            : zstzPropSetStringValue(base, baseStanza, name, first);
    if (result != ZPROP_OK)
        return refuse(base, file, baseStanza, name);
    for (size_t i = 1; i < wanted.size(); ++i)
        if ((failed = add(base, file, baseStanza, name, wanted[i].c_str())) != done)
            return failed;
    return done;
}

Exit Merge::takeStanza(const std::string& stanza, Counterparts& stanzas) {
    Words keys;
    if (const Exit failed = keysOf(over, overFile, stanza.c_str(), keys))
        return failed;
    const char* known = stanzas.find(stanza);
    const std::string baseStanza = known == nullptr ? stanza : known;
    if (isSpelledTwice(baseStanza.c_str(), nullptr, stanza.c_str()))
        return reportError(
            usage, file, "can't change " + placeOf(stanza.c_str(), nullptr) + ": " + kSpelledTwice);
    Counterparts there(over, base, file, baseStanza.c_str());
    for (const std::string& key : keys) {
        const char* same = there.find(key);
        if (const Exit failed = takeOver(stanza.c_str(), key.c_str(), baseStanza.c_str(), same))
            return failed;
    }
    return done;
}

// Removes what only the first file has.
Exit Merge::removeOthers() {
    Words stanzas;
    if (const Exit failed = stanzasOf(base, file, stanzas))
        return failed;
    Counterparts others(base, over, overFile, nullptr);
    for (const std::string& stanza : stanzas) {
        if (stanza == ZPROP_SIDE_STANZA)  // says where hidden values are
            continue;
        const char* const other = others.find(stanza);
        if (other == nullptr) {
            if (zstzPropRemoveStanza(base, stanza.c_str()) != ZPROP_OK)
                return refuse(base, file, stanza.c_str(), nullptr);
            continue;
        }
        Words keys;
        if (const Exit failed = keysOf(base, file, stanza.c_str(), keys))
            return failed;
        Counterparts otherKeys(base, over, overFile, other);
        for (const std::string& key : keys)
            if (otherKeys.find(key) == nullptr &&
                zstzPropRemoveKey(base, stanza.c_str(), key.c_str()) != ZPROP_OK)
                return refuse(base, file, stanza.c_str(), key.c_str());
    }
    return done;
}

Exit merge(const Words& words, const Options& options) {
    const char *file = words[0].c_str(), *overFile = words[1].c_str();
    Handle over;
    if (const Exit failed = openFile(overFile, options, over))
        return failed;
    return update(file, options, [&](ZPROP_handle* base) -> Exit {
        Merge both = {base, over.get(), file, overFile, {}};
        Words stanzas;
        if (const Exit failed = stanzasOf(over.get(), overFile, stanzas))
            return failed;
        Counterparts there(over.get(), base, file, nullptr);
        for (const std::string& stanza : stanzas) {
            if (stanza == ZPROP_SIDE_STANZA)
                continue;
            if (const Exit failed = both.takeStanza(stanza, there))
                return failed;
        }
        return options.remove ? both.removeOthers() : done;
    });
}
