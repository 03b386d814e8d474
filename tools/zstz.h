// zstz.h: what the commands of zstz share. The command stands on the C interface and on nothing
// below it.
//
//   zstz.cpp    command line and help
//   file.cpp    opening, reporting, and what the format can hold
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

enum Exit { done = 0, notFound = 1, usage = 2, fileError = 3, badData = 4 };

struct Options {
    bool all = false;
    bool create = false;
    bool remove = false;         // of merge: what OVER lacks goes
    const char* type = nullptr;  // of set
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

// Commands: the exit code; what is wrong has been told on standard error.
int get(const Words& words, const Options& options);
int list(const Words& words, const Options& options);
int check(const Words& words, const Options& options);
int diff(const Words& words, const Options& options);
int change(const Words& words,
           const Options& options);  // set, add, unset, comment: words[0] says which
int edit(const Words& words, const Options& options);
int merge(const Words& words, const Options& options);
int watch(const Words& words, const Options& options);

/// Tells a mistake and gives its code.
int complain(Exit code, const char* format, const char* a = "", const char* b = "");

/// Opens and loads the file, strictly and with its lines kept, or reports.
int openFile(const char* file, const Options& options, Handle& handle);
/// Tells what the last call has met, as a compiler would where it was a line of a file.
int reportLastError(const char* file);
/// Whether the stanza, or the key if it isn't null, is there; reports it otherwise.
bool isThere(ZPROP_handle* handle, const char* file, const char* stanza, const char* key);
/// A walk over the values of a key, or the keys of a stanza; begun.
int walkValues(ZPROP_handle* handle, const char* file, const char* stanza, const char* key,
               Walk& walk);
/// The names of all stanzas; the keys of one.
int stanzasOf(ZPROP_handle* handle, const char* file, Words& out);
int keysOf(ZPROP_handle* handle, const char* file, const char* stanza, Words& out);
/// All values of a key, in order.
int valuesOf(ZPROP_handle* handle, const char* file, const char* stanza, const char* key,
             Words& out);

// What would be read back as something else is refused before anything is written.
int checkStanza(const char* stanza);
int checkKey(const char* key);
int checkEntry(const char* stanza, const char* key, const char* value);
int checkComment(const char* text);
bool parseInteger(const char* text, unsigned int& number);
bool parseBoolean(const char* text, int& truth);

#endif
