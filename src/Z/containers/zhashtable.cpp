#include "zhashtable.h"

#include <algorithm>

#include "ZException.h"
#include "zassert.h"
#include "zraise.h"
#include "zuncancelled.h"

static_assert(sizeof(unsigned int) == sizeof(uint32_t), "ZObject::hash gives 32 bits");

static const uint32_t kFirstNodes = 8;
static const int kNearSlotBits = 12;  // of the most slots that are near: 64 KB at most
static const int kFirstSlotBits = 8;  // two sizes above what kSmall needs save two growths

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
      bucket_(static_cast<uint32_t>(std::min<uint64_t>(bucketCount, UINT32_MAX))),
      ownsMembers_(ownsMembers),
      chains_(static_cast<Chain*>(zallocateBlock(bucketCount, sizeof(Chain)))),
      size_(0),
      changes_(0),
      used_(1),
      free_(0),
      capacity_(1),
      nodes_(&noEntries_),
      areUsedAgain_(false),
      areTexts_(true),
      index_(),
      byHash_(nullptr) {
    std::fill_n(chains_, bucketCount, Chain());
}

// Delegating, so that the destructor gives everything back when a clone fails on the way.
template <typename Member>
ZHashTable<Member>::ZHashTable(const ZHashTable& other)
    : ZHashTable(other.bucketCount_, other.ownsMembers_) {
    areTexts_ = other.areTexts_;
    for (uint64_t bucket = 0; bucket < bucketCount_; ++bucket) {
        for (uint32_t i = other.chains_[bucket].first; i != 0; i = other.nodes_[i].next) {
            const Node node = other.nodes_[i];
            if (node.member.object == nullptr && ownsMembers_)
                continue;
            Incoming<Member> incoming(node.member, ownsMembers_);
            // What makes clones may have put something else into the other one. Members that
            // aren't owned may be gone by now.
            if (ownsMembers_ && areTexts_ && zownedText(*incoming.get().object).data == nullptr)
                turnToHashes();
            link(incoming.get(), node.hash, node.textHash);
            incoming.placed();
        }
    }
}

template <typename Member>
void ZHashTable<Member>::assign(ZHashTable*& table, const ZHashTable& other) {
    if (table == &other)
        return;
    ZHashTable* const copy = new ZHashTable(other);
    const ZHashTable* const old = table;  // a member's clone() may have put another here
    table = copy;
    delete old;
}

template <typename Member>
ZHashTable<Member>::~ZHashTable() noexcept {
    if (ownsMembers_)
        removeAll();
    dropIndexes();
    if (nodes_ != &noEntries_)
        zreleaseBlock(nodes_);
    zreleaseBlock(chains_);
}

// ---------------------------------------------------------------- look-ups

// In place: in a large map it counts how many look-ups a processor has in sight at once.
template <typename Member>
inline typename ZHashTable<Member>::Slot& ZHashTable<Member>::slotOfText(const ZKnownText& text,
                                                                         uint32_t hash) const {
    for (uint32_t i = index_.placeOf(hash);; i = (i + 1) & index_.mask) {
        Slot& slot = index_.slots[i];
        if (slot.node == 0)
            return slot;
        zassert(slot.object == nodes_[slot.node].member.object &&
                slot.hash == nodes_[slot.node].textHash);  // (2)
        if (slot.hash == hash && text.isOf(*slot.object))
            return slot;
    }
}

template <typename Member>
uint32_t ZHashTable<Member>::nodeByText(const ZObject& probe) const {
    const ZKnownText text = zknownText(probe);
    return text.data != nullptr ? slotOfText(text, text.hash()).node : nodeByOwnHash(probe);
}

template <typename Member>
uint32_t ZHashTable<Member>::nodeInChain(const ZObject& probe, uint32_t hash,
                                         bool hashDecides) const {
    for (uint32_t i = chainOf(hash).first; i != 0; i = nodes_[i].next) {
        if (hashDecides && nodes_[i].hash != hash)
            continue;
        const ZObject* object = nodes_[i].member.object;
        if (object != nullptr && probe.equals(*object))
            return i;
    }
    return 0;
}

template <typename Member>
inline uint32_t ZHashTable<Member>::nodeByHash(const Index& index, const ZObject& probe,
                                               uint32_t hash) const {
    if (index.slots == nullptr)
        return nodeInChain(probe, hash, Member::hashDecides);
    const uint32_t changes = changes_;
    for (uint32_t i = index.placeOf(hash);; i = (i + 1) & index.mask) {
        const Slot slot = index.slots[i];
        if (slot.node == 0)
            return 0;
        zassert(slot.object == nodes_[slot.node].member.object &&
                slot.hash == nodes_[slot.node].hash);  // (2)
        if (slot.hash != hash || slot.object == nullptr)
            continue;
        if (probe.equals(*slot.object))
            return slot.node;
        if (changes_ != changes)  // by equals(): these slots may be gone
            return nodeInChain(probe, hash, true);
    }
}

template <typename Member>
uint32_t ZHashTable<Member>::nodeOfStranger(const ZObject& probe, uint32_t hash) const {
    const Index* const byHash = indexByHash();
    if (byHash == nullptr)
        return nodeInChain(probe, hash, true);
    const Index index = *byHash;  // the block goes with a change
    return nodeByHash(index, probe, hash);
}

template <typename Member>
uint32_t ZHashTable<Member>::nodeByOwnHash(const ZObject& probe) const {
    const uint32_t hash = probe.hash();  // may be a caller's and change the map
    return isIndexOfTexts() ? nodeOfStranger(probe, hash) : nodeByHash(index_, probe, hash);
}

// ---------------------------------------------------------------- changes

template <typename Member>
void ZHashTable<Member>::put(const Member& member) {
    const ZKnownText text = zownedText(*member.object);
    // Then nothing of a caller's is called.
    const bool isPlain = text.data != nullptr && areTexts_ && !ownsMembers_ &&
                         byHash_.load(std::memory_order_relaxed) == nullptr;
    isPlain ? putText(member, text) : putAny(member, text);
}

template <typename Member>
void ZHashTable<Member>::putAny(const Member& member, ZKnownText text) {
    const ZObject& object = *member.object;
    const uint32_t textHash = text.data != nullptr ? text.hash() : 0;
    if (isIndexOfTexts())  // on its way while hash() goes through the text
        __builtin_prefetch(&index_.slots[index_.placeOf(textHash)]);
    const uint32_t hash = object.hash();
    const auto find = [&] {
        return isIndexOfTexts() ? slotOfText(text, textHash).node
                                : nodeByHash(index_, object, hash);
    };
    prepareFor(text);
    const uint32_t changes = changes_;
    uint32_t found = find();
    Incoming<Member> incoming(member, ownsMembers_);
    if (incoming.get().object == nullptr && !Member::takesNull)
        return;
    // What compares and makes clones may be a caller's, and have looked something up in this map or
    // even have changed it.
    prepareFor(text);
    if (changes_ != changes) {
        found = find();
        prepareFor(text);
        if (found != 0 && isFree(nodes_[found]))
            found = 0;
    }
    if (found == 0) {
        link(incoming.get(), hash, textHash);
        incoming.placed();
        return;
    }
    Member old = nodes_[found].member;
    nodes_[found].member = incoming.get();
    if (index_.slots != nullptr)
        index_.slots[slotOf(found)].object = incoming.get().object;
    incoming.placed();
    if (ownsMembers_)
        old.deleteParts();
}

// Where all members are texts and the caller's own.
template <typename Member>
void ZHashTable<Member>::putText(const Member& member, ZKnownText text) {
    const uint32_t textHash = text.hash();
    if (index_.slots != nullptr)  // on its way while the other hash goes through the text
        __builtin_prefetch(&index_.slots[index_.placeOf(textHash)]);
    const uint32_t hash = ztoldHash(text.data);
    if (index_.slots == nullptr) {
        const uint32_t found = nodeInChain(*member.object, hash, Member::hashDecides);
        if (found != 0)
            nodes_[found].member = member;
        else
            link(member, hash, textHash);
        return;
    }
    Slot& slot = slotOfText(text, textHash);
    if (slot.node != 0) {
        nodes_[slot.node].member = member;
        slot.object = member.object;
    } else if (!areNodesFull() && !isIndexFull()) {
        slot = {member.object, textHash, append(member, hash, textHash)};
    } else {
        link(member, hash, textHash);
    }
}

// Appends to the bucket. If this raises, the table is as it was.
template <typename Member>
void ZHashTable<Member>::link(const Member& member, uint32_t hash, uint32_t textHash) {
    reserve();
    const uint32_t node = append(member, hash, textHash);
    if (index_.slots != nullptr)
        index_.enter({member.object, hashOf(nodes_[node], areTexts_), node});
}

// As link(), but for the index. Gives the record, for which there has to be room.
template <typename Member>
inline uint32_t ZHashTable<Member>::append(const Member& member, uint32_t hash, uint32_t textHash) {
    uint32_t node = free_;
    if (node != 0) {
        free_ = nodes_[node].next;
        areUsedAgain_ = true;
    } else {
        node = used_++;
    }
    zassert(node != 0 && node < used_ && used_ <= capacity_);  // (1), (3)
    Chain& chain = chainOf(hash);
    nodes_[node] = {member, hash, textHash, chain.last, 0};
    (chain.last != 0 ? nodes_[chain.last].next : chain.first) = node;
    chain.last = node;
    ++size_;
    ++changes_;
    return node;
}

// Makes room for one more entry, so that nothing can fail once linking begins.
template <typename Member>
void ZHashTable<Member>::reserve() {
    if (areNodesFull())
        growNodes();
    if (isIndexFull())
        growIndex();
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

template <typename Member>
void ZHashTable<Member>::remove(const ZObject& probe) {
    const uint32_t found = nodeOf(probe);
    if (found == 0 || isFree(nodes_[found]))  // by the probe itself, which may be a caller's
        return;
    settle();
    if (index_.slots != nullptr)
        index_.free(slotOf(found));
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
    node = {Member(), 0, 0, kFreeRecord, free_};
    free_ = index;
    --size_;
    ++changes_;
    return member;
}

template <typename Member>
void ZHashTable<Member>::removeAll() {
    // Nobody is called then, and to clear all buckets is less work. A walk that this happens amid
    // sees free records.
    if (!ownsMembers_ && size_ > bucketCount_ / 8) {
        std::fill_n(chains_, bucketCount_, Chain());
        std::fill(nodes_ + 1, nodes_ + used_, Node{Member(), 0, 0, kFreeRecord, 0});
        size_ = 0;
        ++changes_;
    }
    const ZUncancelled uncancelled;
    for (uint64_t bucket = 0; size_ != 0 && bucket < bucketCount_; ++bucket) {
        while (chains_[bucket].first != 0) {
            // Without an index the chains alone tell what is there, whatever the destructor of a
            // member may do to the map.
            dropIndexes();
            Member member = unlink(chains_[bucket].first);
            if (ownsMembers_)
                member.deleteParts();
        }
    }
    if (size_ == 0) {
        dropIndexes();
        zassert(nodes_[0].member.object == nullptr);
        used_ = 1;  // records are given out from the front again
        free_ = 0;
        areUsedAgain_ = false;
        areTexts_ = true;
    }
}

// ---------------------------------------------------------------- indexes

template <typename Member>
void ZHashTable<Member>::Index::enter(const Slot& slot) {
    uint32_t i = placeOf(slot.hash);
    while (slots[i].node != 0)
        i = (i + 1) & mask;
    slots[i] = slot;
}

// The slot of a record that is there.
template <typename Member>
uint32_t ZHashTable<Member>::Index::find(uint32_t hash, uint32_t node) const {
    uint32_t i = placeOf(hash);
    while (slots[i].node != node) {
        zassert(slots[i].node != 0);  // (2)
        i = (i + 1) & mask;
    }
    return i;
}

// Empties a slot and moves back those behind it that it separates from their places.
template <typename Member>
void ZHashTable<Member>::Index::free(uint32_t hole) {
    for (uint32_t i = (hole + 1) & mask; slots[i].node != 0; i = (i + 1) & mask) {
        const uint32_t toPlace = (i - placeOf(slots[i].hash)) & mask;
        const uint32_t toHole = (i - hole) & mask;
        if (toPlace >= toHole) {
            slots[hole] = slots[i];
            hole = i;
        }
    }
    slots[hole] = Slot();
}

template <typename Member>
uint32_t ZHashTable<Member>::slotOf(uint32_t node) const {
    return index_.find(hashOf(nodes_[node], areTexts_), node);
}

// An empty one.
template <typename Member>
typename ZHashTable<Member>::Index ZHashTable<Member>::makeIndex(int shift) const {
    const uint64_t count = uint64_t(1) << (64 - shift);
    Slot* const slots = static_cast<Slot*>(zallocateSpread(count, sizeof(Slot)));
    std::fill_n(slots, count, Slot());
    return {slots, static_cast<uint32_t>(count - 1), static_cast<uint32_t>(count / 8 * 5), shift};
}

// One of all records. Of those that share a hash the first in the chain is to be found first; texts
// are found by what no other has.
template <typename Member>
typename ZHashTable<Member>::Index ZHashTable<Member>::indexAll(int shift, bool byText) const {
    Index index = makeIndex(shift);
    const auto enter = [&](uint32_t i) {
        index.enter({nodes_[i].member.object, hashOf(nodes_[i], byText), i});
    };
    const bool isAnyOrder = byText || !areUsedAgain_;
    for (uint32_t record = 1; record < used_; ++record) {
        if (isFree(nodes_[record]))
            continue;
        if (isAnyOrder)
            enter(record);
        else if (nodes_[record].previous == 0)
            for (uint32_t i = record; i != 0; i = nodes_[i].next)
                enter(i);
    }
    return index;
}

// Places go by the top bits of the mixed hash, so that twice as many slots are filled in the order
// of the old ones: two walks through memory, no jumps. Which slots are free is never foreseen,
// though, and as long as all fits into the processor's cache that is the dearer.
template <typename Member>
void ZHashTable<Member>::growIndex() {
    const Index old = index_;
    if (old.slots == nullptr || old.shift > 64 - kNearSlotBits) {
        index_ = indexAll(old.slots == nullptr ? 64 - kFirstSlotBits : old.shift - 1, areTexts_);
        zreleaseBlock(old.slots);
        return;
    }
    zrequireRoom(old.shift != 32);
    index_ = makeIndex(old.shift - 1);
    uint32_t gap = 0;  // a run of slots may go on from the last to the first
    while (old.slots[gap].node != 0)
        ++gap;
    for (uint32_t i = (gap + 1) & old.mask; i != gap; i = (i + 1) & old.mask)
        if (old.slots[i].node != 0)
            index_.enter(old.slots[i]);
    zreleaseBlock(old.slots);
}

// The index that strangers are looked for with; null when there is no memory for it. Several
// threads may look something up, and more than one find none: the first that is ready wins.
template <typename Member>
const typename ZHashTable<Member>::Index* ZHashTable<Member>::indexByHash() const {
    Index* index = byHash_.load(std::memory_order_acquire);
    if (index != nullptr)
        return index;
    const ZUncancelled uncancelled;
    Index* mine = nullptr;
    try {
        mine = static_cast<Index*>(zallocateBlock(1, sizeof(Index)));
        *mine = indexAll(index_.shift, false);
    } catch (...) {
        zreleaseBlock(mine);
        return nullptr;
    }
    if (byHash_.compare_exchange_strong(index, mine, std::memory_order_acq_rel))
        return mine;
    zreleaseBlock(mine->slots);
    zreleaseBlock(mine);
    return index;
}

// Ahead of a change: strangers come here, so all goes by hash() from now on.
template <typename Member>
void ZHashTable<Member>::settle() {
    Index* const byHash = byHash_.load(std::memory_order_relaxed);
    if (byHash == nullptr)
        return;
    zreleaseBlock(index_.slots);
    index_ = *byHash;
    byHash_.store(nullptr, std::memory_order_relaxed);
    zreleaseBlock(byHash);
    areTexts_ = false;
    ++changes_;
}

template <typename Member>
void ZHashTable<Member>::turnToHashes() {
    if (index_.slots != nullptr) {
        const Index byHash = indexAll(index_.shift, false);
        zreleaseBlock(index_.slots);
        index_ = byHash;
    }
    areTexts_ = false;
    ++changes_;
}

// Ahead of a change that brings a member, with its text if it is known to own one.
template <typename Member>
void ZHashTable<Member>::prepareFor(const ZKnownText& text) {
    settle();
    if (areTexts_ && text.data == nullptr)
        turnToHashes();
}

template <typename Member>
void ZHashTable<Member>::dropIndexes() {
    settle();
    zreleaseBlock(index_.slots);
    index_ = Index();
}

template class ZHashTable<ZMapMember>;
template class ZHashTable<ZKeyMapMember>;
