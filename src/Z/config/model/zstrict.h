// zstrict.h: what a stanza file gives back as it was put in. Never installed.
//
// Each raises ZInvalidParameterException for what it wouldn't.
#ifndef Z_ZSTRICT_H
#define Z_ZSTRICT_H

#include <cstddef>

/// Bytes of a line, its newline counted; a longer one is read as several.
static const size_t kLongestLine = 8191;

/// Not empty, no line end, no "]".
void zrequireStanza(const char* name);
/// Not empty, no line end, no "=", no blanks at its ends, neither "#" nor "[" first.
void zrequireKey(const char* name);
/// A value of this key: no line end and no blanks at its ends. Empty only where `mayBeEmpty`.
void zrequireValue(const char* key, const char* value, bool mayBeEmpty);
/// Any text but the empty one: the side database holds it.
void zrequireHidden(const char* value);
/// "#" first, no line end, no blank at its end.
void zrequireComment(const char* text);

#endif
