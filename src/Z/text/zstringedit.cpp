// zstringedit.cpp: the editing of mutable strings by what is in the text.
//
// Every edit is one pass over the text where it lies, with a read and a write position. An edit
// that makes the text longer counts its hits first, makes room once, and moves the part behind the
// first hit to the end of that room: what is written then never catches up with what is still to be
// read, since the gap between them is what the hits to come will fill.
//
// Arguments may lie in the text that the edit changes; KeptText copies those.
#include <algorithm>
#include <climits>
#include <cstring>
#include <istream>
#include <typeinfo>

#include "ZAbstractMutableString.h"
#include "ZBuffer.h"
#include "ZStringIterator.h"
#include "qel/qel.h"
#include "zassert.h"
#include "zinternal.h"
#include "zraise.h"

namespace {

/// A text that stays what it is: `s` itself, or a copy where `changes` says that it will change.
class KeptText {
public:
    KeptText(const char* s, int changes) : text_(s) {
        if (changes) {
            copy_.setBuffer(const_cast<char*>(s));
            text_ = static_cast<const char*>(copy_.getBuffer());
        }
    }
    operator const char*() const { return text_; }

private:
    ZBuffer copy_;
    const char* text_;
};

/// Copies the text from `source` to `end` to `target`, with `to` in place of each hit. `next` gives
/// the first hit at or behind a position, or null. The end of what was written.
template <typename Next>
char* rewrite(char* target, const char* source, const char* end, Next next, size_t hitLength,
              const char* to, size_t toLength) {
    for (;;) {
        const char* const hit = next(source);
        const size_t between = static_cast<size_t>((hit == nullptr ? end : hit) - source);
        memmove(target, source, between);
        target += between;
        if (hit == nullptr)
            return target;
        memcpy(target, to, toLength);
        target += toLength;
        source = hit + hitLength;
        zassert(target <= source);  // as told above
    }
}

/// Characters for which nothing is left to do, as many as fit: each has one place where it may
/// stand.
class DoneCharacters {
public:
    bool contains(const char* character) const {
        const uint32_t word = packed(character);
        return word != 0 && places_[place(word)] == word;
    }
    void add(const char* character) {
        const uint32_t word = packed(character);
        places_[place(word)] = word;
    }

private:
    // Its bytes in one word; 0, which is never taken for done, for one of more than four.
    static uint32_t packed(const char* character) {
        uint32_t word = 0;
        const size_t n = strlen(character);
        if (n <= sizeof word)
            memcpy(&word, character, n);
        return word;
    }
    static size_t place(uint32_t word) { return (word * 0x9E3779B1U) >> 24; }

    uint32_t places_[256] = {};
};

}  // namespace

const char* ZAbstractMutableString::find(const char* text, const char* part) const {
    const zcodeset_handle codeset = getCodesetHandle();
    if (codeset != utf8_handle_.load(std::memory_order_relaxed))
        return zstrstr(codeset, text, part);
    return part[0] != '\0' && part[1] == '\0' ? strchr(text, part[0]) : strstr(text, part);
}

// Whether stripping looks at bytes.
bool ZAbstractMutableString::isBytewise() const {
    return qel_local_most() == 1 ||
           getCodesetHandle() == utf8_handle_.load(std::memory_order_relaxed);
}

ZAbstractMutableString& ZAbstractMutableString::replace(char a, char b) {
    if (a == '\0')
        return *this;  // the search would find the terminator
    const zcodeset_handle codeset = getCodesetHandle();
    char* hit = zstrchr(codeset, chars_, a);
    if (b != '\0') {
        for (; hit != nullptr; hit = zstrchr(codeset, hit + 1, a))
            *hit = b;
    } else if (hit != nullptr) {
        const auto next = [=](const char* at) { return zstrchr(codeset, at, a); };
        char* const end = rewrite(hit, hit, chars_ + length_, next, 1, "", 0);
        trunc(static_cast<unsigned int>(end - chars_));
    }
    return *this;
}

ZAbstractMutableString& ZAbstractMutableString::replace(const char* from, const char* to) {
    if (!zhasText(from))
        return *this;
    const char* const hit = find(chars_, from);
    if (hit == nullptr)
        return *this;
    const KeptText part(from, isOwn(from));
    const KeptText substitute(to == nullptr ? "" : to, isOwn(to));
    const size_t partLength = strlen(part);
    const size_t substituteLength = strlen(substitute);
    const auto next = [&](const char* at) { return find(at, part); };

    const size_t before = static_cast<size_t>(hit - chars_);
    const char* source = hit;
    const char* end = chars_ + length_;
    if (substituteLength > partLength) {
        uint64_t hits = 0;
        for (const char* at = hit; at != nullptr; at = next(at + partLength))
            ++hits;
        // Past 4 GiB the length doesn't matter any more, but must not wrap.
        const uint64_t more = substituteLength - partLength;
        const uint64_t length = length_ + hits * (more < 0xFFFFFFFFU ? more : 0xFFFFFFFFU);
        if (length > capacity_)
            grow(length, 0);
        end = chars_ + length;
        source = end - (length_ - before);
        memmove(chars_ + (source - chars_), chars_ + before, length_ - before + 1);
    }
    char* const written =
        rewrite(chars_ + before, source, end, next, partLength, substitute, substituteLength);
    *written = '\0';
    length_ = static_cast<unsigned int>(written - chars_);
    return *this;
}

ZAbstractMutableString& ZAbstractMutableString::replaceAll(const char* set, char c) {
    if (set == nullptr)
        return *this;
    // A byte of the text is in the set where it is a character of the set by itself.
    bool isMember[256] = {};
    const zcodeset_handle codeset = getCodesetHandle();
    while (*set != '\0') {
        const int n = zmblen(codeset, set, SIZE_MAX);
        if (n < 2)
            isMember[static_cast<unsigned char>(*set)] = true;
        set += n < 2 ? 1 : n;
    }
    char* write = chars_;
    for (const char* read = chars_; read < chars_ + length_; ++read) {
        if (!isMember[static_cast<unsigned char>(*read)])
            *write++ = *read;
        else if (c != '\0')
            *write++ = c;
    }
    return trunc(static_cast<unsigned int>(write - chars_));
}

ZAbstractMutableString& ZAbstractMutableString::replaceAllOf(ZStringIterator& characters,
                                                             const char* to) {
    const KeptText substitute(to, isOwn(to));
    while (characters.hasMore())
        replace(static_cast<ZAbstractString*>(characters.getNext())->getChars(), substitute);
    return *this;
}

ZAbstractMutableString& ZAbstractMutableString::replaceNoneOf(ZStringIterator& characters,
                                                              const char* set, const char* to) {
    if (set == nullptr)
        return *this;
    const KeptText members(set, isOwn(set));
    const KeptText substitute(to == nullptr ? "" : to, isOwn(to));

    // A character that has been replaced once is gone for good if `to` lacks it, and its bytes
    // can't come together anew as long as text and substitute are whole characters. So most texts
    // take a pass for each different character instead of one for each. A class of its own may have
    // a replace() of its own, which then sees each.
    const zcodeset_handle codeset = getCodesetHandle();
    const bool stayGone =
        (typeid(*this) == typeid(ZLCString) || typeid(*this) == typeid(ZUTF8String)) &&
        zstrcount(codeset, chars_) == length_ &&
        zstrcount(codeset, substitute) == strlen(substitute);
    DoneCharacters done;
    while (characters.hasMore()) {
        const char* const character =
            static_cast<ZAbstractString*>(characters.getNext())->getChars();
        if (done.contains(character))
            continue;
        if (find(members, character) != nullptr) {
            done.add(character);
            continue;
        }
        replace(character, substitute);
        // An iterator over text of the other codeset may deliver what is no character here.
        const int n = zmblen(codeset, character, SIZE_MAX);
        if (stayGone && n > 0 && character[n] == '\0' && find(substitute, character) == nullptr)
            done.add(character);
    }
    return *this;
}

ZAbstractMutableString& ZAbstractMutableString::stripLeading() {
    const bool bytewise = isBytewise();
    const zcodeset_handle codeset = getCodesetHandle();
    unsigned int blanks = 0;
    while (blanks < length_ && qel_isspace(chars_[blanks]) &&
           (bytewise || zmblen(codeset, chars_ + blanks, length_ - blanks) == 1))
        ++blanks;
    return blanks == 0 ? *this : assignBytes(chars_ + blanks, length_ - blanks);
}

ZAbstractMutableString& ZAbstractMutableString::stripTrailing() {
    const auto isBlank = [this](unsigned int at) { return qel_isspace(chars_[at]); };
    if (length_ == 0 || !isBlank(length_ - 1))
        return *this;
    unsigned int end = length_;
    if (isBytewise()) {
        while (end > 1 && isBlank(end - 1))
            --end;
        return trunc(end);
    }
    // The last byte may end a longer character, so only a walk from the front knows.
    const zcodeset_handle codeset = getCodesetHandle();
    for (unsigned int at = 0; at < length_;) {
        const int n = zmblen(codeset, chars_ + at, length_ - at);
        if (n != 1 || !isBlank(at))
            end = length_;
        else if (end == length_)
            end = at;
        at += n < 1 ? 1 : static_cast<unsigned int>(n);
    }
    return trunc(end);
}

ZAbstractMutableString& ZAbstractMutableString::stripWhiteSpace() {
    stripLeading();
    return stripTrailing();
}

namespace {

/// What a step in a stream buffer, an int, can hold.
const unsigned int kMostSkipped = INT_MAX;

/// What a stream buffer holds already, which only buffers themselves may see.
struct ReadArea : std::streambuf {
    static bool hasText(std::istream& in) {
        return in.good() && begin(*in.rdbuf()) != end(*in.rdbuf());
    }
    static const char* begin(std::streambuf& buffer) { return (buffer.*&ReadArea::gptr)(); }
    static const char* end(std::streambuf& buffer) { return (buffer.*&ReadArea::egptr)(); }
    /// Passes `n` bytes, at most kMostSkipped.
    static void skip(std::streambuf& buffer, unsigned int n) {
        (buffer.*&ReadArea::gbump)(static_cast<int>(n));
    }
};

bool endsLine(int c) { return c == '\n' || c == '\r' || c == '\0'; }

/// The first line end from `at` on, or `end`.
const char* findLineEnd(const char* at, const char* end) {
    const uint64_t kOnes = 0x0101010101010101U;
    while (end - at >= 8) {
        uint64_t word;
        memcpy(&word, at, sizeof word);
        // Line ends are below 0x0E, and hardly anything else is.
        const bool hasLow = ((word - kOnes * 0x0E) & ~word & kOnes * 0x80) != 0;
        if (hasLow && std::any_of(at, at + 8, endsLine))
            break;
        at += 8;
    }
    return std::find_if(at, end, endsLine);
}

}  // namespace

std::istream& ZAbstractMutableString::readLine(std::istream& in, int flag) {
    if (flag)
        in.setf(std::ios_base::skipws);
    clear();
    for (;;) {
        // The stream itself reads on, finds the end and takes the line end, so that its state is
        // that of reading one by one; what it has buffered is taken in one go.
        if (!ReadArea::hasText(in) && in.peek() == std::istream::traits_type::eof())
            return in;
        std::streambuf& buffer = *in.rdbuf();
        const char* const begin = ReadArea::begin(buffer);
        const char* const end = ReadArea::end(buffer);
        // No more at once than fits, so that the string grows as it would one by one, and than the
        // buffer takes as a step.
        const size_t room = std::min(capacity_ - length_, kMostSkipped);
        const char* const at =
            findLineEnd(begin, static_cast<size_t>(end - begin) < room ? end : begin + room);
        if (at == begin) {
            const int c = in.get();
            if (endsLine(c))
                return in;
            append(static_cast<char>(c));
            continue;
        }
        const unsigned int n = static_cast<unsigned int>(at - begin);
        append(begin, n);
        ReadArea::skip(buffer, n);
        if (at != end && endsLine(*at)) {
            in.get();
            return in;
        }
    }
}

// The classes of the two codesets

namespace {

template <typename String>
void replaceMembers(String& text, const char* set, const char* to) {
    const String keptSet(set);  // may lie in the text
    String character;
    ZStringIterator characters(keptSet, character);
    text.replaceAllOf(characters, to);
}

template <typename String>
void replaceOthers(String& text, const char* set, const char* to) {
    const String before(text);
    String character;
    ZStringIterator characters(before, character);
    text.replaceNoneOf(characters, set, to);
}

/// Adds `distance` to the letters from `first` on in the leading ASCII of `text`. Where that ends.
char* shiftLetters(char* text, unsigned int length, unsigned char first, int distance) {
    char* const end = text + length;
    for (; text != end && static_cast<unsigned char>(*text) < 0x80; ++text)
        if (static_cast<unsigned char>(*text - first) < 26)
            *text = static_cast<char>(*text + distance);
    return text;
}

}  // namespace

ZLCString& ZLCString::replaceAll(const char* set, char c) {
    ZAbstractMutableString::replaceAll(set, c);
    return *this;
}

ZLCString& ZLCString::replaceAll(const char* set, const char* to) {
    replaceMembers(*this, set, to);
    return *this;
}

ZLCString& ZLCString::replaceOther(const char* set, const char* to) {
    replaceOthers(*this, set, to);
    return *this;
}

ZUTF8String& ZUTF8String::replaceAll(const char* set, char c) {
    ZAbstractMutableString::replaceAll(set, c);
    return *this;
}

ZUTF8String& ZUTF8String::replaceAll(const char* set, const char* to) {
    replaceMembers(*this, set, to);
    return *this;
}

ZUTF8String& ZUTF8String::replaceOther(const char* set, const char* to) {
    replaceOthers(*this, set, to);
    return *this;
}

ZUTF8String& ZUTF8String::replace(char a, char b) {
    zrequire(static_cast<unsigned char>(a) < 0x80);
    if (a == '\0')
        return *this;  // the search would find the terminator
    for (char* hit = strchr(bump(0, 1), a); hit != nullptr; hit = strchr(hit + 1, a))
        *hit = b;
    return *this;
}

ZUTF8String& ZUTF8String::replace(const char* from, const char* to) {
    ZAbstractMutableString::replace(from, to);
    return *this;
}

ZUTF8String& ZUTF8String::upper() {
    char* const rest = shiftLetters(bump(0, 1), getLength(), 'a', -32);
    if (*rest != '\0')
        zstrupper(getCodesetHandle(), rest);
    return *this;
}

ZUTF8String& ZUTF8String::lower() {
    char* const rest = shiftLetters(bump(0, 1), getLength(), 'A', 32);
    if (*rest != '\0')
        zstrlower(getCodesetHandle(), rest);
    return *this;
}
