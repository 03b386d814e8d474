/* zinet_pton.h: network addresses from text. Valid C99. */
#ifndef Z_ZINET_PTON_H
#define Z_ZINET_PTON_H

#include "z.h"

Z_BEGIN_C

/* inet_pton of the system: 1 and the address in network order for text of the family (AF_INET: 4
 * bytes, AF_INET6: 16); 0 for other text; -1 with errno for a family it doesn't know.
 * Threads: any. */
ZEXPORT int zinet_pton(int family, const char* text, void* address);

Z_END_C

#endif
