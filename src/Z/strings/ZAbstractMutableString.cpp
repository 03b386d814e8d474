// ZAbstractMutableString.cpp: how strings that own text grow and change. The numbers at asserts are
// those of the invariants that stand with the fields.
#include "ZAbstractMutableString.h"

#include <cstdarg>
#include <memory>
#include <typeinfo>

#include "ZException.h"
#include "zasprintf.h"
#include "zassert.h"
#include "zinternal.h"
#include "zraise.h"

const unsigned int ZAbstractMutableString::kInlineLength;

// One below what the length field can hold, so that the terminator still counts.
static const uint64_t kMostCapacity = 0xFFFFFFFEU;

// The capacity that a string of `capacity` grows to for `n` bytes; never less than it has.
static uint64_t grownCapacity(uint64_t capacity, uint64_t inlineLength, uint64_t n, int exact) {
    uint64_t target = n > capacity ? n : capacity;
    if (target <= inlineLength)
        return capacity;
    zrequireRoom(target <= kMostCapacity);
    if (!exact)
        target += (n + 7) / 5;
    return target > kMostCapacity ? kMostCapacity : target;
}

static char* allocateBlock(uint64_t capacity) {
    return static_cast<char*>(zrequireMemory(malloc(static_cast<size_t>(capacity) + 1)));
}

int ZAbstractMutableString::isOwn(const char* s) const {
    const uintptr_t at = reinterpret_cast<uintptr_t>(s);
    const uintptr_t begin = reinterpret_cast<uintptr_t>(chars_);
    return at >= begin && at - begin <= capacity_;
}

void ZAbstractMutableString::grow(uint64_t n, int exact) {
    zassert(length_ <= capacity_);                                   // (1)
    zassert(chars_ != inline_chars_ || capacity_ == kInlineLength);  // (2)
    const uint64_t target = grownCapacity(capacity_, kInlineLength, n, exact);
    if (target <= capacity_)
        return;
    char* block;
    if (chars_ == inline_chars_) {
        block = allocateBlock(target);
        memcpy(block, inline_chars_, length_ + 1);
    } else {
        void* const moved = zrequireMemory(realloc(chars_, static_cast<size_t>(target) + 1));
        block = static_cast<char*>(moved);
    }
    chars_ = block;
    capacity_ = static_cast<unsigned int>(target);
}

char* ZAbstractMutableString::bump(unsigned int n, int exact) {
    grow(n, exact);
    return chars_;
}

void ZAbstractMutableString::growForOne() { grow(uint64_t(length_) + 1, 0); }

ZAbstractMutableString& ZAbstractMutableString::growAndAppend(const char* s, size_t n) {
    const bool own = isOwn(s);
    const size_t offset = own ? static_cast<size_t>(s - chars_) : 0;
    grow(uint64_t(length_) + n, 0);
    memmove(chars_ + length_, own ? chars_ + offset : s, n);
    length_ += static_cast<unsigned int>(n);
    chars_[length_] = '\0';
    return *this;
}

ZAbstractMutableString& ZAbstractMutableString::growAndAssign(const char* s, size_t n) {
    // A new block, since realloc would carry the old text along. `s` isn't our own: that would fit.
    zassert(!isOwn(s));
    const uint64_t target = grownCapacity(capacity_, kInlineLength, n, 0);
    char* block = allocateBlock(target);
    memcpy(block, s, n);
    block[n] = '\0';
    if (chars_ != inline_chars_)
        free(chars_);
    chars_ = block;
    length_ = static_cast<unsigned int>(n);
    capacity_ = static_cast<unsigned int>(target);
    return *this;
}

void ZAbstractMutableString::constructWithRoom(const char* s, size_t n) {
    grow(uint64_t(n) + 1, 0);
    appendBytes(s, n);
}

ZAbstractMutableString& ZAbstractMutableString::setUnsigned(unsigned long n, int negative) {
    char digits[24];
    char* const end = digits + sizeof digits;
    char* at = end;
    do {
        *--at = static_cast<char>('0' + n % 10);
        n /= 10;
    } while (n != 0);
    if (negative)
        *--at = '-';
    return assignBytes(at, static_cast<size_t>(end - at));
}

int ZAbstractMutableString::equals(const ZObject& other) const {
    const ZAbstractString& string = static_cast<const ZAbstractString&>(other);
    if (&typeid(*this) != &typeid(string))
        return ZAbstractString::equals(other);
    // Of the same class: no calls have to tell where its text is.
    const ZAbstractMutableString& same = static_cast<const ZAbstractMutableString&>(string);
    return length_ == same.length_ && zsameBytes(chars_, same.chars_, length_);
}

namespace {

/// A string's text of the moment, in the codeset that the string says.
class TextCopy : public ZAbstractString {
public:
    explicit TextCopy(const ZAbstractString& other)
        : length_(other.getLength()),
          block_(allocateBlock(length_), free),
          codeset_(other.getCodesetHandle()) {
        memcpy(block_.get(), other.getChars(), length_);
        block_.get()[length_] = '\0';
    }
    ZObject* clone() const override { return nullptr; }
    const char* getChars() const override { return block_.get(); }
    unsigned int getLength() const override { return length_; }
    zcodeset_handle getCodesetHandle() const override { return codeset_; }
    TextCopy& setChars(const ZAbstractString&) override { return *this; }

private:
    const unsigned int length_;
    const std::unique_ptr<char, void (*)(void*)> block_;
    const zcodeset_handle codeset_;
};

}  // namespace

ZAbstractMutableString& ZAbstractMutableString::setChars(const ZAbstractString& other) {
    if (&other == this)
        return *this;
    if (getCodesetHandle() == other.getCodesetHandle())
        return assignBytes(other.getChars(), other.getLength());
    if (isOwn(other.getChars())) {
        const TextCopy copy(other);
        clear();
        convertFromCodeSet(copy);
    } else {
        clear();
        convertFromCodeSet(other);
    }
    return *this;
}

void ZAbstractMutableString::convertFromCodeSet(const ZAbstractString& other) {
    const unsigned int length = other.getLength();
    if (length == 0)
        return;
    if (isOwn(other.getChars()))  // neither room nor result may touch what is still to be read
        return ZAbstractMutableString::convertFromCodeSet(TextCopy(other));
    const bool toUTF8 = getCodesetHandle() == utf8_handle_.load(std::memory_order_relaxed);
    // No character takes more than three bytes of UTF-8 a byte, or two bytes a byte of UTF-8.
    grow(uint64_t(length) * (toUTF8 ? 3 : 2) + 1, 1);
    int n = toUTF8 ? zlcs_to_utf8(other.getChars(), length, chars_, capacity_)
                   : zlcs_from_utf8(other.getChars(), length, chars_, capacity_);
    if (n < 0)
        n = 0;
    zassert(static_cast<unsigned int>(n) <= capacity_);  // (1)
    chars_[n] = '\0';
    length_ = static_cast<unsigned int>(n);
}

ZAbstractMutableString& ZAbstractMutableString::insert(unsigned int pos, const char* s) {
    if (s == nullptr)
        return *this;
    if (pos > length_)
        pos = length_;
    const size_t n = strlen(s);
    const bool own = isOwn(s);
    const size_t offset = own ? static_cast<size_t>(s - chars_) : 0;
    grow(uint64_t(length_) + n + 1, 0);
    char* const gap = chars_ + pos;
    memmove(gap + n, gap, length_ - pos + 1);
    if (!own) {
        memcpy(gap, s, n);
    } else {
        // What stood in front of the gap is still there, the rest has moved up by n.
        const size_t before = offset >= pos ? 0 : pos - offset < n ? pos - offset : n;
        memcpy(gap, chars_ + offset, before);
        memcpy(gap + before, chars_ + offset + before + n, n - before);
    }
    length_ += static_cast<unsigned int>(n);
    zassert(length_ <= capacity_);  // (1)
    return *this;
}

ZAbstractMutableString& ZAbstractMutableString::prepend(const char* s) {
    if (s == nullptr)
        return *this;
    // Room is that of an empty string to which `s` and then the old text have been appended.
    const size_t n = strlen(s);
    const uint64_t total = uint64_t(length_) + n;
    uint64_t capacity = kInlineLength;
    if (n > capacity)
        capacity = grownCapacity(capacity, kInlineLength, n, 0);
    if (total > capacity)
        capacity = grownCapacity(capacity, kInlineLength, total, 0);

    char* const old = chars_;
    char* const text = capacity == kInlineLength ? inline_chars_ : allocateBlock(capacity);
    if (text == old) {
        const bool own = isOwn(s);
        memmove(text + n, text, length_ + 1);
        memmove(text, own ? s + n : s, n);  // our own text has moved up as well
    } else {
        memcpy(text, s, n);
        memcpy(text + n, old, length_ + 1);
        if (old != inline_chars_)
            free(old);
    }
    zassert(total <= capacity);  // (1)
    chars_ = text;
    length_ = static_cast<unsigned int>(total);
    capacity_ = static_cast<unsigned int>(capacity);
    return *this;
}

ZAbstractMutableString& ZAbstractMutableString::remove(unsigned int pos, unsigned int count) {
    if (count == 0)
        return trunc(pos);
    if (uint64_t(pos) + count > length_)
        return *this;
    memmove(chars_ + pos, chars_ + pos + count, length_ - pos - count + 1);
    length_ -= count;
    return *this;
}

ZAbstractMutableString& ZAbstractMutableString::trunc(unsigned int n) {
    if (n <= length_) {
        chars_[n] = '\0';
        length_ = n;
    }
    return *this;
}

ZAbstractMutableString& ZAbstractMutableString::upper() {
    zstrupper(getCodesetHandle(), chars_);
    return *this;
}

ZAbstractMutableString& ZAbstractMutableString::lower() {
    zstrlower(getCodesetHandle(), chars_);
    return *this;
}

ZAbstractMutableString& ZAbstractMutableString::operator=(char c) {
    return assignBytes(&c, c != '\0');
}

ZAbstractMutableString& ZAbstractMutableString::format(const char* fmt, ...) {
    char* made = nullptr;
    va_list ap;
    va_start(ap, fmt);
    zvsprintf(&made, fmt, ap);
    va_end(ap);
    const std::unique_ptr<char, void (*)(void*)> block(made, zasprintf_free);
    return block == nullptr ? *this : setChars(block.get());
}
