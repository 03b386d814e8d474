// Byte buffers.
#include "support/Prelude.h"

#include "Z/ZBuffer.h"
#include "support/FailingAllocator.h"

namespace {

std::string bytesOf(const ZBufferInterface& buffer) {
    return std::string(static_cast<const char*>(buffer.getBuffer()), buffer.getLength());
}

}  // namespace

TEST(Buffer, ComparesLengthThenUnsignedBytes) {
    const struct {
        std::string a, b;
        int expected;
    } cases[] = {
        {"", "", 0},         {"a", "a", 0},
        {"\xff", "\x01", 1}, {"\x01", "\xff", -1},
        {"\xff", "aa", -1},  {"abcd", "abd", 1},
        {"abc", "abd", -1},  {std::string("a\0b", 3), std::string("a\0c", 3), -1},
    };
    for (const auto& c : cases) {
        ZBuffer a(c.a.size(), const_cast<char*>(c.a.data()));
        const ZConstBuffer b(c.b.size(), const_cast<char*>(c.b.data()));
        EXPECT_EQ(a.compare(b), c.expected) << c.a << " " << c.b;
        EXPECT_EQ(b.compare(a), -c.expected) << c.a << " " << c.b;
        EXPECT_EQ(a.equals(b), c.expected == 0) << c.a << " " << c.b;
    }
    ZConstBuffer far(1000, const_cast<char*>("x")), same(far);
    EXPECT_EQ(far.compare(same), 0);  // the same bytes aren't read
}

TEST(Buffer, TextBringsItsZeroByte) {
    ZBuffer buffer("abc");
    EXPECT_EQ(bytesOf(buffer), std::string("abc\0", 4));
    buffer.setBuffer(static_cast<char*>(nullptr));
    EXPECT_EQ(buffer.getLength(), 0u);
    EXPECT_EQ(buffer.getBuffer(), nullptr);
    const ZBuffer none(static_cast<const char*>(nullptr));
    EXPECT_EQ(none.getBuffer(), nullptr);
}

TEST(Buffer, CopiesAreDeepOrSharedByClassAndShrinkInPlace) {
    ZBuffer buffer("abc");
    const ZConstBuffer view(buffer.getLength(), buffer.getBuffer());
    const std::unique_ptr<ZObject> deep(buffer.clone());
    const std::unique_ptr<ZObject> shared(view.clone());
    EXPECT_NE(static_cast<ZBuffer*>(deep.get())->getBuffer(), buffer.getBuffer());
    EXPECT_EQ(static_cast<ZConstBuffer*>(shared.get())->getBuffer(), buffer.getBuffer());
    ZBuffer assigned("something longer");
    assigned = *static_cast<ZBuffer*>(deep.get());
    assigned = *&assigned;
    EXPECT_EQ(assigned.compare(view), 0);
    const void* const before = assigned.getBuffer();
    assigned.setLength(2);
    EXPECT_EQ(assigned.getBuffer(), before);
    assigned.setLength(4);
    EXPECT_EQ(bytesOf(assigned).substr(0, 2), "ab");
}

TEST(Buffer, TakesItsOwnBytesAsArgument) {
    ZBuffer buffer(6, const_cast<char*>("abcdef"));
    char* bytes = static_cast<char*>(buffer.getBuffer());
    buffer.setBuffer(4, bytes + 1);
    EXPECT_EQ(bytesOf(buffer), "bcde");
    buffer.setBuffer(6, bytes);  // longer than the length, inside the block
    EXPECT_EQ(bytesOf(buffer).substr(0, 4), "bcde");
    buffer.setBufferNoCopy(3, buffer.getBuffer());
    EXPECT_EQ(bytesOf(buffer), "bcd");
    buffer.setBuffer(buffer.getLength(), buffer.getBuffer());
    EXPECT_EQ(bytesOf(buffer), "bcd");
    buffer.setBuffer(0, buffer.getBuffer());
    EXPECT_EQ(buffer.getBuffer(), nullptr);
}

TEST(Buffer, HandsItsBytesOverAndTakesOthers) {
    TrackAllocations track;
    {
        ZBuffer buffer("old");
        buffer.setBufferNoCopy(3, strdup("abc"));
        unsigned long length;
        void* data;
        buffer.takeBuffer(length, data);
        EXPECT_EQ(std::string(static_cast<char*>(data), length), "abc");
        EXPECT_EQ(buffer.getLength(), 0u);
        EXPECT_EQ(buffer.getBuffer(), nullptr);
        free(data);
        buffer.setBuffer(2, const_cast<char*>("xy"));
        buffer.setBuffer(6, const_cast<char*>("longer"));
    }
    EXPECT_EQ(track.live(), 0);
}

TEST(Buffer, KeepsItsBytesWhenMemoryRunsOut) {
    ZBuffer buffer("abc"), longer("a longer text");
    const auto changes = {
        +[](ZBuffer& b, ZBuffer&) { b.setLength(100); },
        +[](ZBuffer& b, ZBuffer& other) { b = other; },
        +[](ZBuffer& b, ZBuffer& other) { b.setBuffer(other.getLength(), other.getBuffer()); },
        +[](ZBuffer&, ZBuffer& other) { ZBuffer copy(other); },
        +[](ZBuffer& b, ZBuffer&) { b.setLength(~0ul / 2); },
    };
    for (auto change : changes) {
        EXPECT_TRUE(endsWithoutMemory([&] { change(buffer, longer); }));
        EXPECT_EQ(bytesOf(buffer), std::string("abc\0", 4));
    }
    failEachAllocation([] {
        ZBuffer a("abc");
        ZBuffer b(a);
        b.setLength(10);
        delete b.clone();
    });
}
