// zstz: reads and changes stanza files from the shell. It stands on the C interface and on nothing
// below it.
#include <Z/zproperties.h>
#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

enum Exit { done = 0, notFound = 1, usage = 2, fileError = 3, badData = 4 };

const char kHelp[] =
    "Usage: zstz COMMAND [OPTION]... ARGUMENT...\n"
    "Reads and changes stanza files: [stanza] headers, \"key = value\" entries, # comments.\n"
    "\n"
    "  get FILE STANZA KEY            print the last value of the key\n"
    "      --all                      print all its values, one a line\n"
    "  set FILE STANZA KEY VALUE      make VALUE the only value of the key\n"
    "      --type TYPE                string (default), integer or boolean\n"
    "      --create                   make the file if it doesn't exist\n"
    "  add FILE STANZA KEY VALUE      add one more value to the key\n"
    "  unset FILE STANZA [KEY [VALUE]]\n"
    "                                 remove the stanza, the key, or VALUE from the key\n"
    "  list FILE [STANZA]             print the stanzas' names, or a stanza's entries\n"
    "  comment FILE TEXT              add a comment at the end of the file's first paragraph\n"
    "  comment FILE STANZA [KEY] TEXT add a comment below the stanza's header, or above the key\n"
    "  check FILE...                  load each; tell the first bad line of each bad one\n"
    "\n"
    "      --help                     print this and end\n"
    "      --version                  print the version and end\n"
    "\n"
    "Values go to standard output, messages to standard error. Arguments that begin with - come\n"
    "behind --.\n"
    "\n"
    "Exit status: 0 done, 1 stanza, key or value not found, 2 wrong usage, 3 the file can't be\n"
    "read, locked or written, 4 the file holds bad data, or hidden values that bar the change.\n";

struct Options {
    bool all = false;
    bool create = false;
    const char* type = nullptr;
};

int complain(Exit code, const char* format, const char* a = "", const char* b = "") {
    fputs("zstz: ", stderr);
    fprintf(stderr, format, a, b);
    fputc('\n', stderr);
    return code;
}

// ---------------------------------------------------------------- failures of the library

// Says what the last call has met, as a compiler would where it was a line of a file.
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

struct CloseHandle {
    void operator()(ZPROP_handle* handle) const { zstzPropClose(handle); }
};
struct CloseWalk {
    void operator()(ZPROP_iter_handle* walk) const { zstzPropIter_close(walk); }
};
typedef std::unique_ptr<ZPROP_handle, CloseHandle> Handle;
typedef std::unique_ptr<ZPROP_iter_handle, CloseWalk> Walk;

// Opens the file, or reports and gives the exit code.
int openFile(const char* file, Handle& handle) {
    // The library would read a folder as an empty file.
    struct stat status;
    if (stat(file, &status) == 0 && S_ISDIR(status.st_mode)) {
        fprintf(stderr, "%s: error: %s\n", file, strerror(EISDIR));
        return fileError;
    }
    ZPROP_handle* opened = nullptr;
    if (zstzPropOpen(&opened, file, ZPROP_OPEN_UPDATE) != ZPROP_OK)
        return reportLastError(file);
    handle.reset(opened);
    return done;
}

// A change that failed for another reason than the file. With names that are checked, what can be
// wrong with it is that text would go where hidden values are.
int refuse(const char* file, const char* stanza, const char* key) {
    static const int kInvalidParameter = 22;
    ZPROP_error error;
    zstzPropLastError(&error);
    const char* reason = error.number == kInvalidParameter ? "its values are hidden; unset it first"
                         : error.text == nullptr           ? "failed"
                                                           : error.text;
    fprintf(stderr, "%s: error: can't change [%s] %s: %s\n", file, stanza, key, reason);
    return badData;
}

int storeFile(ZPROP_handle* handle, const char* file) {
    return zstzPropStore(handle, nullptr) == ZPROP_OK ? done : reportLastError(file);
}

// Whether stanza, or key if it isn't null, is there; reports it otherwise.
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

// ---------------------------------------------------------------- what the format can hold

// A line is read in pieces of 8191 bytes, its newline counted; more wouldn't come back whole.
const size_t kLongestLine = 8191;

bool isBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

bool hasLineEnd(const char* text) { return strpbrk(text, "\n\r") != nullptr; }

bool hasBlankEnds(const char* text) {
    const size_t length = strlen(text);
    return length != 0 && (isBlank(text[0]) || isBlank(text[length - 1]));
}

// What would be read back as something else is refused before anything is written.
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

int checkValue(const char* key, const char* value) {
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

// ---------------------------------------------------------------- commands

// Calls visit(value) for all values of the key, in order. False if memory ran out.
template <typename Visit>
bool forEachValue(ZPROP_handle* handle, const char* stanza, const char* key, Visit visit) {
    char** values = nullptr;
    ZPROP_item item = {ZPROP_ITEM_VALUES, stanza, key, ZPROP_ITEM_OPTIONAL, &values};
    if (zstzPropGetValues(handle, &item, 1) != ZPROP_OK)
        return false;
    for (char** value = values; *value != nullptr; ++value)
        visit(*value);
    zstzPropFreeValuesList(handle, &item, 1);
    return true;
}

int get(char** arguments, int, const Options& options) {
    const char *file = arguments[0], *stanza = arguments[1], *key = arguments[2];
    Handle handle;
    if (const int failed = openFile(file, handle))
        return failed;
    if (!isThere(handle.get(), file, stanza, key))
        return notFound;
    if (options.all)
        return forEachValue(handle.get(), stanza, key, [](const char* value) { puts(value); })
                   ? done
                   : reportLastError(file);
    int error = 0;
    char* value = zstzPropGetStringValue(handle.get(), stanza, key, 0, &error);
    if (error != ZPROP_OK)
        return reportLastError(file);
    puts(value == nullptr ? "" : value);
    zstzPropFree(value);
    return done;
}

// Makes an empty file that the library can open. One that is there stays as it is.
int createFile(const char* file) {
    const int descriptor = open(file, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (descriptor == -1 && errno != EEXIST)
        return complain(fileError, "%s: %s", file, strerror(errno));
    if (descriptor != -1)
        close(descriptor);
    return done;
}

int set(char** arguments, int, const Options& options) {
    const char *file = arguments[0], *stanza = arguments[1], *key = arguments[2];
    const char* value = arguments[3];
    if (const int failed = checkEntry(stanza, key, value))
        return failed;
    const char* type = options.type == nullptr ? "string" : options.type;
    const bool isInteger = strcmp(type, "integer") == 0;
    const bool isBoolean = strcmp(type, "boolean") == 0;
    unsigned int number = 0;
    int truth = 0;
    if (isInteger && !parseInteger(value, number))
        return complain(usage, "not an integer from 0 to 4294967295: %s", value);
    if (isBoolean && !parseBoolean(value, truth))
        return complain(usage, "neither yes nor no: %s", value);
    if (options.create)
        if (const int failed = createFile(file))
            return failed;
    Handle handle;
    if (const int failed = openFile(file, handle))
        return failed;
    const int result = isInteger   ? zstzPropSetIntegerValue(handle.get(), stanza, key, number)
                       : isBoolean ? zstzPropSetBooleanValue(handle.get(), stanza, key, truth)
                                   : zstzPropSetStringValue(handle.get(), stanza, key, value);
    return result == ZPROP_OK ? storeFile(handle.get(), file) : refuse(file, stanza, key);
}

// A walk over the values of a key, begun.
int walkValues(ZPROP_handle* handle, const char* file, const char* stanza, const char* key,
               Walk& walk) {
    ZPROP_iter_handle* made = nullptr;
    if (zstzPropIter_init(handle, stanza, key, &made) != ZPROP_OK)
        return reportLastError(file);
    walk.reset(made);
    return done;
}

int add(char** arguments, int, const Options&) {
    const char *file = arguments[0], *stanza = arguments[1], *key = arguments[2];
    const char* value = arguments[3];
    int failed = checkEntry(stanza, key, value);
    if (failed == done && *value == '\0')
        failed = complain(usage, "an empty value can't be added");
    Handle handle;
    if (failed == done)
        failed = openFile(file, handle);
    Walk walk;
    if (failed == done)
        failed = walkValues(handle.get(), file, stanza, key, walk);
    if (failed != done)
        return failed;
    int error = 0;
    while (zstzPropIter_next(walk.get(), &error) != 0) {
    }
    if (error != ZPROP_OK || zstzPropIter_addValue(walk.get(), value) != ZPROP_OK)
        return refuse(file, stanza, key);
    walk.reset();
    return storeFile(handle.get(), file);
}

// Removes every such value of the key.
int unsetValue(ZPROP_handle* handle, const char* file, const char* stanza, const char* key,
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
            return refuse(file, stanza, key);
        found = true;
    }
    if (!found) {
        fprintf(stderr, "%s: no value %s of %s in [%s]\n", file, value, key, stanza);
        return notFound;
    }
    return done;
}

int unset(char** arguments, int count, const Options&) {
    const char *file = arguments[0], *stanza = arguments[1];
    const char* key = count > 2 ? arguments[2] : nullptr;
    Handle handle;
    if (const int failed = openFile(file, handle))
        return failed;
    if (!isThere(handle.get(), file, stanza, key))
        return notFound;
    if (count > 3) {
        if (const int failed = unsetValue(handle.get(), file, stanza, key, arguments[3]))
            return failed;
    } else {
        const int result = key == nullptr ? zstzPropRemoveStanza(handle.get(), stanza)
                                          : zstzPropRemoveKey(handle.get(), stanza, key);
        if (result != ZPROP_OK)
            return refuse(file, stanza, key == nullptr ? "" : key);
    }
    return storeFile(handle.get(), file);
}

int listStanzas(ZPROP_handle* handle, const char* file) {
    char** names = nullptr;
    if (zstzPropGetStanzas(handle, &names) != ZPROP_OK)
        return reportLastError(file);
    for (char** name = names; *name != nullptr; ++name)
        puts(*name);
    zstzPropFreeStanzas(names);
    return done;
}

int listEntries(ZPROP_handle* handle, const char* file, const char* stanza) {
    if (!isThere(handle, file, stanza, nullptr))
        return notFound;
    Walk walk;
    if (const int failed = walkValues(handle, file, stanza, nullptr, walk))
        return failed;
    int error = 0;
    while (zstzPropIter_next(walk.get(), &error) != 0) {
        const std::string key = zstzPropIter_getKey(walk.get(), &error);
        bool hasValue = false;
        const bool read = forEachValue(handle, stanza, key.c_str(), [&](const char* value) {
            printf("%s = %s\n", key.c_str(), value);
            hasValue = true;
        });
        if (!read)
            return reportLastError(file);
        if (!hasValue)
            printf("%s =\n", key.c_str());
    }
    return done;
}

int list(char** arguments, int count, const Options&) {
    Handle handle;
    if (const int failed = openFile(arguments[0], handle))
        return failed;
    return count == 1 ? listStanzas(handle.get(), arguments[0])
                      : listEntries(handle.get(), arguments[0], arguments[1]);
}

int comment(char** arguments, int count, const Options&) {
    const char* file = arguments[0];
    const char* text = arguments[count - 1];
    if (*text == '\0' || hasLineEnd(text) || strlen(text) + 2 > kLongestLine)
        return complain(usage, "a comment is one line of text");
    int failed = count > 2 ? checkStanza(arguments[1]) : done;
    if (failed == done && count > 3)
        failed = checkKey(arguments[2]);
    Handle handle;
    if (failed == done)
        failed = openFile(file, handle);
    if (failed != done)
        return failed;
    const int result = count == 2 ? zstzPropAddFileComment(handle.get(), text)
                       : count == 3
                           ? zstzPropAddStanzaComment(handle.get(), arguments[1], text)
                           : zstzPropAddLineComment(handle.get(), arguments[1], arguments[2], text);
    if (result != ZPROP_OK)
        return refuse(file, count > 2 ? arguments[1] : "", count > 3 ? arguments[2] : "");
    return storeFile(handle.get(), file);
}

int check(char** arguments, int count, const Options&) {
    int worst = done;
    for (int i = 0; i < count; ++i) {
        Handle handle;
        const int result = openFile(arguments[i], handle);
        worst = result > worst ? result : worst;
    }
    return worst;
}

struct Command {
    const char* name;
    int least, most;  // arguments
    int (*run)(char** arguments, int count, const Options& options);
};

const Command kCommands[] = {
    {"get", 3, 3, get},           {"set", 4, 4, set},   {"add", 4, 4, add},
    {"unset", 2, 4, unset},       {"list", 1, 2, list}, {"comment", 2, 4, comment},
    {"check", 1, 1 << 20, check},
};

int run(int count, char** arguments, const Options& options) {
    if (count == 0)
        return complain(usage, "no command; see zstz --help");
    for (const Command& command : kCommands) {
        if (strcmp(arguments[0], command.name) != 0)
            continue;
        if (count - 1 < command.least || count - 1 > command.most)
            return complain(usage, "wrong number of arguments for %s; see zstz --help",
                            command.name);
        if (options.all && command.run != get)
            return complain(usage, "--all goes with get");
        if ((options.create || options.type != nullptr) && command.run != set)
            return complain(usage, "--type and --create go with set");
        return command.run(arguments + 1, count - 1, options);
    }
    return complain(usage, "no such command: %s; see zstz --help", arguments[0]);
}

// A full disk or a closed pipe behind standard output shows here.
int finish(int result) {
    if (fclose(stdout) != 0 && result == done)
        return complain(fileError, "standard output: %s", strerror(errno));
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    // The library wants it set; a command should work without.
    setenv("QELDIR", "/opt/Quillmere/nls/QEL", 0);
    static const option kOptions[] = {
        {"all", no_argument, nullptr, 'a'},        {"create", no_argument, nullptr, 'c'},
        {"type", required_argument, nullptr, 't'}, {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'v'},    {nullptr, 0, nullptr, 0}};
    Options options;
    int letter;
    while ((letter = getopt_long(argc, argv, "", kOptions, nullptr)) != -1) {
        switch (letter) {
            case 'a':
                options.all = true;
                break;
            case 'c':
                options.create = true;
                break;
            case 't':
                options.type = optarg;
                if (strcmp(optarg, "string") != 0 && strcmp(optarg, "integer") != 0 &&
                    strcmp(optarg, "boolean") != 0)
                    return complain(usage, "no such type: %s", optarg);
                break;
            case 'h':
                fputs(kHelp, stdout);
                return finish(done);
            case 'v':
                puts("zstz " ZBASE_VERSION);
                return finish(done);
            default:
                return usage;
        }
    }
    return finish(run(argc - optind, argv + optind, options));
}
