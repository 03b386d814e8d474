// Files of other programs, by the presets: what readers see, and which bytes a change leaves alone.
#include "support/Prelude.h"

#include "Z/ZDialects.h"
#include "Z/ZPropertiesUpdate.h"
#include "Z/ZPropertiesWatcher.h"
#include "Z/ZStanzaFileProperties.h"
#include "Z/zdialects.h"
#include "support/Raised.h"
#include "support/TempFolder.h"

using std::string;

namespace {

string contentOf(const string& path) {
    std::ifstream in(path, std::ios::binary);
    return string(std::istreambuf_iterator<char>(in), {});
}

string valueOf(const ZStanzaFileProperties& p, const char* stanza, const char* key) {
    if (p.exists(stanza, key) == 0)
        return "none";
    ZArrayList list(1, 1);
    p.getValues(stanza, key, list, ZPROP_STRING_LOCAL);
    string out = p.isBare(stanza, key) != 0 ? "bare" : "";
    for (unsigned int i = 0; i < list.size(); ++i)
        out += (i == 0 ? "" : "|") + string(static_cast<ZLCString*>(list.get(i))->getChars());
    return out;
}

const struct {
    const char *preset, *text, *stanza, *key, *value, *set, *after;
} kFiles[] = {
    {"git", "[core]\n\tbare\n[Remote \"Or\"]\n\tURL = \"a #b\" ; c\n", "remote.Or", "url", "a #b",
     "x;y", "[core]\n\tbare\n[Remote \"Or\"]\n\tURL = \"x;y\" ; c\n"},
    {"git", "[core]\n\tbare\n", "core", "bare", "bare", "1", "[core]\n\tbare = 1\n"},
    {"samba", "# c\n[global]\n\tGuest OK = yes ; no\r\n", "Global", "guestok", "yes ; no", "no",
     "# c\n[global]\n\tGuest OK = no\r\n"},
    {"php", "a = 1\n[PHP]\nx = \"1;2\" ; c\n", "", "a", "1", "2",
     "a = 2\n[PHP]\nx = \"1;2\" ; c\n"},
    {"mysql", "[mysqld]\nskip-name # c\nport=1\n[mysqld]\nport = 3306 # d", "mysqld", "port",
     "3306", "1", "[mysqld]\nskip-name # c\nport=1\n[mysqld]\nport = 1 # d"},
    {"configparser", "[a]\nk: one\n  # c\n  two\nl = 1\n", "a", "k", "one\ntwo", "3",
     "[a]\nk: 3\nl = 1\n"},
    {"systemd", "[Service]\nExecStart=\nExecStart=/a \\\n  b\n", "Service", "ExecStart", "/a    b",
     "/c", "[Service]\nExecStart=\nExecStart=/c\n"},
    {"wireguard", "[Peer]\nKey = a=\n\n[Peer]\nKey = b= # c\n", "Peer#2", "key",
     "b=", "d=", "[Peer]\nKey = a=\n\n[Peer]\nKey = d= # c\n"},
    {"supervisord", "[program:x]\ncommand=/bin/cat ; c\n", "program:x", "command", "/bin/cat", "a",
     "[program:x]\ncommand=a ; c\n"},
    {"desktop", "[Desktop Entry]\nName[de]=x\nName = y\n", "Desktop Entry", "Name", "y", "z",
     "[Desktop Entry]\nName[de]=x\nName = z\n"},
    {"lax", "a\n[s]\nb : 1\n", "s", "b", "1", "2", "a\n[s]\nb : 2\n"},
};

}  // namespace

TEST(DialectFiles, ChangeOneValueAndNoOtherByte) {
    setenv("XDG_DATA_DIRS", TEST_SOURCE "/share", 1);
    for (const auto& row : kFiles) {
        SCOPED_TRACE(row.text);
        TempFolder folder;
        folder.write("f", row.text);
        ZDialect dialect;
        ZDialects::get(row.preset, dialect);
        ZStanzaFileProperties p(1);
        p.setDialect(dialect);
        p.load((folder / "f").c_str());
        EXPECT_EQ(valueOf(p, row.stanza, row.key), row.value);
        p.store(nullptr);
        EXPECT_EQ(contentOf(folder / "f"), row.text);
        {
            ZPropertiesUpdate update(p, 0);
            p.setValue(row.stanza, row.key, row.set);
            update.commit();
        }
        EXPECT_EQ(contentOf(folder / "f"), row.after);
        EXPECT_EQ(valueOf(p, row.stanza, row.key), row.set);
        {
            ZPropertiesUpdate update(p, 0);
            p.deleteKey(row.stanza, row.key);
        }
        EXPECT_EQ(valueOf(p, row.stanza, row.key), row.set);
        if (row.stanza[0] != '\0') {
            p.setValue(row.stanza, "added", "1");
            p.store(nullptr);
        }
        ZStanzaFileProperties again(1);
        again.setDialect(dialect);
        again.load((folder / "f").c_str());
        EXPECT_EQ(valueOf(again, row.stanza, row.key), row.set);
    }
}

// Told of the values alone, whatever else is changed.
TEST(DialectFiles, AreWatched) {
    struct Watcher : ZPropertiesWatcher {
        explicit Watcher(ZProperties& properties) : ZPropertiesWatcher(properties) {}
        void tell(const ZPropertyChanged& change) override { told += change.key; }
        string told;
    };
    setenv("XDG_DATA_DIRS", TEST_SOURCE "/share", 1);
    TempFolder folder;
    folder.write("f", "[a]\nK = 1\n");
    ZDialect dialect;
    ZDialects::get("git", dialect);
    ZStanzaFileProperties p(1);
    p.setDialect(dialect);
    p.load((folder / "f").c_str());
    Watcher watcher(p);
    watcher.setSettlingTime(0);
    folder.write("f", "[A]\nk = \"1\" # c\n");
    watcher.process();
    folder.write("f", "[A]\nk = \"1\" # c\nl\n");
    watcher.process();
    EXPECT_EQ(watcher.told, "l");
    p.setValue("a", "k", "2");
    p.store(nullptr);
    EXPECT_EQ(contentOf(folder / "f"), "[A]\nk = \"2\" # c\nl\n");
    // Another spelling that has come into the file meanwhile is the same name.
    folder.write("f", "[a]\n\tK = 2\n\tL\n");
    p.setValue("a", "k", "3");
    p.store(nullptr);
    EXPECT_EQ(contentOf(folder / "f"), "[a]\n\tK = 3\n\tL\n");
}

TEST(DialectFiles, RefuseWhatTheyCantSay) {
    setenv("XDG_DATA_DIRS", TEST_SOURCE "/share", 1);
    ZDialect dialect;
    ZDialects::get("systemd", dialect);
    ZStanzaFileProperties p(1);
    p.setDialect(dialect);
    p.loadBytes("[a]\nb=1\n", 8);
    const std::function<void()> kRefused[] = {
        [&] { p.setValue("a", "b", " x"); },
        [&] { p.setValue("a", "b", "x\ny"); },
        [&] { p.setValue("a", "b=c", "x"); },
        [&] { p.setValue("a]", "b", "x"); },
        [&] { p.addValue("a", "b", "x\\", 0); },
        [&] { p.addValue("a", "s", "x", 1); },
        [&] { p.renameKey("a", "b", "c=d"); },
        [&] { p.renameStanza("a", "b]"); },
        [&] { p.addEntryComment("a", "b", "c\nd"); },
        [&] { p.setBare("a", "c"); },
        [&] { p.setValue("", "c", "x"); },
        [&] { p.setDialect(dialect); },
    };
    for (const auto& refused : kRefused)
        EXPECT_EQ(raised(refused), "22") << &refused - kRefused;
    ZBuffer out;
    p.storeBytes(out);
    EXPECT_EQ(string(static_cast<char*>(out.getBuffer()), out.getLength()), "[a]\nb=1\n");
    EXPECT_EQ(raised([&] { p.loadBytes("a\n", 2); }), "line 1");
    EXPECT_EQ(raised([&] { p.loadBytes("\na=1\n", 5); }), "line 2");
    EXPECT_EQ(raised([&] { ZDialects::get("none", dialect); }), "fopen(r) 2");
    // What somebody else has made of the file shows at the store, by its line.
    TempFolder folder;
    ZStanzaFileProperties file(1);
    file.setDialect(dialect);
    folder.write("f", "[a]\nb=1\n");
    file.load((folder / "f").c_str());
    file.setValue("a", "b", "2");
    for (const char* bad : {"[a]\njunk\n", "\nb=1\n"}) {
        folder.write("f", bad);
        EXPECT_EQ(raised([&] { file.store(nullptr); }), "line 2");
        EXPECT_EQ(contentOf(folder / "f"), bad);
    }
    // Names that the text doesn't have yet.
    ZDialects::get("wireguard", dialect);
    ZStanzaFileProperties numbered(1);
    numbered.setDialect(dialect);
    numbered.loadBytes("[p]\na=1\n[p]\nb=1\n", 16);
    for (const char* name : {"p#4", "p#03", "p#0", "q#2", "p#99999999999999999999"})
        EXPECT_EQ(raised([&] { numbered.addStanza(name); }), "22") << name;
    numbered.addStanza("P#3");
    numbered.deleteStanza("p");
    for (const char* name : {"p", "p#4"})
        EXPECT_EQ(raised([&] { numbered.addStanza(name); }), "22") << name;
    EXPECT_EQ(raised([&] { numbered.disableKey("p#2", "b"); }), "22");
    ZStanzaFileProperties copied(numbered);
    EXPECT_EQ(raised([&] { copied.addStanza("p#4"); }), "22");
    // Where the last value counts there is only one.
    ZDialects::get("desktop", dialect);
    ZStanzaFileProperties last(1);
    last.setDialect(dialect);
    last.loadBytes("[a]\nb=1\n", 8);
    last.addValue("a", "b", "1", 0);
    EXPECT_EQ(raised([&] { last.addValue("a", "b", "2", 0); }), "22");
    last.storeBytes(out);
    // A line that would go on with what comes to stand above it.
    ZDialects::get("configparser", dialect);
    dialect.bare = ZDIALECT_BARE;
    ZStanzaFileProperties bare(1);
    bare.setDialect(dialect);
    const string text = "[a]\nk\n  l\n";
    bare.loadBytes(text.data(), text.size());
    bare.setValue("a", "k", "1");
    EXPECT_EQ(raised([&] { bare.storeBytes(out); }), "22");
    dialect.divider = 9;
    EXPECT_EQ(raised([&] { ZStanzaFileProperties(1).setDialect(dialect); }), "22");
}

// What is done to lines in words, "rename STANZA KEY NAME", and the file then.
TEST(DialectFiles, ChangeLinesAndNoOther) {
    setenv("XDG_DATA_DIRS", TEST_SOURCE "/share", 1);
    const struct {
        const char *preset, *text, *edits, *after;
    } kEdits[] = {
        {"git", "[Remote \"O\"] # c\n\tURL = a\n", "rename remote.O url Url;stanza remote.O r.P",
         "[r \"P\"] # c\n\tUrl = a\n"},
        {"systemd", "[A]\n# c\n[B]\nx=1\n[A]\n  y = 1 \\\n2\n", "stanza A C;disable C y;add C z",
         "[C]\n# c\n[B]\nx=1\n[C]\nz=1\n  # y = 1 \\\n# 2\n"},
        {"systemd", "[A]\n  #  y = 1 \\\n#2\n# 3\n", "enable A y;set A y 1  2",
         "[A]\n  y = 1 \\\n2\n# 3\n"},
        {"configparser", "[a]\r\nk: 1\r\n  2\r\n  # c\r\n\r\n  3\r\nl: 1\r\n",
         "disable a k;set a l 2;enable a K;rename a k m",
         "[a]\r\nm: 1\r\n  2\r\n  c\r\n\r\n  # 3\r\nl: 2\r\n"},
        {"wireguard", "[Peer]\na = 1\n[Peer]\na = 2\n[Peer]\na = 3\n",
         "set Peer#3 a 4;rename Peer#2 a b;stanza Peer#2 Old",
         "[Peer]\na = 1\n[Old]\nb = 2\n[Peer]\na = 4\n"},
        {"php", "; c\n\n[a]\n  k = 'x' ; d\n",
         "comment - - e;comment a - f;comment a k g;disable a k",
         "; c\n;e\n\n[a]\n;f\n\n  ;g\n  ; k = 'x' ; d\n"},
        {"samba", "k = 1\n[a]\n[b]", "comment - k c;comment a l d;comment b - #e",
         "#c\nk = 1\n[a]\n\n#d\nl =\n[b]\n#e\n\n"},
        {"desktop", "# a\n# b\n[s]\n# c\n\n# d\nk=1\n# e\n",
         "remove - -;remove s -;remove s k;remove s k", "[s]\n\nk=1\n# e\n"},
        {"lax", "a\n# a = 1\n[b]\na: 2\n", "disable - a;enable - a;set - a 3",
         "# a\na = 3\n[b]\na: 2\n"},
    };
    for (const auto& row : kEdits) {
        SCOPED_TRACE(string(row.text) + row.edits);
        TempFolder folder;
        folder.write("f", row.text);
        ZDialect dialect;
        ZDialects::get(row.preset, dialect);
        ZStanzaFileProperties p(1);
        p.setDialect(dialect);
        p.load((folder / "f").c_str());
        std::stringstream edits(row.edits);
        for (string edit; std::getline(edits, edit, ';');) {
            std::stringstream in(edit);
            string what, stanza, key, text;
            in >> what >> stanza >> key;
            std::getline(in >> std::ws, text);
            const bool isFile = stanza == "-" && (key == "-" || what == "comment");
            const char* const s = isFile ? nullptr : stanza == "-" ? "" : stanza.c_str();
            const char* const k = key == "-" ? nullptr : key.c_str();
            if (what == "rename")
                EXPECT_EQ(p.renameKey(s, k, text.c_str()), 1);
            else if (what == "stanza")
                EXPECT_EQ(p.renameStanza(s, k), 1);
            else if (what == "disable")
                EXPECT_EQ(p.disableKey(s, k), 1);
            else if (what == "enable")
                EXPECT_EQ(p.uncommentKey(s, k), 1);
            else if (what == "remove")
                p.deleteComments(s, k);
            else if (what == "comment" && k != nullptr)
                p.addEntryComment(s == nullptr ? "" : s, k, text.c_str());
            else if (what == "comment" && s != nullptr)
                p.addStanzaComment(s, text.c_str());
            else if (what == "comment")
                p.addFileComment(text.c_str());
            else
                p.setValue(s, k, what == "add" ? "1" : text.c_str());
        }
        ZStanzaFileProperties copy(p);
        copy.store((folder / "g").c_str());
        EXPECT_EQ(contentOf(folder / "g"), row.after);
        // Another file comes to be as this one, comments and all.
        p.store((folder / "g").c_str());
        EXPECT_EQ(contentOf(folder / "g"), row.after);
        p.store((folder / "f").c_str());
        EXPECT_EQ(contentOf(folder / "f"), row.after);
        EXPECT_EQ(p.renameKey("none", "k", "l"), 0);
    }
}

TEST(DialectFiles, HaveTheirDialectByTheirPath) {
    TempFolder folder;
    setenv("XDG_DATA_DIRS", (folder / ":" TEST_SOURCE "/share").c_str(), 1);
    const auto askedOf = [](const char* path) {
        char *name = nullptr, *pattern = nullptr;
        EXPECT_EQ(zstzDialect_ofFile(path, &name, &pattern), ZPROP_OK);
        const string answer = name == nullptr ? "" : string(name) + " " + pattern;
        zstzPropFree(name);
        zstzPropFree(pattern);
        return answer;
    };
    EXPECT_EQ(askedOf("/x/.git/config"), "git */.git/config");
    EXPECT_EQ(askedOf("/etc/systemd/network/a.network"),
              "systemd-network */systemd/network/*.network");
    EXPECT_EQ(askedOf("/etc/passwd"), "");
    // Another one of that name goes before it, and a bad one tells its line.
    std::filesystem::create_directories(folder / "zbase/dialects");
    folder.write("zbase/dialects/git.conf", "[dialect]\ndivider = colon\n");
    EXPECT_EQ(askedOf("/x/.git/config"), "");
    ZPROP_handle* handle = nullptr;
    ZDialect dialect;
    ASSERT_EQ(zstzDialect_get("git", &dialect), ZPROP_OK);
    ASSERT_EQ(zstzPropOpenDialectBytes(&handle, "[a]\nb: c = d\n", 13, &dialect, 0), ZPROP_OK);
    int error = -1;
    char* text = zstzPropGetStringValue(handle, "a", "b", 1, &error);
    EXPECT_STREQ(text, "c = d");
    zstzPropFree(text);
    zstzPropClose(handle);
    folder.write("zbase/dialects/git.conf", "[dialect]\ndivider = comma\n");
    EXPECT_EQ(raised([&] { ZDialects::get("git", dialect); }), "line 2");
}
