// Walks over characters and tokens, and the editing of strings by what is in them.
#include "support/Prelude.h"

#include <sstream>

#include "Z/ZList.h"
#include "Z/ZStringIterator.h"
#include "Z/ZStringTokenizer.h"
#include "support/Raised.h"
#include "support/FailingAllocator.h"
#include "support/SelfChild.h"

namespace {

using Characters = std::vector<std::string>;

void replaceIn(std::string& text, const std::string& from, const std::string& to) {
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
        text.replace(at, from.size(), to);
}

// Edits a string at random beside a model, in which the alphabet's characters are the letters A, B
// and so on. Arguments often lie in the string itself. The alphabet begins with blank, tab, a, b.
template <typename String>
class RandomEdits {
public:
    RandomEdits(const Characters& alphabet, bool bytewise)
        : alphabet_(alphabet), bytewise_(bytewise) {}

    void run() {
        for (int round = 0; round < 1500 && !testing::Test::HasFailure(); ++round) {
            SCOPED_TRACE(testing::Message() << "round " << round << " on " << model_);
            const std::string more = some(random_() % 40);
            string_.append(real(more).c_str());
            model_ += more;
            edit();
            ASSERT_EQ(string_.getChars(), real(model_));
            ASSERT_EQ(string_.getLength(), real(model_).size());
            walk();
            keepFirst(300);
        }
    }

private:
    struct Argument {
        std::string letters, bytes;
        const char* text;  // in `bytes` or in the string
    };

    std::string some(size_t n) {
        std::string letters(n, 'A');
        for (char& letter : letters)
            letter = static_cast<char>('A' + random_() % alphabet_.size());
        return letters;
    }
    std::string real(const std::string& letters) const {
        std::string text;
        for (const char letter : letters)
            text += alphabet_[static_cast<size_t>(letter - 'A')];
        return text;
    }
    void keepFirst(size_t n) {
        model_.resize(std::min(n, model_.size()));
        string_.trunc(static_cast<unsigned int>(real(model_).size()));
    }
    void choose(Argument& argument, size_t most) {
        const size_t n = 1 + random_() % most;
        const bool isOwn = random_() % 3 == 0 && n < model_.size();
        argument.letters = isOwn ? model_.substr(model_.size() - n) : some(n);
        argument.bytes = real(argument.letters);
        argument.text = isOwn ? string_.getChars() + string_.getLength() - argument.bytes.size()
                              : argument.bytes.c_str();
    }
    void edit() {
        const unsigned int kind = random_() % 7;
        if (kind >= 4)
            keepFirst(kind == 4 ? 40 : 6);  // repeated replacing grows by powers
        Argument a, b;
        choose(a, 3);
        choose(b, 4);
        if (kind <= 1) {
            const bool removes = random_() % 4 == 0;
            string_.replace(a.text, removes ? nullptr : b.text);
            replaceIn(model_, a.letters, removes ? "" : b.letters);
        } else if (kind == 2) {
            string_.ZAbstractMutableString::replace('a', '\0');
            replaceIn(model_, "C", "");
        } else if (kind == 3) {
            const bool removes = random_() % 2 == 0;
            string_.replaceAll("ab", removes ? '\0' : 'b');
            replaceIn(model_, "C", removes ? "" : "D");
            replaceIn(model_, "D", removes ? "" : "D");
        } else if (kind == 4) {
            string_.replaceAll(a.text, b.text);
            for (const char letter : a.letters)
                replaceIn(model_, std::string(1, letter), b.letters);
        } else if (kind == 5) {
            string_.replaceOther(a.text, b.text);
            for (const char letter : std::string(model_))
                if (a.letters.find(letter) == std::string::npos)
                    replaceIn(model_, std::string(1, letter), b.letters);
        } else {
            const bool both = random_() % 2 == 0;
            both ? string_.stripWhiteSpace() : string_.stripTrailing();
            if (both)
                model_.erase(0, model_.find_first_not_of("AB"));
            const size_t least = bytewise_ && !model_.empty() ? 1 : 0;
            model_.resize(std::max(least, model_.find_last_not_of("AB") + 1));
        }
    }
    void walk() {
        String target;
        std::string walked, expected;
        for (ZStringIterator i(string_, target); i.hasMore(); walked += '|')
            walked += static_cast<String*>(i.getNext())->getChars();
        for (const char letter : model_)
            expected += real(std::string(1, letter)) + '|';
        ASSERT_EQ(walked, expected);

        const std::string delimiters = some(2);
        ZStringTokenizer tokens(
            string_, target,
            String((real(delimiters.substr(0, 1)) + '#' + real(delimiters.substr(1))).c_str()));
        for (walked.clear(), expected.clear(); tokens.hasMore(); walked += '|')
            walked += static_cast<String*>(tokens.getNext())->getChars();
        for (size_t at = 0, end = 0; at != std::string::npos; at = end) {
            at = model_.find_first_not_of(delimiters, end);
            end = model_.find_first_of(delimiters, at);
            if (at != std::string::npos)
                expected += real(model_.substr(at, end - at)) + '|';
            if (end == std::string::npos)
                break;
        }
        ASSERT_EQ(walked, expected);
    }

    const Characters alphabet_;
    const bool bytewise_;
    std::mt19937 random_{11};
    std::string model_;
    String string_;
};

// Bytes of neighbours make other characters: a hit may seem to begin inside of one.
const Characters kUTF8 = {" ", "\t", "a", "b", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"};
const Characters kEUC = {" ", "\t", "a", "b", "\xA4\xCF", "\xCF\xA4", "\xA4\xA4", "\xCF\xCF"};
const Characters kLatin = {" ", "\t", "a", "b", "\xE9", "\xA4"};

TEST(Child, DISABLED_EditsInALocale) {
    const std::string locale = getenv("LC_ALL");
    const bool isEUC = locale == "ja_JP.EUC-JP";
    ZLCString first;  // sets the locale up
    const bool bytewise = MB_CUR_MAX == 1;
    RandomEdits<ZLCString>(isEUC ? kEUC : bytewise ? kLatin : kUTF8, bytewise).run();
    RandomEdits<ZUTF8String>(kUTF8, true).run();

    EXPECT_EQ((first = "   ").stripTrailing().getLength(), bytewise ? 1U : 0U);
    EXPECT_STREQ((first = "\xC6 ").stripTrailing(), "\xC6");  // invalid in EUC-JP and UTF-8
    EXPECT_STREQ((first = " \xC6").stripLeading(), "\xC6");
    if (!isEUC)
        return;

    // A character's own bytes aren't characters.
    EXPECT_STREQ((first = "\xA4\xA4z").replace('\xA4', 'x'), "\xA4\xA4z");
    EXPECT_STREQ((first = "z\xA4\xA4z\xA4").replace("z\xA4", "x"), "z\xA4\xA4x");
    EXPECT_STREQ((first = "az").replaceAll("\xA4\xA4z", '\xA4'), "a\xA4");

    // Delimiters of the other codeset are converted, once and for each of the tokenizer's copies.
    const ZUTF8String source("a\xE3\x81\xAF\x62 c");
    ZUTF8String target;
    ZStringTokenizer* const tokens = static_cast<ZStringTokenizer*>(
        ZStringTokenizer(source, target, ZLCConstString("\xA4\xCF")).clone());
    EXPECT_EQ(tokens->getNext(), &target);
    EXPECT_STREQ(target, "a");
    EXPECT_EQ(tokens->getNext(ZUTF8ConstString(" ")), &target);
    EXPECT_STREQ(target, "\xE3\x81\xAF\x62") << "by the call's own delimiters";
    delete tokens;
}

TEST(Locales, EditWholeCharacters) {
    expectChildPassesInEachLocale("Child.DISABLED_EditsInALocale");
}

TEST(Editing, LeavesOddArgumentsAlone) {
    ZLCString s("banana");
    EXPECT_STREQ(s.replace("", "x").replace(nullptr, "x"), "banana");
    EXPECT_STREQ(s.replaceAll(nullptr, 'x').replaceAll(nullptr, "x"), "banana");
    EXPECT_STREQ(s.replaceAll("", 'x').replaceAll("", "x").replaceOther(nullptr, "x"), "banana");
    EXPECT_STREQ(s.replace('\0', 'x').replace("q", nullptr), "banana");
    EXPECT_STREQ(s.replaceOther("", "x"), "xxxxxx");

    ZUTF8String u("banana");
    u.replace('a', '\0');
    EXPECT_EQ(std::string(u.getChars(), u.getLength()), std::string("b\0n\0n\0", 6));
    EXPECT_EQ(numberOf([&] { u.replace('\x80', 'x'); }), 22);
    EXPECT_STREQ((u = "A\xC3\xA9z").replace('z', '\xFF'), "A\xC3\xA9\xFF");
    EXPECT_STREQ((u = "\xC3\xA9xy\xC3\xA9").replaceOther("", "\xA9\xC3"),
                 "\xA9\xA9\xC3\xA9\xC3\xA9\xC3\xC3")
        << "stray bytes that make the character anew";
    EXPECT_STREQ((u = "[a@zZ`{").upper(), "[A@ZZ`{");
    EXPECT_STREQ(u.lower(), "[a@zz`{");
    EXPECT_STREQ((u = "a\xFFz").upper(), "A\xFFZ") << "the rest is the locale's";
}

TEST(Editing, GrowsAsTextThatIsStoredAnew) {
    for (unsigned int length = 94; length <= 97; ++length) {
        SCOPED_TRACE(length);
        const std::string text(length, 'y');
        ZLCString stored, edited, prepended(text.c_str() + 1);
        stored.append(text.c_str());
        edited = "xy";
        edited.replace("x", text.c_str() + 1);
        EXPECT_TRUE(edited == stored);
        EXPECT_EQ(edited.getCapacity(), stored.getCapacity());
        prepended.prepend("x");
        EXPECT_TRUE(prepended.replaceAll("x", "y") == stored);
        EXPECT_TRUE(prepended.replaceAll("y", 'x') == std::string(length, 'x').c_str());
        EXPECT_TRUE(prepended.replaceAll("x", prepended.getChars() + length - 2) ==
                    std::string(2 * length, 'x').c_str());
    }
}

// A stream buffer that holds nothing back.
struct OneByOne : std::streambuf {
    explicit OneByOne(const std::string& text) : text_(text) {}
    int underflow() override { return at_ == text_.size() ? EOF : text_[at_] & 0xFF; }
    int uflow() override { return at_ == text_.size() ? EOF : text_[at_++] & 0xFF; }

    const std::string text_;
    size_t at_ = 0;
};

TEST(Editing, ReadsLines) {
    std::string text("one\r\ntwo\0  th\xFFree\n", 18);
    Characters lines = {"one", "", "two", "  th\xFFree"};
    for (size_t length = 94; length <= 97; ++length)
        text += (lines.emplace_back(length, 'l'), std::string(length, 'l') + '\n');
    text += (lines.emplace_back(700, 'm'), lines.back());
    OneByOne single(text);
    std::istringstream buffered(text);
    std::istream unbuffered(&single);
    for (std::istream* in : {static_cast<std::istream*>(&buffered), &unbuffered}) {
        in->unsetf(std::ios_base::skipws);
        ZLCString line, byOnes;
        for (const std::string& expected : lines) {
            byOnes.clear();
            for (const char c : expected)
                byOnes.append(c);
            EXPECT_EQ(&line.readLine(*in), in);
            EXPECT_EQ(line.getChars(), expected);
            EXPECT_EQ(line.getCapacity(), byOnes.getCapacity());
            EXPECT_EQ(in->eof(), expected.size() == 700);
        }
        EXPECT_FALSE(in->fail());
        EXPECT_EQ(in->flags() & std::ios_base::skipws, 0);
        line.prepend("x").readLine(*in, 1);
        EXPECT_STREQ(line, "");
        EXPECT_NE(in->flags() & std::ios_base::skipws, 0);
    }
}

TEST(Editing, RaisesWhenMemoryOrFourGigabytesRunOut) {
    ZLCString s(std::string(1 << 12, 'a').c_str());
    const std::string before = s.getChars(), large(1 << 21, 'b');
    EXPECT_EQ(numberOf([&] { s.replace("a", large.c_str()); }), 1) << "8 GiB";
    EXPECT_TRUE(endsWithoutMemory([&] { s.replace("a", "bbb"); }));
    EXPECT_TRUE(s == before.c_str());

    const auto all = [] {
        ZLCString text(
            "many words and 96 bytes eeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeee"
            "bbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbb cc"),
            target;
        text.replace("a", text.getChars()).replaceOther(text.getChars(), "x");
        ZStringTokenizer tokens(text, target, ZUTF8ConstString(" "));
        ZArrayList list(1, 1);
        ZStringTokenizer(tokens).list(list);
        EXPECT_GT(list.size(), 3U);
    };
    EXPECT_GT(failEachAllocation(all), 8U);
}

TEST(Walks, StandAtTheEndAndBeforeWhatIsInvalid) {
    const ZUTF8String text("a\xC3\xA9"), bad("a\xFF");
    ZUTF8String target("old");
    ZStringIterator end(text, target);
    end.getNext();
    end.getNext();
    EXPECT_STREQ(target, "\xC3\xA9");
    EXPECT_FALSE(end.hasMore());
    EXPECT_EQ(end.getNext(), &target);
    EXPECT_STREQ(target, "");
    EXPECT_FALSE(ZStringIterator(end).hasMore());
    end.reset();
    EXPECT_EQ(end.findNext(ZUTF8ConstString("\xC3\xA9")), &target);

    ZStringIterator stuck(bad, target);
    stuck.getNext();
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(numberOf([&] { stuck.getNext(); }), 46);
    const ZUTF8String blanks(" a\xFF");
    ZStringTokenizer tokens(blanks, target);
    EXPECT_EQ(tokens.hasMore(), 1);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(numberOf([&] { tokens.getNext(); }), 46);
    EXPECT_STREQ(target, "a\xFF") << "what couldn't be divided";
    EXPECT_EQ(numberOf([&] { tokens.hasMore(ZUTF8ConstString("a")); }), 46);
    ZLCString local;
    EXPECT_EQ(numberOf([&] { ZStringTokenizer(text, local); }), 48);
}

TEST(Walks, ListTokensAsStringsOfTheirOwn) {
    const ZLCString text("\t a  b\r\n"), blanks("  ");
    ZLCString target("old");
    ZStringTokenizer none(blanks, target);
    EXPECT_FALSE(none.hasMore());
    EXPECT_EQ(none.getNext(), &target);
    EXPECT_STREQ(target, "");
    ZStringTokenizer tokens(text, target);
    for (int owns : {1, 0}) {
        ZArrayList list(1, owns);
        tokens.reset();
        tokens.list(list);
        ASSERT_EQ(list.size(), 2U);
        EXPECT_TRUE(list.get(0)->equals(ZLCConstString("a")));
        EXPECT_TRUE(list.get(1)->equals(target));
        EXPECT_NE(list.get(1), &target);
        for (unsigned int i = 0; i < 2 && !owns; ++i)
            delete list.get(i);
    }
}

}  // namespace
