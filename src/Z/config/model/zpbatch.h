// zpbatch.h: the lines that a reader has found, some at a time on their way to a store. Never
// installed.
#ifndef Z_ZPBATCH_H
#define Z_ZPBATCH_H

#include "zpstore.h"

/// Lines of one group after the other, in the order of the file. The store takes them in batches:
/// the places of their keys in its index are fetched together, since at a million keys each is a
/// cache miss, and room is made once for all. Failure: as ZPStore::readLines.
class ZPBatch {
public:
    explicit ZPBatch(ZPStore& store) : store_(store), group_(store.lastGroup()) {}
    ZPBatch(const ZPBatch&) = delete;
    ZPBatch& operator=(const ZPBatch&) = delete;

    ZPId group() const { return group_; }
    /// What is added from here on belongs to this group. Requires: flush() was called.
    void enter(ZPId group) {
        zassert(count_ == 0);
        group_ = group;
    }

    void addBlank() { add(ZPReadLine::blank, 0, {0, 0}, {0, 0}); }
    void addComment(ZPSlice text) { add(ZPReadLine::comment, 0, text, {0, 0}); }
    /// `hash` is ZPStore::keyHash() of stanza and name.
    void addEntry(uint32_t hash, ZPSlice name, ZPSlice value, bool isBare = false) {
        store_.prefetchKey(hash);
        if (isBare)
            add(ZPReadLine::bareEntry, hash, name, {ZPStore::kBare, 0});
        else
            add(ZPReadLine::entry, hash, name, value);
    }
    /// Hands all to the store.
    void flush() {
        if (count_ != 0)
            store_.readLines(group_, lines_, std::exchange(count_, 0));
    }

private:
    // Part by part, for as a whole it would be made elsewhere first.
    void add(ZPReadLine::Kind kind, uint32_t hash, ZPSlice name, ZPSlice value) {
        if (count_ == kMost)
            flush();
        ZPReadLine& line = lines_[count_++];
        line.kind = kind;
        line.hash = hash;
        line.name = name;
        line.value = value;
    }

    static const uint32_t kMost = 32;

    ZPStore& store_;
    ZPId group_;
    uint32_t count_ = 0;
    ZPReadLine lines_[kMost];
};

#endif
