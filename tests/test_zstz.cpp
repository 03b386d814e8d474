// The command zstz as its users meet it: command lines with what they print, how they end, and what
// becomes of the file.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "Z/ZStanzaFileProperties.h"
#include "support/TempFolder.h"

using std::string;

namespace {

typedef std::vector<string> Words;

struct Outcome {
    int code;  // -1 if it didn't end by itself
    string out, err;
};

// Runs the command in a folder, without QELDIR and in the C locale.
Outcome run(const TempFolder& folder, Words words, const char* output = nullptr) {
    const char* build = getenv("ZBASE_BUILD");
    if (build == nullptr)
        return {-1, "", "ZBASE_BUILD isn't set"};
    words.insert(words.begin(), "zstz");
    const string command = string(build) + "/zstz", out = folder / "out", err = folder / "err";
    const pid_t child = fork();
    if (child == 0) {
        const int flags = O_WRONLY | O_CREAT | O_TRUNC;
        dup2(open(output == nullptr ? out.c_str() : output, flags, 0600), STDOUT_FILENO);
        dup2(open(err.c_str(), flags, 0600), STDERR_FILENO);
        unsetenv("QELDIR");
        setenv("LC_ALL", "C", 1);
        std::vector<char*> arguments;
        for (string& word : words)
            arguments.push_back(&word[0]);
        arguments.push_back(nullptr);
        if (chdir((folder / "").c_str()) == 0)
            execv(command.c_str(), arguments.data());
        _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, TempFolder::read(out),
            TempFolder::read(err)};
}

const char kText[] = "# head\n\n[s]\nk = 1\nk = 2\nempty =\n\n[t]\n# m = 0\n\nn = x y\n";

struct Case {
    const char* what;
    Words words;
    int code;
    const char* out;
    const char* err;   // the beginning of it
    const char* text;  // of the file afterwards; null: as it was
};

void check(const std::vector<Case>& cases) {
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TempFolder folder;
        const string file = folder.write("f", kText);
        const Outcome outcome = run(folder, c.words);
        EXPECT_EQ(outcome.code, c.code);
        EXPECT_EQ(outcome.out, c.out);
        EXPECT_EQ(outcome.err.substr(0, *c.err == '\0' ? string::npos : strlen(c.err)), c.err);
        EXPECT_EQ(TempFolder::read(file), c.text == nullptr ? kText : c.text);
    }
}

TEST(Zstz, Reads) {
    check({
        {"last value", {"get", "f", "s", "k"}, 0, "2\n", "", nullptr},
        {"all values", {"get", "f", "s", "k", "--all"}, 0, "1\n2\n", "", nullptr},
        {"no value", {"get", "f", "s", "empty"}, 0, "\n", "", nullptr},
        {"none of all", {"get", "--all", "f", "s", "empty"}, 0, "", "", nullptr},
        {"no such key", {"get", "f", "s", "x"}, 1, "", "f: no key x in [s]\n", nullptr},
        {"no such stanza", {"get", "f", "x", "k"}, 1, "", "f: no stanza [x]\n", nullptr},
        {"no such file", {"get", "g", "s", "k"}, 3, "", "g: error: fopen(r): No such", nullptr},
        {"a folder", {"get", ".", "s", "k"}, 3, "", ".: error: Is a directory\n", nullptr},
        {"stanzas", {"list", "f"}, 0, "s\nt\n", "", nullptr},
        {"entries", {"list", "f", "s"}, 0, "k = 1\nk = 2\nempty =\n", "", nullptr},
        {"entries of none", {"list", "f", "x"}, 1, "", "f: no stanza [x]\n", nullptr},
        {"a good file", {"check", "f"}, 0, "", "", nullptr},
    });
}

TEST(Zstz, Changes) {
    check({
        {"set replaces all values",
         {"set", "f", "s", "k", "3"},
         0,
         "",
         "",
         "# head\n\n[s]\nk = 3\nempty =\n\n[t]\n# m = 0\n\nn = x y\n"},
        {"set goes to the sample's paragraph",
         {"set", "f", "t", "m", "5"},
         0,
         "",
         "",
         "# head\n\n[s]\nk = 1\nk = 2\nempty =\n\n[t]\n# m = 0\nm = 5\n\nn = x y\n"},
        {"set makes the stanza",
         {"set", "f", "u", "a key", "b = c # d"},
         0,
         "",
         "",
         "# head\n\n[s]\nk = 1\nk = 2\nempty =\n\n[t]\n# m = 0\n\nn = x y\n\n[u]\na key = b = c # "
         "d\n"},
        {"an empty value empties",
         {"set", "f", "t", "n", ""},
         0,
         "",
         "",
         "# head\n\n[s]\nk = 1\nk = 2\nempty =\n\n[t]\n# m = 0\n\nn =\n"},
        {"integer",
         {"set", "--type", "integer", "f", "t", "n", "0x10"},
         0,
         "",
         "",
         "# head\n\n[s]\nk = 1\nk = 2\nempty =\n\n[t]\n# m = 0\n\nn = 16\n"},
        {"boolean",
         {"set", "f", "t", "n", "TRUE", "--type=boolean"},
         0,
         "",
         "",
         "# head\n\n[s]\nk = 1\nk = 2\nempty =\n\n[t]\n# m = 0\n\nn = yes\n"},
        {"a value that looks like an option",
         {"set", "--", "f", "t", "n", "--all"},
         0,
         "",
         "",
         "# head\n\n[s]\nk = 1\nk = 2\nempty =\n\n[t]\n# m = 0\n\nn = --all\n"},
        {"add goes behind the others",
         {"add", "f", "s", "k", "1"},
         0,
         "",
         "",
         "# head\n\n[s]\nk = 1\nk = 2\nk = 1\nempty =\n\n[t]\n# m = 0\n\nn = x y\n"},
        {"add to a key without value",
         {"add", "f", "s", "empty", "1"},
         0,
         "",
         "",
         "# head\n\n[s]\nk = 1\nk = 2\nempty = 1\n\n[t]\n# m = 0\n\nn = x y\n"},
        {"unset a value",
         {"unset", "f", "s", "k", "1"},
         0,
         "",
         "",
         "# head\n\n[s]\nk = 2\nempty =\n\n[t]\n# m = 0\n\nn = x y\n"},
        {"unset a key",
         {"unset", "f", "s", "k"},
         0,
         "",
         "",
         "# head\n\n[s]\nempty =\n\n[t]\n# m = 0\n\nn = x y\n"},
        {"unset a stanza", {"unset", "f", "s"}, 0, "", "", "# head\n\n[t]\n# m = 0\n\nn = x y\n"},
        {"unset what isn't there", {"unset", "f", "s", "k", "9"}, 1, "", "f: no value 9", nullptr},
        {"unset no key", {"unset", "f", "s", "x"}, 1, "", "f: no key x in [s]\n", nullptr},
        {"unset no stanza", {"unset", "f", "x"}, 1, "", "f: no stanza [x]\n", nullptr},
        {"comment on the file",
         {"comment", "f", "c"},
         0,
         "",
         "",
         "# head\n#c\n\n[s]\nk = 1\nk = 2\nempty =\n\n[t]\n# m = 0\n\nn = x y\n"},
        {"comment on a stanza",
         {"comment", "f", "s", "# c"},
         0,
         "",
         "",
         "# head\n\n[s]\n# c\n\nk = 1\nk = 2\nempty =\n\n[t]\n# m = 0\n\nn = x y\n"},
        {"comment on a key",
         {"comment", "f", "s", "empty", "# c"},
         0,
         "",
         "",
         "# head\n\n[s]\nk = 1\nk = 2\n\n# c\nempty =\n\n[t]\n# m = 0\n\nn = x y\n"},
    });
}

TEST(Zstz, UnsetTakesEveryValueOfThatText) {
    TempFolder folder;
    const string file = folder.write("f", "[s]\nk = 1\nk = 1\nk = 2\nk = 1\n");
    EXPECT_EQ(run(folder, {"unset", "f", "s", "k", "1"}).code, 0);
    EXPECT_EQ(TempFolder::read(file), "[s]\nk = 2\n");
}

TEST(Zstz, RefusesWhatTheFileCouldNotGiveBack) {
    const string longest(8191 - 5, 'x');  // "n = " and the line end take the rest
    for (const string& value : {string("a\nb"), string(" a"), string("a\t"), longest + "x"})
        for (const char* command : {"set", "add"})
            check({{command, {command, "f", "t", "n", value}, 2, "", "zstz: ", nullptr}});
    check({
        {"stanza with ]", {"set", "f", "a]b", "k", "v"}, 2, "", "zstz: ", nullptr},
        {"no stanza", {"set", "f", "", "k", "v"}, 2, "", "zstz: ", nullptr},
        {"key with =", {"set", "f", "s", "a=b", "v"}, 2, "", "zstz: ", nullptr},
        {"key like a comment", {"set", "f", "s", "#a", "v"}, 2, "", "zstz: ", nullptr},
        {"key like a header", {"add", "f", "s", "[a", "v"}, 2, "", "zstz: ", nullptr},
        {"no key", {"set", "f", "s", "", "v"}, 2, "", "zstz: ", nullptr},
        {"blank at the key's end", {"set", "f", "s", "a ", "v"}, 2, "", "zstz: ", nullptr},
        {"nothing to add", {"add", "f", "s", "k", ""}, 2, "", "zstz: ", nullptr},
        {"a comment of two lines", {"comment", "f", "a\nb = c"}, 2, "", "zstz: ", nullptr},
        {"no number", {"set", "f", "s", "k", "1x", "--type=integer"}, 2, "", "zstz: ", nullptr},
        {"too large a number",
         {"set", "f", "s", "k", "4294967296", "--type=integer"},
         2,
         "",
         "zstz: ",
         nullptr},
        {"no truth", {"set", "f", "s", "k", "maybe", "--type=boolean"}, 2, "", "zstz: ", nullptr},
    });
    TempFolder folder;
    const string file = folder.write("f", kText);
    EXPECT_EQ(run(folder, {"set", "f", "t", "n", longest}).code, 0);
    EXPECT_EQ(run(folder, {"get", "f", "t", "n"}).out, longest + "\n");
}

TEST(Zstz, Usage) {
    check({
        {"nothing", {}, 2, "", "zstz: no command; see zstz --help\n", nullptr},
        {"no such command", {"put", "f"}, 2, "", "zstz: no such command: put", nullptr},
        {"too few", {"get", "f", "s"}, 2, "", "zstz: wrong number of arguments for get", nullptr},
        {"too many", {"list", "f", "s", "k"}, 2, "", "zstz: wrong number", nullptr},
        {"no such option", {"get", "--some", "f", "s", "k"}, 2, "", "zstz: unrec", nullptr},
        {"no such type",
         {"set", "--type", "date", "f", "s", "k", "v"},
         2,
         "",
         "zstz: no such type",
         nullptr},
        {"an option of another",
         {"set", "--all", "f", "s", "k", "v"},
         2,
         "",
         "zstz: --all goes",
         nullptr},
        {"a type to read", {"get", "--type=string", "f", "s", "k"}, 2, "", "zstz: --type", nullptr},
        {"create to add", {"add", "--create", "f", "s", "k", "v"}, 2, "", "zstz: --type", nullptr},
        {"version", {"--version"}, 0, "zstz 6.0\n", "", nullptr},
    });
    TempFolder folder;
    const Outcome help = run(folder, {"--help"});
    EXPECT_EQ(help.code, 0);
    EXPECT_EQ(help.out.substr(0, 20), "Usage: zstz COMMAND ");
    EXPECT_EQ(help.err, "");
}

TEST(Zstz, FilesThatAreMissingLockedOrBad) {
    TempFolder folder;
    const string file = folder.write("f", kText);
    EXPECT_EQ(run(folder, {"set", "g", "s", "k", "v"}).code, 3);
    EXPECT_EQ(TempFolder::read(folder / "g"), "<none>");
    EXPECT_EQ(run(folder, {"set", "--create", "g", "s", "k", "v"}).code, 0);
    EXPECT_EQ(run(folder, {"set", "--create", "g", "s", "l", "w"}).code, 0);
    EXPECT_EQ(TempFolder::read(folder / "g"), "\n[s]\nk = v\nl = w\n");
    EXPECT_EQ(run(folder, {"set", "--create", "no/g", "s", "k", "v"}).code, 3);

    const int locked = open(file.c_str(), O_RDWR);
    struct flock whole = {};
    whole.l_type = F_RDLCK;
    ASSERT_EQ(fcntl(locked, F_SETLK, &whole), 0);
    EXPECT_EQ(run(folder, {"get", "f", "s", "k"}).code, 0);
    const Outcome refused = run(folder, {"set", "f", "s", "k", "v"});
    EXPECT_EQ(refused.code, 3);
    EXPECT_EQ(refused.err, "f: error: fcntl(): Resource temporarily unavailable\n");
    close(locked);
    EXPECT_EQ(TempFolder::read(file), kText);

    folder.write("bad", "[s]\nk = v\n  nonsense\nmore\n");
    folder.write("twice", "[s]\n[s]\n");
    const Outcome checked = run(folder, {"check", "bad", "f", "missing", "twice"});
    EXPECT_EQ(checked.code, 4);
    EXPECT_EQ(checked.err,
              "bad:3: error: bad line:   nonsense\n"
              "missing: error: fopen(r): No such file or directory\n"
              "twice:2: error: bad line: [s]\n");
    EXPECT_EQ(run(folder, {"check", "f", "missing"}).code, 3);
    EXPECT_EQ(run(folder, {"set", "bad", "s", "k", "w"}).code, 4);

    // Values that didn't get through aren't a success.
    EXPECT_EQ(run(folder, {"get", "f", "s", "k"}, "/dev/full").code, 3);
    EXPECT_EQ(run(folder, {"--help"}, "/dev/full").code, 3);
}

TEST(Zstz, HiddenValues) {
    TempFolder folder;
    const string file = folder.write("f", kText);
    setenv("QELDIR", "/opt/Quillmere/nls/QEL", 0);
    {
        ZStanzaFileProperties properties(file.c_str(), 1);
        properties.setValue("t", "secret", "old", 1);
        properties.store(nullptr);
    }
    EXPECT_EQ(run(folder, {"get", "f", "t", "secret"}).out, "old\n");
    const Outcome refused = run(folder, {"set", "f", "t", "secret", "new"});
    EXPECT_EQ(refused.code, 4);
    EXPECT_EQ(refused.err,
              "f: error: can't change [t] secret: its values are hidden; unset it first\n");
    EXPECT_EQ(run(folder, {"add", "f", "t", "secret", "new"}).code, 0);
    EXPECT_EQ(TempFolder::read(file).find("new"), string::npos);
    EXPECT_EQ(run(folder, {"list", "f", "t"}).out, "n = x y\nsecret = old\nsecret = new\n");
    EXPECT_EQ(run(folder, {"unset", "f", "t", "secret"}).code, 0);
    EXPECT_EQ(TempFolder::read(file + ".obf"), "<none>");
    folder.write("f", "[configuration-database]\nfile = " + file + ".obf\n");
    folder.write("f.obf", "no stream");
    const Outcome damaged = run(folder, {"list", "f"});
    EXPECT_EQ(damaged.code, 4);
    EXPECT_EQ(damaged.err, file + ".obf: error: not a side database\n");
}

}  // namespace
