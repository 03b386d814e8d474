/* zproperties.h: the configuration database for C callers. Valid C99.
 *
 * A caller opens a stanza file, reads, changes and walks it, and stores it. Handles are opaque and
 * tested at every call; failures are result numbers; text that is handed out is freed by a function
 * of this header, or belongs to the handle, as each call says. All text is in the local codeset.
 *
 * Results: each function that returns a result lists the numbers that it can give. "err" is an int
 * that takes the result of a function whose return value is the answer itself; it is 0 on success.
 * What the last failing call of a thread has met in detail, zstzPropLastError tells.
 *
 * Threads: two threads may share a handle; each call is atomic. An open iterator keeps all other
 * threads waiting at any call with its handle, and has to be closed by the thread that made it,
 * before the handle is closed.
 *
 * Files: a load or store holds a record lock on the stanza file and doesn't wait for one. Such
 * locks belong to the process: closing any descriptor of the file drops them.
 *
 * Shared edits: what a program reads, changes and stores is safe from other writers between
 * zstzPropBegin and zstzPropCommit. zstzPropOpenWith says what a store does about failures and
 * crashes, how long locks are waited for, and what is refused because it wouldn't come back.
 *
 * Set-up: either the program calls zstzPropSetup(ZPROP_SETUP_UTF8) ahead of all else, and nothing
 * of the process is touched; or the environment variable QELDIR must be set, or the process ends at
 * the first call that handles text, and the first such call also runs setlocale(LC_ALL, ""). */
#ifndef Z_ZPROPERTIES_LOWER_H
#define Z_ZPROPERTIES_LOWER_H

#include <stddef.h>
#include <stdint.h>

#include "zstoremodes.h"

/* Results. 56 isn't used. */
#define ZPROP_OK 0             /* done */
#define ZPROP_ERR_FILE 51      /* open or store failed */
#define ZPROP_ERR_UPDATE 52    /* a change failed */
#define ZPROP_ERR_VALUE 53     /* a value can't be converted, or memory ran out */
#define ZPROP_ERR_MISSING 54   /* a required value is missing */
#define ZPROP_ERR_PARAM 55     /* a bad handle or argument */
#define ZPROP_ERR_ITERATOR 57  /* the call doesn't suit this iterator or its place */
#define ZPROP_ERR_LOCKED 60    /* somebody else holds the file's lock */
#define ZPROP_ERR_UNSAVED 61   /* there are unsaved changes, or an update is open already */
#define ZPROP_ERR_NO_UPDATE 62 /* the thread has no update open */
#define ZPROP_ERR_SETUP 63     /* text was set up otherwise already */
#define ZPROP_SHADOWED 64      /* stored, but a higher file has the key too; see zlayers.h */

/* How zstzPropSetup sets text up. */
#define ZPROP_SETUP_UTF8 1 /* local text is UTF-8, and nothing of the process is touched */

/* How a file is opened: 1 or 2. The two don't differ today; use the one that says what you mean. */
typedef int ZPROPOpenMode;
#define ZPROP_OPEN_READ 1   /* to look things up */
#define ZPROP_OPEN_UPDATE 2 /* to change and store them too */

/* Kinds of ZPROP_item, and where `result` then points. */
#define ZPROP_ITEM_BOOLEAN 1 /* an int */
#define ZPROP_ITEM_INTEGER 2 /* an int */
#define ZPROP_ITEM_STRING 3  /* a char* */
#define ZPROP_ITEM_VALUES 4  /* a char** */

/* Flag of ZPROP_item: the entry may be absent. With any other flag it is required. */
#define ZPROP_ITEM_OPTIONAL 1

#ifdef __cplusplus
class ZPROP_handle;
class ZPROP_iter_handle;
class ZPROP_watch_handle;
#else
typedef struct ZPROP_handle ZPROP_handle;
typedef struct ZPROP_iter_handle ZPROP_iter_handle;
typedef struct ZPROP_watch_handle ZPROP_watch_handle;
#endif

/* What zstzPropWatch_process tells of a key, or of a stanza where `key` is null. The texts are good
 * during the call. */
#define ZPROP_ADDED 0
#define ZPROP_DELETED 1
#define ZPROP_MODIFIED 2 /* has other values */
/* The function to call for each change. */
typedef void (*ZPROP_change_callback)(void* data, const char* stanza, const char* key, int change);

/* What zstzPropForEach tells: a stanza where `key` is null, a key without values where `value` is,
 * else one value. The texts are good during the call. */
typedef struct ZPROP_entry {
    const char* stanza; /* its name */
    const char* key;    /* or null */
    const char* value;  /* or null */
    int hidden;         /* whether the value stands in the side database and not in the text */
} ZPROP_entry;
/* The function to call for each; it ends the walk by returning another number than 0. */
typedef int (*ZPROP_entry_callback)(void* data, const ZPROP_entry* entry);

/* One request of zstzPropGetValues. */
typedef struct ZPROP_item {
    int kind;           /* one of the numbers above */
    const char* stanza; /* where to look */
    const char* key;    /* likewise */
    int flag;           /* ZPROP_ITEM_OPTIONAL or another */
    void* result;       /* where the answer goes */
} ZPROP_item;

/* What a failing call has met. The texts belong to the library and are good until the thread's next
 * zstzProp call; both are null where there is nothing to tell. */
typedef struct ZPROP_error {
    int number;       /* the message number of the failure; 0: the last call met none */
    const char* file; /* the file or directory that it is about */
    int line;         /* for bad data the line of the file, from 1; else 0 */
    const char* text; /* the bad line, the bad value, why a name or value was refused, or what
                         failed and why */
} ZPROP_error;

Z_BEGIN_C

/* --- Set-up --- */

/* With ZPROP_SETUP_UTF8, says ahead of the first text of the process that local text is UTF-8.
 * QELDIR isn't read then; the process's locale and environment stay as they are; case, classes and
 * order of characters, and the decimal point, are those of C.UTF-8; and the library neither ends
 * the process nor prints by itself. 0 when it is so from now on, or was set up so before; 55 for
 * another number; 63 if text was set up otherwise already; 53 without memory, where the system
 * has no C.UTF-8, or without a descriptor to look for it where LOCPATH says, and nothing is set up
 * then: the first text does it by QELDIR. Any thread, at any time. */
ZEXPORT int zstzPropSetup(int how);

/* --- Handles --- */

/* Opens `file` and loads it, comments kept. The handle goes to *out and is closed by zstzPropClose.
 * 0; 55 for a null argument or another mode, *out untouched; 51 if the file can't be loaded, *out
 * null then. */
ZEXPORT int zstzPropOpen(ZPROP_handle** out, const char* file, ZPROPOpenMode mode);

/* A handle for changing with what `length` bytes say in place of a file; `attributes` as for
 * zstzPropOpenWith. It has no path: each store names one, and is made plainly, and no update can be
 * begun. The bytes aren't kept. 0; 55 for a null `out`, null bytes with a length or unknown
 * attributes, *out untouched; 51 for bad data or without memory, *out null then. */
ZEXPORT int zstzPropOpenBytes(ZPROP_handle** out, const void* bytes, size_t length,
                              unsigned long attributes);

/* Puts what `length` bytes say in place of all that the handle has, as one change; a failure
 * changes nothing. Hidden values stay, but for keys to which the bytes give plain ones, and so does
 * where the side database is, whatever the bytes say of it. 0; 55 for a bad handle or null bytes
 * with a length; 51 for bad data or without memory. */
ZEXPORT int zstzPropLoadBytes(ZPROP_handle* handle, const void* bytes, size_t length);

/* The text of the handle as a store writes it, as a new block with a NUL behind it, for
 * zstzPropFree, into *bytes; their number into *length unless that is null. Hidden values aren't
 * in it. Changes nothing, and the handle stays modified. 0; 55 for a bad handle or a null
 * `bytes`; 53 without memory, *bytes null then. */
ZEXPORT int zstzPropStoreBytes(ZPROP_handle* handle, char** bytes, size_t* length);

/* The path that the handle was opened with. It belongs to the handle and is good until that is
 * closed. Null for a handle from bytes and for a bad one. */
ZEXPORT const char* zstzPropPath(ZPROP_handle* handle);

/* Whether something was changed since the last load or store. 0 for a bad handle. */
ZEXPORT int zstzPropIsModified(ZPROP_handle* handle);

/* Closes without storing. A bad handle, null too, is ignored, and so is one in which another thread
 * has an update open. */
ZEXPORT void zstzPropClose(ZPROP_handle* handle);

/* Writes to `file`, or to the opened path if that is null. 0; 55 for a bad handle; 51. */
ZEXPORT int zstzPropStore(ZPROP_handle* handle, const char* file);

/* --- Reading ---
 *
 * If a text argument or `err` is null these return 0 and leave *err alone, where nothing else is
 * said. A bad handle gives 55 in *err and 0; so does an empty name. 53 where memory runs out. */

/* Whether the key exists, or the stanza if `key` is null. */
ZEXPORT int zstzPropExists(ZPROP_handle* handle, const char* stanza, const char* key, int* err);

/* Whether the key's values are hidden: they stand in the side database and not in the text. 0 for a
 * missing key. */
ZEXPORT int zstzPropIsHidden(ZPROP_handle* handle, const char* stanza, const char* key, int* err);

/* The number of stanzas, of a stanza's keys, of a key's values. */
ZEXPORT int zstzPropNumStanzas(ZPROP_handle* handle, int* err);
ZEXPORT int zstzPropNumKeys(ZPROP_handle* handle, const char* stanza, int* err);
ZEXPORT int zstzPropNumValues(ZPROP_handle* handle, const char* stanza, const char* key, int* err);

/* The last value, as a new string for zstzPropFree. Null for an absent or empty one: then *err is
 * 54 if `required` isn't 0, else 0. */
ZEXPORT char* zstzPropGetStringValue(ZPROP_handle* handle, const char* stanza, const char* key,
                                     int required, int* err);

/* The last value as a number (decimal, octal with a leading 0, hexadecimal with 0x), or as a truth
 * (yes, y, true, t, 1 or no, n, false, f, 0). 0 if there is none; *err is 54 then if it is
 * required, and 53 if it can't be converted. With a null stanza, key or err these two return the
 * number 55 as their value. */
ZEXPORT unsigned int zstzPropGetIntegerValue(ZPROP_handle* handle, const char* stanza,
                                             const char* key, int required, int* err);
ZEXPORT int zstzPropGetBooleanValue(ZPROP_handle* handle, const char* stanza, const char* key,
                                    int required, int* err);

/* The last value as a signed number of 64 bits (decimal, octal with a leading 0, hexadecimal with
 * 0x, with an optional sign) or as a real number (decimal, with "." as decimal point in any locale;
 * infinite and not a number as "inf" and "nan"). White space around it isn't looked at. 0 if there
 * is none; *err is 54 then if it is required, and 53 if it can't be converted or lies out of
 * range. */
ZEXPORT int64_t zstzPropGetInt64Value(ZPROP_handle* handle, const char* stanza, const char* key,
                                      int required, int* err);
ZEXPORT double zstzPropGetDoubleValue(ZPROP_handle* handle, const char* stanza, const char* key,
                                      int required, int* err);

/* Answers requests in order. The first that fails ends it: 54 for a missing required value, 53 for
 * one that can't be converted or without memory, 55 for a bad request; the results before it stay.
 * Also 55 for a bad handle or null items. 0 otherwise, and for a count of 0 or less. A list of
 * values ends with a null pointer and is just that for a missing key, which is no error. Texts and
 * lists go back through zstzPropFreeValuesList. */
ZEXPORT int zstzPropGetValues(ZPROP_handle* handle, ZPROP_item* items, int count);

/* Frees what zstzPropGetValues made, and sets each text and list to null. Requests that it didn't
 * reach must have a null there. Nothing happens for a bad handle or null items. */
ZEXPORT void zstzPropFreeValuesList(ZPROP_handle* handle, ZPROP_item* items, int count);

/* Frees a string of zstzPropGetStringValue. Null is ignored, and so is a block of malloc that
 * doesn't come from there: the 4 bytes in front of it are looked at. */
ZEXPORT void zstzPropFree(char* string);

/* The stanza names in the order of the file, as a list that ends with a null pointer, for
 * zstzPropFreeStanzas. 0; 55 for a bad handle or a null `names`; 53 without memory, *names null
 * then. */
ZEXPORT int zstzPropGetStanzas(ZPROP_handle* handle, char*** names);

/* The stanza's keys, likewise. A stanza that isn't there has none. Also 55 for a null stanza. */
ZEXPORT int zstzPropGetKeys(ZPROP_handle* handle, const char* stanza, char*** names);

/* The comments, a line each without blanks at its ends, likewise: of the file if `stanza` is
 * null (its first lines, up to the first that is no comment), of the stanza if `key` is null
 * (directly below its header), or of the key (directly above its line). Comments between a header
 * and its first key belong to both. What isn't there has none. */
ZEXPORT int zstzPropGetComments(ZPROP_handle* handle, const char* stanza, const char* key,
                                char*** lines);

/* Calls `visit` with `data` for each stanza, and behind it for each of its keys or, where a key has
 * values, for each of those: all in the order of the file, as of one moment; a key stands at its
 * first line, with all its values. No lock is held
 * meanwhile, and `visit` may make any call. 0, also where `visit` ends the walk; 55 for a bad
 * handle or a null `visit`; 53 without memory, before the first call. */
ZEXPORT int zstzPropForEach(ZPROP_handle* handle, ZPROP_entry_callback visit, void* data);

/* The same as one block, for interpreters: texts with a NUL behind each, of which the first byte
 * tells what the rest is: "[" a stanza's name, "." the name of one of its keys, "=" a value of that
 * key, "*" a hidden one. The block is for zstzPropFree; its length goes to *length. 0; 55 for a bad
 * handle or a null argument; 53 without memory, *block null then. */
ZEXPORT int zstzPropGetEntries(ZPROP_handle* handle, char** block, size_t* length);

/* Frees a list of zstzPropGetStanzas, zstzPropGetKeys or zstzPropGetComments. Null is ignored. */
ZEXPORT void zstzPropFreeStanzas(char** names);

/* What the calling thread's last zstzProp call has met if it failed; all zero and null if it
 * didn't. Returns error->number, 0 also for a null `error`. This call itself doesn't count. */
ZEXPORT int zstzPropLastError(ZPROP_error* error);
/* The errno of the system's call that made it fail, such as ENOENT; 0 if it didn't fail, or for
 * another reason than a call of the system. Nor does this call count. */
ZEXPORT int zstzPropLastErrno(void);

/* --- Changing ---
 *
 * Changes stay in memory until zstzPropStore. 0; 55 for a bad handle or a null argument; 52 if the
 * change fails, for instance on a key whose values are hidden. While values are, the stanza
 * configuration-database and its key `file`, which say where, can't be set, added to or removed. */

/* The value becomes the only one of its key; null empties the key. Stanza, key and line are made as
 * needed. */
ZEXPORT int zstzPropSetStringValue(ZPROP_handle* handle, const char* stanza, const char* key,
                                   const char* value);
ZEXPORT int zstzPropSetIntegerValue(ZPROP_handle* handle, const char* stanza, const char* key,
                                    unsigned int value);
/* Writes "yes" or "no". */
ZEXPORT int zstzPropSetBooleanValue(ZPROP_handle* handle, const char* stanza, const char* key,
                                    int value);
/* A real number is written with as few digits as give the same number back. */
ZEXPORT int zstzPropSetInt64Value(ZPROP_handle* handle, const char* stanza, const char* key,
                                  int64_t value);
ZEXPORT int zstzPropSetDoubleValue(ZPROP_handle* handle, const char* stanza, const char* key,
                                   double value);
/* The value comes behind the key's others; one that is there already isn't added again, and an
 * empty one is refused. */
ZEXPORT int zstzPropAddStringValue(ZPROP_handle* handle, const char* stanza, const char* key,
                                   const char* value);
/* Remove a key with its values, a stanza with its keys. What isn't there is no error. */
ZEXPORT int zstzPropRemoveKey(ZPROP_handle* handle, const char* stanza, const char* key);
ZEXPORT int zstzPropRemoveStanza(ZPROP_handle* handle, const char* stanza);
/* A comment behind those below the stanza's header, at the end of the file's first paragraph, or in
 * front of a key. "#" is put in front of the text if it isn't there; what is missing is made. */
ZEXPORT int zstzPropAddStanzaComment(ZPROP_handle* handle, const char* stanza, const char* text);
ZEXPORT int zstzPropAddFileComment(ZPROP_handle* handle, const char* text);
ZEXPORT int zstzPropAddLineComment(ZPROP_handle* handle, const char* stanza, const char* key,
                                   const char* text);

/* Removes what zstzPropGetComments tells. Also 0 where there are none. */
ZEXPORT int zstzPropRemoveComments(ZPROP_handle* handle, const char* stanza, const char* key);

/* --- Walking ---
 *
 * A bad iterator gives 55, in *err with the answer 0 or null, or as the result. `err` must not be
 * null. 53 where memory runs out. The thread may change and remove what it likes meanwhile: a walk
 * whose key has gone stands on none, and goes on behind its place; where its stanza has gone, or
 * all was read anew, it is at its end. */

/* A walk over the keys of the stanza in file order if `key` is null, else over the values of that
 * key. It goes to *out, and is closed by zstzPropIter_close. 0; 55. */
ZEXPORT int zstzPropIter_init(ZPROP_handle* handle, const char* stanza, const char* key,
                              ZPROP_iter_handle** out);

/* Moves on: 1, or 0 at the end, which is no error. */
ZEXPORT int zstzPropIter_next(ZPROP_iter_handle* iterator, int* err);

/* The key of the walk's place. It belongs to the iterator and is good until its next call. Null
 * with 57 where a walk over keys stands on none. */
ZEXPORT const char* zstzPropIter_getKey(ZPROP_iter_handle* iterator, int* err);

/* The value of the walk's place as it is now, or the first value of its key, owned likewise.
 * `unused` is read by nothing. Where a walk over values stands on none, the empty text; where one
 * over keys does, null with 57; null with 55 for a key without values. */
ZEXPORT const char* zstzPropIter_getValue(ZPROP_iter_handle* iterator, int unused, int* err);

/* The number of keys, 1 in a walk over values. */
ZEXPORT int zstzPropIter_numKeys(ZPROP_iter_handle* iterator, int* err);

/* The number of values; 57 in a walk over keys. */
ZEXPORT int zstzPropIter_numValues(ZPROP_iter_handle* iterator, int* err);

/* Replaces the value of the walk's place; adds one behind it and moves there; removes it and moves
 * back. 0; 57 in a walk over keys, and where replacing or removing has no value to work on; 55
 * where the key says where hidden values are. A null text is the empty one. */
ZEXPORT int zstzPropIter_chgValue(ZPROP_iter_handle* iterator, const char* text);
ZEXPORT int zstzPropIter_addValue(ZPROP_iter_handle* iterator, const char* text);
ZEXPORT int zstzPropIter_rmvValue(ZPROP_iter_handle* iterator);

/* Ends the walk and frees the iterator. 0; 55 for a bad one or another thread's, which is left
 * alone. */
ZEXPORT int zstzPropIter_close(ZPROP_iter_handle* iterator);

/* --- Shared edits ---
 *
 * The numbers of `attributes` and `storeMode` stand in zstoremodes.h. */

/* As zstzPropOpen, with `attributes` besides ZPCACHE_KEEP_COMMENTS (ZPCACHE_STRICT,
 * ZPCACHE_KEEP_LINES), stores in `storeMode` (ZPROP_STORE_PLAIN, ..._CHECKED, ..._SAFE), and loads
 * and stores that wait up to `wait` milliseconds for the file's lock. 0; 55 for a null argument or
 * an unknown mode, *out untouched; 60 if the lock didn't come in time, 51 if the file can't be
 * loaded,
 * *out null then. */
ZEXPORT int zstzPropOpenWith(ZPROP_handle** out, const char* file, ZPROPOpenMode mode,
                             unsigned long attributes, int storeMode, unsigned long wait);

/* Begins an update: locks the file against all other writers, waiting up to `milliseconds`, and
 * reads it anew. From here to the end of the update other threads wait at any call with this
 * handle. 0; 55 for a bad handle; 60 if the lock didn't come in time; 61 if there are unsaved
 * changes or an update is open already; 51 if the file can't be opened or read. */
ZEXPORT int zstzPropBegin(ZPROP_handle* handle, unsigned long milliseconds);

/* Stores and ends the update. 0; 55 for a bad handle; 62 if the calling thread has no update open;
 * 51 if it can't be stored, and the update is still open then. */
ZEXPORT int zstzPropCommit(ZPROP_handle* handle);

/* In which way the handle's last store was made, into *storeMode: the one it was opened with, but
 * ZPROP_STORE_CHECKED in place of ZPROP_STORE_SAFE where what a safe store writes beside the file
 * can't be given the file's owner, group and access, as when neither its owner nor root stores. A
 * crash in the middle may then leave a part of the new content. Results: ZPROP_OK, ZPROP_ERR_PARAM.
 * Any thread. */
ZEXPORT int zstzPropLastStoreMode(ZPROP_handle* handle, int* storeMode);

/* Forgets what was changed since the update began, and ends it. zstzPropClose does the same. 0; 55
 * for a bad handle; 62 if the calling thread has no update open; 53 without memory, and what is in
 * memory is undefined until the next update then. */
ZEXPORT int zstzPropRollback(ZPROP_handle* handle);

/* --- Watching ---
 *
 * One thread at a time may call with a watch, which has to be closed before its handle. */

/* Watches the handle's file for other processes' stores. The watch goes to *out, and is closed by
 * zstzPropWatch_close. 0; 55 for a bad handle or a null `out`; 51 if there are no descriptors
 * left; 53 without memory. */
ZEXPORT int zstzPropWatch_open(ZPROP_handle* handle, ZPROP_watch_handle** out);

/* A descriptor for poll, readable when zstzPropWatch_process has something to do. It belongs to the
 * watch. -1 for a bad one. */
ZEXPORT int zstzPropWatch_fd(ZPROP_watch_handle* watch);

/* How long a file that somebody writes to, and hasn't closed, must have got no byte before it is
 * read: 50 milliseconds at first; 0 waits for nobody. 0; 55 for a bad watch. */
ZEXPORT int zstzPropWatch_setSettlingTime(ZPROP_watch_handle* watch, unsigned long milliseconds);

/* Looks, without waiting, whether the file has other content than the handle. If so, loads it,
 * calls `changed` (null: nothing) with `data` once for each key that was added, deleted or has
 * other values and for each stanza that came or went, and returns the number of these. While there
 * are unsaved changes or an update is open, or a writer holds the file, 0, and the next call tries
 * again. *err, which must not be null, is 0; 55 for a bad watch; 51 if the file can't be loaded. */
ZEXPORT int zstzPropWatch_process(ZPROP_watch_handle* watch, ZPROP_change_callback changed,
                                  void* data, int* err);

/* Ends the watch. 0; 55 for a bad one. */
ZEXPORT int zstzPropWatch_close(ZPROP_watch_handle* watch);

Z_END_C

#endif
