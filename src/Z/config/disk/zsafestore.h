// zsafestore.h: puts a stanza file's new text and side database into place with every result looked
// at, or so that a crash at any moment leaves the old or the new content. Never installed.
//
// The caller holds the write lock on the file and has the new content at hand in memory. Failures
// are ZPropertiesIOException with the system's word and errno.
#ifndef Z_ZSAFESTORE_H
#define Z_ZSAFESTORE_H

#include "zjournal.h"
#include "zsidefile.h"
#include "zstoremodes.h"

/// What is to be put into place; all settled before anything is written. It refers to what the
/// caller has.
struct ZStoreWork {
    ZStoreWork(ZSpan newText, ZSpan textBefore, ZSideAction action, ZSideFile& sideFile,
               ZSpan newSide)
        : text(newText),
          oldText(textBefore),
          sideAction(action),
          side(sideFile),
          sideBytes(newSide) {}

    const ZSpan text;
    const ZSpan oldText;  // what the file holds; a plain store needn't know it
    const ZSideAction sideAction;
    ZSideFile& side;  // examined, unless it is to stay untouched
    const ZSpan sideBytes;
};

/// Stores in this mode, into the journal's file. Plainly: only a side database that can't be what
/// is to be written is a failure. Checked: any failure leaves the old content, as far as it can be
/// put back. Safe: see zsafestore.cpp; a file with several links is refused. The mode in which it
/// was done: where the journal can't have the file's owner, group and access, a safe one becomes a
/// checked one.
int zstore(const ZStoreWork& work, ZJournal& journal, int mode);

/// Puts the content of a journal that counts into place and removes it.
void zfinishJournal(ZJournal& journal);

#endif
