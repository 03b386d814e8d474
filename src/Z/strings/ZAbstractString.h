// ZAbstractString.h: what all strings have in common, as far as it only reads.
//
//   ZAbstractString           reads: search, compare, hash
//     ZAbstractConstString    points at text that somebody else owns
//       ZLCConstString, ZUTF8ConstString
//     ZAbstractMutableString  owns its text
//       ZLCString, ZUTF8String
#ifndef Z_ZABSTRACTSTRING_H
#define Z_ZABSTRACTSTRING_H

#include <atomic>
#include <type_traits>
#include <typeinfo>

#include "ZObject.h"
#include "zqelutil.h"

/// A text: NUL-terminated bytes in the codeset that the class of the string fixes. Positions and
/// lengths are bytes. Two strings are of one codeset exactly when getCodesetHandle() is the same.
///
/// The first string of a process sets up its locale and codesets; if that fails, the process is
/// told why and ends (see zqelutil.h).
///
/// Failure: a null text is no failure; each call says what it stands for. compare() across
///   codesets raises ZUnsupportedException (48).
/// Threads: no lock inside; a string belongs to one thread at a time. A const string whose length
///   isn't known yet writes it down when it is first asked for.
/// Cost: what isn't said otherwise is linear in the text.
class ZEXPORT ZAbstractString : public ZObject {
public:
    /// What a search gives that finds nothing.
    static const unsigned int notFound = 0xFFFFFFFFU;

    ~ZAbstractString() noexcept override {}

    /// The same for the same bytes in any string class: from 5381, times 33, XOR the next byte.
    unsigned int hash() const override;

    /// The locale's collation order of this text and that of `other`, which must be a string.
    /// Raises ZUnsupportedException (48) when the codesets differ.
    int compare(const ZObject& other) const override;

    ZObject* clone() const override = 0;

    /// 1 when `other`, which must be a string, has the same bytes. Codesets aren't looked at.
    int equals(const ZObject& other) const override;

    /// The locale's collation order, not that of bytes. Null counts as the empty text.
    virtual int compare(const char* s) const;

    /// 0 when equal without regard to case, by the rules of the process's locale. Null counts as
    /// the empty text.
    virtual int compareignorecase(const char* s) const;

    /// The text, never null. A mutable string may move it with each change.
    virtual const char* getChars() const = 0;

    /// Takes the text of `other`. What happens across codesets stands with the derived classes.
    virtual ZAbstractString& setChars(const ZAbstractString& other) = 0;

    /// Bytes of text, without the terminator.
    virtual unsigned int getLength() const = 0;

    /// The bytes taken by the leading run of valid characters.
    virtual unsigned int getCharCount() const;

    /// 1 when the byte is in the text; the terminator counts.
    virtual int contains(int c) const;
    /// 1 when `s` is in the text; 0 for null.
    virtual int contains(const char* s) const;

    /// The position of the first hit at or behind `from`, or notFound; a `from` past the end counts
    /// as the end. Null is nowhere.
    virtual unsigned int indexOf(int c, unsigned int from = 0) const;
    virtual unsigned int indexOf(const char* s, unsigned int from = 0) const;

    /// The position of the last character that begins with `c`, or notFound; of NUL, the length.
    /// Raises ZQELMBLenException (46) when the walk meets a character that isn't valid.
    virtual unsigned int lastIndexOf(int c) const;
    /// The position of the last of the hits counted from the front without overlap ("aa" is in
    /// "aaa" at 0 alone), or notFound. Null and the empty text: the length.
    virtual unsigned int lastIndexOf(const char* s) const;

    /// Null begins and ends every text. The empty text begins all but the empty string, and ends
    /// none.
    virtual int beginsWith(const char* s) const;
    virtual int endsWith(const char* s) const;

    /// 1 when the bytes are the same; 0 for null.
    virtual int equals(const char* s) const;

    /// Whether there is no text.
    virtual int isEmpty() const;

    /// getChars() under other names.
    virtual operator const char*() const;
    virtual const char* data() const;

    /// The handle of the codeset that the text is in.
    virtual zcodeset_handle getCodesetHandle() const = 0;

    /// The same with the text of another string.
    int beginsWith(const ZAbstractString& other) const { return beginsWith(other.getChars()); }
    int endsWith(const ZAbstractString& other) const { return endsWith(other.getChars()); }

    /// As the two above without regard to case, but 0 when one of the strings (`other`, for the
    /// end) is empty.
    int beginsWithCaseIgnored(const ZAbstractString& other) const;
    int endsWithCaseIgnored(const ZAbstractString& other) const;

    ZAbstractString& operator=(const ZAbstractString& other) {
        if (this != &other)
            setChars(other);
        return *this;
    }

    /// Equality of bytes between strings of any classes: equals() of the left one, so that a
    /// derived class decides for itself, whatever class it is seen as. With a const char* on either
    /// side equals(const char*) of the string: null is unequal to everything.
    ///
    /// The order of strings and of texts: compare() of the string.
    ///
    /// Templates, for then both sides fit exactly and no conversion, of a string into a const char*
    /// above all, and no operand order of C++20's can ever compete.
#define Z_STRING_OPERATOR(op, Result, ofString, ofText)                            \
    template <typename A, typename B>                                              \
    friend typename std::enable_if<std::is_base_of<ZAbstractString, A>::value &&   \
                                       std::is_base_of<ZAbstractString, B>::value, \
                                   Result>::type                                   \
    operator op(const A& left, const B& right) {                                   \
        const ZAbstractString &a = left, &b = right;                               \
        return ofString;                                                           \
    }                                                                              \
    friend Result operator op(const ZAbstractString& a, const char* b) { return ofText; }
#define Z_TEXT_OPERATOR(op, Result, ofText) \
    friend Result operator op(const char* b, const ZAbstractString& a) { return ofText; }
    Z_STRING_OPERATOR(==, int, a.equals(static_cast<const ZObject&>(b)), a.equals(b))
    Z_STRING_OPERATOR(!=, int, !a.equals(static_cast<const ZObject&>(b)), !a.equals(b))
    Z_STRING_OPERATOR(<, bool, a.compare(static_cast<const ZObject&>(b)) < 0, a.compare(b) < 0)
    Z_STRING_OPERATOR(>, bool, a.compare(static_cast<const ZObject&>(b)) > 0, a.compare(b) > 0)
    Z_STRING_OPERATOR(<=, bool, a.compare(static_cast<const ZObject&>(b)) <= 0, a.compare(b) <= 0)
    Z_STRING_OPERATOR(>=, bool, a.compare(static_cast<const ZObject&>(b)) >= 0, a.compare(b) >= 0)
    Z_TEXT_OPERATOR(==, int, a.equals(b))
    Z_TEXT_OPERATOR(!=, int, !a.equals(b))
    Z_TEXT_OPERATOR(<, bool, 0 < a.compare(b))
    Z_TEXT_OPERATOR(>, bool, a.compare(b) < 0)
    Z_TEXT_OPERATOR(<=, bool, a.compare(b) >= 0)
    Z_TEXT_OPERATOR(>=, bool, a.compare(b) <= 0)
#undef Z_STRING_OPERATOR
#undef Z_TEXT_OPERATOR

    /// Asks for the one constructor of a class that needs no set-up. The exception that reports a
    /// failed set-up holds strings itself; nobody else has a use for it.
    struct BeforeSetup {};

protected:
    ZAbstractString() {
        if (utf8_handle_.load(std::memory_order_acquire) == 0)
            fetchHandles();
    }
    /// For text in a process without codesets: asks for none.
    explicit ZAbstractString(BeforeSetup) {}
    ZAbstractString(const ZAbstractString& other) : ZObject(other) {}

    /// Whether `object` is of `Class` itself and of no derived class, which might override
    /// equals(). May miss it, but costs less than the virtual call that it saves.
    template <typename Class>
    static bool isExactly(const Class& object) {
#ifdef __cpp_rtti
        return &typeid(object) == &typeid(Class);
#else
        return static_cast<void>(object), false;
#endif
    }

    /// The locale's order of two texts; a null `b` is the empty one.
    static int collate(const char* a, const char* b);

    // Whichever constructor first sees 0 fills them, always with the same values. utf8_handle_ is
    // stored last: a thread that finds it set finds lcs_handle_ set too.
    static std::atomic<zcodeset_handle> utf8_handle_;
    static std::atomic<zcodeset_handle> lcs_handle_;

private:
    static void fetchHandles();
};

#endif
