// ZLCString.h: strings in the local codeset of the process.
//
//   ZLCString       owns its text
//   ZLCConstString  only points at it
#ifndef Z_ZLCSTRING_H
#define Z_ZLCSTRING_H

#include "ZAbstractConstString.h"
#include "ZAbstractMutableString.h"

class ZLCString;

/// Looks at text in the local codeset without copying it: see ZAbstractConstString. Nothing checks
/// that the bytes are valid there. There is no way here from UTF-8, since a string that owns
/// nothing can't convert.
class ZEXPORT ZLCConstString : public ZAbstractConstString {
public:
    ZLCConstString() {}
    /// Keeps the pointer; null is the empty text.
    ZLCConstString(const char* s) : ZAbstractConstString(s) {}
    ZLCConstString(const ZLCConstString& other) : ZAbstractConstString(other) {}
    /// Good only while `other` keeps its text where it is.
    ZLCConstString(const ZLCString& other);
    ~ZLCConstString() noexcept override {}

    using ZAbstractConstString::compare;

    int compare(const ZObject& other) const override;
    /// A new string over the same text.
    ZObject* clone() const override;
    int compare(const char* s) const override;
    int compareignorecase(const char* s) const override;
    zcodeset_handle getCodesetHandle() const override {
        return lcs_handle_.load(std::memory_order_relaxed);
    }

    /// Looks at the other text from now on.
    ZLCConstString& operator=(const char* s) {
        ZAbstractConstString::operator=(s);
        return *this;
    }
    ZLCConstString& operator=(const ZLCConstString& other) {
        ZAbstractConstString::operator=(other);
        return *this;
    }
    /// The same; good only while `other` keeps its text where it is.
    ZLCConstString& operator=(const ZLCString& other);

    /// As for all strings (see ZAbstractString), but for speed.
    int operator==(const char* s) const { return equals(s); }
    int operator!=(const char* s) const { return !equals(s); }
    int operator==(const ZLCConstString& s) const {
        return isExactly(*this) ? strcmp(getChars(), s.getChars()) == 0
                                : equals(static_cast<const ZObject&>(s));
    }
    int operator!=(const ZLCConstString& s) const { return !(*this == s); }
    int operator==(const ZLCString& s) const;
    int operator!=(const ZLCString& s) const;
    friend int operator==(const char* s, const ZLCConstString& t) { return t.equals(s); }
    friend int operator!=(const char* s, const ZLCConstString& t) { return !t.equals(s); }
};

/// Owns text in the local codeset: see ZAbstractMutableString. Text from a string in UTF-8 is
/// converted, and what can't be converted gives the empty string; text from a const char* is taken
/// as it is.
class ZEXPORT ZLCString : public ZAbstractMutableString {
public:
    /// Empty, or a copy of the text; from UTF-8 it is converted.
    ZLCString() {}
    ZLCString(const ZLCString& other) : ZAbstractMutableString(other) {}
    ZLCString(const ZLCConstString& other) : ZAbstractMutableString(other.getChars()) {}
    ZLCString(const ZUTF8String& other);
    ZLCString(const ZUTF8ConstString& other);
    ZLCString(const char* s) : ZAbstractMutableString(s) {}
    ZLCString(char c) : ZAbstractMutableString(c) {}
    /// Exactly `n` bytes of `s`, and room for one more.
    ZLCString(const char* s, unsigned int n) : ZAbstractMutableString(s, n) {}
    /// The decimal number.
    ZLCString(int n) : ZAbstractMutableString(n) {}
    ZLCString(unsigned int n) : ZAbstractMutableString(n) {}
    ZLCString(long n) : ZAbstractMutableString(n) {}
    ZLCString(unsigned long n) : ZAbstractMutableString(n) {}
    ~ZLCString() noexcept override {}

    int compare(const ZObject& other) const override;
    ZObject* clone() const override;
    int compare(const char* s) const override;
    int compareignorecase(const char* s) const override;
    zcodeset_handle getCodesetHandle() const override {
        return lcs_handle_.load(std::memory_order_relaxed);
    }

    ZLCString& replaceAll(const char* set, char c) override;
    ZLCString& replaceAll(const char* set, const char* to) override;
    ZLCString& replaceOther(const char* set, const char* to) override;

    /// As the calls with a text.
    int compare(const ZLCString& s) const { return compare(s.getChars()); }
    int compare(const ZLCConstString& s) const { return compare(s.getChars()); }
    int compareignorecase(const ZLCString& s) const { return compareignorecase(s.getChars()); }
    int compareignorecase(const ZLCConstString& s) const { return compareignorecase(s.getChars()); }

    /// Takes a copy of the text.
    ZLCString& operator=(const ZLCString& other) {
        assignBytes(other.getChars(), other.getLength());
        return *this;
    }
    ZLCString& operator=(const ZLCConstString& other) {
        assignBytes(other.getChars(), other.getLength());
        return *this;
    }
    /// Empties the string, then converts.
    ZLCString& operator=(const ZUTF8String& other);
    ZLCString& operator=(const ZUTF8ConstString& other);
    /// Nothing happens when `s` is getChars() itself.
    ZLCString& operator=(const char* s) {
        ZAbstractMutableString::operator=(s);
        return *this;
    }
    ZLCString& operator=(char c) {
        ZAbstractMutableString::operator=(c);
        return *this;
    }
    /// The decimal number.
    ZLCString& operator=(int n) {
        ZAbstractMutableString::operator=(n);
        return *this;
    }
    ZLCString& operator=(unsigned int n) {
        ZAbstractMutableString::operator=(n);
        return *this;
    }
    ZLCString& operator=(long n) {
        ZAbstractMutableString::operator=(n);
        return *this;
    }
    ZLCString& operator=(unsigned long n) {
        ZAbstractMutableString::operator=(n);
        return *this;
    }

    /// The text of this string, then the argument's. Null adds nothing.
    ZLCString operator+(const ZLCString& s) const;
    ZLCString operator+(const ZLCConstString& s) const;
    ZLCString operator+(const char* s) const;

    /// Adds the bytes at the end. Null adds nothing.
    ZLCString& operator+=(const ZLCString& s) {
        appendBytes(s.getChars(), s.getLength());
        return *this;
    }
    ZLCString& operator+=(const ZLCConstString& s) {
        appendBytes(s.getChars(), s.getLength());
        return *this;
    }
    ZLCString& operator+=(const char* s) {
        append(s);
        return *this;
    }
    ZLCString& operator+=(char c) {
        append(c);
        return *this;
    }

    /// As for all strings (see ZAbstractString), but for speed, and for a number or a character,
    /// which becomes a string.
    int operator==(const char* s) const { return equals(s); }
    int operator!=(const char* s) const { return !equals(s); }
    int operator==(const ZLCString& s) const { return equalString(s); }
    int operator!=(const ZLCString& s) const { return !equalString(s); }
    int operator==(const ZLCConstString& s) const { return equalString(s); }
    int operator!=(const ZLCConstString& s) const { return !equalString(s); }
    friend int operator==(const char* s, const ZLCString& t) { return t.equals(s); }
    friend int operator!=(const char* s, const ZLCString& t) { return !t.equals(s); }

    /// At most `count` bytes from `start` on; less where the text ends. Bytes, so a longer
    /// character may be cut.
    ZLCString subString(unsigned int start, unsigned int count) const;
    /// All from `start` on.
    ZLCString subString(unsigned int start) const;

private:
    friend class ZCodesetException;
    friend class ZQELUTF8Converter;
    ZLCString(BeforeSetup tag, const char* s) : ZAbstractMutableString(tag) { append(s); }

    // In place where the virtual equals(), which costs several times as much, does the same.
    template <typename Other>
    int equalString(const Other& s) const {
        if (!isExactly(*this))
            return equals(static_cast<const ZObject&>(s));
        const unsigned int n = s.getLength();
        return n == getLength() && memcmp(getChars(), s.getChars(), n) == 0;
    }
};

inline ZLCConstString::ZLCConstString(const ZLCString& other)
    : ZAbstractConstString(other.getChars()) {}

inline ZLCConstString& ZLCConstString::operator=(const ZLCString& other) {
    if (getChars() != other.getChars())
        ZAbstractConstString::operator=(other.getChars());
    return *this;
}

inline int ZLCConstString::operator==(const ZLCString& s) const {
    return equals(static_cast<const ZObject&>(s));
}

inline int ZLCConstString::operator!=(const ZLCString& s) const { return !(*this == s); }

#endif
