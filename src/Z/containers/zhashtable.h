// zhashtable.h: the storage of ZHashMap and ZHashKeyMap. Never installed.
//
// What a map promises is an order (bucket by bucket, then by first insertion) and a number of
// buckets that never changes, so with buckets alone a big map is a few long walks. Hence two views
// of the same entries:
//
//   nodes_    one record an entry: the member, the hash taken at put, and its neighbours in the
//             chain of its bucket. Removed records are kept for the next put. The pair of a key map
//             stands right in here: no object of its own, no further cache miss.
//   chains_   a first and last record for each bucket: the promised order.
//   index_    once there are more than kSmall entries: open addressing with linear probing over
//             object and hash of all entries, at most 5/8 full, deletion by moving back. A look-up
//             reads one slot and one object and doesn't care for buckets.
//
// A small map is searched by walking the chain.
//
// The hash of a text is defined byte by byte, and to take it is most of a look-up. As long as all
// members are strings of the library's own classes that own their text, and whose equality is that
// of their bytes, the index goes by a hash of ours, which takes eight bytes at a time, and none of
// their hash() is asked for but at put, for the bucket. The first member of another kind turns the
// index to what hash() said, until removeAll(). A probe of another kind, which may equal a text in
// its own way and come in a call that changes nothing, gets an index of its own beside the first,
// and the next change goes on with that one alone.
//
// A slot repeats object and hash of its record, which costs memory and saves a cache miss for each
// look-up. The place of a slot is taken from the top bits of an odd constant times the hash, so
// that hashes which differ in the high bits only, or by multiples of something, spread all the
// same. The last three bits of the hash stay out of that and choose among neighbours: of numbers in
// sequence, eight share two cache lines.
//
// Invariants
// (1) Each record in use stands in exactly one chain, that of hash % bucketCount_; size_ counts
//     them. The others, up to used_, are marked and hang on free_ by `next`.
// (2) index_ has slots once size_ has been above kSmall, until removeAll(); it holds each record in
//     use exactly once, with the same object and the hash that it goes by, and no free slot lies
//     between the place that a hash calls for and the slot where it stands. So does byHash_, which
//     there is only beside an index_ of texts.
// (3) Record 0 isn't used and its object is null: as a neighbour it means none, in a slot free.
// (4) While areTexts_, each member owns its text and each record has the hash of it.
#ifndef Z_ZHASHTABLE_H
#define Z_ZHASHTABLE_H

#include <atomic>

#include "zknowntext.h"
#include "zownership.h"

/// The member of a map whose objects carry their own key.
struct ZMapMember {
    ZObject* object;

    static const bool hashDecides = false;  // a small map asks `equals` of all that share a bucket
    static const bool takesNull = true;     // an object without copies is stored as null

    static ZMapMember of(const ZObject& object) { return {const_cast<ZObject*>(&object)}; }

    void cloneParts() { object = object->clone(); }
    void deleteParts() { zdeleteMember(object); }
};

/// The member of a key map: a pair that is found by its key. The value may be null.
struct ZKeyMapMember {
    ZObject* object;  // the key
    ZObject* value;

    static const bool hashDecides = true;  // equal keys of different hash are different keys
    static const bool takesNull = false;   // a pair is nothing without its key

    static ZKeyMapMember of(const ZObject& key, const ZObject* value) {
        return {const_cast<ZObject*>(&key), const_cast<ZObject*>(value)};
    }

    void cloneParts();
    void deleteParts() {
        zdeleteMember(object);
        zdeleteMember(value);
    }
};

/// The entries of one map. Asks a probe, or what is put, for hash() at most once, and an entry only
/// for equals(), clone() and, when owning, its deletion. Both kinds are made in zhashtable.cpp.
template <typename Member>
class ZHashTable final : public ZObject {
public:
    ZHashTable(uint64_t bucketCount, int ownsMembers);

    /// The same order with the kept hashes. An owning table's nulls are passed over.
    ZHashTable(const ZHashTable& other);
    ZHashTable& operator=(const ZHashTable&) = delete;
    ~ZHashTable() noexcept override;

    /// Puts a copy of `other` in the place of `table`, which goes last, when nobody who comes here
    /// out of a member's destructor finds it. Nothing happens when they are the same.
    static void assign(ZHashTable*& table, const ZHashTable& other);

    /// The number of buckets that a map made for `size` entries has.
    static uint64_t bucketsFor(unsigned int size);

    unsigned int size() const { return size_; }
    int ownsMembers() const { return ownsMembers_; }

    /// The member that `probe` equals; one with a null object when there is none.
    const Member& find(const ZObject& probe) const {
        const uint32_t node = nodeOf(probe);  // first, for it may be a caller's and move the nodes
        return nodes_[node].member;
    }

    /// Stores `member`, or its clones in an owning table, in the place of the one that its object
    /// equals, else at the end of its bucket.
    void put(const Member& member);
    void remove(const ZObject& probe);
    void removeAll();

    /// Hands every member to `visit`, in the promised order.
    template <typename Visit>
    void forEach(Visit visit) const {
        for (uint64_t bucket = 0; bucket < bucketCount_; ++bucket)
            for (uint32_t i = chains_[bucket].first; i != 0; i = nodes_[i].next)
                visit(nodes_[i].member);
    }

private:
    struct Node {
        Member member;
        uint32_t hash;
        uint32_t textHash;
        uint32_t previous;
        uint32_t next;
    };
    struct Chain {
        uint32_t first;
        uint32_t last;
    };
    struct Slot {
        ZObject* object;
        uint32_t hash;
        uint32_t node;
    };
    struct Index {
        Slot* slots;     // null while the map is small
        uint32_t mask;   // number of slots - 1
        uint32_t limit;  // entries that fit before the slots are doubled
        int shift;       // 64 - log2 of the number of slots

        uint32_t placeOf(uint32_t hash) const {
            return static_cast<uint32_t>(((hash >> 3) * kHashA) >> shift) ^ (hash & 7);
        }
        void enter(const Slot& slot);
        uint32_t find(uint32_t hash, uint32_t node) const;
        void free(uint32_t hole);
    };

    static uint32_t hashOf(const Node& node, bool byText) {
        return byText ? node.textHash : node.hash;
    }

    static const uint32_t kSmall = 32;
    static const uint32_t kFreeRecord = UINT32_MAX;  // as the neighbour `previous`
    static bool isFree(const Node& node) { return node.previous == kFreeRecord; }

    static Node noEntries_;  // record 0 of a table that has had no entry yet; never written

    Chain& chainOf(uint32_t hash) const {
        return chains_[bucketCount_ > UINT32_MAX ? hash : bucket_.of(hash)];
    }

    bool isIndexOfTexts() const { return areTexts_ && index_.slots != nullptr; }
    uint32_t nodeOf(const ZObject& probe) const {
        return isIndexOfTexts() ? nodeByText(probe) : nodeByOwnHash(probe);
    }
    uint32_t nodeByText(const ZObject& probe) const;
    __attribute__((always_inline)) Slot& slotOfText(const ZKnownText& text, uint32_t hash) const;
    uint32_t nodeByOwnHash(const ZObject& probe) const;
    uint32_t nodeOfStranger(const ZObject& probe, uint32_t hash) const;
    __attribute__((always_inline)) uint32_t nodeByHash(const Index& index, const ZObject& probe,
                                                       uint32_t hash) const;
    uint32_t nodeInChain(const ZObject& probe, uint32_t hash, bool hashDecides) const;

    void putText(const Member& member, ZKnownText text);
    void putAny(const Member& member, ZKnownText text);
    bool areNodesFull() const { return free_ == 0 && used_ == capacity_; }
    bool isIndexFull() const { return size_ == (index_.slots != nullptr ? index_.limit : kSmall); }
    void reserve();
    void growNodes();
    void growIndex();
    Index makeIndex(int shift) const;
    Index indexAll(int shift, bool byText) const;
    const Index* indexByHash() const;
    void settle();
    void turnToHashes();
    void prepareFor(const ZKnownText& text);
    void dropIndexes();
    uint32_t slotOf(uint32_t node) const;
    void link(const Member& member, uint32_t hash, uint32_t textHash);
    uint32_t append(const Member& member, uint32_t hash, uint32_t textHash);
    Member unlink(uint32_t node);

    // set by the constructor
    const uint64_t bucketCount_;
    const ZRemainder bucket_;  // by bucketCount_
    const int ownsMembers_;
    Chain* chains_;

    uint32_t size_;
    uint32_t changes_;  // of the set of members and of what indexes go by, so far
    uint32_t used_;     // records ever used, number 0 included
    uint32_t free_;
    uint32_t capacity_;
    Node* nodes_;

    bool areUsedAgain_;  // some records, since there was none; else they stand as they were put
    bool areTexts_;      // and index_ goes by the hash of texts
    Index index_;
    mutable std::atomic<Index*> byHash_;  // for strangers; whoever needs it first makes it
};

#endif
