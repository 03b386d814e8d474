// client_types.cpp: that a program and the library mean the same types and variables, however the
// program is compiled: scripts/check-install does so with and without a fixed place.
#include <Z/ZException.h>
#include <Z/ZLCString.h>
#include <Z/ZStanzaFileProperties.h>
#include <Z/ZUTF8String.h>

#include <cstdio>

namespace {

int failures;

void expect(bool holds, const char* what) {
    if (!holds)
        printf("not so: %s\n", what);
    failures += !holds;
}

// Headers compare some strings in place if they are of the very class, which goes by addresses.
template <typename String>
struct Asking : String {
    static bool isExact(const String& s) { return Asking::isExactly(s); }
};

struct OwnString : ZLCString {};

}  // namespace

int main() {
    const ZLCString text("a");
    const ZUTF8String unicode("a");
    const ZLCConstString constant("a");
    const ZUTF8ConstString unicodeConstant("a");
    expect(Asking<ZLCString>::isExact(text), "ZLCString is known");
    expect(Asking<ZUTF8String>::isExact(unicode), "ZUTF8String is known");
    expect(Asking<ZLCConstString>::isExact(constant), "ZLCConstString is known");
    expect(Asking<ZUTF8ConstString>::isExact(unicodeConstant), "ZUTF8ConstString is known");
    expect(!Asking<ZLCString>::isExact(OwnString()), "a derived class is another one");
    expect(text.indexOf('b') == ZAbstractString::notFound, "variables are the same");
    ZStanzaFileProperties file(1);
    bool isCaught = false;
    try {
        file.load("/nowhere/at/all");
    } catch (const ZException&) {
        isCaught = true;
    }
    expect(isCaught, "exceptions are caught by their type");
    file.setValue("s", "k", "v");
    const ZObject& object = file;
    expect(dynamic_cast<const ZProperties*>(&object) != nullptr, "types are cast");
    return failures != 0;
}
