#include "zgrammar.h"

#include <cerrno>
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
