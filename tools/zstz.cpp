// zstz: reads and changes stanza files from the shell: its command line.
#include "zstz.h"

#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

static const char kHelp[] =
    "Usage: zstz COMMAND [OPTION]... ARGUMENT...\n"
    "Reads and changes stanza files: [stanza] headers, \"key = value\" entries, # comments.\n"
    "\n"
    "  get FILE STANZA KEY            print the last value of the key\n"
    "      --all                      print all its values, one a line\n"
    "  list FILE [STANZA]             print the stanzas' names, or a stanza's entries\n"
    "  check FILE...                  load each; tell the first bad line of each bad one\n"
    "  diff A B                       print what differs, key by key\n"
    "  watch FILE [COMMAND]           print each change of the file, or run COMMAND for it\n"
    "\n"
    "  set FILE STANZA KEY VALUE      make VALUE the only value of the key\n"
    "      --type TYPE                string (default), integer or boolean\n"
    "  add FILE STANZA KEY VALUE      add one more value to the key\n"
    "  unset FILE STANZA [KEY [VALUE]]\n"
    "                                 remove the stanza, the key, or VALUE from the key\n"
    "  comment FILE TEXT              add a comment at the end of the file's first paragraph\n"
    "  comment FILE STANZA [KEY] TEXT add a comment below the stanza's header, or above the key\n"
    "  edit FILE [CHANGE]...          make several changes, all or none: each is one of the four\n"
    "                                 above without FILE; without any, lines of standard input\n"
    "  merge BASE OVER                give BASE the values that OVER has\n"
    "      --delete                   and remove from BASE what OVER lacks\n"
    "\n"
    "      --create                   make the file if it doesn't exist (set, edit, merge)\n"
    "      --wait SECONDS             how long to wait for the file's lock (default 10)\n"
    "      --store MODE               safe (default): a crash leaves the old or the new content;\n"
    "                                 checked: failures are told; plain\n"
    "      --help                     print this and end\n"
    "      --version                  print the version and end\n"
    "\n"
    "Values go to standard output, messages to standard error. Arguments that begin with - come\n"
    "behind --. A change never touches the lines of other values, and any number of changes may\n"
    "run at once.\n"
    "\n"
    "Exit status: 0 done, 1 stanza, key or value not found, or files that differ, 2 wrong usage,\n"
    "3 the file can't be read, locked or written, 4 the file holds bad data, or hidden values "
    "that\n"
    "bar the change.\n";

static const Command kCommands[] = {
    {"get", 3, 3, get},           {"set", 4, 4, change},      {"add", 4, 4, change},
    {"unset", 2, 4, change},      {"comment", 2, 4, change},  {"list", 1, 2, list},
    {"check", 1, 1 << 20, check}, {"edit", 1, 1 << 20, edit}, {"diff", 2, 2, diff},
    {"merge", 2, 2, merge},       {"watch", 1, 2, watch},
};

const Command* findCommand(const std::string& name) {
    for (const Command& command : kCommands)
        if (name == command.name)
            return &command;
    return nullptr;
}

Exit checkCount(const Command& command, size_t arguments) {
    return arguments >= command.least && arguments <= command.most
               ? done
               : complain(usage, "wrong number of arguments for %s; see zstz --help", command.name);
}

Exit checkTakesType(const Command& command, ValueType type) {
    return type == anyType || strcmp(command.name, "set") == 0
               ? done
               : complain(usage, "--type goes with set");
}

Exit parseType(const char* name, ValueType& type) {
    static const struct {
        const char* name;
        ValueType type;
    } kTypes[] = {{"string", stringType}, {"integer", integerType}, {"boolean", booleanType}};
    for (const auto& known : kTypes)
        if (strcmp(name, known.name) == 0) {
            type = known.type;
            return done;
        }
    return complain(usage, "no such type: %s", name);
}

static Exit run(Words words, const Options& options) {
    if (words.empty())
        return complain(usage, "no command; see zstz --help");
    const std::string name = words[0];
    const Command* command = findCommand(name);
    if (command == nullptr)
        return complain(usage, "no such command: %s; see zstz --help", name.c_str());
    if (const Exit failed = checkCount(*command, words.size() - 1))
        return failed;
    if (options.all && command->run != get)
        return complain(usage, "--all goes with get");
    if (const Exit failed = checkTakesType(*command, options.type))
        return failed;
    if (options.create && name != "set" && name != "edit" && name != "merge")
        return complain(usage, "--create goes with set, edit and merge");
    if (options.remove && name != "merge")
        return complain(usage, "--delete goes with merge");
    if (!command->isChange())
        words.erase(words.begin());
    return command->run(words, options);
}

static bool parseWait(const char* text, unsigned long& milliseconds) {
    char* end;
    const double seconds = strtod(text, &end);
    if (end == text || *end != '\0' || !(seconds >= 0) || seconds > 1000000)
        return false;
    milliseconds = static_cast<unsigned long>(seconds * 1000);
    return true;
}

static bool parseStoreMode(const char* text, int& mode) {
    static const char* const kModes[] = {"plain", "checked", "safe"};
    for (mode = ZPROP_STORE_PLAIN; mode <= ZPROP_STORE_SAFE; ++mode)
        if (strcmp(text, kModes[mode]) == 0)
            return true;
    return false;
}

// A full disk or a closed pipe behind standard output shows here.
static Exit finish(Exit result) {
    if (fclose(stdout) != 0 && result == done)
        return complain(fileError, "standard output: %s", strerror(errno));
    return result;
}

int main(int argc, char** argv) {
    // The library wants it set; a command should work without.
    setenv("QELDIR", "/opt/Quillmere/nls/QEL", 0);
    static const option kOptions[] = {{"all", no_argument, nullptr, 'a'},
                                      {"create", no_argument, nullptr, 'c'},
                                      {"type", required_argument, nullptr, 't'},
                                      {"delete", no_argument, nullptr, 'd'},
                                      {"wait", required_argument, nullptr, 'w'},
                                      {"store", required_argument, nullptr, 's'},
                                      {"help", no_argument, nullptr, 'h'},
                                      {"version", no_argument, nullptr, 'v'},
                                      {nullptr, 0, nullptr, 0}};
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
            case 'd':
                options.remove = true;
                break;
            case 't':
                if (const Exit failed = parseType(optarg, options.type))
                    return failed;
                break;
            case 'w':
                if (!parseWait(optarg, options.wait))
                    return complain(usage, "no number of seconds: %s", optarg);
                break;
            case 's':
                if (!parseStoreMode(optarg, options.storeMode))
                    return complain(usage, "no such way to store: %s", optarg);
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
    return finish(run(Words(argv + optind, argv + argc), options));
}
