// zsidefile.h: the side database as a file beside others. Never installed.
//
// Rules. A text that others may write could name any file as its side database, and a folder that
// others may write could hold a link to one. So what is there must be a regular file of its own,
// with one name, that isn't reached through a link in its last place and belongs to the text's
// owner; and where there is none, one is made only in the text's own folder, or for a text that
// nobody but its owner may write, in a folder of that owner or if he is root or the caller. All
// else is refused before anything is written. The folder is opened once, and files in it are
// reached from there.
//
// A new one is written under a name of its own (".ztmp" behind the side database's), made for its
// owner alone, then given what the text gives, filled, and moved. It never has rights that the text
// doesn't give; where it can't have all of the text's, it isn't made.
#ifndef Z_ZSIDEFILE_H
#define Z_ZSIDEFILE_H

#include "ZLCString.h"
#include "zmemory.h"
#include "zpblock.h"
#include "zwholefile.h"

class ZSideFile : public ZAllocated {
public:
    /// The side database `name` of the text that is open as `text` and must outlive this; -1: of
    /// one that the caller is about to make, for a look.
    ZSideFile(const char* name, int text);
    ~ZSideFile();
    ZSideFile(const ZSideFile&) = delete;
    ZSideFile& operator=(const ZSideFile&) = delete;

    const char* name() const { return name_.getChars(); }

    /// Looks what is there, as the rules demand; one that isn't there is fine if it isn't `wanted`.
    /// The failures' words are a store's.
    ZFailure examine(bool wanted);
    /// After examine.
    bool exists() const { return exists_; }
    /// All bytes of the one that exists.
    ZFailure read(ZBytes& bytes) const;

    /// Makes the next content ready for a store of this mode: by itself, to be moved into place; or
    /// if one exists and the store isn't safe, by making room there. Plainly, what fails with the
    /// bytes is no failure. Safe: it is on the disk then.
    ZFailure prepare(ZSpan bytes, int mode);
    /// Puts what was prepared into place; `synced`: what is written in place is on the disk then.
    ZFailure takePlace(bool synced = false);
    /// Whether a move or removal may have been made although it has failed, since nobody tells.
    bool isUnclear() const { return isUnclear_; }
    /// Whether takePlace writes to the one that exists, so that a failure may leave a part.
    bool isWrittenInPlace() const { return inPlace_; }
    /// Writes what existed to its place again.
    ZFailure putBack(ZSpan old);
    /// Removes it; one that isn't there is no failure.
    ZFailure remove();
    /// Makes moves and removals last.
    ZFailure syncFolder() const { return place_.sync().of(name()); }
    /// Whether that can be done.
    ZFailure checkFolder() const { return place_.checkSync().of(name()); }
    /// Removes what a store that was stopped has left.
    ZFailure clearLeft();

private:
    bool placeIsKnown() const { return temporary_.getLength() != 0; }
    ZFailure find();
    bool isOwnersPlace() const;
    ZFailure openExisting(int flags, ZOpenFile& file) const;
    ZFailure failed(const char* call) const;
    ZFailure prepareExisting(int mode);
    ZFailure prepareNew(int mode);
    void discard();

    const ZLCString name_;
    const int text_;
    ZPlace place_;
    ZLCString temporary_;
    bool exists_;
    uint64_t inode_;  // of what was examined
    ZSpan prepared_;
    ZOpenFile target_;  // of what is to be written in place, or of the new file
    bool inPlace_;
    bool written_;       // the new file is there under its own name
    uint64_t newInode_;  // of the new file
    bool isUnclear_;
};

/// Makes sure of the disk's blocks for a file that grows. Where the file system can't promise them,
/// nothing happens, or if it `mayLengthen`, zeros are written behind the file's end, and taken back
/// where they find no room.
ZFailure zsecureRoom(int descriptor, uint64_t oldSize, uint64_t newSize, bool mayLengthen);

/// Reads the side database `name` of a text that is open under its lock, for a load. A failure has
/// the word "mapFile()", and the errno that mapping it gave where there is nothing to read; EPERM
/// if its mode has any of `badModes`.
ZFailure zreadSideFile(const char* name, int text, unsigned int badModes, ZBytes& bytes);

#endif
