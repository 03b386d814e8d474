// ZSqueeze.h: compression of a block of bytes in one call.
#ifndef Z_ZSQUEEZE_H
#define Z_ZSQUEEZE_H

#include "Z.h"

struct z_stream_s;  // zlib's stream; include <zlib.h> to make one

/// Compresses and expands a block: a zlib stream (RFC 1950) at the default level, which any zlib
/// can read.
///
/// Failure: raises nothing. Results below 0 are zlib's codes: -5 the destination is too small or
///   the stream ends early, -4 no memory, -3 the bytes are no valid stream, or one that needs a
///   preset dictionary. Nothing is left allocated. What `dest` holds after a failure doesn't
///   matter.
/// Threads: each call works on a stream of its own; one object is used by one thread at a time.
class ZEXPORT ZSqueeze {
public:
    ZSqueeze();

    /// The block that squeeze() and unsqueeze() read; it isn't copied and must outlive them. A copy
    /// of this object shares it.
    void setSource(unsigned char* source, unsigned long length);

    /// Compresses or expands the source into the `destLength` bytes at `dest`. The size of the
    /// result in bytes, or a negative code. There is no streaming: after -5 the caller offers more
    /// room and calls again.
    long squeeze(unsigned char* dest, unsigned long destLength);
    long unsqueeze(unsigned char* dest, unsigned long destLength);

    /// The same for a block given here. 0 or a negative code; `*destLength` is the room on the way
    /// in and the size of the result on the way out, unchanged after a failure.
    int compress(unsigned char* dest, unsigned long* destLength, const unsigned char* source,
                 unsigned long sourceLength);
    int uncompress(unsigned char* dest, unsigned long* destLength, const unsigned char* source,
                   unsigned long sourceLength);

    /// zlib's stream operations, with its arguments and results. deflateInit_ and inflateInit_ take
    /// the window bits from this object.
    int deflateInit_(z_stream_s* stream, int level, const char* version, int streamSize);
    int deflateInit2_(z_stream_s* stream, int level, int method, int windowBits, int memLevel,
                      int strategy, const char* version, int streamSize);
    int deflateSetDictionary(z_stream_s* stream, const unsigned char* dictionary,
                             unsigned int length);
    int deflateReset(z_stream_s* stream);
    int deflateParams(z_stream_s* stream, int level, int strategy);
    int deflate(z_stream_s* stream, int flush);
    int deflateEnd(z_stream_s* stream);
    int deflateCopy(z_stream_s* dest, z_stream_s* source);
    int inflateInit_(z_stream_s* stream, const char* version, int streamSize);
    int inflateInit2_(z_stream_s* stream, int windowBits, const char* version, int streamSize);
    int inflateReset(z_stream_s* stream);
    int inflateEnd(z_stream_s* stream);
    int inflate(z_stream_s* stream, int flush);
    int inflateSetDictionary(z_stream_s* stream, const unsigned char* dictionary,
                             unsigned int length);
    int inflateSync(z_stream_s* stream);
    int inflateSyncPoint(z_stream_s* stream);

private:
    int windowBits() const;

    unsigned char* source_;
    unsigned long sourceLength_;
    int level_;       // -1: zlib's default
    int zlibHeader_;  // 0: a raw deflate stream, without header and checksum
};

#endif
