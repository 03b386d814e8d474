// Processes that are killed at each system call of a safe store, and of the store that mends what
// the first has left: what is loaded then is the old or the new content, and nothing else.
//
// With ZBASE_FULL set, at all of them; else at every third, and in every fifth of what those leave:
// a fork takes long under the sanitizers.
//
// A child stops itself ahead of the store; its parent counts its system calls from there on, their
// beginnings and ends, and kills it at the n-th.
#include "support/Prelude.h"

#include <signal.h>
#include <sys/ptrace.h>

#include <set>
#include <tuple>

#include "Z/ZLayers.h"
#include "Z/ZPropertiesUpdate.h"
#include "support/FaultScene.h"
#include "support/SelfChild.h"

using std::string;

namespace {

const bool kFull = getenv("ZBASE_FULL") != nullptr;

enum Outcome { killed, wentThrough, cantTrace };

// Lets `action` run in a child and kills it at the n-th stop behind its raise(SIGSTOP).
Outcome killAt(int nth, const std::function<void()>& action) {
    const pid_t child = startChild([&] {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
            return 3;
        action();
        return 0;
    });
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

// All that a killed process leaves: the files' content, and the text's time.
struct Files {
    string text, side, journal, temporary;
    timespec modified;
    bool operator<(const Files& other) const {
        return std::tie(text, side, journal, temporary) <
               std::tie(other.text, other.side, other.journal, other.temporary);
    }
};

Files filesOf(const Scene& scene) {
    struct stat status = {};
    stat(scene.path.c_str(), &status);
    return {TempFolder::read(scene.path), TempFolder::read(scene.side),
            TempFolder::read(scene.path + ".zjournal"), TempFolder::read(scene.side + ".ztmp"),
            status.st_mtim};
}

void put(const Scene& scene, const Files& files) {
    // The text stays the same file with the same time: the journal knows both.
    scene.folder.write("f", files.text);
    const timespec times[] = {files.modified, files.modified};
    utimensat(AT_FDCWD, scene.path.c_str(), times, 0);
    const std::pair<const char*, string> others[] = {
        {"f.obf", files.side}, {"f.zjournal", files.journal}, {"f.obf.ztmp", files.temporary}};
    for (const auto& [name, content] : others) {
        unlink((scene.folder / name).c_str());
        if (content != "<none>")
            scene.folder.write(name, content);
    }
}

// A safe store, by a process that stops ahead of it to be traced.
void store(const Scene& scene, const char* value, bool stops) {
    Config p(scene.path, kSafe, ZPCACHE_KEEP_LINES);
    if (stops)
        raise(SIGSTOP);
    scene.store(p, value);
}

// Kills a store of `value` at each `step`-th stop. What is loaded then must be one of `allowed`.
// Collects what lay there, and the number of kills.
void sweep(const Scene& scene, const Files& start, const char* value,
           const std::set<string>& allowed, int step, std::set<Files>& left, int& kills) {
    for (int nth = 0;; nth += step) {
        put(scene, start);
        const Outcome outcome = killAt(nth, [&] { store(scene, value, true); });
        ASSERT_NE(outcome, cantTrace) << "this machine doesn't let a process trace its child";
        const Files now = filesOf(scene);
        const string content = scene.content();
        if (outcome == wentThrough) {
            EXPECT_EQ(content, value);
            EXPECT_TRUE(scene.isTidyWith(value));
            return;
        }
        ++kills;
        ASSERT_TRUE(allowed.count(content)) << "kill " << nth << ": " << content;
        if (!left.insert(now).second)
            continue;
        // Nobody has to clean up: the next one simply stores.
        store(scene, "next", false);
        ASSERT_EQ(scene.content(), "next") << "after kill " << nth;
        ASSERT_TRUE(scene.isTidyWith("next"));
    }
}

TEST(FaultKill, EachCallOfASafeStoreAndOfTheOneThatMendsIt) {
    // Emulated programs can't be traced. A kernel that only forbids it is a failure.
    if (inChild([] { return ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0 ? 0 : errno; }) ==
        ENOSYS)
        GTEST_SKIP() << "nothing can be traced here";
    int kills = 0;
    size_t states = 0;
    std::vector<Variant> variants(std::begin(kVariants), std::end(kVariants));
    variants.push_back({"an update", true, true, true});
    for (const Variant& v : variants) {
        SCOPED_TRACE(v.what);
        const Scene scene(v);
        const Files start = filesOf(scene);
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
            put(scene, state);
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

// Each call of an edit that makes a drop-in with its folder: it is there whole or not at all to who
// reads, and in nobody's way who edits.
TEST(FaultKill, EachCallOfAnEditThatMakesADropIn) {
    if (inChild([] { return ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0 ? 0 : errno; }) ==
        ENOSYS)
        GTEST_SKIP() << "nothing can be traced here";
    for (int nth = 0, isDone = 0; isDone == 0; ++nth) {
        const TempFolder folder;
        std::filesystem::create_directories(folder / "usr");
        folder.write("usr/app.conf", "[s]\na = old\n");
        static const char* const kRoots[] = {"/usr", "/etc", nullptr};
        const string prefix = folder / "";
        ZLayersTerms terms = {};
        terms.size = sizeof terms;
        terms.name = "app";
        terms.prefix = prefix.c_str();
        terms.roots = kRoots;
        const auto edit = [&](const char* value, bool stops) {
            ZLayers layers(terms);
            layers.setTarget("/etc", "50.conf");
            if (stops)
                raise(SIGSTOP);
            ZPropertiesUpdate update(layers, 0);
            layers.setValue("s", "a", value);
            update.commit();
        };
        const auto value = [&] {
            ZLCString out;
            ZLayers(terms).getValue("s", "a", out, 1, nullptr);
            return string(out.getChars());
        };
        const Outcome outcome = killAt(nth, [&] { edit("new", true); });
        ASSERT_NE(outcome, cantTrace) << "this machine doesn't let a process trace its child";
        isDone = outcome == wentThrough;
        if (value() != "old" || isDone) {
            ASSERT_EQ(value(), "new") << "kill " << nth;
        }
        edit("next", false);
        ASSERT_EQ(value(), "next") << "after kill " << nth;
    }
}

}  // namespace
