// ZIterator.h: the contract of everything that delivers a sequence of objects.
#ifndef Z_ZITERATOR_H
#define Z_ZITERATOR_H

#include "ZObject.h"

/// A walk over a sequence, member by member. An interface without ZObject: never delete through it.
class ZEXPORT ZIterator {
public:
    /// 1 while getNext() would deliver something, else 0.
    virtual int hasMore() = 0;

    /// The next member, or null at the end. Who owns it is told by the concrete iterator.
    virtual ZObject* getNext() = 0;

protected:
    ~ZIterator() = default;
};

/// What all iterators of the library share.
class ZEXPORT ZAbstractIterator : public ZObject, public ZIterator {
public:
    ~ZAbstractIterator() noexcept override;

    /// Walks on to the first member for which `target.equals(member)` holds and returns it; null
    /// when the sequence ends first. Null members are passed over. The iterator then stands behind
    /// the member found, so that a second call goes on from there.
    virtual ZObject* findNext(const ZObject& target);
};

#endif
