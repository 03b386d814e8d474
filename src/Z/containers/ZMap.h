// ZMap.h: sets of objects that carry their own key, and iterators over them.
#ifndef Z_ZMAP_H
#define Z_ZMAP_H

#include "ZList.h"

template <typename Member>
class ZHashTable;
struct ZMapMember;

/// What a set of self-identifying objects offers: an entry is found with a probe that equals it.
/// ZHashMap tells what each call does. An interface without ZObject: never delete through it.
class ZEXPORT ZMap {
public:
    virtual unsigned int size() const = 0;
    virtual int isEmpty() const = 0;
    virtual int contains(const ZObject* probe) const = 0;
    virtual ZObject* getEntry(const ZObject* probe) const = 0;
    virtual void putEntry(ZObject* entry) = 0;
    virtual void putAll(ZMap& other) = 0;
    virtual void removeEntry(ZObject* probe) = 0;
    virtual void removeAll() = 0;
    virtual void list(ZList& out) const = 0;

protected:
    ~ZMap() = default;
};

/// What every map can do through size() alone.
class ZEXPORT ZAbstractMap : public ZObject, public ZMap {
public:
    ~ZAbstractMap() noexcept override;

    /// Whether size() is 0.
    int isEmpty() const override;
};

/// A map that is a list, searched from the front: the choice for a handful of entries, and for
/// objects without a useful hash().
///
/// Ownership, failure, threads: as ZArrayList. Cost: every search is linear.
class ZEXPORT ZArrayMap : public ZArrayList, public ZMap {
public:
    /// An empty map with room for `capacity` entries; 0 is taken as 1.
    ZArrayMap(unsigned int capacity, int ownsMembers);
    ~ZArrayMap() noexcept override;

    ZObject* clone() const override;

    int isEmpty() const override;
    unsigned int size() const override;

    /// Whether getIndex() finds it.
    int contains(const ZObject* probe) const override;
    void removeAll() override;

    /// The first entry that `probe` equals, null when there is none. The map keeps it.
    ZObject* getEntry(const ZObject* probe) const override;

    /// Stores `entry`, its clone in an owning map: in the place of the entry that it equals, else
    /// at the end.
    void putEntry(ZObject* entry) override;

    /// Appends all entries of `other` without a search, so that equal entries stand side by side.
    void putAll(ZMap& other) override;

    /// Removes the first entry that `probe` equals; nothing when there is none.
    void removeEntry(ZObject* probe) override;

    /// Adds all entries to `out` in index order; `out` clones or shares by its own ownership.
    void list(ZList& out) const override;

    /// The lowest index at which `probe->equals(entry)` holds, else -1.
    virtual int getIndex(const ZObject* probe) const;
};

/// A map of a fixed number of buckets. An entry lies in the bucket that is its hash() modulo the
/// number of buckets, in order of first insertion; list() and every iteration go by ascending
/// bucket, and a replacement keeps the place of the entry that it replaces.
///
/// The hash of an entry is taken once, by putEntry(), and kept; a look-up asks its probe at most
///   once and no member. Once a map is large, members are found through an index of all kept
///   hashes, or of their texts where all are strings of the library that own them, and `equals` is
///   asked only of those whose hash is that of the probe. So objects that are equal must have the
///   same hash, and neither may change while an object is in a map.
/// Ownership: settled by ownsMembers; assignment takes that of the source. An owning map clones on
///   the way in and deletes on the way out. What a member's destructor raises is reported to the
///   message service and goes no further.
/// Failure: a null entry or probe is absent: nothing is found, stored or removed. What can fail is
///   memory: ZOutOfMemoryException (1) or what the global allocator raises; putEntry() then leaves
///   the map as it was.
/// Calls from within: what a member or a probe does when it is asked or copied may look into the
///   map and change it, but neither assign to it nor destroy it.
/// Threads: no lock inside. Calls on const maps may run side by side; a change needs the caller's
///   lock against all other calls.
/// Cost: looking up, putting and removing are constant on average, whatever the number of buckets;
///   listing walks buckets and entries. The first object of another class that is looked for in a
///   large map of such strings has an index by hash() made, and that look-up is linear.
class ZEXPORT ZHashMap : public ZAbstractMap {
public:
    /// An empty map of max(size, 2) * 3 / 2 buckets.
    ZHashMap(unsigned int size, int ownsMembers);

    /// Same buckets, order and ownership: clones when owning, the same pointers otherwise.
    ZHashMap(const ZHashMap& other);

    /// Takes buckets, entries and ownership of `other`. If this raises, the map is unchanged.
    ZHashMap& operator=(const ZHashMap& other);
    ~ZHashMap() noexcept override;

    ZObject* clone() const override;

    unsigned int size() const override;

    /// Whether getEntry() finds an entry.
    int contains(const ZObject* probe) const override;

    /// The entry that `probe` equals, null when there is none. The map keeps it.
    ZObject* getEntry(const ZObject* probe) const override;

    /// Stores `entry`, its clone in an owning map: in the place of the entry that it equals, else
    /// as the last of its bucket. An owning map deletes the entry that was replaced.
    void putEntry(ZObject* entry) override;

    /// Puts each entry of `other`, in the order of its list(). Requires: none of the entries that
    /// are replaced holds `other`.
    void putAll(ZMap& other) override;

    /// Removes the entry that `probe` equals; nothing when there is none.
    void removeEntry(ZObject* probe) override;

    /// Removes all entries; the buckets stay.
    void removeAll() override;

    /// Adds all entries to `out`, by ascending bucket; `out` clones or shares by its own ownership.
    void list(ZList& out) const override;

private:
    ZHashTable<ZMapMember>* table_;
};

/// Walks the entries that a map held when the iterator was made, in the order of its list(). It
/// holds pointers: entries that the map has deleted since must not be touched.
class ZEXPORT ZMapIterator : public ZAbstractIterator {
public:
    /// Stands in front of the first entry. The map must outlive the walk.
    explicit ZMapIterator(const ZMap& map);

    /// The same entries at the same position, in a snapshot of its own.
    ZMapIterator(const ZMapIterator& other);
    ZMapIterator& operator=(const ZMapIterator& other);
    ~ZMapIterator() noexcept override;

    ZObject* clone() const override;

    int hasMore() override;

    /// The next entry, null at the end. The map keeps it.
    ZObject* getNext() override;

    /// Goes back to the first entry.
    virtual void reset();

private:
    ZArrayList snapshot_;   // doesn't own the entries
    ZListIterator cursor_;  // on snapshot_
};

/// Walks a ZArrayMap live, as a list: entries added behind the position will be seen.
class ZEXPORT ZArrayMapIterator : public ZListIterator {
public:
    /// Stands in front of the first entry. The map must outlive the walk.
    explicit ZArrayMapIterator(const ZArrayMap& map);
    ~ZArrayMapIterator() noexcept override;

    ZObject* clone() const override;
};

#endif
