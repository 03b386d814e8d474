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

ZPStore::ZPStore()
    : stanzasInMap_(0),
      itemFirst_(none),
      itemLast_(none),
      itemCount_(0),
      cursors_(nullptr),
      mayHaveHidden_(false),
      mayHaveExtras_(false) {}

ZPStore::ZPStore(const ZPStore& other) : ZPStore() {
    // The delegated constructor has finished, so that the destructor clears up if this raises.
    text_.reserve(other.text_.size());
    makeRoomForKey();
    keys_.reserveMore(other.keyIndex_.count());
    keyIndex_.reserve(other.keyIndex_.count());
    // The lines first, in file order, for they decide where the text comes to lie.
    for (Id g = 0; g != none; g = other.group(g).next) {
        Id group = 0;
        if (g != 0) {
            const ZPSlice& name = other.stanzas_[other.group(g).stanza].name;
            Id stanza = findStanza(other.text(name), name.length);
            if (stanza == none) {
                stanza = createStanza(other.text(name), name.length);
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
                const ZPSlice& name = other.keys_[line.ref].name;
                const Id stanza = lines_.group(group).stanza;
                const uint32_t hash = keyHash(stanza, other.text(name), name.length);
                const ZPSlice& stanzaName = stanzas_[stanza].name;
                Id key =
                    findKey(text(stanzaName), stanzaName.length, other.text(name), name.length);
                if (key == none) {
                    makeRoomForKey();
                    key = newKey(stanza, text_.append(other.text_.span(name)), hash);
                }
                noteLine(key, lines_.appendKey(group, key));
            }
        });
    }
    // Then the map: attaching in key order gives the same order here.
    other.forEachStanza([&](Id s) {
        const Stanza& source = other.stanzas_[s];
        const Id stanza = createStanza(other.text(source.name), source.name.length);
        for (Id k = source.first; k != none; k = other.keys_[k].next) {
            const Key& from = other.keys_[k];
            const Id key = createKey(stanza, other.text(from.name), from.name.length);
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
        delete keys_[i].extra;  // null in records that are free
    for (size_t i = 0; i < nameTexts_.size(); ++i)
        free(nameTexts_[i]);
}

template <typename T>
static void swapValues(T& a, T& b) {
    T other = a;
    a = b;
    b = other;
}

void ZPStore::clear() {
    // A fresh store takes the place of this one; the old content goes with it.
    ZPStore fresh;
    endCursors(none);
    std::swap(text_, fresh.text_);
    std::swap(keys_, fresh.keys_);
    std::swap(stanzas_, fresh.stanzas_);
    std::swap(lines_, fresh.lines_);
    std::swap(keyIndex_, fresh.keyIndex_);
    std::swap(stanzaIndex_, fresh.stanzaIndex_);
    swapValues(stanzasInMap_, fresh.stanzasInMap_);
    swapValues(itemFirst_, fresh.itemFirst_);
    swapValues(itemLast_, fresh.itemLast_);
    swapValues(itemCount_, fresh.itemCount_);
    nameTexts_.swap(fresh.nameTexts_);
    swapValues(mayHaveHidden_, fresh.mayHaveHidden_);
    swapValues(mayHaveExtras_, fresh.mayHaveExtras_);
}

// ---------------------------------------------------------------- text

void ZPStore::compactIfWorthwhile() {
    if (!text_.isWorthCompacting())
        return;
    // Without memory for it the text just stays as it is; nobody has asked for anything.
    try {
        // The signs that the writer puts between them may make it longer than offsets reach: then
        // there is no room either.
        ZPText target;
        target.reserve(textNeeded() + text_.size() / 8);
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
        const Key& key = keys_[k];
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
        Key& key = keys_[k];
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

ZPStore::Id ZPStore::findStanza(const char* name, size_t length) const {
    return stanzaIndex_.find(znarrowHash(zhashOf({name, length})),
                             [&](Id id, uint32_t) { return isNamed(stanzas_[id], name, length); });
}

ZPStore::Id ZPStore::newStanza(ZPSlice name, uint64_t hash) {
    Stanza fresh = {name, {}, hash, none, none, 0, none, true, false, {}, {}};
    memcpy(fresh.head, text(name),
           name.length < sizeof fresh.head ? name.length : sizeof fresh.head);
    const Id id = stanzas_.take(std::move(fresh));
    stanzaIndex_.insert(znarrowHash(hash), id, name.offset);
    return id;
}

ZPStore::Id ZPStore::createStanza(const char* name, size_t length) {
    Id id = findStanza(name, length);
    if (id == none) {
        stanzas_.reserveMore(1);
        stanzaIndex_.reserveMore(1);
        id = newStanza(text_.append({name, length}), zhashOf({name, length}));
    }
    if (!stanzas_[id].inMap) {
        stanzas_[id].inMap = true;
        ++stanzasInMap_;
    }
    return id;
}

void ZPStore::removeStanza(Id id) {
    Stanza& stanza = stanzas_[id];
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
    Stanza& stanza = stanzas_[id];
    if (stanza.inMap || stanza.group != none)
        return;
    stanzaIndex_.remove(znarrowHash(stanza.hash), id);
    text_.drop(stanza.name);
    stanza.inUse = false;
    stanzas_.giveBack(id);
}

// ---------------------------------------------------------------- keys

ZPStore::Id ZPStore::findKey(const char* stanza, size_t stanzaLength, const char* key,
                             size_t keyLength) const {
    const uint32_t hash = zhashOfBoth(zhashOf({stanza, stanzaLength}), zhashOf({key, keyLength}));
    return keyIndex_.find(hash, [&](Id id, uint32_t offset) {
        const Key& candidate = keys_[id];
        __builtin_prefetch(&candidate);
        return text_.size() - offset >= keyLength && memcmp(text(offset), key, keyLength) == 0 &&
               candidate.name.length == keyLength &&
               isNamed(stanzas_[candidate.stanza], stanza, stanzaLength);
    });
}

uint32_t ZPStore::hashOf(Id id) const {
    const Key& key = keys_[id];
    return keyHash(key.stanza, text(key.name), key.name.length);
}

void ZPStore::makeRoomForKey() {
    keys_.reserveMore(1);
    keyIndex_.reserveMore(1);
}

ZPStore::Id ZPStore::newKey(Id stanza, ZPSlice name, uint32_t hash) {
    const Id id = keys_.take({name, {0, 0}, stanza, none, detached, none, nullptr});
    keyIndex_.insert(hash, id, name.offset);
    return id;
}

// At the end of its stanza's key order. A handed-out key list takes the name first, since that
// alone can fail.
void ZPStore::attach(Id id) {
    Key& key = keys_[id];
    Stanza& stanza = stanzas_[key.stanza];
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

ZPStore::Id ZPStore::createKey(Id stanza, const char* name, size_t length) {
    const uint32_t hash = keyHash(stanza, name, length);
    Id id = keyIndex_.find(hash, [&](Id candidate, uint32_t) {
        const Key& key = keys_[candidate];
        return key.stanza == stanza && key.name.length == length &&
               memcmp(text(key.name), name, length) == 0;
    });
    if (id != none && attached(id))
        return id;
    const bool made = id == none;
    if (made) {
        makeRoomForKey();
        id = newKey(stanza, text_.append({name, length}), hash);
    }
    try {
        attach(id);
    } catch (...) {
        if (made)
            freeKeyIfUnneeded(id);
        throw;
    }
    return id;
}

void ZPStore::removeKey(Id id) {
    Key& key = keys_[id];
    Stanza& stanza = stanzas_[key.stanza];
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
    removeItem(id);
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
    key.next = detached;
    --stanza.count;
    freeKeyIfUnneeded(id);
}

void ZPStore::freeKeyIfUnneeded(Id id) {
    Key& key = keys_[id];
    if (attached(id) || key.line != none)
        return;
    keyIndex_.remove(hashOf(id), id);
    text_.drop(key.name);
    key.stanza = none;
    keys_.giveBack(id);
}

// ---------------------------------------------------------------- values

ZPStore::KeyExtra& ZPStore::extraOf(Id id) {
    Key& key = keys_[id];
    if (key.extra == nullptr) {
        key.extra = new KeyExtra;
        mayHaveExtras_ = true;
    }
    return *key.extra;
}

void ZPStore::dropValues(Id id, Kind kind) {
    Key& key = keys_[id];
    if (key.extra != nullptr) {
        key.extra->values[kind].drop(text_, ownValue(key, kind));
    } else if (kind == plain) {
        text_.drop(key.value);
        key.value.length = 0;
    }
}

void ZPStore::appendValue(Id id, Kind kind, const char* value, size_t length) {
    if (length == 0)
        return;
    requireLength(length);
    if (kind == hidden)
        noteHidden();
    Key& key = keys_[id];
    if (kind == plain && takesValue(key))
        key.value = text_.append({value, length});
    else
        extraOf(id).values[kind].append(text_, ownValue(key, kind), ZSpan{value, length});
}

void ZPStore::replaceValues(Id id, Kind kind, const char* value, size_t length) {
    requireLength(length);
    Key& key = keys_[id];
    // The usual case: one plain value takes the place of another and fits into its room.
    const bool isAlone = key.extra == nullptr || !(key.extra->values[plain].areHere() ||
                                                   key.extra->values[hidden].areHere());
    if (isAlone && kind == plain && length != 0 && key.value.length >= length) {
        text_.overwrite(key.value, {value, length});
        compactIfWorthwhile();
        return;
    }
    if (kind == hidden)
        noteHidden();
    if (length == 0) {
        dropValues(id, kind);
    } else if (kind == hidden || key.extra != nullptr) {
        extraOf(id).values[kind].replace(text_, ownValue(key, kind), {value, length});
    } else {
        const ZPSlice fresh = text_.append({value, length});
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
    const Key& key = keys_[id];
    KeyExtra* extra = zloadMade(key.extra);
    if (extra == nullptr) {
        extra = zpublish(key.extra, std::unique_ptr<KeyExtra>(new KeyExtra));
        __atomic_store_n(&mayHaveExtras_, true, __ATOMIC_RELAXED);
    }
    return extra->values[kind].list(text_, ownValue(key, kind));
}

ZArrayList* ZPStore::keyList(Id id) const {
    const Stanza& stanza = stanzas_[id];
    if (ZArrayList* list = stanza.keyList.get())
        return list;
    std::unique_ptr<ZArrayList> fresh(new ZArrayList(stanza.count, 1));
    for (Id k = stanza.first; k != none; k = keys_[k].next)
        addString(*fresh, text_.span(keys_[k].name));
    return stanza.keyList.publish(std::move(fresh));
}

ZLCString* ZPStore::nameObject(Id id) const {
    const Stanza& stanza = stanzas_[id];
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
        const ZPSlice& name = keys_[id].name;
        char* copy = static_cast<char*>(malloc(name.length + size_t(1)));
        if (copy == nullptr)
            zraise(ZOutOfMemoryException());
        memcpy(copy, text(name), name.length);
        copy[name.length] = '\0';
        nameTexts_[id] = copy;
    }
    return nameTexts_[id];
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

// ---------------------------------------------------------------- items

void ZPStore::appendItem(Id id) {
    KeyExtra& extra = extraOf(id);
    removeItem(id);
    extra.isItem = true;
    extra.itemPrev = itemLast_;
    extra.itemNext = none;
    if (itemLast_ != none)
        keys_[itemLast_].extra->itemNext = id;
    else
        itemFirst_ = id;
    itemLast_ = id;
    ++itemCount_;
}

void ZPStore::removeItem(Id id) {
    KeyExtra* extra = keys_[id].extra;
    if (extra == nullptr || !extra->isItem)
        return;
    if (extra->itemPrev != none)
        keys_[extra->itemPrev].extra->itemNext = extra->itemNext;
    else
        itemFirst_ = extra->itemNext;
    if (extra->itemNext != none)
        keys_[extra->itemNext].extra->itemPrev = extra->itemPrev;
    else
        itemLast_ = extra->itemPrev;
    extra->isItem = false;
    --itemCount_;
}

// ---------------------------------------------------------------- reading

void ZPStore::reserveForLines(size_t lines) {
    keys_.reserveMore(lines);
    lines_.reserve(lines);
    // The index has room for some more keys: making it anew for the first one that is added would
    // cost as much as the whole load.
    keyIndex_.reserveMore(lines + lines / 8);
}

ZPStore::Id ZPStore::readHeader(ZPSlice name) {
    const uint64_t hash = zhashOf({text(name), name.length});
    stanzas_.reserveMore(1);
    stanzaIndex_.reserveMore(1);
    lines_.reserveGroup();
    Id stanza = findStanza(text(name), name.length);
    if (stanza == none)
        stanza = newStanza(name, hash);
    if (!stanzas_[stanza].inMap) {
        stanzas_[stanza].inMap = true;
        ++stanzasInMap_;
    }
    return addGroup(stanza);
}

// An entry in all its cases: a key that is there already, or one that finds used records or a
// handed-out list.
ZPStore::Id ZPStore::readEntrySlowly(Id group, ZPSlice name, ZPSlice value, uint32_t hash, Id id,
                                     bool& isNew) {
    const Id stanza = lines_.group(group).stanza;
    isNew = id == none || !attached(id);
    if (isNew) {
        if (id == none)
            id = newKey(stanza, name, hash);
        attach(id);
        noteLine(id, lines_.appendKey(group, id));
        keys_[id].value = value;
        return id;
    }
    if (value.length == 0)
        return id;
    Key& key = keys_[id];
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
        // A key without any line now is forgotten unless it is in the map; one whose lines were
        // counted above may be met again here.
        const Id key = line(l).ref;
        if (keys_[key].line == l)
            keys_[key].line = none;
        if (keys_[key].line == none && !isFree(key))
            freeKeyIfUnneeded(key);
    }
    lines_.removeGroup(id);
    freeStanzaIfUnneeded(stanza);
    compactIfWorthwhile();
}

void ZPStore::placeKeyLine(Id key) {
    const Key& record = keys_[key];
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

void ZPStore::addFileComment(const char* comment, size_t length) {
    lines_.addFileComment({comment, length}, text_);
}

void ZPStore::addStanzaComment(Id stanza, const char* comment, size_t length) {
    lines_.addStanzaComment(stanzas_[stanza].group, {comment, length}, text_);
}

void ZPStore::addKeyComment(Id key, const char* comment, size_t length) {
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
        lines_.addCommentBefore(group, found, {comment, length}, text_);
}

// ---------------------------------------------------------------- invariants

void ZPStore::checkInvariants() const {
    size_t used = 0;  // bytes of slices
    size_t keysSeen = 0, attachedSeen = 0, stanzasSeen = 0, inMapSeen = 0;
    keyIndex_.checkInvariants([&](Id id) { return keys_[id].name.offset; });
    stanzaIndex_.checkInvariants([&](Id id) { return stanzas_[id].name.offset; });
    lines_.checkInvariants(text_);
    keyIndex_.forEach([&](Id id) {
        ++keysSeen;
        const Key& key = keys_[id];
        used += key.name.length + key.value.length;
        if (key.extra != nullptr)
            for (Kind kind : {plain, hidden}) {
                key.extra->values[kind].checkInvariants(ownValue(key, kind));
                key.extra->values[kind].forEachSlice(
                    [&](const ZPSlice& slice) { used += slice.length; });
            }
        ZPHOLDS(stanzas_[key.stanza].inUse);
        const ZPSlice& stanza = stanzas_[key.stanza].name;
        ZPHOLDS(findKey(text(stanza), stanza.length, text(key.name), key.name.length) == id);
        if (attached(id)) {
            ++attachedSeen;
            ZPHOLDS(stanzas_[key.stanza].inMap);
        } else {
            ZPHOLDS(key.line != none && key.extra == nullptr && key.value.length == 0);
        }
    });
    ZPHOLDS(keysSeen == keyIndex_.count());
    size_t chained = 0;
    stanzaIndex_.forEach([&](Id id) {
        ++stanzasSeen;
        const Stanza& stanza = stanzas_[id];
        used += stanza.name.length;
        ZPHOLDS(stanza.inUse && (stanza.inMap || stanza.group != none));
        ZPHOLDS(findStanza(text(stanza.name), stanza.name.length) == id);
        inMapSeen += stanza.inMap ? 1 : 0;
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
    ZPHOLDS(chained == attachedSeen && inMapSeen == stanzasInMap_);
    for (Id g = 0; g != none; g = group(g).next) {
        for (Id l = group(g).first; l != none; l = line(l).next) {
            if (line(l).isComment()) {
                used += line(l).slice().length;
            } else if (line(l).isKey()) {
                const Key& key = keys_[line(l).ref];
                ZPHOLDS(key.stanza == group(g).stanza);
                ZPHOLDS(key.line == l || key.line == kSeveralIds);
            }
        }
    }
    text_.checkInvariants(used);
    uint32_t items = 0;
    Id previous = none;
    for (Id k = itemFirst_; k != none; k = keys_[k].extra->itemNext) {
        ZPHOLDS(attached(k) && keys_[k].extra->isItem && keys_[k].extra->itemPrev == previous);
        previous = k;
        ++items;
    }
    ZPHOLDS(items == itemCount_ && itemLast_ == previous);
    for (const Cursor* c = cursors_; c != nullptr; c = c->next_) {
        ZPHOLDS(c->stanza_ != none || c->key_ == none);
        ZPHOLDS(c->key_ == none || (attached(c->key_) && keys_[c->key_].stanza == c->stanza_));
        ZPHOLDS(c->key_ != none || !c->isOnKey_);
    }
}
