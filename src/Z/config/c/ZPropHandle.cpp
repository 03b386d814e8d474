#include "ZPropHandle.h"

#include "zgrammar.h"

#include "zreport.h"

static const uint32_t kFirstGuard = 0xBEEFF00Du;
static const uint32_t kSecondGuard = 0xD00FFEEBu;

ZPROP_handle::ZPROP_handle(ZPROPOpenMode mode)
    : firstGuard_(kFirstGuard), mode_(mode), secondGuard_(kSecondGuard) {}

ZPROP_handle::~ZPROP_handle() {
    firstGuard_ = 0;
    mode_ = 0;
    secondGuard_ = 0;
}

// Callers' pointers may lead anywhere, so the check of an object's dynamic type stays out.
#define Z_ANY_POINTER __attribute__((no_sanitize("vptr")))

Z_ANY_POINTER bool ZPROP_handle::isGood(const ZPROP_handle* handle) {
    return handle != nullptr && handle->firstGuard_ == kFirstGuard &&
           handle->secondGuard_ == kSecondGuard;
}

ZPROP_stz_handle::ZPROP_stz_handle(ZPROPOpenMode mode)
    : ZPROP_handle(mode),
      owned_(new ZStanzaFileProperties(1)),
      properties(*owned_),
      layers(nullptr),
      update(nullptr),
      updater(pthread_self()),
      updates(false) {}

ZPROP_stz_handle::ZPROP_stz_handle(ZPROPOpenMode mode, std::unique_ptr<ZLayers> several)
    : ZPROP_handle(mode),
      owned_(std::move(several)),
      properties(*owned_),
      layers(static_cast<ZLayers*>(owned_.get())),
      update(nullptr),
      updater(pthread_self()),
      updates(false) {}

bool ZPROP_stz_handle::updatesHere() const {
    return updates && pthread_equal(updater, pthread_self()) != 0;
}

bool ZPROP_stz_handle::updatesElsewhere() const { return updates && !updatesHere(); }

// Requires: no other thread has an update open.
ZPROP_stz_handle::~ZPROP_stz_handle() {
    zrunReported([this] { delete update; });
}

ZPROP_iter_handle::ZPROP_iter_handle(Kind kind)
    : kind_(kind), firstGuard_(kFirstGuard), secondGuard_(kSecondGuard), thread_(pthread_self()) {}

ZPROP_iter_handle::~ZPROP_iter_handle() noexcept(false) {
    kind_ = 0;
    firstGuard_ = 0;
    secondGuard_ = 0;
}

Z_ANY_POINTER bool ZPROP_iter_handle::isGood(const ZPROP_iter_handle* handle) {
    return handle != nullptr && handle->firstGuard_ == kFirstGuard &&
           handle->secondGuard_ == kSecondGuard &&
           (handle->kind_ == walksKeys || handle->kind_ == walksValues);
}

ZPROP_stz_iter_handle::ZPROP_stz_iter_handle(ZStanzaFileProperties& properties, const char* stanza)
    : ZPROP_iter_handle(walksKeys), iterator(properties, stanza) {}

ZPROP_stz_iter_handle::~ZPROP_stz_iter_handle() noexcept(false) {}

ZPROP_stzvalue_iter_handle::ZPROP_stzvalue_iter_handle(ZStanzaFileProperties& properties,
                                                       const char* stanza, const char* keyName)
    : ZPROP_iter_handle(walksValues),
      iterator(properties, stanza, keyName, ZPROP_STRING_LOCAL,
               ZStanzaValueIterator::ZPROP_ITER_AUTO),
      key(keyName),
      sideEntryOf(zisSideEntry(stanza, keyName) ? &properties : nullptr) {}

ZPROP_stzvalue_iter_handle::~ZPROP_stzvalue_iter_handle() noexcept(false) {}
