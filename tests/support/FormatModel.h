// FormatModel.h: the formatter's rules a second time, each directive put into one of the system's.
#pragma once

#include <cstdarg>
#include <set>
#include <string>

/// What a format with its arguments should give.
struct FormatModel {
    bool good;         // else -1
    std::string text;  // the output

    FormatModel(const char* format, va_list ap);

    /// What a target holds that has room for so many bytes in front of its NUL.
    std::string cut(size_t available) const;

private:
    std::set<size_t> inside_;  // places in the text where no cut may be: within a character
};

/// "", or where the library differs from the model: in a target of `step` bytes, of two, three and
/// so on times as many until all fits (of a long text, some of these), or in a block of its own.
std::string formatFault(const char* format, va_list ap, size_t step);
