// ZCondition.h: conditions for the recursive lock.
//
//   ZConditionInterface       waiting and waking
//     ZAbstractCondition
//       ZCondition            a condition variable bound to a ZLock
//         ZBooleanCondition   with an integer as predicate
#ifndef Z_ZCONDITION_H
#define Z_ZCONDITION_H

#include <pthread.h>
#include <time.h>

#include "ZLock.h"
#include "ZObject.h"

/// What threads can wait for. Deleted through its class or through ZObject*.
class ZEXPORT ZConditionInterface {
public:
    /// Waits without a limit.
    virtual void wait() = 0;

    /// Waits for at most `seconds`; `timedOut` tells whether they passed.
    virtual void wait(long seconds, int& timedOut) = 0;

    /// Waits until the time of day `absolute` at most; `timedOut` tells whether it passed.
    virtual void wait(timespec& absolute, int& timedOut) = 0;

    /// Wakes one waiting thread, if there is one.
    virtual void signal() = 0;

    /// Wakes all waiting threads.
    virtual void broadcast() = 0;

    /// Called by a wait whose time has passed, before it returns.
    virtual void waitTimedOut() = 0;

protected:
    ~ZConditionInterface() {}
};

/// The root of the conditions: each has a lock, which it locks and unlocks as its own.
class ZEXPORT ZAbstractCondition : public ZObject,
                                   public ZConditionInterface,
                                   public ZLockInterface {};

/// A condition variable that works with a ZLock: a wait gives up all levels of the lock at once, so
/// that other threads can take it, and comes back with the depth that the thread had.
///
/// A wait may also end without a signal: test in a loop what was waited for, or use
/// ZBooleanCondition.
///
/// Ownership: deletes the lock that it made itself; a lock that was given stays its owner's, who
///   keeps it alive. Several conditions may share one lock.
/// Failure: however a wait ends (woken, timed out, failed, or its thread cancelled), the lock is
///   held again at the old depth before anything else runs.
/// Threads: any thread, any call; waits need the lock held by the caller. No copies.
class ZEXPORT ZCondition : public ZAbstractCondition {
public:
    /// With a lock of its own. Raises ZConditionException (7), or what ZLock() raises.
    ZCondition();

    /// With `lock`. Raises ZConditionException (7).
    explicit ZCondition(ZLock& lock);

    ZCondition(const ZCondition&) = delete;
    ZCondition& operator=(const ZCondition&) = delete;

    /// Never raises: what can't be destroyed is reported (8). No thread may be waiting.
    ~ZCondition() noexcept override;

    /// The three waits raise ZLockResourceException (5, return code 0) if the caller doesn't hold
    /// the lock, and `timedOut` is untouched then. Another failure is reported and raised as
    /// ZConditionException (9).
    void wait() override;

    /// `seconds` are counted from the start of the present second: the wait may end up to a second
    /// early, and 0 seconds have passed already. Calls the virtual wait(timespec&, int&).
    void wait(long seconds, int& timedOut) override;

    /// `absolute` is a time of day (CLOCK_REALTIME), or zero in both fields for no limit.
    /// `timedOut` becomes 0, and 1 once the time has passed; waitTimedOut() is called before.
    void wait(timespec& absolute, int& timedOut) override;

    /// Neither looks at the lock. A failure is reported and raised as ZConditionException (10 and
    /// 27).
    void signal() override;
    void broadcast() override;

    /// Locks and unlocks the condition's lock. Raises what the lock raises.
    void lock() override;
    void unlock() override;

    /// The condition's lock; it stays the condition's or its owner's.
    virtual ZLock* getResource() const;

    /// For subclasses. Runs with the lock held at its old depth. Here: nothing.
    void waitTimedOut() override;

    /// Raises ZLockResourceException (5, return code 0) unless the calling thread holds the lock.
    virtual void validateLock();

private:
    ZLock* lock_;           // set by the constructor
    int ownLock_;           // 1: lock_ is deleted with the condition
    pthread_cond_t* cond_;  // owned; its address never changes
};

/// A condition with its predicate, an int: a wait ends when that isn't 0. The holder of the lock
/// sets it, then signals. It stays set until initCondition() or setCondition(0).
///
/// All calls of its own need the lock held by the caller and raise as the waits do.
class ZEXPORT ZBooleanCondition : public ZCondition {
public:
    /// As those of ZCondition; the predicate is 0.
    ZBooleanCondition();
    explicit ZBooleanCondition(ZLock& lock);

    /// Return at once if the predicate is set; `timedOut` is untouched then. Otherwise wait until
    /// it is; when the time passes, waitTimedOut() sets it, and `timedOut` tells what happened.
    void wait() override;
    void wait(long seconds, int& timedOut) override;
    void wait(timespec& absolute, int& timedOut) override;

    /// Calls setCondition(1), which ends the wait.
    void waitTimedOut() override;

    /// Makes the predicate 0.
    virtual void initCondition();

    /// The predicate.
    virtual int testCondition();

    /// Sets the predicate and wakes nobody. Always 1.
    virtual int setCondition(int value);

private:
    int condition_;  // guarded by the lock
};

#endif
