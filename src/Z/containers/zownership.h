// zownership.h: what the containers share: blocks of memory, and members that are looked for,
// deleted or on their way in. Never installed.
#ifndef Z_ZOWNERSHIP_H
#define Z_ZOWNERSHIP_H

#include "ZObject.h"

/// `count` elements of `width` bytes from the global array allocator, not cleared. Never null:
/// raises ZOutOfMemoryException, also when the product is beyond what a block can have.
void* zallocateBlock(uint64_t count, size_t width);

/// The same for a block that is read and written all over: a large one is offered to the system's
/// huge pages, which saves most page faults on filling it and most address look-ups on reading.
void* zallocateSpread(uint64_t count, size_t width);

/// Gives a block back; null is allowed.
void zreleaseBlock(void* block) noexcept;

/// Deletes a member that has already left its container; null is allowed. What its destructor
/// raises is reported, since the container has nobody to raise it to and must go on. A thread isn't
/// cancelled in there: most containers are destroyed without a way out, and others are half
/// changed. A caller that deletes many holds cancellation off once for all of them: each costs
/// little then.
void zdeleteMember(ZObject* member);

/// The first and the last of `size` members that `object` equals; -1 for none and for null. Null
/// members are passed over. References, for equals() may be a caller's and change the container.
template <typename Members>
int zfirstOf(const Members& members, const unsigned int& size, const ZObject* object) {
    for (unsigned int i = 0; object != nullptr && i < size; ++i)
        if (members[i] != nullptr && object->equals(*members[i]))
            return static_cast<int>(i);
    return -1;
}
template <typename Members>
int zlastOf(const Members& members, const unsigned int& size, const ZObject* object) {
    for (unsigned int i = size; object != nullptr && i-- > 0;)
        if (members[i] != nullptr && object->equals(*members[i]))
            return static_cast<int>(i);
    return -1;
}

/// A member on its way into a container: its clone if the container owns members, which is deleted
/// at the end of the scope unless it found its place, else the object itself.
class ZIncomingMember {
public:
    ZIncomingMember(const ZObject& object, int ownsMembers)
        : member_(ownsMembers ? object.clone() : const_cast<ZObject*>(&object)),
          clone_(ownsMembers ? member_ : nullptr) {}
    ~ZIncomingMember() {
        if (clone_ != nullptr)
            zdeleteMember(clone_);
    }
    ZIncomingMember(const ZIncomingMember&) = delete;
    ZIncomingMember& operator=(const ZIncomingMember&) = delete;

    ZObject* get() const { return member_; }
    void placed() { clone_ = nullptr; }

private:
    ZObject* member_;
    ZObject* clone_;
};

#endif
