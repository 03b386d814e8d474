#include "ZWinRegistry.h"

#include "ZException.h"

int ZWinRegistry::exists(const char*, const char*) {
    ZInvalidPlatformException().throwException(__FILE__, __LINE__);
}

int ZWinRegistry::getValue(const char*, const char*, ZAbstractMutableString&) {
    ZInvalidPlatformException().throwException(__FILE__, __LINE__);
}
