// zpropnotices.h: the notices of a properties object's changes. Never installed.
#ifndef Z_ZPROPNOTICES_H
#define Z_ZPROPNOTICES_H

#include <cstring>

#include "ZProperties.h"
#include "zmemory.h"

/// The names of a change that is to be told: they may be texts of what the change takes away.
class ZChangeNames {
public:
    /// Copies them if somebody is `told`. `key` may be null.
    ZChangeNames(bool told, const char* stanza, const char* key)
        : stanza_(stanza), key_(key), made_(nullptr) {
        if (told)
            copy();
    }
    ~ZChangeNames() {
        if (made_ != nullptr)
            ZObject::operator delete(made_);
    }
    ZChangeNames(const ZChangeNames&) = delete;
    ZChangeNames& operator=(const ZChangeNames&) = delete;

    const char* stanza() const { return stanza_; }
    const char* key() const { return key_; }
    bool areKept() const { return stanza_ == room_ || made_ != nullptr; }

private:
    void copy();

    const char* stanza_;
    const char* key_;
    char* made_;      // where both stand if they don't fit below
    char room_[128];  // nearly all do
};

/// What the calling thread has kept back, of all objects; null for nearly everybody.
struct ZKeptNotices;
extern __thread ZKeptNotices* zkeptNotices __attribute__((tls_model("initial-exec")));

/// Whether the calling thread is at sending what it has kept back for `lock`.
bool zsendsNotices(const ZPropertiesLock& lock);

/// Whether it has to keep back what it wants to tell: it holds the lock, or is at sending.
inline bool zkeepsNotices(const ZPropertiesLock& lock) {
    return lock.isHeld() || (zkeptNotices != nullptr && zsendsNotices(lock));
}

/// Keeps a notice, names copied, until the thread gives up its last hold of `lock`.
void zkeepNotice(const ZPropertiesLock& lock, ZAbstractObservable& observable,
                 const ZPropertyChanged& notice);

#endif
