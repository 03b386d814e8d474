// Built with 64-bit file offsets and times on 32-bit machines too.
#include "zlockedfile.h"
#include "zraise.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

ZLockedFile::ZLockedFile(const char* path, ZLockOwner owner, unsigned long waitMilliseconds,
                         bool mayCreate)
    : path_(path), lock_(file_, owner), created_(false) {
    for (;;) {
        open(mayCreate);
        const int error = zlockWholeFile(descriptor(), F_WRLCK, owner, waitMilliseconds);
        ZFileStamp open = {}, named = {};
        int lost = error;
        if (error == 0)
            lost = zstampFile(descriptor(), open);
        if (lost == 0)
            lost = zstampFile(path_.getChars(), named);
        if (lost == 0 && zsameFile(open, named))
            return;
        // An empty file that somebody else has locked meanwhile is his.
        if ((error != 0 && !zisLockedByOthers(error)) ||
            (error == 0 && lost != 0 && lost != ENOENT))
            forgetCreated();
        finish();
        if (error != 0)
            zraiseIO(path_.getChars(), "fcntl()", error);
        if (lost != 0 && lost != ENOENT)
            zraiseIO(path_.getChars(), "stat()", lost);
    }
}

void ZLockedFile::open(bool mayCreate) {
    const char* path = path_.getChars();
    created_ = false;
    file_.reset(zopenRegularFile(path, O_RDWR));
    if (descriptor() < 0 && errno == ENOENT && mayCreate) {
        file_.reset(zopenFile(path, O_RDWR | O_CREAT | O_EXCL, 0666));
        created_ = descriptor() >= 0;
        // Somebody was faster, or the path is a link that leads nowhere yet.
        if (descriptor() < 0 && errno == EEXIST)
            file_.reset(zopenRegularFile(path, O_RDWR | O_CREAT, 0666));
    }
    if (descriptor() < 0)
        zraiseIO(path, "fopen(r+)", errno);
}

// What was made here goes, if it is empty still, and what the path leads to.
void ZLockedFile::forgetCreated() {
    ZPlace place;
    ZFileStamp stamp;
    if (created_ && zstampFile(descriptor(), stamp) == 0 && stamp.size == 0 &&
        place.find(path_.getChars(), descriptor()) == 0)
        unlinkat(place.folder(), place.name(), 0);
    created_ = false;
}

ZLockedFile::~ZLockedFile() {
    if (descriptor() >= 0)
        forgetCreated();
    finish();
}

int ZLockedFile::finish() { return lock_.close(); }

// ---------------------------------------------------------------- reading

// A thread that is cancelled loses no stream; but it may be while it waits for somebody to open the
// other end of a pipe.
static FILE* openStream(const char* path, bool onlyRegular) {
    {
        const ZUncancelled uncancelled;
        struct stat status;
        if (!onlyRegular && stat(path, &status) == 0 && S_ISREG(status.st_mode))
            return fopen(path, "re");
        if (onlyRegular) {
            ZOpenFile file(zopenRegularFile(path, O_RDONLY));
            FILE* stream = file.get() < 0 ? nullptr : fdopen(file.get(), "r");
            if (stream != nullptr)
                file.release();
            return stream;
        }
    }
    return fopen(path, "re");
}

ZReadFile::ZReadFile(const char* path, bool onlyRegular, ZLockOwner owner,
                     unsigned long waitMilliseconds)
    : owner_(owner), forks_(zforkCount()), stream_(nullptr) {
    stream_.reset(openStream(path, onlyRegular));
    if (stream_.get() == nullptr)
        zraiseIO(path, "fopen(r)", errno);
    room_.lendTo(stream_.get());
    const int error = zlockWholeFile(descriptor(), F_RDLCK, owner, waitMilliseconds);
    if (error != 0)
        zraiseIO(path, "fcntl()", error);
}

void ZReadFile::close() {
    if (stream_.get() != nullptr)
        zunlockSharedFile(descriptor(), owner_, forks_);
    stream_.close();
}

// ---------------------------------------------------------------- memory

// The C library's own memory stream takes a text that it had no room for as written.
ssize_t ZMemoryStream::take(void* self, const char* bytes, size_t size) {
    ZMemoryStream& stream = *static_cast<ZMemoryStream*>(self);
    try {
        stream.bytes_.reserveMore(size);
    } catch (ZOutOfMemoryException&) {
        stream.failed_ = true;
        return 0;
    }
    memcpy(stream.bytes_.data() + stream.bytes_.size(), bytes, size);
    stream.bytes_.setSize(stream.bytes_.size() + size);
    return static_cast<ssize_t>(size);
}

ZMemoryStream::ZMemoryStream()
    : failed_(false), stream_(fopencookie(this, "w", {nullptr, take, nullptr, nullptr})) {
    if (stream_.get() == nullptr)
        zraise(ZOutOfMemoryException());
    setvbuf(stream_.get(), nullptr, _IONBF, 0);  // writers collect their lines themselves
}

ZMemoryStream::~ZMemoryStream() { stream_.close(); }

ZSpan ZMemoryStream::finish() {
    if (stream_.close() != 0 || failed_)
        zraise(ZOutOfMemoryException());
    return {bytes_.data(), bytes_.size()};
}

void zreadText(ZPCache& cache, const char* path, ZSpan text) {
    // A stream over no bytes at all can't be had from fmemopen.
    const ZUncancelled uncancelled;
    FILE* opened = text.size == 0 ? fopen("/dev/null", "r")
                                  : fmemopen(const_cast<char*>(text.data), text.size, "r");
    if (opened == nullptr)
        zraise(ZOutOfMemoryException());
    ZStreamGuard stream(opened);
    cache.be_read(path, opened);
}

void zreadSide(ZPCache& cache, ZSpan side) {
    ZBuffer buffer;
    buffer.setBuffer(side.size, const_cast<char*>(side.data));
    cache.be_read_obfuscated(buffer);
}
