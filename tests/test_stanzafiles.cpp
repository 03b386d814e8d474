// The two file formats: what a line is, what is refused and with which line, what comes back out.
#include "support/Prelude.h"

#include <set>

#include "Z/ZBuffer.h"
#include "Z/ZExceptionText.h"
#include "Z/ZSCFData.h"
#include "support/CacheText.h"

using std::string;

namespace {

// A literal with all its NULs, the last written one included.
template <size_t n>
string bytes(const char (&literal)[n]) {
    return string(literal, n - 1);
}

string value(ZSCFData& cache, const char* stanza, const char* key) {
    const char* text;
    unsigned int length;
    return cache.lastValue(stanza, key, text, length) == 0 ? string("<none>")
                                                           : string(text, length);
}

// clang-format off
// Key k of stanza s in each file: its value ("": none), and what a store writes (null: the same).
const struct {
    const char *text, *value, *out;
} kGood[] = {
    {"[s]\n  k  =  v  \n", "v", "[s]\nk = v\n"}, {"[s]\nk=v\n", "v", "[s]\nk = v\n"},
    {"[s]\r\n\tk\t=\tv\r\n", "v", "[s]\nk = v\n"}, {"[s]\nk =\n", "", nullptr},
    {"[s]\nk = v", "v", "[s]\nk = v\n"}, {"# a\n\n[s]\n# b\n\nk = v\n\n# c\n", "v", nullptr},
    {"[s]\n   # b\nk = v\n", "v", "[s]\n# b\nk = v\n"}, {"[s] tail\nk = v\n", "v", "[s]\nk = v\n"},
    // Values of one key come together; an empty one among them adds none.
    {"[s]\nk = 1\nm = 2\nk = v\n", "v", "[s]\nk = 1\nk = v\nm = 2\n"},
    {"[s]\nk = v\nk =\n", "v", "[s]\nk = v\n"}, {"[s]\nk =\nk = v\n", "v", "[s]\nk = v\n"},
    {"[S]\nk = x\n[s]\nk = v\n", "v", nullptr},  // other case, another stanza
};
// clang-format on

TEST(StanzaReader, Entries) {
    for (const auto& c : kGood) {
        SCOPED_TRACE(c.text);
        ZSCFData cache;
        EXPECT_EQ(readText(cache, c.text), 0);
        cache.checkInvariants();
        EXPECT_EQ(cache.contains("s", "k"), 1);
        EXPECT_EQ(value(cache, "s", "k"), *c.value == '\0' ? "<none>" : c.value);
        EXPECT_EQ(writtenText(cache), c.out == nullptr ? c.text : c.out);
    }
}

TEST(StanzaReader, NulsHideAndCommentsMayBeLeftOut) {
    ZSCFData bare, cut;
    ASSERT_EQ(readText(cut, bytes("[s]\nk = v\0hidden\n\0x\n[t]\n")), 0);
    EXPECT_EQ(writtenText(cut), "[s]\nk = v\n\n[t]\n");
    ASSERT_EQ(readText(bare, "# a\n\n[s]\n# b\nk = 1\n\n# c\nm =\n", false), 0);
    EXPECT_EQ(writtenText(bare), "[s]\nk = 1\nm =\n");
}

// What the first lines promise of the number of lines may be far off.
TEST(StanzaReader, AFileThatBeginsWithBlankLinesIsRead) {
    const string text = string(40000, '\n') + "[s]\n# " + string(8000, 'x') + "\nk = 1\n";
    ZSCFData cache;
    ASSERT_EQ(readText(cache, text), 0);
    EXPECT_EQ(writtenText(cache), text);
}

// A longer line goes on as a line of its own, with a number of its own.
TEST(StanzaReader, LongLinesAreCut) {
    const string longest(8191 - strlen("k = "), 'v');
    ZSCFData cache;
    // A newline alone behind the cut is a blank line.
    EXPECT_EQ(readText(cache, "[s]\nk = " + longest + "\nm = 1\nbad\n"), 5);
    EXPECT_EQ(value(cache, "s", "k"), longest);
    EXPECT_EQ(readText(cache, "[t]\nk = " + longest + "n = b\n#" + string(8190, 'c') + "d\n"), 5);
    EXPECT_EQ(value(cache, "t", "n"), "b");
}

TEST(StanzaReader, TheSideDatabaseIsNamedInItsOwnStanzaAlone) {
    ZSCFData cache;
    ASSERT_EQ(readText(cache,
                       "[s]\nfile = a\n[configuration-database]\nother = b\n"
                       "file = /c\nfile = /d\n"),
              0);
    EXPECT_EQ(cache.obfuscatedDBName(), "/c");
    EXPECT_EQ(value(cache, "configuration-database", "file"), "/d");
    cache.clear();
    EXPECT_EQ(cache.obfuscatedDBName(), "");
}

// What is refused, the number of the bad line, and that what is written of the rest reads back to
// the same.
TEST(StanzaReader, BadLines) {
    const std::pair<const char*, int> kBad[] = {
        {"k = v\n", 1},     {"[s]\n  = 1\n", 2},         {"[s]\n[t]\n[s]\n", 3},
        {"[]\nk = 1\n", 2}, {"[s]\nk = 1\n[]\n[]\n", 4}, {"[s]\n[t] x\n[ s]\n[ s]\n", 4},
    };
    for (const auto& [text, line] : kBad) {
        SCOPED_TRACE(text);
        ZSCFData cache, again;
        EXPECT_EQ(readText(cache, string(text) + "behind = it\n"), line);
        cache.checkInvariants();
        EXPECT_EQ(writtenText(cache).find("behind"), string::npos);
        EXPECT_EQ(readText(again, writtenText(cache)), 0);
        EXPECT_EQ(writtenText(again), writtenText(cache));
    }
}

// ---------------------------------------------------------------- side database

// Reads the bytes as a side database. False if they are refused.
bool readSide(ZSCFData& cache, const string& bytes) {
    ZBuffer buffer(bytes.size(), const_cast<char*>(bytes.data()));
    cache.setObfuscatedDBName("side");
    try {
        cache.be_read_obfuscated(buffer);
    } catch (ZPropertiesInvalidDataException& e) {
        EXPECT_STREQ(e.propFile(), "side");
        EXPECT_EQ(e.badline(), 0);
        EXPECT_STREQ(e.baddata(), "");
        return false;
    }
    return true;
}

TEST(SideDatabase, ComesBackAndTwiceDoublesItsValues) {
    ZSCFData cache;
    for (int round = 1; round <= 2; ++round) {
        ASSERT_TRUE(readSide(cache, compressed(bytes("s\0k\0v\0\0s\0k\0w\0"))));
        EXPECT_EQ(cache.countValues("s", "k"), 2 * round);
        EXPECT_EQ(cache.isObfuscated("s", "k"), 1);
        EXPECT_EQ(cache.obfuscatedCount(), 1u);
    }
    EXPECT_EQ(writtenText(cache), "");  // no line comes of it
}

TEST(SideDatabase, EveryCutOfItsRecordsAndOfItsStreamIsRefused) {
    const string records = bytes("s\0k\0v\0\0t\0m\0w\0");
    for (size_t length = 0; length <= records.size(); ++length) {
        SCOPED_TRACE(length);
        ZSCFData cache;
        const bool whole = length == 0 || length == 6 || length == 7 || length == records.size();
        EXPECT_EQ(readSide(cache, compressed(records.substr(0, length))), whole);
        cache.checkInvariants();
    }
    const string stream = compressed(records);
    for (size_t length = 0; length < stream.size(); ++length) {
        SCOPED_TRACE(length);
        ZSCFData cache;
        EXPECT_FALSE(readSide(cache, stream.substr(0, length)));
        string damaged = stream;
        damaged[length] = static_cast<char>(damaged[length] ^ 0x55);
        ZSCFData other;
        readSide(other, damaged);  // whatever comes of it, it ends
        other.checkInvariants();
    }
    ZSCFData cache;
    EXPECT_FALSE(readSide(cache, "[s]\nk = v\n"));
}

TEST(SideDatabase, ExpandsFarBeyondEightfoldAndGrowsForLongRecords) {
    ZSCFData cache;
    const string longValue(300000, 'x');
    cache.addLine("s", "k", longValue.c_str(), 1);
    for (int i = 0; i < 3000; ++i)
        cache.add("s", ("n" + std::to_string(i)).c_str(), "same text again and again", 1);
    ZBuffer buffer;
    cache.be_write_obfuscated(buffer);
    ZSCFData again;
    again.be_read_obfuscated(buffer);
    EXPECT_EQ(value(again, "s", "k"), longValue);
    EXPECT_EQ(again.obfuscatedCount(), 3001u);
    EXPECT_EQ(sideRecords(again), sideRecords(cache));
}

TEST(SideDatabase, NothingToWriteLeavesTheBufferAlone) {
    ZSCFData cache;
    cache.addLine("s", "k", "v", 1);
    cache.get("s", "k", ZPCache::GET_OBFUSCATED)->removeAll();
    ZBuffer buffer("abc");
    cache.be_write_obfuscated(buffer);
    EXPECT_EQ(buffer.getLength(), 4u);
    EXPECT_EQ(cache.obfuscatedCount(), 1u);
}

}  // namespace
