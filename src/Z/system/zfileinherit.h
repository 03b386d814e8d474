/* zfileinherit.h: whether programs that this process starts get a descriptor. Valid C99. */
#ifndef Z_ZFILEINHERIT_H
#define Z_ZFILEINHERIT_H

#include "z.h"

Z_BEGIN_C

/* Lets the descriptor stay open across exec if `inherit` isn't 0, else has it closed there. 1 when
 * done; 0 if the system refused, with its errno. Threads: any. */
ZEXPORT int zsetfileinheritance(int fd, int inherit);

Z_END_C

#endif
