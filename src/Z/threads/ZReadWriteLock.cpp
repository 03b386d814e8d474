// ZReadWriteLock.cpp: many readers or one writer among threads. The whole state is one word, and
// each request is one exchange of it; only who must wait, or wake others, takes the condition's
// lock.
//
//   bits 0-1   0: unset, or read if there are readers; 2: protect; 3: write
//   bit 2      threads wait
//   bits 3-    number of readers
//
// Invariants
// (1) Bit 2 is set exactly while waiters_ is above 0. Both change under the condition's lock, and a
//     thread looks at the word again between setting the bit and going to sleep.
// (2) A change that a waiting thread may be waiting for, made while bit 2 is set, is made under the
//     condition's lock. So it falls before that look or after the thread has gone to sleep, when
//     the broadcast reaches it; and if the lock can't be had, nothing has changed.
// (3) holder_ is -1 before protect or write is given up. So a thread that reads its own id there
//     holds the lock, however stale other readings are. owner_ only remembers.
#include "ZReadWriteLock.h"

#include <cxxabi.h>

#include <exception>
#include <optional>

#include "ZException.h"
#include "zassert.h"
#include "zreport.h"

#if defined(__has_include)
#if __has_include(<valgrind/valgrind.h>)
#include <valgrind/valgrind.h>
#endif
#endif

static const pthread_t kNobody = static_cast<pthread_t>(-1);

static const unsigned int kHeld = 2;  // protect or write
static const unsigned int kState = 3;
static const unsigned int kWaiting = 4;
static const unsigned int kReader = 8;

static inline unsigned int readersOf(unsigned int word) { return word / kReader; }

static inline ZReadWriteLockInterface::zlockstate stateOf(unsigned int word) {
    if ((word & kHeld) != 0)
        return static_cast<ZReadWriteLockInterface::zlockstate>(word & kState);
    return readersOf(word) > 0 ? ZReadWriteLockInterface::read : ZReadWriteLockInterface::unset;
}

static inline bool rarely(bool condition) { return __builtin_expect(condition, false); }

// Valgrind's race detectors know mutexes but no atomics, so under them each request takes the
// condition's lock and what it guards is seen in order. The thread sanitizer knows both.
static int underValgrind() {
#ifdef RUNNING_ON_VALGRIND
    return RUNNING_ON_VALGRIND != 0;
#else
    return 0;
#endif
}

// ---------------------------------------------------------------- the requests

// What a request makes of the word that it finds.
namespace {
struct Move {
    enum Kind { go, wait } kind;
    unsigned int next;
    bool wakes;  // somebody may be waiting for this
};
}  // namespace

// Each step has: of(word), which says the move or raises; before() and after() its exchange.
struct ZReadWriteLock::Steps {
    // What the four requests for a lock share: none may come from who holds protect or write.
    struct Request {
        explicit Request(ZReadWriteLock& lock) : lock(lock) {}

        void checkNotHeld(unsigned int word) const {
            if (rarely((word & kHeld) != 0 && heldByCaller(lock)))
                zraiseCode<ZLockResourceException>(5, 0);
        }
        void before() {}
        void missed() {}
        void becomeHolder() {
            const pthread_t self = pthread_self();
            zassert(lock.holder_.load(std::memory_order_relaxed) == kNobody);  // (3)
            lock.holder_.store(self, std::memory_order_relaxed);
            lock.owner_.store(self, std::memory_order_relaxed);
        }

        ZReadWriteLock& lock;
    };

    struct Read : Request {
        using Request::Request;
        Move of(unsigned int word) const {
            checkNotHeld(word);
            return {stateOf(word) == write ? Move::wait : Move::go, word + kReader, false};
        }
        void after() {}
    };

    struct Protect : Request {
        using Request::Request;
        Move of(unsigned int word) const {
            checkNotHeld(word);
            return {(word & kHeld) != 0 ? Move::wait : Move::go, word | protect, false};
        }
        void after() { becomeHolder(); }
    };

    struct Write : Request {
        using Request::Request;
        Move of(unsigned int word) const {
            checkNotHeld(word);
            return {stateOf(word) != unset ? Move::wait : Move::go, word | write, false};
        }
        void after() { becomeHolder(); }
    };

    // Promotion has two: stop new readers, then see the others out.
    struct Promote : Request {
        using Request::Request;
        Move of(unsigned int word) const {
            if (stateOf(word) != protect || !heldByCaller(lock))
                zraiseCode<ZLockResourceException>(5, 0);
            return {Move::go, word | write, false};
        }
        void after() {}
    };

    struct Drain : Request {
        using Request::Request;
        Move of(unsigned int word) const {
            return {readersOf(word) > 0 ? Move::wait : Move::go, word, false};
        }
        void after() {}
    };

    struct Release {
        explicit Release(ZReadWriteLock& lock) : lock(lock) {}
        Move of(unsigned int word) {
            // Asked once: before() makes it forget.
            if ((word & kHeld) != 0 && !held)
                held = heldByCaller(lock);
            if (held)
                return {Move::go, word & ~kState, true};
            if (rarely(readersOf(word) < 1))
                zraiseCode<ZUnlockResourceException>(6, 0);
            // Waited for are the last reader's leaving, by a writer or a draining promoter, and the
            // end of protect and write.
            return {Move::go, word - kReader,
                    readersOf(word) == 1 && (word & kState) != static_cast<unsigned int>(protect)};
        }
        void before() {
            if (held)
                lock.holder_.store(kNobody, std::memory_order_relaxed);
        }
        // The next try may raise, and then the caller is the holder still.
        void missed() {
            if (held)
                lock.holder_.store(pthread_self(), std::memory_order_relaxed);
        }
        void after() {}

        ZReadWriteLock& lock;
        bool held = false;  // by the caller, to protect or to write
    };

    static bool heldByCaller(const ZReadWriteLock& lock) {
        return pthread_equal(lock.holder_.load(std::memory_order_relaxed), pthread_self());
    }
};

// Counts the calling thread among those that wait, for as long as it lives; however the wait ends,
// cancellation included, the condition's lock is held again there.
class ZReadWriteLock::Waiting {
public:
    explicit Waiting(ZReadWriteLock& lock) : lock_(lock) {
        zassert(bitAgrees());
        if (lock_.waiters_++ == 0)
            lock_.word_.fetch_or(kWaiting);
    }
    ~Waiting() {
        zassert(lock_.waiters_ > 0 && bitAgrees());
        if (--lock_.waiters_ == 0)
            lock_.word_.fetch_and(~kWaiting);
    }
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;

private:
    // Invariant (1).
    bool bitAgrees() const {
        return ((lock_.word_.load(std::memory_order_relaxed) & kWaiting) != 0) ==
               (lock_.waiters_ > 0);
    }

    ZReadWriteLock& lock_;
};

// Lets whoever has the word's cache line go on for a moment: two threads that snatch it from each
// other at every step are slower than one after the other.
static inline void stepBack() {
#if defined(__x86_64__) || defined(__i386__)
    for (int i = 0; i < 16; ++i)
        __builtin_ia32_pause();
#endif
}

inline bool ZReadWriteLock::exchange(unsigned int from, unsigned int to) {
    if (rarely(!word_.compare_exchange_strong(from, to, std::memory_order_acq_rel,
                                              std::memory_order_relaxed))) {
        stepBack();
        return false;
    }
    return true;
}

template <typename Step>
inline void ZReadWriteLock::run(Step step) {
    while (!rarely(guarded_)) {
        unsigned int word = word_.load(std::memory_order_relaxed);
        const Move move = step.of(word);
        if (rarely(move.kind == Move::wait || (move.wakes && (word & kWaiting) != 0)))
            break;
        step.before();
        if (exchange(word, move.next)) {
            step.after();
            return;
        }
        step.missed();
    }
    runGuarded(step);
}

template <typename Step>
[[gnu::noinline]] void ZReadWriteLock::runApart(Step step) {
    run(step);
}

// Takes the step by value, so that it stays in registers on the way that most calls go.
template <typename Step>
[[gnu::noinline]] void ZReadWriteLock::runGuarded(Step step) {
    bool wake;
    {
        const ZResourceLock guard(*condition_.getResource());
        std::optional<Waiting> waiting;
        for (;;) {
            unsigned int word = word_.load(std::memory_order_relaxed);
            const Move move = step.of(word);
            if (move.kind == Move::wait) {
                if (waiting)
                    condition_.wait();
                else
                    waiting.emplace(*this);
                continue;
            }
            step.before();
            if (word_.compare_exchange_strong(word, move.next, std::memory_order_acq_rel,
                                              std::memory_order_relaxed)) {
                step.after();
                wake = move.wakes && (word & kWaiting) != 0;
                break;
            }
        }
    }
    if (wake)
        condition_.broadcast();
}

// ---------------------------------------------------------------- the lock

ZReadWriteLock::ZReadWriteLock()
    : word_(0), holder_(kNobody), owner_(kNobody), waiters_(0), guarded_(underValgrind()) {}

ZReadWriteLock::ZReadWriteLock(const ZReadWriteLock& other)
    : ZAbstractReadWriteLock(other),
      word_(0),
      holder_(kNobody),
      owner_(kNobody),
      waiters_(0),
      guarded_(underValgrind()) {}

ZReadWriteLock::~ZReadWriteLock() noexcept {}

ZObject* ZReadWriteLock::clone() const { return new ZReadWriteLock(*this); }

void ZReadWriteLock::lock() { lock(write); }

void ZReadWriteLock::lock(zlockstate state) {
    switch (state) {
        case unset:
            unlock();
            break;
        case read:
            readLock();
            break;
        case protect:
            readWithIntentToWriteLock();
            break;
        case write:
            writeLock();
            break;
    }
}

// Reading first, in a few instructions: what comes to the same as the steps where nobody holds more
// than a read lock and nobody waits. In front of the general way it saves a tenth of the time.
void ZReadWriteLock::unlock() {
    if (!rarely(guarded_)) {
        const unsigned int word = word_.load(std::memory_order_relaxed);
        if (word >= kReader && (word & (kHeld | kWaiting)) == 0 && exchange(word, word - kReader))
            return;
    }
    runApart(Steps::Release(*this));
}

void ZReadWriteLock::unlock(int) { unlock(); }

int ZReadWriteLock::haveLock(zlockstate state) const {
    return stateOf(word_.load(std::memory_order_acquire)) == state;
}

int ZReadWriteLock::ownWriteLock() const {
    return pthread_equal(owner_.load(std::memory_order_relaxed), pthread_self()) != 0;
}

void ZReadWriteLock::readLock() {
    if (!rarely(guarded_)) {
        const unsigned int word = word_.load(std::memory_order_relaxed);
        if ((word & kHeld) == 0 && exchange(word, word + kReader))
            return;
    }
    runApart(Steps::Read(*this));
}

void ZReadWriteLock::writeLock() { run(Steps::Write(*this)); }

void ZReadWriteLock::readWithIntentToWriteLock() { run(Steps::Protect(*this)); }

void ZReadWriteLock::promoteReadToWriteLock() {
    run(Steps::Promote(*this));
    run(Steps::Drain(*this));
}

int ZReadWriteLock::getReaderCount() {
    return static_cast<int>(readersOf(word_.load(std::memory_order_acquire)));
}

int ZReadWriteLock::mayUnlock() const {
    return readersOf(word_.load(std::memory_order_relaxed)) > 0 || Steps::heldByCaller(*this);
}

// ---------------------------------------------------------------- what the locks share

void ZAbstractReadWriteLock::lock() { lock(write); }

const char* ZAbstractReadWriteLock::getLockStateName(zlockstate state) const {
    switch (state) {
        case unset:
            return "unset";
        case read:
            return "read";
        case protect:
            return "protect";
        case write:
            return "write";
    }
    return nullptr;
}

int ZAbstractReadWriteLock::isCurrent() const { return 1; }

void ZAbstractReadWriteLock::unlock() { unlock(getUpdate()); }

int ZAbstractReadWriteLock::getUpdate() const { return 0; }

void ZAbstractReadWriteLock::setUpdate(int) {}

// ---------------------------------------------------------------- the scope object

ZStackReadWriteLock::ZStackReadWriteLock(ZAbstractReadWriteLock& lock, int update)
    : lock_(lock), exceptions_(std::uncaught_exceptions()) {
    lock_.setUpdate(update);
}

ZStackReadWriteLock::~ZStackReadWriteLock() noexcept(false) {
    try {
        lock_.unlock();
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
        if (std::uncaught_exceptions() <= exceptions_)
            throw;
        zreportCaught();
    }
}

void ZStackReadWriteLock::readLock() { lock_.readLock(); }

void ZStackReadWriteLock::writeLock() { lock_.writeLock(); }

void ZStackReadWriteLock::readWithIntentToWriteLock() { lock_.readWithIntentToWriteLock(); }

void ZStackReadWriteLock::promoteReadToWriteLock() { lock_.promoteReadToWriteLock(); }

void ZStackReadWriteLock::unlock(int update) { lock_.unlock(update); }

int ZStackReadWriteLock::getUpdate() { return lock_.getUpdate(); }

void ZStackReadWriteLock::setUpdate(int update) { lock_.setUpdate(update); }

ZAbstractReadWriteLock& ZStackReadWriteLock::getReadWriteLock() { return lock_; }
