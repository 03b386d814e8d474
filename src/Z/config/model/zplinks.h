// zplinks.h: chains of records that are numbered. Never installed.
#ifndef Z_ZPLINKS_H
#define Z_ZPLINKS_H

#include "zhash.h"
#include "zpblock.h"

/// Which record follows which. As they are read records follow each other by number, and a bit for
/// each says so; whoever only looks never needs more. What changes make of the numbers stands in a
/// table of its own, for a million neighbours would take more room than the names. Few records get
/// their neighbours in a block at the first change, others as soon as the table would need as much
/// room: a change is short there.
///
/// Taking a record out of a chain may need room in the table, and yet has to go well without memory
/// as well: then the record stays where it is, marked as dead, and is passed over.
///
/// Invariants, checked by checkInvariants():
/// (1) Records below `base_` have bits, all others are in `later_`. None below is joined to it. As
///     long as `isThrifty_` there are no others.
/// (2) The table has entries of gaps between records below, and at their ends, that are not joined,
///     and none that says nothing. Gap g is ahead of record g: its entry says what follows record
///     g - 1 and what precedes record g, so that what is put between two takes one entry.
/// (3) At most half of the table's slots are taken, so that a probe ends soon.
class ZPLinks {
public:
    ZPLinks() {}
    ZPLinks(ZPLinks&& other) noexcept { swap(other); }
    ZPLinks& operator=(ZPLinks&& other) noexcept {
        ZPLinks taken(std::move(other));
        swap(taken);
        return *this;
    }
    ~ZPLinks() { free(table_.memory); }

    __attribute__((always_inline)) ZPId next(ZPId id) const {
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

    // --- Records: each is told once, in the order of their numbers ---

    /// Room for bits of so many records, and for `more` that have a place in the block.
    void reserve(size_t records, size_t more) {
        if (records > bits_.size() * kBits)
            growBits(records);
        if (more != 0)
            later_.reserveMore(more, later_.size() != 0 ? 0 : base_ / 16 + kSpare);
    }
    /// Many are about to be read.
    void expectMany() { areMany_ = true; }
    /// Whether there is room for so many records that are not read.
    bool hasRoom(size_t more) const { return later_.room() >= more && hasBits(more); }
    /// As ZPBlock::prefetchEnd, of those that have a place in the block.
    void prefetchEnd(size_t ahead) const { later_.prefetchEnd(ahead); }
    bool isThrifty() const { return isThrifty_; }
    /// Whether `more` records that are about to come can follow this one, or none, and each other
    /// at once.
    bool isReadyBehind(ZPId before, size_t more) const {
        if (!hasBits(more))
            return false;
        if (isThrifty_)
            return before == kNoId || before + 1 == base_;
        return later_.room() >= more && (before == kNoId || before >= base_);
    }
    /// All ids that were told are below.
    size_t end() const { return base_ + later_.size(); }
    /// `count` more records, the first behind another one or none, the others behind each other.
    /// Requires: isReadyBehind().
    void addBehind(ZPId before, size_t count) {
        if (!isThrifty_) {
            for (; count != 0; --count) {
                const ZPId id = static_cast<ZPId>(end());
                later_.push({kNoId, before});
                if (before != kNoId)
                    setNext(before, id);
                before = id;
            }
            return;
        }
        ZPId id = before != kNoId ? before : base_;
        base_ += static_cast<uint32_t>(count);
        while (id + 1 < base_) {
            const uint32_t left = base_ - 1 - id, inWord = kBits - id % kBits;
            const uint32_t joined = left < inWord ? left : inWord;
            bits_[id / kBits] |= ((uint64_t(1) << joined) - 1) << (id % kBits);
            id += joined;
        }
    }
    /// One that has no neighbours yet.
    void add() {
        isThrifty_ = false;
        later_.push({kNoId, kNoId});
    }

    /// Whether a record that is not read can be put between two others without anything growing.
    __attribute__((always_inline)) bool isReadyToInsert() const {
        return hasRoom(1) && (base_ == 0 || (areMany_ && table_.limit - table_.count >= 2));
    }
    /// One between two others, either of which may be none. Requires: isReadyToInsert().
    __attribute__((always_inline)) void addBetween(ZPId before, ZPId behind) {
        add();
        insert(static_cast<ZPId>(end() - 1), before, behind);
    }

    // --- Chains ---

    /// Room for so many calls of connect; raises ZOutOfMemoryException.
    void reserveChanges(size_t changes) {
        if (base_ != 0 && (!areMany_ || changes * 2 > table_.limit - table_.count))
            growTable(changes * 2);
    }
    /// Makes one record the follower of another; either may be none, and then the other one is an
    /// end. Whoever changes one side of a record sees to its other side.
    void connect(ZPId before, ZPId behind) {
        if (before != kNoId && before + 1 == behind && behind < base_) {
            if (table_.count != 0)
                dropGap(behind);
            bits_[before / kBits] |= bit(before);
            return;
        }
        if (before != kNoId)
            setNext(before, behind);
        if (behind != kNoId)
            setPrev(behind, before);
    }
    /// Puts one that has no neighbours between two, either of which may be none.
    void insert(ZPId id, ZPId before, ZPId behind) {
        if (id < base_) {
            connect(before, id);
            connect(id, behind);
            return;
        }
        later_[id - base_] = {behind, before};
        if (before != kNoId)
            setNext(before, id);
        if (behind != kNoId)
            setPrev(behind, id);
    }
    /// Nothing is told of a record any more. Requires: it is in no chain, or the whole chain goes.
    void forget(ZPId id) {
        if (id >= base_) {
            later_[id - base_] = {kNoId, kNoId};
            return;
        }
        setNext(id, kNoId);
        setPrev(id, kNoId);
    }
    struct Neighbours {
        ZPId prev, next;
    };
    /// Takes a record out of its chain and tells between which it stood; without memory it is dead
    /// then.
    Neighbours unlink(ZPId id) noexcept {
        if (base_ != 0 || deadCount_ != 0)
            return unlinkSlowly(id);
        const Later were = later_[id];
        if (were.prev != kNoId)
            later_[were.prev].next = were.next;
        if (were.next != kNoId)
            later_[were.next].prev = were.prev;
        later_[id] = {kNoId, kNoId};
        return {were.prev, were.next};
    }
    bool isDead(ZPId id) const {
        return deadCount_ != 0 && (bits_[id / kBits] >> kBits & bit(id)) != 0;
    }
    /// Takes a dead record out of its chain.
    void bury(ZPId id);

    /// Ends the process unless the invariants hold.
    void checkInvariants() const;

private:
    static const size_t kSpare = 128;  // of later ones, for who adds one adds more
    static const size_t kBits = 32;    // of a word: joined below, dead above
    struct Later {
        ZPId next, prev;
    };
    struct Slot {
        uint32_t gapPlusOne;  // 0: free
        ZPId next, prev;      // of the record ahead of it, and of the one behind
    };
    struct Table {
        Slot* slots = nullptr;
        void* memory = nullptr;  // of malloc, where the slots stand
        uint32_t capacity = 0;   // a power of two
        uint32_t count = 0;
        uint32_t limit = 0;
    };

    void swap(ZPLinks& other) noexcept {
        bits_.swap(other.bits_);
        later_.swap(other.later_);
        std::swap(base_, other.base_);
        std::swap(isThrifty_, other.isThrifty_);
        std::swap(areMany_, other.areMany_);
        std::swap(table_, other.table_);
        std::swap(deadCount_, other.deadCount_);
    }
    bool hasBits(size_t more) const { return end() + more <= bits_.size() * kBits; }
    static uint64_t bit(ZPId id) { return uint64_t(1) << (id % kBits); }
    bool isJoined(ZPId id) const { return (bits_[id / kBits] & bit(id)) != 0; }
    ZPId nearestNext(ZPId id) const {
        if (id >= base_)
            return later_[id - base_].next;
        return isJoined(id) ? id + 1 : table_.count == 0 ? kNoId : find(id + 1).next;
    }
    ZPId nearestPrev(ZPId id) const {
        if (id >= base_)
            return later_[id - base_].prev;
        if (id != 0 && isJoined(id - 1))
            return id - 1;
        return table_.count == 0 ? kNoId : find(id).prev;
    }
    Neighbours unlinkSlowly(ZPId id) noexcept;
    void growBits(size_t records);
    void growTable(size_t more);
    bool tryToGrowTable(size_t more) noexcept;
    bool tryToUnfold() noexcept;

    // Where a search for a gap's entry begins.
    size_t placeOf(ZPId gap) const {
        return static_cast<size_t>(gap * kHashA >> 32) & (table_.capacity - 1);
    }
    // Where a gap's entry stands, or would.
    size_t slotOf(ZPId gap) const {
        const uint32_t mask = table_.capacity - 1;
        size_t slot = placeOf(gap);
        while (table_.slots[slot].gapPlusOne != 0 && table_.slots[slot].gapPlusOne != gap + 1)
            slot = (slot + 1) & mask;
        return slot;
    }
    const Slot& find(ZPId gap) const {
        static const Slot kNothing = {0, kNoId, kNoId};
        const Slot& slot = table_.slots[slotOf(gap)];
        return slot.gapPlusOne == 0 ? kNothing : slot;
    }
    // What follows by its number doesn't any more.
    void setNext(ZPId id, ZPId next) {
        if (id >= base_) {
            later_[id - base_].next = next;
            return;
        }
        bits_[id / kBits] &= ~bit(id);
        set(id + 1, &Slot::next, next);
    }
    void setPrev(ZPId id, ZPId prev) {
        if (id >= base_) {
            later_[id - base_].prev = prev;
            return;
        }
        if (id != 0)
            bits_[(id - 1) / kBits] &= ~bit(id - 1);
        set(id, &Slot::prev, prev);
    }
    void set(ZPId gap, ZPId Slot::*side, ZPId other) {
        if (table_.count != 0 || other != kNoId)
            setInTable(gap, side, other);
    }
    void setInTable(ZPId gap, ZPId Slot::*side, ZPId other);
    void dropGap(ZPId gap) {
        const size_t at = slotOf(gap);
        if (table_.slots[at].gapPlusOne != 0)
            remove(at);
    }
    void remove(size_t slot);

    ZPBlock<uint64_t> bits_;  // of a record: whether the next number follows; whether it is dead
    uint32_t base_ = 0;
    bool isThrifty_ = true;
    bool areMany_ = false;
    ZPBlock<Later> later_;
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

    /// Room for records that are read.
    void reserveToRead(size_t more) {
        records_.reserveMore(more);
        links_.reserve(records_.end() + records_.room(), links_.isThrifty() ? 0 : more);
    }
    /// As ZPBlock::expect.
    void expect(size_t more, size_t spare) { records_.expect(more, spare); }
    /// Many are about to be read. Requires: there are none.
    void expectMany() { links_.expectMany(); }
    /// Room for others.
    void reserveMore(size_t more) {
        if (more > records_.room() || !links_.hasRoom(more))
            grow(more);
    }
    /// As ZPBlock::prefetchEnd, of records and links.
    void prefetchEnd(size_t ahead) const {
        records_.prefetchEnd(ahead);
        links_.prefetchEnd(ahead);
    }
    void reserveChanges(size_t changes) { links_.reserveChanges(changes); }
    size_t room() const { return records_.room(); }
    /// Which will be the next to be taken.
    ZPId nextId() const { return records_.nextId(); }
    /// Whether so many records that are read can be taken behind this one, or behind none, and
    /// each behind the one before.
    bool isReadyBehind(ZPId id, size_t more) const {
        return records_.isReadyAtEnd(more) && links_.isReadyBehind(id, more);
    }

    /// Records that are read, one by one, which are chained behind this one, or behind none, when
    /// all are there. Requires: isReadyBehind().
    ZPId push(T&& record) { return records_.take(std::move(record)); }
    void chainPushed(ZPId before, size_t count) { links_.addBehind(before, count); }
    /// Whether a record that is not read can be put between two others without anything growing.
    __attribute__((always_inline)) bool isReadyToInsert() const {
        return records_.isReadyAtEnd(1) && links_.isReadyToInsert();
    }
    /// One between two others, either of which may be none. Requires: isReadyToInsert().
    ZPId pushBetween(T&& record, ZPId before, ZPId behind) {
        links_.addBetween(before, behind);
        return records_.take(std::move(record));
    }
    /// A record without neighbours; `isRead`: it comes with many. Needs room made before.
    ZPId take(T&& record, bool isRead = false) {
        if (records_.nextId() == links_.end()) {
            if (isRead && links_.isReadyBehind(kNoId, 1))
                links_.addBehind(kNoId, 1);
            else
                links_.add();
        }
        return records_.take(std::move(record));
    }
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
    void insert(ZPId id, ZPId before, ZPId behind) { links_.insert(id, before, behind); }
    /// Takes a record out of its chain.
    ZPLinks::Neighbours unlink(ZPId id) noexcept { return links_.unlink(id); }
    bool isDead(ZPId id) const { return links_.isDead(id); }
    /// Before a record that was taken out of a chain comes into one again.
    void prepare(ZPId id) {
        if (links_.isDead(id))
            links_.bury(id);
    }

    size_t countFree() const { return records_.countFree() + lost_; }
    void checkInvariants() const {
        links_.checkInvariants();
        ZPHOLDS(links_.end() == records_.end());
    }

private:
    void grow(size_t more) {
        records_.reserveMore(more);
        links_.reserve(records_.end() + records_.room(), more);
    }

    ZPPool<T, Link> records_;
    ZPLinks links_;
    size_t lost_ = 0;  // were given back dead
};

#endif
