// Locks, guards and conditions among threads. What the system makes fail is in fault/.
#include "support/Prelude.h"

#include <limits>

#include "Z/ZCondition.h"
#include "Z/ZLock.h"
#include "support/Raised.h"
#include "support/Threads.h"

namespace {

std::string unlockResult(ZLock& lock) {
    return raisedBy<ZUnlockResourceException>([&] { lock.unlock(); });
}

void lockTimes(ZLock& lock, int times) {
    for (int i = 0; i < times; ++i)
        lock.lock();
}

void unlockTimes(ZLock& lock, int times) {
    for (int i = 0; i < times; ++i)
        lock.unlock();
}

TEST(Lock, OnlyTheHolderUnlocksAndOnlyAsOftenAsItLocked) {
    ZLock lock;
    EXPECT_EQ(unlockResult(lock), "6/0") << "free";
    lockTimes(lock, 3);
    EXPECT_EQ(elsewhere([&] { return unlockResult(lock); }), "6/0") << "held by another thread";
    unlockTimes(lock, 3);
    EXPECT_EQ(unlockResult(lock), "6/0") << "free again";
    EXPECT_EQ(elsewhere([&] { return lock.lock(), unlockResult(lock); }), "nothing");
}

TEST(Lock, KeepsOthersOutUntilTheLastLevel) {
    ZLock lock;
    int shared = 0;  // guarded by lock; lost updates and the race detector show a hole
    inFourThreads([&] {
        for (int i = 0; i < 5000; ++i) {
            lockTimes(lock, 3);
            unlockTimes(lock, 2);
            ++shared;
            lock.unlock();
        }
    });
    EXPECT_EQ(shared, 4 * 5000);
}

TEST(Lock, CopiesAreFreeAndAssignmentChangesNothing) {
    ZLock held;
    lockTimes(held, 2);
    elsewhere([&] {
        ZLock copy(held);
        EXPECT_EQ(unlockResult(copy), "6/0");
        copy.lock();
        held = copy;
        copy = held;
        EXPECT_EQ(depthOf(copy), 1);
        copy.unlock();
        return 0;
    });
    EXPECT_EQ(depthOf(held), 2);
    unlockTimes(held, 2);
}

// Counts calls, and says of each unlock that it failed.
class CountingLock : public ZLock {
public:
    void lock() override { ++locks, ZLock::lock(); }
    void unlock() override {
        ZLock::unlock();
        ZUnlockResourceException(6, 77).throwException(__FILE__, __LINE__);
    }
    int locks = 0;
};

TEST(ResourceLock, HoldsForItsScopeAndReportsAFailedUnlockOnlyWhileAnExceptionIsOnItsWay) {
    CountingLock lock;
    const RecordingService service;
    const auto leaveScope = [&] {
        return raisedBy<ZUnlockResourceException>([&] { const ZResourceLock guard(lock); });
    };
    EXPECT_EQ(leaveScope(), "6/77");

    std::string inCleanUp;
    try {
        const std::shared_ptr<void> cleanUp(nullptr, [&](void*) { inCleanUp = leaveScope(); });
        throw 1;
    } catch (int) {
    }
    EXPECT_EQ(inCleanUp, "6/77") << "the guard began after the exception";
    EXPECT_TRUE(service.reports().empty());

    try {
        const ZResourceLock guard(lock);
        throw 1;
    } catch (int) {
    }
    EXPECT_EQ(service.reports(), std::vector<std::string>{"raised 6/77"});
    EXPECT_EQ(lock.locks, 3) << "through the virtual calls";
    EXPECT_EQ(unlockResult(lock), "6/0") << "all given up";
}

TEST(Condition, RefusesToWaitWithoutTheLock) {
    static timespec zero;
    void (*const calls[])(ZBooleanCondition&, int& flag) = {
        [](auto& c, auto&) { c.ZCondition::wait(); },
        [](auto& c, auto& flag) { c.ZCondition::wait(0, flag); },
        [](auto& c, auto& flag) { c.ZCondition::wait(zero, flag); },
        [](auto& c, auto& flag) { c.wait(zero, flag); },
        [](auto& c, auto&) { c.initCondition(); },
        [](auto& c, auto&) { c.testCondition(); },
        [](auto& c, auto&) { c.setCondition(1); },
        [](auto& c, auto&) { c.validateLock(); }};
    ZBooleanCondition condition;
    for (const auto& each : calls) {
        SCOPED_TRACE(&each - calls);
        int flag = 42;
        const auto call = [&] {
            return raisedBy<ZLockResourceException>([&] { each(condition, flag); });
        };
        EXPECT_EQ(call(), "5/0") << "free";
        condition.lock();
        EXPECT_EQ(elsewhere(call), "5/0") << "held by another thread";
        condition.unlock();
        EXPECT_EQ(flag, 42);
    }
}

TEST(Condition, AWaitGivesUpTheWholeDepthAndASignalBringsItBack) {
    static timespec zero;  // no limit
    void (*const waits[])(ZCondition&, int& flag) = {
        [](auto& c, auto& flag) { flag = 0, c.wait(); },
        [](auto& c, auto& flag) { c.wait(zero, flag); },
        [](auto& c, auto& flag) { c.wait(std::numeric_limits<long>::max(), flag); }};
    ZLock lock;
    for (const auto wait : waits) {
        ZCondition condition(lock);
        EXPECT_EQ(condition.getResource(), &lock);
        lockTimes(lock, 3);
        // Can't lock before the wait below has given up all three levels.
        std::thread waker([&] {
            const ZResourceLock guard(lock);
            EXPECT_EQ(depthOf(lock), 1);
            condition.signal();
        });
        int flag = 42;
        wait(condition, flag);
        EXPECT_EQ(flag, 0);
        EXPECT_EQ(depthOf(lock), 3);
        unlockTimes(lock, 3);
        waker.join();
    }
    EXPECT_EQ(unlockResult(lock), "6/0") << "a caller's lock outlives its conditions";
}

TEST(Condition, TimesThatHavePassedEndTheWaitAtOnce) {
    class Hooked : public ZCondition {
    public:
        void waitTimedOut() override {
            validateLock();
            seen = flag;
            depth = depthOf(*getResource());
        }
        int flag = 0, seen = 42, depth = 0;
    };
    static timespec past = {1, 0};
    void (*const waits[])(ZCondition&, int& flag) = {
        [](auto& c, auto& flag) { c.wait(0, flag); },
        [](auto& c, auto& flag) { c.wait(past, flag); },
        [](auto& c, auto& flag) { c.wait(std::numeric_limits<long>::min(), flag); }};
    for (const auto wait : waits) {
        Hooked condition;
        lockTimes(*condition.getResource(), 2);
        wait(condition, condition.flag);
        EXPECT_EQ(condition.seen, 0) << "the hook comes before the flag";
        EXPECT_EQ(condition.flag, 1);
        EXPECT_EQ(condition.depth, 2);
        unlockTimes(*condition.getResource(), 2);
    }
}

TEST(Condition, ABroadcastWakesAllWhoWait) {
    ZLock lock;
    ZCondition go(lock), ready(lock);  // two conditions, one lock
    int waiting = 0, told = 0, woken = 0;
    std::thread teller([&] {
        {
            const ZResourceLock guard(lock);
            while (waiting < 4)
                ready.wait();
            told = 1;
        }
        go.broadcast();  // without the lock
    });
    inFourThreads([&] {
        const ZResourceLock guard(lock);
        ++waiting;
        ready.signal();
        while (!told)
            go.wait();
        ++woken;
    });
    teller.join();
    EXPECT_EQ(woken, 4);
}

TEST(Condition, ACancelledWaiterHoldsTheLockWhileItUnwinds) {
    for (int round = 0; round < 20; ++round) {
        ZCondition condition;
        ZLock& lock = *condition.getResource();
        int depthAtEnd = 0;
        cancelAsleep([&] {
            const ZResourceLock outer(lock);
            const ZResourceLock inner(lock);
            // Runs while the thread unwinds, when its guards still stand.
            const std::shared_ptr<void> atEnd(nullptr, [&](void*) { depthAtEnd = depthOf(lock); });
            for (;;)
                condition.wait();
        });
        EXPECT_EQ(depthAtEnd, 2);
        lock.lock();  // is free
        lock.unlock();
    }
}

TEST(BooleanCondition, ATimeThatPassesSetsThePredicate) {
    ZBooleanCondition condition;
    const ZResourceLock guard(*condition.getResource());
    int flag = 42;
    condition.wait(0, flag);
    EXPECT_EQ(flag, 1);
    EXPECT_EQ(condition.testCondition(), 1);
    // It stays set, so nothing waits any more, and the flag is the caller's.
    flag = 42;
    timespec zero = {0, 0};
    condition.wait(0, flag);
    condition.wait(zero, flag);
    condition.wait();
    EXPECT_EQ(flag, 42);
    condition.initCondition();
    EXPECT_EQ(condition.testCondition(), 0);
}

TEST(BooleanCondition, WaitsOnWhenWokenBeforeThePredicateIsSet) {
    class Counting : public ZBooleanCondition {
    public:
        int testCondition() override { return ++tests, ZBooleanCondition::testCondition(); }
        int tests = 0;
    };
    Counting condition;
    condition.lock();
    std::thread waker([&] {
        for (int tests = 0; tests < 3; std::this_thread::yield()) {
            const ZResourceLock guard(*condition.getResource());
            tests = condition.tests;
            condition.signal();
        }
        const ZResourceLock guard(*condition.getResource());
        EXPECT_EQ(condition.setCondition(5), 1);
        condition.signal();
    });
    condition.wait();
    EXPECT_EQ(condition.testCondition(), 5);
    EXPECT_GE(condition.tests, 4);
    condition.unlock();
    waker.join();
}

}  // namespace
