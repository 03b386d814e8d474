// zdialectreading.cpp: fills a model from a text of another dialect.
//
// The text stands in the store, and most names and values are slices of it, as of the library's
// own files. It is taken apart in a copy: what has to be spelled anew goes behind it in the store,
// which may move meanwhile.
#include "zdialectmodel.h"

#include <cstring>
#include <memory>
#include <string>

#include "ZExceptionText.h"
#include "zgrammar.h"
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
          group_(store.lastGroup()),
          stanza_(ZPStore::none) {
        zcopyBytes({store.text(start), store.textSize() - start}, text_);
    }

    void read() {
        ZDialectReader reader(dialect_, zspanOf(text_));
        ZDialectPart part;
        while (reader.next(part))
            if (!take(part)) {
                ZSpan bad = part.lines;
                while (bad.size != 0 && strchr("\r\n", bad.data[bad.size - 1]) != nullptr)
                    --bad.size;
                const ZLCString data(bad.data, static_cast<unsigned int>(bad.size));
                zraise(ZPropertiesInvalidDataException(file_, data.getChars(), part.line));
            }
    }

private:
    ZPSlice slice(ZSpan span) {
        if (span.data < text_.data() || span.data >= text_.data() + text_.size())
            return span.size == 0 ? ZPSlice{0, 0} : store_.addText(span);
        return {static_cast<uint32_t>(start_ + static_cast<size_t>(span.data - text_.data())),
                static_cast<uint32_t>(span.size)};
    }

    bool take(const ZDialectPart& part) {
        switch (part.kind) {
            case ZDialectPart::blank:
                if (keepComments_)
                    store_.readBlank(group_);
                return true;
            case ZDialectPart::comment:
                if (keepComments_)
                    store_.readComment(group_,
                                       slice(grammar_.trimmed(part.lines.data,
                                                              part.lines.data + part.lines.size)));
                return true;
            case ZDialectPart::header:
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
        Id known = store_.stanzaInMap(name);
        group_ = known == ZPStore::none ? store_.readHeader(slice(name))
                                        : store_.readHeaderAgain(known, slice(name));
        if (group_ == ZPStore::none && isNumbering)
            group_ = store_.readHeader(store_.addText(zspanOf(nextName(known).getChars())));
        else if (group_ == ZPStore::none && dialect_.repeated == ZDIALECT_MERGED)
            group_ = store_.stanza(known).group;
        if (group_ == ZPStore::none)
            return false;
        stanza_ = store_.group(group_).stanza;
        return true;
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
            const Id known = store_.stanzaInMap({"", 0});
            group_ = known == ZPStore::none ? store_.readHeader({0, 0})
                                            : store_.readHeaderAgain(known, {0, 0});
            stanza_ = store_.group(group_).stanza;
        }
        if (dialect_.values == ZDIALECT_LAST_VALUE) {
            const Id known =
                store_.keyInMap(store_.text().span(store_.stanza(stanza_).name), part.name);
            if (known != ZPStore::none && isRead(known))
                store_.forgetRead(known);
        }
        bool isNew = false;
        const Id key = store_.readEntry(group_, slice(part.name), slice(part.value),
                                        store_.keyHash(stanza_, part.name), isNew);
        noteRead(key);
        if (part.kind == ZDialectPart::bareEntry)
            store_.markBare(key);
        return true;
    }

    bool isRead(Id key) const { return key < isRead_.size() && isRead_[key]; }
    void noteRead(Id key) {
        if (dialect_.values != ZDIALECT_LAST_VALUE)
            return;
        if (isRead_.size() <= key)
            isRead_.resize(key + 1);
        isRead_[key] = true;
    }

    ZPStore& store_;
    const ZDialect dialect_;
    const char* file_;
    const size_t start_;
    const bool keepComments_;
    const ZLineGrammar grammar_;
    ZBytes text_;
    Id group_;
    Id stanza_;
    ZVector<uint32_t> counts_;  // by stanza: its headers so far
    ZVector<bool> isRead_;      // by key: whether this text has given it a value
};

}  // namespace

void zdialectRead(ZPStore& store, const char* file, size_t start, bool keepComments) {
    DialectReading(store, file, start, keepComments).read();
}

bool zdialectFill(const ZDialect& dialect, ZSpan text, ZPStore& store) {
    store.setDialect(std::make_shared<const ZDialect>(dialect));
    const size_t start = store.textSize();
    if (text.size != 0)
        memcpy(store.textRoom(text.size, 0), text.data, text.size);
    store.commitText(text.size);
    try {
        zdialectRead(store, "", start, false);
        return true;
    } catch (ZPropertiesInvalidDataException&) {
        return false;
    }
}
