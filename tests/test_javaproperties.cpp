// Java property files: the reader beside Java, the writer beside the reader.
#include "support/Prelude.h"

#include "Z/ZExceptionText.h"
#include "Z/ZJavaProperties.h"
#include "Z/ZKeyMap.h"
#include "support/Raised.h"
#include "support/FailingAllocator.h"
#include "support/FileState.h"
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

TEST(JavaReader, ReadsAsJavaAndInADialectOfItsOwn) {
    const struct {
        string text;
        Entries entries;
        const char* sought = nullptr;
    } kCases[] = {
#include "java/properties.inc"
        // What Java reads otherwise, and what ends a load.
        {"\n\t\n! a=1\n #b=2", {}},
        {"k=v\nl=m", {{"k", "v"}}},  // the last line has no end
        // ":", "=" and a backslash begin a key, but not the first two behind blanks.
        {":k=v\n==w\n\\l=x\n \\m=y\n", {{":k", "v"}, {"=", "w"}, {"\\l", "x"}, {"\\m", "y"}}},
        {" :k=v\n\t=w\nl=m\n", {{"l", "m"}}},
        // A line end that makes a line bad takes the next line along.
        {"k\r\nnext=1\r\nl=m\n", {{"l", "m"}}},
        {"k \nnext=1\nl=m\n", {{"l", "m"}}},
        {"k\\\nnext=1\nl=m\n", {{"l", "m"}}},
        {"k=\\u00\nnext=1\nl=m\n", {{"l", "m"}}},
        // Bad escapes.
        {"k\\u0041=v\nk\\n=v\nk\\#=v\nl=m\n", {{"l", "m"}}},
        {"k=\\n\nk=\\t\nk=v\\=\nk=\\#\nl=m\n", {{"l", "m"}}},
        {"k=\\ug000\nk=\\u0G00\nk=\\u00:0\nk=\\u000/\nk=\\u000@\nl=m\n", {{"l", "m"}}},
        {"k=\\U00e9a\\u0000b\\ud83d\\ude00\n",
         {{"k",
           "\xC3\xA9"
           "ab\xED\xA0\xBD\xED\xB8\x80"}}},
        {"k=\x80\xFF\x7F\xC3\n", {{"k", "\x80\xFF\x7F\xC3"}}},
        // Continued lines.
        {"k=a\\\n #b\\\n\t\\\n=c\n", {{"k", "a#b=c"}}},
        {"a=1\\\n \nb=2\n", {{"a", "1"}, {"b", "2"}}},
        // Either order of CR and LF is one line end, and so is a chain of both.
        {"a=1\n\rb=2\r\n\r\nc=3\rd=4\n", {{"a", "1"}, {"b", "2"}, {"c", "3"}, {"d", "4"}}},
        {"k=a\\\r\n\r\n b\n", {{"k", "ab"}}},
        {"k=a\\\r\r b=c\n", {{"k", "a"}, {"b", "c"}}},
        // A key that begins with NUL is equal to the empty one, and so to the one not sought.
        {string("\0k=v\nl=m\n", 9), {{string("\0k", 2), "v"}}},
        // Where a key is sought, the empty line behind a continued one ends no load, and keeps out
        // what isn't sought; the end of the file takes in what is there of the key sought.
        {"a=1\\\n\nk=2\\\n\nb=3\n", {{"k", "2"}, {"b", "3"}}, "k"},
        {"a=1\nk=2\\?", {{"a", "1"}, {"k", "2"}}, "k"},
    };
    TempFolder folder;
    for (const auto& c : kCases) {
        SCOPED_TRACE(testing::PrintToString(c.text));
        ZJavaProperties properties;
        EXPECT_EQ(properties.load(folder.write("in", c.text).c_str(), c.sought), 1);
        expectEntries(properties, c.entries, folder);
    }
}

TEST(JavaReader, TakesTextOfAnyLength) {
    TempFolder folder;
    for (size_t length : {95, 96, 255, 256, 257, 512, 70000}) {
        const string text(length, 'x');
        ZJavaProperties properties;
        properties.load(
            folder.write("in", "#" + text + "\r\n" + text + "=" + text + "\r\nl=m\n").c_str());
        expectEntries(properties, {{text, text}, {"l", "m"}}, folder);
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
    // Cut characters are the last two's.
    const char* const kCases[][2] = {
        {"b:c\\d", "b\\:c\\\\d"},
        {"\xC3\xA9 \xE2\x82\xAC \xED\xA0\x80", "\\u00e9 \\u20ac \\ud800"},
        {"1\n2\r3", "1\\u000a2\\u000d3"},
        {"=#!\"'\t", "=#!\"'\t"},
        {"", ""},
        {"\xF0\x9F\x98\x80 \x7F \x80", "\xF0\x9F\x98\x80 \x7F \x80"},
        {"\xC3 \xE2\x82", "\xC3 \xE2\x82"},
    };
    TempFolder folder;
    EXPECT_EQ(stored(ZJavaProperties(), folder), "#\n");
    for (const auto& [value, written] : kCases) {
        ZJavaProperties properties;
        properties.setValue(utf8("k"), utf8(value));
        EXPECT_EQ(stored(properties, folder), string("#\nk = ") + written + "\n");
    }
}

TEST(JavaWriter, WhatItWritesReadsBackAndHasTheOrderOfAKeyMap) {
    const string tokens[] = {"a",    "=",    ":",    "\\",       "\n",           "\r",
                             "\x7F", "\xC3", "\xA9", "\xE2\x82", "\xAC",         "\xF0\x9F\x98\x80",
                             "\xFF", "#",    " ",    "\\u",      string(1, '\0')};
    TempFolder folder;
    std::mt19937 random(7);
    for (int round = 0; round < 50; ++round) {
        Entries entries;
        ZJavaProperties properties, again;
        ZHashKeyMap map(10, 1);
        for (int i = 0; i < 40; ++i) {
            string value = "v";  // leading blanks are lost
            for (unsigned int left = random() % 12; left > 0; --left)
                value += tokens[random() % std::size(tokens)];
            const string key = "key" + std::to_string(random() % 60);
            properties.setValue(utf8(key), utf8(entries[key] = value));
            const ZUTF8String copy = utf8(key);
            map.putEntry(&copy, &copy);
        }
        const string text = stored(properties, folder);
        ZArrayList keys(2, 0);
        map.listKeys(keys);
        size_t at = 1;  // behind the comment
        for (unsigned int i = 0; i < keys.size(); ++i, at = text.find('\n', at + 1)) {
            const string begin =
                string("\n") + static_cast<ZUTF8String*>(keys.get(i))->getChars() + " = v";
            EXPECT_EQ(text.compare(at, begin.size(), begin), 0) << text;
        }
        again.load((folder / "stored").c_str());
        expectEntries(again, entries, folder);
        EXPECT_EQ(stored(properties, folder), text) << "the second time";
    }
}

// ---------------------------------------------------------------- failures

string refusal(const ZJavaProperties& properties, const string& path) {
    const string failure = failureOf([&] { properties.store(path.c_str()); });
    return failure.substr(0, failure.rfind(' '));
}

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
    EXPECT_EQ(refusal(properties, folder / "no/f"), "fopen(wt) " + std::to_string(ENOENT));
    EXPECT_EQ(refusal(properties, folder / ""), "fopen(wt) " + std::to_string(EISDIR));
    {
        const Locked reader(path, F_RDLCK);
        EXPECT_EQ(refusal(properties, path), "fcntl() " + std::to_string(EAGAIN));
        EXPECT_EQ(properties.load(path.c_str()), 1);
    }
    {
        const Locked writer(path, F_WRLCK);
        testing::internal::CaptureStderr();
        EXPECT_EQ(properties.load(path.c_str()), 0);
        const string printed = testing::internal::GetCapturedStderr();
        EXPECT_NE(printed.find("fcntl() and return code was 11"), string::npos) << printed;
    }
    for (const char* key : {"a\nb", "a\r"}) {
        ZJavaProperties bad;
        bad.setValue(utf8(key), utf8("v"));
        EXPECT_EQ(numberOf([&] { bad.store(path.c_str()); }), 22);
    }
    EXPECT_TRUE(endsWithoutMemory([&] { properties.store(path.c_str()); }));
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
    ZLCString value;
    properties.getValue(ZLCString("schl\xFCssel"), value);
    EXPECT_STREQ(value.getChars(), "\xE9t\xE9");
}

TEST(JavaCodesets, LocalTextIsConverted) {
    expectChildPasses("JavaCodesets.DISABLED_LocalText", {{"LC_ALL", "en_US.ISO-8859-1"}});
}

}  // namespace
