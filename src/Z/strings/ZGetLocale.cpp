#include "ZGetLocale.h"

int ZGetLocale(ZAbstractMutableString& s) {
    s.setChars(zgetlocale());
    return 0;
}
