// ZUTF8String.h: strings in UTF-8.
//
//   ZUTF8String       owns its text
//   ZUTF8ConstString  only points at it
#ifndef Z_ZUTF8STRING_H
#define Z_ZUTF8STRING_H

#include "ZAbstractConstString.h"
#include "ZAbstractMutableString.h"

#define Z_STRING ZUTF8String
#define Z_CONST_STRING ZUTF8ConstString
#define Z_OTHER_STRING ZLCString
#define Z_OTHER_CONST_STRING ZLCConstString
#define Z_CODESET utf8_handle_
#define Z_ASCII_HALF
#include "zstringfamily.h"
#undef Z_STRING
#undef Z_CONST_STRING
#undef Z_OTHER_STRING
#undef Z_OTHER_CONST_STRING
#undef Z_CODESET
#undef Z_ASCII_HALF

#endif
