#include "zdialectedits.h"

#include <cstring>

#include "zrefusal.h"

// ---------------------------------------------------------------- names of headers

uint32_t ZDialectHeaders::add(ZSpan name, ZBytes& out) {
    const size_t at = out.size();
    zdialectFold(d_, name, true, out);
    if (d_.repeated == ZDIALECT_MERGED)
        return 1;
    const uint32_t number = count({out.data() + at, out.size() - at});
    if (d_.repeated == ZDIALECT_NUMBERED && number > 1)
        zappendBytes(out, zspanOf(("#" + std::to_string(number)).c_str()));
    return number;
}

uint32_t ZDialectHeaders::count(ZSpan folded) {
    const uint32_t hash = znarrowHash(zhashOf(folded));
    const ZPId known = index_.find(hash, [&](ZPId id) {
        return zequals({names_[id].data(), names_[id].size()}, folded);
    });
    if (known != kNoId)
        return ++counts_[known];
    index_.reserveMore(1);
    index_.insert(hash, static_cast<ZPId>(names_.size()));
    names_.emplace_back(folded.data, folded.size);
    counts_.push_back(1);
    return 1;
}

// ---------------------------------------------------------------- parts of a text

static ZSpan indentOf(ZSpan lines) {
    size_t size = 0;
    while (size < lines.size && zisDialectBlank(lines.data[size]))
        ++size;
    return {lines.data, size};
}

// Calls line(its bytes with the end) for each.
template <typename Line>
static void forEachLine(ZSpan lines, Line line) {
    const char* const end = lines.data + lines.size;
    for (const char* at = lines.data; at < end;) {
        const void* newline = memchr(at, '\n', static_cast<size_t>(end - at));
        const char* const next = newline == nullptr ? end : static_cast<const char*>(newline) + 1;
        line(zspanBetween(at, next));
        at = next;
    }
}

ZDialectEdits::ZDialectEdits(const ZDialect& dialect, ZSpan text, ZBytes& out)
    : d_(dialect),
      text_(text),
      out_(out),
      lineEnd_(zdialectLineEnd(text)),
      sign_(zdialectCommentSign(dialect)) {
    out_.setSize(0);
}

// An entry ahead of all headers is one of the stanza with the empty name.
void ZDialectEdits::read(ZSpan stanza) {
    ZBytes wanted, name;
    zdialectFold(d_, stanza, true, wanted);
    ZDialectHeaders headers(d_);
    ZDialectReader reader(d_, text_);
    ZDialectPart part;
    bool isWanted = stanza.size == 0;
    while (reader.next(part)) {
        if (part.kind == ZDialectPart::header) {
            name.setSize(0);
            headers.add(part.name, name);
            isWanted = zequals(zspanOf(name), zspanOf(wanted));
        }
        parts_.push_back({part.kind, isWanted, part.lines, part.name, part.raw});
        if (part.kind == ZDialectPart::header)
            parts_.back().name = {nullptr, 0};  // it may be the reader's
    }
}

void ZDialectEdits::lookFor(ZSpan key) {
    key_.setSize(0);
    zdialectFold(d_, key, false, key_);
}

bool ZDialectEdits::isNamed(ZSpan name) {
    name_.setSize(0);
    zdialectFold(d_, name, false, name_);
    return zequals(zspanOf(name_), zspanOf(key_));
}

bool ZDialectEdits::isKey(const Part& part) {
    return part.isWanted &&
           (part.kind == ZDialectPart::entry || part.kind == ZDialectPart::bareEntry) &&
           isNamed(part.name);
}

// The part with the key's first line, or the number of parts. It is looked for from here on.
size_t ZDialectEdits::firstOf(ZSpan key) {
    lookFor(key);
    size_t at = 0;
    while (at < parts_.size() && !isKey(parts_[at]))
        ++at;
    return at;
}

// ---------------------------------------------------------------- output

void ZDialectEdits::put(ZSpan bytes) { zappendBytes(out_, bytes); }

// A line of its own.
void ZDialectEdits::putLine(ZSpan indent, ZSpan text) {
    if (out_.size() != 0 && out_[out_.size() - 1] != '\n')
        put(lineEnd_);
    for (const ZSpan& piece : {indent, text, lineEnd_})
        put(piece);
}

void ZDialectEdits::putParts(size_t from, size_t end) {
    for (; from < end; ++from)
        put(parts_[from].lines);
}

bool ZDialectEdits::putWithout(size_t from, size_t end) {
    if (from == end)
        return false;
    putParts(0, from);
    putParts(end, parts_.size());
    return true;
}

// ---------------------------------------------------------------- names

bool ZDialectEdits::replaceNames(ZDialectPart::Kind kind, ZSpan name) {
    bool isAny = false;
    for (const Part& part : parts_) {
        const bool isMeant =
            kind == ZDialectPart::header ? part.kind == kind && part.isWanted : isKey(part);
        if (!isMeant) {
            put(part.lines);
            continue;
        }
        isAny = true;
        const ZSpan old = kind == ZDialectPart::header ? part.raw : part.name;
        put(zspanBetween(part.lines.data, old.data));
        put(name);
        put(zspanBetween(old.data + old.size, part.lines.data + part.lines.size));
    }
    if (!isAny)
        out_.setSize(0);
    return isAny;
}

bool ZDialectEdits::renameStanza(ZSpan stanza, ZSpan name) {
    const bool isNumbered =
        d_.repeated == ZDIALECT_NUMBERED && zwithoutNumber(name).size != name.size;
    const char* const fault = isNumbered ? "can't end in a number" : zdialectStanzaFault(d_, name);
    zrequireNoFault(
        {"the new name", fault != nullptr || name.size != 0 ? fault : "can't be empty"});
    read(stanza);
    ZBytes header;
    zdialectSpellHeader(d_, name, header);
    return replaceNames(ZDialectPart::header, zspanOf(header));
}

bool ZDialectEdits::renameKey(ZSpan stanza, ZSpan key, ZSpan name) {
    zrequireNoFault({"the new name", zdialectKeyFault(d_, name)});
    read(stanza);
    lookFor(key);
    return replaceNames(ZDialectPart::entry, name);
}

// ---------------------------------------------------------------- entries and comments

void ZDialectEdits::disable(ZSpan lines) {
    forEachLine(lines, [this](ZSpan line) {
        const ZSpan indent = indentOf(line);
        put(indent);
        const bool isText = indent.size < line.size && line.data[indent.size] != '\n';
        if (isText && !zisDialectComment(d_, line.data[indent.size])) {
            const char sign[] = {sign_, ' '};
            put({sign, sizeof sign});
        }
        put(zspanBetween(line.data + indent.size, line.data + line.size));
    });
}

bool ZDialectEdits::disableKey(ZSpan stanza, ZSpan key) {
    read(stanza);
    if (firstOf(key) == parts_.size())
        return false;
    for (const Part& part : parts_)
        isKey(part) ? disable(part.lines) : put(part.lines);
    return true;
}

// Adds the line of a comment without its sign, and without the blanks behind that: all or one.
void ZDialectEdits::addEnabled(ZSpan line, bool all, ZBytes& entry) const {
    const ZSpan indent = indentOf(line);
    const char* const behind = indent.data + indent.size + 1;
    const char* const end = line.data + line.size;
    const char* from = behind;
    while (from < end && zisDialectBlank(*from) && (all || from == behind))
        ++from;
    zappendBytes(entry, indent);
    zappendBytes(entry, zspanBetween(from, end));
}

// Whether the comment goes on with what was enabled so far, whose first line is indented so.
bool ZDialectEdits::goesOnWith(size_t at, size_t indent, ZSpan entry) const {
    if (!isComment(at))
        return false;
    if (d_.continued == ZDIALECT_INDENT)
        return indentOf(parts_[at].lines).size > indent;
    const char* end = entry.data + entry.size;
    while (end > entry.data && (end[-1] == '\n' || end[-1] == '\r'))
        --end;
    return d_.continued != ZDIALECT_ONE_LINE && zdialectGoesOn(d_, entry.data, end);
}

// Whether a line that may ask for another one begins as an entry of the key.
bool ZDialectEdits::readsLikeKey(ZSpan line) {
    size_t divider = 0;
    while (divider < line.size && !zdialectDivides(d_, line.data[divider]))
        ++divider;
    size_t begin = 0, end = divider;
    while (begin < end && zisDialectBlank(line.data[begin]))
        ++begin;
    while (end > begin && zisDialectBlank(line.data[end - 1]))
        --end;
    return divider < line.size && isNamed({line.data + begin, end - begin});
}

bool ZDialectEdits::uncommentKey(ZSpan stanza, ZSpan key) {
    read(stanza);
    lookFor(key);
    ZBytes entry;
    for (size_t at = 0; at < parts_.size(); ++at) {
        if (!parts_[at].isWanted || !isComment(at))
            continue;
        entry.setSize(0);
        addEnabled(parts_[at].lines, true, entry);
        const size_t indent = indentOf(parts_[at].lines).size;
        if (!readsLikeKey({entry.data() + indent, entry.size() - indent}))
            continue;
        size_t end = at + 1;
        while (goesOnWith(end, indent, zspanOf(entry)))
            addEnabled(parts_[end++].lines, false, entry);
        ZDialectReader reader(d_, zspanOf(entry));
        ZDialectPart part;
        if (!reader.next(part) || part.kind != ZDialectPart::entry ||
            part.lines.size != entry.size() || !isNamed(part.name))
            continue;
        putParts(0, at);
        put(zspanOf(entry));
        putParts(end, parts_.size());
        return true;
    }
    return false;
}

// ---------------------------------------------------------------- comments

bool ZDialectEdits::addFileComment(ZSpan comment) {
    read({"", 0});
    size_t at = 0;
    while (isComment(at))
        ++at;
    const bool isParagraph = at != 0 && isBlank(at);
    if (!isParagraph)
        at = 0;
    putParts(0, at);
    putLine({"", 0}, comment);
    if (!isParagraph && !parts_.empty())
        put(lineEnd_);
    putParts(at, parts_.size());
    return true;
}

bool ZDialectEdits::addStanzaComment(ZSpan stanza, ZSpan comment) {
    read(stanza);
    size_t at = 0;
    while (at < parts_.size() && !(parts_[at].isWanted && parts_[at].kind == ZDialectPart::header))
        ++at;
    if (at == parts_.size())
        return false;
    const ZSpan indent = indentOf(parts_[at].lines);
    ++at;
    while (isComment(at))
        ++at;
    putParts(0, at);
    putLine(indent, comment);
    if (!isBlank(at))
        put(lineEnd_);
    putParts(at, parts_.size());
    return true;
}

bool ZDialectEdits::addKeyComment(ZSpan stanza, ZSpan key, ZSpan comment) {
    read(stanza);
    const size_t at = firstOf(key);
    if (at == parts_.size())
        return false;
    putParts(0, at);
    if (at != 0 && !isComment(at - 1) && !isBlank(at - 1))
        put(lineEnd_);
    putLine(indentOf(parts_[at].lines), comment);
    putParts(at, parts_.size());
    return true;
}

bool ZDialectEdits::removeFileComments() {
    read({"", 0});
    size_t end = 0;
    while (isComment(end))
        ++end;
    return putWithout(0, end);
}

bool ZDialectEdits::removeStanzaComments(ZSpan stanza) {
    read(stanza);
    size_t at = 0;
    while (at < parts_.size() && !(parts_[at].isWanted && parts_[at].kind == ZDialectPart::header))
        ++at;
    size_t end = ++at;
    while (isComment(end))
        ++end;
    return end <= parts_.size() && putWithout(at, end);
}

bool ZDialectEdits::removeKeyComments(ZSpan stanza, ZSpan key) {
    read(stanza);
    const size_t end = firstOf(key);
    size_t first = end;
    while (end < parts_.size() && first > 0 && isComment(first - 1))
        --first;
    return putWithout(first, end);
}
