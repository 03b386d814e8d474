// zreportformats.h: what reports of exceptions and plain messages have in common. Never installed.
#ifndef Z_ZREPORTFORMATS_H
#define Z_ZREPORTFORMATS_H

#include <pthread.h>

#include <cstdint>
#include <cstdio>

#include "Z.h"

/// The thread line of a report. Thread ids may be wider than int; the line shows their low part.
inline void zprintThreadLine() {
    fprintf(stderr, " Thread: %d\n", static_cast<int>(static_cast<uintptr_t>(pthread_self())));
}

/// Has the default service report the exception, whichever service is current: for what the current
/// one can't report.
void zprintByDefault(ZException& exception);

#endif
