// zsafestore.h: puts a stanza file's new text and side database into place with every result looked
// at, or so that a crash at any moment leaves the old or the new content. Never installed.
//
// The caller holds the write lock on the file and has the new content at hand in memory. Failures
// are ZPropertiesIOException with the system's word and errno.
#ifndef Z_ZSAFESTORE_H
#define Z_ZSAFESTORE_H

#include "zjournal.h"
#include "zstoremodes.h"

/// What is to be put into place, and where.
struct ZStoreWork {
    ZStoreWork(int file, const char* filePath)
        : descriptor(file),
          path(filePath),
          text{"", 0},
          oldText{"", 0},
          sideAction(zsideUntouched),
          side{"", 0} {}

    int descriptor;    // the stanza file, open for reading and writing
    const char* path;  // its path, for messages
    ZSpan text;        // the new text
    ZSpan oldText;     // what the file holds
    ZSideAction sideAction;
    ZLCString sideName;  // where it is, or would be
    ZSpan side;          // the new side database
};

/// Stores in this mode. Plainly: only a side database that can't be what is to be written is a
/// failure.
/// Checked: any failure leaves the old content, as far as it can be put back. Safe: see
/// zsafestore.cpp; a file with several links is refused. The mode in which it was done: where the
/// journal can't have the file's owner, group and access, a safe one becomes a checked one.
int zstore(const ZStoreWork& work, ZJournal& journal, int mode);

/// Puts the content of a journal that counts into place and removes it.
void zfinishJournal(const char* path, int descriptor, ZJournal& journal);

#endif
