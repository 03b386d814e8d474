// zpstore.h: the storage behind the property cache. Never installed.
//
// What it holds: stanzas, their keys and values, and the retained lines of the file, for files of
// ten keys and of millions. One object a key, value and line would cost near 1 KB a key, most of it
// pointers and rounding, and a cache miss for each. Instead:
//
//   text_      one block of bytes (zptext.h): names, values and comments are slices of it. It is
//              written anew when more than half of it is unused.
//   keys_      a 20-byte record a key (zpkeys.h): name, the value if there is exactly one plain
//              value, its line. The chain of a stanza's keys is told by their numbers (zplinks.h)
//              and takes room only where it was changed. What few keys have (several values, hidden
//              values, lists that were handed out) hangs on it as a ZPKeyExtra.
//   keyIndex_  from the hash of stanza and key together (zpnameindex.h), so that finding a value is
//              one probe, whatever the number of stanzas or keys. It knows where the name stands
//              too: at a million keys record and name, two cache misses, are fetched together.
//   lines_     the lines of the file (zplines.h): a key line names its key's record
//
// Invariants, checked by checkInvariants():
// (1) Every key record in use is in keyIndex_ exactly once, every stanza record in stanzaIndex_.
// (2) A key is in the map, or only remembered because a line still names it: then it has no values
//     and isn't followed. The key chain of a stanza holds exactly its keys in the map, in order of
//     first insertion; `count` is its length.
// (3) ZPKey::line is the key's only line, `none`, or `kSeveralIds`: then its lines have to be
//     looked for. A key line stands in a group of its key's stanza.
// (4) The lists of a key's values and of a stanza's keys that were handed out keep their identity
//     until the key or stanza leaves the map.
// (5) A stanza record lives while the stanza is in the map or a group bears its name;
//     ZPStanza::group is the first of its groups in file order, the others follow by
//     ZPGroup::nextOfStanza.
// (6) The chain of followed keys holds those whose values belong into the side database, in its
//     order; all are in the map.
// (7) A cursor of cursors_ stands on a key of its stanza in the map, or in front of all keys; what
//     takes a key or stanza out of the map moves its cursors first.
// (8) Slices of names, values and comments don't overlap, and cover no byte that text_ counts as
//     unused.
//
// Threads: changes, and looks for what to change, need the owner's lock. Look-ups may run side by
// side, also while one of them makes a list: lists are published by compare-and-swap and change no
// other field.
//
// Failure: ZOutOfMemoryException. Room is made before anything is linked, so that a call that
// raises has left all invariants whole.
#ifndef Z_ZPSTORE_H
#define Z_ZPSTORE_H

#include <cstdlib>
#include <cstring>
#include <memory>

#include "ZLCString.h"
#include "ZList.h"
#include "zdialecttext.h"
#include "zoldtext.h"
#include "zpkeys.h"
#include "zpnameindex.h"
#include "zplines.h"
#include "zptext.h"
#include "zpvalues.h"

/// What of a stanza was handed out as objects.
struct ZPStanzaObjects : ZAllocated {
    ZPLazy<ZArrayList> keyList;
    ZPLazy<ZLCString> name;
};

/// 64 bytes, a line of the processor's cache.
struct ZPStanza {
    ZPSlice name;
    char head[16];  // the name's first bytes, so that a short one is compared without its text
    uint64_t hash;
    ZPId first, last;  // its keys
    uint32_t count;    // of them
    ZPId group;        // the first of its groups
    ZPLazy<ZPStanzaObjects> objects;
    bool inUse;
    bool inMap;

    /// Its last keys are `more` from here on, which are chained behind the others.
    void noteKeys(ZPId firstNew, ZPId lastNew, uint32_t more) {
        if (last == kNoId)
            first = firstNew;
        last = lastNew;
        count += more;
    }
    ZArrayList* keyList() const {
        const ZPStanzaObjects* made = objects.get();
        return made == nullptr ? nullptr : made->keyList.get();
    }
    ZLCString* nameObject() const {
        const ZPStanzaObjects* made = objects.get();
        return made == nullptr ? nullptr : made->name.get();
    }
};
static_assert(sizeof(ZPStanza) <= 64, "stanzas are to be small");

/// A line that was read.
struct ZPReadLine {
    enum Kind : uint32_t { blank, comment, entry, bareEntry };  // bare: without a divider
    Kind kind;
    uint32_t hash;  // of an entry: ZPStore::keyHash() of stanza and name
    ZPSlice name;   // or a comment's text
    ZPSlice value;
};

/// A name with a NUL behind it.
typedef std::unique_ptr<char, ZPFree> ZPNameText;

/// What a store holds, apart from the class: it moves as a whole, so that no field can be
/// forgotten. What keys own is the store's to delete.
class ZPContent {
protected:
    ZPText text_;
    ZPKeys keys_;
    ZPPool<ZPStanza, &ZPStanza::first> stanzas_;
    ZPLines lines_;
    ZPNameIndex keyIndex_;
    ZPNameIndex stanzaIndex_;
    uint32_t stanzasInMap_ = 0;
    ZPId firstFollowed_ = kNoId, lastFollowed_ = kNoId;
    uint32_t followedCount_ = 0;
    ZPBlock<ZPNameText> nameTexts_;  // by key id, as far as a walk has needed it; null: not made
    ZOldText oldText_;
    size_t readStart_ = 0,
           readSize_ = 0;  // of text_: what was read of a dialect, while it is there
    std::shared_ptr<const ZDialect> dialect_;
    bool folds_ = false;        // it takes several spellings of a name for one
    bool lastWins_ = false;     // an entry that is read takes the place of all before it
    bool emptyResets_ = false;  // one without a value does
    bool hasGaps_ = false;      // a stanza was removed
    // Of a store that holds several files: see beginLayer.
    uint32_t layerStart_ = kNoId;
    bool keepsPlaces_ = false;
    bool collects_ = false;
    // Set by whoever makes room for hidden values, and never taken back.
    mutable bool mayHaveHidden_ = false;
};

class ZPStore : public ZAllocated, private ZPContent {
public:
    typedef ZPId Id;
    static constexpr Id none = kNoId;

    enum Kind { plain = 0, hidden = 1 };
    static constexpr uint32_t kBare = 0xFFFFFFFFu;  // the offset of no value, of a bare key

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
        /// Moves to this key, which is in the map.
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

    ZPStore() {}
    /// Copies stanzas, keys, values and lines; the copy's side database follows no keys.
    ZPStore(const ZPStore& other);
    ZPStore& operator=(const ZPStore&) = delete;

    /// What is read is of this dialect, and names are found by all spellings that it takes for the
    /// same; null: it is the library's own text. Requires: there is nothing yet.
    void setDialect(std::shared_ptr<const ZDialect> dialect) {
        zassert(keyIndex_.count() == 0 && stanzaIndex_.count() == 0);
        dialect_ = std::move(dialect);
        folds_ = dialect_ != nullptr && dialect_->names != ZDIALECT_EXACT;
        lastWins_ = dialect_ != nullptr && dialect_->values == ZDIALECT_LAST_VALUE;
        emptyResets_ = dialect_ != nullptr && dialect_->values == ZDIALECT_RESET_VALUES;
    }
    const std::shared_ptr<const ZDialect>& dialect() const { return dialect_; }

    /// Forgets all but the dialect, and ends all walks.
    void clear();
    /// Takes over what another store holds, in place of all of its own, and ends all walks.
    void take(ZPStore& other) noexcept {
        endCursors(none);
        other.endCursors(none);
        std::swap<ZPContent>(*this, other);
    }

    // --- Stanzas ---

    /// The record of that name, in the map or not; none if there is no record.
    Id findStanza(ZSpan name) const;
    /// The stanza of that name if it is in the map, else none.
    Id stanzaInMap(ZSpan name) const {
        const Id id = findStanza(name);
        return isStanzaInMap(id) ? id : none;
    }
    /// As findStanza(), with what spares another look.
    struct SoughtStanza {
        Id id;
        uint64_t hash;
    };
    SoughtStanza seekStanza(ZSpan name) const {
        const uint64_t hash = nameHash(name, true);
        return {findStanza(name, hash), hash};
    }
    bool isStanzaInMap(Id id) const { return id != none && stanzas_[id].inMap; }
    /// Puts the stanza into the map, if it isn't there yet.
    Id createStanza(ZSpan name);
    /// Takes the stanza with its keys out of the map; its lines stay.
    void removeStanza(Id stanza);
    uint32_t stanzaCount() const { return stanzasInMap_; }
    /// Whether any stanza was removed since this was filled.
    bool hasGaps() const { return hasGaps_; }
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
    Id findKey(ZSpan stanza, ZSpan key) const;
    /// Likewise, with what spares another look if it is to be made or removed, as long as nothing
    /// else has changed: then stanza and group, which such a change looks at, are fetched while the
    /// key is looked for.
    struct Sought {
        Id key;
        uint32_t hash;
        ZPNameIndex::Place place;  // of the key in the index
        Id stanza;                 // which most likely is the key's, or none
    };
    Sought seekToChange(ZSpan stanza, ZSpan key) const;
    /// A slot of the index that has to be looked for: another change may have moved it.
    static constexpr size_t kUnknown = SIZE_MAX;
    /// Where there are many keys, what a change of that key looks at first can be fetched while the
    /// lock is taken. Any thread may call these without the owner's lock, while the store lives.
    bool isWorthFetching() const { return ahead_.isLarge(); }
    void fetchAhead(ZSpan stanza, ZSpan key) const;
    /// As stanzaInMap(), of the stanza where a key was sought.
    Id stanzaInMap(ZSpan name, const Sought& sought) const {
        Id id = sought.stanza;
        if (id != none && !isNamed(stanzas_[id], name))
            id = findStanza(name);
        return isStanzaInMap(id) ? id : none;
    }
    /// The key if it is in the map, else none.
    Id keyInMap(ZSpan stanza, ZSpan key) const {
        const Id id = findKey(stanza, key);
        return id != none && isInMap(id) ? id : none;
    }
    /// All ids of keys are below.
    Id keyEnd() const { return keys_.end(); }
    bool isInMap(Id key) const { return keys_.isInMap(key); }
    /// Puts the key into the map, if it isn't there yet, without values.
    Id createKey(Id stanza, ZSpan key);
    /// Likewise a key that isn't in the map, as seekToChange() told of it.
    Id createKey(Id stanza, ZSpan key, const Sought& sought);
    /// Likewise one of which there is no record, with this plain value and a line where a reader of
    /// the file expects it, if nothing has to grow, to be looked for or to be tidied; else false,
    /// and nothing is done. This is what most changes of many keys come to. Requires: the stanza is
    /// in the map.
    bool createKeyAtOnce(Id stanza, ZSpan key, const Sought& sought, ZSpan value);
    /// Takes a key out of the map with its values; its lines stay. Requires: it is there.
    void removeKey(Id key) { removeKey(key, kUnknown); }
    /// Removes a key's lines from the first group of its stanza, takes the key out of the map, and
    /// forgets the record if nothing else needs it. Requires: there is one. The slot of its place
    /// may be kUnknown.
    void removeWithLines(const Sought& sought);

    // --- Values ---

    /// The value of a key that has no more than one, plain or hidden: then false means none. Asked
    /// only as long as no key has had anything else.
    bool areValuesSimple() const { return !keys_.mayHaveExtras(); }
    ZPSlice simpleValue(Id key) const { return keys_.value(key); }

    ZPValueView values(Id id, Kind kind) const {
        const ZPSlice own = ownValue(id, kind);
        const ZPKeyExtra* extra = keys_.extra(id);
        return extra == nullptr ? ZPValueView(text_, own) : extra->values[kind].view(text_, own);
    }
    /// Which kind a look-up of any kind answers with: plain unless only hidden values are there.
    Kind anyKind(Id key) const {
        return values(key, plain).count() == 0 && values(key, hidden).count() != 0 ? hidden : plain;
    }
    /// False as long as no key has ever had hidden values: most files never do, and then nobody
    /// has to look.
    bool mayHaveHidden() const { return __atomic_load_n(&mayHaveHidden_, __ATOMIC_RELAXED); }
    /// One more value; an empty one adds none.
    void appendValue(Id key, Kind kind, ZSpan value);
    /// Replaces the values of `kind` by one, or by none if it is empty, and drops the other kind's.
    void replaceValues(Id key, Kind kind, ZSpan value);

    /// Whether the key stands there without a divider, and so has no values.
    bool isBare(Id key) const {
        const ZPSlice value = keys_.value(key);
        return value.length == 0 && value.offset == kBare && values(key, plain).count() == 0;
    }
    /// Makes it such a key.
    void setBare(Id key) {
        dropValues(key, plain);
        dropValues(key, hidden);
        markBare(key);
    }
    /// Likewise one that has just been read, if it has no values.
    void markBare(Id key) {
        if (values(key, plain).count() == 0)
            keys_.setValue(key, {kBare, 0});
    }

    /// It has a divider from here on.
    void unmarkBare(Id key) {
        if (keys_.value(key).length == 0)
            keys_.setValue(key, {0, 0});
    }

    /// The list object of these values; made at first use.
    ZArrayList* valueList(Id key, Kind kind) const;
    /// The list object of the stanza's keys; made at first use.
    ZArrayList* keyList(Id stanza) const;
    bool hasKeyList(Id stanza) const { return stanzas_[stanza].keyList() != nullptr; }
    /// The stanza's name as an object, for lists that don't own; made at first use.
    ZLCString* nameObject(Id stanza) const;
    /// The key's name with a NUL behind it, good until the key leaves the map; made at first use.
    /// Needs the owner's lock.
    const char* nameText(Id key);

    // --- The keys that the side database follows ---

    void follow(Id key);  // as the last, also if it is among them already
    void unfollow(Id key) {
        if (followedCount_ != 0)
            takeFromFollowed(key);
    }
    Id firstFollowed() const { return firstFollowed_; }
    Id nextFollowed(Id key) const { return keys_.extra(key)->followedNext; }
    uint32_t followedCount() const { return followedCount_; }

    // --- Lines ---

    /// A blank line, then the stanza's header line, at the end.
    void addHeader(Id stanza);
    /// Removes the first group that bears the stanza's name, if there is one.
    void removeGroup(Id stanza);
    /// A key line where a reader of the file expects it. The stanza must have a group.
    void placeKeyLine(Id key);
    void addFileComment(ZSpan text) { lines_.addFileComment(text, text_); }
    /// The stanza must have a group.
    void addStanzaComment(Id stanza, ZSpan text);
    /// In front of the first line of that key text behind the stanza's header; nothing otherwise.
    void addKeyComment(Id key, ZSpan text);
    /// Removes comment lines of a group, from `first` to ahead of `end`.
    void removeComments(Id group, Id first, Id end) {
        lines_.removeComments(group, first, end, text_);
        compactIfWorthwhile();
    }
    bool hasLine(Id key) const { return keys_.line(key) != none; }

    // --- Other names, and lines of another kind ---

    /// Gives a stanza, or a key of the map, another name; lines and order stay. The walks of the
    /// stanza end, those on the key stand ahead of it then. Requires: nothing of that name is in
    /// the map. What only lines remember of the name is forgotten with these lines. Linear in all
    /// keys; constant but for a key list that was handed out.
    void renameStanza(Id stanza, ZSpan name);
    void renameKey(Id key, ZSpan name);
    /// Puts the key's line in the place of a comment of a group of its stanza.
    void replaceComment(Id group, Id comment, Id key) {
        noteLine(key, lines_.replaceComment(group, comment, key, text_));
        compactIfWorthwhile();
    }
    /// Puts a comment directly in front of a line.
    void insertCommentBefore(Id group, Id line, ZSpan comment) {
        lines_.insertCommentBefore(group, line, comment, text_);
    }
    /// Takes all lines of a key away, and its record with them unless it is in the map.
    void forgetLines(Id key);
    /// What was done to lines since the text was read, for stores that keep lines.
    ZOldText& oldText() { return oldText_; }
    /// The text of a dialect from here on is what was read.
    void noteRead(size_t start, size_t size) {
        readStart_ = start;
        readSize_ = size;
    }
    /// The text of a dialect from which this was read, or as which it was stored; empty where it
    /// was made of several.
    ZSpan readText() const {
        return oldText_.isKept() ? oldText_.kept() : ZSpan{text_.at(readStart_), readSize_};
    }

    Id firstGroup() const { return 0; }
    const ZPGroup& group(Id id) const { return lines_.group(id); }
    const ZPLine& line(Id id) const { return lines_.line(id); }
    /// Where the text of a comment line is.
    ZPSlice comment(Id line) const { return lines_.comment(line); }
    /// The neighbours of a line in its group, or none.
    Id nextLine(Id line) const { return lines_.next(line); }
    Id prevLine(Id line) const { return lines_.prev(line); }
    ZPKey key(Id id) const { return keys_[id]; }
    /// The next in the stanza's key order, or none.
    Id nextKey(Id key) const { return keys_.next(key); }
    const ZPStanza& stanza(Id id) const { return stanzas_[id]; }
    const ZPText& text() const { return text_; }
    const char* text(size_t offset) const { return text_.at(offset); }
    const char* text(const ZPSlice& slice) const { return text_.at(slice); }
    size_t textSize() const { return text_.size(); }

    // --- Several files, one over the other ---
    //
    // What a later file says of a key takes the place of what earlier ones said, or with `collects`
    // comes behind it. Bytes that were read stay at their places in the text for good, so that the
    // place of a value tells the file and line that it came from: values that are set stand behind
    // them.

    /// What is read from here on is another file's, over those before.
    void beginLayer(bool collects) {
        layerStart_ = static_cast<uint32_t>(text_.size());
        keepsPlaces_ = true;
        collects_ = collects;
    }
    bool readsLayers() const { return layerStart_ != none; }
    /// What comes from here on is no file's.
    void endLayers() { layerStart_ = none; }
    /// A value that this file has besides its text; an empty one is an entry without a value.
    void addLayerValue(ZSpan stanza, ZSpan key, Kind kind, ZSpan value);
    /// A header of the file that is read, of a stanza that is in the map: the stanza's group; none
    /// if this file has had one already. The name is spelled as the stanza's.
    Id readHeaderAgain(Id stanza, ZPSlice name);
    /// Where the values of a key stand in the text, or stood when they were read: those that were
    /// set since have other bytes there, or stand behind all that was read. Length 0: there is
    /// none.
    ZPSlice placeOfValue(Id id, Kind kind, uint32_t index) const {
        const ZPKeyExtra* extra = keys_.extra(id);
        if (extra != nullptr && extra->values[kind].slice(index) != nullptr)
            return *extra->values[kind].slice(index);
        return index == 0 ? ownValue(id, kind) : ZPSlice{0, 0};
    }

    // --- For the reader, which has the file's bytes in the text block already ---

    /// Room for `more` bytes behind the text, to read into; commitText makes them part of it.
    char* textRoom(size_t more, size_t spare = 0) { return text_.room(more, spare); }
    void commitText(size_t bytes) { text_.commit(bytes); }
    /// The errno at which the last reading failed, or 0.
    int readError() const { return readError_; }
    void setReadError(int error) { readError_ = error; }
    /// Takes bytes at the end back that nothing refers to.
    void truncateText(size_t size) { text_.truncate(size); }
    /// What was read and doesn't stand in the text as it is.
    ZPSlice addText(ZSpan text) { return text_.append(text); }
    /// Many lines are about to be read: a single change of them is to stay cheap. Requires: there
    /// is nothing yet.
    void expectMany() {
        keys_.expectMany();
        lines_.expectMany();
    }
    /// Makes room for what a file of that many lines brings, `keys` of them keys.
    void reserveForLines(size_t lines, size_t keys);
    /// For that many stanzas.
    void expectStanzas(size_t stanzas);
    /// For what the text from `start` on will bring, as far as can be guessed.
    void reserveForText(size_t start);
    /// A header at the end whose name lies in the text: its group. `sought` is what was found of
    /// the name: no stanza of the map.
    Id readHeader(ZPSlice name, const SoughtStanza& sought);
    /// Lines of a group, at its end. An entry is one more value of its key if it has a value, and
    /// a key that is new gets a line.
    void readLines(Id group, const ZPReadLine* lines, size_t count);
    Id lastGroup() const { return lines_.lastGroup(); }
    __attribute__((always_inline)) uint32_t keyHash(Id stanza, ZSpan key) const {
        return zhashOfBoth(stanzas_[stanza].hash, nameHash(key, false));
    }
    __attribute__((always_inline)) void prefetchKey(uint32_t hash) const {
        keyIndex_.prefetch(hash);
    }
    /// So many bytes of the text are in no slice.
    void addUnused(size_t bytes) {
        text_.addUnused(bytes);
        compactIfWorthwhile();
    }

    /// Ends the process if an invariant doesn't hold; for tests and debug builds.
    void checkInvariants() const;

private:
    void compactIfWorthwhile();
    void moveText(ZPText& target);
    size_t textNeeded() const;

    bool isNamed(const ZPStanza& stanza, ZSpan name) const {
        return (stanza.name.length == name.size &&
                zsameBytes(name.size <= sizeof stanza.head ? stanza.head : text(stanza.name),
                           name.data, name.size)) ||
               (folds_ && foldAlike(text_.span(stanza.name), name, true));
    }
    bool isNamed(Id key, ZSpan name) const {
        return (keys_.hasLength(key, name.size) &&
                zsameBytes(text(keys_.name(key).offset), name.data, name.size)) ||
               (folds_ && foldAlike(text_.span(keys_.name(key)), name, false));
    }
    bool isKeyOf(Id key, Id stanza, ZSpan name) const {
        return keys_.stanza(key) == stanza && isNamed(key, name);
    }
    __attribute__((always_inline)) uint64_t nameHash(ZSpan name, bool isStanza) const {
        return folds_ ? zfoldedHash(*dialect_, name, isStanza) : zhashOf(name);
    }
    bool foldAlike(ZSpan a, ZSpan b, bool areStanzas) const;
    uint32_t hashOf(Id key) const;
    Id findStanza(ZSpan name, uint64_t hash) const;
    bool isKeyAt(Id id, uint32_t offset, ZSpan stanza, ZSpan key) const;
    Id prefetchStanza(uint64_t hash) const;
    ZPStanzaObjects& makeObjects(Id stanza) const;
    // These need room made before.
    Id newStanza(ZPSlice name, uint64_t hash);
    Id newKey(Id stanza, ZPSlice name, uint32_t hash, bool isRead = false);
    void putStanzaIntoMap(Id stanza);
    void putIntoMap(Id key);
    bool makeRoomForKey(size_t nameLength);
    void makeRoomInKeyIndex(size_t keys);
    void makeRoomForStanza();
    void makeRoomInStanzaIndex(size_t stanzas);
    void removeKey(Id key, size_t slot);
    bool takeLinesOut(Id key);
    void takeOutOfIndex(Id key, size_t slot = kUnknown);
    void takeStanzaOutOfIndex(Id stanza);
    void freeKeyIfUnneeded(Id key, size_t slot = kUnknown);
    void freeStanzaIfUnneeded(Id stanza);
    ZPSlice ownValue(Id key, Kind kind) const {
        return kind == plain ? keys_.value(key) : ZPSlice{0, 0};
    }
    /// Calls change(values, own) with what the key has of this kind, for changes of both.
    template <typename Change>
    void changeValues(Id key, Kind kind, Change change) {
        ZPValues& values = keys_.makeExtra(key).values[kind];
        if (kind == hidden)
            return change(values, static_cast<ZPSlice*>(nullptr));
        ZPSlice own = keys_.value(key);
        change(values, &own);
        keys_.setValue(key, own);
    }
    /// Whether the record itself takes the next plain value.
    bool takesValue(Id key) const {
        const ZPKeyExtra* extra = keys_.extra(key);
        return keys_.value(key).length == 0 &&
               (extra == nullptr || !extra->values[plain].areHere());
    }
    /// Makes room for a plain value that the record is to have.
    void makeRoomForValue(Id key, size_t length) {
        if (length >= ZPKeys::kLong)
            keys_.makeExtra(key);
    }
    void noteHidden() const { __atomic_store_n(&mayHaveHidden_, true, __ATOMIC_RELAXED); }
    void takeFromFollowed(Id key);
    void dropValues(Id key, Kind kind);
    void dropNameText(Id key) {
        if (key < nameTexts_.size())
            nameTexts_[key].reset();
    }
    void endCursors(Id stanza);  // those of the stanza, or all if it is none

    Id addGroup(Id stanza);
    void forgetLowerValues(Id key, Kind kind, bool isEmpty);
    void forgetValuesAbove(Id key, bool isEmpty);
    bool isReadyToRead(Id group, size_t lines) const;
    template <bool isFew>
    const ZPReadLine* readNewKeys(Id group, const ZPReadLine* line, const ZPReadLine* end,
                                  Id& known);
    void chainPushed(Id group, Id first) noexcept;
    Id findRead(Id group, const ZPReadLine& line) const;
    void readOther(Id group, const ZPReadLine& line);
    Id readEntry(Id group, const ZPReadLine& line, Id id);
    /// The key has got one more line.
    void noteLine(Id key, Id line) {
        keys_.setLine(key, keys_.line(key) == none ? line : kSeveralIds);
    }
    void countLines(Id key) {
        keys_.setLine(key, lines_.lineOfKey(stanzas_[keys_.stanza(key)].group, key));
    }
    bool isFree(Id key) const { return keys_.isFree(key); }

    int readError_ = 0;
    Cursor* cursors_ = nullptr;
    mutable ZPNameIndex::Ahead ahead_;  // as the last look to change has left it
};

#endif
