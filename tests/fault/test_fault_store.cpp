// Checked and safe stores where each system call of theirs fails once, or from some time on, and where
// memory runs out. System calls are led to the functions below by the linker (--wrap).
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "Z/ZExceptionText.h"
#include "Z/ZPropertiesUpdate.h"
#include "Z/ZPropertiesWatcher.h"
#include "Z/ZStanzaFileProperties.h"
#include "support/FailingAllocator.h"
#include "support/FileState.h"
#include "support/TempFolder.h"
#include "support/Wrapped.h"

using std::string;

// ---------------------------------------------------------------- failing system calls

namespace {

// Thousands of syncs: on a disk they would take minutes.
const int kInMemory =
    access("/dev/shm", W_OK | X_OK) == 0 ? setenv("TMPDIR", "/dev/shm", 1) : 0;

// fullDisk: from the n-th write on, none that needs more room goes through.
enum Extent { never, once, onward, shortWrites, fullDisk };

Extent extent = never;
int countdown;        // 1: the next call
int failureCode;
bool isDone;          // what fails is done all the same
bool hasFailed;
ino_t stanzaFile;     // whose first overwritten byte is noted
int64_t oldSize;      // its size
bool overwritten;
string failedCalls;
string* order;        // where the steps of a store are noted; null: nowhere

void note(const char* step) {
    if (order != nullptr)
        *order += step;
}

bool failsNow(const char* call) {
    // No file system of the test's has to be full: what can't promise room finds out when it writes.
    if (extent == fullDisk && strncmp(call, "fallocate", 9) == 0) {
        errno = EOPNOTSUPP;
        return true;
    }
    if (extent == never || extent == shortWrites || extent == fullDisk || --countdown > 0)
        return false;
    if (countdown < 0 && extent == once)
        return false;
    if (!hasFailed)
        failedCalls = call;
    hasFailed = true;
    errno = failureCode;
    return true;
}

// Whose status has the width that this file is built for; zeros if there is none.
struct stat statusOf(int file) {
    const Extent before = extent;
    extent = never;
    struct stat status = {};
    fstat(file, &status);
    extent = before;
    return status;
}
ino_t inodeOf(int file) { return statusOf(file).st_ino; }

// Lets the n-th call fail, in a scope.
class FailCalls {
public:
    FailCalls(Extent how, int nth, int code, bool done = false) {
        countdown = nth, failureCode = code, hasFailed = false, overwritten = false, isDone = done;
        extent = how;
    }
    ~FailCalls() {
        extent = never;
        isDone = false;
    }
};

}  // namespace

#define WRAP_AND(also, name, parameters, arguments)         \
    extern "C" int REAL(name) parameters;                   \
    extern "C" int WRAPPED(name) parameters {               \
        also;                                               \
        const bool fails = failsNow(#name);                 \
        const int result = !fails || isDone ? REAL(name) arguments : -1; \
        if (fails)                                          \
            errno = failureCode;                            \
        return fails ? -1 : result;                         \
    }
#define WRAP(name, parameters, arguments) WRAP_AND(, name, parameters, arguments)

WRAP(access, (const char* path, int mode), (path, mode))
WRAP(FSTAT, (int file, void* status), (file, status))
WRAP(STAT, (const char* path, void* status), (path, status))
WRAP(FTRUNCATE, (int file, int64_t length), (file, length))
WRAP(FSTATAT, (int folder, const char* path, void* status, int flags), (folder, path, status, flags))
WRAP_AND(note("room "), FALLOCATE,
         (int file, int mode, int64_t at, int64_t size), (file, mode, at, size))
WRAP_AND(note("sync "), fsync, (int file), (file))
WRAP(fdatasync, (int file), (file))
WRAP(sync_file_range, (int file, int64_t at, int64_t size, unsigned flags), (file, at, size, flags))
WRAP_AND(note("rename "), renameat, (int from, const char* name, int to, const char* newName),
         (from, name, to, newName))
WRAP_AND(note(faccessat(folder, name, F_OK, 0) == 0 ? "unlink " : ""), unlinkat,
         (int folder, const char* name, int flags), (folder, name, flags))
WRAP(fchown, (int file, uid_t user, gid_t group), (file, user, group))
WRAP(fchmod, (int file, mode_t mode), (file, mode))

extern "C" int REAL(close)(int);
extern "C" int WRAPPED(close)(int file) {
    const int real = REAL(close)(file);  // a close that fails has closed all the same
    return failsNow("close") ? -1 : real;
}

WRAP_OPEN
WRAP_OPENAT
WRAP_FCNTL(command == F_OFD_SETLK)

extern "C" ssize_t REAL(PREAD)(int, void*, size_t, int64_t);
extern "C" ssize_t WRAPPED(PREAD)(int file, void* to, size_t size, int64_t at) {
    return failsNow("pread") ? -1 : REAL(PREAD)(file, to, size, at);
}

extern "C" ssize_t REAL(PWRITE)(int, const void*, size_t, int64_t);
extern "C" ssize_t WRAPPED(PWRITE)(int file, const void* from, size_t size, int64_t at) {
    const bool needsRoom = at + static_cast<int64_t>(size) > statusOf(file).st_size;
    if (extent == fullDisk && --countdown <= 0 && needsRoom) {
        failedCalls = "pwrite";
        hasFailed = true;
        errno = ENOSPC;
        return -1;
    }
    if (failsNow("pwrite")) {
        if (isDone)
            REAL(PWRITE)(file, from, size, at);
        errno = failureCode;
        return -1;
    }
    const ssize_t put =
        REAL(PWRITE)(file, from, extent == once || extent == shortWrites ? (size + 2) / 3 : size, at);
    if (put > 0 && inodeOf(file) == stanzaFile) {
        overwritten = true;
        note("text ");
    } else {
        note("other ");
    }
    return put;
}

namespace {

// ---------------------------------------------------------------- what a store has left

// A file with or without a side database, an object that has other values for both, and what each of
// the two contents is.
struct Scene {
    const bool hidden;
    TempFolder folder;
    string path = folder / "f", filler = string(700, '#');
    ZStanzaFileProperties p{1};

    Scene(int mode, bool withHidden, bool startsHidden) : hidden(withHidden) {
        ZStanzaFileProperties first(1);
        first.setValue("s", "k", "1");
        first.addFileComment(filler.c_str());
        if (startsHidden)
            first.setValue("s", "h", "old", 1);
        first.store(path.c_str());
        p.setStoreMode(mode);
        p.setAttributes(ZPCACHE_KEEP_LINES, nullptr);
        p.load(path.c_str());
        p.setValue("s", "k", "2");
        p.setValue("t", "more", filler.c_str());
        if (withHidden)
            p.setValue("s", "h", "new", 1);
        else if (startsHidden)
            p.deleteKey("s", "h");
        const int file = open(path.c_str(), O_RDONLY);
        stanzaFile = inodeOf(file);
        oldSize = lseek(file, 0, SEEK_END);
        close(file);
    }

    static string valueIn(ZProperties& p, const char* key) {
        ZLCString out;
        p.getValue("s", key, out, 0, "-");
        return out.getChars();
    }
    string content(int mode = ZPROP_STORE_PLAIN) const {
        ZStanzaFileProperties now(1);
        now.setStoreMode(mode);
        try {
            now.load(path.c_str());
        } catch (ZException&) {
            return "none";
        }
        return valueIn(now, "k") + valueIn(now, "h") + (now.exists("t") ? "t" : "");
    }
    // Whether nothing lies about that doesn't belong there.
    bool isTidy() const {
        bool tidy = true;
        DIR* open = opendir((folder / "").c_str());
        while (const dirent* entry = readdir(open)) {
            const string name = entry->d_name;
            tidy = tidy && (name[0] == '.' || name == "f" || (name == "f.obf"));
        }
        closedir(open);
        return tidy;
    }
    void store(bool byUpdate) {
        if (!byUpdate) {
            p.store(nullptr);
            return;
        }
        p.reload(nullptr);
        ZPropertiesUpdate update(p, 0);
        p.setValue("s", "k", "2");
        p.setValue("t", "more", filler.c_str());
        if (hidden)
            p.setValue("s", "h", "new", 1);
        else
            p.deleteKey("s", "h");
        update.commit();
    }
};

struct Variant {
    const char* what;
    bool hidden, startsHidden;
};
const Variant kVariants[] = {{"no side database", false, false},
                             {"a new one", true, false},
                             {"another one", true, true},
                             {"no more", false, true}};

// Lets each call of a store fail, one store after the other, until one goes through. Returns how many
// failed.
int failEachCall(int mode, const Variant& v, Extent how, int code, bool done = false) {
    static int failures = 0;
    int forward = 0;  // failures that left the new content, behind the last step that can be undone
    for (int nth = 1;; ++nth) {
        Scene scene(mode, v.hidden, v.startsHidden);
        const string oldContent = scene.content();
        const string newContent = v.hidden ? "2newt" : "2-t";
        const int descriptors = openDescriptors();
        string failure;
        bool failed;
        {
            FailCalls fail(how, nth, code, done);
            try {
                scene.p.store(nullptr);
            } catch (ZPropertiesIOException& e) {
                failure = string(e.api()) + " " + std::to_string(e.excerrno());
            }
            failed = hasFailed;
        }
        SCOPED_TRACE(string(v.what) + ", " + std::to_string(nth) + ": " + failedCalls + ", raised " +
                     failure);
        EXPECT_EQ(openDescriptors(), descriptors);
        const string content = scene.content();
        EXPECT_EQ(scene.p.isModified() != 0, !failure.empty());
        const bool isForward = !failure.empty() && content == newContent;
        forward += isForward;
        // Where all calls fail from some time on, nothing can be put back.
        const bool isLost = how == onward && mode == ZPROP_STORE_CHECKED && overwritten;
        if (!isForward && !isLost) {
            EXPECT_EQ(content, failure.empty() ? newContent : oldContent);
        }
        EXPECT_TRUE(scene.isTidy() || how == onward || isForward);
        // No lock is left, and the object goes on.
        scene.p.store(nullptr);
        EXPECT_EQ(scene.content(ZPROP_STORE_SAFE), newContent);
        EXPECT_TRUE(scene.isTidy());
        if (!failed || ::testing::Test::HasFailure()) {
            EXPECT_LE(forward, how == onward ? nth : 10);
            failures += nth - 1;
            printf("%d failing calls\n", failures);
            return nth - 1;
        }
    }
}

TEST(FaultStore, EachCallFailsOnce) {
    for (int mode : {ZPROP_STORE_CHECKED, ZPROP_STORE_SAFE})
        for (const Variant& v : kVariants)
            for (int code : {ENOSPC, EIO, EDQUOT, EINTR})
                EXPECT_GT(failEachCall(mode, v, once, code), mode == ZPROP_STORE_SAFE ? 30 : 15);
}

TEST(FaultStore, EachCallAndAllAfterItFail) {
    for (int mode : {ZPROP_STORE_CHECKED, ZPROP_STORE_SAFE})
        for (const Variant& v : kVariants)
            for (int code : {ENOSPC, EINTR})
                failEachCall(mode, v, onward, code);
}

TEST(FaultStore, EachCallIsDoneAndToldAsFailed) {
    for (int mode : {ZPROP_STORE_CHECKED, ZPROP_STORE_SAFE})
        for (const Variant& v : kVariants)
            EXPECT_GT(failEachCall(mode, v, once, EIO, true), 15);
    // Nobody can be asked either.
    for (const Variant& v : kVariants)
        failEachCall(ZPROP_STORE_SAFE, v, onward, EINTR, true);
}

TEST(FaultStore, AFullDiskHasRoomForTheOldContent) {
    for (const Variant& v : kVariants)
        EXPECT_GT(failEachCall(ZPROP_STORE_SAFE, v, fullDisk, ENOSPC), 3);
}

TEST(FaultStore, AFileThatCouldntBeMadeIsntLeft) {
    for (int mode : {ZPROP_STORE_CHECKED, ZPROP_STORE_SAFE}) {
        bool failed = true;
        int kept = 0;  // what fails behind the last step that can be undone
        for (int nth = 1; failed; ++nth) {
            Scene scene(mode, true, false);
            unlink(scene.path.c_str());
            stanzaFile = 0;
            bool raised = false;
            {
                FailCalls fail(once, nth, EIO);
                try {
                    scene.p.store(nullptr);
                } catch (ZPropertiesIOException&) {
                    raised = true;
                }
                failed = hasFailed;
            }
            const bool isKept = raised && scene.content() == "2newt";
            kept += isKept;
            if (!isKept) {
                EXPECT_EQ(scene.content(), raised ? "none" : "2newt") << nth << ": " << failedCalls;
                EXPECT_TRUE(scene.isTidy());
            }
        }
        EXPECT_LE(kept, 10);
    }
}

TEST(FaultStore, ShortWritesGoOn) {
    for (int mode : {ZPROP_STORE_CHECKED, ZPROP_STORE_SAFE})
        for (const Variant& v : kVariants)
            EXPECT_EQ(failEachCall(mode, v, shortWrites, 0), 0);
}

// What a power cut would leave can't be tried here; the order on which it depends can: the journal and
// its folder are on the disk ahead of the first byte in place, the text ahead of the side database, and
// all that before the journal goes.
TEST(FaultStore, SafeStoresSyncInOrder) {
    // Beside the text: header and parts of the journal, the side database, marks.
    const char* const kOrders[] = {
        "room other other other sync sync text other sync other unlink ",
        "room other other other other sync sync other sync text other sync other rename sync unlink ",
        "room other other other other sync sync other sync text other sync other rename sync unlink ",
        "room other other other sync sync text other sync other unlink sync unlink "};
    for (int i = 0; i < 4; ++i) {
        Scene scene(ZPROP_STORE_SAFE, kVariants[i].hidden, kVariants[i].startsHidden);
        string steps;
        order = &steps;
        scene.p.store(nullptr);
        EXPECT_EQ(steps, kOrders[i]) << kVariants[i].what;
        steps.clear();
        scene.p.store(nullptr);  // nothing to do
        EXPECT_EQ(steps, "sync ");
        order = nullptr;
    }
    // A checked one makes room, and syncs nothing.
    Scene scene(ZPROP_STORE_CHECKED, true, false);
    string steps;
    order = &steps;
    scene.p.store(nullptr);
    order = nullptr;
    EXPECT_EQ(steps, "room other text rename ");
}

// ---------------------------------------------------------------- failing memory

// The content after the n-th allocation of `road` has failed: old or new, and the object works.
template <typename Road>
void failEachAllocationOf(int mode, Road road) {
    for (const Variant& v : kVariants) {
        SCOPED_TRACE(v.what);
        bool failed = true;
        for (unsigned long nth = 1; failed; ++nth) {
            SCOPED_TRACE(nth);
            Scene scene(mode, v.hidden, v.startsHidden);
            const string oldContent = scene.content(), newContent = v.hidden ? "2newt" : "2-t";
            const int descriptors = openDescriptors();
            const bool raised = endsWithoutMemory([&] { road(scene); }, nth);
            failed = FailAllocations::asked() >= nth;
            EXPECT_TRUE(failed || !raised);
            EXPECT_EQ(openDescriptors(), descriptors);
            EXPECT_EQ(scene.content(), raised ? oldContent : newContent);
            EXPECT_TRUE(scene.isTidy());
            scene.p.reload(scene.path.c_str());
            scene.store(true);
            EXPECT_EQ(scene.content(), newContent);
            if (::testing::Test::HasFailure())
                return;
        }
    }
}

TEST(FaultStoreMemory, AStoreThatRunsOutLeavesTheOldContent) {
    for (int mode : {ZPROP_STORE_CHECKED, ZPROP_STORE_SAFE})
        failEachAllocationOf(mode, [](Scene& scene) { scene.store(false); });
}

TEST(FaultStoreMemory, AnUpdateThatRunsOutLeavesTheOldContent) {
    failEachAllocationOf(ZPROP_STORE_SAFE, [](Scene& scene) { scene.store(true); });
}

TEST(FaultStoreMemory, NothingLeaks) {
    Scene scene(ZPROP_STORE_SAFE, true, true);
    static const char* path;
    path = scene.path.c_str();
    ZInvalidParameterException().print();  // what reports need once is made now
    EXPECT_GT(failEachAllocation([] {
        ZStanzaFileProperties p(1);
        p.setStoreMode(ZPROP_STORE_SAFE);
        p.setAttributes(ZPCACHE_KEEP_LINES, nullptr);
        p.load(path);
        ZPropertiesWatcher watcher(p);
        {
            ZPropertiesUpdate update(p, 0);
            p.setValue("s", "h", "a", 1);
            update.commit();
        }
        {
            ZPropertiesUpdate update(p, 0);
            p.setValue("s", "h", "b", 1);
        }
        watcher.process();
    }), 50u);
}

}  // namespace
