// zpstore.h: the storage behind the property cache. Never installed.
//
// What it holds: stanzas, their keys and values, and the retained lines of the file, for files of
// ten keys and of millions. One object a key, value and line would cost near 1 KB a key, most of it
// pointers and rounding, and a cache miss for each. Instead:
//
//   text_      one block of bytes. A load reads the file into it and everything refers to it by
//              offset and length; what is set later is appended. Bytes that nobody refers to any
//              more are counted, and the block is written anew when they are more than half.
//   keys_      a 40-byte record a key: name, the value if there is exactly one plain value, its
//              line, its neighbours in the stanza's key order. What few keys have (several values,
//              hidden values, lists that were handed out) hangs on it as a KeyExtra.
//   keyIndex_  open addressing over hash, key id and where the name stands; the hash covers stanza
//              and key together, so that finding a value is one probe, whatever the number of
//              stanzas or keys, and at a million keys the record and the name, two cache misses,
//              are fetched together.
//   lines_     the lines of the file (zplines.h): a key line names its key's record
//
// Invariants, checked by checkInvariants():
// (1) Every key record in use is in keyIndex_ exactly once, every stanza record in stanzaIndex_.
// (2) A key is in the map (attached) or only remembered because a line still names it (detached);
//     a detached key has no values, lists or item. The key chain of a stanza holds exactly its
//     attached keys, in order of first insertion; `count` is its length.
// (3) Key::line is the key's only line, `none`, or `kSeveralIds`: then its lines have to be looked for.
// (4) The lists of a key's values and of a stanza's keys that were handed out keep their identity
//     until the key or stanza leaves the map.
// (5) A stanza record lives while the stanza is in the map or a group bears its name; Stanza::group
//     is the first of its groups in file order, the others follow by ZPGroup::nextOfStanza.
// (6) The item chain holds the keys that the side database follows, in its order.
// (7) A cursor of cursors_ stands on an attached key of its stanza, or in front of all keys; what
//     takes a key or stanza out of the map moves its cursors first.
//
// Threads: changes need the owner's lock. Look-ups may run side by side, also while one of them
// makes a list: lists are published by compare-and-swap and change no other field.
//
// Failure: ZOutOfMemoryException. Room is made before anything is linked, so that a call that
// raises has left all invariants whole.
#ifndef Z_ZPSTORE_H
#define Z_ZPSTORE_H

#include <cstdlib>
#include <cstring>

#include "ZLCString.h"
#include "ZList.h"
#include "zpindex.h"
#include "zplines.h"
#include "zptext.h"
#include "zpvalues.h"

class ZPStore : public ZAllocated {
public:
    typedef ZPId Id;
    static constexpr Id none = kNoId;
    static constexpr Id detached = 0xFFFFFFFEu;  // Key::next: not in the map

    enum Kind { plain = 0, hidden = 1 };

    /// What few keys have.
    struct KeyExtra : ZAllocated {
        ZPValues values[2];  // by Kind; see zpvalues.h for what the record has itself
        Id itemNext = none, itemPrev = none;  // in the item chain
        bool isItem = false;
    };

    struct Key {
        ZPSlice name;
        ZPSlice value;  // the one plain value; length 0: none here
        Id stanza;
        Id line;
        Id next, prev;  // in the stanza's key order; next is `detached` outside the map
        mutable KeyExtra* extra;
    };

    struct Stanza {
        ZPSlice name;
        char head[16];  // the name's first bytes, so that a short one is compared without its text
        uint64_t hash;
        Id first, last;  // its keys
        uint32_t count;
        Id group;
        bool inUse;
        bool inMap;
        ZPLazy<ZArrayList> keyList;
        ZPLazy<ZLCString> nameObject;
    };

    /// A walk's place in the keys of a stanza that stays right whatever is removed meanwhile. Made,
    /// used and destroyed under the owner's lock.
    class Cursor : public ZAllocated {
    public:
        /// In front of the stanza's keys. None: there is nothing to walk.
        Cursor(ZPStore& store, Id stanza);
        ~Cursor();
        Cursor(const Cursor&) = delete;
        Cursor& operator=(const Cursor&) = delete;

        /// None once the stanza has left the map: the walk has ended.
        Id stanza() const { return stanza_; }
        /// The key it was moved to last, or none: it hasn't been moved, or that key has left the
        /// map.
        Id key() const { return isOnKey_ ? key_ : none; }
        /// The key behind the place, or none.
        Id nextKey() const;
        /// Moves to this attached key.
        void moveTo(Id key);
        ZPStore& store() const { return store_; }

    private:
        friend class ZPStore;
        ZPStore& store_;
        Cursor* next_;  // the store's other cursors
        Id stanza_;
        Id key_;  // the key, or the one in front of it once it has gone
        bool isOnKey_;
    };

    ZPStore();
    /// Copies stanzas, keys, values and lines; the copy follows no items.
    ZPStore(const ZPStore& other);
    ~ZPStore();
    ZPStore& operator=(const ZPStore&) = delete;

    void clear();

    // --- Stanzas ---

    /// The record of that name, in the map or not; none if there is no record.
    Id findStanza(const char* name, size_t length) const;
    /// The stanza of that name if it is in the map, else none.
    Id stanzaInMap(const char* name, size_t length) const {
        const Id id = findStanza(name, length);
        return id != none && stanzas_[id].inMap ? id : none;
    }
    /// Puts the stanza into the map, if it isn't there yet.
    Id createStanza(const char* name, size_t length);
    /// Takes the stanza with its keys out of the map; its lines stay.
    void removeStanza(Id stanza);
    uint32_t stanzaCount() const { return stanzasInMap_; }
    /// Calls visit(id) for each stanza in the map: those with a header in file order, then others.
    template <typename Visit>
    void forEachStanza(Visit visit) const {
        for (Id g = group(0).next; g != none; g = group(g).next) {
            const Id s = group(g).stanza;
            if (stanzas_[s].inMap && stanzas_[s].group == g)
                visit(s);
        }
        for (Id s = 0; s < stanzas_.end(); ++s)
            if (stanzas_[s].inUse && stanzas_[s].inMap && stanzas_[s].group == none)
                visit(s);
    }

    // --- Keys ---

    /// The record of that key, in the map or not; none if there is no record.
    Id findKey(const char* stanza, size_t stanzaLength, const char* key, size_t keyLength) const;
    Id keyInMap(const char* stanza, size_t stanzaLength, const char* key, size_t keyLength) const {
        const Id id = findKey(stanza, stanzaLength, key, keyLength);
        return id != none && attached(id) ? id : none;
    }
    bool attached(Id key) const { return keys_[key].next != detached; }
    /// Puts the key into the map, if it isn't there yet, without values.
    Id createKey(Id stanza, const char* key, size_t length);
    /// Takes an attached key out of the map with its values; its lines stay.
    void removeKey(Id key);

    // --- Values ---

    ZPValueView values(Id id, Kind kind) const {
        const ZPSlice* own = ownValue(keys_[id], kind);
        const KeyExtra* extra = zloadMade(keys_[id].extra);
        return extra == nullptr ? ZPValues::viewOfOwn(text_, own)
                                : extra->values[kind].view(text_, own);
    }
    /// Which kind a look-up of any kind answers with: plain unless only hidden values are there.
    Kind anyKind(Id key) const {
        return values(key, plain).count() == 0 && values(key, hidden).count() != 0 ? hidden : plain;
    }
    /// False as long as no key has ever had hidden values: most files never do, and then nobody
    /// has to look.
    bool mayHaveHidden() const { return __atomic_load_n(&mayHaveHidden_, __ATOMIC_RELAXED); }
    void appendValue(Id key, Kind kind, const char* value, size_t length);
    /// Replaces the values of `kind` by one, or by none if length is 0, and drops the other kind's.
    void replaceValues(Id key, Kind kind, const char* value, size_t length);

    /// The list object of these values; made at first use.
    ZArrayList* valueList(Id key, Kind kind) const;
    /// The list object of the stanza's keys; made at first use.
    ZArrayList* keyList(Id stanza) const;
    bool hasKeyList(Id stanza) const { return stanzas_[stanza].keyList.get() != nullptr; }
    /// The stanza's name as an object, for lists that don't own; made at first use.
    ZLCString* nameObject(Id stanza) const;
    /// The key's name with a NUL behind it, good until the key leaves the map; made at first use.
    /// Needs the owner's lock.
    const char* nameText(Id key);

    // --- Items: the keys that the side database follows ---

    void appendItem(Id key);  // at the end, also if it is in the chain already
    void removeItem(Id key);
    Id firstItem() const { return itemFirst_; }
    Id nextItem(Id key) const { return keys_[key].extra->itemNext; }
    uint32_t itemCount() const { return itemCount_; }

    // --- Lines ---

    /// A blank line, then the stanza's header line, at the end.
    void addHeader(Id stanza);
    /// Removes the first group that bears the stanza's name, if there is one.
    void removeGroup(Id stanza);
    /// A key line where a reader of the file expects it. The stanza must have a group.
    void placeKeyLine(Id key);
    /// Removes the key's lines from the first group of its stanza, and the record with them if
    /// nothing else needs it.
    void removeKeyLines(Id key);
    void addFileComment(const char* text, size_t length);
    void addStanzaComment(Id stanza, const char* text, size_t length);
    /// In front of the first line of that key text behind the stanza's header; nothing otherwise.
    void addKeyComment(Id key, const char* text, size_t length);
    bool hasLine(Id key) const { return keys_[key].line != none; }

    Id firstGroup() const { return 0; }
    const ZPGroup& group(Id id) const { return lines_.group(id); }
    const ZPLine& line(Id id) const { return lines_.line(id); }
    const Key& key(Id id) const { return keys_[id]; }
    const Stanza& stanza(Id id) const { return stanzas_[id]; }
    const ZPText& text() const { return text_; }
    const char* text(size_t offset) const { return text_.at(offset); }
    const char* text(const ZPSlice& slice) const { return text_.at(slice); }
    size_t textSize() const { return text_.size(); }

    // --- For the reader, which has the file's bytes in the text block already ---

    /// Room for `more` bytes behind the text, to read into; commitText makes them part of it.
    char* textRoom(size_t more) { return text_.room(more); }
    void commitText(size_t bytes) { text_.commit(bytes); }
    /// The errno at which the last reading failed, or 0.
    int readError() const { return readError_; }
    void setReadError(int error) { readError_ = error; }
    /// Takes bytes at the end back that nothing refers to.
    void truncateText(size_t size) { text_.truncate(size); }
    /// Makes room for what a file of that many lines brings at most.
    void reserveForLines(size_t lines);
    /// A header at the end whose name lies in the text; the stanza must not be in the map.
    Id readHeader(ZPSlice name);
    /// An entry of the group's stanza: one more value if length isn't 0; a key that is new gets a
    /// line at the end. `hash` is keyHash() of the stanza and the name. Returns the key.
    Id readEntry(Id group, ZPSlice name, ZPSlice value, uint32_t hash, bool& isNew) {
        if (keyIndex_.isFull() || keys_.isFull() || lines_.isFull()) {
            makeRoomForKey();
            lines_.reserve(1);
        }
        const Id stanzaId = lines_.group(group).stanza;
        const char* bytes = text(name);
        size_t slot;
        const Id found = keyIndex_.findOrPlace(hash, slot, [&](Id candidate, uint32_t) {
            const Key& key = keys_[candidate];
            return key.stanza == stanzaId && key.name.length == name.length &&
                   memcmp(text(key.name), bytes, name.length) == 0;
        });
        Stanza& stanza = stanzas_[stanzaId];
        if (found != none || stanza.keyList.get() != nullptr)
            return readEntrySlowly(group, name, value, hash, found, isNew);
        // The usual case, all in one: a new key at the end of its stanza and group.
        const Id id = keys_.take({name, value, stanzaId, none, none, stanza.last, nullptr});
        keyIndex_.insertAt(slot, hash, id, name.offset);
        *(stanza.last == none ? &stanza.first : &keys_[stanza.last].next) = id;
        stanza.last = id;
        ++stanza.count;
        keys_[id].line = lines_.appendKey(group, id);
        isNew = true;
        return id;
    }
    void readComment(Id group, ZPSlice comment) {
        lines_.reserve(1);
        lines_.appendComment(group, comment, text_);
    }
    void readBlank(Id group) {
        lines_.reserve(1);
        lines_.appendBlank(group, text_);
    }
    Id lastGroup() const { return lines_.lastGroup(); }
    uint32_t keyHash(Id stanza, const char* key, size_t length) const {
        return zhashOfBoth(stanzas_[stanza].hash, zhashOf({key, length}));
    }
    void prefetchKey(uint32_t hash) const { keyIndex_.prefetch(hash); }
    /// Says that so many bytes of the text are referred to by nobody.
    void addDead(size_t bytes) {
        text_.addUnused(bytes);
        compactIfWorthwhile();
    }

    /// Ends the process if an invariant doesn't hold; for tests and debug builds.
    void checkInvariants() const;

private:
    void compactIfWorthwhile();
    void moveText(ZPText& target);
    size_t textNeeded() const;

    bool isNamed(const Stanza& stanza, const char* name, size_t length) const {
        return stanza.name.length == length &&
               (length <= sizeof stanza.head ? memcmp(stanza.head, name, length) == 0
                                             : memcmp(text(stanza.name), name, length) == 0);
    }
    bool isNamed(const Key& key, ZSpan name) const {
        return key.name.length == name.size && memcmp(text(key.name), name.data, name.size) == 0;
    }
    uint32_t hashOf(Id key) const;
    Id newStanza(ZPSlice name, uint64_t hash);  // needs room made before
    Id newKey(Id stanza, ZPSlice name, uint32_t hash);
    void attach(Id key);
    void makeRoomForKey();
    void freeKeyIfUnneeded(Id key);
    void freeStanzaIfUnneeded(Id stanza);
    KeyExtra& extraOf(Id key);
    /// The record's room for a value of this kind.
    static const ZPSlice* ownValue(const Key& key, Kind kind) {
        return kind == plain ? &key.value : nullptr;
    }
    static ZPSlice* ownValue(Key& key, Kind kind) { return kind == plain ? &key.value : nullptr; }
    /// Whether the record itself takes the next plain value.
    static bool takesValue(const Key& key) {
        return key.value.length == 0 &&
               (key.extra == nullptr || !key.extra->values[plain].areHere());
    }
    void noteHidden() const { __atomic_store_n(&mayHaveHidden_, true, __ATOMIC_RELAXED); }
    void dropValues(Id key, Kind kind);
    void dropNameText(Id key) {
        if (key < nameTexts_.size()) {
            free(nameTexts_[key]);
            nameTexts_[key] = nullptr;
        }
    }
    void endCursors(Id stanza);  // those of the stanza, or all if it is none

    Id addGroup(Id stanza);
    Id readEntrySlowly(Id group, ZPSlice name, ZPSlice value, uint32_t hash, Id id, bool& isNew);
    /// The key has got one more line.
    void noteLine(Id key, Id line) {
        keys_[key].line = keys_[key].line == none ? line : kSeveralIds;
    }
    void countLines(Id key) {
        keys_[key].line = lines_.lineOfKey(stanzas_[keys_[key].stanza].group, key);
    }
    bool isFree(Id key) const { return keys_[key].stanza == none; }

    int readError_ = 0;
    ZPText text_;
    ZPPool<Key, &Key::line> keys_;
    ZPPool<Stanza, &Stanza::first> stanzas_;
    ZPLines lines_;
    ZPIndex keyIndex_;
    ZPIndex stanzaIndex_;
    uint32_t stanzasInMap_;
    Id itemFirst_, itemLast_;
    uint32_t itemCount_;
    ZPBlock<char*> nameTexts_;  // by key id, as far as a walk has needed it; null: not made
    Cursor* cursors_;
    mutable bool mayHaveHidden_;  // set by whoever makes room for hidden values, never cleared
    mutable bool mayHaveExtras_;  // likewise, for any KeyExtra
};

#endif
