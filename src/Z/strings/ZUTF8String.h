// ZUTF8String.h: strings in UTF-8.
//
//   ZUTF8String       owns its text
//   ZUTF8ConstString  only points at it
#ifndef Z_ZUTF8STRING_H
#define Z_ZUTF8STRING_H

#include "ZAbstractConstString.h"
#include "ZAbstractMutableString.h"

class ZUTF8String;

/// Looks at text in UTF-8 without copying it: see ZAbstractConstString. Nothing checks that the
/// bytes are valid there. There is no way here from the local codeset, since a string that owns
/// nothing can't convert.
class ZEXPORT ZUTF8ConstString : public ZAbstractConstString {
public:
    ZUTF8ConstString() {}
    /// Keeps the pointer; null is the empty text.
    ZUTF8ConstString(const char* s) : ZAbstractConstString(s) {}
    ZUTF8ConstString(const ZUTF8ConstString& other) : ZAbstractConstString(other) {}
    /// Good only while `other` keeps its text where it is.
    ZUTF8ConstString(const ZUTF8String& other);
    ~ZUTF8ConstString() noexcept override {}

    using ZAbstractConstString::compare;

    int compare(const ZObject& other) const override;
    /// A new string over the same text.
    ZObject* clone() const override;
    int compare(const char* s) const override;
    int compareignorecase(const char* s) const override;
    zcodeset_handle getCodesetHandle() const override {
        return utf8_handle_.load(std::memory_order_relaxed);
    }

    /// Looks at the other text from now on.
    ZUTF8ConstString& operator=(const char* s) {
        ZAbstractConstString::operator=(s);
        return *this;
    }
    ZUTF8ConstString& operator=(const ZUTF8ConstString& other) {
        ZAbstractConstString::operator=(other);
        return *this;
    }
    /// The same; good only while `other` keeps its text where it is.
    ZUTF8ConstString& operator=(const ZUTF8String& other);

    /// As for all strings (see ZAbstractString), but for speed.
    int operator==(const char* s) const { return equals(s); }
    int operator!=(const char* s) const { return !equals(s); }
    int operator==(const ZUTF8ConstString& s) const {
        return isExactly(*this) ? strcmp(getChars(), s.getChars()) == 0
                                : equals(static_cast<const ZObject&>(s));
    }
    int operator!=(const ZUTF8ConstString& s) const { return !(*this == s); }
    int operator==(const ZUTF8String& s) const;
    int operator!=(const ZUTF8String& s) const;
    friend int operator==(const char* s, const ZUTF8ConstString& t) { return t.equals(s); }
    friend int operator!=(const char* s, const ZUTF8ConstString& t) { return !t.equals(s); }
};

/// Owns text in UTF-8: see ZAbstractMutableString. Text from a string in the local codeset is
/// converted, and what can't be converted gives the empty string; text from a const char* is taken
/// as it is.
class ZEXPORT ZUTF8String : public ZAbstractMutableString {
public:
    /// Empty, or a copy of the text; from the local codeset it is converted.
    ZUTF8String() {}
    ZUTF8String(const ZUTF8String& other) : ZAbstractMutableString(other) {}
    ZUTF8String(const ZUTF8ConstString& other) : ZAbstractMutableString(other.getChars()) {}
    ZUTF8String(const ZLCString& other);
    ZUTF8String(const ZLCConstString& other);
    ZUTF8String(const char* s) : ZAbstractMutableString(s) {}
    ZUTF8String(char c) : ZAbstractMutableString(c) {}
    /// Exactly `n` bytes of `s`, and room for one more.
    ZUTF8String(const char* s, unsigned int n) : ZAbstractMutableString(s, n) {}
    /// The decimal number.
    ZUTF8String(int n) : ZAbstractMutableString(n) {}
    ZUTF8String(unsigned int n) : ZAbstractMutableString(n) {}
    ZUTF8String(long n) : ZAbstractMutableString(n) {}
    ZUTF8String(unsigned long n) : ZAbstractMutableString(n) {}
    ~ZUTF8String() noexcept override {}

    int compare(const ZObject& other) const override;
    ZObject* clone() const override;
    int compare(const char* s) const override;
    int compareignorecase(const char* s) const override;
    zcodeset_handle getCodesetHandle() const override {
        return utf8_handle_.load(std::memory_order_relaxed);
    }

    ZUTF8String& replaceAll(const char* set, char c) override;

    /// Writes `b` over each byte that is `a`; a `b` of NUL too, and the length stays. Raises
    /// ZInvalidParameterException (22) for an `a` of 0x80 or above, which is never a character.
    ZUTF8String& replace(char a, char b) override;
    ZUTF8String& replace(const char* from, const char* to) override;

    ZUTF8String& replaceAll(const char* set, const char* to) override;
    ZUTF8String& replaceOther(const char* set, const char* to) override;

    /// Change the case in place: of the leading ASCII by itself, of the rest by the rules of the
    /// process's locale.
    ZUTF8String& upper();
    ZUTF8String& lower();

    /// As the calls with a text.
    int compare(const ZUTF8String& s) const { return compare(s.getChars()); }
    int compare(const ZUTF8ConstString& s) const { return compare(s.getChars()); }
    int compareignorecase(const ZUTF8String& s) const { return compareignorecase(s.getChars()); }
    int compareignorecase(const ZUTF8ConstString& s) const {
        return compareignorecase(s.getChars());
    }

    /// Takes a copy of the text.
    ZUTF8String& operator=(const ZUTF8String& other) {
        assignBytes(other.getChars(), other.getLength());
        return *this;
    }
    ZUTF8String& operator=(const ZUTF8ConstString& other) {
        assignBytes(other.getChars(), other.getLength());
        return *this;
    }
    /// Empties the string, then converts.
    ZUTF8String& operator=(const ZLCString& other);
    ZUTF8String& operator=(const ZLCConstString& other);
    /// Nothing happens when `s` is getChars() itself.
    ZUTF8String& operator=(const char* s) {
        ZAbstractMutableString::operator=(s);
        return *this;
    }
    ZUTF8String& operator=(char c) {
        ZAbstractMutableString::operator=(c);
        return *this;
    }
    /// The decimal number.
    ZUTF8String& operator=(int n) {
        ZAbstractMutableString::operator=(n);
        return *this;
    }
    ZUTF8String& operator=(unsigned int n) {
        ZAbstractMutableString::operator=(n);
        return *this;
    }
    ZUTF8String& operator=(long n) {
        ZAbstractMutableString::operator=(n);
        return *this;
    }
    ZUTF8String& operator=(unsigned long n) {
        ZAbstractMutableString::operator=(n);
        return *this;
    }

    /// The text of this string, then the argument's. Null adds nothing.
    ZUTF8String operator+(const ZUTF8String& s) const;
    ZUTF8String operator+(const ZUTF8ConstString& s) const;
    ZUTF8String operator+(const char* s) const;

    /// Adds the bytes at the end. Null adds nothing.
    ZUTF8String& operator+=(const ZUTF8String& s) {
        appendBytes(s.getChars(), s.getLength());
        return *this;
    }
    ZUTF8String& operator+=(const ZUTF8ConstString& s) {
        appendBytes(s.getChars(), s.getLength());
        return *this;
    }
    ZUTF8String& operator+=(const char* s) {
        append(s);
        return *this;
    }
    ZUTF8String& operator+=(char c) {
        append(c);
        return *this;
    }

    /// As for all strings (see ZAbstractString), but for speed, and for a number or a character,
    /// which becomes a string.
    int operator==(const char* s) const { return equals(s); }
    int operator!=(const char* s) const { return !equals(s); }
    int operator==(const ZUTF8String& s) const { return equalString(s); }
    int operator!=(const ZUTF8String& s) const { return !equalString(s); }
    int operator==(const ZUTF8ConstString& s) const { return equalString(s); }
    int operator!=(const ZUTF8ConstString& s) const { return !equalString(s); }
    friend int operator==(const char* s, const ZUTF8String& t) { return t.equals(s); }
    friend int operator!=(const char* s, const ZUTF8String& t) { return !t.equals(s); }

    /// At most `count` bytes from `start` on; less where the text ends. Bytes, so a longer
    /// character may be cut.
    ZUTF8String subString(unsigned int start, unsigned int count) const;
    /// All from `start` on.
    ZUTF8String subString(unsigned int start) const;

private:
    friend class ZCodesetException;
    friend class ZQELUTF8Converter;
    ZUTF8String(BeforeSetup tag, const char* s) : ZAbstractMutableString(tag) { append(s); }

    // In place where the virtual equals(), which costs several times as much, does the same.
    template <typename Other>
    int equalString(const Other& s) const {
        if (!isExactly(*this))
            return equals(static_cast<const ZObject&>(s));
        const unsigned int n = s.getLength();
        return n == getLength() && memcmp(getChars(), s.getChars(), n) == 0;
    }
};

inline ZUTF8ConstString::ZUTF8ConstString(const ZUTF8String& other)
    : ZAbstractConstString(other.getChars()) {}

inline ZUTF8ConstString& ZUTF8ConstString::operator=(const ZUTF8String& other) {
    if (getChars() != other.getChars())
        ZAbstractConstString::operator=(other.getChars());
    return *this;
}

inline int ZUTF8ConstString::operator==(const ZUTF8String& s) const {
    return equals(static_cast<const ZObject&>(s));
}

inline int ZUTF8ConstString::operator!=(const ZUTF8String& s) const { return !(*this == s); }

#endif
