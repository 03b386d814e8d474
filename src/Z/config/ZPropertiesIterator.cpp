// ZPropertiesIterator.cpp: the walks.
//
// No walk keeps a pointer into what a call of its own thread may remove. In the file's own model it
// keeps a cursor, which the store moves when it takes the key away; in any other cache it asks for
// the list anew at each call.
#include "ZPropertiesIterator.h"

#include <memory>

#include "ZExceptionText.h"
#include "ZPropertiesImpl.h"
#include "zmodelreading.h"
#include "zinternal.h"
#include "zraise.h"
#include "zpstore.h"

[[noreturn]] static void raiseMisplaced(const ZLCString& file, ZSite site = ZSite()) {
    zraise(ZPropertiesIteratorException(file.getChars()), site);
}

// ---------------------------------------------------------------- keys

class ZPropertiesIterator::Place : public ZPStore::Cursor {
public:
    static Place* make(const ZProperties& properties, const char* stanza) {
        zrequire(ZPropertiesFile::of(properties).hasStanzaName(stanza));
        if (!ZModelReading::isOwn(*properties.cache_))
            return nullptr;
        ZPStore& store = properties.cache_->store();
        return new Place(store, store.stanzaInMap(zspanOf(stanza)));
    }

private:
    using ZPStore::Cursor::Cursor;
};

ZPropertiesIterator::ZPropertiesIterator(ZProperties& properties)
    : properties_(&properties),
      guard_(properties.lock_),
      place_(nullptr),
      values_(nullptr),
      valuesPending_(false),
      valuesAsked_(false),
      valuesKind_(ZPCache::GET_ANY),
      index_(0xFFFFFFFFu),
      currentKey_(nullptr) {}

ZPropertiesIterator::ZPropertiesIterator(ZProperties& properties, const char* stanza)
    : stanza_(stanza),
      properties_(&properties),
      guard_(properties.lock_),
      place_(Place::make(properties, stanza)),
      values_(nullptr),
      valuesPending_(false),
      valuesAsked_(false),
      valuesKind_(ZPCache::GET_ANY),
      index_(0xFFFFFFFFu),
      currentKey_(nullptr) {}

ZPropertiesIterator::~ZPropertiesIterator() noexcept(false) {
    delete currentKey_;
    delete place_;
}

// The keys of another cache, or null. A current key that isn't where it was any more is looked for;
// once it has gone, the walk stands behind the one in front of it.
const ZArrayList* ZPropertiesIterator::keys() {
    if (stanza_.getLength() == 0)
        return nullptr;
    const ZArrayList* list = properties_->keyNames(stanza_.getChars());
    if (currentKey_ == nullptr)
        return list;
    const ZObject* there = list == nullptr ? nullptr : list->get(index_);
    if (there != nullptr && currentKey_->equals(*there) != 0)
        return list;
    const int found = list == nullptr ? -1 : list->indexOf(currentKey_);
    if (found >= 0) {
        index_ = static_cast<unsigned int>(found);
    } else {
        --index_;
        delete currentKey_;
        currentKey_ = nullptr;
    }
    return list;
}

int ZPropertiesIterator::hasMore() {
    if (place_ != nullptr)
        return place_->nextKey() != ZPStore::none;
    const ZArrayList* list = keys();
    return list != nullptr && index_ + 1 < list->size();
}

void ZPropertiesIterator::nextEntry() {
    if (!hasMore())
        raiseMisplaced(ZPropertiesFile::of(*properties_).path());
    values_ = nullptr;
    if (place_ == nullptr) {
        std::unique_ptr<ZLCString> name(new ZLCString(
            static_cast<const ZAbstractString*>(keys()->get(index_ + 1))->getChars()));
        ++index_;
        delete currentKey_;
        currentKey_ = name.release();
        return;
    }
    place_->moveTo(place_->nextKey());
    valuesPending_ = true;
    valuesKind_ = place_->store().anyKind(place_->key()) == ZPStore::hidden
                      ? ZPCache::GET_OBFUSCATED
                      : ZPCache::GET_PLAIN;
}

void ZPropertiesIterator::requireEntry() {
    if (place_ == nullptr)
        keys();
    if (place_ == nullptr ? currentKey_ == nullptr : place_->key() == ZPStore::none)
        raiseMisplaced(ZPropertiesFile::of(*properties_).path());
}

const char* ZPropertiesIterator::entryName() {
    requireEntry();
    return place_ == nullptr ? currentKey_->getChars() : place_->store().nameText(place_->key());
}

// Requires: on an entry. The list goes with the key alone.
const ZArrayList* ZPropertiesIterator::values() {
    if (place_ == nullptr)
        return getValues(currentKey_->getChars());
    if (valuesPending_) {
        const char* name = entryName();
        valuesAsked_ = true;
        try {
            values_ = getValues(name);
        } catch (...) {
            valuesAsked_ = false;
            throw;
        }
        valuesAsked_ = valuesPending_ = false;
    }
    return values_;
}

const char* ZPropertiesIterator::entryValue(unsigned int i) {
    requireEntry();
    const ZArrayList* list = values();
    if (list == nullptr)
        return nullptr;
    zrequire(i < list->size());
    return static_cast<const ZAbstractString*>(list->get(i))->getChars();
}

unsigned int ZPropertiesIterator::keyCount() {
    if (place_ != nullptr)
        return place_->stanza() == ZPStore::none ? 0
                                                 : place_->store().stanza(place_->stanza()).count;
    const ZArrayList* list = keys();
    return list == nullptr ? 0 : list->size();
}

unsigned int ZPropertiesIterator::valueCount() {
    requireEntry();
    const ZArrayList* list = values();
    return list == nullptr ? 0 : list->size();
}

ZArrayList* ZPropertiesIterator::getValues(const char* name) {
    const ZPCache& cache = *properties_->cache_;
    if (stanza_.getLength() == 0)
        return cache.get(name, ZPCache::GET_ANY);
    return cache.get(stanza_.getChars(), name, valuesAsked_ ? valuesKind_ : ZPCache::GET_ANY);
}

// ---------------------------------------------------------------- values

class ZAbstractPropertyValuesIterator::Place : public ZPStore::Cursor {
public:
    Place(ZPStore& store, const ZLCString& stanza, const ZLCString& key)
        : Cursor(store, ZPStore::none) {
        find(stanza, key);
    }
    // Whether it is on a key, which is looked for if it isn't.
    bool find(const ZLCString& stanza, const ZLCString& name) {
        const ZPStore::Id found = store().keyInMap({stanza.getChars(), stanza.getLength()},
                                                   {name.getChars(), name.getLength()});
        if (found != ZPStore::none)
            moveTo(found);
        return found != ZPStore::none;
    }
};

ZAbstractPropertyValuesIterator::ZAbstractPropertyValuesIterator(ZProperties& properties,
                                                                 const char* stanza,
                                                                 const char* key,
                                                                 ZPropertyStringType stringType,
                                                                 ZPropIter_valtype valueType)
    : place_(nullptr),
      index_(-1),
      properties_(&properties),
      guard_(properties.lock_),
      stanza_(stanza),
      key_(key),
      stringType_(stringType),
      current_(nullptr),
      valueType_(valueType),
      foundHidden_(false) {
    const bool valid = stanza != nullptr && key != nullptr &&
                       (stringType == ZPROP_STRING_LOCAL || stringType == ZPROP_STRING_UTF8) &&
                       valueType >= ZPROP_ITER_AUTO && valueType <= ZPROP_ITER_OBFUSCATED;
    zrequire(valid);
    if (valueType == ZPROP_ITER_AUTO)
        foundHidden_ = properties.cache_->isObfuscated(stanza, key) != 0;
    else
        properties.checkAccess(stanza, key, valueType == ZPROP_ITER_OBFUSCATED);
    std::unique_ptr<ZAbstractString> current;
    if (stringType == ZPROP_STRING_UTF8)
        current.reset(new ZUTF8String);
    else
        current.reset(new ZLCString);  // a copy: the value may go before the walk goes on
    if (ZModelReading::isOwn(*properties.cache_))
        place_ = new Place(properties.cache_->store(), stanza_, key_);
    current_ = current.release();
}

ZAbstractPropertyValuesIterator::~ZAbstractPropertyValuesIterator() noexcept(false) {
    delete current_;
    delete place_;
}

bool ZAbstractPropertyValuesIterator::walksHidden() const {
    return valueType_ == ZPROP_ITER_OBFUSCATED || foundHidden_;
}

// The values now, the cache's own, or null. A key that was removed and made anew is walked from its
// first value.
ZArrayList* ZAbstractPropertyValuesIterator::values() const {
    if (place_ != nullptr && place_->key() == ZPStore::none) {
        index_ = -1;
        if (!place_->find(stanza_, key_))
            return nullptr;
    }
    return properties_->cache_->get(stanza_.getChars(), key_.getChars(),
                                    walksHidden() ? ZPCache::GET_OBFUSCATED : ZPCache::GET_PLAIN);
}

int ZAbstractPropertyValuesIterator::hasMore() {
    const ZArrayList* list = values();
    return list != nullptr && static_cast<unsigned int>(index_ + 1) < list->size();
}

unsigned int ZAbstractPropertyValuesIterator::valueCount() {
    const ZArrayList* list = values();
    return list == nullptr ? 0 : list->size();
}

const ZLCString* ZAbstractPropertyValuesIterator::currentValue() const {
    const ZArrayList* list = values();
    return list == nullptr || index_ < 0
               ? nullptr
               : static_cast<const ZLCString*>(list->get(static_cast<unsigned int>(index_)));
}

int ZAbstractPropertyValuesIterator::isValid() const {
    const ZArrayList* list = values();
    return list != nullptr && index_ >= 0 && static_cast<unsigned int>(index_) < list->size();
}

const ZLCString* ZAbstractPropertyValuesIterator::nextValue() {
    if (!hasMore())
        raiseMisplaced(ZPropertiesFile::of(*properties_).path());
    ++index_;
    return currentValue();
}

const char* ZAbstractPropertyValuesIterator::nextValue(const char*& text) {
    current_->setChars(*nextValue());
    text = current_->getChars();
    return text;
}

// A text in the iterator's codeset as it is stored.
void ZAbstractPropertyValuesIterator::convert(const char* text, ZLCString& out) const {
    if (stringType_ == ZPROP_STRING_UTF8)
        properties_->convertToStored(ZUTF8ConstString(text), out);
    else
        out.setChars(text);
    properties_->cache_->checkValue(key_.getChars(), out.getChars(), walksHidden(), 0);
}

void ZAbstractPropertyValuesIterator::changeValue(const char* text) {
    if (!isValid())
        raiseMisplaced(ZPropertiesFile::of(*properties_).path());
    ZLCString value;
    convert(text, value);
    values()->set(static_cast<unsigned int>(index_), &value);
    properties_->setModified();
}

void ZAbstractPropertyValuesIterator::addValue(const char* text) {
    ZLCString value;
    convert(text, value);
    ZArrayList* list = values();
    if (list != nullptr && list->size() != 0) {
        ZPropertiesFile::of(*properties_).requireSeveralValues();
        // Behind the end there is no place, and the list would take nothing.
        const unsigned int behind = static_cast<unsigned int>(index_ + 1);
        const unsigned int place = behind < list->size() ? behind : list->size();
        list->add(place, &value);
        index_ = static_cast<int>(place);
    } else {
        // What a whichever-walk has found decides here too, or a hidden value would be written as
        // text after its key was emptied.
        properties_->setValue(stanza_.getChars(), key_.getChars(), value.getChars(), walksHidden());
        list = values();
        index_ = list == nullptr ? -1 : static_cast<int>(list->size()) - 1;
    }
    properties_->setModified();
}

void ZAbstractPropertyValuesIterator::removeValue() {
    if (!isValid())
        raiseMisplaced(ZPropertiesFile::of(*properties_).path());
    if (index_ == 0 && valueType_ == ZPROP_ITER_OBFUSCATED) {
        properties_->setValue(stanza_.getChars(), key_.getChars(), "");
        index_ = -1;
    } else {
        values()->remove(static_cast<unsigned int>(index_));
        --index_;
    }
    properties_->setModified();
}
