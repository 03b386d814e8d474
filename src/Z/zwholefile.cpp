// Built with 64-bit file offsets and times on 32-bit machines too.
#include "zwholefile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

#include "zqelutil.h"

// ---------------------------------------------------------------- descriptors and names

int ZOpenFile::close() {
    const int descriptor = descriptor_;
    descriptor_ = -1;
    return descriptor < 0 || ::close(descriptor) == 0 ? 0 : errno;
}

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

static int tryLock(int descriptor, short type, ZLockOwner owner) {
    struct flock whole = {};
    whole.l_type = type;
    whole.l_whence = SEEK_SET;
    const int command = owner == zlockOfDescription ? F_OFD_SETLK : F_SETLK;
    return fcntl(descriptor, command, &whole) == -1 ? errno : 0;
}

int zlockWholeFile(int descriptor, short type, ZLockOwner owner, unsigned long waitMilliseconds) {
    int error = tryLock(descriptor, type, owner);
    if (error == 0 || waitMilliseconds == 0)
        return error;
    // Whoever waits longer than a hundred years waits for ever.
    static const uint64_t kLongest = UINT64_C(100) * 365 * 24 * 3600 * 1000;
    const uint64_t wait = waitMilliseconds < kLongest ? waitMilliseconds : kLongest;
    const int64_t end = now(CLOCK_MONOTONIC) + static_cast<int64_t>(wait) * (kSecond / 1000);
    Pauses pauses;
    while (error == EAGAIN || error == EACCES) {
        const int64_t left = end - now(CLOCK_MONOTONIC);
        if (left <= 0)
            break;
        pauses.pause(left);
        error = tryLock(descriptor, type, owner);
    }
    return error;
}

// ---------------------------------------------------------------- stamp

static void fill(const struct stat& status, ZFileStamp& stamp) {
    // The system's clock for files moves in steps of some milliseconds: a change within the same
    // step as the last one may leave all times as they are.
    static const int64_t kStep = kSecond / 20;
    stamp.modified = nanoseconds(status.st_mtim);
    stamp.changed = nanoseconds(status.st_ctim);
    stamp.size = static_cast<uint64_t>(status.st_size);
    stamp.device = static_cast<uint64_t>(status.st_dev);
    stamp.inode = static_cast<uint64_t>(status.st_ino);
    const int64_t last = stamp.changed > stamp.modified ? stamp.changed : stamp.modified;
    stamp.settled = now(CLOCK_REALTIME) - last > kStep;
}

int zstampFile(int descriptor, ZFileStamp& stamp) {
    struct stat status;
    if (fstat(descriptor, &status) != 0)
        return errno;
    fill(status, stamp);
    return 0;
}

int zstampFile(const char* path, ZFileStamp& stamp) {
    struct stat status;
    if (stat(path, &status) != 0)
        return errno;
    fill(status, stamp);
    return 0;
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
    return zstampFile(descriptor, open) == 0 && zstampFile(path, named) == 0 &&
           zsameFile(open, named);
}

// ---------------------------------------------------------------- bytes

int zreadWholeFile(int descriptor, ZBytes& bytes) {
    bytes.setSize(0);
    struct stat status;
    if (fstat(descriptor, &status) != 0)
        return errno;
    // One byte more, so that the end shows with the first read.
    bytes.reserveMore(static_cast<size_t>(status.st_size) + 1);
    for (;;) {
        bytes.reserveMore(1);
        const ssize_t got = pread(descriptor, bytes.data() + bytes.size(), bytes.room(),
                                  static_cast<off_t>(bytes.size()));
        if (got == 0)
            return 0;
        if (got > 0)
            bytes.setSize(bytes.size() + static_cast<size_t>(got));
        else if (errno != EINTR)
            return errno;
    }
}

int zwriteAt(int descriptor, const char* bytes, size_t size, uint64_t offset) {
    while (size > 0) {
        const ssize_t put = pwrite(descriptor, bytes, size, static_cast<off_t>(offset));
        if (put < 0 && errno == EINTR)
            continue;
        if (put < 0)
            return errno;
        if (put == 0)
            return EIO;
        bytes += put;
        size -= static_cast<size_t>(put);
        offset += static_cast<uint64_t>(put);
    }
    return 0;
}
