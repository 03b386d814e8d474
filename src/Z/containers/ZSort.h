// ZSort.h: the order in which a list is sorted.
#ifndef Z_ZSORT_H
#define Z_ZSORT_H

#include "ZObject.h"

/// Compares two members for ZList::sort. Derive to sort by something else than ZObject::compare.
///
/// Threads: sortCompare() is const and should stay free of state. defaultSortCompare() may be
///   called by several threads at once, also for the first time.
class ZEXPORT ZSortCompare {
public:
    /// Every value but sortAscending means descending.
    enum sortorder : int { sortDescending = 0, sortAscending = 1 };

    /// Below 0, 0 or above 0 as `a` comes before, with or after `b`. Neither is null.
    virtual int sortCompare(const ZObject* a, const ZObject* b) const = 0;

    /// The comparer by ZObject::compare: one object, made at first use, which lives until the
    /// process ends.
    static ZSortCompare* defaultSortCompare();

protected:
    ~ZSortCompare() = default;

    /// Makes the default comparer; runs once in a process.
    static void init();

    static ZSortCompare* dsc_;  // null until first use; read without a lock, as an atomic
};

/// The order of ZObject::compare.
class ZEXPORT ZDefaultSortCompare : public ZSortCompare {
public:
    int sortCompare(const ZObject* a, const ZObject* b) const override;
};

#endif
