// zstringfamilycode.h: what zstringfamily.h declares, for ZLCString.cpp and ZUTF8String.cpp, which
// say the names. Never installed.

int Z_CONST_STRING::compare(const ZObject& other) const { return ZAbstractString::compare(other); }

ZObject* Z_CONST_STRING::clone() const { return new Z_CONST_STRING(*this); }

int Z_CONST_STRING::compare(const char* s) const { return collate(getChars(), s); }

int Z_CONST_STRING::compareignorecase(const char* s) const {
    return ZAbstractString::compareignorecase(s);
}

// The conversion of this class itself, for its constructors: a derived class doesn't exist yet.
Z_STRING::Z_STRING(const Z_OTHER_STRING& other) {
    ZAbstractMutableString::convertFromCodeSet(other);
}

Z_STRING::Z_STRING(const Z_OTHER_CONST_STRING& other) {
    ZAbstractMutableString::convertFromCodeSet(other);
}

int Z_STRING::compare(const ZObject& other) const { return ZAbstractString::compare(other); }

ZObject* Z_STRING::clone() const { return new Z_STRING(*this); }

int Z_STRING::compare(const char* s) const { return collate(getChars(), s); }

int Z_STRING::compareignorecase(const char* s) const {
    return ZAbstractString::compareignorecase(s);
}

Z_STRING& Z_STRING::operator=(const Z_OTHER_STRING& other) {
    ZAbstractMutableString::setChars(other);
    return *this;
}

Z_STRING& Z_STRING::operator=(const Z_OTHER_CONST_STRING& other) {
    ZAbstractMutableString::setChars(other);
    return *this;
}

Z_STRING Z_STRING::operator+(const Z_STRING& s) const {
    Z_STRING sum(*this);
    sum += s;
    return sum;
}

Z_STRING Z_STRING::operator+(const Z_CONST_STRING& s) const {
    Z_STRING sum(*this);
    sum += s;
    return sum;
}

Z_STRING Z_STRING::operator+(const char* s) const {
    Z_STRING sum(*this);
    sum += s;
    return sum;
}

Z_STRING Z_STRING::subString(unsigned int start, unsigned int count) const {
    const unsigned int length = getLength();
    if (start > length)
        start = length;
    const unsigned int left = length - start;
    Z_STRING part;
    part.appendBytes(getChars() + start, count < left ? count : left);
    return part;
}

Z_STRING Z_STRING::subString(unsigned int start) const { return subString(start, notFound); }
