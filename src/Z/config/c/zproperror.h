// zproperror.h: how the C interface tells failures: exceptions become result numbers, and what they
// were about is kept for the thread; and what its units share. Never installed.
#ifndef Z_ZPROPERROR_H
#define Z_ZPROPERROR_H

#include "ZPropHandle.h"
#include "zpblock.h"
#include "zwholefile.h"

/// What a failure is called in each group of functions.
enum ZPropGroup { zfileGroup, zchangeGroup, zreadGroup };

/// The last error of the calling thread: forgets it, notes one, and gives the one that is noted.
void zclearLastError();
void znoteLastError(int number, const char* file, int line, const char* text);
int zlastError(ZPROP_error* error);
/// The errno of the failed system call that was noted with it, or 0.
int zlastErrno();

/// Notes a bad handle or argument: 55.
int zparameterError();

/// Inside a handler: notes the exception and gives its number. A cancelled thread goes on
/// unwinding.
int zresultOfException(ZPropGroup group);

/// The object behind a live handle, or null. Calls come by here first, so that the last error ends
/// here.
ZStanzaFileProperties* zliveProperties(ZPROP_handle* handle);

/// The attributes that a handle can be opened with.
static const unsigned long kKnownAttributes =
    ZPCACHE_KEEP_COMMENTS | ZPCACHE_STRICT | ZPCACHE_KEEP_LINES;

/// A new string that zstzPropFree knows, with a NUL behind its `length` bytes.
char* znewString(const char* text, size_t length);
/// The same without a copy: what is added to empty `bytes` between the two calls becomes the
/// string. ZOutOfMemoryException leaves the bytes theirs.
void zbeginString(ZBytes& bytes);
char* zendString(ZBytes& bytes);

/// Runs a call and gives its result number.
template <typename Call>
static int zguarded(ZPropGroup group, Call call) {
    try {
        call();
    } catch (...) {
        return zresultOfException(group);
    }
    return ZPROP_OK;
}

/// The result of a call that takes the file's lock: a lock that didn't come in time has its own.
template <typename Call>
static int zguardedByLock(Call call) {
    bool locked = false;
    const int result = zguarded(zfileGroup, [&] {
        try {
            call();
        } catch (const ZPropertiesIOException& e) {
            const ZLCConstString word(e.api());
            locked = word == "fcntl()" && ZFailure{"fcntl()", e.excerrno()}.isLockedByOthers();
            throw;
        }
    });
    return locked ? ZPROP_ERR_LOCKED : result;
}

/// The result of a store that gave `result`: with several files it may be one that isn't seen.
int zstoreResult(ZPROP_stz_handle* handle, int result);

#endif
