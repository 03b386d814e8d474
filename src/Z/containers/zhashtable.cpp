#include "zhashtable.h"

#include <algorithm>

#include "ZException.h"
#include "zassert.h"
#include "zraise.h"
#include "zuncancelled.h"

static_assert(sizeof(unsigned int) == sizeof(uint32_t), "ZObject::hash gives 32 bits");

static const uint32_t kSmall = 32;
static const uint32_t kFirstNodes = 8;
static const int kFirstSlotBits = 7;  // one size above what kSmall needs saves a growth at once

void ZKeyMapMember::cloneParts() {
    ZIncomingMember key(*object, 1);
    value = value != nullptr ? value->clone() : nullptr;
    object = key.get();
    key.placed();
}

namespace {

/// A member on its way into a table: clones if the table owns members, which are deleted at the end
/// of the scope unless they found their place.
template <typename Member>
class Incoming {
public:
    Incoming(const Member& member, int ownsMembers) : member_(member), isMine_(false) {
        if (ownsMembers) {
            member_.cloneParts();
            isMine_ = true;
        }
    }
    ~Incoming() {
        if (isMine_)
            member_.deleteParts();
    }
    Incoming(const Incoming&) = delete;
    Incoming& operator=(const Incoming&) = delete;

    const Member& get() const { return member_; }
    void placed() { isMine_ = false; }

private:
    Member member_;
    bool isMine_;
};

}  // namespace

template <typename Member>
typename ZHashTable<Member>::Node ZHashTable<Member>::noEntries_ = {};

template <typename Member>
uint64_t ZHashTable<Member>::bucketsFor(unsigned int size) {
    return uint64_t(std::max(size, 2u)) * 3 / 2;
}

template <typename Member>
ZHashTable<Member>::ZHashTable(uint64_t bucketCount, int ownsMembers)
    : bucketCount_(bucketCount),
      ownsMembers_(ownsMembers),
      chains_(static_cast<Chain*>(zallocateBlock(bucketCount, sizeof(Chain)))),
      size_(0),
      used_(1),
      free_(0),
      capacity_(1),
      nodes_(&noEntries_),
      slots_(nullptr),
      slotMask_(0),
      slotLimit_(0),
      shift_(0) {
    std::fill_n(chains_, bucketCount, Chain());
}

// Delegating, so that the destructor gives everything back when a clone fails on the way.
template <typename Member>
ZHashTable<Member>::ZHashTable(const ZHashTable& other)
    : ZHashTable(other.bucketCount_, other.ownsMembers_) {
    for (uint64_t bucket = 0; bucket < bucketCount_; ++bucket) {
        for (uint32_t i = other.chains_[bucket].first; i != 0; i = other.nodes_[i].next) {
            const Node& node = other.nodes_[i];
            if (node.member.object == nullptr && ownsMembers_)
                continue;
            Incoming<Member> incoming(node.member, ownsMembers_);
            link(incoming.get(), node.hash);
            incoming.placed();
        }
    }
}

template <typename Member>
void ZHashTable<Member>::assign(ZHashTable*& table, const ZHashTable& other) {
    if (table == &other)
        return;
    const ZHashTable* const old = table;
    table = new ZHashTable(other);
    delete old;
}

template <typename Member>
ZHashTable<Member>::~ZHashTable() noexcept {
    removeAll();
    if (nodes_ != &noEntries_)
        zreleaseBlock(nodes_);
    zreleaseBlock(chains_);
}

template <typename Member>
uint32_t ZHashTable<Member>::nodeOf(const ZObject& probe, uint32_t hash) const {
    if (slots_ != nullptr) {
        for (uint32_t i = placeOf(hash);; i = (i + 1) & slotMask_) {
            const Slot& slot = slots_[i];
            if (slot.node == 0)
                return 0;
            // (2)
            zassert(slot.object == nodes_[slot.node].member.object &&
                    slot.hash == nodes_[slot.node].hash);
            if (slot.hash == hash && slot.object != nullptr && probe.equals(*slot.object))
                return slot.node;
        }
    }
    for (uint32_t i = chainOf(hash).first; i != 0; i = nodes_[i].next) {
        if (Member::hashDecides && nodes_[i].hash != hash)
            continue;
        const ZObject* object = nodes_[i].member.object;
        if (object != nullptr && probe.equals(*object))
            return i;
    }
    return 0;
}

template <typename Member>
void ZHashTable<Member>::put(const Member& member, uint32_t hash) {
    const uint32_t found = nodeOf(*member.object, hash);
    Incoming<Member> incoming(member, ownsMembers_);
    if (incoming.get().object == nullptr && !Member::takesNull)
        return;
    if (found == 0) {
        link(incoming.get(), hash);
        incoming.placed();
        return;
    }
    Member old = nodes_[found].member;
    nodes_[found].member = incoming.get();
    if (slots_ != nullptr)
        slots_[slotOf(found)].object = incoming.get().object;
    incoming.placed();
    if (ownsMembers_)
        old.deleteParts();
}

// Appends to the bucket. If this raises, the table is as it was.
template <typename Member>
void ZHashTable<Member>::link(const Member& member, uint32_t hash) {
    reserve();
    uint32_t node = free_;
    if (node != 0)
        free_ = nodes_[node].next;
    else
        node = used_++;
    zassert(node != 0 && node < used_ && used_ <= capacity_);  // (1), (3)
    Chain& chain = chainOf(hash);
    nodes_[node] = {member, hash, chain.last, 0};
    (chain.last != 0 ? nodes_[chain.last].next : chain.first) = node;
    chain.last = node;
    ++size_;
    if (slots_ != nullptr)
        enterSlot({member.object, hash, node});
}

// Makes room for one more entry, so that nothing can fail once linking begins.
template <typename Member>
void ZHashTable<Member>::reserve() {
    if (free_ == 0 && used_ == capacity_)
        growNodes();
    if (slots_ != nullptr ? size_ == slotLimit_ : size_ == kSmall)
        growSlots();
}

template <typename Member>
void ZHashTable<Member>::growNodes() {
    zrequireRoom(capacity_ != UINT32_MAX);
    const uint64_t capacity =
        std::min<uint64_t>(std::max<uint64_t>(uint64_t(capacity_) * 2, kFirstNodes), UINT32_MAX);
    Node* nodes = static_cast<Node*>(zallocateSpread(capacity, sizeof(Node)));
    std::copy_n(nodes_, used_, nodes);
    if (nodes_ != &noEntries_)
        zreleaseBlock(nodes_);
    nodes_ = nodes;
    capacity_ = static_cast<uint32_t>(capacity);
}

// Places go by the top bits of the mixed hash, so that twice as many slots are filled in the order
// of the old ones: two walks through memory, no jumps.
template <typename Member>
void ZHashTable<Member>::growSlots() {
    zrequireRoom(shift_ != 32);
    const int shift = slots_ != nullptr ? shift_ - 1 : 64 - kFirstSlotBits;
    const uint64_t count = uint64_t(1) << (64 - shift);
    Slot* old = slots_;
    const uint64_t oldCount = old != nullptr ? uint64_t(slotMask_) + 1 : 0;

    Slot* slots = static_cast<Slot*>(zallocateSpread(count, sizeof(Slot)));
    std::fill_n(slots, count, Slot());
    slots_ = slots;
    slotMask_ = static_cast<uint32_t>(count - 1);
    slotLimit_ = static_cast<uint32_t>(count / 8 * 5);
    shift_ = shift;
    if (old == nullptr) {
        for (uint32_t i = 1; i < used_; ++i)
            if (!isFree(nodes_[i]))
                enterSlot({nodes_[i].member.object, nodes_[i].hash, i});
    }
    for (uint64_t i = 0; i < oldCount; ++i)
        if (old[i].node != 0)
            enterSlot(old[i]);
    zreleaseBlock(old);
}

template <typename Member>
void ZHashTable<Member>::enterSlot(const Slot& slot) {
    uint32_t i = placeOf(slot.hash);
    while (slots_[i].node != 0)
        i = (i + 1) & slotMask_;
    slots_[i] = slot;
}

template <typename Member>
uint32_t ZHashTable<Member>::slotOf(uint32_t node) const {
    uint32_t i = placeOf(nodes_[node].hash);
    while (slots_[i].node != node) {
        zassert(slots_[i].node != 0);  // (2)
        i = (i + 1) & slotMask_;
    }
    return i;
}

// Empties a slot and moves back those behind it that it separates from their places.
template <typename Member>
void ZHashTable<Member>::freeSlot(uint32_t hole) {
    for (uint32_t i = (hole + 1) & slotMask_; slots_[i].node != 0; i = (i + 1) & slotMask_) {
        const uint32_t toPlace = (i - placeOf(slots_[i].hash)) & slotMask_;
        const uint32_t toHole = (i - hole) & slotMask_;
        if (toPlace >= toHole) {
            slots_[hole] = slots_[i];
            hole = i;
        }
    }
    slots_[hole] = Slot();
}

template <typename Member>
void ZHashTable<Member>::remove(const ZObject& probe, uint32_t hash) {
    const uint32_t found = nodeOf(probe, hash);
    if (found == 0)
        return;
    if (slots_ != nullptr)
        freeSlot(slotOf(found));
    Member member = unlink(found);
    if (ownsMembers_)
        member.deleteParts();
}

// Takes a record out of its chain and gives its member; the slot is the caller's business.
template <typename Member>
Member ZHashTable<Member>::unlink(uint32_t index) {
    Node& node = nodes_[index];
    zassert(index != 0 && !isFree(node) && size_ > 0);  // (1), (3)
    const Member member = node.member;
    Chain& chain = chainOf(node.hash);
    (node.previous != 0 ? nodes_[node.previous].next : chain.first) = node.next;
    (node.next != 0 ? nodes_[node.next].previous : chain.last) = node.previous;
    node = {Member(), 0, kFreeRecord, free_};
    free_ = index;
    --size_;
    return member;
}

template <typename Member>
void ZHashTable<Member>::removeAll() {
    const ZUncancelled uncancelled;
    // Without slots the chains alone tell what is there, at each moment on the way.
    zreleaseBlock(slots_);
    slots_ = nullptr;
    shift_ = 0;
    for (uint64_t bucket = 0; size_ != 0 && bucket < bucketCount_; ++bucket) {
        while (chains_[bucket].first != 0) {
            Member member = unlink(chains_[bucket].first);
            if (ownsMembers_)
                member.deleteParts();
        }
    }
    if (size_ == 0) {
        zassert(nodes_[0].member.object == nullptr);
        used_ = 1;  // records are given out from the front again
        free_ = 0;
    }
}

template class ZHashTable<ZMapMember>;
template class ZHashTable<ZKeyMapMember>;
