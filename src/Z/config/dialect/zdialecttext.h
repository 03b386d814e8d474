// zdialecttext.h: texts of a dialect: reading them, and changing what they say by patches. Never
// installed.
//
// Nothing here knows a model or a file: what belongs to one stanza or key, and which values count,
// is for zdialectmodel to tell.
#ifndef Z_ZDIALECTTEXT_H
#define Z_ZDIALECTTEXT_H

#include <cstring>

#include "zdialect.h"
#include "zpblock.h"

/// What can't be: "continued lines by indent", "can't go with a blank as divider"; static texts.
/// Both null: all is well.
struct ZDialectClash {
    const char* first;
    const char* second;
};
/// Whatever a later version may have added must be zero.
ZDialectClash zdialectClash(const ZDialect& dialect);

/// What counts as a blank within lines.
inline bool zisDialectBlank(char c) {
    return static_cast<unsigned char>(c) <= ' ' &&
           (c == ' ' || (c >= '\t' && c <= '\r' && c != '\n'));
}
/// Whether any of the bytes is one.
inline bool zhasDialectBlank(ZSpan text) {
    // Of eight characters of which none is below "!" none is one.
    const auto mayHave = [](const char* at) {
        const uint64_t kOnes = 0x0101010101010101u;
        uint64_t eight;
        memcpy(&eight, at, sizeof eight);
        return ((eight - kOnes * '!') & ~eight & kOnes * 0x80) != 0;
    };
    const char* at = text.data;
    const char* const end = at + text.size;
    while (end - at > 8 && !mayHave(at))
        at += 8;
    if (text.size >= 8 && end - at <= 8 && !mayHave(end - 8))
        return false;
    while (at < end && !zisDialectBlank(*at))
        ++at;
    return at != end;
}
/// Whether a text begins with a byte-order mark.
inline bool zstartsWithMark(ZSpan text) {
    return text.size >= 3 && memcmp(text.data, "\xEF\xBB\xBF", 3) == 0;
}
/// Whether spellings in another case are the same.
inline bool zfoldsNames(const ZDialect& dialect, bool areStanzas) {
    return dialect.names != ZDIALECT_EXACT &&
           dialect.names != (areStanzas ? ZDIALECT_FOLDED_KEYS : ZDIALECT_FOLDED_STANZAS);
}
/// From one place of a text to ahead of another.
inline ZSpan zspanBetween(const char* first, const char* end) {
    return {first, static_cast<size_t>(end - first)};
}
/// The name of a repeated stanza without its number: "a" of "a#2"; any other as it is.
ZSpan zwithoutNumber(ZSpan name);

/// What one line says, or several that belong together.
struct ZDialectPart {
    enum Kind : uint8_t { blank, comment, header, entry, bareEntry, bad };

    Kind kind;
    int line;            // of its first line, from 1
    ZSpan lines;         // all its bytes, line ends included
    ZSpan name;          // a stanza's or key's, as it is read; a subsection's as "a.b"
    ZSpan value;         // as it is read
    ZSpan raw;           // the value's bytes in the text: quotes, comments between its lines and
                         // all; empty at its place for "key =" and a bare key; of a header
                         // its brackets and what they hold
    const char* reason;  // of a bad one: a static text, "has no divider"
};

/// Takes a text apart from its begin. One thread at a time.
class ZDialectReader {
public:
    /// The dialect has no clash; both must outlive this.
    ZDialectReader(const ZDialect& dialect, ZSpan text);
    /// False at the end. Names and values that don't stand in the text as they are read are this
    /// object's, until the next call. Behind a bad part it goes on with the next line. Linear.
    /// Raises ZOutOfMemoryException.
    bool next(ZDialectPart& part);
    /// The text, whose bytes are the same, stands here now.
    void moveTo(const char* text);

    /// Where a value goes on in another line: how much of the value and of its raw bytes is above.
    struct Joint {
        size_t valueSize, rawSize;
    };
    /// Those of the values to come are added here. For a value that was continued `value` is a copy
    /// whose blanks at its begin don't count.
    void noteJoints(ZVector<Joint>& joints) { joints_ = &joints; }
    /// Where a comment begins between `first`, ahead of which there is text, and the end of a value
    /// without quotes, or that end.
    const char* tailOf(const char* first, const char* end) const;

private:
    struct Line {
        const char *first, *end, *next;  // its first byte that is no blank, its end, the next line
        const char* reason;              // why it can't be read, or null
    };

    // What a character may be, as bits.
    enum : uint8_t { kBlank = 1, kComment = 2, kTail = 4 };

    bool is(char c, unsigned int bits) const {
        return (classes_[static_cast<unsigned char>(c)] & bits) != 0;
    }
    bool isComment(char c) const { return is(c, kComment); }
    bool isTail(char c) const { return is(c, kTail); }  // begins a comment behind a value
    Line lineAt(const char* at);
    const char* tailIn(const char* first, const char* end) const;
    const char* dividerIn(const char* first, const char* end) const;
    // Each fills the part; what is wrong with it, or null.
    const char* header(const Line& line, ZDialectPart& part);
    const char* entry(const Line& line, const char* begin, ZDialectPart& part);
    const char* plainValue(const Line& line, size_t indent, const char* behind, const char* first,
                           ZDialectPart& part);
    const char* gitValue(Line line, const char* first, ZDialectPart& part);
    const char* shellValue(const Line& line, size_t indent, const char* first, ZDialectPart& part);
    const char* indentedLines(size_t indent, ZDialectPart& part);
    const char* backslashLines(Line line, const char* first, ZDialectPart& part);
    void addSection(const char* first, const char* end);
    void noteJoint(const char* raw, const char* next);

    const ZDialect& d_;
    const char* at_;
    const char* end_;
    const char* start_;
    const char* nul_;  // the next NUL, or null
    const bool isTailAnywhere_;
    ZVector<Joint>* joints_ = nullptr;
    uint8_t classes_[256];
    int line_ = 1;
    ZBytes nameBytes_, valueBytes_;  // what doesn't stand in the text as it is read
};

/// With what comments are begun, and whether a line may begin one so.
inline char zdialectCommentSign(const ZDialect& dialect) {
    return dialect.comments == ZDIALECT_SEMICOLON ? ';' : '#';
}
inline bool zisDialectComment(const ZDialect& dialect, char c) {
    return c == zdialectCommentSign(dialect) ||
           (c == ';' && (dialect.comments & ZDIALECT_SEMICOLON) != 0);
}
/// With what comments behind values begin, if not with what comment lines do.
inline const char* zdialectTails(const ZDialect& dialect) {
    return dialect.tails == ZDIALECT_HASH_TAILS        ? "#"
           : dialect.tails == ZDIALECT_SEMICOLON_TAILS ? ";"
                                                       : nullptr;
}
/// Whether this character may stand between a key and its value.
inline bool zdialectDivides(const ZDialect& dialect, char c) {
    switch (dialect.divider) {
        case ZDIALECT_BLANK:
            return zisDialectBlank(c);
        case ZDIALECT_EQUALS:
            return c == '=';
        case ZDIALECT_COLON:
            return c == ':';
        default:
            return c == '=' || c == ':';
    }
}
/// Whether a line of a value that ends here asks for the next one.
inline bool zdialectGoesOn(const ZDialect& dialect, const char* first, const char* end) {
    const char* at = end;
    while (at > first && at[-1] == '\\')
        --at;
    const bool isPaired =
        dialect.continued == ZDIALECT_BACKSLASH || dialect.quotes == ZDIALECT_GIT_QUOTES;
    return at != end && (!isPaired || (end - at) % 2 != 0);
}
/// As the first line of the text ends.
inline ZSpan zdialectLineEnd(ZSpan text) {
    const void* newline = text.size == 0 ? nullptr : memchr(text.data, '\n', text.size);
    return newline != nullptr && newline != text.data &&
                   static_cast<const char*>(newline)[-1] == '\r'
               ? ZSpan{"\r\n", 2}
               : ZSpan{"\n", 1};
}

/// How the entries of a stanza are spelled.
struct ZDialectHabit {
    ZSpan indent;  // ahead of a key
    ZSpan before;  // between key and divider
    ZSpan divider;
    ZSpan after;  // between divider and value
    ZSpan lineEnd;
    ZSpan more;  // ahead of the second and later lines of a value
};

/// As entries are spelled where there are none to go by.
ZDialectHabit zdialectUsualHabit(const ZDialect& dialect);

/// Adds to `out` what gives the value back, quoted and continued where that is needed; for a change
/// of one that was quoted, `old` is its raw bytes, so that it stays quoted. False, and `out` as it
/// was, if the dialect can't say it.
bool zdialectEncode(const ZDialect& dialect, ZSpan value, ZSpan old, const ZDialectHabit& habit,
                    ZBytes& out);

/// Adds "[name]" without a line's end, of a subsection [a "b"].
void zdialectSpellHeader(const ZDialect& dialect, ZSpan name, ZBytes& out);

/// Why a dialect couldn't give these back: static texts as of zrefusal.h, "can't hold =". Null: it
/// can. A comment is one with its sign.
const char* zdialectCommentFault(const ZDialect& dialect, ZSpan comment);
const char* zdialectStanzaFault(const ZDialect& dialect, ZSpan name);
const char* zdialectKeyFault(const ZDialect& dialect, ZSpan key);
const char* zdialectValueFault(const ZDialect& dialect, ZSpan value);

/// Eight characters with those of A to Z in lower case, whatever their order. Of each that is below
/// 128 the high bit of a sum tells on which side of a letter it is.
inline uint64_t zdialectLower(uint64_t eight) {
    const uint64_t kOnes = 0x0101010101010101u;
    const uint64_t low = eight & kOnes * 0x7F;
    const uint64_t fromA = low + kOnes * (0x80 - 'A'), behindZ = low + kOnes * (0x80 - 'Z' - 1);
    return eight | ((fromA & ~behindZ & ~eight & kOnes * 0x80) >> 2);
}
/// Adds the spelling of a name by which all that the dialect takes for the same agree. Of a stanza
/// in a dialect with subsections that changes only what stands ahead of the first ".".
void zdialectFold(const ZDialect& dialect, ZSpan name, bool isStanza, ZBytes& out);
/// Likewise into room for name.size bytes; its size.
size_t zdialectFold(const ZDialect& dialect, ZSpan name, bool isStanza, char* out);
/// The zhashOf() of a folded name, or for a long one a hash of its own. Takes no memory.
uint64_t zfoldedHash(const ZDialect& dialect, ZSpan name, bool isStanza);

#endif
