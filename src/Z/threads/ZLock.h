// ZLock.h: the recursive lock that knows its owner, and the guard that holds it for a scope.
//
//   ZLockInterface   lock(), unlock()
//     ZAbstractLock
//       ZLock        the recursive lock
//   ZResourceLock    holds a ZLock for a scope
#ifndef Z_ZLOCK_H
#define Z_ZLOCK_H

#include <pthread.h>

#include <atomic>

#include "ZObject.h"

/// What can be held by one holder at a time. Deleted through its class or through ZObject*.
class ZEXPORT ZLockInterface {
public:
    /// Waits until the caller holds it.
    virtual void lock() = 0;

    /// Gives it up.
    virtual void unlock() = 0;

protected:
    ~ZLockInterface() {}
};

/// The root of the locks.
class ZEXPORT ZAbstractLock : public ZLockInterface {
protected:
    ~ZAbstractLock() {}
};

/// A recursive lock of the threads of one process.
///
///   state                     lock()         unlock()
///   free                      depth 1        raises 6
///   held by the caller        depth + 1      depth - 1; free at depth 0
///   held by another thread    waits          raises 6
///
/// Ownership: the thread that locked it holds it until it has unlocked as often. A copy is a free
///   lock of its own, whatever the state of the original; assignment changes nothing.
/// Failure: what the system refuses is raised with its return code; wrong use with return code 0.
///   Whatever is raised, owner and depth are as they were.
/// Threads: any thread, any call, except that the destructor must be the last one.
/// Cost: a lock that is held already is taken again without a system call: one comparison.
class ZEXPORT ZLock : public ZAbstractLock, public ZObject {
public:
    /// A free lock. Raises ZCreateResourceException (3) with the system's return code.
    ZLock();

    /// A free lock of its own: nothing of `other` is shared or copied. Raises as ZLock() does.
    ZLock(const ZLock& other);

    /// Changes nothing: a lock's state belongs to the threads that use it.
    ZLock& operator=(const ZLock&) { return *this; }

    /// Takes the lock, waiting while another thread holds it. Raises ZLockResourceException (5).
    void lock() override;

    /// Gives up one level; the last one frees the lock. Raises ZUnlockResourceException (6): with
    /// return code 0 if the calling thread doesn't hold the lock, with the system's return code if
    /// freeing failed; it is then held at depth 1.
    void unlock() override;

    /// Never raises: a lock that can't be destroyed, as when it is held, is reported (4).
    ~ZLock() noexcept override;

protected:
    /// How deep the calling thread holds it; 0 if it doesn't.
    int depth() const {
        const pthread_t owner = owner_->load(std::memory_order_relaxed);
        return owner != static_cast<pthread_t>(-1) && owner == pthread_self() ? count_ : 0;
    }

private:
    friend class ZCondition;  // a wait gives up the whole depth and takes it back

    pthread_mutex_t* mutex_;  // owned; its address never changes

    // Owned; the holding thread, or -1. Only the holder writes, while it has the mutex. Everybody
    // reads without it, to compare with his own id: relaxed, for a thread always sees what it wrote
    // last itself, and any other value only says "not you".
    std::atomic<pthread_t>* owner_;

    int count_;  // depth; read and written by the holder alone
};

/// Holds a ZLock from here to the end of the scope: the way to hold one across anything that may
/// raise. Calls the virtual lock() and unlock().
///
/// Failure: the constructor raises what lock() raises, and nothing is held then. The destructor
///   raises what unlock() raises, as when the lock was freed within the scope; if an exception that
///   began after the construction is on its way, it reports instead. Cancellation isn't visible to
///   it: a thread that is cancelled must still hold the lock there, or the process ends.
/// Threads: built and destroyed by one thread.
class ZEXPORT ZResourceLock : public ZObject {
public:
    /// Waits for the lock, which must outlive the scope.
    explicit ZResourceLock(ZLock& lock);
    ~ZResourceLock() noexcept(false) override;

    ZResourceLock(const ZResourceLock&) = delete;
    ZResourceLock& operator=(const ZResourceLock&) = delete;

private:
    ZLock& lock_;
    const int exceptions_;  // how many were on their way at construction
};

#endif
