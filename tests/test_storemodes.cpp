// What is refused, what is kept byte for byte, and what stores leave on the disk: strict, keep lines,
// store modes, waiting, the exact change test, journals.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "Z/ZExceptionText.h"
#include "Z/ZPropertiesUpdate.h"
#include "Z/ZStanzaFileProperties.h"
#include "Z/zjournal.h"
#include "Z/zkeeplines.h"
#include "Z/zproperties.h"
#include "Z/zwholefile.h"
#include "support/Raised.h"
#include "support/TempFolder.h"

using std::string;

namespace {

// Before anything asks for the locale: the euro sign isn't in this one.
const int kLocale = setenv("LC_ALL", "C", 1);

const unsigned long kKeep = ZPCACHE_KEEP_LINES;

struct Config : ZStanzaFileProperties {
    explicit Config(unsigned long attributes = 0, int mode = ZPROP_STORE_PLAIN)
        : ZStanzaFileProperties(1) {
        setAttributes(attributes, nullptr);
        setStoreMode(mode);
    }
    Config(const string& path, unsigned long attributes = 0, int mode = ZPROP_STORE_PLAIN)
        : Config(attributes, mode) {
        load(path.c_str());
    }
    string value(const char* stanza, const char* key) {
        ZLCString out;
        getValue(stanza, key, out, 0, "<none>");
        return out.getChars();
    }
};

// ---------------------------------------------------------------- strict

const string kLong(8200, 'x');

TEST(Strict, RefusesWhatALoadWouldntGiveBack) {
    struct {
        const char* what;
        string stanza, key, value;
        bool accepted;
    } const kCases[] = {
        {"plain", "s", "k", "v", true},
        {"inner blanks and signs", " s = # [ ", "a b#[]", "= # [x] \t y", true},
        {"no value", "s", "k", "", true},
        {"just short enough", "s", "k", kLong.substr(0, 8186), true},
        {"one byte too long", "s", "k", kLong.substr(0, 8187), false},
        {"newline in a value", "s", "k", "a\nb", false},
        {"return in a value", "s", "k", "a\rb", false},
        {"blank ahead", "s", "k", " a", false},
        {"blank behind", "s", "k", "a\t", false},
        {"= in a key", "s", "k=l", "v", false},
        {"# first in a key", "s", "#k", "v", false},
        {"[ first in a key", "s", "[k", "v", false},
        {"blank at a key's end", "s", "k ", "v", false},
        {"newline in a key", "s", "k\nl", "v", false},
        {"] in a stanza", "s]", "k", "v", false},
        {"newline in a stanza", "s\nt", "k", "v", false},
        {"a long key", "s", kLong.substr(0, 8189), "", false},
        {"a long stanza", kLong.substr(0, 8189), "k", "", false},
    };
    const TempFolder folder;
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.what);
        const char *s = c.stanza.c_str(), *k = c.key.c_str(), *v = c.value.c_str();
        Config strict(ZPCACHE_STRICT), loose;
        EXPECT_EQ(raised([&] { strict.setValue(s, k, v); }), c.accepted ? "" : "22");
        EXPECT_EQ(strict.isModified(), c.accepted);
        EXPECT_EQ(strict.count(), c.accepted);
        loose.setValue(s, k, v);
        if (*v != '\0') {
            Config adding(ZPCACHE_STRICT);
            EXPECT_EQ(raised([&] { adding.addValue(s, k, v, 0); }), c.accepted ? "" : "22");
        }
        // The table itself is right: a load gives back just the accepted ones.
        const string path = folder / "f";
        loose.store(path.c_str());
        Config again(ZPCACHE_STRICT);
        const string failure = raised([&] { again.load(path.c_str()); });
        const bool same = failure.empty() && again.exists(s, k) && again.value(s, k) ==
                          (c.value.empty() ? "<none>" : c.value);
        if (c.value != "a\rb") {  // a line end, though this reader passes over it
            EXPECT_EQ(same, c.accepted) << failure;
        }
        unlink(path.c_str());
    }
}

TEST(Strict, GuardsEveryWayIn) {
    Config p(ZPCACHE_STRICT);
    p.setValue("s", "k", "v");
    const ZUTF8String foreign("\xE2\x82\xAC");  // not in the C locale's codeset
    const struct {
        const char* what;
        std::function<void()> call;
    } kRefused[] = {
        {"comment line end", [&] { p.addEntryComment("s", "k", "a\nb"); }},
        {"comment blank end", [&] { p.addFileComment("# a "); }},
        {"long comment", [&] { p.addStanzaComment("s", kLong.c_str()); }},
        {"stanza", [&] { p.addStanza("a]b"); }},
        {"comment's stanza", [&] { p.addStanzaComment("a]b", "c"); }},
        {"comment's key", [&] { p.addEntryComment("s", "a=b", "c"); }},
        {"number's key", [&] { p.setIntegerValue("s", "a=b", 1); }},
        {"truth's key", [&] { p.setBooleanValue("s", "#b", 1); }},
        {"hidden key", [&] { p.setValue("s", "a=b", "v", 1); }},
        {"value by iterator",
         [&] {
             ZStanzaValueIterator i(p, "s", "k", ZPROP_STRING_LOCAL,
                                    ZStanzaValueIterator::ZPROP_ITER_AUTO);
             i.nextValue();
             i.changeValue("a\nb");
         }},
        {"added by iterator",
         [&] {
             ZStanzaValueIterator i(p, "s", "k", ZPROP_STRING_LOCAL,
                                    ZStanzaValueIterator::ZPROP_ITER_AUTO);
             i.addValue(" a");
         }},
        {"foreign characters", [&] { p.setValue("s", "k", foreign); }},
        {"added foreign characters", [&] { p.addValue("s", "k", foreign, 0); }},
    };
    p.resetModified();
    for (const auto& c : kRefused) {
        EXPECT_EQ(raised(c.call), "22") << c.what;
        EXPECT_EQ(p.isModified(), 0) << c.what;
    }
    EXPECT_EQ(p.count(), 1);
    EXPECT_EQ(p.count("s"), 1);
    EXPECT_EQ(p.value("s", "k"), "v");
    EXPECT_EQ(raised([&] { p.setValue("s", "hidden", " any\n= text ", 1); }), "");
}

TEST(Strict, TheReaderReportsWhatItWouldTakeApart) {
    const struct {
        const char* what;
        string text;
        const char *strict, *loose;
    } kCases[] = {
        {"fine", "# c\n[s]\nk = v\n", "", ""},
        {"8191 bytes with the newline", "[s]\nk=" + kLong.substr(0, 8188) + "\n", "", ""},
        {"8191 bytes at the end", "[s]\nk=" + kLong.substr(0, 8189), "", ""},
        {"8192 bytes", "[s]\n#" + kLong.substr(0, 8190) + "\n", "line 2", ""},
        {"NUL", string("[s]\nk = a\0b\n", 12), "line 2", ""},
        {"NUL in a comment", string("#\0\n[s]\n", 7), "line 1", ""},
        {"byte-order mark", "\xEF\xBB\xBF# c\n[s]\n", "line 1", "line 1"},
        {"a mark further on", "[s]\nk = \xEF\xBB\xBF\n", "", ""},
    };
    const TempFolder folder;
    for (const auto& c : kCases) {
        const string path = folder.write("f", c.text);
        EXPECT_EQ(raised([&] { Config p(path, ZPCACHE_STRICT); }), c.strict) << c.what;
        EXPECT_EQ(raised([&] { Config p(path); }), c.loose) << c.what;
    }
}

// ---------------------------------------------------------------- keep lines

TEST(KeepLines, Cases) {
    typedef void (*Edit)(Config&);
    const string kLongComment = "#" + string(8190, 'c') + "# rest of it\n";
    const struct {
        const char* what;
        string text, stored;  // empty: as it was
        Edit edit;
    } kCases[] = {
        {"nothing", "", "", [](Config&) {}},
        {"odd spelling", "  # c \n\t\n [s] tail\r\n  k=1 \n", "", [](Config&) {}},
        {"scattered values", "[s]\nk=1\n # c\nm=2\nk  = 3\n\n k=4\n[t]\nk=1\n", "",
         [](Config&) {}},
        {"lines without values", "[s]\nk=\nk = 1\nk  =\nm=\nm =\n", "", [](Config&) {}},
        {"no newline at the end", "[s]\nk=1\n  # c", "", [](Config&) {}},
        {"changed, no newline", "[s]\nm=2\nk=1", "[s]\nm=2\nk = 9\n",
         [](Config& p) { p.setValue("s", "k", "9"); }},
        {"behind a last line without newline", "[s]\nk=1", "[s]\nk=1\nn = 2\n",
         [](Config& p) { p.setValue("s", "n", "2"); }},
        {"long lines", kLongComment + "[s]\nk = a\n" + kLongComment + "k2=" + string(8188, 'v') +
                           "# rest\n m=1\n", "", [](Config&) {}},
        {"set to what it was", "[s]\n k=1\n", "", [](Config& p) { p.setValue("s", "k", "1"); }},
        {"returns", "[s]\r\nk=1\r\nm=2\r\n", "[s]\r\nk = 9\r\nm=2\r\nn = 3\r\n",
         [](Config& p) { p.setValue("s", "k", "9"), p.setValue("s", "n", "3"); }},
        {"one of several values", "[s]\nk=1\nm=2\n # c\nk=3\n", "[s]\nk = 9\nk=3\nm=2\n # c\n",
         [](Config& p) {
             ZStanzaValueIterator i(p, "s", "k", ZPROP_STRING_LOCAL,
                                    ZStanzaValueIterator::ZPROP_ITER_AUTO);
             i.nextValue();
             i.changeValue("9");
         }},
        {"deleted key", " # a\n[s]\n  # b\n k=1\n  # c\n m=2\nk=3\n",
         " # a\n[s]\n  # b\n  # c\n m=2\n", [](Config& p) { p.deleteKey("s", "k"); }},
        {"deleted stanza", "[s]\nk=1\n\n [t]\n x=1\n # c\n [u]\n y=1\n", "[s]\nk=1\n\n [u]\n y=1\n",
         [](Config& p) { p.deleteStanza("t"); }},
        {"added comment", "[s]\nk=1\n \t\n  # c\n m=2\n", "[s]\n\n# n\nk=1\n \t\n  # c\n m=2\n",
         [](Config& p) { p.addEntryComment("s", "k", "# n"); }},
        {"added stanza", "[s]\nk=1\n  \n", "[s]\nk=1\n  \n\n[t]\nx = 1\n",
         [](Config& p) { p.setValue("t", "x", "1"); }},
        {"no return that makes a line too long", "[s]\r\nk=1\r\n",
         "[s]\r\nk = " + kLong.substr(0, 8186) + "\n",
         [](Config& p) { p.setValue("s", "k", kLong.substr(0, 8186).c_str()); }},
        {"same key in another stanza", "[s]\n k=1\n[t]\n\tk=1\n", "[s]\nk = 2\n[t]\n\tk=1\n",
         [](Config& p) { p.setValue("s", "k", "2"); }},
    };
    const TempFolder folder;
    for (int mode = ZPROP_STORE_PLAIN; mode <= ZPROP_STORE_SAFE; ++mode)
        for (const auto& c : kCases) {
            SCOPED_TRACE(c.what);
            const string path = folder.write("f", c.text);
            Config p(path, kKeep, mode);
            c.edit(p);
            p.store(nullptr);
            EXPECT_EQ(TempFolder::read(path), c.stored.empty() ? c.text : c.stored);
        }
}

TEST(KeepLines, OfAFileThatSomebodyElseHasChanged) {
    const TempFolder folder;
    const string path = folder.write("f", "[s]\n  # a\n  # b\nk=1\nm=1\n");
    Config p(path, kKeep);
    folder.write("f", "[s]\n  # x\n\t# b\n k=1\n m=2\n");
    p.store(nullptr);
    EXPECT_EQ(TempFolder::read(path), "[s]\n# a\n\t# b\n k=1\nm = 1\n");
}

// A file of odd lines and what it must be after an edit, kept line by line.
class OddFile {
public:
    explicit OddFile(std::mt19937& random) : random_(random) {
        const string end = chance(4) ? "\r\n" : "\n";
        eol_ = end;
        for (int s = chance(5) ? 0 : -1; s < 4; ++s) {
            if (s >= 0)
                lines_.push_back({blanks() + "[" + name('s', s) + "]" + (chance(4) ? " t" : "") +
                                      blanks() + end, s, -1});
            for (int i = 0, n = pick(9); i < n; ++i) {
                const int kind = s < 0 ? pick(2) : pick(5);
                if (kind == 0)
                    lines_.push_back({blanks() + end, s, -1});
                else if (kind == 1)
                    lines_.push_back({blanks() + "# " + string(1, "ab"[pick(2)]) + blanks() + end, s, -1});
                else
                    addEntry(s, pick(4), end);
            }
        }
        if (chance(4) && !lines_.empty() && lines_.back().raw.size() > end.size())
            lines_.back().raw.resize(lines_.back().raw.size() - end.size());
    }

    string text() const {
        string all;
        for (const Line& line : lines_)
            all += line.raw;
        return all;
    }

    // One random change of the object and the lines.
    void edit(Config& p) {
        const int s = pick(4), k = pick(4);
        const string stanza = name('s', s), key = name('k', k);
        const bool there = p.exists(stanza.c_str(), key.c_str()) != 0;
        if (there && chance(2)) {
            p.deleteKey(stanza.c_str(), key.c_str());
            remove(s, k, "");
        } else if (there) {
            const string value = "new" + std::to_string(++fresh_);
            p.setValue(stanza.c_str(), key.c_str(), value.c_str());
            remove(s, k, key + " = " + value + eol_);
        }
    }

    static string name(char c, int i) { return string(1, c) + std::to_string(i); }

private:
    struct Line {
        string raw;
        int stanza, key;
    };

    int pick(int n) { return static_cast<int>(random_() % n); }
    bool chance(int n) { return pick(n) == 0; }
    string blanks() { return string(static_cast<size_t>(pick(3)), " \t"[pick(2)]); }

    void addEntry(int s, int k, const string& end) {
        const string value = chance(5) ? "" : string(1, "xyz"[pick(3)]);
        lines_.push_back({blanks() + name('k', k) + blanks() + "=" + blanks() + value + blanks() + end, s, k});
    }

    // Takes all lines of a key away; `instead` comes in place of the first.
    void remove(int s, int k, string instead) {
        std::vector<Line> left;
        for (const Line& line : lines_)
            if (line.stanza != s || line.key != k)
                left.push_back(line);
            else if (!instead.empty())
                left.push_back({instead, s, k}), instead.clear();
        lines_.swap(left);
    }

    std::mt19937& random_;
    std::vector<Line> lines_;
    string eol_;
    int fresh_ = 0;
};

TEST(KeepLines, RandomFilesKeepWhatWasntChanged) {
    const TempFolder folder;
    std::mt19937 random(8);
    for (int round = 0; round < 400; ++round) {
        OddFile model(random);
        const string path = folder.write("f", model.text());
        Config p(path, kKeep);
        for (int i = 0; i < round % 4; ++i)
            model.edit(p);
        p.store(nullptr);
        ASSERT_EQ(TempFolder::read(path), model.text()) << "round " << round;
        // What is added leaves all that was there in place.
        p.addEntryComment("s1", "k1", "# b");
        p.addStanzaComment("s0", "# a");
        p.addFileComment("# a");
        p.setValue("s2", "added", "1");
        p.store(nullptr);
        const string now = TempFolder::read(path);
        size_t at = 0;
        const string old = model.text();
        for (size_t from = 0; from < old.size();) {
            const size_t end = std::min(old.find('\n', from), old.size() - 1) + 1;
            const string line = old.substr(from, end - from);
            const size_t found = now.find(line, at);
            ASSERT_NE(found, string::npos) << "round " << round << ": " << line << "of\n"
                                           << old << "in\n" << now;
            at = found + line.size();
            from = end;
        }
    }
}

// ---------------------------------------------------------------- store modes

std::vector<string> filesIn(const TempFolder& folder) {
    std::vector<string> names;
    DIR* open = opendir((folder / "").c_str());
    while (const dirent* entry = readdir(open))
        if (entry->d_name[0] != '.')
            names.push_back(entry->d_name);
    closedir(open);
    std::sort(names.begin(), names.end());
    return names;
}

TEST(StoreModes, EachLeavesTheSameFilesWithTheirIdentity) {
    for (int mode = ZPROP_STORE_PLAIN; mode <= ZPROP_STORE_SAFE; ++mode) {
        SCOPED_TRACE(mode);
        const TempFolder folder;
        const string path = folder.write("a.conf", "# c\n[s]\nk = a long old value\n");
        const string link = folder / "link";
        ASSERT_EQ(symlink("a.conf", link.c_str()), 0);
        chmod(path.c_str(), 0640);
        if (geteuid() == 0) {
            EXPECT_EQ(chown(path.c_str(), 12, 34), 0);
        }
        struct stat before, after, side, sideBefore;
        stat(path.c_str(), &before);
        Config p(link, 0, mode);
        EXPECT_EQ(p.storeMode(), mode);
        p.setValue("s", "k", "v");
        p.setValue("s", "hidden", "one", 1);
        p.store(nullptr);
        const string sidePath = Config(path).value("configuration-database", "file");
        stat(sidePath.c_str(), &sideBefore);
        p.setValue("s", "hidden", "two", 1);
        p.store(nullptr);

        stat(path.c_str(), &after);
        EXPECT_EQ(after.st_ino, before.st_ino);
        EXPECT_EQ(after.st_uid, before.st_uid);
        EXPECT_EQ(after.st_gid, before.st_gid);
        EXPECT_EQ(after.st_mode, before.st_mode);
        ASSERT_EQ(stat(sidePath.c_str(), &side), 0);
        EXPECT_EQ(side.st_uid, before.st_uid);
        EXPECT_EQ(side.st_mode & 07777, 0640u);
        EXPECT_EQ(side.st_ino != sideBefore.st_ino, mode == ZPROP_STORE_SAFE);
        struct stat linked;
        lstat(link.c_str(), &linked);
        EXPECT_TRUE(S_ISLNK(linked.st_mode));
        const std::vector<string> kFiles = {"a.conf", "link", "link.obf"};
        EXPECT_EQ(filesIn(folder), kFiles);
        Config again(path);
        EXPECT_EQ(again.value("s", "k"), "v");
        EXPECT_EQ(again.value("s", "hidden"), "two");

        // The last hidden value takes the side database along, a new file can be made.
        p.deleteKey("s", "hidden");
        p.store(nullptr);
        p.store((folder / "new").c_str());
        EXPECT_EQ(TempFolder::read(folder / "new"), TempFolder::read(path));
        const std::vector<string> kLeft = {"a.conf", "link", "new"};
        EXPECT_EQ(filesIn(folder), kLeft);
    }
    Config p;
    EXPECT_EQ(raised([&] { p.setStoreMode(3); }), "22");
    EXPECT_EQ(raised([&] { p.setStoreMode(-1); }), "22");
    EXPECT_EQ(raised([&] { p.setChangeTest(2); }), "22");
}

TEST(StoreModes, AFailedLoadKeepsStoresFromTheFile) {
    const TempFolder folder;
    const string text = "[s]\nk = 1\nbad\nm = 2\n", path = folder.write("f", text);
    for (int mode : {ZPROP_STORE_CHECKED, ZPROP_STORE_SAFE}) {
        Config p(0, mode);
        EXPECT_EQ(raised([&] { p.load(path.c_str()); }), "line 3");
        EXPECT_EQ(raised([&] { p.store(nullptr); }), "22");
        EXPECT_EQ(raised([&] { p.store((folder / "other").c_str()); }), "22");
        EXPECT_EQ(TempFolder::read(path), text);
        p.allowStoreAfterFailedLoad();
        p.store((folder / "other").c_str());
        EXPECT_EQ(TempFolder::read(folder / "other"), "[s]\nk = 1\n");
        // Allowed once, and a load that succeeds ends it.
        EXPECT_EQ(raised([&] { p.reload(path.c_str()); }), "line 3");
        EXPECT_EQ(raised([&] { p.store(nullptr); }), "22");
        p.reload((folder / "other").c_str());
        p.store((folder / "other").c_str());
        p.allowStoreAfterFailedLoad();
        p.reload((folder / "other").c_str());
        EXPECT_EQ(raised([&] { p.reload(path.c_str()); }), "line 3");
        EXPECT_EQ(raised([&] { p.store(nullptr); }), "22");
    }
    Config plain;
    EXPECT_EQ(raised([&] { plain.load(path.c_str()); }), "line 3");
    plain.store(nullptr);
    EXPECT_EQ(TempFolder::read(path), "[s]\nk = 1\n");
}

TEST(StoreModes, SafeRefusesASecondHardLink) {
    const TempFolder folder;
    const string path = folder.write("f", "[s]\nk = 1\n");
    ASSERT_EQ(link(path.c_str(), (folder / "g").c_str()), 0);
    Config p(path, 0, ZPROP_STORE_SAFE);
    p.setValue("s", "k", "2");
    EXPECT_EQ(raised([&] { p.store(nullptr); }), "link() 31");
    EXPECT_EQ(p.isModified(), 1);
    p.setStoreMode(ZPROP_STORE_CHECKED);
    p.store(nullptr);
    EXPECT_EQ(TempFolder::read(folder / "g"), "[s]\nk = 2\n");
}

// ---------------------------------------------------------------- waiting

// A process that holds a lock on a file from its construction until release().
class LockHolder {
public:
    LockHolder(const string& path, short type) {
        int held[2], go[2];
        EXPECT_EQ(pipe(held) + pipe(go), 0);
        child_ = fork();
        if (child_ == 0) {
            const int file = open(path.c_str(), O_RDWR);
            zlockWholeFile(file, type, zlockOfProcess, 0);
            char byte = 0;
            close(go[1]);
            if (write(held[1], &byte, 1) == 1 && read(go[0], &byte, 1) == 1)
                usleep(30000);
            _exit(0);
        }
        char byte;
        EXPECT_EQ(read(held[0], &byte, 1), 1);
        close(held[0]), close(held[1]), close(go[0]);
        go_ = go[1];
    }
    ~LockHolder() {
        close(go_);
        waitpid(child_, nullptr, 0);
    }
    /// In a moment.
    void release() { EXPECT_EQ(write(go_, "", 1), 1); }

private:
    pid_t child_;
    int go_;
};

TEST(Waiting, EndsWithTheLockOrTheTime) {
    const TempFolder folder;
    const string path = folder.write("f", "[s]\nk = 1\n");
    for (int mode = ZPROP_STORE_PLAIN; mode <= ZPROP_STORE_SAFE; ++mode) {
        SCOPED_TRACE(mode);
        Config p(path, 0, mode);
        ZStanzaFileProperties::ZStanzaFilePropertiesFactory factory;
        struct Patient : ZAbstractPropertiesFactory {
            ZProperties* makePropertiesInstance() override {
                auto* made = new ZStanzaFileProperties(1);
                made->setLockWait(600000);
                return made;
            }
        } patient;
        {
            LockHolder holder(path, F_WRLCK);
            EXPECT_EQ(raised([&] { p.reload(nullptr); }), "fcntl() 11");
            p.setLockWait(20);
            EXPECT_EQ(raised([&] { p.reload(nullptr); }), "fcntl() 11");
            p.allowStoreAfterFailedLoad();
            EXPECT_EQ(raised([&] { p.store(nullptr); }), "fcntl() 11");
            // All first loads wait for one that waits, so that none does.
            EXPECT_EQ(raised([&] { ZProperties::getPropertiesFor(path.c_str(), patient, 0); }),
                      "fcntl() 11");
            p.setLockWait(static_cast<unsigned long>(-1));
            holder.release();
            p.reload(nullptr);
        }
        LockHolder holder(path, F_RDLCK);
        p.reload(nullptr);
        p.setValue("s", "k", "2");
        holder.release();
        p.store(nullptr);
        EXPECT_EQ(Config(path).value("s", "k"), "2");
    }
}

// ---------------------------------------------------------------- the exact change test

TEST(ChangeTest, ExactSeesWhatSecondsMiss) {
    const TempFolder folder;
    for (int exact = 0; exact < 2; ++exact) {
        SCOPED_TRACE(exact);
        const string path = folder.write("f" + std::to_string(exact), "[s]\nk = 1\n");
        const struct timespec kThen[2] = {{1000000000, 5}, {1000000000, 5}};
        utimensat(AT_FDCWD, path.c_str(), kThen, 0);
        ZStanzaFileProperties::ZStanzaFilePropertiesFactory factory;
        auto* p = static_cast<ZStanzaFileProperties*>(
            ZProperties::getPropertiesFor(path.c_str(), factory, 0));
        p->setChangeTest(exact);
        const auto value = [&] {
            ZLCString out;
            ZProperties::getPropertiesFor(path.c_str(), factory, 0)->getValue("s", "k", out, 0, "");
            return string(out.getChars());
        };
        value();  // with a stamp from now on
        // The same length, second, and inode, and then the same time to the nanosecond.
        for (const char* digit : {"2", "3"}) {
            folder.write("f" + std::to_string(exact), string("[s]\nk = ") + digit + "\n");
            utimensat(AT_FDCWD, path.c_str(), kThen, 0);
            EXPECT_EQ(value(), exact ? digit : "1");
        }
        // A settled file isn't read again: what the object has been given stays.
        usleep(60000);
        value();
        const ZArrayList* list = p->get("s", "k");
        value();
        EXPECT_EQ(p->get("s", "k"), list);
        // Another file of the same time and length.
        folder.write("g", "[s]\nk = 4\n");
        utimensat(AT_FDCWD, (folder / "g").c_str(), kThen, 0);
        usleep(60000);
        rename((folder / "g").c_str(), path.c_str());
        EXPECT_EQ(value(), exact ? "4" : "1");
        unlink(path.c_str());
        EXPECT_EQ(value(), exact ? "4" : "1");
        delete p;
    }
}

TEST(ChangeTest, StoresWithinOneTickAreTold) {
    const TempFolder folder;
    const string path = folder.write("f", "[s]\nk = 00\n");
    // A file system may give each change a time of its own; it can't be asked for that.
    ZFileStamp young, old, later;
    zstampFile(path.c_str(), young);
    EXPECT_FALSE(zsameContent(young, young));
    usleep(60000);
    zstampFile(path.c_str(), old);
    zstampFile(path.c_str(), later);
    EXPECT_TRUE(zsameContent(old, later));
    EXPECT_FALSE(zsameContent(young, later));
    ZStanzaFileProperties::ZStanzaFilePropertiesFactory factory;
    ZProperties* reader = ZProperties::getPropertiesFor(path.c_str(), factory, 0);
    reader->setChangeTest(ZPROP_CHANGE_EXACT);
    Config writer(path);
    for (int i = 10; i < 60; ++i) {
        writer.setIntegerValue("s", "k", static_cast<unsigned int>(i));
        writer.store(nullptr);
        ZProperties::getPropertiesFor(path.c_str(), factory, 0);
        ASSERT_EQ(reader->getIntegerValue("s", "k", 1, 0), static_cast<unsigned int>(i));
    }
    delete reader;
}

// ---------------------------------------------------------------- journals

struct Journaled {
    TempFolder folder;
    string oldText = "# c\n[s]\nk = 1\nold = 1\n" + string(600, '#') + "\n[t]\nx = 1\n";
    string newText = "# c\n[s]\nk = 2\nmore = 1\n" + string(600, '#') + "\n[t]\nx = 1\ny = 3\n";
    string path = folder.write("f", oldText), name = path + ".zjournal", bytes;

    Journaled() {
        const int file = open(path.c_str(), O_RDWR);
        ZJournal journal(path.c_str(), file);
        journal.write(span(newText), span(oldText), zsideUntouched, {"", 0});
        close(file);
        bytes = TempFolder::read(name);
        putFile(newText.substr(0, 20) + oldText.substr(20));
    }
    static ZSpan span(const string& s) { return {s.data(), s.size()}; }

    string loaded() { return Config(path).value("s", "k"); }
    bool counts() {
        const int file = open(path.c_str(), O_RDONLY);
        const bool found = ZJournal(path.c_str(), file).find();
        close(file);
        return found;
    }
    // As a new file: to empty an old one can take the disk milliseconds.
    void putJournal(const string& content) {
        unlink(name.c_str());
        folder.write("f.zjournal", content);
    }
    void putFile(const string& content) { folder.write("f", content); }
    // Lets the store of the journal come so far.
    void mark(ZJournal::Progress progress) {
        const int file = open(path.c_str(), O_RDONLY);
        ZJournal journal(path.c_str(), file);
        ASSERT_TRUE(journal.find());
        ASSERT_FALSE(journal.openForMarks());
        ASSERT_FALSE(journal.mark(progress));
        close(file);
    }
};

TEST(Journal, ATornOneMeansTheOldContent) {
    Journaled j;
    EXPECT_EQ(j.loaded(), "2");
    for (size_t size = 0; size < j.bytes.size(); ++size) {
        j.putJournal(j.bytes.substr(0, size));
        ASSERT_FALSE(j.counts()) << size;
    }
    for (size_t at = 0; at < j.bytes.size(); ++at) {
        string torn = j.bytes;
        torn[at] ^= static_cast<char>(1 << at % 8);
        j.putJournal(torn);
        ASSERT_FALSE(j.counts()) << at;
    }
    j.putFile(j.oldText);
    EXPECT_EQ(j.loaded(), "1");
    j.putJournal(j.bytes + "x");
    EXPECT_EQ(j.loaded(), "1");
    // A store makes it go, whatever the mode.
    for (int mode = ZPROP_STORE_PLAIN; mode <= ZPROP_STORE_SAFE; ++mode) {
        j.putJournal(j.bytes.substr(0, 100));
        Config p(j.path, 0, mode);
        p.store(nullptr);
        EXPECT_EQ(TempFolder::read(j.name), "<none>");
    }
}

TEST(Journal, AWholeOneCountsWhileTheFileIsWhatItsStoreLeft) {
    Journaled j;
    for (size_t put = 0; put <= j.newText.size(); ++put) {
        const string file =
            j.newText.substr(0, put) + (put < j.oldText.size() ? j.oldText.substr(put) : "");
        j.putFile(file);
        ASSERT_EQ(j.counts(), file != j.oldText) << put;
    }
    // Sectors in any order, and a length that came ahead of its bytes.
    j.putFile(j.oldText.substr(0, 512) + j.newText.substr(512));
    EXPECT_EQ(j.loaded(), "2");
    j.putFile(j.oldText + string(j.newText.size() - j.oldText.size(), '\0'));
    EXPECT_EQ(j.loaded(), "2");

    string changed = j.oldText;
    changed.replace(changed.find("k = 1"), 5, "k = 7");
    for (const string& foreign : {changed, string("[s]\nk = 7\n"), j.newText + "[u]\n", string()}) {
        j.putFile(foreign);
        EXPECT_EQ(j.loaded(), foreign.empty() ? "<none>" : foreign == j.newText + "[u]\n" ? "2" : "7");
        EXPECT_EQ(Config(j.path).exists("u"), foreign == j.newText + "[u]\n");
    }
    // Loads leave it alone; each kind of store puts its own content in place and ends it.
    for (int mode = ZPROP_STORE_PLAIN; mode <= ZPROP_STORE_SAFE; ++mode)
        for (const string& file : {j.newText.substr(0, 20) + j.oldText.substr(20), changed}) {
            j.putFile(file);
            j.putJournal(j.bytes);
            Config p(j.path, kKeep, mode);
            EXPECT_EQ(TempFolder::read(j.name), j.bytes);
            p.store(nullptr);
            EXPECT_EQ(TempFolder::read(j.path), file == changed ? changed : j.newText);
            EXPECT_EQ(TempFolder::read(j.name), "<none>");
        }
}

// A text that gets shorter: the page behind its new end is cleared, which may come to the disk first.
TEST(Journal, KnowsWhatATruncationLeaves) {
    Journaled j;
    std::swap(j.oldText, j.newText);
    j.putFile(j.oldText);
    const int file = open(j.path.c_str(), O_RDWR);
    ZJournal(j.path.c_str(), file)
        .write(Journaled::span(j.newText), Journaled::span(j.oldText), zsideUntouched, {"", 0});
    close(file);
    const size_t more = j.oldText.size() - j.newText.size();
    for (size_t zeros = 0; zeros <= more; ++zeros) {
        j.putFile(j.newText + string(zeros, '\0') + j.oldText.substr(j.newText.size() + zeros));
        ASSERT_TRUE(j.counts()) << zeros;
    }
    j.putFile(j.newText + string(more + 1, '\0'));
    EXPECT_FALSE(j.counts());
}

// Who takes a stopped store back, by any kind of editor, has the last word.
TEST(Journal, YieldsToWhoeverWritesTheFile) {
    const auto partly = [](const Journaled& j) {
        string text = j.newText;
        return text.replace(text.find("k = 2"), 5, "k = 1");
    };
    {
        Journaled j;  // the old text, in place and as another file
        j.putFile(j.oldText);
        EXPECT_EQ(j.loaded(), "1");
        j.putFile(partly(j));
        EXPECT_TRUE(j.counts());  // may as well be a crash
        j.folder.write("new", partly(j));
        rename((j.folder / "new").c_str(), j.path.c_str());
        EXPECT_EQ(j.loaded(), "1");
    }
    Journaled j;
    j.putFile(j.newText);
    j.mark(ZJournal::placed);
    EXPECT_TRUE(j.counts());
    const timespec later[] = {{2000000000, 0}, {2000000000, 0}};
    utimensat(AT_FDCWD, j.path.c_str(), later, 0);
    EXPECT_TRUE(j.counts());
    const timespec earlier[] = {{1, 0}, {1, 0}};
    j.putFile(partly(j));
    utimensat(AT_FDCWD, j.path.c_str(), earlier, 0);
    EXPECT_TRUE(j.counts());
    utimensat(AT_FDCWD, j.path.c_str(), later, 0);
    EXPECT_EQ(j.loaded(), "1");
    j.putFile(j.newText);
    j.mark(ZJournal::onDisk);
    j.putFile(partly(j));
    utimensat(AT_FDCWD, j.path.c_str(), earlier, 0);
    EXPECT_EQ(j.loaded(), "1");
}

TEST(Journal, AnUpdateBeginsWithIt) {
    Journaled j;
    Config p(j.path, 0, ZPROP_STORE_SAFE);
    j.putJournal(j.bytes);
    ZPropertiesUpdate update(p, 0);
    EXPECT_EQ(p.value("s", "k"), "2");
}

TEST(Journal, AStrangersDoesntCountAndIsntOpened) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to make another user's file";
    Journaled j;
    EXPECT_EQ(j.loaded(), "2");
    ASSERT_EQ(chown(j.name.c_str(), 12, 34), 0);
    EXPECT_FALSE(j.counts());
    ASSERT_EQ(chown(j.path.c_str(), 12, 34), 0);
    EXPECT_TRUE(j.counts());
    // Nor does what leads who knows where, or nowhere.
    rename(j.name.c_str(), (j.folder / "real").c_str());
    const string victim = j.folder.write("victim", "precious");
    struct Fake {
        const char* what;
        std::function<int()> make;
    } const fakes[] = {
        {"a link to a journal", [&] { return symlink("real", j.name.c_str()); }},
        {"a link to somebody's file", [&] { return symlink("victim", j.name.c_str()); }},
        {"another name of it", [&] { return link(victim.c_str(), j.name.c_str()); }},
        {"a pipe", [&] { return mkfifo(j.name.c_str(), 0600); }},
        {"a folder", [&] { return mkdir(j.name.c_str(), 0700); }},
    };
    for (const Fake& fake : fakes) {
        SCOPED_TRACE(fake.what);
        j.putFile(j.oldText);
        ASSERT_EQ(fake.make(), 0);
        for (int mode = ZPROP_STORE_PLAIN; mode <= ZPROP_STORE_SAFE; ++mode) {
            Config p(j.path, 0, mode);
            EXPECT_EQ(p.value("s", "k"), "1");
            p.setValue("s", "new", std::to_string(mode).c_str());
            if (mode == ZPROP_STORE_SAFE && string(fake.what) == "a folder") {
                EXPECT_NE(raised([&] { p.store(nullptr); }).find("user 0"), string::npos);
                rmdir(j.name.c_str());
            } else {
                EXPECT_NO_THROW(p.store(nullptr));
            }
        }
        EXPECT_EQ(TempFolder::read(victim), "precious");
        EXPECT_NE(access(j.name.c_str(), F_OK), 0);
    }
}

TEST(Journal, CarriesTheSideDatabase) {
    for (const bool removed : {false, true}) {
        SCOPED_TRACE(removed);
        const TempFolder folder;
        const string path = folder / "f", other = folder / "g";
        Config p(0, ZPROP_STORE_SAFE);
        p.setValue("s", "h", "one", 1);
        p.store(path.c_str());
        const string oldText = TempFolder::read(path), side = path + ".obf";
        const string oldSide = TempFolder::read(side);
        removed ? p.deleteKey("s", "h") : p.setValue("s", "h", "two", 1);
        p.store(path.c_str());
        const string newText = TempFolder::read(path), newSide = TempFolder::read(side);

        folder.write("f", oldText), folder.write("f.obf", oldSide);
        const int file = open(path.c_str(), O_RDWR);
        ZJournal(path.c_str(), file)
            .write(Journaled::span(newText), Journaled::span(oldText),
                   removed ? zsideRemoved : zsideReplaced,
                   removed ? ZSpan{"", 0} : Journaled::span(newSide));
        close(file);
        folder.write("f", newText);
        // A load sees the new values while the old side database still lies there; so it does without.
        EXPECT_EQ(Config(path).value("s", "h"), removed ? "<none>" : "two");
        EXPECT_EQ(TempFolder::read(side), oldSide);
        Config next(path, 0, ZPROP_STORE_CHECKED);
        next.setValue("s", "k", "1");
        next.store(nullptr);
        EXPECT_EQ(TempFolder::read(side), newSide);
        EXPECT_EQ(TempFolder::read(path + ".zjournal"), "<none>");
        EXPECT_EQ(Config(path).value("s", "h"), removed ? "<none>" : "two");
    }
}

}  // namespace
