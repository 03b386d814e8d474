// zpstorelines.cpp: the lines of the property store: groups, placement of new keys, comments.
//
// A new key goes behind the last key line of its stanza, unless a comment of the stanza reads like
// an entry for this key ("# port = 80"): then it goes to the end of that paragraph. Walking the
// stanza for each new key would make adding many keys quadratic, so a group remembers where its
// keys end and, once it has comments and a key is added, an index of the comments that read like
// entries, by the text between "#" and the first "=". The index knows the paragraph of each: a
// blank line that is added later splits one, and the smaller part gets a new number.
#include "zpholds.h"
#include "zpstore.h"
#include "zraise.h"

#include <memory>

// The paragraphs of a group, and its comments that read like entries, by the hash of what they
// name.
//
// (1) A blank line closes each paragraph but the last, and has its number as `ref`. `first` is the
//     first paragraph, `open` the last, `next` leads from one to the other.
// (2) `isTail`: no key line stands behind the closing line. It may be missing between
// Group::lastKey
//     and the last key line, and nowhere else.
// (3) Open addressing; a slot's line is the first comment that names this, `many` where different
//     names have one hash, or `stale`: a second one has come, and which is first isn't known.
struct ZPStore::Samples : ZAllocated {
    struct Slot {
        uint32_t hash;
        Id line;
        uint32_t paragraph;
    };
    struct Paragraph {
        Id closing;
        uint32_t next;
        bool isTail;
    };

    ZPBlock<Slot> slots;
    uint32_t count = 0;
    ZPBlock<Paragraph> paragraphs;
    uint32_t first = 0, open = 0;
    // The comment that came last and its paragraph, for those who pile many up.
    Id recent = none;
    uint32_t recentParagraph = 0;

    Slot& find(uint32_t hash) {
        const size_t capacity = slots.size();
        for (size_t i = hash % capacity;; i = i + 1 == capacity ? 0 : i + 1)
            if (slots[i].line == none || slots[i].hash == hash)
                return slots[i];
    }

    // The slot of this hash where there is room for one more.
    Slot& findOrMake(uint32_t hash) {
        if ((count + size_t(1)) * 2 > slots.size()) {
            ZPBlock<Slot> old;
            old.reserveExactly(slots.size() < 4 ? size_t(8) : slots.size() * 2);
            while (old.room() != 0)
                old.push({0, none, 0});
            old.swap(slots);
            for (size_t i = 0; i < old.size(); ++i)
                if (old[i].line != none)
                    find(old[i].hash) = old[i];
        }
        Slot& slot = find(hash);
        if (slot.line == none) {
            slot.hash = hash;
            ++count;
        }
        return slot;
    }

    uint32_t addParagraph(Id closing, uint32_t next, bool isTail) {
        paragraphs.reserveMore(1);
        paragraphs.push({closing, next, isTail});
        return static_cast<uint32_t>(paragraphs.size() - 1);
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

// The group has got one more comment or blank line. Without memory the index goes, and is made anew
// when it is needed.
void ZPStore::noteOtherLine(Group& group, Id id) {
    const bool isComment = lines_[id].type() == lineComment;
    ++(isComment ? group.comments : group.blanks);
    if (!group.knowsSamples)
        return;
    try {
        if (isComment)
            addSample(group, id);
        else if (group.samples != nullptr)
            splitParagraph(group, id);
    } catch (ZOutOfMemoryException&) {
        forgetSamples(group);
    }
}

ZPStore::Id ZPStore::newGroup(Id stanza) {
    const Group fresh = {stanza, none, none, none, none, none, none, 0, 0, false, nullptr};
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
    if (line.type() != lineKey)
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
        group.lastKey = line.prev;
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

// The last key line, or none.
ZPStore::Id ZPStore::lastKeyLine(Id groupId) {
    Group& group = groups_[groupId];
    Id l = group.lastKey;
    for (; l != none && lines_[l].type() != lineKey; l = lines_[l].prev)
        if (group.samples != nullptr && lines_[l].type() == lineBlank)
            group.samples->paragraphs[lines_[l].ref].isTail = true;
    return group.lastKey = l;
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
            text_.addUnused(line.length());
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
    forgetSamples(group);
    group.next = freeGroups_;
    freeGroups_ = id;
    group.stanza = none;
    group.first = none;
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

// Whether two comments that read like entries name the same.
bool ZPStore::nameTheSame(Id comment, Id other) const {
    const char *a = text(lines_[comment].ref), *b = text(lines_[other].ref);
    for (;; ++a, ++b) {  // each has a "="
        while (*a == ' ')
            ++a;
        while (*b == ' ')
            ++b;
        if (*a != *b)
            return false;
        if (*a == '=')
            return true;
    }
}

void ZPStore::forgetSamples(Group& group) {
    delete group.samples;
    group.samples = nullptr;
    group.knowsSamples = false;
}

// The paragraph in which a comment is that the index doesn't know yet.
uint32_t ZPStore::paragraphOf(const Group& group, Id comment) const {
    const Samples& samples = *group.samples;
    // The nearer end of the paragraph tells.
    Id behind = lines_[comment].next, before = lines_[comment].prev;
    for (;; behind = lines_[behind].next, before = lines_[before].prev) {
        if (behind == none)
            return samples.open;
        if (lines_[behind].type() == lineBlank)
            return lines_[behind].ref;
        if (before == none)
            return samples.first;
        if (lines_[before].type() == lineBlank)
            return samples.paragraphs[lines_[before].ref].next;
    }
}

// The samples between two lines, the second excluded, are in this paragraph now.
void ZPStore::moveSamples(Samples& samples, Id from, Id to, uint32_t paragraph) {
    for (Id l = from; l != to; l = lines_[l].next) {
        uint32_t hash;
        if (lines_[l].type() != lineComment ||
            !sampleHash(text(lines_[l].ref), lines_[l].length(), hash))
            continue;
        Samples::Slot& slot = samples.find(hash);
        if (slot.line == l)
            slot.paragraph = paragraph;
    }
}

// A blank line has come into a paragraph. Only the shorter part is walked: however a group is cut
// up, each line is walked a few times.
void ZPStore::splitParagraph(Group& group, Id blank) {
    Samples& samples = *group.samples;
    samples.recent = none;
    Id key = lines_[blank].next;
    while (key != none && lines_[key].type() == lineComment)
        key = lines_[key].next;
    const bool isTail = key == none;
    samples.paragraphs.reserveMore(1);
    Id behind = lines_[blank].next, before = lines_[blank].prev;
    for (;; behind = lines_[behind].next, before = lines_[before].prev) {
        if (behind == none || lines_[behind].type() == lineBlank) {
            uint32_t& last = behind == none ? samples.open : lines_[behind].ref;
            const uint32_t old = last;
            const Samples::Paragraph whole = samples.paragraphs[old];
            last = samples.addParagraph(behind, whole.next, whole.isTail);
            samples.paragraphs[old] = {blank, last, isTail};
            lines_[blank].ref = old;
            moveSamples(samples, lines_[blank].next, behind, last);
            return;
        }
        if (before == none || lines_[before].type() == lineBlank) {
            uint32_t& first =
                before == none ? samples.first : samples.paragraphs[lines_[before].ref].next;
            const uint32_t added = samples.addParagraph(blank, first, isTail);
            first = added;
            lines_[blank].ref = added;
            moveSamples(samples, before == none ? group.first : lines_[before].next, blank, added);
            return;
        }
    }
}

// Notes a comment that has come if it reads like an entry.
void ZPStore::addSample(Group& group, Id id) {
    Samples* samples = group.samples;
    const Line& line = lines_[id];
    uint32_t hash;
    const bool isSample = sampleHash(text(line.ref), line.length(), hash);
    if (samples == nullptr) {
        // Nothing is known of paragraphs yet.
        group.knowsSamples = !isSample;
        return;
    }
    const bool isPiled = samples->recent != none && samples->recent == line.prev;
    if (isPiled)
        samples->recent = id;
    if (!isSample)
        return;
    Samples::Slot& slot = samples->findOrMake(hash);
    if (slot.line != none) {
        slot.line = slot.line == many ? many : stale;
        return;
    }
    slot.line = id;
    slot.paragraph = samples->recentParagraph =
        isPiled ? samples->recentParagraph : paragraphOf(group, id);
    samples->recent = id;
}

// Indexes the comments that read like entries. From the end, so that the first of a name stays.
void ZPStore::findSamples(Group& group) {
    if (group.knowsSamples)
        return;
    // Most groups have none, and then no index.
    uint32_t hash;
    Id sample = group.first;
    while (sample != none && (lines_[sample].type() != lineComment ||
                              !sampleHash(text(lines_[sample].ref), lines_[sample].length(), hash)))
        sample = lines_[sample].next;
    if (sample == none) {
        group.knowsSamples = true;
        return;
    }
    std::unique_ptr<Samples> samples(new Samples);
    uint32_t paragraph = samples->addParagraph(none, none, true);
    bool isTail = true;
    for (Id l = group.last; l != none; l = lines_[l].prev) {
        Line& line = lines_[l];
        if (line.type() == lineKey) {
            isTail = false;
        } else if (line.type() == lineBlank) {
            paragraph = line.ref = samples->addParagraph(l, paragraph, isTail);
        } else if (sampleHash(text(line.ref), line.length(), hash)) {
            Samples::Slot& slot = samples->findOrMake(hash);
            const bool isOther =
                slot.line == many || (slot.line != none && !nameTheSame(slot.line, l));
            slot.line = isOther ? many : l;
            slot.paragraph = paragraph;
        }
    }
    samples->first = paragraph;
    group.samples = samples.release();
    group.knowsSamples = true;
}

// The blank line that closes the paragraph of the first comment that reads like an entry for this
// key; none if there is no such comment, or nothing closes it.
ZPStore::Id ZPStore::findParagraphEnd(Id groupId, Id keyId) {
    Group& group = groups_[groupId];
    if (group.comments == 0 || group.blanks == 0)
        return none;
    const ZPSlice key = keys_[keyId].name;
    const uint32_t hash = keySampleHash(text(key), key.length);
    findSamples(group);
    if (group.samples != nullptr && group.samples->find(hash).line == stale) {
        forgetSamples(group);
        findSamples(group);
    }
    if (group.samples == nullptr)
        return none;
    const Samples::Slot& slot = group.samples->find(hash);
    if (slot.line == none)
        return none;
    // A comment is known by the text before its first "=": a key that goes on behind one is looked
    // for.
    if (slot.line != many && memchr(text(key), '=', key.length) == nullptr)
        return isCommentWeWant(key, slot.line) ? group.samples->paragraphs[slot.paragraph].closing
                                               : none;
    Id l = group.first;
    while (l != none && (lines_[l].type() != lineComment || !isCommentWeWant(key, l)))
        l = lines_[l].next;
    while (l != none && lines_[l].type() != lineBlank)
        l = lines_[l].next;
    return l;
}

void ZPStore::placeKeyLine(Id key) {
    const Id groupId = stanzas_[keys_[key].stanza].group;
    reserveLines(1);
    const Id closing = findParagraphEnd(groupId, key);
    const Id last = lastKeyLine(groupId);
    Group& group = groups_[groupId];
    const Id behindLast = last == none ? group.first : lines_[last].next;
    const Id line = newLine(lineKey, key, 0);
    insertLine(groupId, closing == none ? behindLast : closing, line);
    if (closing == none) {
        group.lastKey = line;
    } else if (group.samples->paragraphs[lines_[closing].ref].isTail) {
        // Each blank line loses its mark once, however many keys come.
        for (Id l = last == none ? group.first : lines_[last].next; l != line; l = lines_[l].next)
            if (lines_[l].type() == lineBlank)
                group.samples->paragraphs[lines_[l].ref].isTail = false;
        group.lastKey = line;
    }
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
        zraise(ZOutOfMemoryException());
}

void ZPStore::addFileComment(const char* comment, size_t length) {
    requireCommentLength(length);
    reserveLines(2);
    const ZPSlice slice = text_.append({comment, length});
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
    const ZPSlice slice = text_.append({comment, length});
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
    const ZPSlice slice = text_.append({comment, length});
    const Id before = lines_[found].prev;
    if (before == none || lines_[before].type() == lineKey)
        insertLine(group, found, newLine(lineBlank, 0, 0));
    insertComment(group, found, slice);
}

// ---------------------------------------------------------------- invariants

void ZPStore::checkInvariants() const {
    size_t used = 0;  // bytes of slices
    size_t keysSeen = 0, attachedSeen = 0, stanzasSeen = 0, inMapSeen = 0;
    keyIndex_.forEach([&](Id id) {
        ++keysSeen;
        const Key& key = keys_[id];
        used += key.name.length + key.value.length;
        if (key.extra != nullptr)
            for (const ZPBlock<ZPSlice>& slices : key.extra->values)
                for (size_t i = 0; i < slices.size(); ++i)
                    used += slices[i].length;
        ZPHOLDS(stanzas_[key.stanza].inUse);
        const ZPSlice& stanza = stanzas_[key.stanza].name;
        ZPHOLDS(findKey(text(stanza), stanza.length, text(key.name), key.name.length) == id);
        if (attached(id)) {
            ++attachedSeen;
            ZPHOLDS(stanzas_[key.stanza].inMap);
        } else {
            ZPHOLDS(key.line != none && key.extra == nullptr && key.value.length == 0);
        }
        if (key.extra != nullptr && key.extra->values[plain].size() != 0)
            ZPHOLDS(key.value.length == 0);
    });
    ZPHOLDS(keysSeen == keyIndex_.count());
    keyIndex_.checkInvariants([&](Id id) { return keys_[id].name.offset; });
    stanzaIndex_.checkInvariants([&](Id id) { return stanzas_[id].name.offset; });
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
        ZPHOLDS(stanza.keyList == nullptr || stanza.keyList->size() == count);
        chained += count;
        for (Id g = stanza.group; g != none; g = groups_[g].nextSame)
            ZPHOLDS(groups_[g].stanza == id);
    });
    ZPHOLDS(chained == attachedSeen && inMapSeen == stanzasInMap_);
    Id lastGroupSeen = 0;
    size_t linesSeen = 0;
    for (Id g = 0; g != none; g = groups_[g].next) {
        const Group& group = groups_[g];
        ZPHOLDS(g == 0 || group.prev == lastGroupSeen);
        lastGroupSeen = g;
        Id previous = none, lastKeySeen = none;
        bool isBehindKeys = group.lastKey == none;
        uint32_t paragraph = group.samples == nullptr ? 0 : group.samples->first;
        uint32_t comments = 0, blanks = 0;
        for (Id l = group.first; l != none; l = lines_[l].next) {
            ZPHOLDS(lines_[l].prev == previous);
            previous = l;
            ++linesSeen;
            used += lines_[l].length();
            comments += lines_[l].type() == lineComment ? 1 : 0;
            blanks += lines_[l].type() == lineBlank ? 1 : 0;
            if (group.samples != nullptr) {
                uint32_t hash;
                if (lines_[l].type() == lineBlank) {
                    ZPHOLDS(lines_[l].ref == paragraph);
                    ZPHOLDS(group.samples->paragraphs[paragraph].closing == l);
                    paragraph = group.samples->paragraphs[paragraph].next;
                } else if (lines_[l].type() == lineComment &&
                           sampleHash(text(lines_[l].ref), lines_[l].length(), hash)) {
                    const Samples::Slot& slot = group.samples->find(hash);
                    ZPHOLDS(slot.line != none);
                    ZPHOLDS(slot.line != l || slot.paragraph == paragraph);
                }
            }
            if (lines_[l].type() == lineKey) {
                ZPHOLDS(!isBehindKeys);
                lastKeySeen = l;
                const Key& key = keys_[lines_[l].ref];
                ZPHOLDS(key.stanza == group.stanza);
                ZPHOLDS(key.line == l || key.line == many);
            }
            isBehindKeys = isBehindKeys || group.lastKey == l;
        }
        ZPHOLDS(isBehindKeys || group.first == none);
        ZPHOLDS(group.samples == nullptr || paragraph == group.samples->open);
        for (Id l = group.last; group.samples != nullptr && l != group.lastKey; l = lines_[l].prev)
            if (lines_[l].type() == lineBlank)
                ZPHOLDS(group.samples->paragraphs[lines_[l].ref].isTail);
        for (Id l = lastKeySeen; group.samples != nullptr && l != none; l = lines_[l].prev)
            if (lines_[l].type() == lineBlank)
                ZPHOLDS(!group.samples->paragraphs[lines_[l].ref].isTail);
        ZPHOLDS(group.last == previous && group.comments == comments);
        ZPHOLDS(group.blanks == blanks);
    }
    ZPHOLDS(groups_[0].prev == lastGroupSeen);
    text_.checkInvariants(used);
    ZPHOLDS(linesSeen + freeLineCount_ == lines_.size());
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
