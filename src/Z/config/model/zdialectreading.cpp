// zdialectreading.cpp: fills a model from a text of another dialect.
//
// The text stands in the store, and most names and values are slices of it, as of the library's
// own files. What has to be spelled anew goes behind it.
#include "zdialectmodel.h"

#include <cstring>
#include <memory>
#include <string>

#include "ZExceptionText.h"
#include "zgrammar.h"
#include "zpbatch.h"
#include "zraise.h"

namespace {

typedef ZPStore::Id Id;

class DialectReading {
public:
    DialectReading(ZPStore& store, const char* file, size_t start, bool keepComments)
        : store_(store),
          dialect_(*store.dialect()),
          file_(file),
          start_(start),
          keepComments_(keepComments),
          text_(store.text(start)),
          size_(store.textSize() - start),
          reader_(dialect_, {text_, size_}),
          lines_(store),
          stanza_(ZPStore::none) {}

    void read() {
        const bool isFirst = store_.stanzaCount() == 0;
        store_.reserveForText(start_);
        ZDialectPart part;
        while (reader_.next(part)) {
            const size_t at = static_cast<size_t>(part.lines.data - text_);
            if (!take(part)) {
                lines_.flush();
                zdialectRaiseBad(file_, {text_ + at, part.lines.size}, part.line);
            }
        }
        lines_.flush();
        store_.noteRead(start_, isFirst ? size_ : 0);
    }

private:
    ZPSlice slice(ZSpan span) {
        const size_t at =
            reinterpret_cast<uintptr_t>(span.data) - reinterpret_cast<uintptr_t>(text_);
        if (__builtin_expect(at >= size_, false))
            return sliceOfCopy(span);
        return {static_cast<uint32_t>(start_ + at), static_cast<uint32_t>(span.size)};
    }
    // Of what doesn't stand in the text, a copy at its end, which may move all of it.
    __attribute__((noinline)) ZPSlice sliceOfCopy(ZSpan span) {
        if (span.size == 0)
            return {0, 0};
        const ZPSlice added = store_.addText(span);
        text_ = store_.text(start_);
        reader_.moveTo(text_);
        return added;
    }

    bool take(const ZDialectPart& part) {
        switch (part.kind) {
            case ZDialectPart::blank:
                if (keepComments_)
                    lines_.addBlank();
                return true;
            case ZDialectPart::comment:
                if (keepComments_)
                    lines_.addComment(slice(
                        grammar_.trimmed(part.lines.data, part.lines.data + part.lines.size)));
                return true;
            case ZDialectPart::header:
                lines_.flush();
                return takeHeader(part.name);
            case ZDialectPart::entry:
            case ZDialectPart::bareEntry:
                return takeEntry(part);
            default:
                return false;
        }
    }

    bool takeHeader(ZSpan name) {
        const bool isNumbering = dialect_.repeated == ZDIALECT_NUMBERED;
        if (isNumbering && zwithoutNumber(name).size != name.size)
            return false;
        const ZPStore::SoughtStanza sought = store_.seekStanza(name);
        const Id known = sought.id;
        Id group = groupOf(sought, name);
        if (group == ZPStore::none && isNumbering) {
            const ZLCString next(nextName(known));
            const ZSpan numbered = zspanOf(next.getChars());
            group = groupOf(store_.seekStanza(numbered), numbered);
        } else if (group == ZPStore::none && dialect_.repeated == ZDIALECT_MERGED) {
            group = store_.stanza(known).group;
        }
        if (group == ZPStore::none)
            return false;
        enter(group);
        return true;
    }

    // The group of a header of this name, that of a known stanza or of none; none if this text has
    // had it.
    Id groupOf(const ZPStore::SoughtStanza& sought, ZSpan name) {
        const Id known = sought.id;
        if (!store_.isStanzaInMap(known))
            return store_.readHeader(slice(name), sought);
        if (!store_.readsLayers())
            return ZPStore::none;
        // It keeps its first spelling, for which this text has to have a place.
        const ZSpan spelled = store_.text().span(store_.stanza(known).name);
        if (zequals(name, spelled))
            return store_.readHeaderAgain(known, slice(name));
        const ZLCString own(spelled.data, static_cast<unsigned int>(spelled.size));
        return store_.readHeaderAgain(known, sliceOfCopy({own.getChars(), own.getLength()}));
    }

    void enter(Id group) {
        lines_.enter(group);
        stanza_ = store_.group(group).stanza;
    }

    // NAME#2, NAME#3, ... for what follows this stanza.
    ZLCString nextName(Id first) {
        while (counts_.size() <= first)
            counts_.push_back(1);
        const ZSpan name = store_.text().span(store_.stanza(first).name);
        ZLCString numbered(name.data, static_cast<unsigned int>(name.size));
        numbered.append('#').append(std::to_string(++counts_[first]).c_str());
        return numbered;
    }

    bool takeEntry(const ZDialectPart& part) {
        if (stanza_ == ZPStore::none) {  // ahead of all headers
            if (dialect_.orphans == ZDIALECT_NO_ORPHANS)
                return false;
            lines_.flush();
            const ZPStore::SoughtStanza known = store_.seekStanza({"", 0});
            enter(store_.isStanzaInMap(known.id) ? store_.stanza(known.id).group
                                                 : store_.readHeader({0, 0}, known));
        }
        // The name's hash and place first: it always stands in the text, which the value may move.
        const uint32_t hash = store_.keyHash(stanza_, part.name);
        const ZPSlice name = slice(part.name);
        const ZPSlice value = store_.readsLayers() ? placedValue(part) : slice(part.value);
        lines_.addEntry(hash, name, value, part.kind == ZDialectPart::bareEntry);
        return true;
    }

    // Of a value whose place doesn't tell its entry's line, a copy behind the place of the entry.
    ZPSlice placedValue(const ZDialectPart& part) {
        const ZSpan value = part.value;
        const size_t at =
            reinterpret_cast<uintptr_t>(value.data) - reinterpret_cast<uintptr_t>(text_);
        const size_t entry = static_cast<size_t>(part.lines.data - text_);
        if (value.size == 0 || (at < size_ && memchr(part.lines.data, '\n', at - entry) == nullptr))
            return slice(value);
        ZBytes own;
        zappendBytes(own, value);  // the text may move
        const uint32_t place = static_cast<uint32_t>(start_ + entry);
        store_.addText({reinterpret_cast<const char*>(&place), sizeof place});
        return sliceOfCopy(zspanOf(own));
    }

    ZPStore& store_;
    const ZDialect dialect_;
    const char* file_;
    const size_t start_;
    const bool keepComments_;
    const ZLineGrammar grammar_;
    const char* text_;  // of the store, from start_ on, without what was added
    const size_t size_;
    ZDialectReader reader_;
    ZPBatch lines_;
    Id stanza_;
    ZVector<uint32_t> counts_;  // by stanza: its headers so far
};

}  // namespace

void zdialectRaiseBad(const char* file, ZSpan lines, int line) {
    while (lines.size != 0 && strchr("\r\n", lines.data[lines.size - 1]) != nullptr)
        --lines.size;
    const ZLCString data(lines.data, static_cast<unsigned int>(lines.size));
    zraise(ZPropertiesInvalidDataException(file, data.getChars(), line));
}

void zdialectRead(ZPStore& store, const char* file, size_t start, bool keepComments) {
    DialectReading(store, file, start, keepComments).read();
}

void zdialectLoad(const ZDialect& dialect, const char* file, ZSpan text, ZPStore& store) {
    store.setDialect(std::make_shared<const ZDialect>(dialect));
    const size_t start = store.textSize();
    if (text.size != 0)
        memcpy(store.textRoom(text.size, 0), text.data, text.size);
    store.commitText(text.size);
    zdialectRead(store, file, start, false);
}

bool zdialectFill(const ZDialect& dialect, ZSpan text, ZPStore& store) {
    try {
        zdialectLoad(dialect, "", text, store);
        return true;
    } catch (ZPropertiesInvalidDataException&) {
        return false;
    }
}
