#include "ZSort.h"

#include <pthread.h>

#include <new>

#include "zownership.h"

static pthread_once_t sc_once = PTHREAD_ONCE_INIT;

ZSortCompare* ZSortCompare::dsc_ = nullptr;

void ZSortCompare::init() {
    void* memory = zallocateBlock(1, sizeof(ZDefaultSortCompare));
    __atomic_store_n(&dsc_, new (memory) ZDefaultSortCompare, __ATOMIC_RELEASE);
}

ZSortCompare* ZSortCompare::defaultSortCompare() {
    ZSortCompare* comparer = __atomic_load_n(&dsc_, __ATOMIC_ACQUIRE);
    if (comparer != nullptr)
        return comparer;
    pthread_once(&sc_once, &ZSortCompare::init);
    return __atomic_load_n(&dsc_, __ATOMIC_ACQUIRE);
}

int ZDefaultSortCompare::sortCompare(const ZObject* a, const ZObject* b) const {
    return a->compare(*b);
}
