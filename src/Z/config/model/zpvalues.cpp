#include "zpvalues.h"

#include "ZLCString.h"
#include "zpholds.h"

static void addString(ZArrayList& list, ZSpan text) {
    std::unique_ptr<ZLCString> string(
        new ZLCString(text.data, static_cast<unsigned int>(text.size)));
    list.addNoCopy(string.get());
    string.release();
}

// ---------------------------------------------------------------- ZPValueView

ZSpan ZPValueView::textOfMember(uint32_t i) const {
    const ZAbstractString* string = static_cast<const ZAbstractString*>(list_->get(i));
    return string == nullptr ? ZSpan{nullptr, 0} : ZSpan{string->getChars(), string->getLength()};
}

void ZPValueView::copyTo(ZArrayList& list) const {
    if (list_ != nullptr) {
        list.addList(*list_);
        return;
    }
    for (uint32_t i = 0; i < count_; ++i)
        addString(list, (*this)[i]);
}

// ---------------------------------------------------------------- ZPValues

ZArrayList* ZPValues::list(const ZPText& text, ZPSlice own) const {
    ZArrayList* made = list_.get();
    if (made != nullptr)
        return made;
    const ZPValueView values = view(text, own);
    std::unique_ptr<ZArrayList> fresh(new ZArrayList(values.count(), 1));
    values.copyTo(*fresh);
    return list_.publish(std::move(fresh));
}

void ZPValues::append(ZPText& text, ZPSlice* own, ZSpan value) {
    if (ZArrayList* list = list_.get()) {
        addString(*list, value);
        return;
    }
    slices_.reserveMore(2);
    append(text, own, text.append(value));
}

void ZPValues::append(ZPText& text, ZPSlice* own, ZPSlice value) {
    if (ZArrayList* list = list_.get()) {
        addString(*list, text.span(value));
        text.drop(value);
        return;
    }
    slices_.reserveMore(2);
    if (own != nullptr && own->length != 0) {
        slices_.push(*own);
        own->length = 0;
    }
    slices_.push(value);
}

void ZPValues::replace(ZPText& text, ZPSlice* own, ZSpan value) {
    if (ZArrayList* list = list_.get()) {
        std::unique_ptr<ZLCString> string(
            new ZLCString(value.data, static_cast<unsigned int>(value.size)));
        // A list that has held a member has room for one.
        if (list->size() != 0)
            drop(text, own);
        list->addNoCopy(string.get());
        string.release();
        return;
    }
    if (own == nullptr)
        slices_.reserveMore(1);
    const ZPSlice fresh = text.append(value);
    drop(text, own);
    if (own == nullptr)
        slices_.push(fresh);
    else
        *own = fresh;
}

void ZPValues::drop(ZPText& text, ZPSlice* own) {
    if (own != nullptr) {
        text.drop(*own);
        own->length = 0;
    }
    forEachSlice([&](const ZPSlice& slice) { text.drop(slice); });
    slices_.setSize(0);
    if (ZArrayList* list = list_.get())
        list->removeAll();
}

void ZPValues::dropLast(ZPText& text, ZPSlice* own) {
    zassert(list_.get() == nullptr);
    if (slices_.size() == 0)
        return drop(text, own);
    text.drop(slices_[slices_.size() - 1]);
    slices_.setSize(slices_.size() - 1);
}

void ZPValues::copy(ZPText& text, ZPSlice* own, const ZPValueView& values) {
    zassert(!areHere());
    if (values.list_ != nullptr)
        list_.publish(std::unique_ptr<ZArrayList>(new ZArrayList(*values.list_)));
    else
        for (uint32_t i = 0; i < values.count(); ++i)
            append(text, own, values[i]);
}

void ZPValues::checkInvariants(const ZPSlice* own) const {
    ZPHOLDS(list_.get() != nullptr || slices_.size() == 0 || own == nullptr || own->length == 0);
}
