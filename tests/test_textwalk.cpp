// Walks over characters and tokens, and the editing of strings by what is in them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "Z/ZList.h"
#include "Z/ZStringIterator.h"
#include "Z/ZStringTokenizer.h"
#include "support/ExceptionNumber.h"
#include "support/FailingAllocator.h"
#include "support/SelfChild.h"

namespace {

using Characters = std::vector<std::string>;

std::string joined(const Characters& characters) {
    std::string text;
    for (const std::string& c : characters)
        text += c;
    return text;
}

// A text as a list of characters, edited in the most obvious way.
struct Model {
    Characters text;

    void replace(const Characters& from, const Characters& to) {
        Characters result;
        for (size_t i = 0; i < text.size();) {
            if (text.size() - i >= from.size() &&
                std::equal(from.begin(), from.end(), text.begin() + static_cast<long>(i))) {
                result.insert(result.end(), to.begin(), to.end());
                i += from.size();
            } else {
                result.push_back(text[i++]);
            }
        }
        text = result;
    }
    void replaceAll(const Characters& set, const Characters& to) {
        for (const std::string& c : set)
            replace({c}, to);
    }
    void replaceOther(const Characters& set, const Characters& to) {
        const Characters before = text;
        for (const std::string& c : before)
            if (std::find(set.begin(), set.end(), c) == set.end())
                replace({c}, to);
    }
    void strip(bool keepsFirst) {
        while (!text.empty() && isBlank(text.front()))
            text.erase(text.begin());
        stripTrailing(keepsFirst);
    }
    void stripTrailing(bool keepsFirst) {
        while (text.size() > (keepsFirst ? 1 : 0) && isBlank(text.back()))
            text.pop_back();
    }
    Characters tokens(const std::string& delimiters) const {
        Characters result;
        bool inToken = false;
        for (const std::string& c : text) {
            const bool isDelimiter = delimiters.find(c) != std::string::npos;
            if (!isDelimiter && !inToken)
                result.emplace_back();
            if (!isDelimiter)
                result.back() += c;
            inToken = !isDelimiter;
        }
        return result;
    }
    static bool isBlank(const std::string& c) { return c == " " || c == "\t"; }
};

// Edits a string and its model at random. Arguments often lie in the string itself.
template <typename String>
class RandomEdits {
public:
    RandomEdits(const Characters& alphabet, bool bytewise)
        : alphabet_(alphabet), bytewise_(bytewise) {}

    void run(unsigned int rounds) {
        for (unsigned int round = 0; round < rounds && !testing::Test::HasFailure(); ++round) {
            SCOPED_TRACE(testing::Message() << "round " << round << " on " << joined(model_.text));
            if (model_.text.size() > 300)
                keepFirst(100);
            else
                add(some(random_() % 40));
            edit();
            ASSERT_EQ(joined(model_.text), string_.getChars());
            ASSERT_EQ(joined(model_.text).size(), string_.getLength());
            walk();
        }
    }

private:
    struct Argument {
        Characters characters;
        std::string owned;
        const char* text;  // in `owned` or in the string
    };

    Characters some(size_t n) {
        Characters result;
        while (n-- > 0)
            result.push_back(alphabet_[random_() % alphabet_.size()]);
        return result;
    }
    void add(const Characters& more) {
        model_.text.insert(model_.text.end(), more.begin(), more.end());
        string_.append(joined(more).c_str());
    }
    void keepFirst(size_t n) {
        if (n < model_.text.size())
            model_.text.resize(n);
        string_.trunc(static_cast<unsigned int>(joined(model_.text).size()));
    }
    // Up to `most` characters, and at least one: the end of the string, or others.
    void choose(Argument& argument, size_t most) {
        size_t n = 1 + random_() % most;
        if (random_() % 3 == 0 && n < model_.text.size()) {
            argument.characters.assign(model_.text.end() - static_cast<long>(n), model_.text.end());
            argument.text =
                string_.getChars() + string_.getLength() - joined(argument.characters).size();
        } else {
            argument.characters = some(n);
            argument.owned = joined(argument.characters);
            argument.text = argument.owned.c_str();
        }
    }
    void edit() {
        Argument a, b;
        const unsigned int kind = random_() % 7;
        if (kind >= 4)
            keepFirst(kind == 5 ? 6 : 40);  // repeated replacing grows by powers
        choose(a, kind == 5 ? 6 : 3);
        choose(b, 4);
        switch (kind) {
            case 0:
            case 1:
                string_.replace(a.text, random_() % 4 == 0 ? (b.characters = {}, nullptr) : b.text);
                return model_.replace(a.characters, b.characters);
            case 2:
                string_.ZAbstractMutableString::replace('a', '\0');
                return model_.replace({"a"}, {});
            case 3:
                string_.replaceAll("ab", random_() % 2 == 0 ? (b.characters = {"b"}, 'b')
                                                            : (b.characters = {}, '\0'));
                model_.replace({"a"}, b.characters);
                return b.characters.empty() ? model_.replace({"b"}, {}) : void();
            case 4:
                string_.replaceAll(a.text, b.text);
                return model_.replaceAll(a.characters, b.characters);
            case 5:
                string_.replaceOther(a.text, b.text);
                return model_.replaceOther(a.characters, b.characters);
            default:
                if (random_() % 2 == 0) {
                    string_.stripTrailing();
                    return model_.stripTrailing(bytewise_);
                }
                string_.stripWhiteSpace();
                return model_.strip(bytewise_);
        }
    }
    void walk() {
        String target;
        Characters walked;
        for (ZStringIterator i(string_, target); i.hasMore();
             walked.emplace_back(target.getChars()))
            i.getNext();
        ASSERT_EQ(walked, model_.text);

        const std::string delimiters = joined(some(random_() % 3));
        ZStringTokenizer tokens(string_, target, String(delimiters.c_str()));
        walked.clear();
        while (tokens.hasMore()) {
            ASSERT_EQ(tokens.getNext(), &target);
            walked.emplace_back(target.getChars());
        }
        ASSERT_EQ(walked, model_.tokens(delimiters));
    }

    const Characters alphabet_;
    const bool bytewise_;
    std::mt19937 random_{11};
    Model model_;
    String string_;
};

// The bytes of some characters, put together anew, make others: a hit may seem to begin inside.
const Characters kUTF8Alphabet = {
    "a", "b", " ", "\t", "\xC3\xA9", "\xE2\x82\xAC", "\xC3\xA2", "\xF0\x9F\x98\x80"};
const Characters kEUCAlphabet = {"a", "b", " ", "\xA4\xCF", "\xCF\xA4", "\xA4\xA4", "\xCF\xCF"};
const Characters kLatinAlphabet = {"a", "b", " ", "\t", "\xE9", "\xA4"};

TEST(Child, DISABLED_EditsInALocale) {
    const std::string locale = getenv("LC_ALL");
    const bool isEUC = locale == "ja_JP.EUC-JP";
    ZLCString first;  // sets the locale up
    const bool bytewise = MB_CUR_MAX == 1;
    RandomEdits<ZLCString>(isEUC      ? kEUCAlphabet
                           : bytewise ? kLatinAlphabet
                                      : kUTF8Alphabet,
                           bytewise)
        .run(1500);
    RandomEdits<ZUTF8String>(kUTF8Alphabet, true).run(1500);

    EXPECT_EQ((first = "   ").stripTrailing().getLength(), bytewise ? 1U : 0U);
    EXPECT_STREQ((first = "\xC6 ").stripTrailing(), "\xC6");  // invalid in EUC-JP and UTF-8
    EXPECT_STREQ((first = " \xC6").stripLeading(), "\xC6");
    if (!isEUC)
        return;

    // A character's own bytes aren't characters; the one between two others isn't there.
    EXPECT_STREQ((first = "\xA4\xA4\xCF\xA4").replace("\xA4\xCF", "x"), "\xA4\xA4\xCF\xA4");
    EXPECT_STREQ((first = "\xA4\xA4z").replace('\xA4', 'x'), "\xA4\xA4z");
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
    for (const char* locale : {"C", "C.UTF-8", "en_US.ISO-8859-1", "ja_JP.EUC-JP"}) {
        const SelfChild child =
            runSelf("Child.DISABLED_EditsInALocale", {{"LC_ALL", locale}, {"QELDIR", "/tables"}});
        EXPECT_TRUE(child.passed()) << locale << "\n" << child.output;
    }
}

TEST(Editing, LeavesOddArgumentsAlone) {
    ZLCString s("banana");
    EXPECT_STREQ(s.replace("", "x").replace(nullptr, "x"), "banana");
    EXPECT_STREQ(s.replaceAll(nullptr, 'x').replaceAll(nullptr, "x"), "banana");
    EXPECT_STREQ(s.replaceAll("", 'x').replaceAll("", "x").replaceOther(nullptr, "x"), "banana");
    EXPECT_STREQ(s.replace('\0', 'x').replace("q", nullptr), "banana");
    EXPECT_STREQ(s.replaceOther("", "x"), "xxxxxx");
    EXPECT_STREQ((s = "aa").replace("a", "aa"), "aaaa");
    EXPECT_STREQ((s = "ab").replaceAll("ab", "b1"), "b11b1") << "what is put in is searched";
    EXPECT_STREQ((s = "xx").replaceOther("", "x1"), "x11x11") << "once for each x";

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
            "many words and 96 bytes aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"
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
