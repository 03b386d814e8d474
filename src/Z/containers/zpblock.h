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
#include "zinternal.h"
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
        free(state_.memory);
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

    /// Room for `more` records behind the last, which are about to be filled; grows by half at
    /// least. `spare`: for so many more the block needn't move, but nothing else is spent on them.
    void reserveMore(size_t more, size_t spare = 0) {
        if (room() >= more)
            return;
        if (more > SIZE_MAX - size() || spare > SIZE_MAX - size() - more)
            zraise(ZOutOfMemoryException());
        if (size() + more > state_.whole) {
            const size_t step = size() / 2 < kFirstRoom ? size_t(kFirstRoom) : size() / 2;
            const size_t most = more > step ? more : step;
            // The size is at most half of the largest.
            if (spare == 0 ||
                !tryToAllocate(size() + (more + spare > most ? more + spare : most), more))
                allocate(size() + most, more);
        }
        // Some at a time, more of a large block, but no more than are likely to come.
        const size_t needed = size() + more;
        size_t likely = size() + size() / 64 + kFetched / sizeof(T);
        if (needed <= state_.expected && state_.expected < likely)
            likely = state_.expected;
        fetch(needed > likely ? needed : likely);
    }
    /// For so many more records, which are likely to come, and `spare` after them the block needn't
    /// move, if there is memory for it; reserveMore makes their room.
    void expect(size_t more, size_t spare) noexcept {
        const size_t most = SIZE_MAX / 4;
        if (more > most || spare > most)
            return;
        state_.expected = size() + more;
        if (state_.expected <= state_.whole)
            return;
        const size_t step = size() / 2;
        tryToAllocate(size() + (more + spare > step ? more + spare : step), more);
    }
    /// Has the line of the processor's cache fetched that lies so many bytes behind the last
    /// record, where one will be put.
    void prefetchEnd(size_t ahead) const {
        // As a number, for that may lie behind the block.
        const uintptr_t end = reinterpret_cast<uintptr_t>(state_.data + state_.size);
        __builtin_prefetch(reinterpret_cast<const void*>(end + ahead), 1);
    }
    bool isFull() const { return state_.size == state_.room; }
    /// Records that fit behind the last.
    size_t room() const { return state_.room - state_.size; }

    void reserveExactly(size_t room) {
        if (room <= state_.room)
            return;
        if (room > state_.whole)
            allocate(room, room - size());
        fetch(room);
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
    /// Hands the records on, as a block that the caller gives to free(); null if there never was
    /// one. The block is empty then.
    T* release() noexcept {
        const State state = std::exchange(state_, State());
        if (state.memory != state.data)
            memmove(state.memory, static_cast<const void*>(state.data), state.size * sizeof(T));
        return static_cast<T*>(state.memory);
    }

private:
    static const size_t kFirstRoom = sizeof(T) == 1 ? 64 : 4;
    static const size_t kFetched = 64 * 1024;  // bytes at least, as far as there are
    // Smaller blocks may grow where they are, larger ones are moved by their pages.
    static const size_t kCopied = 64 * 1024, kMoved = 4 * 1024 * 1024;
    // So large a block is spread.
    static const size_t kSpread = 1024 * 1024;

    // The memory isn't given pages yet; `more` records are about to come.
    void allocate(size_t whole, size_t more) {
        if (!tryToAllocate(whole, more))
            zraise(ZOutOfMemoryException());
    }
    bool tryToAllocate(size_t whole, size_t more) {
        if (whole > SIZE_MAX / 2 / sizeof(T))
            return false;
        const size_t used = state_.size * sizeof(T), bytes = whole * sizeof(T);
        ZSpreadBlock grown;
        if (used > kMoved || (used < kCopied && bytes < kSpread)) {
            const size_t ahead = static_cast<size_t>(reinterpret_cast<char*>(state_.data) -
                                                     static_cast<char*>(state_.memory));
            grown.memory = realloc(state_.memory, ahead + bytes);
            if (grown.memory == nullptr)
                return false;
            grown.block = static_cast<char*>(grown.memory) + ahead;
            zadviseSpread(grown.block, bytes);
        } else {
            // To be copied to; realloc would do it with a fault for each page.
            grown = zmallocSpread(bytes, used + more * sizeof(T));
            if (grown.block == nullptr)
                return false;
            zfetchPages(grown.block, 0, used);
            if (used != 0)
                memcpy(grown.block, static_cast<const void*>(state_.data), used);
            free(state_.memory);
        }
        state_.data = static_cast<T*>(grown.block);
        state_.memory = grown.memory;
        state_.whole = whole;
        return true;
    }
    void fetch(size_t room) {
        if (room > state_.whole)
            room = state_.whole;
        zfetchPages(state_.data, state_.room * sizeof(T), room * sizeof(T));
        state_.room = room;
    }

    // Records: in use, with pages behind them, allocated, and likely to come.
    struct State {
        T* data = nullptr;
        void* memory = nullptr;  // of malloc, where the data stand
        size_t size = 0;
        size_t room = 0;
        size_t whole = 0;
        size_t expected = 0;
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
    /// A record may lie in two lines of the cache.
    void prefetch(ZPId id) const {
        const char* const place = reinterpret_cast<const char*>(&records_[id]);
        __builtin_prefetch(place);
        __builtin_prefetch(place + sizeof(T) - 1);
    }

    void reserveMore(size_t more) {
        if (freeCount_ < more)
            records_.reserveMore(more - freeCount_);
    }
    /// As ZPBlock::expect.
    void expect(size_t more, size_t spare) { records_.expect(more, spare); }
    /// Records that can be taken, but for those that were given back.
    size_t room() const { return records_.room(); }
    /// As ZPBlock::prefetchEnd.
    void prefetchEnd(size_t ahead) const { records_.prefetchEnd(ahead); }
    /// Which will be the next to be taken.
    ZPId nextId() const { return free_ != kNoId ? free_ : end(); }
    /// Whether there is room for so many, and the next to be taken comes at the end.
    bool isReadyAtEnd(size_t more) const { return free_ == kNoId && records_.room() >= more; }

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

/// Gives a block of malloc back.
struct ZPFree {
    void operator()(void* block) const { free(block); }
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

inline bool zequals(ZSpan a, ZSpan b) {
    return a.size == b.size && (a.size == 0 || memcmp(a.data, b.data, a.size) == 0);
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
