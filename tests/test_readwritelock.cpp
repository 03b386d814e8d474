// The read/write lock among threads: its table of states, each row from its state, and what threads
// do to each other through it.
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "Z/ZReadWriteLock.h"
#include "support/Asleep.h"
#include "support/ExceptionNumber.h"
#include "support/RecordingService.h"

namespace {

using Lock = ZReadWriteLock;
using State = ZReadWriteLockInterface::zlockstate;
const State unset = Lock::unset, read = Lock::read, protect = Lock::protect, write = Lock::write;

State stateOf(const ZAbstractReadWriteLock& lock) {
    for (State state : {unset, read, protect, write}) {
        if (lock.haveLock(state))
            return state;
    }
    return static_cast<State>(-1);
}

// What a request came to.
enum Outcome { granted, waits, raises5, raises6 };

enum Request { readLock, protectLock, promoteLock, writeLock, unlock };

void request(ZAbstractReadWriteLock& lock, Request what) {
    switch (what) {
        case readLock: return lock.readLock();
        case protectLock: return lock.readWithIntentToWriteLock();
        case promoteLock: return lock.promoteReadToWriteLock();
        case writeLock: return lock.writeLock();
        case unlock: return lock.unlock();
    }
}

// A thread that does what it is told, so that a test can hold locks in several.
class Hand {
public:
    Hand() : thread_([this] { work(); }) {}
    ~Hand() {
        give(nullptr);
        thread_.join();
    }

    // Begins an action; the future tells the number that it raised, or 0.
    std::future<int> begin(std::function<void()> action) {
        auto task = std::make_shared<std::packaged_task<int()>>([action] { return numberOf(action); });
        std::future<int> result = task->get_future();
        give([task] { (*task)(); });
        return result;
    }
    int run(std::function<void()> action) { return begin(action).get(); }

private:
    void give(std::function<void()> task) {
        const std::lock_guard<std::mutex> guard(mutex_);
        tasks_.push_back(task);
        condition_.notify_one();
    }
    void work() {
        for (;;) {
            std::function<void()> task;
            {
                std::unique_lock<std::mutex> guard(mutex_);
                condition_.wait(guard, [this] { return !tasks_.empty(); });
                task = tasks_.front();
                tasks_.erase(tasks_.begin());
            }
            if (!task)
                return;
            task();
        }
    }

    std::mutex mutex_;
    std::condition_variable condition_;
    std::vector<std::function<void()>> tasks_;
    std::thread thread_;
};

bool done(std::future<int>& result) {
    return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

// Begins a request that is expected to wait, and comes back once its thread sleeps.
std::future<int> beginWaiting(Hand& hand, std::function<void()> action) {
    std::promise<pid_t> id;
    std::future<pid_t> known = id.get_future();
    std::future<int> result = hand.begin([&id, action] {
        id.set_value(gettid());
        action();
    });
    untilAsleep(getpid(), known.get());
    return result;
}

struct Row {
    const char* name;
    State state;      // that the lock is brought into
    int readers;      // other threads that read then
    bool byCaller;    // the caller is who holds protect or write
    Request what;
    Outcome outcome;
    State after;      // where granted
    int readersAfter;
};

// The lock is brought into the row's state by the caller or a second thread, and a third one takes
// the read locks. In write with readers the second thread is one that promotes and waits for them.
const Row kRows[] = {
    {"UnsetRead", unset, 0, false, readLock, granted, read, 1},
    {"UnsetProtect", unset, 0, false, protectLock, granted, protect, 0},
    {"UnsetPromote", unset, 0, false, promoteLock, raises5, unset, 0},
    {"UnsetWrite", unset, 0, false, writeLock, granted, write, 0},
    {"UnsetUnlock", unset, 0, false, unlock, raises6, unset, 0},
    {"ReadRead", read, 1, false, readLock, granted, read, 2},
    {"ReadProtect", read, 2, false, protectLock, granted, protect, 2},
    {"ReadPromote", read, 1, false, promoteLock, raises5, read, 1},
    {"ReadWrite", read, 1, false, writeLock, waits, read, 1},
    {"ReadUnlockLast", read, 1, false, unlock, granted, unset, 0},
    {"ReadUnlock", read, 2, false, unlock, granted, read, 1},
    {"ProtectRead", protect, 0, false, readLock, granted, protect, 1},
    {"ProtectReadBehindReaders", protect, 2, false, readLock, granted, protect, 3},
    {"ProtectProtect", protect, 0, false, protectLock, waits, protect, 0},
    {"ProtectPromoteByAnother", protect, 0, false, promoteLock, raises5, protect, 0},
    {"ProtectWrite", protect, 0, false, writeLock, waits, protect, 0},
    {"ProtectUnlockByAReader", protect, 1, false, unlock, granted, protect, 0},
    {"ProtectUnlockByNobody", protect, 0, false, unlock, raises6, protect, 0},
    {"OwnProtectRead", protect, 0, true, readLock, raises5, protect, 0},
    {"OwnProtectProtect", protect, 1, true, protectLock, raises5, protect, 1},
    {"OwnProtectPromote", protect, 0, true, promoteLock, granted, write, 0},
    {"OwnProtectPromoteOverReaders", protect, 1, true, promoteLock, waits, write, 1},
    {"OwnProtectWrite", protect, 0, true, writeLock, raises5, protect, 0},
    {"OwnProtectUnlock", protect, 0, true, unlock, granted, unset, 0},
    {"OwnProtectUnlockOverReaders", protect, 2, true, unlock, granted, read, 2},
    {"WriteRead", write, 0, false, readLock, waits, write, 0},
    {"WriteProtect", write, 0, false, protectLock, waits, write, 0},
    {"WritePromoteByAnother", write, 0, false, promoteLock, raises5, write, 0},
    {"WriteWrite", write, 0, false, writeLock, waits, write, 0},
    {"WriteUnlockByNobody", write, 0, false, unlock, raises6, write, 0},
    {"DrainingRead", write, 1, false, readLock, waits, write, 1},
    {"DrainingProtect", write, 1, false, protectLock, waits, write, 1},
    {"DrainingWrite", write, 1, false, writeLock, waits, write, 1},
    {"DrainingUnlockByAReader", write, 2, false, unlock, granted, write, 1},
    {"OwnWriteRead", write, 0, true, readLock, raises5, write, 0},
    {"OwnWriteProtect", write, 0, true, protectLock, raises5, write, 0},
    {"OwnWritePromote", write, 0, true, promoteLock, raises5, write, 0},
    {"OwnWriteWrite", write, 0, true, writeLock, raises5, write, 0},
    {"OwnWriteUnlock", write, 0, true, unlock, granted, unset, 0},
};

class Transition : public testing::TestWithParam<Row> {};

TEST_P(Transition, EndsAsTheTableSays) {
    const Row& row = GetParam();
    Lock lock;
    Hand caller, other, reader;
    for (int i = 0; i < row.readers; ++i)
        reader.run([&] { lock.readLock(); });
    Hand& holder = row.byCaller ? caller : other;
    std::future<int> promoted;
    if (row.state == protect || row.state == write)
        holder.run([&] { lock.readWithIntentToWriteLock(); });
    if (row.state == write && row.readers > 0)
        promoted = beginWaiting(holder, [&] { lock.promoteReadToWriteLock(); });
    else if (row.state == write)
        holder.run([&] { lock.promoteReadToWriteLock(); });
    ASSERT_EQ(stateOf(lock), row.state);

    const auto action = [&] { request(lock, row.what); };
    std::future<int> result =
        row.outcome == waits ? beginWaiting(caller, action) : caller.begin(action);
    if (row.outcome == waits) {
        EXPECT_FALSE(done(result));
    } else {
        EXPECT_EQ(result.get(), row.outcome == granted ? 0 : row.outcome == raises5 ? 5 : 6);
    }
    EXPECT_EQ(stateOf(lock), row.after);
    EXPECT_EQ(lock.getReaderCount(), row.readersAfter);

    // What waits is granted once the others have left.
    if (row.outcome == waits || promoted.valid()) {
        for (int i = lock.getReaderCount(); i > 0; --i)
            EXPECT_EQ(reader.run([&] { lock.unlock(); }), 0);
        EXPECT_EQ(promoted.valid() ? promoted.get() : 0, 0);
    }
    if (row.outcome == waits) {
        if (!row.byCaller && row.state != read)
            other.run([&] { lock.unlock(); });
        EXPECT_EQ(result.get(), 0);
        EXPECT_EQ(stateOf(lock), row.what == readLock      ? read
                                 : row.what == protectLock ? protect
                                                           : write);
    }
}

INSTANTIATE_TEST_SUITE_P(Table, Transition, testing::ValuesIn(kRows),
                         [](const testing::TestParamInfo<Row>& info) { return info.param.name; });

TEST(ReadWriteLock, WrongUseCarriesReturnCodeZero) {
    Lock lock;
    EXPECT_EQ(raisedBy<ZUnlockResourceException>([&] { lock.unlock(); }), "6/0");
    EXPECT_EQ(raisedBy<ZLockResourceException>([&] { lock.promoteReadToWriteLock(); }), "5/0");
    lock.lock();
    EXPECT_EQ(stateOf(lock), write) << "lock() takes it to write";
    EXPECT_EQ(raisedBy<ZLockResourceException>([&] { lock.lock(read); }), "5/0");
    lock.lock(unset);
    lock.lock(static_cast<State>(4));
    EXPECT_EQ(stateOf(lock), unset);
}

TEST(ReadWriteLock, PromotionStopsNewReadersAndWaitsForTheOldOnes) {
    Lock lock;
    Hand promoter, oldReader, newReader;
    oldReader.run([&] { lock.readLock(); });
    promoter.run([&] { lock.readWithIntentToWriteLock(); });
    std::future<int> promoted = beginWaiting(promoter, [&] { lock.promoteReadToWriteLock(); });
    std::future<int> entered = beginWaiting(newReader, [&] { lock.readLock(); });
    EXPECT_FALSE(done(promoted));
    EXPECT_EQ(lock.getReaderCount(), 1);
    EXPECT_EQ(oldReader.run([&] { lock.unlock(); }), 0);
    EXPECT_EQ(promoted.get(), 0);
    EXPECT_FALSE(done(entered));
    promoter.run([&] { lock.unlock(); });
    EXPECT_EQ(entered.get(), 0);
}

TEST(ReadWriteLock, AWaitingWriterIsOvertakenByReaders) {
    Lock lock;
    Hand writer, first, second;
    first.run([&] { lock.readLock(); });
    std::future<int> wrote = beginWaiting(writer, [&] { lock.writeLock(); });
    EXPECT_EQ(second.run([&] { lock.readLock(); }), 0);
    first.run([&] { lock.unlock(); });
    EXPECT_FALSE(done(wrote));
    second.run([&] { lock.unlock(); });
    EXPECT_EQ(wrote.get(), 0);
}

TEST(ReadWriteLock, RemembersItsLastOwnerUntilAnotherOneComes) {
    Lock lock;
    Hand first, second;
    const auto owns = [&](Hand& hand) {
        int result = -1;
        hand.run([&] { result = lock.ownWriteLock(); });
        return result;
    };
    EXPECT_EQ(owns(first), 0);
    first.run([&] { lock.writeLock(), lock.unlock(); });
    EXPECT_EQ(owns(first), 1);
    second.run([&] { lock.readLock(); });
    EXPECT_EQ(owns(first), 1);
    EXPECT_EQ(first.run([&] { lock.readLock(), lock.unlock(); }), 0) << "remembered isn't held";
    second.run([&] { lock.readWithIntentToWriteLock(); });
    EXPECT_EQ(owns(first), 0);
    EXPECT_EQ(owns(second), 1);
}

TEST(ReadWriteLock, CopiesAreFreeAndHaveTheObservers) {
    struct Observer : ZObserverInterface {
        void update(ZObservableInterface*, const ZObservedParm&) override {}
    } observer;
    Lock held;
    held.addObserver(&observer);
    held.writeLock();
    Lock copy(held);
    EXPECT_EQ(stateOf(copy), unset);
    EXPECT_EQ(copy.countObservers(), 1u);
    EXPECT_EQ(copy.ownWriteLock(), 0);
    held.unlock();
}

// Threads in all modes on two words that writers keep equal. A hole in the exclusion shows as
// unequal words or to the race detector; a lost wake-up as a test that never ends.
TEST(ReadWriteLock, KeepsWritersAloneAmongThreadsInAllModes) {
    Lock lock;
    int words[2] = {0, 0};
    const int rounds = 3000;
    const auto change = [&] { ++words[0], ++words[1]; };
    std::atomic<int> unequal{0};
    const auto look = [&] { unequal += words[0] != words[1]; };
    std::vector<std::thread> team;
    for (int t = 0; t < 2; ++t) {
        team.emplace_back([&] {
            for (int i = 0; i < rounds; ++i) {
                lock.writeLock();
                change();
                lock.unlock();
            }
        });
        team.emplace_back([&] {
            for (int i = 0; i < rounds; ++i) {
                lock.readWithIntentToWriteLock();
                look();
                if (i % 2 == 0) {
                    lock.promoteReadToWriteLock();
                    change();
                }
                lock.unlock();
            }
        });
        team.emplace_back([&] {
            for (int i = 0; i < rounds; ++i) {
                lock.readLock();
                look();
                lock.unlock();
            }
        });
    }
    for (std::thread& thread : team)
        thread.join();
    EXPECT_EQ(unequal, 0);
    EXPECT_EQ(words[0], 2 * rounds + rounds);
    EXPECT_EQ(words[1], words[0]);
    EXPECT_EQ(stateOf(lock), unset);
}

TEST(ReadWriteLock, ACancelledWaiterLeavesTheStateAlone) {
    Lock lock;
    lock.writeLock();
    struct Waiter {
        Lock& lock;
        std::promise<pid_t> id;
    } waiter{lock, {}};
    std::future<pid_t> known = waiter.id.get_future();
    pthread_t thread;
    pthread_create(
        &thread, nullptr,
        [](void* argument) -> void* {
            Waiter& self = *static_cast<Waiter*>(argument);
            self.id.set_value(gettid());
            self.lock.writeLock();
            return nullptr;
        },
        &waiter);
    untilAsleep(getpid(), known.get());
    pthread_cancel(thread);
    void* result;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(stateOf(lock), write);
    lock.unlock();
    EXPECT_EQ(stateOf(lock), unset);
    lock.writeLock();
    lock.unlock();
}

TEST(StackReadWriteLock, GivesUpWhatIsHeldAndPassesCallsOn) {
    Lock lock;
    {
        ZStackReadWriteLock scope(lock, 1);
        EXPECT_EQ(stateOf(lock), unset);
        scope.readWithIntentToWriteLock();
        scope.promoteReadToWriteLock();
        EXPECT_EQ(stateOf(lock), write);
        scope.unlock(0);
        scope.readLock();
        EXPECT_EQ(&scope.getReadWriteLock(), &lock);
    }
    EXPECT_EQ(stateOf(lock), unset);
}

TEST(StackReadWriteLock, RaisesWithNothingHeldAndReportsDuringAnException) {
    Lock lock;
    const RecordingService service;
    EXPECT_EQ(numberOf([&] { ZStackReadWriteLock scope(lock, 0); }), 6);
    EXPECT_TRUE(service.reports().empty());
    try {
        ZStackReadWriteLock scope(lock, 0);
        throw 1;
    } catch (int) {
    }
    EXPECT_EQ(service.reports(), std::vector<std::string>{"raised 6/0"});
}

}  // namespace
