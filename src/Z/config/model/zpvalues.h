// zpvalues.h: the values of one kind of a key. Never installed.
//
// Values are slices of the text until somebody asks for them as a list. That list is handed out,
// and whoever has it may change it: from then on it alone tells the values. Nobody outside asks
// which of the two there is.
//
// The one value that most keys have stands in the key's record instead (`own` below), which has
// room for a plain one: no key needs a ZPValues for that.
//
// Invariants, checked by checkInvariants():
// (1) The list that was handed out stays the same object until this is destroyed.
// (2) Where there is a list, the slices and the record's own are dead. They are slices still, until
//     the values are dropped.
// (3) Where there are slices and no list, the record's own is empty.
#ifndef Z_ZPVALUES_H
#define Z_ZPVALUES_H

#include "ZList.h"
#include "zplazy.h"
#include "zptext.h"

/// What a key's values are now; good until the next change.
class ZPValueView {
public:
    ZPValueView() {}
    explicit ZPValueView(const ZArrayList& list) : list_(&list), count_(list.size()) {}
    ZPValueView(const ZPText& text, const ZPSlice* slices, size_t count)
        : text_(&text), slices_(slices), count_(static_cast<uint32_t>(count)) {}
    /// One value, or none of length 0.
    ZPValueView(const ZPText& text, ZPSlice only)
        : text_(&text), only_(only), count_(only.length != 0) {}

    uint32_t count() const { return count_; }
    /// Null data: a member of a list that was handed out is null.
    ZSpan operator[](uint32_t i) const {
        return list_ == nullptr ? text_->span(slices_ == nullptr ? only_ : slices_[i])
                                : textOfMember(i);
    }
    /// The one value's slice; null if there isn't just one value, or it has none. As long as this
    /// is there.
    const ZPSlice* onlySlice() const {
        return list_ != nullptr || count_ != 1 ? nullptr : slices_ == nullptr ? &only_ : slices_;
    }
    /// Adds copies of all at the end of a list that owns its members.
    void copyTo(ZArrayList& list) const;

private:
    friend class ZPValues;
    ZSpan textOfMember(uint32_t i) const;

    const ZArrayList* list_ = nullptr;
    const ZPText* text_ = nullptr;
    const ZPSlice* slices_ = nullptr;  // null: the one
    ZPSlice only_ = {0, 0};
    uint32_t count_ = 0;
};

/// `own` is the record's room for one value, of length 0 while it has none; null for hidden values
/// where they change.
/// Raises ZOutOfMemoryException before anything has changed.
class ZPValues {
public:
    /// Whether the values are here, and not in the record.
    bool areHere() const { return list_.get() != nullptr || slices_.size() != 0; }
    ZPValueView view(const ZPText& text, ZPSlice own) const {
        const ZArrayList* list = list_.get();
        if (list != nullptr)
            return ZPValueView(*list);
        return slices_.size() == 0 ? ZPValueView(text, own)
                                   : ZPValueView(text, slices_.data(), slices_.size());
    }
    /// The list of them; made at first use, also by look-ups side by side.
    ZArrayList* list(const ZPText& text, ZPSlice own) const;

    /// One more value, from outside or in the text already.
    void append(ZPText& text, ZPSlice* own, ZSpan value);
    void append(ZPText& text, ZPSlice* own, ZPSlice value);
    /// One value in place of all. It may be the text of one of them.
    void replace(ZPText& text, ZPSlice* own, ZSpan value);
    /// All values go. A list that was handed out becomes empty.
    void drop(ZPText& text, ZPSlice* own);
    /// The last one goes. Requires: there is one, and no list.
    void dropLast(ZPText& text, ZPSlice* own);
    /// Makes these, which are none yet, a copy: a list becomes a list.
    void copy(ZPText& text, ZPSlice* own, const ZPValueView& values);

    /// The one at this index; null without it.
    const ZPSlice* slice(uint32_t i) const { return i < slices_.size() ? &slices_[i] : nullptr; }
    /// Calls visit(slice) for all slices here.
    template <typename Visit>
    void forEachSlice(Visit visit) {
        for (size_t i = 0; i < slices_.size(); ++i)
            visit(slices_[i]);
    }

    void checkInvariants(const ZPSlice* own) const;

private:
    ZPBlock<ZPSlice> slices_;
    ZPLazy<ZArrayList> list_;
};

#endif
