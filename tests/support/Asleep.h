// Asleep.h: how a test sees that somebody waits, without a clock.
#pragma once

#include "support/Prelude.h"

#include <sched.h>
#include <sys/types.h>

/// Comes back once a thread of a process sleeps or has ended: after it has said that what it does
/// next may wait.
inline void untilAsleep(pid_t process, pid_t thread) {
    for (;;) {
        char path[64], state = 0;  // 0: it is gone
        snprintf(path, sizeof path, "/proc/%d/task/%d/stat", static_cast<int>(process),
                 static_cast<int>(thread));
        if (FILE* file = fopen(path, "r")) {
            if (fscanf(file, "%*d (%*[^)]) %c", &state) != 1)
                state = 0;
            fclose(file);
        }
        if (state == 'S' || state == 'Z' || state == 0)
            return;
        sched_yield();
    }
}
