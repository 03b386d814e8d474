#include "zownership.h"

#include <cxxabi.h>

#include <new>

#include "ZException.h"
#include "zmemory.h"
#include "zraise.h"
#include "zreport.h"
#include "zuncancelled.h"

// Compilers assume that the global allocator never gives null and drop the test for it. A volatile
// pointer keeps them from knowing whom we call; it is constant-initialised.
static void* (*volatile globalArrayAllocator)(size_t) = &::operator new[];

void* zallocateBlock(uint64_t count, size_t width) {
    void* block = nullptr;
    if (count <= PTRDIFF_MAX / width)
        block = globalArrayAllocator(static_cast<size_t>(count) * width);
    return zrequireMemory(block);
}

void* zallocateSpread(uint64_t count, size_t width) {
    void* block = zallocateBlock(count, width);
    zadviseSpread(block, static_cast<size_t>(count) * width);
    zfetchPages(block, 0, static_cast<size_t>(count) * width);
    return block;
}

void zreleaseBlock(void* block) noexcept { ::operator delete[](block); }

void zdeleteMember(ZObject* member) {
    if (member == nullptr)
        return;
    const ZUncancelled uncancelled;
    try {
        delete member;
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
        zreportCaught();
    }
}
