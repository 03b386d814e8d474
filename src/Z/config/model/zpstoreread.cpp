// zpstoreread.cpp: how a store is filled with what was read.
#include "zpstore.h"

static const size_t kFewLines = 4096, kManyLines = 16 * 1024, kMostLines = 256 * 1024;

void ZPStore::reserveForLines(size_t lines, size_t keys) {
    // With room for some more keys: to move all this for the first one that is added would cost as
    // much as the whole load. What isn't used of a large block isn't there. There may be fewer
    // lines than was guessed.
    const size_t spare = lines >= kMostLines ? lines / 16 : lines < kFewLines ? lines : lines / 4;
    if (lines >= kManyLines && keys_.end() == 0 && lines_.end() == 0)
        expectMany();
    keys_.expect(keys, spare);
    lines_.expect(lines, spare);
    makeRoomInKeyIndex(keys + spare);
}

void ZPStore::expectStanzas(size_t stanzas) {
    stanzas_.expect(stanzas, stanzas / 4);
    lines_.expectGroups(stanzas, stanzas / 4);
    makeRoomInStanzaIndex(stanzas + stanzas / 4);
}

// The number of lines in three pieces tells roughly how many there are in all: the first lines of a
// file alone are often shorter than the last. A guess only: it is kept within what a file of short
// entries needs, and without memory for it the blocks grow as they are filled.
void ZPStore::reserveForText(size_t start) {
    static const size_t kLeast = 1024, kMost = 16 * 1024, kShare = 64;
    const size_t size = text_.size() - start;
    if (size == 0)
        return;
    const size_t share = size / kShare;
    const size_t part = share < kLeast ? kLeast : share < kMost ? share : kMost;
    const size_t piece = size < 3 * part ? size : part;
    size_t lines = 1, comments = 0, headers = 1, blanks = 0, sample = 0;
    for (size_t at = start; sample < size && sample < 3 * part; at += (size - piece) / 2) {
        const char* p = text_.at(at);
        const char* const stop = p + piece;
        while ((p = static_cast<const char*>(memchr(p, '\n', stop - p))) != nullptr) {
            ++lines;
            ++p;
            if (p == stop)
                break;
            headers += *p == '[';
            comments += *p == '#';
            blanks += *p == '\n';
        }
        sample += piece;
    }
    const auto inAll = [&](size_t found) {
        const uint64_t guess = static_cast<uint64_t>(found) * size / sample;
        const size_t most = size / 8 + 1;
        return guess < most ? static_cast<size_t>(guess) : most;
    };
    try {
        reserveForLines(inAll(lines), inAll(lines - (headers - 1) - comments - blanks));
        lines_.expectComments(inAll(comments), 0);
        expectStanzas(inAll(headers));
    } catch (ZOutOfMemoryException&) {
    }
}

ZPStore::Id ZPStore::readHeader(ZPSlice name, const SoughtStanza& sought) {
    zassert(!isStanzaInMap(sought.id));
    makeRoomForStanza();
    lines_.reserveGroup();
    const Id stanza = sought.id != none ? sought.id : newStanza(name, sought.hash);
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
    stanzaIndex_.setOffset(znarrowHash(stanza.hash), id, name.offset);
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
        const ZPSlice first = placeOfValue(id, which, 0);
        return first.length != 0 && first.offset < layerStart_;
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
        const ZPSlice last = count == 0 ? ZPSlice{0, 0} : placeOfValue(id, plain, count - 1);
        if (last.length != 0 && last.offset >= layerStart_) {
            if (keys_.extra(id) == nullptr)
                dropValues(id, plain);
            else
                changeValues(id, plain,
                             [&](ZPValues& values, ZPSlice* own) { values.dropLast(text_, own); });
        }
    } else if (lastWins_ || (emptyResets_ && isEmpty)) {
        dropValues(id, plain);
    } else if (layerStart_ == none) {
        return;
    }
    unmarkBare(id);
}

// Whether new keys of the group's stanza, and all other lines, can be put at its end one behind
// the other, without a look at anything else.
bool ZPStore::isReadyToRead(Id group, size_t lines) const {
    const Id id = lines_.group(group).stanza;
    if (id == none || !lines_.isReadyAt(group, lines))
        return false;
    const ZPStanza& stanza = stanzas_[id];
    return stanza.keyList() == nullptr && keys_.isReadyBehind(stanza.last, lines);
}

void ZPStore::readLines(Id group, const ZPReadLine* lines, size_t count) {
    keys_.reserveToRead(count);
    lines_.reserveToRead(count);
    if (!keyIndex_.takes(keys_.end(), count))
        makeRoomInKeyIndex(count);
    const ZPReadLine *line = lines, *const end = lines + count;
    bool isReady = isReadyToRead(group, count);
    while (line != end) {
        Id known = none;
        if (isReady)
            line = keyIndex_.isSmall() ? readNewKeys<true>(group, line, end, known)
                                       : readNewKeys<false>(group, line, end, known);
        if (line == end)
            break;
        if (line->kind < ZPReadLine::entry) {
            // It stays ready, for there is room for all.
            if (!isReady)
                lines_.reserveAt(group);
            readOther(group, *line++);
        } else {
            if (!isReady)
                known = findRead(group, *line);
            const Id key = readEntry(group, *line, known);
            if (line++->kind == ZPReadLine::bareEntry)
                markBare(key);
            isReady = isReadyToRead(group, static_cast<size_t>(end - line));
        }
    }
}

// The entries that a batch begins with, as long as they are of new keys. Returns the first line
// that isn't; if it is an entry, `known` is the record of its key, or none.
template <bool isFew>
inline const ZPReadLine* ZPStore::readNewKeys(Id group, const ZPReadLine* line,
                                              const ZPReadLine* end, Id& known) {
    const Id stanzaId = lines_.group(group).stanza, first = keys_.end();
    const Id lineOfFirst = lines_.nextId() - first;  // and so on, which may wrap
    // Also if there is no memory to compare names that have several spellings.
    struct Chaining {
        ~Chaining() { store.chainPushed(group, first); }
        ZPStore& store;
        const Id group, first;
    } chaining = {*this, group, first};
    Id id = first;
    for (; line != end && line->kind >= ZPReadLine::entry; ++line, ++id) {
        ZPNameIndex::Place place;
        const auto isIt = [&](Id other, uint32_t) {
            return isKeyOf(other, stanzaId, text_.span(line->name));
        };
        known = isFew ? keyIndex_.findOrPlaceInSlots(line->hash, place, isIt)
                      : keyIndex_.findOrPlace(line->hash, place, isIt);
        if (known != none || (line->name.length | line->value.length) >= ZPKeys::kLong)
            break;
        keys_.push(line->name, line->value, stanzaId, lineOfFirst + id);
        keyIndex_.insertAt(place, id, line->name.offset);
    }
    return line;
}

// Chains the keys from this one on, which have just been pushed, and gives them their lines.
inline void ZPStore::chainPushed(Id group, Id first) noexcept {
    const Id count = keys_.end() - first;
    if (count == 0)
        return;
    ZPStanza& stanza = stanzas_[lines_.group(group).stanza];
    keys_.chainPushed(stanza.last, count);
    lines_.readKeys(group, first, count);
    stanza.noteKeys(first, keys_.end() - 1, count);
}

// The record of an entry's key, or none.
ZPStore::Id ZPStore::findRead(Id group, const ZPReadLine& line) const {
    const Id stanza = lines_.group(group).stanza;
    return keyIndex_.find(line.hash, [&](Id other, uint32_t) {
        return isKeyOf(other, stanza, text_.span(line.name));
    });
}

// A comment or a blank line. Needs room for a line.
void ZPStore::readOther(Id group, const ZPReadLine& line) {
    if (line.kind == ZPReadLine::blank)
        return lines_.appendBlank(group, text_);
    lines_.reserveComments(1);
    lines_.appendComment(group, line.name, text_);
}

// An entry in all its cases: `id` is the key's record if there is one. The index has room.
ZPStore::Id ZPStore::readEntry(Id group, const ZPReadLine& line, Id id) {
    const Id stanza = lines_.group(group).stanza;
    const ZPSlice value = line.value;
    if (id == none || !isInMap(id)) {
        lines_.reserveAt(group);
        const bool isMade = id == none;
        if (isMade) {
            keys_.reserveToRead(1);
            if (line.name.length >= ZPKeys::kLong)
                keys_.makeExtra(keys_.nextId());
            id = newKey(stanza, line.name, line.hash, true);
        }
        try {
            makeRoomForValue(id, value.length);
            putIntoMap(id);
        } catch (...) {
            if (isMade)
                freeKeyIfUnneeded(id);
            throw;
        }
        noteLine(id, lines_.appendKey(group, id));
        keys_.setValue(id, value);
        return id;
    }
    if (layerStart_ != none)
        forgetLowerValues(id, plain, value.length == 0);
    forgetValuesAbove(id, value.length == 0);
    if (value.length == 0)
        return id;
    if (takesValue(id)) {
        makeRoomForValue(id, value.length);
        keys_.setValue(id, value);
    } else {
        changeValues(id, plain,
                     [&](ZPValues& values, ZPSlice* own) { values.append(text_, own, value); });
    }
    return id;
}
