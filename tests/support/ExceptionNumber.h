// ExceptionNumber.h: the message number of what a call raises.
#ifndef TESTS_SUPPORT_EXCEPTIONNUMBER_H
#define TESTS_SUPPORT_EXCEPTIONNUMBER_H

#include <functional>

#include "Z/ZException.h"
#include "Z/ZMessage.h"

/// Runs the call: 0 if it raises nothing, else the number of the exception of the library's family.
inline int numberOf(const std::function<void()>& call) {
    // A service may read an exception's number.
    struct Reader : ZDefaultMessageService {
        static int of(const ZException& e) { return static_cast<int>(exceptionNumber(e)); }
    };
    try {
        call();
    } catch (ZException& e) {
        return Reader::of(e);
    }
    return 0;
}

#endif
