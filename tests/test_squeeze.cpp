// Compression of blocks, and the checksum.
#include "support/Prelude.h"

#include <zlib.h>

#include "Z/ZAdler32.h"
#include "Z/ZSqueeze.h"

namespace {

typedef std::vector<unsigned char> Bytes;
using Way = long (ZSqueeze::*)(unsigned char*, unsigned long);

/// The result of one way for `source` into `room` bytes, what of them is filled going to `out`.
long run(Way way, Bytes source, unsigned long room, Bytes* out = nullptr) {
    ZSqueeze squeeze;
    squeeze.setSource(source.data(), source.size());
    Bytes bytes(room);
    const long size = (squeeze.*way)(bytes.data(), room);
    bytes.resize(size > 0 ? size : 0);
    if (out != nullptr)
        *out = bytes;
    return size;
}
const Way squeeze = &ZSqueeze::squeeze, unsqueeze = &ZSqueeze::unsqueeze;

Bytes squeezed(const Bytes& source) {
    Bytes out;
    EXPECT_GT(run(squeeze, source, source.size() + source.size() / 100 + 64, &out), 0);
    return out;
}

Bytes randomBytes(size_t count, unsigned int values) {
    std::mt19937 random(20240613);
    Bytes bytes(count);
    for (unsigned char& byte : bytes)
        byte = static_cast<unsigned char>(random() % values);
    return bytes;
}

}  // namespace

TEST(Squeeze, BlocksComeBackEqualAndNeedTheirRoom) {
    for (size_t count : {0, 1, 100, 300000}) {
        const Bytes bytes = randomBytes(count, 3), stream = squeezed(bytes);
        Bytes back;
        EXPECT_EQ(run(unsqueeze, stream, count, &back), long(count));
        EXPECT_EQ(back, bytes) << count;
        if (count != 0) {
            EXPECT_EQ(run(unsqueeze, stream, count - 1), Z_BUF_ERROR) << count;
        }
        EXPECT_EQ(run(squeeze, bytes, stream.size()), long(stream.size()));
        for (size_t room : {size_t(0), size_t(1), stream.size() - 1})
            EXPECT_EQ(run(squeeze, bytes, room), Z_BUF_ERROR) << count << " into " << room;
        unsigned long size = count;
        EXPECT_EQ(::uncompress(back.data(), &size, stream.data(), stream.size()), Z_OK);
        EXPECT_EQ(back, bytes) << "as anybody reads it";
    }
}

TEST(Squeeze, RefusesWhatIsNoStream) {
    const Bytes stream = squeezed(randomBytes(500, 256));
    EXPECT_EQ(run(unsqueeze, Bytes(20, 'c'), 100), Z_DATA_ERROR);
    for (size_t cut = 0; cut < stream.size(); ++cut)
        ASSERT_EQ(run(unsqueeze, Bytes(stream.begin(), stream.begin() + cut), 1000), Z_BUF_ERROR)
            << cut;
    // A stream that needs a preset dictionary: no success, though zlib's code is above 0.
    EXPECT_EQ(run(unsqueeze, {0x78, 0xBB, 0, 0, 0, 1, 3, 0, 0, 0, 0, 1}, 1000), Z_DATA_ERROR);

    // A failure leaves the length alone.
    ZSqueeze squeeze;
    Bytes out(1000);
    for (unsigned long room : {0, 2}) {
        unsigned long length = room;
        EXPECT_EQ(squeeze.compress(out.data(), &length, stream.data(), 100), Z_BUF_ERROR);
        EXPECT_EQ(squeeze.uncompress(out.data(), &length, stream.data(), 100), Z_BUF_ERROR);
        EXPECT_EQ(length, room);
    }
}

TEST(Adler32, ChecksumsAndContinues) {
    const unsigned char* const abc = reinterpret_cast<const unsigned char*>("abc");
    EXPECT_EQ(ZAdler32::adler32(ZAdler32::adler32(1, abc, 1), abc + 1, 2), 0x024D0127u);
    EXPECT_EQ(ZAdler32::adler32(0xFFFFFFFFu, abc, 0), 0xFFFFFFFFu);
    EXPECT_EQ(ZAdler32::adler32(77, nullptr, 5), 1u);
}
