// zcodesetfailure.h: what stands between the set-up of text and those that have to live with its
// failure: the exception that reports it, which itself holds strings and is defined above them, and
// the converters. Never installed.
#ifndef Z_ZCODESETFAILURE_H
#define Z_ZCODESETFAILURE_H

/// Raises ZCodesetException (47) for a codeset that can't be opened; null if its name isn't known.
[[noreturn]] void zraiseCodesetFailure(const char* codeset);

/// Sets text up as the first string of a process does, but for what can do without: whether the
/// process has text. Reports and raises nothing.
bool zsetTextUp();

#endif
