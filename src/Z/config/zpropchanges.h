// zpropchanges.h: one change of a properties object, from its arguments to its notice. Never
// installed.
#ifndef Z_ZPROPCHANGES_H
#define Z_ZPROPCHANGES_H

#include "ZProperties.h"
#include "zpropnotices.h"
#include "ZPropertiesImpl.h"
#include "zrefusal.h"

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
    file_->requireNames(category, key);
    cache_->fetchAhead(category, key);
    change(type, category, key, apply);
}

template <typename Change>
void ZProperties::changeStanza(ZPropertyChanged::PropertyChangeType type, const char* stanza,
                               Change apply) {
    if (!file_->hasStanzaName(stanza))
        zrequireStanzaName(stanza);
    change(type, stanza, nullptr, apply);
}

template <typename Change>
void ZProperties::changeComment(const char* text, Change apply) {
    zrequireCommentText(text);
    ZResourceLock guard(lock_);
    ZLCString comment(text);
    checkComment(comment);
    apply(comment.getChars());
    setModified();
}

#endif
