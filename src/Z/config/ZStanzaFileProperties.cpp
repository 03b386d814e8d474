#include "ZStanzaFileProperties.h"

#include <pthread.h>

#include <memory>

#include "ZPropertiesImpl.h"
#include "zinternal.h"
#include "zraise.h"
#include "zrefusal.h"
#include "zdialecttext.h"
#include "zpropchanges.h"

// ---------------------------------------------------------------- pairs

static ZAbstractString* copyOf(const ZAbstractString& text) {
    return static_cast<ZAbstractString*>(text.clone());
}

ZKVEntry::ZKVEntry(const ZKVEntry& other) : ZObject(other), key_(nullptr), value_(nullptr) {
    std::unique_ptr<ZAbstractString> key(copyOf(*other.key_));
    value_ = copyOf(*other.value_);
    key_ = key.release();
}

ZKVEntry::~ZKVEntry() noexcept {
    delete key_;
    delete value_;
}

ZObject* ZKVEntry::clone() const { return new ZKVEntry(*this); }

ZPropertiesKVList::ZPropertiesKVList(ZPropertyStringType type) : type_(type), entries_(10, 1) {}

ZPropertiesKVList::ZPropertiesKVList(const ZPropertiesKVList& other)
    : ZObject(other), type_(other.type_), entries_(other.entries_) {}

ZPropertiesKVList& ZPropertiesKVList::operator=(const ZPropertiesKVList& other) {
    entries_ = other.entries_;
    type_ = other.type_;
    return *this;
}

ZPropertiesKVList::~ZPropertiesKVList() noexcept {}

ZObject* ZPropertiesKVList::clone() const { return new ZPropertiesKVList(*this); }

ZAbstractString* ZPropertiesKVList::newString(const ZAbstractString& text) const {
    std::unique_ptr<ZAbstractString> string;
    if (type_ == ZPROP_STRING_UTF8)
        string.reset(new ZUTF8String);
    else
        string.reset(new ZLCString);
    string->setChars(text);
    return string.release();
}

void ZPropertiesKVList::addItem(const ZAbstractString& key, const ZAbstractString& value) {
    std::unique_ptr<ZAbstractString> ownKey(newString(key));
    std::unique_ptr<ZAbstractString> ownValue(newString(value));
    std::unique_ptr<ZKVEntry> entry(new ZKVEntry(ownKey.get(), ownValue.get()));
    ownKey.release();
    ownValue.release();
    entries_.addNoCopy(entry.get());
    entry.release();
}

const char* ZPropertiesKVList::getItemKey(unsigned int i) const {
    const ZKVEntry* entry = static_cast<const ZKVEntry*>(entries_.get(i));
    return entry == nullptr ? nullptr : entry->key().getChars();
}

const char* ZPropertiesKVList::getItemValue(unsigned int i) const {
    const ZKVEntry* entry = static_cast<const ZKVEntry*>(entries_.get(i));
    return entry == nullptr ? nullptr : entry->value().getChars();
}

unsigned int ZPropertiesKVList::getItemCount() const { return entries_.size(); }

void ZPropertiesKVList::clear() { entries_.removeAll(); }

// ---------------------------------------------------------------- the object

ZStanzaFileProperties::ZStanzaFilePropertiesFactory* ZStanzaFileProperties::factory_ = nullptr;

void ZStanzaFileProperties::makeFactory() { factory_ = new ZStanzaFilePropertiesFactory; }

ZStanzaFileProperties::ZStanzaFilePropertiesFactory* ZStanzaFileProperties::getFactory() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, &ZStanzaFileProperties::makeFactory);
    return factory_;
}

ZProperties* ZStanzaFileProperties::ZStanzaFilePropertiesFactory::makePropertiesInstance() {
    return new ZStanzaFileProperties(1);
}

// The factory comes first: what raises there leaves nothing behind.
ZStanzaFileProperties::ZStanzaFileProperties(int keepComments)
    : ZProperties((getFactory(), nullptr)) {
    cache_ = new ZSCFData;
    if (keepComments != 0)
        setAttributes(ZPCACHE_KEEP_COMMENTS, nullptr);
}

ZStanzaFileProperties::ZStanzaFileProperties(ZPropertiesFile* (*make)(ZProperties& object))
    : ZProperties((getFactory(), nullptr), make) {
    cache_ = new ZSCFData;
}

ZStanzaFileProperties::ZStanzaFileProperties(const char* file, int keepComments)
    : ZStanzaFileProperties(keepComments) {
    load(file);
}

ZStanzaFileProperties::ZStanzaFileProperties(const ZStanzaFileProperties& other)
    : ZProperties(other) {}

ZStanzaFileProperties::~ZStanzaFileProperties() noexcept { delete cache_; }

void ZStanzaFileProperties::addEntryComment(const char* category, const char* key,
                                            const char* text) {
    ZProperties::addEntryComment(category, key, text);
}

void ZStanzaFileProperties::checkComment(ZLCString& text) {
    const ZDialect* dialect = ZPropertiesFile::of(*this).dialect();
    const char first = *text.getChars();
    if (dialect == nullptr ? first != '#' : !zisDialectComment(*dialect, first))
        text.prepend(dialect == nullptr || zdialectCommentSign(*dialect) == '#' ? "#" : ";");
}

void ZStanzaFileProperties::addStanza(const char* stanza) {
    changeStanza(ZPropertyChanged::PropertyAdded, stanza, [&] { data().addStanzaLine(stanza); });
}

void ZStanzaFileProperties::deleteStanza(const char* stanza) {
    changeStanza(ZPropertyChanged::PropertyDeleted, stanza, [&] { data().delStanzaLine(stanza); });
}

void ZStanzaFileProperties::addStanzaComment(const char* stanza, const char* text) {
    zrequireStanzaName(stanza);
    ZPropertiesFile::of(*this).requireOneFile();
    changeComment(text, [&](const char* comment) {
        if (!ZPropertiesFile::of(*this).addDialectComment(stanza, nullptr, comment))
            data().addStanzaComment(stanza, comment);
    });
}

void ZStanzaFileProperties::getStanza(const char* stanza, ZPropertiesKVList& list) {
    zrequire(ZPropertiesFile::of(*this).hasStanzaName(stanza));
    const ZLCString name(stanza);  // which may be a text of the list
    list.clear();
    ZResourceLock guard(lock_);
    ZStanzaIterator entry(*this, name.getChars());
    while (entry.hasMore()) {
        entry.nextEntry();
        list.addItem(ZLCConstString(entry.entryName()), ZLCConstString(entry.entryValue(0)));
    }
}

// ---------------------------------------------------------------- values

void ZStanzaFileProperties::addValue(const char* stanza, const char* key, const char* value,
                                     int obfuscated) {
    ZPropertiesFile::of(*this).requireNames(stanza, key);
    zrequireValueText(value);
    ZArrayList list(1, 0);
    const ZLCConstString text(value);
    list.addNoCopy(&text);
    addValues(stanza, key, list, obfuscated);
}

void ZStanzaFileProperties::addValue(const char* stanza, const char* key, const ZLCString& value,
                                     int obfuscated) {
    addValue(stanza, key, value.getChars(), obfuscated);
}

void ZStanzaFileProperties::addValue(const char* stanza, const char* key,
                                     const ZLCConstString& value, int obfuscated) {
    addValue(stanza, key, value.getChars(), obfuscated);
}

void ZStanzaFileProperties::addValue(const char* stanza, const char* key, const ZUTF8String& value,
                                     int obfuscated) {
    ZLCString text;
    convertToStored(value, text);
    addValue(stanza, key, text.getChars(), obfuscated);
}

void ZStanzaFileProperties::addValue(const char* stanza, const char* key,
                                     const ZUTF8ConstString& value, int obfuscated) {
    ZLCString text;
    convertToStored(value, text);
    addValue(stanza, key, text.getChars(), obfuscated);
}

void ZStanzaFileProperties::addValues(const char* stanza, const char* key, const ZArrayList& list,
                                      int obfuscated) {
    ZPropertiesFile::of(*this).requireNames(stanza, key);
    zrequire(list.size() != 0);
    typedef ZAbstractPropertyValuesIterator Iterator;
    ZStanzaValueIterator value(
        *this, stanza, key, ZPROP_STRING_LOCAL,
        obfuscated != 0 ? Iterator::ZPROP_ITER_OBFUSCATED : Iterator::ZPROP_ITER_PLAIN);
    const unsigned int count = list.size();  // it may be a list that grows on the way
    // Ahead of the first one that would be added.
    for (unsigned int i = 1; i < count; ++i)
        if (list.get(i)->equals(*list.get(0)) == 0)
            ZPropertiesFile::of(*this).requireSeveralValues();
    for (unsigned int i = 0; i < count; ++i) {
        ZLCString wanted;
        convertToStored(*static_cast<const ZAbstractString*>(list.get(i)), wanted);
        bool found = false;
        while (!found && value.hasMore())
            found = value.nextValue()->equals(wanted) != 0;
        if (!found)
            value.addValue(wanted.getChars());
    }
}

void ZStanzaFileProperties::getItems(ZStzFileItem* items, unsigned int count) const {
    zrequire(items != nullptr && count != 0);
    ZResourceLock guard(lock_);
    for (unsigned int i = 0; i < count; ++i) {
        const ZStzFileItem& item = items[i];
        switch (item.kind) {
            case ZSTZ_ITEM_BOOLEAN:
                *static_cast<int*>(item.result) = getBooleanValue(
                    item.stanza, item.key, item.required, static_cast<int>(item.default_.number));
                break;
            case ZSTZ_ITEM_INTEGER:
                *static_cast<unsigned int*>(item.result) =
                    getIntegerValue(item.stanza, item.key, item.required, item.default_.number);
                break;
            case ZSTZ_ITEM_STRING:
                getValue(item.stanza, item.key, *static_cast<ZAbstractMutableString*>(item.result),
                         item.required, item.default_.text);
                break;
            case ZSTZ_ITEM_VALUES:
            case ZSTZ_ITEM_UTF8_VALUES:
                getValues(item.stanza, item.key, *static_cast<ZArrayList*>(item.result),
                          item.kind == ZSTZ_ITEM_VALUES ? ZPROP_STRING_LOCAL : ZPROP_STRING_UTF8);
                break;
            case ZSTZ_ITEM_STANZA:
                // A walk takes the lock and changes nothing that a caller can see.
                const_cast<ZStanzaFileProperties*>(this)->getStanza(
                    item.stanza, *static_cast<ZPropertiesKVList*>(item.result));
                break;
            default:
                zraise(ZInvalidParameterException());
        }
    }
}

ZStanzaIterator::~ZStanzaIterator() noexcept(false) {}

ZStanzaValueIterator::~ZStanzaValueIterator() noexcept(false) {}
