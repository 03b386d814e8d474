#include "zstrict.h"

#include <cctype>
#include <cstring>

#include "zcheck.h"

static bool isBlank(char c) { return isspace(static_cast<unsigned char>(c)) != 0; }

static bool hasLineEnd(const char* text) { return strpbrk(text, "\n\r") != nullptr; }

static bool hasBlankEnds(const char* text) {
    return *text != '\0' && (isBlank(*text) || isBlank(text[strlen(text) - 1]));
}

void zrequireStanza(const char* name) {
    Z_REQUIRE(zhasText(name) && !hasLineEnd(name) && strchr(name, ']') == nullptr);
    Z_REQUIRE(strlen(name) + strlen("[]\n") <= kLongestLine);
}

void zrequireKey(const char* name) {
    Z_REQUIRE(zhasText(name) && !hasLineEnd(name) && !hasBlankEnds(name));
    Z_REQUIRE(strchr(name, '=') == nullptr && *name != '#' && *name != '[');
    Z_REQUIRE(strlen(name) + strlen(" =\n") <= kLongestLine);
}

void zrequireValue(const char* key, const char* value, bool mayBeEmpty) {
    if (!zhasText(value)) {
        Z_REQUIRE(mayBeEmpty);
        return;
    }
    Z_REQUIRE(!hasLineEnd(value) && !hasBlankEnds(value));
    Z_REQUIRE(strlen(key) + strlen(value) + strlen(" = \n") <= kLongestLine);
}

void zrequireHidden(const char* value) { Z_REQUIRE(zhasText(value)); }

void zrequireComment(const char* text) {
    Z_REQUIRE(zhasText(text) && *text == '#' && !hasLineEnd(text) && !hasBlankEnds(text));
    Z_REQUIRE(strlen(text) + strlen("\n") <= kLongestLine);
}
