// Raised.h: what a call raised, in a few words.
#pragma once

#include "support/Prelude.h"

#include <typeinfo>

#include "Z/ZExceptionText.h"
#include "Z/ZLock.h"
#include "support/RecordingService.h"

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

/// "6/0", number and return code of what `action` raised; "nothing"; "another class" for a library
/// exception whose class isn't exactly `Exception`.
template <typename Exception, typename Action>
std::string raisedBy(Action action) {
    try {
        action();
    } catch (ZException& exception) {
        if (typeid(exception) != typeid(Exception))
            return "another class";
        const RecordingService service;
        exception.print();
        return service.reports().at(0).substr(sizeof "raised " - 1);
    }
    return "nothing";
}

/// What a call on a configuration raised: "", "22", "fcntl() 11", "line 3".
template <typename Action>
std::string raised(Action action) {
    try {
        action();
    } catch (ZPropertiesIOException& e) {
        return std::string(e.api()) + " " + std::to_string(e.excerrno());
    } catch (ZPropertiesInvalidDataException& e) {
        return "line " + std::to_string(e.badline());
    } catch (ZInvalidParameterException&) {
        return "22";
    }
    return "";
}

/// How often the calling thread can unlock: the depth at which it holds the lock.
inline int depthOf(ZLock& lock) {
    int depth = 0;
    while (raisedBy<ZUnlockResourceException>([&] { lock.unlock(); }) == "nothing")
        ++depth;
    for (int i = 0; i < depth; ++i)
        lock.lock();
    return depth;
}
