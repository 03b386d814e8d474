// zplinks.h: chains of records that are numbered. Never installed.
#ifndef Z_ZPLINKS_H
#define Z_ZPLINKS_H

#include "zpblock.h"

/// Which record follows which. As they are read records follow each other by number, and a bit for
/// each says so; what changes make of that stands in a table of its own. A file of a million keys
/// needs a bit for each this way, where two numbers in each record would be more than the names.
///
/// Invariants, checked by checkInvariants():
/// (1) The table has no entry that says nothing: of a record that is joined to both neighbours, or
///     to one and has none on its other side, or has none at all.
/// (2) At most half of the table's slots are taken, so that a probe ends soon.
///
/// Taking a record out of a chain may need room in the table, and yet has to go well without memory
/// as well: then the record stays where it is, marked as dead, and is passed over.
class ZPLinks {
public:
    ZPLinks() {}
    ZPLinks(ZPLinks&& other) noexcept { swap(other); }
    ZPLinks& operator=(ZPLinks&& other) noexcept {
        ZPLinks taken(std::move(other));
        swap(taken);
        return *this;
    }
    ~ZPLinks() { free(table_.slots); }

    ZPId next(ZPId id) const {
        ZPId found = nearestNext(id);
        while (__builtin_expect(deadCount_ != 0, 0) && found != kNoId && isDead(found))
            found = nearestNext(found);
        return found;
    }
    ZPId prev(ZPId id) const {
        ZPId found = nearestPrev(id);
        while (__builtin_expect(deadCount_ != 0, 0) && found != kNoId && isDead(found))
            found = nearestPrev(found);
        return found;
    }

    /// So many records may be there; raises ZOutOfMemoryException.
    void reserve(size_t records) {
        if (records > bits_.size() * kBits)
            growBits(records);
    }
    /// Room for so many changes, each of which is a call of connect. Raises
    /// ZOutOfMemoryException.
    void reserveChanges(size_t changes) {
        if (changes * 2 > table_.limit - table_.count)
            growTable(changes * 2);
    }
    /// Makes one record the follower of another; either may be none, and then the other one is an
    /// end. Whoever changes one side of a record sees to its other side. Needs room for a change,
    /// but for a follower by number.
    void connect(ZPId before, ZPId behind) {
        if (before != kNoId && before + 1 == behind) {
            if (table_.count != 0) {
                setNext(before, kNoId);
                setPrev(behind, kNoId);
            }
            bits_[before / kBits] |= bit(before);
            return;
        }
        if (before != kNoId) {
            part(before);
            setNext(before, behind);
        }
        if (behind != kNoId) {
            if (behind != 0)
                part(behind - 1);
            setPrev(behind, before);
        }
    }
    /// Nothing is told of a record any more. Requires: it is in no chain, or the whole chain goes.
    void forget(ZPId id) {
        part(id);
        if (id != 0)
            part(id - 1);
        if (table_.count != 0) {
            setNext(id, kNoId);
            setPrev(id, kNoId);
        }
    }
    /// Takes a record out of its chain; without memory it is dead then.
    void unlink(ZPId id) noexcept;
    bool isDead(ZPId id) const {
        return deadCount_ != 0 && (bits_[id / kBits] >> kBits & bit(id)) != 0;
    }
    /// Takes a dead record out of its chain.
    void bury(ZPId id);

    /// Ends the process unless the invariants hold.
    void checkInvariants() const;

private:
    static const size_t kBits = 32;  // of a word: joined below, dead above
    struct Slot {
        uint32_t idPlusOne;  // 0: free
        ZPId next, prev;
    };
    struct Table {
        Slot* slots = nullptr;
        uint32_t capacity = 0;  // a power of two
        uint32_t count = 0;
        uint32_t limit = 0;
    };

    void swap(ZPLinks& other) noexcept {
        bits_.swap(other.bits_);
        std::swap(table_, other.table_);
        std::swap(deadCount_, other.deadCount_);
    }
    static uint64_t bit(ZPId id) { return uint64_t(1) << (id % kBits); }
    bool isJoined(ZPId id) const { return (bits_[id / kBits] & bit(id)) != 0; }
    void part(ZPId id) { bits_[id / kBits] &= ~bit(id); }
    ZPId nearestNext(ZPId id) const {
        return isJoined(id) ? id + 1 : table_.count == 0 ? kNoId : find(id).next;
    }
    ZPId nearestPrev(ZPId id) const {
        return id != 0 && isJoined(id - 1) ? id - 1 : table_.count == 0 ? kNoId : find(id).prev;
    }
    void growBits(size_t records);
    void growTable(size_t more);
    bool tryToGrowTable(size_t more);

    // Where a record's entry stands, or would.
    size_t slotOf(ZPId id) const {
        const uint32_t mask = table_.capacity - 1;
        size_t slot = static_cast<size_t>(id * 0x9E3779B97F4A7C15u >> 32) & mask;
        while (table_.slots[slot].idPlusOne != 0 && table_.slots[slot].idPlusOne != id + 1)
            slot = (slot + 1) & mask;
        return slot;
    }
    const Slot& find(ZPId id) const {
        static const Slot kNothing = {0, kNoId, kNoId};
        const Slot& slot = table_.slots[slotOf(id)];
        return slot.idPlusOne == 0 ? kNothing : slot;
    }
    void setNext(ZPId id, ZPId next) { set(id, &Slot::next, next); }
    void setPrev(ZPId id, ZPId prev) { set(id, &Slot::prev, prev); }
    void set(ZPId id, ZPId Slot::*side, ZPId other);
    void remove(size_t slot);

    ZPBlock<uint64_t> bits_;  // whether the next number follows, and whether it is dead
    Table table_;
    uint32_t deadCount_ = 0;
};

/// A pool whose records are chained.
template <typename T, ZPId T::*Link>
class ZPChainedPool {
public:
    T& operator[](ZPId id) { return records_[id]; }
    const T& operator[](ZPId id) const { return records_[id]; }
    ZPId end() const { return records_.end(); }
    ZPId next(ZPId id) const { return links_.next(id); }
    ZPId prev(ZPId id) const { return links_.prev(id); }

    /// Room for records, and for a change of the chains with each.
    void reserveMore(size_t more, size_t spare = 0) {
        records_.reserveMore(more, spare);
        links_.reserve(records_.end() + records_.room());
    }
    void reserveChanges(size_t changes) { links_.reserveChanges(changes); }
    bool isFull() const { return records_.isFull(); }
    size_t room() const { return records_.room(); }
    /// Which will be the next to be taken.
    ZPId nextId() const { return records_.nextId(); }
    /// Whether the record that is taken next follows this one, or none, without a change.
    bool takesBehind(ZPId id) const { return id == kNoId || id + 1 == records_.nextId(); }

    /// Needs room made before.
    ZPId take(T&& record) { return records_.take(std::move(record)); }
    /// Requires: it is in use, and in no chain any more, or the whole chain goes.
    void giveBack(ZPId id) {
        if (links_.isDead(id)) {
            ++lost_;
            return;
        }
        links_.forget(id);
        records_.giveBack(id);
    }
    void connect(ZPId before, ZPId behind) { links_.connect(before, behind); }
    /// Takes a record out of its chain.
    void unlink(ZPId id) noexcept { links_.unlink(id); }
    /// Before a record that was taken out of a chain comes into one again.
    void prepare(ZPId id) {
        if (links_.isDead(id))
            links_.bury(id);
    }

    size_t countFree() const { return records_.countFree() + lost_; }
    void checkInvariants() const { links_.checkInvariants(); }

private:
    ZPPool<T, Link> records_;
    ZPLinks links_;
    size_t lost_ = 0;  // were given back dead
};

#endif
