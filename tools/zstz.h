// zstz.h: what the commands of zstz share. The command stands on the C interface and on nothing
// below it.
//
//   zstz.cpp    command line and help
//   file.cpp    opening, reporting, reading
//   read.cpp    get, list, check, diff
//   change.cpp  set, add, unset, comment, edit, merge
//   watch.cpp   watch
#ifndef TOOLS_ZSTZ_H
#define TOOLS_ZSTZ_H

#include <Z/zproperties.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

/// How zstz ends.
enum Exit { done = 0, notFound = 1, differ = 1, usage = 2, fileError = 3, badData = 4 };

/// What zstzPropLastError calls failures that are no failed call of the system.
enum Failure { invalidData = 44 };

/// What the value of set has to be.
enum ValueType { anyType, stringType, integerType, booleanType };

struct Options {
    bool all = false;
    bool create = false;
    bool remove = false;       // of merge: what OVER lacks goes
    ValueType type = anyType;  // of set
    int storeMode = ZPROP_STORE_SAFE;
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
Exit merge(const Words& words, const Options& options);
Exit watch(const Words& words, const Options& options);

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
/// Complains unless the command takes a type, or has none.
Exit checkTakesType(const Command& command, ValueType type);
/// The type of this name; complains if there is none.
Exit parseType(const char* name, ValueType& type);

/// Tells a mistake and gives its code.
Exit complain(Exit code, const char* format, const char* a = "", const char* b = "");

/// Opens and loads the file, strictly and with its lines kept, or reports.
Exit openFile(const char* file, const Options& options, Handle& handle);
/// Tells what the last call has met, as a compiler would where it was a line of a file.
Exit reportLastError(const char* file);
/// What the last call has met, in the library's words.
std::string lastErrorText();
/// Whether the stanza, or the key if it isn't null, is there; reports it otherwise.
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

#endif
