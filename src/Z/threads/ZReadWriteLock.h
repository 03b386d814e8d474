// ZReadWriteLock.h: the lock that many may hold to read or one to write, and the scope object on
// it.
//
//   ZLockInterface
//     ZReadWriteLockInterface      the states, and how each is asked for
//       ZAbstractReadWriteLock     observable; what threads and processes share
//         ZReadWriteLock           among the threads of one process
//   ZStackReadWriteLock            gives a read/write lock up at the end of a scope
#ifndef Z_ZREADWRITELOCK_H
#define Z_ZREADWRITELOCK_H

#include <pthread.h>

#include <atomic>

#include "ZCondition.h"
#include "ZLock.h"
#include "ZObject.h"
#include "ZObserve.h"

/// What can be held to read or to write. Deleted through its class or through ZObject*.
class ZEXPORT ZReadWriteLockInterface : public ZLockInterface {
public:
    /// How a lock is held. Of a fixed type, since any other value has an answer too.
    enum zlockstate : int {
        unset = 0,    ///< nobody holds the lock; asked for, it means release
        read = 1,     ///< one or more readers
        protect = 2,  ///< one holder reads and may write later; readers come and go
        write = 3     ///< one holder writes, or waits to write until the last readers are out
    };

    /// Takes the lock to write.
    void lock() override = 0;

    /// Gives up what the caller holds.
    void unlock() override = 0;

    /// Takes the lock in this state; `unset` gives it up.
    virtual void lock(zlockstate state) = 0;

    /// Take the lock in the state that each is named for; the third one in protect.
    virtual void readLock() = 0;
    virtual void writeLock() = 0;
    virtual void readWithIntentToWriteLock() = 0;

    /// From protect to write.
    virtual void promoteReadToWriteLock() = 0;

protected:
    ~ZReadWriteLockInterface() {}
};

/// The root of the read/write locks. What it says of updates is for locks whose holders count the
/// changes of what is locked; here nothing is counted.
class ZEXPORT ZAbstractReadWriteLock : public ZObject,
                                       public ZReadWriteLockInterface,
                                       public ZAbstractObservable {
public:
    /// Calls lock(write).
    void lock() override;
    void lock(zlockstate state) override = 0;

    /// "unset", "read", "protect" or "write", a static text; null for any other value.
    virtual const char* getLockStateName(zlockstate state) const;

    /// Whether the caller has seen the last change of what is locked. Here: 1.
    virtual int isCurrent() const;

    /// Calls unlock(getUpdate()).
    void unlock() override;

    /// Gives the lock up; `update` tells whether what is locked was changed.
    virtual void unlock(int update) = 0;

    /// Whether the lock is in this state, whoever put it there.
    virtual int haveLock(zlockstate state) const = 0;

    /// Whether the caller is the one who writes: see the class.
    virtual int ownWriteLock() const = 0;

    /// Whether the next release counts as a change. Here: 0, and setting it does nothing.
    virtual int getUpdate() const;
    virtual void setUpdate(int update);
};

/// A read/write lock of the threads of one process.
///
///   state    caller   readLock  readWith...  promote...   writeLock  unlock
///   unset    any      read      protect      raises 5     write      raises 6
///   read     any      read      protect      raises 5     waits      read; the last one: unset
///   protect  holder   raises 5  raises 5     write (1)    raises 5   unset; read if readers are in
///            another  protect   waits        raises 5     waits      protect (2)
///   write    holder   raises 5  raises 5     raises 5     raises 5   unset; read if readers are in
///            another  waits     waits        raises 5     waits      write (2)
///
///   (1) From here on new readers wait, and the holder waits until the last one is out. It must not
///       hold a read lock of its own then: it would wait for itself.
///   (2) A reader that leaves; raises 6 if there is none.
///
/// A writer that waits holds nobody back: readers go on entering, and it gets in when they have run
/// out. A thread that must not starve takes protect and promotes. Reads are counted by call, not by
/// thread: a thread that reads twice unlocks twice, and who unlocks too often takes another's read
/// away.
///
/// Ownership: a copy has the observers of the original, and is free.
/// Failure: wrong use raises at once, with return code 0 and the state as it was: 5 is
///   ZLockResourceException, 6 ZUnlockResourceException. What the system refuses arrives as from
///   ZLock and ZCondition; a failed wait takes nothing, and leaves a promoting thread in write. A
///   thread that is cancelled while it waits leaves as after a failure.
/// Threads: any thread, any call, except that the destructor must be the last one. It checks
///   nothing.
/// Cost: what needn't wait and wakes nobody is one atomic exchange, without a system call. Who
///   waits sleeps.
class ZEXPORT ZReadWriteLock : public ZAbstractReadWriteLock {
public:
    /// A free lock without observers. Raises what ZCondition() raises.
    ZReadWriteLock();
    ZReadWriteLock(const ZReadWriteLock& other);
    ZReadWriteLock& operator=(const ZReadWriteLock&) = delete;
    ~ZReadWriteLock() noexcept override;

    ZObject* clone() const override;

    void lock() override;
    /// By the virtual call for that state; any other value does nothing.
    void lock(zlockstate state) override;
    void unlock() override;
    /// Calls the virtual unlock().
    void unlock(int update) override;

    int haveLock(zlockstate state) const override;

    /// Whether the calling thread was the last one to take protect or write: it stays true after
    /// its unlock, until another thread takes one of them.
    int ownWriteLock() const override;

    void readLock() override;
    void writeLock() override;
    void readWithIntentToWriteLock() override;
    void promoteReadToWriteLock() override;

    /// How many read locks are held.
    virtual int getReaderCount();

private:
    friend class ZAbstractProcessReadWriteLock;  // asks mayUnlock before it touches more
    struct Steps;                                // what each request makes of word_
    class Waiting;                               // counts a thread among waiters_

    int mayUnlock() const;
    template <typename Step>
    void run(Step step);
    template <typename Step>
    void runApart(Step step);
    template <typename Step>
    void runGuarded(Step step);
    bool exchange(unsigned int from, unsigned int to);

    std::atomic<unsigned int> word_;  // state, readers, and whether threads wait
    std::atomic<pthread_t> holder_;   // who holds protect or write now, or -1
    std::atomic<pthread_t> owner_;    // who took protect or write last, or -1
    int waiters_;                     // guarded by the condition's lock
    const int guarded_;               // every request takes the condition's lock
    ZCondition condition_;
};

/// Gives a lock up at the end of a scope: one lock must be held then, taken before or through this
/// object.
///
/// Failure: the destructor raises what unlock() raises, 6 if nothing is held; if an exception that
///   began after the construction is on its way, it reports instead. Cancellation isn't visible to
///   it: a thread that is cancelled must still hold the lock there, or the process ends.
/// Threads: as the lock. The lock must outlive it.
class ZEXPORT ZStackReadWriteLock : public ZObject {
public:
    /// Calls setUpdate(update) and takes no lock. A process lock sets its update flag anew at each
    /// grant, so `update` counts only for one that is held already.
    ZStackReadWriteLock(ZAbstractReadWriteLock& lock, int update);
    ~ZStackReadWriteLock() noexcept(false) override;

    ZStackReadWriteLock(const ZStackReadWriteLock&) = delete;
    ZStackReadWriteLock& operator=(const ZStackReadWriteLock&) = delete;

    /// Each of these calls that of the lock.
    virtual void readLock();
    virtual void writeLock();
    virtual void readWithIntentToWriteLock();
    virtual void promoteReadToWriteLock();
    virtual void unlock(int update);
    virtual int getUpdate();
    virtual void setUpdate(int update);

    /// The lock of this scope.
    virtual ZAbstractReadWriteLock& getReadWriteLock();

private:
    ZAbstractReadWriteLock& lock_;
    const int exceptions_;  // how many were on their way at construction
};

#endif
