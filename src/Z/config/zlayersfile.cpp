// zlayersfile.cpp: a store finds what was changed since the load, and makes these changes in what
// the target holds by now, under its lock, as any program changes a file.
#include "zlayersfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "ZStanzaFileProperties.h"
#include "zdialectentries.h"
#include "zgrammar.h"
#include "zlayerfinding.h"
#include "zmodelcontent.h"
#include "zmodeledits.h"
#include "zmodelreading.h"
#include "zmemorystream.h"
#include "zpropdiff.h"
#include "zrefusal.h"
#include "zreport.h"

// The first line of a drop-in that was made here: such a one goes with its last key.
static const char kMark[] = "# Made for changed keys; removed with the last of them.";

void ZLayersFile::setTerms(const ZLayersTerms& terms) {
    set_.reset(new ZLayerSet(terms));
    flags_ = terms.flags;
    const ZDialect* dialect = ZLayerTree::dialectOf(terms);
    if (dialect == nullptr)
        return;
    setDialect(*dialect);
    if (!isCollecting() || dialect->values != ZDIALECT_ALL_VALUES)
        return;
    // Then it is so within a file too.
    ZDialect own(*dialect);
    own.values = ZDIALECT_RESET_VALUES;
    setOwnDialect(own);
}

// In the characters that begin comments there.
ZLCString ZLayersFile::mark() const {
    ZLCString mark(kMark);
    if (dialect() != nullptr && dialect()->comments == ZDIALECT_SEMICOLON)
        mark.replace("#", ";");
    return mark;
}

void ZLayersFile::requireOneFile() const {
    zrequireNoFault({"a configuration of several files", "takes changes of values only"});
}

// ---------------------------------------------------------------- load

// All files or, if one can't be read, nothing: the object is then what it was.
void ZLayersFile::loadAll(unsigned long wait, const ZFileStamp* own,
                          ZVector<ZPropDifference>* differences) {
    ZSCFData fresh;
    ZModelReading::beLike(fresh, model());
    ZLayerSet::Loaded before;
    set_->loadBeside(fresh, wait, own, before);
    isStale_ = false;
    stored_.clear();
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
    zrunAnyway([this] { load(nullptr); });
    if (isStale_)
        readBy([] {});  // until the next load its values are right and their origins missing
}

// What the files hold, as far as it was read or stored here.
void ZLayersFile::rebuildStored(ZSCFData& out) const {
    set_->rebuild(model(), set_->layers().size(), out);
    ZPStore& store = ZModelReading::storeOf(out);
    store.beginLayer(false);
    for (const Change& change : stored_) {
        const ZPId known = store.keyInMap(zspanOf(change.stanza), zspanOf(change.key));
        if (known != ZPStore::none)
            store.removeKey(known);
        const auto add = [&](ZSpan value) {
            store.addLayerValue(zspanOf(change.stanza), zspanOf(change.key), change.kind, value);
        };
        for (const ZLCString& value : change.wanted)
            add(zspanOf(value));
        if (change.wanted.empty() && !change.isGone)
            add({nullptr, 0});
        if (change.isBare)
            store.markBare(store.keyInMap(zspanOf(change.stanza), zspanOf(change.key)));
    }
    store.endLayers();
}

void ZLayersFile::settleUpdate(const ZUpdatedFile& file) {
    if (!isLeftOver_)
        return;
    removeTarget(file);
    isLeftOver_ = false;
    isStale_ = true;
}

void ZLayersFile::noteUpdateEnded() {
    const Place target = placeIn(found());
    // One that was made for the update and has nothing in it is gone by now.
    const bool wasEmpty =
        target.below != target.above && found()[target.below].state == ZLayerFile::masks;
    if (isStale_ || wasEmpty)
        loadStored();
}

// As it was loaded: that it is bad may have shown only then.
void ZLayersFile::requireReadable(const Place& place) const {
    if (place.below == place.above)
        return;
    const ZLayer& own = set_->layers()[place.below];
    if (own.isBad())
        zrequireNoFault({"the target", "can't be read"});
    if (set_->tree().hasPrefix() && own.namesSide)
        zrequireNoFault({"the target", "has hidden values, which can't be changed below a prefix"});
}

// The target is locked; what was found then tells where it is.
ZLayersFile::Place ZLayersFile::requireLocked(const ZFileStamp& stamp) const {
    const Place target = placeIn(found());
    requireUnhidden(found(), target, &stamp);
    if (target.below == target.above || !zsameFile(found()[target.below].stamp, stamp))
        zraiseIO(path().getChars(), "stat()", ESTALE);
    requireReadable(target);
    return target;
}

void ZLayersFile::beginUpdate(ZUpdatedFile& file) {
    zassert(lock().isHeld() && !hasUpdate());
    isLeftOver_ = false;
    loadAll(0, &file.stamp);
    requireLocked(file.stamp);
    ZSCFData own;
    ZModelReading::beLike(own, model());
    zreadContent(own, path(), {file.descriptor}, true, file.content);
    setUpdate(file);
}

void ZLayersFile::restore(const ZUpdatedFile&) {
    readBy([&] {
        ZSCFData before;
        rebuildStored(before);
        ZModelContent::take(model(), before);
    });
}

void ZLayersFile::requireOthersFree() {
    ZSCFData now;
    ZLayerSet::Loaded before;
    set_->loadBeside(now, 0, nullptr, before);
    set_->swapLoaded(before);
}

// ---------------------------------------------------------------- watch

bool ZLayersFile::listWatched(ZVector<ZWatchedPath>& paths) const {
    ZVector<ZLayerFile> now;
    ZLayerFinding(set_->tree()).find(now);
    set_->tree().listWatched(now, paths);
    return true;
}

bool ZLayersFile::catchUp(ZVector<ZPropDifference>& differences) {
    ZVector<ZLayerFile> now;
    ZLayerFinding(set_->tree()).find(now);
    // A hidden value may have changed without a trace in its text.
    bool hasSide = false;
    for (const ZLayer& layer : set_->layers())
        hasSide = hasSide || layer.side.size() != 0;
    if (!isStale_ && !hasSide && ZLayerTree::areSettled(found()) &&
        ZLayerTree::areSame(found(), now))
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
    while (at < files.size() && (files[at].kind == ZLayerFile::mainFile ||
                                 (isDropIn_ && files[at].kind == ZLayerFile::dropIn &&
                                  strcmp(files[at].name.getChars(), name_.getChars()) < 0)))
        ++at;
    return {at, at};
}

// One root may be another by a link.
bool ZLayersFile::isSameFile(const ZLayerFile& file, const ZFileStamp& stamp) const {
    ZLCString path(set_->tree().placeOf(file));
    ZFileStamp named = {};
    return set_->tree().physicalPath(path.getChars(), path) &&
           !zstampFile(path.getChars(), named) && zsameFile(named, stamp);
}

// What the target holds must count, and may hide nothing that did.
// `locked`: it is open; null: not yet, and it is known by what was found.
void ZLayersFile::requireUnhidden(const ZVector<ZLayerFile>& files, const Place& place,
                                  const ZFileStamp* locked) const {
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
    const ZFileStamp* same = locked != nullptr || own == nullptr ? locked : &own->stamp;
    for (const ZLayerFile& other : files)
        if (reason == nullptr && isEmpty && &other != own &&
            other.kind == (isDropIn_ ? ZLayerFile::dropIn : ZLayerFile::mainFile) &&
            other.name == name_ && !(same != nullptr && isSameFile(other, *same)))
            reason = other.root > root_ ? "would be hidden by a file of a higher root"
                                        : "would hide a file of a lower root";
    if (reason != nullptr)
        zrequireNoFault({"the target", reason});
}

// By what is there now, ahead of opening or making anything.
void ZLayersFile::settleTarget() {
    requireTarget();
    findPath();
    ZVector<ZLayerFile> files;
    ZLayerFinding(set_->tree()).find(files);
    requireUnhidden(files, placeIn(files), nullptr);
}

std::unique_ptr<ZLockedFile> ZLayersFile::openToUpdate(unsigned long wait) {
    static const int kMostTries = 16;
    for (int tries = 1;; ++tries) {
        settleTarget();
        try {
            return std::unique_ptr<ZLockedFile>(
                new ZLockedFile(path().getChars(), makeFolder(), {zlockOfDescription, wait}, true));
        } catch (ZPropertiesIOException& e) {
            // Somebody has removed his last drop-in with the folder, or has turned a link.
            const bool isGone = e.excerrno() == ENOENT || e.excerrno() == ESTALE;
            if (!isGone || tries == kMostTries)
                throw;
        }
    }
}

// The folders alone: nobody takes an empty one for anything. Below a prefix the last one is given,
// open; it was come to by no link.
int ZLayersFile::makeFolder() const {
    const ZLayerTree& tree = set_->tree();
    const char* at = path().getChars();
    ZOpenFile folder;
    if (tree.hasPrefix()) {
        folder.reset(tree.openBase());
        if (folder.get() < 0)
            zraiseIO(at, "open() of the folder", errno);
        at += tree.prefix().getLength();
    }
    while (const char* end = strchr(at + 1, '/')) {
        const ZLCString way(path().getChars(), static_cast<unsigned int>(end - path().getChars()));
        const ZLCString part(at + 1, static_cast<unsigned int>(end - at - 1));
        const bool isBelow = tree.hasPrefix();
        const char* name = isBelow ? part.getChars() : way.getChars();
        const ZFailure made =
            zresultOf(mkdirat(isBelow ? folder.get() : AT_FDCWD, name, 0777), "mkdir()");
        // Where nothing may be made, one that is there does as well.
        if (made && made.error != EEXIST &&
            faccessat(isBelow ? folder.get() : AT_FDCWD, name, F_OK, AT_EACCESS) != 0)
            zcheckIO(made.of(way.getChars()));
        if (isBelow) {
            const int next = zopenFileAt(folder.get(), name, O_PATH | O_DIRECTORY | O_NOFOLLOW);
            if (next < 0)
                zraiseIO(way.getChars(), "open() of the folder",
                         errno == ELOOP || errno == ENOTDIR ? ESTALE : errno);
            folder.reset(next);
        }
        at = end;
    }
    return folder.release();
}

// ---------------------------------------------------------------- store

void ZLayersFile::store(const ZLCString& path) {
    zassert(lock().isHeld());
    shadows_ = Shadows();
    requireLoaded();
    requireTarget();
    zrequire(path == this->path());
    ZSCFData before;
    rebuildStored(before);
    ZVector<Change> changes;
    findChanges(before, changes);
    if (changes.empty()) {
        // What was changed and changed back has its origins again.
        readBy([&] { ZModelContent::take(model(), before); });
        return;
    }
    const Place target = placeChanges(changes);
    ZVector<Change> stored(stored_);
    stored.insert(stored.end(), changes.begin(), changes.end());
    ZUpdatedFile* const update = openUpdate();
    if (update == nullptr) {
        shadows_ = storeByItself(changes);
    } else {
        if (isStale_)
            zrequireNoFault(
                {"the target", "was stored in this update, and not all could be read since"});
        const Shadows shadows(shadowsOf(changes));
        put(*update, model(), target, changes);
        shadows_ = shadows;
    }
    stored_.swap(stored);
    loadStored();
}

void ZLayersFile::foresee(ZBuffer& before, ZBuffer& now) {
    zassert(lock().isHeld() && !hasUpdate());
    shadows_ = Shadows();
    requireLoaded();
    settleTarget();
    ZSCFData loaded;
    rebuildStored(loaded);
    ZVector<Change> changes;
    findChanges(loaded, changes);
    const Place target = placeChanges(changes);
    requireReadable(target);
    const Shadows shadows(shadowsOf(changes));
    ZOpenFile opened;
    ZLockScope lock(opened, zlockOfDescription);
    opened.reset(zopenRegularFile(path().getChars(), O_RDWR));  // as a store would
    // A file that isn't there holds as little as this one.
    if (opened.get() < 0 && (errno == ENOENT || errno == ENOTDIR))
        opened.reset(zopenFile("/dev/null", O_RDONLY));
    if (opened.get() < 0)
        zraiseIO(path().getChars(), "fopen(r+)", errno);
    zcheckIO(zlockWholeFile(opened.get(), F_RDLCK, zlockOfDescription, lockWait())
                 .of(path().getChars()));
    ZUpdatedFile file = {};
    file.descriptor = opened.get();
    file.isNew = target.below == target.above;
    put(file, model(), target, changes, &now);
    const ZSpan text = zspanOf(file.content.text);
    before.setBuffer(text.size, const_cast<char*>(text.data));
    shadows_ = shadows;
}

// Under the target's lock, and by what the other files hold then. While it has this lock it waits
// for none of them.
ZLayersFile::Shadows ZLayersFile::storeByItself(ZVector<Change>& changes) {
    std::unique_ptr<ZLockedFile> file;
    ZUpdatedFile updated = {};
    ZSCFData fresh;
    ZModelReading::beLike(fresh, model());
    ZLayerSet::Loaded before;
    // The target isn't made and removed again for all that time.
    zretryBusy(
        lockWait(), [&] { requireOthersFree(); },
        [&] {
            std::unique_ptr<ZLockedFile> opened(openToUpdate(0));
            updated.descriptor = opened->descriptor();
            updated.isNew = opened->isCreated();
            zcheckIO(zstampFile(updated.descriptor, updated.stamp).of(path().getChars()));
            set_->loadBeside(fresh, 0, &updated.stamp, before);
            file.swap(opened);  // which is given up where this isn't come to
        });
    // The set belongs to the object's model, which is as it was until all is loaded.
    const ZAtEnd restored([&] { set_->swapLoaded(before); });
    const Place target = requireLocked(updated.stamp);
    lookAbove(fresh, target, changes);
    const Shadows shadows(shadowsOf(changes));
    put(updated, fresh, target, changes);
    if (isLeftOver_)
        removeTarget(updated);
    file->forgetCreated();
    zcheckIO(file->finish());
    return shadows;
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

static int compare(ZSpan a, ZSpan b) {
    const size_t shared = std::min(a.size, b.size);
    const int order = shared == 0 ? 0 : memcmp(a.data, b.data, shared);
    return order != 0 ? order : (a.size > b.size) - (a.size < b.size);
}

static bool isAhead(ZSpan stanzaA, ZSpan keyA, ZSpan stanzaB, ZSpan keyB) {
    const int stanzas = compare(stanzaA, stanzaB);
    return stanzas != 0 ? stanzas < 0 : compare(keyA, keyB) < 0;
}

void ZLayersFile::findChanges(const ZSCFData& before, ZVector<Change>& changes) const {
    ZVector<ZPropDifference> differences;
    zfindDifferences(before, model(), differences);
    for (const ZPropDifference& difference : differences) {
        if (difference.key.getLength() == 0)
            continue;  // a stanza is what its keys are
        changes.emplace_back(difference);
        Change& change = changes.back();
        change.kind = valuesOf(model(), change.stanza, change.key, change.wanted);
        change.isBare =
            ZModelEdits::isBare(model(), change.stanza.getChars(), change.key.getChars()) != 0;
        change.foldedStanza = folded(zspanOf(change.stanza), true);
        change.foldedKey = folded(zspanOf(change.key), false);
        if (change.kind == ZPStore::hidden && set_->tree().hasPrefix())
            zrequireNoFault({"a hidden value", "can't be stored below a prefix"});
        change.part = change.wanted;
    }
    std::sort(changes.begin(), changes.end(), [](const Change& a, const Change& b) {
        return isAhead(zspanOf(a.foldedStanza), zspanOf(a.foldedKey), zspanOf(b.foldedStanza),
                       zspanOf(b.foldedKey));
    });
}

// The spelling of a name by which those agree that the dialect takes for the same.
ZLCString ZLayersFile::folded(ZSpan name, bool isStanza) const {
    if (dialect() == nullptr || name.size == 0)
        return ztextOf(name);
    ZBytes out;
    zdialectFold(*dialect(), name, isStanza, out);
    return ztextOf(zspanOf(out));
}

// The one of this key, of all in their order; null if there is none.
ZLayersFile::Change* ZLayersFile::changeOf(ZVector<Change>& changes, ZSpan stanza,
                                           ZSpan key) const {
    ZLCString ownStanza, ownKey;
    if (dialect() != nullptr) {
        ownStanza = folded(stanza, true);
        ownKey = folded(key, false);
        stanza = zspanOf(ownStanza);
        key = zspanOf(ownKey);
    }
    const auto found =
        std::lower_bound(changes.begin(), changes.end(), key, [stanza](const Change& a, ZSpan b) {
            return isAhead(zspanOf(a.foldedStanza), zspanOf(a.foldedKey), stanza, b);
        });
    return found != changes.end() && zequals(zspanOf(found->foldedStanza), stanza) &&
                   zequals(zspanOf(found->foldedKey), key)
               ? &*found
               : nullptr;
}

// Which values the files above the target give the keys.
void ZLayersFile::lookAbove(const ZSCFData& model, const Place& place,
                            ZVector<Change>& changes) const {
    for (Change& change : changes) {
        change.above = nullptr;
        change.isReset = change.isBareAbove = false;
        change.lastAbove = nullptr;
        change.aboveValues.clear();
        change.secrets.clear();
    }
    const ZVector<ZLayer>& layers = set_->layers();
    set_->forEachValue(model, [&](const ZLayerValue& value) {
        if (static_cast<size_t>(value.layer - layers.data()) < place.above)
            return;
        Change* const found = changeOf(changes, value.stanza, value.key);
        if (found == nullptr)
            return;
        const bool isEmpty = value.value.size == 0, isFirst = found->above != value.layer;
        const bool isLastOnly = repeats() == ZDIALECT_LAST_VALUE;
        if (isCollecting() && isLastOnly && found->lastAbove == value.layer)
            found->aboveValues.pop_back();
        const bool resets = isEmpty && repeats() == ZDIALECT_RESET_VALUES;
        noteAbove(*found, value, isCollecting() ? isEmpty : isFirst || isLastOnly || resets);
    });
}

void ZLayersFile::noteAbove(Change& change, const ZLayerValue& value, bool isReset) {
    if (isReset) {
        change.isReset = true;
        change.aboveValues.clear();
        change.secrets.clear();
        change.lastAbove = nullptr;
    }
    change.above = value.layer;
    change.line = value.line;
    change.isBareAbove = value.isBare && change.aboveValues.empty();
    if (value.value.size == 0)
        return;
    change.lastAbove = value.layer;
    change.aboveValues.push_back(ztextOf(value.value));
    if (value.layer->kind == ZLayer::credential)
        change.secrets.push_back(ztextOf(value.value));
}

static bool startsWith(const ZVector<ZLCString>& all, const ZVector<ZLCString>& first) {
    return all.size() >= first.size() && std::equal(first.begin(), first.end(), all.begin());
}

static bool endsWith(const ZVector<ZLCString>& all, const ZVector<ZLCString>& last) {
    return all.size() >= last.size() && std::equal(last.rbegin(), last.rend(), all.rbegin());
}

bool ZLayersFile::isShadowed(const Change& change) const {
    return change.above != nullptr &&
           (change.isReset
                ? change.aboveValues != change.wanted || change.isBareAbove != change.isBare
                : !endsWith(change.wanted, change.aboveValues));
}

// Where values are collected the target gets those between the lower files' and the higher ones'.
// If lower ones' aren't wanted, it says so.
void ZLayersFile::divide(const Place& place, ZVector<Change>& changes) const {
    ZSCFData below, with;
    set_->rebuild(model(), place.below, below);
    set_->rebuild(model(), place.above, with);
    for (Change& change : changes) {
        ZVector<ZLCString> low, own;
        valuesOf(below, change.stanza, change.key, low);
        valuesOf(with, change.stanza, change.key, own);
        ZVector<ZLCString>& part = change.part;
        if (!change.isReset && endsWith(part, change.aboveValues))
            part.erase(part.end() - static_cast<ptrdiff_t>(change.aboveValues.size()), part.end());
        change.whole = part;
        if (startsWith(own, low) && startsWith(part, low))
            part.erase(part.begin(), part.begin() + static_cast<ptrdiff_t>(low.size()));
        else
            change.forgets = !low.empty();
    }
}

// Where the target stands, and what it is to hold of the changed keys.
ZLayersFile::Place ZLayersFile::placeChanges(ZVector<Change>& changes) const {
    const Place target = placeIn(found());
    lookAbove(model(), target, changes);
    if (isCollecting())
        divide(target, changes);
    return target;
}

ZLayersFile::Shadows ZLayersFile::shadowsOf(const ZVector<Change>& changes) {
    Shadows shadows;
    for (const Change& change : changes) {
        if (!isShadowed(change) || shadows.count++ != 0)
            continue;
        shadows.file = change.above->found.path;
        shadows.line = change.line;
    }
    if (shadows.count != 0 && (flags_ & ZLAYERS_REFUSE_SHADOWED) != 0) {
        shadows_ = shadows;
        zrequireNoFault({"a key", "has other values by a file above the target"});
    }
    return shadows;
}

// Credentials are never written down.
static ZVector<ZLCString> withoutSecrets(const ZVector<ZLCString>& values,
                                         const ZVector<ZLCString>& secrets) {
    ZVector<ZLCString> left(values);
    for (const ZLCString& secret : secrets) {
        const auto found = std::find(left.begin(), left.end(), secret);
        if (found != left.end())
            left.erase(found);
    }
    return left;
}

// Calls visit(stanza, key, hasValue, part) for each entry of a file; `part` is null but for
// dialects.
template <typename Visit>
void ZLayersFile::forEachEntry(ZSpan text, Visit visit) const {
    ZSpan stanza = {nullptr, 0};
    if (dialect() != nullptr) {
        ZDialectEntries entries(*dialect(), text);
        ZDialectPart part;
        while (entries.next(part, stanza))
            visit(stanza, part.name, part.value.size != 0, &part);
        return;
    }
    const ZLineGrammar grammar;
    for (size_t at = 0; at < text.size;) {
        const size_t length = zlineLength(text.data + at, text.size - at);
        const ZLineParts parts = grammar.divideRaw({text.data + at, length});
        if (parts.kind == zlineHeader)
            stanza = parts.name;
        else if (parts.kind == zlineEntry)
            visit(stanza, parts.name, parts.value.size != 0, static_cast<ZDialectPart*>(nullptr));
        at += length;
    }
}

// Where the target says "key =" already it goes on doing so, ahead of the values.
void ZLayersFile::keepForgetting(ZSpan text, ZVector<Change>& changes) const {
    forEachEntry(text, [&](ZSpan stanza, ZSpan key, bool hasValue, const ZDialectPart*) {
        Change* const change = hasValue ? nullptr : changeOf(changes, stanza, key);
        if (change == nullptr || change->part.empty())
            return;
        change->forgets = true;
        change->part = change->whole;
    });
}

// "key =", spelled as an entry that has a value.
static void addEmptyEntry(const ZDialect& dialect, const ZDialectPart& like, ZBytes& out) {
    ZSpan line = zspanBetween(like.lines.data, like.raw.data);
    while (line.size != 0 && zisDialectBlank(line.data[line.size - 1]))
        --line.size;
    zappendBytes(out, line);
    if (dialect.divider == ZDIALECT_BLANK && dialect.quotes == ZDIALECT_PLAIN)
        zrequireNoFault({"a value", "can't be empty"});
    if (dialect.divider == ZDIALECT_BLANK)
        zappendBytes(out, {" \"\"", 3});
    const void* newline = memchr(like.lines.data, '\n', like.lines.size);
    const bool isLong = newline != nullptr && newline != like.lines.data &&
                        static_cast<const char*>(newline)[-1] == '\r';
    zappendBytes(out, isLong ? ZSpan{"\r\n", 2} : ZSpan{"\n", 1});
}

// Puts what a text of a dialect says into `out`, and "key =" ahead of the keys that are to forget
// lower values and don't say so.
void ZLayersFile::addForgetting(ZSpan text, ZVector<Change>& changes, ZBytes& out) const {
    struct Addition {
        size_t at = SIZE_MAX;
        ZBytes line;
    };
    ZVector<Addition> additions(changes.size());
    ZVector<bool> says(changes.size());
    forEachEntry(text, [&](ZSpan stanza, ZSpan key, bool hasValue, const ZDialectPart* part) {
        Change* const change = changeOf(changes, stanza, key);
        if (change == nullptr || !change->forgets)
            return;
        const size_t index = static_cast<size_t>(change - changes.data());
        says[index] = says[index] || !hasValue;
        Addition& own = additions[index];
        if (!hasValue || own.at != SIZE_MAX)
            return;
        own.at = static_cast<size_t>(part->lines.data - text.data);
        addEmptyEntry(*dialect(), *part, own.line);
    });
    for (size_t i = 0; i < additions.size(); ++i)
        additions[i].at = says[i] ? SIZE_MAX : additions[i].at;
    std::sort(additions.begin(), additions.end(),
              [](const Addition& a, const Addition& b) { return a.at < b.at; });
    size_t done = 0;
    for (const Addition& own : additions) {
        if (own.at == SIZE_MAX)
            break;
        zappendBytes(out, {text.data + done, own.at - done});
        zappendBytes(out, zspanOf(own.line));
        done = own.at;
    }
    zappendBytes(out, {text.data + done, text.size - done});
}

// In place of those it has. What is there twice stays so, which addValue wouldn't do.
static void setValues(ZStanzaFileProperties& target, const char* stanza, const char* key,
                      const ZVector<ZLCString>& values, bool isHidden) {
    typedef ZAbstractPropertyValuesIterator Iterator;
    target.setValue(stanza, key, values.front().getChars(), isHidden);
    ZStanzaValueIterator walk(
        target, stanza, key, ZPROP_STRING_LOCAL,
        isHidden ? Iterator::ZPROP_ITER_OBFUSCATED : Iterator::ZPROP_ITER_PLAIN);
    walk.nextValue();
    for (size_t i = 1; i < values.size(); ++i)
        walk.addValue(values[i].getChars());
}

// Makes the changes in the file, which is locked; or only in what it holds, which becomes
// `foreseen` if that isn't null. The layers are those of `model`.
void ZLayersFile::put(ZUpdatedFile& file, const ZSCFData& model, const Place& place,
                      ZVector<Change>& changes, ZBuffer* foreseen) {
    ZSCFData below;
    set_->rebuild(model, place.below, below);
    ZStanzaFileProperties target(1);
    target.setAttributes(model.attributes() | ZPCACHE_KEEP_COMMENTS | ZPCACHE_KEEP_LINES, nullptr);
    target.setStoreMode(ZPROP_STORE_SAFE);
    ZPropertiesFile& own = ZPropertiesFile::of(target);
    ZProperties::ZPropResourceLock guard(own.lock());
    if (dialect() != nullptr)
        own.setOwnDialect(*dialect());
    own.setPath(path());
    own.beginUpdate(file);
    const ZAtEnd ended([&] { own.endUpdate(); });
    const bool isNew = file.isNew && file.content.text.size() == 0 && isDropIn_;
    if (isCollecting())
        keepForgetting(zspanOf(file.content.text), changes);
    if (isNew && dialect() != nullptr) {
        const ZLCString line(mark().append('\n'));
        target.loadBytes(line.getChars(), line.getLength());
    }
    ZSCFData& content = static_cast<ZSCFData&>(own.cache());
    const ZPStore& store = ZModelReading::storeOf(content);
    ZVector<ZPId> forgetting;
    for (const Change& change : changes) {
        const char *stanza = change.stanza.getChars(), *key = change.key.getChars();
        const bool isHidden = change.kind == ZPStore::hidden;
        const ZVector<ZLCString> part(withoutSecrets(change.part, change.secrets));
        // That lower files' values don't count has to be said.
        const bool isBelow =
            below.countValues(stanza, key) != 0 || ZModelEdits::isBare(below, stanza, key) != 0;
        const bool isEmpty = part.empty() && !change.isBare &&
                             (change.wanted.empty() ? isBelow || !change.isGone : change.forgets);
        const bool isOtherKind =
            target.exists(stanza, key) && (target.isObfuscated(stanza, key) != 0) != isHidden;
        if ((part.empty() && !isEmpty && !change.isBare) || isOtherKind)
            target.deleteKey(stanza, key);
        if (change.isBare)
            target.setBare(stanza, key);
        if (isEmpty)
            target.setValue(stanza, key, "");
        if (!part.empty())
            setValues(target, stanza, key, part, isHidden);
        if (change.forgets && !part.empty())
            forgetting.push_back(store.keyInMap(zspanOf(change.stanza), zspanOf(change.key)));
    }
    const ZBytes& text = file.content.text;
    if (dialect() == nullptr) {
        ZModelEdits::addForgettingLines(content, forgetting);
        if (isNew)
            target.addFileComment(kMark);
    } else if (!forgetting.empty()) {
        ZBuffer made;
        ZBytes whole;
        target.storeBytesOver(text.data(), text.size(), made);
        addForgetting({static_cast<char*>(made.getBuffer()), made.getLength()}, changes, whole);
        target.loadBytes(whole.data(), whole.size());
    }
    if (foreseen != nullptr) {
        target.storeBytesOver(text.data(), text.size(), *foreseen);
        if (hasNothingLeft({static_cast<char*>(foreseen->getBuffer()), foreseen->getLength()}))
            foreseen->setLength(0);
        return;
    }
    target.store(path().getChars());
    noteStoreMode(own.lastStoreMode());
    isLeftOver_ = hasNothingLeft(zspanOf(text));
}

// Whether it is a drop-in that was made here and has no keys any more.
bool ZLayersFile::hasNothingLeft(ZSpan text) const {
    const ZLCString line(mark());
    if (!isDropIn_ || text.size <= line.getLength() ||
        memcmp(text.data, line.getChars(), line.getLength()) != 0)
        return false;
    ZSCFData own;
    ZModelReading::beLike(own, model());
    zreadText(own, path().getChars(), text);
    const ZPStore& store = ZModelReading::storeOf(own);
    bool hasKeys = false;
    store.forEachStanza([&](ZPId stanza) { hasKeys = hasKeys || store.stanza(stanza).count != 0; });
    return !hasKeys;
}

void ZLayersFile::removeTarget(const ZUpdatedFile& file) const {
    ZPlace place;
    if (place.find(path().getChars(), file.descriptor) ||
        unlinkat(place.folder(), place.name(), 0) != 0)
        return;  // a drop-in without keys does no harm
    // By its own parent, which no link is asked for: only an empty folder goes, and no other one.
    const ZOpenFile parent(zopenFileAt(place.folder(), "..", O_PATH | O_DIRECTORY));
    const ZLCString folder(zfolderOf(path().getChars()));
    if (parent.get() >= 0)
        unlinkat(parent.get(), znameOf(folder.getChars()), AT_REMOVEDIR);
}
