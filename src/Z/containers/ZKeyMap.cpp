#include "ZKeyMap.h"

#include <memory>

#include "zhashtable.h"

ZAbstractKeyMap::~ZAbstractKeyMap() noexcept {}

int ZAbstractKeyMap::isEmpty() const { return size() == 0; }

// ZKeyEntry

static ZObject* cloneOrNull(const ZObject* object) {
    return object != nullptr ? object->clone() : nullptr;
}

ZKeyEntry::ZKeyEntry(int ownsMembers)
    : key_(nullptr), value_(nullptr), ownsMembers_(ownsMembers), hashValue_(0) {}

// Delegating, so that the destructor gives the key's clone back when that of the value fails.
ZKeyEntry::ZKeyEntry(ZObject* key, ZObject* value, int ownsMembers) : ZKeyEntry(ownsMembers) {
    key_ = ownsMembers ? cloneOrNull(key) : key;
    value_ = ownsMembers ? cloneOrNull(value) : value;
}

ZKeyEntry::~ZKeyEntry() noexcept {
    if (ownsMembers_) {
        zdeleteMember(key_);
        zdeleteMember(value_);
    }
}

unsigned int ZKeyEntry::hash() const {
    hashValue_ = key_ != nullptr ? key_->hash() : 0;
    return hashValue_;
}

int ZKeyEntry::compare(const ZObject& other) const {
    const ZObject* otherKey = static_cast<const ZKeyEntry&>(other).key_;
    if (key_ == nullptr || otherKey == nullptr)
        return (key_ != nullptr) - (otherKey != nullptr);
    return key_->compare(*otherKey);
}

ZObject* ZKeyEntry::clone() const {
    ZKeyEntry* copy = new ZKeyEntry(key_, value_, ownsMembers_);
    copy->hashValue_ = hashValue_;
    return copy;
}

int ZKeyEntry::equals(const ZObject& other) const {
    const ZKeyEntry& entry = static_cast<const ZKeyEntry&>(other);
    if (hashValue_ != entry.hashValue_)
        return 0;
    if (key_ == nullptr || entry.key_ == nullptr)
        return key_ == entry.key_;
    return key_->equals(*entry.key_);
}

// ZHashKeyMap

typedef ZHashTable<ZKeyMapMember> Table;

ZHashKeyMap::ZHashKeyMap(unsigned int size, int ownsMembers)
    : table_(new Table(Table::bucketsFor(size), ownsMembers)) {}

ZHashKeyMap::ZHashKeyMap(const ZHashKeyMap& other)
    : ZAbstractKeyMap(other), table_(new Table(*other.table_)) {}

ZHashKeyMap& ZHashKeyMap::operator=(const ZHashKeyMap& other) {
    Table::assign(table_, *other.table_);
    return *this;
}

ZHashKeyMap::~ZHashKeyMap() noexcept { delete table_; }

ZObject* ZHashKeyMap::clone() const { return new ZHashKeyMap(*this); }

unsigned int ZHashKeyMap::size() const { return table_->size(); }

int ZHashKeyMap::contains(const ZObject* key) const {
    return key != nullptr && table_->find(*key).object != nullptr;
}

ZObject* ZHashKeyMap::getEntry(const ZObject* key) const {
    return key != nullptr ? table_->find(*key).value : nullptr;
}

void ZHashKeyMap::putEntry(const ZObject* key, const ZObject* value) {
    if (key != nullptr)
        table_->put(ZKeyMapMember::of(*key, value));
}

void ZHashKeyMap::putAll(const ZKeyMap& other) {
    ZArrayList keys(10, 0), pairs(10, 1);
    other.listKeys(keys);
    // All of them before the first is put, for that may replace a value which holds `other`.
    for (unsigned int i = 0; i < keys.size(); ++i) {
        ZObject* const key = keys.get(i);
        std::unique_ptr<ZKeyEntry> pair(
            new ZKeyEntry(key, other.getEntry(key), table_->ownsMembers()));
        pairs.addNoCopy(pair.get());
        pair.release();
    }
    for (unsigned int i = 0; i < pairs.size(); ++i) {
        const ZKeyEntry* const pair = static_cast<const ZKeyEntry*>(pairs.get(i));
        putEntry(pair->key(), pair->value());
    }
}

void ZHashKeyMap::removeEntry(const ZObject* key) {
    if (key != nullptr)
        table_->remove(*key);
}

void ZHashKeyMap::removeAll() { table_->removeAll(); }

void ZHashKeyMap::listKeys(ZList& out) const {
    table_->forEach([&](const ZKeyMapMember& pair) { out.add(pair.object); });
}

void ZHashKeyMap::listObjects(ZList& out) const {
    table_->forEach([&](const ZKeyMapMember& pair) { out.add(pair.value); });
}
