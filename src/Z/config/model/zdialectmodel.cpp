// zdialectmodel.cpp: a text of another dialect, changed so that it says what a model holds.
//
// The old text is cut into parts. Each part of an entry finds its key in the model by a folded
// name; a key has a chain of its parts. Then each part is kept, dropped or put anew, and what is
// new hangs as a chain of texts on the old part behind which it goes. At last all is written in one
// walk.
// Part 0 is empty and stands ahead of the text, so that everything new has a part to follow.
#include "zdialectmodel.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>

#include "zdialectedits.h"
#include "zdialecttext.h"
#include "zmemory.h"
#include "zpindex.h"
#include "zrefusal.h"

namespace {

typedef uint32_t Id;
const Id kNone = kNoId;

struct Chain {
    Id first = kNone, last = kNone;
};

struct Part {
    ZDialectPart::Kind kind;
    bool isDropped = false;
    bool isReplaced = false;  // the raw bytes by `text`; all of the lines where there are no raw
    bool isWhole = false;
    ZSpan lines, raw;
    size_t valueAt = 0, valueSize = 0;  // in bytes_
    size_t textAt = 0, textSize = 0;    // in bytes_
    size_t keySize = 0;
    Id stanza = kNone, key = kNone, nextOfKey = kNone;
    Id habit = kNone;  // the nearest entry above
    Chain behind;      // of additions
};

struct Addition {
    size_t at, size;  // in bytes_
    Id next;
};

struct Stanza {
    ZPStore::Id id;
    size_t nameAt, nameSize;  // folded
    Id place = kNone;         // its last entry, else its last header
    bool hasEntry = false;
};

struct Key {
    ZPStore::Id id;
    Id stanza;
    size_t nameAt, nameSize;  // folded
    Id first = kNone, last = kNone;
};

class Rewriter {
public:
    Rewriter(const ZDialect& dialect, const ZPStore& store, ZSpan old, ZBytes& out,
             const char* file)
        : file_(file), d_(dialect), store_(store), old_(old), out_(out), headers_(dialect) {}

    void run() {
        readModel();
        readOld();
        dropGoneStanzas();
        for (Id k = 0; k < keys_.size(); ++k)
            if (keys_[k].first != kNone)
                changeKey(keys_[k]);
        addNewKeys();
        write();
    }

private:
    // --- the model ---

    ZSpan text(size_t at, size_t size) const { return {bytes_.data() + at, size}; }
    size_t folded(ZSpan name, bool isStanza) {
        const size_t at = bytes_.size();
        zdialectFold(d_, name, isStanza, bytes_);
        return at;
    }
    template <typename T>
    static T& added(ZVector<T>& to, const T& record) {
        to.push_back(record);
        return to.back();
    }

    Id findStanza(ZSpan name) const {
        return stanzaIndex_.find(znarrowHash(zhashOf(name)), [&](Id id) {
            return zequals(text(stanzas_[id].nameAt, stanzas_[id].nameSize), name);
        });
    }
    static uint32_t keyHash(Id stanza, ZSpan name) {
        return zhashOfBoth(stanza * kHashB, zhashOf(name));
    }
    Id findKey(Id stanza, ZSpan name) const {
        return keyIndex_.find(keyHash(stanza, name), [&](Id id) {
            return keys_[id].stanza == stanza &&
                   zequals(text(keys_[id].nameAt, keys_[id].nameSize), name);
        });
    }

    void readModel() {
        store_.forEachStanza([&](ZPStore::Id s) {
            Stanza stanza = {};
            stanza.id = s;
            stanza.place = kNone;
            stanza.nameAt = folded(nameOf(store_.stanza(s)), true);
            stanza.nameSize = bytes_.size() - stanza.nameAt;
            const ZSpan name = text(stanza.nameAt, stanza.nameSize);
            if (findStanza(name) != kNone)
                refuse("a stanza's name", "is spelled otherwise there already");
            const Id id = static_cast<Id>(stanzas_.size());
            stanzaIndex_.reserveMore(1);
            stanzaIndex_.insert(znarrowHash(zhashOf(name)), id);
            added(stanzas_, stanza);
            for (ZPStore::Id k = store_.stanza(s).first; k != ZPStore::none; k = store_.nextKey(k))
                readKey(id, k);
        });
    }
    void readKey(Id stanza, ZPStore::Id id) {
        if (isOnlyHidden(id))
            return;
        Key key = {};
        key.id = id;
        key.stanza = stanza;
        key.first = key.last = kNone;
        key.nameAt = folded(nameOf(store_.key(id)), false);
        key.nameSize = bytes_.size() - key.nameAt;
        const ZSpan name = text(key.nameAt, key.nameSize);
        if (findKey(stanza, name) != kNone)
            refuse("a key", "is spelled otherwise there already");
        keyIndex_.reserveMore(1);
        keyIndex_.insert(keyHash(stanza, name), static_cast<Id>(keys_.size()));
        added(keys_, key);
    }
    template <typename Record>
    ZSpan nameOf(const Record& record) const {
        return store_.text().span(record.name);
    }
    bool isOnlyHidden(ZPStore::Id id) const {
        return store_.mayHaveHidden() && store_.anyKind(id) == ZPStore::hidden;
    }
    static void refuse(const char* subject, const char* reason) {
        zrequireNoFault({subject, reason});
    }

    // --- the old text ---

    void readOld() {
        Part ahead = {};
        ahead.kind = ZDialectPart::blank;
        ahead.lines = ahead.raw = {old_.data, 0};
        added(parts_, ahead);
        ZDialectReader reader(d_, old_);
        ZDialectPart read;
        Id stanza = findStanza({"", 0}), habit = kNone;
        orphans_ = stanza;
        bool hasHeader = false;
        while (reader.next(read)) {
            const Id id = static_cast<Id>(parts_.size());
            Part part = {};
            part.kind = read.kind;
            part.lines = read.lines;
            part.raw = read.raw;
            part.key = part.nextOfKey = kNone;
            if (read.kind == ZDialectPart::header) {
                hasHeader = true;
                stanza = stanzaOfHeader(read);
                if (stanza != kNone && !stanzas_[stanza].hasEntry)
                    stanzas_[stanza].place = id;
            }
            part.stanza = stanza;
            const bool isOrphan =
                !hasHeader && d_.orphans == ZDIALECT_NO_ORPHANS &&
                (read.kind == ZDialectPart::entry || read.kind == ZDialectPart::bareEntry);
            if (isOrphan || read.kind == ZDialectPart::bad)
                raiseBad(read);
            if (read.kind == ZDialectPart::entry) {
                habit = id;
                firstEntry_ = firstEntry_ == kNone ? id : firstEntry_;
            }
            part.habit = habit;
            if (read.kind == ZDialectPart::entry || read.kind == ZDialectPart::bareEntry)
                readOldEntry(read, part, id);
            added(parts_, part);
        }
        lastEntry_ = habit;
    }

    void readOldEntry(const ZDialectPart& read, Part& part, Id id) {
        part.keySize = read.name.size;
        part.isDropped = true;
        if (part.stanza == kNone)
            return;
        stanzas_[part.stanza].place = id;
        stanzas_[part.stanza].hasEntry = true;
        const size_t at = folded(read.name, false);
        part.key = findKey(part.stanza, text(at, bytes_.size() - at));
        bytes_.setSize(at);
        if (part.key == kNone)
            return;
        part.isDropped = false;
        part.valueAt = bytes_.size();
        part.valueSize = read.value.size;
        zappendBytes(bytes_, read.value);
        Key& key = keys_[part.key];
        (key.first == kNone ? key.first : parts_[key.last].nextOfKey) = id;
        key.last = id;
    }

    Id stanzaOfHeader(const ZDialectPart& part) {
        const bool isNumbering = d_.repeated == ZDIALECT_NUMBERED;
        const size_t at = bytes_.size();
        const uint32_t number = headers_.add(part.name, bytes_);
        if ((number > 1 && d_.repeated == ZDIALECT_NOT_REPEATED) ||
            (isNumbering && zwithoutNumber(part.name).size != part.name.size))
            raiseBad(part);
        const Id found = findStanza(text(at, bytes_.size() - at));
        bytes_.setSize(at);
        return found;
    }

    [[noreturn]] void raiseBad(const ZDialectPart& part) const {
        zdialectRaiseBad(file_, part.lines, part.line);
    }

    // From a header to the next, but for the comments directly above that.
    void dropGoneStanzas() {
        for (Id at = 1; at < parts_.size();) {
            if (parts_[at].kind != ZDialectPart::header || parts_[at].stanza != kNone) {
                ++at;
                continue;
            }
            Id next = at + 1;
            while (next < parts_.size() && parts_[next].kind != ZDialectPart::header)
                ++next;
            Id end = next;
            while (next < parts_.size() && end - 1 > at &&
                   parts_[end - 1].kind == ZDialectPart::comment)
                --end;
            for (; at < end; ++at)
                parts_[at].isDropped = true;
            at = next;
        }
    }

    // --- the values of a key that has old lines ---

    ZSpan valueOf(Id part) const { return text(parts_[part].valueAt, parts_[part].valueSize); }

    void changeKey(const Key& key) {
        const ZPValueView wanted = store_.values(key.id, ZPStore::plain);
        ZVector<ZSpan> values;
        for (uint32_t i = 0; i < wanted.count(); ++i)
            if (wanted[i].size != 0)
                values.push_back(wanted[i]);
        if (d_.values == ZDIALECT_LAST_VALUE && values.size() > 1)
            refuse("a key", "can't have several values");
        Id from = d_.values == ZDIALECT_LAST_VALUE ? key.last : key.first;
        ZVector<Id> old;
        Id lastEmpty = kNone;
        for (Id id = from; id != kNone; id = parts_[id].nextOfKey) {
            if (parts_[id].valueSize != 0) {
                old.push_back(id);
                continue;
            }
            lastEmpty = id;
            if (d_.values == ZDIALECT_RESET_VALUES) {
                from = id;
                old.clear();
            }
        }
        if (values.empty())
            leaveEmpty(key, from, old);
        else if (!saysSame(old, values))
            changeLines(key, old, lastEmpty, values);
    }

    bool saysSame(const ZVector<Id>& old, const ZVector<ZSpan>& values) const {
        bool isSame = old.size() == values.size();
        for (size_t i = 0; isSame && i < old.size(); ++i)
            isSame = zequals(valueOf(old[i]), values[i]);
        return isSame;
    }

    // `lastEmpty`: the key's last line without a value. None may stand behind the last value: that
    // is what those take who want only one, and where empty ones forget all above them no value is
    // left then.
    void changeLines(const Key& key, const ZVector<Id>& old, Id lastEmpty,
                     const ZVector<ZSpan>& values) {
        if (old.empty()) {
            const bool fills = d_.values != ZDIALECT_RESET_VALUES;
            if (fills)
                replace(key.last, values[0]);
            addValues(key, key.last, values, fills, values.size());
            return;
        }
        if (lastEmpty == kNone)
            return alignValues(key, old, old.size(), values, values.size());
        const size_t last = values.size() - 1;
        if (lastEmpty < old.back()) {
            alignValues(key, old, old.size() - 1, values, last);
            if (!zequals(valueOf(old.back()), values[last]))
                replace(old.back(), values[last]);
            return;
        }
        alignValues(key, old, old.size(), values, last);
        if (last < old.size())
            replace(lastEmpty, values[last]);
        else
            addValues(key, lastEmpty, values, last, values.size());
    }

    // So many values into so many old lines: those that are the same at both ends stay.
    void alignValues(const Key& key, const ZVector<Id>& old, size_t oldCount,
                     const ZVector<ZSpan>& values, size_t count) {
        const size_t most = oldCount < count ? oldCount : count;
        size_t begin = 0, end = 0;
        while (begin < most && zequals(valueOf(old[begin]), values[begin]))
            ++begin;
        while (end < most - begin &&
               zequals(valueOf(old[oldCount - 1 - end]), values[count - 1 - end]))
            ++end;
        size_t o = begin, v = begin;
        for (; o < oldCount - end && v < count - end; ++o, ++v)
            replace(old[o], values[v]);
        // Ahead of all old ones: behind what stands above.
        if (v < count - end)
            addValues(key, o == 0 ? old[0] - 1 : old[o - 1], values, v, count - end);
        for (; o < oldCount - end; ++o)
            parts_[old[o]].isDropped = true;
    }

    // The key stays without values.
    void leaveEmpty(const Key& key, Id from, const ZVector<Id>& old) {
        const bool bare = store_.isBare(key.id);
        const ZDialectPart::Kind kind = bare ? ZDialectPart::bareEntry : ZDialectPart::entry;
        bool isThere = false;
        for (Id id = from; id != kNone; id = parts_[id].nextOfKey)
            isThere = isThere || (parts_[id].valueSize == 0 && parts_[id].kind == kind);
        for (Id id : old)
            parts_[id].isDropped = true;
        // Among lines without a divider the key would have none either.
        for (Id id = from; id != kNone && !bare; id = parts_[id].nextOfKey)
            if (parts_[id].kind == ZDialectPart::bareEntry)
                parts_[id].isDropped = true;
        if (isThere)
            return;
        Part& part = parts_[key.last];
        part.isDropped = false;
        if (!bare && part.kind == ZDialectPart::entry && d_.divider != ZDIALECT_BLANK &&
            hasTail(part))
            return patch(part, ZBytes(), {"", 0});
        setText(part, lineOf(nameOf(store_.key(key.id)), nullptr, bare, key.last), true);
    }

    // Whether a comment stands behind the value.
    static bool hasTail(const Part& part) {
        const char* at = part.raw.data + part.raw.size;
        const char* const end = part.lines.data + part.lines.size;
        while (at < end && (zisDialectBlank(*at) || *at == '\n'))
            ++at;
        return at < end;
    }

    void setText(Part& part, const ZBytes& made, bool isWhole) {
        part.isReplaced = true;
        part.isWhole = isWhole;
        part.textAt = bytes_.size();
        part.textSize = made.size();
        zappendBytes(bytes_, zspanOf(made));
    }

    // The value in the place of the old one's bytes.
    void replace(Id id, ZSpan value) {
        Part& part = parts_[id];
        const bool wasBare = part.kind == ZDialectPart::bareEntry;
        const Habit habit(*this, wasBare ? habitOf(id) : id);
        ZBytes made;
        if (wasBare)
            for (ZSpan span : {habit.spelled.before, habit.spelled.divider})
                zappendBytes(made, span);
        const char* const rawEnd = part.raw.data + part.raw.size;
        const char* const end = part.lines.data + part.lines.size;
        // A value of several lines may begin in the second.
        if (part.raw.size == 0 || (startsLine(part.raw) && *value.data != '\n'))
            zappendBytes(made, habit.spelled.after);
        if (!zdialectEncode(d_, value, part.raw, habit.spelled, made))
            refuseValue(value);
        if (part.raw.size == 0 && rawEnd < end && !zisDialectBlank(*rawEnd) && *rawEnd != '\n')
            zappendBytes(made, {" ", 1});
        patch(part, made, value);
    }

    static bool startsLine(ZSpan raw) { return *raw.data == '\n' || *raw.data == '\r'; }

    // What stays behind a value that changes: the rest of its line. Blank lines in which the old
    // one went on are its own.
    static ZSpan behindValue(const Part& part) {
        const char* const first = part.raw.data + part.raw.size;
        const char* const end = part.lines.data + part.lines.size;
        const void* newline =
            first == end ? nullptr : memchr(first, '\n', static_cast<size_t>(end - first));
        const char* behind = newline == nullptr ? end : static_cast<const char*>(newline) + 1;
        for (const char* at = behind; at < end; ++at)
            if (!zisDialectBlank(*at) && *at != '\n')
                behind = end;
        return zspanBetween(first, behind);
    }

    // Puts what gives this value in the place of the old one's bytes.
    void patch(Part& part, const ZBytes& made, ZSpan value) {
        ZBytes line;
        zappendBytes(line, zspanBetween(part.lines.data, part.raw.data));
        zappendBytes(line, zspanOf(made));
        zappendBytes(line, behindValue(part));
        requireRead(line, value);
        setText(part, made, false);
    }

    void refuseValue(ZSpan value) {
        const char* reason = zdialectValueFault(d_, value);
        refuse("a value", reason == nullptr ? "can't stand in this line" : reason);
    }

    // What was made has to come back: here a line that is too long shows.
    void requireRead(const ZBytes& line, ZSpan value) {
        ZDialectReader reader(d_, zspanOf(line));
        ZDialectPart part;
        const bool isEntry =
            reader.next(part) && part.kind == ZDialectPart::entry && zequals(part.value, value);
        const char* const reason = part.kind == ZDialectPart::bad ? part.reason : nullptr;
        // Comments between the old value's lines may be left behind.
        bool isAlone = isEntry;
        while (isAlone && reader.next(part))
            isAlone = part.kind == ZDialectPart::blank || part.kind == ZDialectPart::comment;
        if (!isAlone)
            refuse("a value", reason != nullptr ? reason : "can't stand in this line");
    }

    void addValues(const Key& key, Id behind, const ZVector<ZSpan>& values, size_t from,
                   size_t end) {
        for (; from < end; ++from)
            add(behind,
                lineOf(nameOf(store_.key(key.id)), &values[from], false, parts_[key.last].habit));
    }

    // --- new lines ---

    // How an old entry is spelled, or what is usual where there is none.
    struct Habit {
        Habit(const Rewriter& owner, Id id) {
            spelled = zdialectUsualHabit(owner.d_);
            spelled.lineEnd = owner.lineEnd();
            if (id != kNone && owner.parts_[id].kind == ZDialectPart::entry)
                take(owner.parts_[id], owner.d_.divider == ZDIALECT_BLANK);
            const ZSpan indent = spelled.indent;
            if (ownMore.size() == 0) {
                zappendBytes(ownMore, indent);
                const bool hasTab =
                    indent.size != 0 && memchr(indent.data, '\t', indent.size) != nullptr;
                zappendBytes(ownMore, hasTab ? ZSpan{"\t", 1} : ZSpan{"    ", 4});
            }
            spelled.more = zspanOf(ownMore);
        }
        void take(const Part& part, bool isBlankOne) {
            const char* const end = part.lines.data + part.lines.size;
            const char* key = part.lines.data;
            while (zisDialectBlank(*key))
                ++key;
            spelled.indent = zspanBetween(part.lines.data, key);
            const char* const behind = key + part.keySize;
            const char* divider = behind;
            while (!isBlankOne && zisDialectBlank(*divider))
                ++divider;
            const char* after = divider + 1;
            const char* value = after;
            while (value < end && zisDialectBlank(*value))
                ++value;
            spelled.before = zspanBetween(behind, divider);
            spelled.divider = {divider, 1};
            // An empty value doesn't tell.
            spelled.after = part.raw.size != 0 ? zspanBetween(after, value)
                            : isBlankOne       ? ZSpan{"", 0}
                                               : spelled.before;
            if (end[-1] == '\n')
                spelled.lineEnd = end - part.lines.data > 1 && end[-2] == '\r' ? ZSpan{"\r\n", 2}
                                                                               : ZSpan{"\n", 1};
            // A value of several lines may begin in the second: then the blanks aren't its own.
            const void* newline = memchr(key, '\n', static_cast<size_t>(end - key));
            if (newline == nullptr)
                return;
            if (value > newline)
                spelled.after = spelled.before;
            const char* more = static_cast<const char*>(newline) + 1;
            const char* text = more;
            while (text < end && zisDialectBlank(*text))
                ++text;
            if (text < end && *text != '\n')
                zappendBytes(ownMore, zspanBetween(more, text));
        }
        ZDialectHabit spelled;
        ZBytes ownMore;
    };

    ZSpan lineEnd() const { return zdialectLineEnd(old_); }

    // A whole line; a null value: the key has none.
    ZBytes lineOf(ZSpan name, const ZSpan* value, bool bare, Id like) {
        if (const char* reason = zdialectKeyFault(d_, name))
            refuse("a key", reason);
        const Habit habit(*this, like != kNone ? habitOf(like) : firstEntry_);
        const ZDialectHabit& h = habit.spelled;
        ZBytes line;
        zappendBytes(line, h.indent);
        zappendBytes(line, name);
        if (value != nullptr) {
            for (ZSpan span : {h.before, h.divider, h.after})
                zappendBytes(line, span);
            if (!zdialectEncode(d_, *value, {"", 0}, h, line))
                refuseValue(*value);
        } else if (d_.divider == ZDIALECT_BLANK && !bare) {
            if (d_.quotes == ZDIALECT_PLAIN)
                refuse("a value", "can't be empty");
            zappendBytes(line, {" \"\"", 3});
        } else if (!bare) {
            zappendBytes(line, h.before);
            zappendBytes(line, h.divider);
        }
        zappendBytes(line, h.lineEnd);
        if (!bare)
            requireRead(line, value == nullptr ? ZSpan{"", 0} : *value);
        return line;
    }
    Id habitOf(Id id) const {
        const Id habit = parts_[id].kind == ZDialectPart::entry ? id : parts_[id].habit;
        return habit == kNone ? firstEntry_ : habit;
    }

    void add(Id behind, const ZBytes& made) {
        const Id id = static_cast<Id>(additions_.size());
        added(additions_, Addition{bytes_.size(), made.size(), kNone});
        zappendBytes(bytes_, zspanOf(made));
        Chain& chain = behind == kNone ? end_ : parts_[behind].behind;
        (chain.first == kNone ? chain.first : additions_[chain.last].next) = id;
        chain.last = id;
    }

    void addNewKeys() {
        size_t k = 0;
        for (Id s = 0; s < stanzas_.size(); ++s) {
            const size_t from = k;
            while (k < keys_.size() && keys_[k].stanza == s)
                ++k;
            if (s == orphans_)
                addOrphans(from, k);
            else
                addKeys(s, from, k);
        }
    }

    void addKeys(Id s, size_t from, size_t end) {
        if (stanzas_[s].place == kNone) {
            addHeader(s);
            for (; from < end; ++from)
                addKey(keys_[from], kNone);
            return;
        }
        for (; from < end; ++from)
            if (keys_[from].first == kNone)
                addKey(keys_[from], stanzas_[s].place);
    }

    void addKey(const Key& key, Id behind) {
        const ZPValueView values = store_.values(key.id, ZPStore::plain);
        const ZSpan name = nameOf(store_.key(key.id));
        const Id like = behind == kNone ? lastEntry_ : behind;
        uint32_t count = 0;
        for (uint32_t i = 0; i < values.count(); ++i) {
            const ZSpan value = values[i];
            if (value.size == 0)
                continue;
            if (++count > 1 && d_.values == ZDIALECT_LAST_VALUE)
                refuse("a key", "can't have several values");
            add(behind, lineOf(name, &value, false, like));
        }
        if (count == 0)
            add(behind, lineOf(name, nullptr, store_.isBare(key.id), like));
    }

    void addHeader(Id s) {
        ZSpan name = nameOf(store_.stanza(stanzas_[s].id));
        if (d_.repeated == ZDIALECT_NUMBERED)
            name = zwithoutNumber(name);
        if (const char* reason = zdialectStanzaFault(d_, name))
            refuse("a stanza's name", reason);
        const Habit habit(*this, lastEntry_);
        ZBytes header;
        zdialectSpellHeader(d_, name, header);
        zappendBytes(header, habit.spelled.lineEnd);
        // Behind a blank line.
        if (parts_.size() > 1 || end_.first != kNone || parts_[0].behind.first != kNone) {
            ZBytes blank;
            zappendBytes(blank, habit.spelled.lineEnd);
            if (end_.first != kNone || parts_.back().kind != ZDialectPart::blank)
                add(kNone, blank);
        }
        add(kNone, header);
    }

    // New entries ahead of the first header.
    void addOrphans(size_t from, size_t end) {
        Id behind = stanzas_[orphans_].place;
        bool isFirst = behind == kNone, isAny = false;
        if (isFirst) {
            behind = 0;
            while (behind + 1 < parts_.size() && parts_[behind + 1].kind == ZDialectPart::comment)
                ++behind;
        }
        for (; from < end; ++from)
            if (keys_[from].first == kNone) {
                if (d_.orphans == ZDIALECT_NO_ORPHANS)
                    refuse("a stanza's name", "can't be empty");
                addKey(keys_[from], behind);
                isAny = true;
            }
        if (isAny && isFirst && behind + 1 < parts_.size() &&
            parts_[behind + 1].kind != ZDialectPart::blank) {
            ZBytes blank;
            zappendBytes(blank, lineEnd());
            add(behind, blank);
        }
    }

    // --- output ---

    void write() {
        out_.setSize(0);
        out_.reserveMore(old_.size + old_.size / 8 + 64);
        for (const Part& part : parts_) {
            if (!part.isDropped)
                put(part);
            putAll(part.behind);
        }
        putAll(end_);
    }

    void put(const Part& part) {
        const ZSpan made = text(part.textAt, part.textSize);
        if (part.lines.size == 0)
            return;
        closeLine();
        if (!part.isReplaced) {
            zappendBytes(out_, part.lines);
        } else if (part.isWhole) {
            zappendBytes(out_, made);
        } else {
            zappendBytes(out_, zspanBetween(part.lines.data, part.raw.data));
            zappendBytes(out_, made);
            zappendBytes(out_, behindValue(part));
        }
    }

    void putAll(const Chain& chain) {
        for (Id id = chain.first; id != kNone; id = additions_[id].next) {
            closeLine();
            zappendBytes(out_, text(additions_[id].at, additions_[id].size));
        }
    }

    void closeLine() {
        if (out_.size() != 0 && out_[out_.size() - 1] != '\n')
            zappendBytes(out_, lineEnd());
    }

    const char* const file_;
    const ZDialect& d_;
    const ZPStore& store_;
    const ZSpan old_;
    ZBytes& out_;
    ZBytes bytes_;  // names, values and new texts
    ZVector<Stanza> stanzas_;
    ZVector<Key> keys_;  // by stanza
    ZPIndex stanzaIndex_, keyIndex_;
    ZDialectHeaders headers_;
    ZVector<Part> parts_;
    ZVector<Addition> additions_;
    Chain end_;
    Id orphans_ = kNone, firstEntry_ = kNone, lastEntry_ = kNone;
};

}  // namespace

// All keys of a store with their values, sorted; all spellings of a name alike, and stanzas without
// the numbers that a load gives anew.
static void listKeys(const ZDialect& dialect, const ZPStore& store, ZVector<std::string>& out) {
    const auto add = [&](std::string& to, ZSpan text) {
        to += std::to_string(text.size) + ' ';
        to.append(text.data, text.size);
    };
    store.forEachStanza([&](ZPStore::Id stanza) {
        ZSpan name = store.text().span(store.stanza(stanza).name);
        if (dialect.repeated == ZDIALECT_NUMBERED)
            name = zwithoutNumber(name);
        for (ZPStore::Id key = store.stanza(stanza).first; key != ZPStore::none;
             key = store.nextKey(key)) {
            std::string entry(store.isBare(key) ? "bare " : "");
            ZBytes folded;
            zdialectFold(dialect, name, true, folded);
            add(entry, zspanOf(folded));
            folded.setSize(0);
            zdialectFold(dialect, store.text().span(store.key(key).name), false, folded);
            add(entry, zspanOf(folded));
            const ZPValueView values = store.values(key, ZPStore::plain);
            for (uint32_t i = 0; i < values.count(); ++i)
                add(entry, values[i]);
            out.push_back(entry);
        }
    });
    std::sort(out.begin(), out.end());
}

size_t zdialectDifference(const ZDialect& dialect, const ZPStore& one, const ZPStore& other) {
    ZVector<std::string> left, right, onlyLeft;
    listKeys(dialect, one, left);
    listKeys(dialect, other, right);
    std::set_difference(left.begin(), left.end(), right.begin(), right.end(),
                        std::back_inserter(onlyLeft));
    return onlyLeft.size();
}

// Whether a load of the text gives the keys and values of the store.
static bool saysWhat(const ZDialect& dialect, const ZPStore& store, ZSpan text) {
    ZPStore read;
    return zdialectFill(dialect, text, read) && zdialectDifference(dialect, store, read) == 0 &&
           zdialectDifference(dialect, read, store) == 0;
}

void zdialectRewrite(const ZDialect& dialect, const ZPStore& store, ZSpan old, ZBytes& out,
                     const char* file) {
    Rewriter(dialect, store, old, out, file).run();
    if (zstartsWithMark(zspanOf(out)))
        zrequireNoFault({"a change", "would make the text begin with a byte-order mark"});
    // Lines that go on with the one above are the only ones that another's change can reach.
    if (dialect.continued != ZDIALECT_ONE_LINE && !saysWhat(dialect, store, zspanOf(out)))
        zrequireNoFault({"a change", "would make lines below part of a value"});
}
