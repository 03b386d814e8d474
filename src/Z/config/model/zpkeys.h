// zpkeys.h: the records of a model's keys. Never installed.
#ifndef Z_ZPKEYS_H
#define Z_ZPKEYS_H

#include "zmemory.h"
#include "zplinks.h"
#include "zpvalues.h"

/// What few keys have.
struct ZPKeyExtra : ZAllocated {
    ZPValues values[2];  // by ZPStore::Kind
    // Among the keys that the side database follows.
    ZPId followedNext = kNoId, followedPrev = kNoId;
    bool isFollowed = false;
    // Of a name or value that is too long for the record to tell.
    uint32_t nameLength = 0, valueLength = 0;
};

/// What a record tells.
struct ZPKey {
    ZPSlice name;
    ZPSlice value;  // the one plain value; length 0: none here
    ZPId stanza;
    ZPId line;
};

/// 20 bytes for a key: its name, the value if there is exactly one plain value, its stanza and its
/// line. The keys of a stanza are chained in their order; what few have hangs on them as a
/// ZPKeyExtra, which is found by the key's number.
///
/// Threads: what is const may run side by side, also while an extra is made; all else needs the
/// owner's lock. Failure: ZOutOfMemoryException, before anything has changed.
class ZPKeys {
public:
    /// A name or value of this length and more needs an extra.
    static constexpr uint32_t kLong = 0xFFFF;

    ZPKeys() {}
    ZPKeys(ZPKeys&& other) noexcept { swap(other); }
    ZPKeys& operator=(ZPKeys&& other) noexcept {
        ZPKeys taken(std::move(other));
        swap(taken);
        return *this;
    }
    ~ZPKeys();

    ZPKey operator[](ZPId id) const {
        const Record& record = records_[id];
        return {name(id), value(id), record.stanza(), record.line};
    }
    __attribute__((always_inline)) ZPSlice name(ZPId id) const {
        const Record& record = records_[id];
        const uint32_t length = record.nameLength;
        return {record.name, __builtin_expect(length == kLong, 0) ? longName(id) : length};
    }
    __attribute__((always_inline)) ZPSlice value(ZPId id) const {
        const Record& record = records_[id];
        const uint32_t length = record.valueLength;
        return {record.value, __builtin_expect(length == kLong, 0) ? longValue(id) : length};
    }
    /// Whether the name is of this length.
    bool hasLength(ZPId id, size_t length) const {
        return __builtin_expect(length < kLong, 1) ? records_[id].nameLength == length
                                                   : name(id).length == length;
    }
    ZPId stanza(ZPId id) const { return records_[id].stanza(); }
    ZPId line(ZPId id) const { return records_[id].line; }
    bool isInMap(ZPId id) const { return (records_[id].stanzaAndMap & 1) != 0; }
    bool isFree(ZPId id) const { return records_[id].stanzaAndMap == kFree; }
    void prefetch(ZPId id) const { __builtin_prefetch(&records_[id]); }

    /// A long name or value needs an extra made before.
    void setName(ZPId id, ZPSlice name) {
        Record& record = records_[id];
        record.name = name.offset;
        record.nameLength = shortened(name.length);
        if (record.nameLength == kLong)
            extra(id)->nameLength = name.length;
    }
    __attribute__((always_inline)) void setValue(ZPId id, ZPSlice value) {
        Record& record = records_[id];
        record.value = value.offset;
        record.valueLength = shortened(value.length);
        if (__builtin_expect(record.valueLength == kLong, 0))
            setLongValue(id, value.length);
    }
    void setLine(ZPId id, ZPId line) { records_[id].line = line; }
    void setInMap(ZPId id, bool isInMap) {
        records_[id].stanzaAndMap = records_[id].stanza() << 1 | (isInMap ? 1 : 0);
    }

    // --- Records ---

    /// All ids are below.
    ZPId end() const { return records_.end(); }
    /// Many are about to be read. Requires: there are none.
    void expectMany() { records_.expectMany(); }
    /// As ZPBlock::expect.
    void expect(size_t more, size_t spare) { records_.expect(more, spare); }
    /// Room for keys that are read; and for others.
    void reserveToRead(size_t more) {
        records_.reserveToRead(more);
        coverByDirectory();
    }
    void reserveMore(size_t more) {
        records_.reserveMore(more);
        if (directory_ != nullptr)
            coverByDirectory();
    }
    /// Which will be the next to be taken.
    ZPId nextId() const { return records_.nextId(); }
    /// A key that isn't in the map, without value and line. Needs room, and an extra of nextId() if
    /// the name is long.
    ZPId take(ZPSlice name, ZPId stanza, bool isRead) {
        Record fresh = {name.offset, 0, shortened(name.length), 0, stanza << 1, kNoId};
        const ZPId id = records_.take(std::move(fresh), isRead);
        if (name.length >= kLong)
            setName(id, name);
        return id;
    }
    /// Keys of the map with a line, one by one, which are chained behind another, or behind none,
    /// when all are there. Nothing is long. Requires: isReadyBehind().
    void push(ZPSlice name, ZPSlice value, ZPId stanza, ZPId line) {
        records_.push(inMap(name, value, stanza, line));
    }
    /// Likewise one behind another, or behind none. Requires: isReadyToInsert().
    __attribute__((always_inline)) void pushBehind(ZPId before, ZPSlice name, ZPSlice value,
                                                   ZPId stanza, ZPId line) {
        records_.pushBetween(inMap(name, value, stanza, line), before, kNoId);
    }
    void chainPushed(ZPId before, size_t count) { records_.chainPushed(before, count); }
    /// Its neighbours are connected already.
    void giveBack(ZPId id) {
        deleteExtra(id);
        records_[id].stanzaAndMap = kFree;
        records_.giveBack(id);
    }
    size_t countFree() const { return records_.countFree(); }

    // --- The chains of the stanzas' keys ---

    ZPId next(ZPId id) const { return records_.next(id); }
    ZPId prev(ZPId id) const { return records_.prev(id); }
    /// As ZPBlock::prefetchEnd.
    void prefetchEnd(size_t ahead) const { records_.prefetchEnd(ahead); }
    void reserveChanges(size_t changes) { records_.reserveChanges(changes); }
    bool isReadyBehind(ZPId id, size_t more) const {
        return records_.isReadyBehind(id, more) && isCovered(records_.end() + more);
    }
    bool isReadyToInsert() const {
        return records_.isReadyToInsert() && isCovered(records_.end() + 1);
    }
    void connect(ZPId before, ZPId behind) { records_.connect(before, behind); }
    ZPLinks::Neighbours unlink(ZPId id) noexcept { return records_.unlink(id); }
    void prepare(ZPId id) { records_.prepare(id); }
    bool isDead(ZPId id) const { return records_.isDead(id); }

    // --- Extras ---

    bool mayHaveExtras() const { return zloadMade(directory_) != nullptr; }
    /// Null: it has none.
    __attribute__((always_inline)) ZPKeyExtra* extra(ZPId id) const {
        const Directory* directory = zloadMade(directory_);
        return __builtin_expect(directory == nullptr, 1) ? nullptr : extraIn(directory, id);
    }
    /// Made at first use.
    ZPKeyExtra& makeExtra(ZPId id) const;
    /// Takes away what the key has there, but for a long name.
    void dropExtra(ZPId id);

    /// Ends the process unless the chains hold.
    void checkInvariants() const { records_.checkInvariants(); }

private:
    static constexpr uint32_t kFree = kNoId;
    struct Record {
        uint32_t name, value;  // where they stand
        uint16_t nameLength, valueLength;
        uint32_t stanzaAndMap;  // the low bit: whether it is in the map
        ZPId line;
        ZPId stanza() const { return stanzaAndMap >> 1; }
    };
    static_assert(sizeof(Record) == 20, "keys are to be small");

    // Extras by number, in chunks of which most are never made.
    static constexpr size_t kChunk = 64;
    struct Chunk : ZAllocated {
        ZPKeyExtra* extras[kChunk] = {};
    };
    struct Directory {
        size_t size;
        Chunk* chunks[1];
    };

    // Nothing is long.
    static Record inMap(ZPSlice name, ZPSlice value, ZPId stanza, ZPId line) {
        return {name.offset,
                value.offset,
                static_cast<uint16_t>(name.length),
                static_cast<uint16_t>(value.length),
                stanza << 1 | 1,
                line};
    }
    static ZPKeyExtra* extraIn(const Directory* directory, ZPId id);
    void setLongValue(ZPId id, uint32_t length);
    uint32_t longName(ZPId id) const;
    uint32_t longValue(ZPId id) const;
    static uint16_t shortened(uint32_t length) {
        return static_cast<uint16_t>(length < kLong ? length : kLong);
    }
    void swap(ZPKeys& other) noexcept {
        std::swap(records_, other.records_);
        std::swap(directory_, other.directory_);
    }
    bool isCovered(size_t end) const {
        return directory_ == nullptr || end <= directory_->size * kChunk;
    }
    Directory* newDirectory() const;
    void coverByDirectory();
    void deleteExtra(ZPId id);

    ZPChainedPool<Record, &Record::line> records_;
    mutable Directory* directory_ = nullptr;  // of all records for which there is room
};

#endif
