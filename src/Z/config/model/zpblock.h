// zpblock.h: growing blocks of plain records. Never installed.
#ifndef Z_ZPBLOCK_H
#define Z_ZPBLOCK_H

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ZException.h"
#include "zmemory.h"
#include "zraise.h"

/// A growing block of records that are moved as bytes. Growth raises ZOutOfMemoryException and
/// leaves the block as it was.
template <typename T>
class ZPBlock {
public:
    ZPBlock() : data_(nullptr), size_(0), room_(0) {}
    ~ZPBlock() { free(data_); }
    ZPBlock(const ZPBlock&) = delete;
    ZPBlock& operator=(const ZPBlock&) = delete;

    T& operator[](size_t i) { return data_[i]; }
    const T& operator[](size_t i) const { return data_[i]; }
    T* data() { return data_; }
    const T* data() const { return data_; }
    size_t size() const { return size_; }
    void setSize(size_t size) { size_ = size; }

    /// Room for `more` records behind the last; grows by half at least.
    void reserveMore(size_t more) {
        if (room_ - size_ >= more)
            return;
        const size_t step = size_ / 2 < kFirstRoom ? size_t(kFirstRoom) : size_ / 2;
        if (more > SIZE_MAX - size_)
            zraise(ZOutOfMemoryException());
        reserveExactly(size_ +
                       (more > step ? more : step));  // size_ is at most half of the largest
    }
    bool isFull() const { return size_ == room_; }
    /// Records that fit behind the last.
    size_t room() const { return room_ - size_; }

    void reserveExactly(size_t room) {
        if (room <= room_)
            return;
        void* grown = room > SIZE_MAX / 2 / sizeof(T) ? nullptr : realloc(data_, room * sizeof(T));
        if (grown == nullptr)
            zraise(ZOutOfMemoryException());
        zadviseSpread(grown, room * sizeof(T));
        data_ = static_cast<T*>(grown);
        room_ = room;
    }

    /// Needs room made before.
    void push(const T& record) { data_[size_++] = record; }

    void swap(ZPBlock& other) {
        T* data = data_;
        size_t size = size_, room = room_;
        data_ = other.data_, size_ = other.size_, room_ = other.room_;
        other.data_ = data, other.size_ = size, other.room_ = room;
    }

private:
    static const size_t kFirstRoom = sizeof(T) == 1 ? 64 : 4;

    T* data_;
    size_t size_;
    size_t room_;
};

/// Bytes that are made here and handed on.
typedef ZPBlock<char> ZBytes;

/// Bytes of somebody else.
struct ZSpan {
    const char* data;
    size_t size;
};

inline ZSpan zspanOf(const ZBytes& bytes) { return {bytes.data(), bytes.size()}; }

/// Makes `to` a copy. ZOutOfMemoryException leaves it as it was.
inline void zcopyBytes(ZSpan from, ZBytes& to) {
    ZBytes copy;
    copy.reserveExactly(from.size);
    if (from.size != 0)
        memcpy(copy.data(), from.data, from.size);
    copy.setSize(from.size);
    to.swap(copy);
}

#endif
