// zsnprintf.cpp: the calls into a buffer, made of the formatter's two halves.
#include "zsnprintf.h"

#include "zformat.h"
#include "zformatparse.h"

static size_t roomOf(int size) { return size > 0 ? static_cast<size_t>(size) : 0; }

static int formatInto(char* buf, int size, const char* fmt, ZFormatArguments& from) {
    format_context c;
    const int parsed = zformatParse(c, zgetLCSHandle(), fmt, from);
    const int length = parsed == 0 ? zformatInto(c, buf, roomOf(size)) : -1;
    zformatDone(c);
    return length;
}

int zvsnprintf_parse(format_context* c, zcodeset_handle handle, const char* fmt, va_list ap) {
    ZFormatArguments from;
    va_copy(from.list, ap);
    const int parsed = zformatParse(*c, handle, fmt, from);
    va_end(from.list);
    return parsed;
}

int zvsnprintf_render(format_context* c, char* buf, int size) {
    return zformatInto(*c, buf, roomOf(size));
}

void zvsnprintf_done(format_context* c) { zformatDone(*c); }

int zvsnprintf(char* buf, int size, const char* fmt, va_list ap) {
    ZFormatArguments from;
    va_copy(from.list, ap);
    const int length = formatInto(buf, size, fmt, from);
    va_end(from.list);
    return length;
}

int zsnprintf(char* buf, int size, const char* fmt, ...) {
    ZFormatArguments from;
    va_start(from.list, fmt);
    const int length = formatInto(buf, size, fmt, from);
    va_end(from.list);
    return length;
}
