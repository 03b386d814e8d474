// zrefusal.h: what a line can't hold so that a load gives it back, and how it is refused with the
// reason. Never installed.
#ifndef Z_ZREFUSAL_H
#define Z_ZREFUSAL_H

#include "ZException.h"
#include "zdialecttext.h"
#include "zinternal.h"
#include "zraise.h"

/// What a text is meant to be, and why it can't: "a key", "can't hold =". Both are static texts;
/// both are null where nothing speaks against it.
struct ZFault {
    const char* subject;
    const char* reason;
};

/// In the library's own files, or those of a dialect if that isn't null.
ZFault zfaultOfStanza(const char* name, const ZDialect* dialect = nullptr);
ZFault zfaultOfKey(const char* name, const ZDialect* dialect = nullptr);
/// Of a value that stands in the text behind this key.
ZFault zfaultOfValue(const char* key, const char* value, bool mayBeEmpty,
                     const ZDialect* dialect = nullptr);
/// Of a value that the side database holds: any text but the empty one is fine. Files of a dialect
/// have none.
ZFault zfaultOfHiddenValue(const char* value, const ZDialect* dialect = nullptr);
/// Of a comment with its "#".
ZFault zfaultOfComment(const char* text);
/// Of text that has characters which the local codeset lacks.
ZFault zfaultOfForeignText();

/// Raises ZInvalidParameterException if there is a fault. The thread keeps it, so that the C
/// interface can tell it.
void zrequireNoFault(const ZFault& fault, ZSite site = ZSite());

/// Likewise where one of these is null or empty.
[[noreturn]] void zrefuseNames(const char* stanza, ZSite site);
inline void zrequireNames(const char* stanza, const char* key, ZSite site = ZSite()) {
    if (__builtin_expect(!zhasText(stanza) || !zhasText(key), false))
        zrefuseNames(stanza, site);
}
void zrequireStanzaName(const char* stanza, ZSite site = ZSite());
void zrequireValueText(const char* value, ZSite site = ZSite());
void zrequireCommentText(const char* text, ZSite site = ZSite());

/// The fault for which this exception was raised, as long as the thread has met no other; none for
/// an exception that was raised elsewhere.
ZFault zfaultBehind(const ZInvalidParameterException& e);

#endif
