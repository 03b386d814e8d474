// zmemory.h: memory for what is no ZObject, by the same road: a global allocator that gives null
// ends in ZOutOfMemoryException there too. Never installed.
#ifndef Z_ZMEMORY_H
#define Z_ZMEMORY_H

#include <memory>
#include <new>
#include <type_traits>
#include <utility>

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

#endif
