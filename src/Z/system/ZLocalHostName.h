// ZLocalHostName.h: the name of this machine.
#ifndef Z_ZLOCALHOSTNAME_H
#define Z_ZLOCALHOSTNAME_H

#include "ZLCString.h"

/// Asks the system for the machine's name and the resolver for its full form.
class ZEXPORT ZLocalHostName {
public:
    /// The machine's name as the resolver knows it, with the domain where it has one. Empty if the
    /// system doesn't tell the name (reported as 25) or the resolver doesn't know it (26), each
    /// with errno as the insert; the resolver may leave any errno, 0 among them.
    ///
    /// Failure: raises ZOutOfMemoryException (1) alone.
    /// Threads: the resolver keeps its answer in one place for the whole process, so callers must
    ///   see to it that only one of them asks at a time. Asking isn't cancelled.
    static ZLCString getLocalHostName();
};

#endif
