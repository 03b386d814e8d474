// Built with 64-bit file offsets and times on 32-bit machines too.
#include "zwholefile.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "zinternal.h"
#include "zqelutil.h"
#include "zscope.h"
#include "zuncancelled.h"

// ---------------------------------------------------------------- descriptors and names

ZFailure ZOpenFile::close() {
    const ZUncancelled uncancelled;
    const int descriptor = release();
    return descriptor < 0 ? zdone : zresultOf(::close(descriptor), "close()");
}

void ZOpenFile::reset(int descriptor) {
    close().passOver();
    descriptor_ = descriptor;
}

int ZOpenFile::release() {
    const int descriptor = descriptor_;
    descriptor_ = -1;
    return descriptor;
}

int zopenFile(const char* path, int flags, unsigned int mode) {
    const ZUncancelled uncancelled;
    return open(path, flags | O_CLOEXEC, mode);
}

int zopenFileAt(int folder, const char* name, int flags, unsigned int mode) {
    const ZUncancelled uncancelled;
    return openat(folder, name, flags | O_CLOEXEC, mode);
}

int zopenRegularFile(const char* path, int flags, unsigned int mode) {
    return zopenRegularFileAt(AT_FDCWD, path, flags, mode);
}

int zopenRegularFileAt(int folder, const char* name, int flags, unsigned int mode) {
    ZOpenFile file(zopenFileAt(folder, name, flags | O_NONBLOCK, mode));
    struct stat status;
    if (file.get() < 0)
        return -1;
    int error = fstat(file.get(), &status) == 0 ? 0 : errno;
    if (error == 0 && !S_ISREG(status.st_mode))
        error = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    if (error == 0)
        return file.release();
    file.close().passOver();
    errno = error;
    return -1;
}

// ---------------------------------------------------------------- the signal of a size limit

static sigset_t sizeSignal() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGXFSZ);
    return set;
}

ZSizeSignalGuard::ZSizeSignalGuard() : isMine_(false) {
    const sigset_t set = sizeSignal();
    sigset_t pending;
    const bool wasPending = sigpending(&pending) == 0 && sigismember(&pending, SIGXFSZ) == 1;
    if (pthread_sigmask(SIG_BLOCK, &set, &before_) == 0)
        isMine_ = !wasPending && sigismember(&before_, SIGXFSZ) == 0;
}

ZSizeSignalGuard::~ZSizeSignalGuard() {
    if (!isMine_)
        return;
    const sigset_t set = sizeSignal();
    const struct timespec atOnce = {0, 0};
    const ZUncancelled uncancelled;
    while (sigtimedwait(&set, nullptr, &atOnce) == -1 && errno == EINTR) {
    }
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

// ---------------------------------------------------------------- places

const char* znameOf(const char* path) {
    const char* slash = zstrrchr(zgetLCSHandle(), path, '/');
    return slash == nullptr ? path : slash + 1;
}

ZLCString zfolderOf(const char* path) {
    const char* name = znameOf(path);
    if (name == path)
        return ZLCString(".");
    // The root keeps its slash.
    const ptrdiff_t length = name - path - 1;
    return ZLCString(path, static_cast<unsigned int>(length == 0 ? 1 : length));
}

bool zfollowLinks(ZLCString& path) {
    const std::unique_ptr<char, decltype(&free)> real(realpath(path.getChars(), nullptr), &free);
    if (real == nullptr)
        return false;
    path = real.get();
    return true;
}

ZLCString zbesideName(const char* name, const char* suffix) {
    const size_t length = strlen(name), more = strlen(suffix);
    ZLCString out(name);
    if (length + more > NAME_MAX) {
        uint64_t number = UINT64_C(0xCBF29CE484222325);
        for (const char* at = name; *at != '\0'; ++at)
            number = (number ^ static_cast<unsigned char>(*at)) * UINT64_C(0x100000001B3);
        char text[24];
        const int digits =
            snprintf(text, sizeof text, "~%016llx", static_cast<unsigned long long>(number));
        out = ZLCString(name, static_cast<unsigned int>(NAME_MAX - more - digits));
        out.append(text);
    }
    out.append(suffix);
    return out;
}

ZFailure ZPlace::find(const char* path, int descriptor) {
    const ZFailure lost = {"open() of the folder", ESTALE, nullptr};
    char link[32];
    char real[PATH_MAX];
    snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
    const ssize_t length = readlink(link, real, sizeof real);
    ZFailure failure;
    if (length > 0 && length < static_cast<ssize_t>(sizeof real) && *real == '/') {
        real[length] = '\0';
        failure = find(real);
    } else {
        ZLCString followed(path);
        zfollowLinks(followed);
        failure = find(followed.getChars());
    }
    if (failure)
        return failure.error == ENOENT ? lost : failure;
    struct stat open, named;
    if (fstat(descriptor, &open) != 0)
        return zfailed("fstat()");
    if (fstatat(folder(), name(), &named, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? lost : zfailed("stat()");
    return open.st_dev == named.st_dev && open.st_ino == named.st_ino ? zdone : lost;
}

ZFailure ZPlace::find(const char* path) {
    folderPath_ = zfolderOf(path);
    name_ = znameOf(path);
    folder_.reset(zopenFile(folderPath_.getChars(), O_PATH | O_DIRECTORY));
    return zresultOf(folder(), "open() of the folder");
}

ZLCString ZPlace::pathOf(const char* name) const {
    ZLCString path(folderPath_);
    if (strcmp(path.getChars(), "/") != 0)
        path.append('/');
    path.append(name);
    return path;
}

ZFailure ZPlace::checkSync() const {
    const ZOpenFile readable(zopenFileAt(folder(), ".", O_RDONLY | O_DIRECTORY));
    return zresultOf(readable.get(), "open() of the folder");
}

ZFailure ZPlace::sync() const {
    ZOpenFile readable(zopenFileAt(folder(), ".", O_RDONLY | O_DIRECTORY));
    if (readable.get() < 0)
        return zfailed("open() of the folder");
    return zresultOf(fsync(readable.get()), "fsync()");
}

// ---------------------------------------------------------------- time

static const int64_t kSecond = 1000000000;

static int64_t nanoseconds(const struct timespec& time) {
    return static_cast<int64_t>(time.tv_sec) * kSecond + time.tv_nsec;
}

static int64_t now(clockid_t clock) {
    struct timespec time;
    return clock_gettime(clock, &time) == 0 ? nanoseconds(time) : 0;
}

// ---------------------------------------------------------------- lock

namespace {

// Pauses that grow from half a millisecond to about 20, each between half and the whole of its
// length by chance: processes that began to wait together don't come back together.
class Pauses {
public:
    Pauses() : length_(kSecond / 2000), chance_(static_cast<uint64_t>(now(CLOCK_MONOTONIC)) | 1) {
        chance_ ^= static_cast<uint64_t>(getpid()) << 32;
    }

    void pause(int64_t atMost) {
        // Marsaglia's xorshift.
        chance_ ^= chance_ << 13;
        chance_ ^= chance_ >> 7;
        chance_ ^= chance_ << 17;
        int64_t length = length_ / 2 + static_cast<int64_t>(chance_ % (length_ / 2 + 1));
        if (length > atMost)
            length = atMost;
        struct timespec time;
        time.tv_sec = static_cast<time_t>(length / kSecond);
        time.tv_nsec = static_cast<long>(length % kSecond);
        nanosleep(&time, nullptr);
        if (length_ < kSecond / 50)
            length_ += length_ / 2;
    }

private:
    int64_t length_;
    uint64_t chance_;
};

}  // namespace

static ZFailure tryLock(int descriptor, short type, ZLockOwner owner) {
    struct flock whole = {};
    whole.l_type = type;
    whole.l_whence = SEEK_SET;
    const int command = owner == zlockOfDescription ? F_OFD_SETLK : F_SETLK;
    return zresultOf(fcntl(descriptor, command, &whole), "fcntl()");
}

ZFailure zretryLocked(unsigned long waitMilliseconds, ZFailure (*attempt)(void* data), void* data) {
    ZFailure failure = attempt(data);
    if (!failure || waitMilliseconds == 0)
        return failure;
    // Whoever waits longer than a hundred years waits for ever.
    static const uint64_t kLongest = UINT64_C(100) * 365 * 24 * 3600 * 1000;
    const uint64_t wait = waitMilliseconds < kLongest ? waitMilliseconds : kLongest;
    const int64_t end = now(CLOCK_MONOTONIC) + static_cast<int64_t>(wait) * (kSecond / 1000);
    Pauses pauses;
    while (failure.isLockedByOthers()) {
        const int64_t left = end - now(CLOCK_MONOTONIC);
        if (left <= 0)
            break;
        pauses.pause(left);
        failure = attempt(data);
    }
    return failure;
}

ZFailure zlockWholeFile(int descriptor, short type, ZLockOwner owner,
                        unsigned long waitMilliseconds) {
    struct Terms {
        int descriptor;
        short type;
        ZLockOwner owner;
    } terms = {descriptor, type, owner};
    return zretryLocked(
        waitMilliseconds,
        [](void* data) {
            const Terms& wanted = *static_cast<Terms*>(data);
            return tryLock(wanted.descriptor, wanted.type, wanted.owner);
        },
        &terms);
}

// Counted behind the fork, ahead of giving the mutex up: who opens a file while a fork is under way
// has the old count, and who closes one sees the new one.
static std::atomic<unsigned int> forks(0);
static pthread_mutex_t closing = PTHREAD_MUTEX_INITIALIZER;
static pthread_once_t forksCounted = PTHREAD_ONCE_INIT;

unsigned int zforkCount() {
    static void (*const kPrepare)() = [] { pthread_mutex_lock(&closing); };
    static void (*const kEnd)() = [] {
        ++forks;
        pthread_mutex_unlock(&closing);
    };
    pthread_once(&forksCounted, [] { pthread_atfork(kPrepare, kEnd, kEnd); });
    return forks;
}

ZSharedUnlock::ZSharedUnlock(int descriptor, ZLockOwner owner, unsigned int forksBefore)
    : isHeld_(descriptor >= 0 && owner == zlockOfDescription) {
    if (!isHeld_)
        return;
    pthread_mutex_lock(&closing);
    if (forksBefore != forks)
        tryLock(descriptor, F_UNLCK, owner).passOver();
}

ZSharedUnlock::~ZSharedUnlock() {
    if (isHeld_)
        pthread_mutex_unlock(&closing);
}

ZFailure ZLockScope::close() {
    const ZSharedUnlock unlocked(file_.get(), owner_, forks_);
    return file_.close();
}

// ---------------------------------------------------------------- stamp

void zstampOf(const struct stat& status, ZFileStamp& stamp) {
    // The system's clock for files moves in steps of some milliseconds: a change within the same
    // step as the last one may leave all times as they are.
    static const int64_t kStep = kSecond / 20;
    stamp.modified = nanoseconds(status.st_mtim);
    stamp.changed = nanoseconds(status.st_ctim);
    stamp.size = static_cast<uint64_t>(status.st_size);
    stamp.isRegular = S_ISREG(status.st_mode);
    stamp.device = static_cast<uint64_t>(status.st_dev);
    stamp.inode = static_cast<uint64_t>(status.st_ino);
    const int64_t last = stamp.changed > stamp.modified ? stamp.changed : stamp.modified;
    stamp.settled = now(CLOCK_REALTIME) - last > kStep;
}

long zsecondsOf(const ZFileStamp& stamp) {
    const bool isPartial = stamp.modified % kSecond < 0;  // ahead of 1970
    return static_cast<long>(stamp.modified / kSecond - isPartial);
}

ZFailure zstampFile(int descriptor, ZFileStamp& stamp) {
    struct stat status;
    if (fstat(descriptor, &status) != 0)
        return zfailed("stat()");
    zstampOf(status, stamp);
    return zdone;
}

ZFailure zstampFile(const char* path, ZFileStamp& stamp) {
    struct stat status;
    if (stat(path, &status) != 0)
        return zfailed("stat()");
    zstampOf(status, stamp);
    return zdone;
}

bool zsameFile(const ZFileStamp& a, const ZFileStamp& b) {
    return a.device == b.device && a.inode == b.inode;
}

bool zsameContent(const ZFileStamp& before, const ZFileStamp& now) {
    return before.settled && zsameFile(before, now) && before.modified == now.modified &&
           before.changed == now.changed && before.size == now.size;
}

bool zleadsTo(const char* path, int descriptor) {
    ZFileStamp open = {}, named = {};
    return !zstampFile(descriptor, open) && !zstampFile(path, named) && zsameFile(open, named);
}

// ---------------------------------------------------------------- bytes

// A call that a signal has interrupted is made again; but not for ever, should something else be
// behind it.
static bool isToBeRepeated(int error, int& times) { return error == EINTR && ++times < 1000; }

// By the system's own call: a stream would ask for more, and take room that a small folder hasn't.
ZFailure zlistFolder(int folder, ZVector<ZLCString>& names) {
    alignas(struct dirent64) char room[8192];
    for (;;) {
        const ssize_t got = getdents64(folder, room, sizeof room);
        if (got <= 0)
            return got == 0 ? zdone : zfailed("readdir()");
        for (const char* at = room; at < room + got;) {
            const struct dirent64* entry = reinterpret_cast<const struct dirent64*>(at);
            if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
                names.push_back(ZLCString(entry->d_name));
            at += entry->d_reclen;
        }
    }
}

ZFailure zreadWholeFile(int descriptor, ZBytes& bytes) {
    int times = 0;
    bytes.setSize(0);
    struct stat status;
    if (fstat(descriptor, &status) != 0)
        return zfailed("read()");
    // One byte more, so that the end shows with the first read.
    bytes.reserveMore(static_cast<size_t>(status.st_size) + 1);
    for (;;) {
        bytes.reserveMore(1);
        const ssize_t got = pread(descriptor, bytes.data() + bytes.size(), bytes.room(),
                                  static_cast<off_t>(bytes.size()));
        if (got == 0)
            return zdone;
        if (got > 0)
            bytes.setSize(bytes.size() + static_cast<size_t>(got));
        else if (!isToBeRepeated(errno, times))
            return zfailed("read()");
    }
}

ZFailure zwriteAt(int descriptor, ZSpan bytes, uint64_t offset) {
    int times = 0;
    for (size_t done = 0; done < bytes.size;) {
        const ssize_t put = pwrite(descriptor, bytes.data + done, bytes.size - done,
                                   static_cast<off_t>(offset + done));
        if (put < 0 && isToBeRepeated(errno, times))
            continue;
        if (put < 0)
            return zfailed("write()");
        if (put == 0)
            return {"write()", EIO, nullptr};
        done += static_cast<size_t>(put);
    }
    return zdone;
}

ZFailure zwriteToEnd(int descriptor, ZSpan bytes, uint64_t from) {
    if (const ZFailure failure = zwriteAt(descriptor, bytes, from))
        return failure;
    return zresultOf(ftruncate(descriptor, static_cast<off_t>(from + bytes.size)), "ftruncate()");
}

size_t zfirstDifference(ZSpan a, ZSpan b) {
    static const size_t kStep = 512;
    const size_t most = a.size < b.size ? a.size : b.size;
    size_t at = 0;
    while (most - at >= kStep && memcmp(a.data + at, b.data + at, kStep) == 0)
        at += kStep;
    while (at < most && a.data[at] == b.data[at])
        ++at;
    return at;
}

// ---------------------------------------------------------------- access

static const char kAccessCall[] = "fchown()";  // one word for all of it

// The list that grants more than owner, group and mode can say, or takes what a folder gives to new
// files away. Before the mode: with a list, the mode's middle bits are its mask.
static ZFailure copyAccessList(int descriptor, int model) {
    static const char kAccessList[] = "system.posix_acl_access";
    ZBytes list;
    ssize_t length = fgetxattr(model, kAccessList, nullptr, 0);
    if (length > 0) {
        list.reserveMore(static_cast<size_t>(length));
        length = fgetxattr(model, kAccessList, list.data(), list.room());
    }
    if (length > 0)
        return zresultOf(
            fsetxattr(descriptor, kAccessList, list.data(), static_cast<size_t>(length), 0),
            kAccessCall);
    if (length < 0 && errno != ENODATA && errno != EOPNOTSUPP)
        return zfailed(kAccessCall);
    fremovexattr(descriptor, kAccessList);
    return zdone;
}

ZFailure zcopyAccess(int descriptor, int model) {
    struct stat wanted, own;
    if (fstat(model, &wanted) != 0 || fstat(descriptor, &own) != 0)
        return zfailed(kAccessCall);
    if ((own.st_uid != wanted.st_uid || own.st_gid != wanted.st_gid) &&
        fchown(descriptor, wanted.st_uid, wanted.st_gid) != 0)
        return zfailed(kAccessCall);
    if (const ZFailure failure = copyAccessList(descriptor, model))
        return failure;
    // Some file systems have one mode for all files and refuse even that.
    if (fstat(descriptor, &own) == 0 && ((own.st_mode ^ wanted.st_mode) & 07777) == 0)
        return zdone;
    return zresultOf(fchmod(descriptor, wanted.st_mode & 07777), kAccessCall);
}
