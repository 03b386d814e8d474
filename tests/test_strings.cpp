// Strings: what they hold, how they grow and what they find, beside std::string as the model.
#include "support/Prelude.h"

#include <sys/mman.h>

#include "Z/ZException.h"
#include "Z/ZString.h"
#include "support/FailingAllocator.h"

namespace {

// What must always hold, and the text.
std::string textOf(const ZAbstractMutableString& s) {
    EXPECT_EQ(s.getChars()[s.getLength()], '\0');
    EXPECT_LE(s.getLength(), s.getCapacity());
    EXPECT_GE(s.getCapacity(), 95U);
    const char* object = reinterpret_cast<const char*>(&s);
    const bool isInside = s.getChars() > object && s.getChars() < object + sizeof(ZLCString);
    EXPECT_EQ(isInside, s.getCapacity() == 95U);
    return std::string(s.getChars(), s.getLength());
}

template <typename String>
class BothFamilies : public testing::Test {};
using Families = testing::Types<ZLCString, ZUTF8String>;
TYPED_TEST_SUITE(BothFamilies, Families, );

struct ConstOf {
    static ZLCConstString of(const ZLCString& s) { return s; }
    static ZUTF8ConstString of(const ZUTF8String& s) { return s; }
};

TYPED_TEST(BothFamilies, GrowByAFifthOfTheRequest) {
    TypeParam s;
    EXPECT_EQ(s.getCapacity(), 95U);
    for (int i = 0; i < 95; ++i)
        s.append('x');
    EXPECT_EQ(s.getCapacity(), 95U);
    s.append('y');
    EXPECT_EQ(s.getCapacity(), 116U);
    EXPECT_EQ(textOf(s), std::string(95, 'x') + 'y');

    TypeParam t;
    EXPECT_EQ(t.setCapacity(10), 95U);
    EXPECT_EQ(t.setCapacity(200), 200U);
    EXPECT_EQ(t.setCapacity(100), 200U);
    t.bump(10, 0);
    EXPECT_EQ(t.getCapacity(), 203U) << "slack on a fitting request, once outside";
    t.clear();
    EXPECT_EQ(t.getCapacity(), 203U);

    const std::string text(100, 'z');
    EXPECT_EQ(TypeParam(text.c_str(), 94).getCapacity(), 95U);
    EXPECT_EQ(TypeParam(text.c_str(), 95).getCapacity(), 116U) << "room for one more";
    EXPECT_EQ(TypeParam(text.c_str()).getCapacity(), 121U);
    EXPECT_EQ(TypeParam(TypeParam(text.c_str())).getCapacity(), 121U);

    TypeParam inserted("abc");
    inserted.insert(1, std::string(92, 'i').c_str());
    EXPECT_EQ(inserted.getCapacity(), 96U + (96 + 7) / 5) << "room for one more";

    s.prepend("p");
    EXPECT_EQ(s.getCapacity(), 97U + (97 + 7) / 5);
    s.trunc(10);
    s.prepend("q");
    EXPECT_EQ(s.getCapacity(), 95U) << "back inside";
    EXPECT_EQ(textOf(s), "qpxxxxxxxxx");
}

TYPED_TEST(BothFamilies, EditAtTheEdgesAndTakeNullForNoText) {  // the rest is the model's
    const char* const null = nullptr;
    TypeParam s("abcdef");
    EXPECT_EQ(textOf(TypeParam(s).remove(3, UINT_MAX)), "abcdef") << "no wrap";
    EXPECT_EQ(textOf(TypeParam(s).remove(3, 3)), "abc");
    EXPECT_EQ(textOf(s.subString(99)) + textOf(s.subString(1, 0)), "");
    EXPECT_EQ(textOf(s.subString(5, UINT_MAX)), "f");
    EXPECT_EQ(textOf(s + "x" + s + ConstOf::of(s)), "abcdefxabcdefabcdef");
    EXPECT_EQ(textOf(s += 'g'), "abcdefg");

    s.append(null).insert(1, null).prepend(null).append(null, 5);
    EXPECT_EQ(textOf(s += null), "abcdefg");
    EXPECT_EQ(textOf(s + null), "abcdefg");
    EXPECT_TRUE(!s.equals(null) && !(s == null) && s != null && !s.contains(null));
    EXPECT_EQ(s.indexOf(null), ZAbstractString::notFound);
    EXPECT_GT(s.compare(null), 0);
    EXPECT_EQ(TypeParam().compareignorecase(null), 0);
    EXPECT_EQ(textOf(s.setChars(null)) + textOf(TypeParam(null)) + textOf(TypeParam(null, 7)), "");

    ZLCConstString c(null);
    EXPECT_STREQ(c.getChars(), "");
    EXPECT_EQ(c.isEmpty(), 1);
    c = "x";
    EXPECT_EQ(c.getLength(), 1U);
    EXPECT_EQ(c == null, 0);
}

TYPED_TEST(BothFamilies, TakeNumbersAndHashBytes) {
    const auto expectNumber = [](auto n, const std::string& text) {
        TypeParam s("old");
        EXPECT_EQ(textOf(TypeParam(n)), text);
        EXPECT_EQ(textOf(s = n), text);
    };
    expectNumber(INT_MIN, std::to_string(INT_MIN));
    expectNumber(UINT_MAX, std::to_string(UINT_MAX));
    expectNumber(LONG_MIN, std::to_string(LONG_MIN));
    expectNumber(ULONG_MAX, std::to_string(ULONG_MAX));
    expectNumber('c', "c");
    expectNumber('\0', "");

    EXPECT_EQ(TypeParam().hash(), 5381U);
    EXPECT_EQ(TypeParam("abc").hash(), 0xB873285U);
    EXPECT_EQ(TypeParam("\xFF").hash(), (5381U * 33) ^ 0xFFU) << "bytes are unsigned";
    EXPECT_EQ(ZUTF8ConstString("abc").hash(), ZLCString("abc").hash());
}

struct SearchCase {
    const char* text;
    const char* part;
    int begins, ends, contains;
    unsigned int first, last;
};

const unsigned int kNone = ZAbstractString::notFound;

// clang-format off
const SearchCase kSearches[] = {
    {"abab", "ab", 1, 1, 1, 0, 2}, {"aaa", "aa", 1, 1, 1, 0, 0},
    {"cd", "abcd", 0, 0, 0, kNone, kNone}, {"a", "", 1, 0, 1, 0, 1}, {"", "", 0, 0, 1, 0, 0},
    {"", "a", 0, 0, 0, kNone, kNone}, {"abc", "bc", 0, 1, 1, 1, 1}, {"abc", "abc", 1, 1, 1, 0, 0},
    {"abc", nullptr, 1, 1, 0, kNone, 3}, {"", nullptr, 1, 1, 0, kNone, 0},
};
// clang-format on

TYPED_TEST(BothFamilies, Search) {
    for (const SearchCase& c : kSearches) {
        SCOPED_TRACE(testing::Message() << c.text << " / " << (c.part ? c.part : "null"));
        const TypeParam s(c.text);
        EXPECT_EQ(s.beginsWith(c.part), c.begins);
        EXPECT_EQ(s.endsWith(c.part), c.ends);
        EXPECT_EQ(s.contains(c.part), c.contains);
        EXPECT_EQ(s.indexOf(c.part), c.first);
        EXPECT_EQ(s.lastIndexOf(c.part), c.last);
    }
    const TypeParam s("abab"), abc("Abc");
    EXPECT_EQ(s.indexOf('b', 2), 3U);
    EXPECT_EQ(s.indexOf('b', 99), kNone);
    EXPECT_EQ(s.indexOf('\0', 99), 4U);
    EXPECT_EQ(s.indexOf("", 99), 4U);
    EXPECT_EQ(s.lastIndexOf('a'), 2U);
    EXPECT_EQ(abc.lastIndexOf('A'), 0U);
    EXPECT_EQ(s.lastIndexOf('c'), kNone);
    EXPECT_EQ(s.lastIndexOf('\0'), 4U);
    EXPECT_EQ(s.contains('\0'), 1);
    EXPECT_TRUE(abc.beginsWithCaseIgnored(TypeParam("aB")));
    EXPECT_FALSE(abc.beginsWithCaseIgnored(TypeParam("")));
    EXPECT_TRUE(abc.endsWithCaseIgnored(TypeParam("BC")));
    EXPECT_FALSE(abc.endsWithCaseIgnored(TypeParam("")));
    EXPECT_FALSE(TypeParam("bc").endsWithCaseIgnored(TypeParam("abc")));
}

TYPED_TEST(BothFamilies, CompareOnlyWithinACodeset) {
    const TypeParam a("a");
    EXPECT_EQ(a.compareignorecase(TypeParam("A")), 0);
    const ZLCString local("x");
    const ZUTF8String utf8("x");
    EXPECT_EQ(local.equals(utf8), 1) << "bytes decide";
    EXPECT_EQ(ZLCConstString("x").equals(utf8), 1);
    EXPECT_EQ(local.equals(ZUTF8String("xy")), 0);
    EXPECT_EQ(local.equals(ZLCConstString("y")), 0);
    EXPECT_NE(local.getCodesetHandle(), utf8.getCodesetHandle());
    EXPECT_THROW(local.compare(static_cast<const ZObject&>(utf8)), ZUnsupportedException);
    EXPECT_THROW(ZUTF8ConstString("x").compare(static_cast<const ZObject&>(local)),
                 ZUnsupportedException);
}

TEST(ConstStrings, PointAtTheTextOfOthers) {
    const ZLCString owner("text");
    ZLCConstString view(owner), copy(view);
    EXPECT_EQ(view.getChars(), owner.getChars());
    EXPECT_EQ(copy.getChars(), owner.getChars());
    const std::unique_ptr<ZObject> clone(view.clone());
    EXPECT_EQ(static_cast<ZLCConstString&>(*clone).getChars(), owner.getChars());

    copy.setChars(ZUTF8String("other"));
    EXPECT_EQ(copy.getChars(), owner.getChars()) << "another codeset isn't adopted";
    const ZLCString longer("longer text");
    copy.setChars(longer);
    EXPECT_EQ(copy.getChars(), longer.getChars());
    EXPECT_EQ(copy.getLength(), 11U) << "no stale length";
    EXPECT_EQ(view == longer, 0);
}

#if UINTPTR_MAX > 0xFFFFFFFFU
// A text of so many 'x' and a bit that needs little memory, since the same pages stand behind all
// of it; null if there is no room. It stays to the end.
const char* hugeText(size_t length) {
    const size_t piece = 4 << 20, size = (length / piece + 1) * piece;
    char* const begin =
        static_cast<char*>(mmap(nullptr, size + 1, PROT_READ | PROT_WRITE,
                                MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    const std::string text(piece, 'x');
    const int file = memfd_create("x", MFD_CLOEXEC);
    bool fits = begin != MAP_FAILED && write(file, text.data(), piece) == ssize_t(piece);
    for (size_t at = 0; fits && at < size; at += piece)
        fits = mmap(begin + at, piece, PROT_READ, MAP_SHARED | MAP_FIXED, file, 0) != MAP_FAILED;
    close(file);
    return fits ? begin : nullptr;
}

TEST(ConstStrings, RaiseWhereTheLengthDoesNotFit) {
    const char* const huge = hugeText(size_t(1) << 32);
    if (huge == nullptr)
        GTEST_SKIP() << "no room for 4 GiB of addresses";
    const ZLCConstString view(huge);
    ZLCString s("old");
    const std::function<void()> calls[] = {
        [&] { view.getLength(); },    [&] { s = view; },
        [&] { s += view; },           [&] { s.setChars(ZUTF8ConstString(huge)); },
        [&] { view.getCharCount(); }, [&] { view.lastIndexOf('x'); },
        [&] { ZLCString copy(view); }};
    for (const auto& call : calls)
        EXPECT_THROW(call(), ZOutOfMemoryException) << &call - calls;
    EXPECT_EQ(view == s, 0);
    EXPECT_LE(s.getLength(), 3U) << "what it was, or empty where it was to be converted";
}
#endif

// Decides for itself what is equal, whatever class it is seen as.
template <typename String>
struct Lenient : String {
    using String::equals;
    using String::String;
    int equals(const ZObject&) const override { return 1; }
};

template <typename String>
void expectObeysEquals() {
    const Lenient<String> lenient("a");
    const String& own = lenient;
    const ZAbstractString& any = lenient;
    const ZLCString local("b");
    const ZUTF8String utf8("c");
    EXPECT_TRUE(own == String("b") && !(own != String("b")));
    EXPECT_TRUE(own == ZLCConstString(local) && own == local && own == utf8 && lenient == utf8);
    EXPECT_TRUE(any == local && any == static_cast<const ZAbstractString&>(utf8) && !(any != utf8));
    EXPECT_FALSE(local == lenient) << "the left one decides";
}

TEST(Strings, EqualityIsThatOfTheLeftOne) {
    expectObeysEquals<ZLCString>();
    expectObeysEquals<ZLCConstString>();
    expectObeysEquals<ZUTF8String>();
    expectObeysEquals<ZUTF8ConstString>();
}

TYPED_TEST(BothFamilies, AgreeWithAModel) {
    const unsigned int seed = 20260101;
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    const auto below = [&](unsigned int n) { return static_cast<unsigned int>(random() % n); };
    using OtherView =
        std::conditional_t<std::is_same_v<TypeParam, ZLCString>, ZUTF8ConstString, ZLCConstString>;
    TypeParam s;
    std::string model;
    for (int step = 0; step < 20000; ++step) {
        const unsigned int pos = below(static_cast<unsigned int>(model.size()) + 2);
        const unsigned int at = below(static_cast<unsigned int>(model.size()) + 2);
        const size_t inside = std::min<size_t>(pos, model.size());
        const size_t gap = std::min<size_t>(at, model.size());
        // Often the text is the string's own.
        const bool isOwn = below(3) == 0;
        const std::string part =
            isOwn ? model.substr(inside)
                  : std::string(below(below(8) == 0 ? 150 : 12), static_cast<char>('a' + below(3)));
        const char* const text = isOwn ? s.getChars() + inside : part.c_str();
        const unsigned int count = below(9);
        const unsigned int few = std::min(count, static_cast<unsigned int>(part.size()));
        // A view of the other codeset on what a conversion replaces, its length counted or not.
        const OtherView view(s.getChars());
        if (step % 2 == 0)
            view.getLength();
        const std::function<void()> changes[] = {
            [&] { s.append(text), model += part; },
            [&] { s.append(text, few), model += part.substr(0, few); },
            [&] { s.append('b'), model += 'b'; },
            [&] { s.insert(at, text), model.insert(gap, part); },
            [&] { s.prepend(text), model.insert(0, part); },
            [&] { s.setChars(text), model = isOwn && inside == 0 ? "" : part; },
            [&] {
                s.remove(pos, count);
                if (count == 0 || pos + count <= model.size())
                    model.erase(inside, count == 0 ? std::string::npos : count);
            },
            [&] { s.trunc(pos), model.resize(inside); },
            [&] { s = s.subString(pos, 60), model = model.substr(inside, 60); },
            [&] { s = TypeParam(part.c_str()) + s, model = part + model; },
            [&] { s += ConstOf::of(s), model += model; },
            [&] { s += s, model += model; },
            [&] { s = TypeParam(s); },
            [&] { s = *&s, s = s.getChars(), s.setChars(ConstOf::of(s)); },
            [&] { s = view; },
            [&] { s.setChars(view); },
            [&] { s.convertFromCodeSet(view); },
            [&] { s.convertFromCodeSet(s); },
        };
        changes[below(std::size(changes))]();
        EXPECT_EQ(s.indexOf(part.c_str(), pos),
                  static_cast<unsigned int>(model.find(part, std::min<size_t>(pos, model.size()))));
        EXPECT_EQ(s.contains(part.c_str()), model.find(part) != std::string::npos);
        EXPECT_EQ(s.endsWith(part.c_str()),
                  !part.empty() && part.size() <= model.size() &&
                      model.compare(model.size() - part.size(), part.size(), part) == 0);
        if (model.size() > 2000)
            s.trunc(50), model.resize(50);
        ASSERT_EQ(textOf(s), model) << "step " << step;
    }
}

TYPED_TEST(BothFamilies, SurviveWithoutMemory) {
    TypeParam s("abc");
    for (int round = 0; round < 2; ++round) {  // inside the object, then outside
        const std::string before = textOf(s), part(500, 'x');
        const auto expectFailure = [&](auto change) {
            EXPECT_TRUE(endsWithoutMemory(change, 1, FailAllocations::onward));
            EXPECT_EQ(textOf(s), before);
        };
        expectFailure([&] { s.append(part.c_str()); });
        expectFailure([&] { s.setChars(part.c_str()); });
        expectFailure([&] { s.insert(1, part.c_str()); });
        expectFailure([&] { s.prepend(part.c_str()); });
        expectFailure([&] { s.setCapacity(5000); });
        // Lengths are 32 bits: this must not wrap, nor be read.
        const volatile unsigned int most = UINT_MAX;  // compilers refuse to be shown this
        EXPECT_THROW(s.append("x", most), ZOutOfMemoryException);
        EXPECT_THROW(s.setCapacity(most), ZOutOfMemoryException);
        EXPECT_THROW(TypeParam("x", most), ZOutOfMemoryException);
        EXPECT_EQ(textOf(s), before);
        s.append(std::string(200, 'y').c_str());
    }
    const std::string text(200, 'a');  // the library alone is to meet the failures
    failEachAllocation([&] {
        TypeParam a(text.c_str());
        const std::unique_ptr<ZObject> b(a.clone());
        a.trunc(1);
        const TypeParam c = a + static_cast<TypeParam&>(*b);
        a = c;
        if (a.getLength() != text.size() + 1)
            abort();
    });
}

}  // namespace
