// zpstorelines.cpp: the lines of the property store: groups, placement of new keys, comments.
//
// A new key goes behind the last key line of its stanza, unless a comment of the stanza reads like
// an entry for this key ("# port = 80"): then it goes to the end of that paragraph. Walking the
// stanza for each new key would make adding many keys quadratic, so a group remembers its last key
// line and, once it has comments and a key is added, an index of the comments that read like
// entries, by the text between "#" and the first "=".
#include "zpstore.h"

#include <cstdio>

// Comments that read like entries, by the hash of what they name. Open addressing; `line` is the
// only such comment, or `many`; `closing` is the blank line that closes its paragraph, none, or
// unknown: to be looked for.
struct ZPStore::Samples {
    uint32_t capacity;
    uint32_t count;
    struct Slot {
        uint32_t hash;
        Id line;
        Id closing;
    } slots[1];

    static Samples* make(uint32_t capacity) {
        const size_t bytes = sizeof(Samples) + sizeof(Slot) * capacity;
        Samples* samples = static_cast<Samples*>(malloc(bytes));
        if (samples == nullptr)
            return nullptr;
        samples->capacity = capacity;
        samples->count = 0;
        for (uint32_t i = 0; i < capacity; ++i)
            samples->slots[i].line = none;
        return samples;
    }

    Slot& find(uint32_t hash) {
        for (uint32_t i = hash % capacity;; i = i + 1 == capacity ? 0 : i + 1)
            if (slots[i].line == none || slots[i].hash == hash)
                return slots[i];
    }

    void add(uint32_t hash, Id line, Id closing) {
        Slot& slot = find(hash);
        if (slot.line == none)
            ++count;
        slot.line = slot.line == none ? line : many;
        slot.hash = hash;
        slot.closing = closing;
    }
};

// FNV over single bytes, since a comment's blanks are passed over as it goes.
static const uint32_t kSampleStart = 2166136261u;

static inline uint32_t sampleStep(uint32_t hash, char c) {
    return (hash ^ static_cast<unsigned char>(c)) * 16777619u;
}

// The hash of what the comment names as an entry would; false if it doesn't read like an entry.
static bool sampleHash(const char* text, size_t length, uint32_t& hash) {
    size_t i = 0;
    while (i < length && text[i] == ' ')
        ++i;
    if (i == length || text[i] != '#')
        return false;
    hash = kSampleStart;
    for (++i; i < length; ++i) {
        if (text[i] == '=')
            return true;
        if (text[i] != ' ')
            hash = sampleStep(hash, text[i]);
    }
    return false;
}

// The hash under which comments that name this key are found.
static uint32_t keySampleHash(const char* key, size_t length) {
    uint32_t hash = kSampleStart;
    for (size_t i = 0; i < length && key[i] != '='; ++i)
        hash = sampleStep(hash, key[i]);
    return hash;
}

// ---------------------------------------------------------------- lines and groups

ZPStore::Id ZPStore::takeFreeLine() {
    const Id id = freeLines_;
    freeLines_ = lines_[id].next;
    --freeLineCount_;
    return id;
}

ZPStore::Id ZPStore::newLine(LineType type, uint32_t ref, uint32_t length) {
    const Line fresh = {none, none, ref, length << 2 | type};
    if (freeLines_ == none) {
        lines_.push(fresh);
        return static_cast<Id>(lines_.size() - 1);
    }
    const Id id = takeFreeLine();
    lines_[id] = fresh;
    return id;
}

// The group has got one more comment or blank line.
void ZPStore::noteOtherLine(Group& group, Id id) {
    if (lines_[id].type() == lineComment) {
        ++group.comments;
        if (group.sampleCount != unknown)
            addSample(group, id, unknown);
        return;
    }
    ++group.blanks;
    if (group.samples != nullptr) {
        // It closes paragraphs anew: the index is made again when it is needed.
        free(group.samples);
        group.samples = nullptr;
        group.sampleCount = unknown;
    }
}

ZPStore::Id ZPStore::newGroup(Id stanza) {
    const Group fresh = {stanza, none, none, none, none, none, none, 0, 0, unknown, nullptr};
    Id id = freeGroups_;
    if (id != none) {
        freeGroups_ = groups_[id].next;
        groups_[id] = fresh;
    } else {
        id = static_cast<Id>(groups_.size());
        groups_.push(fresh);
    }
    if (id == 0) {  // the lines before the first header; its `prev` is the last group
        groups_[0].prev = 0;
        return 0;
    }
    const Id last = groups_[0].prev;
    groups_[id].prev = last;
    groups_[last].next = id;
    groups_[0].prev = id;
    Id* same = &stanzas_[stanza].group;
    while (*same != none)
        same = &groups_[*same].nextSame;
    *same = id;
    return id;
}

void ZPStore::insertLine(Id groupId, Id before, Id id) {
    Group& group = groups_[groupId];
    Line& line = lines_[id];
    line.next = before;
    line.prev = before == none ? group.last : lines_[before].prev;
    if (line.prev != none)
        lines_[line.prev].next = id;
    else
        group.first = id;
    if (before != none)
        lines_[before].prev = id;
    else
        group.last = id;
    if (line.type() == lineKey)
        group.lastKey = before == none ? id : unknown;
    else
        noteOtherLine(group, id);
}

void ZPStore::unlinkLine(Id groupId, Id id) {
    Group& group = groups_[groupId];
    Line& line = lines_[id];
    if (line.prev != none)
        lines_[line.prev].next = line.next;
    else
        group.first = line.next;
    if (line.next != none)
        lines_[line.next].prev = line.prev;
    else
        group.last = line.prev;
    if (group.lastKey == id)
        group.lastKey = unknown;
    line.next = freeLines_;
    freeLines_ = id;
    ++freeLineCount_;
}

// Looks for the key's lines: none, the only one, or many.
void ZPStore::countLines(Id key) {
    Id found = none;
    for (Id g = stanzas_[keys_[key].stanza].group; g != none; g = groups_[g].nextSame)
        for (Id l = groups_[g].first; l != none; l = lines_[l].next)
            if (lines_[l].type() == lineKey && lines_[l].ref == key)
                found = found == none ? l : many;
    keys_[key].line = found;
}

ZPStore::Id ZPStore::lastKeyLine(Id groupId) {
    Group& group = groups_[groupId];
    if (group.lastKey == unknown) {
        Id l = group.last;
        while (l != none && lines_[l].type() != lineKey)
            l = lines_[l].prev;
        group.lastKey = l;
    }
    return group.lastKey;
}

void ZPStore::addHeader(Id stanza) {
    reserveLines(1);
    groups_.reserveMore(1);
    appendLine(lastGroup(), lineBlank, 0, 0);
    newGroup(stanza);
}

void ZPStore::removeGroup(Id stanza) {
    const Id id = stanzas_[stanza].group;
    if (id == none)
        return;
    Group& group = groups_[id];
    // Out of the chains first, so that the keys' other lines are counted without this group.
    groups_[group.prev].next = group.next;
    if (group.next != none)
        groups_[group.next].prev = group.prev;
    else
        groups_[0].prev = group.prev;
    stanzas_[stanza].group = group.nextSame;
    for (Id l = group.first; l != none; l = lines_[l].next) {
        const Line& line = lines_[l];
        if (line.type() == lineComment)
            dead_ += line.length();
        else if (line.type() == lineKey && keys_[line.ref].line == many)
            countLines(line.ref);
    }
    for (Id l = group.first; l != none;) {
        const Line line = lines_[l];
        if (line.type() == lineKey) {
            // A key without any line now is forgotten unless it is in the map; one whose lines
            // were counted above may be met again here.
            Key& key = keys_[line.ref];
            if (key.line == l)
                key.line = none;
            if (key.line == none && !isFree(line.ref))
                freeKeyIfUnneeded(line.ref);
        }
        lines_[l].next = freeLines_;
        freeLines_ = l;
        ++freeLineCount_;
        l = line.next;
    }
    free(group.samples);
    group.next = freeGroups_;
    freeGroups_ = id;
    group.stanza = none;
    group.first = none;
    group.samples = nullptr;
    freeStanzaIfUnneeded(stanza);
    compactIfWorthwhile();
}

void ZPStore::removeKeyLines(Id key) {
    const Id line = keys_[key].line;
    const Id group = stanzas_[keys_[key].stanza].group;
    if (line == none || group == none) {
        freeKeyIfUnneeded(key);
        return;
    }
    if (line != many && groups_[group].nextSame == none) {
        unlinkLine(group, line);
        keys_[key].line = none;
    } else {
        // Several lines, or several groups of one name: only those of the first group go.
        for (Id l = groups_[group].first; l != none;) {
            const Id next = lines_[l].next;
            if (lines_[l].type() == lineKey && lines_[l].ref == key)
                unlinkLine(group, l);
            l = next;
        }
        countLines(key);
    }
    freeKeyIfUnneeded(key);
    compactIfWorthwhile();
}

// ---------------------------------------------------------------- where a new key goes

bool ZPStore::isCommentWeWant(const ZPSlice& key, Id line) const {
    // "#", key and "=" in turn, each as a piece, so that nothing has to be joined.
    const char* comment = text(lines_[line].ref);
    const size_t length = lines_[line].length();
    size_t at = 0;
    const char* pieces[] = {"#", text(key), "="};
    const size_t lengths[] = {1, key.length, 1};
    for (int piece = 0; piece < 3; ++piece) {
        for (size_t i = 0; i < lengths[piece]; ++i) {
            while (at < length && comment[at] == ' ')
                ++at;
            if (at == length || comment[at] != pieces[piece][i])
                return false;
            ++at;
        }
    }
    return true;
}

// Notes a comment if it reads like an entry. Without memory the index goes, and is made anew when it
// is needed.
void ZPStore::addSample(Group& group, Id id, Id closing) {
    uint32_t hash;
    const Line& line = lines_[id];
    if (!sampleHash(text(line.ref), line.length(), hash))
        return;
    Samples* samples = group.samples;
    const bool isFull = samples == nullptr || (samples->count + 1) * 2 > samples->capacity;
    if (isFull) {
        Samples* grown = Samples::make(samples == nullptr ? 8 : samples->capacity * 2);
        for (uint32_t i = 0; grown != nullptr && samples != nullptr && i < samples->capacity; ++i)
            if (samples->slots[i].line != none) {
                grown->find(samples->slots[i].hash) = samples->slots[i];
                ++grown->count;
            }
        free(samples);
        group.samples = samples = grown;
        if (samples == nullptr) {
            group.sampleCount = unknown;
            return;
        }
    }
    ++group.sampleCount;
    samples->add(hash, id, closing);
}

// Indexes the comments that read like entries, with the blank lines that close their paragraphs.
void ZPStore::findSamples(Group& group) {
    if (group.sampleCount != unknown)
        return;
    group.sampleCount = 0;
    Id closing = none;
    for (Id l = group.last; l != none && group.sampleCount != unknown; l = lines_[l].prev) {
        if (lines_[l].type() == lineBlank)
            closing = l;
        else if (lines_[l].type() == lineComment)
            addSample(group, l, closing);
    }
}

// The blank line that closes the paragraph of the first comment that reads like an entry for this
// key; none if there is no such comment, or nothing closes it.
ZPStore::Id ZPStore::findParagraphEnd(Id groupId, Id keyId) {
    Group& group = groups_[groupId];
    if (group.comments == 0 || group.blanks == 0)
        return none;
    findSamples(group);
    if (group.sampleCount == 0)
        return none;
    const ZPSlice key = keys_[keyId].name;
    Id sample = many;
    if (group.samples != nullptr) {
        const Samples::Slot& slot = group.samples->find(keySampleHash(text(key), key.length));
        if (slot.line == none || (slot.line != many && !isCommentWeWant(key, slot.line)))
            return none;
        if (slot.line != many && slot.closing != unknown)
            return slot.closing;
        sample = slot.line;
    }
    if (sample == many)
        for (sample = group.first; sample != none; sample = lines_[sample].next)
            if (lines_[sample].type() == lineComment && isCommentWeWant(key, sample))
                break;
    while (sample != none && lines_[sample].type() != lineBlank)
        sample = lines_[sample].next;
    return sample;
}

void ZPStore::placeKeyLine(Id key) {
    const Id group = stanzas_[keys_[key].stanza].group;
    reserveLines(1);
    Id before = findParagraphEnd(group, key);
    const bool inParagraph = before != none;
    if (!inParagraph) {
        const Id last = lastKeyLine(group);
        before = last == none ? groups_[group].first : lines_[last].next;
    }
    const Id line = newLine(lineKey, key, 0);
    insertLine(group, before, line);
    if (!inParagraph)
        groups_[group].lastKey = line;
    noteLine(key, line);
}

// ---------------------------------------------------------------- comments

ZPStore::Id ZPStore::insertComment(Id group, Id before, ZPSlice text) {
    const Id line = newLine(lineComment, text.offset, text.length);
    insertLine(group, before, line);
    return line;
}

static void requireCommentLength(size_t length) {
    if (length >= 0x3FFFFFFFu)
        ZOutOfMemoryException().throwException(__FILE__, __LINE__);
}

void ZPStore::addFileComment(const char* comment, size_t length) {
    requireCommentLength(length);
    reserveLines(2);
    const ZPSlice slice = appendText(comment, length);
    Id l = groups_[0].first;
    while (l != none && lines_[l].type() != lineBlank)
        l = lines_[l].next;
    if (l != none) {
        insertComment(0, l, slice);
        return;
    }
    const Id first = groups_[0].first;
    insertComment(0, first, slice);
    insertLine(0, first, newLine(lineBlank, 0, 0));
}

void ZPStore::addStanzaComment(Id stanza, const char* comment, size_t length) {
    requireCommentLength(length);
    reserveLines(2);
    const ZPSlice slice = appendText(comment, length);
    const Id group = stanzas_[stanza].group;
    Id l = groups_[group].first;
    while (l != none && lines_[l].type() == lineComment)
        l = lines_[l].next;
    insertComment(group, l, slice);
    if (l == none || lines_[l].type() != lineBlank)
        insertLine(group, l, newLine(lineBlank, 0, 0));
}

void ZPStore::addKeyComment(Id key, const char* comment, size_t length) {
    requireCommentLength(length);
    const ZPSlice name = keys_[key].name;
    Id group = stanzas_[keys_[key].stanza].group;
    if (group == none)
        return;
    // The one line of the key is the first with its text behind the header, if the header is the
    // only one of that name; otherwise the walk decides, and it goes on into later stanzas.
    Id found = none;
    const Id line = keys_[key].line;
    if (line != none && line != many && groups_[group].nextSame == none) {
        found = line;
    } else {
        for (; group != none; group = groups_[group].next) {
            for (found = groups_[group].first; found != none; found = lines_[found].next) {
                const Line& candidate = lines_[found];
                if (candidate.type() != lineKey)
                    continue;
                const ZPSlice& other = keys_[candidate.ref].name;
                if (other.length == name.length &&
                    memcmp(text(other), text(name), name.length) == 0)
                    break;
            }
            if (found != none)
                break;
        }
    }
    if (found == none)
        return;
    reserveLines(2);
    const ZPSlice slice = appendText(comment, length);
    const Id before = lines_[found].prev;
    if (before == none || lines_[before].type() == lineKey)
        insertLine(group, found, newLine(lineBlank, 0, 0));
    insertComment(group, found, slice);
}

// ---------------------------------------------------------------- invariants

#define REQUIRE(condition)                                                          \
    do {                                                                            \
        if (!(condition)) {                                                         \
            fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition); \
            abort();                                                                \
        }                                                                           \
    } while (0)

void ZPStore::checkInvariants() const {
    size_t keysSeen = 0, attachedSeen = 0, stanzasSeen = 0, inMapSeen = 0;
    keyIndex_.forEach([&](Id id) {
        ++keysSeen;
        const Key& key = keys_[id];
        REQUIRE(stanzas_[key.stanza].inUse);
        const ZPSlice& stanza = stanzas_[key.stanza].name;
        REQUIRE(findKey(text(stanza), stanza.length, text(key.name), key.name.length) == id);
        if (attached(id)) {
            ++attachedSeen;
            REQUIRE(stanzas_[key.stanza].inMap);
        } else {
            REQUIRE(key.line != none && key.extra == nullptr && key.value.length == 0);
        }
        if (key.extra != nullptr && key.extra->values[plain].size() != 0)
            REQUIRE(key.value.length == 0);
    });
    REQUIRE(keysSeen == keyIndex_.count());
    size_t chained = 0;
    stanzaIndex_.forEach([&](Id id) {
        ++stanzasSeen;
        const Stanza& stanza = stanzas_[id];
        REQUIRE(stanza.inUse && (stanza.inMap || stanza.group != none));
        REQUIRE(findStanza(text(stanza.name), stanza.name.length) == id);
        inMapSeen += stanza.inMap ? 1 : 0;
        uint32_t count = 0;
        Id previous = none;
        for (Id k = stanza.first; k != none; k = keys_[k].next) {
            REQUIRE(keys_[k].stanza == id && keys_[k].prev == previous);
            previous = k;
            ++count;
        }
        REQUIRE(stanza.last == previous && stanza.count == count);
        REQUIRE(stanza.keyList == nullptr || stanza.keyList->size() == count);
        chained += count;
        for (Id g = stanza.group; g != none; g = groups_[g].nextSame)
            REQUIRE(groups_[g].stanza == id);
    });
    REQUIRE(chained == attachedSeen && inMapSeen == stanzasInMap_);
    Id lastGroupSeen = 0;
    size_t linesSeen = 0;
    for (Id g = 0; g != none; g = groups_[g].next) {
        const Group& group = groups_[g];
        REQUIRE(g == 0 || group.prev == lastGroupSeen);
        lastGroupSeen = g;
        Id previous = none, lastKeySeen = none;
        uint32_t comments = 0, blanks = 0;
        for (Id l = group.first; l != none; l = lines_[l].next) {
            REQUIRE(lines_[l].prev == previous);
            previous = l;
            ++linesSeen;
            comments += lines_[l].type() == lineComment ? 1 : 0;
            blanks += lines_[l].type() == lineBlank ? 1 : 0;
            if (lines_[l].type() == lineKey) {
                lastKeySeen = l;
                const Key& key = keys_[lines_[l].ref];
                REQUIRE(key.stanza == group.stanza);
                REQUIRE(key.line == l || key.line == many);
            }
        }
        REQUIRE(group.last == previous && group.comments == comments);
        REQUIRE(group.blanks == blanks);
        REQUIRE(group.lastKey == unknown || group.lastKey == lastKeySeen);
    }
    REQUIRE(groups_[0].prev == lastGroupSeen);
    REQUIRE(linesSeen + freeLineCount_ == lines_.size());
    uint32_t items = 0;
    Id previous = none;
    for (Id k = itemFirst_; k != none; k = keys_[k].extra->itemNext) {
        REQUIRE(attached(k) && keys_[k].extra->isItem && keys_[k].extra->itemPrev == previous);
        previous = k;
        ++items;
    }
    REQUIRE(items == itemCount_ && itemLast_ == previous);
    for (const Cursor* c = cursors_; c != nullptr; c = c->next_) {
        REQUIRE(c->stanza_ != none || c->key_ == none);
        REQUIRE(c->key_ == none || (attached(c->key_) && keys_[c->key_].stanza == c->stanza_));
        REQUIRE(c->key_ != none || !c->isOnKey_);
    }
}
