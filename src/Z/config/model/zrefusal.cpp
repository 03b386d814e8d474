// zrefusal.cpp: what a line can't hold.
//
// Exceptions have no room for a reason, and their class is what callers know. So the reason stays
// with the thread, and the place where an exception was raised tells whether it is one of these.
#include "zrefusal.h"

#include <cstring>

#include "zgrammar.h"
#include "zinternal.h"
#include "zraise.h"

static const ZFault kNoFault = {nullptr, nullptr};

// ---------------------------------------------------------------- reasons

static const char kStanza[] = "a stanza's name";
static const char kKey[] = "a key";
static const char kValue[] = "a value";
static const char kComment[] = "a comment";

static const char kEmpty[] = "can't be empty";
static const char kBlankEnds[] = "can't have blanks at its ends";
static const char kTooLong[] = "is too long for a line of 8191 bytes";
static_assert(kLongestLine == 8191, "the reason says so");

// Why no line can hold this text beside `others` bytes, its newline among them; null if one can.
static const char* reasonAgainst(const char* text, size_t others) {
    if (!zhasText(text))
        return kEmpty;
    if (strpbrk(text, "\n\r") != nullptr)
        return "can't hold a line end";
    if (strlen(text) + others > kLongestLine)
        return kTooLong;
    return nullptr;
}

static bool hasBlankEnds(const char* text) {
    const ZLineGrammar grammar;
    return grammar.isBlank(*text) || grammar.isBlank(text[strlen(text) - 1]);
}

static ZFault faultOf(const char* subject, const char* reason) {
    return reason == nullptr ? kNoFault : ZFault{subject, reason};
}

ZFault zfaultOfStanza(const char* name, const ZDialect* dialect) {
    if (dialect != nullptr)
        return faultOf(kStanza, zdialectStanzaFault(*dialect, zspanOf(name)));
    const char* reason = reasonAgainst(name, strlen("[]\n"));
    if (reason == nullptr && strchr(name, ']') != nullptr)
        reason = "can't hold ]";
    return faultOf(kStanza, reason);
}

ZFault zfaultOfKey(const char* name, const ZDialect* dialect) {
    if (dialect != nullptr)
        return faultOf(kKey, zdialectKeyFault(*dialect, zspanOf(name)));
    const char* reason = reasonAgainst(name, strlen(" =\n"));
    if (reason == nullptr && hasBlankEnds(name))
        reason = kBlankEnds;
    else if (reason == nullptr && strchr(name, '=') != nullptr)
        reason = "can't hold =";
    else if (reason == nullptr && (*name == '#' || *name == '['))
        reason = "can't begin with # or [";
    return faultOf(kKey, reason);
}

ZFault zfaultOfValue(const char* key, const char* value, bool mayBeEmpty, const ZDialect* dialect) {
    if (!zhasText(value) && (!mayBeEmpty || dialect == nullptr))
        return mayBeEmpty ? kNoFault : ZFault{kValue, kEmpty};
    if (dialect != nullptr)
        return faultOf(kValue, zdialectValueFault(*dialect, zspanOf(value)));
    const char* reason = reasonAgainst(value, strlen(key) + strlen(" = \n"));
    if (reason == nullptr && hasBlankEnds(value))
        reason = kBlankEnds;
    return faultOf(kValue, reason);
}

ZFault zfaultOfHiddenValue(const char* value, const ZDialect* dialect) {
    if (dialect != nullptr)
        return {"a hidden value", "can't be stored in a file of another dialect"};
    return zhasText(value) ? kNoFault : ZFault{"a hidden value", kEmpty};
}

ZFault zfaultOfComment(const char* text) {
    const char* reason = reasonAgainst(text, strlen("\n"));
    if (reason == nullptr && *text != '#')
        reason = "must begin with #";
    else if (reason == nullptr && hasBlankEnds(text))
        reason = kBlankEnds;
    return faultOf(kComment, reason);
}

ZFault zfaultOfForeignText() {
    return {kValue, "can't hold characters that the local codeset lacks"};
}

// ---------------------------------------------------------------- refusals

// There from the thread's beginning: to ask for it takes no memory.
static __thread struct {
    ZFault fault;
    const char* file;  // where it was raised
    int line;
} last __attribute__((tls_model("initial-exec")));

[[noreturn]] static void refuse(const ZFault& fault, ZSite site) {
    last = {fault, site.file, site.line};
    zraise(ZInvalidParameterException(), site);
}

void zrequireNoFault(const ZFault& fault, ZSite site) {
    if (fault.reason != nullptr)
        refuse(fault, site);
}

static void requireText(const char* subject, const char* text, ZSite site) {
    zrequireNoFault(zhasText(text) ? kNoFault : ZFault{subject, kEmpty}, site);
}

void zrequireStanzaName(const char* stanza, ZSite site) { requireText(kStanza, stanza, site); }

void zrefuseNames(const char* stanza, ZSite site) {
    refuse({zhasText(stanza) ? kKey : kStanza, kEmpty}, site);
}

void zrequireValueText(const char* value, ZSite site) { requireText(kValue, value, site); }

void zrequireCommentText(const char* text, ZSite site) { requireText(kComment, text, site); }

ZFault zfaultBehind(const ZInvalidParameterException& e) {
    const char* raisedIn = e.who();
    const bool isLast = raisedIn != nullptr && last.file != nullptr &&
                        strcmp(raisedIn, last.file) == 0 &&
                        e.where() == static_cast<unsigned long>(last.line);
    return isLast ? last.fault : kNoFault;
}
