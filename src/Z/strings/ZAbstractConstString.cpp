#include "ZAbstractConstString.h"

#include "ZException.h"
#include "zraise.h"

const char* const ZAbstractConstString::zemptyString = "";

ZAbstractConstString& ZAbstractConstString::setChars(const ZAbstractString& other) {
    if (&other != this && getCodesetHandle() == other.getCodesetHandle())
        *this = other.getChars();
    return *this;
}

void ZAbstractConstString::raiseTooLong() { zraiseOutOfMemory(ZSite()); }

int ZAbstractConstString::equals(const ZObject& other) const {
    const ZAbstractString& string = static_cast<const ZAbstractString&>(other);
    const char* const text = string.getChars();
    // A mutable string may hold NULs, which no text of ours does.
    return equals(text) && strlen(text) == string.getLength();
}
