// ZAbstractConstString.h: strings that only point at their text.
#ifndef Z_ZABSTRACTCONSTSTRING_H
#define Z_ZABSTRACTCONSTSTRING_H

#include <string.h>

#include "ZAbstractString.h"

/// A string laid over text that somebody else owns, to look at it without copying.
///
/// Ownership: none; the text has to outlive the string. Laid over a mutable string, it is good
///   until that string changes. Copies share the text.
/// Failure: null counts as the empty text. Text of 4 GiB and more has no length here:
///   ZOutOfMemoryException (1) from getLength() and all that needs the length, copies included.
/// Threads: as ZAbstractString; note that getLength() writes its cache.
/// Cost: construction constant, nothing is allocated; the length is counted once, so it goes stale
///   when the owner changes the text.
class ZEXPORT ZAbstractConstString : public ZAbstractString {
public:
    ~ZAbstractConstString() noexcept override {}

    const char* getChars() const final { return chars_; }

    /// Points at the text of `other`. Nothing happens when it is of another codeset, since a string
    /// that owns nothing can't convert.
    ZAbstractConstString& setChars(const ZAbstractString& other) override;

    unsigned int getLength() const final {
        if (length_ == 0 && chars_ != zemptyString) {
            const size_t length = strlen(chars_);
            if (length >= notFound)
                raiseTooLong();
            length_ = static_cast<unsigned int>(length);
        }
        return length_;
    }

    /// Looks at `s` from now on, or at the empty text for null; copies nothing.
    ZAbstractConstString& operator=(const char* s) {
        chars_ = s == nullptr ? zemptyString : s;
        length_ = 0;
        return *this;
    }
    ZAbstractConstString& operator=(const ZAbstractConstString& other) {
        chars_ = other.chars_;
        length_ = other.length_;
        return *this;
    }

    using ZAbstractString::equals;

    /// By equals(const char*), which a derived class may override alone.
    int equals(const ZObject& other) const override;

protected:
    ZAbstractConstString() : chars_(zemptyString), length_(0) {}
    /// Over `s`, or the empty text for null.
    explicit ZAbstractConstString(const char* s)
        : chars_(s == nullptr ? zemptyString : s), length_(0) {}
    ZAbstractConstString(const ZAbstractConstString& other)
        : ZAbstractString(other), chars_(other.chars_), length_(other.length_) {}

    /// The one text of all strings that are laid over null.
    static const char* const zemptyString;

private:
    [[noreturn]] static void raiseTooLong();

    const char* chars_;            // never null
    mutable unsigned int length_;  // 0: not counted yet
};

#endif
