// zformat.h: the formatter's stages as its own units call them. Never installed.
#ifndef Z_ZFORMAT_H
#define Z_ZFORMAT_H

#include "zsnprintf.h"

#define ZFORMAT_ANY_WIDTH (ZFORMAT_WIDTH | ZFORMAT_WIDTH_ARG)
#define ZFORMAT_ANY_PRECISION (ZFORMAT_PRECISION | ZFORMAT_PRECISION_ARG)

/// A va_list in a struct can be handed on by reference, whatever type the platform makes it.
struct ZFormatArguments {
    va_list list;
};

/// zvsnprintf_parse() in the local codeset, without a copy of the va_list: measured, a tenth of a
/// short format.
int zformatParse(format_context& c, const char* fmt, ZFormatArguments& from);

/// zvsnprintf_render() into `room` bytes, the NUL included: a text of INT_MAX bytes needs a byte
/// more than an int can say.
int zformatInto(const format_context& c, char* buf, size_t room);

#endif
