// Codesets and locales: conversion, text functions on whole characters, and strings in each locale.
#include "support/Prelude.h"

#include <iconv.h>

#include <clocale>

#include "Z/ZException.h"
#include "Z/ZGetLocale.h"
#include "Z/ZString.h"
#include "qel/qel.h"
#include "support/SelfChild.h"
#include "support/Threads.h"

namespace {

// A codeset handle for a scope.
class CodesetHandle {
public:
    explicit CodesetHandle(const char* name) : handle_(qel_cs_new(name)) {}
    ~CodesetHandle() { qel_cs_free(handle_); }
    CodesetHandle(const CodesetHandle&) = delete;
    CodesetHandle& operator=(const CodesetHandle&) = delete;
    operator qel_codeset() const { return handle_; }

private:
    const qel_codeset handle_;
};

const char kFailed[] = "(failed)";
const std::string kEuro = "\xE2\x82\xAC", kAEuroB = "a" + kEuro + "b";

using Conversion = int (*)(qel_codeset, const char*, size_t, char*, size_t);

std::string converted(Conversion conversion, qel_codeset codeset, const std::string& text,
                      size_t room = 4096) {
    std::string target(room, '#');
    const int n = conversion(codeset, text.data(), text.size(), target.data(), room);
    return n < 0 ? kFailed : target.substr(0, static_cast<size_t>(n));
}

std::string toUTF8(qel_codeset codeset, const std::string& text, size_t room = 4096) {
    return converted(qel_to_utf8, codeset, text, room);
}

std::string fromUTF8(qel_codeset codeset, const std::string& text, size_t room = 4096) {
    return converted(qel_from_utf8, codeset, text, room);
}

// What iconv makes of a text, to check the direct code against.
std::string byIconv(const char* to, const char* from, std::string text) {
    const iconv_t pair = iconv_open(to, from);
    std::string target(4096, '#');
    char* in = text.data();
    char* out = target.data();
    size_t inLeft = text.size(), room = target.size();
    const size_t result = iconv(pair, &in, &inLeft, &out, &room);
    iconv(pair, nullptr, nullptr, &out, &room);  // what waits for a following accent
    iconv_close(pair);
    return result != 0 ? kFailed : target.substr(0, target.size() - room);
}

struct ConversionCase {
    const char* codeset;
    std::string local, utf8;
};

const ConversionCase kConversions[] = {
    {"UTF8", "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z", "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z"},
    {"ISO-8859-1", "\xE9 and a long run of ASCII \xFC",
     "\xC3\xA9 and a long run of ASCII \xC3\xBC"},
    {"ISO-8859-15", "\xA4 1", "\xE2\x82\xAC 1"},
    {"IBM037", "\xC1\x40\xF1", "A 1"},
    {"EUC-JP", "a\xC6\xFC\xCB\xDCz", "a\xE6\x97\xA5\xE6\x9C\xACz"},
    {"EUC-JP", "\x8F\xB0\xA1", "\xE4\xB8\x82"},
    {"SHIFT_JIS", "\x93\xFA", "\xE6\x97\xA5"},
    {"GB18030", "\x94\x39\xFC\x36", "\xF0\x9F\x98\x80"},
    {"EUC-JP", std::string("\0a\0", 3), std::string("\0a\0", 3)},
    {"ISO-8859-1", std::string("\0\xE9\0", 3), std::string("\0\xC3\xA9\0", 4)},
};

TEST(Codesets, ConvertExactlyWithinTheRoom) {
    for (const ConversionCase& c : kConversions) {
        SCOPED_TRACE(c.codeset);
        const CodesetHandle codeset(c.codeset);
        ASSERT_NE(codeset, 0U);
        EXPECT_EQ(toUTF8(codeset, c.local), c.utf8);
        EXPECT_EQ(fromUTF8(codeset, c.utf8), c.local);
        EXPECT_EQ(toUTF8(codeset, c.local, c.utf8.size()), c.utf8) << "the last byte of room";
        EXPECT_EQ(fromUTF8(codeset, c.utf8, c.local.size()), c.local);
        for (size_t room = 0; room < c.utf8.size(); ++room)
            EXPECT_EQ(toUTF8(codeset, c.local, room), kFailed) << room;
        for (size_t room = 0; room < c.local.size(); ++room)
            EXPECT_EQ(fromUTF8(codeset, c.utf8, room), kFailed) << room;
        EXPECT_EQ(toUTF8(codeset, c.local), c.utf8) << "nothing stays of a failure";
    }
}

struct InvalidCase {
    const char *what, *codeset, *local, *utf8;  // null: nothing to try in this direction
};

const InvalidCase kInvalid[] = {
    {"overlong", "UTF8", "a\xC0\xAF", "a\xC0\xAF"},
    {"surrogate", "UTF8", "\xED\xA0\x80", "\xED\xA0\x80"},
    {"past the last code", "UTF8", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80"},
    {"cut", "UTF8", "a\xE2\x82", "a\xE2\x82"},
    {"stray continuation", "UTF8", "\x80", "\x80"},
    {"not in Latin 1", "ISO-8859-1", nullptr, "\xE2\x82\xAC"},
    {"past 16 bits", "ISO-8859-1", nullptr, "\xF0\x9F\x98\x80"},
    {"no such byte", "ISO-8859-7", "\xD2", nullptr},
    {"cut", "EUC-JP", "a\xC6", "a\xE6\x97"},
    {"bad trail byte", "EUC-JP", "\xC6z", "\xE6\x97z"},
    {"not in EUC-JP", "EUC-JP", nullptr, "\xF0\x9F\x98\x80"},
    {"dropped by iconv", "EUC-JP", nullptr, "a\xF3\xA0\x81\x81"},
    {"surrogate", "EUC-JP", nullptr, "\xED\xA0\x80"},
    {"fails when shifted", "ISO-2022-JP", "\x1B$B\x46\x7C\xFF", "\xE6\x97\xA5\xF0\x9F\x98\x80"},
};

TEST(Codesets, RefuseWhatIsntValidOrHasNoCounterpart) {
    for (const InvalidCase& c : kInvalid) {
        SCOPED_TRACE(testing::Message() << c.codeset << ": " << c.what);
        const CodesetHandle codeset(c.codeset);
        if (c.local != nullptr) {
            EXPECT_EQ(toUTF8(codeset, c.local), kFailed);
        }
        if (c.utf8 != nullptr) {
            EXPECT_EQ(fromUTF8(codeset, c.utf8), kFailed);
        }
        EXPECT_EQ(toUTF8(codeset, c.codeset), c.codeset) << "nothing stays of a failure";
    }
    for (const char* name : {"", "KLINGON", "UTF-8//IGNORE", "ISO-8859-1//TRANSLIT"})
        EXPECT_EQ(qel_cs_new(name), 0U) << name;
    EXPECT_EQ(toUTF8(0, "a"), kFailed);
    EXPECT_EQ(fromUTF8(0, "a"), kFailed);
}

TEST(Codesets, ConvertLikeIconv) {
    std::mt19937 random(7);
    for (const char* name : {"ISO-8859-1", "ISO-8859-7", "CP1252", "KOI8-R", "IBM437", "IBM037",
                             "CP1258", "EUC-JP", "BIG5"}) {
        SCOPED_TRACE(name);
        const CodesetHandle codeset(name);
        for (int byte = 0; byte < 256; ++byte) {
            const std::string text(1, static_cast<char>(byte));
            EXPECT_EQ(toUTF8(codeset, text), byIconv("UTF-8", name, text)) << byte;
        }
        for (int round = 0; round < 300; ++round) {
            std::string text;
            for (unsigned int length = random() % 40; length > 0; --length)
                text += static_cast<char>(random() % 3 == 0 ? 0xA1 + random() % 0x5E
                                                            : ' ' + random() % 0x5F);
            const std::string utf8 = byIconv("UTF-8", name, text);
            const std::string actual = toUTF8(codeset, text);
            if (utf8 != kFailed && actual != utf8)
                ADD_FAILURE() << "round " << round;
            if (actual != kFailed) {
                EXPECT_EQ(fromUTF8(codeset, actual), byIconv(name, "UTF-8", actual)) << round;
            }
        }
    }
}

struct LengthCase {
    const char *codeset, *text;
    size_t n;
    int mblen, mbtowc;
    unsigned int wide;
};

// clang-format off
const LengthCase kLengths[] = {
    {"UTF8", "a", 1, 1, 1, 'a'}, {"UTF8", "", 1, 0, 0, 0}, {"UTF8", "a", 0, 0, 0, 0},
    {"UTF8", "\xE2\x82\xAC", 3, 3, 3, 0x20AC}, {"UTF8", "\xE2\x82\xAC", 2, -1, -1, 0},
    {"UTF8", "\xE2", 4, -1, -1, 0}, {"UTF8", "\xF0\x9F\x98\x80", 4, 4, -1, 0},
    {"ISO-8859-15", "\xA4", 9, 1, 1, 0x20AC}, {"ISO-8859-7", "\xD2", 1, -1, -1, 0},
    {"EUC-JP", "\xC6\xFC", 4, 2, 2, 0x65E5}, {"EUC-JP", "\xC6\xFC", 1, -1, -1, 0},
    {"EUC-JP", "\xC6", 4, -1, -1, 0}, {"EUC-JP", "\x8F\xB0\xA1", 4, 3, 3, 0x4E02},
    {"UTF8", "\xE0\xA0\x80", 3, 3, 3, 0x800}, {"UTF8", "\xEF\xBF\xBF", 3, 3, 3, 0xFFFF},
    {"EUC-JP", "\xFF", 4, -1, -1, 0}, {"GB18030", "\x94\x39\xFC\x36", 4, 4, -1, 0},
};
// clang-format on

TEST(Codesets, MeasureCharacters) {
    for (const LengthCase& c : kLengths) {
        SCOPED_TRACE(testing::Message() << c.codeset << " " << c.text << " " << c.n);
        const CodesetHandle codeset(c.codeset);
        EXPECT_EQ(qel_mblen(codeset, c.text, c.n), c.mblen);
        qel_wide wide = 0;
        EXPECT_EQ(qel_mbtowc(codeset, &wide, c.text, c.n), c.mbtowc);
        EXPECT_EQ(wide, c.wide);
        char bytes[8];
        if (c.mbtowc > 0) {
            ASSERT_EQ(qel_wctomb(codeset, bytes, wide), c.mbtowc);
            EXPECT_EQ(memcmp(bytes, c.text, static_cast<size_t>(c.mbtowc)), 0);
        }
    }
    char bytes[8];
    EXPECT_EQ(qel_wctomb(CodesetHandle("ISO-8859-1"), bytes, 0x20AC), -1);
    EXPECT_EQ(qel_wctomb(CodesetHandle("UTF8"), bytes, 0xD800), -1) << "half a character";
}

// In Shift_JIS the second byte of a character may be a backslash or a letter.
TEST(Codesets, FindWholeCharactersOnly) {
    const CodesetHandle sjis("CP932");
    const char text[] =
        "\x95\\a\\b\x83"
        "aa";  // 表 a \ b ヂ a
    EXPECT_EQ(qel_strchr(sjis, text, '\\'), text + 3);
    EXPECT_EQ(qel_strchr(sjis, text + 5, 'a'), text + 7);
    EXPECT_EQ(qel_strrchr(sjis, text, '\\'), text + 3);
    EXPECT_EQ(qel_strchr(sjis, text, 'x'), nullptr);
    EXPECT_EQ(qel_strchr(sjis, text, '\0'), text + 8);
    EXPECT_EQ(qel_strchr(sjis, text, 0x95), nullptr) << "the first byte of a longer character";
    EXPECT_EQ(qel_strstr(sjis, text, "\\b"), text + 3);
    EXPECT_EQ(qel_strstr(sjis, text, "\\a"), nullptr);
    EXPECT_EQ(qel_strpbrk(sjis, text, "\\"), text + 3);
    EXPECT_EQ(qel_strspn(sjis, text, "a\x95\x5C"), 3U);
    EXPECT_EQ(qel_strcspn(sjis, text, "\\b"), 3U);

    char words[] = "\x95\x5C\\\\x\\";
    char* rest = nullptr;
    EXPECT_STREQ(qel_strtok(sjis, words, "\\", &rest), "\x95\x5C");
    EXPECT_STREQ(qel_strtok(sjis, nullptr, "\\", &rest), "x");
    EXPECT_EQ(qel_strtok(sjis, nullptr, "\\", &rest), nullptr);
    EXPECT_EQ(qel_strtok(sjis, nullptr, "\\", &rest), nullptr) << "stays at the end";

    const CodesetHandle utf8("UTF8");
    const char* const euro = kAEuroB.c_str();
    EXPECT_EQ(qel_strstr(utf8, euro, kEuro.c_str()), euro + 1);
    EXPECT_EQ(qel_strstr(utf8, euro, "\x82\xAC"), nullptr) << "part of a character";
    EXPECT_EQ(qel_strstr(utf8, euro, "\xE2\x82"), nullptr) << "another part";
    EXPECT_EQ(qel_strspn(utf8, euro, (kEuro + "a").c_str()), 4U);
}

TEST(Codesets, CopyWholeCharactersOnly) {
    const CodesetHandle utf8("UTF8");
    const size_t copied[] = {0, 1, 1, 1, 4, 5, 5};  // of so many bytes of room
    for (size_t n = 0; n < sizeof copied / sizeof *copied; ++n) {
        SCOPED_TRACE(n);
        const std::string whole = kAEuroB.substr(0, copied[n]);
        std::string target(16, '#');
        qel_strncpy(utf8, target.data(), kAEuroB.c_str(), n);
        std::string padded = whole;
        padded.resize(n);  // with NULs
        EXPECT_EQ(target, padded + std::string(16 - n, '#'));
        target = std::string("x\0##########", 12);
        EXPECT_EQ(qel_strncat(utf8, target.data(), kAEuroB.c_str(), n), "x" + whole);
    }

    // Bytes behind which nothing may be read: what the end cuts off is left out, what is no
    // character anyhow isn't.
    const struct {
        const char *codeset, *bytes;
        size_t whole;
    } kUnterminated[] = {
        {"UTF8", "a\xC3", 1},          {"UTF8", "a\xE2\x82", 1},  {"UTF8", "\xF0\x9F\x98", 0},
        {"UTF8", "a\xE0\x80", 3},      {"UTF8", "a\xED\xA0", 3},  {"UTF8", "\xE2z\x82", 3},
        {"UTF8", "\xF4\x90", 2},       {"UTF8", "\xFF\xC1", 2},   {"EUC-JP", "a\xC6", 1},
        {"EUC-JP", "\xC6\xFC\x8F", 2}, {"EUC-JP", "\x8F\xA2", 0}, {"EUC-JP", "\xFFz", 2},
    };
    for (const auto& c : kUnterminated) {
        SCOPED_TRACE(testing::Message() << c.codeset << testing::PrintToString(c.bytes));
        const CodesetHandle codeset(c.codeset);
        const std::vector<char> bytes(c.bytes, c.bytes + strlen(c.bytes));
        std::string target(8, '\0');
        qel_strncpy(codeset, target.data(), bytes.data(), bytes.size());
        EXPECT_EQ(target.c_str(), std::string(c.bytes, c.whole));
        target.assign(8, '\0');
        qel_strncat(codeset, target.data(), bytes.data(), bytes.size());
        EXPECT_EQ(target.c_str(), std::string(c.bytes, c.whole));
        EXPECT_LE(qel_mblen(codeset, c.bytes + c.whole, strlen(c.bytes) - c.whole), 0);
        EXPECT_GE(qel_mblen(codeset, c.bytes + c.whole, strlen(c.bytes) - c.whole), -1);
    }
}

TEST(Child, DISABLED_CaseIsThatOfTheLocaleHandle) {
    const CodesetHandle utf8("UTF8"), latin("ISO-8859-1"), japanese("EUC-JP");
    ASSERT_NE(setlocale(LC_ALL, "en_US.UTF-8"), nullptr) << "is LOCPATH set?";
    static const qel_locale english = qel_loc_new("en_US.UTF-8");
    ASSERT_NE(english, 0U);
    setlocale(LC_ALL, "C");  // what the process does later doesn't matter
    EXPECT_EQ(qel_stricmp(utf8, english, "Caf\xC3\x89x", "cAF\xC3\xA9X"), 0);
    EXPECT_EQ(qel_stricmp(latin, english, "Caf\xC9", "caf\xE9"), 0);
    EXPECT_LT(qel_stricmp(utf8, english, "ab", "B"), 0);
    EXPECT_GT(qel_stricmp(utf8, english, "abc", "AB"), 0);
    EXPECT_EQ(qel_strnicmp(utf8, english, "abX", "ABy", 2), 0);
    EXPECT_NE(qel_strnicmp(utf8, english, "abX", "ABy", 3), 0);
    EXPECT_NE(qel_stricmp(utf8, english, "\xC9", "\xE9"), 0) << "stray bytes have no case";

    const struct {
        qel_codeset codeset;
        const char *text, *lower, *upper;
    } cases[] = {
        {utf8, "aZ\xC3\x89\xC3\xA9\xFF!", "az\xC3\xA9\xC3\xA9\xFF!", "AZ\xC3\x89\xC3\x89\xFF!"},
        {utf8, "\xC4\xB1\xC4\xB0", "\xC4\xB1\xC4\xB0", "\xC4\xB1\xC4\xB0"},  // would change length
        // The upper case of ff isn't there.
        {latin, "\xE9\xC9\xFF", "\xE9\xE9\xFF", "\xC9\xC9\xFF"},
        {japanese, "a\xA3\xE1\xA3\xC1", "a\xA3\xE1\xA3\xE1", "A\xA3\xC1\xA3\xC1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        std::string text = c.text;
        EXPECT_STREQ(qel_strlower(c.codeset, english, text.data()), c.lower);
        text = c.text;
        EXPECT_STREQ(qel_strupper(c.codeset, english, text.data()), c.upper);
    }
}

TEST(Codesets, ServeSeveralThreadsByOneHandle) {
    const CodesetHandle japanese("EUC-JP"), shifting("ISO-2022-JP");
    inFourThreads([&] {
        for (int i = 0; i < 500; ++i) {
            EXPECT_EQ(fromUTF8(shifting, "\xE6\x97\xA5"), "\x1B$BF|\x1B(B");
            EXPECT_EQ(fromUTF8(shifting, "\xE6\x97\xA5\xFF"), kFailed) << "when shifted";
            EXPECT_EQ(toUTF8(japanese, "a\xC6\xFC\xCB\xDCz"), "a\xE6\x97\xA5\xE6\x9C\xACz");
            EXPECT_EQ(toUTF8(japanese, "a\xC6"), kFailed);
            // Each asks first for some of the pairs that are remembered.
            const char kanji[] = {static_cast<char>(0xB0 + i % 31),
                                  static_cast<char>(0xA1 + i % 94)};
            char back[8];
            qel_wide wide = 0;
            EXPECT_EQ(qel_mblen(japanese, kanji, 1), -1);
            EXPECT_EQ(qel_mbtowc(japanese, &wide, kanji, 2), 2);
            EXPECT_EQ(qel_wctomb(japanese, back, wide), 2);
            EXPECT_EQ(memcmp(back, kanji, 2), 0) << i;
        }
    });
}

TEST(TextFunctions, RefuseNothingAndConvertNothing) {
    char target[8] = "#######";
    EXPECT_EQ(zlcs_to_utf8("a", 0, target, 8), 0);
    EXPECT_EQ(zlcs_to_utf8(nullptr, 1, target, 8), 0);
    EXPECT_EQ(zlcs_from_utf8("a", 1, target, 0), 0);
    EXPECT_EQ(zlcs_from_utf8("a", 1, nullptr, 8), 0);
    EXPECT_STREQ(target, "#######");
    EXPECT_EQ(zset_cs_dir(nullptr), 0);
    EXPECT_EQ(zset_cs_dir("/tables"), 0);
    EXPECT_EQ(zgetLCSHandle(), zgetLCSHandle());
    EXPECT_NE(zgetLCSHandle(), zgetUTF8Handle());
    EXPECT_EQ(zstrcount(zgetUTF8Handle(), nullptr), 0U);
    EXPECT_EQ(zstrcount(zgetUTF8Handle(), kAEuroB.c_str()), 5U) << "bytes, not characters";
    EXPECT_EQ(zstrcount(zgetUTF8Handle(), "a\xE2\x82"), 1U) << "up to what isn't valid";
    EXPECT_EQ(zisspace(zgetUTF8Handle(), nullptr, 1), 0);
    EXPECT_EQ(zisspace(zgetUTF8Handle(), " ", 0), 0);
    EXPECT_EQ(zisspace(zgetUTF8Handle(), "", 1), 0);
    zwide_char wide = 7;
    EXPECT_EQ(zmbtowc(zgetUTF8Handle(), &wide, "\xFF", 1), -1);
    EXPECT_EQ(wide, 0);
    tm time = {};
    EXPECT_STREQ(zstrptime(zgetUTF8Handle(), "12:34 x", "%H:%M", &time), " x");
    EXPECT_EQ(time.tm_min, 34);
}

// A locale, and what text is in it.
struct LocaleCase {
    const char *locale, *codeset;
    const char *text, *utf8;         // valid text beyond ASCII, or null, and the same
    const char* upper;               // in upper case, if the locale knows it
    const char *noLocal, *badLocal;  // UTF-8 that this codeset lacks; no valid text
    int characterLength;             // of the first character of `text`
};

const LocaleCase kLocales[] = {
    {"C", "ANSI_X3.4-1968", nullptr, nullptr, nullptr, "caf\xC3\xA9", "caf\xE9", 1},
    {"C.UTF-8", "UTF-8", "\xC3\xA9t\xC3\xA9", "\xC3\xA9t\xC3\xA9", "\xC3\x89T\xC3\x89",
     "a\xED\xA0\x80", "\xC3", 2},
    {"en_US.ISO-8859-1", "ISO-8859-1", "\xE9t\xE9", "\xC3\xA9t\xC3\xA9", "\xC9T\xC9",
     "\xE2\x82\xAC", nullptr, 1},
    {"ja_JP.EUC-JP", "EUC-JP", "\xC6\xFCz\xCB\xDC", "\xE6\x97\xA5z\xE6\x9C\xAC",
     "\xC6\xFCZ\xCB\xDC", "\xF0\x9F\x98\x80", "a\xC6", 2},
};

TEST(Child, DISABLED_StringsInALocale) {
    const char* const name = getenv("LC_ALL");
    const LocaleCase& c = *std::find_if(
        kLocales, kLocales + 3, [&](const auto& each) { return strcmp(each.locale, name) == 0; });

    // The first strings of the process, from several threads.
    inFourThreads([] {
        const ZUTF8String utf8("text");
        EXPECT_NE(utf8.getCodesetHandle(), 0U);
        EXPECT_TRUE(ZLCString(utf8) == "text");
    });

    EXPECT_STREQ(zgetlocale(), c.locale);
    EXPECT_STREQ(zgetLocalCodesetName(), c.codeset);
    ZLCString locale("before");
    EXPECT_EQ(ZGetLocale(locale), 0);
    EXPECT_TRUE(locale == c.locale);

    ZUTF8String utf8("old");
    ZLCString local("old");
    if (c.text != nullptr) {
        const ZLCString text(c.text);
        EXPECT_STREQ(ZUTF8String(text), c.utf8);
        EXPECT_STREQ(ZUTF8String(ZLCConstString(c.text)), c.utf8);
        EXPECT_STREQ(ZLCString(ZUTF8String(c.utf8)), c.text);
        EXPECT_STREQ(utf8 = text, c.utf8);
        EXPECT_STREQ(local = ZUTF8ConstString(c.utf8), c.text);
        EXPECT_EQ(local.getCharCount(), strlen(c.text));
        ZAbstractMutableString& target = utf8;
        target.setChars(static_cast<const ZAbstractString&>(local));
        EXPECT_STREQ(utf8, c.utf8) << "conversion without a class's name";
        EXPECT_EQ(zmblen(zgetLCSHandle(), c.text, strlen(c.text)), c.characterLength);
        EXPECT_EQ(zisalpha(zgetLCSHandle(), c.text, strlen(c.text)), c.characterLength);
        local.upper();
        EXPECT_STREQ(local, c.upper);
        EXPECT_EQ(local.compareignorecase(c.text), 0);
        EXPECT_STREQ(ZLCString(c.upper).lower(), c.text);

        // Conversion takes 3 bytes a byte into UTF-8 and 2 out of it, and one more.
        const std::string longText(200, 'x');
        EXPECT_EQ(ZUTF8String(ZLCString(longText.c_str())).getCapacity(), 601U);
        EXPECT_EQ(ZLCString(ZUTF8String(longText.c_str())).getCapacity(), 401U);
    }
    for (const char* text : {c.noLocal, ""}) {  // what can't be converted leaves no old text
        local = "old";
        EXPECT_EQ((local = ZUTF8String(text)).getLength(), 0U);
        local = "old";
        local.setChars(static_cast<const ZAbstractString&>(ZUTF8String(text)));
        EXPECT_STREQ(local, "");
    }
    if (c.badLocal != nullptr) {
        EXPECT_STREQ(utf8 = ZLCString(c.badLocal), "");
    }

    if (MB_CUR_MAX == 1) {
        EXPECT_EQ(zmblen(zgetLCSHandle(), "", 0), 1) << "isn't looked at";
        EXPECT_EQ(zstrcount(zgetLCSHandle(), "five!"), 5U);
    } else {
        EXPECT_EQ(zmblen(zgetLCSHandle(), "", 1), 0);
        // The walk meets a character that isn't valid behind the hit's first byte.
        EXPECT_THROW(ZUTF8String("\xC3").lastIndexOf(0xC3), ZQELMBLenException);
    }
    if (strcmp(c.codeset, "EUC-JP") == 0) {
        EXPECT_EQ(zisspace(zgetLCSHandle(), "\xA1\xA1", 2), 2) << "a wide blank";
        EXPECT_THROW(ZLCString("\xC6\xFC\xCB\xC6").lastIndexOf(0xC6), ZQELMBLenException);
        EXPECT_EQ(ZLCString("\xC6\xFC\xC6\xDC").lastIndexOf(0xC6), 2U);
    }
    EXPECT_NE(zgetLCSHandle(), zgetUTF8Handle()) << "even if both are UTF-8";
}

TEST(Locales, HaveTheirOwnCaseAndStrings) {
    expectChildPasses("Child.DISABLED_CaseIsThatOfTheLocaleHandle");
    expectChildPassesInEachLocale("Child.DISABLED_StringsInALocale");
}

}  // namespace
