// zknowntext.h: the text of objects that are strings of the library's own classes. Of these it is
// known that they are equal when their bytes are, and that hash() tells nothing else; of a class
// that a program derives it isn't. Never installed.
#ifndef Z_ZKNOWNTEXT_H
#define Z_ZKNOWNTEXT_H

#include <cstring>
#include <typeinfo>

#include "ZLCString.h"
#include "ZUTF8String.h"
#include "zhash.h"
#include "zinternal.h"

/// A string's text; `data` is null where the object isn't known to be one.
struct ZKnownText {
    const char* data;
    size_t size;

    uint32_t hash() const { return znarrowHash(zhashOf(data, size)); }

    /// Whether the string, which zownedText() knows, has this text.
    bool isOf(const ZObject& string) const {
        const auto& owner = static_cast<const ZAbstractMutableString&>(string);
        return size == owner.getLength() && zsameBytes(data, owner.getChars(), size);
    }
};

/// The text of an object that is exactly of a class which owns its text.
inline ZKnownText zownedText(const ZObject& object) {
    const std::type_info* const type = &typeid(object);
    if (type != &typeid(ZLCString) && type != &typeid(ZUTF8String))
        return {nullptr, 0};
    const auto& owner = static_cast<const ZAbstractMutableString&>(object);
    return {owner.getChars(), owner.getLength()};
}

/// The text of any of the library's strings. That of one which only points at it is counted anew:
/// what it has counted once may have gone stale, and equals() doesn't go by it either.
inline ZKnownText zknownText(const ZObject& object) {
    const ZKnownText owned = zownedText(object);
    const std::type_info* const type = &typeid(object);
    if (owned.data != nullptr ||
        (type != &typeid(ZLCConstString) && type != &typeid(ZUTF8ConstString)))
        return owned;
    const char* const chars = static_cast<const ZAbstractConstString&>(object).getChars();
    return {chars, strlen(chars)};
}

#endif
