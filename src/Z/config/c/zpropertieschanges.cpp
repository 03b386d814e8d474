// zpropertieschanges.cpp: shared edits in the C interface: opening with options, updates, and
// watching.
#include <fcntl.h>

#include <cerrno>
#include <memory>

#include "ZExceptionText.h"
#include "ZPropHandle.h"
#include "ZPropertiesWatcher.h"
#include "zmemory.h"
#include "zdialects.h"
#include "zproperror.h"
#include "zrefusal.h"
#include "zwholefile.h"

// ---------------------------------------------------------------- updates

int zstzPropOpenWith(ZPROP_handle** out, const char* file, ZPROPOpenMode mode,
                     unsigned long attributes, int storeMode, unsigned long wait) {
    return zstzPropOpenDialect(out, file, mode, nullptr, attributes, storeMode, wait);
}

int zstzPropBegin(ZPROP_handle* handle, unsigned long milliseconds) {
    ZStanzaFileProperties* properties = zliveProperties(handle);
    if (properties == nullptr)
        return zparameterError();
    ZPROP_stz_handle* opened = static_cast<ZPROP_stz_handle*>(handle);
    bool ready = true;
    const int result = zguardedByLock([&] {
        try {
            opened->update = new ZPropertiesUpdate(*properties, milliseconds);
        } catch (const ZInvalidParameterException& e) {
            ready = zfaultBehind(e).reason != nullptr;  // of a target that can't be changed
            throw;
        }
        opened->updater = pthread_self();
        opened->updates = true;
    });
    if (ready)
        return result;
    znoteLastError(22, nullptr, 0, "unsaved changes, or an update that is open");
    return ZPROP_ERR_UNSAVED;
}

// The calling thread's update, or null.
static ZPROP_stz_handle* updatedHandle(ZPROP_handle* handle) {
    ZPROP_stz_handle* opened = static_cast<ZPROP_stz_handle*>(handle);
    if (opened->updatesHere())
        return opened;
    znoteLastError(22, nullptr, 0, "no update is open");
    return nullptr;
}

static void endUpdate(ZPROP_stz_handle* opened) {
    ZPropertiesUpdate* ended = opened->update;
    opened->update = nullptr;
    opened->updates = false;
    // Notices that waited for its end go out here, and an observer may raise.
    zguarded(zchangeGroup, [ended] { delete ended; });
}

int zstzPropCommit(ZPROP_handle* handle) {
    if (zliveProperties(handle) == nullptr)
        return zparameterError();
    ZPROP_stz_handle* opened = updatedHandle(handle);
    if (opened == nullptr)
        return ZPROP_ERR_NO_UPDATE;
    const int result =
        zstoreResult(opened, zguarded(zfileGroup, [&] { opened->update->commit(); }));
    // A failed close has ended it, too.
    if (opened->update->isOpen() == 0)
        endUpdate(opened);
    return result;
}

int zstzPropRollback(ZPROP_handle* handle) {
    if (zliveProperties(handle) == nullptr)
        return zparameterError();
    ZPROP_stz_handle* opened = updatedHandle(handle);
    if (opened == nullptr)
        return ZPROP_ERR_NO_UPDATE;
    const int result = zguarded(zreadGroup, [&] { opened->update->rollback(); });
    endUpdate(opened);
    return result;
}

int zstzPropLastStoreMode(ZPROP_handle* handle, int* storeMode) {
    const ZStanzaFileProperties* properties = zliveProperties(handle);
    if (properties == nullptr || storeMode == nullptr)
        return zparameterError();
    *storeMode = properties->lastStoreMode();
    return ZPROP_OK;
}

// ---------------------------------------------------------------- watching

static const uint32_t kWatchGuard = 0xFEEDBEEFu;

class ZPROP_watch_handle : public ZAllocated, public ZPropertiesWatcher {
public:
    explicit ZPROP_watch_handle(ZProperties& properties)
        : ZPropertiesWatcher(properties), guard_(kWatchGuard), changed_(nullptr), data_(nullptr) {}
    ~ZPROP_watch_handle() noexcept override { guard_ = 0; }

    // What the pointer leads to may be anything.
    __attribute__((no_sanitize("vptr"))) static bool isGood(const ZPROP_watch_handle* watch) {
        return watch != nullptr && watch->guard_ == kWatchGuard;
    }

    int processWith(ZPROP_change_callback changed, void* data) {
        changed_ = changed;
        data_ = data;
        return process();
    }

protected:
    void tell(const ZPropertyChanged& change) override {
        ZPropertiesWatcher::tell(change);
        if (changed_ != nullptr)
            changed_(data_, change.stanza, change.key, change.changeType);
    }

private:
    volatile uint32_t guard_;  // tells a live watch from a closed one
    ZPROP_change_callback changed_;
    void* data_;
};

int zstzPropWatch_open(ZPROP_handle* handle, ZPROP_watch_handle** out) {
    ZStanzaFileProperties* properties = zliveProperties(handle);
    if (properties == nullptr || out == nullptr)
        return zparameterError();
    *out = nullptr;
    return zguarded(zfileGroup, [&] { *out = new ZPROP_watch_handle(*properties); });
}

int zstzPropWatch_fd(ZPROP_watch_handle* watch) {
    zclearLastError();
    if (ZPROP_watch_handle::isGood(watch))
        return watch->descriptor();
    zparameterError();
    return -1;
}

int zstzPropWatch_setSettlingTime(ZPROP_watch_handle* watch, unsigned long milliseconds) {
    zclearLastError();
    if (!ZPROP_watch_handle::isGood(watch))
        return zparameterError();
    watch->setSettlingTime(milliseconds);
    return ZPROP_OK;
}

int zstzPropWatch_process(ZPROP_watch_handle* watch, ZPROP_change_callback changed, void* data,
                          int* err) {
    zclearLastError();
    if (err == nullptr || !ZPROP_watch_handle::isGood(watch)) {
        const int error = zparameterError();
        if (err != nullptr)
            *err = error;
        return 0;
    }
    int count = 0;
    *err = zguarded(zfileGroup, [&] { count = watch->processWith(changed, data); });
    return count;
}

int zstzPropWatch_close(ZPROP_watch_handle* watch) {
    zclearLastError();
    if (!ZPROP_watch_handle::isGood(watch))
        return zparameterError();
    delete watch;
    return ZPROP_OK;
}
