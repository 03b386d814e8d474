// The command zstz as its users meet it: command lines with what they print, how they end, and what
// becomes of the file.
#include "support/Prelude.h"

#include "support/Config.h"
#include "support/FileState.h"
#include "support/TempFolder.h"

using std::string;

namespace {

typedef std::vector<string> Words;

struct Outcome {
    int code;  // -1 if it didn't end by itself
    string out, err;
};

// Runs a line of the shell in a folder, where zstz is the command, without QELDIR and in the C
// locale.
int shell(const TempFolder& folder, const string& line) {
    const char* build = getenv("ZBASE_BUILD");
    const int status =
        system(("cd '" + (folder / "") + "' && unset QELDIR && export LC_ALL=C PATH='" +
                (build == nullptr ? "" : build) + "':\"$PATH\"\n" + line)
                   .c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

Outcome run(const TempFolder& folder, const Words& words, const string& output = "out") {
    string line = "zstz";
    for (const string& word : words)
        line += " '" + word + "'";
    const int code = shell(folder, line + " >" + output + " 2>err");
    return {code, TempFolder::read(folder / "out"), TempFolder::read(folder / "err")};
}

const char kText[] = "  # head\n\n[s]\nk = 1\nk = 2\nempty =\n\n[t]\n# m = 0\n\nn = x y\n";

struct Case {
    Words words;
    int code;
    const char *out = "", *err = "";  // the beginning of what it says
    const char *from = "", *to = "";  // what changes in the file
};

void check(const std::vector<Case>& cases) {
    for (const Case& c : cases) {
        string expected = kText;
        SCOPED_TRACE(::testing::PrintToString(c.words));
        TempFolder folder;
        const string file = folder.write("f", expected);
        const Outcome outcome = run(folder, c.words);
        EXPECT_EQ(outcome.code, c.code);
        EXPECT_EQ(outcome.out, c.out);
        EXPECT_EQ(outcome.err.substr(0, *c.err == '\0' ? string::npos : strlen(c.err)), c.err);
        EXPECT_EQ(TempFolder::read(file),
                  expected.replace(expected.find(c.from), strlen(c.from), c.to));
    }
}

TEST(Zstz, Reads) {
    check({
        {{"get", "f", "s", "k"}, 0, "2\n"},
        {{"get", "f", "s", "k", "--all"}, 0, "1\n2\n"},
        {{"get", "f", "s", "empty"}, 0, "\n"},
        {{"get", "--all", "f", "s", "empty"}, 0},
        {{"get", "f", "s", "x"}, 1, "", "f: no key x in [s]\n"},
        {{"get", "g", "s", "k"}, 3, "", "g: error: fopen(r): No such"},
        {{"get", ".", "s", "k"}, 3, "", ".: error: fopen(r): Is a directory\n"},
        {{"list", "f"}, 0, "s\nt\n"},
        {{"list", "f", "s"}, 0, "k = 1\nk = 2\nempty =\n"},
        {{"list", "f", "x"}, 1, "", "f: no stanza [x]\n"},
        {{"check", "f"}, 0},
    });
}

TEST(Zstz, Changes) {
    check({
        {{"set", "f", "s", "k", "3"}, 0, "", "", "k = 1\nk = 2\n", "k = 3\n"},
        // Into the paragraph of the sample.
        {{"set", "f", "t", "m", "5"}, 0, "", "", "# m = 0\n", "# m = 0\nm = 5\n"},
        {{"set", "f", "u", "a key", "b = c"}, 0, "", "", "y\n", "y\n\n[u]\na key = b = c\n"},
        {{"set", "f", "t", "n", ""}, 0, "", "", "n = x y", "n ="},
        {{"set", "--type", "integer", "f", "t", "n", "0x10"}, 0, "", "", "x y", "16"},
        {{"set", "f", "t", "n", "TRUE", "--type=boolean"}, 0, "", "", "x y", "yes"},
        {{"set", "--", "f", "t", "n", "--all"}, 0, "", "", "x y", "--all"},
        {{"add", "f", "s", "k", "1"}, 0, "", "", "k = 2\n", "k = 2\nk = 1\n"},
        {{"add", "f", "s", "empty", "1"}, 0, "", "", "empty =", "empty = 1"},
        {{"unset", "f", "s", "k", "1"}, 0, "", "", "k = 1\n", ""},
        {{"edit", "f", "add s k 1", "unset s k 1"}, 0, "", "", "k = 1\n", ""},  // all of them
        {{"unset", "f", "s", "k"}, 0, "", "", "k = 1\nk = 2\n", ""},
        {{"unset", "f", "s"}, 0, "", "", "[s]\nk = 1\nk = 2\nempty =\n\n", ""},
        {{"unset", "f", "s", "k", "9"}, 1, "", "f: no value 9"},
        {{"comment", "f", "c"}, 0, "", "", "# head\n", "# head\n#c\n"},
        {{"comment", "f", "s", "# c"}, 0, "", "", "[s]\n", "[s]\n# c\n\n"},
        {{"comment", "f", "s", "empty", "# c"}, 0, "", "", "empty", "\n# c\nempty"},
    });
}

TEST(Zstz, SeveralChangesAreOneUpdate) {
    check({
        {{"edit", "f", "set s k 3", "unset t n", "set s k \"4 5\""},
         0,
         "",
         "",
         "k = 1\nk = 2\nempty =\n\n[t]\n# m = 0\n\nn = x y\n",
         "k = 4 5\nempty =\n\n[t]\n# m = 0\n\n"},
        {{"edit", "f", "set --type integer t n 0x10"}, 0, "", "", "x y", "16"},
        {{"edit", "f", "comment \"# a \\\" b\""}, 0, "", "", "# head\n", "# head\n# a \" b\n"},
        // The last fails, and so does all.
        {{"edit", "f", "set s k 3", "unset t x"}, 1, "", "f: no key x in [t]\nzstz: nothing"},
        {{"edit", "f", "set s k 3", "set s k a b"}, 2, "", "zstz: wrong number"},
    });
    TempFolder folder;
    folder.write("f", kText);
    folder.write("script", "# two changes\n\nset s k 3\n  add s k 4");
    EXPECT_EQ(shell(folder, "zstz edit f <script"), 0);
    EXPECT_EQ(run(folder, {"get", "--all", "f", "s", "k"}).out, "3\n4\n");
}

TEST(Zstz, TellsDifferencesAndAppliesThem) {
    TempFolder folder;
    folder.write("a", "[s]\nk = 1\nl = 2\n[gone]\nx = y\n");
    folder.write("b", "[s]\nk = 1\nl = 3\nl = 4\n[new]\nempty =\n");
    const Outcome told = run(folder, {"diff", "a", "b"});
    EXPECT_EQ(told.code, 1);
    EXPECT_EQ(told.out,
              "- [s] l = 2\n+ [s] l = 3\n+ [s] l = 4\n- [gone]\n- [gone] x = y\n"
              "+ [new]\n+ [new] empty =\n");
    EXPECT_EQ(run(folder, {"merge", "a", "b"}).code, 0);
    EXPECT_EQ(run(folder, {"diff", "a", "b"}).out, "- [gone]\n- [gone] x = y\n");
    EXPECT_EQ(run(folder, {"merge", "--delete", "a", "b"}).code, 0);
    EXPECT_EQ(run(folder, {"diff", "a", "b"}).code, 0);
    EXPECT_EQ(TempFolder::read(folder / "a"), "[s]\nk = 1\nl = 3\nl = 4\n[new]\nempty =\n");
}

TEST(Zstz, ManyAtOnceLoseNothing) {
    TempFolder folder;
    folder.write("f", kText);
    EXPECT_EQ(shell(folder, "for i in $(seq 30); do zstz set f n key$i $i & done; wait"), 0);
    EXPECT_EQ(shell(folder, "test $(zstz list f n | wc -l) -eq 30"), 0);
    EXPECT_EQ(TempFolder::read(folder / "f").substr(0, strlen(kText)), kText);
}

TEST(Zstz, WatchesAFile) {
    TempFolder folder;
    folder.write("f", kText);
    // The watch says when it has begun by what it tells of the first change.
    const string line =
        "zstz watch f >told & watch=$!; "
        "zstz watch f 'echo $ZSTZ_CHANGE $ZSTZ_STANZA/$ZSTZ_KEY >>ran' & other=$!; i=0; "
        "until [ -s told ] && [ -s ran ]; do i=$((i + 1)); zstz set f s k $i; sleep 0.05; done; "
        "zstz unset f t; until grep -q 'deleted \\[t\\]$' told && grep -q 'deleted t/$' ran; "
        "do sleep 0.05; done; kill $watch $other";
    ASSERT_EQ(shell(folder, line), 0);
    const string told = TempFolder::read(folder / "told");
    EXPECT_EQ(told.substr(0, 15), "modified [s] k\n");
    EXPECT_EQ(told.substr(told.find("deleted")), "deleted [t] n\ndeleted [t]\n");
}

TEST(Zstz, RefusesWhatTheFileCouldNotGiveBack) {
    check({
        {{"set", "f", "", "k", "v"}, 2, "", "zstz: can't change [] k: a stanza's name can't be"},
        {{"set", "f", "s", "a=b", "v"}, 2, "", "zstz: can't change [s] a=b: a key can't hold =\n"},
        {{"add", "f", "s", "k", ""}, 2, "", "zstz: can't change [s] k: a value can't be empty\n"},
        {{"comment", "f", "a\nb = c"}, 2, "", "zstz: can't change the file: a comment can't"},
        {{"edit", "f", "unset s x", "add s k \"v \""}, 2, "", "zstz: can't change [s] k: a value"},
        {{"set", "f", "s", "k", "maybe", "--type=boolean"}, 2, "", "zstz: neither yes nor no: m"},
    });
    for (const char* text : {"1x", "", "-0", "-1", "4294967296", "99999999999999999999"})
        check({{{"set", "--type=integer", "--", "f", "s", "k", text}, 2, "", "zstz: not an int"}});
}

TEST(Zstz, Usage) {
    check({
        {{}, 2, "", "zstz: no command; see zstz --help\n"},
        {{"put", "f"}, 2, "", "zstz: no such command: put"},
        {{"get", "f", "s"}, 2, "", "zstz: wrong number of arguments for get"},
        {{"get", "--some", "f", "s", "k"}, 2, "", "zstz: unrec"},
        {{"set", "--type", "date", "f", "s", "k", "v"}, 2, "", "zstz: no such type"},
        {{"set", "--all", "f", "s", "k", "v"}, 2, "", "zstz: --all goes"},
        {{"get", "--type=string", "f", "s", "k"}, 2, "", "zstz: --type"},
        {{"add", "--create", "f", "s", "k", "v"}, 2, "", "zstz: --create"},
        {{"set", "--wait", "soon", "f", "s", "k", "v"}, 2, "", "zstz: no number"},
        {{"set", "--store", "fast", "f", "s", "k", "v"}, 2, "", "zstz: no such way"},
        {{"edit", "f", "set s k 1", "list s"}, 2, "", "zstz: no such change: list"},
        {{"edit", "f", "set s k \"x"}, 2, "", "zstz: a quote isn't closed"},
        {{"edit", "f", "set s k 1", ""}, 2, "", "zstz: an empty change"},
        {{"--version"}, 0, "zstz 6.0\n"},
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
    EXPECT_EQ(run(folder, {"set", "--create", "g", "s", "#k", "v"}).code, 2);
    EXPECT_EQ(TempFolder::read(folder / "g"), "<none>");
    EXPECT_EQ(run(folder, {"set", "--create", "g", "s", "k", "v"}).code, 0);
    EXPECT_EQ(run(folder, {"set", "--create", "g", "s", "l", "w"}).code, 0);
    EXPECT_EQ(TempFolder::read(folder / "g"), "\n[s]\nk = v\nl = w\n");
    EXPECT_EQ(run(folder, {"set", "--create", "no/g", "s", "k", "v"}).code, 3);

    {
        const Locked reader(file, F_RDLCK);
        EXPECT_EQ(run(folder, {"get", "f", "s", "k"}).code, 0);
        const Outcome refused = run(folder, {"set", "--wait=0.1", "f", "s", "k", "v"});
        EXPECT_EQ(refused.code, 3);
        EXPECT_EQ(refused.err, "f: error: fcntl(): Resource temporarily unavailable\n");
    }
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
    Config properties(file);
    properties.setValue("t", "secret", "old", 1);
    properties.store(nullptr);
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
