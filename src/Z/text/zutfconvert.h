/* zutfconvert.h: UTF-16 to UTF-8 without codesets or locales. Valid C99. */
#ifndef Z_ZUTFCONVERT_H
#define Z_ZUTFCONVERT_H

#include "z.h"

Z_BEGIN_C

/* Converts the units from *src up to srcEnd into bytes from *dst up to dstEnd, without a
 * terminator, and moves *src and *dst behind what it has converted and written.
 *
 * 0 when all was converted; 2 when the next code point has no room, with *src on its first unit and
 * nothing of it written. Two units of a surrogate pair make one code point of four bytes; a
 * surrogate that stands alone, or is cut off at the end of the source, becomes three bytes by
 * itself. No pointer may be null.
 *
 * Threads: any; there is no state. */
ZEXPORT int zconvert_UTF16_to_UTF8(const unsigned short** src, const unsigned short* srcEnd,
                                   unsigned char** dst, unsigned char* dstEnd);

Z_END_C

#endif
