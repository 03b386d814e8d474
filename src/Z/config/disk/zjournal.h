// zjournal.h: the journal of a stanza file: the content that a store was about to put in place.
// Never installed.
//
// It stands beside the file, under the file's name with ".zjournal" behind it; symbolic links are
// followed first, so that it is beside the real file. It is there while a safe store puts its
// content in place, and after that only if the storing process or the machine was stopped. Layout,
// numbers in the machine's order:
//
//   0   8 bytes  "ZBASEJ2\n"
//   8   uint64   length of the new text
//   16  uint64   length of the old text
//   24  uint64   first byte in which the two differ
//   32  uint64   bytes of the old text from there on that are kept here; any others are the new's
//   40  uint64   length of the side database
//   48  uint64   inode of the file
//   56  int64    when that inode was made, in nanoseconds; 0 where the file system doesn't tell
//   64  uint32   what becomes of the side database: 0 nothing, 1 it is replaced, 2 it is removed
//   68  uint32   CRC-32 of all bytes but these sums and the progress
//   72  uint32   Adler-32 of the same
//   76  uint32   progress: 0 under way, 1 the text is placed, 2 it is on the disk
//   80  int64    with progress 1: the file's time of modification then, in nanoseconds
//   88  uint32   CRC-32 of the progress and that time
//   92  uint32   0
//   96  the new text, the old text's part, the side database
//
// Only the progress is written a second time, within one sector.
//
// Whose journal counts. It says nothing that the file doesn't say too: the side database is the one
// that the new text names, or the old one where it goes. It must be a regular file with one name
// that belongs to the file's owner or to root, and that is asked before it is opened: what a
// stranger has put there is no journal. The inode must be the file's, so that a file that an editor
// has put in its place is safe from it. (The device isn't asked: it changes when a disk is mounted
// anew.)
//
// When it counts. One whose length or sums are wrong was never finished, so that the file is still
// the old one. A whole one counts if the file is what its store can have left:
//   - all of the new text;
//   - or, unless the progress is 2, each byte the old or the new one, or 0 behind either's end:
//     bytes and length reach the disk in any order. But not
//       all of the old text. The store has then put nothing in place, or somebody has taken it
//       back; a file that was modified after the text was placed. Somebody else has written to it.
// Else it is stale. What this can't see: somebody who writes to the file in place, sets its time of
// modification back or writes within the same tick of the clock, and leaves a mixture of both
// texts.
//
// A reader, under a read lock, takes the content from a journal that counts and leaves it alone.
// The holder of the write lock puts it in place or removes it.
#ifndef Z_ZJOURNAL_H
#define Z_ZJOURNAL_H

#include <sys/stat.h>

#include "zpblock.h"
#include "zwholefile.h"

/// What a journal's name has behind the file's.
static const char kJournalSuffix[] = ".zjournal";
/// Whether a file of this name can be a journal.
bool zisJournalName(const char* name);

/// What a store makes of the side database.
enum ZSideAction { zsideUntouched = 0, zsideReplaced = 1, zsideRemoved = 2 };

class ZJournal {
public:
    enum Progress : uint32_t { underWay = 0, placed = 1, onDisk = 2 };

    /// The journal of the file that is open as `descriptor`, to which `path` has led. Both must
    /// outlive it.
    /// `isDirect`: the path's last part is known to be no link.
    ZJournal(const char* path, int descriptor, bool isDirect = false);

    /// Its path, for messages; good until the next call that looks for it.
    const char* path() const { return path_.getChars(); }

    const char* filePath() const { return filePath_; }
    int descriptor() const { return descriptor_; }

    /// Whether a journal is there that counts; its content is at hand then. Raises
    /// ZPropertiesIOException if there is one that can't be read.
    bool find();
    ZSpan text() const { return text_; }
    ZSideAction sideAction() const { return sideAction_; }
    ZSpan side() const { return side_; }
    /// The side database's name, as the text that has it says it.
    const ZLCString& sideName() const { return sideName_; }
    /// Whether that is the one that a store makes by itself, beside the file; or else whether the
    /// file, as it was found, has that name in it.
    bool isSideBesideFile() const;
    bool isSideNamedInFile() const;
    /// Makes `out` the old text.
    void oldText(ZBytes& out) const;
    /// The file as find has read it.
    ZSpan file() const { return {file_.data(), file_.size()}; }

    /// Writes a journal with the file's owner, group, mode and access list, and syncs it and its
    /// folder. False, with nothing left, if it can't have those: then it would bar people from the
    /// content, or let them at it. Raises ZPropertiesIOException, and then there is none; with a
    /// word that tells whose it is where the name is taken.
    bool write(ZSpan text, ZSpan oldText, ZSideAction action, ZSpan side);

    /// Notes how far its store has come. Not synced.
    ZFailure mark(Progress progress);
    ZFailure sync() const;

    /// Lets a journal that was found be marked.
    ZFailure openForMarks();

    /// Removes the journal, whole or not, or makes it one that doesn't count. What can't be this
    /// file's journal stays, unless `mustGo`.
    ZFailure remove(bool mustGo = false);

private:
    ZFailure failed(const char* call) const;
    ZFailure findPlace();
    template <size_t count>
    ZFailure fill(const ZSpan (&parts)[count]);
    bool isThere(struct stat& status);
    bool mayBeOurs(const struct stat& status) const;
    ZFailure makeWay(const struct stat& status);
    bool parse();
    bool isOfThisFile() const;
    bool findSideName();
    bool canBeLeft() const;

    const char* const filePath_;
    ZLCString path_;
    const int descriptor_;
    const bool isDirect_;
    bool placeIsKnown_;
    bool isKnown_;  // found or written here
    ZPlace place_;
    ZLCString name_;
    ZOpenFile journal_;  // for marks
    ZBytes bytes_;       // the whole journal, once found; the spans lead into it
    ZBytes file_;
    ZSpan text_;
    ZSpan oldPart_;
    ZSpan side_;
    ZSideAction sideAction_;
    ZLCString sideName_;
    uint64_t oldLength_;
    uint64_t oldFrom_;
    uint64_t inode_;
    int64_t birth_;
    Progress progress_;
    int64_t placedAt_;
};

#endif
