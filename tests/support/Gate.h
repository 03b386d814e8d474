// Gate.h: what tests of threads wait for, in place of sleeping, and what the sanitizers can't bear.
#pragma once

#include <condition_variable>
#include <mutex>

/// Counts how often it was opened.
class Gate {
public:
    void open() {
        const std::lock_guard<std::mutex> guard(mutex_);
        ++opened_;
        changed_.notify_all();
    }
    /// Waits until it was opened once more than this was called.
    void await() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return opened_ > passed_; });
        ++passed_;
    }
    /// Waits until it was opened `times` times in all.
    void reach(int times) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this, times] { return opened_ >= times; });
    }
    int opened() {
        const std::lock_guard<std::mutex> guard(mutex_);
        return opened_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int opened_ = 0, passed_ = 0;
};

#if defined(__has_feature)  // clang
#define TESTS_HAVE(sanitizer) __has_feature(sanitizer)
#else
#define TESTS_HAVE(sanitizer) 0
#endif

// The address sanitizer doesn't see the frames that a cancelled thread leaves, and takes what is
// called on the way out for a damaged stack.
#if defined(__SANITIZE_ADDRESS__) || TESTS_HAVE(address_sanitizer)
#define CAN_UNWIND 0
#else
#define CAN_UNWIND 1
#endif

// The thread sanitizer forgets a thread that somebody failed to join, and stops at the next try.
#if defined(__SANITIZE_THREAD__) || TESTS_HAVE(thread_sanitizer)
#define CAN_JOIN_AGAIN 0
#else
#define CAN_JOIN_AGAIN 1
#endif
