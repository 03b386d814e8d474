// zptext.h: the text behind a property cache: one block of bytes. Never installed.
//
// A load reads the file into it, and names, values and comments are slices of it. What is set later
// is appended, or written over what it replaces where it fits. Bytes of which no slice is left are
// counted, so that the owner can write the text anew when they are more than half.
//
// Invariants, checked by checkInvariants():
// (1) There is a block at all times, so that the empty text has an address.
// (2) Offsets fit into 32 bits; the last values stay free as marks.
// (3) A byte that is counted as unused belongs to no slice, and is counted once.
#ifndef Z_ZPTEXT_H
#define Z_ZPTEXT_H

#include "zpblock.h"

/// A piece of a text, by its place: the block moves as it grows, and 8 bytes are half a ZSpan.
struct ZPSlice {
    uint32_t offset;
    uint32_t length;
};

class ZPText {
public:
    /// Offsets and lengths stay below.
    static constexpr size_t kMaxSize = 0xFFFFFFF0u;

    ZPText() { bytes_.reserveExactly(64); }

    const char* at(size_t offset) const {
        zassert(offset <= bytes_.size());
        return bytes_.data() + offset;
    }
    const char* at(const ZPSlice& slice) const {
        zassert(slice.length <= bytes_.size() && slice.offset <= bytes_.size() - slice.length);
        return bytes_.data() + slice.offset;
    }
    /// Good until the text changes.
    ZSpan span(const ZPSlice& slice) const { return {at(slice), slice.length}; }
    size_t size() const { return bytes_.size(); }
    /// Whether these bytes stand there.
    bool stands(uint32_t offset, ZSpan bytes) const {
        return offset <= bytes_.size() && bytes.size <= bytes_.size() - offset &&
               zsameBytes(bytes_.data() + offset, bytes.data, bytes.size);
    }

    /// Room for `more` bytes, and `spare` more for later; raises ZOutOfMemoryException, also where
    /// offsets wouldn't fit.
    void reserve(size_t more, size_t spare = 0) {
        if (__builtin_expect(!hasRoom(more), 0))
            grow(more, spare);
    }
    /// As ZPBlock::prefetchEnd.
    void prefetchEnd(size_t ahead) const { bytes_.prefetchEnd(ahead); }
    bool hasRoom(size_t more) const {
        return more <= bytes_.room() && more <= kMaxSize - bytes_.size();
    }
    ZPSlice append(ZSpan bytes) {
        reserve(bytes.size);
        const ZPSlice slice = {static_cast<uint32_t>(bytes_.size()),
                               static_cast<uint32_t>(bytes.size)};
        zappendBytes(bytes_, bytes);
        return slice;
    }
    /// Writes `bytes` in the place of a slice that is at least as long and refers to them then.
    void overwrite(ZPSlice& slice, ZSpan bytes);

    /// Room for `more` bytes to read into, and `spare` more for what comes then; commit makes what
    /// was read part of the text.
    char* room(size_t more, size_t spare = 0) {
        reserve(more, spare);
        return bytes_.data() + bytes_.size();
    }
    void commit(size_t bytes) { bytes_.setSize(bytes_.size() + bytes); }
    /// Takes bytes at the end back. Requires: no slice of them, and none counted as unused.
    void truncate(size_t size) {
        zassert(size <= bytes_.size() && unused_ <= size);
        bytes_.setSize(size);
    }

    /// So many bytes are in no slice any more.
    void addUnused(size_t bytes) {
        unused_ += bytes;
        zassert(unused_ <= bytes_.size());
    }
    /// The slice goes.
    void drop(const ZPSlice& slice) { addUnused(slice.length); }
    size_t unused() const { return unused_; }
    /// Whether so much is unused that the text had better be written anew.
    bool isWorthCompacting() const { return unused_ >= kCompactFrom && unused_ >= size() / 2; }

    /// Ends the process unless the invariants hold. `used`: the bytes of all slices.
    void checkInvariants(size_t used) const;

private:
    void grow(size_t more, size_t spare);

    // Less isn't worth the work.
    static constexpr size_t kCompactFrom = 64 * 1024;

    ZBytes bytes_;
    size_t unused_ = 0;
};

#endif
