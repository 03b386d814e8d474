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

enum Call { kNone, kMutexInit, kMutexLock, kMutexUnlock, kMutexDestroy, kCondInit, kCondWait,
            kCondTimedWait, kCondSignal, kCondBroadcast, kCondDestroy };

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
WRAP((lastLimit = *limit, kCondTimedWait), pthread_cond_timedwait,
     (pthread_cond_t * condition, pthread_mutex_t* mutex, const timespec* limit),
     (condition, mutex, limit))
WRAP_PLAIN(kCondSignal, pthread_cond_signal, pthread_cond_t)
WRAP_PLAIN(kCondBroadcast, pthread_cond_broadcast, pthread_cond_t)

// A destroy that fails has destroyed all the same here, so that the checkers find nothing left.
#define WRAP_DESTROY(call, name, Object)                      \
    extern "C" int __real_##name(Object*);                    \
    extern "C" int __wrap_##name(Object* object) {            \
        return __real_##name(object) | failureOf(call);       \
    }
WRAP_DESTROY(kMutexDestroy, pthread_mutex_destroy, pthread_mutex_t)
WRAP_DESTROY(kCondDestroy, pthread_cond_destroy, pthread_cond_t)

extern "C" int __real_clock_gettime(clockid_t clock, timespec* now);
extern "C" int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    if (falseTime == nullptr || clock != CLOCK_REALTIME)
        return __real_clock_gettime(clock, now);
    *now = *falseTime;
    return 0;
}

namespace {

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
    const auto withGiven = [&] { ZCondition c(given); };
    EXPECT_EQ(raisedWhenFails<ZConditionException>(kCondInit, ENOMEM, withGiven), "7/12");
    given.lock();
    EXPECT_EQ(depthOf(given), 1) << "a caller's lock survives";
    given.unlock();
    EXPECT_TRUE(service.reports().empty());
}

TEST(FailingSystem, LeavesOwnerAndDepthOfALockAsTheyWere) {
    const RecordingService service;
    ZLock held;
    const auto lock = [&] { held.lock(); };
    const auto unlock = [&] { held.unlock(); };
    EXPECT_EQ(raisedWhenFails<ZLockResourceException>(kMutexLock, EINVAL, lock), "5/22");
    EXPECT_EQ(depthOf(held), 0);
    lock();
    EXPECT_EQ(raisedWhenFails<ZUnlockResourceException>(kMutexUnlock, EPERM, unlock), "6/1");
    EXPECT_EQ(depthOf(held), 1);
    unlock();
    EXPECT_TRUE(service.reports().empty());
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
    EXPECT_EQ(service.reports(), (std::vector<std::string>{"4: 16", "8: 16"}));
}

TEST(FailingSystem, IsReportedAndRaisedByConditions) {
    static timespec far = {std::numeric_limits<time_t>::max(), 0};
    const struct {
        const char* number;
        Call call;
        void (*action)(ZBooleanCondition&, int& flag);
    } cases[] = {
        {"9", kCondWait, [](auto& c, auto&) { c.wait(); }},
        {"9", kCondTimedWait, [](auto& c, auto& flag) { c.wait(100, flag); }},
        {"9", kCondTimedWait, [](auto& c, auto& flag) { c.wait(far, flag); }},
        {"10", kCondSignal, [](auto& c, auto&) { c.signal(); }},
        {"27", kCondBroadcast, [](auto& c, auto&) { c.broadcast(); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        const std::string number = c.number;
        ZBooleanCondition condition;
        const ZResourceLock outer(*condition.getResource());
        const ZResourceLock inner(*condition.getResource());
        const RecordingService service;
        int flag = 0;
        const auto action = [&] { c.action(condition, flag); };
        EXPECT_EQ(raisedWhenFails<ZConditionException>(c.call, EINVAL, action), number + "/22");
        EXPECT_EQ(service.reports(), std::vector<std::string>{number + ": 22"});
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
        const auto signal = [&] { condition.signal(); };
        EXPECT_EQ(raisedWhenFails<ZConditionException>(kCondSignal, EINVAL, signal), "10/22");
        failingCall = kCondDestroy;
    }
    EXPECT_EQ(failingCall, kNone);
}

TEST(Condition, CountsSecondsFromTheStartOfThePresentOne) {
    static const timespec now = {1000000, 999999999};
    const std::pair<long, time_t> cases[] = {
        {5, 1000005}, {0, 1000000}, {-1, 999999},
        {std::numeric_limits<long>::max(), std::numeric_limits<time_t>::max()}};
    for (const auto& [seconds, limit] : cases) {
        SCOPED_TRACE(seconds);
        ZCondition condition;
        const ZResourceLock guard(*condition.getResource());
        int flag = 0;
        falseTime = &now;
        failingCall = kCondTimedWait;
        failure = ETIMEDOUT;
        condition.wait(seconds, flag);
        falseTime = nullptr;
        EXPECT_EQ(flag, 1);
        EXPECT_EQ(lastLimit.tv_sec, limit);
        EXPECT_EQ(lastLimit.tv_nsec, 0);
    }
}

}  // namespace
