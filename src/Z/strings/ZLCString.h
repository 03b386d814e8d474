// ZLCString.h: strings in the local codeset of the process.
//
//   ZLCString       owns its text
//   ZLCConstString  only points at it
#ifndef Z_ZLCSTRING_H
#define Z_ZLCSTRING_H

#include "ZAbstractConstString.h"
#include "ZAbstractMutableString.h"

#define Z_STRING ZLCString
#define Z_CONST_STRING ZLCConstString
#define Z_OTHER_STRING ZUTF8String
#define Z_OTHER_CONST_STRING ZUTF8ConstString
#define Z_CODESET lcs_handle_
#include "zstringfamily.h"
#undef Z_STRING
#undef Z_CONST_STRING
#undef Z_OTHER_STRING
#undef Z_OTHER_CONST_STRING
#undef Z_CODESET

#endif
