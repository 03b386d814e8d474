// Texts of one dialect, said in another.
#include "support/Prelude.h"

#include "Z/zdialects.h"

#include <map>
#include <random>
#include <set>

using std::string;

namespace {

// A preset; null for "default", which is the library's own.
const ZDialect* dialectOf(const string& name) {
    static std::map<string, ZDialect> known;
    if (name == "default")
        return nullptr;
    const auto found = known.emplace(name, ZDialect());
    if (found.second) {
        setenv("XDG_DATA_DIRS", TEST_SOURCE "/share", 1);
        EXPECT_EQ(zstzDialect_get(name.c_str(), &found.first->second), 0) << name;
    }
    return &found.first->second;
}

struct LeftOut {
    int line;
    string text, reason;
};
typedef std::vector<LeftOut> LeftOuts;

// What becomes of a text; "line N" for a bad line.
string converted(const string& from, const string& text, const string& to, LeftOuts& left) {
    const auto leave = [](void* data, int line, const char* gone, const char* reason) {
        static_cast<LeftOuts*>(data)->push_back({line, gone, reason});
    };
    char* made = nullptr;
    size_t size = 0;
    if (zstzDialect_convert(dialectOf(from), text.data(), text.size(), dialectOf(to), leave, &left,
                            &made, &size) != 0) {
        ZPROP_error error;
        zstzPropLastError(&error);
        return "line " + std::to_string(error.line);
    }
    const string out(made, size);
    zstzPropFree(made);
    return out;
}

// Which line is left out, and how its reason begins.
string briefly(const LeftOuts& left) {
    string out;
    for (const LeftOut& one : left)
        out += (out.empty() ? "" : "; ") + std::to_string(one.line) + " " + one.reason;
    return out;
}

const struct {
    const char *what, *from, *text, *to, *made;
    const char* left = "";
} kCases[] = {
    {"tails go ahead", "php", "[P] ; h\n;c\na = 1 ; t\n\nb = 2\n", "default",
     "# h\n[P]\n#c\n# t\na = 1\n\nb = 2\n"},
    {"and stay", "mysql", "[m] # h\na=1 # t\nb # u\n", "git", "[m] # h\na = 1 # t\nb # u\n"},
    {"a tail that can't be read there", "mysql", "a = 1 # t\nb = # u\n[m]\n", "lax",
     "# t\na = 1\n# u\nb =\n[m]\n"},
    {"between lines", "supervisord", "[s]\na = 1 ; x\n # y\n\n  2 # z\n", "configparser",
     "[s]\n; x\n# y\n# z\na = 1\n\n    2\n"},
    {"# in git's lines is text", "git", "[s]\na = x\\\n # y\n", "default", "[s]\n# y\na = x\n"},
    {"within git's quotes, too", "git", "[s]\na = \"x \\\n # y\" # z\n", "default",
     "[s]\n# z\na = x  # y\n"},
    {"quotes", "git", "[s]\na = \" b\"\nc = \"d;e\"\n", "default", "[s]\nc = d;e\n",
     "2 a value can't have blanks at its ends"},
    {"lines in quotes", "configparser", "[s]\na = 1\n 2\n", "git", "[s]\na = 1\\n2\n"},
    {"lines nowhere", "configparser", "[s]\n# c\na = 1\n 2\nb = 3\n", "samba", "[s]\n# c\nb = 3\n",
     "3 a value can't hold a line end"},
    {"subsections", "git", "[r \"A.b\"]\nk=1\n[r.C]\n", "configparser", "[r.A.b]\nk = 1\n[r.c]\n"},
    {"and back", "default", "[r.A b]\nk = 1\n", "git", "[r \"A b\"]\nk = 1\n"},
    {"numbers", "wireguard", "[P]\na=1\n[Q]\n[P]\na=2\n", "default",
     "[P]\na = 1\n[Q]\n[P#2]\na = 2\n"},
    {"and back", "default", "[P]\n[P#2]\n[P#4]\nk=1\n[Q#2]\n", "wireguard", "[P]\n[P]\n",
     "3 a stanza's name can't have this number there; 4 its stanza is left out; "
     "5 a stanza's name can't have this number there"},
    {"merged", "mysql", "[a]\nx=1\n\n# t\n[b]\n# u\n[a]\ny=2\n", "default",
     "[a]\nx = 1\n\n# u\ny = 2\n# t\n[b]\n"},
    {"merged there, too", "mysql", "[a]\nx=1\n[b]\n[a]\ny=2\n", "php",
     "[a]\nx = 1\n[b]\n[a]\ny = 2\n"},
    {"one of merged ones isn't numbered", "git", "[a]\nx=1\n[A]\ny=2\n", "wireguard",
     "[a]\nx = 1\ny = 2\n"},
    {"the first spelling", "git", "[Core]\nKey = 1\n[core]\nkey = 2\n", "default",
     "[Core]\nKey = 1\nKey = 2\n"},
    {"the last value", "mysql", "[a]\nx=1\nx=2\n", "default", "[a]\nx = 2\n",
     "2 a later line of the key counts"},
    {"# alone behind values", "php", "[s] ; h\na = 1 ; x\n", "mysql", "; h\n[s]\na = 1 # x\n"},
    {"what is reset", "systemd", "[a]\nx=1\nx=\nx=2\ny=1\ny=\n", "default",
     "[a]\nx =\nx = 2\ny =\n",
     "2 a later line of the key counts; 5 a later line of the key counts"},
    {"what resets only there", "default", "[a]\nx=1\nx=\n", "systemd", "[a]\nx = 1\n",
     "3 says nothing beside other lines of the key"},
    {"reset there, too", "systemd", "[a]\nx=1\nx=\nx=2\n", "systemd-network",
     "[a]\nx = 1\nx =\nx = 2\n"},
    {"the last value there, too", "mysql", "[a]\nx=1\nx=2\n", "php", "[a]\nx = 1\nx = 2\n"},
    {"a last value that can't be", "mysql", "[a]\nx=1\nx=' '\n", "samba", "[a]\n",
     "2 a later line of the key counts; 3 a value can't have blanks at its ends"},
    {"one value", "default", "[a]\nx=1\nx=2\nx =\n", "mysql", "[a]\nx = 2\n",
     "2 a key can't have several values; 4 says nothing beside other lines of the key"},
    {"empty ones beside values", "systemd", "[a]\nx=\nx=1\n", "default", "[a]\nx =\nx = 1\n"},
    {"no divider", "mysql", "[a]\nx # c\n", "default", "[a]\n# c\n", "2 a key needs a divider"},
    {"a divider in the key", "default", "[a]\nx:y = 1\n", "configparser", "[a]\n",
     "2 a key can't hold :"},
    {"ahead of headers", "php", "x = 1\n[a]\ny = 2\n", "default", "[a]\ny = 2\n",
     "1 an entry can't stand ahead of all headers"},
    {"the same name there", "default", "[a]\nx = 1\nX = 2\n[A]\ny = 3\n", "git", "[a]\nx = 1\n",
     "3 a key is spelled otherwise there already; 4 a stanza's name is spelled otherwise there "
     "already; 5 its stanza is left out"},
    {"behind a header", "default", "[a] b\nx = 1\n[b]# c\n", "git", "[a]\nx = 1\n[b] # c\n",
     "1 what stands behind ] says nothing"},
    {"where hidden values are", "default", "[configuration-database]\nfile = x\n", "git",
     "[configuration-database]\n", "2 an entry of this name says where hidden values are"},
    {"line ends", "php", "[a]\r\n;c\r\nx = 1\r\n", "default", "[a]\r\n#c\r\nx = 1\r\n"},
    {"nothing", "git", "", "default", ""},
    {"a bad line", "default", "[a]\n\nx\n", "git", "line 3"},
    {"a header twice", "default", "[a]\n[a]\n", "git", "line 2"},
};

// A text's entries by stanza and key, the names as one who ignores case and blanks has them.
typedef std::map<string, string> Entries;
string plainName(const string& name) {
    string out;
    for (const char c : name)
        if (c != ' ')
            out += static_cast<char>(tolower(c));
    return out;
}

struct Reading {
    ZPROP_handle* handle = nullptr;
    bool areNamesPlain = false;
    Entries entries;

    // False for bad data.
    bool read(const string& dialect, const string& text) {
        const auto take = [](void* data, const ZPROP_entry* entry) {
            static_cast<Reading*>(data)->take(*entry);
            return 0;
        };
        entries.clear();
        const bool isGood = zstzPropOpenDialectBytes(&handle, text.data(), text.size(),
                                                     dialectOf(dialect), ZPCACHE_STRICT) == 0;
        if (isGood)
            zstzPropForEach(handle, take, this);
        zstzPropClose(handle);
        return isGood;
    }
    void take(const ZPROP_entry& entry) {
        int error;
        if (entry.key == nullptr)
            return;
        const string name = string(entry.stanza) + "/" + entry.key;
        string& values = entries[areNamesPlain ? plainName(name) : name];
        values += entry.value != nullptr                                         ? entry.value
                  : zstzPropIsBare(handle, entry.stanza, entry.key, &error) != 0 ? "bare"
                                                                                 : "none";
        values += '|';
    }
};

}  // namespace

TEST(DialectConvert, SaysTheSameInTheOtherWay) {
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.what);
        LeftOuts left;
        EXPECT_EQ(converted(c.from, c.text, c.to, left), c.made);
        EXPECT_EQ(briefly(left), c.left);
    }
}

// Random texts in all dialects: each key of the text comes back from the other one with its values
// unless a line of it was left out, and nothing else does.
TEST(DialectConvert, ValuesComeBackOrAreNamed) {
    static const char* const kDialects[] = {
        "default",         "configparser", "desktop",  "git",    "lax",
        "mysql",           "php",          "samba",    "strict", "systemd",
        "systemd-network", "supervisord",  "wireguard"};
    static const char* const kLines[] = {"[s]",
                                         "[s]",
                                         "[t] # c",
                                         "[S]",
                                         "[u \"B\"]",
                                         "[s#2]",
                                         "[ v ]",
                                         "# c",
                                         "; d",
                                         "",
                                         "a = 1",
                                         "a = 2 # t",
                                         "A = 3",
                                         "b: x ; y",
                                         "  more",
                                         "  # c",
                                         "\t\tmore = x \\",
                                         "c",
                                         "c # d = e",
                                         "d = \"q \\\"r\" # z",
                                         "d = ' x'",
                                         "e = y\\",
                                         "e =",
                                         "f = a\\tb",
                                         "g=x#y;z",
                                         "h = [",
                                         "a b=1",
                                         "i = \"",
                                         "j = 'x",
                                         "l = \\\\",
                                         "m = \"\\\\\" ;c"};
    std::mt19937 random(11);
    unsigned int compared = 0, complete = 0;
    for (int round = 0; round < 60; ++round)
        for (const char* from : kDialects) {
            Reading before;
            string text;
            for (int i = 0; i < 12; ++i) {
                const string more =
                    text + kLines[random() % (sizeof kLines / sizeof *kLines)] + "\n";
                if (before.read(from, more))
                    text = more;
            }
            for (const char* to : kDialects) {
                SCOPED_TRACE(string(from) + " " + to + "\n" + text);
                const auto folds = [](const char* name) {
                    const ZDialect* dialect = dialectOf(name);
                    return dialect != nullptr && dialect->names != ZDIALECT_EXACT;
                };
                Reading after;
                before.areNamesPlain = after.areNamesPlain = folds(from) || folds(to);
                LeftOuts left;
                const string made = converted(from, text, to, left);
                ASSERT_TRUE(before.read(from, text) && after.read(to, made)) << made;
                std::set<char> gone;  // the keys, of whichever stanza, by their letter
                for (const LeftOut& one : left)
                    gone.insert(plainName(one.text.substr(one.text.find_first_not_of(" \t")))[0]);
                for (Entries* entries : {&before.entries, &after.entries})
                    for (auto at = entries->begin(); at != entries->end();) {
                        const bool isGone =
                            gone.count(plainName(at->first.substr(at->first.rfind('/') + 1))[0]);
                        at = isGone ? entries->erase(at) : std::next(at);
                    }
                EXPECT_EQ(before.entries, after.entries) << made << briefly(left);
                compared += static_cast<unsigned int>(before.entries.size());
                complete += left.empty();
                if (::testing::Test::HasFailure())
                    return;
            }
        }
    EXPECT_GT(compared, 10000u);
    EXPECT_GT(complete, 1000u);
}

TEST(DialectConvert, RefusesWhatIsNone) {
    ZDialect bad = {};
    char* made;
    EXPECT_EQ(zstzDialect_convert(&bad, "", 0, nullptr, nullptr, nullptr, &made, nullptr), 55);
    EXPECT_EQ(zstzDialect_convert(nullptr, nullptr, 1, nullptr, nullptr, nullptr, &made, nullptr),
              55);
    EXPECT_EQ(zstzDialect_convert(nullptr, "", 0, nullptr, nullptr, nullptr, nullptr, nullptr), 55);
}
