// pool.cpp: a pool of sleepers that works through a list: reads numbers from standard input and
// prints behind each how many primes there are below it. At most four threads run at once; up to
// three stay for the next numbers.
#include <Z/ZException.h>
#include <Z/ZThreadPool.h>

#include <iostream>
#include <vector>

struct Job {
    unsigned long limit;
    unsigned long primes;
};

/// Does one job each time it is woken. Detached and self-deleting, as a pool wants its threads.
class Counter : public ZSleeperThread {
public:
    Counter() : ZSleeperThread(1, 1), job_(nullptr) {}
    void give(Job& job) { job_ = &job; }

    void work() override {
        std::vector<bool> composite(job_->limit);
        for (unsigned long n = 2; n < job_->limit; ++n) {
            if (composite[n])
                continue;
            ++job_->primes;
            for (unsigned long multiple = n * n; multiple < job_->limit; multiple += n)
                composite[multiple] = true;
        }
    }

private:
    Job* job_;  // changed only while the thread sleeps and nobody else can have it
};

int main() {
    try {
        std::vector<Job> jobs;
        for (unsigned long limit; std::cin >> limit;)
            jobs.push_back(Job{limit, 0});

        ZThreadPool pool(4, 3);
        for (Job& job : jobs) {
            ZThread* thread;
            const bool idle = pool.getAvailableIdleThread(thread) != nullptr;
            Counter* counter = idle ? static_cast<Counter*>(thread) : new Counter;
            counter->give(job);
            if (!idle)
                pool.start(*counter);  // waits while there are four
            counter->wakeUp();
        }
        pool.waitForExit();

        for (const Job& job : jobs)
            std::cout << job.limit << " " << job.primes << "\n";
    } catch (ZException& failure) {
        failure.print();
        return 1;
    }
}
