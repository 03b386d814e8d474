// Threads that are cancelled inside the calls that make something: descriptors, streams, mappings; and
// while members are deleted. The linker leads such calls to the functions below (--wrap), which do the
// work first: a result is there then that nobody has. Threads begin with std::thread.
#include "support/Prelude.h"

#include <dirent.h>
#include <sys/mman.h>

#include "Z/ZArray.h"
#include "Z/ZFileLock.h"
#include "Z/ZFileMap.h"
#include "Z/ZJavaProperties.h"
#include "Z/ZKeyMap.h"
#include "Z/ZThread.h"
#include "support/Runner.h"
#include "support/TempFolder.h"
#include "support/Wrapped.h"

namespace {

std::atomic<const char*> cancelledCall(nullptr);

void cancelMe() {
    pthread_cancel(pthread_self());
    pthread_testcancel();
}

void cancelledIn(const char* call) {
    const char* const wanted = cancelledCall;
    if (wanted == nullptr || strcmp(wanted, call) != 0)
        return;
    cancelledCall = nullptr;
    const int error = errno;
    cancelMe();
    errno = error;
}

}  // namespace

extern "C" int REAL(OPEN)(const char*, int, ...);
extern "C" int WRAPPED(OPEN)(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int mode = va_arg(arguments, int);
    va_end(arguments);
    const int result = REAL(OPEN)(path, flags, mode);
    cancelledIn("open");
    return result;
}
extern "C" FILE* REAL(FOPEN)(const char* path, const char* mode);
extern "C" FILE* WRAPPED(FOPEN)(const char* path, const char* mode) {
    FILE* const result = REAL(FOPEN)(path, mode);
    cancelledIn("fopen");
    return result;
}
extern "C" FILE* __real_fdopen(int file, const char* mode);
extern "C" FILE* __wrap_fdopen(int file, const char* mode) {
    FILE* const result = __real_fdopen(file, mode);
    cancelledIn("fdopen");
    return result;
}
extern "C" int __real_fclose(FILE* stream);
extern "C" int __wrap_fclose(FILE* stream) {
    cancelledIn("fclose");
    return __real_fclose(stream);
}
extern "C" int __real_close(int file);
extern "C" int __wrap_close(int file) {
    cancelledIn("close");
    return __real_close(file);
}
extern "C" void* REAL(MMAP)(void* address, size_t length, int protection, int flags, int file,
                            off_t offset);
extern "C" void* WRAPPED(MMAP)(void* address, size_t length, int protection, int flags, int file,
                               off_t offset) {
    void* const result = REAL(MMAP)(address, length, protection, flags, file, offset);
    cancelledIn("mmap");
    return result;
}

namespace {

#if CAN_UNWIND

int openDescriptors() {
    int count = 0;
    DIR* const folder = opendir("/proc/self/fd");
    while (readdir(folder) != nullptr)
        ++count;
    closedir(folder);
    return count;
}

// Whether a part of this file is mapped.
bool isMapped(const std::string& path) {
    return TempFolder::read("/proc/self/maps").find(path) != std::string::npos;
}

TEST(Cancelled, WithinACallThatMakesSomethingAThreadLosesNothing) {
    const TempFolder folder;
    const std::string dir = folder / "", text = "k = v\n";
    const std::string path = folder.write("file", text);
    ZUnixProcessReadWriteFileLock lock("app", dir.c_str());
    ZUnixFileMap map(ZLCString(path.c_str()), ZAbstractFileMap::mapRead, 0);
    ZJavaProperties properties;
    int ignored = 0;
    const struct Case {
        const char* call;
        Action body;
    } cases[] = {
        {"open", [&] { lock.writeLock(), lock.unlock(); }},
        {"close", [&] { lock.writeLock(), lock.unlock(); }},
        {"open", [&] { lock.readLock(), lock.unlock(); }},
        {"open", [&] { lock.createLockFile(), lock.closeLockFile(); }},
        {"close", [&] { lock.createLockFile(), lock.closeLockFile(); }},
        {"fopen", [&] { properties.load(path.c_str()); }},
        {"fclose", [&] { properties.load(path.c_str()); }},
        {"open", [&] { properties.store(path.c_str()); }},
        {"fdopen", [&] { properties.store(path.c_str()); }},
        {"fclose", [&] { properties.store(path.c_str()); }},
        {"open", [&] { map.mapfile(&ignored, 0), map.unmapfile(&ignored); }},
        {"mmap", [&] { map.mapfile(&ignored, 0), map.unmapfile(&ignored); }},
        {"close", [&] { map.mapfile(&ignored, 0), map.unmapfile(&ignored); }},
    };
    const int before = openDescriptors();
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &c - cases << ", " << c.call);
        cancelledCall = c.call;
        bool returned = false;
        std::thread([&] { c.body(), pthread_testcancel(), returned = true; }).join();
        EXPECT_EQ(cancelledCall.load(), nullptr) << "wasn't called";
        EXPECT_FALSE(returned);
        EXPECT_EQ(openDescriptors(), before);
        EXPECT_FALSE(isMapped(path));
        EXPECT_EQ(lock.getLockState(), ZReadWriteLockInterface::unset);
        EXPECT_EQ(lock.getReaderCount(), 0);
    }
    properties.load(path.c_str());
    EXPECT_EQ(TempFolder::read(path), "#\n" + text) << "a store goes on to its end";
}

// A member in whose destructor a thread can be cancelled.
class Fragile : public ZObject {
public:
    explicit Fragile(int& live) : live_(live) { ++live_; }
    Fragile(const Fragile& other) : ZObject(other), live_(other.live_) { ++live_; }
    ~Fragile() noexcept(false) override { --live_, pthread_testcancel(); }
    ZObject* clone() const override { return new Fragile(*this); }
    int compare(const ZObject&) const override { return 0; }
    unsigned int hash() const override { return 0; }

private:
    int& live_;
};

TEST(Cancelled, WhileMembersAreDeletedAThreadGoesOn) {
    int live = 0;
    const auto member = std::make_unique<Fragile>(live);
    Fragile* const m = member.get();
    ZArray array(2, 1);
    const auto cancel = [] { pthread_cancel(pthread_self()); };
    const struct Case {
        const char* what;
        Action body;
        int live;
    } cases[] = {
        {"~ZArray",
         [&] {
             ZArray a(2, 1);
             a.set(0, m), a.set(1, m), cancel();
         },
         1},
        {"~ZArrayList",
         [&] {
             ZArrayList a(2, 1);
             a.add(m), a.add(m), cancel();
         },
         1},
        {"~ZHashMap",
         [&] {
             ZHashMap a(2, 1);
             a.putEntry(m), cancel();
         },
         1},
        {"~ZHashKeyMap",
         [&] {
             ZHashKeyMap a(2, 1);
             a.putEntry(m, m), cancel();
         },
         1},
        {"~ZKeyEntry",
         [&] {
             ZKeyEntry a(m, m, 1);
             cancel();
         },
         1},
        {"under a key", [&] { cancel(), ZThread::key_delete_routine(m->clone()); }, 1},
        {"set", [&] { array.set(0, m), array.set(1, m), cancel(), array.set(0, m); }, 3},
        {"removeAll", [&] { cancel(), array.removeAll(); }, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        bool returned = false;
        std::thread([&] { c.body(), pthread_testcancel(), returned = true; }).join();
        EXPECT_FALSE(returned);
        EXPECT_EQ(live, c.live);
    }
}

#endif

}  // namespace
