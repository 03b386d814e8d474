// zpropoptions.h: what a properties object has beyond the plain ways of loading and storing; most
// have none of it. Never installed.
#ifndef Z_ZPROPOPTIONS_H
#define Z_ZPROPOPTIONS_H

#include <pthread.h>

#include "zmemory.h"
#include "zstoremodes.h"
#include "zpblock.h"
#include "zwholefile.h"

/// What a file holds, as bytes.
struct ZFileContent {
    ZBytes text;
    ZBytes side;  // empty where there is no side database

    void swap(ZFileContent& other) {
        text.swap(other.text);
        side.swap(other.side);
    }
};

/// The file of an update that is open: the one way to it while it lasts.
struct ZUpdatedFile {
    int descriptor;  // write-locked
    ZFileStamp stamp;
    pthread_t thread;
    ZFileContent content;  // at the beginning, or at the last store since
    ZUpdatedFile* next;    // in the process's list of open updates
};

/// The process's list of open updates. Any thread may call these.
void znoteUpdate(ZUpdatedFile& file);
void zforgetUpdate(ZUpdatedFile& file);
/// Whether the calling thread has an update open on the file to which this path leads.
bool zisUpdatedHere(const char* path);

/// Guarded by the object's lock.
struct ZPropertiesOptions : ZAllocated {
    int storeMode = ZPROP_STORE_PLAIN;
    int lastStoreMode = ZPROP_STORE_PLAIN;  // how the last store was made
    unsigned long lockWait = 0;             // milliseconds
    bool waits = true;                      // false while getPropertiesFor is at work
    bool storeAllowed = false;              // although the last load failed
    bool hasStamp = false;                  // of the last load or store
    ZFileStamp stamp = {};
    ZUpdatedFile* update = nullptr;  // the update's

    unsigned long wait() const { return waits ? lockWait : 0; }
    /// Whose locks loads and stores take.
    ZLockOwner lockOwner() const {
        return storeMode == ZPROP_STORE_PLAIN ? zlockOfProcess : zlockOfDescription;
    }
    void keepStamp(int descriptor) { hasStamp = zstampFile(descriptor, stamp) == 0; }
};

#endif
