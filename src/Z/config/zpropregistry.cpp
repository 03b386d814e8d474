// zpropregistry.cpp: the shared objects of getPropertiesFor.
//
// Order of locks: an object's lock_, ZPropRegistry. The registry is held to look or to enter
// something, and never while an object is made, loaded or waited for: who holds that object may
// want the registry, too.
#include <pthread.h>

#include <memory>

#include "ZProperties.h"
#include "ZPropertiesImpl.h"
#include "zopenupdates.h"
#include "zraise.h"
#include "zscope.h"

ZAbstractPropertiesFactory::ZAbstractPropertiesFactory() : instances_(10, 0), names_(1, 1) {}

ZAbstractPropertiesFactory::~ZAbstractPropertiesFactory() noexcept {}

ZLock* ZPropRegistry::res_ = nullptr;

void ZPropRegistry::init() { res_ = new ZLock; }

ZPropRegistry::ZPropRegistry() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, &ZPropRegistry::init);
    res_->lock();
}

ZPropRegistry::~ZPropRegistry() noexcept(false) { res_->unlock(); }

namespace {

// The turn to make and load an object for a new file, for a scope: one thread at a time, so that
// threads that ask for a file at once get one object, read once, and factories are called one by
// one. A factory, or a postLoad, that waits for an object which a thread holds that asks for a new
// file, waits for ever.
class FirstLoad {
public:
    FirstLoad() {
        const ZMutexScope guard(mutex_);
        while (depth_ != 0 && pthread_equal(thread_, pthread_self()) == 0)
            pthread_cond_wait(&ended_, &mutex_);
        thread_ = pthread_self();
        ++depth_;
    }
    ~FirstLoad() {
        const ZMutexScope guard(mutex_);
        if (--depth_ == 0)
            pthread_cond_signal(&ended_);
    }
    FirstLoad(const FirstLoad&) = delete;
    FirstLoad& operator=(const FirstLoad&) = delete;

private:
    static pthread_mutex_t mutex_;
    static pthread_cond_t ended_;
    static pthread_t thread_;  // whose turn it is; guarded by mutex_
    static int depth_;         // a load may ask for another file; guarded by mutex_
};

pthread_mutex_t FirstLoad::mutex_ = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t FirstLoad::ended_ = PTHREAD_COND_INITIALIZER;
pthread_t FirstLoad::thread_;
int FirstLoad::depth_;

}  // namespace

ZProperties* ZProperties::findPropertiesFor(const char* file, ZAbstractPropertiesFactory& factory) {
    const ZLCConstString probe(file);
    ZPropRegistry registry;
    return static_cast<ZProperties*>(factory.instances_.getEntry(&probe));
}

ZProperties* ZProperties::getPropertiesFor(const char* file, ZAbstractPropertiesFactory& factory,
                                           int forceReload) {
    // The file is this thread's own to change: what it would get here is half done.
    zrequire(!zisUpdatedHere(file));
    ZProperties* known = findPropertiesFor(file, factory);
    if (known == nullptr) {
        FirstLoad turn;
        known = findPropertiesFor(file, factory);
        if (known == nullptr)
            return makePropertiesFor(file, factory);
    }
    // Objects of a registry stay: none is removed from it.
    ZPropertiesFile::of(*known).follow(file, forceReload);
    return known;
}

ZProperties* ZProperties::makePropertiesFor(const char* file, ZAbstractPropertiesFactory& factory) {
    std::unique_ptr<ZProperties> made(factory.makePropertiesInstance());
    ZPropertiesFile::of(*made).loadWithoutWaiting(file);
    std::unique_ptr<ZLCString> name(new ZLCString(file));
    ZPropRegistry registry;
    factory.names_.addNoCopy(name.get());
    factory.instances_.putEntry(name.release(), made.get());
    return made.release();
}
