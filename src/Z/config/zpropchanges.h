// zpropchanges.h: one change of a properties object, from its arguments to its notice. Never
// installed.
#ifndef Z_ZPROPCHANGES_H
#define Z_ZPROPCHANGES_H

#include "ZProperties.h"
#include "zinternal.h"
#include "zpropnotices.h"
#include "zraise.h"

template <typename Change>
void ZProperties::change(ZPropertyChanged::PropertyChangeType type, const char* category,
                         const char* key, Change apply) {
    const ZChangeNames names(hasObservers(), category, key);
    {
        ZResourceLock guard(lock_);
        apply();
        setModified();
    }
    sendChangeNotice(type, names);
}

template <typename Change>
void ZProperties::changeKey(ZPropertyChanged::PropertyChangeType type, const char* category,
                            const char* key, Change apply) {
    zrequire(zhasText(category) && zhasText(key));
    change(type, category, key, apply);
}

template <typename Change>
void ZProperties::changeStanza(ZPropertyChanged::PropertyChangeType type, const char* stanza,
                               Change apply) {
    zrequire(zhasText(stanza));
    change(type, stanza, nullptr, apply);
}

template <typename Change>
void ZProperties::changeComment(const char* text, Change apply) {
    zrequire(zhasText(text));
    ZResourceLock guard(lock_);
    ZLCString comment(text);
    checkComment(comment);
    apply(comment.getChars());
    setModified();
}

#endif
