// zplines.h: the lines that a model keeps of its file, so that a store writes back what was read
// with new entries where a reader of the file expects them. Never installed.
//
// Lines are chained within their group. A group is a header line with all lines up to the next
// header; group 0 holds what stands before the first. A key line says which key's values belong
// there, not what they are. A new key goes behind the last key line of its stanza, unless a comment
// of the stanza reads like an entry for it: then to the end of that paragraph (zpsamples.h).
//
// Stanzas and keys are numbers here, which their owner gives and understands. It also keeps the
// text, in which the comments are slices, and passes it with each call that reads or adds some.
//
// Invariants, checked by checkInvariants():
// (1) Group 0 is always there, the first of the chain of groups; its `prev` is the chain's last.
//     The lines of a group are chained both ways from `first` to `last`.
// (2) Each line is in one group or given back.
// (3) The groups of one stanza are chained by `nextOfStanza` in file order; the owner knows the
//     first of them.
// (4) No key line stands behind ZPGroup::keysEnd, which is the last key line, or none where there
//     is none; with `isEndLoose` it may stand behind the last key line.
// (5) `comments` and `blanks` count the group's lines of these types.
// (6) A group that knows its samples and has no index of them has none. One with an index has some,
//     and then what zpsamples.h says holds.
#ifndef Z_ZPLINES_H
#define Z_ZPLINES_H

#include <memory>

#include "zpline.h"
#include "zpsamples.h"

struct ZPGroup {
    ZPId stanza;  // none in group 0
    ZPId first = kNoId, last = kNoId;
    ZPId next = kNoId, prev = kNoId;
    ZPId nextOfStanza = kNoId;
    ZPId keysEnd = kNoId;
    uint32_t comments = 0, blanks = 0;
    bool isEndLoose = false;             // a look for the last key line has to go back
    bool knowsSamples = true;            // not once a sample was read, until a key is added
    std::unique_ptr<ZPSamples> samples;  // their index; null while there are none

    explicit ZPGroup(ZPId owner) : stanza(owner) {}
};

/// Failure: ZOutOfMemoryException, before anything has changed. Where a call needs room, reserve
/// and reserveGroup make it.
class ZPLines {
public:
    ZPLines();

    const ZPLine& line(ZPId id) const { return lines_[id]; }
    /// Where the text of a comment line is.
    ZPSlice comment(ZPId line) const { return lines_.comment(line); }
    const ZPGroup& group(ZPId id) const { return groups_[id]; }
    ZPId lastGroup() const { return groups_[0].prev; }

    // --- Groups ---

    /// As ZPBlock::expect.
    void expectGroups(size_t groups, size_t spare) { groups_.expect(groups, spare); }
    void reserveGroup() { groups_.reserveMore(1); }
    /// A group at the end, and in the chain of the stanza's groups, of which `firstOfStanza` is the
    /// first, or none. Returns it. Needs room.
    ZPId addGroup(ZPId stanza, ZPId firstOfStanza);
    /// Takes the group with its lines away; the stanza's chain is the owner's to shorten.
    void removeGroup(ZPId group);

    /// If there is one of that number.
    void prefetchGroup(ZPId group) const {
        if (group < groups_.end())
            groups_.prefetch(group);
    }
    /// As ZPBlock::prefetchEnd.
    void prefetchEnd(size_t ahead) const { lines_.prefetchEnd(ahead); }

    // --- Lines ---

    /// All ids of lines are below.
    ZPId end() const { return lines_.end(); }
    ZPId next(ZPId line) const { return lines_.next(line); }
    ZPId prev(ZPId line) const { return lines_.prev(line); }

    /// Many lines are about to be read. Requires: there are none.
    void expectMany() { lines_.expectMany(); }
    /// As ZPBlock::expect.
    void expect(size_t lines, size_t spare) { lines_.expect(lines, spare); }
    void expectComments(size_t more, size_t spare) { lines_.expectComments(more, spare); }
    /// Room for one more line at the end of a group.
    void reserveAt(ZPId group) {
        reserveToRead(1);
        if (!isReadyAt(group, 1))
            lines_.reserveChanges(1);
    }
    /// Room for lines that are read; and for where so many of them that are comments are.
    void reserveToRead(size_t more) { lines_.reserveToRead(more); }
    void reserveComments(size_t more) { lines_.reserveComments(more); }
    /// Whether so many lines that are read can be put there at once.
    bool isReadyAt(ZPId group, size_t more) const {
        return lines_.isReadyBehind(groups_[group].last, more);
    }
    /// At the end of the group. These need room.
    ZPId appendKey(ZPId group, ZPId key) {
        const ZPId id = append(group, ZPLine::make(ZPLine::key, key));
        groups_[group].keysEnd = id;
        return id;
    }
    void appendComment(ZPId group, ZPSlice comment, const ZPText& text) {
        noteOther(groups_[group], append(group, lines_.newComment(comment)), text);
    }
    void appendBlank(ZPId group, const ZPText& text) {
        noteOther(groups_[group], append(group, ZPLine::make(ZPLine::blank, 0)), text);
    }
    /// Lines of keys that are read and numbered one behind the other. The first line will have the
    /// id nextId(). Requires: isReadyAt().
    ZPId nextId() const { return lines_.end(); }
    void readKeys(ZPId group, ZPId firstKey, size_t count);

    /// A line for a key of this name where a reader of the file expects it. Makes room itself.
    ZPId placeKey(ZPId group, ZPId key, ZSpan name, const ZPText& text);
    /// Whether that is behind the group's last key line, and nothing has to grow for it.
    bool isReadyToPush(ZPId group) const {
        const ZPGroup& g = groups_[group];
        return g.knowsSamples && g.samples == nullptr && !g.isEndLoose && lines_.isReadyToInsert();
    }
    /// As placeKey, there. Requires: isReadyToPush().
    __attribute__((always_inline)) void pushKey(ZPId group, ZPId key);
    /// Removes a key line.
    void removeKey(ZPId group, ZPId line);
    /// Removes all of the group's lines of this key.
    void removeKeys(ZPId group, ZPId key);
    /// The key's line among all lines of its stanza, which begin with this group; none; or
    /// `kSeveralIds`.
    ZPId lineOfKey(ZPId firstOfStanza, ZPId key) const;

    /// Puts a key line in the place of a comment line, whose text goes. Makes room itself.
    ZPId replaceComment(ZPId group, ZPId comment, ZPId key, ZPText& text);
    /// Puts a comment line directly in front of a line. Makes room itself, in the text too.
    void insertCommentBefore(ZPId group, ZPId line, ZSpan comment, ZPText& text);

    /// Removes comment lines, from `first` to ahead of `end`, with their text.
    void removeComments(ZPId group, ZPId first, ZPId end, ZPText& text);

    /// Calls visit(id, line) for each line of the group, first to last.
    template <typename Visit>
    void forEach(ZPId group, Visit visit) const {
        for (ZPId l = groups_[group].first; l != kNoId; l = lines_.next(l))
            visit(l, lines_[l]);
    }

    // --- Comments, appended to the text ---

    /// To the end of the file's first paragraph, or in front of all, closed by a blank line.
    void addFileComment(ZSpan comment, ZPText& text);
    /// Behind the comments that follow the group's header, closed by a blank line.
    void addStanzaComment(ZPId group, ZSpan comment, ZPText& text);
    /// Directly in front of the line, and behind a blank line if a key line or the header stands
    /// there.
    void addCommentBefore(ZPId group, ZPId line, ZSpan comment, ZPText& text);

    /// Calls move(slice) for the text of this comment, which takes it to its place in a new text.
    template <typename Move>
    void moveComment(ZPId line, Move move) {
        ZPSlice slice = lines_.comment(line);
        move(slice);
        lines_.setComment(line, slice);
    }

    /// Ends the process unless the invariants hold.
    void checkInvariants(const ZPText& text) const;

private:
    ZPId append(ZPId group, ZPLine line) {
        ZPGroup& owner = groups_[group];
        ZPId id;
        if (lines_.isReadyBehind(owner.last, 1)) {
            id = lines_.push(std::move(line));
            lines_.chainPushed(owner.last, 1);
        } else {
            id = lines_.take(std::move(line), true);
            lines_.connect(owner.last, id);
        }
        if (owner.last == kNoId)
            owner.first = id;
        owner.last = id;
        return id;
    }
    void reserveInserts(size_t lines);
    // The line behind one of the group, or behind none its first.
    ZPId lineBehind(const ZPGroup& group, ZPId line) const {
        return line == kNoId ? group.first : lines_.next(line);
    }
    // A line has come between two others, either of which may be none.
    static void noteInserted(ZPGroup& group, ZPId prev, ZPId before, ZPId line) {
        if (prev == kNoId)
            group.first = line;
        if (before == kNoId)
            group.last = line;
    }
    void insert(ZPId group, ZPId before, ZPId line) {
        insert(group, before == kNoId ? groups_[group].last : lines_.prev(before), before, line);
    }
    void insert(ZPId group, ZPId prev, ZPId before, ZPId line);
    void unlink(ZPGroup& group, ZPId line);
    void insertComment(ZPId group, ZPId before, ZPSlice comment, const ZPText& text);
    void insertBlank(ZPId group, ZPId before, const ZPText& text);
    ZPId lastKey(ZPId group);

    void noteOther(ZPGroup& group, ZPId line, const ZPText& text) {
        ++(lines_[line].isComment() ? group.comments : group.blanks);
        if (group.knowsSamples && (group.samples != nullptr || lines_[line].isComment()))
            noteForSamples(group, line, text);
    }
    void noteForSamples(ZPGroup& group, ZPId line, const ZPText& text);
    void indexSamples(ZPGroup& group, const ZPText& text);
    ZPId findParagraphEnd(ZPGroup& group, ZSpan key, const ZPText& text);

    ZPLinePool lines_;
    ZPPool<ZPGroup, &ZPGroup::next> groups_;
};

inline void ZPLines::readKeys(ZPId groupId, ZPId firstKey, size_t count) {
    ZPGroup& group = groups_[groupId];
    const ZPId first = lines_.end();
    for (ZPId key = firstKey, end = firstKey + static_cast<ZPId>(count); key != end; ++key)
        lines_.push(ZPLine::make(ZPLine::key, key));
    lines_.chainPushed(group.last, count);
    if (group.last == kNoId)
        group.first = first;
    group.keysEnd = group.last = lines_.end() - 1;
}

inline void ZPLines::pushKey(ZPId groupId, ZPId key) {
    ZPGroup& group = groups_[groupId];
    const ZPId last = group.keysEnd, behind = lineBehind(group, last);
    const ZPId id = lines_.pushBetween(ZPLine::make(ZPLine::key, key), last, behind);
    noteInserted(group, last, behind, id);
    group.keysEnd = id;
}

inline void ZPLines::unlink(ZPGroup& group, ZPId id) {
    const ZPLinks::Neighbours were = lines_.unlink(id);
    if (were.prev == kNoId)
        group.first = were.next;
    if (were.next == kNoId)
        group.last = were.prev;
    if (group.keysEnd == id) {
        group.keysEnd = were.prev;
        group.isEndLoose = true;
    }
    lines_.giveBack(id);
}

// The samples' index knows of no key lines.
inline void ZPLines::removeKey(ZPId groupId, ZPId id) {
    zassert(lines_[id].isKey());
    unlink(groups_[groupId], id);
}

#endif
