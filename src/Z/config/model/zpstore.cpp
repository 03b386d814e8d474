#include "zpstore.h"

#include <initializer_list>
#include <memory>

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
    makeRoomForKey(0);
    keys_.reserveMore(other.keyIndex_.count());
    makeRoomInKeyIndex(other.keyIndex_.count());
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
        other.lines_.forEach(g, [&](Id l, const ZPLine& line) {
            lines_.reserveAt(group);
            if (line.isBlank()) {
                lines_.appendBlank(group, text_);
            } else if (line.isComment()) {
                lines_.reserveComments(1);
                lines_.appendComment(group, text_.append(other.text_.span(other.comment(l))),
                                     text_);
            } else {
                const ZSpan name = other.text_.span(other.keys_.name(line.ref()));
                const Id stanza = lines_.group(group).stanza;
                Id key = findKey(text_.span(stanzas_[stanza].name), name);
                if (key == none) {
                    makeRoomForKey(name.size);
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
        for (Id k = source.first; k != none; k = other.keys_.next(k)) {
            const Id key = createKey(stanza, other.text_.span(other.keys_.name(k)));
            if (other.isBare(k))
                markBare(key);
            for (Kind kind : {plain, hidden}) {
                const ZPValueView values = other.values(k, kind);
                if (values.count() == 0)
                    continue;
                if (kind == hidden)
                    noteHidden();
                if (kind == plain && values.onlySlice() != nullptr) {
                    makeRoomForValue(key, values[0].size);
                    keys_.setValue(key, text_.append(values[0]));
                } else {
                    changeValues(key, kind, [&](ZPValues& copy, ZPSlice* own) {
                        copy.copy(text_, own, values);
                    });
                }
            }
        }
    });
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
        lines_.forEach(g, [&](Id l, const ZPLine& line) {
            needed += line.isComment() ? comment(l).length + 1 : 0;
        });
    stanzaIndex_.forEach([&](Id s) { needed += stanzas_[s].name.length + 3; });
    keyIndex_.forEach([&](Id k) {
        needed += keys_.name(k).length + keys_.value(k).length + 4;
        if (ZPKeyExtra* extra = keys_.extra(k))
            for (ZPValues& values : extra->values)
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
        ZPKey key = keys_[k];
        move(key.name);
        keys_.setName(k, key.name);
        if (key.value.length != 0) {
            target.append({" = ", 3});
            move(key.value);
            keys_.setValue(k, key.value);
        }
        target.append({"\n", 1});
        if (ZPKeyExtra* extra = keys_.extra(k))
            for (ZPValues& values : extra->values)
                values.forEachSlice(move);
    };
    for (Id g = 0; g != none; g = group(g).next) {
        if (g != 0)
            moveStanza(group(g).stanza);
        for (Id l = group(g).first; l != none; l = nextLine(l)) {
            if (line(l).isKey()) {
                moveKey(line(l).ref());
            } else if (line(l).isComment()) {
                lines_.moveComment(l, move);
                target.append({"\n", 1});
            }
        }
    }
    stanzaIndex_.forEach(moveStanza);
    keyIndex_.forEach(moveKey);
    text_ = std::move(target);
    keyIndex_.renewOffsets([&](Id key) { return keys_.name(key).offset; });
    stanzaIndex_.renewOffsets([&](Id stanza) { return stanzas_[stanza].name.offset; });
}

// ---------------------------------------------------------------- stanzas

ZPStore::Id ZPStore::findStanza(ZSpan name) const { return findStanza(name, nameHash(name, true)); }

ZPStore::Id ZPStore::findStanza(ZSpan name, uint64_t hash) const {
    return stanzaIndex_.find(znarrowHash(hash),
                             [&](Id id, uint32_t) { return isNamed(stanzas_[id], name); });
}

// What most likely is the stanza with this hash, or none; it is fetched meanwhile, and its group:
// where each stanza has one, their numbers tell of each other, so that neither waits for the other.
ZPStore::Id ZPStore::prefetchStanza(uint64_t hash) const {
    if (stanzaIndex_.count() == 0)
        return none;
    ZPNameIndex::Place place;
    const Id id = stanzaIndex_.findOrPlaceInSlots(znarrowHash(hash), place,
                                                  [](Id, uint32_t) { return true; });
    if (id == none)
        return none;
    stanzas_.prefetch(id);
    lines_.prefetchGroup(id + 1);
    return id;
}

ZPStore::Id ZPStore::newStanza(ZPSlice name, uint64_t hash) {
    ZPStanza fresh = {name, {}, hash, none, none, 0, none, {}, true, false};
    memcpy(fresh.head, text(name),
           name.length < sizeof fresh.head ? name.length : sizeof fresh.head);
    const Id id = stanzas_.take(std::move(fresh));
    stanzaIndex_.insert(znarrowHash(hash), id, name.offset);
    return id;
}

ZPStore::Id ZPStore::createStanza(ZSpan name) {
    SoughtStanza sought = seekStanza(name);
    if (sought.id == none) {
        makeRoomForStanza();
        sought.id = newStanza(text_.append(name), sought.hash);
    }
    putStanzaIntoMap(sought.id);
    return sought.id;
}

void ZPStore::makeRoomForStanza() {
    stanzas_.reserveMore(1);
    makeRoomInStanzaIndex(1);
}

void ZPStore::makeRoomInStanzaIndex(size_t more) {
    if (!stanzaIndex_.takes(stanzas_.nextId(), more))
        stanzaIndex_.reserve(stanzaIndex_.count() + more, [&](auto insert) {
            for (Id s = 0; s < stanzas_.end(); ++s)
                if (stanzas_[s].inUse)
                    insert(znarrowHash(stanzas_[s].hash), s, stanzas_[s].name.offset);
        });
}

void ZPStore::takeStanzaOutOfIndex(Id id) {
    stanzaIndex_.remove(znarrowHash(stanzas_[id].hash), id,
                        [&](Id other) { return znarrowHash(stanzas_[other].hash); });
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
    // What was handed out goes first: the list would be shortened key by key otherwise.
    stanza.objects.reset();
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
    takeStanzaOutOfIndex(id);
    text_.drop(stanza.name);
    stanza.inUse = false;
    stanzas_.giveBack(id);
}

// ---------------------------------------------------------------- keys

// Whether that is the key whose name stands there; the record is fetched while the name is read.
inline bool ZPStore::isKeyAt(Id id, uint32_t offset, ZSpan stanza, ZSpan key) const {
    keys_.prefetch(id);
    return ((text_.stands(offset, key) && keys_.hasLength(id, key.size)) ||
            (folds_ && foldAlike(text_.span(keys_.name(id)), key, false))) &&
           isNamed(stanzas_[keys_.stanza(id)], stanza);
}

ZPStore::Id ZPStore::findKey(ZSpan stanza, ZSpan key) const {
    const uint32_t hash = zhashOfBoth(nameHash(stanza, true), nameHash(key, false));
    return keyIndex_.find(hash,
                          [&](Id id, uint32_t offset) { return isKeyAt(id, offset, stanza, key); });
}

// Names that have several spellings are fetched in vain, by another hash than theirs.
void ZPStore::fetchAhead(ZSpan stanza, ZSpan key) const {
    ahead_.fetch(zhashOfBoth(zhashOf(stanza), zhashOf(key)));
}

ZPStore::Sought ZPStore::seekToChange(ZSpan stanza, ZSpan key) const {
    const uint64_t stanzaHash = nameHash(stanza, true);
    Sought sought = {none, zhashOfBoth(stanzaHash, nameHash(key, false)), {}, none};
    // In few nothing is far away, and a look at the stanza may turn out to be for nothing.
    ahead_.note(keyIndex_);
    const bool areMany = ahead_.isLarge();
    if (areMany) {
        keyIndex_.prefetch(sought.hash);
        sought.stanza = prefetchStanza(stanzaHash);
    }
    sought.key = keyIndex_.findOrPlace(sought.hash, sought.place, [&](Id id, uint32_t offset) {
        return isKeyAt(id, offset, stanza, key);
    });
    if (sought.key != none)
        sought.stanza = keys_.stanza(sought.key);
    else if (areMany)
        keyIndex_.prefetchPlace(sought.place);
    else
        sought.stanza = prefetchStanza(stanzaHash);
    return sought;
}

bool ZPStore::foldAlike(ZSpan a, ZSpan b, bool areStanzas) const {
    ZBytes left, right;
    zdialectFold(*dialect_, a, areStanzas, left);
    zdialectFold(*dialect_, b, areStanzas, right);
    return zequals(zspanOf(left), zspanOf(right));
}

uint32_t ZPStore::hashOf(Id id) const {
    return keyHash(keys_.stanza(id), text_.span(keys_.name(id)));
}

// Whether the index was made anew for it.
bool ZPStore::makeRoomForKey(size_t nameLength) {
    keys_.reserveMore(1);
    if (nameLength >= ZPKeys::kLong)
        keys_.makeExtra(keys_.nextId());
    const bool isMissing = !keyIndex_.takes(keys_.nextId(), 1);
    if (isMissing)
        makeRoomInKeyIndex(1);
    return isMissing;
}

void ZPStore::makeRoomInKeyIndex(size_t more) {
    // Ids that were lost without memory aren't given again.
    const size_t taken = keyIndex_.count() < keys_.end() ? size_t(keys_.end()) : keyIndex_.count();
    if (taken + more > keyIndex_.limit())
        keyIndex_.reserve(taken + more, [&](auto insert) {
            for (Id k = 0; k < keys_.end(); ++k)
                if (!isFree(k))
                    insert(hashOf(k), k, keys_.name(k).offset);
        });
}

void ZPStore::takeOutOfIndex(Id id, size_t slot) {
    const auto hashOfOther = [&](Id other) { return hashOf(other); };
    if (slot == kUnknown)
        keyIndex_.remove(hashOf(id), id, hashOfOther);
    else
        keyIndex_.removeAt(slot, hashOfOther);
}

ZPStore::Id ZPStore::newKey(Id stanza, ZPSlice name, uint32_t hash, bool isRead) {
    const Id id = keys_.take(name, stanza, isRead);
    keyIndex_.insert(hash, id, name.offset);
    return id;
}

// At the end of its stanza's key order. A handed-out key list takes the name first, since that
// may fail.
void ZPStore::putIntoMap(Id id) {
    zassert(!isInMap(id));
    ZPStanza& stanza = stanzas_[keys_.stanza(id)];
    zassert(stanza.inMap);
    keys_.prepare(id);
    if (stanza.last != none)
        keys_.reserveChanges(1);
    if (ZArrayList* list = stanza.keyList())
        addString(*list, text_.span(keys_.name(id)));
    keys_.setInMap(id, true);
    if (stanza.last != none)
        keys_.connect(stanza.last, id);
    stanza.noteKeys(id, id, 1);
}

ZPStore::Id ZPStore::createKey(Id stanza, ZSpan name) {
    Sought sought = {none, keyHash(stanza, name), {}, stanza};
    sought.key = keyIndex_.findOrPlace(sought.hash, sought.place, [&](Id other, uint32_t) {
        return isKeyOf(other, stanza, name);
    });
    return sought.key != none && isInMap(sought.key) ? sought.key : createKey(stanza, name, sought);
}

ZPStore::Id ZPStore::createKey(Id stanza, ZSpan name, const Sought& sought) {
    Id id = sought.key;
    const bool made = id == none;
    if (made) {
        const bool isIndexNew = makeRoomForKey(name.size);
        const ZPSlice slice = text_.append(name);
        id = keys_.take(slice, stanza, false);
        if (isIndexNew)
            keyIndex_.insert(sought.hash, id, slice.offset);
        else
            keyIndex_.insertAt(sought.place, id, slice.offset);
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

bool ZPStore::createKeyAtOnce(Id stanzaId, ZSpan name, const Sought& sought, ZSpan value) {
    // A store to a line of the cache that isn't there keeps all that follow it waiting, and five
    // places are appended to. Not in a function of its own: compilers find that it does nothing.
    static const size_t kAhead = 256;
    text_.prefetchEnd(kAhead);
    keys_.prefetchEnd(kAhead);
    lines_.prefetchEnd(kAhead);
    ZPStanza& stanza = stanzas_[stanzaId];
    const bool needsCompacting = text_.isWorthCompacting() && !keepsPlaces_;
    if (needsCompacting || sought.key != none || stanza.group == none ||
        stanza.keyList() != nullptr || value.size == 0 || value.size >= ZPKeys::kLong ||
        name.size >= ZPKeys::kLong || !text_.hasRoom(name.size + value.size) ||
        !keys_.isReadyToInsert() || !keyIndex_.takes(keys_.end(), 1) ||
        !lines_.isReadyToPush(stanza.group))
        return false;
    const ZPSlice nameSlice = {static_cast<uint32_t>(text_.size()),
                               static_cast<uint32_t>(name.size)},
                  valueSlice = {nameSlice.offset + nameSlice.length,
                                static_cast<uint32_t>(value.size)};
    char* const room = text_.room(name.size + value.size);
    zcopyFew(room, name.data, name.size);
    zcopyFew(room + name.size, value.data, value.size);
    text_.commit(name.size + value.size);
    const Id id = keys_.end();
    keyIndex_.insertAt(sought.place, id, nameSlice.offset);
    keys_.pushBehind(stanza.last, nameSlice, valueSlice, stanzaId, lines_.nextId());
    lines_.pushKey(stanza.group, id);
    stanza.noteKeys(id, id, 1);
    return true;
}

void ZPStore::removeKey(Id id, size_t slot) {
    zassert(!isFree(id) && isInMap(id));
    ZPStanza& stanza = stanzas_[keys_.stanza(id)];
    if (ZArrayList* list = stanza.keyList()) {
        const ZLCString name(text(keys_.name(id)), keys_.name(id).length);
        const unsigned int last = list->size() - 1;
        if (stanza.last == id && name.equals(*list->get(last)))
            list->remove(last);
        else
            list->remove(&name);
    }
    for (Cursor* c = cursors_; c != nullptr; c = c->next_)
        if (c->key_ == id) {
            c->key_ = keys_.prev(id);
            c->isOnKey_ = false;
        }
    dropNameText(id);
    unfollow(id);
    if (keys_.extra(id) == nullptr) {
        text_.drop(keys_.value(id));
        keys_.setValue(id, {0, 0});
    } else {
        dropValues(id, plain);
        dropValues(id, hidden);
        keys_.dropExtra(id);
    }
    const ZPLinks::Neighbours were = keys_.unlink(id);
    if (were.prev == none)
        stanza.first = were.next;
    if (were.next == none)
        stanza.last = were.prev;
    keys_.setInMap(id, false);
    zassert(stanza.count != 0);
    --stanza.count;
    freeKeyIfUnneeded(id, slot);
}

void ZPStore::removeWithLines(const Sought& sought) {
    // The lines go first: a key that has neither map entry nor line is forgotten.
    const bool hadLines = takeLinesOut(sought.key);
    if (isInMap(sought.key))
        removeKey(sought.key, sought.place.slot);
    else
        freeKeyIfUnneeded(sought.key, sought.place.slot);
    if (hadLines)
        compactIfWorthwhile();
}

void ZPStore::freeKeyIfUnneeded(Id id, size_t slot) {
    zassert(!isFree(id));
    if (isInMap(id) || hasLine(id))
        return;
    zassert(keys_.value(id).length == 0);
    takeOutOfIndex(id, slot);
    text_.drop(keys_.name(id));
    keys_.giveBack(id);
}

// ---------------------------------------------------------------- values

void ZPStore::dropValues(Id id, Kind kind) {
    ZPKeyExtra* const extra = keys_.extra(id);
    ZPSlice own = ownValue(id, kind);
    if (extra != nullptr)
        extra->values[kind].drop(text_, &own);
    else
        text_.drop(own);
    if (kind == plain)
        keys_.setValue(id, {0, 0});
}

void ZPStore::appendValue(Id id, Kind kind, ZSpan value) {
    if (value.size == 0)
        return;
    requireLength(value.size);
    if (kind == hidden)
        noteHidden();
    if (layerStart_ != none)
        forgetLowerValues(id, kind, false);
    if (kind == plain && takesValue(id)) {
        makeRoomForValue(id, value.size);
        keys_.setValue(id, text_.append(value));
    } else {
        changeValues(id, kind,
                     [&](ZPValues& values, ZPSlice* own) { values.append(text_, own, value); });
    }
}

void ZPStore::replaceValues(Id id, Kind kind, ZSpan value) {
    requireLength(value.size);
    // The usual case: one plain value takes the place of another, and its room if it fits in.
    const ZPKeyExtra* const extra = keys_.extra(id);
    const bool isAlone =
        extra == nullptr || !(extra->values[plain].areHere() || extra->values[hidden].areHere());
    if (isAlone && kind == plain && value.size != 0 && value.size < ZPKeys::kLong) {
        ZPSlice own = keys_.value(id);
        if (own.length >= value.size && !keepsPlaces_) {
            text_.overwrite(own, value);
        } else {
            const ZPSlice fresh = text_.append(value);
            text_.drop(own);
            own = fresh;
        }
        keys_.setValue(id, own);
        compactIfWorthwhile();
        return;
    }
    if (kind == hidden)
        noteHidden();
    if (value.size == 0) {
        dropValues(id, kind);
    } else if (kind == hidden || extra != nullptr) {
        changeValues(id, kind, [&](ZPValues& values, ZPSlice* place) {
            values.replace(text_, place, value);
        });
    } else {
        makeRoomForValue(id, value.size);
        const ZPSlice fresh = text_.append(value);
        dropValues(id, plain);
        keys_.setValue(id, fresh);
    }
    // Last, for the value may be the text of one of these.
    dropValues(id, kind == plain ? hidden : plain);
    compactIfWorthwhile();
}

// ---------------------------------------------------------------- what is handed out

ZArrayList* ZPStore::valueList(Id id, Kind kind) const {
    if (kind == hidden)
        noteHidden();
    return keys_.makeExtra(id).values[kind].list(text_, ownValue(id, kind));
}

ZPStanzaObjects& ZPStore::makeObjects(Id stanza) const {
    const ZPLazy<ZPStanzaObjects>& objects = stanzas_[stanza].objects;
    if (ZPStanzaObjects* made = objects.get())
        return *made;
    return *objects.publish(std::unique_ptr<ZPStanzaObjects>(new ZPStanzaObjects));
}

ZArrayList* ZPStore::keyList(Id id) const {
    const ZPStanzaObjects& objects = makeObjects(id);
    if (ZArrayList* list = objects.keyList.get())
        return list;
    const ZPStanza& stanza = stanzas_[id];
    std::unique_ptr<ZArrayList> fresh(new ZArrayList(stanza.count, 1));
    for (Id k = stanza.first; k != none; k = keys_.next(k))
        addString(*fresh, text_.span(keys_.name(k)));
    return objects.keyList.publish(std::move(fresh));
}

ZLCString* ZPStore::nameObject(Id id) const {
    const ZPStanzaObjects& objects = makeObjects(id);
    if (ZLCString* name = objects.name.get())
        return name;
    const ZPSlice& name = stanzas_[id].name;
    return objects.name.publish(std::unique_ptr<ZLCString>(new ZLCString(text(name), name.length)));
}

const char* ZPStore::nameText(Id id) {
    if (id >= nameTexts_.size()) {
        nameTexts_.reserveMore(keys_.end() - nameTexts_.size());
        while (nameTexts_.size() < keys_.end())
            nameTexts_.push(nullptr);
    }
    if (nameTexts_[id] == nullptr) {
        const ZSpan name = text_.span(keys_.name(id));
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
    return key_ == none ? store_.stanzas_[stanza_].first : store_.keys_.next(key_);
}

void ZPStore::Cursor::moveTo(Id key) {
    zassert(store_.isInMap(key));
    stanza_ = store_.keys_.stanza(key);
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
    ZPKeyExtra& extra = keys_.makeExtra(id);
    unfollow(id);
    extra.isFollowed = true;
    extra.followedPrev = lastFollowed_;
    extra.followedNext = none;
    if (lastFollowed_ != none)
        keys_.extra(lastFollowed_)->followedNext = id;
    else
        firstFollowed_ = id;
    lastFollowed_ = id;
    ++followedCount_;
}

void ZPStore::takeFromFollowed(Id id) {
    ZPKeyExtra* extra = keys_.extra(id);
    if (extra == nullptr || !extra->isFollowed)
        return;
    if (extra->followedPrev != none)
        keys_.extra(extra->followedPrev)->followedNext = extra->followedNext;
    else
        firstFollowed_ = extra->followedNext;
    if (extra->followedNext != none)
        keys_.extra(extra->followedNext)->followedPrev = extra->followedPrev;
    else
        lastFollowed_ = extra->followedPrev;
    extra->isFollowed = false;
    zassert(followedCount_ != 0);
    --followedCount_;
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
    lines_.reserveAt(lastGroup());
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
    lines_.forEach(id, [&](Id l, const ZPLine& line) {
        if (line.isComment())
            text_.drop(comment(l));
        else if (line.isKey() && keys_.line(line.ref()) == kSeveralIds)
            countLines(line.ref());
    });
    for (Id l = group(id).first; l != none; l = nextLine(l)) {
        if (!line(l).isKey())
            continue;
        // A key without any line now is forgotten unless it is in the map. One of several lines of
        // such a key finds that this has been done.
        const Id key = line(l).ref();
        if (isFree(key))
            continue;
        if (keys_.line(key) == l)
            keys_.setLine(key, none);
        freeKeyIfUnneeded(key);
    }
    lines_.removeGroup(id);
    freeStanzaIfUnneeded(stanza);
    compactIfWorthwhile();
}

void ZPStore::placeKeyLine(Id key) {
    const Id group = stanzas_[keys_.stanza(key)].group;
    zassert(group != none);
    noteLine(key, lines_.placeKey(group, key, text_.span(keys_.name(key)), text_));
}

// A key's lines in the first group of its stanza. Whether there may have been one.
bool ZPStore::takeLinesOut(Id key) {
    const Id line = keys_.line(key);
    const Id group = stanzas_[keys_.stanza(key)].group;
    if (line == none || group == none)
        return false;
    if (line != kSeveralIds && lines_.group(group).nextOfStanza == none) {
        lines_.removeKey(group, line);
        keys_.setLine(key, none);
    } else {
        // Several lines, or several groups of one name: only those of the first group go.
        lines_.removeKeys(group, key);
        countLines(key);
    }
    return true;
}

void ZPStore::addStanzaComment(Id stanza, ZSpan comment) {
    lines_.addStanzaComment(stanzas_[stanza].group, comment, text_);
}

void ZPStore::addKeyComment(Id key, ZSpan comment) {
    const ZSpan name = text_.span(keys_.name(key));
    Id group = stanzas_[keys_.stanza(key)].group;
    if (group == none)
        return;
    // The one line of the key is the first with its text behind the header, if the header is the
    // only one of that name; otherwise the walk decides, and it goes on into later stanzas.
    Id found = keys_.line(key);
    if (found == none || found == kSeveralIds || lines_.group(group).nextOfStanza != none) {
        found = none;
        while (found == none && group != none) {
            for (Id l = lines_.group(group).first; found == none && l != none; l = nextLine(l))
                if (line(l).isKey() && isNamed(line(l).ref(), name))
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
    for (Id g = stanzas_[keys_.stanza(key)].group; g != none; g = group(g).nextOfStanza)
        lines_.removeKeys(g, key);
    keys_.setLine(key, none);
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
    const Id stanza = keys_.stanza(id);
    const Id remembered = findKey(text_.span(stanzas_[stanza].name), name);
    zassert(isInMap(id) && (remembered == none || !isInMap(remembered)));
    text_.reserve(name.size);
    if (name.size >= ZPKeys::kLong)
        keys_.makeExtra(id);
    if (ZArrayList* list = stanzas_[stanza].keyList())
        renameIn(*list, text_.span(keys_.name(id)), name);
    if (remembered != none)
        forgetLines(remembered);
    for (Cursor* c = cursors_; c != nullptr; c = c->next_)
        if (c->key_ == id) {
            c->key_ = keys_.prev(id);
            c->isOnKey_ = false;
        }
    dropNameText(id);
    // The place in the index that goes is room for the one that comes.
    takeOutOfIndex(id);
    text_.drop(keys_.name(id));
    keys_.setName(id, text_.append(name));
    keyIndex_.insert(hashOf(id), id, keys_.name(id).offset);
    compactIfWorthwhile();
}

void ZPStore::renameStanza(Id id, ZSpan name) {
    requireLength(name.size);
    for (Id other = findStanza(name); other != none; other = findStanza(name)) {
        zassert(other != id && !stanzas_[other].inMap);
        removeGroup(other);
    }
    text_.reserve(name.size);
    if (ZLCString* handedOut = stanzas_[id].nameObject())
        handedOut->setChars(ZLCString(name.data, static_cast<unsigned int>(name.size)));
    endCursors(id);
    // Keys are found by both names: all leave the index before any comes back.
    const auto forEachKey = [&](auto visit) {
        for (Id k = 0; k < keys_.end(); ++k)
            if (!isFree(k) && keys_.stanza(k) == id)
                visit(k);
    };
    forEachKey([&](Id k) { takeOutOfIndex(k); });
    ZPStanza& stanza = stanzas_[id];
    takeStanzaOutOfIndex(id);
    text_.drop(stanza.name);
    stanza.name = text_.append(name);
    stanza.hash = nameHash(name, true);
    memset(stanza.head, 0, sizeof stanza.head);
    memcpy(stanza.head, name.data, name.size < sizeof stanza.head ? name.size : sizeof stanza.head);
    stanzaIndex_.insert(znarrowHash(stanza.hash), id, stanza.name.offset);
    forEachKey([&](Id k) { keyIndex_.insert(hashOf(k), k, keys_.name(k).offset); });
    compactIfWorthwhile();
}
