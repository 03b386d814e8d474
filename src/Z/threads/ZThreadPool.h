// ZThreadPool.h: a limit on how many threads run at once, and idle ones for reuse.
#ifndef Z_ZTHREADPOOL_H
#define Z_ZTHREADPOOL_H

#include <pthread.h>

#include <atomic>

#include "ZMap.h"
#include "ZThread.h"

/// Limits how many threads run at once and keeps some finished sleepers for reuse. It has no queue
/// of work: a caller takes an idle thread, or makes one, and gives it its work.
///
///   ZThread* thread;
///   pool.getAvailableIdleThread(thread);   // an idle one: wakeUp()
///   ...                                    // none: make one, pool.start(*it), then wakeUp()
///
///   step in a thread's life             active   idle
///   start() succeeds                    + 1
///   work() is over, there is room                + 1   sleeps until it is taken or stopped
///   getAvailableIdleThread() takes it            - 1   stays, whatever its period does, until it
///                                                      has been woken and has worked
///   its period or anybody else wakes it          - 1   at work
///   it is asked to end                           - 1   ends
///   work() is over, no room                            ends
///   the thread ends                     - 1      - 1 if it was idle
///
/// Idle threads count as active: start() waits as long as there are as many threads as allowed,
/// idle or not, until one ends.
///
/// Ownership: none of the threads; they are usually detached and self-deleting. A thread in the
///   pool must not be destroyed before its end; waitForExit() says when all have ended. The
///   destructor waits for nothing: call waitForExit() first.
/// Failure: ZThreadException with the system's return code; whatever is raised, the mutex is free
///   and no thread is lost. Cancellation of a waiting caller leaves the pool as it was.
/// Threads: any thread, any call, except that the destructor must be the last one. A thread must
///   not wait for its own end: no start() of itself, no waitForExit() from inside work().
/// Cost: taking an idle thread is linear in their number.
class ZEXPORT ZThreadPool : public ZObject {
public:
    /// At most the larger number of threads at once, at most the smaller number idle; with 0 every
    /// thread ends after its work. Raises ZThreadException (3, 7).
    ZThreadPool(unsigned int a, unsigned int b);

    /// What can't be destroyed is reported (8, 4).
    ~ZThreadPool() noexcept(false) override;

    ZThreadPool(const ZThreadPool&) = delete;
    ZThreadPool& operator=(const ZThreadPool&) = delete;

    /// Raises ZNotClonableException (14).
    ZObject* clone() const override;

    /// Called when no thread is idle; without the mutex. Here: null. A derived pool makes a new
    /// thread that isn't started.
    virtual ZThread* createThread();

    /// Starts `thread`, once the thread that the object ran before has ended and there is room.
    /// Starts are one after the other: a sleeper is up before the next. A failure of the thread's
    /// own start() is only reported: the pool is as before, and the object still the caller's. A
    /// failed wait is reported (9), and the waiting goes on. Raises 5, 6. Both waits can be
    /// cancelled.
    void start(ZThread& thread);

    /// The idle thread that comes first in the order of the map of threads, else what
    /// createThread() gives; both as result and in `thread`. It isn't idle any more. Raises 5, 6,
    /// and what memory raises: then no thread was taken.
    ZThread* getAvailableIdleThread(ZThread*& thread);

    /// Stops the idle threads, has all others end when their work is over, and waits until none is
    /// left; a thread that was started or taken but never woken has to be woken. While it waits
    /// nothing stays idle; the limit comes back when the last of overlapping calls is done, and the
    /// pool can be used again. What stopping a thread raises is reported. Raises 5, 6, and what
    /// memory raises.
    void waitForExit();

    /// By a sleeper after each work(): `keep` becomes 1 if it stays as an idle thread, 0 if it is
    /// to end. One that is idle already stays and isn't counted again. A sleeper that was asked to
    /// end, or that somebody has taken or woken by then, doesn't ask. Raises 5, 6, and what memory
    /// raises: the thread isn't kept then.
    void threadDoneNotification(ZThread& thread, int& keep);

    /// By a thread that ends. Raises 5, 6, 10.
    void threadDeathNotification(ZThread& thread);

private:
    friend class ZThread;

    class Booking;
    class StopList;

    void noteNotIdle(ZThread& thread);
    void noteDeath(ZThread& thread, bool& heard);
    void forgetIdle(ZThread& thread);

    ZHashMap idleThreads_;      // by the thread's hash and compare; doesn't own; guarded by mutex_
    unsigned int activeCount_;  // guarded by mutex_
    pthread_mutex_t* mutex_;    // owned
    pthread_cond_t* cond_;      // owned; signalled at each death, for start()
    pthread_cond_t* exitCond_;  // owned; told when no thread is left. waitForExit() waits here, and
                                // not on cond_, where it would take a signal away from start()
    const unsigned int maxThreads_;

    // Written under mutex_, 0 while somebody waits in waitForExit(). Read without it to see that
    // nothing is ever idle; what is done with another value is decided under mutex_.
    std::atomic<unsigned int> maxIdle_;

    unsigned int idleLimit_;  // what maxIdle_ is when nobody waits
    unsigned int idleCount_;  // entries of idleThreads_; guarded by mutex_
    unsigned int closing_;    // callers in waitForExit(); guarded by mutex_
};

#endif
