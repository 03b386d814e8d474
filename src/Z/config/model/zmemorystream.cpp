#include "zmemorystream.h"

#include "zmodelreading.h"
#include "zraise.h"

// The C library's own memory stream takes a text that it had no room for as written.
ssize_t ZMemoryStream::take(void* self, const char* bytes, size_t size) {
    ZMemoryStream& stream = *static_cast<ZMemoryStream*>(self);
    try {
        zappendBytes(stream.bytes_, {bytes, size});
    } catch (ZOutOfMemoryException&) {
        stream.failed_ = true;
        return 0;
    }
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
    if (ZModelReading::isOwn(cache)) {
        ZModelReading::readText(cache, path, text);
        return;
    }
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
