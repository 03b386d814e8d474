// zformat.h: how parsed formats are rendered. Never installed.
#ifndef Z_ZFORMAT_H
#define Z_ZFORMAT_H

#include "zsnprintf.h"

#define ZFORMAT_ANY_WIDTH (ZFORMAT_WIDTH | ZFORMAT_WIDTH_ARG)
#define ZFORMAT_ANY_PRECISION (ZFORMAT_PRECISION | ZFORMAT_PRECISION_ARG)

/// zvsnprintf_render() into `room` bytes, the NUL included: a text of INT_MAX bytes needs a byte
/// more than an int can say.
int zformatInto(const format_context& c, char* buf, size_t room);

#endif
