/* z.h: the plain-C basics that every unit and every C caller includes. Valid C99. */
#ifndef Z_Z_LOWER_H
#define Z_Z_LOWER_H

#include <stddef.h>
#include <stdint.h>

#include "zplatform.h"
#include "zversion.h"

#endif
