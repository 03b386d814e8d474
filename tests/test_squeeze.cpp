// Compression of blocks, and the checksum.
#include <gtest/gtest.h>
#include <zlib.h>

#include <random>
#include <vector>

#include "Z/ZAdler32.h"
#include "Z/ZSqueeze.h"

namespace {

typedef std::vector<unsigned char> Bytes;

Bytes squeezed(Bytes source) {
    ZSqueeze squeeze;
    squeeze.setSource(source.data(), source.size());
    Bytes out(source.size() + source.size() / 100 + 64);
    const long size = squeeze.squeeze(out.data(), out.size());
    EXPECT_GT(size, 0);
    out.resize(size > 0 ? size : 0);
    return out;
}

/// The result of expanding `source` into `room` bytes, which go to `out`.
long unsqueeze(Bytes source, unsigned long room, Bytes* out = nullptr) {
    ZSqueeze squeeze;
    squeeze.setSource(source.data(), source.size());
    Bytes bytes(room);
    const long size = squeeze.unsqueeze(bytes.data(), room);
    bytes.resize(size > 0 ? size : 0);
    if (out != nullptr)
        *out = bytes;
    return size;
}

Bytes randomBytes(size_t count, unsigned int values) {
    std::mt19937 random(20240613);
    Bytes bytes(count);
    for (unsigned char& byte : bytes)
        byte = static_cast<unsigned char>(random() % values);
    return bytes;
}

}  // namespace

TEST(Squeeze, BlocksComeBackEqual) {
    for (size_t count : {0, 1, 2, 100, 32767, 32768, 32769, 300000}) {
        for (unsigned int values : {1, 3, 256}) {
            const Bytes bytes = randomBytes(count, values);
            const Bytes stream = squeezed(bytes);
            Bytes back;
            EXPECT_EQ(unsqueeze(stream, count, &back), long(count)) << values;
            EXPECT_EQ(back, bytes) << count << " of " << values;
            if (count != 0) {
                EXPECT_EQ(unsqueeze(stream, count - 1), Z_BUF_ERROR) << count << " of " << values;
            }
        }
    }
}

TEST(Squeeze, AnyZlibReadsItAndItReadsAnyZlib) {
    const Bytes bytes = randomBytes(5000, 7);
    const Bytes stream = squeezed(bytes);
    Bytes back(bytes.size());
    unsigned long size = back.size();
    ASSERT_EQ(::uncompress(back.data(), &size, stream.data(), stream.size()), Z_OK);
    EXPECT_EQ(back, bytes);

    Bytes theirs(::compressBound(bytes.size()));
    size = theirs.size();
    ASSERT_EQ(::compress2(theirs.data(), &size, bytes.data(), bytes.size(), 9), Z_OK);
    theirs.resize(size);
    EXPECT_EQ(unsqueeze(theirs, bytes.size(), &back), long(bytes.size()));
    EXPECT_EQ(back, bytes);
}

TEST(Squeeze, RefusesWhatIsNoStream) {
    const Bytes bytes = randomBytes(500, 256);
    const Bytes stream = squeezed(bytes);
    EXPECT_EQ(unsqueeze(Bytes(20, 'c'), 100), Z_DATA_ERROR);
    EXPECT_EQ(unsqueeze(Bytes(), 100), Z_BUF_ERROR);
    for (size_t cut = 0; cut < stream.size(); ++cut)
        ASSERT_EQ(unsqueeze(Bytes(stream.begin(), stream.begin() + cut), 1000), Z_BUF_ERROR) << cut;
    Bytes damaged = stream;
    damaged.back() ^= 1;
    EXPECT_EQ(unsqueeze(damaged, 1000), Z_DATA_ERROR);

    // A stream that needs a preset dictionary: no success, though zlib's code is above 0.
    Bytes preset(1000);
    const unsigned char dictionary[] = "dictionary";
    z_stream presetter = {};
    presetter.next_in = const_cast<unsigned char*>(dictionary);
    presetter.avail_in = 10;
    presetter.next_out = preset.data();
    presetter.avail_out = 1000;
    ZSqueeze zlib;
    ASSERT_EQ(zlib.deflateInit_(&presetter, 6, ZLIB_VERSION, sizeof presetter), Z_OK);
    EXPECT_EQ(zlib.deflateParams(&presetter, 9, Z_DEFAULT_STRATEGY), Z_OK);
    ASSERT_EQ(zlib.deflateReset(&presetter), Z_OK);
    ASSERT_EQ(zlib.deflateSetDictionary(&presetter, dictionary, 10), Z_OK);
    ASSERT_EQ(zlib.deflate(&presetter, Z_FINISH), Z_STREAM_END);
    preset.resize(presetter.total_out);
    zlib.deflateEnd(&presetter);
    z_stream reader = {};
    ASSERT_EQ(zlib.inflateInit_(&reader, ZLIB_VERSION, sizeof reader), Z_OK);
    EXPECT_EQ(zlib.inflateReset(&reader), Z_OK);
    zlib.inflateEnd(&reader);
    EXPECT_EQ(unsqueeze(preset, 1000), Z_DATA_ERROR);
}

TEST(Squeeze, SmallRoomIsTooSmallForEverything) {
    Bytes bytes = randomBytes(1000, 256);
    const size_t needed = squeezed(bytes).size();
    ZSqueeze squeeze;
    squeeze.setSource(bytes.data(), bytes.size());
    EXPECT_EQ(squeeze.squeeze(nullptr, 0), Z_BUF_ERROR);
    Bytes out(needed);
    EXPECT_EQ(squeeze.squeeze(out.data(), 0), Z_BUF_ERROR);
    for (size_t room : {size_t(1), size_t(2), needed / 2, needed - 1}) {
        unsigned long length = room;
        EXPECT_EQ(squeeze.compress(out.data(), &length, bytes.data(), bytes.size()), Z_BUF_ERROR);
        EXPECT_EQ(length, room);
    }
    EXPECT_EQ(squeeze.squeeze(out.data(), needed), long(needed));
    EXPECT_EQ(unsqueeze(squeezed(bytes), 0), Z_BUF_ERROR);
    EXPECT_EQ(unsqueeze(squeezed(Bytes()), 0), 0);
}

TEST(Adler32, ChecksumsAndContinues) {
    const unsigned char* const abc = reinterpret_cast<const unsigned char*>("abc");
    EXPECT_EQ(ZAdler32::adler32(1, abc, 3), 0x024D0127u);
    EXPECT_EQ(ZAdler32::adler32(ZAdler32::adler32(1, abc, 1), abc + 1, 2), 0x024D0127u);
    EXPECT_EQ(ZAdler32::adler32(0xFFFFFFFFu, abc, 0), 0xFFFFFFFFu);
    EXPECT_EQ(ZAdler32::adler32(77, nullptr, 5), 1u);
}
