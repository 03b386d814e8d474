// ZThreadPool.cpp: counting threads, and the set of the idle ones.
//
// Invariants, while mutex_ is free
// (1) activeCount_ is the number of threads that start() has made and that have not told their end;
//     each has its pool_ set. It is counted before it exists, so that its end can't come too early.
// (2) idleThreads_ holds idleCount_ threads, all alive: one that is asked to end, works or ends is
//     taken out at once.
// (3) maxIdle_ is 0 while closing_ isn't, and idleThreads_ is empty then; else it is idleLimit_.
//
// Order of locks: the lock that a sleeper works under, then mutex_, then the start lock of a
// thread. So no thread is woken or stopped with mutex_ held.
#include "ZThreadPool.h"

#include <cxxabi.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "ZException.h"
#include "zassert.h"
#include "zraise.h"
#include "zmemory.h"
#include "zreport.h"
#include "zscope.h"

namespace {

/// Holds the pool's mutex for a scope.
class MutexGuard {
public:
    explicit MutexGuard(pthread_mutex_t* mutex) : mutex_(mutex), held_(false) { lock(); }

    /// The way out after a failure or a cancellation: a second failure is reported, and one more
    /// try made, since everybody else would wait for ever.
    ~MutexGuard() {
        const int rc = tryUnlock();
        if (rc != 0) {
            zreportCode(6, rc);
            tryUnlock();
        }
    }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

    /// Raises 5.
    void lock() {
        zcheckThread(5, pthread_mutex_lock(mutex_));
        held_ = true;
    }

    /// Raises 6: the mutex is still held then, and the destructor tries again.
    void unlock() { zcheckThread(6, tryUnlock()); }

    /// The same with the return code as result; 0 if the mutex isn't held.
    int tryUnlock() {
        const int rc = held_ ? pthread_mutex_unlock(mutex_) : 0;
        held_ = held_ && rc != 0;
        return rc;
    }

    /// Sleeps on `condition`. A failure is reported; a moment passes then with the mutex free, for
    /// what is waited for needs it, and the caller will ask again at once.
    void wait(pthread_cond_t* condition) {
        const int rc = pthread_cond_wait(condition, mutex_);
        if (rc == 0)
            return;
        zreportCode(9, rc);
        unlock();
        usleep(10000);
        lock();
    }

private:
    pthread_mutex_t* const mutex_;
    bool held_;
};

/// Gives the pool's mutex up for a scope.
class MutexGap {
public:
    /// Once more after a failure: the idle threads are out of the pool, and only this caller can
    /// stop them.
    explicit MutexGap(MutexGuard& guard) : guard_(guard) {
        const int rc = guard_.tryUnlock();
        if (rc == 0)
            return;
        zreportCode(6, rc);
        guard_.unlock();
    }
    ~MutexGap() noexcept(false) { guard_.lock(); }
    MutexGap(const MutexGap&) = delete;
    MutexGap& operator=(const MutexGap&) = delete;

private:
    MutexGuard& guard_;
};

}  // namespace

/// A place in the pool for a thread that is being started: given back unless a thread came of it.
class ZThreadPool::Booking {
public:
    Booking(ZThreadPool& pool, ZThread& thread) : pool_(pool), thread_(thread), failed_(true) {
        zassert(pool_.activeCount_ < pool_.maxThreads_);
        ++pool_.activeCount_;
        thread_.pool_ = &pool_;
        thread_.promised_ = 0;
    }
    ~Booking() {
        // A start that failed after it had made its thread: that will tell its end.
        if (!failed_ || thread_.isRunning())
            return;
        zassert(pool_.activeCount_ > 0);  // (1)
        thread_.pool_ = nullptr;
        --pool_.activeCount_;
        pthread_cond_signal(pool_.cond_);
    }
    void succeed() { failed_ = false; }

private:
    ZThreadPool& pool_;
    ZThread& thread_;
    bool failed_;
};

/// The idle threads that waitForExit() has taken out, kept alive until each was stopped.
class ZThreadPool::StopList {
public:
    /// Takes them out of the pool, or raises and leaves all as it was.
    explicit StopList(ZThreadPool& pool) : threads_(10, 0) {
        pool.idleThreads_.list(threads_);
        pool.idleThreads_.removeAll();
        pool.idleCount_ = 0;
        for (unsigned int i = 0; i < threads_.size(); ++i)
            get(i).hold();
    }
    int isEmpty() const { return threads_.isEmpty(); }

    /// Stops those from `index` on, all of them however one call ends.
    __attribute__((no_sanitize("null"))) void stopFrom(unsigned int index) {
        for (; index < threads_.size(); ++index) {
            try {
                stop(get(index));
            } catch (abi::__forced_unwind&) {
                stopFrom(index + 1);
                throw;
            }
        }
    }

private:
    ZThread& get(unsigned int index) const { return static_cast<ZThread&>(*threads_.get(index)); }

    static void stop(ZThread& thread) {
        const ZAtEnd release([&] { thread.release(); });
        const auto stopOnce = [&] { thread.waitForExit(); };
        // Once more after a failure: a thread that isn't stopped would be waited for for ever.
        if (!zrunReported(stopOnce))
            zrunReported(stopOnce);
    }

    ZArrayList threads_;
};

static pthread_cond_t* makeCondition() {
    auto condition = zmake<pthread_cond_t>();
    zcheckThread(7, pthread_cond_init(condition.get(), nullptr));
    return condition.release();
}

static void destroyCondition(pthread_cond_t* condition) {
    const int rc = pthread_cond_destroy(condition);
    ZUnmake()(condition);
    if (rc != 0)
        zreportCode(8, rc);
}

static void destroyMutex(pthread_mutex_t* mutex) {
    const int rc = pthread_mutex_destroy(mutex);
    ZUnmake()(mutex);
    if (rc != 0)
        zreportCode(4, rc);
}

ZThreadPool::ZThreadPool(unsigned int a, unsigned int b)
    : idleThreads_(std::max(a, b), 0),
      activeCount_(0),
      mutex_(nullptr),
      cond_(nullptr),
      exitCond_(nullptr),
      maxThreads_(std::max(a, b)),
      maxIdle_(std::min(a, b)),
      idleLimit_(std::min(a, b)),
      idleCount_(0),
      closing_(0) {
    auto mutex = zmake<pthread_mutex_t>();
    zcheckThread(3, pthread_mutex_init(mutex.get(), nullptr));
    std::unique_ptr<pthread_mutex_t, void (*)(pthread_mutex_t*)> made(mutex.release(),
                                                                      destroyMutex);
    std::unique_ptr<pthread_cond_t, void (*)(pthread_cond_t*)> death(makeCondition(),
                                                                     destroyCondition);
    exitCond_ = makeCondition();
    cond_ = death.release();
    mutex_ = made.release();
}

ZThreadPool::~ZThreadPool() noexcept(false) {
    destroyCondition(cond_);
    destroyCondition(exitCond_);
    destroyMutex(mutex_);
}

ZObject* ZThreadPool::clone() const { zraise(ZNotClonableException()); }

ZThread* ZThreadPool::createThread() { return nullptr; }

void ZThreadPool::start(ZThread& thread) {
    if (thread.runsCaller()) {  // would wait for itself
        zrunReported([] { zcheckThread(17, EDEADLK); });
        return;
    }
    const ZThread::Hold hold(thread);
    thread.awaitEnd();  // without the mutex, which the earlier thread needs at its end

    MutexGuard guard(mutex_);
    while (activeCount_ >= maxThreads_)
        guard.wait(cond_);
    Booking booking(*this, thread);
    if (!zrunReported([&] { thread.start(); }))
        return;
    booking.succeed();
    guard.unlock();
}

ZThread* ZThreadPool::getAvailableIdleThread(ZThread*& thread) {
    thread = nullptr;
    if (maxIdle_ != 0) {
        MutexGuard guard(mutex_);
        ZArrayList idle(10, 0);
        idleThreads_.list(idle);
        thread = static_cast<ZThread*>(idle.get(0));
        if (thread != nullptr) {
            idleThreads_.removeEntry(thread);
            --idleCount_;
            thread->promised_ = 1;
        }
        const int rc = guard.tryUnlock();
        if (rc != 0 && thread != nullptr) {  // back, since the caller gets an exception
            thread->promised_ = 0;
            ++idleCount_;
            idleThreads_.putEntry(thread);
            thread = nullptr;
        }
        zcheckThread(6, rc);
    }
    if (thread == nullptr)
        thread = createThread();
    return thread;
}

void ZThreadPool::waitForExit() {
    MutexGuard guard(mutex_);
    {
        ++closing_;
        maxIdle_ = 0;
        const ZAtEnd closed([this] {
            zassert(closing_ > 0 && maxIdle_ == 0);  // (3)
            if (--closing_ == 0)
                maxIdle_ = idleLimit_;
        });
        StopList idle(*this);
        if (!idle.isEmpty()) {
            const MutexGap gap(guard);
            idle.stopFrom(0);
        }
        while (activeCount_ != 0)
            guard.wait(exitCond_);
    }
    guard.unlock();
}

void ZThreadPool::threadDoneNotification(ZThread& thread, int& keep) {
    keep = 0;
    if (maxIdle_ == 0)
        return;
    MutexGuard guard(mutex_);
    const ZObject* const present = idleThreads_.getEntry(&thread);
    const bool joins = present == nullptr && idleCount_ < maxIdle_;
    if (joins) {
        idleThreads_.putEntry(&thread);
        ++idleCount_;
        thread.promised_ = 0;
    }
    zassert(idleCount_ == idleThreads_.size());  // (2)
    keep = joins || present == &thread;
    const int rc = guard.tryUnlock();
    if (rc != 0) {  // the exception will end the thread
        forgetIdle(thread);
        keep = 0;
    }
    zcheckThread(6, rc);
}

void ZThreadPool::threadDeathNotification(ZThread& thread) {
    bool heard;
    noteDeath(thread, heard);
}

// `heard` tells whether the end was counted, even if something was raised behind that. `thread` may
// be gone then: its owner may be waiting for this.
void ZThreadPool::noteDeath(ZThread& thread, bool& heard) {
    heard = false;
    MutexGuard guard(mutex_);
    forgetIdle(thread);
    if (activeCount_ > 0)
        --activeCount_;
    if (thread.pool_ == this)
        thread.pool_ = nullptr;
    thread.noteEnd();
    heard = true;

    int rc = pthread_cond_signal(cond_);
    if (rc != 0)
        pthread_cond_broadcast(cond_);  // the place is free, and somebody may wait for it
    if (activeCount_ == 0) {
        const int told = pthread_cond_broadcast(exitCond_);
        rc = rc != 0 ? rc : told;
    }
    zcheckThread(10, rc);
    guard.unlock();
}

void ZThreadPool::noteNotIdle(ZThread& thread) {
    MutexGuard guard(mutex_);
    forgetIdle(thread);
    guard.unlock();
}

// A thread that doesn't sleep, or won't for long, must not be handed out.
void ZThreadPool::forgetIdle(ZThread& thread) {
    zassert(idleCount_ == idleThreads_.size());  // (2)
    if (idleCount_ == 0 || idleThreads_.getEntry(&thread) != &thread)
        return;
    idleThreads_.removeEntry(&thread);
    --idleCount_;
}
