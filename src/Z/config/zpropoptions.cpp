// zpropoptions.cpp: how an object is told to load and store other than plainly.
#include "zpropoptions.h"

#include "ZProperties.h"
#include "zraise.h"
#include "zscope.h"

// ---------------------------------------------------------------- open updates

static pthread_mutex_t updatesMutex = PTHREAD_MUTEX_INITIALIZER;
static ZUpdatedFile* updates;            // guarded by updatesMutex
static std::atomic<int> updateCount(0);  // so that without an update nothing is paid

void znoteUpdate(ZUpdatedFile& file) {
    const ZMutexScope guard(updatesMutex);
    file.next = updates;
    updates = &file;
    ++updateCount;
}

void zforgetUpdate(ZUpdatedFile& file) {
    const ZMutexScope guard(updatesMutex);
    for (ZUpdatedFile** at = &updates; *at != nullptr; at = &(*at)->next)
        if (*at == &file) {
            *at = file.next;
            --updateCount;
            return;
        }
}

bool zisUpdatedHere(const char* path) {
    ZFileStamp stamp;
    if (updateCount == 0 || path == nullptr || zstampFile(path, stamp) != 0)
        return false;
    const ZMutexScope guard(updatesMutex);
    for (const ZUpdatedFile* file = updates; file != nullptr; file = file->next)
        if (pthread_equal(file->thread, pthread_self()) && zsameFile(file->stamp, stamp))
            return true;
    return false;
}

// ---------------------------------------------------------------- options

ZPropertiesOptions& ZProperties::options() {
    if (options_ == nullptr)
        options_ = new ZPropertiesOptions;
    return *options_;
}

const ZPropertiesOptions& ZProperties::optionsNow() const {
    static const ZPropertiesOptions kPlain;
    return options_ == nullptr ? kPlain : *options_;
}

void ZProperties::setStoreMode(int mode) {
    zrequire(mode >= ZPROP_STORE_PLAIN && mode <= ZPROP_STORE_SAFE);
    ZResourceLock guard(lock_);
    options().storeMode = mode;
}

int ZProperties::storeMode() const {
    ZResourceLock guard(lock_);
    return optionsNow().storeMode;
}

int ZProperties::lastStoreMode() const {
    ZResourceLock guard(lock_);
    return optionsNow().lastStoreMode;
}

void ZProperties::setLockWait(unsigned long milliseconds) {
    ZResourceLock guard(lock_);
    options().lockWait = milliseconds;
}

void ZProperties::setChangeTest(int test) {
    zrequire(test == ZPROP_CHANGE_SECONDS || test == ZPROP_CHANGE_EXACT);
    ZResourceLock guard(lock_);
    options();  // from now on a stamp is kept
    changeTest_ = test;
}

void ZProperties::allowStoreAfterFailedLoad() {
    ZResourceLock guard(lock_);
    options().storeAllowed = true;
}

// Without the lock: getPropertiesFor has never waited for who holds an object that needs no reload.
bool ZProperties::testsExactly() const { return changeTest_ == ZPROP_CHANGE_EXACT; }
