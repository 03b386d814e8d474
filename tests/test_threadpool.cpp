// The pool: its limits, its idle threads, and that no thread and no end is lost. Threads start
// through the pool, some through std::thread. What the system makes fail is in fault/.
#include "support/Prelude.h"

#include <set>
#include <utility>

#include "Z/ZThreadPool.h"
#include "support/Raised.h"
#include "support/Runner.h"
#include "support/Threads.h"

namespace {

std::atomic<int> alive(0);  // self-deleting workers

// A sleeper that does whatever it was given last.
class PoolWorker : public Worker {
public:
    explicit PoolWorker(Action job, int autoDelete = 1) : Worker(1, autoDelete, 0, job) { ++alive; }
    ~PoolWorker() noexcept(false) override { --alive; }
    void wakeUpFor(Action job) { body = job, wakeUp(); }
};

// Starts a worker and wakes it up.
void launch(ZThreadPool& pool, Worker& worker) { pool.start(worker), worker.wakeUp(); }

// Has `job` done by an idle thread, else by a new one.
void submit(ZThreadPool& pool, Action job) {
    ZThread* idle;
    if (pool.getAvailableIdleThread(idle))
        static_cast<PoolWorker*>(idle)->wakeUpFor(job);
    else
        launch(pool, *new PoolWorker(job));
}

// Takes an idle thread as soon as there is one.
PoolWorker& takeIdle(ZThreadPool& pool) {
    ZThread* thread;
    while (!pool.getAvailableIdleThread(thread))
        std::this_thread::yield();
    return static_cast<PoolWorker&>(*thread);
}

// Makes a sleeping thread that was taken idle again, as if it had worked.
void giveBack(ZThreadPool& pool, ZThread& thread) {
    int keep = 0;
    pool.threadDoneNotification(thread, keep);
    EXPECT_EQ(keep, 1);
}

void awaitDeletions(int left = 0) {
    while (alive != left)
        std::this_thread::yield();
}

// A thread of which only the start matters.
class Plain : public Runner {
public:
    Plain(Action body, Action before = nothing, Action after = nothing, int detached = 1)
        : Runner(detached, 0, body), before_(before), after_(after) {}
    void start() override { before_(), ZThread::start(), after_(); }

private:
    const Action before_, after_;
};

TEST(ThreadPool, KeepsItsLimitsThroughManyShortJobsAndCanBeUsedAgain) {
    struct Case {
        unsigned int a, b;
        int most;
    } const cases[] = {{5, 2, 5}, {2, 5, 5}, {3, 0, 3}, {1, 1, 1}, {8, 8, 8}};
    const int jobs = 2000;  // 10,000 in all
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.a << ", " << c.b);
        ZThreadPool pool(c.a, c.b);
        std::atomic<int> done(0), inside(0), most(0);
        const Action job = [&] {
            int now = ++inside, seen = most;
            while (now > seen && !most.compare_exchange_weak(seen, now)) {
            }
            --inside, ++done;
        };
        for (int use = 1; use <= 2; ++use) {
            for (int i = 0; i < jobs / 2; ++i) {
                // With as many idle threads as threads, a start would wait for an end for ever.
                if (c.a == c.b && alive == c.most)
                    takeIdle(pool).wakeUpFor(job);
                else
                    submit(pool, job);
                if (c.b != 0 && c.a != c.b && i % 50 == 0)
                    pool.waitForExit();  // idle threads take up room
            }
            pool.waitForExit();
            awaitDeletions();  // they come behind the ends, and are counted above
            EXPECT_EQ(done, use * jobs / 2);
            EXPECT_EQ(inside, 0);
        }
        EXPECT_LE(most, c.most);
    }
}

TEST(ThreadPool, HandsOutEachIdleThreadOnceAndKeepsNoMoreThanItMay) {
    ZThreadPool pool(2, 4);
    ZThread* thread = reinterpret_cast<ZThread*>(&pool);
    EXPECT_EQ(pool.getAvailableIdleThread(thread), nullptr);
    EXPECT_EQ(thread, nullptr);
    EXPECT_EQ(raisedBy<ZNotClonableException>([&] { pool.clone(); }), "14");
    for (int use = 0; use < 3; ++use) {
        Gate atWork, leave;
        for (int i = 0; i < 4; ++i)
            submit(pool, [&] { atWork.open(), leave.await(); });
        atWork.reach(4);
        EXPECT_EQ(pool.getAvailableIdleThread(thread), nullptr);
        for (int i = 0; i < 4; ++i)
            leave.open();
        awaitDeletions(2);  // two find no room
        std::set<PoolWorker*> taken = {&takeIdle(pool), &takeIdle(pool)};
        EXPECT_EQ(taken.size(), 2u);
        EXPECT_EQ(pool.getAvailableIdleThread(thread), nullptr);
        Gate again;
        for (PoolWorker* worker : taken)
            worker->wakeUpFor([&] { again.open(); });
        again.reach(2);
        inFourThreads([&] { pool.waitForExit(); });  // and the limit of idle threads is back
        EXPECT_EQ(pool.getAvailableIdleThread(thread), nullptr) << "stopped ones must not come out";
        awaitDeletions();
    }
}

TEST(ThreadPool, StartsNoMoreThanItMayUntilAThreadHasEnded) {
    ZThreadPool pool(1, 0);
    Gate atWork, leave;
    std::atomic<bool> firstOver(false);
    bool overBefore = false;
    Plain first([&] { atWork.open(), leave.await(), firstOver = true; });
    Plain second([&] { overBefore = firstOver; });
    pool.start(first);
    atWork.await();
    std::thread starter = startAsleep([&] { pool.start(second); });
    // Somebody who waits for the end as well must not take the news away from the starter.
    std::thread waiter([&] { pool.waitForExit(); });
    leave.open();
    starter.join(), waiter.join();
    pool.waitForExit();
    EXPECT_TRUE(overBefore);
}

TEST(ThreadPool, OnlyReportsAThreadThatCannotStartAndStaysAsItWas) {
    struct Case {
        Action before, after;
        const char* report;
        int runs;  // it counts until its end if it is there in spite of the failure
    };
    const Action other = [] { throw 1; };
    const Action raise = [] { ZThreadException(17, 11).throwException(__FILE__, __LINE__); };
    const Case cases[] = {{raise, nothing, "raised 17/11", 0},
                          {other, nothing, "19", 0},
                          {nothing, raise, "raised 17/11", 1}};
    for (const Case& c : cases) {
        const RecordingService service;
        ZThreadPool pool(1, 0);
        for (int i = 1; i <= 20; ++i) {
            int runs = 0;
            Plain bad([&] { ++runs; }, c.before, c.after), good([&] { ++runs; });
            pool.start(bad), pool.waitForExit();
            EXPECT_EQ(runs, c.runs);
            pool.start(good), pool.waitForExit();  // there is room
            EXPECT_EQ(runs, c.runs + 1);
            EXPECT_EQ(service.reports(), Reports(i, c.report));
        }
    }
}

TEST(ThreadPool, StopsTheOthersWhenAStopFailsAndKeepsEachObjectUntilItsStopHasReturned) {
    struct Stubborn : PoolWorker {
        using PoolWorker::PoolWorker;
        void waitForExit() override {
            if (!std::exchange(asked, true))
                throw 1;
            PoolWorker::waitForExit();
            while (!gone)
                std::this_thread::yield();
            asked = false;  // still there
        }
        void exit() override { gone = true; }
        bool asked = false;
        std::atomic<bool> gone{false};
    };
    const RecordingService service;
    ZThreadPool pool(3, 3);
    for (int i = 0; i < 3; ++i)
        launch(pool, *new Stubborn([] {}));
    for (PoolWorker* worker : {&takeIdle(pool), &takeIdle(pool), &takeIdle(pool)})
        giveBack(pool, *worker), giveBack(pool, *worker);  // idle already: isn't counted again
    pool.waitForExit();
    EXPECT_EQ(service.reports(), (Reports{"19", "19", "19"}));
    awaitDeletions();
}

TEST(ThreadPool, HandsOutNoSleeperThatWorksUnaskedOrIsAtItsEnd) {
    ZThreadPool pool(2, 2);
    Gate atWork, leave, atExit, leaveExit;
    Worker worker(
        1, 0, 0, [&] { atWork.open(), leave.await(); }, [&] { atExit.open(), leaveExit.await(); });
    ZThread* thread;
    launch(pool, worker), atWork.await(), leave.open();
    while (!pool.getAvailableIdleThread(thread))
        std::this_thread::yield();
    giveBack(pool, worker);
    worker.wakeUp(), atWork.await();  // past the pool
    EXPECT_EQ(pool.getAvailableIdleThread(thread), nullptr);
    leave.open();
    while (!pool.getAvailableIdleThread(thread))
        std::this_thread::yield();
    giveBack(pool, worker);
    worker.waitForExit();  // likewise
    EXPECT_EQ(pool.getAvailableIdleThread(thread), nullptr);
    atExit.await();
    leaveExit.open();
    pool.waitForExit();
}

#if CAN_UNWIND
TEST(ThreadPool, HearsOfThreadsThatAreCancelledIdleOrUnwindFromTheirWork) {
    ZThreadPool pool(1, 1);
    launch(pool, *new PoolWorker([] {}));
    PoolWorker& idle = takeIdle(pool);
    const pthread_t id = idle.getPThreadID();
    giveBack(pool, idle);
    pthread_cancel(id);
    awaitDeletions();
    ZThread* thread;
    EXPECT_EQ(pool.getAvailableIdleThread(thread), nullptr);
    for (int i = 0; i < 50; ++i) {
        submit(pool, [] { pthread_exit(nullptr); });
        submit(pool, [] { pthread_cancel(pthread_self()), pthread_testcancel(); });
    }
    pool.waitForExit();
    awaitDeletions();
}

TEST(ThreadPool, IsAsBeforeWhenAWaitingCallerIsCancelled) {
    ZThreadPool pool(1, 1);
    Gate atWork, leave;
    submit(pool, [&] { atWork.open(), leave.await(); });
    atWork.await();
    Plain late([] {});
    const Action calls[] = {[&] { pool.waitForExit(); }, [&] { pool.start(late); }};
    for (const Action& call : calls) {
        Gate begun;
        Plain caller([&] { begun.open(), call(); }, [] {}, [] {}, 0);
        caller.start(), begun.await();
        pthread_cancel(caller.getPThreadID());
        caller.waitForExit();
    }
    leave.open();
    takeIdle(pool).wakeUpFor([] {});  // the limit of idle threads is back, the mutex free
    pool.waitForExit();
    awaitDeletions();
}
#endif

TEST(ThreadPool, DoesNotHangOnSleepersThatShareALockAndAskThePoolFromTheirWork) {
    ZLock lock;
    ZThreadPool pool(4, 4);
    std::atomic<int> done(0);
    const Action job = [&] {
        ZThread* next;
        if (pool.getAvailableIdleThread(next))
            static_cast<Worker*>(next)->wakeUp();  // itself never: it isn't idle
        ++done;
    };
    std::vector<std::unique_ptr<Worker>> workers;
    for (int i = 0; i < 4; ++i) {
        workers.emplace_back(new Worker(lock, job));
        launch(pool, *workers.back());
    }
    while (done < 50) {
        ZThread* thread;
        if (pool.getAvailableIdleThread(thread))
            static_cast<Worker*>(thread)->wakeUp();
        else
            std::this_thread::yield();
    }
    pool.waitForExit();
    for (auto& worker : workers)  // the pool has joined those that it found idle
        raisedBy<ZThreadException>([&] { worker->ZThread::waitForExit(); });
}

TEST(ThreadPool, StartsAnObjectAgainOnceItsEarlierThreadHasEnded) {
    ZThreadPool pool(2, 1);
    Gate atWork, leave;
    PoolWorker worker([&] { atWork.open(), leave.await(); }, 0);
    for (int round = 0; round < 50; ++round) {
        launch(pool, worker);
        atWork.await(), leave.open();
        worker.waitForExit();  // doesn't wait for the end: it is detached
    }
    pool.waitForExit();
}

}  // namespace
