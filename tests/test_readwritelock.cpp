// The read/write lock among threads: its table of states, each row from its state, and what threads
// do to each other through it.
#include "support/Prelude.h"

#include <chrono>
#include <future>

#include "Z/ZReadWriteLock.h"
#include "support/Raised.h"
#include "support/Gate.h"
#include "support/Threads.h"

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
        auto task =
            std::make_shared<std::packaged_task<int()>>([action] { return numberOf(action); });
        std::future<int> result = task->get_future();
        give([task] { (*task)(); });
        return result;
    }
    int run(std::function<void()> action) { return begin(action).get(); }

private:
    void give(std::function<void()> task) { task_ = task, given_.open(); }
    void work() {
        for (;;) {
            given_.await();
            const std::function<void()> task = task_;
            if (!task)
                return;
            task();
        }
    }

    std::function<void()> task_;
    Gate given_;
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

// A state by its letter, and the number of threads that read.
std::string situationOf(Lock& lock) {
    return std::string(1, "URPW"[stateOf(lock)]) + std::to_string(lock.getReaderCount());
}

// What each request comes to: the situation after it, and the number that it raises, if not that it
// waits.
struct Row {
    const char* from;
    bool own;  // the caller is who holds protect or write
    const char* ends[5];
};

// The lock is brought into the row's state by the caller or a second thread, and a third one takes
// the read locks. In write with readers the second thread is one that promotes and waits for them.
// clang-format off
const Row kRows[] = {
    //            read        protect     promote     write       unlock
    {"U0", false, {"R1",       "P0",       "U0 5",     "W0",       "U0 6"}},
    {"R1", false, {"R2",       "P1",       "R1 5",     "R1 waits", "U0"}},
    {"R2", false, {"R3",       "P2",       "R2 5",     "R2 waits", "R1"}},
    {"P0", false, {"P1",       "P0 waits", "P0 5",     "P0 waits", "P0 6"}},
    {"P1", false, {"P2",       "P1 waits", "P1 5",     "P1 waits", "P0"}},
    {"P2", false, {"P3",       "P2 waits", "P2 5",     "P2 waits", "P1"}},
    {"P0", true,  {"P0 5",     "P0 5",     "W0",       "P0 5",     "U0"}},
    {"P1", true,  {"P1 5",     "P1 5",     "W1 waits", "P1 5",     "R1"}},
    {"P2", true,  {"P2 5",     "P2 5",     "W2 waits", "P2 5",     "R2"}},
    {"W0", false, {"W0 waits", "W0 waits", "W0 5",     "W0 waits", "W0 6"}},
    {"W1", false, {"W1 waits", "W1 waits", "W1 5",     "W1 waits", "W0"}},
    {"W2", false, {"W2 waits", "W2 waits", "W2 5",     "W2 waits", "W1"}},
    {"W0", true,  {"W0 5",     "W0 5",     "W0 5",     "W0 5",     "U0"}},
};
// clang-format on
void (*const kRequests[])(ZAbstractReadWriteLock&) = {
    [](ZAbstractReadWriteLock& lock) { lock.readLock(); },
    [](ZAbstractReadWriteLock& lock) { lock.readWithIntentToWriteLock(); },
    [](ZAbstractReadWriteLock& lock) { lock.promoteReadToWriteLock(); },
    [](ZAbstractReadWriteLock& lock) { lock.writeLock(); },
    [](ZAbstractReadWriteLock& lock) { lock.unlock(); }};
const char kGoals[] = "RPWW";  // what a request that waits gets in the end

void expectEnd(const Row& row, int what) {
    const std::string end = row.ends[what];
    SCOPED_TRACE(std::string(row.from) + (row.own ? " own" : "") + ", " + std::to_string(what));
    Lock lock;
    Hand caller, other, reader;
    const int readers = row.from[1] - '0';
    for (int i = 0; i < readers; ++i)
        reader.run([&] { lock.readLock(); });
    Hand& holder = row.own ? caller : other;
    const auto promote = [&] { lock.promoteReadToWriteLock(); };
    std::future<int> promoted;
    if (row.from[0] == 'P' || row.from[0] == 'W')
        holder.run([&] { lock.readWithIntentToWriteLock(); });
    if (row.from[0] == 'W')
        promoted = readers > 0 ? beginWaiting(holder, promote) : holder.begin(promote);
    if (promoted.valid() && readers == 0)
        promoted.wait();
    ASSERT_EQ(situationOf(lock), row.from);

    const auto action = [&] { kRequests[what](lock); };
    const bool waits = end.find("waits") != std::string::npos;
    std::future<int> result = waits ? beginWaiting(caller, action) : caller.begin(action);
    const int raised = waits ? 0 : result.get();
    EXPECT_EQ(situationOf(lock) + (waits         ? " waits"
                                   : raised != 0 ? " " + std::to_string(raised)
                                                 : ""),
              end);

    // What waits is granted once the others have left.
    if (waits || promoted.valid()) {
        for (int i = lock.getReaderCount(); i > 0; --i) {
            EXPECT_FALSE(waits && done(result));
            EXPECT_EQ(reader.run([&] { lock.unlock(); }), 0);
        }
        EXPECT_EQ(promoted.valid() ? promoted.get() : 0, 0);
    }
    if (waits) {
        if (!row.own && row.from[0] != 'R') {
            EXPECT_FALSE(done(result));
            other.run([&] { lock.unlock(); });
        }
        EXPECT_EQ(result.get(), 0);
        EXPECT_EQ(situationOf(lock)[0], kGoals[what]);
    }
}

TEST(ReadWriteLock, EachRequestEndsAsTheTableSaysFromEachState) {
    for (const Row& row : kRows) {
        for (int what = 0; what < 5; ++what)
            expectEnd(row, what);
    }
}

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
    std::atomic<int> unequal{0};
    const auto inside = [&](bool changes) {
        unequal += words[0] != words[1];
        if (changes)
            ++words[0], ++words[1];
    };
    const std::function<void(int)> modes[] = {[&](int) { lock.writeLock(), inside(true); },
                                              [&](int i) {
                                                  lock.readWithIntentToWriteLock(), inside(false);
                                                  if (i % 2 == 0)
                                                      lock.promoteReadToWriteLock(), inside(true);
                                              },
                                              [&](int) { lock.readLock(), inside(false); }};
    std::vector<std::thread> team;
    for (int t = 0; t < 6; ++t) {
        team.emplace_back([&, t] {
            for (int i = 0; i < rounds; ++i)
                modes[t % 3](i), lock.unlock();
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
    cancelAsleep([&] { lock.writeLock(); });
    EXPECT_EQ(stateOf(lock), write);
    lock.unlock(), lock.writeLock(), lock.unlock();
    EXPECT_EQ(stateOf(lock), unset);
}

TEST(StackReadWriteLock, GivesUpWhatIsHeldOrRaisesOrReports) {
    Lock lock;
    const RecordingService service;
    {
        ZStackReadWriteLock scope(lock, 1);
        EXPECT_EQ(stateOf(lock), unset);
        scope.readWithIntentToWriteLock();
        scope.promoteReadToWriteLock();
        EXPECT_EQ(stateOf(lock), write);
        scope.unlock(0);
        scope.readLock();
    }
    EXPECT_EQ(stateOf(lock), unset);
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
