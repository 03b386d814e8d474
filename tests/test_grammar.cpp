// What a line of a stanza file is, and what a line can't hold.
#include "support/Prelude.h"

#include "Z/zgrammar.h"
#include "Z/zlinemarks.h"
#include "Z/zrefusal.h"

using std::string;

namespace {

// What the first line of a text is: "_" blank, "#" comment, "[" header, "=" entry or "?" nothing,
// then its name, "|" and its value.
string described(const string& text) {
    const ZLineParts line =
        ZLineGrammar().divideRaw({text.data(), zlineLength(text.data(), text.size())});
    return "_#[=?"[line.kind] + string(line.name.data, line.name.size) + "|" +
           string(line.value.data, line.value.size);
}

// clang-format off
TEST(Grammar, Lines) {
    const std::pair<string, string> kLines[] = {
        {"", "_|"}, {" \t\v\f\r\n", "_|"}, {"\n", "_|"}, {string("\0k = v\n", 7), "_|"},
        {"# [a] = b \n", "## [a] = b|"}, {" \t#\r\n", "##|"}, {"[s]\n", "[s|"}, {"[]\n", "[|"},
        {" [ s ] # tail]\n", "[ s |"}, {"[#k = v]", "[#k = v|"}, {"[s = v\n", "?[s = v|"},
        {"k=v\n", "=k|v"}, {"\t k\t =  v\v\f\r\n", "=k|v"}, {"a = b = # [c]", "=a|b = # [c]"},
        {"k =\n", "=k|"}, {"]# = v\n", "=]#|v"}, {" = v\n", "=|v"},  // no load takes the last
        {"\xA0 = \x85\n", "=\xA0|\x85"}, {" plain ]\n", "?plain ]|"}, {"k\n = v", "?k|"},
        {string("k = v \0w\n", 9), "=k|v"}, {string("k \0= v\n", 7), "?k|"},
    };
    for (const auto& [line, what] : kLines)
        EXPECT_EQ(described(line), what);
}

// What may hold text: how it is written and read, and texts with the reason against each.
const struct Place {
    const char *subject, *ahead, *behind, *readAhead, *readBehind;
    ZFault (*fault)(const char* text);
    std::vector<std::pair<const char*, const char*>> texts;
} kPlaces[] = {
    {"a stanza's name", "[", "]\n", "[", "|", [](const char* name) { return zfaultOfStanza(name); },
     {{" s = # [ ", ""}, {"a]b", "can't hold ]"}}},
    {"a key", "", " =\n", "=", "|", [](const char* key) { return zfaultOfKey(key); },
     {{"a b#[]", ""}, {"k=l", "can't hold ="}, {"#k", "can't begin with # or ["},
      {"[k", "can't begin with # or ["}, {"k\t", "can't have blanks at its ends"}}},
    {"a value", "k = ", "\n", "=k|", "", [](const char* v) { return zfaultOfValue("k", v, false); },
     {{"= # [x] \t y", ""}, {" a", "can't have blanks at its ends"},
      {"a\v", "can't have blanks at its ends"}}},
    {"a comment", "", "\n", "#", "|", zfaultOfComment,
     {{"# c", ""}, {"c = d", "must begin with #"}, {"# c ", "can't have blanks at its ends"}}},
};
// clang-format on

// A text has no fault and a load gives it back, or it has this one and none does.
void check(const Place& place, const string& text, const string& reason) {
    SCOPED_TRACE(string(place.subject) + " " + text);
    const ZFault fault = place.fault(text.c_str());
    EXPECT_STREQ(fault.subject, reason.empty() ? nullptr : place.subject);
    EXPECT_EQ(fault.reason == nullptr ? "" : fault.reason, reason);
    const bool comesBack = !text.empty() && described(place.ahead + text + place.behind) ==
                                                place.readAhead + text + place.readBehind;
    EXPECT_EQ(comesBack, reason.empty());
}

// Many bytes are looked at together: each place in them counts, and each to begin at. Among them
// are bytes that differ from a mark by one bit.
TEST(LineMarks, AreFoundAtEachPlace) {
    std::mt19937 random(7);
    const string kinds("a\n=\0\x0b\x8a\x3c\xbd\x01\x80", 10), marks("\n=\0", 3);
    for (const size_t size : {0, 1, 63, 64, 65, 200}) {
        string text;
        while (text.size() < size)
            text.push_back(kinds[random() % kinds.size()]);
        for (size_t start = 0; start <= size; ++start) {
            SCOPED_TRACE(std::to_string(size) + " from " + std::to_string(start));
            ZLineMarks walk({text.data(), size}, start);
            for (size_t at = start, end = start, found = 0; found != size;) {
                found = walk.next(end);
                ASSERT_EQ(found, std::min(text.find_first_of(marks, at), end));
                at = found == end ? end : found + 1;
                end = std::max(end, std::min(at + random() % 90, size));
            }
        }
    }
}

TEST(Grammar, WhatComesBackHasNoFault) {
    for (const Place& place : kPlaces) {
        for (const auto& [text, reason] : place.texts)
            check(place, text, reason);
        check(place, "", "can't be empty");
        check(place, "#\n.", "can't hold a line end");
        // A return ends lines for others, though not for this reader.
        EXPECT_STREQ(place.fault("#\r.").reason, "can't hold a line end");
        string text(kLongestLine - strlen(place.ahead) - strlen(place.behind), '#');
        text[0] = *place.readAhead == '#' ? '#' : 'x';
        check(place, text, "");
        EXPECT_STREQ(place.fault((text + 'x').c_str()).reason,
                     "is too long for a line of 8191 bytes");
    }
}

}  // namespace
