// zlayerset.cpp: one load of all files, then where values stand in the model's text.
//
// The model keeps what was read at its place, one file behind the other, each followed by its
// hidden values. So the place of a value tells its file, and nothing is noted while reading.
#include "zlayerset.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "ZExceptionText.h"
#include "zdialectentries.h"
#include "zfilecontent.h"
#include "zinternal.h"
#include "zgrammar.h"
#include "zlayerfinding.h"
#include "zlockedfile.h"
#include "zmemorystream.h"
#include "zmodelreading.h"
#include "zpstore.h"
#include "zraise.h"

extern char** environ;

static const int kMostTries = 16;
static const uint32_t kPiece = 4096;  // bytes of a text for which its lines are counted at once
static const char kCredentials[] = "CREDENTIALS_DIRECTORY";
static const uint64_t kMostCredential = 1024 * 1024;  // as large as services are given

ZLayerSet::ZLayerSet(const ZLayersTerms& terms)
    : tree_(terms), flags_(terms.flags), counted_(nullptr) {
    if (zhasText(terms.environment))
        variablePrefix_ = ZLCString(terms.environment).append('_');
    if (terms.keys == nullptr)
        return;
    for (const char* const* key = terms.keys; *key != nullptr; key += 2) {
        zrequire(zhasText(key[0]) && zhasText(key[1]));
        keys_.push_back(ZLCString(key[0]));
        keys_.push_back(ZLCString(key[1]));
    }
}

static ZPStore& storeOf(const ZSCFData& model) { return ZModelReading::storeOf(model); }

static uint32_t newlinesIn(const char* text, uint32_t size) {
    typedef uint8_t Lanes __attribute__((vector_size(16)));
    static const uint32_t kStep = sizeof(Lanes), kMostSteps = 255;  // what a lane can count
    uint32_t count = 0, at = 0;
    while (size - at >= kStep) {
        Lanes counts = {};
        const uint32_t end = at + std::min((size - at) / kStep, kMostSteps) * kStep;
        for (; at < end; at += kStep) {
            Lanes bytes;
            memcpy(&bytes, text + at, kStep);
            counts -= reinterpret_cast<Lanes>(bytes == '\n');
        }
        for (uint32_t lane = 0; lane < kStep; ++lane)
            count += counts[lane];
    }
    for (; at < size; ++at)
        count += text[at] == '\n';
    return count;
}

static ZLayer layerOf(ZLayer::Kind kind, const ZLayerFile& found) {
    return {kind, found, false, 0, 0, 0, 0, {}, {}, false, {}, {}};
}

// ---------------------------------------------------------------- load

// The entry that names a side database is no value of the configuration's.
static void forgetSideName(ZSCFData& model) {
    ZPStore& store = storeOf(model);
    if (store.dialect() != nullptr)
        return;
    model.setObfuscatedDBName("");
    const ZPId key = store.keyInMap(zspanOf(kSideStanza), zspanOf(kSideKey));
    if (key == ZPStore::none)
        return;
    store.removeKey(key);
    const ZPId stanza = store.stanzaInMap(zspanOf(kSideStanza));
    if (model.keyCount(kSideStanza) == 0)
        store.removeStanza(stanza);
}

void ZLayerSet::load(ZSCFData& model, unsigned long wait, const ZFileStamp* own) {
    loaded_.read.clear();
    counted_ = nullptr;
    // Who writes all the time is waited for as one who has a lock.
    struct Attempt {
        ZLayerSet& set;
        ZSCFData& model;
        Reading reading;
    } attempt = {*this, model, {wait, own, false, nullptr}};
    const ZFailure failure = zretryLocked(
        wait,
        [](void* data) {
            Attempt& now = *static_cast<Attempt*>(data);
            return now.set.loadFiles(now.model, now.reading) ? zdone
                                                             : ZFailure{"load()", EAGAIN, nullptr};
        },
        &attempt);
    if (failure)
        zraiseIO(tree_.mainPath().getChars(), failure.call, failure.error);
    readVariables(model);
    readCredentials(model);
    storeOf(model).endLayers();
    for (size_t i = 0; i < loaded_.layers.size(); ++i)
        if (loaded_.layers[i].isRead)
            loaded_.read.push_back(i);
}

void ZLayerSet::swapLoaded(Loaded& other) {
    std::swap(loaded_, other);
    counted_ = nullptr;
}

void ZLayerSet::loadBeside(ZSCFData& other, unsigned long wait, const ZFileStamp* own,
                           Loaded& before) {
    Loaded kept;
    swapLoaded(kept);
    try {
        load(other, wait, own);
    } catch (...) {
        swapLoaded(kept);
        throw;
    }
    std::swap(before, kept);
}

// What says nothing about a file.
static bool isOfThisProcess(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM;
}

// False if something has changed during each of several tries.
bool ZLayerSet::loadFiles(ZSCFData& model, Reading& reading) {
    // What is bad shows only once it was read. Then all is read once more, each file by itself
    // first, so that of a bad one nothing stays in the model.
    for (int tries = 0; tries < kMostTries; ++tries) {
        ZLayerFinding finding(tree_);
        finding.find(loaded_.found);
        reading.finding = &finding;
        loaded_.layers.clear();
        model.clear();
        for (const ZLayerFile& file : loaded_.found)
            loaded_.layers.push_back(layerOf(ZLayer::file, file));
        if (!readAll(model, reading)) {
            reading.checksFirst = true;
            continue;
        }
        if (!finding.isStill(loaded_.found))
            continue;
        for (const ZLayer& layer : loaded_.layers)
            if (layer.isBad() &&
                ((flags_ & ZLAYERS_SKIP_BAD) == 0 || isOfThisProcess(layer.found.error)))
                raiseBad(layer);
        requireFiles();
        return true;
    }
    return false;
}

void ZLayerSet::rebuild(const ZSCFData& model, size_t end, ZSCFData& out) const {
    out.clear();
    ZModelReading::beLike(out, model);
    for (const size_t index : loaded_.read) {
        const ZLayer& layer = loaded_.layers[index];
        if (index >= end || !isLoaded(model, layer))
            break;
        storeOf(out).beginLayer((flags_ & ZLAYERS_COLLECT) != 0);
        if (layer.kind == ZLayer::file) {
            zreadText(out, layer.found.path.getChars(),
                      storeOf(model).text().span({layer.start, layer.textEnd - layer.start}));
            if (layer.side.size() != 0)
                zreadSide(out, zspanOf(layer.side));
            forgetSideName(out);
        } else {
            storeOf(out).addLayerValue(
                zspanOf(layer.stanza), zspanOf(layer.key),
                layer.kind == ZLayer::credential ? ZPStore::hidden : ZPStore::plain,
                storeOf(model).text().span({layer.start, layer.end - layer.start}));
        }
        zassert(storeOf(out).textSize() == layer.end);
    }
    storeOf(out).endLayers();
}

// The model may have been emptied since.
bool ZLayerSet::isLoaded(const ZSCFData& model, const ZLayer& layer) const {
    return layer.end <= storeOf(model).textSize();
}

// False if a file turned out to be bad, so that the model holds a part of it.
bool ZLayerSet::readAll(ZSCFData& model, const Reading& reading) {
    static const uint64_t kMost = 64 << 20;  // beyond that room is made with each file
    static const size_t kUsualLine = 32;
    uint64_t size = 0;
    int files = 0;
    for (const ZLayer& layer : loaded_.layers) {
        if (layer.found.state != ZLayerFile::counts)
            continue;
        size += layer.found.stamp.size;
        ++files;
    }
    // Of a single file the reading itself tells better what it needs.
    if (files > 1 && size < kMost) {
        const size_t bytes = static_cast<size_t>(size);
        storeOf(model).textRoom(bytes, bytes / 4);
        storeOf(model).reserveForLines(bytes / kUsualLine, bytes / kUsualLine);
    }
    for (ZLayer& layer : loaded_.layers)
        if (layer.found.state == ZLayerFile::counts && !readFile(model, layer, reading))
            return false;
    return true;
}

void ZLayerSet::begin(ZSCFData& model, ZLayer& layer) const {
    layer.start = layer.textEnd = layer.end = static_cast<uint32_t>(storeOf(model).textSize());
    storeOf(model).beginLayer((flags_ & ZLAYERS_COLLECT) != 0);
}

static void noteIO(ZLayer& layer, const char* call, int error) {
    layer.found.state = ZLayerFile::bad;
    layer.found.call = call;
    layer.found.error = error;
}

// A side database below the prefix is looked for there.
static bool placeBelow(const void* tree, ZLCString& path) {
    return static_cast<const ZLayerTree*>(tree)->physicalPath(path.getChars(), path);
}

void ZLayerSet::readContent(ZSCFData& model, const ZLayer& layer, int descriptor,
                            const Reading& reading, bool keepsText, ZFileContent& content) const {
    ZFileToRead file = {descriptor};
    file.isDirect = !layer.found.isLink;
    file.hasNoJournal = reading.finding->hasNoJournal(layer.found);
    file.size = layer.found.stamp.size;  // if it has changed, all is read anew
    file.badModes = (flags_ & ZLAYERS_REFUSE_UNSAFE) != 0 ? S_IWOTH : 0;
    ZLCString place;
    if (layer.found.root >= 0 && tree_.hasPrefix()) {
        // It is open; what its name leads to by now is for the search behind the reading to tell.
        place = tree_.placeOf(layer.found);
        if (!placeBelow(&tree_, place))
            zraiseIO(layer.found.path.getChars(), "fopen(r)", errno);
        file.place = &place;
        file.placeSide = placeBelow;
        file.data = &tree_;
    }
    model.setObfuscatedDBName("");
    const int incomplete = zreadContent(model, layer.found.path, file, keepsText, content);
    if (incomplete != 0)
        zraiseIO(layer.found.path.getChars(), "read()", incomplete);
}

bool ZLayerSet::readFile(ZSCFData& model, ZLayer& layer, const Reading& reading) {
    ZOpenFile file;
    ZLockScope lock(file, zlockOfDescription);
    file.reset(reading.finding->open(layer.found));
    if (file.get() < 0) {
        noteIO(layer, "fopen(r)", errno);
        return true;  // the model has nothing of it
    }
    const bool isOwn = reading.own != nullptr && zsameFile(*reading.own, layer.found.stamp);
    if (!isOwn)
        zcheckIO(zlockWholeFile(file.get(), F_RDLCK, zlockOfDescription, reading.wait)
                     .of(layer.found.path.getChars()));
    ZFileContent content;
    try {
        // Of one that tells no size, as /proc has them, nothing else says where its text ends.
        const bool keepsText = reading.checksFirst || layer.found.stamp.size == 0;
        if (reading.checksFirst) {
            ZSCFData trial;
            ZModelReading::beLike(trial, model);
            readContent(trial, layer, file.get(), reading, keepsText, content);
            begin(model, layer);
            zreadText(model, layer.found.path.getChars(), zspanOf(content.text));
            if (content.side.size() != 0)
                zreadSide(model, zspanOf(content.side));
        } else {
            begin(model, layer);
            readContent(model, layer, file.get(), reading, keepsText, content);
        }
    } catch (ZPropertiesInvalidDataException& e) {
        noteIO(layer, nullptr, 0);
        layer.badLine = e.badline();
        layer.reason = e.baddata();
        return reading.checksFirst;
    } catch (ZPropertiesIOException& e) {
        noteIO(layer, strcmp(e.api(), "mapFile()") == 0 ? "mapFile()" : "read()", e.excerrno());
        return reading.checksFirst;
    }
    layer.end = static_cast<uint32_t>(storeOf(model).textSize());
    // What has taken no way through `content` is as long as the file. Its hidden values are behind.
    const uint64_t size = content.text.size() != 0 ? content.text.size() : layer.found.stamp.size;
    layer.textEnd = static_cast<uint32_t>(std::min<uint64_t>(layer.start + size, layer.end));
    layer.isRead = true;
    layer.side.swap(content.side);
    layer.namesSide = model.obfuscatedDBName().getLength() != 0;
    forgetSideName(model);
    lock.close().passOver();
    return true;
}

void ZLayerSet::raiseBad(const ZLayer& layer) const {
    const char* path = layer.found.path.getChars();
    if (layer.found.call != nullptr)
        zraiseIO(path, layer.found.call, layer.found.error);
    zraise(ZPropertiesInvalidDataException(path, layer.reason.getChars(), layer.badLine));
}

void ZLayerSet::requireFiles() const {
    bool hasAny = false, hasMain = false;
    for (const ZLayer& layer : loaded_.layers) {
        const bool isThere = layer.found.state != ZLayerFile::bad;
        hasAny = hasAny || isThere;
        hasMain = hasMain || (isThere && layer.found.kind == ZLayerFile::mainFile &&
                              layer.found.state != ZLayerFile::masks);
    }
    if (hasMain ||
        ((flags_ & ZLAYERS_NEEDS_MAIN) == 0 && (hasAny || (flags_ & ZLAYERS_MAY_BE_EMPTY) != 0)))
        return;
    zraiseIO(tree_.mainPath().getChars(), "fopen(r)", ENOENT);
}

// ---------------------------------------------------------------- variables and credentials

static void appendUpper(ZLCString& to, ZSpan name) {
    for (size_t i = 0; i < name.size; ++i) {
        const char c = name.data[i];
        const bool isLower = c >= 'a' && c <= 'z';
        const bool isOther = !isLower && !(c >= 'A' && c <= 'Z') && !(c >= '0' && c <= '9');
        to.append(isLower ? static_cast<char>(c - 'a' + 'A') : isOther ? '_' : c);
    }
}

void ZLayerSet::readVariable(ZSCFData& model, ZSpan stanza, ZSpan key) {
    ZLCString name(variablePrefix_);
    appendUpper(name, stanza);
    name.append('_');
    appendUpper(name, key);
    const char* value = secure_getenv(name.getChars());
    if (value == nullptr)
        return;
    ZLayer layer = layerOf(ZLayer::variable, ZLayerFile());
    layer.found.path = ZLCString("$").append(name);
    layer.stanza = ztextOf(stanza);
    layer.key = ztextOf(key);
    addValue(model, layer, ZPStore::plain, zspanOf(value));
}

void ZLayerSet::addValue(ZSCFData& model, ZLayer& layer, ZPStore::Kind kind, ZSpan value) {
    begin(model, layer);
    storeOf(model).addLayerValue(zspanOf(layer.stanza), zspanOf(layer.key), kind, value);
    layer.end = static_cast<uint32_t>(storeOf(model).textSize());
    layer.start = layer.end - static_cast<uint32_t>(value.size);  // behind new names
    layer.isRead = true;
    loaded_.layers.push_back(std::move(layer));
}

// Only of keys that are known, since no name tells where its stanza ends.
void ZLayerSet::readVariables(ZSCFData& model) {
    const char* prefix = variablePrefix_.getChars();
    const size_t length = variablePrefix_.getLength();
    bool hasAny = false;
    for (char** variable = environ; length != 0 && variable != nullptr && *variable != nullptr;
         ++variable)
        hasAny = hasAny || strncmp(*variable, prefix, length) == 0;
    if (!hasAny)
        return;
    ZPStore& store = storeOf(model);
    ZVector<ZLCString> known;
    store.forEachStanza([&](ZPId stanza) {
        ZPStore::Cursor walk(store, stanza);
        for (ZPId key = walk.nextKey(); key != ZPStore::none; key = walk.nextKey()) {
            walk.moveTo(key);
            known.push_back(ztextOf(store.text().span(store.stanza(stanza).name)));
            known.push_back(ztextOf(store.text().span(store.key(key).name)));
        }
    });
    for (size_t i = 0; i < known.size(); i += 2)
        readVariable(model, zspanOf(known[i]), zspanOf(known[i + 1]));
    for (size_t i = 0; i < keys_.size(); i += 2)
        if (store.keyInMap(zspanOf(keys_[i]), zspanOf(keys_[i + 1])) == ZPStore::none)
            readVariable(model, zspanOf(keys_[i]), zspanOf(keys_[i + 1]));
}

// Without the line end that who made it may have put behind it.
static ZFailure readCredential(int folder, const ZLCString& name, ZBytes& value) {
    const ZOpenFile file(
        zopenRegularFileAt(folder, name.getChars(), O_RDONLY | O_NOCTTY | O_NOFOLLOW));
    if (file.get() < 0)
        return zfailed("fopen(r)");
    ZFileStamp stamp;
    const ZFailure stamped = zstampFile(file.get(), stamp);
    if (stamped)
        return stamped;
    if (stamp.size > kMostCredential)
        return {"read()", EFBIG, nullptr};
    const ZFailure failure = zreadWholeFile(file.get(), value);
    if (!failure && value.size() != 0 && value.data()[value.size() - 1] == '\n')
        value.setSize(value.size() - 1);
    return failure;
}

// The files "stanza.key" of the folder, by name. The system has made them for this process alone,
// so they aren't locked.
void ZLayerSet::readCredentials(ZSCFData& model) {
    const char* folder =
        (flags_ & ZLAYERS_CREDENTIALS) == 0 ? nullptr : secure_getenv(kCredentials);
    if (!zhasText(folder))
        return;
    const ZOpenFile opened(zopenFile(folder, O_RDONLY | O_DIRECTORY | O_NONBLOCK));
    if (opened.get() < 0)
        zraiseIO(folder, "opendir()", errno);
    ZVector<ZLCString> names;
    zcheckIO(zlistFolder(opened.get(), names).of(folder));
    std::sort(names.begin(), names.end(), [](const ZLCString& a, const ZLCString& b) {
        return strcmp(a.getChars(), b.getChars()) < 0;
    });
    for (const ZLCString& name : names) {
        const char* dot = strchr(name.getChars(), '.');
        if (dot == nullptr || dot == name.getChars() || dot[1] == '\0')
            continue;
        ZLayer layer = layerOf(ZLayer::credential, ZLayerFile());
        layer.found.path = ZLCString(folder).append('/').append(name);
        layer.stanza = ZLCString(name.getChars(), static_cast<unsigned int>(dot - name.getChars()));
        layer.key = dot + 1;
        const char* path = layer.found.path.getChars();
        ZBytes value;
        const ZFailure failure = readCredential(opened.get(), name, value);
        if (!failure)
            addValue(model, layer, ZPStore::hidden, zspanOf(value));
        else if (failure.error != EISDIR && failure.error != EINVAL &&
                 (flags_ & ZLAYERS_SKIP_BAD) == 0)
            zcheckIO(failure.of(path));
    }
}

// ---------------------------------------------------------------- origins

// By pieces of the layer's text, so that only the layer's first look-up goes through all of it.
int ZLayerSet::lineOf(const ZSCFData& model, const ZLayer& layer, uint32_t offset) const {
    const char* text = storeOf(model).text(layer.start);
    if (counted_ != &layer) {
        counted_ = nullptr;
        marks_.clear();
        uint32_t lines = 0;
        for (uint32_t at = 0; at < layer.textEnd - layer.start; at += kPiece) {
            marks_.push_back(lines);
            lines += newlinesIn(text + at, std::min(kPiece, layer.textEnd - layer.start - at));
        }
        counted_ = &layer;
    }
    const uint32_t at = offset - layer.start, piece = at / kPiece;
    return static_cast<int>(marks_[piece] + newlinesIn(text + piece * kPiece, at - piece * kPiece) +
                            1);
}

bool ZLayerSet::origin(const ZSCFData& model, const char* stanza, const char* key, uint32_t index,
                       const ZLayer*& layer, int& line) const {
    const ZPStore& store = storeOf(model);
    const ZPId id = store.keyInMap(zspanOf(stanza), zspanOf(key));
    zrequire(id != ZPStore::none);
    const ZPStore::Kind kind = store.anyKind(id);
    const ZPValueView values = store.values(id, kind);
    zrequire(index < values.count());
    const ZPSlice place = store.placeOfValue(id, kind, index);
    // A list that was handed out may hold something else by now.
    if (place.length == 0 || !zequals(store.text().span(place), values[index]))
        return false;
    const ZLayer* found = layerAt(place.offset);
    if (found == nullptr || !isLoaded(model, *found))
        return false;
    layer = found;
    const uint32_t entry = entryOf(store, *found, place.offset);
    line = found->kind == ZLayer::file && entry < found->textEnd ? lineOf(model, *found, entry) : 0;
    return true;
}

// The place of the entry of a value. One that is spelled anew has it ahead of itself.
uint32_t ZLayerSet::entryOf(const ZPStore& store, const ZLayer& layer, uint32_t place) {
    if (store.dialect() == nullptr || layer.kind != ZLayer::file || place < layer.textEnd)
        return place;
    uint32_t entry;
    memcpy(&entry, store.text(place - sizeof entry), sizeof entry);
    return entry;
}

// The layer that has these bytes, which are read in the order of the layers; null if none has.
const ZLayer* ZLayerSet::layerAt(uint32_t offset) const {
    size_t first = 0, end = loaded_.read.size();
    while (first < end) {
        const size_t middle = (first + end) / 2;
        const ZLayer& layer = loaded_.layers[loaded_.read[middle]];
        if (offset < layer.start)
            end = middle;
        else if (offset >= layer.end)
            first = middle + 1;
        else
            return &layer;
    }
    return nullptr;
}

// ---------------------------------------------------------------- all entries

// Whether the model has a value of an entry that stands in this part of its text.
class ZLayerSet::Counting {
public:
    Counting(const ZLayerSet& set, const ZPStore& store) : set_(set), store_(store) {}

    bool operator()(ZSpan stanza, ZSpan key, ZPStore::Kind kind, uint32_t start,
                    uint32_t end) const {
        const ZPId id = store_.keyInMap(stanza, key);
        if (id == ZPStore::none)
            return false;
        const uint32_t count = store_.values(id, kind).count();
        uint32_t first = 0, last = count;  // places rise: they were read one behind the other
        while (first < last) {
            const uint32_t middle = (first + last) / 2;
            const ZPSlice slice = store_.placeOfValue(id, kind, middle);
            const uint32_t place = slice.length == 0 ? UINT32_MAX : entryAt(slice.offset);
            if (place >= end)
                last = middle;
            else if (place < start)
                first = middle + 1;
            else
                return true;
        }
        return false;
    }
    // An entry without a value counts if nothing gives the key any.
    bool withoutValue(ZSpan stanza, ZSpan key, bool isBare = false) const {
        const ZPId id = store_.keyInMap(stanza, key);
        return id != ZPStore::none && store_.values(id, ZPStore::plain).count() == 0 &&
               store_.values(id, ZPStore::hidden).count() == 0 && store_.isBare(id) == isBare;
    }

private:
    uint32_t entryAt(uint32_t place) const {
        const ZLayer* layer = store_.dialect() == nullptr ? nullptr : set_.layerAt(place);
        return layer == nullptr ? place : entryOf(store_, *layer, place);
    }

    const ZLayerSet& set_;
    const ZPStore& store_;
};

void ZLayerSet::walk(const ZSCFData& model, Visitor visit, void* data) const {
    for (const size_t index : loaded_.read) {
        const ZLayer& layer = loaded_.layers[index];
        if (!isLoaded(model, layer))
            return;
        if (layer.kind == ZLayer::file && storeOf(model).dialect() != nullptr) {
            walkEntries(model, layer, visit, data);
            continue;
        }
        if (layer.kind == ZLayer::file) {
            walkText(model, layer, visit, data);
            walkHidden(model, layer, visit, data);
            continue;
        }
        const ZPStore& store = storeOf(model);
        const bool isHidden = layer.kind == ZLayer::credential;
        const ZSpan value = store.text().span({layer.start, layer.end - layer.start});
        const ZSpan stanza = zspanOf(layer.stanza), key = zspanOf(layer.key);
        const Counting counts(*this, store);
        const bool has = value.size == 0
                             ? counts.withoutValue(stanza, key)
                             : counts(stanza, key, isHidden ? ZPStore::hidden : ZPStore::plain,
                                      layer.start, layer.end);
        visit(data, {stanza, key, value, &layer, 0, isHidden, has, false});
    }
}

void ZLayerSet::walkText(const ZSCFData& model, const ZLayer& layer, Visitor visit,
                         void* data) const {
    const ZPStore& store = storeOf(model);
    const ZLineGrammar grammar;
    const Counting counts(*this, store);
    ZSpan stanza = {nullptr, 0};
    int line = 1;
    for (uint32_t at = layer.start; at < layer.textEnd;) {
        const char* text = store.text(at);
        const size_t length = zlineLength(text, layer.textEnd - at);
        const ZLineParts parts = grammar.divideRaw({text, length});
        const bool isSide =
            zequals(stanza, zspanOf(kSideStanza)) && zequals(parts.name, zspanOf(kSideKey));
        if (parts.kind == zlineHeader) {
            stanza = parts.name;
        } else if (parts.kind == zlineEntry && !isSide) {
            const uint32_t place = at + static_cast<uint32_t>(parts.value.data - text);
            const bool has = parts.value.size == 0
                                 ? counts.withoutValue(stanza, parts.name)
                                 : counts(stanza, parts.name, ZPStore::plain, place, place + 1);
            visit(data, {stanza, parts.name, parts.value, &layer, line, false, has, false});
        }
        line += text[length - 1] == '\n';
        at += static_cast<uint32_t>(length);
    }
}

void ZLayerSet::walkEntries(const ZSCFData& model, const ZLayer& layer, Visitor visit,
                            void* data) const {
    const ZPStore& store = storeOf(model);
    const Counting counts(*this, store);
    const ZSpan text = store.text().span({layer.start, layer.textEnd - layer.start});
    ZDialectEntries entries(*store.dialect(), text);
    ZDialectPart entry;
    ZSpan stanza;
    while (entries.next(entry, stanza)) {
        const uint32_t at = layer.start + static_cast<uint32_t>(entry.lines.data - text.data);
        const uint32_t end = at + static_cast<uint32_t>(entry.lines.size);
        const bool isBare = entry.kind == ZDialectPart::bareEntry;
        const bool has = entry.value.size == 0
                             ? counts.withoutValue(stanza, entry.name, isBare)
                             : counts(stanza, entry.name, ZPStore::plain, at, end);
        visit(data, {stanza, entry.name, entry.value, &layer, entry.line, false, has, isBare});
    }
}

void ZLayerSet::walkHidden(const ZSCFData& model, const ZLayer& layer, Visitor visit,
                           void* data) const {
    if (layer.side.size() == 0)
        return;
    ZSCFData own;
    zreadSide(own, zspanOf(layer.side));
    const Counting counts(*this, storeOf(model));
    const ZPStore& store = storeOf(own);
    for (ZPId key = store.firstFollowed(); key != ZPStore::none; key = store.nextFollowed(key)) {
        const ZSpan stanza = store.text().span(store.stanza(store.key(key).stanza).name);
        const ZSpan name = store.text().span(store.key(key).name);
        const ZPValueView values = store.values(key, ZPStore::hidden);
        const bool has = counts(stanza, name, ZPStore::hidden, layer.textEnd, layer.end);
        for (uint32_t i = 0; i < values.count(); ++i)
            visit(data, {stanza, name, values[i], &layer, 0, true, has, false});
    }
}
