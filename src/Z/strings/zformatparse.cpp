// zformatparse.cpp: how the formatter reads a format and its arguments, into a table of directives
// and a table of arguments by position. Rendering (zformat) only looks at these, so that it can run
// again.
//
// The parts of a directive come in a fixed order, each may be missing, and none looks back, so each
// is a function that moves on behind its part. Nothing is ever read behind a NUL, since none of
// them passes over a character that it doesn't know.
//
// Measured, a third of the time of a short format is here: hence the roads for a directive without
// flags and sizes, and for a format without numbers.
#include "zformatparse.h"

#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

const int kInlineDirectives = 10;
const int kInlineArgs = 10;
const int kGrowth = 10;

const unsigned int kAnyLength = ZFORMAT_SHORT | ZFORMAT_LONG | ZFORMAT_LONGLONG;

// Reading a directive

bool isDigit(char c) { return static_cast<unsigned char>(c - '0') < 10; }

/// The number whose digits begin at `at`, which moves behind them; -1 if an int can't hold it.
int scanNumber(const char*& at) {
    int64_t number = 0;
    for (; isDigit(*at); ++at) {
        number = number * 10 + (*at - '0');
        if (number > INT_MAX)
            return -1;
    }
    return static_cast<int>(number);
}

// Each of these gives the place behind what it read, or null for a bad directive.

const char* readPosition(const char* at, format_directive& d) {
    const char* behind = at;
    while (isDigit(*behind))
        ++behind;
    if (*behind != '$' || behind == at)
        return at;
    d.arg_index = scanNumber(at);
    d.flags |= ZFORMAT_NUMBERED;
    return d.arg_index > 0 ? behind + 1 : nullptr;
}

const char* readFlags(const char* at, format_directive& d) {
    for (; *at <= '0'; ++at) {  // as all flags are
        switch (*at) {
            case '#':
                d.flags |= ZFORMAT_ALTERNATE;
                break;
            case ' ':
                d.flags |= ZFORMAT_BLANK;
                break;
            case '+':
                d.flags |= ZFORMAT_PLUS;
                break;
            case '\'':
                d.flags |= ZFORMAT_GROUP;
                break;
            case '-':
                d.flags = (d.flags | ZFORMAT_LEFT) & ~ZFORMAT_ZERO;
                break;
            case '0':
                if (d.flags & ZFORMAT_ZERO)
                    return at;  // the second one begins the width
                if (!(d.flags & ZFORMAT_LEFT))
                    d.flags |= ZFORMAT_ZERO;
                break;
            default:
                return at;
        }
    }
    return at;
}

/// The * of a size from the arguments, with or without a position.
const char* readStar(const char* at, format_directive& d, int& value, unsigned int argFlag) {
    d.flags |= argFlag;
    for (++at; isDigit(*at); ++at) {  // of several positions the last one holds
        value = scanNumber(at);
        if (value <= 0 || *at != '$' || !(d.flags & ZFORMAT_NUMBERED))
            return nullptr;
        d.flags |= argFlag << 1;
    }
    return at;
}

/// Digits or a *, into `value`; the flag tells which it was, the one behind it a position.
inline const char* readSize(const char* at, format_directive& d, int& value,
                            unsigned int digitsFlag, unsigned int argFlag) {
    if (isDigit(*at)) {
        d.flags |= digitsFlag;
        value = scanNumber(at);
        return value < 0 || *at == '*' ? nullptr : at;
    }
    return *at == '*' ? readStar(at, d, value, argFlag) : at;
}

int typeOfInteger(unsigned int flags, int isUnsigned) {
    if (!(flags & kAnyLength))
        return ZFORMAT_TYPE_INT + isUnsigned;
    const int type = flags & ZFORMAT_LONG    ? ZFORMAT_TYPE_LONG
                     : flags & ZFORMAT_SHORT ? ZFORMAT_TYPE_SHORT
                                             : ZFORMAT_TYPE_LONGLONG;
    return type + isUnsigned;
}

/// Length and conversion.
const char* readConversion(const char* at, format_directive& d) {
    unsigned int flags = d.flags;
    for (;; ++at) {
        int isUnsigned = 1, type = ZFORMAT_TYPE_E;
        switch (*at) {
            case 'h':
                if (flags & kAnyLength)
                    return nullptr;
                flags |= ZFORMAT_SHORT;
                continue;
            case 'l':
                if (flags & ZFORMAT_LONG)
                    flags = (flags & ~ZFORMAT_LONG) | ZFORMAT_LONGLONG;
                else if (flags & kAnyLength)
                    return nullptr;
                else
                    flags |= ZFORMAT_LONG;
                continue;
            case 'L':
            case 'q':
                if (flags & kAnyLength)
                    return nullptr;
                flags |= ZFORMAT_LONGLONG;
                continue;

            case 'c':
                type = ZFORMAT_TYPE_CHAR;
                break;
            case 'C':
                type = ZFORMAT_TYPE_WIDE;
                break;
            case 's':
                type = ZFORMAT_TYPE_TEXT;
                break;
            case 'S':
                type = ZFORMAT_TYPE_WIDE_TEXT;
                break;
            case 'p':
                type = ZFORMAT_TYPE_POINTER;
                flags |= ZFORMAT_ALTERNATE | ZFORMAT_ZERO | ZFORMAT_HEX;
                break;
            case '%':
                type = ZFORMAT_TYPE_PERCENT;
                flags |= ZFORMAT_PERCENT;
                break;

            case 'd':
            case 'i':
                isUnsigned = 0;
                type = typeOfInteger(flags, isUnsigned);
                break;
            case 'o':
                flags |= ZFORMAT_OCTAL;
                type = typeOfInteger(flags, isUnsigned);
                break;
            case 'x':
                flags |= ZFORMAT_HEX;
                type = typeOfInteger(flags, isUnsigned);
                break;
            case 'X':
                flags |= ZFORMAT_UPPER_HEX;
                type = typeOfInteger(flags, isUnsigned);
                break;
            case 'u':
                type = typeOfInteger(flags, isUnsigned);
                break;

            case 'E':
            case 'G':
                flags |= ZFORMAT_UPPER_FLOAT;
                // fall through
            case 'e':
            case 'f':
            case 'g':
                if (flags & (ZFORMAT_SHORT | ZFORMAT_LONG))
                    return nullptr;
                type = *at == 'f'                 ? ZFORMAT_TYPE_F
                       : *at == 'g' || *at == 'G' ? ZFORMAT_TYPE_G
                                                  : ZFORMAT_TYPE_E;
                if (flags & ZFORMAT_LONGLONG)
                    type += ZFORMAT_TYPE_LONG_E - ZFORMAT_TYPE_E;
                break;

            default:
                return nullptr;
        }
        d.type = type;
        d.flags = flags;
        return at + 1;
    }
}

/// Reads the directive at d.start; whether it is a good one.
bool readDirective(format_directive& d) {
    d.flags = 0;
    d.arg_index = d.width = d.precision = 0;
    const char* at = d.start + 1;
    if (static_cast<unsigned char>(*at) < 'A') {  // else it begins with length or conversion
        at = readPosition(at, d);
        if (at == nullptr)
            return false;
        at = readFlags(at, d);
        at = readSize(at, d, d.width, ZFORMAT_WIDTH, ZFORMAT_WIDTH_ARG);
        if (at == nullptr)
            return false;
        if (*at == '.') {
            at = readSize(at + 1, d, d.precision, ZFORMAT_PRECISION, ZFORMAT_PRECISION_ARG);
            if (at == nullptr)
                return false;
            if (d.flags & ZFORMAT_ANY_PRECISION)
                d.flags &= ~ZFORMAT_ZERO;
        }
    }
    d.end = readConversion(at, d);
    return d.end != nullptr;
}

/// The next % or the NUL.
const char* findDirective(const char* at) {
    // It is near, mostly, and nearer than a call.
    for (const char* const near = at + 8; at != near; ++at) {
        if (*at == '%' || *at == '\0')
            return at;
    }
    return strchrnul(at, '%');
}

/// Makes room for one more directive; whether there is.
bool growDirectives(format_context& c) {
    const size_t count = static_cast<size_t>(c.directive_count);
    const size_t size = (count + kGrowth) * sizeof(format_directive);
    const bool isInline = c.directives == c.inline_directives;
    void* const block = isInline ? malloc(size) : realloc(c.directives, size);
    if (block == nullptr)
        return false;
    if (isInline)
        memcpy(block, c.inline_directives, sizeof c.inline_directives);
    c.directives = static_cast<format_directive*>(block);
    return true;
}

/// What a first look at the whole format tells about its arguments.
struct Census {
    bool isNumbered;
    int64_t positions;  // that an unnumbered format has
};

bool readDirectives(format_context& c, Census& census) {
    const char* at = c.format;
    for (;;) {
        at = findDirective(at);
        if (*at == '\0')
            break;
        if (c.directive_count >= kInlineDirectives && c.directive_count % kGrowth == 0 &&
            !growDirectives(c))
            return false;
        format_directive& d = c.directives[c.directive_count];
        d.start = at;
        if (!readDirective(d))
            return false;
        ++c.directive_count;
        census.isNumbered |= (d.flags & ZFORMAT_NUMBERED) != 0;
        census.positions +=
            1 + ((d.flags & ZFORMAT_WIDTH_ARG) != 0) + ((d.flags & ZFORMAT_PRECISION_ARG) != 0);
        at = d.end;
    }
    c.format_end = at;
    return true;
}

// Arguments

inline void fetch(format_arg& arg, int type, ZFormatArguments& from) {
    arg.type = type;
    switch (type) {
        case ZFORMAT_TYPE_CHAR:
            arg.value.u = 0;
            arg.value.c = static_cast<char>(va_arg(from.list, int));
            break;
        case ZFORMAT_TYPE_WIDE:
        case ZFORMAT_TYPE_USHORT:
            arg.value.u = static_cast<uint16_t>(va_arg(from.list, int));
            break;
        case ZFORMAT_TYPE_TEXT:
        case ZFORMAT_TYPE_WIDE_TEXT:
        case ZFORMAT_TYPE_POINTER:
            arg.value.u = 0;
            arg.value.pointer = va_arg(from.list, const void*);
            break;
        case ZFORMAT_TYPE_SHORT:
            arg.value.i = static_cast<int16_t>(va_arg(from.list, int));
            break;
        case ZFORMAT_TYPE_INT:
            arg.value.i = va_arg(from.list, int);
            break;
        case ZFORMAT_TYPE_UINT:
            arg.value.u = va_arg(from.list, unsigned int);
            break;
        case ZFORMAT_TYPE_LONG:
            arg.value.i = va_arg(from.list, long);
            break;
        case ZFORMAT_TYPE_ULONG:
            arg.value.u = va_arg(from.list, unsigned long);
            break;
        case ZFORMAT_TYPE_LONGLONG:
        case ZFORMAT_TYPE_ULONGLONG:
            arg.value.u = va_arg(from.list, uint64_t);
            break;
        case ZFORMAT_TYPE_E:
        case ZFORMAT_TYPE_F:
        case ZFORMAT_TYPE_G:
            arg.value.d = va_arg(from.list, double);
            break;
        case ZFORMAT_TYPE_LONG_E:
        case ZFORMAT_TYPE_LONG_F:
        case ZFORMAT_TYPE_LONG_G:
            arg.value.ld = va_arg(from.list, long double);
            break;
        default:  // a %
            arg.value.u = 0;
            arg.value.c = '%';
    }
}

/// Makes room for arguments up to a position; whether there is.
bool growArgs(format_context& c, int64_t highest) {
    if (highest < kInlineArgs)
        return true;
    const uint64_t size = (static_cast<uint64_t>(highest) + 1) * sizeof(format_arg);
    if (highest >= INT_MAX || size > SIZE_MAX / 2)
        return false;
    void* const block = malloc(static_cast<size_t>(size));
    if (block == nullptr)
        return false;
    c.args = static_cast<format_arg*>(block);
    return true;
}

/// No number anywhere: positions follow each other.
bool fetchInOrder(format_context& c, int64_t highest, ZFormatArguments& from) {
    if (!growArgs(c, highest))
        return false;
    format_arg* const args = c.args;
    int position = 0;
    for (int i = 0; i < c.directive_count; ++i) {
        format_directive& d = c.directives[i];
        if (d.flags & ZFORMAT_WIDTH_ARG) {
            d.width = ++position;
            fetch(args[position], ZFORMAT_TYPE_UINT, from);
        }
        if (d.flags & ZFORMAT_PRECISION_ARG) {
            d.precision = ++position;
            fetch(args[position], ZFORMAT_TYPE_UINT, from);
        }
        d.arg_index = ++position;
        fetch(args[position], d.type, from);
    }
    return true;
}

/// Assigns all positions and finds the highest of any kind and the highest number; false if a
/// number is so high that some below it must be missing.
bool assignPositions(format_context& c, int& highest, int& highestNumber) {
    const int64_t names = int64_t(c.directive_count) * 3;
    int counter = 0;
    bool good = true;
    const auto assign = [&](int& position, bool isNumbered) {
        if (!isNumbered) {
            position = counter + 1;
        } else if (position > names) {
            good = false;
            return;
        } else if (position > highestNumber) {
            highestNumber = position;
        }
        counter = position;
        if (position > highest)
            highest = position;
    };
    for (int i = 0; i < c.directive_count && good; ++i) {
        format_directive& d = c.directives[i];
        if (d.flags & ZFORMAT_WIDTH_ARG)
            assign(d.width, d.flags & ZFORMAT_WIDTH_NUMBERED);
        if (d.flags & ZFORMAT_PRECISION_ARG)
            assign(d.precision, d.flags & ZFORMAT_PRECISION_NUMBERED);
        assign(d.arg_index, d.flags & ZFORMAT_NUMBERED);
    }
    return good;
}

// What a slot's type says until the arguments are fetched.
const int kUnnamed = -1;
const int kNumbered = -2;  // some directive names it by number

/// Calls `see(position, type, isNumbered)` for each position that a directive names.
template <typename See>
void forEachName(const format_directive& d, See see) {
    see(d.arg_index, d.type, (d.flags & ZFORMAT_NUMBERED) != 0);
    if (d.flags & ZFORMAT_WIDTH_ARG)
        see(d.width, ZFORMAT_TYPE_UINT, (d.flags & ZFORMAT_WIDTH_NUMBERED) != 0);
    if (d.flags & ZFORMAT_PRECISION_ARG)
        see(d.precision, ZFORMAT_TYPE_UINT, (d.flags & ZFORMAT_PRECISION_NUMBERED) != 0);
}

/// Numbers somewhere: the first directive that names a position decides its type, but a % only if
/// nobody else wants the argument.
bool fetchByNumber(format_context& c, ZFormatArguments& from) {
    int highest = 0, highestNumber = 0;
    if (!assignPositions(c, highest, highestNumber) || !growArgs(c, highest))
        return false;
    format_arg* const args = c.args;
    // A directive may read more of an argument than another one fetched: zeros then.
    memset(args, 0, (static_cast<size_t>(highest) + 1) * sizeof *args);
    for (int position = 0; position <= highest; ++position)
        args[position].type = kUnnamed;

    int missing = highestNumber;
    for (int i = 0; i < c.directive_count; ++i) {
        forEachName(c.directives[i], [&](int position, int, bool isNumbered) {
            if (isNumbered && args[position].type == kUnnamed) {
                args[position].type = kNumbered;
                --missing;
            }
        });
    }
    if (missing != 0)
        return false;

    for (int i = 0; i < c.directive_count; ++i) {
        forEachName(c.directives[i], [&](int position, int type, bool) {
            int& found = args[position].type;
            if (found < 0 || found == ZFORMAT_TYPE_PERCENT)
                found = type;
        });
    }
    for (int position = 1; position <= highest; ++position)
        fetch(args[position], args[position].type, from);
    return true;
}

}  // namespace

int zformatParse(format_context& c, zcodeset_handle handle, const char* fmt,
                 ZFormatArguments& from) {
    c.codeset = handle;
    c.directives = c.inline_directives;
    c.directive_count = 0;
    c.args = c.inline_args;
    c.format = fmt;
    Census census = {false, 0};
    if (!readDirectives(c, census))
        return -1;
    const bool fetched =
        census.isNumbered ? fetchByNumber(c, from) : fetchInOrder(c, census.positions, from);
    return fetched ? 0 : -1;
}

void zformatDone(format_context& c) {
    if (c.directives != c.inline_directives)
        free(c.directives);
    if (c.args != c.inline_args)
        free(c.args);
    c.directives = c.inline_directives;
    c.args = c.inline_args;
    c.directive_count = 0;
}
