// locks.cpp: what read/write locks cost, as ratios to the system's locks in the same run.
//
//   bench_locks                   all ratios
//   bench_locks cycles MODE N     N grants and releases of a lock file, MODE read, write or still
//                                 (a write that doesn't count): for bench/lock-calls, which counts
//                                 their system calls
//
// Each pair is measured in turns, and the medians are compared, so that a change of the machine's
// pace meets both.
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Z/ZFileLock.h"
#include "Z/ZReadWriteLock.h"

namespace {

double seconds(clockid_t clock) {
    timespec now;
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/// The system's read/write lock by the same names.
struct SystemLock {
    void readLock() { pthread_rwlock_rdlock(&lock); }
    void writeLock() { pthread_rwlock_wrlock(&lock); }
    void unlock() { pthread_rwlock_unlock(&lock); }
    pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;
};

struct Mutex {
    void readLock() { pthread_mutex_lock(&lock); }
    void writeLock() { pthread_mutex_lock(&lock); }
    void unlock() { pthread_mutex_unlock(&lock); }
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
};

const int kTurns = 15;

void compare(const char* what, const char* peer, const std::function<double()>& ours,
             const std::function<double()>& theirs) {
    std::vector<double> our, their;
    for (int turn = 0; turn < kTurns; ++turn) {
        our.push_back(ours());
        their.push_back(theirs());
    }
    printf("%-44s %8.1f ns %8.1f ns   %.2f of %s\n", what, median(our), median(their),
           median(our) / median(their), peer);
}

template <typename Lock>
double pairTime(Lock& lock, void (*pair)(Lock&)) {
    const int pairs = 1000000;
    const double begin = seconds(CLOCK_MONOTONIC);
    for (int i = 0; i < pairs; ++i)
        pair(lock);
    return (seconds(CLOCK_MONOTONIC) - begin) / pairs * 1e9;
}

template <typename Lock>
void readPair(Lock& lock) {
    lock.readLock();
    lock.unlock();
}

template <typename Lock>
void writePair(Lock& lock) {
    lock.writeLock();
    lock.unlock();
}

/// Time of a grant and release while two threads do the same.
template <typename Lock>
double twoThreads(Lock& lock) {
    const int pairs = 300000;
    std::atomic<int> ready{0};
    double begin = 0;
    const auto run = [&] {
        ++ready;
        while (ready < 2) {
        }
        for (int i = 0; i < pairs; ++i)
            readPair(lock);
    };
    std::thread other(run);
    begin = seconds(CLOCK_MONOTONIC);
    run();
    other.join();
    return (seconds(CLOCK_MONOTONIC) - begin) / pairs * 1e9;
}

/// How long a writer takes for a grant and release while a reader goes in and out.
template <typename Lock>
double writerAmongReaders(Lock& lock) {
    const int writes = 20000;
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        while (!stop)
            readPair(lock);
    });
    const double begin = seconds(CLOCK_MONOTONIC);
    for (int i = 0; i < writes; ++i)
        writePair(lock);
    const double taken = seconds(CLOCK_MONOTONIC) - begin;
    stop = true;
    reader.join();
    return taken / writes * 1e9;
}

/// The processor time of a thread that waits half a second for a lock.
double waitersTime() {
    ZReadWriteLock lock;
    lock.writeLock();
    std::atomic<double> used{0};
    std::thread waiter([&] {
        const double begin = seconds(CLOCK_THREAD_CPUTIME_ID);
        lock.readLock();
        used = seconds(CLOCK_THREAD_CPUTIME_ID) - begin;
        lock.unlock();
    });
    usleep(500000);
    lock.unlock();
    waiter.join();
    return used;
}

double fileCycle(ZUnixProcessReadWriteFileLock& lock,
                 void (*pair)(ZUnixProcessReadWriteFileLock&)) {
    const int pairs = 2000;
    const double begin = seconds(CLOCK_MONOTONIC);
    for (int i = 0; i < pairs; ++i)
        pair(lock);
    return (seconds(CLOCK_MONOTONIC) - begin) / pairs * 1e6;
}

int cycles(const std::string& mode, int count) {
    ZUnixProcessReadWriteFileLock lock("bench");
    for (int i = 0; i < count; ++i) {
        if (mode == "read")
            readPair(lock);
        else if (mode == "write")
            writePair(lock);
        else
            lock.writeLock(), lock.unlock(0);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    setenv("QELDIR", "/opt/Quillmere/nls/QEL", 0);
    if (argc == 4 && strcmp(argv[1], "cycles") == 0)
        return cycles(argv[2], atoi(argv[3]));

    ZReadWriteLock ours;
    SystemLock systems;
    Mutex mutex;
    compare(
        "read grant and release", "pthread_rwlock",
        [&] { return pairTime(ours, readPair<ZReadWriteLock>); },
        [&] { return pairTime(systems, readPair<SystemLock>); });
    compare(
        "write grant and release", "pthread_rwlock",
        [&] { return pairTime(ours, writePair<ZReadWriteLock>); },
        [&] { return pairTime(systems, writePair<SystemLock>); });
    compare(
        "read grant and release", "a mutex",
        [&] { return pairTime(ours, readPair<ZReadWriteLock>); },
        [&] { return pairTime(mutex, readPair<Mutex>); });
    compare(
        "read grants from two threads", "a mutex", [&] { return twoThreads(ours); },
        [&] { return twoThreads(mutex); });
    compare(
        "read grants from two threads", "pthread_rwlock", [&] { return twoThreads(ours); },
        [&] { return twoThreads(systems); });
    compare(
        "writer among readers", "pthread_rwlock", [&] { return writerAmongReaders(ours); },
        [&] { return writerAmongReaders(systems); });
    printf("%-44s %8.3f ms of processor time\n", "half a second's wait", waitersTime() * 1e3);

    const std::string folder = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    ZUnixProcessReadWriteFileLock file("bench", folder.c_str());
    printf("%-44s %8.1f us\n", "file lock in memory, read grant and release",
           fileCycle(file, readPair<ZUnixProcessReadWriteFileLock>));
    printf("%-44s %8.1f us\n", "file lock in memory, write grant and release",
           fileCycle(file, writePair<ZUnixProcessReadWriteFileLock>));
    unlink(file.getLockFileName());
    return 0;
}
