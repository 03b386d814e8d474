// Built with 64-bit file offsets and times on 32-bit machines too.
#include "zlockedfile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

ZLockedFile::ZLockedFile(const char* path, ZLockOwner owner, unsigned long waitMilliseconds,
                         bool mayCreate)
    : path_(path), descriptor_(-1), created_(false) {
    for (;;) {
        open(mayCreate);
        const int error = zlockWholeFile(descriptor_, F_WRLCK, owner, waitMilliseconds);
        if (error == 0 && zleadsTo(path_.getChars(), descriptor_))
            return;
        // An empty file that somebody else has locked meanwhile is his.
        if (error != 0 && created_ && error != EAGAIN && error != EACCES)
            unlink(path_.getChars());
        close(descriptor_);
        if (error != 0)
            Z_RAISE_IO(path_.getChars(), "fcntl()", error);
    }
}

void ZLockedFile::open(bool mayCreate) {
    const char* path = path_.getChars();
    created_ = false;
    descriptor_ = ::open(path, O_RDWR | O_CLOEXEC);
    if (descriptor_ < 0 && errno == ENOENT && mayCreate) {
        descriptor_ = ::open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        created_ = descriptor_ >= 0;
        // Somebody was faster, or the path is a link that leads nowhere yet.
        if (descriptor_ < 0 && errno == EEXIST)
            descriptor_ = ::open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    }
    if (descriptor_ < 0)
        Z_RAISE_IO(path, "fopen(r+)", errno);
}

ZLockedFile::~ZLockedFile() {
    if (descriptor_ >= 0 && created_)
        unlink(path_.getChars());
    finish();
}

int ZLockedFile::finish() {
    const int descriptor = descriptor_;
    descriptor_ = -1;
    return descriptor < 0 || close(descriptor) == 0 ? 0 : errno;
}

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
        ZOutOfMemoryException().throwException(__FILE__, __LINE__);
    setvbuf(stream_.get(), nullptr, _IONBF, 0);  // writers collect their lines themselves
}

ZMemoryStream::~ZMemoryStream() { stream_.close(); }

ZSpan ZMemoryStream::finish() {
    if (stream_.close() != 0 || failed_)
        ZOutOfMemoryException().throwException(__FILE__, __LINE__);
    return {bytes_.data(), bytes_.size()};
}

void zreadText(ZPCache& cache, const char* path, ZSpan text) {
    // A stream over no bytes at all can't be had from fmemopen.
    FILE* opened = text.size == 0 ? fopen("/dev/null", "r")
                                  : fmemopen(const_cast<char*>(text.data), text.size, "r");
    if (opened == nullptr)
        ZOutOfMemoryException().throwException(__FILE__, __LINE__);
    ZStreamGuard stream(opened);
    cache.be_read(path, opened);
}

void zreadSide(ZPCache& cache, ZSpan side) {
    ZBuffer buffer;
    buffer.setBuffer(side.size, const_cast<char*>(side.data));
    cache.be_read_obfuscated(buffer);
}
