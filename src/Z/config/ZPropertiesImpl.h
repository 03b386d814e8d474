// ZPropertiesImpl.h: the plain functions behind load and store. Never installed.
#ifndef Z_ZPROPERTIESIMPL_H
#define Z_ZPROPERTIESIMPL_H

#include "ZLCString.h"

/// Raises ZPropertiesIOException with "access()" unless the file, or where it doesn't exist its
/// directory, may be read and written.
void checkFileAccess(const char* file);

/// 1 if the file's modification time in seconds differs from `timeStamp`, which takes it; else 0,
/// also for a file that has vanished.
int checkAndSetTimeStamp(const char* file, long& timeStamp);

/// The default path of a file's side database: absolute, with ".obf" behind it.
void makeObfuscatedDBName(const char* file, ZLCString& out);

#endif
