/* zshlib.h: the dynamic loader with error numbers instead of globals. Valid C99.
 *
 * Each call that takes `error` first sets it to 0 and then to the number of a failure; null means
 * that nobody wants to know. The number is errno after the loader's call. The loader needn't have
 * set it, so a failure may carry 0 or an older number; its own words are in zdlerror().
 *
 * Threads: any. What zdlerror() gives is that of the calling thread. */
#ifndef Z_ZSHLIB_H
#define Z_ZSHLIB_H

#include "z.h"

Z_BEGIN_C

/* Loads a library and gives its handle; null if that fails. `mode` is that of dlopen; 0 stands for
 * RTLD_NOW | RTLD_GLOBAL. A null name is failure 2 and doesn't reach the loader. */
ZEXPORT void* zdlopen(const char* name, int mode, int* error);

/* The address of a symbol; null if it isn't found, and for a null handle or symbol, which don't
 * reach the loader: the number is errno as it stood then. A symbol whose value is null isn't told
 * from one that isn't there. */
ZEXPORT void* zdlsym(void* handle, const char* symbol, int* error);

/* Gives a handle back. A null handle is failure 2 and doesn't reach the loader. */
ZEXPORT void zdlclose(void* handle, int* error);

/* The loader's text of the latest failure in this thread that hasn't been asked for yet, as a copy
 * for free(); null when there is none, or no memory for it. */
ZEXPORT char* zdlerror(void);

Z_END_C

#endif
