// zassert.h: what only our own mistake can break. Never installed.
#ifndef Z_ZASSERT_H
#define Z_ZASSERT_H

#include <cassert>

/// Ends the process, with the place on the standard error, unless the condition holds. In builds
/// with NDEBUG, as releases are, the condition is compiled and not run: it costs nothing, and may
/// have no effect of its own. What callers or the system can get wrong is raised, not asserted.
#ifdef NDEBUG
#define zassert(condition) static_cast<void>(sizeof((condition) ? 1 : 0))
#else
#define zassert(condition) assert(condition)
#endif

#endif
