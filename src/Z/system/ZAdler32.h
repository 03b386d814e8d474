// ZAdler32.h: the checksum of zlib streams.
#ifndef Z_ZADLER32_H
#define Z_ZADLER32_H

#include "Z.h"

/// The Adler-32 checksum of RFC 1950. Threads: a pure function.
class ZEXPORT ZAdler32 {
public:
    /// `adler`, continued over the `length` bytes at `buffer`. A null buffer gives the value to
    /// begin with, 1; length 0 gives `adler` unchanged.
    static unsigned long adler32(unsigned long adler, const unsigned char* buffer,
                                 unsigned int length);
};

#endif
