#include "ZSqueeze.h"

#include <zlib.h>

#include <algorithm>
#include <climits>

ZSqueeze::ZSqueeze()
    : source_(nullptr), sourceLength_(0), level_(Z_DEFAULT_COMPRESSION), zlibHeader_(1) {}

void ZSqueeze::setSource(unsigned char* source, unsigned long length) {
    source_ = source;
    sourceLength_ = length;
}

long ZSqueeze::squeeze(unsigned char* dest, unsigned long destLength) {
    const int result = compress(dest, &destLength, source_, sourceLength_);
    return result < 0 ? result : static_cast<long>(destLength);
}

long ZSqueeze::unsqueeze(unsigned char* dest, unsigned long destLength) {
    const int result = uncompress(dest, &destLength, source_, sourceLength_);
    return result < 0 ? result : static_cast<long>(destLength);
}

namespace {

/// One side of a stream: what of the block zlib hasn't been told of yet. Its own counts have 32
/// bits, so a longer block goes to it in pieces.
struct Remainder {
    unsigned long length;

    unsigned int nextPiece() {
        const unsigned long piece = std::min<unsigned long>(length, UINT_MAX);
        length -= piece;
        return static_cast<unsigned int>(piece);
    }
};

}  // namespace

/// Runs `step`, zlib's deflate or inflate, from the first byte of the source to the end of the
/// stream. Its result code; a source or room that ended first is Z_BUF_ERROR.
template <typename Step>
static int runToEnd(z_stream& stream, unsigned char* dest, unsigned long destLength,
                    const unsigned char* source, unsigned long sourceLength, Step step) {
    unsigned char nowhere;  // zlib refuses a null destination, even one of no bytes
    Remainder in = {sourceLength};
    Remainder out = {destLength};
    stream.next_in = const_cast<unsigned char*>(source);
    stream.avail_in = in.nextPiece();
    stream.next_out = dest == nullptr && destLength == 0 ? &nowhere : dest;
    stream.avail_out = out.nextPiece();
    for (;;) {
        const int result = step(in.length == 0 ? Z_FINISH : Z_NO_FLUSH);
        const bool wantsMore = result == Z_OK || result == Z_BUF_ERROR;
        if (wantsMore && stream.avail_in == 0 && in.length != 0)
            stream.avail_in = in.nextPiece();
        else if (wantsMore && stream.avail_out == 0 && out.length != 0)
            stream.avail_out = out.nextPiece();
        else
            return result == Z_OK ? Z_BUF_ERROR : result;
    }
}

int ZSqueeze::compress(unsigned char* dest, unsigned long* destLength, const unsigned char* source,
                       unsigned long sourceLength) {
    z_stream stream = {};
    const int refused = deflateInit_(&stream, level_, ZLIB_VERSION, sizeof(stream));
    if (refused != Z_OK)
        return refused;
    const int result = runToEnd(stream, dest, *destLength, source, sourceLength,
                                [&](int flush) { return deflate(&stream, flush); });
    const unsigned long size = stream.total_out;
    const int ended = deflateEnd(&stream);
    if (result != Z_STREAM_END)
        return result;
    *destLength = size;
    return ended;
}

int ZSqueeze::uncompress(unsigned char* dest, unsigned long* destLength,
                         const unsigned char* source, unsigned long sourceLength) {
    z_stream stream = {};
    const int refused = inflateInit_(&stream, ZLIB_VERSION, sizeof(stream));
    if (refused != Z_OK)
        return refused;
    const int result = runToEnd(stream, dest, *destLength, source, sourceLength,
                                [&](int flush) { return inflate(&stream, flush); });
    const unsigned long size = stream.total_out;
    const int ended = inflateEnd(&stream);
    if (result == Z_NEED_DICT)
        return Z_DATA_ERROR;  // there is no way to give one here, and no success without
    if (result != Z_STREAM_END)
        return result;
    *destLength = size;
    return ended;
}

int ZSqueeze::windowBits() const { return zlibHeader_ ? 15 : -15; }

int ZSqueeze::deflateInit_(z_stream_s* stream, int level, const char* version, int streamSize) {
    const int memLevel = 8;
    return deflateInit2_(stream, level, Z_DEFLATED, windowBits(), memLevel, Z_DEFAULT_STRATEGY,
                         version, streamSize);
}

int ZSqueeze::inflateInit_(z_stream_s* stream, const char* version, int streamSize) {
    return inflateInit2_(stream, windowBits(), version, streamSize);
}

// The rest hands its arguments on as they are.

int ZSqueeze::deflateInit2_(z_stream_s* stream, int level, int method, int windowBits, int memLevel,
                            int strategy, const char* version, int streamSize) {
    return ::deflateInit2_(stream, level, method, windowBits, memLevel, strategy, version,
                           streamSize);
}

int ZSqueeze::deflateSetDictionary(z_stream_s* stream, const unsigned char* dictionary,
                                   unsigned int length) {
    return ::deflateSetDictionary(stream, dictionary, length);
}

int ZSqueeze::deflateReset(z_stream_s* stream) { return ::deflateReset(stream); }

int ZSqueeze::deflateParams(z_stream_s* stream, int level, int strategy) {
    return ::deflateParams(stream, level, strategy);
}

int ZSqueeze::deflate(z_stream_s* stream, int flush) { return ::deflate(stream, flush); }

int ZSqueeze::deflateEnd(z_stream_s* stream) { return ::deflateEnd(stream); }

int ZSqueeze::deflateCopy(z_stream_s* dest, z_stream_s* source) {
    return ::deflateCopy(dest, source);
}

int ZSqueeze::inflateInit2_(z_stream_s* stream, int windowBits, const char* version,
                            int streamSize) {
    return ::inflateInit2_(stream, windowBits, version, streamSize);
}

int ZSqueeze::inflateReset(z_stream_s* stream) { return ::inflateReset(stream); }

int ZSqueeze::inflateEnd(z_stream_s* stream) { return ::inflateEnd(stream); }

int ZSqueeze::inflate(z_stream_s* stream, int flush) { return ::inflate(stream, flush); }

int ZSqueeze::inflateSetDictionary(z_stream_s* stream, const unsigned char* dictionary,
                                   unsigned int length) {
    return ::inflateSetDictionary(stream, dictionary, length);
}

int ZSqueeze::inflateSync(z_stream_s* stream) { return ::inflateSync(stream); }

int ZSqueeze::inflateSyncPoint(z_stream_s* stream) { return ::inflateSyncPoint(stream); }
