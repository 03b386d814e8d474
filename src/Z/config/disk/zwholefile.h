// zwholefile.h: a whole file as load and store see it: its lock, its stamp, its bytes. Never
// installed.
#ifndef Z_ZWHOLEFILE_H
#define Z_ZWHOLEFILE_H

#include <signal.h>

#include <cerrno>
#include <cstdint>

#include "ZExceptionText.h"
#include "ZLCString.h"
#include "zassert.h"
#include "zmemory.h"
#include "zpblock.h"
#include "zraise.h"
#include "zuncancelled.h"

struct stat;

/// How a step on files ended: the call that failed, as messages name it, its errno, and the path of
/// the file concerned, which lives as long as who gives the failure. An errno of 0: all went well.
struct [[nodiscard]] ZFailure {
    const char* call = "";
    int error = 0;
    const char* path = nullptr;  // null where the step doesn't know it

    explicit operator bool() const { return error != 0; }
    /// The same under another word.
    ZFailure as(const char* word) const { return {word, error, path}; }
    /// The same of this file, if it doesn't say one.
    ZFailure of(const char* file) const { return {call, error, path == nullptr ? file : path}; }
    /// This one, or if all went well what comes `next`.
    ZFailure orElse(const ZFailure& next) const { return error != 0 ? *this : next; }
    /// Nobody looks at it, on purpose.
    void passOver() const {}
    /// Of a lock: somebody else holds it.
    bool isLockedByOthers() const { return error == EAGAIN || error == EACCES; }
};

constexpr ZFailure zdone{};
/// The call that has just set errno.
inline ZFailure zfailed(const char* call) { return {call, errno, nullptr}; }
/// The same if it has failed, as the system's calls tell it: by -1.
inline ZFailure zresultOf(int result, const char* call) {
    return result == -1 ? zfailed(call) : zdone;
}

/// Raises ZPropertiesIOException for this file, call and errno.
[[noreturn]] inline void zraiseIO(const char* path, const char* call, int error,
                                  ZSite site = ZSite()) {
    zraise(ZPropertiesIOException(path, call, error), site);
}

/// Raises it for a failure that knows its file.
inline void zcheckIO(const ZFailure& failure, ZSite site = ZSite()) {
    if (!failure)
        return;
    zassert(failure.path != nullptr);
    zraiseIO(failure.path, failure.call, failure.error, site);
}

/// Owns a descriptor for a scope; a negative one is none.
class ZOpenFile {
public:
    ZOpenFile() : descriptor_(-1) {}
    explicit ZOpenFile(int descriptor) : descriptor_(descriptor) {}
    ~ZOpenFile() { close().passOver(); }
    ZOpenFile(const ZOpenFile&) = delete;
    ZOpenFile& operator=(const ZOpenFile&) = delete;

    int get() const { return descriptor_; }
    /// Another one in place of its own.
    void reset(int descriptor);
    /// Hands the descriptor on.
    int release();
    /// Again: nothing is left to do. No thread is cancelled in it.
    ZFailure close();

private:
    int descriptor_;
};

/// As open, and openat in the folder that is open as `folder` (AT_FDCWD: the current one), always
/// with O_CLOEXEC. No thread is cancelled in it, so that what is opened always finds its owner.
int zopenFile(const char* path, int flags, unsigned int mode = 0);
int zopenFileAt(int folder, const char* name, int flags, unsigned int mode = 0);

/// As these, but waits for nobody at a pipe or device, and takes nothing but a regular file:
/// EISDIR, or EINVAL, otherwise.
int zopenRegularFile(const char* path, int flags, unsigned int mode = 0);
int zopenRegularFileAt(int folder, const char* name, int flags, unsigned int mode = 0);

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
    /// ESTALE if it isn't there any more.
    ZFailure find(const char* path, int descriptor);
    /// The place that `path` names; its last part may be a link, which isn't followed.
    ZFailure find(const char* path);

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

/// Calls attempt(data) until it gives anything but a failure that is somebody else's lock, with
/// growing pauses that no two processes share, until the time is over. What it gave last.
ZFailure zretryLocked(unsigned long waitMilliseconds, ZFailure (*attempt)(void* data), void* data);

/// Locks the whole file, `type` being F_RDLCK or F_WRLCK. While somebody else holds it, it is tried
/// again as above.
ZFailure zlockWholeFile(int descriptor, short type, ZLockOwner owner,
                        unsigned long waitMilliseconds);
/// How often this process has forked, as far as it matters: counted from the first call on.
unsigned int zforkCount();

/// What goes around the closing of a locked file. A description's lock that a forked child has too
/// isn't ended by closing and is given up first; but only then, for between the two a thread of
/// this process may take a process's lock on the file, which closing drops. While it lives, forks
/// wait: one between the look at their count and the closing would leave the lock in the child. No
/// thread is cancelled meanwhile. A signal's handler that forks must not run in this thread.
class ZSharedUnlock {
public:
    ZSharedUnlock(int descriptor, ZLockOwner owner, unsigned int forksBefore);
    ~ZSharedUnlock();
    ZSharedUnlock(const ZSharedUnlock&) = delete;
    ZSharedUnlock& operator=(const ZSharedUnlock&) = delete;

private:
    const ZUncancelled uncancelled_;
    const bool isHeld_;
};

/// Closes a locked file at the end of a scope, or before.
class ZLockScope {
public:
    /// Ahead of the opening: a child may have the file from then on.
    ZLockScope(ZOpenFile& file, ZLockOwner owner)
        : file_(file), owner_(owner), forks_(zforkCount()) {}
    ~ZLockScope() { close().passOver(); }
    ZLockScope(const ZLockScope&) = delete;
    ZLockScope& operator=(const ZLockScope&) = delete;

    ZFailure close();
    /// The zforkCount at its beginning.
    unsigned int forksBefore() const { return forks_; }

private:
    ZOpenFile& file_;
    const ZLockOwner owner_;
    const unsigned int forks_;
};

/// When and how a file was changed last, as exactly as the system tells.
struct ZFileStamp {
    int64_t modified;  // nanoseconds since the epoch
    int64_t changed;   // likewise, of the inode
    uint64_t size;
    uint64_t device;
    uint64_t inode;
    bool isRegular;
    bool settled;  // false: so young that another change might leave no trace in it
};

/// From what the system tells. Requires: this unit too is built for big files and late dates.
void zstampOf(const struct stat& status, ZFileStamp& stamp);
ZFailure zstampFile(int descriptor, ZFileStamp& stamp);
/// When it was modified, in whole seconds.
long zsecondsOf(const ZFileStamp& stamp);
ZFailure zstampFile(const char* path, ZFileStamp& stamp);

/// Whether the file is certain not to have changed from the one stamp to the other.
bool zsameContent(const ZFileStamp& before, const ZFileStamp& now);
/// Whether both are of one inode.
bool zsameFile(const ZFileStamp& a, const ZFileStamp& b);

/// Whether the path leads to the file that is open.
bool zleadsTo(const char* path, int descriptor);

/// Adds the names in a folder, which is open to be read and wasn't listed yet, but for "." and
/// "..", as the system has them; after a failure some of them.
ZFailure zlistFolder(int folder, ZVector<ZLCString>& names);

/// All bytes of the file, from its first, in place of those of `bytes`.
ZFailure zreadWholeFile(int descriptor, ZBytes& bytes);

/// Puts the bytes at `offset`; without any there is nothing to do.
ZFailure zwriteAt(int descriptor, ZSpan bytes, uint64_t offset);
/// Makes it what the file holds from `from` on.
ZFailure zwriteToEnd(int descriptor, ZSpan bytes, uint64_t from);

/// What follows the first `from` bytes.
inline ZSpan zspanFrom(ZSpan text, size_t from) { return {text.data + from, text.size - from}; }
/// The first byte in which two texts differ, or the length of the shorter one.
size_t zfirstDifference(ZSpan a, ZSpan b);

/// Gives a file that was just made for its owner alone the owner, group, mode and access list of
/// `model`'s, so that at no moment anybody may do more with it than the model lets him. What
/// was given until a failure stays.
ZFailure zcopyAccess(int descriptor, int model);

#endif
