// zwholefile.h: a whole file as load and store see it: its lock, its stamp, its bytes. Never
// installed.
//
// Failures are errno values, so that the caller raises them with its own words; memory alone raises
// ZOutOfMemoryException.
#ifndef Z_ZWHOLEFILE_H
#define Z_ZWHOLEFILE_H

#include <cstdint>

#include "ZExceptionText.h"
#include "zpblock.h"

/// Raises ZPropertiesIOException for this file, call and errno, at this line.
#define Z_RAISE_IO(path, call, error) \
    ZPropertiesIOException(path, call, error).throwException(__FILE__, __LINE__)

/// Owns a descriptor for a scope; a negative one is none.
class ZOpenFile {
public:
    explicit ZOpenFile(int descriptor) : descriptor_(descriptor) {}
    ~ZOpenFile() { close(); }
    ZOpenFile(const ZOpenFile&) = delete;
    ZOpenFile& operator=(const ZOpenFile&) = delete;

    int get() const { return descriptor_; }
    /// 0 or errno; again: 0.
    int close();

private:
    int descriptor_;
};

/// The part of a path behind its last slash, on whole characters: the last byte of a longer one may
/// look like a slash.
const char* znameOf(const char* path);
/// The folder in which a path stands: "." without a slash.
ZLCString zfolderOf(const char* path);
/// Makes a path the real file's, all links followed; false, and nothing changed, if there is none.
bool zfollowLinks(ZLCString& path);

/// Whose a lock is. A process's lock doesn't exclude its own threads, and goes when any descriptor of
/// the file is closed; a description's lock belongs to one open. The two exclude each other.
enum ZLockOwner { zlockOfProcess, zlockOfDescription };

/// Locks the whole file, `type` being F_RDLCK or F_WRLCK. While somebody else holds it, it is tried
/// again, with growing pauses that no two processes share, until the time is over. 0 or errno.
int zlockWholeFile(int descriptor, short type, ZLockOwner owner, unsigned long waitMilliseconds);

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

#endif
