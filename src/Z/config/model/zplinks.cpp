#include "zplinks.h"

#include "zpholds.h"

void ZPLinks::growBits(size_t records) {
    const size_t words = records / kBits + 1;
    bits_.reserveMore(words - bits_.size());
    while (bits_.size() < words)
        bits_.push(0);
}

bool ZPLinks::tryToUnfold() noexcept {
    ZPBlock<Later> all;
    try {
        // Of what had room none loses it, and a record that was to get a bit has a place.
        all.reserveMore(end() + later_.room() + 1, end() / 4 + kSpare);
    } catch (ZOutOfMemoryException&) {
        return false;
    }
    all.setSize(end());
    if (table_.count != 0) {
        for (ZPId id = 0; id < base_; ++id)
            all[id] = {nearestNext(id), nearestPrev(id)};
    } else {
        // Without a look at each: this is a good part of the first change.
        uint32_t apart = 1;  // from the one before
        for (ZPId id = 0; id < base_; ++id) {
            const uint32_t parts = static_cast<uint32_t>(~bits_[id / kBits] >> (id % kBits)) & 1;
            all[id] = {(id + 1) | (0 - parts), (id - 1) | (0 - apart)};
            apart = parts;
        }
    }
    for (size_t i = 0; i < later_.size(); ++i)
        all[base_ + i] = later_[i];
    later_ = std::move(all);
    base_ = 0;
    isThrifty_ = false;
    free(table_.memory);
    table_ = Table();
    return true;
}

void ZPLinks::growTable(size_t more) {
    if (!tryToGrowTable(more))
        zraise(ZOutOfMemoryException());
}

bool ZPLinks::tryToGrowTable(size_t more) noexcept {
    size_t capacity = table_.capacity == 0 ? size_t(16) : table_.capacity;
    while (capacity / 2 < table_.count + more)
        capacity *= 4;
    if (!areMany_ || capacity * sizeof(Slot) >= base_ * sizeof(Later))
        return tryToUnfold();
    Table grown;
    if (capacity >= UINT32_MAX / 2)
        return false;
    const ZSpreadBlock fresh = zspreadZeroes(capacity * sizeof(Slot));
    if (fresh.block == nullptr)
        return false;
    grown.slots = static_cast<Slot*>(fresh.block);
    grown.memory = fresh.memory;
    grown.capacity = static_cast<uint32_t>(capacity);
    grown.limit = static_cast<uint32_t>(capacity / 2);
    grown.count = table_.count;
    std::swap(table_, grown);
    for (size_t i = 0; i < grown.capacity; ++i)
        if (grown.slots[i].gapPlusOne != 0)
            table_.slots[slotOf(grown.slots[i].gapPlusOne - 1)] = grown.slots[i];
    free(grown.memory);
    return true;
}

ZPLinks::Neighbours ZPLinks::unlinkSlowly(ZPId id) noexcept {
    if (base_ != 0 && !areMany_)
        tryToUnfold();
    const ZPId before = prev(id), behind = next(id);
    const bool isEnd = before == kNoId || behind == kNoId;
    if (!isEnd && (before < base_ || behind < base_) && table_.limit - table_.count < 2 &&
        !tryToGrowTable(2)) {
        bits_[id / kBits] |= bit(id) << kBits;
        ++deadCount_;
        return {before, behind};
    }
    connect(before, behind);
    forget(id);
    return {before, behind};
}

// Others may have closed the gap around it meanwhile: then nothing leads to it any more.
void ZPLinks::bury(ZPId id) {
    reserveChanges(1);
    const ZPId before = prev(id), behind = next(id);
    if (before != kNoId ? next(before) == behind : behind != kNoId && prev(behind) == kNoId)
        connect(before, behind);
    forget(id);
    bits_[id / kBits] &= ~(bit(id) << kBits);
    --deadCount_;
}

void ZPLinks::setInTable(ZPId gap, ZPId Slot::*side, ZPId other) {
    const size_t at = slotOf(gap);
    Slot& slot = table_.slots[at];
    if (slot.gapPlusOne == 0) {
        if (other == kNoId)
            return;
        zassert(table_.count < table_.limit);
        slot = {gap + 1, kNoId, kNoId};
        ++table_.count;
    }
    slot.*side = other;
    if (slot.next == kNoId && slot.prev == kNoId)
        remove(at);
}

// Whatever follows in the run and may stand in the hole moves there.
void ZPLinks::remove(size_t hole) {
    Slot* const slots = table_.slots;
    const size_t mask = table_.capacity - 1;
    for (size_t i = (hole + 1) & mask; slots[i].gapPlusOne != 0; i = (i + 1) & mask) {
        const size_t steps = (i - placeOf(slots[i].gapPlusOne - 1)) & mask;
        if (steps < ((i - hole) & mask))
            continue;
        slots[hole] = slots[i];
        hole = i;
    }
    slots[hole].gapPlusOne = 0;
    --table_.count;
}

void ZPLinks::checkInvariants() const {
    size_t count = 0;
    for (size_t i = 0; i < table_.capacity; ++i) {
        const Slot& slot = table_.slots[i];
        if (slot.gapPlusOne == 0)
            continue;
        ++count;
        const ZPId gap = slot.gapPlusOne - 1;
        ZPHOLDS(slotOf(gap) == i && gap <= base_);
        ZPHOLDS(slot.next != kNoId || slot.prev != kNoId);
        ZPHOLDS(gap == 0 ? slot.next == kNoId : !isJoined(gap - 1));
        ZPHOLDS(gap < base_ || slot.prev == kNoId);
    }
    ZPHOLDS(count == table_.count && count <= table_.limit && table_.limit * 2 == table_.capacity);
    ZPHOLDS(bits_.size() * kBits >= end());
    ZPHOLDS(base_ == 0 || !isJoined(base_ - 1));
    ZPHOLDS(!isThrifty_ || later_.size() == 0);
}
