// Loads and stores where the system refuses: for checked and safe stores each system call of
// theirs, once or from some time on; and where memory runs out. System calls are led to the
// functions below by the linker (--wrap).
#include "support/Prelude.h"

#include "Z/ZBuffer.h"
#include "Z/ZPropertiesWatcher.h"
#include "support/FailingAllocator.h"
#include "support/FaultScene.h"
#include "support/FileState.h"
#include "support/Raised.h"
#include "support/Wrapped.h"

using std::string;

// ---------------------------------------------------------------- failing system calls

namespace {

// fullDisk: from the n-th write on, none that needs more room goes through. noMemory: no call
// fails, but the n-th allocation.
enum Extent { never, once, onward, shortWrites, fullDisk, noMemory };

Extent extent = never;
const char* failing;  // the call that counts, whatever it is called for big files; null: all do
int countdown;        // 1: the next call
int failureCode;
bool isDone;  // what fails is done all the same
bool hasFailed;
ino_t stanzaFile;  // whose first overwritten byte is noted
bool overwritten;
string failedCalls;
string* order;  // where the steps of a store are noted; null: nowhere

void note(const char* step) {
    if (order != nullptr)
        *order += step;
}

bool failsNow(const char* call) {
    // No file system of the test's has to be full: what can't promise room finds out when it
    // writes.
    if (extent == fullDisk && strcmp(call, "fallocate") == 0) {
        errno = EOPNOTSUPP;
        return true;
    }
    if ((extent != once && extent != onward) || (failing != nullptr && strcmp(call, failing) != 0))
        return false;
    if (--countdown > 0 || (countdown < 0 && extent == once))
        return false;
    if (!hasFailed)
        failedCalls = call;
    hasFailed = true;
    errno = failureCode;
    return true;
}

// What loads and streams need fails only where it is asked for by name.
bool failsByName(const char* call) { return failing != nullptr && failsNow(call); }

// Lets the n-th call fail, in a scope; or the n-th of this name.
class FailCalls {
public:
    FailCalls(Extent how, int nth, int code, bool done = false) {
        countdown = nth, failureCode = code, hasFailed = false, overwritten = false, isDone = done;
        extent = how;
    }
    FailCalls(const char* call, int nth, int code) : FailCalls(once, nth, code) { failing = call; }
    ~FailCalls() {
        extent = never;
        failing = nullptr;
        isDone = false;
    }
};

// Whose status has the width that this file is built for; zeros if there is none.
struct stat statusOf(int file) {
    const Extent before = extent;
    extent = never;
    struct stat status = {};
    fstat(file, &status);
    extent = before;
    return status;
}

}  // namespace

#define WRAP(call, also, name, parameters, arguments)                    \
    extern "C" int REAL(name) parameters;                                \
    extern "C" int WRAPPED(name) parameters {                            \
        also;                                                            \
        const bool fails = failsNow(call);                               \
        const int error = errno;                                         \
        const int result = !fails || isDone ? REAL(name) arguments : -1; \
        if (fails)                                                       \
            errno = error;                                               \
        return fails ? -1 : result;                                      \
    }
#define WRAP_BY_NAME(call, Result, failed, name, parameters, arguments) \
    extern "C" Result REAL(name) parameters;                            \
    extern "C" Result WRAPPED(name) parameters {                        \
        return failsByName(call) ? failed : REAL(name) arguments;       \
    }

WRAP("access", , access, (const char* path, int mode), (path, mode))
WRAP("fstat", , FSTAT, (int file, void* status), (file, status))
WRAP("stat", , STAT, (const char* path, void* status), (path, status))
WRAP("ftruncate", , FTRUNCATE, (int file, int64_t length), (file, length))
WRAP("fstatat", , FSTATAT, (int folder, const char* path, void* status, int flags),
     (folder, path, status, flags))
WRAP("fallocate", note("room "), FALLOCATE, (int file, int mode, int64_t at, int64_t size),
     (file, mode, at, size))
WRAP("fsync", note("sync "), fsync, (int file), (file))
WRAP("fdatasync", , fdatasync, (int file), (file))
WRAP("sync_file_range", , sync_file_range, (int file, int64_t at, int64_t size, unsigned flags),
     (file, at, size, flags))
WRAP("renameat", note("rename "), renameat,
     (int from, const char* name, int to, const char* newName), (from, name, to, newName))
WRAP("unlinkat", note(faccessat(folder, name, F_OK, 0) == 0 ? "unlink " : ""), unlinkat,
     (int folder, const char* name, int flags), (folder, name, flags))
WRAP("fchown", , fchown, (int file, uid_t user, gid_t group), (file, user, group))
WRAP("fchmod", , fchmod, (int file, mode_t mode), (file, mode))
WRAP_BY_NAME("fopen", FILE*, nullptr, FOPEN, (const char* path, const char* mode), (path, mode))
WRAP_BY_NAME("read", ssize_t, -1, read, (int file, void* to, size_t size), (file, to, size))
WRAP_BY_NAME("fflush", int, EOF, fflush, (FILE * f), (f))
WRAP_OPEN
WRAP_OPENAT
// Units for big files say F_SETLK64 where that differs.
WRAP_FCNTL(command == F_OFD_SETLK || command == F_SETLK || command == F_SETLK64)

// A close that fails has closed all the same.
extern "C" int REAL(close)(int);
extern "C" int WRAPPED(close)(int file) {
    const int real = REAL(close)(file);
    return failsNow("close") ? -1 : real;
}
extern "C" int REAL(fclose)(FILE*);
extern "C" int WRAPPED(fclose)(FILE* f) {
    const int real = REAL(fclose)(f);
    return failsByName("fclose") ? EOF : real;
}

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
    const bool isShort = extent == once || extent == shortWrites;
    const ssize_t put = REAL(PWRITE)(file, from, isShort ? (size + 2) / 3 : size, at);
    const bool isText = put > 0 && statusOf(file).st_ino == stanzaFile;
    overwritten = overwritten || isText;
    note(isText ? "text " : "other ");
    return put;
}

namespace {

// ---------------------------------------------------------------- what a store has left

// With an object that has the new content, yet to be stored.
struct Storing : Scene {
    Config p;
    Storing(int mode, const Variant& v) : Scene(v), p(path, mode, ZPCACHE_KEEP_LINES) {
        change(p, "new");
        const int file = open(path.c_str(), O_RDONLY);
        stanzaFile = statusOf(file).st_ino;
        close(file);
    }
};

// Lets each call of a store fail, one store after the other, until one goes through. Returns how
// many failed. `makes`: the stores make the file.
int failEachCall(int mode, const Variant& v, Extent how, int code, bool done = false,
                 bool makes = false) {
    static int failures = 0;
    int forward = 0;  // failures that left the new content, behind the last step that can be undone
    for (int nth = 1;; ++nth) {
        Storing scene(mode, v);
        if (makes)
            unlink(scene.path.c_str());
        if (v.byUpdate)
            scene.p.reload(nullptr);
        const auto store = [&] {
            v.byUpdate ? scene.store(scene.p, "new") : scene.p.store(nullptr);
        };
        const int descriptors = openDescriptors();
        string failure;
        bool failed;
        if (how == noMemory) {
            failure = endsWithoutMemory(store, static_cast<unsigned long>(nth)) ? "no memory" : "";
            failed = FailAllocations::asked() >= static_cast<unsigned long>(nth);
        } else {
            FailCalls fail(how, nth, code, done);
            failure = raised(store);
            failed = hasFailed;
        }
        SCOPED_TRACE(string(v.what) + ", " + std::to_string(nth) + ": " + failedCalls +
                     ", raised " + failure);
        EXPECT_EQ(openDescriptors(), descriptors);
        const string content = scene.content(kPlain);
        EXPECT_EQ(scene.p.isModified() != 0, !failure.empty() && !v.byUpdate);
        const bool isForward = !failure.empty() && content == "new";
        forward += isForward;
        // Where all calls fail from some time on, nothing can be put back.
        const bool isLost = how == onward && mode == kChecked && overwritten;
        if (!isForward && !isLost) {
            EXPECT_EQ(content, failure.empty() ? "new" : makes ? "none" : "old");
        }
        EXPECT_TRUE(scene.isTidy() || how == onward || isForward);
        // No lock is left, and the object goes on.
        store();
        EXPECT_EQ(scene.content(kSafe), "new");
        EXPECT_TRUE(scene.isTidyWith("new"));
        if (!failed || ::testing::Test::HasFailure()) {
            EXPECT_LE(forward, how == onward ? nth : how == noMemory ? 0 : 10);
            failures += nth - 1;
            printf("%d failing calls\n", failures);
            return nth - 1;
        }
    }
}

TEST(FaultStore, EachCallFailsOnce) {
    for (int mode : kCarefulModes)
        for (const Variant& v : kVariants)
            for (int code : {ENOSPC, EIO, EDQUOT, EINTR})
                EXPECT_GT(failEachCall(mode, v, once, code), mode == kSafe ? 30 : 15);
}

TEST(FaultStore, EachCallAndAllAfterItFail) {
    for (int mode : kCarefulModes)
        for (const Variant& v : kVariants)
            for (int code : {ENOSPC, EINTR})
                failEachCall(mode, v, onward, code);
}

TEST(FaultStore, EachCallIsDoneAndToldAsFailed) {
    for (int mode : kCarefulModes)
        for (const Variant& v : kVariants)
            EXPECT_GT(failEachCall(mode, v, once, EIO, true), 15);
    // Nobody can be asked either.
    for (const Variant& v : kVariants)
        failEachCall(kSafe, v, onward, EINTR, true);
}

TEST(FaultStore, ABackupThatFailsLosesNothing) {
    const string text = "[s]\nk = 0\n";
    for (unsigned int count : {1u, 3u}) {
        bool failed = true;
        int raisedOnes = 0;
        for (int nth = 1; failed; ++nth) {
            TempFolder folder;
            Config p(folder.write("f", text));
            for (const char* number : {"1", "2", "3"})
                folder.write(string("f.~") + number + "~", number);
            ZPropertiesUpdate update(p, 0);
            const int descriptors = openDescriptors();
            string failure;
            {
                FailCalls fail(once, nth, EIO);
                failure = raised([&] { p.backUp(count); });
                failed = hasFailed;
            }
            SCOPED_TRACE(std::to_string(nth) + ": " + failedCalls + ", raised " + failure);
            EXPECT_EQ(openDescriptors(), descriptors);
            string found;
            for (const string& name : folder.names())
                found += TempFolder::read(folder / name) + " ";
            const string kept = count == 1 ? " 2 3 " : " 1 2 ";
            EXPECT_EQ(found, text + " " + (failure.empty() ? text + kept : "1 2 3 "));
            if (!failure.empty()) {
                EXPECT_EQ(failure.substr(failure.rfind(' ')), " 5");
            }
            raisedOnes += !failure.empty();
        }
        EXPECT_GT(raisedOnes, count == 1 ? 5 : 9);
    }
}

TEST(FaultStore, AFullDiskHasRoomForTheOldContent) {
    for (const Variant& v : kVariants)
        EXPECT_GT(failEachCall(kSafe, v, fullDisk, ENOSPC), 3);
}

TEST(FaultStore, AFileThatCouldntBeMadeIsntLeft) {
    for (int mode : kCarefulModes)
        EXPECT_GT(failEachCall(mode, kVariants[1], once, EIO, false, true), 15);
}

TEST(FaultStore, ShortWritesGoOn) {
    for (int mode : kCarefulModes)
        for (const Variant& v : kVariants)
            EXPECT_EQ(failEachCall(mode, v, shortWrites, 0), 0);
}

// What a power cut would leave can't be tried here; the order on which it depends can: the journal
// and its folder are on the disk ahead of the first byte in place, the text ahead of the side
// database, and all that before the journal goes.
TEST(FaultStore, SafeStoresSyncInOrder) {
    // Beside the text: header and parts of the journal, the side database, marks.
    const char* const kOrders[] = {
        "room other other other sync sync text other sync other unlink ",
        "room other other other other sync sync other sync text other sync other rename sync "
        "unlink ",
        "room other other other other sync sync other sync text other sync other rename sync "
        "unlink ",
        "room other other other sync sync text other sync other unlink sync unlink "};
    const auto stepsOf = [](Storing& scene) {
        string steps;
        order = &steps;
        scene.p.store(nullptr);
        order = nullptr;
        return steps;
    };
    for (int i = 0; i < 4; ++i) {
        Storing scene(kSafe, kVariants[i]);
        EXPECT_EQ(stepsOf(scene), kOrders[i]) << kVariants[i].what;
        EXPECT_EQ(stepsOf(scene), "sync ");  // nothing to do
    }
    // A checked one makes room, and syncs nothing.
    Storing scene(kChecked, kVariants[1]);
    EXPECT_EQ(stepsOf(scene), "room other text rename ");
}

// ---------------------------------------------------------------- loads and plain stores

struct CallCase {
    const char *what, *call;
    int time, code;
    const char* expected;  // "word errno name" of a (file), s (side), d (folder); null: nothing
};

// Runs `road` with each case's failure, and expects what it says and an object that works.
template <typename Road>
void failCalls(std::initializer_list<CallCase> cases, Road road, bool storesAgain) {
    for (const CallCase& c : cases) {
        SCOPED_TRACE(c.what);
        const Scene scene(kVariants[2]);
        Config p(scene.path);
        p.setValue("u", "old", "9");  // the file gets shorter
        const int before = openDescriptors();
        string failure, expected = c.expected == nullptr ? "" : c.expected;
        {
            FailCalls fail(c.call, c.time, c.code);
            failure = failureOf([&] { road(p, scene); });
            EXPECT_TRUE(hasFailed);
        }
        const string names[] = {scene.path, scene.side,
                                scene.path.substr(0, scene.path.rfind('/'))};
        if (!expected.empty())
            expected.replace(expected.size() - 1, 1, names[string("asd").find(expected.back())]);
        EXPECT_EQ(failure, expected);
        EXPECT_EQ(openDescriptors(), before);
        // No lock is left, and the object goes on.
        if (storesAgain)
            p.store(scene.path.c_str());
        p.reload(scene.path.c_str());
        p.setValue("s", "after", "1");
        p.store((scene.folder / "other").c_str());
    }
}

TEST(FaultCalls, Load) {
    failCalls(
        {
            {"open", "open", 1, ENFILE, "fopen(r) 23 a"},
            {"lock", "fcntl", 1, ENOLCK, "fcntl() 37 a"},
            {"locked by another", "fcntl", 1, EACCES, "fcntl() 13 a"},
            {"a read error isn't told", "read", 1, EIO, nullptr},
            {"close", "close", 1, EIO, nullptr},
            {"open of the side database", "open", 2, EMFILE, "mapFile() 24 s"},
            {"its bytes", "pread", 1, EIO, "mapFile() 5 s"},
            {"its size can't be had", "fstat", 2, EIO, "mapFile() 5 s"},
            {"the time", "fstat", 1, EIO, nullptr},
        },
        [](Config& p, const Scene&) { p.reload(nullptr); }, false);
}

TEST(FaultCalls, Store) {
    failCalls(
        {
            {"access", "access", 2, EROFS, "access() 30 a"},
            {"access of the side database", "access", 4, EROFS, "access() 30 s"},
            {"open", "fopen", 1, EMFILE, "fopen(r+) 24 a"},
            {"lock", "fcntl", 1, ENOLCK, "fcntl() 37 a"},
            {"open of the side database", "openat", 1, EDQUOT, "fopen(w) 122 s"},
            {"its write", "pwrite", 1, ENOSPC, nullptr},
            {"flush", "fflush", 1, ENOSPC, nullptr},
            {"truncate", "ftruncate", 1, EIO, nullptr},
            {"close", "fclose", 1, ENOSPC, nullptr},
            {"removal of the side database", "unlinkat", 1, EACCES, nullptr},
            {"the folder of a new file", "access", 2, EACCES, "access() 13 d"},
            {"making a new file", "fopen", 2, ENOSPC, "fopen(r+) 28 a"},
        },
        [](Config& p, const Scene& scene) {
            if (failing == string("unlinkat"))
                p.setValue("s", "h", "");
            if (countdown == 2 && failureCode != EROFS)
                unlink(scene.path.c_str());
            p.store(nullptr);
        },
        true);
}

// What a file holds behind a place that can't be read isn't lost by the next store.
TEST(FaultCalls, AReadErrorIsntTheEnd) {
    string text = "[s]\n";
    for (int i = 0; i < 2000; ++i)
        text += "key" + std::to_string(i) + " = value\n";
    const struct {
        const char* what;
        int mode;
        unsigned long attributes;
        int code;
        const char* raises;
    } kCases[] = {
        {"plain", kPlain, 0, EIO, ""},
        {"strict", kPlain, ZPCACHE_STRICT, EIO, "read() 5"},
        {"checked", kChecked, 0, EIO, "read() 5"},
        {"safe", kSafe, 0, ENXIO, "read() 6"},
        {"a signal", kSafe, 0, EINTR, ""},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.what);
        TempFolder folder;
        const string path = folder.write("f", text);
        Config p(c.mode, c.attributes);
        {
            FailCalls fail("read", 1, c.code);
            EXPECT_EQ(raised([&] { p.load(path.c_str()); }), c.raises);
            EXPECT_TRUE(hasFailed);
        }
        if (c.code == EINTR) {
            EXPECT_EQ(p.count("s"), 2000);
            continue;
        }
        p.setValue("s", "new", "1");
        EXPECT_EQ(raised([&] { p.store(nullptr); }), "22");
        EXPECT_EQ(TempFolder::read(path), text);
        p.reload(nullptr);
        p.store(nullptr);
        EXPECT_EQ(TempFolder::read(path), text);
    }
}

// ---------------------------------------------------------------- failing memory

TEST(FaultStoreMemory, AStoreThatRunsOutLeavesTheOldContent) {
    for (int mode : kCarefulModes)
        for (const Variant& v : kVariants)
            EXPECT_GT(failEachCall(mode, v, noMemory, 0), 5);
    EXPECT_GT(failEachCall(kSafe, {"an update", true, true, true}, noMemory, 0), 5);
}

TEST(FaultStoreMemory, NothingLeaks) {
    const Scene scene(kVariants[2]);
    static const char* path;
    path = scene.path.c_str();
    ZInvalidParameterException().print();  // what reports need once is made now
    EXPECT_GT(failEachAllocation([] {
                  Config p(kSafe, ZPCACHE_KEEP_LINES);
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
              }),
              50u);
}

// The paths are plain texts, so that only the library allocates on the road.
const char *inPath, *outPath;

const char kLong[] =
    "a value that is a good deal longer than the one before it was, so much longer that no string "
    "can hold it inside";

// A file with all that an edit meets.
struct EditedFiles {
    TempFolder folder;
    const string path =
        folder.write("a", "# top\n\n[s]\nk = 1\nk = 2\n# note\nm = some text\n\n[t]\nx =\n");
    const string other = folder / "b";
    EditedFiles() {
        Config p(path);
        p.setValue("s", "secret", "hush", 1);
        p.store(nullptr);
        inPath = path.c_str(), outPath = other.c_str();
    }
};

void loadEditAndStore(Config& p) {
    p.load(inPath);
    p.setValue("s", "k", kLong);
    p.setValue("s", "fresh", "1", 1);
    p.setIntegerValue("new", "number", 42);
    p.addValue("s", "m", "second", 0);
    p.addEntryComment("s", "m", "comment");
    p.addStanzaComment("t", "comment");
    p.addFileComment("comment");
    {
        ZStanzaIterator keys(p, "s");
        while (keys.hasMore()) {
            keys.nextEntry();
            keys.valueCount();
        }
        ZStanzaValueIterator values(p, "s", "m", ZPROP_STRING_UTF8,
                                    ZStanzaValueIterator::ZPROP_ITER_AUTO);
        const char* text;
        values.nextValue(text);
        values.addValue("third");
    }
    ZUTF8String out;
    p.getValue("s", "k", out, 0, nullptr);
    ZArrayList list(1, 1);
    p.getValues("s", "m", list, ZPROP_STRING_UTF8);
    p.deleteKey("s", "secret");
    p.deleteStanza("t");
    p.store(outPath);
}

TEST(FaultMemory, LoadEditAndStoreLeakNothing) {
    const EditedFiles files;
    EXPECT_GT(failEachAllocation([] {
                  Config p;
                  loadEditAndStore(p);
                  ZStanzaFileProperties copy(p);
              }),
              50u);
}

TEST(FaultMemory, EachStepLeavesAnObjectThatWorks) {
    bool failed = true;
    for (unsigned long nth = 1; failed; ++nth) {
        SCOPED_TRACE(nth);
        const EditedFiles files;
        Config p;
        const bool raised = endsWithoutMemory([&p] { loadEditAndStore(p); }, nth);
        failed = FailAllocations::asked() >= nth;
        EXPECT_TRUE(failed || !raised);  // what the storage can do without, it does without
        p.data().checkInvariants();
        p.setValue("s", "after", "1");
        p.store(outPath);
        EXPECT_EQ(Config(string(outPath)).value("s", "after"), "1");
    }
}

string storedText(const ZStanzaFileProperties& p) {
    ZBuffer text;
    p.storeBytes(text);
    return string(static_cast<const char*>(text.getBuffer()), text.getLength());
}

TEST(FaultMemory, AnEditOfLinesIsMadeOrNot) {
    static const char text[] = "# top\n[s]\nk = 1\nk = 2\n# m = sample\nz = 3\n[t]\nk = 1\n";
    typedef ZStanzaFileProperties Object;
    int (*const edits[])(Object&) = {
        [](Object& p) { return p.renameStanza("s", kLong); },
        [](Object& p) { return p.renameKey("s", "k", kLong); },
        [](Object& p) { return p.disableKey("s", "k"); },
        [](Object& p) { return p.uncommentKey("s", "m"); },
    };
    int which = 0;
    for (const auto edit : edits) {
        SCOPED_TRACE(which++);
        unsigned long failures = 0;
        for (unsigned long nth = 1; nth == failures + 1 && !HasFailure(); ++nth) {
            SCOPED_TRACE(nth);
            Config p(kSafe, ZPCACHE_KEEP_LINES);
            p.loadBytes(text, sizeof text - 1);
            p.resetModified();
            int made = 0;
            const bool raised = endsWithoutMemory([&] { made = edit(p); }, nth);
            failures += FailAllocations::asked() >= nth;
            p.data().checkInvariants();
            EXPECT_NE(raised, made != 0);
            EXPECT_EQ(p.isModified() != 0, !raised);
            EXPECT_EQ(storedText(p) == text, raised);
            if (raised) {
                EXPECT_EQ(edit(p), 1);
            }
            Config other(kSafe, ZPCACHE_KEEP_LINES);
            other.loadBytes(text, sizeof text - 1);
            edit(other);
            EXPECT_EQ(storedText(p), storedText(other));
        }
        EXPECT_GT(failures, 0u);
    }
}

TEST(FaultMemory, TheRegistryForgetsAnObjectThatCouldntBeLoaded) {
    const EditedFiles files;
    failEachAllocation([] {
        ZStanzaFileProperties::ZStanzaFilePropertiesFactory factory;
        ZProperties* p = ZProperties::getPropertiesFor(inPath, factory, 0);
        delete p;
    });
}

}  // namespace
