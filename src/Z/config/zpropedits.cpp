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

template <typename Edit>
int ZStanzaFileProperties::changeLines(const ZChangeNames* gone, const ZChangeNames* come,
                                       Edit edit) {
    {
        ZResourceLock guard(lock_);
        ZPropertiesFile::of(*this).requireOneFile();
        if (!edit())
            return 0;
        setModified();
    }
    if (gone != nullptr)
        sendChangeNotice(ZPropertyChanged::PropertyDeleted, *gone);
    if (come != nullptr)
        sendChangeNotice(ZPropertyChanged::PropertyAdded, *come);
    return 1;
}

int ZStanzaFileProperties::renameStanza(const char* stanza, const char* name) {
    zrequireStanzaName(stanza);
    zrequireStanzaName(name);
    const ZChangeNames before(hasObservers(), stanza, nullptr), now(hasObservers(), name, nullptr);
    return changeLines(&before, &now,
                       [&] { return ZModelEdits::renameStanza(data(), stanza, name); });
}

int ZStanzaFileProperties::renameKey(const char* stanza, const char* key, const char* name) {
    ZPropertiesFile::of(*this).requireNames(stanza, key);
    ZPropertiesFile::of(*this).requireNames(stanza, name);
    const ZChangeNames before(hasObservers(), stanza, key), now(hasObservers(), stanza, name);
    return changeLines(&before, &now,
                       [&] { return ZModelEdits::renameKey(data(), stanza, key, name); });
}

int ZStanzaFileProperties::uncommentKey(const char* stanza, const char* key) {
    ZPropertiesFile::of(*this).requireNames(stanza, key);
    const ZChangeNames come(hasObservers(), stanza, key);
    return changeLines(nullptr, &come,
                       [&] { return ZModelEdits::uncommentKey(data(), stanza, key); });
}

int ZStanzaFileProperties::disableKey(const char* stanza, const char* key) {
    ZPropertiesFile::of(*this).requireNames(stanza, key);
    const ZChangeNames gone(hasObservers(), stanza, key);
    return changeLines(&gone, nullptr,
                       [&] { return ZModelEdits::disableKey(data(), stanza, key); });
}

// ---------------------------------------------------------------- other dialects

void ZStanzaFileProperties::setDialect(const ZDialect& dialect) {
    ZResourceLock guard(lock_);
    ZPropertiesFile::of(*this).setDialect(dialect);
}

int ZStanzaFileProperties::isBare(const char* stanza, const char* key) const {
    ZPropertiesFile::of(*this).requireNames(stanza, key);
    ZResourceLock guard(lock_);
    return ZModelEdits::isBare(data(), stanza, key);
}

void ZStanzaFileProperties::setBare(const char* stanza, const char* key) {
    ZPropertiesFile::of(*this).requireNames(stanza, key);
    const ZChangeNames changed(hasObservers(), stanza, key);
    {
        ZResourceLock guard(lock_);
        ZModelEdits::setBare(data(), stanza, key);
        setModified();
    }
    sendChangeNotice(ZPropertyChanged::PropertyModified, changed);
}

// ---------------------------------------------------------------- what a store would write

static void give(ZSpan text, ZBuffer& out) {
    out.setBuffer(text.size, const_cast<char*>(text.data));
}

void ZStanzaFileProperties::storeBytes(ZBuffer& out) const {
    ZResourceLock guard(lock_);
    if (ZPropertiesFile::of(*this).dialect() != nullptr) {
        ZBytes made;
        return give(
            ZPropertiesFile::of(*this).finishText(fileName_, {nullptr, 0}, {nullptr, 0}, made),
            out);
    }
    ZMemoryStream stream;
    cache_->be_write(fileName_.getChars(), stream.get());
    give(stream.finish(), out);
}

void ZStanzaFileProperties::storeBytesOver(const void* bytes, size_t length, ZBuffer& out) const {
    zrequire(bytes != nullptr || length == 0);
    ZMemoryStream stream;
    ZBytes kept;
    ZResourceLock guard(lock_);
    ZPropertiesFile::of(*this).requireOneFile();
    if (ZPropertiesFile::of(*this).dialect() == nullptr)
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
