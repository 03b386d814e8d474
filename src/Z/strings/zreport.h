// zreport.h: reports from places that can't raise, or that report before they raise.
// Never installed.
#ifndef Z_ZREPORT_H
#define Z_ZREPORT_H

#include <cxxabi.h>

#include "zraise.h"
#include "zuncancelled.h"

/// Sends the plain message `number` with the return code of a failed call as its one insert to the
/// current message service. The place that it tells is that of this call.
///
/// Raises nothing, whatever the service does: the report of a failure must not hide the failure.
/// A cancellation request waits until the report is out, so that destructors may report.
void zreportCode(int number, int rc, ZSite site = ZSite());

/// Inside a handler: reports the exception that is being handled, in the same way. One of the
/// library prints itself; of any other, only that it came is known (number 19). Requires: forced
/// unwinding has been let through before.
void zreportCaught(ZSite site = ZSite());

/// Whether a report goes anywhere: a process that has set text up itself (see zsetUpUTF8) gets
/// nothing printed by the default service.
bool zreportsToSomebody();

/// Runs `step`. What it raises is reported; only the end of the thread goes on. Whether nothing was
/// raised. A forced unwind has no exception object, which the sanitizer takes for a null reference.
template <typename Step>
__attribute__((no_sanitize("null"))) bool zrunReported(Step step, ZSite site = ZSite()) {
    try {
        step();
        return true;
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
        zreportCaught(site);
        return false;
    }
}

/// Runs `step` and drops what it raises: for what comes behind a failure that is on its way, or is
/// a report itself. A cancellation request waits until it is over; only the end of the thread goes
/// on.
template <typename Step>
__attribute__((no_sanitize("null"))) void zrunAnyway(Step step) {
    const ZUncancelled uncancelled;
    try {
        step();
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
    }
}

#endif
