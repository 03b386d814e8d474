// Threads.h: what tests do in other threads than their own.
#pragma once

#include "support/Prelude.h"

#include <future>

#include "support/Asleep.h"

/// Runs `action` in a thread of its own and hands on its result: what another thread sees.
template <typename Action>
auto elsewhere(Action action) {
    return std::async(std::launch::async, action).get();
}

/// Runs `work` in four threads at once, until all have ended.
template <typename Work>
void inFourThreads(Work work) {
    std::future<void> team[4];
    for (std::future<void>& member : team)
        member = std::async(std::launch::async, [&] { work(); });
}

/// Runs `body` in a thread, cancels that once `ready` is done, then does `afterwards`. It must not
/// end by itself.
inline void cancelWithin(
    const std::function<void()>& body, const std::function<void()>& ready,
    const std::function<void()>& afterwards = [] {}) {
    bool returned = false;
    std::thread thread([&] { body(), returned = true; });
    ready();
    EXPECT_EQ(pthread_cancel(thread.native_handle()), 0);
    afterwards();
    thread.join();
    EXPECT_FALSE(returned);
}

/// A thread that runs `body`, once that sleeps.
inline std::thread startAsleep(const std::function<void()>& body) {
    std::promise<pid_t> id;
    std::thread thread([&id, body] { id.set_value(gettid()), body(); });
    untilAsleep(getpid(), id.get_future().get());
    return thread;
}

/// Runs `body` in a thread and cancels that once it sleeps.
inline void cancelAsleep(const std::function<void()>& body) {
    bool returned = false;
    std::thread thread = startAsleep([&] { body(), returned = true; });
    EXPECT_EQ(pthread_cancel(thread.native_handle()), 0);
    thread.join();
    EXPECT_FALSE(returned);
}
