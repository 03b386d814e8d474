// zpropnotices.h: the notices of a properties object's changes. Never installed.
#ifndef Z_ZPROPNOTICES_H
#define Z_ZPROPNOTICES_H

#include <cstring>

#include "ZProperties.h"
#include "zmemory.h"

/// The names of a change that is to be told: they may be texts of what the change takes away.
class ZChangeNames {
public:
    /// Keeps copies if `mayGo`, the caller's pointers otherwise. `key` may be null.
    ZChangeNames(bool mayGo, const char* stanza, const char* key)
        : stanza_(stanza), key_(key), made_(nullptr) {
        if (mayGo)
            copy();
    }
    ~ZChangeNames() { ZObject::operator delete(made_); }
    ZChangeNames(const ZChangeNames&) = delete;
    ZChangeNames& operator=(const ZChangeNames&) = delete;

    const char* stanza() const { return stanza_; }
    const char* key() const { return key_; }

private:
    void copy();

    const char* stanza_;
    const char* key_;
    char* made_;      // where both stand if they don't fit below
    char room_[128];  // nearly all do
};

/// Whether the calling thread has to keep back what it wants to tell observers of `properties`: it
/// holds the lock, or is at sending what it has kept back.
bool zkeepsNotices(const ZPropertiesLock& lock);

/// Keeps a notice, names copied, until the thread gives up its last hold of `lock`.
void zkeepNotice(const ZPropertiesLock& lock, ZAbstractObservable& observable,
                 const ZPropertyChanged& notice);

#endif
