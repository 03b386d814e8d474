// zcheck.h: tests of arguments and of return codes that several units make. Never installed.
#ifndef Z_ZCHECK_H
#define Z_ZCHECK_H

#include "ZException.h"

/// Neither null nor empty.
inline bool zhasText(const char* s) { return s != nullptr && *s != '\0'; }

/// Raises ZInvalidParameterException at this line unless the condition holds.
#define Z_REQUIRE(condition)                                                  \
    do {                                                                      \
        if (!(condition))                                                     \
            ZInvalidParameterException().throwException(__FILE__, __LINE__); \
    } while (0)

/// Raises ZThreadException with `number` and the return code at this line unless the code is 0.
#define Z_CHECK_THREAD(number, rc)                                            \
    do {                                                                      \
        const int code_ = (rc);                                               \
        if (code_ != 0)                                                       \
            ZThreadException(number, code_).throwException(__FILE__, __LINE__); \
    } while (0)

#endif
