// zdialectentries.h: the entries of a text of another dialect, each with its stanza as a load names
// it. Never installed.
#ifndef Z_ZDIALECTENTRIES_H
#define Z_ZDIALECTENTRIES_H

#include "zdialectedits.h"

/// One thread at a time.
class ZDialectEntries {
public:
    /// As ZDialectReader's.
    ZDialectEntries(const ZDialect& dialect, ZSpan text)
        : d_(dialect), reader_(dialect, text), headers_(dialect) {}
    /// The next entry, bare ones too, and the name of its stanza: that of repeated ones as "a#2"
    /// where they are numbered, and else as it is spelled. Both until the next call. False at the
    /// end. Raises ZOutOfMemoryException.
    bool next(ZDialectPart& entry, ZSpan& stanza);

private:
    void enter(ZSpan name);

    const ZDialect& d_;
    ZDialectReader reader_;
    ZDialectHeaders headers_;
    ZBytes stanza_, folded_, numbered_;
};

#endif
