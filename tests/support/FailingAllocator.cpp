#include "FailingAllocator.h"

#include <pthread.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

// The linker leads calls of malloc to __wrap_malloc, and calls of __real_malloc to the true one.
extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* block, size_t size);
void __real_free(void* block);
void* __wrap_malloc(size_t size);
void* __wrap_calloc(size_t count, size_t size);
void* __wrap_realloc(void* block, size_t size);
char* __wrap_strdup(const char* text);
void __wrap_free(void* block);
}

namespace {

struct Plan {
    unsigned long asked;
    unsigned long nth;  // 0: nothing fails
    FailAllocations::Extent extent;
    FailAllocations::Answer answer;
    bool failed;
    bool tracks;
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

// The tracked blocks: open addressing in static memory, since it must not allocate. A slot that was
// left holds kGone, so that those behind it are still found.
const size_t kSlots = size_t(1) << 18;
void* const kGone = reinterpret_cast<void*>(1);
void* slots[kSlots];
size_t slotsUsed;  // kGone included
long liveBlocks;
bool isTracking;
pthread_mutex_t trackLock = PTHREAD_MUTEX_INITIALIZER;

size_t firstSlot(const void* block) {
    return static_cast<size_t>((reinterpret_cast<uintptr_t>(block) >> 4) * uint64_t(0x9E3779B1)) %
           kSlots;
}

void* noteAllocated(void* block) {
    if (block == nullptr || !plan.tracks)
        return block;
    pthread_mutex_lock(&trackLock);
    if (isTracking) {
        size_t i = firstSlot(block);
        while (slots[i] != nullptr && slots[i] != kGone)
            i = (i + 1) % kSlots;
        if (slots[i] == nullptr && ++slotsUsed > kSlots / 2)
            abort();
        slots[i] = block;
        ++liveBlocks;
    }
    pthread_mutex_unlock(&trackLock);
    return block;
}

/// Whether the block was a tracked one.
bool noteFreed(const void* block) {
    if (block == nullptr || !__atomic_load_n(&isTracking, __ATOMIC_RELAXED))
        return false;
    bool found = false;
    pthread_mutex_lock(&trackLock);
    for (size_t i = firstSlot(block); !found && slots[i] != nullptr; i = (i + 1) % kSlots) {
        if (slots[i] == block) {
            slots[i] = kGone;
            --liveBlocks;
            found = true;
        }
    }
    pthread_mutex_unlock(&trackLock);
    return found;
}

void* allocateForNew(size_t size) {
    void* block = failsNow() ? nullptr : noteAllocated(__real_malloc(size != 0 ? size : 1));
    if (block == nullptr && !(plan.failed && plan.answer == FailAllocations::null))
        throw std::bad_alloc();
    return block;
}

void* allocateForNew(size_t size, const std::nothrow_t&) {
    return failsNow() ? nullptr : noteAllocated(__real_malloc(size != 0 ? size : 1));
}

void giveBack(void* block) {
    noteFreed(block);
    __real_free(block);
}

}  // namespace

FailAllocations::FailAllocations(unsigned long nth, Extent extent, Answer answer) {
    plan.asked = 0;
    plan.extent = extent;
    plan.answer = answer;
    plan.failed = false;
    plan.nth = nth;
}

FailAllocations::~FailAllocations() {
    plan.nth = 0;
    plan.failed = false;
}

bool FailAllocations::failed() const { return plan.failed; }

unsigned long FailAllocations::asked() { return plan.asked; }

TrackAllocations::TrackAllocations() {
    pthread_mutex_lock(&trackLock);
    if (slotsUsed != 0)
        memset(slots, 0, sizeof(slots));
    slotsUsed = 0;
    liveBlocks = 0;
    __atomic_store_n(&isTracking, true, __ATOMIC_RELAXED);
    pthread_mutex_unlock(&trackLock);
    plan.tracks = true;
}

TrackAllocations::~TrackAllocations() {
    plan.tracks = false;
    __atomic_store_n(&isTracking, false, __ATOMIC_RELAXED);
}

long TrackAllocations::live() const { return liveBlocks; }

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
    if (moved != nullptr)
        noteAllocated(moved);
    else if (wasTracked)
        noteAllocated(block);
    return moved;
}

char* __wrap_strdup(const char* text) {
    const size_t size = strlen(text) + 1;
    void* copy = __wrap_malloc(size);
    return copy != nullptr ? static_cast<char*>(memcpy(copy, text, size)) : nullptr;
}

void __wrap_free(void* block) { giveBack(block); }

}  // extern "C"

// Giving null here is against the language, and just what old programs' allocators do.
#define MAY_GIVE_NULL __attribute__((no_sanitize("returns-nonnull-attribute")))

MAY_GIVE_NULL void* operator new(size_t size) { return allocateForNew(size); }
MAY_GIVE_NULL void* operator new[](size_t size) { return allocateForNew(size); }
void* operator new(size_t size, const std::nothrow_t& tag) noexcept {
    return allocateForNew(size, tag);
}
void* operator new[](size_t size, const std::nothrow_t& tag) noexcept {
    return allocateForNew(size, tag);
}
void operator delete(void* block) noexcept { giveBack(block); }
void operator delete[](void* block) noexcept { giveBack(block); }
void operator delete(void* block, size_t) noexcept { giveBack(block); }
void operator delete[](void* block, size_t) noexcept { giveBack(block); }
