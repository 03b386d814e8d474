#include "ZKeyMap.h"

#include "zmembers.h"

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

namespace {

/// What a look-up searches with: a pair on the stack that holds the caller's key. A null key gives
/// no pair, which the map of pairs takes as absent.
class Probe {
public:
    explicit Probe(const ZObject* key)
        : entry_(const_cast<ZObject*>(key), nullptr, 0), isThere_(key != nullptr) {}

    ZKeyEntry* get() { return isThere_ ? &entry_ : nullptr; }

private:
    ZKeyEntry entry_;
    const bool isThere_;
};

}  // namespace

ZHashKeyMap::ZHashKeyMap(unsigned int size, int ownsMembers)
    : entries_(size, 1), ownsMembers_(ownsMembers) {}

ZHashKeyMap::ZHashKeyMap(const ZHashKeyMap& other)
    : ZAbstractKeyMap(other), entries_(other.entries_), ownsMembers_(other.ownsMembers_) {}

ZHashKeyMap& ZHashKeyMap::operator=(const ZHashKeyMap& other) {
    if (this == &other)
        return *this;
    entries_ = other.entries_;
    ownsMembers_ = other.ownsMembers_;
    return *this;
}

ZHashKeyMap::~ZHashKeyMap() noexcept {}

ZObject* ZHashKeyMap::clone() const { return new ZHashKeyMap(*this); }

unsigned int ZHashKeyMap::size() const { return entries_.size(); }

int ZHashKeyMap::contains(const ZObject* key) const {
    return entries_.contains(Probe(key).get());
}

ZObject* ZHashKeyMap::getEntry(const ZObject* key) const {
    const ZObject* entry = entries_.getEntry(Probe(key).get());
    return entry != nullptr ? static_cast<const ZKeyEntry*>(entry)->value() : nullptr;
}

void ZHashKeyMap::putEntry(const ZObject* key, const ZObject* value) {
    // The map of pairs clones this one, so that what is stored never depends on the caller's key.
    ZKeyEntry entry(const_cast<ZObject*>(key), const_cast<ZObject*>(value), ownsMembers_);
    if (entry.key() != nullptr)
        entries_.putEntry(&entry);
}

void ZHashKeyMap::putAll(const ZKeyMap& other) {
    ZArrayList keys(10, 0);
    other.listKeys(keys);
    for (unsigned int i = 0; i < keys.size(); ++i)
        putEntry(keys.get(i), other.getEntry(keys.get(i)));
}

void ZHashKeyMap::removeEntry(const ZObject* key) { entries_.removeEntry(Probe(key).get()); }

void ZHashKeyMap::removeAll() { entries_.removeAll(); }

/// Adds one part of each pair to `out`, in the order of the pairs.
static void listParts(const ZHashMap& entries, ZList& out, ZObject* (ZKeyEntry::*part)() const) {
    ZArrayList pairs(entries.size(), 0);
    entries.list(pairs);
    for (unsigned int i = 0; i < pairs.size(); ++i)
        out.add((static_cast<const ZKeyEntry*>(pairs.get(i))->*part)());
}

void ZHashKeyMap::listKeys(ZList& out) const { listParts(entries_, out, &ZKeyEntry::key); }

void ZHashKeyMap::listObjects(ZList& out) const { listParts(entries_, out, &ZKeyEntry::value); }
