// ZKeyMap.h: dictionaries from key object to value object.
#ifndef Z_ZKEYMAP_H
#define Z_ZKEYMAP_H

#include "ZMap.h"

struct ZKeyMapMember;

/// What a dictionary offers; ZHashKeyMap tells what each call does. An interface without ZObject:
/// never delete through it.
class ZEXPORT ZKeyMap {
public:
    virtual unsigned int size() const = 0;
    virtual int isEmpty() const = 0;
    virtual int contains(const ZObject* key) const = 0;
    virtual ZObject* getEntry(const ZObject* key) const = 0;
    virtual void putEntry(const ZObject* key, const ZObject* value) = 0;
    virtual void putAll(const ZKeyMap& other) = 0;
    virtual void removeEntry(const ZObject* key) = 0;
    virtual void removeAll() = 0;
    virtual void listKeys(ZList& out) const = 0;
    virtual void listObjects(ZList& out) const = 0;

protected:
    ~ZKeyMap() = default;
};

/// What every dictionary can do through size() alone.
class ZEXPORT ZAbstractKeyMap : public ZObject, public ZKeyMap {
public:
    ~ZAbstractKeyMap() noexcept override;

    /// Whether size() is 0.
    int isEmpty() const override;
};

/// A pair as an object, for use in a ZHashMap: hash, order and equality are those of the key. It
/// compares with other pairs only.
class ZEXPORT ZKeyEntry : public ZObject {
public:
    /// With ownsMembers the pair holds clones of key and value and deletes them; otherwise it holds
    /// the pointers. Null stays null.
    ZKeyEntry(ZObject* key, ZObject* value, int ownsMembers);
    ~ZKeyEntry() noexcept override;
    ZKeyEntry(const ZKeyEntry&) = delete;
    ZKeyEntry& operator=(const ZKeyEntry&) = delete;

    /// Asks the key for its hash and keeps the answer for equals(), so that two threads must not
    /// ask one pair at once. 0 without a key.
    unsigned int hash() const override;

    /// The order of the keys. A pair without a key comes first.
    int compare(const ZObject& other) const override;

    /// A pair with the same ownership and kept hash: clones when owning, the same pointers
    /// otherwise.
    ZObject* clone() const override;

    /// 0 at once if the kept hashes differ, else whether the keys are equal. Requires: hash() was
    /// called on both since they were made; a map does that on every way in.
    int equals(const ZObject& other) const override;

    /// The key and the value, which stay the pair's.
    ZObject* key() const { return key_; }
    ZObject* value() const { return value_; }

private:
    explicit ZKeyEntry(int ownsMembers);

    ZObject* key_;
    ZObject* value_;
    int ownsMembers_;
    mutable unsigned int hashValue_;  // as hash() last computed it, 0 before that
};

/// A dictionary of a fixed number of buckets. A pair lies in the bucket that is the hash of its key
/// modulo the number of buckets, in order of first insertion; listing goes by ascending bucket.
/// Keys are the same if hash and `equals` say so. What ZHashMap tells of hashes, failure, calls
/// from within, threads and cost holds here too.
///
/// Ownership: with ownsMembers, keys and values are cloned on the way in and deleted with their
///   pair; otherwise the map holds the caller's pointers, and the caller keeps both alive.
/// A null key is absent: nothing is found, stored or removed. So is a key whose class has no
///   copies, on an owning map.
class ZEXPORT ZHashKeyMap : public ZAbstractKeyMap {
public:
    /// An empty map of max(size, 2) * 3 / 2 buckets.
    ZHashKeyMap(unsigned int size, int ownsMembers);
    ZHashKeyMap(const ZHashKeyMap& other);

    /// Takes buckets, pairs and ownership of `other`.
    ZHashKeyMap& operator=(const ZHashKeyMap& other);
    ~ZHashKeyMap() noexcept override;

    ZObject* clone() const override;

    unsigned int size() const override;

    /// 1 if there is a pair with this key, be its value null or not.
    int contains(const ZObject* key) const override;

    /// The value of this key, which the map keeps; null when there is none.
    ZObject* getEntry(const ZObject* key) const override;

    /// Stores the pair. An equal key is replaced, key object and value both, and the new pair takes
    /// its place in the order.
    void putEntry(const ZObject* key, const ZObject* value) override;

    /// Puts each pair of `other`, in the order of its listKeys(). `other` may be this map, or be
    /// held by one of its values.
    void putAll(const ZKeyMap& other) override;

    /// Removes the pair; nothing when there is none.
    void removeEntry(const ZObject* key) override;

    /// Removes all pairs.
    void removeAll() override;

    /// Adds all keys, or all values, to `out`, which isn't emptied first and clones or shares by
    /// its own ownership. The two lists go together position by position as long as the map isn't
    /// changed and `out` takes every member: an owning list takes no null value.
    void listKeys(ZList& out) const override;
    void listObjects(ZList& out) const override;

private:
    ZHashTable<ZKeyMapMember>* table_;
};

#endif
