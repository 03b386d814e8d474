// zpindex.h: from the hash of a name to the record that bears it. Never installed.
#ifndef Z_ZPINDEX_H
#define Z_ZPINDEX_H

#include <cstdint>
#include <utility>

#include "zhash.h"
#include "zpblock.h"
#include "zpholds.h"

/// The hash of a name.
__attribute__((always_inline)) inline uint64_t zhashOf(ZSpan name) {
    return zhashOf(name.data, name.size);
}

/// Open addressing from a 32-bit hash to the id of a record. The place of a hash is a
/// multiplication and a shift, so that the table can have any size; removal moves the followers
/// back, so that there are no tombstones and a table stays as fast as it was.
///
/// Invariants:
/// (1) `count` slots are taken, at most `limit`: a probe always ends at a free one.
/// (2) Between the place of an entry's hash and the entry no slot is free.
class ZPIndex {
public:
    ZPIndex() {}
    ZPIndex(ZPIndex&& other) noexcept { std::swap(state_, other.state_); }
    ZPIndex& operator=(ZPIndex&& other) noexcept {
        ZPIndex taken(std::move(other));
        std::swap(state_, taken.state_);
        return *this;
    }
    ~ZPIndex() { free(state_.memory); }

    /// Room for `count` entries in all; raises ZOutOfMemoryException.
    void reserve(size_t count);
    void reserveMore(size_t more) {
        if (more > state_.limit - state_.count)
            reserve(static_cast<size_t>(state_.count) + more);
    }

    /// The id for which matches(id) holds among those of this hash, or none.
    template <typename Matches>
    ZPId find(uint32_t hash, Matches matches) const {
        if (state_.count == 0)
            return kNoId;
        for (size_t i = place(hash); !state_.slots[i].isFree(); i = follower(i))
            if (state_.slots[i].hash == hash && matches(state_.slots[i].id()))
                return state_.slots[i].id();
        return kNoId;
    }

    /// Needs room made before.
    void insert(uint32_t hash, ZPId id);
    /// Requires: the entry is there.
    void remove(uint32_t hash, ZPId id);

private:
    struct Slot {
        uint32_t hash;
        uint32_t idPlusOne;  // 0: free, so that a fresh zeroed block is an empty table
        bool isFree() const { return idPlusOne == 0; }
        ZPId id() const { return idPlusOne - 1; }
    };
    struct State {
        Slot* slots = nullptr;
        void* memory = nullptr;  // of malloc, where the slots stand
        uint32_t capacity = 0;
        uint32_t count = 0;
        uint32_t limit = 0;  // three quarters of the capacity
    };

    size_t place(uint32_t hash) const {
        return static_cast<size_t>((static_cast<uint64_t>(hash) * state_.capacity) >> 32);
    }
    size_t follower(size_t slot) const { return slot + 1 == state_.capacity ? 0 : slot + 1; }
    // How far behind another slot this one stands, around the end.
    size_t distance(size_t from, size_t to) const {
        return to >= from ? to - from : to + state_.capacity - from;
    }

    State state_;
};

inline void ZPIndex::insert(uint32_t hash, ZPId id) {
    zassert(state_.count != state_.limit);
    size_t slot = place(hash);
    while (!state_.slots[slot].isFree())
        slot = follower(slot);
    state_.slots[slot] = {hash, id + 1};
    ++state_.count;
}

inline void ZPIndex::remove(uint32_t hash, ZPId id) {
    size_t hole = place(hash);
    while (state_.slots[hole].idPlusOne != id + 1) {
        zassert(!state_.slots[hole].isFree());
        hole = follower(hole);
    }
    // Whatever follows in the run and may stand in the hole moves there, so that no probe meets a
    // gap between an entry's place and the entry.
    for (size_t i = follower(hole); !state_.slots[i].isFree(); i = follower(i))
        if (distance(place(state_.slots[i].hash), i) >= distance(hole, i)) {
            state_.slots[hole] = state_.slots[i];
            hole = i;
        }
    state_.slots[hole].idPlusOne = 0;
    --state_.count;
}

#endif
