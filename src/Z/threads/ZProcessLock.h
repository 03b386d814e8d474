// ZProcessLock.h: read/write locks among processes, as far as they don't depend on the medium.
//
//   ZAbstractReadWriteLock
//     ZAbstractProcessReadWriteLock    name, lock among threads, sequence number
//       ZStubProcessReadWriteLock      with no medium behind it
//   ZObservedParm
//     ZSequenceUpdate                  what observers of a process lock are told
#ifndef Z_ZPROCESSLOCK_H
#define Z_ZPROCESSLOCK_H

#include <atomic>

#include "ZLCString.h"
#include "ZReadWriteLock.h"

/// Another process has changed what is locked: the sequence number that this process sees now, and
/// the one that it saw last.
class ZEXPORT ZSequenceUpdate : public ZObservedParm {
public:
    /// Both are ZAbstractProcessReadWriteLock::invalidSequence.
    ZSequenceUpdate();
    ZSequenceUpdate(unsigned long sequence, unsigned long lastSequence);

    /// The difference of the two sequence numbers, or else that of the last ones, as 32 bits with a
    /// sign: a number that has wrapped comes after those before it. Requires: `other` is a
    /// ZSequenceUpdate.
    int compare(const ZObject& other) const override;
    ZObject* clone() const override;

    /// The number of the last change, and the one that this process had caught up with.
    virtual unsigned long getSequence() const;
    virtual unsigned long getLastSequence() const;

private:
    unsigned long sequence_;
    unsigned long lastSequence_;
};

/// A read/write lock that processes share. Threads of one process go through a ZReadWriteLock
/// first; subclasses add what keeps processes apart. A number of 32 bits counts the changes of what
/// is locked, so that a process finds out at a grant whether another one has changed it.
///
///   state    readLock  writeLock, readWith...  unlock
///   unset    read      write                   raises 6
///   read     read      waits                   unset, or read while other readers are in
///   write    waits     waits                   unset; with the update flag: the number moves
///
///   A thread that holds write and asks for anything but unlock: raises 5. Protect is held as
///   write, so promoting does nothing.
///
/// The update flag tells whether a release counts as a change. A grant of write sets it, any other
/// grant and every release clear it: who wrote nothing calls setUpdate(0) before unlock(), or
/// unlock(0).
///
/// Ownership: the lock owns its name. A copy is described at the subclasses.
/// Failure: what ZReadWriteLock raises passes through. unlock() raises ZUnlockResourceException (6,
///   return code 0) before anything else if no thread holds the lock, or another one holds it to
///   write. The destructor raises ZInvalidResourceStateException (32) with the state's name if the
///   lock isn't unset; if an exception that began after the construction is on its way, it reports
///   instead. Cancellation isn't visible to it: a thread that is cancelled must have given up a
///   lock that goes with its scopes, or the process ends. A release isn't cancelled half-way.
/// Threads: any thread, any call, but for construction, assignment, destruction and setLockName.
///   Numbers and update flag belong to whoever holds the lock; others read them a moment late.
class ZEXPORT ZAbstractProcessReadWriteLock : public ZAbstractReadWriteLock {
public:
    /// The number that is never reached: nothing was seen yet.
    static const unsigned long invalidSequence = 0xFFFFFFFF;

    /// With a name made up: six characters that name no file in the current folder, or else the
    /// process's number and "_".
    ZAbstractProcessReadWriteLock();
    explicit ZAbstractProcessReadWriteLock(const char* name);

    /// Observers, name, numbers, state and update flag are copied; the lock among threads is free.
    ZAbstractProcessReadWriteLock(const ZAbstractProcessReadWriteLock& other);

    /// Takes over name, numbers and update flag; the state, the lock among threads and the
    /// observers stay.
    ZAbstractProcessReadWriteLock& operator=(const ZAbstractProcessReadWriteLock& other);

    ~ZAbstractProcessReadWriteLock() noexcept(false) override;

    /// Those of the names. Requires: `other` is a process lock.
    unsigned int hash() const override;
    int compare(const ZObject& other) const override;
    /// Raises ZAbstractNotImplementedException (31).
    ZObject* clone() const override;

    /// Calls writeLock().
    void lock() override;
    /// Takes or gives up the lock among threads, and sets the update flag.
    void lock(zlockstate state) override;
    int isCurrent() const override;
    void unlock() override;
    /// Calls sync(update), then lock(unset).
    void unlock(int update) override;

    /// Of the state towards other processes.
    int haveLock(zlockstate state) const override;
    int ownWriteLock() const override;

    int getUpdate() const override;
    void setUpdate(int update) override;

    // Each calls lock(zlockstate) with its state; promoting does nothing.
    void readLock() override;
    void writeLock() override;
    void readWithIntentToWriteLock() override;
    void promoteReadToWriteLock() override;

    /// The state towards other processes.
    virtual zlockstate getLockState() const;

    /// The name by which processes find the lock; the lock's own.
    virtual const ZLCString& getLockName() const;

    /// Takes the name, after an unlock() if the lock isn't unset. The same name changes nothing.
    virtual void setLockName(ZLCString& name);

    /// How many threads of this process hold the lock to read.
    virtual int getReaderCount();

    /// The number of the last change, as this process has read or made it.
    virtual unsigned long getSequence() const;

    /// Counts a change: the new number. 0xFFFFFFFE is followed by 0.
    virtual unsigned long incSequence();

    /// The number that this process has caught up with. Without argument: now it has caught up.
    virtual unsigned long getLastSequence() const;
    virtual void setLastSequence(unsigned long sequence);
    virtual void setLastSequence();

    /// What a release does for the numbers: counts a change if the lock is held to write and
    /// `update` isn't 0, and has caught up if the lock is held at all.
    virtual void sync(int update);

    /// Tells the observers a ZSequenceUpdate. The lock among threads is made one to write first,
    /// unless the calling thread was the last to take it so; called by a grant, that shuts all
    /// other threads of this process out. Nothing happens if this process has caught up, or without
    /// observers.
    void notifyLockObservers();

protected:
    /// Raises ZUnlockResourceException (6) if the calling thread has nothing to give up.
    void checkReleasable() const;

    // Atomic since other threads ask for them while a holder changes them.
    std::atomic<zlockstate> lockState_;
    ZLCString lockName_;
    std::atomic<unsigned long> sequence_;
    std::atomic<unsigned long> lastSequence_;
    ZReadWriteLock threadLock_;
    std::atomic<int> update_;

private:
    const int exceptions_;  // how many were on their way at construction
};

/// A process lock with no medium behind it: threads are kept apart, processes aren't. Its state is
/// the one asked for last, so that protect shows as protect, and a release doesn't count then.
class ZEXPORT ZStubProcessReadWriteLock : public ZAbstractProcessReadWriteLock {
public:
    ZStubProcessReadWriteLock();
    /// By this name, which leads nowhere.
    explicit ZStubProcessReadWriteLock(const char* name);

    /// A new lock with the name of `other`.
    ZStubProcessReadWriteLock(const ZStubProcessReadWriteLock& other);
    /// As that of the base, and takes the state.
    ZStubProcessReadWriteLock& operator=(const ZStubProcessReadWriteLock& other);

    ZObject* clone() const override;

    void lock() override;
    void lock(zlockstate state) override;
};

#endif
