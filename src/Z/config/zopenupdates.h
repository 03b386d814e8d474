// zopenupdates.h: the files of this process that an update has open. Never installed.
#ifndef Z_ZOPENUPDATES_H
#define Z_ZOPENUPDATES_H

#include <pthread.h>

#include "zfilecontent.h"
#include "zwholefile.h"

/// The file of an update that is open: the one way to it while it lasts.
struct ZUpdatedFile {
    int descriptor;  // write-locked
    ZFileStamp stamp;
    bool isNew;  // was made for it
    pthread_t thread;
    ZFileContent content;  // at the beginning, or at the last store since
    ZUpdatedFile* next;    // in the process's list of open updates
};

/// The process's list of open updates. Any thread may call these.
void znoteUpdate(ZUpdatedFile& file);
void zforgetUpdate(ZUpdatedFile& file);
/// Whether the calling thread has an update open on the file to which this path leads.
bool zisUpdatedHere(const char* path);

#endif
