// Conversion between UTF-8 and codesets named at run time.
#include "support/Prelude.h"

#include "Z/ZUTF8Converter.h"
#include "support/Raised.h"
#include "support/FailingAllocator.h"
#include "support/SelfChild.h"

namespace {

const char kDirectory[] = "/tables";
const char kNihongo[] = "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E";

using Direction = void (ZQELUTF8Converter::*)(const char*, ZBuffer&) const;
const Direction kToLocal = &ZQELUTF8Converter::convertToLocal;
const Direction kToUTF8 = &ZQELUTF8Converter::convertToUTF8;

// The bytes of the result, the terminator too.
std::string converted(const ZQELUTF8Converter& converter, Direction direction, const char* text) {
    ZBuffer out("old");
    (converter.*direction)(text, out);
    return std::string(static_cast<const char*>(out.getBuffer()), out.getLength());
}

// The text with its terminator.
std::string whole(const char* text) { return std::string(text, strlen(text) + 1); }

struct ConversionCase {
    const char *codeset, *local, *utf8;
};

const ConversionCase kConversions[] = {
    {"UTF8", kNihongo, kNihongo},
    {"ISO-8859-1", "\xE9 and more", "\xC3\xA9 and more"},
    {"ISO-8859-1", "", ""},
    {"EUC-JP", "a\xC6\xFC\xCB\xDC", "a\xE6\x97\xA5\xE6\x9C\xAC"},
    {"ISO-2022-JP", "\x1B$BF|K\\8l\x1B(B", kNihongo},  // shifts, which end before the terminator
    {"ISO-2022-JP", "plain", "plain"},
};

TEST(Converters, ConvertATextAndItsTerminator) {
    for (const ConversionCase& c : kConversions) {
        SCOPED_TRACE(testing::Message() << c.codeset << " " << c.utf8);
        const ZQELUTF8Converter converter(c.codeset, nullptr);
        EXPECT_STREQ(converter.getLocalCodeSet(), c.codeset);
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(converted(converter, kToUTF8, c.local), whole(c.utf8));
            EXPECT_EQ(converted(converter, kToLocal, c.utf8), whole(c.local));
            // A failure in the middle of a shift leaves no state behind.
            EXPECT_EQ(converted(converter, kToLocal, "\xE6\x97\xA5\xFF").size(), 9U);
        }
        ZBuffer own(c.utf8);
        converter.convertToLocal(static_cast<const char*>(own.getBuffer()), own);
        EXPECT_EQ(own.compare(ZBuffer(c.local)), 0) << "the text lies in the buffer";
        EXPECT_EQ(converted(converter, kToUTF8, nullptr), whole(""));
    }
}

TEST(Converters, LeaveTheFirstSizeAfterAFailure) {
    const ZQELUTF8Converter none, empty("", nullptr), unknown("KLINGON", nullptr),
        latin("ISO-8859-1", nullptr), shifting("ISO-2022-JP", nullptr);
    EXPECT_STREQ(none.getLocalCodeSet(), "");
    for (const ZQELUTF8Converter* converter : {&none, &empty, &unknown}) {
        EXPECT_EQ(converted(*converter, kToLocal, "abc").size(), 7U);
        EXPECT_EQ(converted(*converter, kToUTF8, "abc").size(), 10U);
    }
    EXPECT_EQ(converted(latin, kToLocal, "\xE2\x82\xAC").size(), 7U) << "not in Latin 1";
    EXPECT_EQ(converted(shifting, kToLocal, "\xE6\x97\xA5").size(), 7U) << "shifts take 9 bytes";
    EXPECT_EQ(converted(shifting, kToUTF8, "\x1B$BF").size(), 13U) << "half a character";
    EXPECT_EQ(converted(shifting, kToUTF8, "ok"), whole("ok"));

    ZBuffer out("old");
    EXPECT_TRUE(endsWithoutMemory([&] { latin.convertToUTF8("abc", out); }));
    EXPECT_EQ(out.compare(ZBuffer("old")), 0);
}

TEST(Child, DISABLED_NoEnvironment) {
    EXPECT_EQ(numberOf([] { ZQELUTF8Converter(); }), 45);
    EXPECT_EQ(numberOf([] { ZQELUTF8Converter("UTF8", nullptr); }), 45);
    const ZQELUTF8Converter latin("ISO-8859-1", kDirectory), system(nullptr, kDirectory);
    EXPECT_EQ(converted(latin, kToUTF8, "\xE9"), whole("\xC3\xA9"));
    EXPECT_EQ(converted(latin, kToLocal, "\xC3\xA9"), whole("\xE9"));
    EXPECT_EQ(strcmp(system.getLocalCodeSet().getChars(), "ANSI_X3.4-1968"), 0);
    EXPECT_EQ(converted(system, kToUTF8, "a"), whole("a"));

    // Text has been asked for in vain, and for good.
    EXPECT_EQ(zgetlocale(), nullptr);
    setenv("QELDIR", kDirectory, 1);
    for (const char* directory : {kDirectory, static_cast<const char*>(nullptr)}) {
        const ZQELUTF8Converter late("ISO-8859-1", directory);
        EXPECT_EQ(converted(late, kToUTF8, "\xE9"), whole("\xC3\xA9"));
    }
}

TEST(Converters, NeedNoEnvironmentWithADirectory) {
    expectChildPasses("Child.DISABLED_NoEnvironment", {{"QELDIR", nullptr}});
}

TEST(Child, DISABLED_FirstInTheProcess) {
    const ZQELUTF8Converter system(nullptr, nullptr);
    EXPECT_STREQ(system.getLocalCodeSet(), "EUC-JP");
    EXPECT_EQ(converted(system, kToLocal, "\xE6\x97\xA5"), whole("\xC6\xFC"));
}

TEST(Converters, TakeTheLocaleOfTheEnvironment) {
    expectChildPasses("Child.DISABLED_FirstInTheProcess",
                      {{"LC_ALL", "ja_JP.EUC-JP"}, {"QELDIR", kDirectory}});
}

}  // namespace
