// ZArray.h: the array of fixed length.
#ifndef Z_ZARRAY_H
#define Z_ZARRAY_H

#include "ZObject.h"

/// What an array of objects offers; ZArray tells what each call does. An interface without ZObject:
/// never delete through it.
class ZEXPORT ZArrayInterface {
public:
    virtual unsigned int size() const = 0;
    virtual int contains(const ZObject* object) const = 0;
    virtual void remove(unsigned int index) = 0;
    virtual void removeAll() = 0;
    virtual ZObject* get(unsigned int index) const = 0;
    virtual void set(unsigned int index, const ZObject* object) = 0;
    virtual int indexOf(const ZObject* object) const = 0;
    virtual int lastIndexOf(const ZObject* object) const = 0;
    virtual void swap(unsigned int a, unsigned int b) = 0;

protected:
    ~ZArrayInterface() = default;
};

/// Joins the interface to the root; adds nothing.
class ZEXPORT ZAbstractArray : public ZObject, public ZArrayInterface {
public:
    ZAbstractArray() {}
    ZAbstractArray(const ZAbstractArray& other) : ZObject(other), ZArrayInterface(other) {}
    ZAbstractArray& operator=(const ZAbstractArray&) { return *this; }
    ~ZAbstractArray() noexcept override;
};

/// An array of a fixed number of slots, each empty or with one object. It has no clone(), which
/// gives null.
///
/// Ownership: settled once by ownsMembers. An owning array clones on the way in, except through
///   setNoCopy, and deletes on the way out; another array stores pointers and forgets them. What a
///   member's destructor raises is reported to the message service and goes no further.
/// Failure: an index that is not below size() raises ZInvalidParameterException (22), from every
///   call that takes one, and changes nothing. Memory: ZOutOfMemoryException (1) or what the global
///   allocator raises; a call for one slot then leaves the array as it was. A thread isn't
///   cancelled while it deletes members.
/// Threads: no lock inside. Calls on const arrays may run side by side; a change needs the
///   caller's lock against all other calls.
class ZEXPORT ZArray : public ZAbstractArray {
public:
    /// `size` empty slots; 0 is taken as 1.
    ZArray(unsigned int size, int ownsMembers);

    /// Same size and ownership: clones when owning, the same pointers otherwise.
    ZArray(const ZArray& other);

    /// Takes the size and the members of `other`, as set() would; the ownership stays that of the
    /// target. `other` may be a member. If this raises, the array is unchanged.
    ZArray& operator=(const ZArray& other);
    ~ZArray() noexcept override;

    /// Number of slots, empty ones too.
    unsigned int size() const override;
    virtual int ownsMembers() const;

    /// Whether indexOf() finds it; 0 for null.
    int contains(const ZObject* object) const override;

    /// Empties the slot; an owning array deletes what it held. An empty slot stays as it is.
    void remove(unsigned int index) override;

    /// Empties all slots, from 0 upward. The size stays.
    void removeAll() override;

    /// What the slot holds, null when it is empty. The array keeps it.
    ZObject* get(unsigned int index) const override;

    /// Stores `object` in place of what the slot held: its clone in an owning array, which stays
    /// empty when the class has no copies. Null empties the slot.
    void set(unsigned int index, const ZObject* object) override;

    /// Stores `object` itself; an owning array deletes it from then on. Storing what the slot
    /// already holds changes nothing.
    virtual void setNoCopy(unsigned int index, const ZObject* object);

    /// The lowest or highest index at which `object->equals(member)` holds; -1 for none or null.
    int indexOf(const ZObject* object) const override;
    int lastIndexOf(const ZObject* object) const override;

    /// Exchanges two slots. Both indexes are tested, also when they are the same.
    void swap(unsigned int a, unsigned int b) override;

private:
    ZObject** slots_;
    int ownsMembers_;
    unsigned int size_;  // at least 1
};

#endif
