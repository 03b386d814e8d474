// zoldtext.h: what has become of lines since a model's text was read, beyond other values: other
// names, entries that are comments now, and comments that are entries. Never installed.
//
// A store that keeps lines looks for each line of the new text in the old one (zkeeplines.h), by
// what it says. A line that says something else by now it would write anew, and all lines of a
// stanza with another name. So what was done is noted, and done to the old text first.
//
// What is stored never depends on it, but for the spelling of lines.
#ifndef Z_ZOLDTEXT_H
#define Z_ZOLDTEXT_H

#include "zpblock.h"

class ZOldText {
public:
    enum Change : char { renamedStanza, renamedKey, disabledKey, uncommentedKey };

    /// Makes room for one more note. Raises ZOutOfMemoryException.
    void reserve(ZSpan stanza, ZSpan key, ZSpan name) {
        notes_.reserveMore(stanza.size + key.size + name.size + 4);
    }
    /// Notes what was done to the stanza or key of this name; `name` is the new one. Needs room.
    void note(Change change, ZSpan stanza, ZSpan key, ZSpan name);
    /// This is the old text, whatever the file holds. Raises ZOutOfMemoryException.
    void replaceBy(ZSpan text);
    /// The file holds all that was noted.
    void forget();
    /// Likewise, and holds this text.
    void forget(ZBytes&& text);
    /// The text is kept for whoever asks; the file may hold another by now.
    /// Raises ZOutOfMemoryException.
    void keep(ZSpan text);
    /// Likewise, ahead of the file if another one is.
    void keepAs(ZSpan text, const ZOldText& other) {
        keep(text);
        isAhead_ = other.isAhead_;
    }
    bool isKept() const { return hasText_; }
    /// What it was replaced by or is kept.
    ZSpan kept() const { return zspanOf(text_); }

    /// The old text with all that was noted; `fileText` is what the file holds, and what is made of
    /// it stands in `room`. Linear in the text, and for a comment that became an entry in its
    /// stanza. Raises ZOutOfMemoryException.
    ZSpan changed(ZSpan fileText, ZBytes& room) const;

private:
    ZBytes notes_;  // a change, stanza, key and name each, with a NUL behind each text
    ZBytes text_;
    bool hasText_ = false;
    bool isAhead_ = false;  // of the file
};

/// What a line turned into a comment says, and the entry that a comment reads like: its text behind
/// the "#"; nothing if it reads like none of this key.
void zmakeDisabled(ZSpan key, ZSpan value, ZBytes& out);
ZSpan zfindDisabled(ZSpan comment, ZSpan key, ZSpan& value);

#endif
