// ZSCFData.cpp: the two file formats of the configuration database.
//
// Stanza file: lines as zgrammar.h tells. A stanza appears once. A key may appear often: each entry
// adds a value, an empty one adds none. Written, every entry is "key = value".
//
// Side database: one zlib stream over records, one for each value of each key in it,
//
//   stanza NUL key NUL value NUL  NUL
//
// where the last NUL separates records and is left out behind the last one. The compression is all
// that hides the values.
#include "ZSCFData.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <memory>

#include "ZException.h"
#include "ZExceptionText.h"
#include "ZSqueeze.h"
#include "zassert.h"
#include "zdialectmodel.h"
#include "zdialecttext.h"
#include "zgrammar.h"
#include "zlinemarks.h"
#include "zmodelreading.h"
#include "zpbatch.h"
#include "zpstore.h"
#include "zraise.h"

typedef ZPStore::Id Id;

ZPCache* ZSCFData::clone() const { return new ZSCFData(*this); }

// ---------------------------------------------------------------- reading text

// Brings text behind the store's, as `read(to, room, error)` gives it: the bytes it got, and 0 in
// `error` or why there aren't as many as there is room for. Of a file of known size one reading
// does; 0: up to the end.
template <typename Read>
static void readAll(ZPStore& store, uint64_t size, Read read) {
    static const size_t kStep = 64 * 1024, kLarge = 1 << 20, kHuge = 16 << 20;
    static const size_t kMostSpare = 1 << 30;
    size_t room = size == 0 ? kStep : size < SIZE_MAX ? static_cast<size_t>(size) : SIZE_MAX;
    store.setReadError(0);
    for (int interrupted = 0;;) {
        int error = 0;
        // And some more, for what is set later: of a large block that is nothing but addresses. A
        // huge one is to stay one that malloc keeps for the next load.
        const size_t share = room >= kLarge && room < kHuge ? room / 2 : room / 4;
        const size_t spare = room < kMostSpare ? share : 0;
        const size_t got = read(store.textRoom(room, spare), room, error);
        store.commitText(got);
        // A signal that came in between is no failure: the rest follows.
        if (error == EINTR && ++interrupted < 1000) {
            room -= got;
            continue;
        }
        store.setReadError(error);
        if (error != 0 || got < room || size != 0)
            return;
        room = store.textSize() / 2 + kStep;
    }
}

// The size of a regular file; 0 for anything else. Where a stream's own position makes it too
// large, no harm is done.
static uint64_t sizeOf(FILE* stream) {
    struct stat status;
    const int descriptor = fileno(stream);
    return descriptor >= 0 && fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode)
               ? static_cast<uint64_t>(status.st_size)
               : 0;
}

namespace {

// One pass over the text that readAll brought.
class StanzaReader {
public:
    StanzaReader(ZPStore& store, const char* file, unsigned long attributes,
                 ZLCString& sideDatabase)
        : store_(store),
          file_(file),
          keepComments_((attributes & ZPCACHE_KEEP_COMMENTS) != 0),
          strict_((attributes & ZPCACHE_STRICT) != 0),
          sideDatabase_(sideDatabase),
          lines_(store),
          stanza_(ZPStore::none),
          isSideStanza_(false),
          unused_(0) {}

    void read(size_t start) {
        const size_t end = store_.textSize();
        store_.reserveForText(start);
        // Nothing is added to the text on the way, so that it stays where it is.
        const char* const all = store_.text(0);
        ZLineMarks marks({all, end}, start);
        const ZLineGrammar grammar;
        int line = 0;
        for (size_t at = start; at < end;) {
            // Where a longer line is cut.
            const size_t limit = end - at < kLongestLine ? end : at + kLongestLine;
            size_t stop, divider = limit, nul = limit;
            while ((stop = marks.next(limit)) != limit && all[stop] != '\n') {
                if (all[stop] == '=')
                    divider = divider == limit ? stop : divider;
                else
                    nul = nul == limit ? stop : nul;
            }
            const bool isWhole = stop != limit, hasNul = nul != limit;
            ++line;
            const char* const piece = all + at;
            const ZSpan text = grammar.trimmed(piece, all + (hasNul ? nul : stop));
            const bool isRefused =
                strict_ && (hasNul || (at == start && zstartsWithMark({piece, end - at})) ||
                            (!isWhole && limit != end));
            const char* const dividerInText = divider < nul ? all + divider : nullptr;
            if (isRefused || !take(grammar.divide(text, dividerInText))) {
                lines_.flush();
                // The indent is part of it.
                const ZLCString data(piece,
                                     static_cast<unsigned int>(text.data + text.size - piece));
                store_.truncateText(at);  // nothing refers to the rest
                zraise(ZPropertiesInvalidDataException(file_, data.getChars(), line));
            }
            at = stop + (isWhole ? 1 : 0);
        }
        lines_.flush();
        store_.addUnused(unused_);
    }

private:
    ZPSlice slice(ZSpan part) const {
        return {static_cast<uint32_t>(part.data - store_.text(0)),
                static_cast<uint32_t>(part.size)};
    }

    // False if no such line may stand here.
    bool take(const ZLineParts& line) {
        switch (line.kind) {
            case zlineBlank:
                if (keepComments_)
                    lines_.addBlank();
                return true;
            case zlineComment:
                if (keepComments_)
                    lines_.addComment(slice(line.name));
                else
                    unused_ += line.name.size;
                return true;
            case zlineHeader:
                return takeHeader(line.name);
            case zlineEntry:
                return takeEntry(line.name, line.value);
            default:
                return false;
        }
    }

    bool takeHeader(ZSpan name) {
        lines_.flush();
        const ZPStore::SoughtStanza sought = store_.seekStanza(name);
        lines_.enter(store_.isStanzaInMap(sought.id)
                         ? store_.readHeaderAgain(sought.id, slice(name))
                         : store_.readHeader(slice(name), sought));
        if (lines_.group() == ZPStore::none)
            return false;
        stanza_ = name.size == 0 ? ZPStore::none : store_.group(lines_.group()).stanza;
        isSideStanza_ = zequals(name, {kSideStanza, sizeof kSideStanza - 1});
        return true;
    }

    bool takeEntry(ZSpan key, ZSpan value) {
        if (stanza_ == ZPStore::none || key.size == 0)
            return false;
        const bool isSideKey = isSideStanza_ && zequals(key, {kSideKey, sizeof kSideKey - 1});
        if (isSideKey)
            lines_.flush();
        const bool namesSide = isSideKey && store_.keyInMap({kSideStanza, sizeof kSideStanza - 1},
                                                            key) == ZPStore::none;
        lines_.addEntry(store_.keyHash(stanza_, key), slice(key), slice(value));
        if (namesSide) {
            lines_.flush();
            sideDatabase_ = ZLCString(value.data, static_cast<unsigned int>(value.size));
        }
        return true;
    }

    ZPStore& store_;
    const char* file_;
    const bool keepComments_;
    const bool strict_;  // what would be taken apart is bad data
    ZLCString& sideDatabase_;
    ZPBatch lines_;
    Id stanza_;  // none before the first header and behind an empty name
    bool isSideStanza_;
    size_t unused_;
};

}  // namespace

// In one place, so that the compiler makes one loop of all that a line takes.
void ZModelReading::parse(ZSCFData& cache, const char* file, size_t start) {
    if (cache.store().dialect() != nullptr)
        return zdialectRead(cache.store(), file, start,
                            (cache.attributes_ & ZPCACHE_KEEP_COMMENTS) != 0);
    StanzaReader(cache.store(), file, cache.attributes_, cache.obfuscatedDBName_).read(start);
}

void ZSCFData::be_read(const char* file, FILE* stream) {
    const size_t start = store().textSize();
    readAll(store(), sizeOf(stream), [stream](char* to, size_t room, int& error) {
        const size_t got = fread(to, 1, room, stream);
        error = got < room && feof(stream) == 0 ? errno : 0;
        if (error == EINTR)
            clearerr(stream);
        return got;
    });
    ZModelReading::parse(*this, file, start);
}

void ZModelReading::readFile(ZPCache& own, const char* file, int descriptor, uint64_t size) {
    ZSCFData& cache = static_cast<ZSCFData&>(own);
    const size_t start = cache.store().textSize();
    readAll(cache.store(), size, [descriptor](char* to, size_t room, int& error) {
        size_t done = 0;
        while (done < room) {
            const ssize_t got = read(descriptor, to + done, room - done);
            error = got < 0 ? errno : 0;
            if (got <= 0)
                break;
            done += static_cast<size_t>(got);
        }
        return done;
    });
    parse(cache, file, start);
}

void ZModelReading::readText(ZPCache& own, const char* file, ZSpan text) {
    ZSCFData& cache = static_cast<ZSCFData&>(own);
    ZPStore& store = cache.store();
    const size_t start = store.textSize();
    if (text.size != 0)
        memcpy(store.textRoom(text.size), text.data, text.size);
    store.commitText(text.size);
    store.setReadError(0);
    parse(cache, file, start);
}

// ---------------------------------------------------------------- writing text

namespace {

// Collects output in a small buffer. Lines whose bytes already stand in the store's text as they
// are to be written, one behind the other, are passed on in one piece.
class StanzaWriter {
public:
    StanzaWriter(const ZPStore& store, FILE* stream)
        : store_(store), stream_(stream), size_(0), runStart_(0), runEnd_(0) {}

    void write() {
        for (Id g = store_.firstGroup(); g != ZPStore::none; g = store_.group(g).next) {
            const ZPGroup& group = store_.group(g);
            if (group.stanza != ZPStore::none) {
                // A stanza that left the map takes its comments and keys with it.
                if (!store_.stanza(group.stanza).inMap)
                    continue;
                header(store_.stanza(group.stanza).name);
            }
            for (Id l = group.first; l != ZPStore::none; l = store_.nextLine(l))
                line(l);
        }
        endRun();
        flush();
    }

private:
    void header(const ZPSlice& name) {
        const uint32_t end = name.offset + name.length;
        if (name.offset != 0 && at(name.offset - 1, "[", 1) && at(end, "]\n", 2)) {
            run(name.offset - 1, end + 2);
            return;
        }
        put("[", 1);
        put(store_.text(name), name.length);
        put("]\n", 2);
    }

    void line(Id id) {
        const ZPLine& line = store_.line(id);
        switch (line.type()) {
            case ZPLine::blank:
                if (runEnd_ != runStart_ && at(runEnd_, "\n", 1))
                    ++runEnd_;
                else
                    put("\n", 1);
                break;
            case ZPLine::comment:
                comment(store_.comment(id));
                break;
            case ZPLine::key:
                if (store_.isInMap(line.ref()))
                    entry(line.ref());
                break;
        }
    }

    void comment(const ZPSlice& text) {
        const uint32_t end = text.offset + text.length;
        if (at(end, "\n", 1)) {
            run(text.offset, end + 1);
        } else {
            put(store_.text(text), text.length);
            put("\n", 1);
        }
    }

    void entry(Id id) {
        const ZPSlice& name = store_.key(id).name;
        const ZPValueView values = store_.values(id, ZPStore::plain);
        if (const ZPSlice* value = values.onlySlice()) {
            const uint32_t nameEnd = name.offset + name.length;
            const uint32_t valueEnd = value->offset + value->length;
            if (value->offset == nameEnd + 3 && at(nameEnd, " = ", 3) && at(valueEnd, "\n", 1)) {
                run(name.offset, valueEnd + 1);
                return;
            }
        }
        for (uint32_t i = 0; i < values.count(); ++i) {
            const ZSpan value = values[i];
            put(store_.text(name), name.length);
            put(" = ", 3);
            if (value.size != 0)
                put(value.data, value.size);
            put("\n", 1);
        }
        // A key whose values are hidden has no text line.
        if (values.count() == 0 && store_.values(id, ZPStore::hidden).count() == 0) {
            put(store_.text(name), name.length);
            put(" =\n", 3);
        }
    }

    // Whether these bytes stand in the text there.
    bool at(uint32_t offset, const char* bytes, size_t length) const {
        return store_.text().stands(offset, {bytes, length});
    }

    void run(uint32_t start, uint32_t end) {
        if (start != runEnd_ || runStart_ == runEnd_) {
            endRun();
            runStart_ = start;
        }
        runEnd_ = end;
    }

    void endRun() {
        const uint32_t start = runStart_, length = runEnd_ - runStart_;
        runStart_ = runEnd_ = 0;
        if (length != 0)
            put(store_.text(start), length);
    }

    void put(const char* bytes, size_t length) {
        if (runStart_ != runEnd_)
            endRun();
        if (length > sizeof buffer_ - size_) {
            flush();
            if (length > sizeof buffer_) {
                fwrite(bytes, 1, length, stream_);
                return;
            }
        }
        memcpy(buffer_ + size_, bytes, length);
        size_ += length;
    }

    void flush() {
        if (size_ != 0)
            fwrite(buffer_, 1, size_, stream_);
        size_ = 0;
    }

    const ZPStore& store_;
    FILE* stream_;
    size_t size_;
    uint32_t runStart_, runEnd_;  // bytes of the text that are to go out; equal: none
    char buffer_[16 * 1024];
};

}  // namespace

void ZSCFData::be_write(const char*, FILE* stream) {
    if (store().dialect() == nullptr)
        return StanzaWriter(store(), stream).write();
    ZBytes text;
    zdialectRewrite(*store().dialect(), store(), store().readText(), text);
    fwrite(text.data(), 1, text.size(), stream);
}

// ---------------------------------------------------------------- side database

void ZSCFData::be_read_obfuscated(ZBuffer& buffer) {
    // No deflate stream expands beyond this; a truncated one would ask for more room for ever.
    static const unsigned long kMaxExpansion = 1032;
    const unsigned long packed = buffer.getLength();
    ZSqueeze squeeze;
    squeeze.setSource(static_cast<unsigned char*>(buffer.getBuffer()), packed);
    ZBuffer expanded;
    unsigned long length = 0;
    bool failed = packed == 0;
    for (unsigned long factor = 8; !failed; factor *= 2) {
        if (packed > (~0UL >> 1) / factor)
            zraise(ZOutOfMemoryException());
        expanded.setLength(packed * factor);
        const long result = static_cast<long>(squeeze.unsqueeze(
            static_cast<unsigned char*>(expanded.getBuffer()), expanded.getLength()));
        if (result >= 0) {
            length = static_cast<unsigned long>(result);
            break;
        }
        const bool needsRoom = result == -5 || result == -4;
        failed = !needsRoom || factor > kMaxExpansion;
    }
    const char* at = static_cast<const char*>(expanded.getBuffer());
    const char* end = at + length;
    while (!failed && at < end) {
        const char* parts[3];
        for (int i = 0; i < 3 && !failed; ++i) {
            const void* nul = at < end ? memchr(at, 0, end - at) : nullptr;
            failed = nul == nullptr;
            parts[i] = at;
            at = failed ? end : static_cast<const char*>(nul) + 1;
        }
        if (failed)
            break;
        add(parts[0], parts[1], parts[2], 1);
        ++at;  // the separator; missing behind the last record, which ends the walk as well
    }
    if (failed)
        zraise(ZPropertiesInvalidDataException(obfuscatedDBName_.getChars(), "", 0));
}

// One record and the separator behind it.
static void addRecord(ZBytes& records, ZSpan stanza, ZSpan key, ZSpan value) {
    records.reserveMore(stanza.size + key.size + value.size + 4);
    for (const ZSpan& part : {stanza, key, value}) {
        zappendBytes(records, part);
        records.push('\0');
    }
    records.push('\0');
}

void ZSCFData::be_write_obfuscated(ZBuffer& buffer) {
    const ZPStore& model = store();
    ZBytes records;
    for (Id k = model.firstFollowed(); k != ZPStore::none; k = model.nextFollowed(k)) {
        const ZPValueView values = model.values(k, ZPStore::hidden);
        const ZSpan stanza = model.text().span(model.stanza(model.key(k).stanza).name);
        const ZSpan key = model.text().span(model.key(k).name);
        for (uint32_t i = 0; i < values.count(); ++i) {
            const ZSpan value = values[i];
            if (value.data != nullptr)
                addRecord(records, stanza, key, value);
        }
    }
    if (records.size() == 0)
        return;
    const unsigned long length = records.size() - 1;  // no separator behind the last record
    ZSqueeze squeeze;
    squeeze.setSource(reinterpret_cast<unsigned char*>(records.data()), length);
    // Nothing needs more than a few bytes beyond its own length, so that twice the length and a
    // bit more is room enough: a failure there is one of memory.
    const unsigned long enough = length * 2 + 1024;
    for (unsigned long size = length * 2;; size *= 2) {
        buffer.setLength(size);
        const long packed = static_cast<long>(
            squeeze.squeeze(static_cast<unsigned char*>(buffer.getBuffer()), size));
        if (packed >= 0) {
            buffer.setLength(static_cast<unsigned long>(packed));
            return;
        }
        if (size > enough) {
            buffer.setLength(0);
            zraise(ZOutOfMemoryException());
        }
    }
}
