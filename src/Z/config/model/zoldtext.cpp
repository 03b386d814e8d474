#include "zoldtext.h"

#include <initializer_list>
#include <memory>

#include "zgrammar.h"
#include "zpindex.h"

static bool equal(ZSpan a, ZSpan b) {
    return a.size == b.size && (a.size == 0 || memcmp(a.data, b.data, a.size) == 0);
}

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
    if (parts.kind != zlineEntry || !equal(parts.name, key))
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
    zcopyBytes(text, text_);
    notes_.setSize(0);
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
    ZLineKind kind;
};

struct Free {
    void operator()(char* block) const { free(block); }
};

class LineChanger {
public:
    explicit LineChanger(ZSpan text) {
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
            lines_.push({raw, parts.name, parts.value, stanza, kNoId, parts.kind});
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
                // What had the name has gone before, or it couldn't have been given.
                for (Id id = leave(stanza, name); id != kNoId; id = lines_[id].nextOfKey)
                    lines_[id].raw.size = 0;
                for (Id id = leave(stanza, key), next; id != kNoId; id = next) {
                    next = lines_[id].nextOfKey;
                    rename(id, name);
                    enter(id);
                }
                break;
            case ZOldText::disabledKey:
                for (Id id = leave(stanza, key); id != kNoId; id = lines_[id].nextOfKey)
                    disable(id);
                break;
            case ZOldText::uncommentedKey:
                uncomment(stanza, key);
                break;
        }
    }

    void write(ZBytes& out) const {
        for (size_t i = 0; i < lines_.size(); ++i)
            if (lines_[i].raw.size != 0)
                zappendBytes(out, lines_[i].raw);
    }

private:
    static uint32_t hashOf(ZLineKind kind, Id stanza, ZSpan name) {
        return zhashOfBoth(kind == zlineHeader ? kNoId : stanza, zhashOf(name));
    }

    // The first line of a stanza, or of a key.
    Id find(ZLineKind kind, Id stanza, ZSpan name) const {
        return index_.find(hashOf(kind, stanza, name), [&](Id id, uint32_t) {
            return lines_[id].kind == kind && equal(lines_[id].name, name) &&
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
        index_.insert(hash, id, 0);
    }

    // Takes a key's lines out of the index, and gives the first.
    Id leave(Id stanza, ZSpan key) {
        const Id first = find(zlineEntry, stanza, key);
        if (first != kNoId)
            index_.remove(hashOf(zlineEntry, stanza, key), first);
        return first;
    }

    void renameStanza(Id stanza, ZSpan name) {
        const Id before = find(zlineHeader, kNoId, name);
        if (before != kNoId) {
            index_.remove(hashOf(zlineHeader, kNoId, name), before);
            for (Id id = before; id < lines_.size() && lines_[id].stanza == before; ++id)
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
        made_.push(std::unique_ptr<char, Free>(text));
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

    void disable(Id id) {
        const Line& line = lines_[id];
        ZBytes comment;
        zmakeDisabled(line.name, line.value, comment);
        compose(id, rawBefore(id, line.name.data), zspanOf(comment),
                rawFrom(id, line.value.data + line.value.size));
    }

    void uncomment(Id stanza, ZSpan key) {
        for (Id id = stanza + 1; id < lines_.size() && lines_[id].stanza == stanza; ++id) {
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
    ZPBlock<std::unique_ptr<char, Free>> made_;
};

}  // namespace

ZSpan ZOldText::changed(ZSpan fileText, ZBytes& room) const {
    const ZSpan text = hasText_ ? zspanOf(text_) : fileText;
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
