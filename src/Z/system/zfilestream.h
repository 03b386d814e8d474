// zfilestream.h: what the streams on configuration files share. Never installed.
#ifndef Z_ZFILESTREAM_H
#define Z_ZFILESTREAM_H

#include <cstdio>

/// Room for a stream's buffer, which would cost a block and a system call for each stream. Outlives
/// the stream.
struct ZStreamRoom {
    char bytes[4096];
    void lendTo(FILE* stream) { setvbuf(stream, bytes, _IOFBF, sizeof bytes); }
};

#endif
