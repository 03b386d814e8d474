// Locks among processes: the stubs for the order of steps, and the lock file against real
// processes, killed ones included. ZBASE_KILL_ROUNDS sets the number of kills.
#include "support/Prelude.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <ctime>
#include <future>

#include "Z/ZExceptionText.h"
#include "Z/ZFileLock.h"
#include "Z/ZProcessLock.h"
#include "support/Raised.h"
#include "support/ResourceLimit.h"
#include "support/Gate.h"
#include "support/SelfChild.h"
#include "support/TempFolder.h"
#include "support/Threads.h"

namespace {

using Lock = ZUnixProcessReadWriteFileLock;
using State = ZReadWriteLockInterface::zlockstate;
const State unset = Lock::unset, read = Lock::read, protect = Lock::protect, write = Lock::write;
const unsigned long invalid = Lock::invalidSequence;

// The state's name in the exception that `action` raises because of it.
std::string stateRefused(const std::function<void()>& action) {
    try {
        action();
    } catch (ZInvalidResourceStateException& e) {
        return e.value();
    }
    return "nothing";
}

// Keeps what it is told, and then does what it should.
struct Observer : ZObserverInterface {
    void update(ZObservableInterface*, const ZObservedParm& parm) override {
        const auto& update = dynamic_cast<const ZSequenceUpdate&>(parm);
        told.push_back({update.getSequence(), update.getLastSequence()});
        if (then)
            then();
    }
    using Told = std::vector<std::pair<unsigned long, unsigned long>>;
    Told told;
    std::function<void()> then;
};

// ---------------------------------------------------------------- without a medium

TEST(StubProcessLock, CountsAReleaseOfWriteByTheUpdateFlag) {
    using Stub = ZAbstractProcessReadWriteLock;
    struct Case {
        State state;
        void (*release)(Stub&);
        unsigned long moves;
    } const cases[] = {
        {write, [](Stub& lock) { lock.unlock(); }, 1},
        {write, [](Stub& lock) { lock.unlock(0); }, 0},
        {write, [](Stub& lock) { lock.setUpdate(0), lock.unlock(); }, 0},
        {read, [](Stub& lock) { lock.unlock(); }, 0},
        {read, [](Stub& lock) { lock.unlock(1); }, 0},
        {protect, [](Stub& lock) { lock.unlock(); }, 0},  // its state is protect, not write
    };
    ZStubProcessReadWriteLock lock("name");
    EXPECT_EQ(lock.getUpdate(), 1);
    EXPECT_EQ(lock.getLastSequence(), invalid);
    EXPECT_EQ(lock.isCurrent(), 0);
    for (const Case& c : cases) {
        const unsigned long before = lock.getSequence();
        lock.lock(c.state);
        EXPECT_EQ(lock.getLockState(), c.state);
        EXPECT_EQ(lock.ownWriteLock(), c.state == write);
        EXPECT_EQ(lock.getUpdate(), c.state != read);
        lock.promoteReadToWriteLock();
        EXPECT_EQ(lock.getLockState(), c.state);
        c.release(lock);
        EXPECT_EQ(lock.getSequence(), before + c.moves);
        EXPECT_EQ(lock.isCurrent(), 1);
        EXPECT_EQ(lock.getUpdate(), 0);
        EXPECT_EQ(lock.getLockState(), unset);
    }
}

TEST(StubProcessLock, RefusesAReleaseByWhoHoldsNothingBeforeItCounts) {
    ZStubProcessReadWriteLock lock("name");
    const auto expectRefused = [&] {
        const int update = lock.getUpdate();
        EXPECT_EQ(raisedBy<ZUnlockResourceException>([&] { lock.unlock(); }), "6/0");
        EXPECT_EQ(numberOf([&] { lock.lock(unset); }), 6);
        EXPECT_EQ(lock.getUpdate(), update);
        return lock.getSequence();
    };
    EXPECT_EQ(expectRefused(), 0u);
    lock.writeLock();
    EXPECT_EQ(elsewhere(expectRefused), 0u);
    EXPECT_EQ(lock.getLockState(), write);
    EXPECT_EQ(numberOf([&] { lock.readLock(); }), 5);
    lock.unlock();
    EXPECT_EQ(lock.getSequence(), 1u);
}

// The counter steps over the number that means nothing was seen, and stays within 32 bits.
TEST(StubProcessLock, SequenceSkipsTheInvalidNumber) {
    struct : ZStubProcessReadWriteLock {
        unsigned long incFrom(unsigned long number) { return sequence_ = number, incSequence(); }
    } lock;
    EXPECT_EQ(lock.incFrom(0xFFFFFFFD), 0xFFFFFFFEul);
    EXPECT_EQ(lock.incSequence(), 0ul);
}

TEST(StubProcessLock, ObserversAreToldWithOthersShutOut) {
    ZStubProcessReadWriteLock lock("name");
    Observer observer;
    observer.then = [&] {
        EXPECT_EQ(elsewhere([&] { return numberOf([&] { lock.unlock(); }); }), 6);
    };
    lock.addObserver(&observer);
    lock.readLock();
    lock.setLastSequence(7);
    lock.notifyLockObservers();
    EXPECT_EQ(observer.told, (Observer::Told{{0, 7}}));
    lock.unlock();
}

TEST(StubProcessLock, CopiesAreFreeAndAssignmentTakesNameAndNumber) {
    ZStubProcessReadWriteLock lock("one"), other("two");
    lock.writeLock();
    const std::unique_ptr<ZObject> copy(lock.clone());
    EXPECT_EQ(dynamic_cast<ZStubProcessReadWriteLock&>(*copy).getLockState(), unset);
    EXPECT_EQ(copy->compare(lock), 0);
    EXPECT_NE(other.compare(lock), 0);
    lock.unlock();
    other = lock;
    EXPECT_EQ(other.compare(lock), 0);
    EXPECT_EQ(other.getSequence(), 1u);
    EXPECT_EQ(numberOf([] { ZAbstractProcessReadWriteLock("three").clone(); }), 31);
}

TEST(StubProcessLock, DestroyedWhileHeldRaisesOrReports) {
    const auto leaveHeld = [](bool raise) {
        ZStubProcessReadWriteLock lock("name");
        lock.readLock();
        if (raise)
            throw 1;
    };
    const RecordingService service;
    EXPECT_EQ(stateRefused([&] { leaveHeld(false); }), "read");
    EXPECT_TRUE(service.reports().empty());
    EXPECT_THROW(leaveHeld(true), int);
    EXPECT_EQ(service.reports().size(), 1u);
}

TEST(SequenceUpdate, IsOrderedByTheNumberAndThenByTheLastOne) {
    EXPECT_LT(ZSequenceUpdate(7, 9).compare(ZSequenceUpdate(8, 1)), 0);
    EXPECT_GT(ZSequenceUpdate(8, 2).compare(ZSequenceUpdate(8, 1)), 0);
    EXPECT_EQ(ZSequenceUpdate(9, 1).compare(ZSequenceUpdate(4, 1)), 5);
    EXPECT_TRUE(ZSequenceUpdate() == ZSequenceUpdate(invalid, invalid));
}

// ---------------------------------------------------------------- grants that find a change

TEST(FileLockGrant, TellsObserversInAWriteLockThatDoesNotCountUnlessOneRaises) {
    for (State asked : {read, protect, write}) {
        ZStubProcessReadWriteFileLock lock("name");
        Observer observer;
        lock.addObserver(&observer);
        lock.writeSequenceNumber(7);
        lock.lock(asked);
        EXPECT_TRUE(observer.told.empty()) << "the first grant counts as caught up";
        EXPECT_EQ(lock.getLockState(), asked == read ? read : write);
        lock.unlock(0);
        lock.writeSequenceNumber(8);
        lock.lock(asked);
        EXPECT_EQ(observer.told, (Observer::Told{{8, 7}}));
        EXPECT_EQ(lock.ownWriteLock(), 1);
        EXPECT_EQ(lock.getUpdate(), asked == read ? 0 : 1) << "what a writer does counts";
        lock.unlock();
        EXPECT_EQ(lock.getSequence(), asked == read ? 8u : 9u);
        EXPECT_EQ(lock.isCurrent(), 1);
        lock.lock(asked);
        EXPECT_EQ(observer.told.size(), 1u);
        lock.unlock();
        const unsigned long last = lock.getSequence();
        lock.writeSequenceNumber(20);
        observer.then = [] { ZInvalidParameterException().throwException(__FILE__, __LINE__); };
        EXPECT_EQ(numberOf([&] { lock.lock(asked); }), 22);
        EXPECT_EQ(lock.getLockState(), unset);
        EXPECT_EQ(numberOf([&] { lock.unlock(); }), 6);
        observer.then = nullptr;
        lock.lock(asked);
        EXPECT_EQ(observer.told, (Observer::Told{{8, 7}, {20, last}, {20, last}})) << "told again";
        lock.unlock();
    }
}

TEST(FileLockGrant, ThatFailsLeavesNothingToAReaderWhoCameAndWentMeanwhile) {
    struct Failing : ZStubProcessReadWriteFileLock {
        Failing() : ZStubProcessReadWriteFileLock("name") {}
        void lockFile(State) override {
            if (!failed.exchange(true))
                ZLockResourceException(33, 4).throwException(__FILE__, __LINE__);
        }
        // The last step: the failed reader gives the lock among threads back.
        void setUpdate(int update) override {
            if (failed && !asked.exchange(true))
                other = startAsleep([this] { readLock(), unlock(); });
            ZStubProcessReadWriteFileLock::setUpdate(update);
        }
        std::atomic<bool> failed{false}, asked{false};
        std::thread other;
    } lock;
    EXPECT_EQ(numberOf([&] { lock.readLock(); }), 33);
    lock.other.join();
    EXPECT_EQ(lock.getLockState(), unset);
    EXPECT_EQ(lock.getReaderCount(), 0);
    EXPECT_EQ(numberOf([&] { lock.unlock(); }), 6);
}

// ---------------------------------------------------------------- the file

std::string bytes(uint32_t first, uint32_t second) {
    const uint32_t both[] = {first, second};
    return std::string(reinterpret_cast<const char*>(both), sizeof both);
}

// The number in a lock file.
uint32_t numberIn(const std::string& path) {
    uint32_t number = 0;
    const std::string content = TempFolder::read(path);
    EXPECT_EQ(content.size(), 8u);
    memcpy(&number, content.data(), std::min(content.size(), sizeof number));
    return number;
}

// Lock files are written synchronously, which on a disk takes most of these tests' time: unless a
// folder was chosen, they lie in memory.
const int folderInMemory = access("/dev/shm", W_OK) == 0 ? setenv("TMPDIR", "/dev/shm", 0) : 0;

// A folder with a lock's name in it.
struct Place {
    TempFolder folder;
    const std::string dir = folder / "";
    const std::string path = folder / "/._zplapp";  // as the lock makes it from dir
    Lock make() const { return Lock("app", dir.c_str()); }
};

void expectFree(Lock& lock) {
    EXPECT_EQ(lock.getLockState(), unset);
    EXPECT_EQ(lock.getFileHandle(), -1);
    EXPECT_EQ(lock.getReaderCount(), 0);
    EXPECT_EQ(numberOf([&] { lock.unlock(); }), 6);
}

TEST(FileLock, FileHoldsNumberAndProcess) {
    Place place;
    Lock lock = place.make();
    EXPECT_EQ(TempFolder::read(place.path), "<none>");
    EXPECT_EQ(lock.getLockFileName(), place.path);
    const uint32_t pid = static_cast<uint32_t>(getpid());
    lock.readLock();
    EXPECT_EQ(TempFolder::read(place.path), bytes(0, pid)) << "while it is held";
    lock.unlock();
    lock.writeLock(), lock.unlock();
    lock.writeLock(), lock.unlock(0);
    EXPECT_EQ(TempFolder::read(place.path), bytes(1, pid));
    Observer observer;
    lock.addObserver(&observer);
    place.folder.write("._zplapp", bytes(0xFFFFFFFD, 0));  // as another process would
    lock.writeLock();
    EXPECT_EQ(observer.told, (Observer::Told{{0xFFFFFFFD, 1}}));
    EXPECT_EQ(lock.getSequence(), 0xFFFFFFFDul);
    EXPECT_EQ(lock.incSequence(), 0xFFFFFFFEul);
    EXPECT_EQ(lock.incSequence(), 0ul);
    lock.unlock(0);
    EXPECT_EQ(numberIn(place.path), 0u);

    struct stat status;
    ASSERT_EQ(stat(place.path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777u, 0600u);
}

TEST(FileLock, FolderAndNameMakeTheFileName) {
    const TempFolder folder;
    EXPECT_STREQ(Lock("app").getLockFileName(), "./._zplapp");
    const Lock nameless;
    EXPECT_EQ(nameless.getLockFileName(), std::string("._zpl") + nameless.getLockName().getChars());
    EXPECT_STREQ(Lock("app", nullptr).getLockFileName(), "._zplapp");
    const std::string file = folder.write("file", "");
    const std::string closed = folder / "closed";
    mkdir(closed.c_str(), 0500);
    for (const std::string& bad : {std::string(""), folder / "missing", file, closed})
        EXPECT_EQ(numberOf([&] { Lock lock("app", bad.c_str()); }), 22) << bad;

    const std::string dir = folder / "";
    Lock lock("app", dir.c_str());
    lock.readLock();
    lock.setLockDirName(dir.c_str());
    EXPECT_EQ(stateRefused([&] { lock.setLockDirName("."); }), "read");
    lock.unlock();
    lock.setLockDirName(".");
    EXPECT_STREQ(lock.getLockFileName(), "./._zplapp");
}

TEST(FileLock, HeldLocksAreNeitherCopiedNorAssignedNorQuietlyDestroyed) {
    Place place;
    Lock free = place.make();
    int handle = -1;
    EXPECT_EQ(stateRefused([&] {
                  Lock held = place.make();
                  held.writeLock();
                  handle = held.getFileHandle();
                  EXPECT_EQ(stateRefused([&] { Lock copy(held); }), "write");
                  EXPECT_EQ(stateRefused([&] { free = held; }), "write");
                  EXPECT_EQ(stateRefused([&] { held = free; }), "write");
              }),
              "write");
    EXPECT_EQ(fcntl(handle, F_GETFD), -1) << "the file was left open";
    free.writeLock(), free.unlock();
}

TEST(FileLock, ThreadsOfAProcessShareOneRecordLock) {
    Place place;
    Lock lock = place.make();
    lock.readLock();
    const int handle = lock.getFileHandle();
    elsewhere([&] { return lock.readLock(), 0; });
    EXPECT_EQ(lock.getReaderCount(), 2);
    lock.unlock();
    EXPECT_EQ(lock.getFileHandle(), handle);
    EXPECT_EQ(lock.getLockState(), read);
    lock.unlock();
    expectFree(lock);
}

TEST(FileLock, OneStepCalls) {
    Place place;
    Lock lock = place.make();
    EXPECT_EQ(stateRefused([&] { lock.incSequence(); }), "unset");
    unsigned char byte = 9;
    lock.unlockFileRange(0, 4);
    EXPECT_NE(lock.getFileHandle(), -1) << "giving a range up opens the file first";
    lock.readBytes(&byte, 0, 1);
    EXPECT_EQ(byte, 9) << "nothing is read from an empty file";
    lock.writeBytes(&byte, 7, 1);
    const auto readAt = [&](unsigned int at) {
        return raisedBy<ZReadResourceException>([&] { lock.readBytes(&byte, at, 1); });
    };
    EXPECT_EQ(readAt(8), "35/-1");
    EXPECT_EQ(stateRefused([&] { lock.lockFileRange(static_cast<State>(4), 0, 4); }), "");
    lock.closeLockFile();
    EXPECT_EQ(readAt(0), "35/9");
    EXPECT_EQ(raisedBy<ZWriteResourceException>([&] { lock.writeBytes(&byte, 0, 1); }), "36/9");
}

// Whatever step fails, the lock is as free as before for this thread and others, and the file is
// closed.
TEST(FileLock, AFailedGrantHoldsNothing) {
    Place place;
    Lock lock = place.make();
    for (bool opens : {false, true}) {
        const char* const path = place.path.c_str();
        ASSERT_EQ(opens ? symlink("/dev/full", path) : mkdir(path, 0700), 0);
        for (State state : {read, write, read}) {
            const auto grant = [&] { lock.lock(state); };
            EXPECT_EQ(opens ? raisedBy<ZWriteResourceException>(grant)
                            : raisedBy<ZLockResourceException>(grant),
                      opens ? "36/28" : "33/9");
            expectFree(lock);
        }
        remove(path);
    }
    lock.writeLock(), lock.unlock();
    EXPECT_EQ(numberIn(place.path), 1u);
}

TEST(FileLock, AFailedCountKeepsTheLockAndGoesOnFromTheFile) {
    Place place;
    Lock lock = place.make();
    lock.writeLock(), lock.unlock(), lock.writeLock(), lock.unlock(), lock.writeLock();
    signal(SIGXFSZ, SIG_IGN);
    const std::string raised = raisedBy<ZWriteResourceException>([&] {
        const ResourceLimit noFileGrows(RLIMIT_FSIZE, 0);
        lock.unlock();
    });
    EXPECT_EQ(raised, "36/" + std::to_string(EFBIG));
    EXPECT_EQ(lock.getSequence(), 0u);
    EXPECT_EQ(lock.getLockState(), write);
    lock.unlock();
    EXPECT_EQ(numberIn(place.path), 3u);
    EXPECT_EQ(lock.getSequence(), 3u);
}

// ---------------------------------------------------------------- real processes

// A child process that runs a function and can be told to go on; its exit status is the result.
// Killed if still there.
class Child {
public:
    explicit Child(const std::function<int(Child&)>& function) {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends_), 0);
        pid_ = startChild([&] {
            std::swap(ends_[0], ends_[1]);
            alarm(120);  // a deadlock ends as a failed wait
            return function(*this);
        });
    }
    ~Child() {
        if (pid_ != 0)
            kill(pid_, SIGKILL), wait();
        close(ends_[0]), close(ends_[1]);
    }
    Child(const Child&) = delete;

    // A step, for the other side: the child for the test, the test for the child.
    void tell() {
        if (::write(ends_[0], "", 1) != 1)
            abort();
    }
    void hear() {
        char byte;
        if (::read(ends_[0], &byte, 1) != 1)
            abort();
    }
    pid_t pid() const { return pid_; }
    int wait() { return endOf(std::exchange(pid_, 0)); }

private:
    int ends_[2];
    pid_t pid_;
};

// What a child does that holds the place's lock until it is told to give it back.
std::function<int(Child&)> hold(const Place& place, State state) {
    return [&place, state](Child& self) {
        Lock lock = place.make();
        lock.lock(state);
        self.tell(), self.hear();
        lock.unlock();
        return 0;
    };
}

template <typename T>
T* makeShared() {
    void* memory =
        mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return memory == MAP_FAILED ? nullptr : new (memory) T();
}

TEST(FileLockProcesses, AWriterAtTheGateGoesBeforeLaterReaders) {
    Place place;
    auto* const turn = makeShared<std::atomic<int>>();
    Child first(hold(place, read));
    first.hear();
    // Each ends with its turn.
    const auto take = [&](State state) {
        return [&, state](Child& self) {
            Lock lock = place.make();
            self.tell();
            lock.lock(state);
            const int mine = ++*turn;
            lock.unlock();
            return mine;
        };
    };
    Child writer(take(write));
    writer.hear(), untilAsleep(writer.pid(), writer.pid());
    Child reader(take(read));
    reader.hear(), untilAsleep(reader.pid(), reader.pid());
    EXPECT_EQ(*turn, 0) << "both wait";
    first.tell();
    EXPECT_EQ(writer.wait(), 1);
    EXPECT_EQ(reader.wait(), 2);
    EXPECT_EQ(first.wait(), 0);
    munmap(turn, sizeof *turn);
}

TEST(FileLockProcesses, AChildOwnsNothingOfWhatItsParentHolds) {
    const auto isFree = [](Lock& lock) {
        return lock.getLockState() == unset && lock.ownWriteLock() == 0 &&
               lock.haveLock(unset) == 1 && lock.getFileHandle() == -1;
    };
    // What a child does first with the lock that it has inherited: 0 if that was nothing to the
    // parent.
    const std::function<int(Lock&)> actions[] = {
        [&](Lock& lock) { return isFree(lock) ? 0 : 1; },
        [&](Lock& lock) { return lock.unlock(), isFree(lock) ? 0 : 1; },
        [&](Lock& lock) { return numberOf([&] { lock.incSequence(); }) == 32 ? 0 : 1; },
        [&](Lock& lock) { return numberOf([&] { lock.writeSequenceNumber(9); }) == 36 ? 0 : 1; },
        [&](Lock& lock) { return lock.closeLockFile(), isFree(lock) ? 0 : 1; },
        [&](Lock& lock) { return Lock(lock).getFileHandle() == -1 ? 0 : 1; },
        [&](Lock& lock) { return lock.~Lock(), 0; },
    };
    for (State state : {read, write}) {
        Place place;
        Lock lock = place.make();
        for (const auto& action : actions) {
            SCOPED_TRACE(testing::Message() << state << ", action " << &action - actions);
            lock.lock(state);
            EXPECT_EQ(inChild([&] { return action(lock); }), 0);
            EXPECT_EQ(lock.getLockState(), state);
            EXPECT_EQ(inChild([&] {
                          struct flock data = {};
                          data.l_type = F_WRLCK, data.l_len = 4;
                          const int file = open(place.path.c_str(), O_RDWR);
                          return fcntl(file, F_GETLK, &data) == 0 && data.l_pid == getppid() ? 0
                                                                                             : 1;
                      }),
                      0)
                << "the record lock is there";
            lock.unlock();
        }
        EXPECT_EQ(lock.getSequence(), state == write ? std::size(actions) : 0);
        EXPECT_EQ(inChild([&] { return lock.lock(state), lock.unlock(), 0; }), 0)
            << "an object of its own once it has given the copy up";
    }
}

TEST(FileLockProcesses, AnInterruptedOrCancelledWaitGivesEverythingBack) {
    struct sigaction action = {}, before;
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, &before);
    for (bool cancel : {false, true}) {
        if (cancel && !CAN_UNWIND)
            continue;
        Place place;
        Lock lock = place.make();
        Child other(hold(place, write));
        other.hear();
        if (cancel) {
            cancelAsleep([&] { lock.writeLock(); });
        } else {
            std::thread waiter = startAsleep([&] {
                EXPECT_EQ(raisedBy<ZLockResourceException>([&] { lock.writeLock(); }),
                          "33/" + std::to_string(EINTR));
            });
            pthread_kill(waiter.native_handle(), SIGUSR1);
            waiter.join();
        }
        expectFree(lock);
        other.tell();
        EXPECT_EQ(other.wait(), 0);
        EXPECT_EQ(numberOf([&] { lock.writeLock(), lock.unlock(); }), 0);
        EXPECT_EQ(numberIn(place.path), 2u);
    }
    sigaction(SIGUSR1, &before, nullptr);
}

// What workers that are killed at any moment leave for others to judge: grants of both kinds,
// releases to write that returned, the highest number seen under a read lock.
struct Tally {
    std::atomic<unsigned int> grants{0}, releases{0}, highest{0};
    std::atomic<int> fell{0}, stop{0};
};

int work(const Place& place, Tally& tally, bool writer) {
    Lock lock = place.make();
    while (!tally.stop) {
        if (writer) {
            lock.writeLock(), ++tally.grants;
            lock.unlock(), ++tally.releases;
            continue;
        }
        unsigned int seen = tally.highest;
        lock.readLock(), ++tally.grants;
        const unsigned int number = static_cast<unsigned int>(lock.getSequence());
        tally.fell += number < seen;
        while (seen < number && !tally.highest.compare_exchange_weak(seen, number)) {
        }
        lock.unlock();
    }
    return 0;
}

TEST(FileLockProcesses, KilledHoldersLeaveNoDeadlockAndNoWrongNumber) {
    const char* const wanted = getenv("ZBASE_KILL_ROUNDS");
    const unsigned int kills = wanted != nullptr ? static_cast<unsigned int>(atoi(wanted)) : 100;
    std::mt19937 random(20240611);
    Place place;
    Tally* tally = makeShared<Tally>();
    std::vector<std::unique_ptr<Child>> workers(4);
    const auto start = [&](size_t i) {
        workers[i].reset();  // killed, if there was one
        workers[i].reset(new Child([&, i](Child&) { return work(place, *tally, i % 2 == 0); }));
    };
    for (size_t i = 0; i < workers.size(); ++i)
        start(i);
    const auto awaitGrants = [&](unsigned int more) {  // no end: a deadlock
        for (const unsigned int before = tally->grants; tally->grants - before < more;)
            sched_yield();
    };
    for (unsigned int round = 0; round < kills; ++round) {
        // The others must get on; and a moment that differs each time.
        awaitGrants(1 + random() % 8);
        for (unsigned int pause = random() % 4000; pause > 0; --pause)
            std::atomic_signal_fence(std::memory_order_seq_cst);
        start(random() % workers.size());
    }
    awaitGrants(20);
    tally->stop = 1;
    for (auto& worker : workers)
        EXPECT_EQ(worker->wait(), 0);
    const unsigned int number = numberIn(place.path);
    EXPECT_GE(number, tally->releases);
    EXPECT_LE(number, tally->releases + kills);
    EXPECT_EQ(tally->fell, 0);
    munmap(tally, sizeof *tally);
}

}  // namespace
