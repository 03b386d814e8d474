// zpropedits.cpp: other names and kinds of lines, what a store would write, and backups.
#include "ZBuffer.h"
#include "ZPropertiesImpl.h"
#include "ZStanzaFileProperties.h"
#include "zbackup.h"
#include "zmemorystream.h"
#include "zmodeledits.h"
#include "zpropchanges.h"
#include "zraise.h"

// ---------------------------------------------------------------- names and lines

int ZStanzaFileProperties::renameStanza(const char* stanza, const char* name) {
    zrequireStanzaName(stanza);
    zrequireStanzaName(name);
    const ZChangeNames before(hasObservers(), stanza, nullptr), now(hasObservers(), name, nullptr);
    {
        ZResourceLock guard(lock_);
        if (!ZModelEdits::renameStanza(data(), stanza, name))
            return 0;
        setModified();
    }
    sendChangeNotice(ZPropertyChanged::PropertyDeleted, before);
    sendChangeNotice(ZPropertyChanged::PropertyAdded, now);
    return 1;
}

int ZStanzaFileProperties::renameKey(const char* stanza, const char* key, const char* name) {
    zrequireNames(stanza, key);
    zrequireNames(stanza, name);
    const ZChangeNames before(hasObservers(), stanza, key), now(hasObservers(), stanza, name);
    {
        ZResourceLock guard(lock_);
        if (!ZModelEdits::renameKey(data(), stanza, key, name))
            return 0;
        setModified();
    }
    sendChangeNotice(ZPropertyChanged::PropertyDeleted, before);
    sendChangeNotice(ZPropertyChanged::PropertyAdded, now);
    return 1;
}

int ZStanzaFileProperties::uncommentKey(const char* stanza, const char* key) {
    zrequireNames(stanza, key);
    const ZChangeNames names(hasObservers(), stanza, key);
    {
        ZResourceLock guard(lock_);
        if (!ZModelEdits::uncommentKey(data(), stanza, key))
            return 0;
        setModified();
    }
    sendChangeNotice(ZPropertyChanged::PropertyAdded, names);
    return 1;
}

int ZStanzaFileProperties::disableKey(const char* stanza, const char* key) {
    zrequireNames(stanza, key);
    const ZChangeNames names(hasObservers(), stanza, key);
    {
        ZResourceLock guard(lock_);
        if (!ZModelEdits::disableKey(data(), stanza, key))
            return 0;
        setModified();
    }
    sendChangeNotice(ZPropertyChanged::PropertyDeleted, names);
    return 1;
}

// ---------------------------------------------------------------- what a store would write

static void give(ZSpan text, ZBuffer& out) {
    out.setBuffer(text.size, const_cast<char*>(text.data));
}

void ZStanzaFileProperties::storeBytesOver(const void* bytes, size_t length, ZBuffer& out) const {
    zrequire(bytes != nullptr || length == 0);
    ZMemoryStream stream;
    ZBytes kept;
    ZResourceLock guard(lock_);
    cache_->be_write(fileName_.getChars(), stream.get());
    give(ZPropertiesFile::of(*this).finishText(fileName_, {static_cast<const char*>(bytes), length},
                                               stream.finish(), kept),
         out);
}

void ZStanzaFileProperties::getUpdatedBytes(ZBuffer& out) const {
    ZResourceLock guard(lock_);
    const ZUpdatedFile* update = ZPropertiesFile::of(*this).update();
    zrequire(update != nullptr);
    give(zspanOf(update->content.text), out);
}

void ZStanzaFileProperties::backUp(unsigned int count) const {
    zrequire(count != 0);
    ZResourceLock guard(lock_);
    const ZUpdatedFile* update = ZPropertiesFile::of(*this).update();
    zrequire(update != nullptr);
    zcheckIO(zkeepBackup(fileName_.getChars(), update->descriptor, zspanOf(update->content.text),
                         count));
}
