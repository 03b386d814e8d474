// What is refused, what is kept byte for byte, and what stores leave on the disk: strict, keep
// lines, store modes, waiting, the exact change test, journals.
#include "support/Prelude.h"

#include <optional>
#include <tuple>

#include "Z/ZPropertiesUpdate.h"
#include "Z/zjournal.h"
#include "support/Asleep.h"
#include "support/Config.h"
#include "support/FileState.h"
#include "support/Raised.h"
#include "support/TempFolder.h"

using std::string;

// The clock by which a file's last change has been long ago, or just now.
static int64_t ahead = 0;
#if __SIZEOF_POINTER__ == 4
#define CLOCK(prefix) prefix##__clock_gettime64
#else
#define CLOCK(prefix) prefix##clock_gettime
#endif
extern "C" int CLOCK(__real_)(clockid_t, int64_t*);
extern "C" int CLOCK(__wrap_)(clockid_t clock, int64_t* time) {
    const int result = CLOCK(__real_)(clock, time);
    *time += clock == CLOCK_REALTIME ? ahead : 0;
    return result;
}

namespace {

// Before anything asks for the locale: the euro sign isn't in this one.
const int kLocale = setenv("LC_ALL", "C", 1);

const unsigned long kKeep = ZPCACHE_KEEP_LINES;

typedef ZStanzaValueIterator Walk;

// ---------------------------------------------------------------- strict

const string kLong(8200, 'x');

TEST(Strict, GuardsEveryWayIn) {
    Config p(kPlain, ZPCACHE_STRICT);
    p.setValue("s", "k", "v");
    Walk walk(p, "s", "k", ZPROP_STRING_LOCAL, Walk::ZPROP_ITER_AUTO);
    walk.nextValue();
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
        {"value's stanza", [&] { p.setValue("a]b", "k", "v"); }},
        {"value", [&] { p.setValue("s", "k", "a\tb\t"); }},
        {"value by iterator", [&] { walk.changeValue("a\nb"); }},
        {"added by iterator", [&] { walk.addValue(" a"); }},
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
    EXPECT_EQ(raised([&] { p.setValue("s", "empty", ""); }), "");
}

TEST(Strict, TheReaderReportsWhatItWouldTakeApart) {
    const struct {
        const char* what;
        string text;
        const char *strict, *loose;
    } kCases[] = {
        {"8191 bytes with the newline", "[s]\nk=" + kLong.substr(0, 8188) + "\n", "", ""},
        {"8191 bytes at the end", "[s]\nk=" + kLong.substr(0, 8189), "", ""},
        {"8192 bytes", "[s]\n#" + kLong.substr(0, 8190) + "\n", "line 2", ""},
        {"NUL", string("[s]\nk = a\0b\n", 12), "line 2", ""},
        {"byte-order mark", "\xEF\xBB\xBF# c\n[s]\n", "line 1", "line 1"},
        {"a mark further on", "[s]\nk = \xEF\xBB\xBF\n", "", ""},
    };
    const TempFolder folder;
    for (const auto& c : kCases) {
        const string path = folder.write("f", c.text);
        EXPECT_EQ(raised([&] { Config p(path, kPlain, ZPCACHE_STRICT); }), c.strict) << c.what;
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
        {"behind a last line without newline", "[s]\nk=1", "[s]\nk=1\nn = 2\n",
         [](Config& p) { p.setValue("s", "n", "2"); }},
        {"long lines",
         kLongComment + "[s]\nk = a\n" + kLongComment + "k2=" + string(8188, 'v') +
             "# rest\n m=1\n",
         "", [](Config&) {}},
        {"one of several values", "[s]\nk=1\nm=2\n # c\nk=3\n", "[s]\nk = 9\nk=3\nm=2\n # c\n",
         [](Config& p) {
             Walk i(p, "s", "k", ZPROP_STRING_LOCAL, Walk::ZPROP_ITER_AUTO);
             i.nextValue();
             i.changeValue("9");
         }},
        {"added stanza", "[s]\nk=1\n  \n", "[s]\nk=1\n  \n\n[t]\nx = 1\n",
         [](Config& p) { p.setValue("t", "x", "1"); }},
        {"no return that makes a line too long", "[s]\r\nk=1\r\n",
         "[s]\r\nk = " + kLong.substr(0, 8186) + "\n",
         [](Config& p) { p.setValue("s", "k", kLong.substr(0, 8186).c_str()); }},
    };
    const TempFolder folder;
    for (int mode : kModes)
        for (const auto& c : kCases) {
            SCOPED_TRACE(c.what);
            const string path = folder.write("f", c.text);
            Config p(path, mode, kKeep);
            c.edit(p);
            p.store(nullptr);
            EXPECT_EQ(TempFolder::read(path), c.stored.empty() ? c.text : c.stored);
        }
}

TEST(KeepLines, OfAFileThatSomebodyElseHasChanged) {
    const TempFolder folder;
    const string path = folder.write("f", "[s]\n  # a\n  # b\nk=1\nm=1\n");
    Config p(path, kPlain, kKeep);
    folder.write("f", "[s]\n  # x\n\t# b\n k=1\n m=2\n");
    p.store(nullptr);
    EXPECT_EQ(TempFolder::read(path), "[s]\n# a\n\t# b\n k=1\nm = 1\n");
}

// ---------------------------------------------------------------- store modes

typedef std::set<string> Names;

struct stat statusOf(const string& path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status;
}

TEST(StoreModes, EachLeavesTheSameFilesWithTheirIdentity) {
    for (int mode : kModes) {
        SCOPED_TRACE(mode);
        const TempFolder folder;
        const string path = folder.write("a.conf", "# c\n[s]\nk = a long old value\n");
        const string link = folder / "link", other = folder / "new";
        ASSERT_EQ(symlink("a.conf", link.c_str()), 0);
        chmod(path.c_str(), 0640);
        if (geteuid() == 0) {
            EXPECT_EQ(chown(path.c_str(), 12, 34), 0);
        }
        const struct stat before = statusOf(path);
        Config p(link, mode);
        EXPECT_EQ(p.storeMode(), mode);
        p.setValue("s", "k", "v");
        p.setValue("s", "hidden", "one", 1);
        p.store(nullptr);
        EXPECT_EQ(p.isModified(), 0);
        const string sidePath = Config(path).value("configuration-database", "file");
        EXPECT_EQ(sidePath, link + ".obf");
        const ino_t sideBefore = statusOf(sidePath).st_ino;
        p.setValue("s", "hidden", "two", 1);
        p.store(nullptr);

        const struct stat after = statusOf(path), side = statusOf(sidePath);
        for (const struct stat& now : {after, side}) {
            EXPECT_EQ(now.st_uid, before.st_uid);
            EXPECT_EQ(now.st_gid, before.st_gid);
            EXPECT_EQ(now.st_mode, before.st_mode);
        }
        EXPECT_EQ(after.st_ino, before.st_ino);
        EXPECT_EQ(side.st_ino != sideBefore, mode == kSafe);
        EXPECT_TRUE(std::filesystem::is_symlink(link));
        EXPECT_EQ(folder.names(), (Names{"a.conf", "link", "link.obf"}));
        Config again(path);
        EXPECT_EQ(again.value("s", "hidden"), "two");
        EXPECT_EQ(again.isObfuscated("s", "hidden"), 1);
        EXPECT_EQ(TempFolder::read(sidePath).find("two"), string::npos);

        // The last hidden value takes the side database along. A store elsewhere makes a file, and
        // doesn't move the object.
        p.deleteKey("s", "hidden");
        p.store(nullptr);
        p.store(other.c_str());
        p.setValue("s", "k", "w");
        p.store(nullptr);
        EXPECT_EQ(TempFolder::read(path), "# c\n[s]\nk = w\n\n[configuration-database]\n");
        EXPECT_EQ(TempFolder::read(other), "# c\n[s]\nk = v\n\n[configuration-database]\n");
        EXPECT_EQ(folder.names(), (Names{"a.conf", "link", "new"}));
    }
    Config p;
    EXPECT_EQ(raised([&] { p.setStoreMode(3); }), "22");
    EXPECT_EQ(raised([&] { p.setStoreMode(-1); }), "22");
    EXPECT_EQ(raised([&] { p.setChangeTest(2); }), "22");
}

TEST(StoreModes, AFailedLoadKeepsStoresFromTheFile) {
    const TempFolder folder;
    const string text = "[s]\nk = 1\nbad\nm = 2\n", path = folder.write("f", text);
    const string other = folder / "other";
    const auto storing = [](Config& p, const char* to = nullptr) {
        return raised([&] { p.store(to); });
    };
    const auto loading = [&](Config& p) { return raised([&] { p.reload(path.c_str()); }); };
    for (int mode : kCarefulModes) {
        Config p(mode);
        EXPECT_EQ(loading(p), "line 3");
        EXPECT_EQ(storing(p), "22");
        EXPECT_EQ(storing(p, other.c_str()), "22");
        EXPECT_EQ(TempFolder::read(path), text);
        p.allowStoreAfterFailedLoad();
        EXPECT_EQ(storing(p, other.c_str()), "");
        EXPECT_EQ(TempFolder::read(other), "[s]\nk = 1\n");
        // Allowed once, and a load that succeeds ends it.
        EXPECT_EQ(loading(p), "line 3");
        EXPECT_EQ(storing(p), "22");
        p.reload(other.c_str());
        EXPECT_EQ(storing(p, other.c_str()), "");
        p.allowStoreAfterFailedLoad();
        p.reload(other.c_str());
        EXPECT_EQ(loading(p), "line 3");
        EXPECT_EQ(storing(p), "22");
    }
    Config plain;
    EXPECT_EQ(loading(plain), "line 3");
    plain.store(nullptr);
    EXPECT_EQ(TempFolder::read(path), "[s]\nk = 1\n");
}

TEST(StoreModes, SafeRefusesASecondHardLink) {
    const TempFolder folder;
    const string path = folder.write("f", "[s]\nk = 1\n");
    ASSERT_EQ(link(path.c_str(), (folder / "g").c_str()), 0);
    Config p(path, kSafe);
    p.setValue("s", "k", "2");
    EXPECT_EQ(raised([&] { p.store(nullptr); }), "link() 31");
    EXPECT_EQ(p.isModified(), 1);
    p.setStoreMode(kChecked);
    p.store(nullptr);
    EXPECT_EQ(TempFolder::read(folder / "g"), "[s]\nk = 2\n");
}

// ---------------------------------------------------------------- waiting

TEST(Waiting, EndsWithTheLockOrTheTime) {
    const TempFolder folder;
    const string path = folder.write("f", "[s]\nk = 1\n");
    const char kLocked[] = "fcntl() 11";
    struct Patient : ZAbstractPropertiesFactory {
        ZProperties* makePropertiesInstance() override {
            auto* made = new Config;
            made->setLockWait(600000);
            return made;
        }
    } patient;
    for (int mode : kModes) {
        SCOPED_TRACE(mode);
        Config p(path, mode);
        std::optional<Locked> lock(std::in_place, path, F_WRLCK);
        // Gives the lock up once `call` waits.
        const auto waitsIn = [&](const std::function<void()>& call) {
            std::thread other([&lock, waiting = gettid()] {
                untilAsleep(getpid(), waiting);
                lock.reset();
            });
            EXPECT_EQ(raised(call), "");
            other.join();
        };
        const auto reload = [&] { p.reload(nullptr); };
        EXPECT_EQ(raised(reload), kLocked);
        p.setLockWait(20);
        EXPECT_EQ(raised(reload), kLocked);
        p.allowStoreAfterFailedLoad();
        EXPECT_EQ(raised([&] { p.store(nullptr); }), kLocked);
        // All first loads wait for one that waits, so that none does.
        EXPECT_EQ(raised([&] { ZProperties::getPropertiesFor(path.c_str(), patient, 0); }),
                  kLocked);
        p.setLockWait(static_cast<unsigned long>(-1));
        waitsIn(reload);
        lock.emplace(path, F_RDLCK);
        p.reload(nullptr);
        p.setValue("s", "k", "2");
        waitsIn([&] { p.store(nullptr); });
        EXPECT_EQ(Config(path).value("s", "k"), "2");
    }
}

// ---------------------------------------------------------------- the exact change test

TEST(ChangeTest, ExactSeesWhatSecondsMiss) {
    const TempFolder folder;
    for (const bool exact : {false, true}) {
        SCOPED_TRACE(exact);
        // The same length and time, to the nanosecond.
        const auto write = [&](const char* name, const string& k) {
            const struct timespec kThen[2] = {{1000000000, 5}, {1000000000, 5}};
            const string path = folder.write(name, "[s]\nk = " + k + "\n");
            utimensat(AT_FDCWD, path.c_str(), kThen, 0);
            return path;
        };
        const string path = write("f", "1");
        ZStanzaFileProperties::ZStanzaFilePropertiesFactory factory;
        ZProperties* p = ZProperties::getPropertiesFor(path.c_str(), factory, 0);
        p->setChangeTest(exact);
        const auto value = [&] {
            return valueIn(*ZProperties::getPropertiesFor(path.c_str(), factory, 0), "s", "k");
        };
        value();  // with a stamp from now on
        for (const char* digit : {"2", "3"}) {
            write("f", digit);
            EXPECT_EQ(value(), exact ? digit : "1");
        }
        // A young file may have changed again within a tick of the clock, and is read; a settled
        // one isn't, and what the object has been given stays.
        for (ahead = 0; ahead < 2; ++ahead) {
            value();
            p->setValue("s", "k", "given");
            p->resetModified();
            EXPECT_EQ(value(), exact && ahead == 0 ? "3" : "given");
        }
        // Another file.
        rename(write("g", "4").c_str(), path.c_str());
        EXPECT_EQ(value(), exact ? "4" : "given");
        unlink(path.c_str());
        EXPECT_EQ(value(), exact ? "4" : "given");
        delete p;
        ahead = 0;
    }
}

// ---------------------------------------------------------------- journals

// A safe store of newText over oldText that was stopped behind its journal.
struct Journaled {
    TempFolder folder;
    const string longer =
        "# c\n[s]\nk = 2\nmore = 1\n" + string(600, '#') + "\n[t]\nx = 1\ny = 3\n";
    const string shorter = "# c\n[s]\nk = 1\nold = 1\n" + string(600, '#') + "\n[t]\nx = 1\n";
    string oldText, newText, path, name, bytes;

    explicit Journaled(bool grows = true)
        : oldText(grows ? shorter : longer),
          newText(grows ? longer : shorter),
          path(folder.write("f", oldText)),
          name(path + ".zjournal") {
        const int file = open(path.c_str(), O_RDWR);
        ZJournal(path.c_str(), file)
            .write({newText.data(), newText.size()}, {oldText.data(), oldText.size()},
                   zsideUntouched, {"", 0});
        close(file);
        bytes = TempFolder::read(name);
        putFile(partly());
    }

    // The new text with the old value of k.
    string partly() const {
        return newText.substr(0, 12) + oldText.substr(12, 1) + newText.substr(13);
    }
    string loaded() const { return Config(path).value("s", "k"); }
    bool counts() const {
        const int file = open(path.c_str(), O_RDONLY);
        const bool found = ZJournal(path.c_str(), file).find();
        close(file);
        return found;
    }
    // As a new file: to empty an old one can take the disk milliseconds.
    void putJournal(const string& content) const {
        unlink(name.c_str());
        folder.write("f.zjournal", content);
    }
    void putFile(const string& content) const { folder.write("f", content); }
    // Lets the store of the journal come so far.
    void mark(ZJournal::Progress progress) const {
        const int file = open(path.c_str(), O_RDONLY);
        ZJournal journal(path.c_str(), file);
        ASSERT_TRUE(journal.find());
        ASSERT_FALSE(journal.openForMarks());
        ASSERT_FALSE(journal.mark(progress));
        close(file);
    }
    void setTime(time_t when) const {
        const timespec times[] = {{when, 0}, {when, 0}};
        utimensat(AT_FDCWD, path.c_str(), times, 0);
    }
};

TEST(Journal, ATornOneMeansTheOldContent) {
    const Journaled j;
    EXPECT_EQ(j.loaded(), "2");
    for (size_t at = 0; at < j.bytes.size(); ++at) {
        j.putJournal(j.bytes.substr(0, at));
        ASSERT_FALSE(j.counts()) << at;
        string torn = j.bytes;
        torn[at] ^= static_cast<char>(1 << at % 8);
        j.putJournal(torn);
        ASSERT_FALSE(j.counts()) << at;
    }
    j.putFile(j.oldText.substr(0, j.oldText.size() - 1));
    j.putJournal(j.bytes + "x");
    EXPECT_EQ(j.loaded(), "1");
    // A store makes it go, whatever the mode.
    for (int mode : kModes) {
        j.putJournal(j.bytes.substr(0, 100));
        Config(j.path, mode).store(nullptr);
        EXPECT_EQ(TempFolder::read(j.name), "<none>");
    }
}

TEST(Journal, AWholeOneCountsWhileTheFileIsWhatItsStoreLeft) {
    const Journaled j;
    for (size_t put = 0; put <= j.newText.size(); ++put) {
        const string file =
            j.newText.substr(0, put) + (put < j.oldText.size() ? j.oldText.substr(put) : "");
        j.putFile(file);
        ASSERT_EQ(j.counts(), file != j.oldText) << put;
    }
    string changed = j.oldText;
    changed.replace(12, 1, "7");
    const struct {
        const char* what;
        string file, loaded;
    } cases[] = {
        {"sectors in any order", j.oldText.substr(0, 512) + j.newText.substr(512), "2"},
        {"a length ahead of its bytes",
         j.oldText + string(j.newText.size() - j.oldText.size(), '\0'), "2"},
        {"another value", changed, "7"},
        {"another text", "[s]\nk = 7\n", "7"},
        {"somebody's addition", j.newText + "# more\n", "2"},
        {"nothing", "", "<none>"},
    };
    for (const auto& c : cases) {
        j.putFile(c.file);
        EXPECT_EQ(j.loaded(), c.loaded) << c.what;
    }
    // Loads leave it alone; each kind of store puts its own content in place and ends it.
    for (int mode : kModes)
        for (const string& file : {j.partly(), changed, j.newText + "# more\n"}) {
            j.putFile(file);
            j.putJournal(j.bytes);
            Config p(j.path, mode, kKeep);
            EXPECT_EQ(TempFolder::read(j.name), j.bytes);
            p.store(nullptr);
            EXPECT_EQ(TempFolder::read(j.path), file == j.partly() ? j.newText : file);
            EXPECT_EQ(TempFolder::read(j.name), "<none>");
        }
}

// A text that gets shorter: the page behind its new end is cleared, which may come to the disk
// first.
TEST(Journal, KnowsWhatATruncationLeaves) {
    const Journaled j(false);
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
    const Journaled renamed, j;
    EXPECT_TRUE(renamed.counts());  // may as well be a crash
    renamed.folder.replace("f", renamed.partly());
    EXPECT_EQ(renamed.loaded(), "1");
    j.putFile(j.newText);
    j.mark(ZJournal::placed);
    const time_t kEarlier = 1, kLater = 2000000000;
    const struct {
        string file;
        time_t when;
        const char* loaded;
    } cases[] = {{j.newText, kEarlier, "2"},
                 {j.newText, kLater, "2"},
                 {j.partly(), kEarlier, "2"},
                 {j.partly(), kLater, "1"}};
    for (const auto& c : cases) {
        j.putFile(c.file);
        j.setTime(c.when);
        EXPECT_EQ(j.loaded(), c.loaded);
    }
    j.putFile(j.newText);
    j.mark(ZJournal::onDisk);
    j.putFile(j.partly());
    j.setTime(kEarlier);
    EXPECT_EQ(j.loaded(), "1");
}

TEST(Journal, AStrangersDoesntCountAndIsntOpened) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to make another user's file";
    const Journaled j;
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
        for (int mode : kModes) {
            Config p(j.path, mode);
            EXPECT_EQ(p.value("s", "k"), "1");
            p.setValue("s", "new", std::to_string(mode).c_str());
            const string failure = raised([&] { p.store(nullptr); });
            const bool isRefused = mode == kSafe && string(fake.what) == "a folder";
            EXPECT_EQ(failure.find("user 0") != string::npos, isRefused) << failure;
        }
        rmdir(j.name.c_str());
        EXPECT_EQ(TempFolder::read(victim), "precious");
        EXPECT_NE(access(j.name.c_str(), F_OK), 0);
    }
}

}  // namespace
