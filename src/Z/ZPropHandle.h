// ZPropHandle.h: what the handles of the C interface lead to.
//
//   ZPROP_handle                    guard words and mode
//     ZPROP_stz_handle              with the stanza file's object
//   ZPROP_iter_handle               guard words and kind
//     ZPROP_stz_iter_handle         a walk over keys
//     ZPROP_stzvalue_iter_handle    a walk over values
//
// The guard words tell a live handle from a closed one or from something else; the destructors
// clear them.
#ifndef Z_ZPROPHANDLE_H
#define Z_ZPROPHANDLE_H

#include <pthread.h>

#include "ZStanzaFileProperties.h"
#include "zproperties.h"

class ZEXPORT ZPROP_handle {
public:
    explicit ZPROP_handle(ZPROPOpenMode mode);
    virtual ~ZPROP_handle();
    ZPROP_handle(const ZPROP_handle&) = delete;
    ZPROP_handle& operator=(const ZPROP_handle&) = delete;

    /// Memory as library objects get it: raises ZOutOfMemoryException.
    static void* operator new(size_t size) { return ZObject::operator new(size); }
    static void operator delete(void* memory) noexcept { ZObject::operator delete(memory); }

    /// Whether `handle` isn't null and its guard words stand. What it points at may be anything.
    static bool isGood(const ZPROP_handle* handle);

private:
    // Volatile, since a compiler drops what a destructor writes into a dying object.
    volatile uint32_t firstGuard_;
    volatile ZPROPOpenMode mode_;
    volatile uint32_t secondGuard_;
};

class ZEXPORT ZPROP_stz_handle : public ZPROP_handle {
public:
    explicit ZPROP_stz_handle(ZPROPOpenMode mode);
    ~ZPROP_stz_handle() override;

    ZStanzaFileProperties properties;
};

class ZEXPORT ZPROP_iter_handle {
public:
    enum Kind { walksKeys = 1, walksValues = 2 };

    explicit ZPROP_iter_handle(Kind kind);
    virtual ~ZPROP_iter_handle() noexcept(false);
    ZPROP_iter_handle(const ZPROP_iter_handle&) = delete;
    ZPROP_iter_handle& operator=(const ZPROP_iter_handle&) = delete;

    /// Memory as library objects get it: raises ZOutOfMemoryException.
    static void* operator new(size_t size) { return ZObject::operator new(size); }
    static void operator delete(void* memory) noexcept { ZObject::operator delete(memory); }

    /// Likewise, and whether the kind is one.
    static bool isGood(const ZPROP_iter_handle* handle);
    int kind() const { return kind_; }
    /// Whether the calling thread has made it.
    bool isOwn() const { return pthread_equal(thread_, pthread_self()) != 0; }

private:
    volatile int kind_;
    volatile uint32_t firstGuard_;
    volatile uint32_t secondGuard_;
    const pthread_t thread_;
};

class ZEXPORT ZPROP_stz_iter_handle : public ZPROP_iter_handle {
public:
    ZPROP_stz_iter_handle(ZStanzaFileProperties& properties, const char* stanza);
    ~ZPROP_stz_iter_handle() noexcept(false) override;

    ZStanzaIterator iterator;
};

class ZEXPORT ZPROP_stzvalue_iter_handle : public ZPROP_iter_handle {
public:
    ZPROP_stzvalue_iter_handle(ZStanzaFileProperties& properties, const char* stanza,
                               const char* key);
    ~ZPROP_stzvalue_iter_handle() noexcept(false) override;

    ZStanzaValueIterator iterator;
    ZLCString value;  // of the walk's place; empty at the start
    ZLCString key;
};

#endif
