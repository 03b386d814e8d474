#include "ZStringIterator.h"

#include "ZException.h"
#include "zraise.h"
#include "ztextwalk.h"

ZStringIterator::ZStringIterator(const ZLCConstString& source, ZLCString& target)
    : cursor_(source.getChars()), source_(&source), target_(&target), mbMax_(zlocalTextStep()) {}

ZStringIterator::ZStringIterator(const ZLCString& source, ZLCString& target)
    : cursor_(source.getChars()), source_(&source), target_(&target), mbMax_(zlocalTextStep()) {}

ZStringIterator::ZStringIterator(const ZUTF8ConstString& source, ZUTF8String& target)
    : cursor_(source.getChars()), source_(&source), target_(&target), mbMax_(zstepASCII) {}

ZStringIterator::ZStringIterator(const ZUTF8String& source, ZUTF8String& target)
    : cursor_(source.getChars()), source_(&source), target_(&target), mbMax_(zstepASCII) {}

ZStringIterator::ZStringIterator(const ZStringIterator& other) = default;
ZStringIterator& ZStringIterator::operator=(const ZStringIterator& other) = default;
ZStringIterator::~ZStringIterator() noexcept {}

ZObject* ZStringIterator::clone() const { return new ZStringIterator(*this); }

int ZStringIterator::hasMore() { return cursor_ != nullptr && *cursor_ != '\0'; }

ZObject* ZStringIterator::getNext() {
    if (cursor_ == nullptr)
        return nullptr;
    target_->clear();
    if (*cursor_ == '\0')
        return target_;
    int n = 1;
    if (!zstepsByOne(mbMax_, *cursor_)) {
        const size_t offset = static_cast<size_t>(cursor_ - source_->getChars());
        n = zmblen(source_->getCodesetHandle(), cursor_, source_->getLength() - offset);
        if (n < 0)
            zraise(ZQELMBLenException());
    }
    target_->append(cursor_, static_cast<unsigned int>(n));
    cursor_ += n;
    return target_;
}

void ZStringIterator::reset() { cursor_ = source_->getChars(); }
