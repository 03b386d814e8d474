// zstz: reads and changes stanza files from the shell: its command line.
#include "zstz.h"

#include <getopt.h>

#include <cerrno>
#include <cstdlib>

static const char kHelp[] =
    "Usage: zstz COMMAND [OPTION]... ARGUMENT...\n"
    "Reads and changes stanza files: [stanza] headers, \"key = value\" entries, # comments.\n"
    "\n"
    "  get FILE STANZA KEY [STANZA KEY]...\n"
    "                                 print the last value of each key\n"
    "      --all                      print all its values, one a line\n"
    "      --default TEXT             print TEXT for a key that isn't there\n"
    "  list FILE [STANZA]             print the stanzas' names, or a stanza's entries\n"
    "  check FILE...                  load each; tell the first bad line of each bad one\n"
    "  diff A B                       print what differs, key by key\n"
    "  layers NAME[:PROJECT]          print the files of a layered configuration and what became\n"
    "                                 of each\n"
    "  cat NAME[:PROJECT]             print those that count, each under a comment with its path\n"
    "  watch FILE [COMMAND]           print each change of the file, or run COMMAND for it\n"
    "  dialects [FILE]...             print the dialects of other programs' files, or which one "
    "each\n"
    "                                 FILE has and why\n"
    "  convert --to DIALECT FILE      print the file in another dialect, with its comments; lines "
    "that\n"
    "                                 can't be said there are named on standard error\n"
    "      --json                     print JSON (get, list, check, diff, watch, layers, "
    "dialects)\n"
    "\n"
    "  set FILE STANZA KEY VALUE      make VALUE the only value of the key\n"
    "      --type TYPE                string (default), integer or boolean\n"
    "      --if-missing               only if the key isn't there\n"
    "      --if-equals OLD            only if OLD is its only value\n"
    "      --uncomment                first make a comment \"# KEY = ...\" the entry, at its "
    "place;\n"
    "                                 without VALUE its value stays\n"
    "      --bare                     without VALUE: a key without a divider, where the dialect "
    "has them\n"
    "  add FILE STANZA KEY VALUE      add one more value to the key\n"
    "  unset FILE STANZA [KEY [VALUE]]\n"
    "                                 remove the stanza, the key, or VALUE from the key\n"
    "  disable FILE STANZA KEY        make the key's entries comments, \"# KEY = VALUE\"\n"
    "  rename FILE STANZA [KEY] NEW   give the stanza, or the key, another name\n"
    "  comment FILE TEXT              add a comment at the end of the file's first paragraph\n"
    "  comment FILE STANZA [KEY] TEXT add a comment below the stanza's header, or above the key\n"
    "  edit FILE [CHANGE]...          make several changes, all or none: each is one of the six\n"
    "                                 above without FILE; without any, lines of standard input\n"
    "      --editor                   edit the file with $VISUAL or $EDITOR\n"
    "  merge BASE OVER                give BASE the values that OVER has\n"
    "      --delete                   and remove from BASE what OVER lacks\n"
    "\n"
    "  --layers NAME[:PROJECT] get|list|set|add|unset|edit|diff|watch|check ...\n"
    "                                 in the place of FILE: NAME.conf and NAME.conf.d/*.conf of\n"
    "                                 /usr/lib, /usr/local/lib, /run and /etc, or of their folder\n"
    "                                 PROJECT\n"
    "      --root DIR                 look for all of them in DIR\n"
    "      --user                     the user's folder comes on top\n"
    "      --to TARGET                where changes go: etc, run or user, or a drop-in there:\n"
    "                                 run/NAME.conf, or NAME.conf in /etc; default: the main file\n"
    "                                 of /etc if there, else 50-local.conf\n"
    "      --origin                   print FILE:LINE with each value (get, list)\n"
    "      --all-layers               so all values that files have: behind + those that count,\n"
    "                                 behind - those that later files have replaced (get, list)\n"
    "\n"
    "      --dialect NAME             the dialect of FILE, or of both: default, or a name of "
    "dialects;\n"
    "                                 without it the presets' patterns choose by the path\n"
    "      --create                   make the file if it doesn't exist (set, edit, merge)\n"
    "      --dry-run                  print what would change, as a patch, and change nothing\n"
    "      --backup[=N]               keep the last N contents, as FILE.~1~ to FILE.~N~ (default "
    "1)\n"
    "      --wait SECONDS             how long to wait for the file's lock (default 10)\n"
    "      --store MODE               safe (default): a crash leaves the old or the new content;\n"
    "                                 checked: failures are told; plain\n"
    "      --help                     print this and end\n"
    "      --version                  print the version and end\n"
    "\n"
    "FILE may be - for standard input; what changes it writes the result to standard output.\n"
    "Values go to standard output, messages to standard error. Arguments that begin with - come\n"
    "behind --. A change never touches the lines of other values, and any number of changes may\n"
    "run at once.\n"
    "\n"
    "Exit status: 0 done, 1 stanza, key or value not found, a condition that doesn't hold, or\n"
    "files that differ, 2 wrong usage, 3 the file can't be read, locked or written, 4 the file\n"
    "holds bad data, or hidden values that bar the change, 5 stored, but a higher file of the\n"
    "layered configuration still gives another value, 6 converted, and lines were left out.\n";

static const size_t kAny = 1 << 20;

static const Command kCommands[] = {
    {"get", 3, kAny, get},           {"set", 3, 4, change},      {"add", 4, 4, change},
    {"unset", 2, 4, change},         {"comment", 2, 4, change},  {"rename", 3, 4, change},
    {"disable", 3, 3, change},       {"list", 1, 2, list},       {"check", 1, kAny, check},
    {"edit", 1, kAny, edit},         {"diff", 2, 2, diff},       {"merge", 2, 2, merge},
    {"watch", 1, 2, watch},          {"layers", 1, 1, layers},   {"cat", 1, 1, cat},
    {"dialects", 0, kAny, dialects}, {"convert", 1, 1, convert},
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

namespace {

// An option that was given, and the commands that take it.
struct Given {
    bool isGiven;
    const char* option;
    Words commands;
};

}  // namespace

static Exit checkGiven(const std::string& command, const std::vector<Given>& options) {
    for (const Given& option : options) {
        std::string takers;
        bool isTaken = !option.isGiven;
        for (size_t i = 0; i < option.commands.size(); ++i) {
            const bool isLast = i + 1 == option.commands.size();
            takers += (i == 0 ? "" : isLast ? " and " : ", ") + option.commands[i];
            isTaken = isTaken || option.commands[i] == command;
        }
        if (!isTaken)
            return complain(usage, "%s goes with %s", option.option, takers.c_str());
    }
    return done;
}

Exit checkTerms(const char* command, const Terms& terms) {
    if (terms.ifMissing && terms.ifEquals)
        return complain(usage, "--if-missing and --if-equals exclude each other");
    if (terms.bare && (terms.type != anyType || terms.uncomment))
        return complain(usage, "--bare makes a key without a value; --type and --uncomment don't");
    return checkGiven(command, {{terms.type != anyType, "--type", {"set"}},
                                {terms.ifMissing, "--if-missing", {"set"}},
                                {terms.ifEquals, "--if-equals", {"set"}},
                                {terms.uncomment, "--uncomment", {"set"}},
                                {terms.bare, "--bare", {"set"}}});
}

static Exit checkOptions(const std::string& command, const Options& options) {
    const Words changes = {"set", "add", "unset", "comment", "rename", "disable", "edit", "merge"};
    Words all = changes;
    all.insert(all.end(), {"get", "list", "check", "diff", "watch", "convert", "layers", "cat"});
    const Exit failed = checkGiven(
        command,
        {{options.all, "--all", {"get"}},
         {options.hasDefault, "--default", {"get"}},
         {options.json, "--json", {"get", "list", "check", "diff", "watch", "layers", "dialects"}},
         {!options.dialect.empty(), "--dialect", all},
         {options.create, "--create", {"set", "edit", "merge"}},
         {options.remove, "--delete", {"merge"}},
         {options.editor, "--editor", {"edit"}},
         {options.dryRun, "--dry-run", changes},
         {options.backups != 0, "--backup", changes}});
    return failed == done ? checkTerms(command.c_str(), options.terms) : failed;
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

static Exit run(Words words, Options& options) {
    if (words.empty())
        return complain(usage, "no command; see zstz --help");
    const std::string name = words[0];
    const Command* command = findCommand(name);
    if (command == nullptr)
        return complain(usage, "no such command: %s; see zstz --help", name.c_str());
    if (name == "convert")
        options.toDialect.swap(options.layers.to);
    if (!options.layers.name.empty() && (name == "convert" || name == "dialects"))
        return complain(usage, "%s takes the files of a layered configuration", name.c_str());
    if (const Exit failed = useLayers(words, options))
        return failed;
    if (!options.layers.name.empty())
        if (const Exit failed = takeLayersDialect(options))
            return failed;
    if (const Exit failed = checkCount(*command, words.size() - 1))
        return failed;
    if (const Exit failed = checkOptions(name, options))
        return failed;
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

static bool parseCount(const char* text, unsigned int& count) {
    char* end;
    const unsigned long number = text == nullptr ? 1 : strtoul(text, &end, 10);
    if (text != nullptr && (*text < '1' || *text > '9' || *end != '\0' || number > 999))
        return false;
    count = static_cast<unsigned int>(number);
    return true;
}

// A full disk or a closed pipe behind standard output shows here, that of a piece which went out
// earlier too.
static Exit finish(Exit result) {
    const bool hasFailed = ferror(stdout) != 0;
    const int error = fclose(stdout) != 0 ? errno : 0;
    if ((result != done && result != leftOut) || (!hasFailed && error == 0))
        return result;
    return complain(fileError, "standard output: %s",
                    error == 0 ? "can't be written" : strerror(error));
}

int main(int argc, char** argv) {
    // The library wants it set; a command should work without.
    setenv("QELDIR", "/opt/Quillmere/nls/QEL", 0);
    static const option kOptions[] = {{"all", no_argument, nullptr, 'a'},
                                      {"all-layers", no_argument, nullptr, 'A'},
                                      {"bare", no_argument, nullptr, 'B'},
                                      {"backup", optional_argument, nullptr, 'b'},
                                      {"create", no_argument, nullptr, 'c'},
                                      {"default", required_argument, nullptr, 'D'},
                                      {"delete", no_argument, nullptr, 'd'},
                                      {"dialect", required_argument, nullptr, 'i'},
                                      {"dry-run", no_argument, nullptr, 'n'},
                                      {"editor", no_argument, nullptr, 'e'},
                                      {"help", no_argument, nullptr, 'h'},
                                      {"if-equals", required_argument, nullptr, 'E'},
                                      {"if-missing", no_argument, nullptr, 'm'},
                                      {"json", no_argument, nullptr, 'j'},
                                      {"layers", required_argument, nullptr, 'L'},
                                      {"origin", no_argument, nullptr, 'o'},
                                      {"root", required_argument, nullptr, 'r'},
                                      {"store", required_argument, nullptr, 's'},
                                      {"to", required_argument, nullptr, 'T'},
                                      {"type", required_argument, nullptr, 't'},
                                      {"uncomment", no_argument, nullptr, 'u'},
                                      {"user", no_argument, nullptr, 'U'},
                                      {"version", no_argument, nullptr, 'v'},
                                      {"wait", required_argument, nullptr, 'w'},
                                      {nullptr, 0, nullptr, 0}};
    Options options;
    int letter;
    while ((letter = getopt_long(argc, argv, "", kOptions, nullptr)) != -1) {
        // An empty root, say of a variable that isn't set, must not mean the whole system.
        if (strchr("LrTi", letter) != nullptr && *optarg == '\0')
            return complain(usage, letter == 'i'
                                       ? "--dialect takes a word that isn't empty"
                                       : "--layers, --root and --to take a word that isn't empty");
        switch (letter) {
            case 'a':
                options.all = true;
                break;
            case 'A':
                options.layers.all = true;
                break;
            case 'L':
                options.layers.name = optarg;
                break;
            case 'o':
                options.layers.withOrigin = true;
                break;
            case 'r':
                options.layers.root = optarg;
                break;
            case 'T':
                options.layers.to = optarg;
                break;
            case 'U':
                options.layers.withUser = true;
                break;
            case 'b':
                if (!parseCount(optarg, options.backups))
                    return complain(usage, "no number of backups from 1 to 999: %s", optarg);
                break;
            case 'c':
                options.create = true;
                break;
            case 'D':
                options.hasDefault = true;
                options.defaultText = optarg;
                break;
            case 'd':
                options.remove = true;
                break;
            case 'n':
                options.dryRun = true;
                break;
            case 'e':
                options.editor = true;
                break;
            case 'E':
                options.terms.ifEquals = true;
                options.terms.equals = optarg;
                break;
            case 'm':
                options.terms.ifMissing = true;
                break;
            case 'j':
                options.json = true;
                break;
            case 't':
                if (const Exit failed = parseType(optarg, options.terms.type))
                    return failed;
                break;
            case 'B':
                options.terms.bare = true;
                break;
            case 'i':
                options.dialect = optarg;
                break;
            case 'u':
                options.terms.uncomment = true;
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
