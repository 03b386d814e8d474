// Processes that are killed at each system call of a safe store, and of the store that mends what the
// first has left: what is loaded then is the old or the new content, and nothing else.
//
// With ZBASE_FULL set, at all of them; else at every third, and in every fifth of what those leave: a
// fork takes long under the sanitizers.
//
// A child stops itself ahead of the store; its parent counts its system calls from there on, their
// beginnings and ends, and kills it at the n-th.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "Z/ZExceptionText.h"
#include "Z/ZPropertiesUpdate.h"
#include "Z/ZStanzaFileProperties.h"
#include "support/TempFolder.h"

using std::string;

namespace {

// Thousands of syncs: on a disk they would take minutes. A process that is killed leaves the system
// what it has written, synced or not.
const int kInMemory =
    access("/dev/shm", W_OK | X_OK) == 0 ? setenv("TMPDIR", "/dev/shm", 1) : 0;

const bool kFull = getenv("ZBASE_FULL") != nullptr;

enum Outcome { killed, wentThrough, cantTrace };

// Lets `action` run in a child and kills it at the n-th stop behind its raise(SIGSTOP).
Outcome killAt(int nth, const std::function<void()>& action) {
    const pid_t child = fork();
    if (child == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
            _exit(3);
        action();
        _exit(0);
    }
    int status;
    waitpid(child, &status, 0);
    if (WIFEXITED(status))
        return cantTrace;
    for (int stops = 0; WIFSTOPPED(status); ++stops) {
        if (stops == nth) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            return killed;
        }
        ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
        waitpid(child, &status, 0);
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    return wentThrough;
}

struct Variant {
    const char* what;
    bool hidden, startsHidden, byUpdate;
};
const Variant kVariants[] = {{"no side database", false, false, false},
                             {"a new one", true, false, false},
                             {"another one", true, true, false},
                             {"no more", false, true, false},
                             {"an update", true, true, true}};

// All that a killed process leaves: the files' content, and the text's time.
struct Files {
    string text, side, journal, temporary;
    timespec modified;
    bool operator<(const Files& other) const {
        return std::tie(text, side, journal, temporary) <
               std::tie(other.text, other.side, other.journal, other.temporary);
    }
};

class Scene {
public:
    explicit Scene(const Variant& variant) : variant_(variant) {
        ZStanzaFileProperties first(1);
        first.addFileComment(string(3000, '#').c_str());
        change(first, "old", variant.startsHidden);
        first.store(path_.c_str());
    }

    static void change(ZStanzaFileProperties& p, const char* value, bool hidden) {
        p.setValue("s", "k", value);
        p.setValue("t", "same", value);
        p.setValue("u", value, "1");
        if (hidden)
            p.setValue("s", "h", value, 1);
        else if (p.exists("s", "h"))
            p.deleteKey("s", "h");
    }

    // A safe store of other values.
    void store(const char* value, bool hidden, bool stops) const {
        ZStanzaFileProperties p(1);
        p.setStoreMode(ZPROP_STORE_SAFE);
        p.setAttributes(ZPCACHE_KEEP_LINES, nullptr);
        p.load(path_.c_str());
        if (!variant_.byUpdate)
            change(p, value, hidden);
        if (stops)
            raise(SIGSTOP);
        if (!variant_.byUpdate) {
            p.store(nullptr);
            return;
        }
        ZPropertiesUpdate update(p, 0);
        change(p, value, hidden);
        update.commit();
    }

    // The value that all of the content says, or what is wrong with it.
    string content() const {
        ZStanzaFileProperties p(1);
        p.setStoreMode(ZPROP_STORE_CHECKED);
        try {
            p.load(path_.c_str());
        } catch (ZPropertiesIOException& e) {
            return string("can't be loaded: ") + e.api();
        } catch (ZPropertiesInvalidDataException& e) {
            return "bad data";
        }
        ZLCString k, same, h;
        p.getValue("s", "k", k, 0, "none");
        p.getValue("t", "same", same, 0, "none");
        p.getValue("s", "h", h, 0, "none");
        const string value = k.getChars(), side = h.getChars();
        const bool hidden = value == "old" ? variant_.startsHidden : variant_.hidden;
        return value == same.getChars() && side == (hidden ? value : "none") &&
                       p.exists("u", value.c_str())
                   ? value
                   : "torn: " + value + " " + same.getChars() + " " + side;
    }

    Files files() const {
        struct stat status = {};
        stat(path_.c_str(), &status);
        return {TempFolder::read(path_), TempFolder::read(path_ + ".obf"),
                TempFolder::read(path_ + ".zjournal"), TempFolder::read(path_ + ".obf.ztmp"),
                status.st_mtim};
    }
    // The text stays the same file with the same time: the journal knows both.
    void put(const Files& files) const {
        folder_.write("f", files.text);
        const timespec times[] = {files.modified, files.modified};
        utimensat(AT_FDCWD, path_.c_str(), times, 0);
        put("f.obf", files.side), put("f.zjournal", files.journal);
        put("f.obf.ztmp", files.temporary);
    }

    bool hidden() const { return variant_.hidden; }

private:
    void put(const string& name, const string& content) const {
        unlink((folder_ / name).c_str());
        if (content != "<none>")
            folder_.write(name, content);
    }

    const Variant variant_;
    TempFolder folder_;
    const string path_ = folder_ / "f";
};

// Kills a store of `value` at each `step`-th stop. What is loaded then must be one of `allowed`. Collects what lay
// there, and the number of kills.
void sweep(const Scene& scene, const Files& start, const char* value,
           const std::set<string>& allowed, int step, std::set<Files>& left, int& kills) {
    for (int nth = 0;; nth += step) {
        scene.put(start);
        const Outcome outcome = killAt(nth, [&] { scene.store(value, scene.hidden(), true); });
        ASSERT_NE(outcome, cantTrace) << "this machine doesn't let a process trace its child";
        const Files now = scene.files();
        const string content = scene.content();
        if (outcome == wentThrough) {
            EXPECT_EQ(content, value);
            EXPECT_EQ(now.journal, "<none>");
            EXPECT_EQ(now.temporary, "<none>");
            return;
        }
        ++kills;
        ASSERT_TRUE(allowed.count(content)) << "kill " << nth << ": " << content;
        if (!left.insert(now).second)
            continue;
        // Nobody has to clean up: the next one simply stores.
        scene.store("next", scene.hidden(), false);
        ASSERT_EQ(scene.content(), "next") << "after kill " << nth;
        ASSERT_EQ(scene.files().journal, "<none>");
        ASSERT_EQ(scene.files().temporary, "<none>");
    }
}

TEST(FaultKill, EachCallOfASafeStoreAndOfTheOneThatMendsIt) {
    int kills = 0;
    size_t states = 0;
    for (const Variant& v : kVariants) {
        SCOPED_TRACE(v.what);
        const Scene scene(v);
        const Files start = scene.files();
        std::set<Files> left;
        sweep(scene, start, "new", {"old", "new"}, kFull ? 1 : 3, left, kills);
        if (HasFatalFailure())
            return;
        EXPECT_GT(left.size(), 4u);
        states += left.size();
        int number = 0;
        for (const Files& state : left) {
            const bool isPlain = state.journal == "<none>" && state.temporary == "<none>";
            if (isPlain || (!kFull && ++number % 5 != 0))
                continue;
            scene.put(state);
            const string content = scene.content();
            std::set<Files> leftAgain;
            // "next" has the new kind of hidden value.
            sweep(scene, state, "next", {content, "next"}, kFull ? 1 : 3, leftAgain, kills);
            if (HasFatalFailure())
                return;
        }
    }
    RecordProperty("kills", kills);
    printf("%d kills, %zu different states left by stores: old or new content after each\n", kills,
           states);
}

}  // namespace
