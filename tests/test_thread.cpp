// Threads and sleepers: how they begin, are woken and end. They start through ZThread, some through
// std::thread. What the system makes fail is in fault/.
#include "support/Prelude.h"

#include <limits>

#include "support/Raised.h"
#include "support/Runner.h"
#include "support/Threads.h"

namespace {

std::string joinResult(ZThread& thread) {
    return raisedBy<ZThreadException>([&] { thread.waitForExit(); });
}

struct Known : ZThread {
    using ZThread::ZThread;
    void run() override {}
};

TEST(Thread, IsItsId) {
    const pthread_t high = std::numeric_limits<pthread_t>::max();
    const Known a(7), same(7), b(high), fresh(0, 0), other(0, 0);
    EXPECT_EQ(a.compare(same), 0);
    EXPECT_EQ(a.compare(b), -1);
    EXPECT_EQ(b.compare(a), 1);
    EXPECT_EQ(fresh.compare(other), 0);  // neither is a thread yet
    EXPECT_EQ(raisedBy<ZNotClonableException>([&] { a.clone(); }), "14");
}

TEST(Thread, IsJoinedOnce) {
    const std::string none = "20/" + std::to_string(ESRCH);
    pthread_t id = 0;
    Runner thread(0, 1, [&] { id = pthread_self(); });
    EXPECT_EQ(joinResult(thread), none) << "never started";
    for (int i = 0; i < 2; ++i) {
        thread.start();
        EXPECT_EQ(joinResult(thread), "nothing");
        EXPECT_TRUE(pthread_equal(id, thread.getPThreadID()));
        EXPECT_EQ(joinResult(thread), none) << "joined already";
    }
    const auto empty = [](void*) -> void* { return nullptr; };
    ASSERT_EQ(pthread_create(&id, nullptr, empty, nullptr), 0);
    Known known(id);
    EXPECT_EQ(joinResult(known), "nothing");
    EXPECT_EQ(joinResult(known), none);
}

#if CAN_JOIN_AGAIN
TEST(Thread, CanBeJoinedAfterItJoinedItselfOrItsJoinerWasCancelled) {
    std::string result;
    Gate leave, joining;
    Runner thread(0, 0, [&] { result = joinResult(thread), joining.open(), leave.await(); });
    thread.start(), joining.await();
    EXPECT_EQ(result, "20/" + std::to_string(EDEADLK));
#if CAN_UNWIND
    Runner joiner(0, 0, [&] { joining.open(), thread.waitForExit(); });
    joiner.start(), joining.await();
    pthread_cancel(joiner.getPThreadID());
    joiner.waitForExit();
#endif
    leave.open();
    EXPECT_EQ(joinResult(thread), "nothing");
}
#endif

struct Ending {
    const char* what;
    Action body;
    Reports reports;
    bool unwinds;  // without an exception
};

const Ending kEndings[] = {
    {"returns", nothing, {}, false},
    {"raises",
     [] { ZLockResourceException(5, 3).throwException(__FILE__, __LINE__); },
     {"raised 5/3"},
     false},
    {"raises something else", [] { throw 1; }, {"19"}, false},
    {"pthread_exit", [] { pthread_exit(nullptr); }, {}, true},
    {"is cancelled", [] { pthread_cancel(pthread_self()), pthread_testcancel(); }, {}, true},
};

TEST(Thread, EndsInOrderWhateverItsBodyAndItsExitDo) {
    struct Ordered : Runner {
        Ordered(Action body, Action atExit, std::string& log, Gate& gone)
            : Runner(1, 1, body, atExit), log_(log), gone_(gone) {}
        ~Ordered() noexcept(false) override { log_ += "deleted", gone_.open(); }
        void exit() override { log_ += "exit ", Runner::exit(); }
        std::string& log_;
        Gate& gone_;
    };
    std::string log;
    Gate gone;
    for (const Ending& ending : kEndings) {
        for (const Ending& atExit : kEndings) {
            // What ends a thread a second time ends the process.
            if ((atExit.unwinds && ending.unwinds) ||
                (!CAN_UNWIND && (atExit.unwinds || ending.unwinds)))
                continue;
            SCOPED_TRACE(std::string(ending.what) + ", at exit " + atExit.what);
            Reports reports = ending.reports;
            reports.insert(reports.end(), atExit.reports.begin(), atExit.reports.end());
            const RecordingService service;
            log.clear();
            (new Ordered(ending.body, atExit.body, log, gone))->start();
            gone.await();
            EXPECT_EQ(log, "exit deleted");
            EXPECT_EQ(service.reports(), reports);
        }
    }
}

TEST(Thread, IsNotWaitedForWhenDetachedAndTouchesItsObjectNoMoreAfterItsExit) {
    Gate leave, over;
    for (int i = 0; i < 200; ++i) {
        const auto thread = std::make_unique<Runner>(
            1, 0, [&] { leave.await(); }, [&] { over.open(); });
        thread->start(), thread->waitForExit();
        leave.open(), over.await();
    }
}

TEST(ThreadObjects, DieWithTheirThread) {
    struct Member : ZObject {
        explicit Member(std::string& log, char name) : log_(log), name_(name) {}
        ~Member() noexcept(false) override {
            if ((log_ += name_).back() == '!')
                throw 1;
        }
        std::string& log_;
        const char name_;
    };
    const RecordingService service;
    std::string log;
    unsigned int first, second;
    ZThread::createThreadKey(first);
    ZThread::createThreadKey(second);
    Known replaced(0, 0);
    Runner thread(0, 0, [&] {
        EXPECT_EQ(ZThread::getThreadObject(first), nullptr);
        ZThread::setThreadObject(first, &replaced);
        ZThread::setThreadObject(first, new Member(log, 'k'));
        EXPECT_NE(ZThread::getThreadObject(first), nullptr);
        ZThread::setThreadObject(second, nullptr);
    });
    Runner raising(0, 0, [&] { ZThread::setThreadObject(second, new Member(log, '!')); });
    for (Runner* runner : {&thread, &raising})
        runner->start(), runner->waitForExit();
    EXPECT_EQ(ZThread::getThreadObject(first), nullptr) << "of another thread";
    ZThread::key_delete_routine(nullptr);
    EXPECT_EQ(log, "k!");
    EXPECT_EQ(service.reports(), Reports{"19"});
    pthread_key_delete(first);
    pthread_key_delete(second);
}

TEST(Sleeper, ServesWakeUpsBeforeRightAfterAndDuringWork) {
    Gate atWork, leave;
    Worker worker([&] { atWork.open(), leave.await(); });
    worker.wakeUp();  // before there is a thread
    worker.start(), atWork.await();
    Gate woken;
    std::thread waker([&] { worker.wakeUp(), woken.open(); });
    EXPECT_EQ(woken.opened(), 0) << "must wait for the work";
    leave.open();
    worker.done.reach(1);
    atWork.await();  // once more, for the wake-up that waited
    woken.await(), leave.open();
    worker.done.reach(2);
    waker.join();
    for (int i = 3; i < 300; ++i)
        worker.wakeUp(), leave.open(), worker.done.reach(i);
    worker.waitForExit();
    for (int i = 0; i < 200; ++i) {  // at once after start
        Worker fresh;
        fresh.start(), fresh.wakeUp(), fresh.done.await();
        fresh.waitForExit();
        EXPECT_EQ(fresh.done.opened(), 1);
    }
}

TEST(Sleeper, CanNeitherWakeNorStartItselfFromItsWork) {
    std::string result;
    Worker worker([&] {
        worker.wakeUp();
        result = raisedBy<ZThreadException>([&] { worker.start(); });
    });
    worker.start();
    for (int i = 1; i < 50; ++i)
        worker.wakeUp(), worker.done.reach(i);
    worker.waitForExit();
    EXPECT_EQ(worker.done.opened(), 49);
    EXPECT_EQ(result, "17/" + std::to_string(EDEADLK));
}

TEST(Sleeper, WorksAloneAmongThoseOfOneLock) {
    ZLock lock;
    int inside = 0, most = 0, jobs = 0;  // guarded by lock
    const Action body = [&] {
        most = std::max(most, ++inside);
        std::this_thread::yield();
        ++jobs, --inside;
    };
    std::vector<std::unique_ptr<Worker>> team;
    for (int i = 0; i < 4; ++i)
        team.emplace_back(new Worker(lock, body));
    lock.lock();
    for (auto& worker : team)  // a start doesn't wait for the lock, which is ours
        worker->start(), worker->wakeUp();
    lock.unlock();
    for (auto& worker : team)
        worker->done.reach(1);
    for (auto& worker : team)
        worker->waitForExit();
    EXPECT_EQ(most, 1);
    EXPECT_EQ(jobs, 4);
}

#if CAN_JOIN_AGAIN
// While work() waits, others have the lock: a wake-up counts, and so does a stop behind it.
TEST(Sleeper, HearsOthersWhileItsWorkWaitsAndDropsTheirWakeUpForAStop) {
    for (bool stops : {false, true}) {
        ZLock lock;
        ZBooleanCondition go(lock);
        Gate waiting;
        Worker worker(lock, [&] {
            waiting.open();
            go.wait();
            if (stops && waiting.opened() == 1) {
                EXPECT_EQ(joinResult(worker), "20/" + std::to_string(EDEADLK));
                waiting.open();
            }
        });
        worker.start(), worker.wakeUp();
        waiting.await();
        lock.lock();
        worker.wakeUp(), go.setCondition(1), go.signal();
        lock.unlock();
        waiting.await();
        if (stops) {
            worker.ZThread::waitForExit();
            EXPECT_EQ(worker.done.opened(), 1);
            worker.start(), worker.wakeUp();
        }
        worker.done.reach(2);
        worker.waitForExit();
        EXPECT_EQ(worker.done.opened(), 2) << "what the stop dropped isn't served later";
    }
}
#endif

TEST(Sleeper, KeepsAStopRequestThatADetachedThreadHasNotSeen) {
    Gate atWork, leave, over;
    Worker worker(
        1, 0, 0, [&] { atWork.open(), leave.await(); }, [&] { over.open(); });
    for (int round = 1; round <= 20; ++round) {
        worker.start();  // waits for the end of the run before
        worker.wakeUp(), atWork.await(), leave.open();
        worker.waitForExit(), worker.reset();
        EXPECT_EQ(worker.done.opened(), round);
    }
    over.reach(20);
    EXPECT_EQ(worker.done.opened(), 20);
}

TEST(Sleeper, IsStartedAgainBehindItsExitUnlessTheStarterIsCancelledBefore) {
    for (bool cancels : {false, true}) {
        if (cancels && !CAN_UNWIND)
            continue;
        const RecordingService service;
        Gate atExit, leave;
        Worker worker(
            0, 0, 0, [] { throw 1; }, [&] { atExit.open(), leave.await(); });
        worker.start(), worker.wakeUp(), atExit.await();
        std::atomic<bool> started(false);
        std::thread starter = startAsleep([&] { worker.start(), started = true; });
        EXPECT_FALSE(started);
        if (cancels)
            pthread_cancel(starter.native_handle());
        leave.open();
        starter.join();
        EXPECT_EQ(started, !cancels);
        if (cancels)
            worker.start();
        leave.open();
        worker.waitForExit();
        EXPECT_EQ(service.reports(), Reports{"19"});
    }
}

TEST(Sleeper, LeavesItsLockFreeHoweverItEndsAndStartsAgain) {
    for (const Ending& ending : kEndings) {
        if ((ending.reports.empty() && !ending.unwinds) || (ending.unwinds && !CAN_UNWIND))
            continue;
        SCOPED_TRACE(ending.what);
        const RecordingService service;
        ZLock lock;
        bool ends = true;
        Worker worker(lock, [&] { (ends ? ending.body : nothing)(); });
        worker.start(), worker.wakeUp();
        worker.ZThread::waitForExit();
        EXPECT_EQ(service.reports(), ending.reports);
        EXPECT_EQ(worker.done.opened(), 0);
        std::thread([&] { lock.lock(), lock.unlock(); }).join();
        ends = false;
        worker.start(), worker.wakeUp(), worker.done.await();
        worker.waitForExit();
    }
}

TEST(Sleeper, WaitsForWakeUpsThroughAPeriodThatHasNoDate) {
    Worker worker(0, 0, std::numeric_limits<unsigned long>::max(), nothing);
    worker.start();
    for (int i = 1; i <= 3; ++i)
        worker.wakeUp(), worker.done.reach(i);
    worker.waitForExit();
    EXPECT_EQ(worker.done.opened(), 3);
}

TEST(Sleeper, DeletesItselfUnderTheHandsOfWhoStartsWakesAndStopsIt) {
    const int workers = 300;
    std::atomic<int> alive(workers);
    struct Counted : Worker {
        explicit Counted(std::atomic<int>& alive)
            : Worker(1, 1, 0, [] { throw 1; }), alive_(alive) {}
        ~Counted() noexcept(false) override { --alive_; }
        std::atomic<int>& alive_;
    };
    const RecordingService service;
    for (int i = 0; i < workers; ++i) {
        auto* const worker = new Counted(alive);
        if (i % 3 == 0)
            worker->wakeUp();  // it may be gone before start() is over
        worker->start();
        if (i % 3 == 1)
            worker->waitForExit();
        if (i % 3 == 2)
            worker->wakeUp();
    }
    while (alive != 0)
        std::this_thread::yield();
    EXPECT_EQ(service.reports().size(), 200u);
}

}  // namespace
