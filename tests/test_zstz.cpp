// The command zstz as its users meet it: command lines with what they print, how they end, and what
// becomes of the file.
#include "support/Prelude.h"

#include "support/Config.h"
#include "support/FileState.h"
#include "support/TempFolder.h"

#include <sys/stat.h>

#include <random>

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
        {{"get", "f", "s", "x"}, 1, "", "f: no key x in [s]; see zstz list f s\n"},
        {{"get", "g", "s", "k"}, 3, "", "g: error: fopen(r): No such"},
        {{"get", ".", "s", "k"}, 3, "", ".: error: fopen(r): Is a directory\n"},
        {{"list", "f"}, 0, "s\nt\n"},
        {{"list", "f", "s"}, 0, "k = 1\nk = 2\nempty =\n"},
        {{"list", "f", "x"}, 1, "", "f: no stanza [x]; see zstz list f\n"},
        {{"check", "f"}, 0},
        {{"get", "f", "s", "k", "t", "n"}, 0, "2\nx y\n"},
        {{"get", "f", "s", "k", "t", "x"}, 1, "", "f: no key x in [t]"},
        {{"get", "f", "s", "k", "t", "x", "--default", "d"}, 0, "2\nd\n"},
        {{"get", "f", "s", "empty", "u", "x", "--default="}, 0, "\n\n"},
        {{"get", "f", "s", "k", "t"}, 2, "", "zstz: get takes"},
        {{"get", "--all", "f", "s", "k", "t", "n"}, 2, "", "zstz: --all with several"},
        {{"get", "f", "s", "emtpy"}, 1, "", "f: no key emtpy in [s]; did you mean empty?\n"},
        {{"unset", "f", "s", "mpty"}, 1, "", "f: no key mpty in [s]; did you mean empty?\n"},
        {{"get", "f", "s", "Empty"}, 1, "", "f: no key Empty in [s]; did you mean empty?\n"},
        {{"get", "f", "s", "empyt"}, 1, "", "f: no key empyt in [s]; did you mean empty?\n"},
        {{"get", "f", "s", "epmyt"}, 1, "", "f: no key epmyt in [s]; see"},
    });
}

TEST(Zstz, AnswersInJSON) {
    TempFolder folder;
    folder.write("f", kText);
    folder.write("g",
                 "[s]\nk = 1\nempty = e\n[\xC3\xBC \"\\]\n\xFF = \xED\xA0\x80\n"
                 "t\tb\x01 = \xF0\x9F\x98\x80 \xC0\x80\n[v]\n");
    folder.write("bad", "[s]\n \"x\n");
    const struct {
        const char *line, *out;
        int code;
    } kCases[] = {
        {"get --json f s k t n s empty", "\"2\"\n\"x y\"\nnull\n", 0},
        {"get --json --all f s k t n s empty", "[\"1\", \"2\"]\n[\"x y\"]\n[]\n", 0},
        {"list --json f",
         "{\n\"s\": {\n  \"k\": [\"1\", \"2\"],\n  \"empty\": null\n},\n\"t\": {\n"
         "  \"n\": \"x y\"\n}\n}\n",
         0},
        {"list --json f t", "{\n  \"n\": \"x y\"\n}\n", 0},
        {"list --json - </dev/null", "{}\n", 0},
        // What isn't UTF-8: a byte, a surrogate, a long form.
        {"list --json g",
         "{\n\"s\": {\n  \"k\": \"1\",\n  \"empty\": \"e\"\n},\n"
         "\"\xC3\xBC \\\"\\\\\": {\n"
         "  \"\\u0000/w==\": {\"bytes\": \"7aCA\"},\n"
         "  \"t\\tb\\u0001\": {\"bytes\": \"8J+YgCDAgA==\"}\n},\n\"v\": {}\n}\n",
         0},
        {"diff --json f g | head -3",
         "{\"change\": \"modified\", \"stanza\": \"s\", \"key\": \"k\", "
         "\"old\": [\"1\", \"2\"], \"new\": \"1\"}\n"
         "{\"change\": \"modified\", \"stanza\": \"s\", \"key\": \"empty\", "
         "\"old\": null, \"new\": \"e\"}\n{\"change\": \"deleted\", \"stanza\": \"t\"}\n",
         0},
        {"check --json f bad no",
         "{\"file\": \"f\", \"ok\": true}\n"
         "{\"file\": \"bad\", \"ok\": false, \"in\": \"bad\", \"line\": 2, "
         "\"error\": \"bad line\", \"text\": \" \\\"x\"}\n"
         "{\"file\": \"no\", \"ok\": false, \"in\": \"no\", "
         "\"error\": \"fopen(r): No such file or directory\"}\n",
         4},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.line);
        EXPECT_EQ(shell(folder, string("zstz ") + c.line + " >out"), c.code);
        EXPECT_EQ(TempFolder::read(folder / "out"), c.out);
    }
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

TEST(Zstz, ChangesUnderConditions) {
    check({
        {{"set", "--if-missing", "f", "t", "m", "5"}, 0, "", "", "= 0\n", "= 0\nm = 5\n"},
        {{"set", "--if-missing", "f", "s", "empty", "5"}, 1, "", "f: [s] empty is there already"},
        {{"set", "--if-equals", "x y", "f", "t", "n", "5"}, 0, "", "", "x y", "5"},
        {{"set", "--if-equals=", "f", "s", "empty", "5"}, 0, "", "", "empty =", "empty = 5"},
        {{"set", "--if-equals=", "f", "t", "x", "5"}, 1, "", "f: [t] x has another value"},
        {{"set", "--if-equals", "2", "f", "s", "k", "5"}, 1, "", "f: [s] k has another"},
        {{"set", "--if-equals=1", "--if-missing", "f", "s", "k", "5"}, 2, "", "zstz: --if-"},
        {{"edit", "f", "set --if-equals \"x y\" t n 5", "set --if-missing s k 3"}, 1, "", "f: [s]"},
        {{"edit", "f", "set --if-equals \"x y\" --type integer t n 05"}, 0, "", "", "x y", "5"},
    });
}

TEST(Zstz, TurnsLinesIntoOthers) {
    check({
        {{"set", "--uncomment", "f", "t", "m"}, 0, "", "", "# m = 0", "m = 0"},
        {{"set", "--uncomment", "f", "t", "m", "5"}, 0, "", "", "# m = 0", "m = 5"},
        {{"set", "--uncomment", "f", "t", "n"}, 0},
        {{"set", "--uncomment", "f", "t", "o"}, 1, "", "f: [t] o has no sample"},
        {{"set", "--uncomment", "f", "t", "o", "1"}, 0, "", "", "x y\n", "x y\no = 1\n"},
        {{"set", "--uncomment", "--type=integer", "f", "t", "m"}, 0, "", "", "# m = 0", "m = 0"},
        {{"edit", "f", "comment t \"# z = x\"", "set --uncomment --type integer t z"},
         4,
         "",
         "f: error: can't change [t] z: not an integer"},
        {{"rename", "f", "s", "k", "k"}, 2, "", "zstz: k is the name that it has\n"},
        {{"set", "", "s", "k", "1"}, 2, "", "zstz: FILE is empty\n"},
        {{"set", "f", "t", "m"}, 2, "", "zstz: set takes a VALUE"},
        {{"disable", "f", "t", "n"}, 0, "", "", "n = ", "# n = "},
        {{"disable", "f", "s", "k"}, 0, "", "", "k = 1\nk = 2", "# k = 1\n# k = 2"},
        {{"disable", "f", "s", "empty"}, 0, "", "", "empty", "# empty"},
        {{"disable", "f", "t", "m"}, 1, "", "f: no key m in [t]"},
        {{"edit", "f", "disable t n", "set --uncomment t n"}, 0},
        {{"rename", "f", "t", "u v"}, 0, "", "", "[t]", "[u v]"},
        {{"rename", "f", "s", "k", "l"}, 0, "", "", "k = 1\nk = 2", "l = 1\nl = 2"},
        {{"rename", "f", "s", "t"}, 1, "", "f: [t] is there already"},
        {{"rename", "f", "s", "k", "empty"}, 1, "", "f: [s] empty is there already"},
        {{"rename", "f", "s", "x", "y"}, 1, "", "f: no key x in [s]"},
        {{"rename", "f", "s", "k", "a=b"}, 2, "", "zstz: can't change [s] a=b: a key can't hold"},
        {{"rename", "f", "s", "a]"}, 2, "", "zstz: can't change [a]] key: a stanza's name can't"},
        {{"edit", "f", "rename t u", "rename s t", "rename u s"},
         0,
         "",
         "",
         "[s]\nk = 1\nk = 2\nempty =\n\n[t]",
         "[t]\nk = 1\nk = 2\nempty =\n\n[s]"},
    });
}

TEST(Zstz, ShowsAndKeepsWhatItChanges) {
    TempFolder folder;
    const string file = folder.write("f", kText);
    EXPECT_EQ(run(folder, {"set", "--dry-run", "f", "s", "k", "3"}).out,
              "--- f\n+++ f\n@@ -1,8 +1,7 @@\n   # head\n \n [s]\n-k = 1\n-k = 2\n+k = 3\n"
              " empty =\n \n [t]\n");
    EXPECT_EQ(run(folder, {"set", "--dry-run", "--create", "g", "s", "k", "3"}).out,
              "--- g\n+++ g\n@@ -0,0 +1,3 @@\n+\n+[s]\n+k = 3\n");
    EXPECT_EQ(run(folder, {"set", "--dry-run", "f", "t", "n", "x y"}).out, "");
    EXPECT_EQ(TempFolder::read(file), kText);
    EXPECT_EQ(TempFolder::read(folder / "g"), "<none>");
    ASSERT_EQ(chmod(file.c_str(), 0640), 0);
    // What a backup holds already is no news, and neither is an update that changes nothing.
    for (const char* value : {"1", "1", "2", "3"})
        EXPECT_EQ(run(folder, {"set", "--backup=2", "f", "t", "n", value}).code, 0);
    const string text = kText;
    for (int i = 1; i <= 2; ++i) {
        const string name = file + ".~" + std::to_string(i) + "~";
        EXPECT_EQ(TempFolder::read(name),
                  text.substr(0, text.find("x y")) + std::to_string(3 - i) + "\n");
        struct stat status;
        ASSERT_EQ(stat(name.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0640u);
    }
    EXPECT_EQ(TempFolder::read(file + ".~3~"), "<none>");
    EXPECT_EQ(TempFolder::read(file + ".~new~"), "<none>");
    // Links are followed on the way to the file, and nowhere else.
    EXPECT_EQ(shell(folder,
                    "mkdir d; ln -s ../f d/link; echo mine >victim; rm f.~*; "
                    "ln -s victim f.~1~; ln -s victim f.~new~; "
                    "zstz set --backup d/link t n 4"),
              0);
    EXPECT_EQ(TempFolder::read(folder / "victim"), "mine\n");
    EXPECT_NE(TempFolder::read(file + ".~1~").find("n = 3"), string::npos);
    EXPECT_EQ(TempFolder::read(folder / "d/link.~1~"), "<none>");
}

TEST(Zstz, TellsWhatBarsASafeStore) {
    TempFolder folder;
    folder.write("f", kText);
    const struct {
        const char *before, *command, *err;
        int code;
    } kCases[] = {
        {"ln f g", "set f s k 3", "f: error: link(): Too many links\nzstz: a safe store puts", 3},
        {"true", "set --dry-run f s k 3", "f: error: can't be stored\nzstz: a safe store puts", 3},
        {"true", "set --backup f s k 3", "f: error: can't be stored\nzstz: a safe store puts", 3},
        {"true", "set --store checked f s k 3", "", 0},
        {"ln -s no l", "set --create l s k 3", "zstz: l is a link that leads to no file", 3},
        {"true", "set --create --backup n s k 3", "", 0},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.command);
        const string line = string(c.before) + "; zstz " + c.command + " >out 2>err";
        EXPECT_EQ(shell(folder, line), c.code);
        const string err = TempFolder::read(folder / "err");
        EXPECT_EQ(err.substr(0, *c.err == '\0' ? string::npos : strlen(c.err)), c.err);
    }
    EXPECT_NE(shell(folder, "ls *.~1~ 2>err"), 0);
}

TEST(Zstz, AnEditorRepairsABadFile) {
    TempFolder folder;
    const string bad = "[s]\nbad\n[configuration-database]\nfile = x\n";
    const struct {
        const char *editor, *options;
        int code;
        bool isRepaired;
    } kCases[] = {
        {"true", "", 4, false},
        {"sed -i s/bad/b=/", "--dry-run", 0, false},
        {"cp f n; mv n f; sed -i s/bad/b=/", "", 1, false},
        {"sed -i s/bad/b=/", "--backup", 2, false},
        {"sed -i s/bad/b=/", "", 0, true},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(string(c.editor) + " " + c.options);
        const string file = folder.write("f", bad);
        EXPECT_EQ(
            shell(folder, string("export TMPDIR=$PWD VISUAL='") + c.editor +
                              "'; zstz edit --editor f " + c.options + " >out 2>err </dev/null"),
            c.code);
        EXPECT_EQ(TempFolder::read(folder / "err").substr(0, 4), "f:2:");
        EXPECT_EQ(TempFolder::read(file),
                  c.isRepaired ? "[s]\nb=\n[configuration-database]\nfile = x\n" : bad);
    }
}

// Patches of random texts, applied by patch(1) where there is one, give the new text.
TEST(Zstz, PatchesLeadToTheNewText) {
    TempFolder folder;
    if (shell(folder, "command -v patch >/dev/null") != 0)
        GTEST_SKIP() << "no patch";
    std::mt19937 random(7);
    for (int round = 0; round < 40; ++round) {
        string text = "[s]\n", changes;
        const int count = round % 8 == 0 ? 3000 : 12;
        for (int i = 0; i < count; ++i) {
            text += "k" + std::to_string(i) + " = v\n" + (random() % 3 == 0 ? "\n" : "");
            if (random() % 4 == 0)
                changes += "set s k" + std::to_string(i) + " w\n";
            else if (random() % 4 == 0)
                changes += "unset s k" + std::to_string(i) + "\n";
            else if (random() % 4 == 0)
                changes += "rename s k" + std::to_string(i) + " l" + std::to_string(i) + "\n";
        }
        folder.write("f", text.substr(0, text.size() - round % 2));
        folder.write("changes", changes);
        EXPECT_EQ(shell(folder,
                        "cp f g; zstz --dry-run edit f <changes >p; zstz edit f <changes;"
                        "cp g h; test ! -s p || patch -s h p; cmp f h"),
                  0)
            << changes;
    }
}

TEST(Zstz, ReadsStandardInput) {
    TempFolder folder;
    folder.write("f", kText);
    const struct {
        const char *line, *out;
        int code;
    } kCases[] = {
        {"get - s k", "2\n", 0},
        {"list -", "s\nt\n", 0},
        {"set - s k 3 | zstz unset - t | zstz add - s k 4",
         "  # head\n\n[s]\nk = 3\nk = 4\nempty =\n\n", 0},
        {"edit - 'rename t u' 'comment c' | zstz diff f -",
         "- [t]\n- [t] n = x y\n+ [u]\n+ [u] n = x y\n", 1},
        {"set --if-missing - s k 3", kText, 1},
        {"edit - 'set s k 3' 'unset s x'", kText, 1},
        {"set --dry-run --if-missing - s k 3", "", 1},
        {"edit -", "", 2},
        {"diff - -", "", 2},
        {"set --backup - s k 3", "", 2},
        {"set - s '#' 3", "", 2},
        {"watch -", "", 2},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.line);
        EXPECT_EQ(shell(folder, string("(zstz ") + c.line + ") <f >out 2>err"), c.code);
        EXPECT_EQ(TempFolder::read(folder / "out"), c.out);
    }
}

TEST(Zstz, StoresWhatAnEditorHasWritten) {
    const struct {
        const char *editor, *line, *text, *err;
        int code;
        bool keeps;  // what was written
    } kCases[] = {
        {"sed -i s/k=/l=/", "edit --editor f", "[s]\n l=1", "", 0, false},
        {"true", "edit --editor f", "[s]\n k=1", "zstz: f is unchanged\n", 0, false},
        {"false", "edit --editor f", "[s]\n k=1", "zstz: the editor has failed: false", 3, true},
        {"sed -i s/=//", "edit --editor f", "[s]\n k=1", "f:2: error: bad line:  k1\n", 4, true},
        {"zstz set f s k 7; sed -i s/k=/l=/", "edit --editor f", "[s]\nk = 7\n",
         "f: error: somebody", 1, true},
        {"sed -i s/k=/l=/", "edit --editor --dry-run f", "[s]\n k=1", "zstz: nothing is done; what",
         0, true},
        {"true", "edit --editor -", "[s]\n k=1", "zstz: an editor can't", 2, false},
        {"rm", "edit --editor f", "[s]\n k=1", "zstz: the editor has removed", 3, false},
        {"sed -i s/k=/[configuration-database]\\\\nfile=/", "edit --editor f", "[s]\n k=1",
         "f: error: [configuration-database] file can't", 4, true},
        {"true", "edit --create --editor g", "[s]\n k=1", "zstz: g isn't made", 0, false},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.line);
        TempFolder folder;
        const string file = folder.write("f", "[s]\n k=1");
        EXPECT_EQ(shell(folder, string("export TMPDIR=$PWD VISUAL='") + c.editor + "'; zstz " +
                                    c.line + " >out 2>err </dev/null"),
                  c.code);
        EXPECT_EQ(TempFolder::read(file), c.text);
        const string err = TempFolder::read(folder / "err");
        EXPECT_EQ(err.substr(0, strlen(c.err)), c.err);
        // What was written is kept, and nothing else.
        const bool isKept = err.find("what you wrote is in") != string::npos;
        EXPECT_EQ(shell(folder, "ls zstz-*/f >out 2>&1") == 0, isKept);
        EXPECT_EQ(isKept, c.keeps);
        EXPECT_EQ(TempFolder::read(folder / "g"), "<none>");
    }
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
        {{"edit", "f", "set s k 3", "unset t x"},
         1,
         "",
         "f: no key x in [t]; see zstz list f t\nzstz: nothing"},
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
    const Outcome unmet = run(folder, {"set", "--create", "--if-equals=1", "g", "s", "k", "v"});
    EXPECT_EQ(unmet.err, "g: [s] k has another value\n");
    EXPECT_EQ(run(folder, {"set", "--create", "--uncomment", "g", "s", "k"}).code, unmet.code);
    EXPECT_EQ(TempFolder::read(folder / "g"), "<none>");
    EXPECT_EQ(run(folder, {"set", "--create", "--if-missing", "g", "s", "k", "v"}).code, 0);
    EXPECT_EQ(run(folder, {"set", "--create", "g", "s", "l", "w"}).code, 0);
    EXPECT_EQ(TempFolder::read(folder / "g"), "\n[s]\nk = v\nl = w\n");
    EXPECT_EQ(run(folder, {"set", "--create", "no/g", "s", "k", "v"}).code, 3);

    {
        const Locked reader(file, F_RDLCK);
        EXPECT_EQ(run(folder, {"get", "f", "s", "k"}).code, 0);
        const Outcome refused = run(folder, {"set", "--wait=0.1", "f", "s", "k", "v"});
        EXPECT_EQ(refused.code, 3);
        EXPECT_EQ(refused.err,
                  "f: error: fcntl(): Resource temporarily unavailable\n"
                  "zstz: somebody else has it locked; --wait SECONDS waits longer\n");
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
    EXPECT_EQ(
        run(folder, {"list", "--json", "f", "t"}).out,
        "{\n  \"n\": \"x y\",\n  \"secret\": [{\"hidden\": \"old\"}, {\"hidden\": \"new\"}]\n}\n");
    EXPECT_NE(run(folder, {"diff", "--json", "-", "f"}, "out </dev/null")
                  .out.find("\"secret\", \"new\": {\"hidden\": null}}"),
              string::npos);
    EXPECT_EQ(run(folder, {"disable", "f", "t", "secret"}).code, 4);
    EXPECT_EQ(run(folder, {"edit", "f", "rename t u", "rename u secret s", "rename u t"}).code, 0);
    EXPECT_EQ(run(folder, {"get", "--all", "f", "t", "s"}).out, "old\nnew\n");
    EXPECT_EQ(run(folder, {"rename", "f", "t", "s", "secret"}).code, 0);
    // What says where they are stays.
    const string held = TempFolder::read(file);
    for (const char* change :
         {"set configuration-database file x", "add configuration-database file x",
          "unset configuration-database", "unset configuration-database file",
          "disable configuration-database file", "rename configuration-database x",
          "rename configuration-database file x"}) {
        EXPECT_EQ(run(folder, {"edit", "f", change}).code, 4) << change;
        EXPECT_EQ(run(folder, {"edit", "--dry-run", "f", change}).code, 4) << change;
    }
    EXPECT_EQ(TempFolder::read(file), held);
    EXPECT_NE(run(folder, {"unset", "--dry-run", "f", "t", "secret"}).out.find("-file = /"),
              string::npos);
    EXPECT_EQ(run(folder, {"unset", "f", "t", "secret"}).code, 0);
    EXPECT_EQ(TempFolder::read(file + ".obf"), "<none>");
    folder.write("f", "[configuration-database]\nfile = " + file + ".obf\n");
    folder.write("f.obf", "no stream");
    const Outcome damaged = run(folder, {"list", "f"});
    EXPECT_EQ(damaged.code, 4);
    EXPECT_EQ(damaged.err, file + ".obf: error: not a side database\n");
}

TEST(Zstz, Layers) {
    TempFolder folder;
    for (const char* made : {"r", "r/usr", "r/usr/lib", "r/usr/lib/app.conf.d", "r/etc",
                             "r/etc/app.conf.d", "r/run", "r/etc/own", "r/home"})
        ASSERT_EQ(mkdir((folder / made).c_str(), 0777), 0);
    folder.write("r/usr/lib/app.conf", "# vendor\n[s]\nk = 1\nk = 2\nl = x\n");
    folder.write("r/usr/lib/app.conf.d/10-a.conf", "[t]\nm = 1\n");
    folder.write("r/etc/app.conf.d/10-a.conf", "");
    folder.write("r/usr/lib/app.conf.d/20-b.conf", "[t]\ne =\nm = 3");
    // Only inside the root does the link lead to a file.
    ASSERT_EQ(
        symlink("/usr/lib/app.conf.d/20-b.conf", (folder / "r/etc/app.conf.d/30-c.conf").c_str()),
        0);
    folder.write("r/etc/app.conf.d/90-top.conf", "[s]\nk = 9\n");
    folder.write("r/etc/bad.conf", "[s]\n");
    ASSERT_EQ(mkdir((folder / "r/etc/bad.conf.d").c_str(), 0777), 0);
    folder.write("r/etc/bad.conf.d/a.conf", "[s]\nnonsense\n");
    folder.write("r/etc/bad.conf.d/b.conf", "[configuration-database]\nfile = /etc/bad.conf\n");
    folder.write("r/etc/own/main.conf", "[s]\nk = o\n");
    setenv("XDG_DATA_DIRS", TEST_SOURCE "/share", 1);
    folder.write("r/usr/lib/u.conf", "[A]\nKey = 1\nskip\n");
    ASSERT_EQ(mkdir((folder / "r/etc/u.conf.d").c_str(), 0777), 0);
    folder.write("r/etc/u.conf.d/5.conf", "; c\n[a]\nkey = \"2\\n3\"\n");
    // In order: ROOT stands for the root's path in what is printed.
    const struct {
        const char* line;
        int code;
        const char* out;
        const char* err = "";
    } kCases[] = {
        {"--layers app set --dry-run s k 5", 5,
         "--- ROOT/etc/app.conf.d/50-local.conf\n+++ ROOT/etc/app.conf.d/50-local.conf\n"
         "@@ -0,0 +1,4 @@\n+# Made for changed keys; removed with the last of them.\n+\n+[s]\n"
         "+k = 5\n",
         "ROOT/etc/app.conf.d/90-top.conf:2: note: gives another value still; the change would be"},
        {"--layers app set --dry-run s l x", 0, ""},
        {"--layers app unset --dry-run s x", 1, "", "--layers app: no key x in [s]"},
        {"--layers app set --dry-run --to etc s k v", 3, "", "--layers app: error: the target wo"},
        {"--layers none set --dry-run --to run s k v", 0,
         "--- ROOT/run/none.conf\n+++ ROOT/run/none.conf\n@@ -0,0 +1,3 @@\n+\n+[s]\n+k = v\n"},
        {"layers app", 0,
         "ROOT/usr/lib/app.conf: main\n"
         "ROOT/usr/lib/app.conf.d/10-a.conf: drop-in, masked by ROOT/etc/app.conf.d/10-a.conf\n"
         "ROOT/etc/app.conf.d/10-a.conf: drop-in, masks\n"
         "ROOT/usr/lib/app.conf.d/20-b.conf: drop-in, repeated as "
         "ROOT/etc/app.conf.d/30-c.conf\n"
         "ROOT/etc/app.conf.d/30-c.conf: drop-in\nROOT/etc/app.conf.d/90-top.conf: drop-in\n"},
        {"layers bad", 4,
         "ROOT/etc/bad.conf: main\n"
         "ROOT/etc/bad.conf.d/a.conf:2: drop-in, bad line: nonsense\n"
         "ROOT/etc/bad.conf.d/b.conf: drop-in, bad: not a side database\n"},
        {"layers none", 3, "", "zstz: none: no file; looked for ROOT/etc/none.conf"},
        {"cat app", 0,
         "# ROOT/usr/lib/app.conf\n# vendor\n[s]\nk = 1\nk = 2\nl = x\n\n"
         "# ROOT/etc/app.conf.d/30-c.conf\n[t]\ne =\nm = 3\n\n"
         "# ROOT/etc/app.conf.d/90-top.conf\n[s]\nk = 9\n"},
        {"--layers app get s k t m", 0, "9\n3\n"},
        {"--layers u --dialect git list --all-layers", 0,
         "- ROOT/usr/lib/u.conf:2: [A] Key = 1\n+ ROOT/etc/u.conf.d/5.conf:3: [a] key = 2\n    3\n"
         "+ ROOT/usr/lib/u.conf:3: [A] skip\n"},
        {"--layers u --dialect git set --to 9.conf --bare a key", 0, ""},
        {"--layers u --dialect git get --origin a KEY", 0, "ROOT/etc/u.conf.d/9.conf:4:\n"},
        {"cat u --dialect none", 2, "", "zstz: no such dialect: none"},
        {"--layers main:own get --origin s k", 0, "ROOT/etc/own/main.conf:2: o\n"},
        {"--layers app get s x", 1, "", "--layers app: no key x in [s]; see zstz list --layers"},
        {"--layers app list --origin t", 0,
         "ROOT/etc/app.conf.d/30-c.conf:2: [t] e =\nROOT/etc/app.conf.d/30-c.conf:3: [t] m = 3\n"},
        {"--layers app list --all-layers s", 0,
         "- ROOT/usr/lib/app.conf:3: [s] k = 1\n- ROOT/usr/lib/app.conf:4: [s] k = 2\n"
         "+ ROOT/etc/app.conf.d/90-top.conf:2: [s] k = 9\n+ ROOT/usr/lib/app.conf:5: [s] l = x\n"},
        {"--layers app get --all-layers s k", 0,
         "- ROOT/usr/lib/app.conf:3: 1\n- ROOT/usr/lib/app.conf:4: 2\n"
         "+ ROOT/etc/app.conf.d/90-top.conf:2: 9\n"},
        {"--layers app get --all-layers s k s l", 2, "", "zstz: --all-layers with several keys"},
        {"--layers app get --origin --json t e", 0,
         "{\"stanza\": \"t\", \"key\": \"e\", \"value\": null, "
         "\"file\": \"ROOT/etc/app.conf.d/30-c.conf\", \"line\": 2}\n"},
        {"--layers bad check", 4, "",
         "ROOT/etc/bad.conf.d/a.conf:2: error: bad line: nonsense\n"
         "ROOT/etc/bad.conf.d/b.conf: error: not a side database\n"},
        {"--layers none check", 3, "", "ROOT/etc/none.conf: error: no such file"},
        {"--layers app check --json", 0, "{\"file\": \"--layers app\", \"ok\": true}\n"},
        {"--layers bad check --json", 4,
         "{\"file\": \"--layers bad\", \"ok\": false, \"in\": "
         "\"ROOT/etc/bad.conf.d/a.conf\", \"line\": 2, \"error\": "
         "\"bad line\", \"text\": \"nonsense\"}\n"
         "{\"file\": \"--layers bad\", \"ok\": false, \"in\": \"ROOT/etc/bad.conf.d/b.conf\", "
         "\"error\": \"not a side database\"}\n"},
        // Where there is no main file in /etc, changes go into a drop-in.
        {"--layers app set s k 5", 5, "", "ROOT/etc/app.conf.d/90-top.conf:2: note: gives another"},
        {"--layers app edit 'set s l y' 'unset s k'", 5, "", "ROOT/etc/app.conf.d/90-top.conf:2:"},
        {"--layers app get --origin s l", 0, "ROOT/etc/app.conf.d/50-local.conf:5: y\n"},
        {"--layers app add --to 99-z.conf s k 7", 0, ""},
        {"--layers app diff r/usr/lib/app.conf", 1,
         "- [s] k = 9\n- [s] k = 7\n+ [s] k = 1\n+ [s] k = 2\n- [s] l = y\n+ [s] l = x\n- [t]\n"
         "- [t] e =\n- [t] m = 3\n"},
        {"--layers app unset --to 99-z.conf s k", 0, ""},
        {"--layers app get s k", 0, "\n"},
        {"--layers bad:x set s k v", 0, ""},
        {"--layers bad:x unset --dry-run s k", 0,  // which removes the file
         "--- ROOT/etc/x/bad.conf.d/50-local.conf\n+++ ROOT/etc/x/bad.conf.d/50-local.conf\n"
         "@@ -1,4 +0,0 @@\n-# Made for changed keys; removed with the last of them.\n-\n-[s]\n"
         "-k = v\n"},
        {"--layers bad:x get --origin s k", 0, "ROOT/etc/x/bad.conf.d/50-local.conf:4: v\n"},
        {"--layers main:own set s k v", 0, ""},
        {"--layers main:own get --origin s k", 0, "ROOT/etc/own/main.conf:2: v\n"},
        {"--layers new set --to user s k v", 0, ""},
        {"--layers new get --user --origin s k", 0, "ROOT/home/new.conf:3: v\n"},
        {"--layers new set --to run/b.conf s k w", 0, ""},
        {"--layers new set --to user/a.conf s k v", 5, "", "ROOT/run/new.conf.d/b.conf:4: note:"},
        {"layers --user new", 0,
         "ROOT/home/new.conf: main, shadowed\n"
         "ROOT/home/new.conf.d/a.conf: drop-in, shadowed\n"
         "ROOT/run/new.conf.d/b.conf: drop-in\n"},
        {"--layers app set --to etc s k v", 3, "", "--layers app: error: the target would hide"},
        {"--layers app set --to etc/.c.conf s k v", 2, "", "zstz: no target of"},
        {"--layers app set --to b/c.conf s k v", 2, "", "zstz: --to takes etc,"},
        {"--layers app get --to etc s k", 2, "", "zstz: --to goes with"},
        {"--layers app comment x", 2, "", "zstz: comment doesn't go with --layers: a comment"},
        {"--layers app edit 'rename s t'", 2, "", "zstz: rename doesn't go with --layers"},
        {"--layers app set --backup s k v", 2, "", "zstz: --backup doesn't go with"},
        {"--layers main:own --root \"\" set s k w", 2, "", "zstz: --layers, --root and --to take"},
        {"--layers a/b list", 2, "", "zstz: no NAME or"},
        {"list app", 2, "", "zstz: --root, --to,"},
    };
    const string root = folder / "r";
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.line);
        const int code =
            shell(folder, "XDG_CONFIG_HOME=/home zstz --root r " + string(c.line) + " >out 2>err");
        EXPECT_EQ(code, c.code);
        string said[] = {TempFolder::read(folder / "out"), TempFolder::read(folder / "err")};
        for (string& text : said)
            for (size_t at; (at = text.find(root)) != string::npos;)
                text.replace(at, root.size(), "ROOT");
        EXPECT_EQ(said[0], c.out);
        EXPECT_EQ(said[1].substr(0, *c.err == '\0' ? string::npos : strlen(c.err)), c.err);
    }
    const Locked writer(folder / "r/usr/lib/app.conf", F_WRLCK);
    const Outcome locked = run(folder, {"--root", "r", "cat", "app", "--wait=0.1"});
    EXPECT_EQ(locked.code, 3);
    EXPECT_EQ(locked.out, "");
}

TEST(Zstz, WatchesLayersThatComeLater) {
    TempFolder folder;
    const string line =
        "mkdir r; layers='zstz --root r --layers app'; i=0; $layers watch "
        "'echo $ZSTZ_FILE $ZSTZ_CHANGE $ZSTZ_STANZA/$ZSTZ_KEY >>ran' & watch=$!; "
        "until [ -s ran ]; do i=$((i + 1)); $layers set s k $i; sleep 0.05; done; "
        "$layers set s l 1; until grep -q s/l ran; do sleep 0.05; done; "
        "$layers set --to run/10-a.conf s k 0 2>err; "  // changes no value
        "$layers set --to run/90-a.conf s l 2; until grep -q 'modified s/l' ran; do sleep 0.05; "
        "done; kill $watch";
    ASSERT_EQ(shell(folder, line), 0);
    const string ran = TempFolder::read(folder / "ran");
    EXPECT_EQ(ran.substr(ran.find("app added s/l")), "app added s/l\napp modified s/l\n");
}

// In order, in one folder; the presets are those of the sources.
TEST(Zstz, FilesOfOtherPrograms) {
    TempFolder folder;
    ASSERT_EQ(mkdir((folder / "user").c_str(), 0777), 0);
    for (const char* made : {"user/zbase", "user/zbase/dialects", "user/zbase/dialects/git.conf.d"})
        ASSERT_EQ(mkdir((folder / made).c_str(), 0777), 0);
    folder.write("user/zbase/dialects/git.conf.d/a.conf", "[files]\npattern = */*.repo\n");
    folder.write("php.ini", "a = 1\n[P]\nm = 5 ; why\nb\ne =\n");
    folder.write("my.cnf", "[m] # h\nport=1 # old\nskip # t\nport = 2\n");
    folder.write("x.repo", "[A \"b\"]\n\tURL = \"x;\" # c\n");
    folder.write("f", "[m]\nport = 3\nskip =\n[a.b]\nurl = y\n");
    folder.write("setup.cfg", "[s]\nk = 1\n  2\n");
    const struct {
        const char* line;
        int code;
        const char* out;
        const char* err = "";
    } kCases[] = {
        {"dialects php.ini x.repo f -", 0,
         "php.ini: php (by the pattern */php.ini)\nx.repo: git (by the pattern */*.repo)\n"
         "f: default (no pattern fits)\n-: default (standard input has no path)\n"},
        {"dialects --json f my.cnf", 0,
         "{\"file\": \"f\", \"dialect\": \"default\", \"pattern\": null}\n"
         "{\"file\": \"my.cnf\", \"dialect\": \"mysql\", \"pattern\": \"*/my.cnf\"}\n"},
        {"dialects | grep -c '^[a-z0-9-]* *[A-Z]'", 0, "15\n"},
        {"get php.ini P m '' a P b", 0, "5\n1\n\n"},
        {"get --json php.ini P b P e", 0, "{\"bare\": true}\nnull\n"},
        {"list php.ini P", 0, "m = 5\nb\ne =\n"},
        {"list --json php.ini ''", 0, "{\n  \"a\": \"1\"\n}\n"},
        {"list setup.cfg s", 0, "k = 1\n    2\n"},
        {"check php.ini my.cnf x.repo f setup.cfg", 0, ""},
        {"check --dialect default php.ini", 4, "", "php.ini:1: error: bad line: a = 1\n"},
        {"list - <my.cnf", 4, "", "-:3: error: bad line"},
        {"list --dialect mysql - m <my.cnf", 0, "port = 2\nskip\n"},
        {"set --dry-run php.ini P m 6 | grep '^[+-]m'", 0, "-m = 5 ; why\n+m = 6 ; why\n"},
        {"edit --dialect php - 'set --bare P m' 'set P b 1' <php.ini", 0,
         "a = 1\n[P]\nm\nb = 1\ne =\n"},
        {"set --bare f m k", 2, "", "zstz: can't change [m] k: a key without a divider can't be"},
        {"set --bare php.ini P k 1", 2, "", "zstz: set takes no VALUE"},
        {"set --bare --type integer php.ini P k", 2, "", "zstz: --bare makes"},
        {"set --create new/php.ini P k 1", 3, "", "zstz: new/php.ini can't be made"},
        {"set --create n.repo A.b k '#'", 0, ""},
        {"add my.cnf m port 3", 2, "",
         "my.cnf: error: can't change [m] port: a key can't have several values\n"},
        {"add --dry-run my.cnf m port 3", 2, "",
         "my.cnf: error: can't change [m] port: a key can't have several"},
        {"add --create my.cnf m port 3", 2, "", "zstz: --create goes with"},
        {"edit --dialect php - 'rename P Q' 'rename Q m n' 'disable Q e' 'comment x' <php.ini", 0,
         ";x\n\na = 1\n[Q]\nn = 5 ; why\nb\n; e =\n"},
        {"set --uncomment --dialect php - P c 2 <php.ini | tail -1", 0, "c = 2\n"},
        {"rename php.ini P 'Q]'", 2, "", "zstz: can't change [Q]] key: a stanza's name can't"},
        {"rename php.ini '' Q", 2, "", "php.ini: error: can't change []: a stanza's name can't"},
        {"set php.ini P m 'a\nb'", 2, "", "zstz: can't change [P] m: a value can't hold"},
        {"get --dialect nope f m port", 2, "", "zstz: no such dialect: nope; see zstz dialects\n"},
        {"get --dialect= f m port", 2, "", "zstz: --dialect takes a word"},
        {"dialects --dialect git f", 2, "", "zstz: --dialect goes with"},
        {"--layers a convert --to git", 2, "", "zstz: convert takes the files of a layered"},
        // Names and values that are the same in one of the two dialects.
        {"diff my.cnf f", 1,
         "- [m] port = 2\n+ [m] port = 3\n- [m] skip\n+ [m] skip =\n+ [a.b]\n+ [a.b] url = y\n"},
        {"diff x.repo f", 1,
         "- [A.b] URL = x;\n+ [a.b] url = y\n+ [m]\n+ [m] port = 3\n+ [m] skip =\n"},
        {"diff f x.repo | head -4", 0, "- [m]\n- [m] port = 3\n- [m] skip =\n- [a.b] url = y\n"},
        {"merge --delete x.repo f; cat x.repo", 0,
         "[A \"b\"]\n\tURL = \"y\" # c\n\n[m]\n\tport = 3\n\tskip =\n"},
        {"merge --delete f x.repo; zstz get f a.b url", 0, "y\n"},
        {"merge f my.cnf", 2, "", "f: error: can't change [m] skip: a key without a divider"},
        {"merge f php.ini", 2, "", "f: error: can't change [] a: a stanza's name can't be empty\n"},
        {"merge --create g setup.cfg; ls g", 2, "", "g: error: can't change [s] k: a value can't"},
        {"get f m port", 0, "3\n"},
        {"convert --to default my.cnf", 6, "# h\n[m]\n# old\n# t\nport = 2\n",
         "my.cnf:2: port=1 # old: a later line of the key counts\n"
         "my.cnf:3: skip # t: a key needs a divider\n"},
        {"convert --to git --dialect mysql - <my.cnf 2>err", 6,
         "[m] # h\n# old\nskip # t\nport = 2\n", "-:2: port=1"},
        {"convert --to lax php.ini", 0, "a = 1\n[P]\n; why\nm = 5\nb\ne =\n"},
        {"convert --to default --dialect default php.ini", 4, "", "php.ini:1: error: bad line"},
        {"convert --to default no.cnf", 3, "", "no.cnf: error: fopen(r): No such"},
        {"convert --to default my.cnf >/dev/full", 3, "", "my.cnf:2: port=1"},
        {"merge --dry-run --delete php.ini f | grep '^[-+][am]'", 0, "-a = 1\n-m = 5 ; why\n"},
        {"convert f", 2, "", "zstz: convert needs --to NAME"},
        {"convert --to nope f", 2, "", "zstz: no such dialect: nope"},
        {"edit --editor php.ini; cat php.ini", 0, "a = 1\n[P]\nm = 6 ; why\nb\ne =\n"},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.line);
        const int code = shell(folder, "export XDG_DATA_DIRS=" TEST_SOURCE
                                       "/share XDG_CONFIG_HOME=$PWD/user "
                                       "VISUAL='sed -i s/5/6/'\n(zstz " +
                                           string(c.line) + ") >out 2>err");
        EXPECT_EQ(code, c.code);
        EXPECT_EQ(TempFolder::read(folder / "out"), c.out);
        const string err = TempFolder::read(folder / "err");
        EXPECT_EQ(err.substr(0, *c.err == '\0' ? string::npos : strlen(c.err)), c.err);
    }
    EXPECT_EQ(TempFolder::read(folder / "n.repo"), "[A \"b\"]\nk = \"#\"\n");
    // A preset that can't be read bars no file whose dialect is said.
    folder.write("user/zbase/dialects/git.conf.d/a.conf", "nonsense\n");
    const string user = "XDG_CONFIG_HOME=$PWD/user XDG_DATA_DIRS=" TEST_SOURCE "/share zstz ";
    EXPECT_EQ(shell(folder, user + "get f m port >out 2>err"), 4);
    EXPECT_NE(TempFolder::read(folder / "err").find("a.conf:1: error: bad line: nonsense\nzstz: "),
              string::npos);
    EXPECT_EQ(shell(folder, user + "get --dialect default f m port >out 2>err"), 0);
    // Nor does one that is hidden, which is none any more.
    EXPECT_EQ(shell(folder, "rm -r user/zbase/dialects/*; touch user/zbase/dialects/php.conf; (" +
                                user + "dialects | grep php; " + user + "dialects php.ini; ! " +
                                user + "list --dialect php f 2>err) >out"),
              0);
    EXPECT_EQ(TempFolder::read(folder / "out"), "php.ini: default (no pattern fits)\n");
    EXPECT_EQ(TempFolder::read(folder / "err"), "zstz: no such dialect: php; see zstz dialects\n");
}

}  // namespace
