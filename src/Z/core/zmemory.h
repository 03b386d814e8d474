// zmemory.h: memory for what is no ZObject, by the same road: a global allocator that gives null
// ends in ZOutOfMemoryException there too. Never installed.
#ifndef Z_ZMEMORY_H
#define Z_ZMEMORY_H

#include <memory>
#include <new>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <utility>
#include <vector>

#include "ZObject.h"

/// A base for internal classes that are made by new.
struct ZAllocated {
    static void* operator new(size_t size) { return ZObject::operator new(size); }
    static void operator delete(void* memory) noexcept { ZObject::operator delete(memory); }
};

/// Destroys and gives back what zmake made.
struct ZUnmake {
    template <typename T>
    void operator()(T* made) const noexcept {
        made->~T();
        ZObject::operator delete(made);
    }
};

/// new T(arguments...) for a T that is no object, with the owner that gives it back: the operator
/// delete of the language is the wrong one for it.
template <typename T, typename... Arguments>
std::unique_ptr<T, ZUnmake> zmake(Arguments&&... arguments) {
    static_assert(std::is_nothrow_constructible<T, Arguments...>::value, "memory would be lost");
    void* memory = ZObject::operator new(sizeof(T));
    return std::unique_ptr<T, ZUnmake>(new (memory) T(std::forward<Arguments>(arguments)...));
}

/// Vectors by the same road.
template <typename T>
struct ZVectorMemory {
    typedef T value_type;

    ZVectorMemory() {}
    template <typename U>
    ZVectorMemory(const ZVectorMemory<U>&) {}
    T* allocate(size_t count) {
        return static_cast<T*>(
            ZObject::operator new(count > SIZE_MAX / sizeof(T) ? SIZE_MAX : count * sizeof(T)));
    }
    void deallocate(T* memory, size_t) noexcept { ZObject::operator delete(memory); }
    template <typename U>
    bool operator==(const ZVectorMemory<U>&) const {
        return true;
    }
    template <typename U>
    bool operator!=(const ZVectorMemory<U>&) const {
        return false;
    }
};
template <typename T>
using ZVector = std::vector<T, ZVectorMemory<T>>;

/// The size of a memory page, which the system is asked for once; 0 until then.
inline std::atomic<uintptr_t> zmemoryPage(0);

/// The begin of the page in which an address lies.
inline uintptr_t zpageOf(uintptr_t address) {
    uintptr_t page = zmemoryPage.load(std::memory_order_relaxed);
    if (__builtin_expect(page == 0, false)) {
        page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
        zmemoryPage.store(page, std::memory_order_relaxed);
    }
    return address & ~(page - 1);
}

constexpr size_t kHugePage = 2 * 1024 * 1024;

/// Tells the system that a large block is used all over, so that it may lie in huge pages: that
/// saves most page faults on filling it and most address look-ups on reading. The advice can't
/// fail in a way that matters.
inline void zadviseSpread(void* block, size_t size) {
    if (size < kHugePage)
        return;
    // Only whole pages of the block are meant.
    const uintptr_t address = reinterpret_cast<uintptr_t>(block), end = zpageOf(address + size);
    const uintptr_t first = zpageOf(address - 1) + zmemoryPage.load(std::memory_order_relaxed);
    madvise(reinterpret_cast<void*>(first), end - first, MADV_HUGEPAGE);
}

/// A block and what malloc gave for it, where it may begin later.
struct ZSpreadBlock {
    void* block;
    void* memory;  // to be given to free()
};

/// As malloc, of a block of which `used` bytes are about to be filled. Where that is most of a huge
/// page and more it begins with one: a block that lies by chance may hold none. A rest of less than
/// half of one stays with small pages. What lies ahead of the block is never touched;
/// aligned_alloc would give it away, and once small pieces lie there the place is too short for the
/// next block of that size: a process that loads again and again would grow without end.
inline ZSpreadBlock zmallocSpread(size_t size, size_t used) {
    const size_t spread = (used + kHugePage / 2) / kHugePage * kHugePage;
    const bool isSpread = spread != 0 && size < SIZE_MAX - 2 * kHugePage;
    const size_t whole = (size < spread ? spread : size) + kHugePage;
    char* const memory = static_cast<char*>(malloc(isSpread ? whole : size));
    if (memory == nullptr || !isSpread)
        return {memory, memory};
    char* const block = memory + (0 - reinterpret_cast<uintptr_t>(memory)) % kHugePage;
    zadviseSpread(block, spread);
    return {block, memory};
}

/// Has the system bring the pages of the bytes from `from` to `to` of a block that is filled now,
/// with one call: a fault for each page costs several times as much, most of all in a virtual
/// machine. A system that doesn't know the call goes by faults.
inline void zfetchPages(void* block, size_t from, size_t to) {
#ifndef MADV_POPULATE_WRITE
    static const int MADV_POPULATE_WRITE = 23;
#endif
    // Fewer aren't worth a call.
    static const size_t kLeast = 64 * 1024;
    if (to - from < kLeast)
        return;
    const uintptr_t address = reinterpret_cast<uintptr_t>(block);
    const uintptr_t first = zpageOf(address + from), end = zpageOf(address + to);
    const int error = errno;
    if (madvise(reinterpret_cast<void*>(first), end - first, MADV_POPULATE_WRITE) != 0)
        errno = error;
}

/// A block of zeroes, which is going to be used all over; nulls without memory.
inline ZSpreadBlock zspreadZeroes(size_t size) {
    const ZSpreadBlock made = zmallocSpread(size, size);
    if (made.block != nullptr) {
        zfetchPages(made.block, 0, size);
        memset(made.block, 0, size);
    }
    return made;
}

#endif
