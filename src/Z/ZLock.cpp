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

#include <exception>
#include <memory>

#include "ZException.h"
#include "zreport.h"

static const pthread_t kNobody = static_cast<pthread_t>(-1);

ZLock::ZLock() : mutex_(nullptr), owner_(nullptr), count_(0) {
    std::unique_ptr<pthread_mutex_t> mutex(new pthread_mutex_t);
    std::unique_ptr<std::atomic<pthread_t>> owner(new std::atomic<pthread_t>(kNobody));
    const int rc = pthread_mutex_init(mutex.get(), nullptr);
    if (rc != 0)
        ZCreateResourceException(3, rc).throwException(__FILE__, __LINE__);
    mutex_ = mutex.release();
    owner_ = owner.release();
}

ZLock::ZLock(const ZLock&) : ZLock() {}

ZLock::~ZLock() noexcept {
    const int rc = pthread_mutex_destroy(mutex_);
    delete owner_;
    delete mutex_;
    if (rc != 0)
        zreportCode(__FILE__, __LINE__, 4, rc);
}

void ZLock::lock() {
    const pthread_t self = pthread_self();
    if (owner_->load(std::memory_order_relaxed) == self) {
        ++count_;
        return;
    }
    const int rc = pthread_mutex_lock(mutex_);
    if (rc != 0)
        ZLockResourceException(5, rc).throwException(__FILE__, __LINE__);
    count_ = 1;
    owner_->store(self, std::memory_order_relaxed);
}

void ZLock::unlock() {
    const pthread_t self = pthread_self();
    if (owner_->load(std::memory_order_relaxed) != self || count_ <= 0)
        ZUnlockResourceException(6, 0).throwException(__FILE__, __LINE__);
    if (count_ > 1) {
        --count_;
        return;
    }
    // Before the mutex is free: afterwards both belong to the next holder.
    count_ = 0;
    owner_->store(kNobody, std::memory_order_relaxed);
    const int rc = pthread_mutex_unlock(mutex_);
    if (rc != 0) {
        count_ = 1;
        owner_->store(self, std::memory_order_relaxed);
        ZUnlockResourceException(6, rc).throwException(__FILE__, __LINE__);
    }
}

ZResourceLock::ZResourceLock(ZLock& lock)
    : lock_(lock), exceptions_(std::uncaught_exceptions()) {
    lock_.lock();
}

ZResourceLock::~ZResourceLock() noexcept(false) {
    try {
        lock_.unlock();
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
        if (std::uncaught_exceptions() == exceptions_)
            throw;
        zreportCaught(__FILE__, __LINE__);
    }
}
