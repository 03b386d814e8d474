// Gate.h: what tests of threads wait for, in place of sleeping.
#ifndef TESTS_SUPPORT_GATE_H
#define TESTS_SUPPORT_GATE_H

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

// The address sanitizer doesn't see the frames that a cancelled thread leaves, and takes what is
// called on the way out for a damaged stack.
#if defined(__SANITIZE_ADDRESS__)
#define CAN_UNWIND 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define CAN_UNWIND 0
#endif
#endif
#ifndef CAN_UNWIND
#define CAN_UNWIND 1
#endif

// The thread sanitizer forgets a thread that somebody failed to join, and stops at the next try.
#if defined(__SANITIZE_THREAD__)
#define CAN_JOIN_AGAIN 0
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define CAN_JOIN_AGAIN 0
#endif
#endif
#ifndef CAN_JOIN_AGAIN
#define CAN_JOIN_AGAIN 1
#endif

/// Counts passes: each open() lets one await() through, or counts for reach().
class Gate {
public:
    void open() {
        const std::lock_guard<std::mutex> guard(mutex_);
        ++opened_;
        changed_.notify_all();
    }
    void await() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return opened_ > passed_; });
        ++passed_;
    }
    /// Waits until it was opened `times` times in all.
    void reach(int times) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [=] { return opened_ >= times; });
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

/// What happened, in order, from all threads.
class Journal {
public:
    void add(const std::string& event) {
        const std::lock_guard<std::mutex> guard(mutex_);
        text_ += text_.empty() ? event : " " + event;
        changed_.notify_all();
    }
    std::string text() {
        const std::lock_guard<std::mutex> guard(mutex_);
        return text_;
    }
    /// Waits until the text ends with `event`.
    std::string awaitEnd(const std::string& event) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [&] {
            return text_.size() >= event.size() &&
                   text_.compare(text_.size() - event.size(), event.size(), event) == 0;
        });
        return text_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string text_;
};

#endif
