#include "FormatModel.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <map>
#include <regex>
#include <vector>

#include "Z/zasprintf.h"
#include "Z/zsnprintf.h"

namespace {

/// A width, a precision or a value.
struct Part {
    bool isArgument = false, isNumbered = false;
    int64_t number = -1;  // the position of an argument, or the literal; -1: there is none
};

struct Directive {
    std::string literalBefore, flags;
    Part value, width, precision;
    char length = 0, conversion = 0;  // a long long is L

    bool is(const char* conversions) const { return strchr(conversions, conversion) != nullptr; }
    bool hasPrecision() const { return precision.isArgument || precision.number >= 0; }
    bool has(char flag) const { return flags.find(flag) != std::string::npos; }
    void drop(char flag) {
        flags.erase(std::remove(flags.begin(), flags.end(), flag), flags.end());
    }
};

union Argument {
    uint64_t bits;
    const void* pointer;
    double real;
    long double longReal;
};

/// "12", "*" or "*1$": where several numbers stand, the last counts. False for a bad one.
bool readPart(std::string text, bool mayBeNumbered, Part& part) {
    part.isArgument = text[0] == '*';
    text.erase(0, part.isArgument);
    part.isNumbered = part.isArgument && !text.empty();
    for (const char* at = text.c_str(); *at != '\0';) {
        char* behind;
        part.number = strtoll(at, &behind, 10);
        at = behind + part.isNumbered;
        if (part.number > INT_MAX || (part.isNumbered && part.number == 0))
            return false;
    }
    return mayBeNumbered || !part.isNumbered;
}

/// False for a bad directive; else `at` is behind it.
bool readDirective(const char*& at, Directive& d) {
    // A second 0 begins the width, unless a - has switched the flag off.
    static const std::regex kDirective(
        R"(%(?:(\d+\$))?([#' +]*(?:0[#' +]*)?(?:-[-#' +0]*)?)(\d+|\*(?:\d+\$)*)?)"
        R"((?:\.(\d+|\*(?:\d+\$)*)?)?(?:(h|ll?|[Lq])?([cCsSdiuoxXp%])|(ll|[Lq])?([eEfgG])))");
    std::cmatch match;
    if (!std::regex_search(at, match, kDirective, std::regex_constants::match_continuous))
        return false;
    d.flags = match[2];
    const std::string length = match[5].str() + match[7].str();
    d.length = length == "ll" || length == "q" ? 'L' : length[0];
    d.conversion = (match[6].str() + match[8].str())[0];
    at = match[0].second;
    const bool isNumbered = match[1].matched;
    if (d.has('-') || match[4].matched)
        d.drop('0');
    return readPart("*" + match[1].str(), true, d.value) &&
           readPart(match[3], isNumbered, d.width) && readPart(match[4], isNumbered, d.precision);
}

/// A part that is no value is a size.
Argument fetch(const Directive& d, bool isSize, va_list* ap) {
    Argument a = {};
    const char length = isSize ? 0 : d.length;
    if (isSize || d.is("diuoxX")) {
        const bool isSigned = !isSize && d.is("di");
        int64_t number = length == 'L'   ? va_arg(*ap, long long)
                         : length == 'l' ? va_arg(*ap, long)
                                         : va_arg(*ap, int);
        if (!isSigned && length != 'L')
            number &= length == 'l' ? ULONG_MAX : UINT_MAX;
        if (length == 'h')
            number = isSigned ? static_cast<int16_t>(number) : static_cast<uint16_t>(number);
        a.bits = static_cast<uint64_t>(number);
    } else if (d.is("sSp")) {
        a.pointer = va_arg(*ap, const void*);
    } else if (d.is("cC")) {
        a.bits = va_arg(*ap, unsigned int) & (d.conversion == 'c' ? 0xFF : 0xFFFF);
    } else if (length == 'L') {
        a.longReal = va_arg(*ap, long double);
    } else {
        a.real = va_arg(*ap, double);
    }
    return a;
}

/// False if the system can't, as when the codeset lacks a character.
template <typename... Args>
bool addPrinted(std::string& text, const std::string& format, Args... args) {
    const int length = snprintf(nullptr, 0, format.c_str(), args...);
    if (length < 0)
        return false;
    std::string added(static_cast<size_t>(length), ' ');
    snprintf(&added[0], added.size() + 1, format.c_str(), args...);
    text += added;
    return true;
}

template <typename... Args>
std::string printed(const std::string& format, Args... args) {
    std::string text;
    addPrinted(text, format, args...);
    return text;
}

std::string integerText(Directive d, uint64_t value, int width, int precision) {
    d.drop('\'');
    width = std::max(width, 0);
    std::string prefix;
    if (d.conversion == 'p') {
        // Zeros up to the width, whatever the flags, and none of its own for null.
        value = static_cast<uintptr_t>(value);
        precision = !d.hasPrecision() ? 0 : precision < 0 ? 1 : precision;
        precision = std::max(precision, width - (value != 0 ? 2 : 0));
        return "0x" + printed("%.*llx", precision, value);
    }
    if (value == 0 && d.has('#')) {
        // The prefix of a 0 takes no place in the width.
        prefix = d.conversion == 'x' ? "0x" : d.conversion == 'X' ? "0X" : "";
        if (d.is("oxX"))
            d.drop('#');
    }
    const std::string text =
        printed("%" + d.flags + "*.*ll" + d.conversion, width, precision, value);
    const size_t blanks = d.has('-') ? 0 : std::min(text.find_first_not_of(' '), text.size());
    return text.substr(0, blanks) + prefix + text.substr(blanks);
}

/// The system's text of a %c, %s, %C or %S. False if the codeset lacks a character.
bool addCharacters(const Directive& d, const Argument& value, int width, int most,
                   std::string& text) {
    const std::string percent = d.has('-') ? "%-*" : "%*";
    if (d.is("%c")) {
        const int letter = d.conversion == '%' ? '%' : static_cast<char>(value.bits);
        return addPrinted(text, percent + "c", width, letter);
    }
    if (d.conversion == 'C') {
        const wint_t letter = static_cast<uint16_t>(value.bits);
        return addPrinted(text, percent + "lc", width, letter);
    }
    if (d.conversion == 's') {
        const char* const s = static_cast<const char*>(value.pointer);
        return addPrinted(text, percent + ".*s", width, most, s != nullptr ? s : "");
    }
    const uint16_t* w = static_cast<const uint16_t*>(value.pointer);
    std::wstring wide;
    while (w != nullptr && wide.size() < static_cast<size_t>(most) && *w != 0)
        wide += *w++;
    return addPrinted(text, percent + ".*ls", width, most, wide.c_str());
}

}  // namespace

FormatModel::FormatModel(const char* format, va_list ap) : good(false) {
    std::vector<Directive> directives(1);  // the last holds the tail
    for (const char* at = format; *at != '\0';) {
        if (*at != '%')
            directives.back().literalBefore += *at++;
        else if (!readDirective(at, directives.back()))
            return;
        else
            directives.emplace_back();
    }
    const std::string tail = directives.back().literalBefore;
    directives.pop_back();

    // Which directive says first what an argument is, and whether as a size.
    std::map<int64_t, std::pair<const Directive*, bool>> namers;
    std::set<int64_t> numbered;
    int64_t counter = 0;
    for (Directive& d : directives) {
        for (Part* part : {&d.width, &d.precision, &d.value}) {
            if (!part->isArgument)
                continue;
            if (part->isNumbered)
                numbered.insert(part->number);
            else
                part->number = counter + 1;
            counter = part->number;
        }
        for (const Part* part : {&d.value, &d.width, &d.precision}) {
            if (part->isArgument && (part != &d.value || d.conversion != '%'))
                namers.insert({part->number, {&d, part != &d.value}});
        }
    }
    if (!numbered.empty() && *numbered.rbegin() != static_cast<int64_t>(numbered.size()))
        return;
    std::map<int64_t, Argument> args;
    va_list copy;
    va_copy(copy, ap);
    for (const auto& [position, namer] : namers)
        args[position] = fetch(*namer.first, namer.second, &copy);
    va_end(copy);

    for (const Directive& d : directives) {
        text += d.literalBefore;
        const auto sizeOf = [&args](const Part& part) {
            return static_cast<int>(part.isArgument ? args[part.number].bits : part.number);
        };
        const int width = sizeOf(d.width), precision = sizeOf(d.precision);
        const Argument& value = args[d.value.number];
        if (d.is("eEfgG")) {
            const std::string conversion{d.conversion};
            // A negative width is the system's matter; without one there is none.
            const int column = d.width.isArgument ? width : std::max(width, 0);
            text += d.length == 'L' ? printed("%" + d.flags + "*.*L" + conversion, column,
                                              precision, value.longReal)
                                    : printed("%" + d.flags + "*.*" + conversion, column, precision,
                                              value.real);
        } else if (d.is("diuoxXp")) {
            text += integerText(d, value.bits, width, precision);
        } else {
            const size_t begin = text.size();
            if (!addCharacters(d, value, std::max(width, 0),
                               d.hasPrecision() ? std::max(precision, 0) : INT_MAX, text))
                return;
            for (size_t at = begin, n; d.conversion == 'S' && at < text.size(); at += n) {
                mbstate_t state = {};
                n = mbrlen(&text[at], text.size() - at, &state);
                for (size_t i = 1; i < n; ++i)
                    inside_.insert(at + i);
            }
        }
    }
    text += tail;
    good = true;
}

std::string FormatModel::cut(size_t available) const {
    size_t end = std::min(available, text.size());
    while (inside_.count(end) != 0)
        --end;
    return text.substr(0, end);
}

std::string formatFault(const char* format, va_list ap, size_t step) {
    const FormatModel model(format, ap);
    const std::string& whole = model.text;
    const int length = model.good ? static_cast<int>(whole.size()) : -1;
    const std::string about = std::string(": \"") + format + "\", expected \"" + whole + "\"";
    // Calls with a va_list leave it unusable.
    const auto with = [&ap](auto call, auto... front) {
        va_list copy;
        va_copy(copy, ap);
        const int result = call(front..., copy);
        va_end(copy);
        return result;
    };
    if (whole.size() > 500)
        step = whole.size() / 3 + 1;
    for (size_t size = 0, last = model.good ? whole.size() + 2 : 0;;
         size = std::min(size + step, last)) {
        std::string target(size + 8, '#');
        const int result = with(zvsnprintf, &target[0], static_cast<int>(size), format);
        std::string filled = size != 0 ? model.cut(size - 1) : "";
        const size_t nul = size != 0 ? std::min(size - 1, whole.size()) : 0;
        if (result != length || target.compare(0, filled.size(), filled) != 0 ||
            (size != 0 && (target[filled.size()] != '\0' || target[nul] != '\0')) ||
            target.find_first_not_of('#', size) != std::string::npos)
            return "into " + std::to_string(size) + " bytes" + about;
        if (size == last)
            break;
    }
    char untouched[] = "";
    for (const bool clears : {false, true}) {
        char* out = untouched;
        if (with(clears ? zvsprintf : zvasprintf, &out, format) != length)
            return "into a block" + about;
        if (model.good ? std::string(out, whole.size() + 1) != whole + '\0'
                       : out != (clears ? nullptr : untouched))
            return "block" + about;
        if (model.good)
            zasprintf_free(out);
    }
    return "";
}
