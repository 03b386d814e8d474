// Read-modify-store, notices between processes, their C interface, and what happens where several
// objects, processes and editors meet on one file.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Z/ZExceptionText.h"
#include "Z/ZPropertiesUpdate.h"
#include "Z/ZPropertiesWatcher.h"
#include "Z/ZStanzaFileProperties.h"
#include "Z/zproperties.h"
#include "Z/zwholefile.h"
#include "support/Raised.h"
#include "support/TempFolder.h"

using std::string;

namespace {

struct Config : ZStanzaFileProperties {
    explicit Config(const string& path, int mode = ZPROP_STORE_PLAIN) : ZStanzaFileProperties(1) {
        setStoreMode(mode);
        load(path.c_str());
    }
    unsigned int number(const char* key) { return getIntegerValue("s", key, 0, 0); }
    string text(const char* key) {
        ZLCString out;
        getValue("s", key, out, 0, "<none>");
        return out.getChars();
    }
};

void increment(ZProperties& p, unsigned long wait) {
    ZPropertiesUpdate update(p, wait);
    p.setIntegerValue("s", "k", p.getIntegerValue("s", "k", 0, 0) + 1);
    update.commit();
}

// What `action` gives in a process of its own; it must fit a wait status.
int inChild(const std::function<int()>& action) {
    const pid_t child = fork();
    if (child == 0)
        _exit(action());
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

const int kModes[] = {ZPROP_STORE_PLAIN, ZPROP_STORE_CHECKED, ZPROP_STORE_SAFE};

// ---------------------------------------------------------------- updates

TEST(Update, RefusesWhatItCantBeginWith) {
    const TempFolder folder;
    const string path = folder.write("f", "[s]\nk = 1\n");
    ZStanzaFileProperties unnamed(1);
    EXPECT_EQ(raised([&] { ZPropertiesUpdate u(unnamed, 0); }), "22");
    Config p(path);
    p.setValue("s", "k", "2");
    EXPECT_EQ(raised([&] { ZPropertiesUpdate u(p, 0); }), "22");
    EXPECT_EQ(p.text("k"), "2");
    p.reload(nullptr);
    {
        const int file = open(path.c_str(), O_RDWR);
        zlockWholeFile(file, F_RDLCK, zlockOfDescription, 0);
        EXPECT_EQ(raised([&] { ZPropertiesUpdate u(p, 20); }), "fcntl() 11");
        close(file);
    }
    {
        ZPropertiesUpdate u(p, 0);
        EXPECT_EQ(raised([&] { ZPropertiesUpdate nested(p, 0); }), "22");
        EXPECT_EQ(u.isOpen(), 1);
        u.commit();
        EXPECT_EQ(u.isOpen(), 0);
        EXPECT_EQ(raised([&] { u.commit(); }), "22");
        u.rollback();
    }
    folder.write("f", "[s]\nbad\n");
    EXPECT_EQ(raised([&] { ZPropertiesUpdate u(p, 0); }), "line 2");
    unlink(path.c_str());
    EXPECT_EQ(raised([&] { ZPropertiesUpdate u(p, 0); }), "fopen(r+) 2");
    folder.write("f", "[s]\nk = 3\n");
    ZPropertiesUpdate u(p, 0);
    EXPECT_EQ(p.text("k"), "3");
}

TEST(Update, ChangesWhatTheFileHoldsNow) {
    for (int mode : kModes) {
        const TempFolder folder;
        const string path = folder.write("f", "# c\n[s]\nk = 1\n");
        Config mine(path, mode), other(path, mode);
        for (int i = 0; i < 5; ++i) {
            increment(mine, 0);
            increment(other, 0);
        }
        other.addEntryComment("s", "k", "noted");
        other.setValue("s", "h", "hush", 1);
        other.store(nullptr);
        increment(mine, 0);
        Config now(path);
        EXPECT_EQ(now.number("k"), 12u);
        EXPECT_EQ(now.text("h"), "hush");
        EXPECT_NE(TempFolder::read(path).find("# c\n[s]\n\n#noted\nk = 12\n"), string::npos);
    }
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
            EXPECT_EQ(p.text("m"), stores ? "2" : "1");
            EXPECT_EQ(p.text("h"), "hush");
            EXPECT_EQ(p.isObfuscated("s", "h"), 1);
            EXPECT_EQ(p.exists("t"), 0);
            EXPECT_EQ(TempFolder::read(path), stored);
            EXPECT_EQ(Config(path).text("h"), "hush");
            p.store(nullptr);  // comments, order and the side database's name are what they were
            EXPECT_EQ(TempFolder::read(path), stored);
        }
}

// Locks of open files are a child's too.
TEST(Update, AChildThatLivesOnKeepsNoLock) {
    for (int mode : kModes) {
        const TempFolder folder;
        Config p(folder.write("f", "[s]\nk = 1\n"), mode);
        int pipes[2];
        ASSERT_EQ(pipe(pipes), 0);
        pid_t child;
        {
            ZPropertiesUpdate update(p, 0);
            child = fork();
            if (child == 0) {
                close(pipes[1]);
                char byte;
                _exit(read(pipes[0], &byte, 1) == 0 ? 0 : 1);
            }
            update.commit();
        }
        EXPECT_NO_THROW(increment(p, 0));
        close(pipes[0]), close(pipes[1]);
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
}

TEST(CarefulFiles, AreRegularAndWithinTheLimitForFileSizes) {
    const TempFolder folder;
    const string pipe = folder / "pipe", file = folder.write("f", "[s]\nk = 1\n");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    for (int mode : {ZPROP_STORE_CHECKED, ZPROP_STORE_SAFE}) {
        EXPECT_EQ(raised([&] { Config p(folder / "", mode); }),
                  "fopen(r) " + std::to_string(EISDIR));
        EXPECT_EQ(raised([&] { Config p(pipe, mode); }), "fopen(r) " + std::to_string(EINVAL));
        EXPECT_EQ(inChild([&] {
                      const rlimit limit = {1024, 1024};
                      Config p(file, mode);
                      p.setValue("s", "k", string(2000, 'x').c_str());
                      if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
                          return 1;
                      return raised([&] { p.store(nullptr); }).find(std::to_string(EFBIG)) !=
                                     string::npos
                                 ? 0
                                 : 2;
                  }),
                  0);
        EXPECT_EQ(TempFolder::read(file), "[s]\nk = 1\n");
    }
}

TEST(Update, LoadReloadAndStoreInsideUseItsLock) {
    for (int mode : kModes) {
        const TempFolder folder;
        const string path = folder.write("f", "[s]\nk = 1\n"), copy = folder / "copy";
        symlink("f", (folder / "link").c_str());
        Config p(path, mode);
        ZPropertiesUpdate update(p, 0);
        p.setValue("s", "k", "2");
        p.store(copy.c_str());
        p.reload(nullptr);
        EXPECT_EQ(p.text("k"), "1");
        p.setValue("s", "k", "3");
        p.store((folder / "link").c_str());
        p.reload((folder / "link").c_str());
        EXPECT_EQ(p.text("k"), "3");
        EXPECT_EQ(raised([&] { p.load(nullptr); }), "line 1");  // twice the same stanza
        p.reload(nullptr);
        // Still nobody comes between: no other object of this process, no other process.
        EXPECT_EQ(raised([&] { Config other(path, ZPROP_STORE_SAFE); }), "fcntl() 11");
        EXPECT_EQ(raised([&] { Config other(path); }), "fcntl() 11");
        close(open(path.c_str(), O_RDWR));  // as an unlucky other part of the program does
        EXPECT_EQ(inChild([&] { return raised([&] { Config other(path); }) == "fcntl() 11"; }), 1);
        ZStanzaFileProperties::ZStanzaFilePropertiesFactory factory;
        EXPECT_EQ(raised([&] { ZProperties::getPropertiesFor(path.c_str(), factory, 0); }), "22");
        EXPECT_EQ(
            raised([&] { ZProperties::getPropertiesFor((folder / "link").c_str(), factory, 0); }),
            "22");
        delete ZProperties::getPropertiesFor(copy.c_str(), factory, 0);
        std::thread([&] {  // for others it is locked, that is all
            EXPECT_EQ(raised([&] { ZProperties::getPropertiesFor(path.c_str(), factory, 0); }),
                      "fcntl() 11");
        })
            .join();
        update.commit();
        EXPECT_EQ(Config(copy).text("k"), "2");
        EXPECT_EQ(Config(path).text("k"), "3");
    }
}

TEST(Update, AnEditorThatRenamesIsntOverwritten) {
    for (int mode : kModes) {
        const TempFolder folder;
        const string path = folder.write("f", "[s]\nk = 1\n");
        Config p(path, mode);
        {
            ZPropertiesUpdate update(p, 0);
            p.setValue("s", "k", "2");
            folder.write("g", "[s]\nk = 7\n");
            rename((folder / "g").c_str(), path.c_str());
            EXPECT_EQ(raised([&] { update.commit(); }), "stat() 116");
            EXPECT_EQ(update.isOpen(), 1);
        }
        increment(p, 0);  // once more, from what he left
        EXPECT_EQ(TempFolder::read(path), "[s]\nk = 8\n");
    }
}

TEST(Update, ThreadsLoseNothing) {
    for (int mode : kModes) {
        const TempFolder folder;
        const string path = folder.write("f", "[s]\nk = 0\n");
        Config shared(path, mode), own(path, mode), other(path, ZPROP_STORE_CHECKED);
        std::vector<std::thread> threads;
        for (Config* p : {&shared, &shared, &own, &other})
            threads.emplace_back([=] {
                for (int i = 0; i < 25; ++i)
                    increment(*p, 60000);
            });
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(Config(path).number("k"), 100u);
    }
}

TEST(Update, ProcessesLoseNothing) {
    const TempFolder folder;
    const string path = folder.write("f", "[s]\nk = 0\n");
    std::vector<pid_t> children;
    std::vector<std::unique_ptr<Config>> objects;
    for (int mode : kModes)
        objects.emplace_back(new Config(path, mode));
    for (int c = 0; c < 6; ++c) {
        Config& p = *objects[static_cast<size_t>(c % 3)];
        const pid_t child = fork();
        if (child == 0) {
            for (int i = 0; i < 25; ++i)
                increment(p, 60000);
            _exit(0);
        }
        children.push_back(child);
    }
    for (pid_t child : children) {
        int status;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(Config(path).number("k"), 150u);
}

// ---------------------------------------------------------------- the C interface

TEST(CUpdate, EveryNumber) {
    const TempFolder folder;
    const string path = folder.write("f", "[s]\nk = 1\n");
    const unsigned long kAll = ZPCACHE_KEEP_COMMENTS | ZPCACHE_STRICT | ZPCACHE_KEEP_LINES;
    ZPROP_handle *h = nullptr, *other = nullptr;
    const int U = ZPROP_OPEN_UPDATE, S = ZPROP_STORE_SAFE;
    EXPECT_EQ(zstzPropOpenWith(nullptr, path.c_str(), U, 0, S, 0), ZPROP_ERR_PARAM);
    EXPECT_EQ(zstzPropOpenWith(&h, nullptr, U, 0, S, 0), ZPROP_ERR_PARAM);
    EXPECT_EQ(zstzPropOpenWith(&h, path.c_str(), 3, 0, S, 0), ZPROP_ERR_PARAM);
    EXPECT_EQ(zstzPropOpenWith(&h, path.c_str(), U, 8, S, 0), ZPROP_ERR_PARAM);
    EXPECT_EQ(zstzPropOpenWith(&h, path.c_str(), U, 0, 3, 0), ZPROP_ERR_PARAM);
    EXPECT_EQ(zstzPropOpenWith(&h, "", U, 0, S, 0), ZPROP_ERR_FILE);
    EXPECT_EQ(zstzPropOpenWith(&h, (path + "x").c_str(), U, 0, S, 0), ZPROP_ERR_FILE);
    EXPECT_EQ(h, nullptr);
    ASSERT_EQ(zstzPropOpenWith(&h, path.c_str(), U, kAll, S, 0), ZPROP_OK);
    ASSERT_EQ(zstzPropOpenWith(&other, path.c_str(), U, 0, S, 0), ZPROP_OK);

    EXPECT_EQ(zstzPropBegin(nullptr, 0), ZPROP_ERR_PARAM);
    EXPECT_EQ(zstzPropCommit(nullptr), ZPROP_ERR_PARAM);
    EXPECT_EQ(zstzPropRollback(nullptr), ZPROP_ERR_PARAM);
    EXPECT_EQ(zstzPropCommit(h), ZPROP_ERR_NO_UPDATE);
    EXPECT_EQ(zstzPropRollback(h), ZPROP_ERR_NO_UPDATE);
    ZPROP_error error;
    EXPECT_EQ(zstzPropLastError(&error), 22);

    EXPECT_EQ(zstzPropBegin(h, 0), ZPROP_OK);
    EXPECT_EQ(zstzPropBegin(h, 0), ZPROP_ERR_UNSAVED);
    EXPECT_STREQ((zstzPropLastError(&error), error.text),
                 "unsaved changes, or an update that is open");
    EXPECT_EQ(zstzPropBegin(other, 10), ZPROP_ERR_LOCKED);
    EXPECT_EQ(zstzPropLastError(&error), 43);
    ZPROP_handle* third = nullptr;
    EXPECT_EQ(zstzPropOpenWith(&third, path.c_str(), U, 0, S, 10), ZPROP_ERR_LOCKED);
    EXPECT_EQ(zstzPropSetStringValue(h, "s", "k", " 2"), ZPROP_ERR_UPDATE);
    EXPECT_EQ(zstzPropSetStringValue(h, "s", "k", "2"), ZPROP_OK);
    std::thread([&] {
        EXPECT_EQ(zstzPropCommit(h), ZPROP_ERR_NO_UPDATE);
        zstzPropClose(h);  // ignored
    }).join();
    EXPECT_EQ(zstzPropCommit(h), ZPROP_OK);
    EXPECT_EQ(TempFolder::read(path), "[s]\nk = 2\n");

    EXPECT_EQ(zstzPropBegin(other, 0), ZPROP_OK);
    int err;
    EXPECT_EQ(zstzPropGetIntegerValue(other, "s", "k", 1, &err), 2u);
    zstzPropSetStringValue(other, "s", "k", "3");
    EXPECT_EQ(zstzPropRollback(other), ZPROP_OK);
    EXPECT_EQ(zstzPropGetIntegerValue(other, "s", "k", 1, &err), 2u);
    zstzPropSetStringValue(other, "s", "k", "4");
    EXPECT_EQ(zstzPropBegin(other, 0), ZPROP_ERR_UNSAVED);
    EXPECT_EQ(zstzPropStore(other, nullptr), ZPROP_OK);

    EXPECT_EQ(zstzPropBegin(other, 0), ZPROP_OK);
    zstzPropSetStringValue(other, "s", "k", "5");
    ASSERT_EQ(mkdir((path + ".zjournal").c_str(), 0700), 0);
    EXPECT_EQ(zstzPropCommit(other), ZPROP_ERR_FILE);
    EXPECT_EQ(zstzPropLastError(&error), 43);
    rmdir((path + ".zjournal").c_str());
    zstzPropClose(other);  // rolls back
    unlink(path.c_str());
    EXPECT_EQ(zstzPropBegin(h, 0), ZPROP_ERR_FILE);
    folder.write("f", "[s]\nk = 5\n");
    EXPECT_EQ(zstzPropBegin(h, 0), ZPROP_OK);
    EXPECT_EQ(zstzPropRollback(h), ZPROP_OK);
    zstzPropClose(h);
}

TEST(CUpdate, AnotherThreadsBeginWaitsForTheUpdatesEnd) {
    const TempFolder folder;
    const string path = folder.write("f", "[s]\nk = 0\n");
    ZPROP_handle* h = nullptr;
    ASSERT_EQ(zstzPropOpenWith(&h, path.c_str(), ZPROP_OPEN_UPDATE, 0, ZPROP_STORE_CHECKED, 0), 0);
    const auto work = [&] {
        for (int i = 0; i < 50; ++i) {
            int err;
            EXPECT_EQ(zstzPropBegin(h, 60000), ZPROP_OK);
            const unsigned int k = zstzPropGetIntegerValue(h, "s", "k", 1, &err);
            EXPECT_EQ(zstzPropSetIntegerValue(h, "s", "k", k + 1), ZPROP_OK);
            EXPECT_EQ(zstzPropCommit(h), ZPROP_OK);
        }
    };
    std::thread first(work), second(work);
    first.join();
    second.join();
    zstzPropClose(h);
    EXPECT_EQ(Config(path).number("k"), 100u);
}

// ---------------------------------------------------------------- watching

// Collects what observers are told, as "+s.k", "-s", "~s.k".
struct Notices : ZObserverInterface {
    std::vector<string> all;
    void update(ZObservableInterface*, const ZObservedParm& parameter) override {
        const auto& change = static_cast<const ZPropertyChanged&>(parameter);
        all.push_back("+-~"[change.changeType] + string(change.stanza) +
                      (change.key == nullptr ? "" : string(".") + change.key));
    }
};

struct Watched {
    TempFolder folder;
    string path = folder.write("f", "# c\n[s]\nk = 1\nm = 1\nm = 2\n[gone]\nx = 1\n");
    Config p{path};
    Notices notices;
    ZPropertiesWatcher watcher{p};
    typedef std::vector<string> List;

    Watched() {
        p.addObserver(&notices);
        EXPECT_EQ(watcher.process(), 0);
    }
    bool isReadable() const {
        struct pollfd ready = {watcher.descriptor(), POLLIN, 0};
        return poll(&ready, 1, 0) == 1;
    }
    /// What process() tells, whose number it must give; "poll" if there is nothing to read.
    List told() {
        notices.all.clear();
        if (!isReadable())
            return {"poll"};
        const int count = watcher.process();
        EXPECT_EQ(static_cast<size_t>(count), notices.all.size());
        // Mounts are the whole system's, and nobody else's are of interest.
        for (int others = 0; others < 20 && isReadable(); ++others)
            EXPECT_EQ(watcher.process(), 0);
        EXPECT_FALSE(isReadable());
        return notices.all;
    }
    /// In another process, which stores in this mode.
    void store(const std::function<void(Config&)>& change, int mode = ZPROP_STORE_PLAIN) {
        EXPECT_EQ(inChild([&] {
                      Config other(path, mode);
                      change(other);
                      other.store(nullptr);
                      return 0;
                  }),
                  0);
    }
};

TEST(Watcher, TellsEachDifferenceOnce) {
    for (int mode : kModes) {
        Watched w;
        w.store(
            [](Config& c) {
                c.setValue("s", "k", "2");
                c.addValue("s", "m", "3", 0);
                c.setValue("s", "h", "hush", 1);
                c.setValue("new", "y", "1");
                c.addStanza("empty");
                c.deleteStanza("gone");
            },
            mode);
        const Watched::List kAll = {"-gone.x",
                                    "-gone",
                                    "~s.k",
                                    "~s.m",
                                    "+s.h",
                                    "+new",
                                    "+new.y",
                                    "+empty",
                                    "+configuration-database",
                                    "+configuration-database.file"};
        Watched::List all = w.told();
        EXPECT_EQ(std::set<string>(all.begin(), all.end()),
                  std::set<string>(kAll.begin(), kAll.end()));
        EXPECT_EQ(all.size(), kAll.size());
        // A stanza goes behind its keys and comes ahead of them.
        const auto place = [&](const char* what) {
            return std::find(all.begin(), all.end(), what) - all.begin();
        };
        EXPECT_LT(place("-gone.x"), place("-gone"));
        EXPECT_LT(place("+new"), place("+new.y"));
        EXPECT_EQ(w.p.text("h"), "hush");
        EXPECT_EQ(w.p.isModified(), 0);
        w.store([](Config& c) { c.setValue("s", "h", "shh", 1); }, mode);
        EXPECT_EQ(w.told(), Watched::List{"~s.h"});
        // Comments alone are no news, but aren't lost by the next store either.
        w.store([](Config& c) { c.addEntryComment("s", "k", "noted"); }, mode);
        usleep(60000);  // a younger file would be read anew in any case
        EXPECT_EQ(w.told(), Watched::List{});
        increment(w.p, 0);
        EXPECT_NE(TempFolder::read(w.path).find("#noted\nk = 3"), string::npos);
        EXPECT_EQ(w.told(), Watched::List{});
        // The same value, hidden.
        w.store(
            [](Config& c) {
                c.deleteKey("s", "k");
                c.setValue("s", "k", "3", 1);
            },
            mode);
        EXPECT_EQ(w.told(), Watched::List{"~s.k"});
    }
}

TEST(Watcher, OwnStoresAreNoNews) {
    for (int mode : kModes) {
        Watched w;
        w.p.setStoreMode(mode);
        w.p.setValue("s", "k", "2");
        w.p.store(nullptr);
        w.notices.all.clear();
        EXPECT_EQ(w.told(), Watched::List{});
        increment(w.p, 0);
        EXPECT_EQ(w.told(), Watched::List{});
        EXPECT_EQ(w.p.number("k"), 3u);
    }
}

TEST(Watcher, FollowsEveryWayToReplaceAFile) {
    Watched w;
    const auto replace = [&](const char* name, const string& text) {
        w.folder.write("tmp", text);
        rename((w.folder / "tmp").c_str(), (w.folder / name).c_str());
    };
    const Watched::List kChanged = {"~s.k"};
    replace("f", "[s]\nk = 2\nm = 1\nm = 2\n[gone]\nx = 1\n");
    EXPECT_EQ(w.told(), kChanged);
    // The new file is watched, for those who write in place.
    w.store([](Config& c) { c.setValue("s", "k", "3"); });
    EXPECT_EQ(w.told(), kChanged);
    // Missing for a while.
    rename(w.path.c_str(), (w.folder / "old").c_str());
    EXPECT_EQ(w.told(), Watched::List{});
    EXPECT_EQ(w.p.number("k"), 3u);
    EXPECT_EQ(w.watcher.process(), 0);
    w.folder.write("f", "[s]\nk = 4\nm = 1\nm = 2\n[gone]\nx = 1\n");
    EXPECT_EQ(w.told(), kChanged);
    // A link into another folder, which then is switched, then written through.
    mkdir((w.folder / "d").c_str(), 0700);
    w.folder.write("d/a", "[s]\nk = 5\nm = 1\nm = 2\n[gone]\nx = 1\n");
    w.folder.write("d/b", "[s]\nk = 6\nm = 1\nm = 2\n[gone]\nx = 1\n");
    for (const char* to : {"d/a", "d/b"}) {
        EXPECT_EQ(symlink(to, (w.folder / "tmp").c_str()), 0);
        rename((w.folder / "tmp").c_str(), w.path.c_str());
        EXPECT_EQ(w.told(), kChanged);
    }
    replace("d/b", "[s]\nk = 7\nm = 1\nm = 2\n[gone]\nx = 1\n");
    EXPECT_EQ(w.told(), kChanged);
    EXPECT_EQ(w.p.number("k"), 7u);
}

TEST(Watcher, WaitsForWhatStandsInItsWay) {
    Watched w;
    const auto setTo = [](const char* value) {
        return [=](Config& c) { c.setValue("s", "k", value); };
    };
    const Watched::List kChanged = {"~s.k"};
    // Unsaved changes win until they are gone.
    w.p.setValue("s", "m", "9");
    w.store(setTo("2"));
    EXPECT_EQ(w.told(), Watched::List{});
    EXPECT_EQ(w.p.text("m"), "9");
    w.p.setValue("s", "m", "1");
    w.p.addValue("s", "m", "2", 0);
    w.p.resetModified();
    w.notices.all.clear();
    EXPECT_EQ(w.watcher.process(), 1);
    EXPECT_EQ(w.notices.all, kChanged);
    {
        ZPropertiesUpdate update(w.p, 0);
        w.folder.write("f", "[s]\nk = 3\nm = 1\nm = 2\n[gone]\nx = 1\n");
        EXPECT_EQ(w.told(), Watched::List{});
    }
    EXPECT_EQ(w.watcher.process(), 1);
    // Bad data is reported once, and the object stays what it was.
    w.folder.write("f", "[s]\nk = 4\nbad\n");
    EXPECT_EQ(raised([&] { w.watcher.process(); }), "line 3");
    EXPECT_EQ(w.p.number("k"), 3u);
    EXPECT_EQ(w.p.numValues("s", "m"), 2);
    EXPECT_EQ(w.watcher.process(), 0);
    // A writer at work: its end tells.
    w.folder.write("f", "[s]\nk = 5\nm = 1\nm = 2\n[gone]\nx = 1\n");
    const int writer = open(w.path.c_str(), O_RDWR);
    zlockWholeFile(writer, F_WRLCK, zlockOfDescription, 0);
    EXPECT_EQ(w.told(), Watched::List{});
    EXPECT_EQ(w.p.number("k"), 3u);
    close(writer);
    EXPECT_EQ(w.told(), kChanged);
    ZStanzaFileProperties unnamed(1);
    EXPECT_EQ(raised([&] { ZPropertiesWatcher none(unnamed); }), "22");
}

// A file is reached by folders and links, any of which may be another one in a moment.
TEST(Watcher, FollowsEachPartOfThePath) {
    const TempFolder folder;
    const auto text = [](int k) { return "[s]\nk = " + std::to_string(k) + "\n"; };
    const auto release = [&](const char* name, int k) {
        mkdir((folder / name).c_str(), 0700);
        mkdir((folder / name + "/conf").c_str(), 0700);
        folder.write(string(name) + "/conf/f", text(k));
    };
    const auto turn = [&](const char* to) {
        EXPECT_EQ(symlink(to, (folder / "next").c_str()), 0);
        rename((folder / "next").c_str(), (folder / "current").c_str());
    };
    release("release1", 1), release("release2", 2);
    turn("release1");
    Config p(folder / "current/conf/f");
    ZPropertiesWatcher watcher(p);
    EXPECT_EQ(watcher.process(), 0);
    const auto told = [&] {
        struct pollfd ready = {watcher.descriptor(), POLLIN, 0};
        EXPECT_EQ(poll(&ready, 1, 0), 1);
        return watcher.process();
    };
    turn("release2");
    EXPECT_EQ(told(), 1);
    turn((folder / "release1").c_str());
    EXPECT_EQ(told(), 1);
    EXPECT_EQ(p.number("k"), 1u);
    // A folder goes and comes back, first without the file.
    rename((folder / "release1").c_str(), (folder / "away").c_str());
    EXPECT_EQ(told(), 0);
    mkdir((folder / "release1").c_str(), 0700);
    EXPECT_EQ(told(), 0);
    mkdir((folder / "release1/conf").c_str(), 0700);
    EXPECT_EQ(told(), 0);
    folder.write("release1/conf/f", text(3));
    EXPECT_EQ(told(), 1);
    EXPECT_EQ(p.number("k"), 3u);
    // A file in the place of a folder, and a link that leads to itself.
    rename((folder / "release1").c_str(), (folder / "away2").c_str());
    folder.write("release1", "");
    EXPECT_EQ(told(), 0);
    turn("current");
    EXPECT_EQ(raised([&] { told(); }), "fopen(r) " + std::to_string(ELOOP));
    turn("release2");
    EXPECT_EQ(told(), 1);
    EXPECT_EQ(p.number("k"), 2u);
    if (mount("none", (folder / "release2").c_str(), "tmpfs", 0, nullptr) == 0) {
        EXPECT_EQ(told(), 0);
        release("release2", 4);
        EXPECT_EQ(told(), 1);
        umount((folder / "release2").c_str());
        EXPECT_EQ(told(), 1);
        EXPECT_EQ(p.number("k"), 2u);
    }
}

// What an editor writes in place is read when he has done.
TEST(Watcher, WaitsForAWriterInPlace) {
    Watched w;
    w.watcher.setSettlingTime(1000000000);
    // Also where it is waited for anyway.
    rename(w.path.c_str(), (w.folder / "old").c_str());
    EXPECT_EQ(w.told(), Watched::List{});
    rename((w.folder / "old").c_str(), w.path.c_str());
    w.watcher.process();
    const int editor = open(w.path.c_str(), O_WRONLY | O_TRUNC);
    EXPECT_EQ(w.told(), Watched::List{});
    EXPECT_EQ(w.p.count(), 2);
    const string text = "[s]\nk = 2\nm = 1\nm = 2\n[gone]\nx = 1\n";
    EXPECT_EQ(write(editor, text.data(), 9), 9);
    EXPECT_EQ(w.told(), Watched::List{});
    EXPECT_EQ(write(editor, text.data() + 9, text.size() - 9),
              static_cast<ssize_t>(text.size()) - 9);
    close(editor);
    EXPECT_EQ(w.told(), Watched::List{"~s.k"});
    w.watcher.setSettlingTime(0);
    const int log = open(w.path.c_str(), O_WRONLY | O_APPEND);
    EXPECT_EQ(write(log, "y = 1\n", 6), 6);
    EXPECT_EQ(w.told(), Watched::List{"+gone.y"});
    close(log);
}

TEST(CWatch, TellsACallback) {
    const TempFolder folder;
    const string path = folder.write("f", "[s]\nk = 1\n");
    ZPROP_handle* h = nullptr;
    ASSERT_EQ(zstzPropOpen(&h, path.c_str(), ZPROP_OPEN_READ), 0);
    ZPROP_watch_handle* watch = nullptr;
    EXPECT_EQ(zstzPropWatch_open(nullptr, &watch), ZPROP_ERR_PARAM);
    EXPECT_EQ(zstzPropWatch_open(h, nullptr), ZPROP_ERR_PARAM);
    ASSERT_EQ(zstzPropWatch_open(h, &watch), ZPROP_OK);
    EXPECT_GE(zstzPropWatch_fd(watch), 0);
    EXPECT_EQ(zstzPropWatch_fd(nullptr), -1);
    string told;
    const auto tell = [](void* data, const char* stanza, const char* key, int change) {
        *static_cast<string*>(data) +=
            std::to_string(change) + stanza + (key == nullptr ? "" : key) + " ";
    };
    int err = -1;
    EXPECT_EQ(zstzPropWatch_process(watch, tell, &told, &err), 0);
    folder.write("f", "[s]\nk = 2\n[t]\n");
    EXPECT_EQ(zstzPropWatch_process(watch, tell, &told, &err), 2);
    EXPECT_EQ(err, ZPROP_OK);
    EXPECT_EQ(told, "2sk 0t ");
    folder.write("f", "[s]\n");
    EXPECT_EQ(zstzPropWatch_process(watch, nullptr, nullptr, &err), 2);
    folder.write("f", "[s\n");
    EXPECT_EQ(zstzPropWatch_process(watch, tell, &told, &err), 0);
    EXPECT_EQ(err, ZPROP_ERR_FILE);
    EXPECT_EQ(zstzPropWatch_process(nullptr, tell, &told, &err), 0);
    EXPECT_EQ(err, ZPROP_ERR_PARAM);
    EXPECT_EQ(zstzPropWatch_close(watch), ZPROP_OK);
    EXPECT_EQ(zstzPropWatch_close(nullptr), ZPROP_ERR_PARAM);
    zstzPropClose(h);
}

// ---------------------------------------------------------------- who meets on a file

// "" or what a store, and then an update, of a changed object raises.
string storeAndUpdate(const string& path, int mode) {
    string result = raised([&] {
        Config p(path, mode);
        p.setValue("s", "k", "2");
        p.store(nullptr);
    });
    result += "|" + raised([&] {
                  Config p(path, mode);
                  increment(p, 0);
              });
    return result;
}

TEST(Meeting, TwoObjectsOfAProcess) {
    // Each stores what it holds: without an update the last one wins.
    const TempFolder folder;
    const string path = folder.write("f", "[s]\nk = 1\nm = 1\n");
    for (int mode : kModes) {
        Config a(path, mode), b(path, mode);
        a.setValue("s", "k", "2");
        b.setValue("s", "m", "2");
        a.store(nullptr);
        b.store(nullptr);
        EXPECT_EQ(TempFolder::read(path), "[s]\nk = 1\nm = 2\n");
        folder.write("f", "[s]\nk = 1\nm = 1\n");
    }
}

// Loads all the while, until the other end of the pipe is closed. The number of loads that failed or
// gave values that were never stored together.
int countTorn(ZProperties& p, int end) {
    int torn = 0;
    fcntl(end, F_SETFL, O_NONBLOCK);
    for (char byte; read(end, &byte, 1) != 0;) {
        const string failure = raised([&] { p.reload(nullptr); });
        const unsigned int k = p.getIntegerValue("s", "k", 0, 0);
        torn += !failure.empty() || p.getIntegerValue("t", "k", 0, 0) != k ||
                p.getIntegerValue("t", "h", 0, 0) != k;
    }
    return torn;
}

TEST(Meeting, AReaderNeverSeesTornContent) {
    for (int mode : kModes) {
        const TempFolder folder;
        const string path = folder.write("f", "[s]\nk = 1\n");
        const auto fill = [&](Config& p, unsigned int i) {
            p.setIntegerValue("s", "k", i);
            p.setValue("s", "fill", string(i % 7 * 1300, 'x').c_str());
            p.setIntegerValue("t", "k", i);
            p.setValue("t", "h", std::to_string(i).c_str(), 1);
        };
        Config writer(path, mode);
        fill(writer, 0);
        writer.setLockWait(60000);
        writer.store(nullptr);
        int ends[2], threadEnds[2];
        ASSERT_EQ(pipe(ends) + pipe(threadEnds), 0);
        // A plain reader doesn't keep the lock until it has read the side database.
        Config reading(path, mode == ZPROP_STORE_PLAIN ? ZPROP_STORE_CHECKED : mode);
        reading.setLockWait(60000);
        const pid_t reader = fork();
        if (reader == 0) {
            close(ends[1]);
            _exit(countTorn(reading, ends[0]) != 0);
        }
        close(ends[0]);
        int tornInThread = 0;
        std::thread thread([&] { tornInThread = countTorn(reading, threadEnds[0]); });
        for (unsigned int i = 1; i <= 200; ++i) {
            fill(writer, i);
            writer.store(nullptr);
        }
        close(ends[1]);
        close(threadEnds[1]);
        thread.join();
        close(threadEnds[0]);
        int status;
        waitpid(reader, &status, 0);
        EXPECT_EQ(status, 0) << mode;
        EXPECT_EQ(tornInThread, 0) << mode;
    }
}

TEST(Meeting, AnEditorThatRenames) {
    for (int mode : kModes) {
        const TempFolder folder;
        const string path = folder.write("f", "[s]\nk = 1\n");
        Config p(path, mode);
        folder.write("g", "[s]\nk = 7\n");
        rename((folder / "g").c_str(), path.c_str());
        increment(p, 0);
        EXPECT_EQ(TempFolder::read(path), "[s]\nk = 8\n");
        // While a store waits for the lock of the old one.
        const int old = open(path.c_str(), O_RDWR);
        zlockWholeFile(old, F_WRLCK, zlockOfDescription, 0);
        p.setValue("s", "k", "9");
        p.setLockWait(60000);
        std::thread waiting([&] { p.store(nullptr); });
        usleep(20000);
        folder.write("g", "[s]\nk = 5\n[a longer text]\n");
        rename((folder / "g").c_str(), path.c_str());
        close(old);
        waiting.join();
        // A plain one has stored into the file that is gone.
        EXPECT_EQ(TempFolder::read(path),
                  mode == ZPROP_STORE_PLAIN ? "[s]\nk = 5\n[a longer text]\n" : "[s]\nk = 9\n");
    }
}

// As a user who owns nothing else.
string asNobody(const std::function<string()>& action) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    inChild([&] {
        if (geteuid() == 0 &&
            (setresgid(12345, 12345, 12345) != 0 || setresuid(12345, 12345, 12345) != 0))
            return 1;
        const string result = action();
        return write(ends[1], result.data(), result.size()) < 0 ? 1 : 0;
    });
    char result[256];
    const ssize_t size = read(ends[0], result, sizeof result);
    close(ends[0]), close(ends[1]);
    return string(result, size < 0 ? 0 : static_cast<size_t>(size));
}

TEST(Meeting, AFolderWithoutWritePermission) {
    const struct {
        int mode;
        const char* expected;  // of a store, and of an update
    } kCases[] = {{ZPROP_STORE_PLAIN, "|"},
                  {ZPROP_STORE_CHECKED, "|"},
                  {ZPROP_STORE_SAFE, "fopen(w) 13|fopen(w) 13"}};  // no room for a journal
    for (const auto& c : kCases) {
        const TempFolder folder;
        const string path = folder.write("f", "[s]\nk = 1\n");
        chmod(path.c_str(), 0666);
        chmod((folder / "").c_str(), 0555);
        EXPECT_EQ(asNobody([&] { return storeAndUpdate(path, c.mode); }), c.expected);
        EXPECT_EQ(TempFolder::read(path),
                  c.mode == ZPROP_STORE_SAFE ? "[s]\nk = 1\n" : "[s]\nk = 3\n");
        chmod(path.c_str(), 0444);
        EXPECT_EQ(asNobody([&] { return storeAndUpdate(path, c.mode); }),
                  "access() 13|fopen(r+) 13");
        chmod((folder / "").c_str(), 0755);
    }
}

TEST(Meeting, AReadOnlyMount) {
    const TempFolder folder;
    const string path = folder.write("f", "[s]\nk = 1\n"), place = folder / "";
    const bool mounted = mount(place.c_str(), place.c_str(), nullptr, MS_BIND, nullptr) == 0;
    if (!mounted)
        GTEST_SKIP() << "may not mount here";
    if (mount(nullptr, place.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) == 0)
        for (int mode : kModes) {
            EXPECT_EQ(storeAndUpdate(path, mode), "access() 30|fopen(r+) 30");
            EXPECT_EQ(TempFolder::read(path), "[s]\nk = 1\n");
        }
    umount(place.c_str());
}

}  // namespace
