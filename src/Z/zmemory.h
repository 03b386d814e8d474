// zmemory.h: memory for what is no ZObject, by the same road: a global allocator that gives null
// ends in ZOutOfMemoryException there too. Never installed.
#ifndef Z_ZMEMORY_H
#define Z_ZMEMORY_H

#include <type_traits>
#include <utility>

#include "ZObject.h"

/// A base for internal classes that are made by new.
struct ZAllocated {
    static void* operator new(size_t size) { return ZObject::operator new(size); }
    static void operator delete(void* memory) noexcept { ZObject::operator delete(memory); }
};

/// new T(arguments...) for a plain T; given back by delete.
template <typename T, typename... Arguments>
T* zmake(Arguments&&... arguments) {
    static_assert(std::is_nothrow_constructible<T, Arguments...>::value, "memory would be lost");
    return new (ZObject::operator new(sizeof(T))) T(std::forward<Arguments>(arguments)...);
}

#endif
