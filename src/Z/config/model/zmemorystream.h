// zmemorystream.h: what a cache writes and reads, as bytes in memory. Never installed.
#ifndef Z_ZMEMORYSTREAM_H
#define Z_ZMEMORYSTREAM_H

#include <cstdio>

#include "ZPCache.h"
#include "zinternal.h"
#include "zpblock.h"

/// A stream into memory. Its failures are of memory: ZOutOfMemoryException.
class ZMemoryStream {
public:
    ZMemoryStream();
    ~ZMemoryStream();
    ZMemoryStream(const ZMemoryStream&) = delete;
    ZMemoryStream& operator=(const ZMemoryStream&) = delete;

    FILE* get() const { return stream_.get(); }
    /// All that was written; the object's. No more can be.
    ZSpan finish();

private:
    static ssize_t take(void* self, const char* bytes, size_t size);

    ZBytes bytes_;
    bool failed_;
    ZStreamGuard stream_;
};

/// Let the cache read a text, or a side database, that is in memory; `path` is for messages.
void zreadText(ZPCache& cache, const char* path, ZSpan text);
void zreadSide(ZPCache& cache, ZSpan side);

#endif
