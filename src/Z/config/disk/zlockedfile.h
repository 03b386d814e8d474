// zlockedfile.h: a file that is open under its lock: as a stream for loads and plain stores, as a
// descriptor for stores that look at what they find, and for updates. Never installed.
#ifndef Z_ZLOCKEDFILE_H
#define Z_ZLOCKEDFILE_H

#include <cstdio>

#include "zfilestream.h"
#include "zinternal.h"
#include "zmemory.h"
#include "zwholefile.h"

/// Whose lock is taken, and for how many milliseconds it is tried while somebody else holds it.
struct ZLockTerms {
    ZLockOwner owner;
    unsigned long wait;
};

/// A stream on a file that is locked whole for as long as it is open.
class ZLockedStream {
public:
    /// `forksBefore`: the zforkCount from ahead of the opening.
    explicit ZLockedStream(unsigned int forksBefore = zforkCount())
        : owner_(zlockOfProcess), forks_(forksBefore), stream_(nullptr) {}
    ~ZLockedStream() { close(); }
    ZLockedStream(const ZLockedStream&) = delete;
    ZLockedStream& operator=(const ZLockedStream&) = delete;

    /// Takes over what was just opened, and locks it, `type` being F_RDLCK or F_WRLCK. Raises
    /// ZPropertiesIOException: for a null stream with `word` and errno, else with "fcntl()".
    void take(FILE* opened, const char* word, const char* path, short type,
              const ZLockTerms& terms);

    FILE* get() const { return stream_.get(); }
    int descriptor() const { return fileno(stream_.get()); }
    /// Unlocks and closes. 0 or errno.
    int close();

private:
    ZLockOwner owner_;
    const unsigned int forks_;
    ZStreamRoom room_;
    ZStreamGuard stream_;
};

/// A stream on this descriptor, which it closes; null with errno where there is none, or it can't
/// be had, and then the descriptor is closed.
FILE* zstreamOn(int descriptor, const char* mode);

/// For a load: a descriptor, or -1 with errno. As any program opens a file, or taking nothing but a
/// regular one, so that nobody hangs at a pipe. A thread may be cancelled while it waits at a pipe,
/// but loses no descriptor. `isDirect`: the path's last part is no link.
int zopenToRead(const char* path, bool onlyRegular, bool& isDirect);

/// A stanza file that is open for a store, under its write lock, and the one to which the path
/// leads: while the lock was awaited, an editor may have put another file in its place. Only a
/// regular file is taken.
class ZLockedFile : public ZAllocated {
public:
    /// Opens and locks. A missing file is made if `mayCreate`. Raises ZPropertiesIOException with
    /// "fopen(r+)" or "fcntl()".
    ZLockedFile(const char* path, const ZLockTerms& terms, bool mayCreate)
        : ZLockedFile(path, -1, terms, mayCreate) {}
    /// Likewise the file of that name in the folder that is open as `folder`, which becomes this
    /// object's, and no other; -1: where `path` leads.
    ZLockedFile(const char* path, int folder, const ZLockTerms& terms, bool mayCreate);
    /// What was made here and not finished isn't left behind.
    ~ZLockedFile();
    ZLockedFile(const ZLockedFile&) = delete;
    ZLockedFile& operator=(const ZLockedFile&) = delete;

    int descriptor() const { return file_.get(); }
    /// Whether it wasn't there before.
    bool isCreated() const { return created_; }

    /// The content is in place: unlocks and closes.
    ZFailure finish();
    /// Takes a file away again that was made here, as long as it is empty.
    void forgetCreated();

private:
    void open(bool mayCreate);
    int openBy(int flags, unsigned int mode = 0) const;
    ZFailure stampNamed(ZFileStamp& stamp) const;

    const ZLCString path_;
    const ZOpenFile folder_;
    ZOpenFile file_;
    ZLockScope lock_;
    bool created_;
};

#endif
