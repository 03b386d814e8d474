// FileState.h: locks of others, descriptors that are open, and what a refusal by the system tells.
#ifndef TESTS_SUPPORT_FILESTATE_H
#define TESTS_SUPPORT_FILESTATE_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "Z/ZExceptionText.h"

/// "call errno file", as an I/O failure tells it.
inline std::string ioFailure(const std::string& call, int error, const std::string& file) {
    return call + " " + std::to_string(error) + " " + file;
}

/// What the I/O failure of a call told, or "" if there was none.
template <typename Call>
std::string failureOf(Call call) {
    try {
        call();
    } catch (ZPropertiesIOException& e) {
        return ioFailure(e.api(), e.excerrno(), e.propFile());
    }
    return "";
}

/// A record lock on a file as another process would hold it: it belongs to its descriptor.
class Locked {
public:
    Locked(const std::string& file, short type) : descriptor_(open(file.c_str(), O_RDWR)) {
        struct flock whole = {};
        whole.l_type = type;
        EXPECT_EQ(fcntl(descriptor_, F_OFD_SETLK, &whole), 0);
    }
    ~Locked() { close(descriptor_); }

private:
    const int descriptor_;
};

inline int openDescriptors() {
    int count = 0;
    for (int descriptor = 0; descriptor < 256; ++descriptor)
        count += fcntl(descriptor, F_GETFD) != -1;
    return count;
}

#endif
