// ZLock.cpp: the recursive lock: a plain mutex, and beside it who holds it and how often.
//
// Invariants
// (1) count_ is above 0 exactly while the mutex is held through this object; *owner_ then names
//     the holder, and is -1 otherwise. A wait on a condition gives the mutex up and takes it back,
//     so ZCondition sets both around it.
// (2) Only the holder writes owner_ and count_, and -1 stands in *owner_ before the mutex is free.
//     So a thread that reads its own id there holds the lock, however stale other readings are.
#include "ZLock.h"

#include <cxxabi.h>

#include "ZException.h"
#include "zassert.h"
#include "zmemory.h"
#include "zreport.h"

static const pthread_t kNobody = static_cast<pthread_t>(-1);

// pthread_self(), which on x86 is the thread pointer: read in place, since the two calls would cost
// a third of an uncontended lock and unlock.
static inline pthread_t currentThread() {
#if defined(__GLIBC__) && defined(__x86_64__) && !defined(__ILP32__)
    pthread_t self;
    asm volatile("mov %%fs:0, %0" : "=r"(self));
    return self;
#elif defined(__GLIBC__) && defined(__i386__)
    pthread_t self;
    asm volatile("mov %%gs:0, %0" : "=r"(self));
    return self;
#else
    return pthread_self();
#endif
}

// std::uncaught_exceptions(), which costs as much as a whole lock and unlock. The C++ ABI fixes
// where the count stands in the thread's exception state, and that state stays in its place.
static int exceptionsOnTheirWay() {
    struct ExceptionState {
        void* caught;
        unsigned int uncaught;
    };
    static thread_local const ExceptionState* state __attribute__((tls_model("initial-exec")));
    if (state == nullptr)
        state = reinterpret_cast<const ExceptionState*>(abi::__cxa_get_globals());
    return static_cast<int>(state->uncaught);
}

static inline bool rarely(bool condition) { return __builtin_expect(condition, false); }

ZLock::ZLock() : mutex_(nullptr), owner_(nullptr), count_(0) {
    auto mutex = zmake<pthread_mutex_t>();
    auto owner = zmake<std::atomic<pthread_t>>(kNobody);
    const int rc = pthread_mutex_init(mutex.get(), nullptr);
    if (rc != 0)
        zraiseCode<ZCreateResourceException>(3, rc);
    mutex_ = mutex.release();
    owner_ = owner.release();
}

ZLock::ZLock(const ZLock&) : ZLock() {}

ZLock::~ZLock() noexcept {
    const int rc = pthread_mutex_destroy(mutex_);
    ZUnmake()(owner_);
    ZUnmake()(mutex_);
    if (rc != 0)
        zreportCode(4, rc);
}

void ZLock::lock() {
    if (rarely(owner_->load(std::memory_order_relaxed) == currentThread())) {
        ++count_;
        return;
    }
    const int rc = pthread_mutex_lock(mutex_);
    if (rarely(rc != 0))
        zraiseCode<ZLockResourceException>(5, rc);
    zassert(count_ == 0 && owner_->load(std::memory_order_relaxed) == kNobody);  // (1), (2)
    count_ = 1;
    owner_->store(currentThread(), std::memory_order_relaxed);
}

void ZLock::unlock() {
    if (rarely(owner_->load(std::memory_order_relaxed) != currentThread() || count_ <= 0))
        zraiseCode<ZUnlockResourceException>(6, 0);
    if (--count_ > 0)
        return;
    // Before the mutex is free: afterwards it belongs to the next holder, as count_ does.
    owner_->store(kNobody, std::memory_order_relaxed);
    const int rc = pthread_mutex_unlock(mutex_);
    if (rarely(rc != 0)) {
        count_ = 1;
        owner_->store(currentThread(), std::memory_order_relaxed);
        zraiseCode<ZUnlockResourceException>(6, rc);
    }
}

ZResourceLock::ZResourceLock(ZLock& lock) : lock_(lock), exceptions_(exceptionsOnTheirWay()) {
    lock_.lock();
}

ZResourceLock::~ZResourceLock() noexcept(false) {
    try {
        lock_.unlock();
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
        if (exceptionsOnTheirWay() == exceptions_)
            throw;
        zreportCaught();
    }
}
