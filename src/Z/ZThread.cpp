// ZThread.cpp: threads, their end, and sleepers.
//
// The life of an object against that of its threads
// (1) running_ counts the threads between start() and noteEnd(). noteEnd() is the last that a thread
//     does with an object that outlives it: before exit(), for who learns from exit() may destroy
//     the object; or, in a pool, under the pool's mutex, which whoever waits for the pool needs.
// (2) A self-deleting object is deleted by the last of its thread and the Holds on it: start() of a
//     sleeper and the pool are still inside the object when its thread may have ended.
// (3) pool_ is set before the thread is made, and cleared when the pool has counted the end.
#include "ZThread.h"

#include <cxxabi.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include "ZException.h"
#include "zcheck.h"
#include "zinternal.h"
#include "zmemory.h"
#include "zreport.h"

// Runs `step`, then `rest` on whatever way `step` was left.
template <typename Step, typename Rest>
__attribute__((no_sanitize("null"))) static void runThen(Step step, Rest rest) {
    try {
        zrunReported(__FILE__, __LINE__, step);
    } catch (abi::__forced_unwind&) {
        rest();
        throw;
    }
    rest();
}

extern "C" {
static void* threadMain(void* thread) {
    return ZThread::start_routine(static_cast<ZThread*>(thread));
}
static void deleteThreadObject(void* object) {
    ZThread::key_delete_routine(static_cast<ZObject*>(object));
}
}

namespace {

/// The attributes of a thread that is to be made.
class Attributes {
public:
    Attributes() { Z_CHECK_THREAD(15, pthread_attr_init(&attributes_)); }
    ~Attributes() {
        const int rc = pthread_attr_destroy(&attributes_);
        if (rc != 0)
            zreportCode(__FILE__, __LINE__, 18, rc);
    }
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;

    pthread_attr_t* get() { return &attributes_; }

private:
    pthread_attr_t attributes_;
};

}  // namespace

ZThread::ZThread(pthread_t id) : ZThread(0, 0) {
    *threadId_ = id;
    joinable_ = 1;
}

ZThread::ZThread(int detached, int autoDelete)
    : threadId_(zmake<pthread_t>(pthread_t()).release()),
      detached_(detached),
      autoDelete_(autoDelete),
      pool_(nullptr),
      joinable_(0),
      running_(0),
      holds_(0) {}

ZThread::~ZThread() noexcept(false) { ZUnmake()(threadId_); }

pthread_t ZThread::getPThreadID() const { return *threadId_; }

unsigned int ZThread::hash() const {
    return zaddressHash(reinterpret_cast<const void*>(*threadId_));
}

int ZThread::compare(const ZObject& other) const {
    const pthread_t left = *threadId_, right = static_cast<const ZThread&>(other).getPThreadID();
    return left == right ? 0 : left < right ? -1 : 1;
}

ZObject* ZThread::clone() const { ZNotClonableException().throwException(__FILE__, __LINE__); }

void ZThread::start() {
    Attributes attributes;
    Z_CHECK_THREAD(
        16, pthread_attr_setdetachstate(
                attributes.get(), detached_ ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE));

    // All that the object has to know stands before there is a thread: a self-deleting one may be
    // gone when pthread_create returns.
    const pthread_t earlier = *threadId_;
    const int earlierUnjoined = joinable_.exchange(detached_ ? 0 : 1);
    running_.fetch_add(1);
    const int rc = pthread_create(threadId_, attributes.get(), threadMain, this);
    if (rc != 0) {
        *threadId_ = earlier;
        joinable_ = earlierUnjoined;
        noteEnd();
        Z_CHECK_THREAD(17, rc);
    }
    if (earlierUnjoined)
        pthread_detach(earlier);  // nobody knows its id any more
}

void ZThread::waitForExit() {
    /// The right to join, given back unless the thread was joined.
    class JoinRight {
    public:
        explicit JoinRight(std::atomic<int>& joinable)
            : joinable_(joinable), held_(joinable.exchange(0)) {}
        ~JoinRight() {
            if (held_)
                joinable_ = 1;
        }
        int held() const { return held_; }
        void use() { held_ = 0; }

    private:
        std::atomic<int>& joinable_;
        int held_;
    };

    if (detached_)
        return;
    JoinRight right(joinable_);
    Z_CHECK_THREAD(20, right.held() ? pthread_join(*threadId_, nullptr) : ESRCH);
    right.use();
}

void ZThread::exit() {}

void* ZThread::start_routine(ZThread* thread) {
    runThen([=] { thread->run(); }, [=] { cancel_routine(thread); });
    return nullptr;
}

void ZThread::cancel_routine(ZThread* thread) {
    ZThreadPool* const pool = thread->pool_;
    const int deletesItself = thread->deletesItself();
    if (pool == nullptr)
        thread->noteEnd();

    const auto tellPool = [=] {
        bool heard = pool == nullptr;
        // An end that the pool doesn't hear of would keep its place taken for ever, so that one
        // failed lock is not enough.
        for (int tries = 0; !heard && tries < 2; ++tries)
            zrunReported(__FILE__, __LINE__, [&] { pool->noteDeath(*thread, heard); });
        if (deletesItself)
            thread->deleteWhenReleased();
    };
    runThen([=] { thread->exit(); }, tellPool);
}

void ZThread::createThreadKey(unsigned int& key) {
    Z_CHECK_THREAD(29, pthread_key_create(&key, deleteThreadObject));
}

ZObject* ZThread::getThreadObject(unsigned int& key) {
    return static_cast<ZObject*>(pthread_getspecific(key));
}

void ZThread::setThreadObject(unsigned int& key, ZObject* object) {
    Z_CHECK_THREAD(30, pthread_setspecific(key, object));
}

void ZThread::key_delete_routine(ZObject* object) {
    zrunReported(__FILE__, __LINE__, [=] { delete object; });
}

void ZThread::hold() { holds_.fetch_add(2); }

void ZThread::release() {
    if (holds_.fetch_sub(2) == 2 + 1)
        zrunReported(__FILE__, __LINE__, [this] { delete this; });
}

void ZThread::deleteWhenReleased() {
    if (holds_.fetch_or(1) == 0)
        zrunReported(__FILE__, __LINE__, [this] { delete this; });
}

int ZThread::isRunning() { return running_.load() != 0; }

// Whether the calling thread is the object's own.
int ZThread::runsCaller() { return isRunning() && pthread_equal(*threadId_, pthread_self()); }

// Sleeps until no thread runs the object. The kernel compares before it sleeps, so no end is missed.
void ZThread::awaitEnd() {
    while (const int running = running_.load())
        syscall(SYS_futex, &running_, FUTEX_WAIT_PRIVATE, running, nullptr, nullptr, 0);
}

// The last access to an object that outlives its thread. Its address may have another use when the
// kernel gets it: then somebody wakes for nothing, which waiting in a loop allows for.
void ZThread::noteEnd() {
    int* const word = reinterpret_cast<int*>(&running_);
    int running = 1;  // none: a notification that was sent by hand
    while (running > 0 && !running_.compare_exchange_weak(running, running - 1)) {
    }
    syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, std::numeric_limits<int>::max(), nullptr, nullptr,
            0);
}

static const unsigned int kNoRun = std::numeric_limits<unsigned int>::max();

ZSleeperThread::ZSleeperThread() : ZSleeperThread(0, 0, 0) {}

ZSleeperThread::ZSleeperThread(int detached, int autoDelete)
    : ZSleeperThread(detached, autoDelete, 0) {}

ZSleeperThread::ZSleeperThread(unsigned long timeout) : ZSleeperThread(0, 0, timeout) {}

ZSleeperThread::ZSleeperThread(int detached, int autoDelete, unsigned long timeout)
    : ZThread(detached, autoDelete),
      run_(0),
      exit_(kNoRun),
      wake_(0),
      working_(0),
      started_(kNoRun),
      timeout_(timeout) {}

ZSleeperThread::ZSleeperThread(ZLock& lock)
    : ZThread(0, 0),
      run_(0),
      exit_(kNoRun),
      wake_(0),
      working_(0),
      started_(kNoRun),
      timeout_(0),
      sleepCondition_(lock) {}

ZSleeperThread::~ZSleeperThread() noexcept(false) {}

void ZSleeperThread::start() {
    Z_CHECK_THREAD(17, runsCaller() ? EDEADLK : 0);
    const Hold hold(*this);
    awaitEnd();
    const ZResourceLock guard(*startCondition_.getResource());
    const unsigned int run = ++run_;
    ZThread::start();
    while (started_ != run)
        startCondition_.wait();
}

void ZSleeperThread::waitForExit() {
    int detached, autoDelete;
    {
        const ZResourceLock guard(*sleepCondition_.getResource());
        detached = detached_;
        autoDelete = autoDelete_;
        exit_ = run_;
        wake_ = 0;  // what comes later is for the next run
        sleepCondition_.signal();
    }
    // A self-deleting object may be gone from here on.
    if (!detached)
        ZThread::waitForExit();
    if (!autoDelete)
        reset();
}

void ZSleeperThread::reset() {}

// The starter sleeps until it hears of the new thread, so that one failed call must not keep it
// asleep.
void ZSleeperThread::noteStarted(unsigned int run) {
    const auto note = [this, run] {
        const ZResourceLock guard(*startCondition_.getResource());
        started_ = run;
        startCondition_.signal();
    };
    if (!zrunReported(__FILE__, __LINE__, note))
        note();
}

// Before the sleeping lock is taken: sleepers that share it may hold it for long, or the starter
// itself may, and nothing can be lost, since wake-ups and stops are looked for before sleeping.
void ZSleeperThread::run() {
    const unsigned int run = run_;
    noteStarted(run);
    const ZResourceLock guard(*sleepCondition_.getResource());
    int keep = 1;
    while (keep && exit_ != run) {
        if (!wake_)
            sleep();
        if (!wake_ || exit_ == run)
            continue;
        workOnce();
        if (ZThreadPool* const pool = pool_)
            pool->threadDoneNotification(*this, keep);
    }
}

void ZSleeperThread::sleep() {
    if (timeout_ == 0) {
        sleepCondition_.wait();
        return;
    }
    const unsigned long limit = std::numeric_limits<long>::max();
    int timedOut = 0;
    sleepCondition_.wait(static_cast<long>(std::min(timeout_, limit)), timedOut);
    if (timedOut)
        wake_ = 1;
}

void ZSleeperThread::workOnce() {
    struct AtWork {
        int& flag;
        explicit AtWork(int& working) : flag(working) { flag = 1; }
        ~AtWork() { flag = 0; }
    };
    const AtWork atWork(working_);
    wake_ = 0;  // before: work() may give the lock up, and then others may set it
    work();
}

void ZSleeperThread::wakeUp() {
    const ZResourceLock guard(*sleepCondition_.getResource());
    if (working_ && runsCaller())
        return;
    wake_ = 1;
    sleepCondition_.signal();
}
