// ZObject.h: the root of all classes that a container can hold.
#ifndef Z_ZOBJECT_H
#define Z_ZOBJECT_H

#include "Z.h"

/// The root of the library's classes: what a container needs to compare, find, copy and delete its
/// members, and one pair of operators through which every library object gets its memory.
///
/// Ownership: an object belongs to whoever made it; clone() gives one more that the caller owns and
///   deletes, through ZObject* if need be. Pure interfaces of the library don't derive from here
///   and have no virtual destructor: delete through the class or through ZObject*.
/// Failure: allocation raises ZOutOfMemoryException (number 1); what the global allocator itself
///   raises passes through. The destructor may raise, since the lock classes report a lock that is
///   destroyed while held that way; strings, containers, buffers and exceptions promise not to.
/// Threads: no state. An object is as safe as what its class says of it.
class ZEXPORT ZObject {
public:
    ZObject() {}
    ZObject(const ZObject&) {}
    ZObject& operator=(const ZObject&) { return *this; }
    virtual ~ZObject() noexcept(false) {}  // inline: strings are made and dropped often

    /// 32 bits, the same for any two objects that are equal. Here: the object's address, its upper
    /// half folded in where addresses are wider.
    virtual unsigned int hash() const;

    /// Below 0, 0 or above 0: only the sign counts. Here: the order of the two addresses.
    virtual int compare(const ZObject& other) const;

    /// A new object of the same class and value, which the caller owns. Here: null, for a class
    /// that has no copies.
    virtual ZObject* clone() const;

    /// 1 or 0. Here: whether compare() gives 0.
    virtual int equals(const ZObject& other) const;

    /// Each asks compare() once, never equals(). Members, so that C++20's rewriting finds the same
    /// answer in both directions.
    bool operator==(const ZObject& other) const { return compare(other) == 0; }
    bool operator!=(const ZObject& other) const { return compare(other) != 0; }
    bool operator<(const ZObject& other) const { return compare(other) < 0; }
    bool operator>(const ZObject& other) const { return compare(other) > 0; }
    bool operator<=(const ZObject& other) const { return compare(other) <= 0; }
    bool operator>=(const ZObject& other) const { return compare(other) >= 0; }

    /// Memory from the global single-object allocator, never null: raises ZOutOfMemoryException.
    static void* operator new(size_t size);
    static void* operator new[](size_t size);
    static void operator delete(void* memory) noexcept;
    static void operator delete[](void* memory) noexcept;

    /// Construction in place, which the two operators above would hide.
    static void* operator new(size_t, void* place) noexcept { return place; }
    static void operator delete(void*, void*) noexcept {}
};

#endif
