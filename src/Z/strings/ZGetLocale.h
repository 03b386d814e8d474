// ZGetLocale.h: the name of the process's locale as a string.
#ifndef Z_ZGETLOCALE_H
#define Z_ZGETLOCALE_H

#include "ZAbstractMutableString.h"

/// Puts the canonical name of the process's locale into `s`, the empty text if there is none. 0.
ZEXPORT int ZGetLocale(ZAbstractMutableString& s);

#endif
