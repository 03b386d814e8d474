#include "ZBuffer.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include "ZException.h"
#include "zraise.h"

ZAbstractBuffer::~ZAbstractBuffer() noexcept {}

int ZAbstractBuffer::compare(const ZObject& other) const {
    const ZAbstractBuffer& buffer = static_cast<const ZAbstractBuffer&>(other);
    const unsigned long length = getLength();
    const unsigned long otherLength = buffer.getLength();
    if (length != otherLength)
        return length < otherLength ? -1 : 1;
    const void* bytes = getBuffer();
    const void* otherBytes = buffer.getBuffer();
    if (length == 0 || bytes == otherBytes)
        return 0;
    const int result = memcmp(bytes, otherBytes, length);
    return (result > 0) - (result < 0);
}

// ZConstBuffer

ZConstBuffer::ZConstBuffer() : length_(0), data_(nullptr) {}

ZConstBuffer::ZConstBuffer(unsigned long length, void* data) : length_(length), data_(data) {}

ZConstBuffer::ZConstBuffer(const ZConstBuffer& other)
    : ZAbstractBuffer(other), length_(other.length_), data_(other.data_) {}

ZConstBuffer& ZConstBuffer::operator=(const ZConstBuffer& other) {
    if (this != &other)
        setBuffer(other.length_, other.data_);
    return *this;
}

ZConstBuffer::~ZConstBuffer() noexcept {}

ZObject* ZConstBuffer::clone() const { return new ZConstBuffer(*this); }

void ZConstBuffer::setLength(unsigned long length) { length_ = length; }

void ZConstBuffer::setBuffer(unsigned long length, void* data) {
    length_ = length;
    data_ = data;
}

unsigned long ZConstBuffer::getLength() const { return length_; }

void* ZConstBuffer::getBuffer() const { return data_; }

void ZConstBuffer::takeBuffer(unsigned long& length, void*& data) {
    length = std::exchange(length_, 0);
    data = std::exchange(data_, nullptr);
}

// ZBuffer

ZBuffer::ZBuffer() : length_(0), data_(nullptr) {}

ZBuffer::ZBuffer(unsigned long length, void* data) : ZBuffer() { setBuffer(length, data); }

ZBuffer::ZBuffer(const char* text) : ZBuffer() { setBuffer(const_cast<char*>(text)); }

ZBuffer::ZBuffer(const ZBuffer& other) : ZAbstractBuffer(other), length_(0), data_(nullptr) {
    setBuffer(other.length_, other.data_);
}

ZBuffer& ZBuffer::operator=(const ZBuffer& other) {
    if (this != &other)
        setBuffer(other.length_, other.data_);
    return *this;
}

ZBuffer::~ZBuffer() noexcept { free(data_); }

ZObject* ZBuffer::clone() const { return new ZBuffer(*this); }

void ZBuffer::setLength(unsigned long length) {
    if (length == 0) {
        free(data_);
        data_ = nullptr;
    } else if (length > length_) {
        data_ = zrequireMemory(realloc(data_, length));
    }
    length_ = length;
}

void ZBuffer::setBuffer(unsigned long length, void* data) {
    if (length <= length_) {
        // The source is read first: it may be bytes of this very buffer.
        if (length != 0)
            memmove(data_, data, length);
        setLength(length);
        return;
    }
    // A fresh block: what it will hold is replaced anyway, so that realloc would copy in vain, and
    // the source may lie in the old one.
    void* const bytes = zrequireMemory(malloc(length));
    memcpy(bytes, data, length);
    free(data_);
    data_ = bytes;
    length_ = length;
}

void ZBuffer::setBuffer(char* text) {
    if (text == nullptr)
        setLength(0);
    else
        setBuffer(strlen(text) + 1, text);
}

void ZBuffer::setBufferNoCopy(unsigned long length, void* data) {
    if (data != data_) {
        free(data_);
        data_ = data;
    }
    length_ = length;
}

unsigned long ZBuffer::getLength() const { return length_; }

void* ZBuffer::getBuffer() const { return data_; }

void ZBuffer::takeBuffer(unsigned long& length, void*& data) {
    length = std::exchange(length_, 0);
    data = std::exchange(data_, nullptr);
}
