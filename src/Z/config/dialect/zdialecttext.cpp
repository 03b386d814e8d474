// zdialecttext.cpp: takes texts of a dialect apart, and spells values so that they come back.
//
// What a value is spelled as is decided by trying: a spelling is read again, and counts only if it
// gives the value. So the reader alone knows what a dialect can say. Only what changes is spelled.
#include "zdialecttext.h"

#include <algorithm>
#include <cstring>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "zhash.h"

namespace {

const char kNoKey[] = "has no key";
const char kGoesOnNowhere[] = "goes on behind the text's end";
const char kGoesOnUnread[] = "goes on in a line that can't be read";

const size_t kLongest = 8191;  // bytes of a short line, its end counted

const char* skipBlanks(const char* at, const char* end) {
    while (at < end && zisDialectBlank(*at))
        ++at;
    return at;
}

const char* trimEnd(const char* first, const char* end) {
    while (end > first && zisDialectBlank(end[-1]))
        --end;
    return end;
}

char lower(char c) {
    return static_cast<char>(c + (static_cast<unsigned char>(c - 'A') < 26) * ('a' - 'A'));
}

// The first of some characters, or the end. Up to `limit` there are bytes that may be looked at.
template <char... kCharacters>
inline const char* findFirst(const char* at, const char* end, const char* limit) {
#ifdef __SSE2__
    for (; at < end && limit - at >= 16; at += 16) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
        const int found =
            (_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_set1_epi8(kCharacters))) | ...);
        if (found != 0) {
            at += __builtin_ctz(static_cast<unsigned int>(found));
            break;
        }
    }
#else
    static_cast<void>(limit);
#endif
    while (at < end && ((*at != kCharacters) && ...))
        ++at;
    return at < end ? at : end;
}

void push(ZBytes& to, char c) {
    to.reserveMore(1);
    to.push(c);
}

}  // namespace

// ---------------------------------------------------------------- clashes

ZDialectClash zdialectClash(const ZDialect& d) {
    static const char kSize[] = "a dialect's size";
    if (d.size < sizeof d)
        return {kSize, "is too small"};
    const char* later = reinterpret_cast<const char*>(&d) + sizeof d;
    for (size_t i = sizeof d; i < d.size; ++i)
        if (*later++ != 0)
            return {kSize, "tells of switches that aren't known"};
    const struct {
        unsigned int value, most;
        const char* name;
    } kSwitches[] = {
        {d.comments, 3, "comments"}, {d.divider, 3, "divider"},     {d.tails, 4, "tails"},
        {d.bare, 1, "bare"},         {d.continued, 3, "continued"}, {d.quotes, 2, "quotes"},
        {d.repeated, 2, "repeated"}, {d.names, 4, "names"},         {d.headers, 3, "headers"},
        {d.orphans, 1, "orphans"},   {d.values, 2, "values"},       {d.lines, 1, "lines"},
    };
    for (const auto& s : kSwitches)
        if (s.value > s.most)
            return {s.name, "has no such value"};
    const char* const indent = "continued lines by indent";
    if (d.continued == ZDIALECT_INDENT && d.divider == ZDIALECT_BLANK)
        return {indent, "can't go with a blank as divider"};
    if (d.continued == ZDIALECT_INDENT && (d.headers & ZDIALECT_SUBSECTIONS) != 0)
        return {indent, "can't go with subsections"};
    if (d.continued == ZDIALECT_INDENT && d.quotes == ZDIALECT_GIT_QUOTES)
        return {indent, "can't go with git's quotes"};
    if (d.continued == ZDIALECT_BACKSLASH && d.quotes == ZDIALECT_GIT_QUOTES)
        return {"continued lines by backslash",
                "can't go with git's quotes, where lines are joined"};
    if (d.continued >= ZDIALECT_BACKSLASH && d.quotes == ZDIALECT_SHELL_QUOTES)
        return {"continued lines by backslash", "can't go with shell quotes"};
    if (d.repeated == ZDIALECT_NUMBERED && d.names == ZDIALECT_FOLDED_BLANKS)
        return {"numbered stanzas", "can't go with names without blanks"};
    if (d.values == ZDIALECT_RESET_VALUES && d.bare == ZDIALECT_BARE)
        return {"values that an empty one forgets", "can't go with keys without a divider"};
    // Blanks in a key would divide it.
    if (d.divider == ZDIALECT_BLANK && d.names == ZDIALECT_FOLDED_BLANKS)
        return {"a blank as divider", "can't go with names without blanks"};
    return {nullptr, nullptr};
}

// ---------------------------------------------------------------- reader

ZDialectReader::ZDialectReader(const ZDialect& dialect, ZSpan text)
    : d_(dialect),
      at_(text.data),
      end_(text.data + text.size),
      start_(text.data),
      nul_(text.size == 0 ? nullptr : static_cast<const char*>(memchr(text.data, 0, text.size))),
      isTailAnywhere_(d_.tails == ZDIALECT_TAILS_ANYWHERE || d_.tails == ZDIALECT_HASH_TAILS) {
    const auto mark = [this](const char* characters, uint8_t bit) {
        for (; *characters != '\0'; ++characters)
            classes_[static_cast<unsigned char>(*characters)] |= bit;
    };
    memset(classes_, 0, sizeof classes_);
    mark(" \t\v\f\r", kBlank);
    const bool isHash = d_.comments == 0 || (d_.comments & ZDIALECT_HASH) != 0;
    const bool isSemicolon = (d_.comments & ZDIALECT_SEMICOLON) != 0;
    const char* const comments = !isSemicolon ? "#" : isHash ? "#;" : ";";
    mark(comments, kComment);
    if (d_.tails != ZDIALECT_NO_TAILS)
        mark(zdialectTails(d_) == nullptr ? comments : zdialectTails(d_), kTail);
}

void ZDialectReader::moveTo(const char* text) {
    for (const char** place : {&at_, &end_, &nul_})
        if (*place != nullptr)
            *place = text + (*place - start_);
    start_ = text;
}

// A line without its end, and where the next begins. `reason` tells what is wrong with its bytes.
inline ZDialectReader::Line ZDialectReader::lineAt(const char* at) {
    const void* newline = memchr(at, '\n', static_cast<size_t>(end_ - at));
    Line line;
    line.next = newline == nullptr ? end_ : static_cast<const char*>(newline) + 1;
    line.end = newline == nullptr ? end_ : line.next - 1;
    if (newline != nullptr && line.end > at && line.end[-1] == '\r')
        --line.end;
    line.first = skipBlanks(at, line.end);
    line.reason = nullptr;
    while (nul_ != nullptr && nul_ < at)
        nul_ = static_cast<const char*>(memchr(at, 0, static_cast<size_t>(end_ - at)));
    if (nul_ != nullptr && nul_ < line.next)
        line.reason = "holds a NUL";
    else if (d_.lines == ZDIALECT_SHORT_LINES && static_cast<size_t>(line.next - at) > kLongest)
        line.reason = "is too long for a line of 8191 bytes";
    else if (at == start_ && zstartsWithMark(zspanBetween(at, end_)))
        line.reason = "begins with a byte-order mark";
    return line;
}

// Where a comment behind a value or key begins, or the end. Ahead of `first` stands something.
inline const char* ZDialectReader::tailIn(const char* first, const char* end) const {
    if (d_.tails == ZDIALECT_NO_TAILS)
        return end;
    for (const char* at = first; (at = findFirst<'#', ';'>(at, end, end_)) < end; ++at)
        if (isTail(*at) && (isTailAnywhere_ || zisDialectBlank(at[-1])))
            return at;
    return end;
}

const char* ZDialectReader::tailOf(const char* first, const char* end) const {
    return tailIn(first, end);
}

const char* ZDialectReader::header(const Line& line, ZDialectPart& part) {
    part.kind = ZDialectPart::header;
    const char* const first = line.first + 1;
    const char* close =
        static_cast<const char*>(memchr(first, ']', static_cast<size_t>(line.end - first)));
    const char* nameEnd = close;
    bool isQuoted = false;
    if ((d_.headers & ZDIALECT_SUBSECTIONS) != 0) {
        const char* quote = static_cast<const char*>(
            memchr(first, '"', static_cast<size_t>((close == nullptr ? line.end : close) - first)));
        if (quote != nullptr && quote > first && zisDialectBlank(quote[-1])) {
            isQuoted = true;
            nameEnd = trimEnd(first, quote);
            if (nameEnd == first)
                return "has no name";
            nameBytes_.setSize(0);
            addSection(first, nameEnd);
            push(nameBytes_, '.');
            const char* at = quote + 1;
            for (; at < line.end && *at != '"'; ++at) {
                if (*at == '\\' && (++at == line.end || (*at != '"' && *at != '\\')))
                    return "has an unknown backslash";
                push(nameBytes_, *at);
            }
            close = at < line.end && at + 1 < line.end && at[1] == ']' ? at + 1 : nullptr;
        }
    }
    if (close == nullptr)
        return "has no ]";
    const bool areBlanksNone = d_.names == ZDIALECT_FOLDED_BLANKS;
    if (!isQuoted && (areBlanksNone ? skipBlanks(first, nameEnd) : first) == nameEnd)
        return "has no name";
    if ((d_.headers & ZDIALECT_HEADER_TAILS) != 0) {
        const char* behind = skipBlanks(close + 1, line.end);
        if (behind != line.end && !isComment(*behind))
            return "has more behind ]";
    }
    part.raw = zspanBetween(line.first, close + 1);
    if (isQuoted) {
        part.name = zspanOf(nameBytes_);
    } else if ((d_.headers & ZDIALECT_SUBSECTIONS) != 0 && zfoldsNames(d_, true)) {
        nameBytes_.setSize(0);
        addSection(first, nameEnd);
        part.name = zspanOf(nameBytes_);
        if (zequals(part.name, zspanBetween(first, nameEnd)))
            part.name = zspanBetween(first, nameEnd);
    } else {
        part.name = zspanBetween(first, nameEnd);
    }
    return nullptr;
}

// What stands outside quotes: the case behind its first "." doesn't count where names are folded.
void ZDialectReader::addSection(const char* first, const char* end) {
    bool isBehind = false;
    const bool folds = zfoldsNames(d_, true);
    for (const char* at = first; at < end; ++at) {
        push(nameBytes_, isBehind && folds ? lower(*at) : *at);
        isBehind = isBehind || *at == '.';
    }
}

inline const char* ZDialectReader::dividerIn(const char* first, const char* end) const {
    // One character alone is found faster this way, however far it is.
    if (d_.divider <= ZDIALECT_COLON)
        return static_cast<const char*>(memchr(first, d_.divider == ZDIALECT_EQUALS ? '=' : ':',
                                               static_cast<size_t>(end - first)));
    const char* at = first;
    if (d_.divider == ZDIALECT_EITHER)
        at = findFirst<'=', ':'>(first, end, end_);
    else
        while (at < end && !is(*at, kBlank))
            ++at;
    return at == end ? nullptr : at;
}

inline const char* ZDialectReader::plainValue(const Line& line, size_t indent, const char* behind,
                                              const char* first, ZDialectPart& part) {
    const char* const tail = tailIn(first, line.end);
    const char* const end = trimEnd(first, tail);
    part.value = part.raw = end == first ? ZSpan{behind, 0} : zspanBetween(first, end);
    if (d_.continued == ZDIALECT_INDENT)
        return indentedLines(indent, part);
    if (d_.continued >= ZDIALECT_BACKSLASH && tail == line.end && line.end > first &&
        zdialectGoesOn(d_, first, line.end))
        return backslashLines(line, first, part);
    return nullptr;
}

inline const char* ZDialectReader::entry(const Line& line, const char* begin, ZDialectPart& part) {
    const bool mayBeBare = d_.bare == ZDIALECT_BARE;
    const char* last = trimEnd(line.first, line.end);
    const char* divider;
    const char* const sign = mayBeBare && d_.divider == ZDIALECT_EQUALS
                                 ? findFirst<'=', '#', ';'>(line.first, last, end_)
                                 : last;
    if (sign != last && *sign == '=') {
        divider = sign;
    } else {
        divider = dividerIn(line.first, last);
        // Of a key that needs no divider, a comment hides what would be one.
        if (divider != nullptr && mayBeBare && tailIn(line.first, divider) != divider)
            divider = nullptr;
    }
    // A comment alone behind blanks is no value.
    if (d_.divider == ZDIALECT_BLANK && divider != nullptr && isTail(*skipBlanks(divider, last))) {
        last = divider;
        divider = nullptr;
    }
    if (divider == nullptr) {
        if (!mayBeBare)
            return "has no divider";
        part.kind = ZDialectPart::bareEntry;
        last = trimEnd(line.first, tailIn(line.first, last));
        part.name = zspanBetween(line.first, last);
        part.raw = part.value = {last, 0};
        return last == line.first ? kNoKey : nullptr;
    }
    part.kind = ZDialectPart::entry;
    part.name = zspanBetween(line.first, trimEnd(line.first, divider));
    if (part.name.size == 0)
        return kNoKey;
    const char* const behind = divider + 1;
    const char* const first = skipBlanks(behind, line.end);
    if (d_.quotes == ZDIALECT_GIT_QUOTES) {
        // Most values have nothing that stands for something else.
        const char* tail = findFirst<'#', ';', '"', '\\'>(first, line.end, end_);
        if (tail != line.end) {
            tail = tailIn(first, line.end);
            if (findFirst<'"', '\\'>(first, tail, end_) != tail)
                return gitValue(line, first, part);
        }
        const char* const end = trimEnd(first, tail);
        part.value = part.raw = end == first ? ZSpan{behind, 0} : zspanBetween(first, end);
        return nullptr;
    }
    if (d_.quotes == ZDIALECT_SHELL_QUOTES && first < line.end && (*first == '"' || *first == '\''))
        return shellValue(line, static_cast<size_t>(line.first - begin), first, part);
    return plainValue(line, static_cast<size_t>(line.first - begin), behind, first, part);
}

bool ZDialectReader::next(ZDialectPart& part) {
    if (at_ == end_)
        return false;
    const Line line = lineAt(at_);
    const char* const begin = at_;
    part.line = line_++;
    part.reason = line.reason;
    part.name = part.value = part.raw = {line.first, 0};
    at_ = line.next;
    if (line.reason != nullptr) {
        part.kind = ZDialectPart::bad;
    } else if (line.first == line.end) {
        part.kind = ZDialectPart::blank;
    } else if (isComment(*line.first)) {
        part.kind = ZDialectPart::comment;
    } else {
        const char* reason = *line.first == '[' ? header(line, part) : entry(line, begin, part);
        if (reason != nullptr) {
            // What follows has its own say.
            part.kind = ZDialectPart::bad;
            part.reason = reason;
            part.name = part.value = part.raw = {line.first, 0};
            at_ = line.next;
            line_ = part.line + 1;
        }
    }
    part.lines = zspanBetween(begin, at_);
    return true;
}

const char* ZDialectReader::indentedLines(size_t indent, ZDialectPart& part) {
    // Nearly always the next line begins with a key or a header.
    if (at_ != end_ && *at_ != '\n' && !is(*at_, kBlank | kComment))
        return nullptr;
    size_t blanks = 0;
    int count = 0;
    bool isMore = false;
    for (const char* at = at_; at != end_;) {
        const Line more = lineAt(at);
        if (more.reason != nullptr)
            break;
        ++count;
        if (more.first == more.end) {
            ++blanks;
        } else if (!isComment(*more.first)) {
            if (static_cast<size_t>(more.first - at) <= indent)
                break;
            if (!isMore) {
                valueBytes_.setSize(0);
                zappendBytes(valueBytes_, part.value);
                isMore = true;
            }
            for (; blanks != 0; --blanks)
                push(valueBytes_, '\n');
            push(valueBytes_, '\n');
            noteJoint(part.raw.data, at);
            const char* end = trimEnd(more.first, tailIn(more.first, more.end));
            zappendBytes(valueBytes_, zspanBetween(more.first, end));
            part.raw = zspanBetween(part.raw.data, end);
            at_ = more.next;
            line_ += count;
            count = 0;
        }
        at = more.next;
    }
    if (isMore)
        part.value = zspanOf(valueBytes_);
    return nullptr;
}

// The value has all that is above, and goes on here.
void ZDialectReader::noteJoint(const char* raw, const char* next) {
    if (joints_ != nullptr)
        joints_->push_back({valueBytes_.size(), static_cast<size_t>(next - raw)});
}

const char* ZDialectReader::backslashLines(Line line, const char* first, ZDialectPart& part) {
    valueBytes_.setSize(0);
    const size_t above = joints_ == nullptr ? 0 : joints_->size();
    const bool isJoined = d_.continued == ZDIALECT_JOINED;
    const char* rawEnd = first;
    for (const char* from = first;;) {
        const char* const tail = tailIn(from, line.end);
        const bool isOpen = tail == line.end && zdialectGoesOn(d_, from, line.end);
        const char* const end = isOpen ? line.end - 1 : tail;
        zappendBytes(valueBytes_, zspanBetween(from, end));
        if (isOpen)
            rawEnd = line.end;
        else if (trimEnd(from, end) != from)
            rawEnd = trimEnd(from, end);
        if (!isOpen)
            break;
        if (!isJoined)
            push(valueBytes_, ' ');
        do {
            if (at_ == end_)
                return kGoesOnNowhere;
            from = at_;
            line = lineAt(from);
            if (line.reason != nullptr)
                return kGoesOnUnread;
            at_ = line.next;
            ++line_;
        } while (!isJoined && line.first < line.end && isComment(*line.first));
        noteJoint(first, from);
    }
    const char* const data = valueBytes_.data();
    const char* const end = trimEnd(data, data + valueBytes_.size());
    part.value = zspanBetween(skipBlanks(data, end), end);
    part.raw = zspanBetween(first, rawEnd);
    const size_t lead = static_cast<size_t>(part.value.data - data);
    for (size_t i = above; joints_ != nullptr && i < joints_->size(); ++i)
        (*joints_)[i].valueSize -= lead < (*joints_)[i].valueSize ? lead : (*joints_)[i].valueSize;
    return nullptr;
}

const char* ZDialectReader::gitValue(Line line, const char* first, ZDialectPart& part) {
    valueBytes_.setSize(0);
    size_t kept = 0;  // of the value: behind it are blanks only
    bool isInside = false;
    char before = first[-1];
    const char* rawEnd = first;
    for (const char* at = first;;) {
        if (at == line.end) {
            if (isInside)
                return "has an open quote";
            break;
        }
        char c = *at++;
        if (c == '"') {
            isInside = !isInside;
            kept = valueBytes_.size();
            rawEnd = at;
            before = c;
            continue;
        }
        if (!isInside && isTail(c) && (isTailAnywhere_ || zisDialectBlank(before)))
            break;
        const bool isPlainBlank = !isInside && zisDialectBlank(c);
        before = c;
        if (c == '\\') {
            rawEnd = at;
            kept = valueBytes_.size();
            if (at == line.end) {
                if (d_.continued != ZDIALECT_JOINED)
                    return "has an unknown backslash";
                if (at_ == end_)
                    return kGoesOnNowhere;
                at = at_;
                line = lineAt(at);
                if (line.reason != nullptr)
                    return kGoesOnUnread;
                at_ = line.next;
                ++line_;
                noteJoint(first, at);
                before = '\n';
                continue;
            }
            const char* const known = "\"\\ntb";
            const char* which = strchr(known, *at++);
            if (which == nullptr)
                return "has an unknown backslash";
            c = "\"\\\n\t\b"[which - known];
            before = 'x';
        }
        if (isPlainBlank && valueBytes_.size() == 0)
            continue;  // at the value's begin
        push(valueBytes_, c);
        if (!isPlainBlank) {
            kept = valueBytes_.size();
            rawEnd = at;
        }
    }
    part.value = {valueBytes_.data(), kept};
    part.raw = zspanBetween(first, rawEnd);
    return nullptr;
}

const char* ZDialectReader::shellValue(const Line& line, size_t indent, const char* first,
                                       ZDialectPart& part) {
    const char quote = *first;
    valueBytes_.setSize(0);
    const char* at = first + 1;
    for (; at < line.end && *at != quote; ++at) {
        if (quote == '"' && *at == '\\' && at + 1 < line.end && (at[1] == '"' || at[1] == '\\'))
            ++at;
        push(valueBytes_, *at);
    }
    if (at >= line.end)
        return "has an open quote";
    part.value = zspanOf(valueBytes_);
    part.raw = zspanBetween(first, ++at);
    const char* const behind = skipBlanks(at, line.end);
    const bool hasComment =
        behind < line.end && isTail(*behind) && (isTailAnywhere_ || behind != at);
    if (behind != line.end && !hasComment)
        return "has more behind its quotes";
    if (d_.continued == ZDIALECT_INDENT) {
        const char* const next = at_;
        ZDialectPart more = part;
        more.value.size = 0;
        indentedLines(indent, more);
        if (at_ != next)
            return "goes on behind its quotes";
    }
    return nullptr;
}

// ---------------------------------------------------------------- spelling

namespace {

void addAll(ZBytes& out, std::initializer_list<ZSpan> spans) {
    for (const ZSpan& span : spans)
        zappendBytes(out, span);
}

void spellGit(ZSpan value, bool isQuoted, ZBytes& out) {
    if (isQuoted)
        push(out, '"');
    for (size_t i = 0; i < value.size; ++i) {
        const char* const plain = "\"\\\n\t\b";
        const char c = value.data[i];
        const char* which = c == 0 ? nullptr : strchr(plain, c);
        if (which != nullptr)
            push(out, '\\');
        push(out, which != nullptr ? "\"\\ntb"[which - plain] : c);
    }
    if (isQuoted)
        push(out, '"');
}

void spellShell(ZSpan value, char quote, ZBytes& out) {
    push(out, quote);
    for (size_t i = 0; i < value.size; ++i) {
        const char c = value.data[i];
        const bool isLast = i + 1 == value.size;
        if (quote == '"' && (c == '"' || (c == '\\' && (isLast || value.data[i + 1] == '"' ||
                                                        value.data[i + 1] == '\\'))))
            push(out, '\\');
        push(out, c);
    }
    push(out, quote);
}

void spellPlain(ZSpan value, const ZDialectHabit& habit, ZBytes& out) {
    const char* at = value.data;
    const char* const end = at + value.size;
    while (const void* found =
               at == end ? nullptr : memchr(at, '\n', static_cast<size_t>(end - at))) {
        const char* const newline = static_cast<const char*>(found);
        addAll(out, {zspanBetween(at, newline), habit.lineEnd});
        at = newline + 1;
        if (at < end && *at != '\n')
            zappendBytes(out, habit.more);
    }
    zappendBytes(out, zspanBetween(at, end));
}

bool comesBack(const ZDialect& dialect, ZSpan value, ZSpan spelled, const ZDialectHabit& habit) {
    ZBytes probe;
    addAll(probe, {habit.indent, {"k", 1}, habit.before, habit.divider, habit.after, spelled});
    addAll(probe, {habit.lineEnd});
    const size_t size = probe.size();
    addAll(probe, {habit.indent, {"k", 1}, habit.before, habit.divider, habit.after, {"v\n", 2}});
    ZDialectReader reader(dialect, zspanOf(probe));
    ZDialectPart part;
    return reader.next(part) && part.kind == ZDialectPart::entry && part.lines.size == size &&
           zequals(part.value, value);
}

// As the old value, whose lines stay that say the same at its begin and at its end; what is between
// them takes one. False if there are none.
bool spellByLines(const ZDialect& dialect, ZSpan value, ZSpan old, const ZDialectHabit& habit,
                  ZBytes& out) {
    ZBytes probe;
    addAll(probe, {habit.indent, {"k", 1}, habit.before, habit.divider});
    const size_t begin = probe.size();
    addAll(probe, {old, habit.lineEnd});
    ZDialectReader reader(dialect, zspanOf(probe));
    ZVector<ZDialectReader::Joint> joints;
    reader.noteJoints(joints);
    ZDialectPart part;
    if (!reader.next(part) || part.kind != ZDialectPart::entry ||
        part.raw.data != probe.data() + begin || part.raw.size != old.size || joints.empty())
        return false;
    const ZSpan before = part.value;
    const size_t most = before.size < value.size ? before.size : value.size;
    size_t prefix = 0, suffix = 0;
    while (prefix < most && before.data[prefix] == value.data[prefix])
        ++prefix;
    while (suffix < most &&
           before.data[before.size - 1 - suffix] == value.data[value.size - 1 - suffix])
        ++suffix;
    size_t head = 0;  // joints above the first line that changes
    while (head < joints.size() && joints[head].valueSize <= prefix)
        ++head;
    const size_t headSize = head == 0 ? 0 : joints[head - 1].valueSize;
    size_t tail = head == 0 ? 0 : head - 1;  // the joint ahead of the lines that stay
    while (tail < joints.size() && (before.size - joints[tail].valueSize > suffix ||
                                    before.size - joints[tail].valueSize > value.size - headSize))
        ++tail;
    const bool hasTail = tail < joints.size();
    if (head == 0 && !hasTail)
        return false;
    const size_t tailSize = hasTail ? before.size - joints[tail].valueSize : 0;
    ZSpan middle = {value.data + headSize, value.size - headSize - tailSize};
    const bool isIndented = dialect.continued == ZDIALECT_INDENT;
    const bool isGit = dialect.quotes == ZDIALECT_GIT_QUOTES;
    const bool isOne = head == 0 || !hasTail || middle.size != 0;  // a line between them
    if (hasTail && isOne && dialect.continued != ZDIALECT_JOINED) {
        if (middle.size == 0 || middle.data[middle.size - 1] != (isIndented ? '\n' : ' '))
            return false;
        --middle.size;
    }
    if (head != 0)
        zappendBytes(out, {old.data, joints[head - 1].rawSize});
    if (isOne) {
        if (head == 0 && isGit && *old.data == '"')
            push(out, '"');
        if (head != 0 && isIndented)
            zappendBytes(out, habit.more);
        if (isGit)
            spellGit(middle, false, out);
        else
            spellPlain(middle, habit, out);
        if (!hasTail && isGit && old.data[old.size - 1] == '"')
            push(out, '"');
        if (hasTail && !isIndented)
            push(out, '\\');
        if (hasTail)
            zappendBytes(out, habit.lineEnd);
    }
    if (hasTail)
        zappendBytes(out, {old.data + joints[tail].rawSize, old.size - joints[tail].rawSize});
    return true;
}

ZSpan dividerOf(const ZDialect& dialect) {
    return dialect.divider == ZDIALECT_COLON   ? ZSpan{":", 1}
           : dialect.divider == ZDIALECT_BLANK ? ZSpan{" ", 1}
                                               : ZSpan{"=", 1};
}

}  // namespace

bool zdialectEncode(const ZDialect& dialect, ZSpan value, ZSpan old, const ZDialectHabit& habit,
                    ZBytes& out) {
    if (value.size == 0)
        return true;
    ZBytes lines;
    if (dialect.continued != ZDIALECT_ONE_LINE && old.size != 0 &&
        memchr(old.data, '\n', old.size) != nullptr &&
        spellByLines(dialect, value, old, habit, lines) &&
        comesBack(dialect, value, zspanOf(lines), habit)) {
        zappendBytes(out, zspanOf(lines));
        return true;
    }
    const char wasQuoted = old.size == 0 ? 0 : *old.data;
    const bool isGit = dialect.quotes == ZDIALECT_GIT_QUOTES;
    const bool isShell = dialect.quotes == ZDIALECT_SHELL_QUOTES;
    // As it was quoted, else plain, else quoted.
    const char tries[] = {wasQuoted, 0, '"', '\''};
    for (const char quote : tries) {
        if ((quote != 0 && quote != '"' && quote != '\'') || (quote == '\'' && !isShell) ||
            (quote == '"' && !isShell && !isGit))
            continue;
        ZBytes spelled;
        if (isGit)
            spellGit(value, quote != 0, spelled);
        else if (quote != 0)
            spellShell(value, quote, spelled);
        else
            spellPlain(value, habit, spelled);
        if (comesBack(dialect, value, zspanOf(spelled), habit)) {
            zappendBytes(out, zspanOf(spelled));
            return true;
        }
    }
    return false;
}

void zdialectSpellHeader(const ZDialect& dialect, ZSpan name, ZBytes& out) {
    const char* const dot = (dialect.headers & ZDIALECT_SUBSECTIONS) == 0 || name.size == 0
                                ? nullptr
                                : static_cast<const char*>(memchr(name.data, '.', name.size));
    push(out, '[');
    if (dot == nullptr) {
        zappendBytes(out, name);
    } else {
        addAll(out, {zspanBetween(name.data, dot), {" \"", 2}});
        for (const char* at = dot + 1; at < name.data + name.size; ++at) {
            if (*at == '"' || *at == '\\')
                push(out, '\\');
            push(out, *at);
        }
        push(out, '"');
    }
    push(out, ']');
}

// ---------------------------------------------------------------- faults

static const char* faultOfBytes(const ZDialect& dialect, ZSpan text, size_t others) {
    if (text.size == 0)
        return "can't be empty";
    if (memchr(text.data, 0, text.size) != nullptr)
        return "can't hold a NUL";
    if (dialect.lines == ZDIALECT_SHORT_LINES && text.size + others > kLongest)
        return "is too long for a line of 8191 bytes";
    return nullptr;
}

static bool hasLineEnd(ZSpan text) {
    return memchr(text.data, '\n', text.size) != nullptr ||
           memchr(text.data, '\r', text.size) != nullptr;
}

const char* zdialectStanzaFault(const ZDialect& dialect, ZSpan name) {
    if (name.size == 0 && dialect.orphans == ZDIALECT_ORPHANS)
        return nullptr;
    if (const char* reason = faultOfBytes(dialect, name, 3))
        return reason;
    if (hasLineEnd(name))
        return "can't hold a line end";
    ZBytes probe;
    zdialectSpellHeader(dialect, name, probe);
    push(probe, '\n');
    ZDialectReader reader(dialect, zspanOf(probe));
    ZDialectPart part;
    if (reader.next(part) && part.kind == ZDialectPart::header && zequals(part.name, name))
        return nullptr;
    return memchr(name.data, ']', name.size) != nullptr ? "can't hold ]"
                                                        : "can't be said in a header";
}

const char* zdialectKeyFault(const ZDialect& dialect, ZSpan key) {
    if (const char* reason = faultOfBytes(dialect, key, 4))
        return reason;
    if (hasLineEnd(key))
        return "can't hold a line end";
    if (zisDialectBlank(*key.data) || zisDialectBlank(key.data[key.size - 1]))
        return "can't have blanks at its ends";
    ZBytes probe;
    addAll(probe, {key, dividerOf(dialect), {"v\n", 2}});
    ZDialectReader reader(dialect, zspanOf(probe));
    ZDialectPart part;
    if (reader.next(part) && part.kind == ZDialectPart::entry && zequals(part.name, key))
        return nullptr;
    if (*key.data == '[' || part.kind == ZDialectPart::comment)
        return "can't begin as a header or a comment";
    if (dialect.divider == ZDIALECT_BLANK)
        return "can't hold a blank";
    if (memchr(key.data, '=', key.size) != nullptr && dialect.divider != ZDIALECT_COLON)
        return "can't hold =";
    if (memchr(key.data, ':', key.size) != nullptr && dialect.divider != ZDIALECT_EQUALS)
        return "can't hold :";
    return "can't hold a comment";
}

const char* zdialectCommentFault(const ZDialect& dialect, ZSpan comment) {
    if (const char* reason = faultOfBytes(dialect, comment, 1))
        return reason;
    if (hasLineEnd(comment))
        return "can't hold a line end";
    return zisDialectComment(dialect, *comment.data) ? nullptr : "must begin with a comment's sign";
}

const char* zdialectValueFault(const ZDialect& dialect, ZSpan value) {
    if (value.size == 0) {
        const bool isUnsaid = dialect.divider == ZDIALECT_BLANK &&
                              dialect.bare == ZDIALECT_NOT_BARE && dialect.quotes == ZDIALECT_PLAIN;
        return isUnsaid ? "can't be empty" : nullptr;
    }
    if (memchr(value.data, 0, value.size) != nullptr)
        return "can't hold a NUL";
    ZBytes spelled;
    if (zdialectEncode(dialect, value, {"", 0}, zdialectUsualHabit(dialect), spelled))
        return nullptr;
    if (dialect.lines == ZDIALECT_SHORT_LINES && value.size + 5 > kLongest)
        return "is too long for a line of 8191 bytes";
    if (dialect.continued != ZDIALECT_INDENT && hasLineEnd(value))
        return "can't hold a line end";
    const char last = value.data[value.size - 1];
    if (zisDialectBlank(*value.data) || zisDialectBlank(last) || last == '\n')
        return "can't have blanks at its ends";
    return "can't be said in this dialect";
}

ZDialectHabit zdialectUsualHabit(const ZDialect& dialect) {
    const ZSpan gap = dialect.divider == ZDIALECT_BLANK ? ZSpan{"", 0} : ZSpan{" ", 1};
    return {{"", 0}, gap, dividerOf(dialect), gap, {"\n", 1}, {"    ", 4}};
}

ZSpan zwithoutNumber(ZSpan name) {
    size_t at = name.size;
    while (at != 0 && name.data[at - 1] >= '0' && name.data[at - 1] <= '9')
        --at;
    const bool isNumbered = at != name.size && at > 1 && name.data[at - 1] == '#';
    return isNumbered ? ZSpan{name.data, at - 1} : name;
}

size_t zdialectFold(const ZDialect& dialect, ZSpan name, bool isStanza, char* out) {
    if (!zfoldsNames(dialect, isStanza)) {
        memcpy(out, name.data, name.size);
        return name.size;
    }
    // What is behind the first "." of a subsection's name stays as it is.
    size_t end = name.size;
    if (isStanza && (dialect.headers & ZDIALECT_SUBSECTIONS) != 0)
        if (const void* dot = end == 0 ? nullptr : memchr(name.data, '.', end))
            end = static_cast<size_t>(static_cast<const char*>(dot) - name.data);
    size_t at = 0, size = 0;
    if (dialect.names == ZDIALECT_FOLDED_BLANKS) {
        for (; at < end; ++at) {
            out[size] = lower(name.data[at]);
            size += !zisDialectBlank(name.data[at]);
        }
    } else {
        const auto foldEight = [&](size_t from) {
            uint64_t eight;
            memcpy(&eight, name.data + from, sizeof eight);
            eight = zdialectLower(eight);
            memcpy(out + from, &eight, sizeof eight);
        };
        for (; end - at > 8; at += 8)
            foldEight(at);
        if (end >= 8)
            foldEight(end - 8);
        else
            for (; at < end; ++at)
                out[at] = lower(name.data[at]);
        size = end;
    }
    memcpy(out + size, name.data + end, name.size - end);
    return size + (name.size - end);
}

void zdialectFold(const ZDialect& dialect, ZSpan name, bool isStanza, ZBytes& out) {
    if (name.size == 0)
        return;
    out.reserveMore(name.size);
    const size_t size = out.size();
    out.setSize(size + zdialectFold(dialect, name, isStanza, out.data() + size));
}

uint64_t zfoldedHash(const ZDialect& dialect, ZSpan name, bool isStanza) {
    if (!zfoldsNames(dialect, isStanza))
        return zhashOf(name.data, name.size);
    // Where only the case makes a difference nothing has to be copied.
    const bool hasSubsections = isStanza && (dialect.headers & ZDIALECT_SUBSECTIONS) != 0;
    const bool dropsBlanks = dialect.names == ZDIALECT_FOLDED_BLANKS;
    char folded[256];
    if (!hasSubsections && (!dropsBlanks || (name.size < sizeof folded && !zhasDialectBlank(name))))
        return zhashOfMapped(name.data, name.size,
                             [](uint64_t eight) { return zdialectLower(eight); });
    // Others go through a buffer, piece by piece: whoever takes a name out of the index can't be
    // without memory then. A full buffer goes at once, so that blanks that follow change nothing.
    const void* const dot =
        hasSubsections && name.size != 0 ? memchr(name.data, '.', name.size) : nullptr;
    const size_t foldedEnd =
        dot != nullptr ? static_cast<size_t>(static_cast<const char*>(dot) - name.data) : name.size;
    uint64_t hash = 0;
    size_t used = 0;
    for (size_t at = 0; at < name.size;) {
        const bool isFolded = at < foldedEnd;
        const size_t left = (isFolded ? foldedEnd : name.size) - at;
        const ZSpan piece = {name.data + at, std::min(left, sizeof folded - used)};
        if (isFolded) {
            used += zdialectFold(dialect, piece, isStanza, folded + used);
        } else {
            memcpy(folded + used, piece.data, piece.size);
            used += piece.size;
        }
        at += piece.size;
        if (used == sizeof folded) {
            hash = zfoldedProduct(hash ^ zhashOf(folded, used), kHashB);
            used = 0;
        }
    }
    return hash ^ zhashOf(folded, used);
}
