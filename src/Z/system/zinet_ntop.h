/* zinet_ntop.h: network addresses as text. Valid C99. */
#ifndef Z_ZINET_NTOP_H
#define Z_ZINET_NTOP_H

#include <sys/socket.h>

#include "z.h"

Z_BEGIN_C

/* inet_ntop of the system: writes the address, which is in network order, into the `size` bytes of
 * `text` and gives that. Null with errno when `size` is too small (INET_ADDRSTRLEN and
 * INET6_ADDRSTRLEN are enough) or the family isn't known. Threads: any. */
ZEXPORT const char* zinet_ntop(int family, const void* address, char* text, socklen_t size);

Z_END_C

#endif
