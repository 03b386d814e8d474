// zformat.h: the formatter's second half, which writes what the first has read. Never installed.
#ifndef Z_ZFORMAT_H
#define Z_ZFORMAT_H

#include "zsnprintf.h"

/// zvsnprintf_render() into `room` bytes, the NUL included: a text of INT_MAX bytes needs a byte
/// more than an int can say.
int zformatInto(const format_context& c, char* buf, size_t room);

#endif
