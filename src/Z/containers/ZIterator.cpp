#include "ZIterator.h"

ZAbstractIterator::~ZAbstractIterator() noexcept {}

ZObject* ZAbstractIterator::findNext(const ZObject& target) {
    while (hasMore()) {
        ZObject* member = getNext();
        if (member != nullptr && target.equals(*member))
            return member;
    }
    return nullptr;
}
