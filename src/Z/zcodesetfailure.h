// zcodesetfailure.h: how the set-up of text raises an exception that itself holds strings: defined
// above the strings, with the exception. Never installed.
#ifndef Z_ZCODESETFAILURE_H
#define Z_ZCODESETFAILURE_H

/// Raises ZCodesetException (47) for a codeset that can't be opened; null if its name isn't known.
[[noreturn]] void zraiseCodesetFailure(const char* codeset);

#endif
