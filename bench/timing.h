// timing.h: seconds, and the median of some.
#ifndef BENCH_TIMING_H
#define BENCH_TIMING_H

#include <algorithm>
#include <chrono>
#include <vector>

typedef std::vector<double> Times;

inline double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

inline double medianOf(Times times) {
    std::nth_element(times.begin(), times.begin() + times.size() / 2, times.end());
    return times[times.size() / 2];
}

#endif
