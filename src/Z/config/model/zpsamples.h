// zpsamples.h: the comments that read like entries, samples of them ("# port = 80"), and the
// paragraphs in which they stand. Never installed.
//
// A new key goes to the end of the paragraph in which a sample of it stands. Walking a stanza's
// lines for each new key would make adding many keys quadratic, so that a group which has samples,
// once a key is added to it, has an index of them by what they name: the text between "#" and the
// first "=", without blanks. The index knows the paragraph of each sample: a blank line that is
// added later splits one, and the smaller part gets a new number.
//
// Invariants, checked by checkInvariants():
// (1) A blank line closes each paragraph but the last, and has its number as `ref`. `first_` is the
//     first paragraph, `last_` the last, `next` leads from one to the other.
// (2) Paragraph::isTail: no key line stands behind the closing line. It may be missing for blank
//     lines up to ZPGroup::keysEnd and behind the last key line, and nowhere else.
// (3) The slot of what a comment of the group names has a line: the first sample that names this;
//     `kSeveralIds` where different names have one hash; or `kStale`, when a second sample has come
//     and which of them is the first isn't known. A slot with a sample has its paragraph.
#ifndef Z_ZPSAMPLES_H
#define Z_ZPSAMPLES_H

#include "zmemory.h"
#include "zpline.h"

/// Lines and text belong to others, which pass them with each call.
class ZPSamples : public ZAllocated {
public:
    /// Whether a comment reads like an entry.
    static bool isSample(ZSpan comment);
    /// Whether it reads like one for this key.
    static bool isSampleOf(ZSpan key, ZSpan comment);

    /// Indexes the group that ends with this line. Its blank lines get the numbers of paragraphs.
    ZPSamples(ZPLinePool& lines, const ZPText& text, ZPId lastLine);

    /// A comment or blank line has come into the group, which begins with `firstLine`. After
    /// ZOutOfMemoryException the index is of no use any more.
    void addComment(const ZPLinePool& lines, const ZPText& text, ZPId comment);
    void addBlank(ZPLinePool& lines, const ZPText& text, ZPId firstLine, ZPId blank);

    /// Whether the group has to be indexed anew before this key is looked for.
    bool isStaleFor(ZSpan key) const { return find(hashOfKey(key)).line == kStale; }
    /// The blank line that closes the paragraph of the key's first sample; none if there is no
    /// sample, or nothing closes it. False: only a walk over the lines can tell.
    bool findParagraphEnd(const ZPLinePool& lines, const ZPText& text, ZSpan key,
                          ZPId& closing) const;

    /// Whether a blank line is known to have no key line behind it; and what becomes known.
    bool isTail(const ZPLine& blank) const { return paragraphs_[blank.ref()].isTail; }
    void setTail(const ZPLine& blank, bool isTail) { paragraphs_[blank.ref()].isTail = isTail; }

    /// Ends the process unless the invariants hold. `keysEnd` is the group's, `lastKeyLine` what it
    /// stands for.
    void checkInvariants(const ZPLinePool& lines, const ZPText& text, ZPId firstLine, ZPId lastLine,
                         ZPId keysEnd, ZPId lastKeyLine) const;

private:
    static constexpr ZPId kStale = 0xFFFFFFFDu;

    struct Slot {
        uint32_t hash;
        ZPId line;  // none: free
        uint32_t paragraph;
    };
    struct Paragraph {
        ZPId closing;
        uint32_t next;
        bool isTail;
    };

    static bool hashOfSample(ZSpan comment, uint32_t& hash);
    static uint32_t hashOfKey(ZSpan key);

    const Slot& find(uint32_t hash) const {
        const size_t capacity = slots_.size();
        for (size_t i = hash % capacity;; i = i + 1 == capacity ? 0 : i + 1)
            if (slots_[i].line == kNoId || slots_[i].hash == hash)
                return slots_[i];
    }
    Slot& find(uint32_t hash) {
        return const_cast<Slot&>(static_cast<const ZPSamples*>(this)->find(hash));
    }
    Slot& findOrMake(uint32_t hash);
    uint32_t addParagraph(ZPId closing, uint32_t next, bool isTail);
    uint32_t paragraphOf(const ZPLinePool& lines, ZPId comment) const;
    void moveSamples(const ZPLinePool& lines, const ZPText& text, ZPId from, ZPId to,
                     uint32_t paragraph);

    ZPBlock<Slot> slots_;  // open addressing, at most half full
    uint32_t count_ = 0;   // slots that are taken
    ZPBlock<Paragraph> paragraphs_;
    uint32_t first_ = 0, last_ = 0;
    // The comment that came last and its paragraph, for those who pile many up.
    ZPId recent_ = kNoId;
    uint32_t recentParagraph_ = 0;
};

#endif
