#include "zutils.h"

#include <pthread.h>

#include <algorithm>

#include "ZLock.h"

static const unsigned int kRow = 16;
static const unsigned int kGroup = 8;

// Made at the first dump, never destroyed.
static ZLock* dumpLock;
static pthread_once_t dumpLockOnce = PTHREAD_ONCE_INIT;
static void makeDumpLock() { dumpLock = new ZLock; }

static void dumpRow(FILE* f, unsigned int offset, const unsigned char* bytes, unsigned int count) {
    char column[kRow + 1];
    std::fill_n(column, kRow, ' ');
    column[kRow] = '\0';
    fprintf(f, "\n%4.4x ", offset);
    for (unsigned int i = 0; i < kRow; ++i) {
        if (i % kGroup == 0)
            fprintf(f, " ");
        if (i >= count) {
            fprintf(f, "   ");
            continue;
        }
        fprintf(f, " %02x", bytes[i]);
        column[i] = bytes[i] >= 32 && bytes[i] <= 253 ? static_cast<char>(bytes[i]) : '.';
    }
    fprintf(f, "  *%s*", column);
}

void zhex_dump(FILE* f, int count, const unsigned char* bytes, const char* title) {
    pthread_once(&dumpLockOnce, &makeDumpLock);
    ZResourceLock guard(*dumpLock);
    if (f == nullptr)
        f = stderr;
    if (title != nullptr)
        fprintf(f, "\n\t%s\n", title);
    const unsigned int total = count > 0 ? static_cast<unsigned int>(count) : 0;
    for (unsigned int offset = 0; offset < total; offset += kRow)
        dumpRow(f, offset, bytes + offset, std::min(total - offset, kRow));
    fprintf(f, "\n");
}
