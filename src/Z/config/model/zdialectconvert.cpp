// zdialectconvert.cpp: a text of one dialect, said in another.
//
// A model of the text tells what it says: which headers are one stanza, which lines are one key,
// and which of them count. Then the text is gone through once more, and each part is said in the
// other dialect, in a piece for each header; each line that is made is read again, so that only
// what comes back goes out. Where the other dialect has a stanza once, what later headers bring
// goes to the piece of the first.
//
// Names are those of the model: the first spelling of each.
#include "zdialectconvert.h"

#include <cstring>
#include <map>
#include <string>

#include "zdialectedits.h"
#include "zdialectmodel.h"
#include "zdialecttext.h"
#include "zgrammar.h"
#include "zmemory.h"

namespace {

typedef ZPStore::Id Id;

ZDialect ownDialect() {
    ZDialect own = {};
    own.size = sizeof own;
    own.comments = ZDIALECT_HASH;
    return own;
}

std::string stringOf(ZSpan text) { return std::string(text.data, text.size); }
ZSpan spanOf(const std::string& text) { return {text.data(), text.size()}; }

const char* skipBlanks(const char* at, const char* end) {
    while (at < end && zisDialectBlank(*at))
        ++at;
    return at;
}

const char* lineEndOf(const char* at, const char* end) {
    const void* newline = at == end ? nullptr : memchr(at, '\n', static_cast<size_t>(end - at));
    return newline == nullptr ? end : static_cast<const char*>(newline);
}

typedef ZVector<std::string> Lines;
template <typename To>
using Map = std::map<std::string, To, std::less<std::string>,
                     ZVectorMemory<std::pair<const std::string, To>>>;

class Conversion {
public:
    Conversion(const ZDialect* from, ZSpan text, const ZDialect* to, ZDialectLeftOut leftOut,
               void* data)
        : from_(from == nullptr ? ownDialect() : *from),
          to_(to == nullptr ? ownDialect() : *to),
          movesSide_((from == nullptr) != (to == nullptr)),
          text_(text),
          leftOut_(leftOut),
          data_(data),
          reader_(from_, text),
          fromHeaders_(from_),
          habit_(zdialectUsualHabit(to_)) {
        habit_.lineEnd = zdialectLineEnd(text);
    }

    void run(const char* file, ZBytes& out) {
        zdialectLoad(from_, file, text_, model_);
        noteCounting();
        pieces_.resize(1);
        ZDialectPart part;
        while (reader_.next(part))
            take(part);
        flushComments();
        for (const std::string& piece : pieces_)
            zappendBytes(out, spanOf(piece));
    }

private:
    // --- what the text says ---

    struct Key {
        int lastLine = 0;          // of all lines of the key
        int lastEmptyLine = 0;     // of those without a value
        int lastValueLine = 0;     // of the others
        bool isFirstSaid = false;  // the first that counts, as it would count there
    };

    template <typename T>
    static T& at(ZVector<T>& list, Id id) {
        if (list.size() <= id)
            list.resize(id + 1);
        return list[id];
    }
    ZSpan nameOf(Id stanza) const { return model_.text().span(model_.stanza(stanza).name); }
    ZSpan keyNameOf(Id key) const { return model_.text().span(model_.key(key).name); }

    // The model's stanza of the next header.
    Id stanzaOf(ZSpan name, ZDialectHeaders& headers) const {
        ZBytes folded;
        headers.add(name, folded);
        return model_.stanzaInMap(zspanOf(folded));
    }

    void noteCounting() {
        ZDialectReader reader(from_, text_);
        ZDialectPart part;
        ZDialectHeaders headers(from_);
        Id stanza = model_.stanzaInMap({"", 0});
        while (reader.next(part)) {
            if (part.kind == ZDialectPart::header)
                stanza = stanzaOf(part.name, headers);
            if (part.kind != ZDialectPart::entry && part.kind != ZDialectPart::bareEntry)
                continue;
            const Id id = model_.keyInMap(nameOf(stanza), part.name);
            Key& key = at(keys_, id);
            key.lastLine = part.line;
            (part.value.size != 0 ? key.lastValueLine : key.lastEmptyLine) = part.line;
            std::string line;
            if (from_.values == to_.values && part.line == firstCounting(key))
                key.isFirstSaid = spellEntry(part, keyNameOf(id), line).empty();
        }
    }

    // The line of a key ahead of which none counts.
    int firstCounting(const Key& key) const {
        return from_.values == ZDIALECT_LAST_VALUE     ? key.lastLine
               : from_.values == ZDIALECT_RESET_VALUES ? key.lastEmptyLine
                                                       : 0;
    }

    // Why a line of the key isn't said, or null.
    const char* whyNot(Id id, const ZDialectPart& part) {
        const Key& key = keys_[id];
        const bool isBare = part.kind == ZDialectPart::bareEntry;
        if (part.line < firstCounting(key))
            return key.isFirstSaid ? nullptr : "a later line of the key counts";
        if (from_.values == ZDIALECT_LAST_VALUE)
            return nullptr;
        const bool hasValues = key.lastValueLine > firstCounting(key);
        if (part.value.size != 0)
            return to_.values != ZDIALECT_LAST_VALUE || part.line == key.lastValueLine
                       ? nullptr
                       : "a key can't have several values";
        // An empty line says something where it forgets what stands above it, or else is all.
        const bool isKept = !hasValues ? isBare == model_.isBare(id)
                                       : !isBare && (to_.values == ZDIALECT_ALL_VALUES ||
                                                     to_.values == from_.values);
        return isKept ? nullptr : "says nothing beside other lines of the key";
    }

    // --- output ---

    std::string& piece() { return pieces_[piece_]; }
    void leaveOut(const ZDialectPart& part, const std::string& reason) {
        const char *first = part.lines.data, *end = lineEndOf(first, first + part.lines.size);
        if (end > first && end[-1] == '\r')
            --end;
        leftOut_(data_, part.line, stringOf(zspanBetween(first, end)).c_str(), reason.c_str());
    }
    void addLine(const std::string& line) { piece().append(line).append(stringOf(habit_.lineEnd)); }

    // Whether the line, or lines, come back as this.
    bool isRead(const std::string& line, ZDialectPart::Kind kind, ZSpan name, ZSpan value) const {
        const std::string whole = line + stringOf(habit_.lineEnd);
        ZDialectReader reader(to_, spanOf(whole));
        ZDialectPart part;
        return reader.next(part) && part.kind == kind && part.lines.size == whole.size() &&
               zequals(part.name, name) && zequals(part.value, value);
    }

    // --- comments ---

    std::string commentOf(const char* first, const char* end) const {
        while (end > first && zisDialectBlank(end[-1]))
            --end;
        std::string comment = stringOf(zspanBetween(first, end));
        if (!zisDialectComment(to_, comment[0]))
            comment[0] = zdialectCommentSign(to_);
        return comment;
    }

    // They stay with what comes behind them.
    void holdComment(const ZDialectPart& part, const std::string& comment) {
        if (isRead(comment, ZDialectPart::comment, {"", 0}, {"", 0}))
            comments_.push_back(comment);
        else
            leaveOut(part, "a comment is too long for a line of 8191 bytes");
    }
    void flushComments() {
        for (const std::string& comment : comments_)
            addLine(comment);
        comments_.clear();
    }

    // The line with its comment behind it, or with all of them ahead.
    void addWithComments(const ZDialectPart& part, const std::string& line, const Lines& comments,
                         ZDialectPart::Kind kind, ZSpan name, ZSpan value) {
        if (comments.size() == 1 && line.find('\n') == line.npos) {
            const bool isHeader = kind == ZDialectPart::header;
            const bool hasTails = isHeader ? (to_.headers & ZDIALECT_HEADER_TAILS) != 0
                                           : to_.tails != ZDIALECT_NO_TAILS;
            std::string both = line + " " + comments[0];
            if (!isHeader && zdialectTails(to_) != nullptr)
                both[line.size() + 1] = *zdialectTails(to_);
            if (hasTails && isRead(both, kind, name, value)) {
                flushComments();
                return addLine(both);
            }
        }
        for (const std::string& comment : comments)
            holdComment(part, comment);
        flushComments();
        addLine(line);
    }

    // Those behind a value and between its lines.
    Lines commentsOf(const ZDialectPart& part) const {
        Lines comments;
        const char* const end = part.lines.data + part.lines.size;
        const char* const rawEnd = part.raw.data + part.raw.size;
        // Quoted values and joined ones take all there is for text.
        const bool isIndented = from_.continued == ZDIALECT_INDENT;
        const bool hasLines = isIndented || from_.continued == ZDIALECT_BACKSLASH;
        for (const char* at = part.raw.data; at < end;) {
            const char* const lineEnd = lineEndOf(at, end);
            const char* const first = skipBlanks(at, lineEnd);
            const char* comment = lineEnd;
            if (lineEnd >= rawEnd)  // behind the value there are blanks and a comment only
                comment = skipBlanks(at < rawEnd ? rawEnd : at, lineEnd);
            else if (hasLines && at != part.raw.data && zisDialectComment(from_, *first))
                comment = first;
            else if (isIndented)
                comment = reader_.tailOf(first, lineEnd);
            if (comment < lineEnd)
                comments.push_back(commentOf(comment, lineEnd));
            at = lineEnd + 1;
        }
        return comments;
    }

    // --- parts ---

    void take(const ZDialectPart& part) {
        switch (part.kind) {
            case ZDialectPart::comment: {
                const char* const end = part.lines.data + part.lines.size;
                return holdComment(part, commentOf(skipBlanks(part.lines.data, end),
                                                   lineEndOf(part.lines.data, end)));
            }
            case ZDialectPart::header:
                return takeHeader(part);
            case ZDialectPart::entry:
            case ZDialectPart::bareEntry:
                return takeEntry(part);
            default:
                flushComments();
                addLine("");
        }
    }

    struct Stanza {
        Id piece = kNoId;  // its own; none until it is said
        std::string name;  // folded, as the other dialect does
    };

    void takeHeader(const ZDialectPart& part) {
        stanza_ = stanzaOf(part.name, fromHeaders_);
        std::string spelled;
        const std::string fault = spellHeader(spelled);
        const char* const end = lineEndOf(part.lines.data, part.lines.data + part.lines.size);
        const char* const behind = skipBlanks(part.raw.data + part.raw.size, end);
        Lines tail;
        if (behind < end && zisDialectComment(from_, *behind))
            tail.push_back(commentOf(behind, end));
        isLeftOut_ = !fault.empty();
        if (isLeftOut_) {
            for (const std::string& comment : tail)
                holdComment(part, comment);
            flushComments();
            return leaveOut(part, fault);
        }
        Stanza& stanza = at(stanzas_, stanza_);
        const bool isMore = stanza.piece != kNoId && to_.repeated != ZDIALECT_MERGED;
        if (!isMore) {
            stanza.piece = static_cast<Id>(pieces_.size());
            pieces_.push_back(std::string());
        }
        piece_ = stanza.piece;
        if (behind < end && tail.empty())
            leaveOut(part, "what stands behind ] says nothing");
        if (!isMore)
            return addWithComments(part, spelled, tail, ZDialectPart::header, headerName_, {"", 0});
        for (const std::string& comment : tail)
            holdComment(part, comment);
        flushComments();
    }

    // The stanza's header; why there can be none, or an empty text.
    std::string spellHeader(std::string& spelled) {
        static const std::string kSubject = "a stanza's name ";
        const ZSpan name = nameOf(stanza_);
        Stanza& stanza = at(stanzas_, stanza_);
        headerName_ = to_.repeated == ZDIALECT_NUMBERED ? zwithoutNumber(name) : name;
        if (const char* fault = zdialectStanzaFault(to_, headerName_))
            return kSubject + fault;
        ZBytes header;
        zdialectSpellHeader(to_, headerName_, header);
        spelled = stringOf(zspanOf(header));
        if (stanza.piece != kNoId)
            return "";
        const std::string base = folded(headerName_, true);
        if (to_.repeated == ZDIALECT_NUMBERED) {
            const int number = headers_[base] + 1;
            const std::string numbered =
                stringOf(headerName_) + (number == 1 ? "" : "#" + std::to_string(number));
            if (!zequals(spanOf(numbered), name))
                return kSubject + (headerName_.size == name.size
                                       ? "is spelled otherwise there already"
                                       : "can't have this number there");
            headers_[base] = number;
        } else if (++headers_[base] > 1) {
            return kSubject + "is spelled otherwise there already";
        }
        stanza.name = folded(name, true);
        return "";
    }

    std::string folded(ZSpan name, bool isStanza) const {
        ZBytes bytes;
        zdialectFold(to_, name, isStanza, bytes);
        return stringOf(zspanOf(bytes));
    }

    void takeEntry(const ZDialectPart& part) {
        const Lines comments = commentsOf(part);
        const std::string fault = sayEntry(part, comments);
        if (fault.empty())
            return;
        for (const std::string& comment : comments)
            holdComment(part, comment);
        flushComments();
        leaveOut(part, fault);
    }

    // Why it can't be said, or an empty text.
    std::string sayEntry(const ZDialectPart& part, const Lines& comments) {
        if (stanza_ == kNoId) {
            stanza_ = model_.stanzaInMap({"", 0});
            isLeftOut_ = to_.orphans == ZDIALECT_NO_ORPHANS;
        }
        const ZSpan stanza = nameOf(stanza_);
        if (isLeftOut_)
            return stanza.size == 0 ? "an entry can't stand ahead of all headers"
                                    : "its stanza is left out";
        const Id key = model_.keyInMap(stanza, part.name);
        if (const char* reason = whyNot(key, part))
            return reason;
        const ZSpan name = keyNameOf(key);
        if (movesSide_ && zisSideEntry(stringOf(stanza).c_str(), stringOf(name).c_str()))
            return "an entry of this name says where hidden values are";
        std::string line;
        const std::string fault = spellEntry(part, name, line);
        if (!fault.empty())
            return fault;
        if (zfoldsNames(to_, false)) {
            const std::string& own = at(stanzas_, stanza_).name;
            const std::string both = std::to_string(own.size()) + " " + own + folded(name, false);
            if (said_.emplace(both, key).first->second != key)
                return "a key is spelled otherwise there already";
        }
        addWithComments(part, line, comments, part.kind, name, part.value);
        return "";
    }

    std::string spellEntry(const ZDialectPart& part, ZSpan name, std::string& line) const {
        const bool isBare = part.kind == ZDialectPart::bareEntry;
        if (const char* fault = zdialectKeyFault(to_, name))
            return std::string("a key ") + fault;
        if (isBare && to_.bare == ZDIALECT_NOT_BARE)
            return "a key needs a divider";
        ZBytes made;
        zappendBytes(made, name);
        if (!isBare) {
            const bool isBlankOne = to_.divider == ZDIALECT_BLANK;
            zappendBytes(made, habit_.before);
            zappendBytes(made, habit_.divider);
            if (part.value.size != 0)
                zappendBytes(made, habit_.after);
            else if (isBlankOne && to_.quotes != ZDIALECT_PLAIN)
                zappendBytes(made, {"\"\"", 2});
            else if (isBlankOne)
                return "a value can't be empty";
            if (!zdialectEncode(to_, part.value, {"", 0}, habit_, made)) {
                const char* fault = zdialectValueFault(to_, part.value);
                return std::string("a value ") + (fault == nullptr ? "can't stand there" : fault);
            }
        }
        line = stringOf(zspanOf(made));
        return isRead(line, part.kind, name, part.value) ? "" : "a line is too long there";
    }

    const ZDialect from_, to_;
    const bool movesSide_;  // from a text of the library's own to another, or back
    const ZSpan text_;
    const ZDialectLeftOut leftOut_;
    void* const data_;
    ZPStore model_;
    ZDialectReader reader_;
    ZDialectHeaders fromHeaders_;
    ZDialectHabit habit_;
    ZVector<Key> keys_;        // by the model's number
    ZVector<Stanza> stanzas_;  // likewise
    ZVector<std::string> pieces_;
    Lines comments_;    // that wait for what comes behind them
    Map<int> headers_;  // by folded name: how many are said
    Map<Id> said_;      // by folded names of stanza and key
    ZSpan headerName_ = {"", 0};
    size_t piece_ = 0;
    Id stanza_ = kNoId;
    bool isLeftOut_ = false;
};

}  // namespace

void zdialectConvert(const ZDialect* from, const char* file, ZSpan text, const ZDialect* to,
                     ZDialectLeftOut leftOut, void* data, ZBytes& out) {
    Conversion(from, text, to, leftOut, data).run(file, out);
}
