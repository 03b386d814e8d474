// ZMap.cpp: ZArrayMap, the iterators, and ZHashMap as far as it is calls; its storage is
// zhashtable.h.
#include "ZMap.h"

#include "zhashtable.h"

ZAbstractMap::~ZAbstractMap() noexcept {}

int ZAbstractMap::isEmpty() const { return size() == 0; }

// ZArrayMap

ZArrayMap::ZArrayMap(unsigned int capacity, int ownsMembers) : ZArrayList(capacity, ownsMembers) {}

ZArrayMap::~ZArrayMap() noexcept {}

ZObject* ZArrayMap::clone() const { return new ZArrayMap(*this); }

int ZArrayMap::isEmpty() const { return size() == 0; }

unsigned int ZArrayMap::size() const { return ZArrayList::size(); }

int ZArrayMap::contains(const ZObject* probe) const { return getIndex(probe) >= 0; }

void ZArrayMap::removeAll() { ZArrayList::removeAll(); }

ZObject* ZArrayMap::getEntry(const ZObject* probe) const {
    const int index = getIndex(probe);
    return index >= 0 ? get(static_cast<unsigned int>(index)) : nullptr;
}

void ZArrayMap::putEntry(ZObject* entry) {
    const int index = getIndex(entry);
    if (index >= 0)
        set(static_cast<unsigned int>(index), entry);
    else
        add(entry);
}

void ZArrayMap::putAll(ZMap& other) { other.list(*this); }

void ZArrayMap::removeEntry(ZObject* probe) {
    const int index = getIndex(probe);
    if (index >= 0)
        remove(static_cast<unsigned int>(index));
}

void ZArrayMap::list(ZList& out) const { out.addList(*this); }

int ZArrayMap::getIndex(const ZObject* probe) const { return indexOf(probe); }

// ZHashMap

typedef ZHashTable<ZMapMember> Table;

ZHashMap::ZHashMap(unsigned int size, int ownsMembers)
    : table_(new Table(Table::bucketsFor(size), ownsMembers)) {}

ZHashMap::ZHashMap(const ZHashMap& other) : ZAbstractMap(other), table_(new Table(*other.table_)) {}

ZHashMap& ZHashMap::operator=(const ZHashMap& other) {
    Table::assign(table_, *other.table_);
    return *this;
}

ZHashMap::~ZHashMap() noexcept { delete table_; }

ZObject* ZHashMap::clone() const { return new ZHashMap(*this); }

unsigned int ZHashMap::size() const { return table_->size(); }

int ZHashMap::contains(const ZObject* probe) const { return getEntry(probe) != nullptr; }

ZObject* ZHashMap::getEntry(const ZObject* probe) const {
    return probe != nullptr ? table_->find(*probe).object : nullptr;
}

void ZHashMap::putEntry(ZObject* entry) {
    if (entry != nullptr)
        table_->put(ZMapMember::of(*entry));
}

void ZHashMap::putAll(ZMap& other) {
    ZArrayList entries(10, 0);
    other.list(entries);
    for (unsigned int i = 0; i < entries.size(); ++i)
        putEntry(entries.get(i));
}

void ZHashMap::removeEntry(ZObject* probe) {
    if (probe != nullptr)
        table_->remove(*probe);
}

void ZHashMap::removeAll() { table_->removeAll(); }

void ZHashMap::list(ZList& out) const {
    table_->forEach([&](const ZMapMember& member) { out.add(member.object); });
}

// ZMapIterator

ZMapIterator::ZMapIterator(const ZMap& map) : snapshot_(map.size(), 0), cursor_(snapshot_) {
    map.list(snapshot_);
}

ZMapIterator::ZMapIterator(const ZMapIterator& other)
    : ZAbstractIterator(other), snapshot_(other.snapshot_), cursor_(snapshot_) {
    cursor_ = other.cursor_;
}

ZMapIterator& ZMapIterator::operator=(const ZMapIterator& other) {
    snapshot_ = other.snapshot_;
    cursor_ = other.cursor_;
    return *this;
}

ZMapIterator::~ZMapIterator() noexcept {}

ZObject* ZMapIterator::clone() const { return new ZMapIterator(*this); }

int ZMapIterator::hasMore() { return cursor_.hasMore(); }

ZObject* ZMapIterator::getNext() { return cursor_.getNext(); }

void ZMapIterator::reset() { cursor_.reset(); }

// ZArrayMapIterator

ZArrayMapIterator::ZArrayMapIterator(const ZArrayMap& map) : ZListIterator(map) {}

ZArrayMapIterator::~ZArrayMapIterator() noexcept {}

ZObject* ZArrayMapIterator::clone() const { return new ZArrayMapIterator(*this); }
