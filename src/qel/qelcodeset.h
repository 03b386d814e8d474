// qelcodeset.h: what stands behind a codeset handle.
#ifndef QEL_QELCODESET_H
#define QEL_QELCODESET_H

#include "qel.h"

namespace qel {

/// The code of a character that isn't one Unicode character.
const uint32_t kNoCode = 0xFFFFFFFFU;

/// The length of what begins a character that the end of the bytes at hand cuts off.
const int kCut = -2;

/// A character met in a text: its bytes, -1 or kCut if what stands there is none, and its Unicode
/// code.
struct Character {
    int length;
    uint32_t code;
};

/// A codeset, unchanging once made but for the state of its iconv pairs, which a mutex guards.
class Codeset {
public:
    enum Kind {
        kUTF8,   // direct code
        kBytes,  // one byte a character: tables
        kOther   // whatever iconv knows
    };

    virtual ~Codeset() {}

    virtual int toUTF8(const char* source, size_t length, char* target, size_t room) = 0;
    virtual int fromUTF8(const char* source, size_t length, char* target, size_t room) = 0;
    /// The character at `text`, of which `n` bytes are there. Requires: n > 0.
    virtual Character decode(const char* text, size_t n) = 0;
    /// Writes the character into `target`, which has room for `room` bytes. Bytes, or -1.
    virtual int encode(uint32_t code, char* target, size_t room) = 0;

    Kind kind() const { return kind_; }
    /// Whether a byte below 0x80 that begins a character is that ASCII character.
    bool beginsWithASCII() const { return beginsWithASCII_; }

protected:
    Codeset(Kind kind, bool beginsWithASCII) : kind_(kind), beginsWithASCII_(beginsWithASCII) {}

    const Kind kind_;
    bool beginsWithASCII_;
};

inline Codeset* codesetOf(qel_codeset handle) { return reinterpret_cast<Codeset*>(handle); }

/// The length of the run of ASCII at the beginning of `text`.
size_t asciiRun(const char* text, size_t n);

}  // namespace qel

#endif
