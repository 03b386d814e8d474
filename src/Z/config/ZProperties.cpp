#include "ZProperties.h"

#include <cstdio>
#include <cstring>
#include <memory>

#include "ZExceptionText.h"
#include "ZPropertiesImpl.h"
#include "zgrammar.h"
#include "zinternal.h"
#include "zpropchanges.h"
#include "zraise.h"
#include "zrefusal.h"
#include "zreport.h"

ZAbstractProperties::ZPropResourceLock::~ZPropResourceLock() noexcept(false) {
    if (std::uncaught_exceptions() == 0)
        lock_.unlock();
    else
        zrunReported([this] { lock_.unlock(); });
}

static ZPropertiesFile* makeOneFile(ZProperties& object) { return new ZPropertiesFile(object); }

ZProperties::ZProperties(ZPCache* cache) : ZProperties(cache, makeOneFile) {}

ZProperties::ZProperties(ZPCache* cache, ZPropertiesFile* (*make)(ZProperties& object))
    : cache_(cache), modified_(0), loading_(0), timeStamp_(0), file_(make(*this)) {}

ZProperties::ZProperties(const ZProperties& other) : ZProperties(nullptr) {
    ZResourceLock guard(other.lock_);
    cache_ = other.cache_->clone();
    file_->beOfDialectOf(*other.file_);
}

ZProperties::~ZProperties() noexcept { delete file_; }

// ---------------------------------------------------------------- look-ups

int ZProperties::exists(const char* category, const char* key) const {
    zrequire(file_->hasStanzaName(category) && zhasText(key));
    ZResourceLock guard(lock_);
    return cache_->contains(category, key);
}

int ZProperties::exists(const char* category) const {
    zrequire(file_->hasStanzaName(category));
    ZResourceLock guard(lock_);
    return cache_->contains(category);
}

int ZProperties::isObfuscated(const char* category, const char* key) const {
    ZResourceLock guard(lock_);
    zrequire(exists(category, key) != 0);
    return cache_->isObfuscated(category, key);
}

int ZProperties::isObfuscated(const char* key) const {
    zrequire(zhasText(key));
    ZResourceLock guard(lock_);
    // A stanza of that whole name counts as existing too; the answer is the composite key's.
    if (exists(key) == 0) {
        ZLCString category, name;
        ZPCategoryBasedCache::validateKey(key, category, name);
        zrequire(cache_->contains(category.getChars(), name.getChars()) != 0);
    }
    return cache_->isObfuscated(key);
}

int ZProperties::extractValue(const char* category, const char* key, int required,
                              const char*& text, unsigned int& length) const {
    if (cache_->lastValue(category, key, text, length) != 0)
        return 1;
    if (required != 0)
        zraise(ZPropertiesMissingPropertyException(fileName_.getChars(), category, key));
    return 0;
}

void ZProperties::getValue(const char* category, const char* key, ZAbstractMutableString& out,
                           int required, const char* defaultValue) const {
    zrequire(file_->hasStanzaName(category) && zhasText(key));
    zrequire(required == 0 || defaultValue == nullptr);
    ZResourceLock guard(lock_);
    const char* text;
    unsigned int length;
    if (extractValue(category, key, required, text, length) == 0) {
        out.setChars(defaultValue == nullptr ? ZPCache::emptyText().getChars() : defaultValue);
    } else if (out.getCodesetHandle() == ZPCache::emptyText().getCodesetHandle()) {
        if (text == out.getChars())
            return;  // it is the stored value itself
        out.clear();
        out.append(text, length);
    } else {
        out.setChars(ZLCString(text, length));
    }
}

unsigned int ZProperties::getIntegerValue(const char* category, const char* key, int required,
                                          unsigned int defaultValue) const {
    zrequire(file_->hasStanzaName(category) && zhasText(key));
    zrequire(required == 0 || defaultValue == 0);
    ZResourceLock guard(lock_);
    const char* text;
    unsigned int length;
    if (extractValue(category, key, required, text, length) == 0)
        return defaultValue;
    unsigned int result;
    if (!zreadNumber(text, length, result))
        zraise(ZPropertiesInvalidNumValueException(fileName_.getChars(), category, key,
                                                   ZLCString(text, length).getChars()));
    return result;
}

int ZProperties::getBooleanValue(const char* category, const char* key, int required,
                                 int defaultValue) const {
    zrequire(file_->hasStanzaName(category) && zhasText(key));
    zrequire(required == 0 || defaultValue == 0);
    ZResourceLock guard(lock_);
    const char* text;
    unsigned int length;
    if (extractValue(category, key, required, text, length) == 0)
        return defaultValue;
    int result;
    if (!zreadTruth(text, length, result))
        zraise(ZPropertiesInvalidBoolValueException(fileName_.getChars(), category, key,
                                                    ZLCString(text, length).getChars()));
    return result;
}

void ZProperties::getValues(const char* category, const char* key, ZArrayList& list,
                            ZPropertyStringType type) const {
    zrequire(file_->hasStanzaName(category) && zhasText(key));
    zrequire(list.ownsMembers() != 0);
    zrequire(type == ZPROP_STRING_LOCAL || type == ZPROP_STRING_UTF8);
    ZResourceLock guard(lock_);
    // The names may be texts of members that go.
    const ZLCString stanzaName(category), keyName(key);
    list.removeAll();
    if (type == ZPROP_STRING_LOCAL) {
        cache_->copyValues(stanzaName.getChars(), keyName.getChars(), list);
        return;
    }
    ZArrayList local(1, 1);
    cache_->copyValues(stanzaName.getChars(), keyName.getChars(), local);
    for (unsigned int i = 0; i < local.size(); ++i) {
        std::unique_ptr<ZUTF8String> value(
            new ZUTF8String(*static_cast<const ZLCString*>(local.get(i))));
        list.addNoCopy(value.get());
        value.release();
    }
}

int ZProperties::numValues(const char* key) const {
    zrequire(zhasText(key));
    ZResourceLock guard(lock_);
    return cache_->countValues(key);
}

int ZProperties::numValues(const char* category, const char* key) const {
    zrequire(file_->hasStanzaName(category) && zhasText(key));
    ZResourceLock guard(lock_);
    return cache_->countValues(category, key);
}

int ZProperties::count() const {
    ZResourceLock guard(lock_);
    return cache_->count();
}

int ZProperties::count(const char* category) const {
    zrequire(file_->hasStanzaName(category));
    ZResourceLock guard(lock_);
    return cache_->keyCount(category);
}

void ZProperties::list() const { cache_->list(stdout); }

ZArrayList* ZProperties::get(const char* category, const char* key) const {
    zrequire(file_->hasStanzaName(category) && zhasText(key));
    return cache_->get(category, key, ZPCache::GET_ANY);
}

void ZProperties::keyNames(ZArrayList& list) const {
    zrequire(list.ownsMembers() != 0);
    cache_->getNames(list);
}

void ZProperties::keyNames(const char* category, ZArrayList& list) const {
    zrequire(file_->hasStanzaName(category));
    zrequire(list.ownsMembers() != 0);
    cache_->getNames(category, list);
}

ZArrayList* ZProperties::keyNames(const char* category) const {
    zrequire(file_->hasStanzaName(category));
    return cache_->getNames(category);
}

// ---------------------------------------------------------------- changes

void ZProperties::sendChangeNotice(ZPropertyChanged::PropertyStyle style,
                                   ZPropertyChanged::PropertyChangeType type, const char* category,
                                   const char* key) {
    if (loading_.load(std::memory_order_relaxed) != 0)
        return;
    const ZPropertyChanged notice(category, key, style, type);
    if (!zkeepsNotices(lock_))
        notifyObservers(notice);
    else if (hasObservers())
        zkeepNotice(lock_, *this, notice);
}

void ZProperties::sendChangeNotice(ZPropertyChanged::PropertyChangeType type,
                                   const ZChangeNames& names) {
    if (names.areKept() || !hasObservers())
        sendChangeNotice(ZPropertyChanged::StanzaProperty, type, names.stanza(), names.key());
}

void ZProperties::checkAccess(const char* category, const char* key, int obfuscated) const {
    // Changes ask with the lock in their hands: to take it once more would be a good part of them.
    if (!lock_.isHeld()) {
        ZResourceLock guard(lock_);
        ZProperties::checkAccess(category, key, obfuscated);  // not that of another class
        return;
    }
    // A key without values may take either kind; a hidden one has values.
    const bool isHidden = cache_->isObfuscated(category, key) != 0;
    zrequire(obfuscated == 0 ? !isHidden : isHidden || cache_->countValues(category, key) == 0);
}

void ZProperties::setValue(const char* category, const char* key, const char* value) {
    setValue(category, key, value, 0);
}

void ZProperties::setValue(const char* category, const char* key, const char* value,
                           int obfuscated) {
    setOnly(category, key, value, obfuscated);
}

void ZProperties::setOnly(const char* category, const char* key, const char* value,
                          int obfuscated) {
    changeKey(ZPropertyChanged::PropertyModified, category, key, [&] {
        if (zhasText(value))
            checkAccess(category, key, obfuscated);
        cache_->addLine(category, key, value, obfuscated);
    });
}

void ZProperties::setValue(const char* category, const char* key, const ZLCString& value) {
    setValue(category, key, value.getChars());
}

void ZProperties::setValue(const char* category, const char* key, const ZLCConstString& value) {
    setValue(category, key, value.getChars());
}

void ZProperties::convertToStored(const ZAbstractString& text, ZLCString& out) const {
    out.setChars(text);
    if (out.getLength() == 0 && text.getLength() != 0 && cache_->isStrict() != 0)
        zrequireNoFault(zfaultOfForeignText());
}

void ZProperties::setValue(const char* category, const char* key, const ZUTF8String& value) {
    ZLCString text;
    convertToStored(value, text);
    setValue(category, key, text.getChars());
}

void ZProperties::setValue(const char* category, const char* key, const ZUTF8ConstString& value) {
    ZLCString text;
    convertToStored(value, text);
    setValue(category, key, text.getChars());
}

void ZProperties::setIntegerValue(const char* category, const char* key, unsigned int value) {
    char text[16];
    snprintf(text, sizeof text, "%u", value);
    setOnly(category, key, text, 0);
}

void ZProperties::setBooleanValue(const char* category, const char* key, int value) {
    setOnly(category, key, ztruthWord(value != 0), 0);
}

void ZProperties::deleteKey(const char* category, const char* key) {
    changeKey(ZPropertyChanged::PropertyDeleted, category, key,
              [&] { cache_->delLine(category, key); });
}

void ZProperties::addFileComment(const char* text) {
    file_->requireOneFile();
    changeComment(text, [&](const char* comment) {
        if (!file_->addDialectComment(nullptr, nullptr, comment))
            cache_->addFileComment(comment);
    });
}

void ZProperties::addEntryComment(const char* category, const char* key, const char* text) {
    file_->requireNames(category, key);
    file_->requireOneFile();
    changeComment(text, [&](const char* comment) {
        if (!file_->addDialectComment(category, key, comment))
            cache_->addLineComment(category, key, comment);
    });
}

void ZProperties::postLoad(const char*) {}

void ZProperties::checkComment(ZLCString&) {}

void ZProperties::setAttributes(unsigned long flags, void* data) {
    ZResourceLock guard(lock_);
    cache_->setAttributes(flags, data);
}

// ---------------------------------------------------------------- the file

void ZProperties::load(const char* file) {
    ZResourceLock guard(lock_);
    file_->load(file);
}

void ZProperties::reload(const char* file) {
    ZResourceLock guard(lock_);
    file_->reload(file);
}

void ZProperties::store(const char* file) {
    ZLCString path(file);
    if (path.getLength() == 0) {
        ZResourceLock guard(lock_);
        path = file_->choosePath(file);
    }
    checkFileAccess(path.getChars());
    ZResourceLock guard(lock_);
    file_->store(path);
}

void ZProperties::setStoreMode(int mode) {
    zrequire(mode >= ZPROP_STORE_PLAIN && mode <= ZPROP_STORE_SAFE);
    ZResourceLock guard(lock_);
    file_->setStoreMode(mode);
}

int ZProperties::storeMode() const {
    ZResourceLock guard(lock_);
    return file_->storeMode();
}

int ZProperties::lastStoreMode() const {
    ZResourceLock guard(lock_);
    return file_->lastStoreMode();
}

void ZProperties::setLockWait(unsigned long milliseconds) {
    ZResourceLock guard(lock_);
    file_->setLockWait(milliseconds);
}

void ZProperties::setChangeTest(int test) {
    zrequire(test == ZPROP_CHANGE_SECONDS || test == ZPROP_CHANGE_EXACT);
    ZResourceLock guard(lock_);
    file_->setChangeTest(test);
}

void ZProperties::allowStoreAfterFailedLoad() {
    ZResourceLock guard(lock_);
    file_->allowStoreAfterFailedLoad();
}
