/* zutils.h: bytes as a hexadecimal dump. Valid C99. */
#ifndef Z_ZUTILS_H
#define Z_ZUTILS_H

#include <stdio.h>

#include "z.h"

Z_BEGIN_C

/* Writes `count` bytes to `f`, or to stderr if it is null: the title on a line of its own unless it
 * is null, then rows of sixteen bytes, each with its offset in front and its characters behind. A
 * byte outside 32 to 253 shows as a dot. Nothing but title and newline for a count of 0 or less.
 *
 *   (tab) title
 *
 *   0000   61 62 63                                          *abc             *
 *
 * Failure: failures of writing are ignored. Without memory for the lock of the first dump, or if
 * the system refuses that lock, the C++ exception of ZLock passes through.
 * Threads: any. One dump is written after the other, whatever the streams. */
ZEXPORT void zhex_dump(FILE* f, int count, const unsigned char* bytes, const char* title);

Z_END_C

#endif
