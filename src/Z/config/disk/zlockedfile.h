// zlockedfile.h: what stores and updates share: a stanza file under its write lock, and the content
// of a cache as bytes in memory. Never installed.
#ifndef Z_ZLOCKEDFILE_H
#define Z_ZLOCKEDFILE_H

#include <cstdio>

#include "ZPCache.h"
#include "zfilestream.h"
#include "zinternal.h"
#include "zwholefile.h"

/// A stanza file that is open for a store, under its write lock, and the one to which the path
/// leads: while the lock was awaited, an editor may have put another file in its place. Only a
/// regular file is taken.
class ZLockedFile {
public:
    /// Opens and locks. A missing file is made if `mayCreate`. Raises ZPropertiesIOException with
    /// "fopen(r+)" or "fcntl()".
    ZLockedFile(const char* path, ZLockOwner owner, unsigned long waitMilliseconds, bool mayCreate);
    /// What was made here and not finished isn't left behind.
    ~ZLockedFile();
    ZLockedFile(const ZLockedFile&) = delete;
    ZLockedFile& operator=(const ZLockedFile&) = delete;

    int descriptor() const { return file_.get(); }

    /// The content is in place: unlocks and closes. 0 or errno.
    int finish();

private:
    void open(bool mayCreate);
    void forgetCreated();

    const ZLCString path_;
    ZOpenFile file_;
    ZLockScope lock_;
    bool created_;
};

/// A stanza file that is open for a load, under its read lock.
class ZReadFile {
public:
    /// Opens and locks. With `onlyRegular`, anything else is refused, and nothing hangs at a pipe.
    /// Raises ZPropertiesIOException with "fopen(r)" or "fcntl()".
    ZReadFile(const char* path, bool onlyRegular, ZLockOwner owner, unsigned long waitMilliseconds);
    ~ZReadFile() { close(); }
    ZReadFile(const ZReadFile&) = delete;
    ZReadFile& operator=(const ZReadFile&) = delete;

    FILE* stream() const { return stream_.get(); }
    int descriptor() const { return fileno(stream_.get()); }
    /// Unlocks and closes.
    void close();

private:
    const ZLockOwner owner_;
    const unsigned int forks_;
    ZStreamRoom room_;
    ZStreamGuard stream_;
};

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
