// Read-modify-store, notices between processes, their C interface, and what happens where several
// objects, processes and editors meet on one file.
#include "support/Prelude.h"

#include <poll.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <iterator>
#include <set>
#include <sstream>

#include "Z/ZPropertiesUpdate.h"
#include "Z/ZPropertiesWatcher.h"
#include "Z/zproperties.h"
#include "support/Config.h"
#include "support/FileState.h"
#include "support/Raised.h"
#include "support/SelfChild.h"
#include "support/TempFolder.h"
#include "support/Threads.h"

using std::string;

namespace {

const char kStart[] = "[s]\nk = 1\n";
const char kLocked[] = "fcntl() 11";

void increment(ZProperties& p, unsigned long wait = 0) {
    ZPropertiesUpdate update(p, wait);
    p.setIntegerValue("s", "k", p.getIntegerValue("s", "k", 0, 0) + 1);
    update.commit();
}

// ---------------------------------------------------------------- updates

TEST(Update, RefusesWhatItCantBeginWith) {
    const TempFolder folder;
    const string path = folder.write("f", kStart);
    const auto begin = [](ZProperties& p) { return raised([&] { ZPropertiesUpdate u(p, 20); }); };
    Config unnamed, p(path);
    EXPECT_EQ(begin(unnamed), "22");
    p.setValue("s", "k", "2");
    EXPECT_EQ(begin(p), "22");
    EXPECT_EQ(p.value("s", "k"), "2");
    p.reload(nullptr);
    {
        const Locked other(path, F_RDLCK);
        EXPECT_EQ(begin(p), kLocked);
    }
    {
        ZPropertiesUpdate u(p, 0);
        EXPECT_EQ(begin(p), "22");
        EXPECT_EQ(u.isOpen(), 1);
        u.commit();
        EXPECT_EQ(u.isOpen(), 0);
        EXPECT_EQ(raised([&] { u.commit(); }), "22");
        u.rollback();
    }
    folder.write("f", "[s]\nbad\n");
    EXPECT_EQ(begin(p), "line 2");
    unlink(path.c_str());
    EXPECT_EQ(begin(p), "fopen(r+) 2");
    folder.write("f", "[s]\nk = 3\n");
    EXPECT_EQ(begin(p), "");
    EXPECT_EQ(p.value("s", "k"), "3");
}

TEST(Update, RollbackTakesTheObjectBack) {
    for (int mode : kModes)
        for (const bool stores : {false, true}) {
            const TempFolder folder;
            const string path = folder.write("f", "# c\n\n[s]\nk = 1\nk = 2\n# d\nm = 1\n");
            Config p(path, mode);
            p.setValue("s", "h", "hush", 1);
            p.store(nullptr);
            const string before = TempFolder::read(path);
            string stored = before;
            {
                ZPropertiesUpdate update(p, 0);
                if (stores) {
                    p.setValue("s", "m", "2");
                    p.store(nullptr);  // a commit that leaves the update open
                    stored = TempFolder::read(path);
                    EXPECT_NE(stored, before);
                }
                p.deleteKey("s", "k");
                p.deleteKey("s", "h");
                p.setValue("t", "x", "1");
                p.addFileComment("e");
                rename((path + ".obf").c_str(),
                       (folder / "away").c_str());  // it can't be read anew
            }
            rename((folder / "away").c_str(), (path + ".obf").c_str());
            EXPECT_EQ(p.isModified(), 0);
            EXPECT_EQ(p.numValues("s", "k"), 2);
            EXPECT_EQ(p.value("s", "m"), stores ? "2" : "1");
            EXPECT_EQ(p.value("s", "h"), "hush");
            EXPECT_EQ(p.isObfuscated("s", "h"), 1);
            EXPECT_EQ(p.exists("t"), 0);
            EXPECT_EQ(TempFolder::read(path), stored);
            EXPECT_EQ(Config(path).value("s", "h"), "hush");
            p.store(nullptr);  // comments, order and the side database's name are what they were
            EXPECT_EQ(TempFolder::read(path), stored);
        }
}

// Locks of open files are a child's too.
TEST(Update, AChildThatLivesOnKeepsNoLock) {
    for (int mode : kModes) {
        const TempFolder folder;
        Config p(folder.write("f", kStart), mode);
        pid_t child;
        {
            ZPropertiesUpdate update(p, 0);
            child = startChild(pause);
            update.commit();
        }
        EXPECT_NO_THROW(increment(p));
        kill(child, SIGKILL);
        EXPECT_EQ(endOf(child), -1);
    }
}

TEST(Update, AForkWhileAFileIsClosedKeepsNoLock) {
    const TempFolder folder;
    Config p(folder.write("f", kStart), kSafe);
    for (int round = 0; round < 30; ++round) {
        std::atomic<pid_t> child(0);
        std::thread forker([&child] { child = startChild(pause); });
        while (child == 0)
            p.reload(nullptr);
        forker.join();
        EXPECT_EQ(raised([&p] { increment(p); }), "");
        kill(child, SIGKILL);
        endOf(child);
    }
}

TEST(CarefulFiles, AreRegularAndWithinTheLimitForFileSizes) {
    const TempFolder folder;
    const string pipe = folder / "pipe", file = folder.write("f", kStart);
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    for (int mode : kCarefulModes) {
        EXPECT_EQ(raised([&] { Config(folder / "", mode); }), "fopen(r) 21");
        EXPECT_EQ(raised([&] { Config(pipe, mode); }), "fopen(r) 22");
        const auto beyondLimit = [&] {
            const rlimit limit = {1024, 1024};
            Config p(file, mode);
            p.setValue("s", "k", string(2000, 'x').c_str());
            const bool isSet = setrlimit(RLIMIT_FSIZE, &limit) == 0;
            const string failure = raised([&] { p.store(nullptr); });
            return isSet && failure.find(std::to_string(EFBIG)) != string::npos;
        };
        EXPECT_EQ(inChild(beyondLimit), 1);
        EXPECT_EQ(TempFolder::read(file), kStart);
    }
}

TEST(Update, LoadReloadAndStoreInsideUseItsLock) {
    for (int mode : kModes) {
        const TempFolder folder;
        const string path = folder.write("f", kStart), copy = folder / "copy";
        const string link = folder / "link";
        EXPECT_EQ(symlink("f", link.c_str()), 0);
        Config p(path, mode);
        ZPropertiesUpdate update(p, 0);
        p.setValue("s", "k", "2");
        p.store(copy.c_str());
        p.reload(nullptr);
        EXPECT_EQ(p.value("s", "k"), "1");
        p.setValue("s", "k", "3");
        p.store(link.c_str());
        p.reload(link.c_str());
        EXPECT_EQ(p.value("s", "k"), "3");
        EXPECT_EQ(raised([&] { p.load(nullptr); }), "line 1");  // twice the same stanza
        p.reload(nullptr);
        // Still nobody comes between: no other object of this process, no other process.
        EXPECT_EQ(raised([&] { Config(path, kSafe); }), kLocked);
        EXPECT_EQ(raised([&] { Config other(path); }), kLocked);
        close(open(path.c_str(), O_RDWR));  // as an unlucky other part of the program does
        EXPECT_EQ(inChild([&] { return raised([&] { Config other(path); }) == kLocked; }), 1);
        ZStanzaFileProperties::ZStanzaFilePropertiesFactory factory;
        const auto registered = [&](const string& name) {
            return raised([&] { delete ZProperties::getPropertiesFor(name.c_str(), factory, 0); });
        };
        EXPECT_EQ(registered(path), "22");
        EXPECT_EQ(registered(link), "22");
        EXPECT_EQ(registered(copy), "");
        // For others it is locked, that is all.
        std::thread([&] { EXPECT_EQ(registered(path), kLocked); }).join();
        update.commit();
        EXPECT_EQ(Config(copy).value("s", "k"), "2");
        EXPECT_EQ(Config(path).value("s", "k"), "3");
    }
}

TEST(Update, ThreadsAndProcessesLoseNothing) {
    const TempFolder folder;
    const string path = folder.write("f", "[s]\nk = 0\n");
    std::vector<std::unique_ptr<Config>> objects;
    std::vector<pid_t> children;
    std::vector<std::thread> threads;
    const auto work = [](Config* p) {
        for (int i = 0; i < 25; ++i)
            increment(*p, 60000);
        return 0;
    };
    for (int mode : kModes)
        objects.emplace_back(new Config(path, mode));
    for (const auto& p : objects)
        for (int i = 0; i < 2; ++i)
            children.push_back(startChild([&] { return work(p.get()); }));
    for (const auto& p : objects)  // two threads share each
        for (int i = 0; i < 2; ++i)
            threads.emplace_back(work, p.get());
    for (std::thread& thread : threads)
        thread.join();
    for (pid_t child : children)
        EXPECT_EQ(endOf(child), 0);
    EXPECT_EQ(Config(path).number("k"), 300u);
}

// ---------------------------------------------------------------- the C interface

TEST(CUpdate, EveryNumber) {
    const TempFolder folder;
    const string path = folder.write("f", kStart);
    const unsigned long kAll = ZPCACHE_KEEP_COMMENTS | ZPCACHE_STRICT | ZPCACHE_KEEP_LINES;
    ZPROP_handle *h = nullptr, *other = nullptr;
    ZPROP_error error;
    const auto open = [&](ZPROP_handle** out, unsigned long attributes = 0, int storeMode = kSafe) {
        return zstzPropOpenWith(out, path.c_str(), ZPROP_OPEN_UPDATE, attributes, storeMode, 10);
    };
    EXPECT_EQ(open(nullptr), ZPROP_ERR_PARAM);
    EXPECT_EQ(open(&h, 8), ZPROP_ERR_PARAM);
    EXPECT_EQ(open(&h, 0, 3), ZPROP_ERR_PARAM);
    EXPECT_EQ(open(&h, kAll), ZPROP_OK);
    ASSERT_EQ(open(&other), ZPROP_OK);
    EXPECT_EQ(zstzPropBegin(nullptr, 0), ZPROP_ERR_PARAM);
    for (auto end : {zstzPropCommit, zstzPropRollback}) {
        EXPECT_EQ(end(nullptr), ZPROP_ERR_PARAM);
        EXPECT_EQ(end(h), ZPROP_ERR_NO_UPDATE);
        EXPECT_EQ(zstzPropLastError(&error), 22);
    }

    EXPECT_EQ(zstzPropBegin(h, 0), ZPROP_OK);
    EXPECT_EQ(zstzPropBegin(h, 0), ZPROP_ERR_UNSAVED);
    EXPECT_STREQ((zstzPropLastError(&error), error.text),
                 "unsaved changes, or an update that is open");
    EXPECT_EQ(zstzPropSetStringValue(h, "s", "k", "2"), ZPROP_OK);
    std::thread([&] {
        EXPECT_EQ(zstzPropCommit(h), ZPROP_ERR_NO_UPDATE);
        zstzPropClose(h);  // ignored
    }).join();
    EXPECT_EQ(zstzPropCommit(h), ZPROP_OK);
    EXPECT_EQ(TempFolder::read(path), "[s]\nk = 2\n");

    EXPECT_EQ(zstzPropBegin(other, 0), ZPROP_OK);
    zstzPropSetStringValue(other, "s", "k", "5");
    ASSERT_EQ(mkdir((path + ".zjournal").c_str(), 0700), 0);
    EXPECT_EQ(zstzPropCommit(other), ZPROP_ERR_FILE);
    EXPECT_EQ(zstzPropLastError(&error), 43);
    rmdir((path + ".zjournal").c_str());
    zstzPropClose(other);  // rolls back
    EXPECT_EQ(zstzPropBegin(h, 0), ZPROP_OK);
    EXPECT_EQ(zstzPropRollback(h), ZPROP_OK);
    unlink(path.c_str());
    EXPECT_EQ(zstzPropBegin(h, 0), ZPROP_ERR_FILE);
    zstzPropClose(h);
}

// ---------------------------------------------------------------- watching

typedef std::vector<string> List;
const List kNothing, kChanged = {"~s.k"};

// The watched file with this number.
string content(int k) {
    return "[s]\nk = " + std::to_string(k) + "\nm = 1\nm = 2\n[gone]\nx = 1\n";
}

bool isReadable(const ZPropertiesWatcher& watcher, int milliseconds = 0) {
    struct pollfd ready = {watcher.descriptor(), POLLIN, 0};
    return poll(&ready, 1, milliseconds) == 1;
}

struct Watched {
    TempFolder folder;
    string path = folder.write("f", "# c\n" + content(1));
    Config p{path};
    Notices notices;
    ZPropertiesWatcher watcher{p};

    Watched() {
        p.addObserver(&notices);
        EXPECT_EQ(watcher.process(), 0);
    }
    /// What process() tells, whose number it must give; "poll" if there is nothing to read.
    List told() {
        notices.told.clear();
        if (!isReadable(watcher))
            return {"poll"};
        const int count = watcher.process();
        std::istringstream words(notices.told);
        const List told{std::istream_iterator<string>(words), {}};
        EXPECT_EQ(static_cast<size_t>(count), told.size());
        // Mounts are the whole system's, and nobody else's are of interest.
        for (int others = 0; others < 20 && isReadable(watcher); ++others)
            EXPECT_EQ(watcher.process(), 0);
        EXPECT_FALSE(isReadable(watcher));
        return told;
    }
    /// In another process, which stores in this mode.
    void store(const std::function<void(Config&)>& change, int mode = kPlain) {
        const auto other = [&] {
            Config now(path, mode);
            change(now);
            now.store(nullptr);
            return 0;
        };
        EXPECT_EQ(inChild(other), 0);
    }
};

TEST(Watcher, TellsEachDifferenceOnce) {
    for (int mode : kModes) {
        Watched w;
        w.p.setStoreMode(mode);
        const auto store = [&](const std::function<void(Config&)>& change) {
            w.store(change, mode);
        };
        store([](Config& c) {
            c.setValue("s", "k", "2");
            c.setValue("s", "m", "1");  // as many as before
            c.addValue("s", "m", "3", 0);
            c.setValue("s", "h", "hush", 1);
            c.setValue("new", "y", "1");
            c.addStanza("empty");
            c.deleteStanza("gone");
        });
        const List all = w.told();
        // A stanza goes behind its keys and comes ahead of them.
        const auto place = [&](const char* what) {
            return std::find(all.begin(), all.end(), what) - all.begin();
        };
        EXPECT_LT(place("-gone.x"), place("-gone"));
        EXPECT_LT(place("+new"), place("+new.y"));
        EXPECT_EQ(std::multiset<string>(all.begin(), all.end()),
                  (std::multiset<string>{"-gone.x", "-gone", "~s.k", "~s.m", "+s.h", "+new",
                                         "+new.y", "+empty", "+configuration-database",
                                         "+configuration-database.file"}));
        EXPECT_EQ(w.p.value("s", "h"), "hush");
        EXPECT_EQ(w.p.isModified(), 0);
        store([](Config& c) { c.setValue("s", "h", "shh", 1); });
        EXPECT_EQ(w.told(), List{"~s.h"});
        // Comments alone are no news, but aren't lost by the next store either.
        store([](Config& c) { c.addEntryComment("s", "k", "noted"); });
        EXPECT_EQ(w.told(), kNothing);
        w.p.setValue("s", "k", "3");
        w.p.store(nullptr);
        EXPECT_NE(TempFolder::read(w.path).find("#noted\nk = 3"), string::npos);
        EXPECT_EQ(w.told(), kNothing);
        increment(w.p);
        EXPECT_EQ(w.told(), kNothing);
        // The same value, hidden.
        store([](Config& c) {
            c.deleteKey("s", "k");
            c.setValue("s", "k", "4", 1);
        });
        EXPECT_EQ(w.told(), kChanged);
    }
}

TEST(Watcher, WaitsForWhatStandsInItsWay) {
    Watched w;
    // Unsaved changes win until they are gone.
    w.p.setValue("s", "m", "9");
    w.store([](Config& c) { c.setValue("s", "k", "2"); });
    EXPECT_EQ(w.told(), kNothing);
    EXPECT_EQ(w.p.value("s", "m"), "9");
    w.p.setValue("s", "m", "1");
    w.p.addValue("s", "m", "2", 0);
    w.p.resetModified();
    w.notices.told.clear();
    EXPECT_EQ(w.watcher.process(), 1);
    EXPECT_EQ(w.notices.told, "~s.k ");
    {
        ZPropertiesUpdate update(w.p, 0);
        w.folder.write("f", content(3));
        EXPECT_EQ(w.told(), kNothing);
    }
    EXPECT_EQ(w.watcher.process(), 1);
    // Bad data is reported once, and the object stays what it was.
    w.folder.write("f", "[s]\nk = 4\nbad\n");
    EXPECT_EQ(raised([&] { w.watcher.process(); }), "line 3");
    EXPECT_EQ(w.p.number("k"), 3u);
    EXPECT_EQ(w.p.numValues("s", "m"), 2);
    EXPECT_EQ(w.watcher.process(), 0);
    // A writer at work: its end tells.
    w.folder.write("f", content(5));
    {
        const Locked writer(w.path, F_WRLCK);
        EXPECT_EQ(w.told(), kNothing);
        EXPECT_EQ(w.p.number("k"), 3u);
    }
    EXPECT_EQ(w.told(), kChanged);
    Config unnamed;
    EXPECT_EQ(raised([&] { ZPropertiesWatcher none(unnamed); }), "22");
}

// A file is reached by folders and links, any of which may be another one in a moment.
TEST(Watcher, FollowsEveryWayToReplaceAFileOrAPartOfItsPath) {
    const TempFolder folder;
    const auto make = [&](const char* name) { mkdir((folder / name).c_str(), 0700); };
    const auto move = [&](const char* from, const char* to) {
        rename((folder / from).c_str(), (folder / to).c_str());
    };
    const auto turn = [&](const string& to, const char* link = "current") {
        EXPECT_EQ(symlink(to.c_str(), (folder / "next").c_str()), 0);
        move("next", link);
    };
    const auto release = [&](const string& name, int k) {
        make(name.c_str()), make((name + "/conf").c_str());
        folder.write(name + "/conf/f", content(k));
    };
    release("one", 1), release("two", 2);
    make("d"), folder.write("d/a", content(5)), folder.write("d/b", content(6));
    turn("one");
    Config p(folder / "current/conf/f");
    ZPropertiesWatcher watcher(p);
    EXPECT_EQ(watcher.process(), 0);
    const struct {
        const char* what;
        std::function<void()> change;
        int told;
        unsigned int k;
    } steps[] = {
        {"another release", [&] { turn("two"); }, 1, 2},
        {"the first, by its whole path", [&] { turn(folder / "one"); }, 1, 1},
        {"another file", [&] { folder.replace("one/conf/f", content(3)); }, 1, 3},
        {"that one, in place", [&] { folder.write("one/conf/f", content(4)); }, 1, 4},
        {"it is missing", [&] { move("one/conf/f", "old"); }, 0, 4},
        {"and comes as a link", [&] { turn("../../d/a", "one/conf/f"); }, 1, 5},
        {"that is switched", [&] { turn("../../d/b", "one/conf/f"); }, 1, 6},
        {"and replaced behind it", [&] { folder.replace("d/b", content(7)); }, 1, 7},
        {"its folder goes", [&] { move("one", "away"); }, 0, 7},
        {"and comes back, empty", [&] { make("one"); }, 0, 7},
        {"with a folder", [&] { make("one/conf"); }, 0, 7},
        {"and with the file", [&] { folder.write("one/conf/f", content(8)); }, 1, 8},
        {"a file in a folder's place", [&] { move("one", "away2"), folder.write("one", ""); }, 0,
         8},
    };
    const auto expect = [&](int told, unsigned int k) {
        EXPECT_TRUE(isReadable(watcher, 10000));
        EXPECT_EQ(watcher.process(), told);
        EXPECT_EQ(p.number("k"), k);
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.what);
        step.change();
        expect(step.told, step.k);
    }
    turn("current");  // a link that leads to itself
    EXPECT_EQ(raised([&] { watcher.process(); }), "fopen(r) " + std::to_string(ELOOP));
    turn("two");
    expect(1, 2);
    if (mount("none", (folder / "two").c_str(), "tmpfs", 0, nullptr) == 0) {
        expect(0, 2);
        release("two", 4);
        expect(1, 4);
        umount((folder / "two").c_str());
        expect(1, 2);
    }
}

// What an editor writes in place is read when he has done.
TEST(Watcher, WaitsForAWriterInPlace) {
    Watched w;
    w.watcher.setSettlingTime(1000000000);
    // Also where it is waited for anyway.
    rename(w.path.c_str(), (w.folder / "old").c_str());
    EXPECT_EQ(w.told(), kNothing);
    rename((w.folder / "old").c_str(), w.path.c_str());
    w.watcher.process();
    const int editor = open(w.path.c_str(), O_WRONLY | O_TRUNC);
    EXPECT_EQ(w.told(), kNothing);
    EXPECT_EQ(w.p.count(), 2);
    const string text = content(2);
    EXPECT_EQ(write(editor, text.data(), 9), 9);
    EXPECT_EQ(w.told(), kNothing);
    EXPECT_GT(write(editor, text.data() + 9, text.size() - 9), 0);
    close(editor);
    EXPECT_EQ(w.told(), kChanged);
    w.watcher.setSettlingTime(0);
    const int log = open(w.path.c_str(), O_WRONLY | O_APPEND);
    EXPECT_EQ(write(log, "y = 1\n", 6), 6);
    EXPECT_EQ(w.told(), List{"+gone.y"});
    close(log);
}

TEST(CWatch, TellsACallback) {
    const TempFolder folder;
    const string path = folder.write("f", kStart);
    ZPROP_handle* h = nullptr;
    ASSERT_EQ(zstzPropOpen(&h, path.c_str(), ZPROP_OPEN_READ), ZPROP_OK);
    ZPROP_watch_handle* watch = nullptr;
    EXPECT_EQ(zstzPropWatch_open(nullptr, &watch), ZPROP_ERR_PARAM);
    EXPECT_EQ(zstzPropWatch_open(h, nullptr), ZPROP_ERR_PARAM);
    ASSERT_EQ(zstzPropWatch_open(h, &watch), ZPROP_OK);
    EXPECT_GE(zstzPropWatch_fd(watch), 0);
    EXPECT_EQ(zstzPropWatch_fd(nullptr), -1);
    const auto tell = [](void* data, const char* stanza, const char* key, int change) {
        *static_cast<string*>(data) +=
            std::to_string(change) + stanza + (key == nullptr ? "" : key) + " ";
    };
    string told;
    int err = -1;
    const auto process = [&](const char* text, ZPROP_change_callback callback) {
        folder.write("f", text);
        told.clear();
        return zstzPropWatch_process(watch, callback, &told, &err);
    };
    EXPECT_EQ(process("[s]\nk = 2\n[t]\n", tell), 2);
    EXPECT_EQ(told, "2sk 0t ");
    EXPECT_EQ(err, ZPROP_OK);
    EXPECT_EQ(process("[s]\n", nullptr), 2);
    EXPECT_EQ(process("[s\n", tell), 0);
    EXPECT_EQ(err, ZPROP_ERR_FILE);
    EXPECT_EQ(zstzPropWatch_process(nullptr, tell, nullptr, &err), 0);
    EXPECT_EQ(err, ZPROP_ERR_PARAM);
    EXPECT_EQ(zstzPropWatch_close(watch), ZPROP_OK);
    EXPECT_EQ(zstzPropWatch_close(nullptr), ZPROP_ERR_PARAM);
    zstzPropClose(h);
}

// ---------------------------------------------------------------- who meets on a file

// Loads all the while, until there is a file of that name. The number of loads that failed or gave
// values that were never stored together.
int countTorn(ZProperties& p, const string& end) {
    int torn = 0;
    while (access(end.c_str(), F_OK) != 0) {
        const string failure = raised([&] { p.reload(nullptr); });
        const unsigned int k = p.getIntegerValue("s", "k", 0, 0);
        torn += !failure.empty() || p.getIntegerValue("t", "k", 0, 0) != k ||
                p.getIntegerValue("t", "h", 0, 0) != k;
    }
    return torn;
}

TEST(Meeting, AReaderNeverSeesTornContent) {
    for (int mode : kModes) {
        SCOPED_TRACE(mode);
        const TempFolder folder;
        const string path = folder.write("f", kStart);
        Config writer(path, mode);
        writer.setLockWait(60000);
        const auto store = [&](unsigned int i) {
            writer.setIntegerValue("s", "k", i);
            writer.setValue("s", "fill", string(i % 7 * 1300, 'x').c_str());
            writer.setIntegerValue("t", "k", i);
            writer.setValue("t", "h", std::to_string(i).c_str(), 1);
            writer.store(nullptr);
        };
        store(0);
        // A plain reader doesn't keep the lock until it has read the side database.
        Config reading(path, mode == kPlain ? kChecked : mode);
        reading.setLockWait(60000);
        const string end = folder / "end";
        const pid_t reader = startChild([&] { return countTorn(reading, end) != 0; });
        int tornInThread = 0;
        std::thread thread([&] { tornInThread = countTorn(reading, end); });
        for (unsigned int i = 1; i <= 200; ++i)
            store(i);
        folder.write("end", "");
        thread.join();
        EXPECT_EQ(endOf(reader), 0);
        EXPECT_EQ(tornInThread, 0);
    }
}

TEST(Meeting, AnEditorThatRenames) {
    for (int mode : kModes) {
        const TempFolder folder;
        const string path = folder.write("f", kStart);
        Config p(path, mode);
        {
            ZPropertiesUpdate update(p, 0);
            p.setValue("s", "k", "2");
            folder.replace("f", "[s]\nk = 7\n");
            EXPECT_EQ(raised([&] { update.commit(); }), "stat() 116");
            EXPECT_EQ(update.isOpen(), 1);
        }
        increment(p);  // once more, from what he left
        EXPECT_EQ(TempFolder::read(path), "[s]\nk = 8\n");
        // While a store waits for the lock of the old one.
        p.setValue("s", "k", "9");
        p.setLockWait(60000);
        std::thread waiting;
        {
            const Locked old(path, F_WRLCK);
            waiting = startAsleep([&] { p.store(nullptr); });
            folder.replace("f", "[s]\nk = 5\n[a longer text]\n");
        }
        waiting.join();
        // A plain one has stored into the file that is gone.
        EXPECT_EQ(TempFolder::read(path),
                  mode == kPlain ? "[s]\nk = 5\n[a longer text]\n" : "[s]\nk = 9\n");
    }
}

// "" or what a store, and then an update, of a changed object raises.
string storeAndUpdate(const string& path, int mode) {
    const string ofStore = raised([&] {
        Config p(path, mode);
        p.setValue("s", "k", "2");
        p.store(nullptr);
    });
    return ofStore + "|" + raised([&] {
               Config p(path, mode);
               increment(p);
           });
}

TEST(Meeting, AFolderWithoutWritePermission) {
    for (int mode : kModes) {
        const TempFolder folder;
        const string path = folder.write("f", kStart);
        // Of a user who owns nothing else.
        const auto expectFromNobody = [&](mode_t access, const string& expected) {
            chmod(path.c_str(), access);
            const auto asNobody = [&] {
                if (geteuid() == 0 &&
                    (setresgid(12345, 12345, 12345) != 0 || setresuid(12345, 12345, 12345) != 0))
                    return 2;
                const string result = storeAndUpdate(path, mode);
                fprintf(stderr, "%s\n", result == expected ? "" : result.c_str());
                return result == expected ? 1 : 0;
            };
            EXPECT_EQ(inChild(asNobody), 1) << mode << " " << expected;
        };
        chmod((folder / "").c_str(), 0555);
        // No room for a journal.
        expectFromNobody(0666, mode == kSafe ? "fopen(w) 13|fopen(w) 13" : "|");
        EXPECT_EQ(TempFolder::read(path), mode == kSafe ? kStart : "[s]\nk = 3\n");
        expectFromNobody(0444, "access() 13|fopen(r+) 13");
        chmod((folder / "").c_str(), 0755);
    }
}

}  // namespace
