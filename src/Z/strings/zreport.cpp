#include "zreport.h"

#include <cxxabi.h>

#include "ZException.h"
#include "ZLCString.h"
#include "ZMessage.h"
#include "zuncancelled.h"

// A report is the last resort: what fails in it has nowhere to go.
template <typename Report>
static void reportWhateverHappens(Report report) {
    const ZUncancelled guard;
    try {
        report();
    } catch (abi::__forced_unwind&) {
        throw;  // pthread_exit in a service: the thread must go on ending
    } catch (...) {
    }
}

void zreportCode(int number, int rc, ZSite site) {
    reportWhateverHappens([=] {
        const ZLCString text(rc);
        ZMessageService::messageService()->outputMessage(
            site.file, site.line, number, 1, &text, nullptr, nullptr, nullptr, nullptr, nullptr);
    });
}

void zreportCaught(ZSite site) {
    reportWhateverHappens([=] {
        try {
            throw;
        } catch (ZException& failure) {
            failure.dumpException();
        } catch (abi::__forced_unwind&) {
            throw;
        } catch (...) {
            ZMessageService::messageService()->outputMessage(
                site.file, site.line, 19, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
        }
    });
}
