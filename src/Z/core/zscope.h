// zscope.h: what has to happen when a scope ends. Never installed.
#ifndef Z_ZSCOPE_H
#define Z_ZSCOPE_H

#include <pthread.h>

#include <utility>

/// Runs a function when the scope ends, on whatever way, a thread's cancellation included, unless
/// it was dismissed. Requires: the function raises nothing.
///
///     counter = 1;
///     ZAtEnd undo([&] { counter = 0; });
///     ...
///     undo.dismiss();  // all went well
template <typename End>
class ZAtEnd {
public:
    explicit ZAtEnd(End end) : end_(std::move(end)), wanted_(true) {}
    ~ZAtEnd() {
        if (wanted_)
            end_();
    }
    ZAtEnd(const ZAtEnd&) = delete;
    ZAtEnd& operator=(const ZAtEnd&) = delete;

    void dismiss() { wanted_ = false; }

private:
    End end_;
    bool wanted_;
};

/// Holds a mutex of the system's, which nobody destroys and which can't fail, for a scope.
class ZMutexScope {
public:
    explicit ZMutexScope(pthread_mutex_t& mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~ZMutexScope() { pthread_mutex_unlock(&mutex_); }
    ZMutexScope(const ZMutexScope&) = delete;
    ZMutexScope& operator=(const ZMutexScope&) = delete;

private:
    pthread_mutex_t& mutex_;
};

#endif
