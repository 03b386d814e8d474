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

static ZSpan spanOf(const ZLCString& text) { return {text.getChars(), text.getLength()}; }

static ZLCString textOf(ZSpan text) {
    return ZLCString(text.data, static_cast<unsigned int>(text.size));
}

void ZLayersFile::requireOneFile() const {
    zrequireNoFault({"a configuration of several files", "takes changes of values only"});
}

// ---------------------------------------------------------------- load

void ZLayersFile::load(const char* file) {
    zassert(lock().isHeld());
    zrequire(!zhasText(file) || path().equals(file));
    const ZUpdatedFile* update = openUpdate();
    readBy([&] {
        set_->load(model(), update == nullptr ? lockWait() : 0,
                   update == nullptr ? nullptr : &update->stamp);
        isStale_ = false;
    });
}

// What was stored stays so, whatever comes of reading it. Without the lock on the target: while
// others are waited for, they may wait for that.
void ZLayersFile::loadStored() {
    isStale_ = true;
    try {
        load(nullptr);
    } catch (ZPropertiesException&) {
        // No more is stored from here on without a load.
    }
}

void ZLayersFile::noteUpdateEnded() {
    if (isStale_)
        loadStored();
}

void ZLayersFile::beginUpdate(ZUpdatedFile& file) {
    zassert(lock().isHeld() && !hasUpdate());
    readBy([&] {
        ZSCFData own;
        zreadContent(own, path(), {file.descriptor}, true, file.content);
        set_->load(model(), 0, &file.stamp);
        isStale_ = false;
        requireUnhidden(place());
    });
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
    if (!isStale_ && ZLayerTree::areSettled(now) && ZLayerTree::areSame(set_->found(), now))
        return true;
    ZSCFData fresh;
    fresh.setAttributes(model().attributes(), nullptr);
    try {
        set_->loadBeside(fresh, 0);
    } catch (ZPropertiesIOException& e) {
        const bool isBusy = ZFailure{"", e.excerrno(), nullptr}.isLockedByOthers() &&
                            (strcmp(e.api(), "fcntl()") == 0 || strcmp(e.api(), "load()") == 0);
        if (!isBusy)
            throw;
        return false;
    }
    zfindDifferences(model(), fresh, differences);
    isStale_ = false;
    readBy([&] { ZModelContent::take(model(), fresh); });
    return true;
}

// ---------------------------------------------------------------- target

void ZLayersFile::setTarget(const char* root, const char* dropIn) {
    zrequire(!hasUpdate());
    const ZLayerTree& tree = set_->tree();
    const int index = tree.rootOf(root);
    zrequire(index >= 0);
    if (dropIn != nullptr && (!tree.isDropInName(dropIn) || strchr(dropIn, '/') != nullptr ||
                              strpbrk(dropIn, "\n\r") != nullptr))
        zrequireNoFault({"a drop-in's name", "needs the suffix, and no /, dot or line end"});
    ZLayerFile file = {};
    file.kind = dropIn != nullptr ? ZLayerFile::dropIn : ZLayerFile::mainFile;
    file.root = index;
    file.name = dropIn != nullptr ? ZLCString(dropIn) : tree.mainName();
    ZLCString path(tree.placeOf(file));
    if (!tree.physicalPath(path.getChars(), path))
        zraiseIO(path.getChars(), "open()", errno);
    root_ = index;
    isDropIn_ = dropIn != nullptr;
    name_ = file.name;
    setPath(path);
}

void ZLayersFile::requireTarget() const {
    if (root_ < 0)
        zrequireNoFault({"a layered configuration", "needs a target for changes"});
}

ZLayersFile::Place ZLayersFile::place() const {
    const ZVector<ZLayer>& layers = set_->layers();
    for (size_t i = 0; i < layers.size(); ++i) {
        const ZLayer& layer = layers[i];
        if (layer.kind == ZLayer::file && layer.found.root == root_ &&
            (layer.found.kind == ZLayerFile::dropIn) == isDropIn_ && layer.found.name == name_)
            return {i, i + 1};
    }
    size_t at = 0;
    while (at < layers.size() && layers[at].kind == ZLayer::file &&
           (layers[at].found.kind == ZLayerFile::mainFile ||
            (isDropIn_ && layers[at].found.kind == ZLayerFile::dropIn &&
             strcmp(layers[at].found.name.getChars(), name_.getChars()) < 0)))
        ++at;
    return {at, at};
}

// What the target holds must count, and may hide nothing that did.
void ZLayersFile::requireUnhidden(const Place& place) const {
    requireTarget();
    const ZVector<ZLayer>& layers = set_->layers();
    const ZLayerFile* own = place.below == place.above ? nullptr : &layers[place.below].found;
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
    for (const ZLayer& layer : layers) {
        const ZLayerFile& other = layer.found;
        if (reason == nullptr && isEmpty && layer.kind == ZLayer::file && &other != own &&
            other.kind == (isDropIn_ ? ZLayerFile::dropIn : ZLayerFile::mainFile) &&
            other.name == name_)
            reason = other.root > root_ ? "would be hidden by a file of a higher root"
                                        : "would hide a file of a lower root";
    }
    if (reason != nullptr)
        zrequireNoFault({"the target", reason});
}

bool ZLayersFile::prepareUpdate() {
    requireTarget();
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
    const Place target = place();
    lookAbove(target, changes);
    if ((flags_ & ZLAYERS_COLLECT) != 0 && !changes.empty())
        divide(target, before, changes);
    noteShadows(changes);
    ZUpdatedFile* const update = openUpdate();
    if (update == nullptr && !changes.empty()) {
        requireUnhidden(target);
        prepareUpdate();
        ZLockedFile file(path.getChars(), {zlockOfDescription, lockWait()}, true);
        ZUpdatedFile own = {};
        own.descriptor = file.descriptor();
        put(own, target, changes);
        zcheckIO(file.finish());
        return loadStored();
    }
    if (!changes.empty()) {
        put(*update, target, changes);
        isStale_ = true;
    }
    // What was changed and changed back has its origins again.
    readBy([&] {
        if (changes.empty())
            ZModelContent::take(model(), before);
    });
}

void ZLayersFile::findChanges(const ZSCFData& before, ZVector<Change>& changes) const {
    ZVector<ZPropDifference> differences;
    zfindDifferences(before, model(), differences);
    const ZPStore& store = ZModelReading::storeOf(model());
    for (const ZPropDifference& difference : differences) {
        if (difference.key.getLength() == 0)
            continue;  // a stanza is what its keys are
        changes.push_back(
            {difference.stanza, difference.key, ZPStore::plain, {}, false, false, nullptr, 0, {}});
        Change& change = changes.back();
        const ZPId key = store.keyInMap(spanOf(change.stanza), spanOf(change.key));
        if (key == ZPStore::none)
            continue;
        change.kind = store.anyKind(key);
        const ZPValueView values = store.values(key, change.kind);
        for (uint32_t i = 0; i < values.count(); ++i)
            change.wanted.push_back(textOf(values[i]));
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
        return isAhead(spanOf(a.stanza), spanOf(a.key), spanOf(b.stanza), spanOf(b.key));
    });
    if (changes.empty())
        return;
    const ZVector<ZLayer>& layers = set_->layers();
    set_->forEachValue(model(), [&](const ZLayerValue& value) {
        if (static_cast<size_t>(value.layer - layers.data()) < place.above)
            return;
        const auto found = std::lower_bound(
            changes.begin(), changes.end(), value, [](const Change& a, const ZLayerValue& b) {
                return isAhead(spanOf(a.stanza), spanOf(a.key), b.stanza, b.key);
            });
        if (found == changes.end() || !zequals(spanOf(found->stanza), value.stanza) ||
            !zequals(spanOf(found->key), value.key))
            return;
        if (found->above != value.layer)
            found->aboveValues.clear();
        found->above = value.layer;
        found->line = value.line;
        if (value.value.size != 0)
            found->aboveValues.push_back(textOf(value.value));
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
    const auto valuesOf = [](const ZSCFData& model, const Change& change, ZVector<ZLCString>& out) {
        const ZPStore& store = ZModelReading::storeOf(model);
        const ZPId key = store.keyInMap(spanOf(change.stanza), spanOf(change.key));
        if (key == ZPStore::none)
            return;
        const ZPValueView values = store.values(key, store.anyKind(key));
        for (uint32_t i = 0; i < values.count(); ++i)
            out.push_back(textOf(values[i]));
    };
    const auto startsWith = [](const ZVector<ZLCString>& all, const ZVector<ZLCString>& first) {
        return all.size() >= first.size() && std::equal(first.begin(), first.end(), all.begin());
    };
    for (Change& change : changes) {
        ZVector<ZLCString> low, own, all;
        valuesOf(below, change, low);
        valuesOf(with, change, own);
        valuesOf(before, change, all);
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
        const bool isEmpty = change.wanted.empty() && (below.countValues(stanza, key) != 0 ||
                                                       model().contains(stanza, key) != 0);
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
