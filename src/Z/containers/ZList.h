// ZList.h: growing lists of objects, and the iterator over them.
#ifndef Z_ZLIST_H
#define Z_ZLIST_H

#include "ZIterator.h"
#include "ZSort.h"

class ZListIterator;

/// What a list of objects offers; ZArrayList tells what each call does. An interface without
/// ZObject: never delete through it.
class ZEXPORT ZList {
public:
    virtual unsigned int size() const = 0;
    virtual int isEmpty() const = 0;
    virtual int contains(const ZObject* object) const = 0;
    virtual void add(const ZObject* object) = 0;
    virtual void add(unsigned int index, const ZObject* object) = 0;
    virtual void addList(const ZList& list) = 0;
    virtual void remove(const ZObject* object) = 0;
    virtual void remove(unsigned int index) = 0;
    virtual void remove(ZListIterator& iterator) = 0;
    virtual void removeAll() = 0;
    virtual ZObject* get(unsigned int index) const = 0;
    virtual void set(unsigned int index, const ZObject* object) = 0;
    virtual int indexOf(const ZObject* object) const = 0;
    virtual void sort(const ZSortCompare& compare, const ZSortCompare::sortorder& order) = 0;
    virtual int lastIndexOf(const ZObject* object) const = 0;
    virtual void subList(ZList& out, unsigned int from, unsigned int to) const = 0;
    virtual void swap(unsigned int a, unsigned int b) = 0;
    virtual void shuffle() = 0;

    /// Takes the iterator one step back.
    virtual void backUp(ZListIterator& iterator) const;

    /// The index of the member that the iterator delivered last, -1 before the first.
    virtual int indexOf(ZListIterator& iterator) const;

protected:
    ~ZList() = default;
};

/// What every list can do through size(), get() and swap() alone.
class ZEXPORT ZAbstractList : public ZObject, public ZList {
public:
    ~ZAbstractList() noexcept override;

    /// Whether size() is 0.
    int isEmpty() const override;

    /// Sorts the members by `compare`, ascending or descending. Not stable, but the result for a
    /// given sequence is always the same. Null members stay where they are. Uses constant stack
    /// for each doubling of the size, whatever the order of the members.
    void sort(const ZSortCompare& compare, const ZSortCompare::sortorder& order) override;

    /// Sorts the indexes from `low` to `high`, both inclusive; `high` may be one behind the last.
    void quickSort(const ZSortCompare& compare, const ZSortCompare::sortorder& order, long long low,
                   long long high);
};

/// A growing array of objects. Null is a member like any other in a list that doesn't own its
/// members; into an owning list it comes only through addNoCopy, or as the clone of an object
/// whose class has no copies.
///
/// Ownership: settled once by ownsMembers. An owning list clones on the way in, except through
///   addNoCopy, and deletes on the way out; another list stores pointers and forgets them. What a
///   member's destructor raises is reported to the message service and goes no further.
/// Failure: a bad index reads as null and writes nothing. What can fail is memory:
///   ZOutOfMemoryException (1) or what the global allocator raises; a call for one member then
///   leaves the list as it was, a call for several has done the first ones. A thread isn't
///   cancelled while it deletes members.
/// Threads: no lock inside. Calls on const lists may run side by side; a change needs the
///   caller's lock against all other calls. shuffle() uses the process's rand().
/// Cost: get and set constant; adding at the end constant on average (the block grows by half);
///   adding and removing elsewhere one block move of what lies behind; indexOf linear.
class ZEXPORT ZArrayList : public ZAbstractList {
public:
    /// An empty list with room for `capacity` members; 0 is taken as 1.
    ZArrayList(unsigned int capacity, int ownsMembers);

    /// Same capacity and ownership: clones when owning, the same pointers otherwise. An owning
    /// list's nulls are passed over.
    ZArrayList(const ZArrayList& other);

    /// Takes the members of `other`, as addList() would add them, in place of its own, among which
    /// `other` may be. Capacity and ownership stay those of the target. If this raises, the list is
    /// unchanged.
    ZArrayList& operator=(const ZArrayList& other);
    ~ZArrayList() noexcept override;

    ZObject* clone() const override;

    /// Members held.
    unsigned int size() const override { return size_; }
    virtual int ownsMembers() const;

    /// Whether indexOf() finds it.
    int contains(const ZObject* object) const override;

    /// Stores `object` at the end, its clone in an owning list. Null adds nothing to an owning
    /// list.
    void add(const ZObject* object) override;

    /// The same at `index`; what stood there and behind moves up one. An index above size() adds
    /// nothing.
    void add(unsigned int index, const ZObject* object) override;

    /// Adds each member of `list` at the end. The list itself is allowed: its members are then
    /// added once more.
    void addList(const ZList& list) override;

    /// Stores `object` itself at the end; an owning list deletes it from then on. If this raises,
    /// `object` still belongs to the caller.
    virtual void addNoCopy(const ZObject* object);

    /// The same at `index`. An index above size() adds nothing, and `object` stays the caller's.
    virtual void addNoCopy(unsigned int index, const ZObject* object);

    /// Removes the first member that `object` equals; that member goes, not `object`.
    void remove(const ZObject* object) override;

    /// Removes the member at `index` and closes the gap. The capacity stays.
    void remove(unsigned int index) override;

    /// Removes the member that `iterator` delivered last and takes the iterator one step back, so
    /// that its next member is the one behind. An iterator that has delivered nothing removes
    /// nothing, and delivers nothing more until its reset().
    void remove(ZListIterator& iterator) override;

    /// Removes all members, in index order. The capacity stays.
    void removeAll() override;

    /// The member at `index`, or null if there is none. The list keeps what it owns, and the
    /// pointer is good until that member is removed, replaced or the list destroyed.
    ZObject* get(unsigned int index) const override {
        return index < size_ ? members_[index] : nullptr;
    }

    /// Stores `object`, its clone in an owning list, in place of the member at `index`. A bad
    /// index, or null in an owning list, changes nothing.
    void set(unsigned int index, const ZObject* object) override;

    /// The lowest or highest index at which `object->equals(member)` holds; -1 for none or null.
    /// Null members never match.
    int indexOf(const ZObject* object) const override;
    int lastIndexOf(const ZObject* object) const override;

    /// Adds the members from `from` to `to`, both inclusive, to `out`, which clones or shares by
    /// its own ownership. Nothing when `from` is above `to` or `to` isn't below size().
    void subList(ZList& out, unsigned int from, unsigned int to) const override;

    /// Exchanges two members; a bad index changes nothing.
    void swap(unsigned int a, unsigned int b) override;

    /// Members that fit before the next growth.
    virtual unsigned int capacity() const;

    /// Puts the members into a random order. Seeds the process's generator with the time.
    void shuffle() override;

    /// The index of the member that `iterator` delivered last, -1 before the first.
    int indexOf(ZListIterator& iterator) const override;

private:
    void addOwned(unsigned int index, const ZObject* object);
    void grow();

    unsigned int capacity_;  // slots allocated, at least 1
    ZObject** members_;      // only the first size_ are meaningful
    unsigned int size_;
    int ownsMembers_;
};

/// Walks a list by index. It reads the list live at each call: members added behind the position
/// will be seen; a removal at or before it by any way other than remove(ZListIterator&) makes it
/// skip a member. The list must outlive the iterator and keeps its members.
class ZEXPORT ZListIterator : public ZAbstractIterator {
public:
    /// Stands in front of the first member. The list must outlive the walk.
    explicit ZListIterator(const ZList& list);
    ZListIterator(const ZListIterator& other);

    /// Takes the position of `other`; the list stays.
    ZListIterator& operator=(const ZListIterator& other);
    ~ZListIterator() noexcept override;

    ZObject* clone() const override;

    int hasMore() override;

    /// The next member, which may be a null member. Null with no step at the end.
    ZObject* getNext() override;

    /// Goes back to the first member.
    virtual void reset();

    /// One step back, without a check of the lower end.
    virtual void backUp();

    /// The index of the member delivered last, -1 before the first.
    virtual int indexOf() const;

private:
    unsigned int position_;  // index of the next member
    const ZList* list_;
};

#endif
