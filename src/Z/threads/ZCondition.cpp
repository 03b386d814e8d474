// ZCondition.cpp: a condition variable beside a recursive lock. The system's wait gives up and
// takes back the mutex; what the lock keeps beside it, owner and depth, is this unit's care.
#include "ZCondition.h"

#include <cerrno>
#include <limits>
#include <memory>

#include "ZException.h"
#include "zassert.h"
#include "zmemory.h"
#include "zreport.h"
#include "zscope.h"

static pthread_cond_t* makeCondition() {
    auto condition = zmake<pthread_cond_t>();
    const int rc = pthread_cond_init(condition.get(), nullptr);
    if (rc != 0)
        zraise(ZConditionException(7, rc));
    return condition.release();
}

// Failures of a condition are told twice: whoever catches the exception may not print it, and a
// waiter that stopped waiting is worth a line.
static void reportAndRaise(int number, int rc, ZSite site = ZSite()) {
    zreportCode(number, rc, site);
    zraise(ZConditionException(number, rc), site);
}

ZCondition::ZCondition() : lock_(nullptr), ownLock_(1), cond_(nullptr) {
    std::unique_ptr<ZLock> lock(new ZLock);
    cond_ = makeCondition();
    lock_ = lock.release();
}

ZCondition::ZCondition(ZLock& lock) : lock_(&lock), ownLock_(0), cond_(makeCondition()) {}

ZCondition::~ZCondition() noexcept {
    const int rc = pthread_cond_destroy(cond_);
    ZUnmake()(cond_);
    if (rc != 0)
        zreportCode(8, rc);
    if (ownLock_)
        delete lock_;
}

void ZCondition::wait() {
    timespec forever = {0, 0};
    int timedOut;
    wait(forever, timedOut);
}

void ZCondition::wait(long seconds, int& timedOut) {
    // Not time(): its clock lags behind the one that the system's wait compares with, and at a
    // second's border the wait would end before it began.
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    timespec until = {0, 0};
    if (__builtin_add_overflow(now.tv_sec, seconds, &until.tv_sec))
        until.tv_sec = seconds > 0 ? std::numeric_limits<time_t>::max() : 1;
    wait(until, timedOut);
}

void ZCondition::wait(timespec& absolute, int& timedOut) {
    validateLock();
    timedOut = 0;
    int rc;
    {
        // Owner and depth are off the lock for as long as the mutex is given up, and come back on
        // whatever way the wait ends: a cancelled thread leaves it by unwinding, with the mutex in
        // its hands, and runs the destructors of scopes that unlock.
        const int depth = lock_->count_;
        const pthread_t owner = lock_->owner_->load(std::memory_order_relaxed);
        lock_->count_ = 0;
        lock_->owner_->store(static_cast<pthread_t>(-1), std::memory_order_relaxed);
        const ZAtEnd putBack([&] {
            zassert(lock_->count_ == 0);  // whoever held it meanwhile has left it
            lock_->count_ = depth;
            lock_->owner_->store(owner, std::memory_order_relaxed);
        });
        rc = absolute.tv_sec == 0 && absolute.tv_nsec == 0
                 ? pthread_cond_wait(cond_, lock_->mutex_)
                 : pthread_cond_timedwait(cond_, lock_->mutex_, &absolute);
    }
    if (rc == ETIMEDOUT) {
        waitTimedOut();
        timedOut = 1;
    } else if (rc != 0) {
        reportAndRaise(9, rc);
    }
}

void ZCondition::signal() {
    const int rc = pthread_cond_signal(cond_);
    if (rc != 0)
        reportAndRaise(10, rc);
}

void ZCondition::broadcast() {
    const int rc = pthread_cond_broadcast(cond_);
    if (rc != 0)
        reportAndRaise(27, rc);
}

void ZCondition::lock() { lock_->lock(); }

void ZCondition::unlock() { lock_->unlock(); }

ZLock* ZCondition::getResource() const { return lock_; }

void ZCondition::waitTimedOut() {}

void ZCondition::validateLock() {
    // The owner first: the depth is the holder's alone to read.
    if (!pthread_equal(lock_->owner_->load(std::memory_order_relaxed), pthread_self()) ||
        lock_->count_ <= 0)
        zraise(ZLockResourceException(5, 0));
}

ZBooleanCondition::ZBooleanCondition() : condition_(0) {}

ZBooleanCondition::ZBooleanCondition(ZLock& lock) : ZCondition(lock), condition_(0) {}

void ZBooleanCondition::wait() { ZCondition::wait(); }

void ZBooleanCondition::wait(long seconds, int& timedOut) { ZCondition::wait(seconds, timedOut); }

void ZBooleanCondition::wait(timespec& absolute, int& timedOut) {
    while (testCondition() == 0)
        ZCondition::wait(absolute, timedOut);
}

void ZBooleanCondition::waitTimedOut() { setCondition(1); }

void ZBooleanCondition::initCondition() {
    validateLock();
    condition_ = 0;
}

int ZBooleanCondition::testCondition() {
    validateLock();
    return condition_;
}

int ZBooleanCondition::setCondition(int value) {
    validateLock();
    condition_ = value;
    return 1;
}
