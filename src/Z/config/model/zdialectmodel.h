// zdialectmodel.h: a model read from a text of another dialect, and such a text changed so that it
// says what a model holds. Never installed.
#ifndef Z_ZDIALECTMODEL_H
#define Z_ZDIALECTMODEL_H

#include "zpstore.h"

/// Raises ZPropertiesInvalidDataException for these lines of a file.
[[noreturn]] void zdialectRaiseBad(const char* file, ZSpan lines, int line);

/// Adds what the store's text holds from `start` on, in its dialect. A stanza that appears again
/// goes on, or is NAME#2; of values that are read otherwise than they stand there a copy is made.
/// Raises ZPropertiesInvalidDataException for bad data, with its line and text; what was read
/// before stays. `file` is for messages.
void zdialectRead(ZPStore& store, const char* file, size_t start, bool keepComments);

/// Likewise of a text in memory, into a store that is empty and becomes this dialect's; without
/// comments.
void zdialectLoad(const ZDialect& dialect, const char* file, ZSpan text, ZPStore& store);
/// The same; false for bad data.
bool zdialectFill(const ZDialect& dialect, ZSpan text, ZPStore& store);

/// Makes `out` what `old` becomes so that a load of it gives the stanzas, keys and values of the
/// store, in this order of preference: a line that says the same stays byte for byte; a changed
/// value takes the place of the old one's bytes, in its line; what is gone takes its own lines
/// along; what is new follows the last line of its key, else the last entry of its stanza, else
/// its header, and is spelled as the entries above it (indent, blanks around the divider, line
/// end); a new stanza stands at the end, behind a blank line. Comments and blank lines of `old`
/// stay, but for those of a stanza that is gone as a whole, which go with it: the lines from its
/// header to the next, up to the comments directly above that. Where
/// repeated stanzas are numbered, a load counts those that are left anew. Linear in both.
/// Raises ZOutOfMemoryException, and ZInvalidParameterException (see zrefusal.h) for what the
/// dialect can't say, and where lines below would become part of a value.
/// ZPropertiesInvalidDataException for bad data in `old`, which is `file`'s.
void zdialectRewrite(const ZDialect& dialect, const ZPStore& store, ZSpan old, ZBytes& out,
                     const char* file = "");

/// How many keys of one store, of which each has its stanza's name, its own and all its values, the
/// other hasn't; all spellings of a name alike, and stanzas without the numbers that a load gives
/// them anew. Both are of this dialect. n log n. Raises ZOutOfMemoryException.
size_t zdialectDifference(const ZDialect& dialect, const ZPStore& one, const ZPStore& other);

#endif
