#include "ZAbstractString.h"

#include <cstdlib>
#include <cstring>

#include "ZException.h"
#include "qel/qel.h"
#include "zhash.h"
#include "zraise.h"

std::atomic<zcodeset_handle> ZAbstractString::utf8_handle_{0};
std::atomic<zcodeset_handle> ZAbstractString::lcs_handle_{0};
const unsigned int ZAbstractString::notFound;

void ZAbstractString::fetchHandles() {
    const zcodeset_handle utf8 = zgetUTF8Handle();
    lcs_handle_.store(zgetLCSHandle(), std::memory_order_relaxed);
    utf8_handle_.store(utf8, std::memory_order_release);
}

// Containers hold ZObject*, and a string is only ever compared with strings.
static const ZAbstractString& asString(const ZObject& object) {
    return static_cast<const ZAbstractString&>(object);
}

static const char* orEmpty(const char* s) { return s == nullptr ? "" : s; }

// The position of a hit in `text`, or notFound.
static unsigned int positionOf(const char* hit, const char* text) {
    if (hit == nullptr)
        return ZAbstractString::notFound;
    const size_t position = static_cast<size_t>(hit - text);
    zrequireRoom(position < ZAbstractString::notFound);
    return static_cast<unsigned int>(position);
}

unsigned int ZAbstractString::hash() const { return ztoldHash(getChars()); }

int ZAbstractString::compare(const ZObject& other) const {
    const ZAbstractString& string = asString(other);
    if (getCodesetHandle() != string.getCodesetHandle())
        zraise(ZUnsupportedException());
    return compare(string.getChars());
}

int ZAbstractString::equals(const ZObject& other) const {
    const ZAbstractString& string = asString(other);
    const unsigned int length = getLength();
    return length == string.getLength() && memcmp(getChars(), string.getChars(), length) == 0;
}

int ZAbstractString::compare(const char* s) const { return collate(getChars(), s); }

int ZAbstractString::collate(const char* a, const char* b) { return qel_collate(a, orEmpty(b)); }

int ZAbstractString::compareignorecase(const char* s) const {
    return zstricmp(getCodesetHandle(), getChars(), orEmpty(s));
}

unsigned int ZAbstractString::getCharCount() const {
    getLength();  // raises where the count wouldn't fit either
    return zstrcount(getCodesetHandle(), getChars());
}

int ZAbstractString::contains(int c) const { return strchr(getChars(), c) != nullptr; }

int ZAbstractString::contains(const char* s) const {
    return s != nullptr && strstr(getChars(), s) != nullptr;
}

unsigned int ZAbstractString::indexOf(int c, unsigned int from) const {
    const unsigned int length = getLength();
    const char* text = getChars();
    return positionOf(strchr(text + (from < length ? from : length), c), text);
}

unsigned int ZAbstractString::indexOf(const char* s, unsigned int from) const {
    if (s == nullptr)
        return notFound;
    const unsigned int length = getLength();
    const char* text = getChars();
    return positionOf(strstr(text + (from < length ? from : length), s), text);
}

unsigned int ZAbstractString::lastIndexOf(int c) const {
    if (static_cast<char>(c) == '\0')
        return getLength();
    const char* text = getChars();
    const zcodeset_handle codeset = getCodesetHandle();
    if (codeset == lcs_handle_.load(std::memory_order_relaxed) && qel_local_most() == 1)
        return positionOf(strrchr(text, c), text);
    const unsigned int length = getLength();
    unsigned int last = notFound;
    for (unsigned int from = 0;;) {
        const unsigned int hit = indexOf(c, from);
        if (hit == notFound)
            return last;
        const int bytes = zmblen(codeset, text + hit, length - hit);
        if (bytes < 0)
            zraise(ZQELMBLenException());
        last = hit;
        from = hit + static_cast<unsigned int>(bytes);
    }
}

unsigned int ZAbstractString::lastIndexOf(const char* s) const {
    if (s == nullptr || *s == '\0')
        return getLength();
    const unsigned int length = static_cast<unsigned int>(strlen(s));
    unsigned int last = notFound;
    for (unsigned int hit = indexOf(s, 0); hit != notFound; hit = indexOf(s, hit + length))
        last = hit;
    return last;
}

int ZAbstractString::beginsWith(const char* s) const {
    if (s == nullptr)
        return 1;
    return !isEmpty() && strncmp(getChars(), s, strlen(s)) == 0;
}

int ZAbstractString::endsWith(const char* s) const {
    if (s == nullptr)
        return 1;
    const size_t length = strlen(s);
    const unsigned int ownLength = getLength();
    return length != 0 && length <= ownLength && strcmp(getChars() + (ownLength - length), s) == 0;
}

int ZAbstractString::equals(const char* s) const {
    return s != nullptr && strcmp(getChars(), s) == 0;
}

int ZAbstractString::isEmpty() const { return getLength() == 0; }

ZAbstractString::operator const char*() const { return getChars(); }

const char* ZAbstractString::data() const { return getChars(); }

int ZAbstractString::beginsWithCaseIgnored(const ZAbstractString& other) const {
    if (isEmpty() || other.isEmpty())
        return 0;
    return zstrnicmp(getCodesetHandle(), getChars(), other.getChars(), other.getLength()) == 0;
}

int ZAbstractString::endsWithCaseIgnored(const ZAbstractString& other) const {
    const unsigned int length = other.getLength();
    const unsigned int ownLength = getLength();
    if (length == 0 || length > ownLength)
        return 0;
    return zstrnicmp(getCodesetHandle(), getChars() + (ownLength - length), other.getChars(),
                     length) == 0;
}
