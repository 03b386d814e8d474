#include "zopenupdates.h"

#include <atomic>

#include "zscope.h"

static pthread_mutex_t updatesMutex = PTHREAD_MUTEX_INITIALIZER;
static ZUpdatedFile* updates;            // guarded by updatesMutex
static std::atomic<int> updateCount(0);  // so that without an update nothing is paid

void znoteUpdate(ZUpdatedFile& file) {
    const ZMutexScope guard(updatesMutex);
    file.next = updates;
    updates = &file;
    ++updateCount;
}

void zforgetUpdate(ZUpdatedFile& file) {
    const ZMutexScope guard(updatesMutex);
    for (ZUpdatedFile** at = &updates; *at != nullptr; at = &(*at)->next)
        if (*at == &file) {
            *at = file.next;
            --updateCount;
            return;
        }
}

bool zisUpdatedHere(const char* path) {
    ZFileStamp stamp;
    if (updateCount == 0 || path == nullptr || zstampFile(path, stamp))
        return false;
    const ZMutexScope guard(updatesMutex);
    for (const ZUpdatedFile* file = updates; file != nullptr; file = file->next)
        if (pthread_equal(file->thread, pthread_self()) && zsameFile(file->stamp, stamp))
            return true;
    return false;
}
