#include "ZObject.h"

#include <new>

#include "ZException.h"
#include "zinternal.h"
#include "zraise.h"

// Compilers assume that the global allocator never gives null and drop the test for it. A volatile
// pointer keeps them from knowing whom we call; it is constant-initialised.
static void* (*volatile globalAllocator)(size_t) = &::operator new;

static void* allocate(size_t size, ZSite site = ZSite()) {
    return zrequireMemory(globalAllocator(size), site);
}

unsigned int ZObject::hash() const { return zaddressHash(this); }

int ZObject::compare(const ZObject& other) const { return zaddressCompare(this, &other); }

ZObject* ZObject::clone() const { return nullptr; }

int ZObject::equals(const ZObject& other) const { return compare(other) == 0; }

void* ZObject::operator new(size_t size) { return allocate(size); }

void* ZObject::operator new[](size_t size) { return allocate(size); }

void ZObject::operator delete(void* memory) noexcept { ::operator delete(memory); }

void ZObject::operator delete[](void* memory) noexcept { ::operator delete(memory); }
