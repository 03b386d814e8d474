// Locks and conditions when the thread services of the system fail. The linker leads the calls of
// this program to the functions below (--wrap).
#include <gtest/gtest.h>
#include <pthread.h>
#include <time.h>

#include <limits>
#include <memory>

#include "Z/ZCondition.h"
#include "Z/ZLock.h"
#include "support/RecordingService.h"

namespace {

enum Call {
    kNone,
    kMutexInit,
    kMutexLock,
    kMutexUnlock,
    kMutexDestroy,
    kCondInit,
    kCondWait,
    kCondTimedWait,
    kCondSignal,
    kCondBroadcast,
    kCondDestroy,
};

// The call that is to fail next, once, and how.
Call failingCall = kNone;
int failure;

// What the last timed wait was given, and the time of day while there is a false one.
timespec lastLimit;
const timespec* falseTime = nullptr;

// 0 if `call` isn't to fail now, else the code it fails with.
int failureOf(Call call) {
    if (failingCall != call)
        return 0;
    failingCall = kNone;
    return failure;
}

}  // namespace

#define WRAP(call, name, parameters, arguments)                     \
    extern "C" int __real_##name parameters;                        \
    extern "C" int __wrap_##name parameters {                       \
        const int rc = failureOf(call);                             \
        return rc != 0 ? rc : __real_##name arguments;              \
    }
#define WRAP_PLAIN(call, name, Object) WRAP(call, name, (Object * object), (object))

WRAP(kMutexInit, pthread_mutex_init,
     (pthread_mutex_t * mutex, const pthread_mutexattr_t* attributes), (mutex, attributes))
WRAP_PLAIN(kMutexLock, pthread_mutex_lock, pthread_mutex_t)
WRAP_PLAIN(kMutexUnlock, pthread_mutex_unlock, pthread_mutex_t)
WRAP(kCondInit, pthread_cond_init,
     (pthread_cond_t * condition, const pthread_condattr_t* attributes), (condition, attributes))
WRAP(kCondWait, pthread_cond_wait,
     (pthread_cond_t * condition, pthread_mutex_t* mutex), (condition, mutex))
WRAP_PLAIN(kCondSignal, pthread_cond_signal, pthread_cond_t)
WRAP_PLAIN(kCondBroadcast, pthread_cond_broadcast, pthread_cond_t)

// A destroy that fails has destroyed all the same here, so that the checkers find nothing left.
#define WRAP_DESTROY(call, name, Object)            \
    extern "C" int __real_##name(Object*);          \
    extern "C" int __wrap_##name(Object* object) {  \
        const int rc = failureOf(call);             \
        const int real = __real_##name(object);     \
        return rc != 0 ? rc : real;                 \
    }
WRAP_DESTROY(kMutexDestroy, pthread_mutex_destroy, pthread_mutex_t)
WRAP_DESTROY(kCondDestroy, pthread_cond_destroy, pthread_cond_t)

extern "C" int __real_pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*, const timespec*);
extern "C" int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                             const timespec* limit) {
    lastLimit = *limit;
    const int rc = failureOf(kCondTimedWait);
    return rc != 0 ? rc : __real_pthread_cond_timedwait(condition, mutex, limit);
}

extern "C" int __real_clock_gettime(clockid_t clock, timespec* now);
extern "C" int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    if (falseTime == nullptr || clock != CLOCK_REALTIME)
        return __real_clock_gettime(clock, now);
    *now = *falseTime;
    return 0;
}

namespace {

using Reports = std::vector<std::string>;

// Lets the next `call` fail with `rc` during `action`: what that raised.
template <typename Exception, typename Action>
std::string raisedWhenFails(Call call, int rc, Action action) {
    failingCall = call;
    failure = rc;
    const std::string result = raisedBy<Exception>(action);
    EXPECT_EQ(failingCall, kNone) << "wasn't called";
    failingCall = kNone;
    return result;
}

TEST(FailingSystem, MakesNoLockAndLeaksNothing) {
    const RecordingService service;
    const auto lock = [] { ZLock(); };
    const auto condition = [] { ZCondition(); };
    EXPECT_EQ(raisedWhenFails<ZCreateResourceException>(kMutexInit, EAGAIN, lock), "3/11");
    EXPECT_EQ(raisedWhenFails<ZCreateResourceException>(kMutexInit, EAGAIN, condition), "3/11");
    EXPECT_EQ(raisedWhenFails<ZConditionException>(kCondInit, ENOMEM, condition), "7/12");
    ZLock given;
    EXPECT_EQ(raisedWhenFails<ZConditionException>(kCondInit, ENOMEM, [&] { ZCondition c(given); }),
              "7/12");
    given.lock();
    EXPECT_EQ(depthOf(given), 1) << "a caller's lock survives";
    given.unlock();
    EXPECT_EQ(service.reports(), Reports{});
}

TEST(FailingSystem, LeavesOwnerAndDepthOfALockAsTheyWere) {
    const RecordingService service;
    ZLock lock;
    EXPECT_EQ(raisedWhenFails<ZLockResourceException>(kMutexLock, EINVAL, [&] { lock.lock(); }),
              "5/22");
    EXPECT_EQ(depthOf(lock), 0);
    lock.lock();
    EXPECT_EQ(raisedWhenFails<ZUnlockResourceException>(kMutexUnlock, EPERM, [&] { lock.unlock(); }),
              "6/1");
    EXPECT_EQ(depthOf(lock), 1);
    lock.unlock();
    EXPECT_EQ(service.reports(), Reports{});
}

TEST(FailingSystem, IsReportedByDestructors) {
    const RecordingService service;
    auto lock = std::make_unique<ZLock>();
    failure = EBUSY;
    failingCall = kMutexDestroy;
    lock.reset();
    auto condition = std::make_unique<ZCondition>();
    failingCall = kCondDestroy;
    condition.reset();
    EXPECT_EQ(service.reports(), (Reports{"4: 16", "8: 16"}));
}

TEST(FailingSystem, IsReportedAndRaisedByConditions) {
    struct Case {
        const char* what;
        Call call;
        void (*action)(ZBooleanCondition&, int&);
        const char* raised;
        const char* report;
    };
    static timespec far = {std::numeric_limits<time_t>::max(), 0};
    const Case cases[] = {
        {"wait", kCondWait, [](ZBooleanCondition& c, int&) { c.wait(); }, "9/22", "9: 22"},
        {"wait for seconds", kCondTimedWait,
         [](ZBooleanCondition& c, int& flag) { c.wait(100, flag); }, "9/22", "9: 22"},
        {"wait until", kCondTimedWait,
         [](ZBooleanCondition& c, int& flag) { c.wait(far, flag); }, "9/22", "9: 22"},
        {"signal", kCondSignal, [](ZBooleanCondition& c, int&) { c.signal(); }, "10/22", "10: 22"},
        {"broadcast", kCondBroadcast, [](ZBooleanCondition& c, int&) { c.broadcast(); }, "27/22",
         "27: 22"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ZBooleanCondition condition;
        const ZResourceLock outer(*condition.getResource());
        const ZResourceLock inner(*condition.getResource());
        const RecordingService service;
        int flag = 0;
        const auto action = [&] { c.action(condition, flag); };
        EXPECT_EQ(raisedWhenFails<ZConditionException>(c.call, EINVAL, action), c.raised);
        EXPECT_EQ(service.reports(), Reports{c.report});
        EXPECT_EQ(depthOf(*condition.getResource()), 2);
        EXPECT_EQ(flag, 0);
        EXPECT_EQ(condition.testCondition(), 0);
    }
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
        EXPECT_EQ(raisedWhenFails<ZConditionException>(kCondSignal, EINVAL,
                                                       [&] { condition.signal(); }),
                  "10/22");
        failingCall = kCondDestroy;
    }
    EXPECT_EQ(failingCall, kNone);
}

TEST(Condition, CountsSecondsFromTheStartOfThePresentOne) {
    struct Case {
        long seconds;
        time_t limit;
    };
    static const timespec now = {1000000, 999999999};
    const Case cases[] = {
        {5, 1000005}, {0, 1000000}, {-1, 999999},
        {std::numeric_limits<long>::max(), std::numeric_limits<time_t>::max()},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.seconds);
        ZCondition condition;
        const ZResourceLock guard(*condition.getResource());
        int flag = 0;
        falseTime = &now;
        failingCall = kCondTimedWait;
        failure = ETIMEDOUT;
        condition.wait(c.seconds, flag);
        falseTime = nullptr;
        EXPECT_EQ(flag, 1);
        EXPECT_EQ(lastLimit.tv_sec, c.limit);
        EXPECT_EQ(lastLimit.tv_nsec, 0);
    }
}

}  // namespace
