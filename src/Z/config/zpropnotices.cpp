// zpropnotices.cpp: notices that wait until the object's lock is free.
//
// An observer may do anything, among it wait for another thread that wants the object. So none is
// called while the thread holds the object, be it by a walk, an update or a caller's own guard: the
// notice is kept, and the unlock that ends the last hold sends all that were kept, in their order.
// There is no other way to give the lock up, so none is forgotten.
//
// What is kept belongs to the thread, which alone may hold the lock meanwhile: no lock guards it.
#include "zpropnotices.h"

#include <exception>

#include "ZException.h"
#include "zreport.h"

namespace {

struct Notice : ZAllocated {
    Notice(const ZPropertyChanged& told, ZAbstractObservable& source)
        : names(true, told.stanza, told.key),
          style(told.style),
          type(told.changeType),
          observable(source),
          next(nullptr) {}
    ZChangeNames names;
    ZPropertyChanged::PropertyStyle style;
    ZPropertyChanged::PropertyChangeType type;
    ZAbstractObservable& observable;
    Notice* next;
};

}  // namespace

// What one thread keeps for one lock.
struct ZKeptNotices : ZAllocated {
    explicit ZKeptNotices(const ZPropertiesLock& held)
        : lock(&held), first(nullptr), last(nullptr), isSending(false), next(nullptr) {}
    ~ZKeptNotices() { forget(); }
    ZKeptNotices(const ZKeptNotices&) = delete;
    ZKeptNotices& operator=(const ZKeptNotices&) = delete;

    std::unique_ptr<Notice> take() {
        std::unique_ptr<Notice> taken(first);
        first = first->next;
        if (first == nullptr)
            last = nullptr;
        return taken;
    }
    void forget() {
        while (first != nullptr)
            take();
    }

    const ZPropertiesLock* lock;
    Notice *first, *last;
    bool isSending;
    ZKeptNotices* next;
};

typedef ZKeptNotices Kept;

__thread ZKeptNotices* zkeptNotices __attribute__((tls_model("initial-exec")));

static Kept* findKept(const ZPropertiesLock& lock) {
    Kept* kept = zkeptNotices;
    while (kept != nullptr && kept->lock != &lock)
        kept = kept->next;
    return kept;
}

static void unlinkKept(const Kept* kept) {
    Kept** at = &zkeptNotices;
    while (*at != kept)
        at = &(*at)->next;
    *at = kept->next;
}

void ZChangeNames::copy() {
    const size_t stanzaSize = strlen(stanza_) + 1, keySize = key_ == nullptr ? 0 : strlen(key_) + 1;
    char* target = room_;
    if (stanzaSize > SIZE_MAX - keySize)  // they may be one text
        zraise(ZOutOfMemoryException());
    if (stanzaSize + keySize > sizeof room_)
        target = made_ = static_cast<char*>(ZObject::operator new(stanzaSize + keySize));
    memcpy(target, stanza_, stanzaSize);
    stanza_ = target;
    if (key_ == nullptr)
        return;
    memcpy(target + stanzaSize, key_, keySize);
    key_ = target + stanzaSize;
}

bool zsendsNotices(const ZPropertiesLock& lock) {
    const Kept* kept = findKept(lock);
    return kept != nullptr && kept->isSending;
}

void zkeepNotice(const ZPropertiesLock& lock, ZAbstractObservable& observable,
                 const ZPropertyChanged& told) {
    std::unique_ptr<Notice> notice(new Notice(told, observable));
    Kept* kept = findKept(lock);
    if (kept == nullptr) {
        kept = new Kept(lock);
        kept->next = zkeptNotices;
        zkeptNotices = kept;
    }
    Notice** end = kept->last == nullptr ? &kept->first : &kept->last->next;
    kept->last = *end = notice.release();
}

namespace {

// Sends what was kept. The first exception of an observer goes to the caller, when all notices are
// out; later ones are reported.
class Sending {
public:
    explicit Sending(Kept* kept) : kept_(kept) { kept_->isSending = true; }
    // The thread may be ending, with notices left: they are no less true for that.
    ~Sending() {
        while (kept_->first != nullptr)
            zrunReported([this] { sendNext(); });
        unlinkKept(kept_);
        delete kept_;
    }
    Sending(const Sending&) = delete;
    Sending& operator=(const Sending&) = delete;

    __attribute__((no_sanitize("null"))) void sendAll() {
        std::exception_ptr raised;
        while (kept_->first != nullptr && raised == nullptr) {
            try {
                sendNext();
            } catch (abi::__forced_unwind&) {
                throw;
            } catch (...) {
                raised = std::current_exception();
            }
        }
        while (kept_->first != nullptr)
            zrunReported([this] { sendNext(); });
        if (raised != nullptr)
            std::rethrow_exception(raised);
    }

private:
    void sendNext() {
        const std::unique_ptr<Notice> notice(kept_->take());
        notice->observable.notifyObservers(ZPropertyChanged(
            notice->names.stanza(), notice->names.key(), notice->style, notice->type));
    }

    Kept* const kept_;
};

}  // namespace

ZPropertiesLock::~ZPropertiesLock() noexcept {
    Kept* kept = findKept(*this);
    if (kept == nullptr)
        return;
    kept->forget();
    if (kept->isSending)
        return;  // the sender's own then
    unlinkKept(kept);
    delete kept;
}

void ZPropertiesLock::unlock() {
    if (__builtin_expect(zkeptNotices == nullptr, true)) {
        ZLock::unlock();
        return;
    }
    Kept* kept = depth() == 1 ? findKept(*this) : nullptr;
    ZLock::unlock();
    if (kept != nullptr && !kept->isSending)
        Sending(kept).sendAll();
}
