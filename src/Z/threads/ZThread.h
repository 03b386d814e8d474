// ZThread.h: threads as objects, and objects that belong to a thread.
//
//   ZThread           one thread, and what it runs
//     ZSleeperThread  sleeps until it is woken or a period has passed, works, sleeps again
//   ZThreadPool       limits and reuses them; in ZThreadPool.h, which this header brings in
#ifndef Z_ZTHREAD_H
#define Z_ZTHREAD_H

#include <pthread.h>

#include <atomic>

#include "ZCondition.h"
#include "ZObject.h"

class ZThreadPool;

/// A thread and what it runs: derive, write run(), make an object, start() it.
///
///   life of the object           start()            waitForExit()                the thread's end
///   new                          running            raises 20 (ESRCH)            -
///   running, joinable            a second thread    joined, once run() is over   ended
///   ended, joinable              running            joined                       -
///   joined                       running            raises 20 (ESRCH)            -
///   running, detached            a second thread    returns at once              ended
///   ended, detached              running            returns at once              -
///   running, self-deleting       forbidden          returns at once              object deleted
///   made from a thread's id      forbidden          joins that thread            -
///
/// Two threads of one object share all that it holds; a joinable thread should be joined before
/// the next start, or nobody ever joins it. A sleeper and a pool wait for the end of the earlier
/// thread instead.
///
/// The end of a thread, however it comes (run() returns or raises, pthread_exit, cancellation):
/// exit(), then the pool hears of it, then a self-deleting object is deleted. Each of these happens
/// whatever the one before raised; that is reported. A detached thread doesn't touch its object
/// after exit() unless a pool or the deletion needs it, so who learns of the end there may destroy
/// the object. The destructors of the object itself and of those under thread keys aren't
/// cancelled.
///
/// Ownership: the object doesn't own the thread: its destructor joins, stops and cancels nothing.
///   Self-deleting (detached and autoDelete) objects come from new and belong to their thread from
///   start() on; a start() that raises leaves them with the caller.
/// Failure: ZThreadException, with the system's return code.
/// Threads: start() and waitForExit() of one object are called one after the other; one joiner.
class ZEXPORT ZThread : public ZObject {
public:
    /// Stands for a thread that exists already.
    explicit ZThread(pthread_t id);

    /// A thread yet to be started. Not 0: `detached` has nobody wait for its end, and `autoDelete`
    /// then deletes the object there. A joinable thread never deletes its object.
    ZThread(int detached, int autoDelete);
    ~ZThread() noexcept(false) override;

    ZThread(const ZThread&) = delete;
    ZThread& operator=(const ZThread&) = delete;

    /// The thread's id; 0 before the first start.
    pthread_t getPThreadID() const;

    /// The id, its upper half folded in where ids are wider.
    unsigned int hash() const override;

    /// 0, -1 or 1: the order of the two ids as unsigned numbers. Requires: `other` is a ZThread.
    int compare(const ZObject& other) const override;

    /// Raises ZNotClonableException (14).
    ZObject* clone() const override;

    /// Starts a thread that calls run(). Raises ZThreadException: 15, 16 (its attributes) or 17 (no
    /// thread was made). Attributes that can't be destroyed are reported (18).
    virtual void start();

    /// Waits until the thread has ended; at once if it is detached. Raises ZThreadException (20),
    /// with ESRCH if there is nothing to join. After another failure, and when the caller is
    /// cancelled, the thread can still be joined.
    virtual void waitForExit();

    /// What the thread does. An exception is reported, one from elsewhere as number 19, and ends
    /// the thread; the process goes on.
    virtual void run() = 0;

    /// Called by the ending thread. Here: nothing. May call pthread_exit only if run() returned or
    /// raised.
    virtual void exit();

    /// The top of every thread: run(), the report of what it raises, cancel_routine(). Null.
    static void* start_routine(ZThread* thread);

    /// The end of every thread, as told above. `thread` may be gone afterwards.
    static void cancel_routine(ZThread* thread);

    /// Objects that belong to a thread: each thread has one under each key, or null, and at its end
    /// the object is deleted. Raises ZThreadException (29).
    static void createThreadKey(unsigned int& key);

    /// The calling thread's object, or null.
    static ZObject* getThreadObject(unsigned int& key);

    /// Makes `object`, or null, the calling thread's; it belongs to the thread from then on. What
    /// was there before isn't deleted. Raises ZThreadException (30); `object` is still the
    /// caller's.
    static void setThreadObject(unsigned int& key, ZObject* object);

    /// Deletes `object`, unless it is null; what its destructor raises is reported.
    static void key_delete_routine(ZObject* object);

private:
    friend class ZSleeperThread;
    friend class ZThreadPool;

    // Keeps a self-deleting object alive for a scope: the last one to leave deletes it.
    class Hold {
    public:
        explicit Hold(ZThread& thread) : thread_(thread) { thread_.hold(); }
        ~Hold() { thread_.release(); }
        Hold(const Hold&) = delete;
        Hold& operator=(const Hold&) = delete;

    private:
        ZThread& thread_;
    };

    struct Life;

    int deletesItself() const { return detached_ && autoDelete_; }
    void hold();
    void release();
    void deleteWhenReleased();
    void deleteNow();
    int isRunning();
    int runsCaller();
    void awaitEnd();
    void noteEnd();
    void leaveIdle();

    Life* life_;  // shared with the running threads, which may outlive the object
    const int detached_;
    const int autoDelete_;

    // The pool that a running thread belongs to, else null. Set before the thread can run and
    // cleared at its end, under the pool's mutex; read without it by the thread itself.
    std::atomic<ZThreadPool*> pool_;

    std::atomic<int> joinable_;        // 1: there is a thread that nobody has joined
    std::atomic<int> promised_;        // 1: handed out by a pool, and not woken since
    std::atomic<unsigned int> holds_;  // 2 for each Hold, 1 once the thread is done with the object
};

/// A worker that sleeps until it is woken or a period has passed, does its work, and sleeps again.
/// Derive and write work().
///
///   state               start()                  wakeUp()           waitForExit()
///   new, ended          asleep                   one work() after   raises 20 (ESRCH) if joinable
///                                                the next start
///   asleep              waits for this run's end at work            ends without work()
///   at work             waits for this run's end waits, then one    waits for the end of work(),
///                                                more work()        then ends without another
///   asked to end        waits, then asleep       one work() after   waits for the end
///                                                the next start
///
/// wakeUp() calls that come before the thread has begun to work are served by one work(). From
/// inside its own work() a sleeper can't wake itself: that has no effect.
///
/// work() runs with the lock of the sleeping condition held; sleepers that share a lock work one at
/// a time. If work() gives the lock up in a wait of its own, wake-ups that arrive meanwhile count.
///
/// A stop request is for the run that was started last: reset() and a later start() don't take it
/// back, so it isn't lost on a detached thread that hasn't seen it yet.
///
/// Failure: an exception out of work() is reported and ends the thread. Whatever ends it, the lock
///   is free afterwards, and the object can be started again unless it deletes itself.
/// Threads: wakeUp() and waitForExit() from any thread as long as the object lives. start() only
///   once the thread was asked to end, or ended by itself; not under a lock that ending needs.
/// Cost: a sleeping thread costs no processor time.
class ZEXPORT ZSleeperThread : public ZThread {
public:
    /// Joinable and without a period unless told otherwise. `timeout` is the period in seconds; 0
    /// is none. A period that begins after a start, a wake-up or long work
    /// may end up to a second early. Raise what ZCondition() raises.
    ZSleeperThread();
    ZSleeperThread(int detached, int autoDelete);
    explicit ZSleeperThread(unsigned long timeout);
    ZSleeperThread(int detached, int autoDelete, unsigned long timeout);

    /// Sleeps on `lock`, which stays its owner's and outlives the thread.
    explicit ZSleeperThread(ZLock& lock);
    ~ZSleeperThread() noexcept(false) override;

    /// Waits for the end of an earlier run, exit() included, then until the new thread is up.
    /// Raises as ZThread::start(), 17 with EDEADLK if called by the object's own thread, and what
    /// the handshake raises (5, 9): in that last case, and when the caller is cancelled after the
    /// earlier run's end, the thread may be running.
    void start() override;

    /// Asks the thread to end, and waits for the end unless it is detached. A self-deleting object
    /// must not be used afterwards. Raises what the lock and the condition raise, and 20.
    void waitForExit() override;

    /// Sleeping and working, until the end is asked for.
    void run() override;

    /// The piece of work.
    virtual void work() = 0;

    /// Has the thread call work() once. Waits while the lock is held, as during work(). Raises what
    /// the lock and the condition raise; after a failed signal (10) the wake-up waits for the next.
    void wakeUp();

    /// Makes an ended thread ready for the next start. Each run has flags of its own, so there is
    /// nothing left to do: a run that was asked to end still ends.
    void reset();

private:
    enum Doing { somethingElse, sleeping, working };

    void noteStarted(unsigned int run);
    void sleep();
    void workOnce();

    // Runs are numbered from 1 by start(). exit_ and started_ hold such numbers, not truth values:
    // so no request reaches the wrong run.
    std::atomic<unsigned int> run_;  // the last that was started; written by start() alone
    unsigned int exit_;              // the run that is to end; guarded by the sleeping lock
    int wake_;                       // there is work to do; guarded by the sleeping lock
    int doing_;                      // what the thread does; guarded by the sleeping lock
    unsigned int started_;           // the run that is up; guarded by startCondition_'s lock
    const unsigned long timeout_;
    ZCondition startCondition_;  // the starter waits here for the thread to be up
    ZCondition sleepCondition_;  // the thread sleeps here
};

#include "ZThreadPool.h"  // one header for the family; each can also be included first

#endif
