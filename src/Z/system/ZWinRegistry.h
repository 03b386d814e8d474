// ZWinRegistry.h: the registry of another platform.
#ifndef Z_ZWINREGISTRY_H
#define Z_ZWINREGISTRY_H

#include "Z.h"

/// Reads a registry that this platform doesn't have. The class exists so that one source compiles
/// on all platforms: every call raises ZInvalidPlatformException (11), whatever its arguments,
/// which aren't looked at. Threads: any.
class ZEXPORT ZWinRegistry {
public:
    /// Both raise ZInvalidPlatformException (11), whatever the arguments.
    [[noreturn]] static int exists(const char* key, const char* value);
    [[noreturn]] static int getValue(const char* key, const char* value,
                                     ZAbstractMutableString& result);
};

#endif
