// zbackup.h: what a file held before a change, kept beside it. Never installed.
//
//   FILE.~1~ .. FILE.~N~   the last N contents, the newest first
//   FILE.~new~             one that is being written
//   FILE.~old~             the oldest, until the others have their new names
#ifndef Z_ZBACKUP_H
#define Z_ZBACKUP_H

#include "zwholefile.h"

/// Makes `content` the newest of at most `count` backups of the file that is open as `descriptor`
/// and write-locked, to which `path` has led; older ones move on, what the newest is already stays.
/// A backup has the file's owner, group and access, or where the caller may not give it these is
/// his alone. It is on the disk, and whole, before it gets its name. After a failure no backup has
/// been lost.
ZFailure zkeepBackup(const char* path, int descriptor, ZSpan content, unsigned int count);

#endif
