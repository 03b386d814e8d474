// zfilestream.h: what the streams on configuration files share. For units that are built with
// 64-bit file offsets. Never installed.
#ifndef Z_ZFILESTREAM_H
#define Z_ZFILESTREAM_H

#include <fcntl.h>

#include <cerrno>
#include <cstdio>

/// Locks the whole file for this process, F_RDLCK or F_WRLCK, without waiting: 0, or the errno of
/// the refusal. The lock goes when the process closes any descriptor of the file.
static inline int zlockWholeFile(FILE* stream, short type) {
    struct flock whole = {};
    whole.l_type = type;
    whole.l_whence = SEEK_SET;
    return fcntl(fileno(stream), F_SETLK, &whole) == -1 ? errno : 0;
}

/// Room for a stream's buffer, which would cost a block and a system call for each stream. Outlives
/// the stream.
struct ZStreamRoom {
    char bytes[4096];
    void lendTo(FILE* stream) { setvbuf(stream, bytes, _IOFBF, sizeof bytes); }
};

#endif
