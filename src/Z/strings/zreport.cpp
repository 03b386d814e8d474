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

void zreportCode(const char* file, int line, int number, int rc) {
    reportWhateverHappens([=] {
        const ZLCString text(rc);
        ZMessageService::messageService()->outputMessage(file, line, number, 1, &text, nullptr,
                                                         nullptr, nullptr, nullptr, nullptr);
    });
}

void zreportCaught(const char* file, int line) {
    reportWhateverHappens([=] {
        try {
            throw;
        } catch (ZException& failure) {
            failure.dumpException();
        } catch (abi::__forced_unwind&) {
            throw;
        } catch (...) {
            ZMessageService::messageService()->outputMessage(file, line, 19, 0, nullptr, nullptr,
                                                             nullptr, nullptr, nullptr, nullptr);
        }
    });
}
