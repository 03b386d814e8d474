// zlinemarks.h: where lines end and divide, found for many bytes at once. Never installed.
#ifndef Z_ZLINEMARKS_H
#define Z_ZLINEMARKS_H

#include <cstdint>
#include <cstring>

#include "zassert.h"
#include "zpblock.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

/// Walks over the newlines, "=" and NULs of a text. 64 bytes are looked at together: in lines of
/// 20 bytes a call of memchr for each mark costs several times as much.
class ZLineMarks {
public:
    /// From `start` on. The text has to stay where it is.
    ZLineMarks(ZSpan text, size_t start) : text_(text), block_(start), marks_(find()) {
        zassert(start <= text.size);
    }

    /// The place of the next mark ahead of `end`, or `end`; no mark behind it is passed over.
    /// Requires: a place in the text, or its end, and no former one.
    __attribute__((always_inline)) size_t next(size_t end) {
        while (marks_ == 0) {
            if (end - block_ <= kBlock)
                return end;
            block_ += kBlock;
            marks_ = find();
        }
        const size_t mark = block_ + static_cast<unsigned>(__builtin_ctzll(marks_));
        if (mark >= end)
            return end;
        marks_ &= marks_ - 1;
        return mark;
    }

private:
    static const size_t kBlock = 64;

    // The marks of the block, a bit each.
    __attribute__((always_inline)) uint64_t find() const {
        const size_t left = text_.size - block_;
        if (__builtin_expect(left >= kBlock, 1))
            return findIn(text_.data + block_);
        char last[kBlock];
        memset(last, ' ', sizeof last);
        if (left != 0)
            memcpy(last, text_.data + block_, left);
        return findIn(last);
    }

#ifdef __SSE2__
    static uint64_t findIn(const char* block) {
        const __m128i newlines = _mm_set1_epi8('\n'), dividers = _mm_set1_epi8('='),
                      nuls = _mm_setzero_si128();
        uint64_t marks = 0;
        for (int i = 0; i < 4; ++i) {
            const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(block + 16 * i));
            const __m128i found = _mm_or_si128(
                _mm_or_si128(_mm_cmpeq_epi8(bytes, newlines), _mm_cmpeq_epi8(bytes, dividers)),
                _mm_cmpeq_epi8(bytes, nuls));
            marks |= static_cast<uint64_t>(static_cast<uint32_t>(_mm_movemask_epi8(found)))
                     << (16 * i);
        }
        return marks;
    }
#else
    // The high bit of each byte that is zero, and no other.
    static uint64_t zeros(uint64_t bytes) {
        const uint64_t low = 0x7F7F7F7F7F7F7F7Fu;
        return ~(((bytes & low) + low) | bytes | low);
    }
    static uint64_t findIn(const char* block) {
        const uint64_t each = 0x0101010101010101u;
        uint64_t marks = 0;
        for (int i = 0; i < 8; ++i) {
            uint64_t bytes = 0;
            for (int k = 8; k-- > 0;)
                bytes = bytes << 8 | static_cast<unsigned char>(block[8 * i + k]);
            const uint64_t found =
                zeros(bytes) | zeros(bytes ^ each * '\n') | zeros(bytes ^ each * '=');
            // The high bits of eight bytes come to lie in the product's highest byte.
            marks |= ((found >> 7) * 0x0102040810204080u >> 56) << (8 * i);
        }
        return marks;
    }
#endif

    const ZSpan text_;
    size_t block_;    // its begin
    uint64_t marks_;  // of the block, that are still to come
};

#endif
