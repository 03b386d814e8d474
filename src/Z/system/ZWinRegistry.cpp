#include "ZWinRegistry.h"

#include "ZException.h"
#include "zraise.h"

int ZWinRegistry::exists(const char*, const char*) { zraise(ZInvalidPlatformException()); }

int ZWinRegistry::getValue(const char*, const char*, ZAbstractMutableString&) {
    zraise(ZInvalidPlatformException());
}
