/* zasprintf.h: formatted text, in the manner of printf, into a block made for it. Valid C99.
 *
 * Formats, failure and threads: as zsnprintf.h tells.
 * Ownership: the block belongs to the caller, who gives it to zasprintf_free() or free(). It has
 *   the text's length and a byte for the NUL. */
#ifndef Z_ZASPRINTF_H
#define Z_ZASPRINTF_H

#include <stdarg.h>

#include "z.h"

Z_BEGIN_C

/* The length of the text, and the text in `*out`; on any failure -1 and null in `*out`. A null
 * `out` or `fmt` is a failure too; zsprintf then leaves `*out` alone. */
ZEXPORT int zsprintf(char** out, const char* fmt, ...);
ZEXPORT int zvsprintf(char** out, const char* fmt, va_list ap);

/* The same, but `*out` stays as it was when the failure came before a block was asked for: with a
 * bad format, and with a wide character that the codeset lacks. Requires: `out` and `fmt` aren't
 * null. */
ZEXPORT int zasprintf(char** out, const char* fmt, ...);
ZEXPORT int zvasprintf(char** out, const char* fmt, va_list ap);

/* Frees a block; null is none. */
ZEXPORT void zasprintf_free(void* p);

Z_END_C

#endif
