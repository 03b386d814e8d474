// zrefusal.cpp: what a line can't hold.
//
// Exceptions have no room for a reason, and their class is what callers know. So the reason stays
// with the thread, and the place where an exception was raised tells whether it is one of these.
#include "zrefusal.h"

#include <cstdio>
#include <cstring>

#include "zassert.h"
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

// Whether a load gives back the name of a line that a store writes so.
[[maybe_unused]] static bool comesBack(ZLineKind kind, const char* ahead, const char* name,
                                       const char* behind) {
    char line[kLongestLine + 1];
    const int length = snprintf(line, sizeof line, "%s%s%s\n", ahead, name, behind);
    const ZLineParts parts = ZLineGrammar().divideRaw({line, static_cast<size_t>(length)});
    return parts.kind == kind && parts.name.size == strlen(name) &&
           memcmp(parts.name.data, name, parts.name.size) == 0;
}

ZFault zfaultOfStanza(const char* name) {
    const char* reason = reasonAgainst(name, strlen("[]\n"));
    if (reason == nullptr && strchr(name, ']') != nullptr)
        reason = "can't hold ]";
    if (reason != nullptr)
        return {kStanza, reason};
    zassert(comesBack(zlineHeader, "[", name, "]"));
    return kNoFault;
}

ZFault zfaultOfKey(const char* name) {
    const char* reason = reasonAgainst(name, strlen(" =\n"));
    if (reason == nullptr && hasBlankEnds(name))
        reason = kBlankEnds;
    else if (reason == nullptr && strchr(name, '=') != nullptr)
        reason = "can't hold =";
    else if (reason == nullptr && (*name == '#' || *name == '['))
        reason = "can't begin with # or [";
    if (reason != nullptr)
        return {kKey, reason};
    zassert(comesBack(zlineEntry, "", name, " ="));
    return kNoFault;
}

ZFault zfaultOfValue(const char* key, const char* value, bool mayBeEmpty) {
    if (!zhasText(value) && mayBeEmpty)
        return kNoFault;
    const char* reason = reasonAgainst(value, strlen(key) + strlen(" = \n"));
    if (reason == nullptr && hasBlankEnds(value))
        reason = kBlankEnds;
    return reason == nullptr ? kNoFault : ZFault{kValue, reason};
}

ZFault zfaultOfHiddenValue(const char* value) {
    return zhasText(value) ? kNoFault : ZFault{"a hidden value", kEmpty};
}

ZFault zfaultOfComment(const char* text) {
    const char* reason = reasonAgainst(text, strlen("\n"));
    if (reason == nullptr && *text != '#')
        reason = "must begin with #";
    else if (reason == nullptr && hasBlankEnds(text))
        reason = kBlankEnds;
    if (reason != nullptr)
        return {kComment, reason};
    zassert(comesBack(zlineComment, "", text, ""));
    return kNoFault;
}

ZFault zfaultOfForeignText() {
    return {kValue, "can't hold characters that the local codeset lacks"};
}

// ---------------------------------------------------------------- refusals

static thread_local ZFault lastFault;

void zrequireNoFault(const ZFault& fault) {
    if (fault.reason == nullptr)
        return;
    lastFault = fault;
    zraise(ZInvalidParameterException());
}

static void requireText(const char* subject, const char* text) {
    zrequireNoFault(zhasText(text) ? kNoFault : ZFault{subject, kEmpty});
}

void zrequireStanzaName(const char* stanza) { requireText(kStanza, stanza); }

void zrequireNames(const char* stanza, const char* key) {
    requireText(kStanza, stanza);
    requireText(kKey, key);
}

void zrequireCommentText(const char* text) { requireText(kComment, text); }

ZFault zfaultBehind(const ZInvalidParameterException& e) {
    const char* raisedIn = e.who();
    return raisedIn != nullptr && strcmp(raisedIn, __FILE__) == 0 ? lastFault : kNoFault;
}
