#include "zpnameindex.h"

// An empty table with room for `count` entries, grown by doubling, or at once to what a load
// announces. At most three quarters of it are taken, or seven eighths where it is large: many marks
// are looked at together, and then fewer lines of the cache are worth more than fewer steps.
void ZPNameIndex::allocate(size_t count, const State& before) {
    static const uint32_t kMostIdBits = 30;
    static const size_t kLarge = 256 * 1024, kEntry = sizeof(Slot) + sizeof(uint8_t);
    size_t wanted = count >= kLarge ? count + count / 7 + 16 : count + count / 3 + 16;
    if (before.count != 0 && wanted < static_cast<size_t>(before.capacity) * 2)
        wanted = static_cast<size_t>(before.capacity) * 2;
    if (wanted >= size_t(1) << kMostIdBits || wanted > SIZE_MAX / kEntry - ZPMarks::kCount)
        zraise(ZOutOfMemoryException());
    const ZSpreadBlock fresh = zspreadZeroes(wanted * kEntry + ZPMarks::kCount);
    state_.memory = zrequireMemory(fresh.memory);
    state_.slots = static_cast<Slot*>(fresh.block);
    state_.marks = reinterpret_cast<uint8_t*>(state_.slots + wanted);
    state_.capacity = static_cast<uint32_t>(wanted);
    state_.limit = static_cast<uint32_t>(count >= kLarge ? wanted / 8 * 7 : wanted / 4 * 3);
    while (state_.limit >> state_.idBits != 0)
        ++state_.idBits;
    const uint32_t left = 32 - state_.idBits;
    state_.far = (uint32_t(1) << (left < kStepBits ? left : kStepBits)) - 1;
    state_.tags = ((uint32_t(1) << left) - 1) & ~state_.far;
}
