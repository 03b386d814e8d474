// ZAbstractMutableString.h: strings that own their text.
#ifndef Z_ZABSTRACTMUTABLESTRING_H
#define Z_ZABSTRACTMUTABLESTRING_H

#include <stdlib.h>
#include <string.h>

#include <iosfwd>

#include "ZAbstractString.h"

class ZStringIterator;

/// A string that owns its text: up to 95 bytes inside the object, more in a block of its own.
///
/// Ownership: the string's own; copies are deep. getChars() is good until the next change.
/// Failure: ZOutOfMemoryException (1) when the text can't grow, also past 4 GiB; the text is then
///   what it was, or empty where text of the other codeset was to replace it. Null is no text:
///   nothing is appended, inserted or put in front.
/// Threads: as ZAbstractString.
/// Cost: append constant a byte on average (the block grows by a fifth); insert, prepend and remove
///   move what lies behind. Capacity never shrinks while the string lives, but by prepend.
///
/// Text handed in may be part of this string's own text, except as setChars() says. All changes
/// give the string itself.
class ZEXPORT ZAbstractMutableString : public ZAbstractString {
public:
    ~ZAbstractMutableString() noexcept override {
        if (chars_ != inline_chars_)
            free(chars_);
    }

    const char* getChars() const final { return chars_; }
    unsigned int getLength() const final { return length_; }

    /// Bytes of text that fit without growing: at least 95.
    unsigned int getCapacity() const { return capacity_; }
    unsigned int getDefaultLength() const { return kInlineLength; }

    /// Copies the text of `other`, by convertFromCodeSet() when it is of another codeset.
    ZAbstractMutableString& setChars(const ZAbstractString& other) override;

    /// The next calls rewrite the text by what is in it. `set` is a text whose characters are meant
    /// one by one. A null or empty text to look for, and a null set, change nothing; a null text to
    /// put in is empty. A pass is linear in the text and the result; where a call takes several and
    /// raises, those before are done.

    /// Writes `c` over each byte that is in `set`, or takes it out where `c` is NUL. Goes by bytes,
    /// so only with characters of one byte in `set` is the text safe.
    virtual ZAbstractMutableString& replaceAll(const char* set, char c);

    /// Writes `b` over each character that is `a`, or takes it out where `b` is NUL.
    virtual ZAbstractMutableString& replace(char a, char b);

    /// Puts `to` in place of each `from`, from the front and without overlap; what has been put in
    /// isn't searched again. Hits are whole characters, but in UTF-8, where bytes count.
    virtual ZAbstractMutableString& replace(const char* from, const char* to);

    /// Puts `to` in place of each character that is in `set`: replace(), for one after the other,
    /// so that what one puts in is searched for the next. Raises ZQELMBLenException (46) at a
    /// character of `set` that isn't valid, having done those before it.
    virtual ZAbstractMutableString& replaceAll(const char* set, const char* to) = 0;

    /// Puts `to` in place of each character that isn't in `set`: replace(), for each character that
    /// the text had at first. Where `to` holds such a character itself, and the text holds it more
    /// than once, it is therefore put in several times over. Raises ZQELMBLenException (46) at a
    /// character that isn't valid, having done those before it.
    virtual ZAbstractMutableString& replaceOther(const char* set, const char* to) = 0;

    /// Take white space of one byte a character, as isspace() has it, off one end. In a codeset of
    /// one byte a character and in UTF-8 stripTrailing() leaves the first byte alone.
    virtual ZAbstractMutableString& stripLeading();
    virtual ZAbstractMutableString& stripTrailing();

    /// Puts the converted text of `other` in place of the own one: into UTF-8 from the local
    /// codeset, else from UTF-8, whatever codeset `other` says it is. Text that can't be converted
    /// gives the empty string; an empty `other` changes nothing.
    virtual void convertFromCodeSet(const ZAbstractString& other);

    /// Copies `s`; null and getChars() itself empty the string.
    ZAbstractMutableString& setChars(const char* s) {
        return s == nullptr || s == chars_ ? clear() : assignBytes(s, strlen(s));
    }

    /// Empties the string and keeps its room.
    ZAbstractMutableString& clear() {
        chars_[0] = '\0';
        length_ = 0;
        return *this;
    }

    /// Makes room for `n` bytes, unless `exact` with a fifth more, but never leaves the 95 bytes
    /// inside for less. Once outside it grows by the fifth even if `n` bytes fit already. The
    /// text's new place.
    char* bump(unsigned int n, int exact);

    /// Makes room for exactly `n` bytes if there is less. The capacity.
    unsigned int setCapacity(unsigned int n) {
        bump(n, 1);
        return capacity_;
    }

    /// Adds one byte, all of a text, or `n` bytes at the end.
    ZAbstractMutableString& append(char c) {
        if (length_ == capacity_)
            growForOne();
        chars_[length_] = c;
        chars_[++length_] = '\0';
        return *this;
    }
    ZAbstractMutableString& append(const char* s) {
        return s == nullptr ? *this : appendBytes(s, strlen(s));
    }
    /// Exactly `n` bytes.
    ZAbstractMutableString& append(const char* s, unsigned int n) {
        return s == nullptr ? *this : appendBytes(s, n);
    }

    /// Puts `s` in front of the byte at `pos`; a `pos` past the end is the end.
    ZAbstractMutableString& insert(unsigned int pos, const char* s);

    /// Puts `s` in front of the text. Room is taken anew, from 95 bytes.
    ZAbstractMutableString& prepend(const char* s);

    /// Takes `count` bytes out; nothing when fewer are there. A `count` of 0 takes all from `pos`
    /// on.
    ZAbstractMutableString& remove(unsigned int pos, unsigned int count);

    /// Cuts the text to `n` bytes; nothing when it is shorter.
    ZAbstractMutableString& trunc(unsigned int n);

    /// Change the case in place, by the rules of the process's locale.
    ZAbstractMutableString& upper();
    ZAbstractMutableString& lower();

    /// replace() by `to` of each character that `characters` still delivers, or of each that it
    /// delivers and `set` lacks. Its source must not be this string.
    ZAbstractMutableString& replaceAllOf(ZStringIterator& characters, const char* to);
    ZAbstractMutableString& replaceNoneOf(ZStringIterator& characters, const char* set,
                                          const char* to);

    /// stripLeading(), then stripTrailing().
    ZAbstractMutableString& stripWhiteSpace();

    /// Puts the next line of `in` in place of the text. "\n", "\r" and NUL each end a line; they
    /// are taken from the stream and not stored, so that "\r\n" reads as a line and an empty line.
    /// A `flag` sets the stream's skipws, to no effect on what is read.
    std::istream& readLine(std::istream& in, int flag = 0);

    /// Puts the formatted text, which may be of any length, in place of the own one: zvsprintf()
    /// with `fmt`. Arguments may be of the string's own text. An invalid format changes nothing.
    ZAbstractMutableString& format(const char* fmt, ...);

    ZAbstractMutableString& operator=(const ZAbstractMutableString& other) {
        ZAbstractString::operator=(other);
        return *this;
    }
    /// Nothing happens when `s` is getChars() itself.
    ZAbstractMutableString& operator=(const char* s) { return s == chars_ ? *this : setChars(s); }
    ZAbstractMutableString& operator=(char c);
    /// The decimal number.
    ZAbstractMutableString& operator=(int n) { return setSigned(n); }
    ZAbstractMutableString& operator=(unsigned int n) { return setUnsigned(n, 0); }
    ZAbstractMutableString& operator=(long n) { return setSigned(n); }
    ZAbstractMutableString& operator=(unsigned long n) { return setUnsigned(n, 0); }

    /// The bytes of the other string, without conversion.
    ZAbstractMutableString& operator+=(const ZAbstractString& s) {
        return appendBytes(s.getChars(), s.getLength());
    }
    ZAbstractMutableString& operator+=(const char* s) { return append(s); }
    ZAbstractMutableString& operator+=(char c) { return append(c); }

    using ZAbstractString::equals;

    /// As the base's, with this side's text at hand: containers ask for little else.
    int equals(const ZObject& other) const override;

protected:
    ZAbstractMutableString() { init(); }
    /// Empty, for a process without codesets.
    explicit ZAbstractMutableString(BeforeSetup tag) : ZAbstractString(tag) { init(); }
    ZAbstractMutableString(const ZAbstractMutableString& other) : ZAbstractString(other) {
        init();
        construct(other.chars_, other.length_);
    }
    /// A copy of `s`; null is the empty text.
    explicit ZAbstractMutableString(const char* s) {
        init();
        if (s != nullptr)
            construct(s, strlen(s));
    }
    /// Exactly `n` bytes, with room for one more.
    ZAbstractMutableString(const char* s, unsigned int n) {
        init();
        if (s == nullptr)
            return;
        if (n < kInlineLength)
            construct(s, n);
        else
            constructWithRoom(s, n);
    }
    explicit ZAbstractMutableString(char c) {
        init();
        inline_chars_[0] = c;
        inline_chars_[1] = '\0';
        length_ = c != '\0';
    }
    explicit ZAbstractMutableString(int n) { init(), setSigned(n); }
    explicit ZAbstractMutableString(unsigned int n) { init(), setUnsigned(n, 0); }
    explicit ZAbstractMutableString(long n) { init(), setSigned(n); }
    explicit ZAbstractMutableString(unsigned long n) { init(), setUnsigned(n, 0); }

    /// The empty text inside the object. What was outside isn't freed.
    void init() {
        chars_ = inline_chars_;
        length_ = 0;
        capacity_ = kInlineLength;
        inline_chars_[0] = '\0';
    }

    /// Adds `n` bytes at the end, which may be part of the text.
    ZAbstractMutableString& appendBytes(const char* s, size_t n) {
        if (n > capacity_ - length_)
            return growAndAppend(s, n);
        memmove(chars_ + length_, s, n);
        length_ += static_cast<unsigned int>(n);
        chars_[length_] = '\0';
        return *this;
    }

    /// Replaces the text by `n` bytes, which may be part of it.
    ZAbstractMutableString& assignBytes(const char* s, size_t n) {
        if (n > capacity_)
            return growAndAssign(s, n);
        memmove(chars_, s, n);
        length_ = static_cast<unsigned int>(n);
        chars_[length_] = '\0';
        return *this;
    }

    /// Bytes of text that need no block.
    static const unsigned int kInlineLength = 95;

private:
    // Fills a string that init() has just emptied.
    void construct(const char* s, size_t n) {
        if (n > kInlineLength) {
            growAndAssign(s, n);
        } else {
            memcpy(inline_chars_, s, n);
            inline_chars_[n] = '\0';
            length_ = static_cast<unsigned int>(n);
        }
    }
    void constructWithRoom(const char* s, size_t n);
    void growForOne();
    ZAbstractMutableString& growAndAppend(const char* s, size_t n);
    ZAbstractMutableString& growAndAssign(const char* s, size_t n);
    ZAbstractMutableString& setSigned(long n) {
        return n < 0 ? setUnsigned(0UL - static_cast<unsigned long>(n), 1)
                     : setUnsigned(static_cast<unsigned long>(n), 0);
    }
    ZAbstractMutableString& setUnsigned(unsigned long n, int negative);
    void grow(uint64_t n, int exact);
    const char* find(const char* text, const char* part) const;
    bool isBytewise() const;
    int isOwn(const char* s) const;

    // (1) chars_[length_] is NUL, and length_ <= capacity_.
    // (2) chars_ is inline_chars_ and capacity_ 95, or chars_ is a malloc'ed block of capacity_ + 1
    //     bytes, this object's alone.
    char* chars_;
    unsigned int length_;
    unsigned int capacity_;
    char inline_chars_[kInlineLength + 1];
};

#endif
