#include "ZLCString.h"

#include "ZUTF8String.h"
#include "zstringshared.h"

int ZLCConstString::compare(const ZObject& other) const { return ZAbstractString::compare(other); }

ZObject* ZLCConstString::clone() const { return new ZLCConstString(*this); }

int ZLCConstString::compare(const char* s) const { return collate(getChars(), s); }

int ZLCConstString::compareignorecase(const char* s) const {
    return ZAbstractString::compareignorecase(s);
}

// The conversion of this class itself, for its constructors: a derived class doesn't exist yet.
ZLCString::ZLCString(const ZUTF8String& other) {
    ZAbstractMutableString::convertFromCodeSet(other);
}

ZLCString::ZLCString(const ZUTF8ConstString& other) {
    ZAbstractMutableString::convertFromCodeSet(other);
}

int ZLCString::compare(const ZObject& other) const { return ZAbstractString::compare(other); }

ZObject* ZLCString::clone() const { return new ZLCString(*this); }

int ZLCString::compare(const char* s) const { return collate(getChars(), s); }

int ZLCString::compareignorecase(const char* s) const {
    return ZAbstractString::compareignorecase(s);
}

ZLCString& ZLCString::operator=(const ZUTF8String& other) {
    ZAbstractMutableString::setChars(other);
    return *this;
}

ZLCString& ZLCString::operator=(const ZUTF8ConstString& other) {
    ZAbstractMutableString::setChars(other);
    return *this;
}

ZLCString ZLCString::operator+(const ZLCString& s) const { return zsum(*this, s); }

ZLCString ZLCString::operator+(const ZLCConstString& s) const { return zsum(*this, s); }

ZLCString ZLCString::operator+(const char* s) const { return zsum(*this, s); }

ZLCString ZLCString::subString(unsigned int start, unsigned int count) const {
    return zpart(*this, start, count);
}

ZLCString ZLCString::subString(unsigned int start) const { return zpart(*this, start, notFound); }
