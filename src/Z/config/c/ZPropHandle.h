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

#include <atomic>
#include <memory>

#include "ZLayers.h"
#include "ZPropertiesUpdate.h"
#include "ZStanzaFileProperties.h"
#include "zproperties.h"

/// The root of the handles.
class ZEXPORT ZPROP_handle {
public:
    /// A live handle of this mode.
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

/// A handle with an object that keeps comments, or one of several files.
class ZEXPORT ZPROP_stz_handle : public ZPROP_handle {
public:
    /// Nothing is loaded yet.
    explicit ZPROP_stz_handle(ZPROPOpenMode mode);
    /// With an object of several files, which becomes the handle's own.
    ZPROP_stz_handle(ZPROPOpenMode mode, std::unique_ptr<ZLayers> several);
    ~ZPROP_stz_handle() override;

    /// Whether the calling thread has an update open.
    bool updatesHere() const;
    /// Whether another one has.
    bool updatesElsewhere() const;

private:
    const std::unique_ptr<ZStanzaFileProperties> owned_;

public:
    ZStanzaFileProperties& properties;  ///< what the calls are made on
    ZLayers* const layers;              ///< the same if it has several files; else null
    // Set by the thread that begins an update and holds the object's lock.
    ZPropertiesUpdate* update;  ///< the open one, or null
    pthread_t updater;          ///< whose it is
    std::atomic<bool> updates;  ///< whether there is one; any thread may ask
};

/// The root of the walks.
class ZEXPORT ZPROP_iter_handle {
public:
    /// What is walked.
    enum Kind { walksKeys = 1, walksValues = 2 };

    /// A live walk of this kind, the calling thread's.
    explicit ZPROP_iter_handle(Kind kind);
    virtual ~ZPROP_iter_handle() noexcept(false);
    ZPROP_iter_handle(const ZPROP_iter_handle&) = delete;
    ZPROP_iter_handle& operator=(const ZPROP_iter_handle&) = delete;

    /// Memory as library objects get it: raises ZOutOfMemoryException.
    static void* operator new(size_t size) { return ZObject::operator new(size); }
    static void operator delete(void* memory) noexcept { ZObject::operator delete(memory); }

    /// Likewise, and whether the kind is one.
    static bool isGood(const ZPROP_iter_handle* handle);
    /// 1 or 2.
    int kind() const { return kind_; }
    /// Whether the calling thread has made it.
    bool isOwn() const { return pthread_equal(thread_, pthread_self()) != 0; }

private:
    volatile int kind_;
    volatile uint32_t firstGuard_;
    volatile uint32_t secondGuard_;
    const pthread_t thread_;
};

/// A walk over keys.
class ZEXPORT ZPROP_stz_iter_handle : public ZPROP_iter_handle {
public:
    /// Takes the object's lock.
    ZPROP_stz_iter_handle(ZStanzaFileProperties& properties, const char* stanza);
    ~ZPROP_stz_iter_handle() noexcept(false) override;

    ZStanzaIterator iterator;  ///< the walk itself
};

/// A walk over values.
class ZEXPORT ZPROP_stzvalue_iter_handle : public ZPROP_iter_handle {
public:
    /// Takes the object's lock.
    ZPROP_stzvalue_iter_handle(ZStanzaFileProperties& properties, const char* stanza,
                               const char* key);
    ~ZPROP_stzvalue_iter_handle() noexcept(false) override;

    ZStanzaValueIterator iterator;  ///< the walk itself
    ZLCString value;                ///< what was handed out last of the walk's place
    ZLCString key;                  ///< the one that is walked
    /// The object, where the key is the one that says where the side database is; else null.
    const ZStanzaFileProperties* sideEntryOf;
};

#endif
