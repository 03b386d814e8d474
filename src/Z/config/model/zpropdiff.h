// zpropdiff.h: what differs between two models of a configuration. Never installed.
#ifndef Z_ZPROPDIFF_H
#define Z_ZPROPDIFF_H

#include "ZLCString.h"
#include "ZPCache.h"
#include "zmemory.h"

/// One difference, as an observer is told of it. An empty key means the stanza.
struct ZPropDifference {
    enum Type { added, deleted, changed };

    ZLCString stanza;
    ZLCString key;
    Type type;
};

/// Appends what has to be told of the way from `before` to `after`, in the order of the files:
/// first what is gone, a stanza behind its keys, then what is new or has other values, a stanza
/// ahead of its keys. Two keys differ if their values do, in number, order or kind, or if just one
/// has no divider.
/// Cost: linear in both.
void zfindDifferences(const ZPCache& before, const ZPCache& after, ZVector<ZPropDifference>& out);

#endif
