#include "zpstore.h"

#include <initializer_list>
#include <memory>

#include "zpholds.h"
#include "zraise.h"

// Lengths are 32 bits wide, in lists too.
static void requireLength(size_t length) {
    if (length > ZPText::kMaxSize)
        zraise(ZOutOfMemoryException());
}

static void addString(ZArrayList& list, ZSpan text) {
    std::unique_ptr<ZLCString> string(
        new ZLCString(text.data, static_cast<unsigned int>(text.size)));
    list.addNoCopy(string.get());
    string.release();
}

// ---------------------------------------------------------------- life

ZPStore::ZPStore(const ZPStore& other) : ZPStore() {
    setDialect(other.dialect_);
    // The delegated constructor has finished, so that the destructor clears up if this raises.
    text_.reserve(other.text_.size());
    if (dialect_ != nullptr)
        oldText_.keepAs(other.readText(), other.oldText_);
    hasGaps_ = other.hasGaps_;
    makeRoomForKey();
    keys_.reserveMore(other.keyIndex_.count());
    keyIndex_.reserve(other.keyIndex_.count());
    // The lines first, in file order, for they decide where the text comes to lie.
    for (Id g = 0; g != none; g = other.group(g).next) {
        Id group = 0;
        if (g != 0) {
            const ZSpan name = other.text_.span(other.stanzas_[other.group(g).stanza].name);
            Id stanza = findStanza(name);
            if (stanza == none) {
                stanza = createStanza(name);
                stanzas_[stanza].inMap = false;  // whether it is follows below
                --stanzasInMap_;
            }
            lines_.reserveGroup();
            group = addGroup(stanza);
        }
        other.lines_.forEach(g, [&](const ZPLine& line) {
            lines_.reserve(1);
            if (line.isBlank()) {
                lines_.appendBlank(group, text_);
            } else if (line.isComment()) {
                lines_.appendComment(group, text_.append(other.text_.span(line.slice())), text_);
            } else {
                const ZSpan name = other.text_.span(other.keys_[line.ref].name);
                const Id stanza = lines_.group(group).stanza;
                Id key = findKey(text_.span(stanzas_[stanza].name), name);
                if (key == none) {
                    makeRoomForKey();
                    key = newKey(stanza, text_.append(name), keyHash(stanza, name));
                }
                noteLine(key, lines_.appendKey(group, key));
            }
        });
    }
    // Then the map, in key order.
    other.forEachStanza([&](Id s) {
        const ZPStanza& source = other.stanzas_[s];
        const Id stanza = createStanza(other.text_.span(source.name));
        for (Id k = source.first; k != none; k = other.keys_[k].next) {
            const ZPKey& from = other.keys_[k];
            const Id key = createKey(stanza, other.text_.span(from.name));
            if (other.isBare(k))
                markBare(key);
            for (Kind kind : {plain, hidden}) {
                const ZPValueView values = other.values(k, kind);
                if (values.count() == 0)
                    continue;
                if (kind == hidden)
                    noteHidden();
                if (kind == plain && values.onlySlice() != nullptr)
                    keys_[key].value = text_.append(values[0]);
                else
                    extraOf(key).values[kind].copy(text_, ownValue(keys_[key], kind), values);
            }
        }
    });
}

ZPStore::~ZPStore() {
    for (Id i = 0; mayHaveExtras_ && i < keys_.end(); ++i)
        delete keys_[i].extra;  // null in records that were given back
}

void ZPStore::clear() {
    // A fresh store takes the place of this one; the old content goes with it.
    ZPStore fresh;
    fresh.setDialect(dialect_);
    endCursors(none);
    std::swap<ZPContent>(*this, fresh);
}

// ---------------------------------------------------------------- text

void ZPStore::compactIfWorthwhile() {
    if (keepsPlaces_ || !text_.isWorthCompacting())
        return;
    // Without memory for it the text just stays as it is; nobody has asked for anything.
    try {
        // The signs that the writer puts between them may make it longer than offsets reach: then
        // there is no room either.
        ZPText target;
        target.reserve(textNeeded() + text_.size() / 8);
        if (readSize_ != 0 && !oldText_.isKept())
            oldText_.keep(readText());
        readSize_ = 0;
        moveText(target);
    } catch (ZOutOfMemoryException&) {
    }
}

// The bytes that moveText puts into its target, and a bit more.
size_t ZPStore::textNeeded() const {
    size_t needed = 0;
    for (Id g = 0; g != none; g = group(g).next)
        lines_.forEach(g, [&](const ZPLine& line) {
            needed += line.isComment() ? line.slice().length + 1 : 0;
        });
    stanzaIndex_.forEach([&](Id s) { needed += stanzas_[s].name.length + 3; });
    keyIndex_.forEach([&](Id k) {
        const ZPKey& key = keys_[k];
        needed += key.name.length + key.value.length + 4;
        if (key.extra != nullptr)
            for (ZPValues& values : key.extra->values)
                values.forEachSlice([&](const ZPSlice& slice) { needed += slice.length; });
    });
    return needed;
}

// Writes all slices into `target`, which has room for them, in file order and in the form of the
// file, so that the writer can copy runs of it; `target` is the text then. Raises before anything
// has changed.
void ZPStore::moveText(ZPText& target) {
    // What was moved already.
    ZPBlock<bool> movedKeys, movedStanzas;
    for (movedKeys.reserveExactly(keys_.end()); movedKeys.size() < keys_.end();)
        movedKeys.push(false);
    for (movedStanzas.reserveExactly(stanzas_.end()); movedStanzas.size() < stanzas_.end();)
        movedStanzas.push(false);

    auto move = [&](ZPSlice& slice) { slice = target.append(text_.span(slice)); };
    auto moveStanza = [&](Id s) {
        if (movedStanzas[s])
            return;
        movedStanzas[s] = true;
        target.append({"[", 1});
        move(stanzas_[s].name);
        target.append({"]\n", 2});
    };
    auto moveKey = [&](Id k) {
        if (movedKeys[k])
            return;
        movedKeys[k] = true;
        ZPKey& key = keys_[k];
        move(key.name);
        if (key.value.length != 0) {
            target.append({" = ", 3});
            move(key.value);
        }
        target.append({"\n", 1});
        if (key.extra != nullptr)
            for (ZPValues& values : key.extra->values)
                values.forEachSlice(move);
    };
    for (Id g = 0; g != none; g = group(g).next) {
        if (g != 0)
            moveStanza(group(g).stanza);
        for (Id l = group(g).first; l != none; l = line(l).next) {
            if (line(l).isKey()) {
                moveKey(line(l).ref);
            } else if (line(l).isComment()) {
                lines_.moveComment(l, move);
                target.append({"\n", 1});
            }
        }
    }
    stanzaIndex_.forEach(moveStanza);
    keyIndex_.forEach(moveKey);
    text_ = std::move(target);
    keyIndex_.renewOffsets([&](Id key) { return keys_[key].name.offset; });
    stanzaIndex_.renewOffsets([&](Id stanza) { return stanzas_[stanza].name.offset; });
}

// ---------------------------------------------------------------- stanzas

ZPStore::Id ZPStore::findStanza(ZSpan name) const {
    return stanzaIndex_.find(znarrowHash(nameHash(name, true)),
                             [&](Id id, uint32_t) { return isNamed(stanzas_[id], name); });
}

ZPStore::Id ZPStore::newStanza(ZPSlice name, uint64_t hash) {
    ZPStanza fresh = {name, {}, hash, none, none, 0, none, true, false, {}, {}};
    memcpy(fresh.head, text(name),
           name.length < sizeof fresh.head ? name.length : sizeof fresh.head);
    const Id id = stanzas_.take(std::move(fresh));
    stanzaIndex_.insert(znarrowHash(hash), id, name.offset);
    return id;
}

ZPStore::Id ZPStore::createStanza(ZSpan name) {
    Id id = findStanza(name);
    if (id == none) {
        stanzas_.reserveMore(1);
        stanzaIndex_.reserveMore(1);
        id = newStanza(text_.append(name), nameHash(name, true));
    }
    putStanzaIntoMap(id);
    return id;
}

void ZPStore::putStanzaIntoMap(Id id) {
    if (stanzas_[id].inMap)
        return;
    stanzas_[id].inMap = true;
    ++stanzasInMap_;
}

void ZPStore::removeStanza(Id id) {
    hasGaps_ = true;
    ZPStanza& stanza = stanzas_[id];
    if (!stanza.inMap)
        return;
    endCursors(id);
    // The handed-out list goes first: it would be shortened key by key otherwise.
    stanza.keyList.reset();
    stanza.nameObject.reset();
    while (stanza.first != none)
        removeKey(stanza.first);
    stanza.inMap = false;
    --stanzasInMap_;
    freeStanzaIfUnneeded(id);
}

void ZPStore::freeStanzaIfUnneeded(Id id) {
    ZPStanza& stanza = stanzas_[id];
    if (stanza.inMap || stanza.group != none)
        return;
    zassert(stanza.inUse && stanza.count == 0);
    stanzaIndex_.remove(znarrowHash(stanza.hash), id);
    text_.drop(stanza.name);
    stanza.inUse = false;
    stanzas_.giveBack(id);
}

// ---------------------------------------------------------------- keys

ZPStore::Id ZPStore::findKey(ZSpan stanza, ZSpan key) const {
    const uint32_t hash = zhashOfBoth(nameHash(stanza, true), nameHash(key, false));
    return keyIndex_.find(hash, [&](Id id, uint32_t offset) {
        const ZPKey& candidate = keys_[id];
        __builtin_prefetch(&candidate);
        const bool isSame = text_.stands(offset, key) && candidate.name.length == key.size;
        return (isSame || (folds_ && foldAlike(text_.span(candidate.name), key, false))) &&
               isNamed(stanzas_[candidate.stanza], stanza);
    });
}

// Only dialects whose names have several spellings come here.
uint64_t ZPStore::foldedHash(ZSpan name, bool isStanza) const {
    if (!zfoldsNames(*dialect_, isStanza))
        return zhashOf(name);
    // Where only the case makes a difference nothing has to be copied.
    if (!(isStanza && (dialect_->headers & ZDIALECT_SUBSECTIONS) != 0) &&
        (dialect_->names != ZDIALECT_FOLDED_BLANKS || !zhasDialectBlank(name)))
        return zhashOfMapped(name, [](uint64_t eight) { return zdialectLower(eight); });
    char folded[256];
    if (name.size <= sizeof folded)
        return zhashOf({folded, zdialectFold(*dialect_, name, isStanza, folded)});
    ZBytes all;
    zdialectFold(*dialect_, name, isStanza, all);
    return zhashOf(zspanOf(all));
}

bool ZPStore::foldAlike(ZSpan a, ZSpan b, bool areStanzas) const {
    ZBytes left, right;
    zdialectFold(*dialect_, a, areStanzas, left);
    zdialectFold(*dialect_, b, areStanzas, right);
    return zequals(zspanOf(left), zspanOf(right));
}

uint32_t ZPStore::hashOf(Id id) const {
    const ZPKey& key = keys_[id];
    return keyHash(key.stanza, text_.span(key.name));
}

void ZPStore::makeRoomForKey() {
    keys_.reserveMore(1);
    keyIndex_.reserveMore(1);
}

ZPStore::Id ZPStore::newKey(Id stanza, ZPSlice name, uint32_t hash) {
    const Id id = keys_.take({name, {0, 0}, stanza, none, outsideMap, none, nullptr});
    keyIndex_.insert(hash, id, name.offset);
    return id;
}

// At the end of its stanza's key order. A handed-out key list takes the name first, since that
// alone can fail.
void ZPStore::putIntoMap(Id id) {
    zassert(!isInMap(id));
    ZPKey& key = keys_[id];
    ZPStanza& stanza = stanzas_[key.stanza];
    zassert(stanza.inMap);
    if (ZArrayList* list = stanza.keyList.get())
        addString(*list, text_.span(key.name));
    key.next = none;
    key.prev = stanza.last;
    if (stanza.last != none)
        keys_[stanza.last].next = id;
    else
        stanza.first = id;
    stanza.last = id;
    ++stanza.count;
}

ZPStore::Id ZPStore::createKey(Id stanza, ZSpan name) {
    const uint32_t hash = keyHash(stanza, name);
    Id id = keyIndex_.find(hash, [&](Id candidate, uint32_t) {
        return keys_[candidate].stanza == stanza && isNamed(keys_[candidate], name);
    });
    if (id != none && isInMap(id))
        return id;
    const bool made = id == none;
    if (made) {
        makeRoomForKey();
        id = newKey(stanza, text_.append(name), hash);
    }
    try {
        putIntoMap(id);
    } catch (...) {
        if (made)
            freeKeyIfUnneeded(id);
        throw;
    }
    return id;
}

void ZPStore::removeKey(Id id) {
    zassert(!isFree(id) && isInMap(id));
    ZPKey& key = keys_[id];
    ZPStanza& stanza = stanzas_[key.stanza];
    if (ZArrayList* list = stanza.keyList.get()) {
        const ZLCString name(text(key.name), key.name.length);
        const unsigned int last = list->size() - 1;
        if (stanza.last == id && name.equals(*list->get(last)))
            list->remove(last);
        else
            list->remove(&name);
    }
    for (Cursor* c = cursors_; c != nullptr; c = c->next_)
        if (c->key_ == id) {
            c->key_ = key.prev;
            c->isOnKey_ = false;
        }
    dropNameText(id);
    unfollow(id);
    dropValues(id, plain);
    dropValues(id, hidden);
    delete key.extra;
    key.extra = nullptr;
    if (key.prev != none)
        keys_[key.prev].next = key.next;
    else
        stanza.first = key.next;
    if (key.next != none)
        keys_[key.next].prev = key.prev;
    else
        stanza.last = key.prev;
    key.next = outsideMap;
    zassert(stanza.count != 0);
    --stanza.count;
    freeKeyIfUnneeded(id);
}

void ZPStore::freeKeyIfUnneeded(Id id) {
    zassert(!isFree(id));
    ZPKey& key = keys_[id];
    if (isInMap(id) || key.line != none)
        return;
    zassert(key.extra == nullptr && key.value.length == 0);
    keyIndex_.remove(hashOf(id), id);
    text_.drop(key.name);
    key.stanza = none;
    keys_.giveBack(id);
}

// ---------------------------------------------------------------- values

ZPKeyExtra& ZPStore::extraOf(Id id) {
    ZPKey& key = keys_[id];
    if (key.extra == nullptr) {
        key.extra = new ZPKeyExtra;
        mayHaveExtras_ = true;
    }
    return *key.extra;
}

void ZPStore::dropValues(Id id, Kind kind) {
    ZPKey& key = keys_[id];
    if (key.extra != nullptr) {
        key.extra->values[kind].drop(text_, ownValue(key, kind));
    } else if (kind == plain) {
        text_.drop(key.value);
    }
    if (kind == plain)
        key.value = {0, 0};
}

void ZPStore::appendValue(Id id, Kind kind, ZSpan value) {
    if (value.size == 0)
        return;
    requireLength(value.size);
    if (kind == hidden)
        noteHidden();
    ZPKey& key = keys_[id];
    if (layerStart_ != none)
        forgetLowerValues(id, kind, false);
    if (kind == plain && takesValue(key))
        key.value = text_.append(value);
    else
        extraOf(id).values[kind].append(text_, ownValue(key, kind), value);
}

void ZPStore::replaceValues(Id id, Kind kind, ZSpan value) {
    requireLength(value.size);
    ZPKey& key = keys_[id];
    // The usual case: one plain value takes the place of another and fits into its room.
    const bool isAlone = key.extra == nullptr || !(key.extra->values[plain].areHere() ||
                                                   key.extra->values[hidden].areHere());
    if (isAlone && kind == plain && value.size != 0 && key.value.length >= value.size &&
        !keepsPlaces_) {
        text_.overwrite(key.value, value);
        compactIfWorthwhile();
        return;
    }
    if (kind == hidden)
        noteHidden();
    if (value.size == 0) {
        dropValues(id, kind);
    } else if (kind == hidden || key.extra != nullptr) {
        extraOf(id).values[kind].replace(text_, ownValue(key, kind), value);
    } else {
        const ZPSlice fresh = text_.append(value);
        dropValues(id, plain);
        key.value = fresh;
    }
    // Last, for the value may be the text of one of these.
    dropValues(id, kind == plain ? hidden : plain);
    compactIfWorthwhile();
}

// ---------------------------------------------------------------- what is handed out

ZArrayList* ZPStore::valueList(Id id, Kind kind) const {
    if (kind == hidden)
        noteHidden();
    const ZPKey& key = keys_[id];
    ZPKeyExtra* extra = zloadMade(key.extra);
    if (extra == nullptr) {
        extra = zpublish(key.extra, std::unique_ptr<ZPKeyExtra>(new ZPKeyExtra));
        __atomic_store_n(&mayHaveExtras_, true, __ATOMIC_RELAXED);
    }
    return extra->values[kind].list(text_, ownValue(key, kind));
}

ZArrayList* ZPStore::keyList(Id id) const {
    const ZPStanza& stanza = stanzas_[id];
    if (ZArrayList* list = stanza.keyList.get())
        return list;
    std::unique_ptr<ZArrayList> fresh(new ZArrayList(stanza.count, 1));
    for (Id k = stanza.first; k != none; k = keys_[k].next)
        addString(*fresh, text_.span(keys_[k].name));
    return stanza.keyList.publish(std::move(fresh));
}

ZLCString* ZPStore::nameObject(Id id) const {
    const ZPStanza& stanza = stanzas_[id];
    if (ZLCString* name = stanza.nameObject.get())
        return name;
    return stanza.nameObject.publish(
        std::unique_ptr<ZLCString>(new ZLCString(text(stanza.name), stanza.name.length)));
}

const char* ZPStore::nameText(Id id) {
    if (id >= nameTexts_.size()) {
        nameTexts_.reserveMore(keys_.end() - nameTexts_.size());
        while (nameTexts_.size() < keys_.end())
            nameTexts_.push(nullptr);
    }
    if (nameTexts_[id] == nullptr) {
        const ZSpan name = text_.span(keys_[id].name);
        char* copy = static_cast<char*>(malloc(name.size + 1));
        if (copy == nullptr)
            zraise(ZOutOfMemoryException());
        memcpy(copy, name.data, name.size);
        copy[name.size] = '\0';
        nameTexts_[id].reset(copy);
    }
    return nameTexts_[id].get();
}

// ---------------------------------------------------------------- cursors

ZPStore::Cursor::Cursor(ZPStore& store, Id stanza)
    : store_(store), next_(store.cursors_), stanza_(stanza), key_(none), isOnKey_(false) {
    store.cursors_ = this;
}

ZPStore::Cursor::~Cursor() {
    Cursor** at = &store_.cursors_;
    while (*at != this)
        at = &(*at)->next_;
    *at = next_;
}

ZPStore::Id ZPStore::Cursor::nextKey() const {
    if (stanza_ == none)
        return none;
    return key_ == none ? store_.stanzas_[stanza_].first : store_.keys_[key_].next;
}

void ZPStore::Cursor::moveTo(Id key) {
    zassert(store_.isInMap(key));
    stanza_ = store_.keys_[key].stanza;
    key_ = key;
    isOnKey_ = true;
}

void ZPStore::endCursors(Id stanza) {
    for (Cursor* c = cursors_; c != nullptr; c = c->next_)
        if (stanza == none || c->stanza_ == stanza) {
            c->stanza_ = c->key_ = none;
            c->isOnKey_ = false;
        }
}

// ---------------------------------------------------------------- followed keys

void ZPStore::follow(Id id) {
    zassert(isInMap(id));
    ZPKeyExtra& extra = extraOf(id);
    unfollow(id);
    extra.isFollowed = true;
    extra.followedPrev = lastFollowed_;
    extra.followedNext = none;
    if (lastFollowed_ != none)
        keys_[lastFollowed_].extra->followedNext = id;
    else
        firstFollowed_ = id;
    lastFollowed_ = id;
    ++followedCount_;
}

void ZPStore::unfollow(Id id) {
    ZPKeyExtra* extra = keys_[id].extra;
    if (extra == nullptr || !extra->isFollowed)
        return;
    if (extra->followedPrev != none)
        keys_[extra->followedPrev].extra->followedNext = extra->followedNext;
    else
        firstFollowed_ = extra->followedNext;
    if (extra->followedNext != none)
        keys_[extra->followedNext].extra->followedPrev = extra->followedPrev;
    else
        lastFollowed_ = extra->followedPrev;
    extra->isFollowed = false;
    zassert(followedCount_ != 0);
    --followedCount_;
}

// ---------------------------------------------------------------- reading

void ZPStore::reserveForLines(size_t lines) {
    // With room for some more keys: to move all this for the first one that is added would cost as
    // much as the whole load. What isn't used of a large block isn't there. There may be fewer
    // lines than was guessed, and not all are keys.
    const size_t spare = lines / 4;
    keys_.reserveMore(1, lines + spare);
    lines_.reserve(1, lines + spare);
    keyIndex_.reserveMore(lines + spare);
}

// The number of lines in three pieces tells roughly how many there are in all: the first lines of a
// file alone are often shorter than the last. A guess only: it is kept within what a file of short
// entries needs, and without memory for it the blocks grow as they are filled.
void ZPStore::reserveForText(size_t start) {
    static const size_t kPiece = 16 * 1024;
    const size_t size = text_.size() - start;
    if (size == 0)
        return;
    const size_t piece = size < 3 * kPiece ? size : kPiece;
    size_t lines = 1, sample = 0;
    for (size_t at = start; sample < size && sample < 3 * kPiece; at += (size - piece) / 2) {
        const char* p = text_.at(at);
        const char* const stop = p + piece;
        while ((p = static_cast<const char*>(memchr(p, '\n', stop - p))) != nullptr) {
            ++lines;
            ++p;
        }
        sample += piece;
    }
    const uint64_t guess = static_cast<uint64_t>(lines) * size / sample;
    const size_t most = size / 8 + 1;
    try {
        reserveForLines(guess < most ? static_cast<size_t>(guess) : most);
    } catch (ZOutOfMemoryException&) {
    }
}

ZPStore::Id ZPStore::readHeader(ZPSlice name) {
    stanzas_.reserveMore(1);
    stanzaIndex_.reserveMore(1);
    lines_.reserveGroup();
    Id stanza = findStanza(text_.span(name));
    zassert(stanza == none || !stanzas_[stanza].inMap);
    if (stanza == none)
        stanza = newStanza(name, nameHash(text_.span(name), true));
    putStanzaIntoMap(stanza);
    return addGroup(stanza);
}

ZPStore::Id ZPStore::readHeaderAgain(Id id, ZPSlice name) {
    ZPStanza& stanza = stanzas_[id];
    if (layerStart_ == none || stanza.name.offset >= layerStart_)
        return none;
    if (stanza.group == none) {
        lines_.reserveGroup();
        addGroup(id);
    }
    // By its place it is known that this file has had it.
    text_.drop(stanza.name);
    stanza.name = name;
    return stanza.group;
}

void ZPStore::addLayerValue(ZSpan stanza, ZSpan key, Kind kind, ZSpan value) {
    const Id owner = createStanza(stanza);
    const Id id = createKey(owner, key);
    if (value.size != 0)
        return appendValue(id, kind, value);
    forgetLowerValues(id, kind, true);
    unmarkBare(id);
}

// An entry of a higher file is about to be added: what lower ones gave goes, but where values are
// collected only for one without a value, or of the other kind.
void ZPStore::forgetLowerValues(Id id, Kind kind, bool isEmpty) {
    const auto isLower = [&](Kind which) {
        const ZPSlice* first =
            which == hidden && !mayHaveHidden_ ? nullptr : placeOfValue(id, which, 0);
        return first != nullptr && first->offset < layerStart_;
    };
    const bool goes = !collects_ ? isLower(plain) || isLower(hidden)
                                 : isEmpty || isLower(kind == plain ? hidden : plain);
    if (!goes)
        return;
    dropValues(id, plain);
    dropValues(id, hidden);
}

// Likewise what other entries of this file gave, in dialects that don't keep all.
void ZPStore::forgetValuesAbove(Id id, bool isEmpty) {
    const bool collects = layerStart_ != none && collects_;
    if (lastWins_ && collects) {
        // Of those before it only the last one can be this file's.
        const uint32_t count = values(id, plain).count();
        const ZPSlice* last = count == 0 ? nullptr : placeOfValue(id, plain, count - 1);
        if (last != nullptr && last->offset >= layerStart_ && keys_[id].extra == nullptr)
            dropValues(id, plain);
        else if (last != nullptr && last->offset >= layerStart_)
            keys_[id].extra->values[plain].dropLast(text_, &keys_[id].value);
    } else if (lastWins_ || (emptyResets_ && isEmpty)) {
        dropValues(id, plain);
    } else if (layerStart_ == none) {
        return;
    }
    unmarkBare(id);
}

// An entry in all its cases: `id` is the key's record if there is one, and the stanza's key list
// may have been handed out.
ZPStore::Id ZPStore::readEntrySlowly(Id group, ZPSlice name, ZPSlice value, uint32_t hash, Id id,
                                     bool& isNew) {
    const Id stanza = lines_.group(group).stanza;
    isNew = id == none || !isInMap(id);
    if (isNew) {
        if (id == none)
            id = newKey(stanza, name, hash);
        putIntoMap(id);
        noteLine(id, lines_.appendKey(group, id));
        keys_[id].value = value;
        return id;
    }
    if (layerStart_ != none)
        forgetLowerValues(id, plain, value.length == 0);
    forgetValuesAbove(id, value.length == 0);
    if (value.length == 0)
        return id;
    ZPKey& key = keys_[id];
    if (takesValue(key))
        key.value = value;
    else
        extraOf(id).values[plain].append(text_, &key.value, value);
    return id;
}

// ---------------------------------------------------------------- lines

// A group at the end for this stanza. Needs room.
ZPStore::Id ZPStore::addGroup(Id stanza) {
    const Id group = lines_.addGroup(stanza, stanzas_[stanza].group);
    if (stanzas_[stanza].group == none)
        stanzas_[stanza].group = group;
    return group;
}

void ZPStore::addHeader(Id stanza) {
    lines_.reserve(1);
    lines_.reserveGroup();
    lines_.appendBlank(lastGroup(), text_);
    addGroup(stanza);
}

void ZPStore::removeGroup(Id stanza) {
    const Id id = stanzas_[stanza].group;
    if (id == none)
        return;
    // Out of the stanza's chain first, so that the keys' other lines are counted without this
    // group.
    stanzas_[stanza].group = group(id).nextOfStanza;
    lines_.forEach(id, [&](const ZPLine& line) {
        if (line.isComment())
            text_.drop(line.slice());
        else if (line.isKey() && keys_[line.ref].line == kSeveralIds)
            countLines(line.ref);
    });
    for (Id l = group(id).first; l != none; l = line(l).next) {
        if (!line(l).isKey())
            continue;
        // A key without any line now is forgotten unless it is in the map. One of several lines of
        // such a key finds that this has been done.
        const Id key = line(l).ref;
        if (isFree(key))
            continue;
        if (keys_[key].line == l)
            keys_[key].line = none;
        freeKeyIfUnneeded(key);
    }
    lines_.removeGroup(id);
    freeStanzaIfUnneeded(stanza);
    compactIfWorthwhile();
}

void ZPStore::placeKeyLine(Id key) {
    const ZPKey& record = keys_[key];
    zassert(stanzas_[record.stanza].group != none);
    noteLine(key,
             lines_.placeKey(stanzas_[record.stanza].group, key, text_.span(record.name), text_));
}

void ZPStore::removeKeyLines(Id key) {
    const Id line = keys_[key].line;
    const Id group = stanzas_[keys_[key].stanza].group;
    if (line == none || group == none) {
        freeKeyIfUnneeded(key);
        return;
    }
    if (line != kSeveralIds && lines_.group(group).nextOfStanza == none) {
        lines_.removeKey(group, line);
        keys_[key].line = none;
    } else {
        // Several lines, or several groups of one name: only those of the first group go.
        lines_.removeKeys(group, key);
        countLines(key);
    }
    freeKeyIfUnneeded(key);
    compactIfWorthwhile();
}

void ZPStore::addStanzaComment(Id stanza, ZSpan comment) {
    lines_.addStanzaComment(stanzas_[stanza].group, comment, text_);
}

void ZPStore::addKeyComment(Id key, ZSpan comment) {
    const ZSpan name = text_.span(keys_[key].name);
    Id group = stanzas_[keys_[key].stanza].group;
    if (group == none)
        return;
    // The one line of the key is the first with its text behind the header, if the header is the
    // only one of that name; otherwise the walk decides, and it goes on into later stanzas.
    Id found = keys_[key].line;
    if (found == none || found == kSeveralIds || lines_.group(group).nextOfStanza != none) {
        found = none;
        while (found == none && group != none) {
            for (Id l = lines_.group(group).first; found == none && l != none; l = line(l).next)
                if (line(l).isKey() && isNamed(keys_[line(l).ref], name))
                    found = l;
            if (found == none)
                group = lines_.group(group).next;
        }
    }
    if (found != none)
        lines_.addCommentBefore(group, found, comment, text_);
}

// ---------------------------------------------------------------- other names

void ZPStore::forgetLines(Id key) {
    for (Id g = stanzas_[keys_[key].stanza].group; g != none; g = group(g).nextOfStanza)
        lines_.removeKeys(g, key);
    keys_[key].line = none;
    freeKeyIfUnneeded(key);
}

// Puts another name in the place of one that a list was handed out with.
static void renameIn(ZArrayList& list, ZSpan before, ZSpan name) {
    const ZLCString old(before.data, static_cast<unsigned int>(before.size));
    for (unsigned int i = 0; i < list.size(); ++i) {
        if (!old.equals(*list.get(i)))
            continue;
        std::unique_ptr<ZLCString> fresh(
            new ZLCString(name.data, static_cast<unsigned int>(name.size)));
        list.addNoCopy(i, fresh.get());
        fresh.release();
        list.remove(i + 1);
        return;
    }
}

void ZPStore::renameKey(Id id, ZSpan name) {
    requireLength(name.size);
    const Id stanza = keys_[id].stanza;
    const Id remembered = findKey(text_.span(stanzas_[stanza].name), name);
    zassert(isInMap(id) && (remembered == none || !isInMap(remembered)));
    text_.reserve(name.size);
    if (ZArrayList* list = stanzas_[stanza].keyList.get())
        renameIn(*list, text_.span(keys_[id].name), name);
    if (remembered != none)
        forgetLines(remembered);
    ZPKey& key = keys_[id];
    for (Cursor* c = cursors_; c != nullptr; c = c->next_)
        if (c->key_ == id) {
            c->key_ = key.prev;
            c->isOnKey_ = false;
        }
    dropNameText(id);
    // The place in the index that goes is room for the one that comes.
    keyIndex_.remove(hashOf(id), id);
    text_.drop(key.name);
    key.name = text_.append(name);
    keyIndex_.insert(hashOf(id), id, key.name.offset);
    compactIfWorthwhile();
}

void ZPStore::renameStanza(Id id, ZSpan name) {
    requireLength(name.size);
    for (Id other = findStanza(name); other != none; other = findStanza(name)) {
        zassert(other != id && !stanzas_[other].inMap);
        removeGroup(other);
    }
    text_.reserve(name.size);
    if (ZLCString* handedOut = stanzas_[id].nameObject.get())
        handedOut->setChars(ZLCString(name.data, static_cast<unsigned int>(name.size)));
    endCursors(id);
    // Keys are found by both names: all leave the index before any comes back.
    const auto forEachKey = [&](auto visit) {
        for (Id k = 0; k < keys_.end(); ++k)
            if (keys_[k].stanza == id)
                visit(k);
    };
    forEachKey([&](Id k) { keyIndex_.remove(hashOf(k), k); });
    ZPStanza& stanza = stanzas_[id];
    stanzaIndex_.remove(znarrowHash(stanza.hash), id);
    text_.drop(stanza.name);
    stanza.name = text_.append(name);
    stanza.hash = nameHash(name, true);
    memset(stanza.head, 0, sizeof stanza.head);
    memcpy(stanza.head, name.data, name.size < sizeof stanza.head ? name.size : sizeof stanza.head);
    stanzaIndex_.insert(znarrowHash(stanza.hash), id, stanza.name.offset);
    forEachKey([&](Id k) { keyIndex_.insert(hashOf(k), k, keys_[k].name.offset); });
    compactIfWorthwhile();
}

// ---------------------------------------------------------------- invariants

void ZPStore::checkInvariants() const {
    size_t used = 0;  // bytes of slices
    size_t keysSeen = 0, keysInMap = 0, stanzasInMap = 0;
    keyIndex_.checkInvariants([&](Id id) { return keys_[id].name.offset; });
    stanzaIndex_.checkInvariants([&](Id id) { return stanzas_[id].name.offset; });
    lines_.checkInvariants(text_);
    keyIndex_.forEach([&](Id id) {
        ++keysSeen;
        const ZPKey& key = keys_[id];
        used += key.name.length + key.value.length;
        if (key.extra != nullptr)
            for (Kind kind : {plain, hidden}) {
                key.extra->values[kind].checkInvariants(ownValue(key, kind));
                key.extra->values[kind].forEachSlice(
                    [&](const ZPSlice& slice) { used += slice.length; });
            }
        ZPHOLDS(stanzas_[key.stanza].inUse);
        ZPHOLDS(findKey(text_.span(stanzas_[key.stanza].name), text_.span(key.name)) == id);
        if (isInMap(id)) {
            ++keysInMap;
            ZPHOLDS(stanzas_[key.stanza].inMap);
        } else {
            ZPHOLDS(key.line != none && key.extra == nullptr && key.value.length == 0);
        }
    });
    ZPHOLDS(keysSeen == keyIndex_.count());
    ZPHOLDS(keysSeen + keys_.countFree() == keys_.end());
    ZPHOLDS(stanzaIndex_.count() + stanzas_.countFree() == stanzas_.end());
    size_t chained = 0;
    stanzaIndex_.forEach([&](Id id) {
        const ZPStanza& stanza = stanzas_[id];
        used += stanza.name.length;
        ZPHOLDS(stanza.inUse && (stanza.inMap || stanza.group != none));
        ZPHOLDS(findStanza(text_.span(stanza.name)) == id);
        stanzasInMap += stanza.inMap ? 1 : 0;
        uint32_t count = 0;
        Id previous = none;
        for (Id k = stanza.first; k != none; k = keys_[k].next) {
            ZPHOLDS(keys_[k].stanza == id && keys_[k].prev == previous);
            previous = k;
            ++count;
        }
        ZPHOLDS(stanza.last == previous && stanza.count == count);
        ZPHOLDS(stanza.keyList.get() == nullptr || stanza.keyList.get()->size() == count);
        chained += count;
        for (Id g = stanza.group; g != none; g = group(g).nextOfStanza)
            ZPHOLDS(group(g).stanza == id);
    });
    ZPHOLDS(chained == keysInMap && stanzasInMap == stanzasInMap_);
    for (Id g = 0; g != none; g = group(g).next) {
        for (Id l = group(g).first; l != none; l = line(l).next) {
            if (line(l).isComment()) {
                used += line(l).slice().length;
            } else if (line(l).isKey()) {
                const ZPKey& key = keys_[line(l).ref];
                ZPHOLDS(key.stanza == group(g).stanza);
                ZPHOLDS(key.line == l || key.line == kSeveralIds);
            }
        }
    }
    text_.checkInvariants(used);
    uint32_t items = 0;
    Id previous = none;
    for (Id k = firstFollowed_; k != none; k = keys_[k].extra->followedNext) {
        ZPHOLDS(isInMap(k) && keys_[k].extra->isFollowed &&
                keys_[k].extra->followedPrev == previous);
        previous = k;
        ++items;
    }
    ZPHOLDS(items == followedCount_ && lastFollowed_ == previous);
    for (const Cursor* c = cursors_; c != nullptr; c = c->next_) {
        ZPHOLDS(c->stanza_ != none || c->key_ == none);
        ZPHOLDS(c->key_ == none || (isInMap(c->key_) && keys_[c->key_].stanza == c->stanza_));
        ZPHOLDS(c->key_ != none || !c->isOnKey_);
    }
}
