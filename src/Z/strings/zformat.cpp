// zformat.cpp: how the formatter writes.
//
// A renderer gets `available` bytes and gives the length that its output has without that limit, or
// -1; what doesn't fit is left out, so that a cut output is the beginning of the whole. A byte for
// the NUL follows the available ones if there are any at all.
#include "zformat.h"

#include <langinfo.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "qel/qel.h"
#include "zformatparse.h"

namespace {

/// Copies or fills n bytes of which there are one to two words, as two words that may overlap.
template <typename Word>
void copyWords(char* to, const char* from, size_t n) {
    Word first, last;
    memcpy(&first, from, sizeof first);
    memcpy(&last, from + n - sizeof last, sizeof last);
    memcpy(to, &first, sizeof first);
    memcpy(to + n - sizeof last, &last, sizeof last);
}

template <typename Word>
void fillWords(char* to, char c, size_t n) {
    const Word word = static_cast<Word>(0x0101010101010101U) * static_cast<unsigned char>(c);
    memcpy(to, &word, sizeof word);
    memcpy(to + n - sizeof word, &word, sizeof word);
}

// Most pieces are short, and a call costs more than they do.

void copyBytes(char* to, const char* from, size_t n) {
    if (n < 4) {
        for (size_t i = 0; i < n; ++i)
            to[i] = from[i];
    } else if (n <= 8) {
        copyWords<uint32_t>(to, from, n);
    } else if (n <= 16) {
        copyWords<uint64_t>(to, from, n);
    } else {
        memcpy(to, from, n);
    }
}

void fillBytes(char* to, char c, size_t n) {
    if (n < 4) {
        for (size_t i = 0; i < n; ++i)
            to[i] = c;
    } else if (n <= 8) {
        fillWords<uint32_t>(to, c, n);
    } else if (n <= 16) {
        fillWords<uint64_t>(to, c, n);
    } else {
        memset(to, c, n);
    }
}

/// Takes output in order and leaves out what lies beyond the available bytes.
class Clip {
public:
    Clip(char* target, size_t available) : at_(target), left_(available) {}

    void put(const char* bytes, uint64_t count) {
        const size_t n = fit(count);
        copyBytes(at_, bytes, n);
        at_ += n;
        left_ -= n;
    }

    void fill(char c, uint64_t count) {
        const size_t n = fit(count);
        fillBytes(at_, c, n);
        at_ += n;
        left_ -= n;
    }

    /// Passes over what a renderer has written here.
    void pass(uint64_t count) {
        const size_t n = fit(count);
        at_ += n;
        left_ -= n;
    }

    char* at() const { return at_; }
    size_t left() const { return left_; }

private:
    size_t fit(uint64_t count) const { return count < left_ ? static_cast<size_t>(count) : left_; }

    char* at_;
    size_t left_;
};

int asInt(const format_arg& arg) {
    return static_cast<int>(static_cast<unsigned int>(arg.value.u));
}

int widthOf(const format_directive& d, const format_arg* args) {
    return d.flags & ZFORMAT_WIDTH_ARG ? asInt(args[d.width]) : d.width;
}

int precisionOf(const format_directive& d, const format_arg* args, int otherwise) {
    return d.flags & ZFORMAT_PRECISION_ARG ? asInt(args[d.precision])
           : d.flags & ZFORMAT_PRECISION   ? d.precision
                                           : otherwise;
}

int64_t padding(int width, int64_t length) { return width > length ? width - length : 0; }

/// Bytes with blanks up to the width on one side.
int64_t renderPadded(const format_directive& d, const format_arg* args, const char* bytes,
                     int64_t length, char* target, size_t available) {
    Clip out(target, available);
    const int64_t pad = d.flags & ZFORMAT_ANY_WIDTH ? padding(widthOf(d, args), length) : 0;
    if (!(d.flags & ZFORMAT_LEFT))
        out.fill(' ', static_cast<uint64_t>(pad));
    out.put(bytes, static_cast<uint64_t>(length));
    if (d.flags & ZFORMAT_LEFT)
        out.fill(' ', static_cast<uint64_t>(pad));
    return pad + length;
}

int64_t renderChar(zcodeset_handle, const format_directive& d, const format_arg* args, char* target,
                   size_t available) {
    // Another directive may have made another argument of the position of a %.
    const char c = d.flags & ZFORMAT_PERCENT ? '%' : args[d.arg_index].value.c;
    return renderPadded(d, args, &c, 1, target, available);
}

/// What qel_wctomb() may write.
const int kCharacterRoom = 8;

int64_t renderWideChar(zcodeset_handle codeset, const format_directive& d, const format_arg* args,
                       char* target, size_t available) {
    char bytes[kCharacterRoom];
    const int n = qel_wctomb(codeset, bytes, args[d.arg_index].value.wide);
    if (n < 0 || n > kCharacterRoom)  // the bound lets the compiler see that n bytes are there
        return -1;
    return renderPadded(d, args, bytes, n, target, available);
}

int64_t renderText(zcodeset_handle, const format_directive& d, const format_arg* args, char* target,
                   size_t available) {
    const char* text = static_cast<const char*>(args[d.arg_index].value.pointer);
    if (text == nullptr)
        text = "";
    size_t length;
    if (d.flags & ZFORMAT_ANY_PRECISION) {
        const int precision = precisionOf(d, args, 0);
        length = precision > 0 ? strnlen(text, static_cast<size_t>(precision)) : 0;
    } else {
        length = strlen(text);
    }
    return renderPadded(d, args, text, static_cast<int64_t>(length), target, available);
}

/// Writes characters until one doesn't fit as a whole, and a NUL in front of that. The length in
/// bytes of the whole text, or of what `most` bytes of it can hold; -1 if the codeset lacks one.
int64_t encode(zcodeset_handle codeset, const zwide_char* text, int64_t most, char* target,
               size_t available) {
    int64_t length = 0;
    bool fits = available > 0;
    for (; length < most && *text != 0; ++text) {
        char bytes[kCharacterRoom];
        const int n = qel_wctomb(codeset, bytes, *text);
        if (n < 0)
            return -1;
        if (length + n > most)
            break;
        if (fits && static_cast<uint64_t>(length + n) <= available) {
            memcpy(target + length, bytes, static_cast<size_t>(n));
        } else if (fits) {
            fits = false;
            if (static_cast<uint64_t>(length) < available)
                target[length] = '\0';
        }
        length += n;
    }
    return length;
}

int64_t renderWideText(zcodeset_handle codeset, const format_directive& d, const format_arg* args,
                       char* target, size_t available) {
    static const zwide_char kNothing[] = {0};
    const zwide_char* text = static_cast<const zwide_char*>(args[d.arg_index].value.pointer);
    if (text == nullptr)
        text = kNothing;
    const int64_t most = d.flags & ZFORMAT_ANY_PRECISION ? precisionOf(d, args, 0) : INT64_MAX;
    const int width = widthOf(d, args);

    Clip out(target, available);
    if (d.flags & ZFORMAT_LEFT || width <= 0) {
        const int64_t length = encode(codeset, text, most, target, available);
        if (length < 0)
            return -1;
        const int64_t pad = padding(width, length);
        out.pass(static_cast<uint64_t>(length));
        out.fill(' ', static_cast<uint64_t>(pad));
        return length + pad;
    }
    // The pad in front depends on the length, so the text is converted twice.
    const int64_t length = encode(codeset, text, most, nullptr, 0);
    if (length < 0)
        return -1;
    const int64_t pad = padding(width, length);
    out.fill(' ', static_cast<uint64_t>(pad));
    if (out.left() > 0)
        encode(codeset, text, most, out.at(), out.left());
    return pad + length;
}

const char kRadixChars[2][17] = {"0123456789abcdef", "0123456789ABCDEF"};

/// "00" to "99": a division for each two digits is half as many.
const char kPairs[] =
    "0001020304050607080910111213141516171819202122232425262728293031323334353637383940414243444546"
    "4748495051525354555657585960616263646566676869707172737475767778798081828384858687888990919293"
    "949596979899";

/// Writes decimal digits in front of `end`, one at least.
void decimalDigits(char* end, uint64_t value) {
    const auto pair = [&end](uint32_t two) {
        end -= 2;
        memcpy(end, kPairs + two * 2, 2);
    };
    while (value > UINT32_MAX) {  // eight digits a time: the rest is work for 32 bits
        uint32_t low = static_cast<uint32_t>(value % 100000000U);
        value /= 100000000U;
        for (int i = 0; i < 4; ++i, low /= 100)
            pair(low % 100);
    }
    uint32_t rest = static_cast<uint32_t>(value);
    for (; rest >= 100; rest /= 100)
        pair(rest % 100);
    if (rest >= 10)
        pair(rest);
    else
        *--end = static_cast<char>('0' + rest);
}

/// The same in base 8 or 16.
void powerDigits(char* end, uint64_t value, int bits, const char* radixChars) {
    do {
        *--end = radixChars[value & ((1U << bits) - 1)];
        value >>= bits;
    } while (value != 0);
}

int countDecimal(uint64_t value) {
    int count = 1;
    for (; value >= 10000; value /= 10000)
        count += 4;
    return count + (value >= 10) + (value >= 100) + (value >= 1000);
}

int countPower(uint64_t value, int bits) {
    const int used = 64 - __builtin_clzll(value | 1);
    return bits == 4 ? (used + 3) / 4 : (used + 2) / 3;  // by constants: no division
}

/// More than the digits of any number in any base.
const size_t kDigitsRoom = 24;

uint64_t magnitudeOf(int64_t value) {
    return value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
}

/// An integer before it is put into its field.
struct Number {
    uint64_t value;
    int bits;  // 3 and 4 for base 8 and 16, 0 for decimal
    const char* radixChars;
    const char* prefix;  // sign or base
    int prefixLength;
    int prefixCounted;  // the bytes of it that the width holds
    int digitCount;     // 0: nothing is printed
    int64_t places;     // the digits, with zeros in front up to the precision
};

void writeDigits(const Number& n, char* end) {
    if (n.bits != 0)
        powerDigits(end, n.value, n.bits, n.radixChars);
    else
        decimalDigits(end, n.value);
}

int64_t placeNumber(const format_directive& d, const format_arg* args, const Number& n,
                    char* target, size_t available) {
    const uint64_t pad =
        static_cast<uint64_t>(padding(widthOf(d, args), n.prefixCounted + n.places));
    const uint64_t prefix = static_cast<uint64_t>(n.prefixLength);
    const uint64_t count = static_cast<uint64_t>(n.digitCount);
    const uint64_t total = pad + prefix + static_cast<uint64_t>(n.places);
    uint64_t zeros = static_cast<uint64_t>(n.places) - count;
    uint64_t front = 0, behind = 0;
    (d.flags & ZFORMAT_ZERO ? zeros : d.flags & ZFORMAT_LEFT ? behind : front) += pad;

    if (total <= available) {
        char* at = target;
        fillBytes(at, ' ', static_cast<size_t>(front));
        at += front;
        for (uint64_t i = 0; i < prefix; ++i)
            *at++ = n.prefix[i];
        fillBytes(at, '0', static_cast<size_t>(zeros));
        at += zeros + count;
        if (count != 0)
            writeDigits(n, at);
        fillBytes(at, ' ', static_cast<size_t>(behind));
        return static_cast<int64_t>(total);
    }
    char digits[kDigitsRoom];
    if (count != 0)
        writeDigits(n, digits + count);
    Clip out(target, available);
    out.fill(' ', front);
    out.put(n.prefix, prefix);
    out.fill('0', zeros);
    out.put(digits, count);
    out.fill(' ', behind);
    return static_cast<int64_t>(total);
}

int64_t renderSigned(zcodeset_handle, const format_directive& d, const format_arg* args,
                     char* target, size_t available) {
    const int64_t value = args[d.arg_index].value.i;
    const int precision = precisionOf(d, args, 1);
    Number n;
    n.value = magnitudeOf(value);
    n.bits = 0;
    n.radixChars = kRadixChars[0];
    n.prefix = value < 0 ? "-" : d.flags & ZFORMAT_PLUS ? "+" : " ";
    n.prefixLength = value < 0 || d.flags & (ZFORMAT_PLUS | ZFORMAT_BLANK) ? 1 : 0;
    n.prefixCounted = n.prefixLength;
    n.digitCount = value != 0 || precision != 0 ? countDecimal(n.value) : 0;
    n.places = n.digitCount > precision ? n.digitCount : precision;
    return placeNumber(d, args, n, target, available);
}

int64_t renderUnsigned(zcodeset_handle, const format_directive& d, const format_arg* args,
                       char* target, size_t available) {
    const bool isPointer = d.type == ZFORMAT_TYPE_POINTER;
    uint64_t value = args[d.arg_index].value.u;
    if (isPointer)
        value = static_cast<uintptr_t>(value);  // another directive may have fetched a negative int
    const int precision = precisionOf(d, args, isPointer ? 0 : 1);
    const bool isUpper = d.flags & ZFORMAT_UPPER_HEX;
    Number n;
    n.value = value;
    n.bits = d.flags & (ZFORMAT_HEX | ZFORMAT_UPPER_HEX) ? 4 : d.flags & ZFORMAT_OCTAL ? 3 : 0;
    n.radixChars = kRadixChars[isUpper];
    n.prefix = isUpper ? "0X" : "0x";
    n.prefixLength = n.bits == 4 && d.flags & ZFORMAT_ALTERNATE ? 2 : 0;
    n.prefixCounted = value != 0 ? n.prefixLength : 0;
    n.digitCount = value == 0 && precision == 0 ? 0
                   : n.bits != 0                ? countPower(value, n.bits)
                                                : countDecimal(value);
    n.places = n.digitCount > precision ? n.digitCount : precision;
    if (n.bits == 3 && d.flags & ZFORMAT_ALTERNATE && value != 0 && n.digitCount >= precision)
        ++n.places;
    return placeNumber(d, args, n, target, available);
}

const char kFloatConversions[] = "efgefgEFGEFG";

char conversionOf(const format_directive& d) {
    return kFloatConversions[d.type - ZFORMAT_TYPE_E + (d.flags & ZFORMAT_UPPER_FLOAT ? 6 : 0)];
}

// Floating-point numbers are the system's. It cuts as we do, and its NUL falls on a byte that is
// ours, so that it writes into the target itself, however long the text is.

int printFloat(char* target, size_t room, const char* format, int width, int precision, double d) {
    const QelScope scope;
    return snprintf(target, room, format, width, precision, d);
}
int printFloat(char* target, size_t room, const char* format, int width, int precision,
               long double d) {
    const QelScope scope;
    return snprintf(target, room, format, width, precision, d);
}
int plainFloat(char* target, size_t room, const char* format, double d) {
    const QelScope scope;
    return strfromd(target, room, format, d);
}
int plainFloat(char* target, size_t room, const char* format, long double d) {
    const QelScope scope;
    return strfroml(target, room, format, d);
}

/// Any flags and sizes.
template <typename Float>
int64_t renderFlaggedFloat(const format_directive& d, int width, int precision, Float value,
                           char* target, size_t room) {
    static const struct {
        unsigned int flag;
        char c;
    } kFlags[] = {{ZFORMAT_ZERO, '0'},  {ZFORMAT_ALTERNATE, '#'}, {ZFORMAT_LEFT, '-'},
                  {ZFORMAT_BLANK, ' '}, {ZFORMAT_PLUS, '+'},      {ZFORMAT_GROUP, '\''}};
    char format[16];
    char* at = format;
    *at++ = '%';
    for (const auto& [flag, c] : kFlags) {
        if (d.flags & flag)
            *at++ = c;
    }
    memcpy(at, "*.*", 3);  // a width of 0 and a negative precision are as good as none
    at += 3;
    if (sizeof value > sizeof(double))
        *at++ = 'L';
    *at++ = conversionOf(d);
    *at = '\0';
    return printFloat(target, room, format, width, precision, value);
}

const int kPlainPrecision = 99;

/// Without flags, and with a precision of up to two digits or none: measured, a fifth faster.
template <typename Float>
int64_t renderPlainFloat(const format_directive& d, int precision, Float value, char* target,
                         size_t room) {
    char format[8];
    char* at = format;
    *at++ = '%';
    if (precision >= 0) {
        *at++ = '.';
        memcpy(at, kPairs + precision * 2, 2);
        at += 2;
    }
    *at++ = conversionOf(d);
    *at = '\0';
    return plainFloat(target, room, format, value);
}

template <typename Float>
int64_t renderFloat(const format_directive& d, const format_arg* args, Float value, char* target,
                    size_t available) {
    const unsigned int kFlags =
        ZFORMAT_ZERO | ZFORMAT_ALTERNATE | ZFORMAT_BLANK | ZFORMAT_PLUS | ZFORMAT_GROUP;
    const int width = widthOf(d, args);
    const int precision = precisionOf(d, args, -1);
    const size_t room = available > 0 ? available + 1 : 0;
    const bool padsInFront = width > 0 && !(d.flags & ZFORMAT_LEFT);
    // Text that has to be moved behind its padding must be there as a whole. A decimal point of
    // several bytes counts as one in the system's padding.
    if (d.flags & kFlags || width < 0 || precision > kPlainPrecision ||
        (padsInFront && static_cast<size_t>(width) > available) ||
        (width > 0 && qel_own() == nullptr && nl_langinfo(RADIXCHAR)[1] != '\0'))
        return renderFlaggedFloat(d, width, precision, value, target, room);

    const int64_t length = renderPlainFloat(d, precision, value, target, room);
    if (length < 0 || length >= width)
        return length;
    Clip out(target, available);
    if (padsInFront) {
        memmove(target + (width - length), target, static_cast<size_t>(length));
    } else {
        out.pass(static_cast<uint64_t>(length));
    }
    out.fill(' ', static_cast<uint64_t>(width - length));
    return width;
}

int64_t renderDouble(zcodeset_handle, const format_directive& d, const format_arg* args,
                     char* target, size_t available) {
    const format_arg& arg = args[d.arg_index];
    return d.type < ZFORMAT_TYPE_LONG_E ? renderFloat(d, args, arg.value.d, target, available)
                                        : renderFloat(d, args, arg.value.ld, target, available);
}

typedef int64_t (*Renderer)(zcodeset_handle codeset, const format_directive& d,
                            const format_arg* args, char* target, size_t available);

/// By the type of the directive.
const Renderer render[] = {
    renderChar,     renderWideChar, renderText,     renderWideText, renderSigned,
    renderUnsigned, renderSigned,   renderUnsigned, renderSigned,   renderUnsigned,
    renderSigned,   renderUnsigned, renderUnsigned, renderDouble,   renderDouble,
    renderDouble,   renderDouble,   renderDouble,   renderDouble,   renderChar,
};

/// What makes a text or integer more than its own bytes.
const unsigned int kField = ZFORMAT_ALTERNATE | ZFORMAT_ZERO | ZFORMAT_BLANK | ZFORMAT_PLUS |
                            ZFORMAT_ANY_WIDTH | ZFORMAT_ANY_PRECISION;

/// The same output by a short road for the commonest directives: texts and integers as they are,
/// which fit. Bytes, or -1 if it is none of those.
inline int64_t renderPlain(const format_directive& d, const format_arg& arg, char* target,
                           size_t available) {
    if (d.flags & kField || available < kDigitsRoom)
        return -1;
    uint64_t value = arg.value.u;
    int sign = 0, count;
    switch (d.type) {
        case ZFORMAT_TYPE_TEXT: {
            const char* const text = static_cast<const char*>(arg.value.pointer);
            const size_t length = text != nullptr ? strlen(text) : 0;
            if (length > available)
                return -1;
            copyBytes(target, text, length);
            return static_cast<int64_t>(length);
        }
        case ZFORMAT_TYPE_SHORT:
        case ZFORMAT_TYPE_INT:
        case ZFORMAT_TYPE_LONG:
        case ZFORMAT_TYPE_LONGLONG:
            if (arg.value.i < 0) {
                value = magnitudeOf(arg.value.i);
                *target = '-';
                sign = 1;
            }
            break;
        case ZFORMAT_TYPE_USHORT:
        case ZFORMAT_TYPE_UINT:
        case ZFORMAT_TYPE_ULONG:
        case ZFORMAT_TYPE_ULONGLONG:
            if (d.flags & ZFORMAT_OCTAL)
                return -1;
            if (d.flags & (ZFORMAT_HEX | ZFORMAT_UPPER_HEX)) {
                count = countPower(value, 4);
                powerDigits(target + count, value, 4,
                            kRadixChars[(d.flags & ZFORMAT_UPPER_HEX) != 0]);
                return count;
            }
            break;
        default:
            return -1;
    }
    count = countDecimal(value) + sign;
    decimalDigits(target + count, value);
    return count;
}

}  // namespace

int zformatInto(const format_context& c, char* buf, size_t room) {
    Clip out(buf, room > 0 ? room - 1 : 0);
    const char* literal = c.format;
    const format_directive* const end = c.directives + c.directive_count;
    int64_t total = 0;
    for (const format_directive* d = c.directives; d != end; ++d) {
        out.put(literal, static_cast<uint64_t>(d->start - literal));
        int64_t length = renderPlain(*d, c.args[d->arg_index], out.at(), out.left());
        if (length < 0)
            length = render[d->type](c.codeset, *d, c.args, out.at(), out.left());
        if (length < 0)
            return -1;
        out.pass(static_cast<uint64_t>(length));
        total += d->start - literal + length;
        if (total > INT_MAX)
            return -1;
        literal = d->end;
    }
    out.put(literal, static_cast<uint64_t>(c.format_end - literal));
    total += c.format_end - literal;
    if (total > INT_MAX)
        return -1;
    // A cut text has used the room up, also where a character of it was left out.
    if (room > 0)
        *out.at() = '\0';
    return static_cast<int>(total);
}
