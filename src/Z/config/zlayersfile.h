// zlayersfile.h: the file's side of a layered configuration: loads of all its files, changes that
// go into one of them. Never installed.
#ifndef Z_ZLAYERSFILE_H
#define Z_ZLAYERSFILE_H

#include <memory>

#include "ZBuffer.h"
#include "ZPropertiesImpl.h"
#include "zlayerset.h"

/// Its callers hold the object's lock.
class ZLayersFile : public ZPropertiesFile {
public:
    explicit ZLayersFile(ZProperties& object) : ZPropertiesFile(object) {}
    static ZLayersFile& of(const ZProperties& object) {
        return static_cast<ZLayersFile&>(ZPropertiesFile::of(object));
    }

    /// Ahead of all else. Raises as ZLayerTree's, and as setDialect.
    void setTerms(const ZLayersTerms& terms);
    const ZLayerSet& set() const { return *set_; }
    ZSCFData& model() const { return static_cast<ZSCFData&>(cache()); }
    void setTarget(const char* root, const char* dropIn);

    /// Makes `before` what the target holds, empty if it isn't there, and `now` what a store would
    /// make of it, empty if it would go. Raises and notes shadows as that, but makes and writes
    /// nothing. Outside of an update.
    void foresee(ZBuffer& before, ZBuffer& now);

    void load(const char* file) override;
    void store(const ZLCString& path) override;
    void requireOneFile() const override;
    bool listWatched(ZVector<ZWatchedPath>& paths) const override;
    bool catchUp(ZVector<ZPropDifference>& differences) override;
    std::unique_ptr<ZLockedFile> openToUpdate(unsigned long wait) override;
    void beginUpdate(ZUpdatedFile& file) override;
    void restore(const ZUpdatedFile& file) override;
    bool locksOthers() const override { return true; }
    void requireOthersFree() override;
    void settleUpdate(const ZUpdatedFile& file) override;
    void noteUpdateEnded() override;

    /// Of the last store: the changed keys to which a file above the target gives other values.
    struct Shadows {
        unsigned int count = 0;
        ZLCString file;  // of the first
        int line = 0;
    };
    const Shadows& shadows() const { return shadows_; }

private:
    // Of one key, what it is to have, and what the layers around the target give it.
    struct Change {
        explicit Change(const ZPropDifference& difference)
            : stanza(difference.stanza),
              key(difference.key),
              isGone(difference.type == ZPropDifference::deleted) {}

        ZLCString stanza, key;
        ZLCString foldedStanza, foldedKey;  // by which it is found
        bool isGone;                        // there is no such key any more
        bool isBare = false;                // it has no divider, and no values
        ZPStore::Kind kind = ZPStore::plain;
        ZVector<ZLCString> wanted;
        ZVector<ZLCString> part;   // what the target is to hold of that
        bool forgets = false;      // and "key =" ahead of it
        ZVector<ZLCString> whole;  // the part, if it says that anyway
        // What those above the target make of it: "key =" of one of them, and then the values.
        const ZLayer* above = nullptr;  // the last one that has the key; null: none
        int line = 0;
        bool isReset = false;
        bool isBareAbove = false;
        const ZLayer* lastAbove = nullptr;  // the layer of the last of the values
        ZVector<ZLCString> aboveValues;
        ZVector<ZLCString> secrets;  // which of these are credentials
    };
    // Where the target stands among the layers, or would.
    struct Place {
        size_t below;  // these many layers are
        size_t above;  // the index of the first that is; `below` if there is no file yet
    };

    void loadAll(unsigned long wait, const ZFileStamp* own,
                 ZVector<ZPropDifference>* differences = nullptr);
    void loadStored();
    void rebuildStored(ZSCFData& out) const;
    void findPath();
    void requireTarget() const;
    const ZVector<ZLayerFile>& found() const { return set_->found(); }
    Place placeIn(const ZVector<ZLayerFile>& files) const;
    bool isSameFile(const ZLayerFile& file, const ZFileStamp& stamp) const;
    void requireUnhidden(const ZVector<ZLayerFile>& files, const Place& place,
                         const ZFileStamp* locked) const;
    void requireReadable(const Place& place) const;
    Place requireLocked(const ZFileStamp& stamp) const;
    void settleTarget();
    int makeFolder() const;
    void findChanges(const ZSCFData& before, ZVector<Change>& changes) const;
    ZLCString folded(ZSpan name, bool isStanza) const;
    Change* changeOf(ZVector<Change>& changes, ZSpan stanza, ZSpan key) const;
    template <typename Visit>
    void forEachEntry(ZSpan text, Visit visit) const;
    void keepForgetting(ZSpan text, ZVector<Change>& changes) const;
    void addForgetting(ZSpan text, ZVector<Change>& changes, ZBytes& out) const;
    static void noteAbove(Change& change, const ZLayerValue& value, bool isReset);
    unsigned int repeats() const { return dialect() == nullptr ? 0u : dialect()->values; }
    void lookAbove(const ZSCFData& model, const Place& place, ZVector<Change>& changes) const;
    bool isCollecting() const { return (flags_ & ZLAYERS_COLLECT) != 0; }
    bool isShadowed(const Change& change) const;
    Shadows shadowsOf(const ZVector<Change>& changes);
    void divide(const Place& place, ZVector<Change>& changes) const;
    Place placeChanges(ZVector<Change>& changes) const;
    Shadows storeByItself(ZVector<Change>& changes);
    void put(ZUpdatedFile& file, const ZSCFData& model, const Place& place,
             ZVector<Change>& changes, ZBuffer* foreseen = nullptr);
    bool hasNothingLeft(ZSpan text) const;
    ZLCString mark() const;
    void removeTarget(const ZUpdatedFile& file) const;

    std::unique_ptr<ZLayerSet> set_;
    unsigned long flags_ = 0;
    int root_ = -1;  // of the target; -1: there is none
    bool isDropIn_ = false;
    ZLCString name_;  // of the target's file
    Shadows shadows_;
    bool isStale_ = false;     // a store has changed the target since the load
    ZVector<Change> stored_;   // and how; empty if that is known otherwise
    bool isLeftOver_ = false;  // the last one has left a drop-in that is to go
};

#endif
