// zwholefile.h: a whole file as load and store see it: its lock, its stamp, its bytes. Never
// installed.
//
// Failures are errno values, so that the caller raises them with its own words; memory alone raises
// ZOutOfMemoryException.
#ifndef Z_ZWHOLEFILE_H
#define Z_ZWHOLEFILE_H

#include <signal.h>

#include <cerrno>
#include <cstdint>

#include "ZExceptionText.h"
#include "ZLCString.h"
#include "zpblock.h"
#include "zraise.h"

/// A call that failed, and its errno; 0 where none did.
struct ZFailure {
    const char* call;
    int error;

    explicit operator bool() const { return error != 0; }
};

/// Raises ZPropertiesIOException for this file, call and errno.
[[noreturn]] inline void zraiseIO(const char* path, const char* call, int error,
                                  ZSite site = ZSite()) {
    zraise(ZPropertiesIOException(path, call, error), site);
}

/// The same for a failure, if it is one.
inline void zcheckIO(const char* path, const ZFailure& failure, ZSite site = ZSite()) {
    if (failure)
        zraiseIO(path, failure.call, failure.error, site);
}
static const ZFailure zdone = {"", 0};
/// The call that has just set errno.
inline ZFailure zfailed(const char* call) { return {call, errno}; }

/// Owns a descriptor for a scope; a negative one is none.
class ZOpenFile {
public:
    ZOpenFile() : descriptor_(-1) {}
    explicit ZOpenFile(int descriptor) : descriptor_(descriptor) {}
    ~ZOpenFile() { close(); }
    ZOpenFile(const ZOpenFile&) = delete;
    ZOpenFile& operator=(const ZOpenFile&) = delete;

    int get() const { return descriptor_; }
    /// Another one in place of its own.
    void reset(int descriptor);
    /// Hands the descriptor on.
    int release();
    /// 0 or errno; again: 0. No thread is cancelled in it.
    int close();

private:
    int descriptor_;
};

/// As open, and openat in the folder that is open as `folder` (AT_FDCWD: the current one), always
/// with O_CLOEXEC. No thread is cancelled in it, so that what is opened always finds its owner.
int zopenFile(const char* path, int flags, unsigned int mode = 0);
int zopenFileAt(int folder, const char* name, int flags, unsigned int mode = 0);

/// As zopenFile, but waits for nobody at a pipe or device, and takes nothing but a regular file:
/// EISDIR, or EINVAL, otherwise.
int zopenRegularFile(const char* path, int flags, unsigned int mode = 0);

/// Keeps the signal of a write beyond the process's limit for file sizes from the calling thread
/// while it lives: the write fails with EFBIG, and that is enough.
class ZSizeSignalGuard {
public:
    ZSizeSignalGuard();
    ~ZSizeSignalGuard();
    ZSizeSignalGuard(const ZSizeSignalGuard&) = delete;
    ZSizeSignalGuard& operator=(const ZSizeSignalGuard&) = delete;

private:
    sigset_t before_;
    bool isMine_;
};

/// The part of a path behind its last slash, on whole characters: the last byte of a longer one may
/// look like a slash.
const char* znameOf(const char* path);
/// The folder in which a path stands: "." without a slash.
ZLCString zfolderOf(const char* path);
/// Makes a path the real file's, all links followed; false, and nothing changed, if there is none.
bool zfollowLinks(ZLCString& path);

/// A name with a suffix, for what is to stand beside a file of that name. Where the whole would be
/// longer than a name can be, the name's end makes way for a number made of it.
ZLCString zbesideName(const char* name, const char* suffix);

/// A name in a folder that is opened once: what is done to files of that folder can't be led
/// elsewhere by who turns links on the way to it.
class ZPlace {
public:
    /// Where the file open as `descriptor`, to which `path` has led, stands itself, links followed.
    /// 0 or errno: ESTALE if it isn't there any more.
    int find(const char* path, int descriptor);
    /// The place that `path` names; its last part may be a link, which isn't followed. 0 or errno.
    int find(const char* path);

    int folder() const { return folder_.get(); }
    const char* name() const { return name_.getChars(); }
    /// The path of what stands beside it under this name, for messages.
    ZLCString pathOf(const char* name) const;
    /// Makes what was made, moved and removed in the folder last. Needs a folder that may be read.
    ZFailure sync() const;
    /// Whether that can be done.
    ZFailure checkSync() const;

private:
    ZOpenFile folder_;  // O_PATH: it needn't be readable
    ZLCString folderPath_;
    ZLCString name_;
};

/// Whose a lock is. A process's lock doesn't exclude its own threads, and goes when any descriptor
/// of the file is closed; a description's lock belongs to one open. The two exclude each other.
enum ZLockOwner { zlockOfProcess, zlockOfDescription };

/// Locks the whole file, `type` being F_RDLCK or F_WRLCK. While somebody else holds it, it is tried
/// again, with growing pauses that no two processes share, until the time is over. 0 or errno.
int zlockWholeFile(int descriptor, short type, ZLockOwner owner, unsigned long waitMilliseconds);
/// How often this process has forked, as far as it matters: counted from the first call on.
unsigned int zforkCount();

/// Closes a locked file at the end of a scope, or before. A description's lock that a forked child
/// has too isn't ended by that and is given up first; but only then, for between the two a thread
/// of this process may take a process's lock on the file, which closing drops.
class ZLockScope {
public:
    /// Ahead of the locking.
    ZLockScope(ZOpenFile& file, ZLockOwner owner)
        : file_(file), owner_(owner), forks_(zforkCount()) {}
    ~ZLockScope() { close(); }
    ZLockScope(const ZLockScope&) = delete;
    ZLockScope& operator=(const ZLockScope&) = delete;

    /// 0 or errno.
    int close();

private:
    ZOpenFile& file_;
    const ZLockOwner owner_;
    const unsigned int forks_;
};
/// Gives the lock up where that is needed ahead of closing.
void zunlockSharedFile(int descriptor, ZLockOwner owner, unsigned int forksBefore);
/// Whether this errno of a lock says that somebody else holds it.
inline bool zisLockedByOthers(int error) { return error == EAGAIN || error == EACCES; }

/// When and how a file was changed last, as exactly as the system tells.
struct ZFileStamp {
    int64_t modified;  // nanoseconds since the epoch
    int64_t changed;   // likewise, of the inode
    uint64_t size;
    uint64_t device;
    uint64_t inode;
    bool settled;  // false: so young that another change might leave no trace in it
};

/// 0 or errno.
int zstampFile(int descriptor, ZFileStamp& stamp);
int zstampFile(const char* path, ZFileStamp& stamp);

/// Whether the file is certain not to have changed from the one stamp to the other.
bool zsameContent(const ZFileStamp& before, const ZFileStamp& now);
/// Whether both are of one inode.
bool zsameFile(const ZFileStamp& a, const ZFileStamp& b);

/// Whether the path leads to the file that is open.
bool zleadsTo(const char* path, int descriptor);

/// All bytes of the file, from its first, in place of those of `bytes`. 0 or errno.
int zreadWholeFile(int descriptor, ZBytes& bytes);

/// Puts `size` bytes at `offset`. 0 or errno; 0 bytes are nothing to do.
int zwriteAt(int descriptor, const char* bytes, size_t size, uint64_t offset);

/// The first byte in which two texts differ, or the length of the shorter one.
size_t zfirstDifference(ZSpan a, ZSpan b);
inline bool zequals(ZSpan a, ZSpan b) {
    return a.size == b.size && zfirstDifference(a, b) == a.size;
}

/// Gives a file that was just made for its owner alone the owner, group, mode and access list of
/// `model`'s, so that at no moment anybody may do more with it than the model lets him. 0 or errno;
/// what was given until then stays.
int zcopyAccess(int descriptor, int model);

#endif
