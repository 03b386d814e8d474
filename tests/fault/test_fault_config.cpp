// The road of one load, edit and store when memory runs out and when the system refuses: each run
// ends in the promised exception or result, leaks nothing, holds no lock and no descriptor, and
// leaves an object that works. System calls are led to the functions below by the linker (--wrap).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>

#include "Z/ZExceptionText.h"
#include "Z/ZStanzaFileProperties.h"
#include "support/CacheText.h"
#include "support/FailingAllocator.h"
#include "support/FileState.h"
#include "support/TempFolder.h"
#include "support/Wrapped.h"

using std::string;

// ---------------------------------------------------------------- failing system calls

namespace {

const char* failingCall = nullptr;  // its name here, whatever it is called for big files
int failingTime;                    // 1: the next one
int failureCode;

bool failsNow(const char* call) {
    if (failingCall == nullptr || strcmp(failingCall, call) != 0 || --failingTime != 0)
        return false;
    failingCall = nullptr;
    errno = failureCode;
    return true;
}

// Lets the call fail the n-th time with this errno.
class FailCall {
public:
    FailCall(const char* call, int time, int code) {
        failingCall = call;
        failingTime = time;
        failureCode = code;
    }
    ~FailCall() { failingCall = nullptr; }
    bool happened() const { return failingCall == nullptr; }
};

}  // namespace

#define WRAP(call, Result, failed, name, parameters, arguments) \
    extern "C" Result REAL(name) parameters;                    \
    extern "C" Result WRAPPED(name) parameters {                \
        return failsNow(call) ? failed : REAL(name) arguments;  \
    }

WRAP("fopen", FILE*, nullptr, FOPEN, (const char* path, const char* mode), (path, mode))
WRAP("fread", size_t, 0, fread, (void* data, size_t size, size_t n, FILE* f), (data, size, n, f))
WRAP("fflush", int, EOF, fflush, (FILE * f), (f))
WRAP("unlinkat", int, -1, unlinkat, (int folder, const char* name, int flags), (folder, name, flags))
WRAP("fstat", int, -1, FSTAT, (int file, void* status), (file, status))
WRAP("pread", ssize_t, -1, PREAD, (int file, void* to, size_t size, int64_t at), (file, to, size, at))
WRAP("pwrite", ssize_t, -1, PWRITE, (int file, const void* from, size_t size, int64_t at),
     (file, from, size, at))
WRAP("stat", int, -1, STAT, (const char* path, void* status), (path, status))
WRAP("access", int, -1, access, (const char* path, int mode), (path, mode))
WRAP("ftruncate", int, -1, FTRUNCATE, (int descriptor, int64_t length), (descriptor, length))
WRAP("fchown", int, -1, fchown, (int file, uid_t user, gid_t group), (file, user, group))
WRAP("fchmod", int, -1, fchmod, (int file, mode_t mode), (file, mode))

extern "C" int REAL(fclose)(FILE*);
extern "C" int WRAPPED(fclose)(FILE* f) {
    const int real = REAL(fclose)(f);  // a close that fails has closed all the same
    return failsNow("fclose") ? EOF : real;
}

WRAP_OPEN
WRAP_OPENAT
// Units for big files say F_SETLK64 where that differs.
WRAP_FCNTL(command == F_SETLK || command == F_SETLK64)

namespace {

const char kText[] = "# top\n\n[s]\nk = 1\nk = 2\n# note\nm = some text\n\n[t]\nx =\n";

// A stanza file with a side database in a folder of its own.
struct Files {
    TempFolder folder;
    string path, side, other;

    Files() {
        path = folder.write("a.conf", kText);
        side = path + ".obf";
        other = folder / "b.conf";
        ZStanzaFileProperties p(path.c_str(), 1);
        p.setValue("s", "secret", "hush", 1);
        p.store(nullptr);
    }
};

struct CallCase {
    const char *what, *call;
    int time, code;
    const char* expected;  // "word errno name" of a (file), s (side), d (folder); null: nothing
};

// Runs `road` with each case's failure, and expects what it says and an object that works.
template <typename Road>
void failCalls(std::initializer_list<CallCase> cases, Road road, bool storesAgain = false) {
    for (const CallCase& c : cases) {
        SCOPED_TRACE(c.what);
        Files files;
        ZStanzaFileProperties p(files.path.c_str(), 1);
        p.setValue("s", "k", "9");  // one line less: the file gets shorter
        const int before = openDescriptors();
        string failure, expected = c.expected == nullptr ? "" : c.expected;
        {
            FailCall fail(c.call, c.time, c.code);
            failure = failureOf([&] { road(p, files); });
            EXPECT_TRUE(fail.happened());
        }
        const string names[] = {files.path, files.side,
                                files.path.substr(0, files.path.rfind('/'))};
        if (!expected.empty())
            expected.replace(expected.size() - 1, 1, names[string("asd").find(expected.back())]);
        EXPECT_EQ(failure, expected);
        EXPECT_EQ(openDescriptors(), before);
        // No lock is left, and the object goes on.
        if (storesAgain)
            p.store(files.path.c_str());
        p.reload(files.path.c_str());
        p.setValue("s", "after", "1");
        p.store(files.other.c_str());
    }
}

TEST(FaultCalls, Load) {
    failCalls(
        {
            {"open", "fopen", 1, ENFILE, "fopen(r) 23 a"},
            {"lock", "fcntl", 1, ENOLCK, "fcntl() 37 a"},
            {"locked by another", "fcntl", 1, EACCES, "fcntl() 13 a"},
            {"a read error isn't told", "fread", 1, EIO, nullptr},
            {"close", "fclose", 1, EIO, nullptr},
            {"open of the side database", "open", 1, EMFILE, "mapFile() 24 s"},
            {"its bytes", "pread", 1, EIO, "mapFile() 5 s"},
            {"its size can't be had", "fstat", 2, EIO, "mapFile() 5 s"},
            {"the time", "access", 1, EACCES, nullptr},
            {"the time, too", "stat", 1, EIO, nullptr},
        },
        [](ZStanzaFileProperties& p, Files&) { p.reload(nullptr); });
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
        },
        [](ZStanzaFileProperties& p, Files&) { p.store(nullptr); }, true);
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
        bool raises;
    } kCases[] = {
        {"plain", ZPROP_STORE_PLAIN, 0, EIO, false},
        {"strict", ZPROP_STORE_PLAIN, ZPCACHE_STRICT, EIO, true},
        {"checked", ZPROP_STORE_CHECKED, 0, EIO, true},
        {"safe", ZPROP_STORE_SAFE, 0, ENXIO, true},
        {"a signal", ZPROP_STORE_SAFE, 0, EINTR, false},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.what);
        TempFolder folder;
        const string path = folder.write("f", text);
        ZStanzaFileProperties p(1);
        p.setStoreMode(c.mode);
        p.setAttributes(c.attributes, nullptr);
        {
            FailCall fail("fread", 1, c.code);
            EXPECT_EQ(failureOf([&] { p.load(path.c_str()); }),
                      c.raises ? "read() " + std::to_string(c.code) + " " + path : "");
            EXPECT_TRUE(fail.happened());
        }
        if (c.code == EINTR) {
            EXPECT_EQ(p.count("s"), 2000);
            continue;
        }
        p.setValue("s", "new", "1");
        EXPECT_THROW(p.store(nullptr), ZInvalidParameterException);
        EXPECT_EQ(TempFolder::read(path), text);
        p.reload(nullptr);
        p.store(nullptr);
        EXPECT_EQ(TempFolder::read(path), text);
    }
}

TEST(FaultCalls, StoreOfANewFile) {
    failCalls(
        {
            {"its folder", "access", 2, EACCES, "access() 13 d"},
            {"making it", "fopen", 2, ENOSPC, "fopen(r+) 28 a"},
        },
        [](ZStanzaFileProperties& p, Files& files) {
            unlink(files.path.c_str());
            try {
                p.store(nullptr);
            } catch (...) {
                p.store(files.path.c_str());  // goes through the second time
                throw;
            }
        });
}

TEST(FaultCalls, ASideDatabaseThatCantBeRemovedDoesntMatter) {
    Files files;
    ZStanzaFileProperties p(files.path.c_str(), 1);
    p.setValue("s", "secret", "");
    {
        FailCall fail("unlinkat", 1, EACCES);
        p.store(nullptr);
        EXPECT_TRUE(fail.happened());
    }
    EXPECT_EQ(p.exists("configuration-database", "file"), 0);
    EXPECT_NE(TempFolder::read(files.side), "<none>");
}

// ---------------------------------------------------------------- failing memory

// The paths are plain texts, so that only the library allocates on the road.
const char* inPath;
const char* outPath;

struct Opened : ZStanzaFileProperties {
    Opened() : ZStanzaFileProperties(1) {}
    ZSCFData& data() { return *static_cast<ZSCFData*>(cache_); }
};

const char kLong[] =
    "a value that is a good deal longer than the one before it was, so much longer that no string "
    "can hold it inside";

void edit(ZStanzaFileProperties& p) {
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
}

TEST(FaultMemory, LoadEditAndStoreLeakNothing) {
    Files files;
    inPath = files.path.c_str();
    outPath = files.other.c_str();
    auto road = [] {
        Opened p;
        p.load(inPath);
        edit(p);
        ZStanzaFileProperties copy(p);
        p.store(outPath);
    };
    for (FailAllocations::Answer answer : {FailAllocations::badAlloc, FailAllocations::null}) {
        failEachAllocation(road, FailAllocations::onward, answer);
        EXPECT_GT(failEachAllocation(road, FailAllocations::once, answer), 50u);
    }
}

TEST(FaultMemory, EachStepLeavesAnObjectThatWorks) {
    for (int loadToo = 0; loadToo < 2; ++loadToo) {
        bool failed = true;
        for (unsigned long nth = 1; failed; ++nth) {
            SCOPED_TRACE(nth);
            Files files;
            inPath = files.path.c_str();
            outPath = files.other.c_str();
            Opened p;
            if (loadToo == 0)
                p.load(inPath);
            const auto road = [&] {
                if (loadToo != 0)
                    p.load(inPath);
                edit(p);
                p.store(outPath);
            };
            const bool raised = endsWithoutMemory(road, nth);
            failed = FailAllocations::asked() >= nth;
            EXPECT_TRUE(failed || !raised);  // what the storage can do without, it does without
            p.data().checkInvariants();
            p.setValue("s", "after", "1");
            p.store(outPath);
            ZStanzaFileProperties again(outPath, 1);
            ZLCString text;
            again.getValue("s", "after", text, 1, nullptr);
            EXPECT_EQ(text, "1");
        }
    }
}

TEST(FaultMemory, TheRegistryForgetsAnObjectThatCouldntBeLoaded) {
    Files files;
    inPath = files.path.c_str();
    failEachAllocation([] {
        ZStanzaFileProperties::ZStanzaFilePropertiesFactory factory;
        ZProperties* p = ZProperties::getPropertiesFor(inPath, factory, 0);
        delete p;
    });
}

}  // namespace
