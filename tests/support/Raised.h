// Raised.h: what a call on a configuration raised, in a few words.
#ifndef TESTS_SUPPORT_RAISED_H
#define TESTS_SUPPORT_RAISED_H

#include <string>

#include "Z/ZExceptionText.h"

/// "" or what was raised: "22", "fcntl() 11", "line 3".
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

#endif
