#include "zmembers.h"

#include <cxxabi.h>
#include <sys/mman.h>

#include <new>

#include "ZException.h"
#include "zreport.h"

static const uintptr_t kHugePage = 2 * 1024 * 1024;

// Compilers assume that the global allocator never gives null and drop the test for it. A volatile
// pointer keeps them from knowing whom we call; it is constant-initialised.
static void* (*volatile globalArrayAllocator)(size_t) = &::operator new[];

void* zallocateBlock(uint64_t count, size_t width) {
    void* block = nullptr;
    if (count <= PTRDIFF_MAX / width)
        block = globalArrayAllocator(static_cast<size_t>(count) * width);
    if (block == nullptr)
        ZOutOfMemoryException().throwException(__FILE__, __LINE__);
    return block;
}

void* zallocateSpread(uint64_t count, size_t width) {
    void* block = zallocateBlock(count, width);
    const uintptr_t size = static_cast<uintptr_t>(count) * width;
    if (size >= kHugePage) {
        // Advice can't fail in a way that matters. Only whole pages of the block are meant.
        const uintptr_t page = 4096;
        const uintptr_t first = (reinterpret_cast<uintptr_t>(block) + page - 1) / page * page;
        const uintptr_t end = (reinterpret_cast<uintptr_t>(block) + size) / page * page;
        madvise(reinterpret_cast<void*>(first), end - first, MADV_HUGEPAGE);
    }
    return block;
}

void zreleaseBlock(void* block) noexcept { ::operator delete[](block); }

void zdeleteMember(ZObject* member) {
    try {
        delete member;
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
        zreportCaught(__FILE__, __LINE__);
    }
}
