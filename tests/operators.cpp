// operators.cpp: strings compared as clients write it: each pair of classes compiles and compares
// texts, in every standard that the headers promise. scripts/check-operators builds and runs it in
// each.
#include <Z/ZException.h>
#include <Z/ZString.h>

#include <cstdio>

static int failures = 0;

static void expect(int isTrue, const char* what, const char* function) {
    if (!isTrue) {
        ++failures;
        printf("not so: %s\n  in %s\n", what, function);
    }
}
#define EXPECT(condition) expect(condition, #condition, __PRETTY_FUNCTION__)

static zcodeset_handle codesetOf(const ZAbstractString& s) { return s.getCodesetHandle(); }
static zcodeset_handle codesetOf(const char*) { return 0; }

template <typename A, typename B>
static bool raisesOnOrder(const A& a, const B& b) {
    try {
        return (a < b) && false;
    } catch (ZUnsupportedException&) {
        return true;
    }
}

/// `a` and `same` hold one text, `later` one that comes behind it.
template <typename A, typename B>
static void checkPair(A& a, B& same, B& later) {
    EXPECT((a == same) && !(a != same) && (same == a) && !(same != a));
    EXPECT(!(a == later) && (a != later) && !(later == a) && (later != a));
    if (codesetOf(a) != 0 && codesetOf(same) != 0 && codesetOf(a) != codesetOf(same)) {
        EXPECT(raisesOnOrder(a, same) && raisesOnOrder(same, a));
        return;
    }
    EXPECT((a < later) && (a <= later) && !(a > later) && !(a >= later));
    EXPECT((later > a) && (later >= a) && !(later < a) && !(later <= a));
    EXPECT((a <= same) && (a >= same) && !(a < same) && !(a > same));
}

/// One text as each class shows it.
struct Texts {
    ZLCString local;
    ZUTF8String utf8;
    ZLCConstString localView;
    ZUTF8ConstString utf8View;
    explicit Texts(const char* text) : local(text), utf8(text), localView(local), utf8View(utf8) {}
};

template <typename A>
static void checkWithTexts(A& a, const char* same, const char* later) {
    char array[] = "later";
    checkPair(a, same, later);
    EXPECT((a != array) && (array != a) && (a < array) && (array > a));
    EXPECT((a == "early") && ("early" == a) && (a != "later") && ("later" != a));
    EXPECT((a != nullptr) && !(nullptr == a));
}

template <typename A>
static void checkWithEach(A& a, Texts& same, Texts& later) {
    checkPair(a, same.local, later.local);
    checkPair(a, same.utf8, later.utf8);
    checkPair(a, same.localView, later.localView);
    checkPair(a, same.utf8View, later.utf8View);
    checkPair<A, const ZAbstractString>(a, same.local, later.local);
    checkPair<A, const ZAbstractString>(a, same.utf8View, later.utf8View);
    checkPair<A, ZAbstractMutableString>(a, same.utf8, later.utf8);
    checkPair<A, ZAbstractConstString>(a, same.localView, later.localView);
    checkWithTexts(a, same.local.getChars(), later.local.getChars());
}

/// A client's own class: its base's operators.
class OwnString : public ZUTF8String {
public:
    explicit OwnString(const char* s) : ZUTF8String(s) {}
};

int main() {
    Texts text("early"), same("early"), later("later");
    checkWithEach(text.local, same, later);
    checkWithEach(text.utf8, same, later);
    checkWithEach(text.localView, same, later);
    checkWithEach(text.utf8View, same, later);
    checkWithEach<const ZAbstractString>(text.local, same, later);
    checkWithEach<ZAbstractString>(text.utf8View, same, later);
    checkWithEach<const ZAbstractMutableString>(text.local, same, later);
    checkWithEach<const ZAbstractConstString>(text.utf8View, same, later);
    OwnString own("early"), ownLater("later");
    checkWithEach(own, same, later);
    checkPair(own, own, ownLater);

    // What becomes a string by itself, and objects that are no strings on the face of it.
    const ZLCString five(5);
    EXPECT((five == 5) && (five != '6'));
    const ZObject &object = text.local, &other = same.local;
    EXPECT((object == other) && (object == text.local) && (text.local.compare(object) == 0));
    return failures == 0 ? 0 : 1;
}
