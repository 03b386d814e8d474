#include "FailingAllocator.h"

#include <pthread.h>

#include <cstdlib>
#include <cstring>
#include <set>

// The linker leads calls of malloc to __wrap_malloc, and calls of __real_malloc to the true one.
extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* block, size_t size);
void __real_free(void* block);
}

namespace {

struct Plan {
    unsigned long asked, nth;  // nth 0: nothing fails
    FailAllocations::Extent extent;
    FailAllocations::Answer answer;
    bool failed, tracks;
};

thread_local Plan plan;

/// Counts one request; whether it is to fail.
bool failsNow() {
    if (plan.nth == 0)
        return false;
    const unsigned long number = ++plan.asked;
    const bool fails =
        plan.extent == FailAllocations::onward ? number >= plan.nth : number == plan.nth;
    plan.failed = plan.failed || fails;
    return fails;
}

/// Takes the memory for the tracked blocks past the functions below.
template <typename T>
struct RealAllocator {
    typedef T value_type;
    RealAllocator() = default;
    template <typename Other>
    RealAllocator(const RealAllocator<Other>&) {}
    T* allocate(size_t count) { return static_cast<T*>(__real_malloc(count * sizeof(T))); }
    void deallocate(T* block, size_t) { __real_free(block); }
};

std::set<const void*, std::less<const void*>, RealAllocator<const void*>> tracked;
bool isTracking;
pthread_mutex_t trackLock = PTHREAD_MUTEX_INITIALIZER;

void* noteAllocated(void* block) {
    if (block == nullptr || !plan.tracks)
        return block;
    pthread_mutex_lock(&trackLock);
    tracked.insert(block);
    pthread_mutex_unlock(&trackLock);
    return block;
}

/// Whether the block was a tracked one.
bool noteFreed(const void* block) {
    if (block == nullptr || !__atomic_load_n(&isTracking, __ATOMIC_RELAXED))
        return false;
    pthread_mutex_lock(&trackLock);
    const bool found = tracked.erase(block) != 0;
    pthread_mutex_unlock(&trackLock);
    return found;
}

void* allocateForNew(size_t size) {
    void* block = failsNow() ? nullptr : noteAllocated(__real_malloc(size != 0 ? size : 1));
    if (block == nullptr && !(plan.failed && plan.answer == FailAllocations::null))
        throw std::bad_alloc();
    return block;
}

}  // namespace

FailAllocations::FailAllocations(unsigned long nth, Extent extent, Answer answer) {
    plan = {0, nth, extent, answer, false, plan.tracks};
}

FailAllocations::~FailAllocations() { plan.nth = 0, plan.failed = false; }

bool FailAllocations::failed() const { return plan.failed; }

unsigned long FailAllocations::asked() { return plan.asked; }

TrackAllocations::TrackAllocations() {
    pthread_mutex_lock(&trackLock);
    tracked.clear();
    __atomic_store_n(&isTracking, true, __ATOMIC_RELAXED);
    pthread_mutex_unlock(&trackLock);
    plan.tracks = true;
}

TrackAllocations::~TrackAllocations() {
    plan.tracks = false;
    __atomic_store_n(&isTracking, false, __ATOMIC_RELAXED);
}

long TrackAllocations::live() const { return static_cast<long>(tracked.size()); }

extern "C" {

void* __wrap_malloc(size_t size) {
    return failsNow() ? nullptr : noteAllocated(__real_malloc(size));
}

void* __wrap_calloc(size_t count, size_t size) {
    return failsNow() ? nullptr : noteAllocated(__real_calloc(count, size));
}

void* __wrap_realloc(void* block, size_t size) {
    if (failsNow())
        return nullptr;
    const bool wasTracked = noteFreed(block);
    void* moved = __real_realloc(block, size);
    if (moved != nullptr || wasTracked)
        noteAllocated(moved != nullptr ? moved : block);
    return moved;
}

char* __wrap_strdup(const char* text) {
    const size_t size = strlen(text) + 1;
    void* copy = __wrap_malloc(size);
    return copy != nullptr ? static_cast<char*>(memcpy(copy, text, size)) : nullptr;
}

void __wrap_free(void* block) {
    noteFreed(block);
    __real_free(block);
}

}  // extern "C"

// Giving null here is against the language, and just what old programs' allocators do.
#define MAY_GIVE_NULL __attribute__((no_sanitize("returns-nonnull-attribute")))

MAY_GIVE_NULL void* operator new(size_t size) { return allocateForNew(size); }
MAY_GIVE_NULL void* operator new[](size_t size) { return allocateForNew(size); }
// Neither fails nor is counted, but what it gives goes to the operators below.
void* operator new(size_t size, const std::nothrow_t&) noexcept { return __real_malloc(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return __real_malloc(size); }
void operator delete(void* block) noexcept { __wrap_free(block); }
void operator delete[](void* block) noexcept { __wrap_free(block); }
void operator delete(void* block, size_t) noexcept { __wrap_free(block); }
void operator delete[](void* block, size_t) noexcept { __wrap_free(block); }
