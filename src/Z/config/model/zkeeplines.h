// zkeeplines.h: lets a text that a store has written keep those lines of the old text that say the
// same. Never installed.
#ifndef Z_ZKEEPLINES_H
#define Z_ZKEEPLINES_H

#include "zpblock.h"

/// Makes `out` the lines of `written`, a stanza file as the cache writes it, with those that
/// `original` has in the same stanza as `original` spells them: indent, blanks around "=", what
/// stands behind a header, carriage return, a last line without its end. The values of a key stay
/// where they were if none of them has changed. What is new or changed gets carriage returns if all
/// of the old lines have them. Cost: linear in both texts. Raises ZOutOfMemoryException.
void zkeepLines(ZSpan original, ZSpan written, ZBytes& out);

/// The first value that a text has for a key, as it stands in its line. False if it has no such
/// line. Whether the other lines are good ones doesn't matter.
bool zfindValue(ZSpan text, const char* stanza, const char* key, ZSpan& value);

#endif
