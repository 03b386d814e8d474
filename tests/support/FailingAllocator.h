// FailingAllocator.h: makes memory run out at a chosen moment, and counts what was left behind.
//
// A test that includes this header gets its own malloc, calloc, realloc, strdup and free (wrapped
// at link time, see tests/CMakeLists.txt) and its own operator new and delete. They see what the
// library and the test allocate; what shared libraries do by malloc passes them by, raising an
// exception included. Everything works the same under the sanitizers.
#pragma once

#include "support/Prelude.h"

#include <new>

#include "Z/ZException.h"

/// Lets allocations of this thread fail while it lives: the n-th from now on, n = 1, 2, and so on.
/// One at a time in a thread. Keep assertions outside: a failed one allocates its text.
class FailAllocations {
public:
    enum Extent {
        once,   ///< only the n-th fails: memory was short for a moment
        onward  ///< the n-th and all after it fail: memory is gone
    };
    /// How operator new fails; the others always give null. With null, nothing may run but what
    /// takes its memory through the library: compilers let other code trust operator new.
    enum Answer { badAlloc, null };

    explicit FailAllocations(unsigned long nth, Extent extent = once, Answer answer = badAlloc);
    ~FailAllocations();

    /// Whether any allocation has failed yet.
    bool failed() const;

    /// Allocations asked for since construction, failed ones too.
    static unsigned long asked();
};

/// Remembers the blocks that this thread allocates while it lives. One at a time in the process.
class TrackAllocations {
public:
    TrackAllocations();
    ~TrackAllocations();

    /// How many of them nobody has freed.
    long live() const;
};

/// Runs `change` with its n-th allocation failing: whether that ended it.
template <typename Change>
bool endsWithoutMemory(Change change, unsigned long nth = 1,
                       FailAllocations::Extent extent = FailAllocations::once,
                       FailAllocations::Answer answer = FailAllocations::badAlloc) {
    FailAllocations failure(nth, extent, answer);
    try {
        change();
    } catch (ZOutOfMemoryException&) {
        return true;
    } catch (std::bad_alloc&) {
        return true;
    }
    return false;
}

/// Runs `attempt` with its 1st allocation failing, then with its 2nd, until one run meets no
/// failure, and expects each run to leave no block behind. An attempt begins from nothing and may
/// end by ZOutOfMemoryException or std::bad_alloc. Gives the number of failures injected.
template <typename Attempt>
unsigned long failEachAllocation(Attempt attempt, FailAllocations::Extent extent,
                                 FailAllocations::Answer answer) {
    attempt();  // what is made once in a process is made now
    for (unsigned long nth = 1;; ++nth) {
        const TrackAllocations track;
        endsWithoutMemory(attempt, nth, extent, answer);
        const long left = track.live();
        EXPECT_EQ(left, 0) << "blocks left when allocation " << nth << " failed";
        if (FailAllocations::asked() < nth || left != 0)
            return nth - 1;
    }
}

/// The same in every way in which memory can run out.
template <typename Attempt>
unsigned long failEachAllocation(Attempt attempt) {
    failEachAllocation(attempt, FailAllocations::onward, FailAllocations::null);
    failEachAllocation(attempt, FailAllocations::once, FailAllocations::null);
    failEachAllocation(attempt, FailAllocations::onward, FailAllocations::badAlloc);
    return failEachAllocation(attempt, FailAllocations::once, FailAllocations::badAlloc);
}
