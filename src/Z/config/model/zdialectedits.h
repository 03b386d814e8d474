// zdialectedits.h: what can be done to a text of another dialect beyond other values: other names,
// entries that become comments and comments that become entries, and comments. Never installed.
#ifndef Z_ZDIALECTEDITS_H
#define Z_ZDIALECTEDITS_H

#include <string>

#include "zdialecttext.h"
#include "zmemory.h"
#include "zpindex.h"

/// Gives the headers of a text, one after the other, the names that a load gives their stanzas: all
/// spellings alike, and where repeated stanzas are numbered with the number.
class ZDialectHeaders {
public:
    explicit ZDialectHeaders(const ZDialect& dialect) : d_(dialect) {}
    /// Adds the name of the next header. Which it is of those that are named so, from 1; always 1
    /// where repeated stanzas are merged.
    uint32_t add(ZSpan name, ZBytes& out);

private:
    uint32_t count(ZSpan folded);

    const ZDialect& d_;
    ZPIndex index_;
    ZVector<std::string> names_;
    ZVector<uint32_t> counts_;
};

/// Each call makes `out` of the text, whose stanzas and keys are meant by any of their spellings.
/// False: there isn't what it is about, and `out` is nothing. The text has no bad data; whether
/// what comes out has none is for the caller to see. Linear.
/// Raises ZInvalidParameterException (see zrefusal.h) where a name can't be said, and
/// ZOutOfMemoryException.
class ZDialectEdits {
public:
    ZDialectEdits(const ZDialect& dialect, ZSpan text, ZBytes& out);

    /// All headers of the stanza get the name; of a numbered one, its own.
    bool renameStanza(ZSpan stanza, ZSpan name);
    bool renameKey(ZSpan stanza, ZSpan key, ZSpan name);
    /// Puts a comment's sign in front of each line of the key.
    bool disableKey(ZSpan stanza, ZSpan key);
    /// Takes it from the first comment of the stanza that reads like an entry of this key behind
    /// it, and from those below that go on with it: where lines are joined that is told by their
    /// ends, where they are indented by the sign's indent.
    bool uncommentKey(ZSpan stanza, ZSpan key);
    /// Comments are added as the library's own files get them (see ZPCache.h).
    bool addFileComment(ZSpan comment);
    bool addStanzaComment(ZSpan stanza, ZSpan comment);
    bool addKeyComment(ZSpan stanza, ZSpan key, ZSpan comment);
    /// Of the file, of a stanza or of a key: null names. The comments at its begin, behind the
    /// header, directly above the first line.
    bool removeFileComments();
    bool removeStanzaComments(ZSpan stanza);
    bool removeKeyComments(ZSpan stanza, ZSpan key);

private:
    struct Part {
        ZDialectPart::Kind kind;
        bool isWanted;  // of the stanza that is meant
        ZSpan lines, name, raw;
    };

    void read(ZSpan stanza);
    void lookFor(ZSpan key);
    bool isKey(const Part& part);
    bool isNamed(ZSpan name);
    size_t firstOf(ZSpan key);
    bool isComment(size_t at) const {
        return at < parts_.size() && parts_[at].kind == ZDialectPart::comment;
    }
    bool isBlank(size_t at) const {
        return at < parts_.size() && parts_[at].kind == ZDialectPart::blank;
    }
    void put(ZSpan bytes);
    void putLine(ZSpan indent, ZSpan text);
    void putParts(size_t from, size_t end);
    bool putWithout(size_t from, size_t end);
    bool replaceNames(ZDialectPart::Kind kind, ZSpan name);
    void disable(ZSpan lines);
    void addEnabled(ZSpan line, bool all, ZBytes& entry) const;
    bool goesOnWith(size_t at, size_t indent, ZSpan entry) const;
    bool readsLikeKey(ZSpan line);

    const ZDialect& d_;
    const ZSpan text_;
    ZBytes& out_;
    ZSpan lineEnd_;
    char sign_;  // with which a comment begins
    ZVector<Part> parts_;
    ZBytes key_, name_;  // folded: the key that is looked for, and one that is compared
};

#endif
