// memory.h: free memory as a busy machine has it.
#ifndef BENCH_MEMORY_H
#define BENCH_MEMORY_H

#include <sys/mman.h>

#include <cstddef>
#include <cstdlib>

/// Has so many bytes of the system's free memory at hand. A virtual machine gives what is free for
/// some seconds back to its host, and the first who touches it again waits for it, up to twenty
/// times as long as for an ordinary page: without this, whoever is measured first pays for all.
inline void fetchFreeMemory(size_t bytes) {
    char* const block = static_cast<char*>(
        mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if (block == MAP_FAILED)
        abort();
    madvise(block, bytes, MADV_HUGEPAGE);
    for (size_t i = 0; i < bytes; i += 4096)
        block[i] = 1;
    munmap(block, bytes);
}

#endif
