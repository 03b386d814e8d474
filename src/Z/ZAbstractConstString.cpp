#include "ZAbstractConstString.h"

const char* const ZAbstractConstString::zemptyString = "";

ZAbstractConstString& ZAbstractConstString::setChars(const ZAbstractString& other) {
    if (&other != this && getCodesetHandle() == other.getCodesetHandle())
        *this = other.getChars();
    return *this;
}
