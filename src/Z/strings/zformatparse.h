// zformatparse.h: the formatter's first half, which reads a format and its arguments into the
// tables of a format_context. Never installed.
#ifndef Z_ZFORMATPARSE_H
#define Z_ZFORMATPARSE_H

#include "zsnprintf.h"

#define ZFORMAT_ANY_WIDTH (ZFORMAT_WIDTH | ZFORMAT_WIDTH_ARG)
#define ZFORMAT_ANY_PRECISION (ZFORMAT_PRECISION | ZFORMAT_PRECISION_ARG)

/// A va_list in a struct can be handed on by reference, whatever type the platform makes it.
struct ZFormatArguments {
    va_list list;
};

/// zvsnprintf_parse() without a copy of the va_list: measured, a tenth of a short format.
int zformatParse(format_context& c, zcodeset_handle handle, const char* fmt,
                 ZFormatArguments& from);

/// zvsnprintf_done().
void zformatDone(format_context& c);

#endif
