// Java property files: the reader beside its table of states and beside Java, the writer beside the
// reader.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "Z/ZExceptionText.h"
#include "Z/ZJavaProperties.h"
#include "support/ExceptionNumber.h"
#include "support/FailingAllocator.h"
#include "support/RecordingService.h"
#include "support/SelfChild.h"
#include "support/TempFolder.h"

using std::string;

namespace {

typedef std::map<string, string> Entries;

ZUTF8String utf8(const string& s) {
    return ZUTF8String(s.data(), static_cast<unsigned int>(s.size()));
}

string valueOf(const ZJavaProperties& properties, const string& key) {
    ZUTF8String value("old");
    properties.getValue(utf8(key), value);
    return string(value.getChars(), value.getLength());
}

// Into a new file each time: disks take long over the close of a file that was truncated.
string stored(const ZJavaProperties& properties, const TempFolder& folder) {
    const string path = folder / "stored";
    unlink(path.c_str());
    EXPECT_EQ(properties.store(path.c_str()), 0);
    return TempFolder::read(path);
}

void expectEntries(const ZJavaProperties& properties, const Entries& entries,
                   const TempFolder& folder) {
    const string text = stored(properties, folder);  // a line for each behind the comment
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n') - 1, static_cast<long>(entries.size()));
    for (const auto& [key, value] : entries)
        EXPECT_EQ(valueOf(properties, key), value) << "key " << testing::PrintToString(key);
}

// ---------------------------------------------------------------- the reader

// The states once more, as rows: on these bytes (null: any other) act, and go on.
//   k, v  append to key, value   s  store   m  store if wanted   d  digit   u  last digit
struct Row {
    int state;
    const char* on;
    char act;
    int next;
};

const char* const B = "\t\v\f ";
const char* const E = "\n\r";
const char* const kHex = "0123456789abcdefABCDEF";
const int kBad = 16;

const Row kRows[] = {
    {1, B, ' ', 2},      {1, "!#", ' ', 3},    {1, E, ' ', 1},        {1, nullptr, 'k', 4},
    {2, B, ' ', 2},      {2, "!#", ' ', 3},    {2, E, ' ', 1},        {2, ":=", ' ', kBad},
    {2, nullptr, 'k', 4}, {3, E, ' ', 1},      {3, nullptr, ' ', 3},  {4, "\\", ' ', 5},
    {4, B, ' ', 6},      {4, ":=", ' ', 7},    {4, E, ' ', kBad},     {4, nullptr, 'k', 4},
    {5, "\\=:", 'k', 4}, {5, B, 'k', 4},      {5, nullptr, ' ', kBad}, {6, B, ' ', 6},
    {6, ":=", ' ', 7},   {6, "\\", ' ', 9},   {6, E, ' ', kBad},     {6, nullptr, 'v', 8},
    {7, B, ' ', 7},      {7, E, 's', 1},       {7, "\\", ' ', 9},    {7, nullptr, 'v', 8},
    {8, "\\", ' ', 9},  {8, E, 's', 1},       {8, nullptr, 'v', 8},  {9, "\\:\"'", 'v', 8},
    {9, B, 'v', 8},      {9, E, ' ', 10},      {9, "uU", ' ', 11},    {9, nullptr, ' ', kBad},
    {10, "\\", ' ', 9}, {10, B, ' ', 10},     {10, E, 'm', 1},       {10, nullptr, 'v', 8},
    {11, kHex, 'd', 12}, {11, nullptr, ' ', kBad}, {12, kHex, 'd', 13}, {12, nullptr, ' ', kBad},
    {13, kHex, 'd', 14}, {13, nullptr, ' ', kBad}, {14, kHex, 'u', 8},  {14, nullptr, ' ', kBad},
};

const Row& rowOf(int state, char c) {
    const Row* row = kRows;
    while (row->state != state || (row->on != nullptr && (c == '\0' || !strchr(row->on, c))))
        ++row;
    return *row;
}

string unitBytes(unsigned long unit) {
    const char last = static_cast<char>(0x80 + unit % 64),
               middle = static_cast<char>(0x80 + unit / 64 % 64);
    if (unit < 0x80)
        return unit == 0 ? "" : string(1, static_cast<char>(unit));
    return unit < 0x800 ? string{static_cast<char>(0xC0 + unit / 64), last}
                        : string{static_cast<char>(0xE0 + unit / 4096), middle, last};
}

Entries modelOf(const string& text, const string& sought) {
    Entries entries;
    string key, value, digits;
    char previous = 0;
    int state = 1;
    for (char c : text) {
        const bool dropped = (c == '\r' && previous == '\n') || (c == '\n' && previous == '\r');
        previous = c;
        if (dropped)
            continue;
        if (state == 1)
            key = value = "";
        const Row& row = rowOf(state, c);
        const bool isSought = key.c_str() == sought;
        if (row.act == 'k')
            key += c;
        else if (row.act == 'v')
            value += c;
        else if (row.act == 'd' || row.act == 'u')
            digits = (state == 11 ? "" : digits) + c;
        else if (row.act == 's' || (row.act == 'm' && (sought.empty() || isSought)))
            entries[key] = value;
        if (row.act == 'u')
            value += unitBytes(std::stoul(digits, nullptr, 16));
        if (row.act == 's' && isSought)
            return entries;
        state = row.next == kBad ? 3 : row.next;
    }
    if (!key.empty() && key.c_str() == sought)
        entries[key] = value;
    return entries;
}

TEST(JavaReader, FollowsItsTableOverRandomText) {
    const string tokens[] = {
        "\n", "\n", "\r", "\r\n", "\n\r", "\t", "\v", "\f", " ", "\\", ":", "=", "#", "!", "u", "0",
        "a", "F", "\"", "'", "k", "k", "key", "\\u00e9", "\\Ud83D", "\\u20a", "\\u0000", "\\u0041",
        "\\\n", "\\\n ", "k=v\n", "k = ", "m:", "\n\n", "\xC3\xA9", "\x7F", "\xFF", string(1, '\0'),
        string(300, 'x')};
    TempFolder folder;
    std::mt19937 random(20240607);
    for (int round = 0; round < 2000; ++round) {
        string text;
        for (unsigned int left = random() % 24; left > 0; --left)
            text += tokens[random() % std::size(tokens)];
        const string sought = round % 3 == 0 ? "k" : "";
        SCOPED_TRACE("round " + std::to_string(round) + " " + testing::PrintToString(text));
        unlink((folder / "in").c_str());
        const string path = folder.write("in", text);
        ZJavaProperties properties;
        EXPECT_EQ(properties.load(path.c_str(), sought.c_str()), 1);
        expectEntries(properties, modelOf(text, sought), folder);
        if (HasFailure())
            return;
    }
}

TEST(JavaReader, ReadsWhatJavaReads) {
    const struct {
        string text;
        Entries entries;
    } kCases[] = {
#include "java/properties.inc"
    };
    TempFolder folder;
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.text);
        ZJavaProperties properties;
        properties.load(folder.write("in", c.text).c_str());
        expectEntries(properties, c.entries, folder);
    }
}

TEST(JavaReader, StopsBehindTheKeySoughtAndForgetsItThen) {
    TempFolder folder;
    const string path = folder.write("in", "a=1\nb=2\nk=3\nc=4\nd=5");
    ZJavaProperties properties;
    properties.setValue(utf8("a"), utf8("replaced"));
    EXPECT_EQ(properties.load(path.c_str(), "k"), 1);
    expectEntries(properties, {{"a", "1"}, {"b", "2"}, {"k", "3"}}, folder);
    EXPECT_EQ(properties.load(path.c_str()), 1);
    expectEntries(properties, {{"a", "1"}, {"b", "2"}, {"k", "3"}, {"c", "4"}}, folder);
    EXPECT_EQ(properties.load(path.c_str(), "d"), 1);  // the last line has no end
    EXPECT_EQ(valueOf(properties, "d"), "5");
}

// ---------------------------------------------------------------- the writer

TEST(JavaWriter, EscapesWhatWouldNotReadBack) {
    const struct {
        const char *value, *written;
    } kCases[] = {
        {"b:c\\d", "b\\:c\\\\d"},
        {"\xC3\xA9 \xE2\x82\xAC \xED\xA0\x80", "\\u00e9 \\u20ac \\ud800"},
        {"1\n2\r3", "1\\u000a2\\u000d3"},
        {"\xF0\x9F\x98\x80 \x7F \x80", "\xF0\x9F\x98\x80 \x7F \x80"},
        {"\xC3 \xE2\x82", "\xC3 \xE2\x82"},  // cut characters, the last at the end
        {"=#!\"'\t", "=#!\"'\t"},
        {"", ""},
    };
    TempFolder folder;
    EXPECT_EQ(stored(ZJavaProperties(), folder), "#\n");
    for (const auto& c : kCases) {
        ZJavaProperties properties, again;
        properties.setValue(utf8("k"), utf8(c.value));
        EXPECT_EQ(stored(properties, folder), string("#\nk = ") + c.written + "\n");
        again.load((folder / "stored").c_str());
        EXPECT_EQ(valueOf(again, "k"), c.value);
    }
}

TEST(JavaWriter, WhatItWritesReadsBack) {
    const string tokens[] = {"a",    "=",    ":",    "\\",       "\n",           "\r",
                             "\x7F", "\xC3", "\xA9", "\xE2\x82", "\xAC",         "\xF0\x9F\x98\x80",
                             "\xFF", "#",    " ",    "\\u",      string(1, '\0')};
    TempFolder folder;
    std::mt19937 random(7);
    for (int round = 0; round < 100; ++round) {
        Entries entries;
        ZJavaProperties properties, again;
        for (int i = 0; i < 40; ++i) {
            string value = "v";  // leading blanks are lost
            for (unsigned int left = random() % 12; left > 0; --left)
                value += tokens[random() % std::size(tokens)];
            const string key = "key" + std::to_string(random() % 60);
            properties.setValue(utf8(key), utf8(entries[key] = value));
        }
        const string text = stored(properties, folder);
        again.load((folder / "stored").c_str());
        expectEntries(again, entries, folder);
        expectEntries(properties, entries, folder);
        EXPECT_EQ(stored(properties, folder), text) << "the second time";
    }
}

// ---------------------------------------------------------------- failures

TEST(JavaFailures, OfALoadArePrintedAndGoNoFurther) {
    TempFolder folder;
    const RecordingService service;
    ZJavaProperties properties;
    EXPECT_EQ(properties.load(nullptr), 1);
    EXPECT_EQ(properties.load(""), 1);
    EXPECT_TRUE(service.reports().empty());
    EXPECT_EQ(properties.load((folder / "missing").c_str()), 0);
    EXPECT_EQ(properties.load((folder / "").c_str(), "k"), 1);  // a folder opens, but doesn't read
    EXPECT_EQ(service.reports(), (std::vector<string>{"raised 43", "raised 53"}));
}

TEST(JavaFailures, OfAStoreLeaveTheOldFile) {
    TempFolder folder;
    const string path = folder.write("f", "old");
    ZJavaProperties properties;
    properties.setValue(utf8("k"), utf8("v"));
    EXPECT_EQ(numberOf([&] { properties.store(nullptr); }), 22);
    EXPECT_EQ(numberOf([&] { properties.store(""); }), 22);
    EXPECT_EQ(numberOf([&] { properties.store((folder / "no/f").c_str()); }), 43);
    {
        // As another process would hold it: this kind of lock belongs to the descriptor.
        const int reader = open(path.c_str(), O_RDWR);
        struct flock whole = {};
        whole.l_type = F_RDLCK;
        ASSERT_EQ(fcntl(reader, F_OFD_SETLK, &whole), 0);
        EXPECT_EQ(numberOf([&] { properties.store(path.c_str()); }), 43);
        EXPECT_EQ(properties.load(path.c_str()), 1);
        whole.l_type = F_WRLCK;
        ASSERT_EQ(fcntl(reader, F_OFD_SETLK, &whole), 0);
        const RecordingService service;
        EXPECT_EQ(properties.load(path.c_str()), 0);
        EXPECT_EQ(service.reports(), std::vector<string>{"raised 43"});
        close(reader);
    }
    for (const char* key : {"a\nb", "a\r"}) {
        ZJavaProperties bad;
        bad.setValue(utf8(key), utf8("v"));
        EXPECT_EQ(numberOf([&] { bad.store(path.c_str()); }), 22);
    }
    EXPECT_EQ(TempFolder::read(path), "old");
    EXPECT_EQ(properties.store("/dev/full"), EOF);
    EXPECT_EQ(properties.store("/dev/null"), 0);  // has no length to be cut
    EXPECT_EQ(numberOf([&] { properties.clone(); }), 31);
}

TEST(JavaFailures, WithoutMemoryNothingIsLost) {
    TempFolder folder;
    const string path = folder / "f";
    testing::internal::CaptureStderr();  // a load prints its failures
    const unsigned long failures = failEachAllocation([&] {
        ZJavaProperties properties;
        const ZUTF8ConstString key("key");
        properties.setValue(key, key);
        properties.store(path.c_str());
        properties.load(path.c_str(), "key");
        ZLCString value;
        properties.getValue(key, value);
    });
    testing::internal::GetCapturedStderr();
    EXPECT_GT(failures, 4u);
}

// ---------------------------------------------------------------- codesets

TEST(JavaCodesets, DISABLED_LocalText) {
    ZJavaProperties properties;
    properties.setValue(ZLCConstString("schl\xFCssel"), ZLCConstString("\xE9t\xE9"));
    EXPECT_EQ(valueOf(properties, "schl\xC3\xBCssel"), "\xC3\xA9t\xC3\xA9");
    properties.setValue(utf8("schl\xC3\xBCssel"), utf8("\xC3\xBC"));
    ZLCString value;
    properties.getValue(ZLCString("schl\xFCssel"), value);
    EXPECT_STREQ(value.getChars(), "\xFC");
}

TEST(JavaCodesets, LocalTextIsConverted) {
    const SelfChild child =
        runSelf("JavaCodesets.DISABLED_LocalText", {{"LC_ALL", "en_US.ISO-8859-1"}});
    EXPECT_TRUE(child.passed()) << child.output;
}

}  // namespace
