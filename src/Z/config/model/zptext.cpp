#include "zptext.h"

#include "zpholds.h"

void ZPText::grow(size_t more, size_t spare) {
    const size_t most = kMaxSize - bytes_.size();
    if (more > most)
        zraise(ZOutOfMemoryException());
    bytes_.reserveMore(more, spare < most - more ? spare : most - more);
}

void ZPText::overwrite(ZPSlice& slice, ZSpan bytes) {
    zassert(bytes.size <= slice.length);
    char* place = bytes_.data() + slice.offset;
    memcpy(place, bytes.data, bytes.size);
    if (bytes.size < slice.length)
        place[bytes.size] = '\n';  // as the writer of the file would go on
    addUnused(slice.length - bytes.size);
    slice.length = static_cast<uint32_t>(bytes.size);
}

void ZPText::checkInvariants(size_t used) const {
    ZPHOLDS(bytes_.data() != nullptr);
    ZPHOLDS(bytes_.size() <= kMaxSize);
    ZPHOLDS(used + unused_ <= bytes_.size());
}
