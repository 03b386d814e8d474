// zdialectconvert.h: a text of one dialect, said in another. Never installed.
#ifndef Z_ZDIALECTCONVERT_H
#define Z_ZDIALECTCONVERT_H

#include "zdialect.h"
#include "zpblock.h"

/// A line that was left out: its number, its text without the line's end, and why.
typedef void (*ZDialectLeftOut)(void* data, int line, const char* text, const char* reason);

/// Adds to `out` what `text` says, spelled as is usual in the other dialect, stanzas, keys and
/// comments in their order. Calls leftOut(data, ...) for each line that it can't say, in the order
/// of the text. Null for a dialect: the library's own. The two have no clash.
/// Raises ZPropertiesInvalidDataException for a bad line, with `file` and before anything is left
/// out, and ZOutOfMemoryException.
void zdialectConvert(const ZDialect* from, const char* file, ZSpan text, const ZDialect* to,
                     ZDialectLeftOut leftOut, void* data, ZBytes& out);

#endif
