// Z.h: what every C++ unit includes: the plain-C basics and the classes that are named before
// they are known.
#ifndef Z_Z_UPPER_H
#define Z_Z_UPPER_H

#include "z.h"

class ZObject;
class ZException;
class ZZException;
class ZMessageService;
class ZAbstractString;
class ZAbstractMutableString;
class ZLCString;
class ZLCConstString;
class ZUTF8String;
class ZUTF8ConstString;

#endif
