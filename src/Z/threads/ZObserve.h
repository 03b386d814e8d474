// ZObserve.h: observers that are told of changes.
//
//   ZObserverInterface       who is told; programs implement it
//   ZObservedParm            root of what they are told
//   ZObservableInterface     who tells
//     ZAbstractObservable    the implementation
//   Voyeur                   an observer as the member of a list
#ifndef Z_ZOBSERVE_H
#define Z_ZOBSERVE_H

#include <atomic>

#include "ZList.h"
#include "ZLock.h"
#include "ZObject.h"

class ZObservableInterface;

/// Root of the parameters of a notification; it says nothing itself. The notifier owns it, and it
/// is alive during the call only.
class ZEXPORT ZObservedParm : public ZObject {};

/// Who wants to be told. Programs implement this; the library never deletes an observer.
class ZEXPORT ZObserverInterface {
public:
    /// `source` tells `parm`. Runs in the thread that notifies, with the observable's list locked:
    /// it may call the observable, but must not remove observers. Observers that it adds are told
    /// from the next notification on. What it raises ends the notification.
    virtual void update(ZObservableInterface* source, const ZObservedParm& parm) = 0;

protected:
    ~ZObserverInterface() {}
};

/// Who has observers.
class ZEXPORT ZObservableInterface {
public:
    /// Registers `observer`, once: a second time changes nothing.
    virtual void addObserver(ZObserverInterface* observer) = 0;

    /// Removes `observer`; one that isn't registered changes nothing.
    virtual void deleteObserver(ZObserverInterface* observer) = 0;

    /// Removes all observers.
    virtual void deleteObservers() = 0;

    /// How many observers are registered.
    virtual unsigned int countObservers() = 0;

    /// Calls update of each observer, in order of registration.
    virtual void notifyObservers(const ZObservedParm& parm) = 0;

protected:
    ~ZObservableInterface() {}
};

/// Keeps the list of observers and tells them.
///
/// Ownership: the observers stay their owners', who remove them before they die.
/// Failure: registering raises ZOutOfMemoryException and changes nothing then. What an observer
///   raises goes to the notifier; those behind it aren't called.
/// Threads: any thread, any call. The lock is recursive and held through a whole notification:
///   notifications are serial, and other threads' calls wait for their end. So hold no lock that an
///   observer may want while calling one of these.
/// Cost: registering and removing are linear in the number of observers.
class ZEXPORT ZAbstractObservable : public ZObservableInterface {
public:
    ZAbstractObservable();

    /// Take over the observers of `other`, each of which then watches both. The lock is free.
    ZAbstractObservable(const ZAbstractObservable& other);
    ZAbstractObservable& operator=(const ZAbstractObservable& other);

    void addObserver(ZObserverInterface* observer) override;
    void deleteObserver(ZObserverInterface* observer) override;
    void deleteObservers() override;
    unsigned int countObservers() override;
    void notifyObservers(const ZObservedParm& parm) override;

protected:
    /// Whether there is any observer, without waiting for a notification's end.
    bool hasObservers() const { return count_.load(std::memory_order_acquire) != 0; }

private:
    ZArrayList observers_;  // of Voyeur, owned, in order of registration; guarded by observersLock_
    mutable ZLock observersLock_;
    // The size of observers_, read without the lock: a notice for nobody, by far the most frequent
    // one, costs a load.
    std::atomic<unsigned int> count_;
};

/// The entry that makes an observer's address a member of a list. It doesn't own the observer.
class ZEXPORT Voyeur : public ZObject {
public:
    /// An entry for this observer, and which one it is for.
    explicit Voyeur(ZObserverInterface* observer) : observer_(observer) {}
    ZObserverInterface* observer() const { return observer_; }

    /// The observer's address, its upper half folded in where addresses are wider.
    unsigned int hash() const override;

    /// The order of the two observers' addresses. Requires: `other` is a Voyeur.
    int compare(const ZObject& other) const override;

    /// A new entry for the same observer.
    ZObject* clone() const override;

private:
    ZObserverInterface* observer_;
};

#endif
