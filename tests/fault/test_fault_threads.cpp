// Locks, conditions, threads, sleepers and the pool when the thread services of the system fail,
// and what stays taken then. The linker leads the calls of this program to the functions below
// (--wrap); its threads start with ZThread and pthread_create.
#include "support/Prelude.h"

#include <time.h>

#include <limits>

#include "support/Raised.h"
#include "support/Runner.h"

namespace {

using Call = const char*;  // what stands behind pthread_

// The call that is to fail, the number of such calls that go well before, and how often it fails.
std::atomic<Call> failingCall(nullptr);
std::atomic<int> goodCalls(0), badCalls(0);
int timedWaitFailure = EINVAL;

// What the last timed wait was given, and the time of day while there is a false one.
timespec lastLimit;
const timespec* falseTime = nullptr;

// The condition that was last waited for with a limit; and whether that wait is to end as if its
// time had passed.
std::atomic<pthread_cond_t*> lastCondition(nullptr);
std::atomic<pthread_mutex_t*> lastMutex(nullptr);
std::atomic<bool> periodOver(false);

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
    const Call wanted = failingCall;
    if (wanted == nullptr || strcmp(wanted, call) != 0 ||
        (strstr(call, "attr_") != nullptr && !pthread_equal(asker, pthread_self())) ||
        goodCalls-- > 0)
        return 0;
    if (--badCalls == 0)
        failingCall = nullptr;
    return strcmp(call, "cond_timedwait") == 0 ? timedWaitFailure : EINVAL;
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

void untilFailed() {
    while (failingCall != nullptr)
        std::this_thread::yield();
}

}  // namespace

// What fails to destroy has destroyed all the same here, so that the checkers find nothing left.
#define WRAP(name, parameters, arguments)                                  \
    extern "C" int __real_pthread_##name parameters;                       \
    extern "C" UNCHECKED int __wrap_pthread_##name parameters {            \
        const int rc = failureOf(#name);                                   \
        const bool works = rc == 0 || strstr(#name, "destroy") != nullptr; \
        const int real = works ? __real_pthread_##name arguments : 0;      \
        return rc != 0 ? rc : real;                                        \
    }

WRAP(attr_init, (pthread_attr_t * a), (a))
WRAP(attr_setdetachstate, (pthread_attr_t * a, int state), (a, state))
WRAP(create, (pthread_t * id, const pthread_attr_t* a, void* (*body)(void*), void* argument),
     (id, a, body, argument))
WRAP(join, (pthread_t id, void** result), (id, result))
WRAP(key_create, (pthread_key_t * key, void (*end)(void*)), (key, end))
WRAP(setspecific, (pthread_key_t key, const void* object), (key, object))
WRAP(mutex_init, (pthread_mutex_t * m, const pthread_mutexattr_t* a), (m, a))
WRAP(mutex_lock, (pthread_mutex_t * m), (m))
WRAP(mutex_unlock, (pthread_mutex_t * m), (m))
WRAP(cond_init, (pthread_cond_t * c, const pthread_condattr_t* a), (c, a))
WRAP(cond_wait, (pthread_cond_t * c, pthread_mutex_t* m), (c, m))
WRAP(cond_signal, (pthread_cond_t * c), (c))
WRAP(cond_broadcast, (pthread_cond_t * c), (c))
WRAP(attr_destroy, (pthread_attr_t * a), (a))
WRAP(mutex_destroy, (pthread_mutex_t * m), (m))
WRAP(cond_destroy, (pthread_cond_t * c), (c))

extern "C" int __real_pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*, const timespec*);
extern "C" UNCHECKED int __wrap_pthread_cond_timedwait(pthread_cond_t* c, pthread_mutex_t* m,
                                                       const timespec* limit) {
    lastLimit = *limit;
    lastCondition = c;
    lastMutex = m;
    const int rc = failureOf("cond_timedwait");
    const int real = rc == 0 ? __real_pthread_cond_timedwait(c, m, limit) : 0;
    return rc == 0 && periodOver.exchange(false) ? ETIMEDOUT : rc != 0 ? rc : real;
}

extern "C" int __real_clock_gettime(clockid_t clock, timespec* now);
extern "C" UNCHECKED int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    if (falseTime == nullptr || clock != CLOCK_REALTIME)
        return __real_clock_gettime(clock, now);
    *now = *falseTime;
    return 0;
}

namespace {

// What `action` raises while a call fails.
template <typename Exception>
std::string raisedWhen(Call call, const Action& action, int good) {
    failNext(call, good);
    const std::string result = raisedBy<Exception>(action);
    EXPECT_EQ(failingCall.load(), nullptr) << "wasn't called";
    failingCall = nullptr;
    return result;
}

TEST(FailingSystem, IsRaisedOrReportedAndLeavesAllAsItWas) {
    static timespec far = {std::numeric_limits<time_t>::max(), 0};
    int flag = 0;
    ZLock free, held;
    ZBooleanCondition condition;
    ZLock& resource = *condition.getResource();
    const ZResourceLock one(held), outer(resource), inner(resource);
    Runner thread;
    const auto lock = [] { ZLock(); };
    const auto own = [] { ZCondition(); };
    const auto given = [&] { ZCondition c(held); };
    const auto pool = [] { ZThreadPool(2, 2); };
    const auto start = [&] { thread.start(); };
    const auto creates = raisedWhen<ZCreateResourceException>;
    const auto locks = raisedWhen<ZLockResourceException>;
    const auto unlocks = raisedWhen<ZUnlockResourceException>;
    const auto waits = raisedWhen<ZConditionException>;
    const auto runs = raisedWhen<ZThreadException>;
    const struct {
        Call call;
        Action action;
        std::string (*raisedWhen)(Call, const Action&, int);
        const char* raised;
        Reports reports;
    } cases[] = {
        {"mutex_init", lock, creates, "3/22", {}},
        {"mutex_init", own, creates, "3/22", {}},
        {"cond_init", own, waits, "7/22", {}},
        {"cond_init", given, waits, "7/22", {}},
        {"mutex_lock", [&] { free.lock(); }, locks, "5/22", {}},
        {"mutex_unlock", [&] { held.unlock(); }, unlocks, "6/22", {}},
        {"mutex_destroy", lock, creates, "nothing", {"4: 22"}},
        {"cond_destroy", own, waits, "nothing", {"8: 22"}},
        {"cond_wait", [&] { condition.wait(); }, waits, "9/22", {"9: 22"}},
        {"cond_timedwait", [&] { condition.wait(100, flag); }, waits, "9/22", {"9: 22"}},
        {"cond_timedwait", [&] { condition.wait(far, flag); }, waits, "9/22", {"9: 22"}},
        {"cond_signal", [&] { condition.signal(); }, waits, "10/22", {"10: 22"}},
        {"cond_broadcast", [&] { condition.broadcast(); }, waits, "27/22", {"27: 22"}},
        {"mutex_init", pool, runs, "3/22", {}},
        {"cond_init", pool, runs, "7/22", {}},
        {"cond_destroy", pool, runs, "nothing", {"8: 22"}},
        {"mutex_destroy", pool, runs, "nothing", {"4: 22"}},
        {"attr_init", start, runs, "15/22", {}},
        {"attr_setdetachstate", start, runs, "16/22", {}},
        {"create", start, runs, "17/22", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        const RecordingService service;
        EXPECT_EQ(c.raisedWhen(c.call, c.action, 0), c.raised);
        EXPECT_EQ(service.reports(), c.reports);
        EXPECT_EQ(depthOf(free), 0);
        EXPECT_EQ(depthOf(resource), 2);
        // Asking takes the lock again: always before the one that was taken behind it.
        resource.unlock(), resource.unlock();
        EXPECT_EQ(depthOf(held), 1);
        resource.lock(), resource.lock();
        EXPECT_EQ(flag, 0);
        EXPECT_EQ(condition.testCondition(), 0);
    }
    EXPECT_EQ(raisedBy<ZThreadException>([&] { thread.waitForExit(); }), "20/3") << "not started";
    EXPECT_EQ(runs("cond_init", pool, 1), "7/22") << "the second one of a pool";
}

TEST(FailingSystem, AReportThatFailsHidesNothing) {
    class Raising : public RecordingService {
    public:
        int outputMessage(const char*, int, int, int, const ZLCString*, const ZLCString*,
                          const ZLCString*, const ZLCString*, const ZLCString*,
                          const ZLCString*) const override {
            throw 1;
        }
    };
    const Raising service;
    {
        ZCondition condition;
        const auto signal = [&] { condition.signal(); };
        EXPECT_EQ(raisedWhen<ZConditionException>("cond_signal", signal, 0), "10/22");
        failNext("cond_destroy");
    }
    EXPECT_EQ(failingCall.load(), nullptr);
}

TEST(Condition, CountsSecondsFromTheStartOfThePresentOne) {
    static const timespec now = {1000000, 999999999};
    const std::pair<long, time_t> cases[] = {
        {5, 1000005},
        {0, 1000000},
        {-1, 999999},
        {std::numeric_limits<long>::max(), std::numeric_limits<time_t>::max()}};
    for (const auto& [seconds, limit] : cases) {
        SCOPED_TRACE(seconds);
        ZCondition condition;
        const ZResourceLock guard(*condition.getResource());
        int flag = 0;
        falseTime = &now;
        failNext("cond_timedwait");
        timedWaitFailure = ETIMEDOUT;
        condition.wait(seconds, flag);
        falseTime = nullptr;
        timedWaitFailure = EINVAL;
        EXPECT_EQ(flag, 1);
        EXPECT_EQ(lastLimit.tv_sec, limit);
        EXPECT_EQ(lastLimit.tv_nsec, 0);
    }
}

// Most of threads and pools raise this.
std::string threadRaisesWhen(Call call, const Action& action) {
    return raisedWhen<ZThreadException>(call, action, 0);
}

TEST(FailingThread, CanBeJoinedAfterwards) {
    const RecordingService service;
    Runner thread;
    const auto join = [&] { thread.waitForExit(); };
    EXPECT_EQ(threadRaisesWhen("attr_destroy", [&] { thread.start(); }), "nothing");
    EXPECT_EQ(service.reports(), Reports{"18: 22"});
    EXPECT_EQ(threadRaisesWhen("join", join), "20/22");
    EXPECT_EQ(raisedBy<ZThreadException>(join), "nothing");
    EXPECT_EQ(thread.runs.opened(), 1);

    unsigned int key = 0;
    EXPECT_EQ(threadRaisesWhen("key_create", [&] { ZThread::createThreadKey(key); }), "29/22");
    ZThread::createThreadKey(key);
    EXPECT_EQ(threadRaisesWhen("setspecific", [&] { ZThread::setThreadObject(key, &thread); }),
              "30/22");
    EXPECT_EQ(ZThread::getThreadObject(key), nullptr);
    pthread_key_delete(key);
}

TEST(FailingSleeper, StartsAgainAfterEachFailure) {
    const RecordingService service;
    Worker worker;
    EXPECT_EQ(threadRaisesWhen("create", [&] { worker.start(); }), "17/22");
    // The thread's own calls: the lock and the signal of its greeting, which it tries again.
    for (const auto& c : {std::pair<Call, int>{"mutex_lock", 1}, {"cond_signal", 0}}) {
        failNext(c.first, c.second);
        worker.start(), worker.wakeUp(), worker.done.await();
        worker.waitForExit();
        EXPECT_EQ(failingCall.load(), nullptr);
    }
    EXPECT_EQ(service.reports(), (Reports{"raised 5/22", "10: 22", "raised 10/22"}));
    // Whichever of the two threads it is that fails to wait, the object can be used again.
    failNext("cond_wait");
    const std::string result = raisedBy<ZConditionException>([&] { worker.start(); });
    untilFailed();
    if (result == "9/22") {
        worker.waitForExit();
    } else {
        EXPECT_EQ(result, "nothing");
        worker.ZThread::waitForExit();  // it has ended by itself
    }
    worker.start(), worker.wakeUp(), worker.done.reach(3);
    worker.waitForExit();
}

TEST(Pool, HandsASleeperWithAPeriodToOneCallerOnly) {
    Gate atWork, leave;
    Worker worker(1, 0, 1000000, [&] { atWork.open(), leave.await(); });
    ZThreadPool pool(1, 1);
    ZThread* thread;
    pool.start(worker), worker.wakeUp(), atWork.await(), leave.open();
    while (!pool.getAvailableIdleThread(thread))
        std::this_thread::yield();
    pthread_mutex_lock(lastMutex);  // so it is asleep
    periodOver = true;
    pthread_cond_broadcast(lastCondition);
    pthread_mutex_unlock(lastMutex);
    atWork.await(), leave.open();
    worker.wakeUp(), atWork.await();  // the job of the one caller
    EXPECT_EQ(pool.getAvailableIdleThread(thread), nullptr);
    leave.open();
    pool.waitForExit();
}

TEST(FailingPool, LeavesItsMutexFreeWhateverFails) {
    struct Case {
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
        {"mutex_lock", start, "5/22", {}},   {"create", start, "nothing", {"raised 17/22"}},
        {"mutex_lock", take, "5/22", {}},    {"mutex_unlock", take, "6/22", {}},
        {"mutex_lock", wait, "5/22", {}},    {"mutex_lock", done, "5/22", {}},
        {"mutex_unlock", done, "6/22", {}},  {"mutex_lock", death, "5/22", {}},
        {"cond_signal", death, "10/22", {}}, {"mutex_unlock", death, "6/22", {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - cases);
        ZThreadPool pool(2, 3);
        pool.threadDoneNotification(idle, keep);
        ASSERT_EQ(keep, 1);
        const RecordingService service;
        EXPECT_EQ(threadRaisesWhen(c.call, [&] { c.action(pool); }), c.raised);
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
    for (Call call : {"mutex_lock", "mutex_unlock", "cond_signal"}) {
        ZThreadPool pool(1, 0);
        std::atomic<bool> go{false}, ended{false};
        // By looking: a lock would be the one that fails.
        const auto until = [](const std::atomic<bool>& flag) {
            while (!flag)
                std::this_thread::yield();
        };
        Runner thread(
            0, 0, [&] { until(go); }, [&] { failNext(call), ended = true; });
        pool.start(thread);
        go = true;
        until(ended), untilFailed();
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
    failNext("cond_wait", 0, 3);
    std::thread opener([&] { untilFailed(), leave.open(); });
    pool.waitForExit();
    opener.join();
    EXPECT_EQ(service.reports(), (Reports{"9: 22", "9: 22", "9: 22"}));
}

}  // namespace
