#include "ZUTF8String.h"

#include "ZLCString.h"
#include "zstringshared.h"

int ZUTF8ConstString::compare(const ZObject& other) const {
    return ZAbstractString::compare(other);
}

ZObject* ZUTF8ConstString::clone() const { return new ZUTF8ConstString(*this); }

int ZUTF8ConstString::compare(const char* s) const { return collate(getChars(), s); }

int ZUTF8ConstString::compareignorecase(const char* s) const {
    return ZAbstractString::compareignorecase(s);
}

// The conversion of this class itself, for its constructors: a derived class doesn't exist yet.
ZUTF8String::ZUTF8String(const ZLCString& other) {
    ZAbstractMutableString::convertFromCodeSet(other);
}

ZUTF8String::ZUTF8String(const ZLCConstString& other) {
    ZAbstractMutableString::convertFromCodeSet(other);
}

int ZUTF8String::compare(const ZObject& other) const { return ZAbstractString::compare(other); }

ZObject* ZUTF8String::clone() const { return new ZUTF8String(*this); }

int ZUTF8String::compare(const char* s) const { return collate(getChars(), s); }

int ZUTF8String::compareignorecase(const char* s) const {
    return ZAbstractString::compareignorecase(s);
}

ZUTF8String& ZUTF8String::operator=(const ZLCString& other) {
    ZAbstractMutableString::setChars(other);
    return *this;
}

ZUTF8String& ZUTF8String::operator=(const ZLCConstString& other) {
    ZAbstractMutableString::setChars(other);
    return *this;
}

ZUTF8String ZUTF8String::operator+(const ZUTF8String& s) const { return zsum(*this, s); }

ZUTF8String ZUTF8String::operator+(const ZUTF8ConstString& s) const { return zsum(*this, s); }

ZUTF8String ZUTF8String::operator+(const char* s) const { return zsum(*this, s); }

ZUTF8String ZUTF8String::subString(unsigned int start, unsigned int count) const {
    return zpart(*this, start, count);
}

ZUTF8String ZUTF8String::subString(unsigned int start) const {
    return zpart(*this, start, notFound);
}
