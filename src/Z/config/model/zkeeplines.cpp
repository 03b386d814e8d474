// zkeeplines.cpp: which line of the old text a line of the new one is.
//
// The old text is cut into lines as the reader cuts it, the new one at its line ends. The old lines
// are found by two indexes over stanza and what a line says: all of it, or the key of an entry
// alone. A walk over the new lines then takes each old line at most once. It remembers the place in
// the old stanza up to which lines were taken.
//
// Entries whose key has a line ahead of that place are fixed points. Between two of them comments
// and blank lines are only ever added, so that the old ones are found by taking each new one for
// the next old one if they say the same. Where that leaves old ones over, somebody else has changed
// the file: then the nearest that says the same is taken.
//
// A store writes all values of a key behind each other. Where they are the old ones, in that order,
// the second and the later lines are put off until the walk passes their old places; and so are
// lines without a value, which the model doesn't keep.
#include "zkeeplines.h"

#include <cstring>

#include "zgrammar.h"
#include "zpindex.h"

namespace {

typedef uint32_t Id;
const Id kNone = 0xFFFFFFFFu;

// What the reader would refuse counts as a comment: it is never looked for.
struct Line {
    ZSpan raw;
    ZSpan name;    // comment, stanza's name or key
    ZSpan value;   // of an entry
    Id stanza;     // its header's line; kNone ahead of the first
    Id nextSame;   // the next line that says the same in the same stanza
    Id nextOfKey;  // of an entry: the next line of its key
    ZLineKind kind;
    bool used;
    bool putOff;
};

// The lines of a text, one after the other.
class LineReader {
public:
    // Lines are cut after `most` bytes.
    LineReader(ZSpan text, size_t most)
        : at_(text.data), end_(text.data + text.size), most_(most), stanza_(kNone) {}

    // False at the end. `id` is the number of this line.
    bool next(Line& line, Id id) {
        if (at_ == end_)
            return false;
        const size_t size = zlineLength(at_, static_cast<size_t>(end_ - at_), most_);
        line = Line();
        line.raw = {at_, size};
        const ZLineParts parts = grammar_.divideRaw(line.raw);
        line.name = parts.name;
        line.value = parts.value;
        line.kind = parts.kind == zlineBad ? zlineComment : parts.kind;
        if (line.kind == zlineHeader)
            stanza_ = id;
        line.stanza = stanza_;
        line.nextSame = line.nextOfKey = kNone;
        at_ += size;
        return true;
    }

private:
    const char* at_;
    const char* end_;
    const size_t most_;
    const ZLineGrammar grammar_;
    Id stanza_;
};

class LineKeeper {
public:
    LineKeeper(ZSpan original, ZBytes& out)
        : out_(out),
          place_(0),
          last_(kNone),
          endStanza_(0),
          limit_(0),
          inOrder_(true),
          returns_(false) {
        readOriginal(original);
    }

    void write(ZSpan written) {
        ZPBlock<Line> lines;
        readLines(written, SIZE_MAX, lines);
        const Id count = static_cast<Id>(lines.size());
        for (Id at = 0; at < count;) {
            if (lines[at].kind == zlineHeader || at == 0)
                enterStanza(lines[at]);
            if (lines[at].kind == zlineHeader) {
                put(lines[at], stanza_);
                ++at;
            }
            const Id fixed = nextFixedPoint(lines, at);
            matchBetween(lines, at, fixed);
            while (at < fixed)
                at = putBetween(lines, at);
            if (at < count && lines[at].kind == zlineEntry)
                at = putEntries(lines, at);
        }
        leaveStanza();
        // Only the last line of the old text may end without an end.
        if (last_ == kNone || last_ + 1 != lines_.size())
            closeLine();
    }

private:
    static void readLines(ZSpan text, size_t most, ZPBlock<Line>& lines) {
        size_t count = 1;
        const char* at = text.data;
        const char* end = at + text.size;
        while (at < end && (at = static_cast<const char*>(memchr(at, '\n', end - at))) != nullptr) {
            ++count;
            ++at;
        }
        lines.reserveExactly(count + text.size / most);
        LineReader reader(text, most);
        Line line;
        while (reader.next(line, static_cast<Id>(lines.size())))
            lines.push(line);
    }

    void readOriginal(ZSpan original) {
        readLines(original, kLongestLine, lines_);
        index_.reserve(lines_.size());
        keys_.reserve(lines_.size());
        size_t ended = 0, returned = 0;
        // From the end, so that each chain begins with its first line.
        for (Id id = static_cast<Id>(lines_.size()); id-- > 0;) {
            Line& old = lines_[id];
            const ZSpan raw = old.raw;
            if (raw.data[raw.size - 1] == '\n') {
                ++ended;
                returned += raw.size > 1 && raw.data[raw.size - 2] == '\r';
            }
            old.nextSame = find(old, old.stanza);
            replaceFirst(index_, hashOf(old, old.stanza), old.nextSame, id);
            if (old.kind == zlineEntry) {
                old.nextOfKey = findKey(old, old.stanza);
                replaceFirst(keys_, hashOfName(old, old.stanza), old.nextOfKey, id);
            }
        }
        returns_ = ended != 0 && returned == ended;
    }

    // --- what says the same ---

    static uint64_t mix(uint64_t hash, ZSpan text) {
        for (size_t i = 0; i < text.size; ++i)
            hash = (hash ^ static_cast<unsigned char>(text.data[i])) * 0x100000001B3u;
        return (hash ^ hash >> 29) * 0x9E3779B97F4A7C15u;
    }
    static uint32_t fold(uint64_t hash) { return static_cast<uint32_t>(hash ^ hash >> 32); }

    // A header is the same whatever stands ahead of it.
    static uint64_t wideHashOfName(const Line& line, Id stanza) {
        return mix((line.kind == zlineHeader ? 0 : stanza) * 0x9E3779B97F4A7C15u + line.kind,
                   line.name);
    }
    static uint32_t hashOfName(const Line& line, Id stanza) {
        return fold(wideHashOfName(line, stanza));
    }
    static uint32_t hashOf(const Line& line, Id stanza) {
        return fold(mix(wideHashOfName(line, stanza), line.value));
    }

    // The first old line that says this in this old stanza and isn't given up yet.
    Id find(const Line& line, Id stanza) const {
        return index_.find(hashOf(line, stanza), [&](uint32_t id) {
            return says(id, line) && (line.kind == zlineHeader || lines_[id].stanza == stanza);
        });
    }

    // The first old line of this entry's key.
    Id findKey(const Line& line, Id stanza) const {
        return keys_.find(hashOfName(line, stanza), [&](uint32_t id) {
            return lines_[id].stanza == stanza && zequals(lines_[id].name, line.name);
        });
    }

    bool says(Id id, const Line& line) const {
        const Line& old = lines_[id];
        return old.kind == line.kind && zequals(old.name, line.name) &&
               zequals(old.value, line.value);
    }

    // Puts another first line, or none, in front of a chain.
    static void replaceFirst(ZPIndex& index, uint32_t hash, Id before, Id now) {
        if (before != kNone)
            index.remove(hash, before);
        if (now != kNone)
            index.insert(hash, now);
    }

    // The first old line that says the same as this one, isn't taken, and if it is no entry, stands
    // between the place and `limit`. What can't be taken any more is given up on the way.
    Id nearest(const Line& line, Id limit) {
        if (!inOld_)
            return kNone;
        const uint32_t hash = hashOf(line, stanza_);
        for (Id id = find(line, stanza_); id != kNone;) {
            if (!lines_[id].used && (line.kind == zlineEntry || id >= place_))
                return id < limit || line.kind == zlineEntry ? id : kNone;
            const Id next = lines_[id].nextSame;
            replaceFirst(index_, hash, id, next);
            id = next;
        }
        return kNone;
    }

    // --- the walk ---

    // The old stanza that bears the new line's stanza's name; none for a new one.
    void enterStanza(const Line& line) {
        leaveStanza();
        stanza_ = line.kind == zlineHeader ? find(line, kNone) : kNone;
        inOld_ = line.kind != zlineHeader || stanza_ != kNone;
        place_ = stanza_ != kNone ? stanza_ : 0;
        endStanza_ = place_ + (stanza_ != kNone);
        while (inOld_ && endStanza_ < lines_.size() && lines_[endStanza_].kind != zlineHeader)
            ++endStanza_;
    }

    void leaveStanza() {
        if (inOld_)
            passTo(endStanza_);
        inOld_ = false;
    }

    // All that was put off and stands between the place and `id`.
    void passTo(Id id) {
        for (; place_ < id; ++place_)
            if (lines_[place_].putOff) {
                lines_[place_].putOff = false;
                putRaw(place_);
            }
    }

    // The new line, as the old line `id` spells it if there is one.
    void put(const Line& line, Id id) {
        if (id == kNone) {
            putNew(line);
            return;
        }
        passTo(id);
        place_ = id + 1;
        lines_[id].used = true;
        putRaw(id);
        // What follows directly is ahead of any new line.
        while (place_ < endStanza_ && lines_[place_].putOff)
            passTo(place_ + 1);
    }

    // --- comments and blank lines, and entries of other keys between them ---

    // The next new line that is an entry whose key has its first line ahead of the place; or the
    // next header, or the end.
    Id nextFixedPoint(const ZPBlock<Line>& lines, Id at) const {
        while (at < lines.size() && lines[at].kind != zlineHeader &&
               (lines[at].kind != zlineEntry || fixedAt(lines[at]) == kNone))
            ++at;
        return at;
    }
    Id fixedAt(const Line& entry) const {
        const Id id = inOld_ ? findKey(entry, stanza_) : kNone;
        return id != kNone && id >= place_ && !lines_[id].used ? id : kNone;
    }

    // Finds the old lines of new comments and blank lines from `at` up to the fixed point. In the
    // new lines nextSame is what was found.
    void matchBetween(ZPBlock<Line>& lines, Id at, Id fixed) {
        const bool atEntry = fixed < lines.size() && lines[fixed].kind == zlineEntry;
        limit_ = atEntry ? fixedAt(lines[fixed]) : endStanza_;
        Id old = nextLoose(place_);
        for (Id i = at; i < fixed; ++i)
            if (isLoose(lines[i]) && old < limit_ && says(old, lines[i])) {
                lines[i].nextSame = old;
                old = nextLoose(old + 1);
            }
        inOrder_ = old >= limit_;
    }
    static bool isLoose(const Line& line) {
        return line.kind == zlineComment || line.kind == zlineBlank;
    }
    Id nextLoose(Id id) const {
        while (inOld_ && id < limit_ && (!isLoose(lines_[id]) || lines_[id].used))
            ++id;
        return inOld_ ? id : limit_;
    }

    Id putBetween(const ZPBlock<Line>& lines, Id at) {
        if (!isLoose(lines[at]))
            return putEntries(lines, at);
        put(lines[at], inOrder_ ? lines[at].nextSame : nearest(lines[at], limit_));
        return at + 1;
    }

    // --- entries: all of one key together ---

    Id putEntries(const ZPBlock<Line>& lines, Id at) {
        Id end = at + 1;
        while (end < lines.size() && lines[end].kind == zlineEntry &&
               zequals(lines[end].name, lines[at].name))
            ++end;
        const Id first = fixedAt(lines[at]);
        if (first != kNone && isUnchanged(lines, at, end, first)) {
            for (Id id = lines_[first].nextOfKey; id != kNone; id = lines_[id].nextOfKey)
                lines_[id].used = lines_[id].putOff = true;
            put(lines[at], first);
            return end;
        }
        // These may stand anywhere in the old stanza: the place is the first one's.
        if (first != kNone) {
            passTo(first);
            place_ = first + 1;
        }
        for (; at < end; ++at) {
            const Id id = nearest(lines[at], limit_);
            if (id == kNone) {
                putNew(lines[at]);
            } else {
                lines_[id].used = true;
                putRaw(id);
            }
        }
        return end;
    }

    // Whether the new lines are all values that the old lines of their key had, in that order. One
    // without a value ahead of others forgets all values before it: the old ones have to do so too.
    bool isUnchanged(const ZPBlock<Line>& lines, Id at, Id end, Id old) const {
        if (end - at > 1 && lines[at].value.size == 0 && !passForgotten(old))
            return false;
        for (; at < end; ++at) {
            if (lines[at].value.size == 0)
                continue;
            old = nextValue(old);
            if (old == kNone || !zequals(lines_[old].value, lines[at].value))
                return false;
            old = lines_[old].nextOfKey;
        }
        return nextValue(old) == kNone;
    }
    // Goes behind the last line of a key that has no value; false if there is none.
    bool passForgotten(Id& id) const {
        bool forgets = false;
        for (Id at = id; at != kNone; at = lines_[at].nextOfKey)
            if (lines_[at].value.size == 0) {
                forgets = true;
                id = lines_[at].nextOfKey;
            }
        return forgets;
    }
    // From this line of a key on, the first that has a value.
    Id nextValue(Id id) const {
        while (id != kNone && lines_[id].value.size == 0)
            id = lines_[id].nextOfKey;
        return id;
    }

    // --- output ---

    void append(const char* data, size_t size) { zappendBytes(out_, {data, size}); }

    void closeLine() {
        if (out_.size() != 0 && out_[out_.size() - 1] != '\n')
            endLine();
    }
    void endLine() { returns_ ? append("\r\n", 2) : append("\n", 1); }

    void putRaw(Id id) {
        // The pieces of a long line go on behind each other; anything else needs a line's end.
        if (last_ == kNone || last_ + 1 != id)
            closeLine();
        append(lines_[id].raw.data, lines_[id].raw.size);
        last_ = id;
    }

    void putNew(const Line& line) {
        closeLine();
        const size_t size = line.raw.size;
        const bool ended = line.raw.data[size - 1] == '\n';
        append(line.raw.data, ended ? size - 1 : size);
        // A carriage return must not be the byte that makes the line too long to be read whole.
        if (ended && size >= kLongestLine)
            append("\n", 1);
        else if (ended)
            endLine();
        last_ = kNone;
    }

    ZPBlock<Line> lines_;
    ZPIndex index_;  // of the first of all that say the same
    ZPIndex keys_;   // of the first line of each key
    ZBytes& out_;
    Id stanza_ = kNone;   // the walk's old stanza: its header's line
    bool inOld_ = false;  // whether there is one
    Id place_;            // the old lines ahead of it are done with
    Id last_;             // the old line that was put out last, none if it was a new one
    Id endStanza_;
    Id limit_;      // the old line of the next fixed point
    bool inOrder_;  // whether all old comments and blank lines up to there were found in order
    bool returns_;
};

}  // namespace

void zkeepLines(ZSpan original, ZSpan written, ZBytes& out) {
    out.setSize(0);
    out.reserveMore(written.size + written.size / 8 + 64);
    LineKeeper(original, out).write(written);
}

bool zfindValue(ZSpan text, const char* stanza, const char* key, ZSpan& value) {
    const ZSpan wantedStanza = {stanza, strlen(stanza)}, wantedKey = {key, strlen(key)};
    LineReader reader(text, kLongestLine);
    Line line;
    bool isInside = false;
    while (reader.next(line, 0)) {
        if (line.kind == zlineHeader)
            isInside = zequals(line.name, wantedStanza);
        else if (isInside && line.kind == zlineEntry && zequals(line.name, wantedKey)) {
            value = line.value;
            return true;
        }
    }
    return false;
}
