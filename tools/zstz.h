// zstz.h: what the commands of zstz share. The command stands on the C interface, but for
// inside.cpp, which asks the object behind a handle for what only that has.
//
//   zstz.cpp      command line and help
//   file.cpp      opening, reporting, reading
//   json.cpp      text as JSON
//   read.cpp      get, list, check
//   differ.cpp    diff
//   change.cpp    set, add, unset, comment, rename, disable; edit, merge
//   update.cpp    one update of a file: backups, trials, standard input and output
//   textdiff.cpp  what differs between two texts, line by line
//   editor.cpp    edit --editor
//   inside.cpp    what the C interface lacks
//   watch.cpp     watch
//   layers.cpp    layered configurations: --layers, layers, cat
//   dialects.cpp  files of other programs: --dialect, dialects, convert
#ifndef TOOLS_ZSTZ_H
#define TOOLS_ZSTZ_H

#include <Z/zdialects.h>
#include <Z/zproperties.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

/// How zstz ends. `unmet` is a condition that doesn't hold.
/// `shadowed` is a change that is stored and has no effect.
/// `leftOut` is a conversion that lacks something.
enum Exit {
    done = 0,
    notFound = 1,
    differ = 1,
    unmet = 1,
    usage = 2,
    fileError = 3,
    badData = 4,
    shadowed = 5,
    leftOut = 6
};

/// What zstzPropLastError calls failures that are no failed call of the system.
enum Failure { refused = 22, invalidData = 44 };

/// What is wrong with a side database of no such content.
static const char kNotASide[] = "not a side database";

/// What the value of set has to be.
enum ValueType { anyType, stringType, integerType, booleanType };

/// What else is said of one set.
struct Terms {
    ValueType type = anyType;
    bool ifMissing = false;
    bool ifEquals = false;
    std::string equals;
    bool uncomment = false;
    bool bare = false;  // without a value and a divider
};

/// A layered configuration in the place of FILE.
struct LayerOptions {
    std::string name;  // NAME or NAME:PROJECT; empty: none
    std::string root;  // the prefix
    std::string to;    // the target of changes
    bool withUser = false;
    bool withOrigin = false;
    bool all = false;        // shadowed entries, too, all with their origin
    bool isChanged = false;  // by this command
    bool mayBeEmpty = false;
    const ZDialect* dialect = nullptr;  // of all files; null: the library's own

    bool isTold() const { return !root.empty() || !to.empty() || withUser || withOrigins(); }
    bool withOrigins() const { return withOrigin || all; }
    /// What stands in the place of FILE, in messages too; no file is called so but as "./--layers".
    std::string label() const;
};

struct Options {
    bool all = false;
    bool create = false;
    bool remove = false;  // of merge: what OVER lacks goes
    bool json = false;
    bool hasDefault = false;
    std::string defaultText;  // of get
    bool dryRun = false;
    bool editor = false;       // of edit
    unsigned int backups = 0;  // how many are kept; 0: none is made
    std::string dialect;       // of all files; empty: the patterns of the presets choose
    std::string toDialect;     // of convert
    Terms terms;
    LayerOptions layers;
    int storeMode = ZPROP_STORE_SAFE;

    bool isLayers(const char* file) const { return !layers.name.empty() && layers.label() == file; }
    unsigned long wait = 10000;  // milliseconds
};

typedef std::vector<std::string> Words;

struct CloseHandle {
    void operator()(ZPROP_handle* handle) const { zstzPropClose(handle); }
};
struct CloseWalk {
    void operator()(ZPROP_iter_handle* walk) const { zstzPropIter_close(walk); }
};
typedef std::unique_ptr<ZPROP_handle, CloseHandle> Handle;
typedef std::unique_ptr<ZPROP_iter_handle, CloseWalk> Walk;

// Commands: the exit code; what is wrong has been told on standard error. Words are the arguments,
// but for change, where the command's name comes first.
Exit get(const Words& words, const Options& options);
Exit list(const Words& words, const Options& options);
Exit check(const Words& words, const Options& options);
Exit diff(const Words& words, const Options& options);
Exit change(const Words& words, const Options& options);
Exit edit(const Words& words, const Options& options);
Exit editByEditor(const char* file, const Options& options);
Exit merge(const Words& words, const Options& options);
Exit watch(const Words& words, const Options& options);
Exit layers(const Words& words, const Options& options);
Exit cat(const Words& words, const Options& options);
Exit dialects(const Words& words, const Options& options);
Exit convert(const Words& words, const Options& options);

struct Command {
    const char* name;
    size_t least, most;  // arguments
    Exit (*run)(const Words& words, const Options& options);

    bool isChange() const { return run == change; }
};

/// The command of this name, or null.
const Command* findCommand(const std::string& name);
/// Complains unless the command takes that many arguments.
Exit checkCount(const Command& command, size_t arguments);
/// Complains of what a command doesn't take.
Exit checkTerms(const char* command, const Terms& terms);
/// The type of this name; complains if there is none.
Exit parseType(const char* name, ValueType& type);

// ---------------------------------------------------------------- files and messages

/// Tells a mistake and gives its code.
Exit complain(Exit code, const char* format, const char* a = "", const char* b = "");

/// What switches a colour on, and all of them off, where this stream leads to a terminal whose user
/// wants them; empty otherwise.
enum Colour { red, green, plainColour };
const char* colourOf(FILE* stream, Colour colour);

/// Whether this name means standard input.
inline bool isStandardInput(const char* file) { return strcmp(file, "-") == 0; }
/// Adds all that a stream holds. False where it can't be read.
bool readAll(FILE* stream, std::string& text);
/// All of standard input; complains where it was read before.
Exit readStandardInput(std::string& text);

/// Tells the last error, of a call that takes the file's lock, and what helps where somebody else
/// has that; only the latter.
Exit reportLocking(const char* file, int result);
void adviseWaiting(int result);
/// Opens and loads the file, or the layered configuration that stands in its place, strictly and a
/// file with its lines kept, or reports.
Exit openFile(const char* file, const Options& options, Handle& handle);
/// The same of a text, as that of this file.
Exit openText(const char* file, const std::string& text, const Options& options, Handle& handle);

/// What the last call has met.
struct Failed {
    Exit code;
    std::string file;
    int line;  // 0: it isn't about a line
    std::string text;
};
Failed lastFailure(const char* file);
/// Tells it, as a compiler would where it was a line of a file.
Exit report(const Failed& failed);
Exit reportLastError(const char* file);
/// What the last call has met, in the library's words.
std::string lastErrorText();
/// Whether it was a name or value that the file can't hold.
bool wasRefused();
/// Tells of a store, or of what it would write. What a dialect refuses shows there only.
Exit reportStoring(ZPROP_handle* handle, const char* file);
/// Tells an error of a file.
Exit reportError(Exit code, const char* file, const std::string& text);

bool hasEntry(ZPROP_handle* handle, const char* stanza, const char* key);
bool isHidden(ZPROP_handle* handle, const char* stanza, const char* key);
/// Whether it stands there without a divider.
bool isBare(ZPROP_handle* handle, const char* stanza, const char* key);
/// Whether the stanza, or the key if it isn't null, is there; reports it otherwise, with the name
/// that may have been meant.
bool isThere(ZPROP_handle* handle, const char* file, const char* stanza, const char* key);
/// A walk over the values of a key, or the keys of a stanza; begun.
Exit walkValues(ZPROP_handle* handle, const char* file, const char* stanza, const char* key,
                Walk& walk);
/// The names of all stanzas; the keys of one.
Exit stanzasOf(ZPROP_handle* handle, const char* file, Words& out);
Exit keysOf(ZPROP_handle* handle, const char* file, const char* stanza, Words& out);
/// All values of a key, in order.
Exit valuesOf(ZPROP_handle* handle, const char* file, const char* stanza, const char* key,
              Words& out);

// ---------------------------------------------------------------- JSON

/// A text as a string, or where it isn't UTF-8 as {"bytes": "its base64"}.
std::string jsonOf(const std::string& text);
/// A name as that of a member. One that isn't UTF-8 is its base64 behind a NUL, which no name has.
std::string jsonNameOf(const std::string& name);
/// The values of a key: null, the one there is, or a list. Hidden ones, unless they are `asPlain`,
/// are members "hidden" of an object.
std::string jsonOfValues(const Words& values, bool areHidden);
/// That of a key without values: null, or where it has no divider {"bare": true}.
std::string jsonOfNone(bool isBare);
std::string jsonList(const Words& values);

// ---------------------------------------------------------------- updates

/// Lets `changes` run as one update of the file, or on standard input, whose new content goes to
/// standard output. With dryRun what would change is printed instead. Ahead of making a file they
/// run once more, on an empty text, so that none is made for changes that fail.
Exit update(const char* file, const Options& options,
            const std::function<Exit(ZPROP_handle*)>& changes);

/// Prints what differs as a patch of this file; nothing for equal texts.
void printPatch(const char* file, const std::string& before, const std::string& now);

// ---------------------------------------------------------------- layered configurations

/// Puts the label of a layered configuration in the place of FILE where one is named; complains of
/// what doesn't go with it.
Exit useLayers(Words& words, Options& options);
/// Complains if a change can't be made to one.
Exit checkForLayers(const char* command, const Terms& terms);
/// Opens it, for changes with their target set, or reports; only opens it.
Exit openLayers(const Options& options, Handle& handle);
int openLayers(const Options& options, ZPROP_handle** handle);
/// Tells that a higher file gives what was changed another value, after a store that said so, or
/// that `would`.
Exit reportShadowed(const char* file, bool would = false);
/// Tells what is wrong with its files, one by one.
void findBad(const Options& options, const std::function<void(const Failed&)>& tell);
/// As get and list, with the file and line of each value.
Exit getOrigins(ZPROP_handle* handle, const Words& words, const Options& options);
Exit listOrigins(ZPROP_handle* handle, const char* file, const char* only, const Options& options);

// ---------------------------------------------------------------- files of other programs

/// The dialect that is named, or that the presets' patterns choose for the file; null for the
/// library's own, as that of standard input where none is named. It is good to the end.
Exit dialectFor(const char* file, const Options& options, const ZDialect*& dialect);
/// The named one for the files of a layered configuration, into its options.
Exit takeLayersDialect(Options& options);
/// A value of several lines as a list shows it, the others behind `indent`.
std::string inLines(const std::string& value, const char* indent = "    ");

/// Finds in one file what has the name of something in another one, where their dialects may take
/// different spellings for the same. Such a name is there if either of them says so.
class Counterparts {
public:
    /// Of the stanzas, or of the keys of one stanza, of `there`, which must stay as they are.
    Counterparts(ZPROP_handle* here, ZPROP_handle* there, const char* file, const char* stanza)
        : here_(here), there_(there), file_(file), stanza_(stanza) {}

    /// A name by which `there` finds it, good as long as this and `name` are; null if it isn't
    /// there.
    const char* find(const std::string& name);

private:
    bool has(const std::string& name) const {
        return stanza_ == nullptr ? hasEntry(there_, name.c_str(), nullptr)
                                  : hasEntry(there_, stanza_, name.c_str());
    }

    ZPROP_handle *const here_, *const there_;
    const char *const file_, *const stanza_;  // null: stanzas
    bool isListed_ = false;
    std::map<std::string, std::string> names_;  // by their spellings folded as `here` does
};

// ---------------------------------------------------------------- what the C interface lacks

// Results as the C interface has them. `found`: whether what it is about is there.
int renameEntry(ZPROP_handle* handle, const char* stanza, const char* key, const char* name,
                bool& found);
int uncommentEntry(ZPROP_handle* handle, const char* stanza, const char* key, bool& found);
int disableEntry(ZPROP_handle* handle, const char* stanza, const char* key, bool& found);
/// The dialect of what is open, or null.
const ZDialect* dialectOf(ZPROP_handle* handle);
/// A name, with all that the dialect takes for the same spelled alike.
std::string folded(const ZDialect& dialect, const std::string& name, bool isStanza);
/// A stanza's name without the number that a repeated one has.
std::string withoutNumber(const std::string& stanza);
/// The preset whose pattern a path fits, and the pattern; empty without one. The presets are read
/// once.
int presetFor(const char* path, std::string& name, std::string& pattern);
/// What a file holds, as a load reads it: under its lock, and with what a stopped store had begun.
int readText(const char* file, unsigned long wait, std::string& text);
/// What the file of an open update holds, and what a store over a text would write.
int updatedText(ZPROP_handle* handle, std::string& text);
int textOver(ZPROP_handle* handle, const std::string& before, std::string& text);
/// The target of a layered configuration, what it holds, and what a store would make of it.
int foreseeTarget(ZPROP_handle* handle, std::string& path, std::string& before, std::string& now);
/// The files of a layered configuration that count, and those that can't be found out about, in
/// their order, all of one moment. `error`: the errno where one can't be read.
struct LayerText {
    std::string path, text;
    int error;
};
int readCounting(const struct ZLayersTerms& terms, unsigned long wait,
                 std::vector<LayerText>& texts);
/// Keeps what the file of an open update holds.
int backUp(ZPROP_handle* handle, unsigned int count);

#endif
