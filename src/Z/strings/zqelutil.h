/* zqelutil.h: the one gate between the library and the codeset service: set-up of the process's
 * locale and codesets at first use, and text functions that know codesets. Valid C99.
 *
 * A process that wants nothing of its own touched calls zsetUpUTF8() first. Otherwise set-up runs
 * once, at the first call of one of the first four functions (the first string of a
 * process makes it): setlocale(LC_ALL, ""), then, if the environment variable QELDIR is set, the
 * locale, the local codeset and UTF-8. It is never repeated: a process that begins without QELDIR
 * has no text, whatever it sets later.
 *
 * Threads: any thread may call any function here.
 * Units: positions, lengths and counts are bytes. Text is NUL-terminated. */
#ifndef Z_ZQELUTIL_H
#define Z_ZQELUTIL_H

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "z.h"

/* A codeset that has been opened; 0 is none. */
typedef uintptr_t zcodeset_handle;

/* A wide character as the codeset service has them: 16 bits. */
typedef uint16_t zwide_char;

Z_BEGIN_C

/* Sets up ahead of the first text: local text is UTF-8, with the rules of C.UTF-8 for case,
 * classes, order and the decimal point. QELDIR isn't read, and setlocale isn't called; what the
 * functions below say of the process's locale goes for that one then. From then on the library
 * reports to a message service of the user's only, and prints nothing by itself.
 *
 * The rules of characters beyond ASCII are read when one is asked for its class, or a comparison or
 * a change of case comes to one; in a codeset other than UTF-8 these two read them for any text.
 * Whoever needs them so gets ZOutOfMemoryException if there is no memory or descriptor for it, or
 * the file is none.
 *
 * 0 when it is so, or was before; 1 if set-up was made otherwise already; -1 where the system has
 * no such locale or there is no memory, or no descriptor to look for it where LOCPATH says, and
 * nothing is set up then. */
ZEXPORT int zsetUpUTF8(void);

/* The canonical name of the process's locale, or of its codeset. A failure of set-up is reported
 * to the message service, but not again within that report; the result is null then, unless set-up
 * got that far. Lives for ever. */
ZEXPORT const char* zgetlocale(void);
ZEXPORT const char* zgetLocalCodesetName(void);

/* The handles of UTF-8 and of the local codeset, the same at each call and never the same as each
 * other, even where the local codeset is UTF-8. A failure of set-up is reported, then the process
 * ends with abort(): no string can exist without them. Within that report (a message service makes
 * a string) and where the service itself fails, the default service reports. */
ZEXPORT zcodeset_handle zgetUTF8Handle(void);
ZEXPORT zcodeset_handle zgetLCSHandle(void);

/* Tells the codeset service another directory of tables. 0 when done and for null. */
ZEXPORT int zset_cs_dir(const char* dir);

/* Converts `srcLen` bytes between the local codeset and UTF-8 into `dst`, which has room for
 * `dstSize` bytes. Bytes written, without a terminator of their own; 0 when any argument is null or
 * 0; negative for text that isn't valid or has no counterpart, and for a full target, whose content
 * doesn't matter then. */
ZEXPORT int zlcs_to_utf8(const char* src, unsigned int srcLen, char* dst, unsigned int dstSize);
ZEXPORT int zlcs_from_utf8(const char* src, unsigned int srcLen, char* dst, unsigned int dstSize);

/* The standard functions of these names, on whole characters of the codeset `h`: a byte inside a
 * longer character is never a hit. A byte that begins no valid character counts as one by itself.
 * `c` is one byte, so it finds characters of one byte only, and the terminator. */
ZEXPORT char* zstrchr(zcodeset_handle h, const char* s, int c);
ZEXPORT char* zstrrchr(zcodeset_handle h, const char* s, int c);
ZEXPORT char* zstrstr(zcodeset_handle h, const char* s, const char* t);
ZEXPORT char* zstrpbrk(zcodeset_handle h, const char* s, const char* t);
ZEXPORT size_t zstrspn(zcodeset_handle h, const char* s, const char* t);
ZEXPORT size_t zstrcspn(zcodeset_handle h, const char* s, const char* t);

/* As strncpy and strncat, `n` in bytes, but a character that doesn't fit whole is left out. No more
 * than `n` bytes of `b` are read, which needs no terminator then. */
ZEXPORT char* zstrncpy(zcodeset_handle h, char* a, const char* b, size_t n);
ZEXPORT char* zstrncat(zcodeset_handle h, char* a, const char* b, size_t n);

/* As strtok_r: `c` holds the place between calls. */
ZEXPORT char* zstrtok(zcodeset_handle h, char* a, const char* b, char** c);

/* Compare the texts (their first `n` bytes) without regard to case, by the rules of the process's
 * locale: below 0, 0 or above 0. */
ZEXPORT int zstricmp(zcodeset_handle h, const char* a, const char* b);
ZEXPORT int zstrnicmp(zcodeset_handle h, const char* a, const char* b, size_t n);

/* Change the case of `s` in place and give `s`. A character whose other case takes another number
 * of bytes stays as it is. */
ZEXPORT char* zstrlower(zcodeset_handle h, char* s);
ZEXPORT char* zstrupper(zcodeset_handle h, char* s);

/* As strptime, with the names of the process's locale. */
ZEXPORT char* zstrptime(zcodeset_handle h, const char* a, const char* b, struct tm* c);

/* Non-zero when the wide character is of that class. */
ZEXPORT int ziswalnum(zwide_char c);
ZEXPORT int ziswalpha(zwide_char c);
ZEXPORT int ziswdigit(zwide_char c);
ZEXPORT int ziswlower(zwide_char c);
ZEXPORT int ziswspace(zwide_char c);
ZEXPORT int ziswupper(zwide_char c);

/* Bytes of the first character of `s`, of which `n` bytes are there: 0 at the terminator, -1 when
 * it isn't valid or isn't whole. With the local codeset's handle in a locale of one byte a
 * character: 1, and `s` isn't looked at. */
ZEXPORT int zmblen(zcodeset_handle h, const char* s, size_t n);

/* Bytes taken by the leading run of valid characters of `s`; 0 for null. The count of longer text
 * ends below 4 GiB. */
ZEXPORT unsigned int zstrcount(zcodeset_handle h, const char* s);

/* Bytes of the first character of `s`, of which `n` bytes are there, if it is a letter (white
 * space); else 0. 0 for null too. */
ZEXPORT int zisalpha(zcodeset_handle h, const char* s, size_t n);
ZEXPORT int zisspace(zcodeset_handle h, const char* s, size_t n);

/* Puts the first character of `s` into `out`, 0 if there is none. Bytes used; below 1 is failure:
 * the terminator, no valid character, or one that 16 bits can't hold. */
ZEXPORT int zmbtowc(zcodeset_handle h, zwide_char* out, const char* s, size_t n);

Z_END_C

#endif
