#include "FormatModel.h"

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <map>

namespace {

/// A width, a precision or a value: which argument it is, or the number itself.
struct Part {
    enum { none, literal, argument } kind = none;
    bool numbered = false;
    int64_t number = 0;  // the literal, or the position
};

struct Directive {
    Part value, width, precision;
    std::string flags;
    std::string length;  // "", "h", "l" or "L"
    char conversion = 0;
    std::string literalBefore;

    bool has(char flag) const { return flags.find(flag) != std::string::npos; }
    void drop(char flag) {
        for (size_t at; (at = flags.find(flag)) != std::string::npos;)
            flags.erase(at, 1);
    }
};

struct Argument {
    int64_t integer = 0;
    long double real = 0;
    const void* pointer = nullptr;
};

bool isDigit(char c) { return c >= '0' && c <= '9'; }

/// The machine, one character a step. False for a bad directive; else `at` is behind it.
bool readDirective(const char*& at, Directive& d) {
    enum { position, flags, width, widthStar, precision, precisionStar, length, conversion };
    int state = position;
    const auto readNumber = [&at](int64_t& number) {  // false: not for an int
        for (number = 0; isDigit(*at); ++at) {
            number = number * 10 + (*at - '0');
            if (number > INT_MAX)
                return false;
        }
        return true;
    };
    const auto starStep = [&](Part& part, char behind) {  // the next state, or -1
        if (isDigit(*at)) {
            if (!readNumber(part.number) || *at != '$' || !d.value.numbered || part.number == 0)
                return -1;
            part.numbered = true;
            ++at;
            return state;
        }
        if (*at == behind) {
            ++at;
            return static_cast<int>(precision);
        }
        return static_cast<int>(length);
    };
    const auto sizeStep = [&](Part& part, int star) {
        if (*at == '*') {
            if (part.kind == Part::literal)
                return -1;
            part.kind = Part::argument;
            ++at;
            return star;
        }
        if (isDigit(*at)) {
            part.kind = Part::literal;
            part.number = part.number * 10 + (*at - '0');
            ++at;
            return part.number > INT_MAX ? -1 : state;
        }
        if (*at == '.' && star == widthStar) {
            ++at;
            return static_cast<int>(precision);
        }
        return static_cast<int>(length);
    };
    while (*at != '\0' && state >= 0) {
        switch (state) {
            case position: {
                const char* const digits = at;
                if (!readNumber(d.value.number))
                    return false;
                if (at != digits && *at == '$') {
                    if (d.value.number == 0)
                        return false;
                    d.value.numbered = true;
                    ++at;
                } else {
                    at = digits;
                }
                state = flags;
                break;
            }
            case flags:
                if (strchr("# '+", *at) != nullptr) {
                    d.flags += *at++;
                } else if (*at == '-') {
                    d.flags += *at++;
                    d.drop('0');
                } else if (*at == '0' && !d.has('0')) {
                    if (!d.has('-'))
                        d.flags += '0';
                    ++at;
                } else {
                    state = width;  // which knows the . and hands all else on
                }
                break;
            case width:
                state = sizeStep(d.width, widthStar);
                break;
            case widthStar:
                state = starStep(d.width, '.');
                break;
            case precision:
                state = sizeStep(d.precision, precisionStar);
                if (d.precision.kind != Part::none)
                    d.drop('0');
                break;
            case precisionStar:
                state = starStep(d.precision, '\0');
                break;
            case length:
                if (*at == 'l' && d.length == "l")
                    d.length = "L";
                else if (strchr("hlLq", *at) != nullptr && !d.length.empty())
                    return false;
                else if (strchr("hlLq", *at) != nullptr)
                    d.length = *at == 'q' ? 'L' : *at;
                else
                    state = conversion;
                at += state == length;
                break;
            default:
                if (strchr("cCsSdiuoxXpeEfgG%", *at) == nullptr)
                    return false;
                if (strchr("eEfgG", *at) != nullptr && (d.length == "h" || d.length == "l"))
                    return false;
                d.conversion = *at++;
                if (d.conversion == 'p')
                    d.flags += "#0";
                return true;
        }
    }
    return false;
}

Argument fetch(const Directive& d, bool isSize, va_list* ap) {
    Argument a;
    const char c = isSize ? 'u' : d.conversion;
    const std::string length = isSize ? "" : d.length;
    if (strchr("sSp", c) != nullptr) {
        a.pointer = va_arg(*ap, const void*);
        a.integer = static_cast<int64_t>(reinterpret_cast<uintptr_t>(a.pointer));
    } else if (strchr("eEfgG", c) != nullptr) {
        a.real = length == "L" ? va_arg(*ap, long double) : va_arg(*ap, double);
    } else if (c == 'c') {
        a.integer = static_cast<unsigned char>(va_arg(*ap, int));
    } else if (c == 'C') {
        a.integer = static_cast<uint16_t>(va_arg(*ap, int));
    } else {
        const bool isSigned = c == 'd' || c == 'i';
        if (length == "L")
            a.integer = va_arg(*ap, long long);
        else if (length == "l")
            a.integer =
                isSigned ? va_arg(*ap, long) : static_cast<int64_t>(va_arg(*ap, unsigned long));
        else if (length == "h")
            a.integer = isSigned ? static_cast<int16_t>(va_arg(*ap, int))
                                 : static_cast<uint16_t>(va_arg(*ap, int));
        else
            a.integer = isSigned ? va_arg(*ap, int) : static_cast<int64_t>(va_arg(*ap, unsigned));
    }
    return a;
}

std::string blanks(int64_t count, char c = ' ') {
    return std::string(count > 0 ? static_cast<size_t>(count) : 0, c);
}

std::string digitsOf(uint64_t value, unsigned base, bool isUpper) {
    const char* const digits = isUpper ? "0123456789ABCDEF" : "0123456789abcdef";
    std::string text;
    for (; value != 0; value /= base)
        text.insert(0, 1, digits[value % base]);
    return text;
}

/// `precision` is -1 where there is none.
std::string integerText(const Directive& d, int64_t value, int64_t width, bool hasPrecision,
                        int64_t precision) {
    const bool isSigned = d.conversion == 'd' || d.conversion == 'i';
    const bool isHex = strchr("xXp", d.conversion) != nullptr;
    const bool isNegative = isSigned && value < 0;
    if (!hasPrecision)
        precision = d.conversion == 'p' ? 0 : 1;
    const uint64_t bits =
        d.conversion == 'p' ? static_cast<uintptr_t>(value) : static_cast<uint64_t>(value);
    std::string digits = digitsOf(isNegative ? 0 - bits : bits,
                                  isHex                 ? 16
                                  : d.conversion == 'o' ? 8
                                                        : 10,
                                  d.conversion == 'X');
    if (value == 0 && precision != 0)
        digits = "0";
    const bool addsZero = d.conversion == 'o' && d.has('#') && value != 0 &&
                          static_cast<int64_t>(digits.size()) >= precision;
    digits = blanks(precision - static_cast<int64_t>(digits.size()), '0') + digits;
    if (addsZero)
        digits = "0" + digits;
    std::string prefix;
    if (isSigned)
        prefix = isNegative ? "-" : d.has('+') ? "+" : d.has(' ') ? " " : "";
    else if (isHex && d.has('#'))
        prefix = d.conversion == 'X' ? "0X" : "0x";
    const size_t counted = isHex && value == 0 ? 0 : prefix.size();
    const int64_t pad = width - static_cast<int64_t>(digits.size() + counted);
    if (d.has('0'))
        return prefix + blanks(pad, '0') + digits;
    return d.has('-') ? prefix + digits + blanks(pad) : blanks(pad) + prefix + digits;
}

std::string realText(const Directive& d, long double value, const Part& width, int64_t widthNumber,
                     const Part& precision, int64_t precisionNumber) {
    std::string format = "%";
    for (char flag : std::string("0#- +'")) {
        if (d.has(flag))
            format += flag;
    }
    if (width.kind != Part::none)  // a negative one reads as the flag and a width
        format += std::to_string(widthNumber);
    if (precision.kind != Part::none && precisionNumber >= 0)
        format += "." + std::to_string(precisionNumber);
    format += d.length + d.conversion;
    char text[10000];
    const int n = d.length == "L"
                      ? snprintf(text, sizeof text, format.c_str(), value)
                      : snprintf(text, sizeof text, format.c_str(), static_cast<double>(value));
    return std::string(text, static_cast<size_t>(n));
}

}  // namespace

FormatModel::FormatModel(const char* format, va_list ap) {
    std::vector<Directive> directives;
    std::string literal;
    for (const char* at = format; *at != '\0';) {
        if (*at != '%') {
            literal += *at++;
            continue;
        }
        Directive d;
        d.literalBefore.swap(literal);
        if (good = readDirective(++at, d); !good)
            return;
        directives.push_back(d);
    }

    // Positions, and who names each.
    struct Name {
        const Directive* directive;
        bool isSize;
    };
    std::map<int64_t, std::vector<Name>> names;
    std::map<int64_t, bool> numbered;
    int64_t counter = 0;
    for (Directive& d : directives) {
        d.value.kind = Part::argument;
        for (Part* part : {&d.width, &d.precision, &d.value}) {
            if (part->kind != Part::argument)
                continue;
            if (!part->numbered)
                part->number = counter + 1;
            else
                numbered[part->number] = true;
            counter = part->number;
        }
        for (Part* part : {&d.value, &d.width, &d.precision}) {
            if (part->kind == Part::argument)
                names[part->number].push_back({&d, part != &d.value});
        }
    }
    if (!numbered.empty() && numbered.rbegin()->first != static_cast<int64_t>(numbered.size())) {
        good = false;
        return;
    }

    std::map<int64_t, Argument> args;
    va_list copy;
    va_copy(copy, ap);
    for (const auto& [position, who] : names) {
        for (const Name& name : who) {
            if (!name.isSize && name.directive->conversion == '%')
                continue;
            args[position] = fetch(*name.directive, name.isSize, &copy);
            break;
        }
    }
    va_end(copy);

    const auto bytes = [this](const std::string& text) {
        for (char c : text)
            atoms.emplace_back(1, c);
    };
    const auto numberOf = [&args](const Part& part) {
        return part.kind != Part::argument ? part.number
                                           : static_cast<int32_t>(args[part.number].integer);
    };
    for (const Directive& d : directives) {
        bytes(d.literalBefore);
        const Argument& value = args[d.value.number];
        const int64_t width = numberOf(d.width);
        const int64_t precision = numberOf(d.precision);
        const bool hasPrecision = d.precision.kind != Part::none;
        std::vector<std::string> pieces;
        size_t length = 0;
        switch (d.conversion) {
            case '%':
                pieces.push_back("%");
                break;
            case 'c':
                pieces.emplace_back(1, static_cast<char>(value.integer));
                break;
            case 's':
                for (const char* s = static_cast<const char*>(value.pointer);
                     s != nullptr && !(hasPrecision && static_cast<int64_t>(length) >= precision) &&
                     *s != '\0';
                     ++s, ++length)
                    pieces.emplace_back(1, *s);
                break;
            case 'C':
            case 'S': {
                const uint16_t one[] = {static_cast<uint16_t>(value.integer), 0};
                const bool isText = d.conversion == 'S';
                const uint16_t* w = isText ? static_cast<const uint16_t*>(value.pointer) : one;
                for (; w != nullptr; ++w) {
                    if (isText && hasPrecision && static_cast<int64_t>(length) >= precision)
                        break;  // not read: it needn't be there
                    if (isText ? *w == 0 : !pieces.empty())
                        break;
                    char out[MB_LEN_MAX];
                    mbstate_t state = {};
                    const size_t n = wcrtomb(out, *w, &state);
                    if (n == static_cast<size_t>(-1)) {
                        good = false;
                        return;
                    }
                    if (isText && hasPrecision && static_cast<int64_t>(length + n) > precision)
                        break;
                    length += n;
                    if (isText)
                        pieces.emplace_back(out, n);
                    else
                        for (size_t i = 0; i < n; ++i)
                            pieces.emplace_back(1, out[i]);
                }
                break;
            }
            case 'e':
            case 'E':
            case 'f':
            case 'g':
            case 'G':
                bytes(realText(d, value.real, d.width, width, d.precision, precision));
                continue;
            default:
                bytes(integerText(d, value.integer, width, hasPrecision, precision));
                continue;
        }
        size_t size = 0;
        for (const std::string& piece : pieces)
            size += piece.size();
        const std::string pad = blanks(width - static_cast<int64_t>(size));
        if (!d.has('-'))
            bytes(pad);
        atoms.insert(atoms.end(), pieces.begin(), pieces.end());
        if (d.has('-'))
            bytes(pad);
    }
    bytes(literal);
}

std::string FormatModel::output() const { return cut(SIZE_MAX); }

std::string FormatModel::cut(size_t available) const {
    std::string text;
    for (const std::string& atom : atoms) {
        if (text.size() + atom.size() > available)
            break;
        text += atom;
    }
    return text;
}
