// What values a layered configuration has, and where each comes from.
#include "support/Prelude.h"

#include "Z/zlayerset.h"
#include "Z/zmodelreading.h"
#include "Z/zpropdiff.h"
#include "support/Raised.h"
#include "support/TempFolder.h"

using std::string;

// Called by the library for each file that it reads.
static std::function<void(int)> change;
static int changes;
extern "C" ssize_t __real_read(int descriptor, void* to, size_t room);
extern "C" ssize_t __wrap_read(int descriptor, void* to, size_t room);
ssize_t __wrap_read(int descriptor, void* to, size_t room) {
    const ssize_t got = __real_read(descriptor, to, room);
    if (change)
        change(++changes);
    return got;
}

namespace {

struct Set {
    explicit Set(const TempFolder& root, unsigned long flags = 0) : set(terms(root, flags)) {}

    ZLayersTerms terms(const TempFolder& root, unsigned long flags) {
        static const char* const kRoots[] = {"/usr", "/etc", nullptr};
        static const char* const kKeys[] = {"new", "k.1", "s", "b", nullptr};
        prefix = root / "";
        ZLayersTerms made = {};
        made.size = sizeof made;
        made.name = "app";
        made.roots = kRoots;
        made.prefix = prefix.c_str();
        made.environment = "APP";
        made.keys = kKeys;
        made.flags = flags;
        return made;
    }

    string shortened(const string& path) const {
        return path.compare(0, prefix.size(), prefix) == 0 ? path.substr(prefix.size()) : path;
    }

    // Each value of the stanza s as "key=value@file:line".
    string values() {
        string out;
        for (const char* key : {"a", "b", "c"}) {
            ZArrayList list(1, 1);
            if (model.contains("s", key) == 0)
                continue;
            model.copyValues("s", key, list);
            out += list.size() == 0 ? string(key) + "= " : "";
            for (unsigned int i = 0; i < list.size(); ++i) {
                const ZLayer* layer = nullptr;
                int line = -1;
                const bool has = set.origin(model, "s", key, i, layer, line);
                out += string(key) + "=" + static_cast<ZLCString*>(list.get(i))->getChars() + "@" +
                       (has ? shortened(layer->found.path.getChars()) : "?") + ":" +
                       std::to_string(line) + " ";
            }
        }
        return out;
    }

    // All entries as "key=value@line", those that count with a "+", hidden ones with a "*".
    string entries() {
        string out;
        set.forEachValue(model, [&](const ZLayerValue& value) {
            out += string(value.key.data, value.key.size) + "=" +
                   string(value.value.data, value.value.size) + "@" + std::to_string(value.line) +
                   (value.isBare ? "!" : "") + (value.isHidden ? "*" : "") +
                   (value.counts ? "+ " : " ");
        });
        return out;
    }

    string load() {
        return raised([&] {
            set.load(model, 0);
            model.checkInvariants();
        });
    }

    string prefix;
    ZLayerSet set;
    ZSCFData model;
};

typedef std::vector<std::pair<const char*, const char*>> Files;

void write(const TempFolder& root, const Files& files) {
    for (const auto& file : files) {
        const string path = root / file.first;
        std::filesystem::create_directories(path.substr(0, path.rfind('/')));
        root.write(file.first, file.second);
    }
}

// clang-format off
const struct { Files files; unsigned long flags; const char *values, *entries; } kValues[] = {
    {{{"usr/app.conf", "# c\n\n[s]\na = 1\na = 2\nb = 3\n"},
      {"etc/app.conf.d/1.conf", "[s]\n\nb=4"}},
     0, "a=1@usr/app.conf:4 a=2@usr/app.conf:5 b=4@etc/app.conf.d/1.conf:3 ",
     "a=1@4+ a=2@5+ b=3@6 b=4@3+ "},
    // An empty entry takes all away, but not what comes behind it in its file.
    {{{"usr/app.conf", "[s]\na = 1\nb = 2\n"}, {"usr/app.conf.d/1.conf", "[s]\na =\nb =\nb = 3\n"}},
     0, "a= b=3@usr/app.conf.d/1.conf:4 ", "a=1@2 b=2@3 a=@2+ b=@3 b=3@4+ "},
    // A header comes once in a file, and once in each.
    {{{"usr/app.conf", "[s]\na = 1\n[t]\n"}, {"usr/app.conf.d/1.conf", "[t]\nx = 1\n[s]\nc = 2\n"}},
     0, "a=1@usr/app.conf:2 c=2@usr/app.conf.d/1.conf:4 ", "a=1@2+ x=1@2+ c=2@4+ "},
    {{{"usr/app.conf", "[s]\na = 1\na = 2\n"}, {"usr/app.conf.d/1.conf", "[s]\na = 3\n"},
      {"usr/app.conf.d/2.conf", "[s]\na = 1\n"}},
     ZLAYERS_COLLECT, "a=1@usr/app.conf:2 a=2@usr/app.conf:3 a=3@usr/app.conf.d/1.conf:2 "
     "a=1@usr/app.conf.d/2.conf:2 ", "a=1@2+ a=2@3+ a=3@2+ a=1@2+ "},
    {{{"usr/app.conf", "[s]\na = 1\n"}, {"usr/app.conf.d/1.conf", "[s]\na = 2\na =\na = 3\n"}},
     ZLAYERS_COLLECT, "a=3@usr/app.conf.d/1.conf:4 ", "a=1@2 a=2@2 a=@3 a=3@4+ "},
    // A file that is no configuration file is told or left out, and no part of it stays.
    {{{"usr/app.conf", "[s]\na = 1\nb = 1\n"}, {"usr/app.conf.d/1.conf", "[s]\na = 2\nbad\n"},
      {"usr/app.conf.d/2.conf", "[s]\nb = 2\n"}},
     ZLAYERS_SKIP_BAD, "a=1@usr/app.conf:2 b=2@usr/app.conf.d/2.conf:2 ", "a=1@2+ b=1@3 b=2@2+ "},
};
// clang-format on

TEST(LayerSet, GivesValuesWithTheirOrigins) {
    for (const auto& row : kValues) {
        SCOPED_TRACE(row.values);
        const TempFolder root;
        write(root, row.files);
        Set set(root, row.flags);
        ASSERT_EQ(set.load(), "");
        EXPECT_EQ(set.values(), row.values);
        EXPECT_EQ(set.entries(), row.entries);
        // What is set has no origin, and everything else keeps its own.
        const string before = set.values();
        set.model.addLine("s", "a", "9", 0);
        const string now = set.values();
        EXPECT_EQ(now.substr(0, 9), "a=9@?:-1 ");
        const size_t others = std::min(before.find("b="), before.find("c="));
        EXPECT_EQ(now.substr(9), others == string::npos ? "" : before.substr(others));
    }
}

ZDialect dialectOf(unsigned int ZDialect::*field, unsigned int what) {
    ZDialect dialect = {};
    dialect.size = sizeof dialect;
    dialect.divider = ZDIALECT_EITHER;
    dialect.bare = ZDIALECT_BARE;
    dialect.*field = what;
    return dialect;
}

// clang-format off
const struct {
    ZDialect dialect; const char *low, *high; unsigned long flags; const char *values, *entries;
} kDialects[] = {
    // Values that aren't spelled as they are have their entries' lines, also when others go.
    {dialectOf(&ZDialect::continued, ZDIALECT_INDENT),
     "[s]\na = 1\n  2\nb: 3\n", "\n[s]\nb =\n # x\n  4\nc = 5\nc = 6\n 7\nc = 8\n", ZLAYERS_COLLECT,
     "a=1\n2@low:2 b=3@low:4 b=\n4@high:3 c=5@high:6 c=6\n7@high:7 c=8@high:9 ",
     "a=1\n2@2+ b=3@4+ b=\n4@3+ c=5@6+ c=6\n7@7+ c=8@9+ "},
    {dialectOf(&ZDialect::quotes, ZDIALECT_GIT_QUOTES),
     "[s]\na = \"1\\n\"\n", "[s]\nb = \"2\\t\"\nb = 3\nb = \"4\\t\"\n", 0,
     "a=1\n@low:2 b=2\t@high:2 b=3@high:3 b=4\t@high:4 ", "a=1\n@2+ b=2\t@2+ b=3@3+ b=4\t@4+ "},
    // What a file gives is settled before it is laid over others.
    {dialectOf(&ZDialect::values, ZDIALECT_LAST_VALUE),
     "[s]\na = 1\na = 2\nb = 3\n", "[s]\na = 4\na = 5\nb =\n", 0,
     "a=5@high:3 b= ", "a=1@2 a=2@3 b=3@4 a=4@2 a=5@3+ b=@4+ "},
    {dialectOf(&ZDialect::values, ZDIALECT_LAST_VALUE),
     "[s]\na = 1\na = 2\nb = 3\n", "[s]\na = 4\na = 5\nb =\nb = 6\n", ZLAYERS_COLLECT,
     "a=2@low:3 a=5@high:3 b=6@high:5 ", "a=1@2 a=2@3+ b=3@4 a=4@2 a=5@3+ b=@4 b=6@5+ "},
    {dialectOf(&ZDialect::values, ZDIALECT_RESET_VALUES),
     "[s]\na = 1\nb = 1\n", "[s]\na = 2\na = 3\nb = 2\nb =\nb = 3\nb = 4\n", 0,
     "a=2@high:2 a=3@high:3 b=3@high:6 b=4@high:7 ",
     "a=1@2 b=1@3 a=2@2+ a=3@3+ b=2@4 b=@5 b=3@6+ b=4@7+ "},
    // Stanzas are numbered in each file, and each goes on with its like.
    {dialectOf(&ZDialect::repeated, ZDIALECT_NUMBERED),
     "[s]\na = 1\n[s]\na = 2\n", "[s]\nb = 3\n[s]\na = 4\n[s]\na = 5\n", 0,
     "a=1@low:2 b=3@high:2 ", "a=1@2+ a=2@4 b=3@2+ a=4@4+ a=5@6+ "},
    {dialectOf(&ZDialect::repeated, ZDIALECT_MERGED),
     "[s]\na = 1\n[t]\n[s]\na = 2\n", "[s]\na = 3\n[s]\na = 4\n", 0,
     "a=3@high:2 a=4@high:4 ", "a=1@2 a=2@5 a=3@2+ a=4@4+ "},
    {dialectOf(&ZDialect::names, ZDIALECT_FOLDED),
     "[S]\nA = 1\nB = 2\n", "[s]\na = 3\n", 0, "a=3@high:2 b=2@low:3 ", "A=1@2 B=2@3+ a=3@2+ "},
    // A key without a divider goes before values and empty ones, and the other way round.
    {dialectOf(&ZDialect::comments, ZDIALECT_SEMICOLON),
     "[s]\na = 1\nb\nc\n", "[s]\na\nb =\nc = 2\n", 0,
     "a= b= c=2@high:4 ", "a=1@2 b=@3! c=@4! a=@2!+ b=@3+ c=2@4+ "},
};
// clang-format on

TEST(LayerSet, LaysFilesOfADialect) {
    for (const auto& row : kDialects) {
        SCOPED_TRACE(row.entries);
        const TempFolder root;
        write(root, {{"usr/app.conf", row.low}, {"etc/app.conf.d/1.conf", row.high}});
        Set set(root, row.flags);
        ZModelReading::storeOf(set.model).setDialect(std::make_shared<const ZDialect>(row.dialect));
        ASSERT_EQ(set.load(), "");
        string values = set.values();
        for (const string path : {"usr/app.conf:", "etc/app.conf.d/1.conf:"})
            for (size_t at; (at = values.find(path)) != string::npos;)
                values.replace(at, path.size(), path[0] == 'u' ? "low:" : "high:");
        EXPECT_EQ(values, row.values);
        EXPECT_EQ(set.entries(), row.entries);
        // What lower files say is known still.
        ZSCFData again;
        set.set.rebuild(set.model, set.set.layers().size(), again);
        ZVector<ZPropDifference> differences;
        zfindDifferences(set.model, again, differences);
        EXPECT_EQ(differences.size(), 0u);
    }
}

TEST(LayerSet, TellsTheLineOfABadFile) {
    const TempFolder root;
    write(root, {{"usr/app.conf", "[s]\na = 1\n"}, {"etc/app.conf.d/2.conf", "[s]\n\n[s]\n"}});
    Set set(root);
    EXPECT_EQ(set.load(), "line 3");
    const ZLayer& bad = set.set.layers().back();
    EXPECT_EQ(bad.badLine, 3);
    EXPECT_STREQ(bad.reason.getChars(), "[s]");
    Set none(root, ZLAYERS_NEEDS_MAIN);
    std::filesystem::remove(root / "usr/app.conf");
    EXPECT_EQ(none.load(), "line 3");
    root.write("etc/app.conf.d/2.conf", "[s]\n");
    EXPECT_EQ(none.load(), "fopen(r) 2");
}

TEST(LayerSet, TakesVariablesCredentialsAndSideDatabases) {
    const TempFolder root;
    write(root,
          {{"usr/app.conf", "[s]\na = 1\nb = 2\n[configuration-database]\nfile = /etc/side\n"},
           {"creds/s.c", "secret\n"},
           {"creds/other", ""}});
    std::filesystem::create_directories(root / "etc");
    ZSCFData hidden;
    hidden.addLine("s", "c", "lower", 1);
    ZBuffer packed;
    hidden.be_write_obfuscated(packed);
    root.write("etc/side",
               string(static_cast<const char*>(packed.getBuffer()), packed.getLength()));
    Set set(root);
    ASSERT_EQ(set.load(), "");
    EXPECT_EQ(set.values(), "a=1@usr/app.conf:2 b=2@usr/app.conf:3 c=lower@usr/app.conf:0 ");
    EXPECT_EQ(set.entries(), "a=1@2+ b=2@3+ c=lower@0*+ ");
    EXPECT_EQ(set.model.contains("configuration-database"), 0);

    setenv("APP_S_A", "", 1);
    setenv("APP_NEW_K_1", "x = [y]", 1);
    setenv("CREDENTIALS_DIRECTORY", (root / "creds").c_str(), 1);
    Set over(root, ZLAYERS_CREDENTIALS);
    ASSERT_EQ(over.load(), "");
    EXPECT_EQ(over.values(), "a= b=2@usr/app.conf:3 c=secret@creds/s.c:0 ");
    EXPECT_EQ(over.entries(), "a=1@2 b=2@3+ c=lower@0* a=@0+ k.1=x = [y]@0+ c=secret@0*+ ");
    EXPECT_EQ(over.model.isObfuscated("s", "c"), 1);
    for (const char* name : {"APP_S_A", "APP_NEW_K_1", "CREDENTIALS_DIRECTORY"})
        unsetenv(name);
}

// Each try ends with something else than it began with.
TEST(LayerSet, EndsIfEachTryMeetsAChange) {
    const TempFolder root;
    write(root, {{"usr/app.conf", "[s]\na = 1\n"}, {"etc/app.conf.d/1.conf", "[s]\nb = 1\n"}});
    const string link = root / "etc/app.conf.d/2.conf";
    const std::function<void(int)> kChanges[] = {
        [&](int) { std::ofstream(root / "usr/app.conf", std::ios::app) << "#\n"; },
        [&](int n) { root.write("etc/app.conf.d/0" + std::to_string(n) + ".conf", ""); },
        [&](int n) {
            root.write("etc/" + std::to_string(n), "[s]\nc = 1\n");
            unlink(link.c_str());
            EXPECT_EQ(symlink(("../" + std::to_string(n)).c_str(), link.c_str()), 0);
        },
    };
    Set set(root);
    for (const auto& each : kChanges) {
        changes = 0;
        change = each;
        EXPECT_EQ(set.load(), "load() 11");
        change = nullptr;
        EXPECT_TRUE(changes > 1 && changes < 100) << changes;
        EXPECT_EQ(set.load(), "");
    }
    EXPECT_EQ(set.values(),
              "a=1@usr/app.conf:2 b=1@etc/app.conf.d/1.conf:2 "
              "c=1@etc/app.conf.d/2.conf:2 ");
}

}  // namespace
