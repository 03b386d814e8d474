#include "zreport.h"

#include <cxxabi.h>

#include "ZException.h"
#include "ZLCString.h"
#include "ZMessage.h"
#include "qel/qel.h"

bool zreportsToSomebody() {
    return qel_own() == nullptr ||
           ZMessageService::messageService() != ZMessageService::defaultMessageService();
}

void zreportCode(int number, int rc, ZSite site) {
    zrunAnyway([=] {
        if (!zreportsToSomebody())
            return;
        const ZLCString text(rc);
        ZMessageService::messageService()->outputMessage(
            site.file, site.line, number, 1, &text, nullptr, nullptr, nullptr, nullptr, nullptr);
    });
}

void zreportCaught(ZSite site) {
    zrunAnyway([=] {
        try {
            throw;
        } catch (ZException& failure) {
            if (zreportsToSomebody())
                failure.dumpException();
        } catch (abi::__forced_unwind&) {
            throw;
        } catch (...) {
            if (zreportsToSomebody())
                ZMessageService::messageService()->outputMessage(site.file, site.line, 19, 0,
                                                                 nullptr, nullptr, nullptr, nullptr,
                                                                 nullptr, nullptr);
        }
    });
}
