#include "ZObserve.h"

#include "zinternal.h"

// A copy made while nobody else can change the list.
static ZArrayList copyUnderLock(const ZArrayList& observers, ZLock& lock) {
    const ZResourceLock guard(lock);
    return observers;
}

ZAbstractObservable::ZAbstractObservable() : observers_(2, 1), count_(0) {}

ZAbstractObservable::ZAbstractObservable(const ZAbstractObservable& other)
    : observers_(copyUnderLock(other.observers_, other.observersLock_)),
      count_(observers_.size()) {}

ZAbstractObservable& ZAbstractObservable::operator=(const ZAbstractObservable& other) {
    if (this == &other)
        return *this;
    // One lock at a time: two objects assigned to each other must not wait for each other.
    const ZArrayList observers = copyUnderLock(other.observers_, other.observersLock_);
    const ZResourceLock guard(observersLock_);
    observers_ = observers;
    count_ = observers_.size();
    return *this;
}

void ZAbstractObservable::addObserver(ZObserverInterface* observer) {
    const ZResourceLock guard(observersLock_);
    const Voyeur entry(observer);
    if (!observers_.contains(&entry))
        observers_.add(&entry);
    count_ = observers_.size();
}

void ZAbstractObservable::deleteObserver(ZObserverInterface* observer) {
    const ZResourceLock guard(observersLock_);
    const Voyeur entry(observer);
    observers_.remove(&entry);
    count_ = observers_.size();
}

void ZAbstractObservable::deleteObservers() {
    const ZResourceLock guard(observersLock_);
    observers_.removeAll();
    count_ = 0;
}

unsigned int ZAbstractObservable::countObservers() {
    const ZResourceLock guard(observersLock_);
    return observers_.size();
}

void ZAbstractObservable::notifyObservers(const ZObservedParm& parm) {
    if (!hasObservers())
        return;
    const ZResourceLock guard(observersLock_);
    const unsigned int size = observers_.size();
    for (unsigned int i = 0; i < size; ++i) {
        // Null where an observer has removed others against the rule.
        if (const ZObject* entry = observers_.get(i))
            static_cast<const Voyeur*>(entry)->observer()->update(this, parm);
    }
}

unsigned int Voyeur::hash() const { return zaddressHash(observer_); }

int Voyeur::compare(const ZObject& other) const {
    return zaddressCompare(observer_, static_cast<const Voyeur&>(other).observer_);
}

ZObject* Voyeur::clone() const { return new Voyeur(*this); }
