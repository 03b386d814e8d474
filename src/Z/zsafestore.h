// zsafestore.h: puts a stanza file's new text and side database into place with every result looked
// at, or so that a crash at any moment leaves the old or the new content. Never installed.
//
// The caller holds the write lock on the file and has the new content at hand in memory. Failures are
// ZPropertiesIOException with the system's word and errno.
#ifndef Z_ZSAFESTORE_H
#define Z_ZSAFESTORE_H

#include "zjournal.h"

/// What is to be put into place, and where.
struct ZStoreWork {
    int descriptor;       // the stanza file, open for reading and writing
    const char* path;     // its path, for messages
    ZSpan text;           // the new text
    ZSpan oldText;        // what the file holds; without data where nobody has asked
    uint64_t oldSize;     // its length
    ZSideAction sideAction;
    ZLCString sideName;
    ZSpan side;           // the new side database
};

/// In place. With `checked`, what fails before the first byte of the old text is overwritten leaves
/// all as it was: room on the disk is made first, for both files. Without, only a side database that
/// can't be opened is a failure.
void zstoreInPlace(const ZStoreWork& work, bool checked);

/// By way of the journal. A failure, too, leaves the old content. Refuses a file with several
/// links. Three syncs at most: the journal, its folder, and all that was put in place.
void zstoreSafely(const ZStoreWork& work, ZJournal& journal);

/// Puts the content of a journal that counts into place and removes it.
void zfinishJournal(int descriptor, ZJournal& journal);

#endif
