// ZString.h: brings in all string classes.
#ifndef Z_ZSTRING_H
#define Z_ZSTRING_H

#include "ZLCString.h"
#include "ZUTF8String.h"

#endif
