/* zdialects.h: files of other programs, for C callers. Valid C99.
 *
 * zdialect.h says what a dialect is, ZDialects.h where its presets are looked for. A handle of a
 * file in another dialect is an ordinary one: a change takes the place of the bytes that it is
 * about, and no other byte of the file. What can't be said there, as hidden values and texts that
 * the dialect can't give back, is refused: zstzPropLastError gives 22 and the reason. A comment
 * without a comment's sign gets the dialect's. Comments, other names of stanzas and keys, and
 * entries that become comments or come from one cost as much as a load each, and the next store
 * takes the text that was read, changed so, for what the file holds: outside of an update what
 * others have written there meanwhile is lost then.
 *
 * Threads: as zproperties.h; the calls without a handle from any. */
#ifndef Z_ZDIALECTS_LOWER_H
#define Z_ZDIALECTS_LOWER_H

#include "zdialect.h"
#include "zproperties.h"

/* The function to call for each preset; it ends the walk by returning another number than 0. What
 * it is given is gone then. */
typedef int (*ZDialect_callback)(void* data, const char* name, const char* description);
/* The function to call for each line that a conversion leaves out, with its number from 1, its text
 * without the line's end, and why: "a value can't hold a line end". The texts are good during the
 * call. */
typedef void (*ZDialect_left_callback)(void* data, int line, const char* text, const char* reason);

Z_BEGIN_C

/* The preset of this name into *dialect. 0; 51 if there is none, or it is bad, *dialect untouched;
 * 55 for a null argument or a name that can't be one. Reads files. */
ZEXPORT int zstzDialect_get(const char* name, ZDialect* dialect);

/* The preset for a path, by the patterns of all presets, into *name, and the pattern into *pattern;
 * both for zstzPropFree, and null if there is none, which is no failure. 0; 51 where a preset can't
 * be read; 55 for a null argument or an empty path. Reads files, but not that one. */
ZEXPORT int zstzDialect_ofFile(const char* path, char** name, char** pattern);

/* Calls visit(data, name, description) for each preset, by name. 0, or what visit gave; 51 where a
 * preset can't be read; 55 for a null visit. */
ZEXPORT int zstzDialect_forEach(ZDialect_callback visit, void* data);

/* What can't be, as "continued lines by indent" and "can't go with a blank as divider": static
 * texts, null and null if all is well. */
ZEXPORT void zstzDialect_clash(const ZDialect* dialect, const char** first, const char** second);

/* Says in the dialect `to` what `length` bytes say in the dialect `from`, as a new block with a NUL
 * behind it, for zstzPropFree, into *made; its length into *size unless that is null. A null
 * dialect is the library's own. Comments and the order of stanzas and keys are kept; calls
 * left(data, line, text, reason), unless `left` is null, for each line that isn't said, in their
 * order (ZDialects.h tells which). 0; 51 for bad data, whose line zstzPropLastError tells, *made
 * null then and nothing called; 53 without memory; 55 for a null `made`, null bytes with a length,
 * or a dialect that clashes. */
ZEXPORT int zstzDialect_convert(const ZDialect* from, const void* bytes, size_t length,
                                const ZDialect* to, ZDialect_left_callback left, void* data,
                                char** made, size_t* size);

/* As zstzPropOpenWith and zstzPropOpenBytes, of a text in this dialect, which is copied; null: the
 * library's own. 55 too for a dialect that clashes. */
ZEXPORT int zstzPropOpenDialect(ZPROP_handle** out, const char* file, ZPROPOpenMode mode,
                                const ZDialect* dialect, unsigned long attributes, int storeMode,
                                unsigned long wait);
ZEXPORT int zstzPropOpenDialectBytes(ZPROP_handle** out, const void* bytes, size_t length,
                                     const ZDialect* dialect, unsigned long attributes);

/* 1 if the key stands there without a divider, which only some dialects have; it has no values
 * then. Else 0. *err: 0, or 55 for a bad handle or a null name. */
ZEXPORT int zstzPropIsBare(ZPROP_handle* handle, const char* stanza, const char* key, int* err);
/* Makes it such a key. 0; 55 for a bad handle or a null name; 52 where the dialect has none. */
ZEXPORT int zstzPropSetBare(ZPROP_handle* handle, const char* stanza, const char* key);

Z_END_C

#endif
