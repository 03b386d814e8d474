// zfilecontent.h: what a configuration file holds, its side database and an unfinished store taken
// in. Never installed.
#ifndef Z_ZFILECONTENT_H
#define Z_ZFILECONTENT_H

#include <cstdio>

#include "ZPCache.h"
#include "zpblock.h"

/// As bytes.
struct ZFileContent {
    ZBytes text;
    ZBytes side;  // empty where there is no side database

    void swap(ZFileContent& other) {
        text.swap(other.text);
        side.swap(other.side);
    }
};

/// A file that is open to be read, under its lock.
struct ZFileToRead {
    int descriptor;
    FILE* stream = nullptr;     // null: there is none
    bool isDirect = false;      // its path's last part is known to be no link
    uint64_t size = 0;          // if that is known
    bool hasNoJournal = false;  // as is known
    unsigned int badModes = 0;  // bits of a mode that no side database may have
    // Where its path, which is for messages then, leads to; and where that of its side database
    // leads to, or false with errno. Null: they are what they are.
    const ZLCString* place = nullptr;
    bool (*placeSide)(const void* data, ZLCString& path) = nullptr;
    const void* data = nullptr;
};

/// Reads it into the cache: its own bytes, or what a store that was stopped had written down for
/// it; and its side database, whose bytes go to `content`. Those of the text go there only if
/// `keepsText`; else they are just read: by the stream, or where there is none as the library's own
/// model does. 0, or the errno of a reading that came to no end.
int zreadContent(ZPCache& cache, const ZLCString& path, const ZFileToRead& file, bool keepsText,
                 ZFileContent& content);

#endif
