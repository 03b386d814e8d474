#include "zoldtext.h"

#include <initializer_list>
#include <memory>

#include "zgrammar.h"
#include "zpindex.h"

// ---------------------------------------------------------------- entries as comments

void zmakeDisabled(ZSpan key, ZSpan value, ZBytes& out) {
    out.setSize(0);
    out.reserveMore(key.size + value.size + strlen("#  = "));
    zappendBytes(out, {"# ", 2});
    zappendBytes(out, key);
    zappendBytes(out, value.size != 0 ? ZSpan{" = ", 3} : ZSpan{" =", 2});
    if (value.size != 0)
        zappendBytes(out, value);
}

ZSpan zfindDisabled(ZSpan comment, ZSpan key, ZSpan& value) {
    const ZLineGrammar grammar;
    if (comment.size == 0 || *comment.data != '#')
        return {comment.data, 0};
    const ZSpan text = grammar.trimmed(comment.data + 1, comment.data + comment.size);
    const ZLineParts parts = grammar.divide(text);
    if (parts.kind != zlineEntry || !zequals(parts.name, key))
        return {comment.data, 0};
    value = parts.value;
    return text;
}

// ---------------------------------------------------------------- notes

void ZOldText::note(Change change, ZSpan stanza, ZSpan key, ZSpan name) {
    notes_.push(static_cast<char>(change));
    for (const ZSpan& text : {stanza, key, name}) {
        zappendBytes(notes_, text);
        notes_.push('\0');
    }
}

void ZOldText::replaceBy(ZSpan text) {
    keep(text);
    isAhead_ = true;
}

void ZOldText::keep(ZSpan text) {
    zcopyBytes(text, text_);
    notes_.setSize(0);
    hasText_ = true;
    isAhead_ = false;
}

void ZOldText::forget(ZBytes&& text) {
    forget();
    text_.swap(text);
    hasText_ = true;
}

void ZOldText::forget() { *this = ZOldText(); }

// ---------------------------------------------------------------- what they do to a text

namespace {

typedef ZPId Id;

struct Line {
    ZSpan raw;  // empty: it is gone
    ZSpan name, value;
    Id stanza;     // its header's line; none ahead of the first
    Id nextOfKey;  // of an entry: the next line of its key
    Id next, prev;
    ZLineKind kind;
};

class LineChanger {
public:
    explicit LineChanger(ZSpan text) {
        size_t first = 0;
        while (first < text.size && text.data[first] != '\n')
            ++first;
        hasReturns_ = first != 0 && first < text.size && text.data[first - 1] == '\r';
        const ZLineGrammar grammar;
        Id stanza = kNoId;
        for (size_t at = 0; at < text.size;) {
            const size_t size = zlineLength(text.data + at, text.size - at);
            const ZSpan raw = {text.data + at, size};
            const ZLineParts parts = grammar.divideRaw(raw);
            const Id id = static_cast<Id>(lines_.size());
            if (parts.kind == zlineHeader)
                stanza = id;
            lines_.reserveMore(1);
            const Id last = id == 0 ? kNoId : id - 1;
            lines_.push({raw, parts.name, parts.value, stanza, kNoId, kNoId, last, parts.kind});
            if (last != kNoId)
                lines_[last].next = id;
            at += size;
        }
        // From the end, so that each chain begins with its first line.
        index_.reserve(lines_.size());
        for (Id id = static_cast<Id>(lines_.size()); id-- > 0;)
            if (lines_[id].kind == zlineHeader || lines_[id].kind == zlineEntry)
                enter(id);
    }

    void make(ZOldText::Change change, ZSpan stanzaName, ZSpan key, ZSpan name) {
        const Id stanza = find(zlineHeader, kNoId, stanzaName);
        if (stanza == kNoId)
            return;
        switch (change) {
            case ZOldText::renamedStanza:
                renameStanza(stanza, name);
                break;
            case ZOldText::renamedKey:
                forget(stanza, name);
                renameKey(leave(stanza, key), name);
                break;
            case ZOldText::disabledKey:
                disable(leave(stanza, key));
                break;
            case ZOldText::uncommentedKey:
                forget(stanza, key);
                uncomment(stanza, key);
                break;
        }
    }

    void write(ZBytes& out) const {
        for (Id id = lines_.size() == 0 ? kNoId : 0; id != kNoId; id = lines_[id].next)
            if (lines_[id].raw.size != 0)
                zappendBytes(out, lines_[id].raw);
    }

private:
    static uint32_t hashOf(ZLineKind kind, Id stanza, ZSpan name) {
        return zhashOfBoth(kind == zlineHeader ? kNoId : stanza, zhashOf(name));
    }

    // The first line of a stanza, or of a key.
    Id find(ZLineKind kind, Id stanza, ZSpan name) const {
        return index_.find(hashOf(kind, stanza, name), [&](Id id) {
            return lines_[id].kind == kind && zequals(lines_[id].name, name) &&
                   (kind == zlineHeader || lines_[id].stanza == stanza);
        });
    }

    // Puts a line in front of its key's.
    void enter(Id id) {
        Line& line = lines_[id];
        const uint32_t hash = hashOf(line.kind, line.stanza, line.name);
        line.nextOfKey = find(line.kind, line.stanza, line.name);
        if (line.nextOfKey != kNoId)
            index_.remove(hash, line.nextOfKey);
        index_.reserveMore(1);
        index_.insert(hash, id);
    }

    // Takes a key's lines out of the index, and gives the first.
    Id leave(Id stanza, ZSpan key) {
        const Id first = find(zlineEntry, stanza, key);
        if (first != kNoId)
            index_.remove(hashOf(zlineEntry, stanza, key), first);
        return first;
    }

    // The lines of a key that has gone since, or nothing could have got its name.
    void forget(Id stanza, ZSpan key) {
        for (Id id = leave(stanza, key); id != kNoId; id = lines_[id].nextOfKey)
            lines_[id].raw.size = 0;
    }

    // From the key's first line on, which has left the index.
    void renameKey(Id first, ZSpan name) {
        for (Id id = first; id != kNoId; id = lines_[id].nextOfKey)
            rename(id, name);
        if (first != kNoId)
            index_.insert(hashOf(zlineEntry, lines_[first].stanza, name), first);
    }

    void renameStanza(Id stanza, ZSpan name) {
        const Id before = find(zlineHeader, kNoId, name);
        if (before != kNoId) {
            index_.remove(hashOf(zlineHeader, kNoId, name), before);
            for (Id id = before; isIn(id, before); id = lines_[id].next)
                lines_[id].raw.size = 0;
        }
        index_.remove(hashOf(zlineHeader, kNoId, lines_[stanza].name), stanza);
        rename(stanza, name);
        enter(stanza);
    }

    // The line is made of these pieces now, of which `name` is the second and may have another
    // place.
    void compose(Id id, ZSpan before, ZSpan name, ZSpan behind) {
        Line& line = lines_[id];
        made_.reserveMore(1);
        const size_t size = before.size + name.size + behind.size;
        char* text = static_cast<char*>(zrequireMemory(malloc(size + 1)));
        made_.push(std::unique_ptr<char, ZPFree>(text));
        size_t at = 0;
        for (const ZSpan& piece : {before, name, behind}) {
            memcpy(text + at, piece.data, piece.size);
            at += piece.size;
        }
        line.raw = {text, size};
        const ZLineParts parts = ZLineGrammar().divideRaw(line.raw);
        line.name = parts.name;
        line.value = parts.value;
        line.kind = parts.kind;
    }
    ZSpan rawBefore(Id id, const char* at) const {
        return {lines_[id].raw.data, static_cast<size_t>(at - lines_[id].raw.data)};
    }
    ZSpan rawFrom(Id id, const char* at) const {
        const ZSpan raw = lines_[id].raw;
        return {at, static_cast<size_t>(raw.data + raw.size - at)};
    }

    void rename(Id id, ZSpan name) {
        const ZSpan old = lines_[id].name;
        compose(id, rawBefore(id, old.data), name, rawFrom(id, old.data + old.size));
    }

    // Behind another line; the first of all is never moved. The last may have no end, and gets the
    // one that the first has.
    void moveBehind(Id id, Id place) {
        const ZSpan raw = lines_[id].raw;
        if (raw.size != 0 && raw.data[raw.size - 1] != '\n')
            compose(id, {raw.data, 0}, raw, hasReturns_ ? ZSpan{"\r\n", 2} : ZSpan{"\n", 1});
        Line& line = lines_[id];
        lines_[line.prev].next = line.next;
        if (line.next != kNoId)
            lines_[line.next].prev = line.prev;
        line.prev = place;
        line.next = lines_[place].next;
        lines_[place].next = id;
        if (line.next != kNoId)
            lines_[line.next].prev = id;
    }

    // The comments come behind each other, as a store writes a key's values; a line without one
    // makes a comment where no line has any.
    void disable(Id first) {
        bool hasValues = false;
        for (Id id = first; id != kNoId; id = lines_[id].nextOfKey)
            hasValues = hasValues || lines_[id].value.size != 0;
        Id place = kNoId;
        for (Id id = first; id != kNoId; id = lines_[id].nextOfKey) {
            if (lines_[id].value.size == 0 && (hasValues || id != first)) {
                lines_[id].raw.size = 0;
                lines_[id].kind = zlineBlank;
            } else {
                disableLine(id);
            }
            if (place != kNoId)
                moveBehind(id, place);
            place = id;
        }
    }

    void disableLine(Id id) {
        const Line& line = lines_[id];
        ZBytes comment;
        zmakeDisabled(line.name, line.value, comment);
        compose(id, rawBefore(id, line.name.data), zspanOf(comment),
                rawFrom(id, line.value.data + line.value.size));
    }

    bool isIn(Id id, Id stanza) const { return id != kNoId && lines_[id].stanza == stanza; }

    void uncomment(Id stanza, ZSpan key) {
        for (Id id = lines_[stanza].next; isIn(id, stanza); id = lines_[id].next) {
            if (lines_[id].kind != zlineComment || lines_[id].raw.size == 0)
                continue;
            ZSpan value;
            const ZSpan name = lines_[id].name, entry = zfindDisabled(name, key, value);
            if (entry.size == 0)
                continue;
            compose(id, rawBefore(id, name.data), entry, rawFrom(id, name.data + name.size));
            enter(id);
            return;
        }
    }

    ZPBlock<Line> lines_;
    ZPIndex index_;  // of headers and of each key's first line
    ZPBlock<std::unique_ptr<char, ZPFree>> made_;
    bool hasReturns_;
};

}  // namespace

ZSpan ZOldText::changed(ZSpan fileText, ZBytes& room) const {
    const ZSpan text = isAhead_ ? zspanOf(text_) : fileText;
    if (notes_.size() == 0)
        return text;
    LineChanger changer(text);
    const char* const end = notes_.data() + notes_.size();
    for (const char* at = notes_.data(); at < end;) {
        const Change change = static_cast<Change>(*at++);
        ZSpan texts[3];
        for (ZSpan& part : texts) {
            part = zspanOf(at);
            at += part.size + 1;
        }
        changer.make(change, texts[0], texts[1], texts[2]);
    }
    room.setSize(0);
    room.reserveMore(text.size + notes_.size());
    changer.write(room);
    return zspanOf(room);
}
