// zpblock.h: growing blocks of plain records, and bytes of somebody else. Never installed.
#ifndef Z_ZPBLOCK_H
#define Z_ZPBLOCK_H

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>

#include "ZException.h"
#include "zassert.h"
#include "zmemory.h"
#include "zpholds.h"
#include "zraise.h"

/// The number of a record in its block; records refer to each other by it.
typedef uint32_t ZPId;
/// No record.
constexpr ZPId kNoId = 0xFFFFFFFFu;
/// More than one record: they have to be looked for.
constexpr ZPId kSeveralIds = 0xFFFFFFFEu;

/// A growing block of records that are moved as bytes: they may own something, and are destroyed
/// then, but don't point into themselves. Growth raises ZOutOfMemoryException and leaves the block
/// as it was. A block that was moved from is empty.
template <typename T>
class ZPBlock {
public:
    ZPBlock() {}
    ZPBlock(ZPBlock&& other) noexcept { swap(other); }
    ZPBlock& operator=(ZPBlock&& other) noexcept {
        ZPBlock taken(std::move(other));
        swap(taken);
        return *this;
    }
    ~ZPBlock() {
        if constexpr (!std::is_trivially_destructible<T>::value)
            for (size_t i = 0; i < size(); ++i)
                data()[i].~T();
        free(state_.data);
    }

    T& operator[](size_t i) {
        zassert(i < size());
        return state_.data[i];
    }
    const T& operator[](size_t i) const {
        zassert(i < size());
        return state_.data[i];
    }
    T* data() { return state_.data; }
    const T* data() const { return state_.data; }
    size_t size() const { return state_.size; }
    /// Fewer records, or more that were filled in place already.
    void setSize(size_t size) {
        static_assert(std::is_trivially_destructible<T>::value, "nothing would be destroyed");
        zassert(size <= state_.room);
        state_.size = size;
    }

    /// Room for `more` records behind the last; grows by half at least.
    void reserveMore(size_t more) {
        if (room() >= more)
            return;
        const size_t step = size() / 2 < kFirstRoom ? size_t(kFirstRoom) : size() / 2;
        if (more > SIZE_MAX - size())
            zraise(ZOutOfMemoryException());
        // The size is at most half of the largest.
        reserveExactly(size() + (more > step ? more : step));
    }
    bool isFull() const { return state_.size == state_.room; }
    /// Records that fit behind the last.
    size_t room() const { return state_.room - state_.size; }

    void reserveExactly(size_t room) {
        if (room <= state_.room)
            return;
        void* grown = room > SIZE_MAX / 2 / sizeof(T)
                          ? nullptr
                          : realloc(static_cast<void*>(state_.data), room * sizeof(T));
        if (grown == nullptr)
            zraise(ZOutOfMemoryException());
        zadviseSpread(grown, room * sizeof(T));
        state_.data = static_cast<T*>(grown);
        state_.room = room;
    }

    /// Needs room made before.
    void push(const T& record) {
        zassert(!isFull());
        new (static_cast<void*>(state_.data + state_.size)) T(record);
        ++state_.size;
    }
    void push(T&& record) {
        zassert(!isFull());
        new (static_cast<void*>(state_.data + state_.size)) T(std::move(record));
        ++state_.size;
    }

    void swap(ZPBlock& other) noexcept { std::swap(state_, other.state_); }

private:
    static const size_t kFirstRoom = sizeof(T) == 1 ? 64 : 4;

    struct State {
        T* data = nullptr;
        size_t size = 0;
        size_t room = 0;
    };
    State state_;
};

/// Records that come and go: one that was given back is the first to be taken again. `Link` is a
/// field that chains those that were given back. A pool that was moved from may only be assigned or
/// destroyed.
template <typename T, ZPId T::*Link>
class ZPPool {
public:
    T& operator[](ZPId id) { return records_[id]; }
    const T& operator[](ZPId id) const { return records_[id]; }
    /// All ids are below.
    ZPId end() const { return static_cast<ZPId>(records_.size()); }

    void reserveMore(size_t more) {
        if (freeCount_ < more)
            records_.reserveMore(more - freeCount_);
    }
    /// Whether nothing can be taken without making room.
    bool isFull() const { return records_.isFull() && free_ == kNoId; }

    /// Needs room made before.
    ZPId take(T&& record) {
        if (__builtin_expect(free_ != kNoId, 0))
            return takeFree(std::move(record));
        records_.push(std::move(record));
        return static_cast<ZPId>(records_.size() - 1);
    }
    /// Requires: it is in use.
    void giveBack(ZPId id) {
        records_[id].*Link = free_;
        free_ = id;
        ++freeCount_;
    }

    /// How many were given back; ends the process if their chain tells otherwise. For checks.
    size_t countFree() const {
        size_t count = 0;
        for (ZPId id = free_; id != kNoId && count <= freeCount_; id = records_[id].*Link)
            ++count;
        ZPHOLDS(count == freeCount_);
        return count;
    }

private:
    ZPId takeFree(T&& record) {
        const ZPId id = free_;
        free_ = records_[id].*Link;
        --freeCount_;
        records_[id] = std::move(record);
        return id;
    }

    ZPBlock<T> records_;
    ZPId free_ = kNoId;
    size_t freeCount_ = 0;
};

/// Bytes that are made here and handed on.
typedef ZPBlock<char> ZBytes;

/// Bytes of somebody else, good as long as they stay where they are. What has to survive that a
/// text moves is a ZPSlice instead, which names bytes by their place.
struct ZSpan {
    const char* data;
    size_t size;
};

inline ZSpan zspanOf(const ZBytes& bytes) { return {bytes.data(), bytes.size()}; }
/// Of a text with a NUL behind it; null counts as the empty text.
inline ZSpan zspanOf(const char* text) {
    return text == nullptr ? ZSpan{"", 0} : ZSpan{text, strlen(text)};
}

/// Adds a copy at the end. ZOutOfMemoryException leaves `to` as it was.
inline void zappendBytes(ZBytes& to, ZSpan from) {
    to.reserveMore(from.size);
    if (from.size != 0)
        memcpy(to.data() + to.size(), from.data, from.size);
    to.setSize(to.size() + from.size);
}

/// Makes `to` a copy. ZOutOfMemoryException leaves it as it was.
inline void zcopyBytes(ZSpan from, ZBytes& to) {
    ZBytes copy;
    copy.reserveExactly(from.size);
    zappendBytes(copy, from);
    to = std::move(copy);
}

#endif
