// zjournal.h: the journal of a stanza file: the content that a store was about to put in place. Never
// installed.
//
// It stands beside the file, under the file's name with ".zjournal" behind it; symbolic links are
// followed first, so that it is beside the real file. It is there while a safe store puts its
// content in place, and after that only if the storing process or the machine was stopped. Layout,
// numbers in the machine's order:
//
//   0   8 bytes  "ZBASEJ1\n"
//   8   uint64   length of the new text
//   16  uint64   length of the old text
//   24  uint64   first byte in which the two differ
//   32  uint64   bytes of the old text from there on that are kept here; any others are the new's
//   40  uint64   length of the side database
//   48  uint32   what becomes of the side database: 0 nothing, 1 it is replaced, 2 it is removed
//   52  uint32   length of the side database's path
//   56  uint32   CRC-32 of all other bytes
//   60  uint32   Adler-32 of all other bytes
//   64  the new text, the old text's part, the side database's path, the side database
//
// In a folder in which nobody may touch other people's files, it must belong to the file's owner, the
// folder's, the reader or root.
//
// A journal whose length or sums are wrong was never finished, so that the file still is the old one.
// A whole one counts as long as the file can be what this store left of it: of each sector either
// the old or the new bytes, or the new ones' beginning and the old ones' end. (Bytes reach the file
// in order; sectors reach the disk in any.) Else somebody else has rewritten the file since, and the
// journal is stale.
//
// Who reads the file under a read lock takes the content from a journal that counts and leaves it
// alone. Who holds the write lock puts it in place or removes it.
#ifndef Z_ZJOURNAL_H
#define Z_ZJOURNAL_H

#include <sys/types.h>

#include "ZLCString.h"
#include "zpblock.h"

/// What a journal's name has behind the file's.
static const char kJournalSuffix[] = ".zjournal";

/// What a store makes of the side database.
enum ZSideAction { zsideUntouched = 0, zsideReplaced = 1, zsideRemoved = 2 };

class ZJournal {
public:
    /// The journal of the file `path`.
    explicit ZJournal(const char* path);

    const char* name() const { return name_.getChars(); }
    /// The file itself, links followed.
    const char* target() const { return target_.getChars(); }

    /// Whether a journal is there that counts for the file open as `descriptor`; its content is at
    /// hand then. Raises ZPropertiesIOException if there is one that can't be read.
    bool find(int descriptor);
    ZSpan text() const { return text_; }
    ZSideAction sideAction() const { return sideAction_; }
    ZSpan side() const { return side_; }
    const ZLCString& sideName() const { return sideName_; }

    /// Writes a journal, with owner, mode and access list of `descriptor`'s file, and syncs it and
    /// its folder. Raises ZPropertiesIOException, and then there is none.
    void write(int descriptor, ZSpan text, ZSpan oldText, ZSideAction action,
               const ZLCString& sideName, ZSpan side);

    /// Removes the journal, whole or not, or makes it one that doesn't count. 0 or errno.
    int remove();

private:
    bool parse();
    bool mayComeFrom(uid_t writer, int descriptor) const;
    bool belongsTo(int descriptor) const;

    ZLCString target_;
    ZLCString name_;
    ZBytes bytes_;  // the whole journal, once found; the spans lead into it
    ZSpan text_;
    ZSpan oldPart_;
    ZSpan side_;
    ZLCString sideName_;
    ZSideAction sideAction_;
    uint64_t oldLength_;
    uint64_t oldFrom_;
};

/// The first byte in which two texts differ, or the length of the shorter one.
size_t zfirstDifference(ZSpan a, ZSpan b);

/// Gives the file open as `descriptor` the owner, mode and access list of `model`'s, as far as the
/// process may.
void zcopyAccess(int descriptor, int model);

#endif
