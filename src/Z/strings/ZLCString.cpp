#include "ZLCString.h"

#include "ZUTF8String.h"

#define Z_STRING ZLCString
#define Z_CONST_STRING ZLCConstString
#define Z_OTHER_STRING ZUTF8String
#define Z_OTHER_CONST_STRING ZUTF8ConstString
#include "zstringfamilycode.h"
