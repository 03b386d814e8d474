// ZThread.cpp: threads, their end, and sleepers.
//
// The life of an object against that of its threads
// (1) Life counts the threads between start() and noteEnd(), which comes behind exit(). It is a
//     block of its own, and goes with the last of object and threads: who learns of the end in
//     exit() may destroy the object. In a pool noteEnd() is under the pool's mutex, which whoever
//     waits for the pool needs.
// (2) A self-deleting object is deleted by the last of its thread and the Holds on it: start() of a
//     sleeper and the pool are still inside the object when its thread may have ended.
// (3) pool_ is set before the thread is made, and cleared when the pool has counted the end. So the
//     pool of a thread that sleeps in run() is alive.
// (4) A sleeper is in its pool's idle set only while it sleeps, isn't asked to end and isn't
//     promised to anybody.
#include "ZThread.h"

#include <cxxabi.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include "ZException.h"
#include "zassert.h"
#include "zraise.h"
#include "zinternal.h"
#include "zmemory.h"
#include "zreport.h"
#include "zscope.h"
#include "zuncancelled.h"

// Sleeps while the word has this value, as a place where the thread can be cancelled. It unwinds
// out of the system call then, wherever that is interrupted: so nothing in here may have to be
// cleaned up.
[[gnu::noinline]] static void waitWhile(std::atomic<int>& word, int value) {
    int before;
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &before);
    syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, value, nullptr, nullptr, 0);
    pthread_setcanceltype(before, nullptr);
}

// Runs `step`, then `rest` on whatever way `step` was left.
template <typename Step, typename Rest>
__attribute__((no_sanitize("null"))) static void runThen(Step step, Rest rest) {
    try {
        zrunReported(step);
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

/// The id of the last thread, and how many threads run the object. Every step on `word` may be the
/// last on the block.
struct ZThread::Life {
    static const int kObject = 1;  // the object is there
    static const int kThread = 2;  // for each thread

    explicit Life(pthread_t id) noexcept : id(id), word(kObject) {}

    int threads() const { return word.load() / kThread; }
    void noteStart() { word.fetch_add(kThread); }
    void noteEnd();
    void noteObjectGone();
    void awaitEnd();

    pthread_t id;  // written by pthread_create, before the thread runs
    std::atomic<int> word;
};

// The kernel compares before it sleeps, so no end is missed.
void ZThread::Life::awaitEnd() {
    for (int now = word.load(); now / kThread != 0; now = word.load())
        waitWhile(word, now);
}

// The block may be gone, and its address have another use, when the kernel gets that: then somebody
// wakes for nothing, which waiting in a loop allows for.
void ZThread::Life::noteEnd() {
    int* const address = reinterpret_cast<int*>(&word);
    int now = word.load();
    do {
        if (now < kThread)
            return;  // a notification that was sent by hand
    } while (!word.compare_exchange_weak(now, now - kThread));
    if (now == kThread)
        ZUnmake()(this);
    else
        syscall(SYS_futex, address, FUTEX_WAKE_PRIVATE, std::numeric_limits<int>::max(), nullptr,
                nullptr, 0);
}

void ZThread::Life::noteObjectGone() {
    zassert((word.load() & kObject) != 0);
    if (word.fetch_sub(kObject) == kObject)
        ZUnmake()(this);
}

ZThread::ZThread(pthread_t id) : ZThread(0, 0) {
    life_->id = id;
    joinable_ = 1;
}

ZThread::ZThread(int detached, int autoDelete)
    : life_(zmake<Life>(pthread_t()).release()),
      detached_(detached),
      autoDelete_(autoDelete),
      pool_(nullptr),
      joinable_(0),
      promised_(0),
      holds_(0) {}

ZThread::~ZThread() noexcept(false) { life_->noteObjectGone(); }

pthread_t ZThread::getPThreadID() const { return life_->id; }

unsigned int ZThread::hash() const {
    return zaddressHash(reinterpret_cast<const void*>(life_->id));
}

int ZThread::compare(const ZObject& other) const {
    const pthread_t left = life_->id, right = static_cast<const ZThread&>(other).getPThreadID();
    return left == right ? 0 : left < right ? -1 : 1;
}

ZObject* ZThread::clone() const { zraise(ZNotClonableException()); }

void ZThread::start() {
    pthread_attr_t attributes;
    zcheckThread(15, pthread_attr_init(&attributes));
    const ZAtEnd destroy([&] {
        const int rc = pthread_attr_destroy(&attributes);
        if (rc != 0)
            zreportCode(18, rc);
    });
    zcheckThread(16, pthread_attr_setdetachstate(&attributes, detached_ ? PTHREAD_CREATE_DETACHED
                                                                        : PTHREAD_CREATE_JOINABLE));

    // All that the object has to know stands before there is a thread: a self-deleting one may be
    // gone when pthread_create returns.
    const pthread_t earlier = life_->id;
    const int earlierUnjoined = joinable_.exchange(detached_ ? 0 : 1);
    life_->noteStart();
    const int rc = pthread_create(&life_->id, &attributes, threadMain, this);
    if (rc != 0) {
        life_->id = earlier;
        joinable_ = earlierUnjoined;
        life_->noteEnd();
        zcheckThread(17, rc);
    }
    if (earlierUnjoined)
        pthread_detach(earlier);  // nobody knows its id any more
}

void ZThread::waitForExit() {
    if (detached_)
        return;
    const int mayJoin = joinable_.exchange(0);
    ZAtEnd giveBack([=] {
        if (mayJoin)
            joinable_ = 1;
    });
    zcheckThread(20, mayJoin ? pthread_join(life_->id, nullptr) : ESRCH);
    giveBack.dismiss();
}

void ZThread::exit() {}

void* ZThread::start_routine(ZThread* thread) {
    runThen([=] { thread->run(); }, [=] { cancel_routine(thread); });
    return nullptr;
}

void ZThread::cancel_routine(ZThread* thread) {
    ZThreadPool* const pool = thread->pool_;
    Life* const life = thread->life_;
    const int deletesItself = thread->deletesItself();
    thread->leaveIdle();  // during exit() it is of no use to anybody

    const auto tell = [=] {
        bool heard = pool == nullptr;
        if (heard)
            life->noteEnd();
        // An end that the pool doesn't hear of would keep its place taken for ever, so that one
        // failed lock is not enough.
        for (int tries = 0; !heard && tries < 2; ++tries)
            zrunReported([&] { pool->noteDeath(*thread, heard); });
        if (deletesItself)
            thread->deleteWhenReleased();
    };
    runThen([=] { thread->exit(); }, tell);
}

void ZThread::createThreadKey(unsigned int& key) {
    zcheckThread(29, pthread_key_create(&key, deleteThreadObject));
}

ZObject* ZThread::getThreadObject(unsigned int& key) {
    return static_cast<ZObject*>(pthread_getspecific(key));
}

void ZThread::setThreadObject(unsigned int& key, ZObject* object) {
    zcheckThread(30, pthread_setspecific(key, object));
}

void ZThread::key_delete_routine(ZObject* object) {
    const ZUncancelled uncancelled;
    zrunReported([=] { delete object; });
}

void ZThread::hold() { holds_.fetch_add(2); }

void ZThread::release() {
    zassert(holds_.load() >= 2);
    if (holds_.fetch_sub(2) == 2 + 1)
        deleteNow();
}

void ZThread::deleteWhenReleased() {
    if (holds_.fetch_or(1) == 0)
        deleteNow();
}

void ZThread::deleteNow() {
    const ZUncancelled uncancelled;
    zrunReported([this] { delete this; });
}

int ZThread::isRunning() { return life_->threads() != 0; }

// Whether the calling thread is the object's own.
int ZThread::runsCaller() { return isRunning() && pthread_equal(life_->id, pthread_self()); }

// Sleeps until no thread runs the object; the caller may be cancelled.
void ZThread::awaitEnd() { life_->awaitEnd(); }

void ZThread::noteEnd() { life_->noteEnd(); }

// Takes the thread out of its pool's idle set. Requires: the thread can't tell the pool its end
// meanwhile.
void ZThread::leaveIdle() {
    if (ZThreadPool* const pool = pool_)
        zrunReported([=] { pool->noteNotIdle(*this); });
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
      doing_(somethingElse),
      started_(kNoRun),
      timeout_(timeout) {}

ZSleeperThread::ZSleeperThread(ZLock& lock)
    : ZThread(0, 0),
      run_(0),
      exit_(kNoRun),
      wake_(0),
      doing_(somethingElse),
      started_(kNoRun),
      timeout_(0),
      sleepCondition_(lock) {}

ZSleeperThread::~ZSleeperThread() noexcept(false) {}

void ZSleeperThread::start() {
    zcheckThread(17, runsCaller() ? EDEADLK : 0);
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
        if (doing_ == sleeping)
            leaveIdle();
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
    if (!zrunReported(note))
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
        leaveIdle();  // woken by its period, or past the pool
        workOnce();
        // Somebody counts on it, or it is to end: not idle.
        if (wake_ || promised_ || exit_ == run)
            continue;
        if (ZThreadPool* const pool = pool_)
            pool->threadDoneNotification(*this, keep);
    }
}

void ZSleeperThread::sleep() {
    doing_ = sleeping;
    const ZAtEnd awake([this] { doing_ = somethingElse; });
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
    doing_ = working;
    const ZAtEnd done([this] { doing_ = somethingElse; });
    wake_ = 0;  // before: work() may give the lock up, and then others may set it
    work();
}

void ZSleeperThread::wakeUp() {
    const ZResourceLock guard(*sleepCondition_.getResource());
    if (doing_ == working && runsCaller())
        return;
    promised_ = 0;
    wake_ = 1;
    sleepCondition_.signal();
}
