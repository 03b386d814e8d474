// zraise.h: how units raise. Never installed.
#ifndef Z_ZRAISE_H
#define Z_ZRAISE_H

#include <type_traits>

#include "ZException.h"

/// The place of a call: as the last parameter `ZSite site = ZSite()` of a function, the place from
/// which that function is called.
struct ZSite {
    const char* file;
    int line;

    explicit ZSite(const char* calledFrom = __builtin_FILE(), int atLine = __builtin_LINE())
        : file(calledFrom), line(atLine) {}
};

/// What throwException() of each concrete class does: notes the location and raises a copy of
/// exactly this class, so that a handler for it catches it.
template <typename Exception>
[[noreturn]] inline void zthrowCopy(Exception& failure, const char* file, int line) {
    failure.addLocation(file, static_cast<unsigned long>(line));
    throw Exception(failure);
}

/// Raises the exception, with the place of this call as its location. Requires: the class named
/// here is the object's own.
template <typename Exception>
[[noreturn]] inline void zraise(Exception&& failure, ZSite site = ZSite()) {
    using Class [[maybe_unused]] = typename std::remove_reference<Exception>::type;
    failure.Class::throwException(site.file, site.line);
}

/// Raises an exception of a number and a return code. Out of line, so that a short function that
/// may raise needs no room for an exception on its stack.
template <typename Exception>
[[noreturn, gnu::cold, gnu::noinline]] void zraiseCode(int number, int rc, ZSite site = ZSite()) {
    zraise(Exception(number, rc), site);
}

/// Raises ZInvalidParameterException unless the condition holds.
inline void zrequire(bool condition, ZSite site = ZSite()) {
    if (!condition)
        zraise(ZInvalidParameterException(), site);
}

/// Raises ZOutOfMemoryException. Out of line, as zraiseCode.
[[noreturn, gnu::cold, gnu::noinline]] inline void zraiseOutOfMemory(ZSite site) {
    zraise(ZOutOfMemoryException(), site);
}

/// Raises ZOutOfMemoryException unless the condition holds: for sizes that nothing can have.
inline void zrequireRoom(bool condition, ZSite site = ZSite()) {
    if (!condition)
        zraiseOutOfMemory(site);
}

/// What an allocator gave, which isn't null: raises ZOutOfMemoryException.
template <typename T>
inline T* zrequireMemory(T* memory, ZSite site = ZSite()) {
    zrequireRoom(memory != nullptr, site);
    return memory;
}

/// Raises ZThreadException with `number` and the return code unless the code is 0.
inline void zcheckThread(int number, int rc, ZSite site = ZSite()) {
    if (rc != 0)
        zraiseCode<ZThreadException>(number, rc, site);
}

#endif
