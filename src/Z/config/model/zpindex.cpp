#include "zpindex.h"

void ZPIndex::reserve(size_t count) {
    // At most three quarters full; grown by doubling, or at once to what a load announces.
    if (count <= state_.limit)
        return;
    size_t wanted = count + count * 3 / 8 + 8;  // three quarters of it hold count
    if (state_.count != 0 && wanted < static_cast<size_t>(state_.capacity) * 2)
        wanted = static_cast<size_t>(state_.capacity) * 2;
    if (wanted > 0xFFFFFFF0u || wanted > SIZE_MAX / sizeof(Slot))
        zraise(ZOutOfMemoryException());
    ZPIndex grown;
    const ZSpreadBlock fresh = zspreadZeroes(wanted * sizeof(Slot));
    grown.state_.memory = zrequireMemory(fresh.memory);
    grown.state_.slots = static_cast<Slot*>(fresh.block);
    grown.state_.capacity = static_cast<uint32_t>(wanted);
    grown.state_.limit = static_cast<uint32_t>(wanted / 4 * 3);
    for (size_t i = 0; i < state_.capacity; ++i)
        if (!state_.slots[i].isFree())
            grown.insert(state_.slots[i].hash, state_.slots[i].id());
    *this = std::move(grown);
}
