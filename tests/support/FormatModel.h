// FormatModel.h: the formatter's rules a second time, as plainly as can be.
#ifndef TESTS_SUPPORT_FORMATMODEL_H
#define TESTS_SUPPORT_FORMATMODEL_H

#include <cstdarg>
#include <string>
#include <vector>

/// What a format with its arguments should give.
struct FormatModel {
    bool good = true;                // else -1
    std::vector<std::string> atoms;  // the output, in pieces that no cut may split

    FormatModel(const char* format, va_list ap);

    std::string output() const;
    /// What a target holds that has room for so many bytes in front of its NUL.
    std::string cut(size_t available) const;
};

#endif
