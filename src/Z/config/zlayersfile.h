// zlayersfile.h: the file's side of a layered configuration: loads of all its files, changes that
// go into one of them. Never installed.
#ifndef Z_ZLAYERSFILE_H
#define Z_ZLAYERSFILE_H

#include <memory>

#include "ZPropertiesImpl.h"
#include "zlayerset.h"

/// Its callers hold the object's lock.
class ZLayersFile : public ZPropertiesFile {
public:
    explicit ZLayersFile(ZProperties& object) : ZPropertiesFile(object) {}
    static ZLayersFile& of(const ZProperties& object) {
        return static_cast<ZLayersFile&>(ZPropertiesFile::of(object));
    }

    /// Ahead of all else.
    void setTerms(const ZLayersTerms& terms) {
        set_.reset(new ZLayerSet(terms));
        flags_ = terms.flags;
    }
    const ZLayerSet& set() const { return *set_; }
    ZSCFData& model() const { return static_cast<ZSCFData&>(cache()); }
    void setTarget(const char* root, const char* dropIn);

    void load(const char* file) override;
    void store(const ZLCString& path) override;
    void requireOneFile() const override;
    bool listWatched(ZVector<ZWatchedPath>& paths) const override;
    bool catchUp(ZVector<ZPropDifference>& differences) override;
    bool prepareUpdate() override;
    void beginUpdate(ZUpdatedFile& file) override;
    void restore(const ZUpdatedFile& file) override;
    bool locksOthers() const override { return true; }
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
        ZLCString stanza, key;
        ZPStore::Kind kind;
        ZVector<ZLCString> wanted;  // and then what the target is to hold of that
        bool isEmptied;             // there were none to begin with
        bool forgets;               // the target says "key =" ahead of it
        bool isShadowed;
        const ZLayer* above;  // the last one that has the key; null: none
        int line;
        ZVector<ZLCString> aboveValues;
    };
    // Where the target stands among the layers, or would.
    struct Place {
        size_t below;  // these many layers are
        size_t above;  // the index of the first that is; `below` if there is no file yet
    };

    void loadAll(unsigned long wait, const ZFileStamp* own,
                 ZVector<ZPropDifference>* differences = nullptr);
    void loadStored();
    void findPath();
    void requireTarget() const;
    Place placeIn(const ZVector<ZLayerFile>& files) const;
    void requireUnhidden(const ZVector<ZLayerFile>& files, const Place& place) const;
    void findChanges(const ZSCFData& before, ZVector<Change>& changes) const;
    void lookAbove(const Place& place, ZVector<Change>& changes) const;
    void noteShadows(const ZVector<Change>& changes);
    void put(ZUpdatedFile& file, const Place& place, const ZVector<Change>& changes);
    void divide(const Place& place, const ZSCFData& before, ZVector<Change>& changes) const;
    void removeTarget(const ZUpdatedFile& file) const;

    std::unique_ptr<ZLayerSet> set_;
    unsigned long flags_ = 0;
    int root_ = -1;  // of the target; -1: there is none
    bool isDropIn_ = false;
    ZLCString name_;  // of the target's file
    Shadows shadows_;
    bool isStale_ = false;  // a store has changed the target since the load
};

#endif
