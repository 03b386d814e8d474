// zpholds.h: how checkInvariants of the cache's units speak. Never installed.
#ifndef Z_ZPHOLDS_H
#define Z_ZPHOLDS_H

#include <cstdio>
#include <cstdlib>

/// Ends the process, with the place on the standard error, unless the condition holds; in every
/// build, for tests ask for it.
#define ZPHOLDS(condition)                                                          \
    do {                                                                            \
        if (!(condition)) {                                                         \
            fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition); \
            abort();                                                                \
        }                                                                           \
    } while (0)

#endif
