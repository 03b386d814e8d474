// zpnameindex.h: from the hash of a name to the record that bears it, for as many names as a file
// has. Never installed.
#ifndef Z_ZPNAMEINDEX_H
#define Z_ZPNAMEINDEX_H

#include "zpindex.h"

/// Open addressing as in ZPIndex, with slots of 8 bytes: of the hash a slot keeps only how far it
/// stands behind the hash's place, and what bits are left over. That tells nearly as many names
/// apart, and at a million names a table of two thirds stays in the processor's cache. Whoever owns
/// the records tells hashes and names again where a table grows, in the order of the records, which
/// is the order in which names lie in memory.
///
/// Invariants, checked by checkInvariants():
/// (1) `count` slots are taken, at most `limit`: a probe always ends at a free one.
/// (2) Between the place of an entry's hash and the entry no slot is free.
/// (3) A slot's offset is where the name of its record stands in the text.
/// (4) Ids are below `limit`.
///
/// (3) is the owner's to keep: it tells the offset with an entry, and again when the text has
/// moved; (4) as well, by reserving for the ids that it gives.
class ZPNameIndex {
public:
    ZPNameIndex() {}
    ZPNameIndex(ZPNameIndex&& other) noexcept { std::swap(state_, other.state_); }
    ZPNameIndex& operator=(ZPNameIndex&& other) noexcept {
        ZPNameIndex taken(std::move(other));
        std::swap(state_, taken.state_);
        return *this;
    }
    ~ZPNameIndex() { free(state_.memory); }

    size_t count() const { return state_.count; }
    /// So many entries fit in, and ids are below.
    size_t limit() const { return state_.limit; }
    /// Whether there is room for so many more, with ids from this one on.
    bool takes(ZPId id, size_t more) const {
        const size_t limit = state_.limit;
        return more <= limit - state_.count && id <= limit && more <= limit - id;
    }

    /// Room for `count` entries in all; raises ZOutOfMemoryException. forEachEntry(insert) calls
    /// insert(hash, id, offset) for each that is there.
    template <typename ForEachEntry>
    void reserve(size_t count, ForEachEntry forEachEntry) {
        if (count <= state_.limit)
            return;
        ZPNameIndex grown;
        grown.allocate(count, state_);
        forEachEntry(
            [&](uint32_t hash, ZPId id, uint32_t offset) { grown.insert(hash, id, offset); });
        zassert(grown.state_.count == state_.count);
        *this = std::move(grown);
    }

    /// Where an entry would go or stands, as long as nothing else has come or gone.
    struct Place {
        size_t slot = 0;
        uint32_t kept = 0;  // what a slot keeps of the hash there
    };

    /// The id for which matches(id, offset) holds among those that may have this hash, or none.
    template <typename Matches>
    ZPId find(uint32_t hash, Matches matches) const {
        Place place;
        return findOrPlace(hash, place, matches);
    }

    /// Likewise; `place` is where the id stands or, if there is room for one more, would go.
    template <typename Matches>
    ZPId findOrPlace(uint32_t hash, Place& place, Matches matches) const {
        if (__builtin_expect(state_.capacity == 0, 0))
            return kNoId;
        const uint32_t idBits = state_.idBits, far = state_.far;
        uint32_t kept = tagOf(hash);  // and the steps
        for (size_t i = placeOf(hash);; i = follower(i)) {
            const Slot candidate = state_.slots[i];
            if (candidate.isFree()) {
                place = {i, kept};
                return kNoId;
            }
            if (candidate.meta >> idBits == kept && matches(idOf(candidate), candidate.offset)) {
                place = {i, kept};
                return idOf(candidate);
            }
            kept += (kept & far) != far;
        }
    }
    void insertAt(const Place& place, ZPId id, uint32_t offset) {
        zassert(state_.count < state_.limit && state_.slots[place.slot].isFree() &&
                id < state_.limit);
        state_.slots[place.slot] = {offset, place.kept << state_.idBits | (id + 1)};
        ++state_.count;
    }

    /// Needs room made before.
    void insert(uint32_t hash, ZPId id, uint32_t offset) {
        Place place;
        findOrPlace(hash, place, [](ZPId, uint32_t) { return false; });
        insertAt(place, id, offset);
    }
    /// hashOf(id) tells the hash of any entry. Requires: the entry is there.
    template <typename HashOf>
    void remove(uint32_t hash, ZPId id, HashOf hashOf) {
        removeAt(slotOf(hash, id), hashOf);
    }
    /// Likewise the entry that stands there.
    template <typename HashOf>
    void removeAt(size_t hole, HashOf hashOf) {
        zassert(!state_.slots[hole].isFree());
        Slot* const slots = state_.slots;
        const uint32_t idBits = state_.idBits, far = state_.far;
        // Whatever follows in the run and may stand in the hole moves there, so that no probe meets
        // a gap between an entry's place and the entry.
        size_t back = 0;  // from the slot to the hole
        for (size_t i = follower(hole); !slots[i].isFree(); i = follower(i)) {
            const Slot slot = slots[i];
            const uint32_t kept = slot.meta >> idBits;
            size_t steps = kept & far;
            if (__builtin_expect(steps == far, 0))
                steps = distance(placeOf(hashOf(idOf(slot))), i);
            if (steps < ++back)
                continue;
            slots[hole] = {slot.offset, metaOf(kept & ~far, steps - back, idOf(slot))};
            hole = i;
            back = 0;
        }
        state_.slots[hole].meta = 0;
        --state_.count;
    }

    void prefetch(uint32_t hash) const {
        if (state_.capacity != 0)
            __builtin_prefetch(&state_.slots[placeOf(hash)]);
    }

    /// Calls visit(id) for each entry.
    template <typename Visit>
    void forEach(Visit visit) const {
        for (size_t i = 0; i < state_.capacity; ++i)
            if (!state_.slots[i].isFree())
                visit(idOf(state_.slots[i]));
    }
    /// The name of an entry stands elsewhere now. Requires: the entry is there.
    void setOffset(uint32_t hash, ZPId id, uint32_t offset) {
        state_.slots[slotOf(hash, id)].offset = offset;
    }
    /// Asks offsetOf(id) anew for each entry, after the text has moved.
    template <typename OffsetOf>
    void renewOffsets(OffsetOf offsetOf) {
        for (size_t i = 0; i < state_.capacity; ++i)
            if (!state_.slots[i].isFree())
                state_.slots[i].offset = offsetOf(idOf(state_.slots[i]));
    }

    /// Ends the process unless the invariants hold; offsetOf(id) is where the name stands.
    template <typename OffsetOf, typename HashOf>
    void checkInvariants(OffsetOf offsetOf, HashOf hashOf) const {
        size_t taken = 0;
        for (size_t i = 0; i < state_.capacity; ++i) {
            const Slot& slot = state_.slots[i];
            if (slot.isFree())
                continue;
            ++taken;
            const ZPId id = idOf(slot);
            const uint32_t hash = hashOf(id);
            const size_t steps = distance(placeOf(hash), i);
            ZPHOLDS(id < state_.limit && slot.meta == metaOf(tagOf(hash), steps, id));
            for (size_t probe = placeOf(hash); probe != i; probe = follower(probe))
                ZPHOLDS(!state_.slots[probe].isFree());
            ZPHOLDS(slot.offset == offsetOf(id));
        }
        ZPHOLDS(taken == state_.count && state_.count <= state_.limit);
        ZPHOLDS(state_.capacity == 0 || state_.limit < state_.capacity);
    }

private:
    struct Slot {
        uint32_t offset;  // of the name, so that it is fetched while its record is
        // From below: the id and one; how far the entry stands behind its place, or `far`; bits of
        // the hash. 0: free, so that a zeroed block is an empty table.
        uint32_t meta;
        bool isFree() const { return meta == 0; }
    };
    struct State {
        Slot* slots = nullptr;
        void* memory = nullptr;  // of malloc, where the slots stand
        uint32_t capacity = 0;
        uint32_t count = 0;
        uint32_t limit = 0;   // some way below the capacity
        uint32_t idBits = 0;  // that hold the limit
        uint32_t far = 0;     // so many steps and more: as many as its bits hold
        uint32_t tags = 0;    // the bits of a hash that are kept, above those of the steps
    };

    void allocate(size_t count, const State& before);

    ZPId idOf(const Slot& slot) const {
        return (slot.meta & ((uint32_t(1) << state_.idBits) - 1)) - 1;
    }
    uint32_t tagOf(uint32_t hash) const { return hash & state_.tags; }
    uint32_t metaOf(uint32_t tag, size_t steps, ZPId id) const {
        const uint32_t kept = steps < state_.far ? static_cast<uint32_t>(steps) : state_.far;
        return (tag | kept) << state_.idBits | (id + 1);
    }
    size_t placeOf(uint32_t hash) const {
        return static_cast<size_t>((static_cast<uint64_t>(hash) * state_.capacity) >> 32);
    }
    // Where an entry stands.
    size_t slotOf(uint32_t hash, ZPId id) const {
        size_t slot = placeOf(hash);
        while (idOf(state_.slots[slot]) != id) {
            zassert(!state_.slots[slot].isFree());
            slot = follower(slot);
        }
        return slot;
    }
    size_t follower(size_t slot) const { return slot + 1 == state_.capacity ? 0 : slot + 1; }
    // How far behind another slot this one stands, around the end.
    size_t distance(size_t from, size_t to) const {
        return to >= from ? to - from : to + state_.capacity - from;
    }

    State state_;
};

#endif
