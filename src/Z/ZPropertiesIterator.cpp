#include "ZPropertiesIterator.h"

#include "ZExceptionText.h"

[[noreturn]] static void raiseMisplaced(const ZLCString& file, int line) {
    ZPropertiesIteratorException(file.getChars()).throwException(__FILE__, line);
}

// ---------------------------------------------------------------- keys

ZPropertiesIterator::ZPropertiesIterator(ZProperties& properties)
    : properties_(&properties),
      guard_(properties.lock_),
      keys_(nullptr),
      values_(nullptr),
      valuesPending_(false),
      valuesKind_(ZPCache::GET_ANY),
      index_(0xFFFFFFFFu),
      currentKey_(nullptr) {}

ZPropertiesIterator::ZPropertiesIterator(ZProperties& properties, const char* stanza)
    : stanza_(stanza),
      properties_(&properties),
      guard_(properties.lock_),
      keys_(properties.keyNames(stanza)),
      values_(nullptr),
      valuesPending_(false),
      valuesKind_(ZPCache::GET_ANY),
      index_(0xFFFFFFFFu),
      currentKey_(nullptr) {}

ZPropertiesIterator::~ZPropertiesIterator() noexcept(false) {}

int ZPropertiesIterator::hasMore() { return keys_ != nullptr && index_ + 1 < keys_->size(); }

void ZPropertiesIterator::nextEntry() {
    if (!hasMore())
        raiseMisplaced(properties_->fileName_, __LINE__);
    values_ = nullptr;
    ++index_;
    currentKey_ = static_cast<const ZLCString*>(keys_->get(index_));
    // The working model says of which kind the values are now and makes their list when it is
    // needed; another cache is asked at once.
    const ZPCategoryBasedCache* cache =
        stanza_.getLength() == 0 ? nullptr
                                 : dynamic_cast<const ZPCategoryBasedCache*>(properties_->cache_);
    valuesPending_ = cache != nullptr;
    if (cache == nullptr)
        values_ = getValues(currentKey_->getChars());
    else
        valuesKind_ = cache->isObfuscated(stanza_.getChars(), currentKey_->getChars()) != 0
                          ? ZPCache::GET_OBFUSCATED
                          : ZPCache::GET_PLAIN;
}

void ZPropertiesIterator::requireEntry() const {
    if (currentKey_ == nullptr)
        raiseMisplaced(properties_->fileName_, __LINE__);
}

const char* ZPropertiesIterator::entryName() {
    requireEntry();
    return currentKey_->getChars();
}

const ZArrayList* ZPropertiesIterator::values() {
    if (valuesPending_) {
        values_ = getValues(currentKey_->getChars());
        valuesPending_ = false;
    }
    return values_;
}

const char* ZPropertiesIterator::entryValue(unsigned int i) {
    requireEntry();
    const ZArrayList* list = values();
    if (list == nullptr)
        return nullptr;
    if (i >= list->size())
        ZInvalidParameterException().throwException(__FILE__, __LINE__);
    return static_cast<const ZAbstractString*>(list->get(i))->getChars();
}

unsigned int ZPropertiesIterator::keyCount() { return keys_ == nullptr ? 0 : keys_->size(); }

unsigned int ZPropertiesIterator::valueCount() {
    requireEntry();
    const ZArrayList* list = values();
    return list == nullptr ? 0 : list->size();
}

ZArrayList* ZPropertiesIterator::getValues(const char* name) {
    const ZPCache& cache = *properties_->cache_;
    if (stanza_.getLength() == 0)
        return cache.get(name, ZPCache::GET_ANY);
    const bool isPending = valuesPending_ && name == currentKey_->getChars();
    return cache.get(stanza_.getChars(), name, isPending ? valuesKind_ : ZPCache::GET_ANY);
}

// ---------------------------------------------------------------- values

ZAbstractPropertyValuesIterator::ZAbstractPropertyValuesIterator(ZProperties& properties,
                                                                 const char* stanza,
                                                                 const char* key,
                                                                 ZPropertyStringType stringType,
                                                                 ZPropIter_valtype valueType)
    : values_(nullptr),
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
    if (!valid)
        ZInvalidParameterException().throwException(__FILE__, __LINE__);
    if (valueType == ZPROP_ITER_AUTO)
        foundHidden_ = properties.cache_->isObfuscated(stanza, key) != 0;
    else
        properties.checkAccess(stanza, key, valueType == ZPROP_ITER_OBFUSCATED);
    values_ = properties.cache_->get(stanza, key,
                                     walksHidden() ? ZPCache::GET_OBFUSCATED : ZPCache::GET_PLAIN);
    if (stringType == ZPROP_STRING_UTF8)
        current_ = new ZUTF8String;
    else
        current_ = new ZLCConstString;
}

ZAbstractPropertyValuesIterator::~ZAbstractPropertyValuesIterator() noexcept(false) {
    delete current_;
}

bool ZAbstractPropertyValuesIterator::walksHidden() const {
    return valueType_ == ZPROP_ITER_OBFUSCATED || foundHidden_;
}

int ZAbstractPropertyValuesIterator::hasMore() {
    return values_ != nullptr && static_cast<unsigned int>(index_ + 1) < values_->size();
}

unsigned int ZAbstractPropertyValuesIterator::valueCount() {
    return values_ == nullptr ? 0 : values_->size();
}

int ZAbstractPropertyValuesIterator::isValid() const {
    return index_ >= 0 && values_ != nullptr && static_cast<unsigned int>(index_) < values_->size();
}

const ZLCString* ZAbstractPropertyValuesIterator::nextValue() {
    if (!hasMore())
        raiseMisplaced(properties_->fileName_, __LINE__);
    ++index_;
    return static_cast<const ZLCString*>(values_->get(static_cast<unsigned int>(index_)));
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
        raiseMisplaced(properties_->fileName_, __LINE__);
    ZLCString value;
    convert(text, value);
    values_->set(static_cast<unsigned int>(index_), &value);
    properties_->setModified();
}

void ZAbstractPropertyValuesIterator::addValue(const char* text) {
    ZLCString value;
    convert(text, value);
    if (values_ != nullptr && values_->size() != 0) {
        values_->add(static_cast<unsigned int>(index_ + 1), &value);
        ++index_;
    } else {
        // What a whichever-walk has found decides here too, or a hidden value would be written as
        // text after its key was emptied.
        properties_->setValue(stanza_.getChars(), key_.getChars(), value.getChars(), walksHidden());
        ++index_;
        if (values_ == nullptr)
            values_ = properties_->cache_->get(
                stanza_.getChars(), key_.getChars(),
                walksHidden() ? ZPCache::GET_OBFUSCATED : ZPCache::GET_PLAIN);
    }
    properties_->setModified();
}

void ZAbstractPropertyValuesIterator::removeValue() {
    if (!isValid())
        raiseMisplaced(properties_->fileName_, __LINE__);
    if (index_ == 0 && valueType_ == ZPROP_ITER_OBFUSCATED) {
        properties_->setValue(stanza_.getChars(), key_.getChars(), "");
        index_ = -1;
    } else {
        --index_;
        values_->remove(static_cast<unsigned int>(index_ + 1));
    }
    properties_->setModified();
}
