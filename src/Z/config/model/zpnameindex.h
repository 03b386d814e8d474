// zpnameindex.h: from the hash of a name to the record that bears it, for as many names as a file
// has. Never installed.
#ifndef Z_ZPNAMEINDEX_H
#define Z_ZPNAMEINDEX_H

#ifdef __SSE2__
#include <emmintrin.h>
#else
#include <endian.h>
#endif

#include <atomic>

#include "zpindex.h"

/// Some marks that stand in a row: which are free, that is 0, and which are a given one.
#ifdef __SSE2__
class ZPMarks {
public:
    static constexpr size_t kCount = 16;
    typedef uint32_t Bits;
    ZPMarks(const uint8_t* marks, uint32_t mark)
        : marks_(_mm_loadu_si128(reinterpret_cast<const __m128i*>(marks))),
          free_(bitsOf(_mm_cmpeq_epi8(marks_, _mm_setzero_si128()))),
          mark_(mark) {}
    Bits free() const { return free_; }
    /// Those ahead of the first free one.
    Bits alike() const {
        return bitsOf(_mm_cmpeq_epi8(marks_, _mm_set1_epi32(static_cast<int>(mark_ * kOnes)))) &
               (free_ - 1) & ~free_;
    }
    /// The number of the mark that the lowest bit means. Requires: there is one.
    static size_t first(Bits bits) { return static_cast<size_t>(__builtin_ctz(bits)); }

private:
    // In 32 bits: compilers spread a byte by way of the memory.
    static constexpr uint32_t kOnes = 0x01010101u;
    static Bits bitsOf(__m128i bytes) { return static_cast<Bits>(_mm_movemask_epi8(bytes)); }

    const __m128i marks_;
    const Bits free_;
    const uint32_t mark_;
};
#else
class ZPMarks {
public:
    static constexpr size_t kCount = 8;
    typedef uint64_t Bits;  // the highest of each byte
    ZPMarks(const uint8_t* marks, uint32_t mark) : mark_(mark) {
        memcpy(&marks_, marks, sizeof marks_);
        marks_ = le64toh(marks_);
        free_ = zeroes(marks_);
    }
    Bits free() const { return free_; }
    /// Likewise, and maybe one behind it that differs in its lowest bit: slots tell more.
    Bits alike() const { return zeroes(marks_ ^ kOnes * mark_) & (free_ - 1) & ~free_; }
    static size_t first(Bits bits) { return static_cast<size_t>(__builtin_ctzll(bits)) / 8; }

private:
    static constexpr uint64_t kOnes = 0x0101010101010101u;
    // Behind a zero it takes a one for another.
    static Bits zeroes(uint64_t bytes) { return (bytes - kOnes) & ~bytes & kOnes << 7; }

    uint64_t marks_;
    Bits free_;
    const uint32_t mark_;
};
#endif

/// Open addressing as in ZPIndex, with slots of 8 bytes: of the hash a slot keeps only how far it
/// stands behind the hash's place, and what bits are left over. A byte for each slot, its mark,
/// keeps seven further bits, and many marks are looked at together, ahead of the slots. At a
/// million names the marks alone stay in the processor's second cache: that a name is new, and
/// where it goes, is known without waiting for the slots. Whoever owns the records tells hashes and
/// names again where a table grows, in the order of the records, which is the order in which names
/// lie in memory.
///
/// Invariants, checked by checkInvariants():
/// (1) `count` slots are taken, at most `limit`: a probe always ends at a free one.
/// (2) Between the place of an entry's hash and the entry no slot is free.
/// (3) A slot's offset is where the name of its record stands in the text.
/// (4) Ids are below `limit`.
/// (5) The mark of a free slot is 0. Behind the last mark the first ones stand again, so that those
///     at the end can be looked at together, too.
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
        uint32_t kept = 0;  // what the slot keeps of the hash there
        uint32_t mark = 0;
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
        const uint32_t mark = markOf(hash);
        const uint32_t tag = tagOf(hash);
        size_t at = placeOf(hash);
        __builtin_prefetch(&state_.slots[at]);
        for (size_t steps = 0;; steps += ZPMarks::kCount, at = wrapped(at + ZPMarks::kCount)) {
            const ZPMarks seen(state_.marks + at, mark);
            for (ZPMarks::Bits alike = seen.alike(); alike != 0; alike &= alike - 1) {
                const size_t k = ZPMarks::first(alike), slot = wrapped(at + k);
                const uint32_t kept = keptOf(tag, steps + k);
                const Slot candidate = state_.slots[slot];
                if (candidate.meta >> state_.idBits == kept &&
                    matches(idOf(candidate), candidate.offset)) {
                    place = {slot, kept, mark};
                    return idOf(candidate);
                }
            }
            if (seen.free() != 0) {
                const size_t k = ZPMarks::first(seen.free());
                place = {wrapped(at + k), keptOf(tag, steps + k), mark};
                return kNoId;
            }
        }
    }
    /// Whether, while many are inserted, it is quicker to go by the slots: marks that were just
    /// written one by one can't be read together yet, which they would be again and again.
    bool isSmall() const { return state_.capacity < kManySlots; }
    /// As findOrPlace, by the slots alone. Requires: there has been an entry, or room for one.
    template <typename Matches>
    ZPId findOrPlaceInSlots(uint32_t hash, Place& place, Matches matches) const {
        const uint32_t idBits = state_.idBits, far = state_.far;
        uint32_t kept = tagOf(hash);  // and the steps
        for (size_t i = placeOf(hash);; i = follower(i)) {
            const Slot candidate = state_.slots[i];
            if (candidate.isFree()) {
                place = {i, kept, markOf(hash)};
                return kNoId;
            }
            if (candidate.meta >> idBits == kept && matches(idOf(candidate), candidate.offset)) {
                place = {i, kept, markOf(hash)};
                return idOf(candidate);
            }
            kept += (kept & far) != far;
        }
    }
    void insertAt(const Place& place, ZPId id, uint32_t offset) {
        zassert(state_.count < state_.limit && state_.slots[place.slot].isFree() &&
                id < state_.limit);
        state_.slots[place.slot] = {offset, place.kept << state_.idBits | (id + 1)};
        setMark(place.slot, place.mark);
        ++state_.count;
    }

    /// Needs room made before.
    void insert(uint32_t hash, ZPId id, uint32_t offset) {
        Place place;
        const auto none = [](ZPId, uint32_t) { return false; };
        if (isSmall())
            findOrPlaceInSlots(hash, place, none);
        else
            findOrPlace(hash, place, none);
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
            setMark(hole, state_.marks[i]);
            hole = i;
            back = 0;
        }
        slots[hole].meta = 0;
        setMark(hole, 0);
        --state_.count;
    }

    __attribute__((always_inline)) void prefetch(uint32_t hash) const {
        prefetchIn<0>(state_.slots, state_.capacity, hash);
    }

    /// The slot of a place, for an entry that will go there.
    __attribute__((always_inline)) void prefetchPlace(const Place& place) const {
        __builtin_prefetch(&state_.slots[place.slot], 1);
    }

    class Ahead;

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
            ZPHOLDS(i >= ZPMarks::kCount || state_.marks[state_.capacity + i] == state_.marks[i]);
            ZPHOLDS(slot.isFree() == (state_.marks[i] == 0));
            if (slot.isFree())
                continue;
            ++taken;
            const ZPId id = idOf(slot);
            const uint32_t hash = hashOf(id);
            const size_t steps = distance(placeOf(hash), i);
            ZPHOLDS(id < state_.limit && slot.meta == metaOf(tagOf(hash), steps, id));
            for (size_t probe = placeOf(hash); probe != i; probe = follower(probe))
                ZPHOLDS(!state_.slots[probe].isFree());
            ZPHOLDS(slot.offset == offsetOf(id) && state_.marks[i] == markOf(hash));
        }
        ZPHOLDS(taken == state_.count && state_.count <= state_.limit);
        ZPHOLDS(state_.capacity == 0 || state_.limit < state_.capacity);
    }

private:
    static constexpr uint32_t kStepBits = 7;
    static constexpr uint32_t kManySlots = 4096;
    static constexpr size_t kCacheLine = 64;

    struct Slot {
        uint32_t offset;  // of the name, so that it is fetched while its record is
        // From below: the id and one; how far the entry stands behind its place, or `far`; bits of
        // the hash. 0: free, so that a zeroed block is an empty table.
        uint32_t meta;
        bool isFree() const { return meta == 0; }
    };
    struct State {
        Slot* slots = nullptr;
        uint8_t* marks = nullptr;
        void* memory = nullptr;  // of malloc, where both stand
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
    uint32_t keptOf(uint32_t tag, size_t steps) const {
        return tag | (steps < state_.far ? static_cast<uint32_t>(steps) : state_.far);
    }
    uint32_t metaOf(uint32_t tag, size_t steps, ZPId id) const {
        return keptOf(tag, steps) << state_.idBits | (id + 1);
    }
    // Bits that slots don't keep, and of which no place is made but in tables of many millions.
    static uint32_t markOf(uint32_t hash) { return 0x80 | (hash & 0x7F); }
    void setMark(size_t slot, uint32_t mark) {
        state_.marks[slot] = static_cast<uint8_t>(mark);
        if (slot < ZPMarks::kCount)
            state_.marks[state_.capacity + slot] = static_cast<uint8_t>(mark);
    }
    size_t wrapped(size_t slot) const {
        return slot >= state_.capacity ? slot - state_.capacity : slot;
    }
    static size_t placeIn(uint32_t capacity, uint32_t hash) {
        return static_cast<size_t>((static_cast<uint64_t>(hash) * capacity) >> 32);
    }
    size_t placeOf(uint32_t hash) const { return placeIn(state_.capacity, hash); }
    // Slots and marks of a hash's place, which need not be there any more, and of so many slots
    // behind. In place, for compilers find that it does nothing.
    template <size_t behind>
    __attribute__((always_inline)) static void prefetchIn(const void* slots, uint32_t capacity,
                                                          uint32_t hash) {
        const uintptr_t first = reinterpret_cast<uintptr_t>(slots);
        const size_t place = placeIn(capacity, hash);
        const uintptr_t mark = first + capacity * sizeof(Slot) + place;
        const uintptr_t slot = first + place * sizeof(Slot);
        __builtin_prefetch(reinterpret_cast<const void*>(mark));
        if (behind != 0)
            __builtin_prefetch(reinterpret_cast<const void*>(mark + behind));
#pragma GCC unroll 8
        for (size_t line = 0; line <= behind * sizeof(Slot); line += kCacheLine)
            __builtin_prefetch(reinterpret_cast<const void*>(slot + line), 1);
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
    size_t follower(size_t slot) const { return wrapped(slot + 1); }
    // How far behind another slot this one stands, around the end.
    size_t distance(size_t from, size_t to) const {
        return to >= from ? to - from : to + state_.capacity - from;
    }

    State state_;
};

/// Where a look for a name begins, for whoever doesn't hold the owner's lock: it goes by a table
/// that there was, and is good for nothing but to have memory fetched.
class ZPNameIndex::Ahead {
public:
    /// Goes by this index from here on.
    void note(const ZPNameIndex& index) {
        const State& state = index.state_;
        if (__builtin_expect(slots_.load(std::memory_order_relaxed) != state.slots ||
                                 capacity_.load(std::memory_order_relaxed) != state.capacity,
                             0)) {
            slots_.store(state.slots, std::memory_order_relaxed);
            capacity_.store(state.capacity, std::memory_order_relaxed);
        }
    }
    /// Whether a look has to wait for memory.
    bool isLarge() const { return capacity_.load(std::memory_order_relaxed) >= kFarSlots; }
    __attribute__((always_inline)) void fetch(uint32_t hash) const {
        prefetchIn<kUsualSteps>(slots_.load(std::memory_order_relaxed),
                                capacity_.load(std::memory_order_relaxed), hash);
    }

private:
    // Where a table of 256 Ki names and more is as full as it gets, a third of the new names go
    // further than that; all lines come in the time of one.
    static constexpr size_t kUsualSteps = 24;
    static constexpr uint32_t kFarSlots = 64 * 1024;
    std::atomic<const void*> slots_{nullptr};
    std::atomic<uint32_t> capacity_{0};
};

#endif
