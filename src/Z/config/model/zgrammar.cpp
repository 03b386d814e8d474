#include "zgrammar.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>

#include "ZString.h"

bool zreadAnyNumber(const char* text, size_t length, unsigned int& number) {
    number = 0;
    if (length == 0)
        return true;
    const ZLCString value(text, static_cast<unsigned int>(length));
    const char* start = value.getChars();
    char* end;
    errno = 0;
    const QelScope scope;  // its blanks are the text's
    const unsigned long long wide = strtoull(start, &end, 0);
    const bool overflow = errno == ERANGE;
    const ZLineGrammar grammar;
    const char* sign = start;
    while (grammar.isBlank(*sign))
        ++sign;
    const unsigned long long magnitude = *sign == '-' ? 0 - wide : wide;
    number = overflow || magnitude > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<unsigned int>(wide);
    return end != start && *end == '\0';
}

// Without a "+" in front, which from_chars doesn't read.
static ZSpan withoutPlus(ZSpan text) {
    const bool isSigned = text.size > 1 && text.data[0] == '+' && text.data[1] != '-';
    return isSigned ? ZSpan{text.data + 1, text.size - 1} : text;
}

bool zreadSigned(ZSpan text, int64_t& number) {
    ZSpan digits = ZLineGrammar().trimmed(text.data, text.data + text.size);
    digits = withoutPlus(digits);
    const bool isNegative = digits.size > 0 && digits.data[0] == '-';
    const char* first = digits.data + isNegative;
    const char* const end = digits.data + digits.size;
    int base = 10;
    if (end - first > 1 && *first == '0') {
        const bool isHex = end - first > 2 && (first[1] == 'x' || first[1] == 'X');
        base = isHex ? 16 : 8;
        first += isHex ? 2 : 1;
    }
    // Unsigned, so that no second sign is read.
    uint64_t magnitude;
    const std::from_chars_result read = std::from_chars(first, end, magnitude, base);
    const uint64_t most = static_cast<uint64_t>(INT64_MAX) + isNegative;
    if (read.ec != std::errc() || read.ptr != end || magnitude > most)
        return false;
    number = static_cast<int64_t>(isNegative ? 0 - magnitude : magnitude);
    return true;
}

bool zreadReal(ZSpan text, double& number) {
    const ZSpan digits = withoutPlus(ZLineGrammar().trimmed(text.data, text.data + text.size));
    const char* const end = digits.data + digits.size;
    const std::from_chars_result read = std::from_chars(digits.data, end, number);
    return read.ec == std::errc() && read.ptr == end;
}

// The first of each is the one that is written.
static const char* const kTrueWords[] = {"yes", "y", "true", "t", "1"};
static const char* const kFalseWords[] = {"no", "n", "false", "f", "0"};

const char* ztruthWord(bool truth) { return truth ? kTrueWords[0] : kFalseWords[0]; }

bool zreadTruth(const char* text, size_t length, int& truth) {
    truth = 0;
    if (length == 0)
        return true;
    const ZLCString value(text, static_cast<unsigned int>(length));
    for (const char* word : kTrueWords)
        if (value.compareignorecase(word) == 0) {
            truth = 1;
            return true;
        }
    for (const char* word : kFalseWords)
        if (value.compareignorecase(word) == 0)
            return true;
    return false;
}
