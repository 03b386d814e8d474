// zlayersfile.cpp: a store finds what was changed since the load, and makes these changes in what
// the target holds by now, under its lock, as any program changes a file.
#include "zlayersfile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "ZStanzaFileProperties.h"
#include "zmodelcontent.h"
#include "zmodeledits.h"
#include "zmodelreading.h"
#include "zpropdiff.h"
#include "zrefusal.h"

// The first line of a drop-in that was made here: such a one goes with its last key.
static const char kMark[] = "# Made for changed keys; removed with the last of them.";

void ZLayersFile::requireOneFile() const {
    zrequireNoFault({"a configuration of several files", "takes changes of values only"});
}

// ---------------------------------------------------------------- load

// All files or, if one can't be read, nothing: the object is then what it was.
void ZLayersFile::loadAll(unsigned long wait, const ZFileStamp* own,
                          ZVector<ZPropDifference>* differences) {
    ZSCFData fresh;
    fresh.setAttributes(model().attributes(), nullptr);
    set_->loadBeside(fresh, wait, own);
    isStale_ = false;
    // The set belongs to what it has read, whatever comes of telling the differences.
    readBy([&] { ZModelContent::take(model(), fresh); });
    if (differences != nullptr)
        zfindDifferences(fresh, model(), *differences);
}

void ZLayersFile::load(const char* file) {
    zassert(lock().isHeld());
    zrequire(!zhasText(file) || path().equals(file));
    const ZUpdatedFile* update = openUpdate();
    loadAll(update == nullptr ? lockWait() : 0, update == nullptr ? nullptr : &update->stamp);
}

// What was stored stays so, and the object as it is, if reading it fails. Outside of an update it
// has no lock: while others are waited for, they may wait for that.
void ZLayersFile::loadStored() {
    isStale_ = true;
    try {
        load(nullptr);
    } catch (ZPropertiesException&) {
        readBy([] {});  // until the next load its values are right and their origins missing
    }
}

void ZLayersFile::noteUpdateEnded() {
    if (isStale_)
        loadStored();
}

void ZLayersFile::beginUpdate(ZUpdatedFile& file) {
    zassert(lock().isHeld() && !hasUpdate());
    loadAll(0, &file.stamp);
    ZVector<ZLayerFile> files;
    for (const ZLayer& layer : set_->layers())
        if (layer.kind == ZLayer::file)
            files.push_back(layer.found);
    const Place target = placeIn(files);
    requireUnhidden(files, target);
    const bool isThere = target.below != target.above;
    if (!isThere || !zsameFile(files[target.below].stamp, file.stamp))
        zraiseIO(path().getChars(), "stat()", ESTALE);
    if (set_->tree().hasPrefix() && set_->layers()[target.below].side.size() != 0)
        zrequireNoFault({"the target", "has hidden values, which can't be changed below a prefix"});
    ZSCFData own;
    zreadContent(own, path(), {file.descriptor}, true, file.content);
    setUpdate(file);
}

void ZLayersFile::restore(const ZUpdatedFile&) {
    readBy([&] {
        ZSCFData before;
        set_->rebuild(model(), set_->layers().size(), before);
        ZModelContent::take(model(), before);
    });
}

// ---------------------------------------------------------------- watch

bool ZLayersFile::listWatched(ZVector<ZWatchedPath>& paths) const {
    ZVector<ZLayerFile> now;
    set_->tree().find(now);
    set_->tree().listWatched(now, paths);
    return true;
}

bool ZLayersFile::catchUp(ZVector<ZPropDifference>& differences) {
    ZVector<ZLayerFile> now;
    set_->tree().find(now);
    // A hidden value may have changed without a trace in its text.
    bool hasSide = false;
    for (const ZLayer& layer : set_->layers())
        hasSide = hasSide || layer.side.size() != 0;
    if (!isStale_ && !hasSide && ZLayerTree::areSettled(set_->found()) &&
        ZLayerTree::areSame(set_->found(), now))
        return true;
    try {
        loadAll(0, nullptr, &differences);
    } catch (ZPropertiesIOException& e) {
        if (!zisBusy(e))
            throw;
        return false;
    }
    return true;
}

// ---------------------------------------------------------------- target

void ZLayersFile::setTarget(const char* root, const char* dropIn) {
    zrequire(!hasUpdate());
    const ZLayerTree& tree = set_->tree();
    const int index = tree.rootOf(root);
    if (index < 0)
        zrequireNoFault({"a root", "has to be one of the configuration's"});
    if (dropIn != nullptr && (!tree.isDropInName(dropIn) || strchr(dropIn, '/') != nullptr ||
                              strpbrk(dropIn, "\n\r") != nullptr))
        zrequireNoFault({"a drop-in's name", "needs the suffix, and no /, dot or line end"});
    root_ = index;
    isDropIn_ = dropIn != nullptr;
    name_ = dropIn != nullptr ? ZLCString(dropIn) : tree.mainName();
    findPath();
}

// Where the target is, by the links that are there now.
void ZLayersFile::findPath() {
    ZLayerFile file = {};
    file.kind = isDropIn_ ? ZLayerFile::dropIn : ZLayerFile::mainFile;
    file.root = root_;
    file.name = name_;
    ZLCString path(set_->tree().placeOf(file));
    if (!set_->tree().physicalPath(path.getChars(), path))
        zraiseIO(path.getChars(), "open()", errno);
    setPath(path);
}

void ZLayersFile::requireTarget() const {
    if (root_ < 0)
        zrequireNoFault({"a layered configuration", "needs a target for changes"});
}

ZLayersFile::Place ZLayersFile::placeIn(const ZVector<ZLayerFile>& files) const {
    const ZLayerFile::Kind kind = isDropIn_ ? ZLayerFile::dropIn : ZLayerFile::mainFile;
    for (size_t i = 0; i < files.size(); ++i)
        if (files[i].root == root_ && files[i].kind == kind && files[i].name == name_)
            return {i, i + 1};
    size_t at = 0;
    // A folder of drop-ins that is bad stands ahead of them.
    while (at < files.size() && (files[at].kind == ZLayerFile::mainFile ||
                                 (isDropIn_ && files[at].kind == ZLayerFile::dropIn &&
                                  (!set_->tree().isDropInName(files[at].name.getChars()) ||
                                   strcmp(files[at].name.getChars(), name_.getChars()) < 0))))
        ++at;
    return {at, at};
}

// What the target holds must count, and may hide nothing that did.
void ZLayersFile::requireUnhidden(const ZVector<ZLayerFile>& files, const Place& place) const {
    const ZLayerFile* own = place.below == place.above ? nullptr : &files[place.below];
    const char* reason = nullptr;
    if (own != nullptr && own->state == ZLayerFile::hidden)
        reason = "is hidden by a file of a higher root";
    else if (own != nullptr && own->state == ZLayerFile::repeated)
        reason = "stands at a later place once more";
    else if (own != nullptr && own->state == ZLayerFile::bad)
        reason = "can't be read";
    else if (own != nullptr && own->isLink && set_->tree().hasPrefix())
        reason = "is a link below the prefix";
    else if (own != nullptr && own->state == ZLayerFile::masks && own->isLink)
        reason = "is a link that hides others";
    const bool isEmpty = own == nullptr || own->state == ZLayerFile::masks;
    for (const ZLayerFile& other : files)
        if (reason == nullptr && isEmpty && &other != own &&
            other.kind == (isDropIn_ ? ZLayerFile::dropIn : ZLayerFile::mainFile) &&
            other.name == name_)
            reason = other.root > root_ ? "would be hidden by a file of a higher root"
                                        : "would hide a file of a lower root";
    if (reason != nullptr)
        zrequireNoFault({"the target", reason});
}

bool ZLayersFile::prepareUpdate() {
    requireTarget();
    // By what is there now, ahead of opening or making anything.
    findPath();
    ZVector<ZLayerFile> files;
    set_->tree().find(files);
    requireUnhidden(files, placeIn(files));
    // The folders alone: nobody takes an empty one for anything.
    const char* at = path().getChars();
    while ((at = strchr(at + 1, '/')) != nullptr) {
        const ZLCString folder(path().getChars(),
                               static_cast<unsigned int>(at - path().getChars()));
        if (mkdir(folder.getChars(), 0777) != 0 && errno != EEXIST && errno != EROFS &&
            errno != EACCES)
            zraiseIO(folder.getChars(), "mkdir()", errno);
    }
    return true;
}

// ---------------------------------------------------------------- store

void ZLayersFile::store(const ZLCString& path) {
    zassert(lock().isHeld());
    requireLoaded();
    requireTarget();
    zrequire(path == this->path());
    shadows_ = Shadows();
    ZSCFData before;
    set_->rebuild(model(), set_->layers().size(), before);
    ZVector<Change> changes;
    findChanges(before, changes);
    const Place target = placeIn(set_->found());
    lookAbove(target, changes);
    if ((flags_ & ZLAYERS_COLLECT) != 0 && !changes.empty())
        divide(target, before, changes);
    noteShadows(changes);
    ZUpdatedFile* const update = openUpdate();
    if (!changes.empty() && isStale_ && update != nullptr)
        zrequireNoFault(
            {"the target", "was stored in this update, and not all could be read since"});
    if (!changes.empty() && update == nullptr) {
        prepareUpdate();
        ZLockedFile file(this->path().getChars(), {zlockOfDescription, lockWait()}, true);
        ZUpdatedFile own = {};
        own.descriptor = file.descriptor();
        put(own, target, changes);
        file.forgetCreated();
        zcheckIO(file.finish());
        loadStored();
    } else if (!changes.empty()) {
        put(*update, target, changes);
        loadStored();
    } else {
        // What was changed and changed back has its origins again.
        readBy([&] { ZModelContent::take(model(), before); });
    }
}

// Adds the values of a key to `out`, which stays as it is without one. Their kind.
static ZPStore::Kind valuesOf(const ZSCFData& model, const ZLCString& stanza, const ZLCString& key,
                              ZVector<ZLCString>& out) {
    const ZPStore& store = ZModelReading::storeOf(model);
    const ZPId id = store.keyInMap(zspanOf(stanza), zspanOf(key));
    if (id == ZPStore::none)
        return ZPStore::plain;
    const ZPStore::Kind kind = store.anyKind(id);
    const ZPValueView values = store.values(id, kind);
    for (uint32_t i = 0; i < values.count(); ++i)
        out.push_back(ztextOf(values[i]));
    return kind;
}

void ZLayersFile::findChanges(const ZSCFData& before, ZVector<Change>& changes) const {
    ZVector<ZPropDifference> differences;
    zfindDifferences(before, model(), differences);
    for (const ZPropDifference& difference : differences) {
        if (difference.key.getLength() == 0)
            continue;  // a stanza is what its keys are
        changes.push_back({difference.stanza,
                           difference.key,
                           ZPStore::plain,
                           {},
                           true,
                           false,
                           false,
                           nullptr,
                           0,
                           {}});
        Change& change = changes.back();
        change.kind = valuesOf(model(), change.stanza, change.key, change.wanted);
        change.isEmptied = change.wanted.empty();
        if (change.kind == ZPStore::hidden && set_->tree().hasPrefix())
            zrequireNoFault({"a hidden value", "can't be stored below a prefix"});
    }
}

static int compare(ZSpan a, ZSpan b) {
    const size_t shared = std::min(a.size, b.size);
    const int order = shared == 0 ? 0 : memcmp(a.data, b.data, shared);
    return order != 0 ? order : (a.size > b.size) - (a.size < b.size);
}

static bool isAhead(ZSpan stanzaA, ZSpan keyA, ZSpan stanzaB, ZSpan keyB) {
    const int stanzas = compare(stanzaA, stanzaB);
    return stanzas != 0 ? stanzas < 0 : compare(keyA, keyB) < 0;
}

// Which values the last file above the target gives the keys, and so which changes aren't seen.
void ZLayersFile::lookAbove(const Place& place, ZVector<Change>& changes) const {
    std::sort(changes.begin(), changes.end(), [](const Change& a, const Change& b) {
        return isAhead(zspanOf(a.stanza), zspanOf(a.key), zspanOf(b.stanza), zspanOf(b.key));
    });
    if (changes.empty())
        return;
    const ZVector<ZLayer>& layers = set_->layers();
    set_->forEachValue(model(), [&](const ZLayerValue& value) {
        if (static_cast<size_t>(value.layer - layers.data()) < place.above)
            return;
        const auto found = std::lower_bound(
            changes.begin(), changes.end(), value, [](const Change& a, const ZLayerValue& b) {
                return isAhead(zspanOf(a.stanza), zspanOf(a.key), b.stanza, b.key);
            });
        if (found == changes.end() || !zequals(zspanOf(found->stanza), value.stanza) ||
            !zequals(zspanOf(found->key), value.key))
            return;
        if (found->above != value.layer)
            found->aboveValues.clear();
        found->above = value.layer;
        found->line = value.line;
        if (value.value.size != 0)
            found->aboveValues.push_back(ztextOf(value.value));
    });
    for (Change& change : changes)
        change.isShadowed = change.above != nullptr && change.aboveValues != change.wanted;
}

// Where values are collected the target gets those between the lower files' and the higher ones'.
// If lower ones' aren't wanted, it says so; higher ones' that aren't are a shadow.
void ZLayersFile::divide(const Place& place, const ZSCFData& before,
                         ZVector<Change>& changes) const {
    ZSCFData below, with;
    set_->rebuild(model(), place.below, below);
    set_->rebuild(model(), place.above, with);
    const auto startsWith = [](const ZVector<ZLCString>& all, const ZVector<ZLCString>& first) {
        return all.size() >= first.size() && std::equal(first.begin(), first.end(), all.begin());
    };
    for (Change& change : changes) {
        ZVector<ZLCString> low, own, all;
        valuesOf(below, change.stanza, change.key, low);
        valuesOf(with, change.stanza, change.key, own);
        valuesOf(before, change.stanza, change.key, all);
        ZVector<ZLCString>& wanted = change.wanted;
        const size_t high = startsWith(all, own) ? all.size() - own.size() : 0;
        const bool endsWithHigh =
            wanted.size() >= high && std::equal(all.end() - static_cast<ptrdiff_t>(high), all.end(),
                                                wanted.end() - static_cast<ptrdiff_t>(high));
        change.isShadowed = !startsWith(all, own) || !endsWithHigh;
        if (endsWithHigh)
            wanted.erase(wanted.end() - static_cast<ptrdiff_t>(high), wanted.end());
        if (startsWith(own, low) && startsWith(wanted, low))
            wanted.erase(wanted.begin(), wanted.begin() + static_cast<ptrdiff_t>(low.size()));
        else
            change.forgets = !low.empty();
    }
}

void ZLayersFile::noteShadows(const ZVector<Change>& changes) {
    for (const Change& change : changes) {
        if (!change.isShadowed || shadows_.count++ != 0)
            continue;
        shadows_.file = change.above->found.path;
        shadows_.line = change.line;
    }
    if (shadows_.count != 0 && (flags_ & ZLAYERS_REFUSE_SHADOWED) != 0)
        zrequireNoFault({"a key", "has other values by a file above the target"});
}

static bool hasKeys(const ZSCFData& model) {
    const ZPStore& store = ZModelReading::storeOf(model);
    bool has = false;
    store.forEachStanza([&](ZPId stanza) { has = has || store.stanza(stanza).count != 0; });
    return has;
}

// Makes the changes in the file, which is locked.
void ZLayersFile::put(ZUpdatedFile& file, const Place& place, const ZVector<Change>& changes) {
    ZSCFData below;
    set_->rebuild(model(), place.below, below);
    ZStanzaFileProperties target(1);
    target.setAttributes(model().attributes() | ZPCACHE_KEEP_COMMENTS | ZPCACHE_KEEP_LINES,
                         nullptr);
    target.setStoreMode(ZPROP_STORE_SAFE);
    ZPropertiesFile& own = ZPropertiesFile::of(target);
    ZProperties::ZPropResourceLock guard(own.lock());
    own.setPath(path());
    own.beginUpdate(file);
    const ZAtEnd ended([&] { own.endUpdate(); });
    const bool isNew = file.content.text.size() == 0 && isDropIn_;
    for (const Change& change : changes) {
        const char *stanza = change.stanza.getChars(), *key = change.key.getChars();
        const bool isHidden = change.kind == ZPStore::hidden;
        // That lower files' values don't count has to be said.
        const bool isEmpty =
            change.wanted.empty() && (change.isEmptied ? below.countValues(stanza, key) != 0 ||
                                                             model().contains(stanza, key) != 0
                                                       : change.forgets);
        const bool isOtherKind =
            target.exists(stanza, key) && (target.isObfuscated(stanza, key) != 0) != isHidden;
        if ((change.wanted.empty() && !isEmpty) || isOtherKind || change.forgets)
            target.deleteKey(stanza, key);
        if (isEmpty)
            target.setValue(stanza, key, "");
        for (const ZLCString& value : change.wanted) {
            if (&value == &change.wanted.front())
                target.setValue(stanza, key, value.getChars(), isHidden);
            else
                target.addValue(stanza, key, value, isHidden);
        }
        if (change.forgets && !change.wanted.empty())
            ZModelEdits::addForgettingLine(static_cast<ZSCFData&>(own.cache()), stanza, key);
    }
    if (isNew)
        target.addFileComment(kMark);
    target.store(path().getChars());
    noteStoreMode(own.lastStoreMode());
    const ZSpan text = zspanOf(file.content.text);
    if (isDropIn_ && !hasKeys(static_cast<ZSCFData&>(own.cache())) && text.size >= sizeof kMark &&
        memcmp(text.data, kMark, sizeof kMark - 1) == 0)
        removeTarget(file);
}

void ZLayersFile::removeTarget(const ZUpdatedFile& file) const {
    ZPlace place;
    if (place.find(path().getChars(), file.descriptor) ||
        unlinkat(place.folder(), place.name(), 0) != 0)
        return;  // a drop-in without keys does no harm
    rmdir(zfolderOf(path().getChars()).getChars());
}
