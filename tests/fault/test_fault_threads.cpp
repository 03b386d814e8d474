// Threads, sleepers and the pool when the thread services of the system fail, and what stays taken
// then. The linker leads the calls of this program to the functions below (--wrap); its threads
// start with ZThread and pthread_create.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <thread>

#include "support/RecordingService.h"
#include "support/Runner.h"

namespace {

enum Call {  // those that destroy come first, those of attributes side by side
    kNone, kMutexDestroy, kCondDestroy, kAttrDestroy, kAttrInit, kAttrSet, kCreate, kJoin,
    kKeyCreate, kSetSpecific, kMutexInit, kMutexLock, kMutexUnlock, kCondInit, kCondWait, kCondSignal,
};

// The call that is to fail, the number of such calls that go well before, and how often it fails.
std::atomic<int> failingCall(kNone), goodCalls(0), badCalls(0);

// Who asked for it: the sanitizers ask for the attributes of each new thread.
pthread_t asker;

// The sanitizers' start-up makes such calls too, before anything can be checked.
#if defined(__clang__)
#define UNCHECKED __attribute__((disable_sanitizer_instrumentation))
#else
#define UNCHECKED
#endif
int armed = 0;  // something is to fail, or was

int failureWhenArmed(Call call) {
    const bool ofAttributes = call >= kAttrDestroy && call <= kAttrSet;
    if (failingCall != call || (ofAttributes && !pthread_equal(asker, pthread_self())) ||
        goodCalls-- > 0)
        return 0;
    if (--badCalls == 0)
        failingCall = kNone;
    return EINVAL;
}

UNCHECKED int failureOf(Call call) {
    return __atomic_load_n(&armed, __ATOMIC_RELAXED) == 0 ? 0 : failureWhenArmed(call);
}

void failNext(Call call, int good = 0, int bad = 1) {
    goodCalls = good;
    badCalls = bad;
    asker = pthread_self();
    __atomic_store_n(&armed, 1, __ATOMIC_RELAXED);
    failingCall = call;
}

}  // namespace

// What fails to destroy has destroyed all the same here, so that the checkers find nothing left.
#define WRAP(call, name, parameters, arguments)                                        \
    extern "C" int __real_##name parameters;                                           \
    extern "C" UNCHECKED int __wrap_##name parameters {                                \
        const int rc = failureOf(call);                                                \
        const int real = rc == 0 || call <= kAttrDestroy ? __real_##name arguments : 0;\
        return rc != 0 ? rc : real;                                                    \
    }

WRAP(kAttrInit, pthread_attr_init, (pthread_attr_t * a), (a))
WRAP(kAttrSet, pthread_attr_setdetachstate, (pthread_attr_t * a, int state), (a, state))
WRAP(kCreate, pthread_create,
     (pthread_t * id, const pthread_attr_t* a, void* (*body)(void*), void* argument),
     (id, a, body, argument))
WRAP(kJoin, pthread_join, (pthread_t id, void** result), (id, result))
WRAP(kKeyCreate, pthread_key_create, (pthread_key_t * key, void (*end)(void*)), (key, end))
WRAP(kSetSpecific, pthread_setspecific, (pthread_key_t key, const void* object), (key, object))
WRAP(kMutexInit, pthread_mutex_init, (pthread_mutex_t * m, const pthread_mutexattr_t* a), (m, a))
WRAP(kMutexLock, pthread_mutex_lock, (pthread_mutex_t * m), (m))
WRAP(kMutexUnlock, pthread_mutex_unlock, (pthread_mutex_t * m), (m))
WRAP(kCondInit, pthread_cond_init, (pthread_cond_t * c, const pthread_condattr_t* a), (c, a))
WRAP(kCondWait, pthread_cond_wait, (pthread_cond_t * c, pthread_mutex_t* m), (c, m))
WRAP(kCondSignal, pthread_cond_signal, (pthread_cond_t * c), (c))
WRAP(kAttrDestroy, pthread_attr_destroy, (pthread_attr_t * a), (a))
WRAP(kMutexDestroy, pthread_mutex_destroy, (pthread_mutex_t * m), (m))
WRAP(kCondDestroy, pthread_cond_destroy, (pthread_cond_t * c), (c))

namespace {

// What `action` raises while a call fails.
std::string raisedWhen(Call call, Action action, int good = 0) {
    failNext(call, good);
    const std::string result = raisedBy<ZThreadException>(action);
    EXPECT_EQ(failingCall, kNone) << "wasn't called";
    failingCall = kNone;
    return result;
}

TEST(FailingThread, RaisesAndCanBeStartedAndJoinedAfterwards) {
    const RecordingService service;
    Runner thread;
    const auto start = [&] { thread.start(); };
    const auto join = [&] { thread.waitForExit(); };
    EXPECT_EQ(raisedWhen(kAttrInit, start), "15/22");
    EXPECT_EQ(raisedWhen(kAttrSet, start), "16/22");
    EXPECT_EQ(raisedWhen(kCreate, start), "17/22");
    EXPECT_EQ(raisedBy<ZThreadException>(join), "20/3") << "nothing was started";
    EXPECT_EQ(service.reports(), Reports{});
    EXPECT_EQ(raisedWhen(kAttrDestroy, start), "nothing");
    EXPECT_EQ(service.reports(), Reports{"18: 22"});
    EXPECT_EQ(raisedWhen(kJoin, join), "20/22");
    EXPECT_EQ(raisedBy<ZThreadException>(join), "nothing");
    EXPECT_EQ(thread.runs.opened(), 1);

    unsigned int key = 0;
    EXPECT_EQ(raisedWhen(kKeyCreate, [&] { ZThread::createThreadKey(key); }), "29/22");
    ZThread::createThreadKey(key);
    EXPECT_EQ(raisedWhen(kSetSpecific, [&] { ZThread::setThreadObject(key, &thread); }), "30/22");
    EXPECT_EQ(ZThread::getThreadObject(key), nullptr);
    pthread_key_delete(key);
}

TEST(FailingSleeper, StartsAgainAfterEachFailure) {
    const RecordingService service;
    Worker worker;
    EXPECT_EQ(raisedWhen(kCreate, [&] { worker.start(); }), "17/22");
    // The thread's own calls: the lock and the signal of its greeting, which it tries again.
    for (const auto& c : {std::make_pair(kMutexLock, 1), std::make_pair(kCondSignal, 0)}) {
        failNext(c.first, c.second);
        worker.start(), worker.wakeUp(), worker.done.await();
        worker.waitForExit();
        EXPECT_EQ(failingCall, kNone);
    }
    EXPECT_EQ(service.reports(), (Reports{"raised 5/22", "10: 22", "raised 10/22"}));
    // Whichever of the two threads it is that fails to wait, the object can be used again.
    failNext(kCondWait);
    const std::string result = raisedBy<ZConditionException>([&] { worker.start(); });
    while (failingCall != kNone)
        std::this_thread::yield();
    if (result == "9/22") {
        worker.waitForExit();
    } else {
        EXPECT_EQ(result, "nothing");
        worker.ZThread::waitForExit();  // it has ended by itself
    }
    worker.start(), worker.wakeUp(), worker.done.reach(3);
    worker.waitForExit();
}

TEST(FailingPool, IsNotMadeOrReportsAtItsEnd) {
    const RecordingService service;
    const auto make = [] { ZThreadPool(2, 2); };
    EXPECT_EQ(raisedWhen(kMutexInit, make), "3/22");
    EXPECT_EQ(raisedWhen(kCondInit, make), "7/22");
    EXPECT_EQ(raisedWhen(kCondInit, make, 1), "7/22");
    EXPECT_EQ(service.reports(), Reports{});
    EXPECT_EQ(raisedWhen(kCondDestroy, make), "nothing");
    EXPECT_EQ(raisedWhen(kMutexDestroy, make), "nothing");
    EXPECT_EQ(service.reports(), (Reports{"8: 22", "4: 22"}));
}

TEST(FailingPool, LeavesItsMutexFreeWhateverFails) {
    struct Case {
        const char* what;
        Call call;
        std::function<void(ZThreadPool&)> action;
        const char* raised;
        Reports reports;
    };
    Runner thread(1), idle(1), other(1);
    ZThread* taken = nullptr;
    int keep = 0;
    const auto start = [&](ZThreadPool& pool) { pool.start(thread); };
    const auto take = [&](ZThreadPool& pool) { pool.getAvailableIdleThread(taken); };
    const auto wait = [](ZThreadPool& pool) { pool.waitForExit(); };
    const auto done = [&](ZThreadPool& pool) { pool.threadDoneNotification(other, keep); };
    const auto death = [&](ZThreadPool& pool) { pool.threadDeathNotification(other); };
    const Case cases[] = {
        {"start, lock", kMutexLock, start, "5/22", {}},
        {"start, create", kCreate, start, "nothing", {"raised 17/22"}},
        {"take, lock", kMutexLock, take, "5/22", {}},
        {"take, unlock", kMutexUnlock, take, "6/22", {}},
        {"wait, lock", kMutexLock, wait, "5/22", {}},
        {"done, lock", kMutexLock, done, "5/22", {}},
        {"done, unlock", kMutexUnlock, done, "6/22", {}},
        {"death, lock", kMutexLock, death, "5/22", {}},
        {"death, signal", kCondSignal, death, "10/22", {}},
        {"death, unlock", kMutexUnlock, death, "6/22", {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ZThreadPool pool(2, 3);
        pool.threadDoneNotification(idle, keep);
        ASSERT_EQ(keep, 1);
        const RecordingService service;
        EXPECT_EQ(raisedWhen(c.call, [&] { c.action(pool); }), c.raised);
        EXPECT_EQ(service.reports(), c.reports);
        EXPECT_EQ(pool.getAvailableIdleThread(taken), &idle) << "no thread is lost";
        EXPECT_EQ(pool.getAvailableIdleThread(taken), nullptr);
        Runner fresh(1);
        pool.start(fresh);  // the mutex is free, and there is room
        fresh.runs.await();
        pool.waitForExit();
    }
}

TEST(FailingPool, HearsOfAnEndThoughItsMutexFailedOnce) {
    const RecordingService service;
    for (Call call : {kMutexLock, kMutexUnlock, kCondSignal}) {
        ZThreadPool pool(1, 0);
        std::atomic<int> go{0}, ended{0};
        const auto body = [&] {
            while (!go)
                std::this_thread::yield();
        };
        Runner thread(0, 0, body, [&] { failNext(call), ended = 1; });
        pool.start(thread);
        go = 1;
        while (failingCall != kNone || ended == 0)
            std::this_thread::yield();  // a lock here would be the one that fails
        pool.waitForExit();
        thread.waitForExit();  // and the report is out
    }
    EXPECT_EQ(service.reports(), (Reports{"raised 5/22", "raised 6/22", "raised 10/22"}));
}

TEST(FailingPool, GoesOnAfterAFailedWait) {
    const RecordingService service;
    ZThreadPool pool(1, 0);
    Gate leave;
    Runner thread(1, 0, [&] { leave.await(); });
    pool.start(thread);
    failNext(kCondWait, 0, 3);
    std::thread opener([&] {
        while (failingCall != kNone)
            std::this_thread::yield();
        leave.open();
    });
    pool.waitForExit();
    opener.join();
    EXPECT_EQ(service.reports(), (Reports{"9: 22", "9: 22", "9: 22"}));
}

}  // namespace
