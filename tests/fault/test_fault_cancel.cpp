// Threads that are cancelled inside the calls that make something: descriptors, streams, mappings;
// and while members are deleted. The linker leads such calls to the functions below (--wrap), which
// do the work first: a result is there then that nobody has. Threads begin with std::thread.
#include "support/Prelude.h"

#include <sys/mman.h>

#include "Z/ZArray.h"
#include "Z/ZFileLock.h"
#include "Z/ZFileMap.h"
#include "Z/ZJavaProperties.h"
#include "Z/ZKeyMap.h"
#include "Z/ZThread.h"
#include "support/FileState.h"
#include "support/Runner.h"
#include "support/TempFolder.h"
#include "support/Wrapped.h"

namespace {

std::atomic<const char*> cancelledCall(nullptr);

void cancelledIn(const char* call) {
    const char* const wanted = cancelledCall;
    if (wanted == nullptr || strcmp(wanted, call) != 0)
        return;
    cancelledCall = nullptr;
    const int error = errno;
    pthread_cancel(pthread_self());
    pthread_testcancel();
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

#define WRAP_MAKER(type, symbol, what, parameters, arguments) \
    extern "C" type REAL(symbol) parameters;                  \
    extern "C" type WRAPPED(symbol) parameters {              \
        type const result = REAL(symbol) arguments;           \
        cancelledIn(what);                                    \
        return result;                                        \
    }
#define WRAP_CLOSER(symbol, what, type)        \
    extern "C" int REAL(symbol)(type);         \
    extern "C" int WRAPPED(symbol)(type old) { \
        cancelledIn(what);                     \
        return REAL(symbol)(old);              \
    }

WRAP_MAKER(FILE*, FOPEN, "fopen", (const char* path, const char* mode), (path, mode))
WRAP_MAKER(FILE*, fdopen, "fdopen", (int file, const char* mode), (file, mode))
WRAP_MAKER(void*, MMAP, "mmap", (void* at, size_t n, int p, int flags, int file, off_t offset),
           (at, n, p, flags, file, offset))
WRAP_CLOSER(fclose, "fclose", FILE*)
WRAP_CLOSER(close, "close", int)

namespace {

#if CAN_UNWIND

// In a thread of its own, which must be cancelled before it comes to the end.
void runCancelled(const Action& body) {
    bool returned = false;
    std::thread([&] { body(), pthread_testcancel(), returned = true; }).join();
    EXPECT_FALSE(returned);
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
        runCancelled(c.body);
        EXPECT_EQ(cancelledCall.load(), nullptr) << "wasn't called";
        EXPECT_EQ(openDescriptors(), before);
        EXPECT_EQ(TempFolder::read("/proc/self/maps").find(path), std::string::npos) << "mapped";
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
    Fragile member(live);
    ZArray array(2, 1), *const ended = new ZArray(2, 1);
    ZArrayList* const list = new ZArrayList(2, 1);
    ZHashMap* const map = new ZHashMap(2, 1);
    ZHashKeyMap* const keyMap = new ZHashKeyMap(2, 1);
    ZKeyEntry* const entry = new ZKeyEntry(&member, &member, 1);
    ZObject* const ofKey = member.clone();
    for (unsigned int i = 0; i < 2; ++i)
        array.set(i, &member), ended->set(i, &member), list->add(&member);
    map->putEntry(&member);
    keyMap->putEntry(&member, &member);
    const struct Case {
        const char* what;
        Action body;
        int deleted;
    } cases[] = {
        {"~ZArray", [&] { delete ended; }, 2},
        {"~ZArrayList", [&] { delete list; }, 2},
        {"~ZHashMap", [&] { delete map; }, 1},
        {"~ZHashKeyMap", [&] { delete keyMap; }, 2},
        {"~ZKeyEntry", [&] { delete entry; }, 2},
        {"under a key", [&] { ZThread::key_delete_routine(ofKey); }, 1},
        {"set", [&] { array.set(0, &member); }, 0},
        {"removeAll", [&] { array.removeAll(); }, 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const int before = live;
        runCancelled([&] { pthread_cancel(pthread_self()), c.body(); });
        EXPECT_EQ(live, before - c.deleted);
    }
}

#endif

}  // namespace
