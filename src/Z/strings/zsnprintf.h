/* zsnprintf.h: formatted text, in the manner of printf, into a buffer. Valid C99.
 *
 * A directive is %, then in this order: POSITION$ for an argument by its number, flags of "#-0 +'",
 * a width, a precision behind a ".", a length (h; l; long long: ll, L or q) and a conversion:
 *
 *   d i u o x X   integers, of int, short, long or long long by the length
 *   e E f g G     a double, or a long double with the long long length; as printf prints them
 *   c s p %       a char, a text, a pointer, the % itself; any length is ignored
 *   C S           a zwide_char, and a text of those that ends in 0, written in the local codeset
 *
 * Width and precision are digits, or * for an int from the arguments; in a directive with a
 * POSITION$ also *POSITION$. Arguments without a number follow the one before them, of whatever
 * kind that was. %% takes a position like the others, but no argument.
 *
 * What differs from printf
 *   The format is read to its end first: one bad directive anywhere, and nothing is written.
 *   No hh, j, t, z, n, a, A or F; no h or l with e, f and g; lc and ls are plain c and s.
 *   With any number from 1 to the highest POSITION missing, the format is bad; numbers and digits
 *     that an int can't hold make it bad too, and so does a position 0.
 *   A "." without digits is no precision. Any precision switches the flag 0 off, except for p.
 *   A width from the arguments pads if it is above 0 and does nothing otherwise, except for e, f
 *     and g. A negative precision from there makes a text empty.
 *   A null text is an empty one. %% takes flags and a width. A text or char is never padded with
 *     zeros. Precision and width are bytes; a precision never splits a character of %S.
 *   # writes its 0x for 0 also, which then doesn't count for the padding; ' groups no integers.
 *   A pointer prints as 0x and its digits, a null pointer as 0x alone; padding is by zeros.
 *
 * Failure: -1 for a bad format, a wide character that the codeset lacks, memory for a format with
 *   more than 10 directives or 9 arguments, and a length that an int can't hold. Nothing is raised.
 * Threads: no state and no lock; any thread may call. The first format of a process runs the set-up
 *   told in zqelutil.h, which may end the process, and sets the locale that decimal points follow.
 * Cost: the format is read once. No memory is allocated for up to 10 directives and 9 arguments. */
#ifndef Z_ZSNPRINTF_H
#define Z_ZSNPRINTF_H

#include <stdarg.h>

#include "z.h"
#include "zqelutil.h"

/* Bits of format_directive.flags. */
#define ZFORMAT_NUMBERED 0x1U         /* the value has a POSITION$ */
#define ZFORMAT_ALTERNATE 0x2U        /* # */
#define ZFORMAT_LEFT 0x4U             /* - */
#define ZFORMAT_ZERO 0x8U             /* 0 */
#define ZFORMAT_BLANK 0x10U           /* blank */
#define ZFORMAT_PLUS 0x20U            /* + */
#define ZFORMAT_GROUP 0x40U           /* ' */
#define ZFORMAT_WIDTH 0x80U           /* the width is digits */
#define ZFORMAT_WIDTH_ARG 0x100U      /* the width is an argument */
#define ZFORMAT_WIDTH_NUMBERED 0x200U /* and has a POSITION$ */
#define ZFORMAT_PRECISION 0x400U      /* the same three for the precision */
#define ZFORMAT_PRECISION_ARG 0x800U
#define ZFORMAT_PRECISION_NUMBERED 0x1000U
#define ZFORMAT_SHORT 0x2000U        /* h */
#define ZFORMAT_LONG 0x4000U         /* l */
#define ZFORMAT_LONGLONG 0x8000U     /* ll, L, q */
#define ZFORMAT_OCTAL 0x10000U       /* o */
#define ZFORMAT_HEX 0x20000U         /* x, p */
#define ZFORMAT_UPPER_HEX 0x40000U   /* X */
#define ZFORMAT_UPPER_FLOAT 0x80000U /* E, G */
#define ZFORMAT_PERCENT 0x100000U    /* % */

/* format_directive.type and format_arg.type: what an argument is fetched as. */
#define ZFORMAT_TYPE_CHAR 0      /* int, its low byte */
#define ZFORMAT_TYPE_WIDE 1      /* int, its low 16 bits */
#define ZFORMAT_TYPE_TEXT 2      /* const char* */
#define ZFORMAT_TYPE_WIDE_TEXT 3 /* const zwide_char* */
#define ZFORMAT_TYPE_SHORT 4 /* int, its low 16 bits, signed; the next one unsigned, and so on */
#define ZFORMAT_TYPE_USHORT 5
#define ZFORMAT_TYPE_INT 6
#define ZFORMAT_TYPE_UINT 7
#define ZFORMAT_TYPE_LONG 8
#define ZFORMAT_TYPE_ULONG 9
#define ZFORMAT_TYPE_LONGLONG 10
#define ZFORMAT_TYPE_ULONGLONG 11
#define ZFORMAT_TYPE_POINTER 12
#define ZFORMAT_TYPE_E 13 /* double */
#define ZFORMAT_TYPE_F 14
#define ZFORMAT_TYPE_G 15
#define ZFORMAT_TYPE_LONG_E 16 /* long double */
#define ZFORMAT_TYPE_LONG_F 17
#define ZFORMAT_TYPE_LONG_G 18
#define ZFORMAT_TYPE_PERCENT 19 /* nothing is fetched */

/* One directive of a format. */
typedef struct format_directive {
    const char* start;  /* its % */
    const char* end;    /* the byte behind its conversion */
    int type;           /* one of ZFORMAT_TYPE_... */
    unsigned int flags; /* ZFORMAT_..., joined */
    int arg_index;      /* position of the value, from 1 */
    int width;          /* the width itself, or the position of its argument */
    int precision;      /* likewise */
} format_directive;

/* One argument. All 64 bits of an integer are set, whatever was fetched. */
typedef struct format_arg {
    int type; /* one of ZFORMAT_TYPE_... */
    union {
        char c;
        zwide_char wide;
        const void* pointer;
        int64_t i;
        uint64_t u;
        double d;
        long double ld;
    } value; /* as the type says */
} format_arg;

/* One call's state, on the caller's stack. It isn't to be copied: it may point into itself. */
typedef struct format_context {
    zcodeset_handle codeset;                /* of wide text */
    format_directive inline_directives[10]; /* enough for most */
    format_directive* directives;           /* the inline ones, or a block */
    int directive_count;                    /* in use */
    format_arg inline_args[10];             /* enough for most */
    format_arg* args;                       /* by position, from 1; the inline ones, or a block */
    const char* format;                     /* the caller's */
    const char* format_end;                 /* its NUL */
} format_context;

Z_BEGIN_C

/* Formats into the `size` bytes at `buf`, cut to fit and with a NUL behind; `buf` may be null if
 * `size` is below 1. The length of the whole text without the NUL, whether it fitted or not; -1 on
 * failure, and then the content of `buf` doesn't matter: a bad format leaves it alone. A cut may
 * split a character, but not of %S: the text ends in front of that one then. */
ZEXPORT int zsnprintf(char* buf, int size, const char* fmt, ...);
ZEXPORT int zvsnprintf(char* buf, int size, const char* fmt, va_list ap);

/* The three stages, for who wants to know the length first: parse reads format and arguments,
 * render writes, as often as wanted, and done frees what the other two needed.
 *
 * Parse: 0, or -1 for a bad format or lack of memory. `fmt` and the texts among the arguments have
 * to live until the last render. `handle` is the codeset of wide characters: zgetLCSHandle(). */
ZEXPORT int zvsnprintf_parse(format_context* c, zcodeset_handle handle, const char* fmt,
                             va_list ap);
/* As zvsnprintf. Requires: parse gave 0. */
ZEXPORT int zvsnprintf_render(format_context* c, char* buf, int size);
/* Requires: parse was called, whatever it gave. Again: no effect. */
ZEXPORT void zvsnprintf_done(format_context* c);

Z_END_C

#endif
