// Runner.h: threads whose work is a function.
#pragma once

#include "support/Prelude.h"

#include "Z/ZThread.h"
#include "support/Gate.h"

using Reports = std::vector<std::string>;
using Action = std::function<void()>;

inline void nothing() {}

/// A thread that runs `body`, and `atExit` at its end.
class Runner : public ZThread {
public:
    explicit Runner(int detached = 0, int autoDelete = 0, Action body = nothing,
                    Action atExit = nothing)
        : ZThread(detached, autoDelete), body_(body), atExit_(atExit) {}
    void run() override { body_(), runs.open(); }
    void exit() override {
        [atExit = atExit_] { atExit(); }();
    }  // it may outlive the object
    Gate runs;

private:
    const Action body_, atExit_;
};

/// A sleeper that counts its work, which begins with `body`.
class Worker : public ZSleeperThread {
public:
    explicit Worker(Action body = nothing) : body(body) {}
    explicit Worker(ZLock& lock, Action body = nothing) : ZSleeperThread(lock), body(body) {}
    Worker(int detached, int autoDelete, unsigned long timeout, Action body,
           Action atExit = nothing)
        : ZSleeperThread(detached, autoDelete, timeout), body(body), atExit_(atExit) {}
    void work() override { body(), done.open(); }
    void exit() override {
        [atExit = atExit_] { atExit(); }();
    }
    Action body;  // to be changed only while the thread is idle
    Gate done;

private:
    const Action atExit_ = nothing;
};
