// zstringfamily.h: the two string classes of one codeset. ZLCString.h and ZUTF8String.h each
// include this text, having said the names: it has no include guard and is of no use by itself.
//
//   Z_STRING, Z_CONST_STRING             the classes to declare
//   Z_OTHER_STRING, Z_OTHER_CONST_STRING those of the other codeset
//   Z_CODESET                            the static of ZAbstractString that holds the handle
//   Z_ASCII_HALF                         defined where a byte below 0x80 is ASCII wherever it
//                                        stands, so that some edits need no codeset service
//
// The classes are classes, not one template, since each is derived directly from the abstract one
// and has a link name of its own.

class Z_STRING;

/// Looks at text of this codeset without copying it: see ZAbstractConstString. Nothing checks that
/// the bytes are valid there. There is no way here from the other codeset, since a string that owns
/// nothing can't convert.
class ZEXPORT Z_CONST_STRING : public ZAbstractConstString {
public:
    Z_CONST_STRING() {}
    /// Keeps the pointer; null is the empty text.
    Z_CONST_STRING(const char* s) : ZAbstractConstString(s) {}
    Z_CONST_STRING(const Z_CONST_STRING& other) : ZAbstractConstString(other) {}
    /// Good only while `other` keeps its text where it is.
    Z_CONST_STRING(const Z_STRING& other);
    ~Z_CONST_STRING() noexcept override {}

    using ZAbstractConstString::compare;

    int compare(const ZObject& other) const override;
    /// A new string over the same text.
    ZObject* clone() const override;
    int compare(const char* s) const override;
    int compareignorecase(const char* s) const override;
    zcodeset_handle getCodesetHandle() const override {
        return Z_CODESET.load(std::memory_order_relaxed);
    }

    /// Looks at the other text from now on.
    Z_CONST_STRING& operator=(const char* s) {
        ZAbstractConstString::operator=(s);
        return *this;
    }
    Z_CONST_STRING& operator=(const Z_CONST_STRING& other) {
        ZAbstractConstString::operator=(other);
        return *this;
    }
    /// The same; good only while `other` keeps its text where it is.
    Z_CONST_STRING& operator=(const Z_STRING& other);

    /// As for all strings (see ZAbstractString), but for speed.
    int operator==(const char* s) const { return equals(s); }
    int operator!=(const char* s) const { return !equals(s); }
    int operator==(const Z_CONST_STRING& s) const {
        return isExactly(*this) ? strcmp(getChars(), s.getChars()) == 0
                                : equals(static_cast<const ZObject&>(s));
    }
    int operator!=(const Z_CONST_STRING& s) const { return !(*this == s); }
    int operator==(const Z_STRING& s) const;
    int operator!=(const Z_STRING& s) const;
    friend int operator==(const char* s, const Z_CONST_STRING& t) { return t.equals(s); }
    friend int operator!=(const char* s, const Z_CONST_STRING& t) { return !t.equals(s); }
};

/// Owns text of this codeset: see ZAbstractMutableString. Text from a string of the other codeset
/// is converted, and what can't be converted gives the empty string; text from a const char* is
/// taken as it is.
class ZEXPORT Z_STRING : public ZAbstractMutableString {
public:
    /// Empty, or a copy of the text; from the other codeset it is converted.
    Z_STRING() {}
    Z_STRING(const Z_STRING& other) : ZAbstractMutableString(other) {}
    Z_STRING(const Z_CONST_STRING& other) : ZAbstractMutableString(other.getChars()) {}
    Z_STRING(const Z_OTHER_STRING& other);
    Z_STRING(const Z_OTHER_CONST_STRING& other);
    Z_STRING(const char* s) : ZAbstractMutableString(s) {}
    Z_STRING(char c) : ZAbstractMutableString(c) {}
    /// Exactly `n` bytes of `s`, and room for one more.
    Z_STRING(const char* s, unsigned int n) : ZAbstractMutableString(s, n) {}
    /// The decimal number.
    Z_STRING(int n) : ZAbstractMutableString(n) {}
    Z_STRING(unsigned int n) : ZAbstractMutableString(n) {}
    Z_STRING(long n) : ZAbstractMutableString(n) {}
    Z_STRING(unsigned long n) : ZAbstractMutableString(n) {}
    ~Z_STRING() noexcept override {}

    int compare(const ZObject& other) const override;
    ZObject* clone() const override;
    int compare(const char* s) const override;
    int compareignorecase(const char* s) const override;
    zcodeset_handle getCodesetHandle() const override {
        return Z_CODESET.load(std::memory_order_relaxed);
    }

    Z_STRING& replaceAll(const char* set, char c) override;
#ifdef Z_ASCII_HALF
    /// Writes `b` over each byte that is `a`; a `b` of NUL too, and the length stays. Raises
    /// ZInvalidParameterException (22) for an `a` of 0x80 or above, which is never a character.
    Z_STRING& replace(char a, char b) override;
    Z_STRING& replace(const char* from, const char* to) override;
#endif
    Z_STRING& replaceAll(const char* set, const char* to) override;
    Z_STRING& replaceOther(const char* set, const char* to) override;
#ifdef Z_ASCII_HALF
    /// Change the case in place: of the leading ASCII by itself, of the rest by the rules of the
    /// process's locale.
    Z_STRING& upper();
    Z_STRING& lower();
#endif

    /// As the calls with a text.
    int compare(const Z_STRING& s) const { return compare(s.getChars()); }
    int compare(const Z_CONST_STRING& s) const { return compare(s.getChars()); }
    int compareignorecase(const Z_STRING& s) const { return compareignorecase(s.getChars()); }
    int compareignorecase(const Z_CONST_STRING& s) const { return compareignorecase(s.getChars()); }

    /// Takes a copy of the text.
    Z_STRING& operator=(const Z_STRING& other) {
        assignBytes(other.getChars(), other.getLength());
        return *this;
    }
    Z_STRING& operator=(const Z_CONST_STRING& other) {
        assignBytes(other.getChars(), other.getLength());
        return *this;
    }
    /// Empties the string, then converts.
    Z_STRING& operator=(const Z_OTHER_STRING& other);
    Z_STRING& operator=(const Z_OTHER_CONST_STRING& other);
    /// Nothing happens when `s` is getChars() itself.
    Z_STRING& operator=(const char* s) {
        ZAbstractMutableString::operator=(s);
        return *this;
    }
    Z_STRING& operator=(char c) {
        ZAbstractMutableString::operator=(c);
        return *this;
    }
    /// The decimal number.
    Z_STRING& operator=(int n) {
        ZAbstractMutableString::operator=(n);
        return *this;
    }
    Z_STRING& operator=(unsigned int n) {
        ZAbstractMutableString::operator=(n);
        return *this;
    }
    Z_STRING& operator=(long n) {
        ZAbstractMutableString::operator=(n);
        return *this;
    }
    Z_STRING& operator=(unsigned long n) {
        ZAbstractMutableString::operator=(n);
        return *this;
    }

    /// The text of this string, then the argument's. Null adds nothing.
    Z_STRING operator+(const Z_STRING& s) const;
    Z_STRING operator+(const Z_CONST_STRING& s) const;
    Z_STRING operator+(const char* s) const;

    /// Adds the bytes at the end. Null adds nothing.
    Z_STRING& operator+=(const Z_STRING& s) {
        appendBytes(s.getChars(), s.getLength());
        return *this;
    }
    Z_STRING& operator+=(const Z_CONST_STRING& s) {
        appendBytes(s.getChars(), s.getLength());
        return *this;
    }
    Z_STRING& operator+=(const char* s) {
        append(s);
        return *this;
    }
    Z_STRING& operator+=(char c) {
        append(c);
        return *this;
    }

    /// As for all strings (see ZAbstractString), but for speed, and for a number or a character,
    /// which becomes a string.
    int operator==(const char* s) const { return equals(s); }
    int operator!=(const char* s) const { return !equals(s); }
    int operator==(const Z_STRING& s) const { return equalString(s); }
    int operator!=(const Z_STRING& s) const { return !equalString(s); }
    int operator==(const Z_CONST_STRING& s) const { return equalString(s); }
    int operator!=(const Z_CONST_STRING& s) const { return !equalString(s); }
    friend int operator==(const char* s, const Z_STRING& t) { return t.equals(s); }
    friend int operator!=(const char* s, const Z_STRING& t) { return !t.equals(s); }

    /// At most `count` bytes from `start` on; less where the text ends. Bytes, so a longer
    /// character may be cut.
    Z_STRING subString(unsigned int start, unsigned int count) const;
    /// All from `start` on.
    Z_STRING subString(unsigned int start) const;

private:
    friend class ZCodesetException;
    friend class ZQELUTF8Converter;
    Z_STRING(BeforeSetup tag, const char* s) : ZAbstractMutableString(tag) { append(s); }

    // In place where the virtual equals(), which costs several times as much, does the same.
    template <typename Other>
    int equalString(const Other& s) const {
        if (!isExactly(*this))
            return equals(static_cast<const ZObject&>(s));
        const unsigned int n = s.getLength();
        return n == getLength() && memcmp(getChars(), s.getChars(), n) == 0;
    }
};

inline Z_CONST_STRING::Z_CONST_STRING(const Z_STRING& other)
    : ZAbstractConstString(other.getChars()) {}

inline Z_CONST_STRING& Z_CONST_STRING::operator=(const Z_STRING& other) {
    if (getChars() != other.getChars())
        ZAbstractConstString::operator=(other.getChars());
    return *this;
}

inline int Z_CONST_STRING::operator==(const Z_STRING& s) const {
    return equals(static_cast<const ZObject&>(s));
}

inline int Z_CONST_STRING::operator!=(const Z_STRING& s) const { return !(*this == s); }
