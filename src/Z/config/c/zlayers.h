/* zlayers.h: a configuration out of the files of several folders, for C callers. Valid C99.
 *
 * zlayerterms.h says which files count. A handle of zstzLayers_open is an ordinary one to all calls
 * that read. What is changed goes into one of the files, the target, as the changed keys alone:
 * with zstzPropStore, or between zstzPropBegin and zstzPropCommit. What can't be said of several
 * files is refused, and zstzPropLastError gives 22 and the reason: comments, other names, bytes.
 *
 * Shadows: if a file above the target gives a changed key other values still, zstzPropStore and
 * zstzPropCommit have stored all the same and give ZPROP_SHADOWED; with ZLAYERS_REFUSE_SHADOWED
 * they give 51 and have stored nothing. zstzPropLastError tells that file and line in both cases.
 *
 * Threads: as zproperties.h. */
#ifndef Z_ZLAYERS_LOWER_H
#define Z_ZLAYERS_LOWER_H

#include "zlayerterms.h"
#include "zproperties.h"

/* The function to call for each file; it ends the walk by returning another number than 0. What it
 * is given is gone then. */
typedef int (*ZLayers_file_callback)(void* data, const ZLayerInfo* file);
/* Likewise for each entry. */
typedef int (*ZLayers_entry_callback)(void* data, const ZLayerEntry* entry);

Z_BEGIN_C

/* A new handle into *out, for zstzPropClose; null on failure. The terms are copied. `attributes`:
 * ZPCACHE_STRICT, or 0. Waits up to `wait` milliseconds for the lock of each file, here and at each
 * load and store. 0; 51 for a file that can't be read, where files change as fast as they are read,
 * and for terms that can't be, a dialect whose switches clash among them; 60 for a file that
 * somebody else has locked; 55 for a bad argument; 53 without memory. */
ZEXPORT int zstzLayers_open(ZPROP_handle** out, const ZLayersTerms* terms, ZPROPOpenMode mode,
                            unsigned long attributes, unsigned long wait);

/* Where changes go: the main file of this root, null being the highest, or if `dropIn` isn't null
 * that drop-in of it. 0; 55 for a handle of one file, another root, a name that can't be a
 * drop-in's, in an update and with unsaved changes; 51 where links to it can't be followed. Whether
 * the file may be changed shows when it is: one that would hide others, is hidden by them, or
 * stands at a later place once more gives 51 then; below a prefix a link, too. */
ZEXPORT int zstzLayers_setTarget(ZPROP_handle* handle, const char* root, const char* dropIn);

/* Where the value at `index`, from 0, of a key comes from: a new string for zstzPropFree, and the
 * line, from 1. The line is 0 for a hidden value, a variable ("$NAME") or a credential, and the
 * string empty for a value that isn't stored. 0; 55 for a bad argument, a handle of one file, and
 * where there is no such value; 53 without memory. The first call on a file looks through it. */
ZEXPORT int zstzPropOrigin(ZPROP_handle* handle, const char* stanza, const char* key,
                           unsigned int index, char** file, int* line);

/* Call `visit` for each file that the last load has found, in their order, or for each entry of all
 * files, also those that have lost their place; until it returns other than 0, which is given back
 * then. No lock is held meanwhile. 0; 55 for a bad
 * argument or a handle of one file; 53 without memory. */
ZEXPORT int zstzLayers_forEachFile(ZPROP_handle* handle, ZLayers_file_callback visit, void* data);
ZEXPORT int zstzLayers_forEachEntry(ZPROP_handle* handle, ZLayers_entry_callback visit, void* data);

Z_END_C

#endif
