#include "ZArray.h"

#include <algorithm>
#include <utility>

#include "ZException.h"
#include "zownership.h"
#include "zraise.h"
#include "zuncancelled.h"

static ZObject** emptySlots(unsigned int count) {
    ZObject** slots = static_cast<ZObject**>(zallocateBlock(count, sizeof(ZObject*)));
    std::fill_n(slots, count, nullptr);
    return slots;
}

// The exception tells the line of the call.
static void checkIndex(unsigned int index, unsigned int size, ZSite site = ZSite()) {
    zrequire(index < size, site);
}

ZAbstractArray::~ZAbstractArray() noexcept {}

ZArray::ZArray(unsigned int size, int ownsMembers)
    : slots_(emptySlots(std::max(size, 1u))),
      ownsMembers_(ownsMembers),
      size_(std::max(size, 1u)) {}

// Delegating, so that the destructor gives everything back when a clone fails on the way.
ZArray::ZArray(const ZArray& other) : ZArray(other.size_, other.ownsMembers_) {
    for (unsigned int i = 0; i < size_; ++i)
        set(i, other.get(i));
}

ZArray& ZArray::operator=(const ZArray& other) {
    if (this == &other)
        return *this;
    // The old members go last: `other` may be inside one of them, and if there isn't memory for the
    // new ones, they stay.
    ZArray copy(other.size_, ownsMembers_);
    for (unsigned int i = 0; i < copy.size_; ++i)
        copy.set(i, other.get(i));
    std::swap(slots_, copy.slots_);
    std::swap(size_, copy.size_);
    return *this;
}

ZArray::~ZArray() noexcept {
    ZArray::removeAll();
    zreleaseBlock(slots_);
}

unsigned int ZArray::size() const { return size_; }

int ZArray::ownsMembers() const { return ownsMembers_; }

int ZArray::contains(const ZObject* object) const { return indexOf(object) >= 0; }

void ZArray::remove(unsigned int index) {
    checkIndex(index, size_);
    ZObject* old = slots_[index];
    slots_[index] = nullptr;
    if (ownsMembers_)
        zdeleteMember(old);
}

void ZArray::removeAll() {
    const ZUncancelled uncancelled;
    for (unsigned int i = 0; i < size_; ++i)
        ZArray::remove(i);
}

ZObject* ZArray::get(unsigned int index) const {
    checkIndex(index, size_);
    return slots_[index];
}

void ZArray::set(unsigned int index, const ZObject* object) {
    checkIndex(index, size_);
    if (object == nullptr) {
        setNoCopy(index, nullptr);
        return;
    }
    ZIncomingMember member(*object, ownsMembers_);
    setNoCopy(index, member.get());
    member.placed();
}

void ZArray::setNoCopy(unsigned int index, const ZObject* object) {
    checkIndex(index, size_);
    ZObject* old = slots_[index];
    slots_[index] = const_cast<ZObject*>(object);
    if (ownsMembers_ && old != object)
        zdeleteMember(old);
}

int ZArray::indexOf(const ZObject* object) const { return zfirstOf(slots_, size_, object); }

int ZArray::lastIndexOf(const ZObject* object) const { return zlastOf(slots_, size_, object); }

void ZArray::swap(unsigned int a, unsigned int b) {
    checkIndex(a, size_);
    checkIndex(b, size_);
    std::swap(slots_[a], slots_[b]);
}
