// text.cpp: editing, splitting, walking and reading text beside the standard library's ways.
//
//   bench_text [ROUNDS]
//
// Rounds of the two take turns, and the median of each counts. Run it in several locales (LC_ALL):
// local text goes by bytes, by UTF-8 or through the codeset's tables.
#include <algorithm>
#include <chrono>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <sstream>
#include <string>
#include <vector>

#include "Z/ZStringIterator.h"
#include "Z/ZStringTokenizer.h"

namespace {

/// Milliseconds, and what was counted, which both sides have to agree on.
template <typename Work>
double timeOf(Work work, size_t& count) {
    const auto start = std::chrono::steady_clock::now();
    count = work();
    const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - start;
    return time.count();
}

double medianOf(std::vector<double> times) {
    std::nth_element(times.begin(), times.begin() + static_cast<long>(times.size() / 2),
                     times.end());
    return times[times.size() / 2];
}

template <typename Ours, typename Theirs>
void compare(int rounds, const char* what, Ours ours, Theirs theirs) {
    std::vector<double> a, b;
    for (int i = 0; i < rounds; ++i) {
        size_t mine, others;
        a.push_back(timeOf(ours, mine));
        b.push_back(timeOf(theirs, others));
        if (mine != others) {
            printf("%s: %zu is not %zu\n", what, mine, others);
            exit(1);
        }
    }
    printf("%-34s %8.3f %8.3f  %5.2f\n", what, medianOf(a), medianOf(b), medianOf(a) / medianOf(b));
}

std::string repeated(const std::string& part, size_t bytes) {
    std::string text;
    while (text.size() < bytes)
        text += part;
    return text;
}

size_t replaceIn(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
        text.replace(at, from.size(), to);
    return text.size();
}

/// A loop that builds the result anew, which std::string's own replace() is far behind.
size_t rebuild(const std::string& text, const std::string& from, const std::string& to) {
    std::string result;
    size_t at = 0;
    for (size_t hit; (hit = text.find(from, at)) != std::string::npos; at = hit + from.size())
        result.append(text, at, hit - at).append(to);
    return result.append(text, at, std::string::npos).size();
}

template <typename String>
size_t replaceOurs(const std::string& text, const char* from, const char* to) {
    String copy(text.c_str());
    return copy.replace(from, to).getLength();
}

template <typename String>
size_t countTokens(const String& text) {
    String token;
    size_t count = 0;
    for (ZStringTokenizer tokens(text, token); tokens.hasMore(); ++count)
        tokens.getNext();
    return count;
}

size_t countTokens(const std::string& text, const char* delimiters) {
    std::string token;
    size_t count = 0;
    for (size_t at = 0; (at = text.find_first_not_of(delimiters, at)) != std::string::npos;
         ++count) {
        const size_t end = std::min(text.find_first_of(delimiters, at), text.size());
        token.assign(text, at, end - at);
        at = end;
    }
    return count;
}

template <typename String>
size_t countCharacters(const String& text) {
    String character;
    size_t count = 0;
    for (ZStringIterator i(text, character); i.hasMore(); ++count)
        i.getNext();
    return count;
}

size_t countByMbrlen(const std::string& text) {
    std::string character;
    mbstate_t state = {};
    size_t count = 0;
    for (size_t at = 0; at < text.size(); ++count) {
        const size_t n = mbrlen(text.c_str() + at, text.size() - at, &state);
        if (n > text.size() - at)
            return SIZE_MAX;
        character.assign(text, at, n);
        at += n;
    }
    return count;
}

void readLines(int rounds, const char* what, size_t length) {
    std::istringstream mine(repeated(std::string(length, 'x') + '\n', 1 << 20)), others(mine.str());
    compare(
        rounds, what,
        [&] {
            ZLCString line;
            size_t lines = 0;
            mine.seekg(0);
            for (; mine.peek() != EOF; ++lines)
                line.readLine(mine);
            mine.clear();
            return lines;
        },
        [&] {
            std::string line;
            size_t lines = 0;
            others.seekg(0);
            for (; std::getline(others, line); ++lines)
                continue;
            others.clear();
            return lines;
        });
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(1, atoi(argv[1])) : 21;
    setenv("QELDIR", "/opt/Quillmere/nls/QEL", 0);
    zgetLCSHandle();  // the set-up, and with it setlocale(), for both
    const bool isEUC = strcmp(zgetLocalCodesetName(), "EUC-JP") == 0;
    const size_t kSize = 1 << 20;
    const std::string plain = repeated("the quick brown fox jumps over the lazy dog\n", kSize);
    const std::string kanji = repeated(isEUC ? "\xC6\xFC\xCB\xDC z " : "word z ", kSize);
    printf("locale %s\n%-34s %17s\n", zgetlocale(), "ms a megabyte", "std, ratio");

    compare(
        rounds, "replace by less", [&] { return replaceOurs<ZUTF8String>(plain, "the ", "a "); },
        [&] { return rebuild(plain, "the ", "a "); });
    compare(
        rounds, "replace by more", [&] { return replaceOurs<ZUTF8String>(plain, "fox", "badger"); },
        [&] { return rebuild(plain, "fox", "badger"); });
    const std::string shorter = plain.substr(0, kSize / 16);
    compare(
        rounds, "the same by std replace() (1/16)",
        [&] { return replaceOurs<ZUTF8String>(shorter, "fox", "badger"); },
        [&] { return replaceIn(shorter, "fox", "badger"); });
    compare(
        rounds, "replace in local text", [&] { return replaceOurs<ZLCString>(kanji, "z", "zz"); },
        [&] { return rebuild(kanji, "z", "zz"); });

    const ZUTF8String utf8(plain.c_str());
    const ZLCString local(kanji.c_str());
    compare(
        rounds, "tokens of UTF-8", [&] { return countTokens(utf8); },
        [&] { return countTokens(plain, " \t\r\n"); });
    compare(
        rounds, "tokens of local text", [&] { return countTokens(local); },
        [&] { return countTokens(kanji, " \t\r\n"); });
    compare(
        rounds, "characters of local text", [&] { return countCharacters(local); },
        [&] { return countByMbrlen(kanji); });

    readLines(rounds, "lines of no byte", 0);
    readLines(rounds, "lines of 10 bytes", 10);
    readLines(rounds, "lines of 40 bytes", 40);
    readLines(rounds, "lines of 200 bytes", 200);
    return 0;
}
