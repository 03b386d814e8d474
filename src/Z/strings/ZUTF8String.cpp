#include "ZUTF8String.h"

#include "ZLCString.h"

#define Z_STRING ZUTF8String
#define Z_CONST_STRING ZUTF8ConstString
#define Z_OTHER_STRING ZLCString
#define Z_OTHER_CONST_STRING ZLCConstString
#include "zstringfamilycode.h"
