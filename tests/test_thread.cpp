// Threads and sleepers: how they begin, are woken and end. They start through ZThread, some through
// std::thread. What the system makes fail is in fault/.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <limits>
#include <memory>
#include <thread>

#include "Z/ZThread.h"
#include "support/Gate.h"
#include "support/RecordingService.h"

namespace {

using Reports = std::vector<std::string>;
using Action = std::function<void()>;

void nothing() {}

// Waits to be cancelled.
void waitForCancellation() {
    static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    static pthread_cond_t never = PTHREAD_COND_INITIALIZER;
    struct Unlock {
        ~Unlock() { pthread_mutex_unlock(&mutex); }
    };
    pthread_mutex_lock(&mutex);
    const Unlock unlock;
    for (;;)
        pthread_cond_wait(&never, &mutex);
}

std::string joinResult(ZThread& thread) {
    return raisedBy<ZThreadException>([&] { thread.waitForExit(); });
}

// Runs `body`; writes down its end and its object's.
class Runner : public ZThread {
public:
    Runner(int detached, int autoDelete, Action body, Journal* journal = nullptr,
           Action atExit = nothing)
        : ZThread(detached, autoDelete), body_(body), atExit_(atExit), journal_(journal) {}
    ~Runner() noexcept(false) override {
        if (journal_)
            journal_->add("deleted");
    }
    void run() override { body_(); }
    void exit() override {
        Journal* const journal = journal_;
        const Action atExit = atExit_;
        if (journal)
            journal->add("exit");
        atExit();
    }

private:
    const Action body_, atExit_;
    Journal* const journal_;
};

TEST(Thread, IsItsId) {
    struct Known : ZThread {
        using ZThread::ZThread;
        void run() override {}
    };
    const pthread_t high = std::numeric_limits<pthread_t>::max();
    const Known a(7), same(7), b(high), fresh(0, 0), other(0, 0);
    EXPECT_EQ(a.compare(same), 0);
    EXPECT_EQ(a.hash(), same.hash());
    EXPECT_EQ(a.hash(), 7u);
    EXPECT_EQ(a.compare(b), -1);
    EXPECT_EQ(b.compare(a), 1);
    EXPECT_EQ(b.getPThreadID(), high);
    EXPECT_NE(fresh.compare(other), 0);
    EXPECT_EQ(raisedBy<ZNotClonableException>([&] { a.clone(); }), "14");
}

TEST(Thread, JoinsOnceWhatItHasStarted) {
    Journal journal;
    pthread_t id = 0;
    std::unique_ptr<Runner> thread;
    thread.reset(new Runner(0, 1, [&] { id = pthread_self(), journal.add("run"); }, &journal));
    EXPECT_EQ(joinResult(*thread), "20/" + std::to_string(ESRCH)) << "never started";
    for (int i = 0; i < 2; ++i) {
        thread->start();
        EXPECT_EQ(joinResult(*thread), "nothing");
        EXPECT_TRUE(pthread_equal(id, thread->getPThreadID()));
        EXPECT_EQ(joinResult(*thread), "20/" + std::to_string(ESRCH)) << "joined already";
    }
    EXPECT_EQ(journal.text(), "run exit run exit") << "a joinable thread deletes nothing";

    struct Known : ZThread {
        using ZThread::ZThread;
        void run() override {}
    };
    pthread_t foreign;
    ASSERT_EQ(pthread_create(&foreign, nullptr, [](void*) -> void* { return nullptr; }, nullptr), 0);
    Known known(foreign);
    EXPECT_EQ(joinResult(known), "nothing");
    EXPECT_EQ(joinResult(known), "20/" + std::to_string(ESRCH));
}

TEST(Thread, DoesNotWaitForADetachedOne) {
    Gate leave;
    Journal journal;
    Runner thread(1, 0, [&] { leave.await(); }, &journal);
    thread.start();
    thread.waitForExit();
    EXPECT_EQ(journal.text(), "");
    leave.open();
    journal.awaitEnd("exit");
}

#if CAN_JOIN_AGAIN
TEST(Thread, CanBeJoinedAfterItTriedToJoinItself) {
    std::string result;
    Gate tried;
    Runner own(0, 0, [&] { result = joinResult(own), tried.open(); });
    own.start();
    tried.await();
    EXPECT_EQ(joinResult(own), "nothing");
    EXPECT_EQ(result, "20/" + std::to_string(EDEADLK));
}
#endif

#if CAN_JOIN_AGAIN && CAN_UNWIND
TEST(Thread, CanBeJoinedAfterACancelledJoin) {
    Gate leave, joining;
    Runner thread(0, 0, [&] { leave.await(); });
    Runner joiner(0, 0, [&] { joining.open(), thread.waitForExit(); });
    thread.start();
    joiner.start();
    joining.await();
    pthread_cancel(joiner.getPThreadID());
    joiner.waitForExit();
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
    {"raises", [] { ZLockResourceException(5, 3).throwException(__FILE__, __LINE__); },
     {"raised 5/3"}, false},
    {"raises something else", [] { throw 1; }, {"19"}, false},
    {"pthread_exit", [] { pthread_exit(nullptr); }, {}, true},
    {"is cancelled", [] { pthread_cancel(pthread_self()), waitForCancellation(); }, {}, true},
};

TEST(Thread, EndsInOrderWhateverItsBodyAndItsExitDo) {
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
            Journal journal;
            (new Runner(1, 1, ending.body, &journal, atExit.body))->start();
            EXPECT_EQ(journal.awaitEnd("deleted"), "exit deleted");
            EXPECT_EQ(service.reports(), reports);

            Runner joinable(0, 0, ending.body, nullptr, atExit.body);
            joinable.start();
            EXPECT_EQ(joinResult(joinable), "nothing");
            const Reports once = reports;
            reports.insert(reports.end(), once.begin(), once.end());
            EXPECT_EQ(service.reports(), reports);
        }
    }
}

TEST(Thread, TouchesADetachedObjectNoMoreAfterItsExit) {
    for (int i = 0; i < 200; ++i) {
        Gate over;
        auto thread = std::make_unique<Runner>(1, 0, nothing, nullptr, [&] { over.open(); });
        thread->start();
        over.await();
        thread.reset();
    }
}

TEST(ThreadObjects, DieWithTheirThread) {
    class Member : public ZObject {
    public:
        Member(Journal& journal, const char* name) : journal_(journal), name_(name) {}
        ~Member() noexcept(false) override {
            journal_.add(name_);
            if (*name_ == '!')
                throw 1;
        }

    private:
        Journal& journal_;
        const char* const name_;
    };
    const RecordingService service;
    Journal journal;
    unsigned int first, second;
    ZThread::createThreadKey(first);
    ZThread::createThreadKey(second);
    Member replaced(journal, "replaced"), *seen = nullptr;
    const auto runBody = [](Action body) {
        Runner thread(0, 0, body);
        thread.start();
        thread.waitForExit();
    };
    runBody([&] {
        EXPECT_EQ(ZThread::getThreadObject(first), nullptr);
        ZThread::setThreadObject(first, &replaced);
        ZThread::setThreadObject(first, seen = new Member(journal, "kept"));
        ZThread::setThreadObject(second, nullptr);
        EXPECT_EQ(ZThread::getThreadObject(first), seen);
    });
    EXPECT_EQ(ZThread::getThreadObject(first), nullptr) << "of another thread";
    runBody([&] { ZThread::setThreadObject(second, new Member(journal, "!")); });
    ZThread::key_delete_routine(nullptr);
    EXPECT_EQ(journal.text(), "kept !");
    EXPECT_EQ(service.reports(), Reports{"19"});
    pthread_key_delete(first);
    pthread_key_delete(second);
}

// Counts its work, which begins with `body`.
class Worker : public ZSleeperThread {
public:
    explicit Worker(Action body = nothing) : body_(body) {}
    explicit Worker(ZLock& lock, Action body = nothing) : ZSleeperThread(lock), body_(body) {}
    Worker(int detached, int autoDelete, unsigned long timeout, Action body, Action atExit = nothing)
        : ZSleeperThread(detached, autoDelete, timeout), body_(body), atExit_(atExit) {}
    void work() override {
        body_();
        done.open();
    }
    void exit() override {
        const Action atExit = atExit_;
        atExit();
    }
    Gate done;

private:
    const Action body_, atExit_ = nothing;
};

TEST(Sleeper, ServesWakeUpsBeforeRightAfterAndDuringWork) {
    Gate atWork, leave;
    Worker worker([&] { atWork.open(), leave.await(); });
    worker.wakeUp();  // before there is a thread
    worker.start();
    atWork.await();
    Gate woken;
    std::thread waker([&] { worker.wakeUp(), woken.open(); });
    EXPECT_EQ(woken.opened(), 0) << "must wait for the work";
    leave.open();
    worker.done.reach(1);
    atWork.await();  // once more, for the wake-up that waited
    woken.await();
    leave.open();
    worker.done.reach(2);
    waker.join();
    for (int i = 3; i < 300; ++i) {
        worker.wakeUp();
        leave.open();
        worker.done.reach(i);
    }
    worker.waitForExit();
    for (int i = 0; i < 200; ++i) {  // at once after start
        Worker fresh;
        fresh.start();
        fresh.wakeUp();
        fresh.done.await();
        fresh.waitForExit();
        EXPECT_EQ(fresh.done.opened(), 1);
    }
}

TEST(Sleeper, CannotWakeItselfFromItsWork) {
    Worker worker([&] { worker.wakeUp(); });
    worker.start();
    for (int i = 1; i < 50; ++i) {
        worker.wakeUp();
        worker.done.reach(i);
    }
    worker.waitForExit();
    EXPECT_EQ(worker.done.opened(), 49);
}

TEST(Sleeper, HearsWhoeverWakesItWhileItsWorkWaits) {
    ZLock lock;
    ZBooleanCondition go(lock);
    Gate waiting;
    Worker worker(lock, [&] { waiting.open(), go.wait(); });
    worker.start();
    worker.wakeUp();
    waiting.await();
    {
        const ZResourceLock guard(lock);  // work() has given it up
        worker.wakeUp();
        go.setCondition(1);
        go.signal();
    }
    worker.done.reach(2);
    worker.waitForExit();
    EXPECT_EQ(worker.done.opened(), 2);
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
    for (auto& worker : team) {
        worker->start();  // doesn't wait for the lock, which is ours
        worker->wakeUp();
    }
    lock.unlock();
    for (auto& worker : team)
        worker->done.reach(1);
    for (auto& worker : team)
        worker->waitForExit();
    EXPECT_EQ(most, 1);
    EXPECT_EQ(jobs, 4);
}

#if CAN_JOIN_AGAIN
TEST(Sleeper, StopsWithoutFurtherWorkThoughItWasWokenAndStartsAgain) {
    ZLock lock;
    ZBooleanCondition go(lock);
    Gate waiting, tried;
    std::string join;
    Worker worker(lock, [&] {
        waiting.open();
        go.wait();
        if (join.empty()) {  // a stop request with the lock held since the wake-up
            join = joinResult(worker);
            tried.open();
        }
    });
    worker.start();
    worker.wakeUp();
    waiting.await();
    {
        const ZResourceLock guard(lock);
        worker.wakeUp();
        go.setCondition(1);
        go.signal();
    }
    tried.await();
    worker.ZThread::waitForExit();
    EXPECT_EQ(join, "20/" + std::to_string(EDEADLK));
    EXPECT_EQ(worker.done.opened(), 1);
    worker.start();
    worker.wakeUp();
    worker.done.reach(2);
    worker.waitForExit();
    EXPECT_EQ(worker.done.opened(), 2) << "what the stop dropped is not served later";
}
#endif

TEST(Sleeper, KeepsAStopRequestThatADetachedThreadHasNotSeen) {
    Gate atWork, leave, over;
    Worker worker(1, 0, 0, [&] { atWork.open(), leave.await(); }, [&] { over.open(); });
    for (int round = 1; round <= 20; ++round) {
        worker.start();  // waits for the end of the run before
        worker.wakeUp();
        atWork.await();
        leave.open();
        worker.waitForExit();
        worker.reset();
        EXPECT_EQ(worker.done.opened(), round);
    }
    over.reach(20);
    EXPECT_EQ(worker.done.opened(), 20);
}

TEST(Sleeper, CannotStartItselfAgain) {
    std::string result;
    Worker worker([&] { result = raisedBy<ZThreadException>([&] { worker.start(); }); });
    worker.start();
    worker.wakeUp();
    worker.done.await();
    worker.waitForExit();
    EXPECT_EQ(result, "17/" + std::to_string(EDEADLK));
}

TEST(Sleeper, LeavesItsLockFreeHoweverItEndsAndStartsAgain) {
    for (const Ending& ending : kEndings) {
        if ((ending.reports.empty() && !ending.unwinds) || (ending.unwinds && !CAN_UNWIND))
            continue;
        SCOPED_TRACE(ending.what);
        const RecordingService service;
        ZLock lock;
        bool ends = true;
        Worker worker(lock, [&] {
            if (ends)
                ending.body();
        });
        worker.start();
        worker.wakeUp();
        worker.ZThread::waitForExit();
        EXPECT_EQ(service.reports(), ending.reports);
        EXPECT_EQ(worker.done.opened(), 0);
        std::thread([&] { lock.lock(), lock.unlock(); }).join();
        ends = false;
        worker.start();
        worker.wakeUp();
        worker.done.await();
        worker.waitForExit();
    }
}

#if CAN_UNWIND
TEST(Sleeper, CanBeCancelledAsleep) {
    ZLock lock;
    Worker worker(lock);
    worker.start();
    std::thread([&] { lock.lock(), lock.unlock(); }).join();
    pthread_cancel(worker.getPThreadID());
    worker.ZThread::waitForExit();
    lock.lock();
    lock.unlock();
}
#endif

TEST(Sleeper, WorksByItsPeriodOrByWakeUps) {
    Worker second(0, 0, 1, nothing);
    second.start();
    second.done.reach(2);  // nobody wakes it
    second.waitForExit();

    Worker huge(0, 0, std::numeric_limits<unsigned long>::max(), nothing);  // no date is so far
    huge.start();
    for (int i = 1; i <= 3; ++i) {
        huge.wakeUp();
        huge.done.reach(i);
    }
    huge.waitForExit();
    EXPECT_EQ(huge.done.opened(), 3);
}

TEST(Sleeper, DeletesItselfUnderTheHandsOfWhoStartsWakesAndStopsIt) {
    std::atomic<int> alive(0);
    struct Counted : Worker {
        explicit Counted(std::atomic<int>& alive, Action body)
            : Worker(1, 1, 0, body), alive_(alive) {
            ++alive_;
        }
        ~Counted() noexcept(false) override { --alive_; }
        std::atomic<int>& alive_;
    };
    const RecordingService service;
    for (int i = 0; i < 300; ++i) {
        auto* const worker = new Counted(alive, [] { throw 1; });
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
