// ZList.cpp: ZAbstractList (the sort), ZArrayList, ZListIterator.
#include "ZList.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>

#include "ZException.h"
#include "zassert.h"
#include "zownership.h"
#include "zraise.h"
#include "zuncancelled.h"

// An interface can't ask its own iterator from the header, where the class isn't known yet.
void ZList::backUp(ZListIterator& iterator) const { iterator.backUp(); }

int ZList::indexOf(ZListIterator& iterator) const { return iterator.indexOf(); }

// Sorting
//
// Two indexes scan towards each other and stop at members that stand on the wrong side of the
// middle one, or equal it; these are exchanged. The order of members that compare as equal follows
// from exactly these steps, and programs have come to see it in their files: don't replace them.

namespace {

/// One direction of a sort: what stops a scan. Null members never do.
class Scan {
public:
    Scan(const ZSortCompare& compare, const ZSortCompare::sortorder& order)
        : compare_(compare), ascending_(order == ZSortCompare::sortAscending) {}

    bool stopsUp(const ZObject* member, const ZObject* pivot) const {
        return stops(member, pivot, ascending_);
    }
    bool stopsDown(const ZObject* member, const ZObject* pivot) const {
        return stops(member, pivot, !ascending_);
    }

private:
    bool stops(const ZObject* member, const ZObject* pivot, bool atHigher) const {
        if (member == nullptr || pivot == nullptr)
            return false;
        const int result = compare_.sortCompare(member, pivot);
        return atHigher ? result >= 0 : result <= 0;
    }

    const ZSortCompare& compare_;
    const bool ascending_;
};

}  // namespace

/// The member in the middle; where that is null, the next one behind it or else before it. Null
/// only if all are, and then no scan stops and the range counts as sorted.
static ZObject* pivotOf(const ZList& list, long long low, long long high) {
    const long long middle = (low + high) / 2;
    for (long long i = middle; i <= high; ++i)
        if (ZObject* member = list.get(static_cast<unsigned int>(i)))
            return member;
    for (long long i = middle; i-- > low;)
        if (ZObject* member = list.get(static_cast<unsigned int>(i)))
            return member;
    return nullptr;
}

ZAbstractList::~ZAbstractList() noexcept {}

int ZAbstractList::isEmpty() const { return size() == 0; }

void ZAbstractList::sort(const ZSortCompare& compare, const ZSortCompare::sortorder& order) {
    quickSort(compare, order, 0, size());
}

void ZAbstractList::quickSort(const ZSortCompare& compare, const ZSortCompare::sortorder& order,
                              long long low, long long high) {
    const Scan scan(compare, order);
    while (high > low) {
        long long i = low;
        long long j = high;
        const ZObject* pivot = pivotOf(*this, low, high);
        do {
            while (i < high && !scan.stopsUp(get(static_cast<unsigned int>(i)), pivot))
                ++i;
            while (j > low && !scan.stopsDown(get(static_cast<unsigned int>(j)), pivot))
                --j;
            if (i <= j) {
                swap(static_cast<unsigned int>(i), static_cast<unsigned int>(j));
                ++i;
                --j;
            }
        } while (i <= j);

        // Both parts are sorted apart from each other, so their sequence is free: recursion into
        // the shorter one keeps the stack small whatever the members are.
        if (j - low < high - i) {
            quickSort(compare, order, low, j);
            low = i;
        } else {
            quickSort(compare, order, i, high);
            high = j;
        }
    }
}

// ZArrayList

static ZObject** allocateSlots(unsigned int count) {
    return static_cast<ZObject**>(zallocateBlock(count, sizeof(ZObject*)));
}

ZArrayList::ZArrayList(unsigned int capacity, int ownsMembers)
    : capacity_(std::max(capacity, 1u)),
      members_(allocateSlots(capacity_)),
      size_(0),
      ownsMembers_(ownsMembers) {}

// Delegating, so that the destructor gives everything back when a clone fails on the way.
ZArrayList::ZArrayList(const ZArrayList& other) : ZArrayList(other.capacity_, other.ownsMembers_) {
    addList(other);
}

ZArrayList& ZArrayList::operator=(const ZArrayList& other) {
    if (this == &other)
        return *this;
    // The old members go last: `other` may be inside one of them, and if there isn't memory for the
    // new ones, they stay.
    ZArrayList copy(capacity_, ownsMembers_);
    copy.addList(other);
    std::swap(capacity_, copy.capacity_);
    std::swap(members_, copy.members_);
    std::swap(size_, copy.size_);
    return *this;
}

ZArrayList::~ZArrayList() noexcept {
    ZArrayList::removeAll();
    zreleaseBlock(members_);
}

ZObject* ZArrayList::clone() const { return new ZArrayList(*this); }

int ZArrayList::ownsMembers() const { return ownsMembers_; }

int ZArrayList::contains(const ZObject* object) const { return indexOf(object) >= 0; }

void ZArrayList::add(const ZObject* object) {
    if (ownsMembers_)
        addOwned(size_, object);
    else
        addNoCopy(size_, object);
}

void ZArrayList::add(unsigned int index, const ZObject* object) {
    if (ownsMembers_)
        addOwned(index, object);
    else
        addNoCopy(index, object);
}

// The index is tested before anything is cloned for it.
void ZArrayList::addOwned(unsigned int index, const ZObject* object) {
    if (object == nullptr || index > size_)
        return;
    ZIncomingMember member(*object, ownsMembers_);
    addNoCopy(index, member.get());
    member.placed();
}

void ZArrayList::addList(const ZList& list) {
    // A list that grows while it is read never ends, so its own size is taken once.
    if (static_cast<const ZList*>(this) == &list) {
        const unsigned int count = size();
        for (unsigned int i = 0; i < count; ++i)
            add(get(i));
        return;
    }
    for (unsigned int i = 0; i < list.size(); ++i)
        add(list.get(i));
}

void ZArrayList::addNoCopy(const ZObject* object) { addNoCopy(size_, object); }

void ZArrayList::addNoCopy(unsigned int index, const ZObject* object) {
    if (index > size_)
        return;
    if (size_ == capacity_)
        grow();
    zassert(size_ < capacity_);
    if (index < size_)
        memmove(members_ + index + 1, members_ + index, (size_ - index) * sizeof(ZObject*));
    members_[index] = const_cast<ZObject*>(object);
    ++size_;
}

// By half: 1, 2, 3, 4, 6, 9, 13, 19. Doubling would copy a little less and waste a lot more.
void ZArrayList::grow() {
    const uint64_t capacity = uint64_t(size_) + std::max(size_ / 2, 1u);
    zrequireRoom(capacity <= UINT_MAX);
    ZObject** members = allocateSlots(static_cast<unsigned int>(capacity));
    memcpy(members, members_, size_ * sizeof(ZObject*));
    zreleaseBlock(members_);
    members_ = members;
    capacity_ = static_cast<unsigned int>(capacity);
}

void ZArrayList::remove(const ZObject* object) {
    const int index = indexOf(object);
    if (index >= 0)
        remove(static_cast<unsigned int>(index));
}

void ZArrayList::remove(unsigned int index) {
    if (index >= size_)
        return;
    ZObject* member = members_[index];
    --size_;
    memmove(members_ + index, members_ + index + 1, (size_ - index) * sizeof(ZObject*));
    if (ownsMembers_)
        zdeleteMember(member);
}

void ZArrayList::remove(ZListIterator& iterator) {
    remove(static_cast<unsigned int>(indexOf(iterator)));
    backUp(iterator);
}

void ZArrayList::removeAll() {
    // A member leaves its slot before it is deleted, so that nobody who comes here out of its
    // destructor finds it again.
    if (ownsMembers_) {
        const ZUncancelled uncancelled;
        for (unsigned int i = 0; i < size_; ++i) {
            ZObject* member = members_[i];
            members_[i] = nullptr;
            zdeleteMember(member);
        }
    }
    size_ = 0;
}

void ZArrayList::set(unsigned int index, const ZObject* object) {
    if (index >= size_)
        return;
    if (!ownsMembers_) {
        members_[index] = const_cast<ZObject*>(object);
        return;
    }
    if (object == nullptr)
        return;
    ZObject* copy = object->clone();
    ZObject* old = members_[index];
    members_[index] = copy;
    zdeleteMember(old);
}

int ZArrayList::indexOf(const ZObject* object) const { return zfirstOf(members_, size_, object); }

int ZArrayList::lastIndexOf(const ZObject* object) const {
    return zlastOf(members_, size_, object);
}

void ZArrayList::subList(ZList& out, unsigned int from, unsigned int to) const {
    if (from > to || to >= size_)
        return;
    for (unsigned int i = from; i <= to; ++i)
        out.add(get(i));
}

void ZArrayList::swap(unsigned int a, unsigned int b) {
    if (a < size_ && b < size_)
        std::swap(members_[a], members_[b]);
}

unsigned int ZArrayList::capacity() const { return capacity_; }

void ZArrayList::shuffle() {
    srand(static_cast<unsigned int>(time(nullptr)));
    for (unsigned int i = size(); i-- > 1;)
        swap(i, static_cast<unsigned int>(rand()) % (i + 1));
}

int ZArrayList::indexOf(ZListIterator& iterator) const { return iterator.indexOf(); }

// ZListIterator

ZListIterator::ZListIterator(const ZList& list) : position_(0), list_(&list) {}

ZListIterator::ZListIterator(const ZListIterator& other)
    : ZAbstractIterator(other), position_(other.position_), list_(other.list_) {}

ZListIterator& ZListIterator::operator=(const ZListIterator& other) {
    position_ = other.position_;
    return *this;
}

ZListIterator::~ZListIterator() noexcept {}

ZObject* ZListIterator::clone() const { return new ZListIterator(*this); }

int ZListIterator::hasMore() { return position_ < list_->size(); }

ZObject* ZListIterator::getNext() { return hasMore() ? list_->get(position_++) : nullptr; }

void ZListIterator::reset() { position_ = 0; }

void ZListIterator::backUp() { --position_; }

int ZListIterator::indexOf() const { return static_cast<int>(position_ - 1); }
