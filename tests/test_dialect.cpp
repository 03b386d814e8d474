// Texts of other dialects: what their lines are, how values are spelled, and how a text changes.
#include "support/Prelude.h"

#include "Z/ZException.h"
#include "Z/zgrammar.h"
#include "support/DialectStore.h"
#include "support/FailingAllocator.h"

using std::string;
using namespace std::string_literals;

namespace {

ZDialect dialect(
    std::initializer_list<std::pair<unsigned int ZDialect::*, unsigned int>> switches) {
    ZDialect d = {};
    d.size = sizeof d;
    for (const auto& [field, value] : switches)
        d.*field = value;
    return d;
}
typedef ZDialect D;
const ZDialect kPlain = dialect({});
const ZDialect kGit = dialect({{&D::comments, 3},
                               {&D::tails, ZDIALECT_TAILS_ANYWHERE},
                               {&D::bare, 1},
                               {&D::continued, ZDIALECT_JOINED},
                               {&D::quotes, ZDIALECT_GIT_QUOTES},
                               {&D::repeated, ZDIALECT_MERGED},
                               {&D::names, ZDIALECT_FOLDED},
                               {&D::headers, 3},
                               {&D::lines, 1}});
const ZDialect kPhp = dialect({{&D::comments, 2},
                               {&D::tails, ZDIALECT_TAILS},
                               {&D::quotes, ZDIALECT_SHELL_QUOTES},
                               {&D::repeated, ZDIALECT_MERGED},
                               {&D::orphans, 1},
                               {&D::values, ZDIALECT_LAST_VALUE}});
const ZDialect kPython = dialect({{&D::comments, 3},
                                  {&D::divider, ZDIALECT_EITHER},
                                  {&D::continued, ZDIALECT_INDENT},
                                  {&D::names, ZDIALECT_FOLDED}});
const ZDialect kUnit = dialect({{&D::comments, 3},
                                {&D::continued, ZDIALECT_BACKSLASH},
                                {&D::repeated, ZDIALECT_MERGED},
                                {&D::values, ZDIALECT_RESET_VALUES}});
const ZDialect kPeers = dialect({{&D::tails, ZDIALECT_TAILS_ANYWHERE},
                                 {&D::repeated, ZDIALECT_NUMBERED},
                                 {&D::names, ZDIALECT_FOLDED}});
const ZDialect kBlank = dialect({{&D::divider, ZDIALECT_BLANK}, {&D::orphans, 1}});

// Each part as "_", "#", "[name", "=name|value", "-name" or "?line reason", with "/" between.
string described(const ZDialect& d, const string& text) {
    ZDialectReader reader(d, spanOf(text));
    ZDialectPart part;
    string all, lines;
    while (reader.next(part)) {
        all += (all.empty() ? "" : "/") + string(1, "_#[=-?"[part.kind]) + stringOf(part.name);
        if (part.kind == ZDialectPart::entry)
            all += "|" + stringOf(part.value);
        if (part.kind == ZDialectPart::bad)
            all += std::to_string(part.line) + " " + part.reason;
        lines += stringOf(part.lines);
    }
    EXPECT_EQ(lines, text);
    return all;
}

TEST(Dialect, Lines) {
    const struct {
        const ZDialect& d;
        string text, parts;
    } kTexts[] = {
        {kPlain, " [s] x\r\n\t\n#c\n k = a # b\n", "[s/_/#/=k|a # b"},
        {kPlain, "k v\n = w\n[s\n[]", "?1 has no divider/?2 has no key/?3 has no ]/?4 has no name"},
        {kPlain, "a = 1\nb\0 = 2\n"s, "=a|1/?2 holds a NUL"},
        {kPlain, "\xEF\xBB\xBF[s]\n", "?1 begins with a byte-order mark"},
        {kPlain, "k=" + string(8188, 'v') + "\nk=" + string(8189, 'v') + "\n",
         "=k|" + string(8188, 'v') + "/?2 is too long for a line of 8191 bytes"},
        {kGit, "[a \"b\\\"]C\"] # c\n[A.B]", "[a.b\"]C/[A.b"},
        {kGit, "[a] b\n[a \"\\n\"]\n[a \"b]",
         "?1 has more behind ]/?2 has an unknown backslash/?3 has no ]"},
        {kGit, "k = a\" ;\"b \\\"\\\\\\t;c\nx;=1\ny=", "=k|a ;b \"\\\t/-x/=y|"},
        {kGit, "k = a\\\n  b\\\n# c\nl = \"a\\\n b\"", "=k|a  b/=l|a b"},
        {kGit, "k = \"  a \"  \nl = \"a\nm = \\x\n",
         "=k|  a /?2 has an open quote/?3 has an unknown backslash"},
        {kPhp, "k = \"a;\\\"\\\\\\n\" ; c\nl='a\\' ;'\nm = a;b ;c\nn =;c",
         "=k|a;\"\\\\n/=l|a\\/=m|a;b/=n|;c"},
        {kPhp, "k = 'a' b\nl = \"a\nm = a \"b;\"",
         "?1 has more behind its quotes/?2 has an open quote/=m|a \"b;\""},
        {kPython, "k: a = 1\n  b\n\n# c\n \td\n\n# e\nl = m", "=k|a = 1\nb\n\nd/_/#/=l|m"},
        {kPython, " k =\n  [x]\n l = 1\n", "=k|\n[x]/=l|1"},
        {kUnit, "k = a \\\n# c\n;d\n  b\\\n\nl = \\ \nm = \\\\\nn = \\\n#",
         "=k|a    b/=l|\\/=m|\\\\/?8 goes on behind the text's end/#"},
        {kGit, "k = \"\" \"\" x \"\" \nl = x\\", "=k|x /?2 goes on behind the text's end"},
        {kPeers, "k = a#b\n[p]#c", "=k|a/[p"},
        {kBlank, "k \t v w\nl\n", "=k|v w/?2 has no divider"},
    };
    for (const auto& t : kTexts)
        EXPECT_EQ(described(t.d, t.text), t.parts) << t.text;
}

TEST(Dialect, Spelling) {
    const struct {
        const ZDialect& d;
        string value, old, spelled;
    } kValues[] = {
        {kGit, "a;b", "", "\"a;b\""},
        {kGit, " a", "", "\" a\""},
        {kGit, "a", "\"x\"", "\"a\""},
        {kGit, "a\"\\\n\t\b", "", "a\\\"\\\\\\n\\t\\b"},
        {kGit, "a\0b"s, "", "?can't hold a NUL"},
        {kPhp, "a;b", "", "a;b"},
        {kPhp, "a ;b", "", "\"a ;b\""},
        {kPhp, "b", "'a'", "'b'"},
        {kPhp, "it's", "'a'", "it's"},
        {kPhp, " \"\\", "", "\" \\\"\\\\\""},
        {kPhp, "a\nb", "", "?can't hold a line end"},
        {kPython, "a\n\nb", "", "a\n\n    b"},
        {kPython, "a\n# b", "", "?can't be said in this dialect"},
        {kPython, "a\n", "", "?can't have blanks at its ends"},
        {kUnit, "a\\", "", "?can't be said in this dialect"},
        {kPlain, "a ", "", "?can't have blanks at its ends"},
        {kPlain, string(8190, 'v'), "", "?is too long for a line of 8191 bytes"},
    };
    for (const auto& v : kValues) {
        const ZDialectHabit habit = {{"", 0}, {" ", 1}, {"=", 1}, {" ", 1}, {"\n", 1}, {"    ", 4}};
        ZBytes out;
        const bool done = zdialectEncode(v.d, spanOf(v.value), spanOf(v.old), habit, out);
        const char* fault = zdialectValueFault(v.d, spanOf(v.value));
        EXPECT_EQ(done ? stringOf(zspanOf(out)) : "?" + string(fault == nullptr ? "" : fault),
                  v.spelled);
    }
}

TEST(Dialect, Names) {
    const struct {
        const ZDialect& d;
        bool isStanza;
        string name, reason;
    } kNames[] = {
        {kGit, true, "a.b]\"\\", ""},
        {kGit, true, "a]b", "can't hold ]"},
        {kPlain, true, "a.b]", "can't hold ]"},
        {kGit, true, ".b", "can't be said in a header"},
        {kPlain, true, "", "can't be empty"},
        {kPhp, true, "", ""},
        {kPhp, false, "k;l", ""},
        {kPlain, false, "k=l", "can't hold ="},
        {kPython, false, "k:l", "can't hold :"},
        {kBlank, false, "k l", "can't hold a blank"},
        {kGit, false, "k;l", "can't hold a comment"},
        {kPhp, false, ";k", "can't begin as a header or a comment"},
        {kPlain, false, ";k", ""},
        {kPlain, false, " k", "can't have blanks at its ends"},
    };
    for (const auto& n : kNames) {
        const char* fault = n.isStanza ? zdialectStanzaFault(n.d, spanOf(n.name))
                                       : zdialectKeyFault(n.d, spanOf(n.name));
        EXPECT_EQ(fault == nullptr ? "" : fault, n.reason) << n.name;
    }
    EXPECT_EQ(foldedName(kGit, {"A.B.C", 5}, true), "a.B.C");
    EXPECT_EQ(foldedName(kGit, {"A.B", 3}, false), "a.b");
    EXPECT_EQ(foldedName(dialect({{&D::names, ZDIALECT_FOLDED_BLANKS}}), {"A \tb", 4}, false),
              "ab");
}

TEST(Dialect, Clashes) {
    const struct {
        ZDialect d;
        string first, second;
    } kClashes[] = {
        {kGit, "", ""},
        {kPhp, "", ""},
        {kPeers, "", ""},
        {dialect({{&D::tails, 5}}), "tails", "has no such value"},
        {dialect({{&D::headers, 4}}), "headers", "has no such value"},
        {dialect({{&D::lines, 2}}), "lines", "has no such value"},
        {dialect({{&D::repeated, 2}, {&D::names, 2}}), "numbered stanzas",
         "can't go with names without blanks"},
        {dialect({{&D::continued, 1}, {&D::divider, 3}}), "continued lines by indent",
         "can't go with a blank as divider"},
        {dialect({{&D::continued, 1}, {&D::headers, 1}}), "continued lines by indent",
         "can't go with subsections"},
        {dialect({{&D::continued, 1}, {&D::quotes, 1}}), "continued lines by indent",
         "can't go with git's quotes"},
        {dialect({{&D::continued, 2}, {&D::quotes, 2}}), "continued lines by backslash",
         "can't go with shell quotes"},
    };
    for (const auto& c : kClashes) {
        const ZDialectClash clash = zdialectClash(c.d);
        EXPECT_EQ(clash.first == nullptr ? "" : clash.first, c.first);
        EXPECT_EQ(clash.second == nullptr ? "" : clash.second, c.second);
    }
}

// An edit: "stanza|key" for its removal, "stanza|" for the stanza's, "stanza|key|value|..." to set.
void edit(ZPStore& store, const string& edit) {
    std::vector<string> words;
    std::stringstream in(edit);
    for (string word; std::getline(in, word, '|');)
        words.push_back(word);
    const ZSpan stanza = spanOf(words[0]);
    if (words.size() == 1)
        return store.removeStanza(store.stanzaInMap(stanza));
    if (words.size() == 2 && edit.back() != '|')
        return store.removeKey(store.keyInMap(stanza, spanOf(words[1])));
    const ZPStore::Id key = store.createKey(store.createStanza(stanza), spanOf(words[1]));
    store.replaceValues(key, ZPStore::plain, {"", 0});
    for (size_t i = 2; i < words.size(); ++i)
        store.appendValue(key, ZPStore::plain, spanOf(words[i]));
}

// Entries that come out of order into a block that has just been filled, of lines as short as can
// be, and of so many that changes of their order stand in a table until that is too large.
TEST(Dialect, ManyEntriesOutOfOrder) {
    for (const int value : {1, 100000000}) {
        string text = "[A]\nx=1\n[B]\n";
        for (int i = 0; i < 20000; ++i)
            text += string{char('a' + i % 26), char('a' + i / 26 % 26), char('a' + i / 676)} + '=' +
                    std::to_string(value) + '\n';
        for (int i = 0; i < 9000; ++i)
            text += string(i % 2 != 0 ? "[B]" : "[A]") + "\nz" + std::to_string(i) + "=1\n";
        ZPStore store;
        ASSERT_TRUE(fillStore(kUnit, text, store));
        store.checkInvariants();
        EXPECT_EQ(store.stanza(store.findStanza({"A", 1})).count, 4501u);
        EXPECT_EQ(store.stanza(store.findStanza({"B", 1})).count, 24500u);
    }
}

// To compare two spellings of a name takes memory.
TEST(Dialect, ReadingWhereMemoryIsShortForAMoment) {
    for (unsigned long nth = 1; nth < 40; ++nth) {
        SCOPED_TRACE(nth);
        ZPStore store;
        const bool raised = endsWithoutMemory(
            [&] { fillStore(kPython, "[s]\nx = 0\nPort = 1\nport = 2\ny = 3\n", store); }, nth);
        store.checkInvariants();
        if (!raised) {
            EXPECT_EQ(store.stanza(store.findStanza({"s", 1})).count, 3u);
        }
    }
}

// However long they are, and however they are spelled; and none of them takes memory to leave.
TEST(Dialect, LongNamesOfSeveralSpellings) {
    const struct {
        const ZDialect d;
        const char *stanza, *other;
    } kFolding[] = {{dialect({{&D::names, ZDIALECT_FOLDED_BLANKS}}), "The S", "thes"},
                    {dialect({{&D::headers, ZDIALECT_SUBSECTIONS}, {&D::names, ZDIALECT_FOLDED}}),
                     "A.B", "a.B"}};
    for (const auto& f : kFolding) {
        const string tail = string(300, '-') + f.stanza, otherTail = string(300, '-') + f.other;
        const bool hasBlanks = f.d.names == ZDIALECT_FOLDED_BLANKS;
        ZPStore store;
        string text = hasBlanks ? "[" + tail + "]\n" : "[" + string(300, '-') + "A \"B\"]\n";
        std::vector<string> names;
        for (size_t size = 0; size < 600; ++size) {
            names.push_back("Na" + string(size, 'X') + (size % 2 != 0 && hasBlanks ? " me" : "me"));
            text += names.back() + " = 1\n";
        }
        ASSERT_TRUE(fillStore(f.d, text, store));
        EXPECT_NE(store.findStanza(spanOf(tail)), ZPStore::none);
        EXPECT_EQ(store.findStanza(spanOf(tail)), store.findStanza(spanOf(otherTail)));
        std::vector<ZPStore::Sought> sought;
        for (string name : names) {
            sought.push_back(store.seekToChange(spanOf(tail), spanOf(name)));
            ASSERT_NE(sought.back().key, ZPStore::none);
            if (hasBlanks)
                name.insert(2, 40, ' ') += ' ';
            for (char& c : name)
                c = static_cast<char>(tolower(c));
            EXPECT_EQ(store.findKey(spanOf(otherTail), spanOf(name)), sought.back().key);
        }
        for (size_t i = 1; i < names.size(); i += 2) {
            const FailAllocations noMemory(1, FailAllocations::onward);
            sought[i].place.slot = ZPStore::kUnknown;
            store.removeWithLines(sought[i]);
        }
        store.checkInvariants();
        for (size_t i = 0; i < names.size(); ++i)
            EXPECT_EQ(store.findKey(spanOf(tail), spanOf(names[i])) == ZPStore::none, i % 2 != 0);
    }
}

TEST(Dialect, Rewriting) {
    const struct {
        const ZDialect& d;
        string old, edit, now;
    } kEdits[] = {
        {kPlain, "[s]\n  k=a\n", "s|l|b", "[s]\n  k=a\n  l=b\n"},
        {kPlain, "[s]\r\nk = a", "s|l|b", "[s]\r\nk = a\r\nl = b\r\n"},
        {kPlain, "[s]\nk = a\n# c\n[t]\n", "s|k", "[s]\n# c\n[t]\n"},
        {kPlain, "[s]\nk = a\n# b\n\n# c\n[t]\n", "s|", "# c\n[t]\n"},
        {kPlain, "[s]\nk = a\n", "t|l|b", "[s]\nk = a\n\n[t]\nl = b\n"},
        {kPlain, "[s]\nk = a\nk = b\nk = c\n", "s|k|a|x|y|c", "[s]\nk = a\nk = x\nk = y\nk = c\n"},
        {kPlain, "[s]\nk = a\nx = 1\nk = b\nk = c\n", "s|k|a|c", "[s]\nk = a\nx = 1\nk = c\n"},
        {kPlain, "[s]\nk = a\n", "s|k||", "[s]\nk =\n"},
        {kPlain, "[s]\nk =\n", "s|k|a", "[s]\nk = a\n"},
        {kPlain, "[s]\nk = a\n# c\nk =\n", "s|k|b", "[s]\n# c\nk = b\n"},
        {kPlain, "[s]\nk = a\n# c\nk =\n", "s|k|a|b", "[s]\nk = a\n# c\nk =\nk = b\n"},
        {kGit, "[a \"B\"]\n\tk = \"x\" ; c\n", "a.B|k|y z", "[a \"B\"]\n\tk = \"y z\" ; c\n"},
        {kGit, "[a]\n\tk = x\n", "b.C d|k|y", "[a]\n\tk = x\n\n[b \"C d\"]\n\tk = y\n"},
        {kGit, "[a]\nk =;c\n", "a|k|y", "[a]\nk = y ;c\n"},
        {kGit, "[a]\nk = \"x\\\n y\\\n z\"\n", "a|k|x w z", "[a]\nk = \"x\\\n w\\\n z\"\n"},
        {kGit, "[a]\nk = 1\n[b]\n[A]\nL = 2\n", "a|m|3", "[a]\nk = 1\n[b]\n[A]\nL = 2\nm = 3\n"},
        {kUnit, "[s]\nk = a \\\n# c\n b \\\n c\n", "s|k|a   x   c",
         "[s]\nk = a \\\n# c\n x \\\n c\n"},
        {kUnit, "[s]\nk = a \\\n b \\\n c\n", "s|k|a   c", "[s]\nk = a \\\n c\n"},
        {kPlain, "[s]\nk = a\nk =\nk = b\n", "s|k|c", "[s]\nk =\nk = c\n"},
        {kUnit, "[s]\nk = a \\\n\nl = 1\n", "s|k|c", "[s]\nk = c\nl = 1\n"},
        {kUnit, "[s]\nk = a\nk =\nk = b\n", "s|k|c", "[s]\nk = a\nk =\nk = c\n"},
        {kUnit, "[s]\nk = a\nk =\n", "s|k|b|c", "[s]\nk = a\nk =\nk = b\nk = c\n"},
        {kPython, "[s]\nk = a\n  # c\n  b\n", "s|k|a\nd\ne", "[s]\nk = a\n  # c\n  d\n  e\n"},
        {kPhp, "k = 1\n[s]\nk = a\nk = b ; c\n", "s|k|x", "k = 1\n[s]\nk = a\nk = x ; c\n"},
        {kPhp, "k = 1\n[s]\n", "|l|2", "k = 1\nl = 2\n[s]\n"},
        {kPhp, "; c\n[s]\n", "|l|2", "; c\nl = 2\n\n[s]\n"},
        {kPython, "[s]\nk = a\n  b\n  # c\n  d\n", "s|k|x\ny", "[s]\nk = x\n  y\n"},
        {kPython, "[s]\n\tk: a\n", "s|k|x\ny", "[s]\n\tk: x\n\t\ty\n"},
        {kPeers, "[P]\nk = a\n[p]\nk = b\n", "P|", "[p]\nk = b\n"},
        {kPeers, "[p]\nk = a\n[p]\nk = b\n", "p#2|k|c", "[p]\nk = a\n[p]\nk = c\n"},
        {kPeers, "[p]\nk = a\n", "p#2|k|c", "[p]\nk = a\n\n[p]\nk = c\n"},
        {kPlain, "[s]\nk = a\n", "s|k|a ", "?"},
        {kPlain, "[s]\nk = a\n", "s]|k|a", "?"},
        {kPhp, "k = a\n", "|k|a|b", "?"},
    };
    for (const auto& e : kEdits) {
        SCOPED_TRACE(e.old + e.edit);
        ZPStore store;
        ASSERT_TRUE(fillStore(e.d, e.old, store));
        ZBytes out;
        zdialectRewrite(e.d, store, spanOf(e.old), out);
        EXPECT_EQ(stringOf(zspanOf(out)), e.old);
        edit(store, e.edit);
        string now = "?";
        try {
            zdialectRewrite(e.d, store, spanOf(e.old), out);
            now = stringOf(zspanOf(out));
        } catch (ZInvalidParameterException&) {
        }
        EXPECT_EQ(now, e.now);
    }
}

}  // namespace
