// The formatter beside a model of its rules, and at its edges: cuts, memory, broken formats,
// codesets.
#include "support/Prelude.h"

#include <sys/mman.h>

#include <cfloat>
#include <cmath>

#include "Z/ZLCString.h"
#include "Z/ZUTF8String.h"
#include "Z/zasprintf.h"
#include "Z/zsnprintf.h"
#include "support/FailingAllocator.h"
#include "support/FormatModel.h"
#include "support/SelfChild.h"

namespace {

enum Cuts { everywhere = 1, some = 10 };

/// Expects every way to format to do what the model does.
void check(Cuts cuts, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    const std::string fault = formatFault(format, ap, cuts);
    va_end(ap);
    ASSERT_EQ(fault, "");
}

const char* const kWidths[] = {"", "1", "9", "*"};
const char* const kPrecisions[] = {"", ".", ".0", ".1", ".6", ".*"};

/// Every combination of flags, width, precision and the given endings.
template <typename Value>
void checkAll(const std::vector<std::string>& endings, const std::vector<Value>& values) {
    for (unsigned int set = 0; set < 64; ++set) {
        std::string flags;
        for (int bit = 0; bit < 6; ++bit) {
            if (set >> bit & 1)
                flags += "#-0 +'"[bit];
        }
        for (const std::string width : kWidths) {
            for (const std::string precision : kPrecisions) {
                for (const std::string& ending : endings) {
                    const std::string format = "<%" + flags + width + precision + ending + ">";
                    const char* const f = format.c_str();
                    for (Value value : values) {
                        if (width == "*" && precision == ".*") {
                            check(some, f, 7, 3, value);
                            check(some, f, -7, -1, value);
                        } else if (width == "*" || precision == ".*") {
                            check(some, f, 4, value);
                            check(some, f, -4, value);
                        } else {
                            check(everywhere, f, value);
                        }
                        if (testing::Test::HasFatalFailure())
                            return;
                    }
                }
            }
        }
    }
}

}  // namespace

TEST(Format, IntegersInAllCombinations) {
    checkAll<int>({"d", "u", "o", "x", "X", "hd", "hu", "hx", "i"},
                  {0, 8, -42, 10000, 65535, INT_MIN});
    checkAll<long>({"ld", "lu", "lo", "lX"}, {0, 255, LONG_MIN});
    checkAll<long long>({"lld", "Lu", "qo", "llx"},
                        {0, 99999999999LL, LLONG_MIN, static_cast<long long>(100000000ULL << 32)});
}

TEST(Format, TextsCharactersAndPointersInAllCombinations) {
    checkAll<const char*>({"s", "ls", "hs", "p", "Lp"}, {"", "text", nullptr, "more of it"});
    static const zwide_char kWide[] = {'w', 'i', 'd', 'e', 0};
    checkAll<const zwide_char*>({"S", "lS"}, {kWide, kWide + 4, nullptr});
    checkAll<int>({"c", "C", "lc", "%"}, {'x', '\n'});
    check(everywhere, "a%cb%-3cc", 0, 0);  // NULs are written and counted
    check(everywhere, "%p %p %30.5p %-20p", static_cast<void*>(nullptr),
          reinterpret_cast<void*>(UINTPTR_MAX), reinterpret_cast<void*>(0x1000), nullptr);
}

TEST(Format, RealsInAllCombinations) {
    zgetLCSHandle();  // which sets the locale for both
    checkAll<double>({"f", "e", "E", "g", "G"}, {0.0, -1.5, 1e15, HUGE_VAL, -NAN});
    checkAll<long double>({"Lf", "llE", "qg", "LG"}, {-2.25L, 1e25L});
    checkAll<double>({"lf", "he", "F", "a"}, {1.0});
    // Longer than any estimate from width and precision.
    check(everywhere, "%f|%.*f|%400f", -DBL_MAX, 120, DBL_MAX, 1.0);
    check(some, "%-500.350f|%099.98f|%100.99f|%.100f", DBL_MIN, 0.1, 0.1, 0.1);
    check(some, "%Lf %Lf", LDBL_MAX, -LDBL_MIN);
}

TEST(Format, RealsWithADecimalPointOfTwoBytes) {
    const SelfChild child = runSelf("Format.RealsInAllCombinations", {{"LC_ALL", "ps_AF.UTF-8"}});
    EXPECT_TRUE(child.passed()) << child.output;
}

TEST(Format, KnownAnswersForTwoArguments) {
    // clang-format off
    const struct {
        const char *format, *text;
    } kGood[] = {
        {"%d", "5"}, {"%2$d %1$d", "-42 5"}, {"%1$d %d", "5 -42"}, {"%*d", "  -42"},
        {"%2$*1$d", "  -42"}, {"%2$0*1$d", "-0042"}, {"%1$*2$d", "5"}, {"%2$.*1$d", "-00042"},
        {"%5%", "    %"}, {"%-3%|", "%  |"}, {"%%%d", "%5"}, {"%1$%%1$d", "%5"}, {"%1$d%1$%", "5%"},
        {"%1$%%2$d", "%5"}, {"%1$*1$%", "    %"}, {"%00d", "5"}, {"%004d", "0005"},
        {"%-04d|", "5   |"}, {"%0-4d|", "5   |"}, {"%.d", "5"}, {"%04.d", "0005"}, {"%.3d", "005"},
        {"%04.2d", "  05"}, {"%+d", "+5"}, {"% d", " 5"}, {"%#x", "0x5"}, {"%#06x", "0x0005"},
        {"%#o", "05"}, {"%1$*1$2$d", "5"}, {"", ""}, {"%00000000000000000003d", "005"},
        {"\xFF%c", "\xFF\x05"},
    };
    const char* const kBad[] = {
        "%2$d", "%d %2$d", "%5*d", "%*5d", "%1$*5d", "%*1$d", "%0$d", "%1$*0$d", "%2$*0$d",
        "%0$d %2$d", "%hhd", "%lld%", "%lll", "%hld", "%Lld", "%n", "%a", "%jd", "%zd", "%td", "%D",
        "%", "text %", "%5", "%1$", "%..d", "%5-d", "%.-5d", "%$d", "%1$1$d", "%1$*2$*2$d",
        "%2147483648d", "%.2147483648d", "%2147483648$d", "%2147483647$d", "%2147483647$d %d",
        "%1$*99999999999$d", "%18446744073709551617d", "%\xFF",
    };
    // clang-format on
    char text[64] = "untouched";
    for (const char* format : kBad) {
        EXPECT_EQ(zsnprintf(text, sizeof text, format, 5, -42), -1) << format;
        EXPECT_STREQ(text, "untouched") << format;
    }
    for (const auto& c : kGood) {
        EXPECT_EQ(zsnprintf(text, sizeof text, c.format, 5, -42), int(strlen(c.text))) << c.format;
        EXPECT_STREQ(text, c.text) << c.format;
    }
}

TEST(Format, KnownAnswersForZerosAndPointers) {
    char text[80];
    zsnprintf(text, sizeof text, "%#6x|%#.0x|%.0o|%#.0o|%#.2o|%'d|%-8p|%.5p|%p|%*d|%08.2f", 0, 0, 0,
              0, 8, 1234567, reinterpret_cast<void*>(0x1F), reinterpret_cast<void*>(0x1F), nullptr,
              INT_MIN, 7, 1.5);
    EXPECT_STREQ(text, "     0x0|0x|||010|1234567|0x00001f|0x0001f|0x|7|    1.50");
}

namespace {

/// A random format; most of its directives are good ones, and all take integers.
std::string randomFormat(std::mt19937& random) {
    const auto pick = [&random](std::initializer_list<const char*> words) {
        return std::string(words.begin()[random() % words.size()]);
    };
    std::string format;
    const bool numbers = random() % 2;
    for (unsigned int i = random() % 8; i != 0; --i) {
        format += pick({"", "", "a", "text "}) + "%";
        if (random() % 30 == 0)
            format += pick({"0$", "*", ".", "$", "z", "%", "99$", "1"});
        const bool numbered = numbers && random() % 2;
        const auto position = [&] { return std::to_string(random() % 5 + 1) + "$"; };
        if (numbered)
            format += position();
        format += pick({"", "", "-", "0", "+", "#", " ", "'", "-0", "0-", "00"});
        format += pick({"", "", "", "7", "12", "*"});
        if (format.back() == '*' && numbered && random() % 2)
            format += position();
        format += pick({"", "", "", ".", ".3", ".0", ".*"});
        if (format.back() == '*' && numbered && random() % 2)
            format += position();
        format += pick({"", "", "", "h", "l", "ll", "L", "q"});
        format += pick({"d", "i", "u", "o", "x", "X", "c", "C", "p", "%"});
    }
    return format + pick({"", "", "end"});
}

}  // namespace

// A format lies right in front of a page that can't be read; many end within a directive.
TEST(Format, RandomFormatsWithNumbersOfWhichNothingIsReadBehindTheNul) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    char* const pages = static_cast<char*>(
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(pages, MAP_FAILED);
    ASSERT_EQ(mprotect(pages + page, page, PROT_NONE), 0);
    std::mt19937 random(20);
    for (int i = 0; i < 30000; ++i) {
        std::string format = randomFormat(random);
        if (random() % 4 == 0)
            format.resize(random() % (format.size() + 1));
        char* const text = pages + page - format.size() - 1;
        memcpy(text, format.c_str(), format.size() + 1);
        check(some, text, 3L, 12L, 5L, -2L, 65L, 0L, 7L, 11L, -70000L, 9L, 10L, 4L, 13L, 14L, 8L,
              6L, 17L, 18L, 19L, 20L, 21L, 22L, 23L, 24L, 25L, 26L, 27L, 28L, 29L, 30L, 31L, 32L,
              33L, 34L, 35L, 36L, 37L, 38L, 39L, 40L, 41L, 42L, 43L, 44L, 45L, 46L, 47L);
        ASSERT_FALSE(HasFatalFailure()) << i;
    }
    munmap(pages, 2 * page);
}

TEST(Format, ManyDirectivesAndArguments) {
    check(some, "%d%d%d%d%d%d%d%d%d%d%d%d%s", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, "end");
    check(some, "%13$s%12$d%11$d%10$d%9$d%8$d%7$d%6$d%5$d%4$d%3$d%2$d%1$d", 1, 2, 3, 4, 5, 6, 7, 8,
          9, 10, 11, 12, "end");
    // Each kind fetched as what it is, through registers and behind them.
    check(everywhere, "%s %f %lld %d %Lf %c %s %g %lu %hd %e %p %f %Lg %d", "a", 1.5, 1LL << 40, -1,
          2.5L, 'c', "b", 0.25, 7UL, -3, 1e10, nullptr, 3.5, 4.5L, 99);
    check(everywhere, "%3$f %1$s %2$d %4$Lf %5$lld", "a", 1, 2.5, 3.5L, 1LL << 50);
    check(some, "%1$d %1$p", -42);  // of an int only what a pointer has
    std::string format;
    for (int i = 0; i < 1000; ++i)
        format += "%1$d,";
    check(some, format.c_str(), 7);
}

TEST(Format, LongTexts) {
    // Around the room that the allocating calls have for a first try.
    const std::string text(5000, 't');
    for (int length : {1000, 1021, 1022, 1023, 1024, 1025, 5000})
        check(some, "%.*s%c", length, text.c_str(), 'c');
    check(some, "%1500d|%.900f|%1$-1200d", 5, 1.5);
    // Nothing is read behind the precision.
    const std::vector<char> open(3, 'x');
    check(everywhere, "%.3s|%.*s", open.data(), 2, open.data());
    const std::vector<zwide_char> wideOpen(3, 'x');
    check(everywhere, "%.3S", wideOpen.data());
}

static void* formatHugeSizes(void*) {
    const char* const kWhole[] = {"%2147483647d",  "%-2147483647s",    "%02147483647x",
                                  "%.2147483647u", "%2147483646.5d\n", "%2147483647.2147483647o"};
    for (const char* format : kWhole) {
        char text[8] = "1234567";
        EXPECT_EQ(zsnprintf(nullptr, 0, format, 0), INT_MAX) << format;
        EXPECT_EQ(zsnprintf(text, sizeof text, format, 0), INT_MAX) << format;
        EXPECT_EQ(strlen(text), sizeof text - 1) << format;
    }
    EXPECT_EQ(zsnprintf(nullptr, 0, "%*S", INT_MAX, nullptr), INT_MAX);
    for (const char* format : {"%2147483647d.", "+%2147483647d", "%2147483647d%2147483647d",
                               "%.2147483647d%d", "%#2147483647x%c", "%+.2147483647d"})
        EXPECT_EQ(zsnprintf(nullptr, 0, format, 0, 0), -1) << format;
    EXPECT_EQ(zsnprintf(nullptr, 0, "%*d", INT_MIN, 7), 1);
    EXPECT_EQ(zsnprintf(nullptr, 0, "%1$*2$d%3$.*4$f", 1, 2, 3.0, 100000), 100004);
    return nullptr;
}

TEST(Format, HugeSizesNeedNoStack) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 256 * 1024);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, formatHugeSizes, nullptr), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

static int parse(format_context* c, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    const int result = zvsnprintf_parse(c, zgetLCSHandle(), format, ap);
    va_end(ap);
    return result;
}

TEST(Format, StagesByThemselves) {
    format_context c;
    ASSERT_EQ(parse(&c, "%2$s=%1$*3$.2f|%4$d%5$d%6$d%7$d%8$d%9$d%10$d%11$d", 2.5, "k", 6, 4, 5, 6,
                    7, 8, 9, 10, 11),
              0);
    EXPECT_EQ(c.directive_count, 10);
    EXPECT_EQ(c.directives, c.inline_directives);
    EXPECT_NE(c.args, c.inline_args);
    EXPECT_EQ(c.directives[1].width, 3);
    EXPECT_EQ(c.args[3].type, ZFORMAT_TYPE_UINT);
    const std::string whole = "k=  2.50|4567891011";
    for (const int size : {0, -5, 32, 32}) {
        char text[32] = "";
        EXPECT_EQ(zvsnprintf_render(&c, text, size), static_cast<int>(whole.size()));
        EXPECT_EQ(text, size > 0 ? whole : "");
    }
    for (int i = 0; i < 2; ++i)
        zvsnprintf_done(&c);
    EXPECT_EQ(c.args, c.inline_args);

    EXPECT_EQ(parse(&c, "%d%d%d%d%d%d%d%d%d%d%d%", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11), -1);
    zvsnprintf_done(&c);
    EXPECT_EQ(c.directives, c.inline_directives);
}

TEST(Format, TakesNoMemoryButTheResult) {
    zgetLCSHandle();
    for (const char* format :
         {"%d%d%s%f%d%d%d%d%d", "%9$d%8$d%7$d%6$d%5$d%4$300f%3$s%2$d%1$d%1$d"}) {
        char text[512];
        char* out;
        FailAllocations none(1000000);
        zsnprintf(text, sizeof text, format, 1, 2, "3", 4.0, 5, 6, 7, 8, 9);
        const unsigned long buffered = FailAllocations::asked();
        zasprintf(&out, format, 1, 2, "3", 4.0, 5, 6, 7, 8, 9);
        const unsigned long allocated = FailAllocations::asked();
        EXPECT_STREQ(out, text);
        zasprintf_free(out);
        EXPECT_EQ(buffered, 0U) << format;
        EXPECT_EQ(allocated, 1U) << format;
    }
}

TEST(Format, EveryAllocationMayFail) {
    zgetLCSHandle();
    for (const bool clears : {false, true}) {
        // Two growths of the directives, the arguments, and the result.
        for (unsigned long nth = 1; nth <= 5; ++nth) {
            SCOPED_TRACE(testing::Message() << clears << ", allocation " << nth);
            const TrackAllocations track;
            char untouched[] = "untouched";
            char* made = untouched;
            int length;
            {
                FailAllocations failure(nth);
                length = (clears ? zsprintf : zasprintf)(
                    &made, "%d%d%d%d%d%d%d%d%d%d%d%s%%%%%%%%%%%%%%%%%%", 1, 2, 3, 4, 5, 6, 7, 8, 9,
                    10, 11, "long enough");
            }
            EXPECT_EQ(length, nth == 5 ? 33 : -1);
            if (nth < 5) {
                // Without memory for a table nothing is known of the result yet.
                EXPECT_EQ(made, nth == 4 || clears ? nullptr : untouched);
            } else {
                zasprintf_free(made);
            }
            EXPECT_EQ(track.live(), 0);
        }
    }
    EXPECT_EQ(zsprintf(nullptr, "text"), -1);
    char* out = nullptr;
    EXPECT_EQ(zsprintf(&out, nullptr), -1);
}

TEST(Format, IntoStrings) {
    ZLCString local("old");
    EXPECT_EQ(&local.format("%s and %s", local.getChars(), local.getChars()), &local);
    EXPECT_STREQ(local.getChars(), "old and old");
    local.format("%s%", "bad");
    local.format(nullptr);
    EXPECT_STREQ(local.getChars(), "old and old");
    local.format("%70000d", 5);
    EXPECT_EQ(local.getLength(), 70000U);
    ZUTF8String utf8;
    utf8.format("%-4s|%c|%d", "k", 0, 5);  // a string ends at its first NUL
    EXPECT_STREQ(utf8.getChars(), "k   |");
    const TrackAllocations track;
    EXPECT_TRUE(endsWithoutMemory([&] { utf8.format("%200d", 1); }, 2));
    EXPECT_EQ(track.live(), 0);
}

// Wide texts, in a process of each codeset.

TEST(Format, DISABLED_WideTexts) {
    const zwide_char kLetter = getenv("TEST_LETTER") != nullptr
                                   ? static_cast<zwide_char>(atoi(getenv("TEST_LETTER")))
                                   : 0xE4;
    const zwide_char kLacking = 0xD800;  // half a pair: no codeset has it
    const zwide_char text[] = {'a', kLetter, kLetter, 'b', kLetter, 0};
    const zwide_char bad[] = {'a', kLacking, 0};
    zgetLCSHandle();
    for (int width : {-9, 0, 3, 20}) {
        for (int precision = -2; precision < 14; ++precision)
            check(everywhere, "[%*.*S]x", width, precision, text);
    }
    check(everywhere, "[%C|%5C|%-5C]", kLetter, kLetter, kLetter);
    check(everywhere, "%2$S %1$C %2$S", kLetter, text);
    check(everywhere, "%S", bad);
    check(everywhere, "%C", kLacking);
    check(everywhere, "%.1S", bad);
    // A cut in a character leaves it out and everything behind it too.
    char target[16], letter[8];
    memset(target, '#', sizeof target);
    const int length = zsnprintf(letter, sizeof letter, "%C", kLetter);
    zsnprintf(target, 2 + length, "ab%Scd", text + 1);
    EXPECT_STREQ(target, "ab");
    EXPECT_EQ(target[2 + length - 1], '\0');
    EXPECT_EQ(target[2 + length], '#');
    char* out = target;
    EXPECT_EQ(zasprintf(&out, "%S", bad), -1);
    EXPECT_EQ(out, target);
}

TEST(Format, WideTextsInEachCodeset) {
    struct Codeset {
        const char* locale;
        const char* letter;
    };
    for (const Codeset& c : {Codeset{"en_US.ISO-8859-1", "228"}, Codeset{"en_US.UTF-8", "228"},
                             Codeset{"en_US.UTF-8", "26085"}, Codeset{"ja_JP.EUC-JP", "26085"}}) {
        const SelfChild child =
            runSelf("Format.DISABLED_WideTexts", {{"LC_ALL", c.locale}, {"TEST_LETTER", c.letter}});
        EXPECT_TRUE(child.passed()) << c.locale << ' ' << c.letter << '\n' << child.output;
    }
}

TEST(Format, DISABLED_FirstFormat) {
    char text[32];
    zsnprintf(text, sizeof text, "%'.1f %'d", 1234567.5, 1234567);
    EXPECT_STREQ(text, "1,234,567.5 1234567");
}

TEST(Format, FirstFormatRunsTheSetUp) {
    const SelfChild grouped =
        runSelf("Format.DISABLED_FirstFormat", {{"LC_ALL", "en_US.ISO-8859-1"}});
    EXPECT_TRUE(grouped.passed()) << grouped.output;
    EXPECT_TRUE(runSelf("Format.DISABLED_FirstFormat", {{"QELDIR", nullptr}}).aborted());
}
