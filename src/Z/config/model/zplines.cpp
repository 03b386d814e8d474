#include "zplines.h"

#include "zpholds.h"

// ---------------------------------------------------------------- groups

ZPLines::ZPLines() {
    groups_.reserveMore(1);
    const ZPId id = groups_.take(ZPGroup(kNoId));
    groups_[id].prev = id;
}

ZPId ZPLines::addGroup(ZPId stanza, ZPId firstOfStanza) {
    const ZPId last = lastGroup();
    const ZPId id = groups_.take(ZPGroup(stanza));
    groups_[id].prev = last;
    groups_[last].next = id;
    groups_[0].prev = id;
    if (firstOfStanza == kNoId)
        return id;
    while (groups_[firstOfStanza].nextOfStanza != kNoId)
        firstOfStanza = groups_[firstOfStanza].nextOfStanza;
    groups_[firstOfStanza].nextOfStanza = id;
    return id;
}

void ZPLines::removeGroup(ZPId id) {
    zassert(id != 0);
    ZPGroup& group = groups_[id];
    groups_[group.prev].next = group.next;
    groups_[group.next == kNoId ? 0 : group.next].prev = group.prev;
    for (ZPId l = group.first; l != kNoId;) {
        const ZPId next = lines_.next(l);
        lines_.giveBack(l);
        l = next;
    }
    group = ZPGroup(kNoId);
    groups_.giveBack(id);
}

// ---------------------------------------------------------------- lines

// Room for lines that are put between others, each of which changes two neighbours.
void ZPLines::reserveInserts(size_t lines) {
    lines_.reserveMore(lines);
    lines_.reserveChanges(2 * lines);
}

// Between two lines of the group, or at an end of it.
__attribute__((always_inline)) inline void ZPLines::insert(ZPId groupId, ZPId prev, ZPId before,
                                                           ZPId id) {
    lines_.insert(id, prev, before);
    noteInserted(groups_[groupId], prev, before, id);
}

void ZPLines::insertComment(ZPId group, ZPId before, ZPSlice comment, const ZPText& text) {
    const ZPId id = lines_.take(lines_.newComment(comment));
    insert(group, before, id);
    noteOther(groups_[group], id, text);
}

void ZPLines::insertBlank(ZPId group, ZPId before, const ZPText& text) {
    const ZPId id = lines_.take(ZPLine::make(ZPLine::blank, 0));
    insert(group, before, id);
    noteOther(groups_[group], id, text);
}

void ZPLines::removeKeys(ZPId group, ZPId key) {
    for (ZPId l = groups_[group].first; l != kNoId;) {
        const ZPId next = lines_.next(l);
        if (lines_[l].isKey() && lines_[l].ref() == key)
            removeKey(group, l);
        l = next;
    }
}

void ZPLines::removeComments(ZPId groupId, ZPId first, ZPId end, ZPText& text) {
    ZPGroup& group = groups_[groupId];
    // The index of samples grows only: it is made anew when a key is added.
    group.samples.reset();
    group.knowsSamples = false;
    for (ZPId l = first; l != end;) {
        const ZPId next = lines_.next(l);
        text.drop(lines_.comment(l));
        --group.comments;
        unlink(group, l);
        l = next;
    }
}

ZPId ZPLines::replaceComment(ZPId groupId, ZPId comment, ZPId key, ZPText& text) {
    reserveInserts(1);
    const ZPId line = lines_.take(ZPLine::make(ZPLine::key, key));
    insert(groupId, comment, line);
    removeComments(groupId, comment, lines_.next(comment), text);
    // Without an index of samples nothing has to be known of the blank lines on the way.
    groups_[groupId].keysEnd = groups_[groupId].last;
    lastKey(groupId);
    return line;
}

ZPId ZPLines::lineOfKey(ZPId firstOfStanza, ZPId key) const {
    ZPId found = kNoId;
    for (ZPId g = firstOfStanza; g != kNoId; g = groups_[g].nextOfStanza)
        for (ZPId l = groups_[g].first; l != kNoId; l = lines_.next(l))
            if (lines_[l].isKey() && lines_[l].ref() == key)
                found = found == kNoId ? l : kSeveralIds;
    return found;
}

// The last key line, or none; keysEnd is that then.
ZPId ZPLines::lastKey(ZPId groupId) {
    ZPGroup& group = groups_[groupId];
    ZPId l = group.keysEnd;
    group.isEndLoose = false;
    for (; l != kNoId && !lines_[l].isKey(); l = lines_.prev(l))
        if (group.samples != nullptr && lines_[l].isBlank())
            group.samples->setTail(lines_[l], true);
    return group.keysEnd = l;
}

// ---------------------------------------------------------------- where a new key goes

// The group has got one more comment or blank line. Without memory the index goes, and is made anew
// when it is needed.
void ZPLines::noteForSamples(ZPGroup& group, ZPId id, const ZPText& text) {
    if (group.samples == nullptr) {
        // Nothing is known of paragraphs yet.
        group.knowsSamples = !ZPSamples::isSample(text.span(lines_.comment(id)));
        return;
    }
    try {
        if (lines_[id].isComment())
            group.samples->addComment(lines_, text, id);
        else
            group.samples->addBlank(lines_, text, group.first, id);
    } catch (ZOutOfMemoryException&) {
        group.samples.reset();
        group.knowsSamples = false;
    }
}

void ZPLines::indexSamples(ZPGroup& group, const ZPText& text) {
    if (group.knowsSamples)
        return;
    // Most groups have none, and then no index.
    ZPId l = group.first;
    while (l != kNoId &&
           !(lines_[l].isComment() && ZPSamples::isSample(text.span(lines_.comment(l)))))
        l = lines_.next(l);
    if (l != kNoId)
        group.samples.reset(new ZPSamples(lines_, text, group.last));
    group.knowsSamples = true;
}

// The blank line that closes the paragraph of the first sample of this key; none if there is no
// sample, or nothing closes it.
ZPId ZPLines::findParagraphEnd(ZPGroup& group, ZSpan key, const ZPText& text) {
    if (group.comments == 0 || group.blanks == 0)
        return kNoId;
    indexSamples(group, text);
    if (group.samples != nullptr && group.samples->isStaleFor(key)) {
        group.samples.reset();
        group.knowsSamples = false;
        indexSamples(group, text);
    }
    ZPId closing = kNoId;
    if (group.samples == nullptr || group.samples->findParagraphEnd(lines_, text, key, closing))
        return closing;
    ZPId l = group.first;
    while (l != kNoId &&
           !(lines_[l].isComment() && ZPSamples::isSampleOf(key, text.span(lines_.comment(l)))))
        l = lines_.next(l);
    while (l != kNoId && !lines_[l].isBlank())
        l = lines_.next(l);
    return l;
}

ZPId ZPLines::placeKey(ZPId groupId, ZPId key, ZSpan name, const ZPText& text) {
    reserveInserts(1);
    ZPGroup& group = groups_[groupId];
    // Nearly always there are no samples, and the last key line is known.
    const bool hasNoSamples = group.knowsSamples && group.samples == nullptr;
    const ZPId closing = hasNoSamples ? kNoId : findParagraphEnd(group, name, text);
    const ZPId last = group.isEndLoose ? lastKey(groupId) : group.keysEnd;
    const ZPId behindLast = lineBehind(group, last);
    const ZPId line = lines_.take(ZPLine::make(ZPLine::key, key));
    if (closing == kNoId)
        insert(groupId, last, behindLast, line);
    else
        insert(groupId, closing, line);
    if (closing == kNoId) {
        group.keysEnd = line;
    } else if (group.samples->isTail(lines_[closing])) {
        // Each blank line loses its mark once, however many keys come.
        for (ZPId l = lineBehind(group, last); l != line; l = lines_.next(l))
            if (lines_[l].isBlank())
                group.samples->setTail(lines_[l], false);
        group.keysEnd = line;
    }
    return line;
}

// ---------------------------------------------------------------- comments

void ZPLines::insertCommentBefore(ZPId group, ZPId line, ZSpan comment, ZPText& text) {
    reserveInserts(1);
    lines_.reserveComments(1);
    insertComment(group, line, text.append(comment), text);
}

void ZPLines::addFileComment(ZSpan comment, ZPText& text) {
    reserveInserts(2);
    lines_.reserveComments(1);
    const ZPSlice slice = text.append(comment);
    const ZPId first = groups_[0].first;
    ZPId l = first;
    while (l != kNoId && !lines_[l].isBlank())
        l = lines_.next(l);
    if (l != kNoId) {
        insertComment(0, l, slice, text);
        return;
    }
    insertComment(0, first, slice, text);
    insertBlank(0, first, text);
}

void ZPLines::addStanzaComment(ZPId group, ZSpan comment, ZPText& text) {
    reserveInserts(2);
    lines_.reserveComments(1);
    const ZPSlice slice = text.append(comment);
    ZPId l = groups_[group].first;
    while (l != kNoId && lines_[l].isComment())
        l = lines_.next(l);
    insertComment(group, l, slice, text);
    if (l == kNoId || !lines_[l].isBlank())
        insertBlank(group, l, text);
}

void ZPLines::addCommentBefore(ZPId group, ZPId line, ZSpan comment, ZPText& text) {
    reserveInserts(2);
    lines_.reserveComments(1);
    const ZPSlice slice = text.append(comment);
    const ZPId before = lines_.prev(line);
    if (before == kNoId || lines_[before].isKey())
        insertBlank(group, line, text);
    insertComment(group, line, slice, text);
}

// ---------------------------------------------------------------- invariants

void ZPLines::checkInvariants(const ZPText& text) const {
    ZPId lastGroupSeen = 0;
    size_t linesSeen = 0, groupsSeen = 0, commentsSeen = 0;
    for (ZPId g = 0; g != kNoId; g = groups_[g].next) {
        const ZPGroup& group = groups_[g];
        ZPHOLDS(g == 0 || group.prev == lastGroupSeen);
        ZPHOLDS((group.stanza == kNoId) == (g == 0));
        ZPHOLDS(group.nextOfStanza == kNoId || groups_[group.nextOfStanza].stanza == group.stanza);
        lastGroupSeen = g;
        ++groupsSeen;
        ZPId previous = kNoId, lastKeySeen = kNoId;
        bool isBehindKeys = group.keysEnd == kNoId, hasSamples = false;
        ZPHOLDS(group.isEndLoose || group.keysEnd == kNoId || lines_[group.keysEnd].isKey());
        uint32_t comments = 0, blanks = 0;
        for (ZPId l = group.first; l != kNoId; l = lines_.next(l)) {
            const ZPLine& line = lines_[l];
            ZPHOLDS(lines_.prev(l) == previous);
            previous = l;
            ++linesSeen;
            comments += line.isComment();
            blanks += line.isBlank();
            hasSamples = hasSamples ||
                         (line.isComment() && ZPSamples::isSample(text.span(lines_.comment(l))));
            if (line.isKey()) {
                ZPHOLDS(!isBehindKeys);
                lastKeySeen = l;
            }
            isBehindKeys = isBehindKeys || group.keysEnd == l;
        }
        ZPHOLDS(group.last == previous);
        ZPHOLDS(isBehindKeys);
        commentsSeen += comments;
        ZPHOLDS(group.comments == comments && group.blanks == blanks);
        ZPHOLDS(group.samples == nullptr || group.knowsSamples);
        ZPHOLDS(!group.knowsSamples || hasSamples == (group.samples != nullptr));
        if (group.samples != nullptr)
            group.samples->checkInvariants(lines_, text, group.first, group.last, group.keysEnd,
                                           lastKeySeen);
    }
    ZPHOLDS(groups_[0].prev == lastGroupSeen);
    lines_.checkInvariants();
    ZPHOLDS(commentsSeen == lines_.countComments());
    ZPHOLDS(linesSeen + lines_.countFree() == lines_.end());
    ZPHOLDS(groupsSeen + groups_.countFree() == groups_.end());
}
