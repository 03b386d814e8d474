// threads.cpp: an idle thread of the pool beside a new std::thread.
//
// Both run the same tiny piece of work, over and over, one at a time. Two spans are measured from
// the moment when somebody wants the work done: until the caller is free again ("handed over"), and
// until the work has been done ("done"). What comes after belongs to neither: before the next turn
// the sleeper has gone idle again, and the std::thread has been joined.
//
// Once on one processor, and once wherever the system puts the threads: there, what is measured is
// mostly what it costs to wake a processor that is idle, which differs from run to run.
//
//   bench_threads [ROUNDS [TURNS]]   medians of the turns of each round; the table tells the median
//                                    of the rounds
#include <sched.h>
#include <semaphore.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "Z/ZThreadPool.h"

namespace {

typedef std::chrono::steady_clock Clock;

double microseconds(Clock::duration span) {
    return std::chrono::duration<double, std::micro>(span).count();
}

double medianOf(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

/// The work: says that it was done.
class Work {
public:
    Work() { sem_init(&done_, 0, 0); }
    ~Work() { sem_destroy(&done_); }
    void operator()() { sem_post(&done_); }
    void await() { sem_wait(&done_); }

private:
    sem_t done_;
};

class Worker : public ZSleeperThread {
public:
    explicit Worker(Work& toDo) : ZSleeperThread(1, 1), work_(toDo) {}
    void work() override { work_(); }

private:
    Work& work_;
};

struct Spans {
    std::vector<double> handedOver, done;
};

/// One turn: `hand` gives the work away, `settle` makes all ready for the next turn.
template <typename Hand, typename Settle>
void turn(Spans& spans, Work& work, Hand hand, Settle settle) {
    const Clock::time_point begin = Clock::now();
    hand();
    const Clock::time_point free = Clock::now();
    work.await();
    const Clock::time_point done = Clock::now();
    settle();
    spans.handedOver.push_back(microseconds(free - begin));
    spans.done.push_back(microseconds(done - begin));
}

/// The pool with its idle thread, taken afresh in each turn.
class PoolTurns {
public:
    PoolTurns() : pool_(1, 1) {
        Worker* const worker = new Worker(work_);
        pool_.start(*worker);
        worker->wakeUp();
        work_.await();
        awaitIdle();
    }
    ~PoolTurns() { pool_.waitForExit(); }

    void run(Spans& spans) {
        turn(
            spans, work_,
            [this] {
                ZThread* thread;
                pool_.getAvailableIdleThread(thread);
                static_cast<Worker*>(thread)->wakeUp();
            },
            [this] { awaitIdle(); });
    }

private:
    // The pool tells only by handing it out; so it goes back by the call that its work makes.
    void awaitIdle() {
        ZThread* thread;
        while (pool_.getAvailableIdleThread(thread) == nullptr)
            std::this_thread::yield();
        int keep;
        pool_.threadDoneNotification(*thread, keep);
    }

    Work work_;
    ZThreadPool pool_;
};

class StdTurns {
public:
    void run(Spans& spans) {
        turn(
            spans, work_, [this] { thread_ = std::thread([this] { work_(); }); },
            [this] { thread_.join(); });
    }

private:
    Work work_;
    std::thread thread_;
};

struct Ratio {
    const char* what;
    std::vector<double> pool, started, ratio;

    void add(const std::vector<double>& ours, const std::vector<double>& theirs) {
        pool.push_back(medianOf(ours));
        started.push_back(medianOf(theirs));
        ratio.push_back(pool.back() / started.back());
    }
    void print(const char* where) const {
        printf("%-15s %-12s %9.2f %9.2f  %.2f of std::thread\n", where, what, medianOf(pool),
               medianOf(started), medianOf(ratio));
    }
};

void measure(const char* where, int rounds, int turns) {
    PoolTurns pool;
    StdTurns started;
    Ratio handedOver = {"handed over", {}, {}, {}}, done = {"done", {}, {}, {}};
    for (int round = 0; round < rounds; ++round) {
        Spans ours, theirs;
        for (int i = 0; i < turns; ++i) {  // in turns, so that a busy machine slows both
            pool.run(ours);
            started.run(theirs);
        }
        handedOver.add(ours.handedOver, theirs.handedOver);
        done.add(ours.done, theirs.done);
    }
    handedOver.print(where);
    done.print(where);
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(1, atoi(argv[1])) : 9;
    const int turns = argc > 2 ? std::max(1, atoi(argv[2])) : 2000;
    setenv("QELDIR", "/opt/Quillmere/nls/QEL", 0);

    cpu_set_t all, first;
    sched_getaffinity(0, sizeof all, &all);
    CPU_ZERO(&first);
    CPU_SET(sched_getcpu(), &first);
    printf("%-28s %9s %9s  ratio\n", "", "pool (us)", "new (us)");
    sched_setaffinity(0, sizeof first, &first);
    measure("one processor", rounds, turns);
    sched_setaffinity(0, sizeof all, &all);
    measure("all processors", rounds, turns);
}
