// ZBuffer.h: a length and a pointer to raw bytes.
#ifndef Z_ZBUFFER_H
#define Z_ZBUFFER_H

#include "ZObject.h"

/// What a buffer offers; ZBuffer tells what each call does. An interface without ZObject: never
/// delete through it.
class ZEXPORT ZBufferInterface {
public:
    virtual void setLength(unsigned long length) = 0;
    virtual void setBuffer(unsigned long length, void* data) = 0;
    virtual unsigned long getLength() const = 0;
    virtual void* getBuffer() const = 0;
    virtual void takeBuffer(unsigned long& length, void*& data) = 0;

protected:
    ~ZBufferInterface() = default;
};

/// Orders buffers. Their hash stays that of the object, so a buffer is no key for a hash map.
class ZEXPORT ZAbstractBuffer : public ZObject, public ZBufferInterface {
public:
    ~ZAbstractBuffer() noexcept override;

    /// The shorter buffer comes first, whatever the bytes; buffers of one length go by the first
    /// byte that differs, unsigned. -1, 0 or 1. Requires: `other` is a buffer.
    int compare(const ZObject& other) const override;
};

/// Points at bytes that somebody else owns and that must outlive it. Never allocates or frees, and
/// raises nothing.
///
/// Threads: one buffer is used by one thread at a time.
class ZEXPORT ZConstBuffer : public ZAbstractBuffer {
public:
    ZConstBuffer();
    /// Over `length` bytes at `data`.
    ZConstBuffer(unsigned long length, void* data);

    /// Shares the same bytes.
    ZConstBuffer(const ZConstBuffer& other);
    ZConstBuffer& operator=(const ZConstBuffer& other);
    ~ZConstBuffer() noexcept override;

    ZObject* clone() const override;

    /// Stores the number and nothing more, also when it exceeds what the bytes hold.
    void setLength(unsigned long length) override;
    void setBuffer(unsigned long length, void* data) override;
    unsigned long getLength() const override;
    void* getBuffer() const override;

    /// Hands out both fields and sets them to 0 and null.
    void takeBuffer(unsigned long& length, void*& data) override;

    /// getBuffer() by another name.
    operator void*() const { return getBuffer(); }

private:
    unsigned long length_;
    void* data_;
};

/// Owns bytes of the malloc family.
///
/// Failure: ZOutOfMemoryException (1) when memory runs out; the buffer then keeps its bytes and its
///   length.
/// Threads: one buffer is used by one thread at a time.
/// Cost: making a buffer shorter only changes the length; making it longer calls realloc each time.
class ZEXPORT ZBuffer : public ZAbstractBuffer {
public:
    ZBuffer();
    /// As after setBuffer().
    ZBuffer(unsigned long length, void* data);

    /// The text with its terminating zero byte, which counts in the length. Null: empty.
    ZBuffer(const char* text);

    /// A deep copy.
    ZBuffer(const ZBuffer& other);
    ZBuffer& operator=(const ZBuffer& other);
    ~ZBuffer() noexcept override;

    ZObject* clone() const override;

    /// 0 frees the bytes. A larger length than now keeps the bytes, perhaps at another address, and
    /// leaves the new ones as they come. A smaller one keeps the bytes where they are.
    void setLength(unsigned long length) override;

    /// Copies `length` bytes of `data`, which may be bytes of this buffer. Length 0 frees.
    /// Requires: `data` has that many bytes.
    void setBuffer(unsigned long length, void* data) override;

    /// The text with its terminating zero byte. Null frees.
    virtual void setBuffer(char* text);

    /// Frees the old bytes and takes `data` over, which must come from malloc, calloc or realloc.
    /// The buffer's own bytes are allowed: only the length changes then.
    virtual void setBufferNoCopy(unsigned long length, void* data);

    unsigned long getLength() const override;

    /// The bytes, which stay the buffer's; null when it has none. Good until the next change.
    void* getBuffer() const override;

    /// Hands out the bytes, which the caller releases with free(). The buffer is empty then.
    void takeBuffer(unsigned long& length, void*& data) override;

    /// getBuffer() by another name.
    operator void*() const { return getBuffer(); }

private:
    unsigned long length_;
    void* data_;
};

#endif
