// zgrammar.h: what stands in a line of a stanza file, and what values mean. Never installed.
//
// A stanza file is text in the local codeset, line by line; a line ends at a newline or the end of
// the file. It is read in pieces of at most kLongestLine bytes, its newline counted; a longer one
// counts as several, and a NUL hides the rest of its piece. White space, as isspace tells, is cut
// from both ends first. Then:
//
//   nothing left     blank line
//   "#..."           comment
//   "[name]..."      header of a stanza; what stands behind the first "]" is ignored
//   "key = value"    entry: the first "=" divides; blanks around it are cut; no quoting, no
//                    escapes, no continuation
//   else             no line of the format
//
// What can be put into a line so that it comes back is told in zrefusal.h.
#ifndef Z_ZGRAMMAR_H
#define Z_ZGRAMMAR_H

#include <cctype>
#include <cstring>

#include "qel/qel.h"
#include "zassert.h"
#include "zpblock.h"
#include "zstoremodes.h"

/// Bytes of a line, its newline counted; a longer one is read as several.
static const size_t kLongestLine = 8191;

/// The entry that names the side database.
static const char kSideStanza[] = ZPROP_SIDE_STANZA;
static const char kSideKey[] = "file";
/// Whether it is that entry, or its stanza where the key is null.
inline bool zisSideEntry(const char* stanza, const char* key) {
    return strcmp(stanza, kSideStanza) == 0 && (key == nullptr || strcmp(key, kSideKey) == 0);
}
/// What the default name of a side database has behind the stanza file's.
static const char kSideSuffix[] = ".obf";

enum ZLineKind : uint8_t { zlineBlank, zlineComment, zlineHeader, zlineEntry, zlineBad };

/// A line and its parts, which point into its text.
struct ZLineParts {
    ZLineKind kind;
    /// A comment with its "#", a header's stanza, an entry's key, a bad line's text; no blanks at
    /// its ends but for a stanza's. A stanza's name and a key may be empty: no entry of either is
    /// ever read.
    ZSpan name;
    /// An entry's, without blanks at its ends.
    ZSpan value;
};

/// Bytes of the first line of a text of `size` bytes, not 0: up to its newline, which counts, and
/// `longest` at most.
inline size_t zlineLength(const char* text, size_t size, size_t longest = kLongestLine) {
    const size_t room = size < longest ? size : longest;
    const void* newline = memchr(text, '\n', room);
    return newline == nullptr ? room : static_cast<const char*>(newline) - text + 1;
}

/// Divides lines. It asks for the locale's white space when it is made, and for one thread.
class ZLineGrammar {
public:
    ZLineGrammar() : classes_(qel_byte_classes()) {}

    /// As isspace.
    bool isBlank(char c) const {
        return (classes_[static_cast<unsigned char>(c)] & static_cast<unsigned short>(_ISspace)) !=
               0;
    }

    /// What is left without the white space at both ends; of white space alone, nothing at `first`.
    ZSpan trimmed(const char* first, const char* end) const {
        while (end > first && isBlank(end[-1]))
            --end;
        if (end > first)
            while (isBlank(*first))
                ++first;
        return between(first, end);
    }

    /// What a trimmed line without NULs is.
    ZLineParts divide(ZSpan text) const {
        return divide(text, text.size == 0
                                ? nullptr
                                : static_cast<const char*>(memchr(text.data, '=', text.size)));
    }
    /// Likewise; `divider` is the line's first "=", or null.
    ZLineParts divide(ZSpan text, const char* divider) const {
        const ZSpan nothing = {text.data, 0};
        if (text.size == 0)
            return {zlineBlank, text, nothing};
        const char first = *text.data;
        zassert(!isBlank(first) && !isBlank(text.data[text.size - 1]));
        if (first == '#')
            return {zlineComment, text, nothing};
        if (first == '[')
            divider = static_cast<const char*>(memchr(text.data, ']', text.size));
        if (divider == nullptr)
            return {zlineBad, text, nothing};
        if (first == '[')
            return {zlineHeader, between(text.data + 1, divider), nothing};
        const char* const end = text.data + text.size;
        // Neither the first nor the last character is a blank: there the walks end.
        const char* keyEnd = divider;
        if (keyEnd > text.data)
            while (isBlank(keyEnd[-1]))
                --keyEnd;
        const char* value = divider + 1;
        if (value < end)
            while (isBlank(*value))
                ++value;
        return {zlineEntry, between(text.data, keyEnd), between(value, end)};
    }

    /// The same of a line as it stands in a file, with its newline if it has one.
    ZLineParts divideRaw(ZSpan line) const {
        const void* nul = line.size == 0 ? nullptr : memchr(line.data, 0, line.size);
        return divide(trimmed(
            line.data, nul == nullptr ? line.data + line.size : static_cast<const char*>(nul)));
    }

private:
    static ZSpan between(const char* first, const char* end) {
        return {first, static_cast<size_t>(end - first)};
    }

    const unsigned short* classes_;  // of all characters
};

// ---------------------------------------------------------------- values

/// A plain decimal number of at most nine digits; nearly all are.
inline bool zreadShortNumber(const char* text, size_t length, unsigned int& number) {
    if (length == 0 || length > 9 || (text[0] == '0' && length > 1))
        return false;
    unsigned int sum = 0;
    for (size_t i = 0; i < length; ++i) {
        const unsigned int digit = static_cast<unsigned char>(text[i]) - '0';
        if (digit > 9)
            return false;
        sum = sum * 10 + digit;
    }
    number = sum;
    return true;
}

/// Any number; an empty value is 0. As strtoul reads where long has 32 bits, whatever it has here:
/// octal behind 0, hexadecimal behind 0x, out of range the largest number, and a minus sign wraps.
/// False if the value isn't a number from end to end. Raises ZOutOfMemoryException.
bool zreadAnyNumber(const char* text, size_t length, unsigned int& number);

inline bool zreadNumber(const char* text, size_t length, unsigned int& number) {
    return zreadShortNumber(text, length, number) || zreadAnyNumber(text, length, number);
}

/// A signed number of 64 bits: decimal, octal behind 0, hexadecimal behind 0x, all with an optional
/// sign. False if the value, blanks around it apart, isn't one from end to end or is out of range.
bool zreadSigned(ZSpan text, int64_t& number);
/// A real number, in the notation of C whatever the locale; "inf" and "nan" are some. Likewise.
bool zreadReal(ZSpan text, double& number);

/// 1 for yes, y, true, t and 1, 0 for no, n, false, f and 0, in any case, and for an empty value.
/// False if the value is none of these. Raises ZOutOfMemoryException.
bool zreadTruth(const char* text, size_t length, int& truth);

/// The word that is written for it.
const char* ztruthWord(bool truth);

#endif
