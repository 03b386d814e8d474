#include "zpsamples.h"

#include "zpholds.h"

// ---------------------------------------------------------------- what a comment names

// FNV over single bytes, since a comment's blanks are passed over as it goes.
static const uint32_t kHashStart = 2166136261u;

static inline uint32_t hashStep(uint32_t hash, char c) {
    return (hash ^ static_cast<unsigned char>(c)) * 16777619u;
}

// The hash of what the comment names as an entry would; false if it doesn't read like an entry.
bool ZPSamples::hashOfSample(ZSpan comment, uint32_t& hash) {
    size_t i = 0;
    while (i < comment.size && comment.data[i] == ' ')
        ++i;
    if (i == comment.size || comment.data[i] != '#')
        return false;
    hash = kHashStart;
    for (++i; i < comment.size; ++i) {
        if (comment.data[i] == '=')
            return true;
        if (comment.data[i] != ' ')
            hash = hashStep(hash, comment.data[i]);
    }
    return false;
}

// The hash under which samples of this key are found.
uint32_t ZPSamples::hashOfKey(ZSpan key) {
    uint32_t hash = kHashStart;
    for (size_t i = 0; i < key.size && key.data[i] != '='; ++i)
        hash = hashStep(hash, key.data[i]);
    return hash;
}

bool ZPSamples::isSample(ZSpan comment) {
    size_t i = 0;
    while (i < comment.size && comment.data[i] == ' ')
        ++i;
    return i != comment.size && comment.data[i] == '#' &&
           memchr(comment.data + i, '=', comment.size - i) != nullptr;
}

bool ZPSamples::isSampleOf(ZSpan key, ZSpan comment) {
    // "#", key and "=" in turn, each as a piece, so that nothing has to be joined.
    size_t at = 0;
    const ZSpan pieces[] = {{"#", 1}, key, {"=", 1}};
    for (const ZSpan& piece : pieces) {
        for (size_t i = 0; i < piece.size; ++i) {
            while (at < comment.size && comment.data[at] == ' ')
                ++at;
            if (at == comment.size || comment.data[at] != piece.data[i])
                return false;
            ++at;
        }
    }
    return true;
}

// Whether two samples name the same.
static bool nameTheSame(const char* one, const char* other) {
    for (;; ++one, ++other) {  // each has a "="
        while (*one == ' ')
            ++one;
        while (*other == ' ')
            ++other;
        if (*one != *other)
            return false;
        if (*one == '=')
            return true;
    }
}

// ---------------------------------------------------------------- slots and paragraphs

// The slot of this hash where there is room for one more.
ZPSamples::Slot& ZPSamples::findOrMake(uint32_t hash) {
    if ((count_ + size_t(1)) * 2 > slots_.size()) {
        ZPBlock<Slot> old;
        old.reserveExactly(slots_.size() < 4 ? size_t(8) : slots_.size() * 2);
        while (old.room() != 0)
            old.push({0, kNoId, 0});
        std::swap(old, slots_);
        for (size_t i = 0; i < old.size(); ++i)
            if (old[i].line != kNoId)
                find(old[i].hash) = old[i];
    }
    Slot& slot = find(hash);
    if (slot.line == kNoId) {
        slot.hash = hash;
        ++count_;
    }
    return slot;
}

uint32_t ZPSamples::addParagraph(ZPId closing, uint32_t next, bool isTail) {
    if (paragraphs_.size() == ZPLine::kMostRefs)
        zraise(ZOutOfMemoryException());
    paragraphs_.reserveMore(1);
    paragraphs_.push({closing, next, isTail});
    return static_cast<uint32_t>(paragraphs_.size() - 1);
}

// The paragraph in which a comment is that the index doesn't know yet.
uint32_t ZPSamples::paragraphOf(const ZPLinePool& lines, ZPId comment) const {
    // The nearer end of the paragraph tells.
    ZPId behind = lines.next(comment), before = lines.prev(comment);
    for (;; behind = lines.next(behind), before = lines.prev(before)) {
        if (behind == kNoId)
            return last_;
        if (lines[behind].isBlank())
            return lines[behind].ref();
        if (before == kNoId)
            return first_;
        if (lines[before].isBlank())
            return paragraphs_[lines[before].ref()].next;
    }
}

// The samples between two lines, the second excluded, are in this paragraph now.
void ZPSamples::moveSamples(const ZPLinePool& lines, const ZPText& text, ZPId from, ZPId to,
                            uint32_t paragraph) {
    for (ZPId l = from; l != to; l = lines.next(l)) {
        uint32_t hash;
        if (!lines[l].isComment() || !hashOfSample(text.span(lines.comment(l)), hash))
            continue;
        Slot& slot = find(hash);
        if (slot.line == l)
            slot.paragraph = paragraph;
    }
}

// ---------------------------------------------------------------- the index

// From the end, so that the first of a name stays.
ZPSamples::ZPSamples(ZPLinePool& lines, const ZPText& text, ZPId lastLine) {
    uint32_t paragraph = addParagraph(kNoId, kNoId, true);
    bool isTail = true;
    for (ZPId l = lastLine; l != kNoId; l = lines.prev(l)) {
        ZPLine& line = lines[l];
        uint32_t hash;
        if (line.isKey()) {
            isTail = false;
        } else if (line.isBlank()) {
            paragraph = addParagraph(l, paragraph, isTail);
            line.setRef(paragraph);
        } else if (hashOfSample(text.span(lines.comment(l)), hash)) {
            Slot& slot = findOrMake(hash);
            const bool isOther =
                slot.line == kSeveralIds ||
                (slot.line != kNoId &&
                 !nameTheSame(text.at(lines.comment(slot.line)), text.at(lines.comment(l))));
            slot.line = isOther ? kSeveralIds : l;
            slot.paragraph = paragraph;
        }
    }
    first_ = paragraph;
}

void ZPSamples::addComment(const ZPLinePool& lines, const ZPText& text, ZPId comment) {
    const bool isPiled = recent_ != kNoId && recent_ == lines.prev(comment);
    if (isPiled)
        recent_ = comment;
    uint32_t hash;
    if (!hashOfSample(text.span(lines.comment(comment)), hash))
        return;
    Slot& slot = findOrMake(hash);
    if (slot.line != kNoId) {
        slot.line = slot.line == kSeveralIds ? kSeveralIds : kStale;
        return;
    }
    slot.line = comment;
    slot.paragraph = recentParagraph_ = isPiled ? recentParagraph_ : paragraphOf(lines, comment);
    recent_ = comment;
}

// Only the shorter part of the paragraph is walked: however a group is cut up, each line is walked
// a few times.
void ZPSamples::addBlank(ZPLinePool& lines, const ZPText& text, ZPId firstLine, ZPId blank) {
    recent_ = kNoId;
    ZPId key = lines.next(blank);
    while (key != kNoId && lines[key].isComment())
        key = lines.next(key);
    const bool isTail = key == kNoId;
    paragraphs_.reserveMore(1);
    ZPId behind = lines.next(blank), before = lines.prev(blank);
    for (;; behind = lines.next(behind), before = lines.prev(before)) {
        if (behind == kNoId || lines[behind].isBlank()) {
            // What stands behind the new line gets the new number.
            const uint32_t old = behind == kNoId ? last_ : lines[behind].ref();
            const Paragraph whole = paragraphs_[old];
            const uint32_t number = addParagraph(behind, whole.next, whole.isTail);
            if (behind == kNoId)
                last_ = number;
            else
                lines[behind].setRef(number);
            paragraphs_[old] = {blank, number, isTail};
            lines[blank].setRef(old);
            moveSamples(lines, text, lines.next(blank), behind, number);
            return;
        }
        if (before == kNoId || lines[before].isBlank()) {
            uint32_t& number = before == kNoId ? first_ : paragraphs_[lines[before].ref()].next;
            number = addParagraph(blank, number, isTail);
            lines[blank].setRef(number);
            moveSamples(lines, text, before == kNoId ? firstLine : lines.next(before), blank,
                        number);
            return;
        }
    }
}

bool ZPSamples::findParagraphEnd(const ZPLinePool& lines, const ZPText& text, ZSpan key,
                                 ZPId& closing) const {
    closing = kNoId;
    const Slot& slot = find(hashOfKey(key));
    zassert(slot.line != kStale);
    if (slot.line == kNoId)
        return true;
    // A sample is known by the text before its first "=": a key that goes on behind one is looked
    // for.
    if (slot.line == kSeveralIds || memchr(key.data, '=', key.size) != nullptr)
        return false;
    if (isSampleOf(key, text.span(lines.comment(slot.line))))
        closing = paragraphs_[slot.paragraph].closing;
    return true;
}

// ---------------------------------------------------------------- invariants

void ZPSamples::checkInvariants(const ZPLinePool& lines, const ZPText& text, ZPId firstLine,
                                ZPId lastLine, ZPId keysEnd, ZPId lastKeyLine) const {
    uint32_t paragraph = first_, hash;
    for (ZPId l = firstLine; l != kNoId; l = lines.next(l)) {
        if (lines[l].isBlank()) {
            ZPHOLDS(lines[l].ref() == paragraph);
            ZPHOLDS(paragraphs_[paragraph].closing == l);
            paragraph = paragraphs_[paragraph].next;
        } else if (lines[l].isComment() && hashOfSample(text.span(lines.comment(l)), hash)) {
            const Slot& slot = find(hash);
            ZPHOLDS(slot.line != kNoId);
            ZPHOLDS(slot.line != l || slot.paragraph == paragraph);
        }
    }
    ZPHOLDS(paragraph == last_ && paragraphs_[last_].closing == kNoId);
    for (ZPId l = lastLine; l != keysEnd; l = lines.prev(l))
        ZPHOLDS(!lines[l].isBlank() || isTail(lines[l]));
    for (ZPId l = lastKeyLine; l != kNoId; l = lines.prev(l))
        ZPHOLDS(!lines[l].isBlank() || !isTail(lines[l]));
}
