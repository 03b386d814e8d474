#include "zstrict.h"

#include <cctype>
#include <cstring>

#include "zinternal.h"
#include "zraise.h"

static bool isBlank(char c) { return isspace(static_cast<unsigned char>(c)) != 0; }

static bool hasLineEnd(const char* text) { return strpbrk(text, "\n\r") != nullptr; }

static bool hasBlankEnds(const char* text) {
    return *text != '\0' && (isBlank(*text) || isBlank(text[strlen(text) - 1]));
}

void zrequireStanza(const char* name) {
    zrequire(zhasText(name) && !hasLineEnd(name) && strchr(name, ']') == nullptr);
    zrequire(strlen(name) + strlen("[]\n") <= kLongestLine);
}

void zrequireKey(const char* name) {
    zrequire(zhasText(name) && !hasLineEnd(name) && !hasBlankEnds(name));
    zrequire(strchr(name, '=') == nullptr && *name != '#' && *name != '[');
    zrequire(strlen(name) + strlen(" =\n") <= kLongestLine);
}

void zrequireValue(const char* key, const char* value, bool mayBeEmpty) {
    if (!zhasText(value)) {
        zrequire(mayBeEmpty);
        return;
    }
    zrequire(!hasLineEnd(value) && !hasBlankEnds(value));
    zrequire(strlen(key) + strlen(value) + strlen(" = \n") <= kLongestLine);
}

void zrequireHidden(const char* value) { zrequire(zhasText(value)); }

void zrequireComment(const char* text) {
    zrequire(zhasText(text) && *text == '#' && !hasLineEnd(text) && !hasBlankEnds(text));
    zrequire(strlen(text) + strlen("\n") <= kLongestLine);
}
