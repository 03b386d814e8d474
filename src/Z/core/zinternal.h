// zinternal.h: small helpers that several units share and no caller needs. Never installed.
#ifndef Z_ZINTERNAL_H
#define Z_ZINTERNAL_H

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "Z.h"
#include "zuncancelled.h"

/// Neither null nor empty.
inline bool zhasText(const char* s) { return s != nullptr && *s != '\0'; }

/// An address as a 32-bit hash: wider addresses have their upper half folded in.
inline unsigned int zaddressHash(const void* address) {
    const uint64_t value = reinterpret_cast<uintptr_t>(address);
    return static_cast<unsigned int>(value ^ (value >> 32));
}

/// -1, 0 or 1: the order of two whole addresses as unsigned numbers.
inline int zaddressCompare(const void* a, const void* b) {
    const uintptr_t left = reinterpret_cast<uintptr_t>(a);
    const uintptr_t right = reinterpret_cast<uintptr_t>(b);
    return left == right ? 0 : left < right ? -1 : 1;
}

/// Owns a stdio stream for a scope. Closing it ends the process's record locks on that file, so
/// the guard lives exactly as long as the lock has to.
class ZStreamGuard {
public:
    explicit ZStreamGuard(FILE* stream) : stream_(stream) {}
    ~ZStreamGuard() { close(); }  // for the way out after a failure, which is reported already
    ZStreamGuard(const ZStreamGuard&) = delete;
    ZStreamGuard& operator=(const ZStreamGuard&) = delete;

    FILE* get() const { return stream_; }

    /// Another stream in place of its own.
    void reset(FILE* stream) {
        close();
        stream_ = stream;
    }

    /// Hands the stream on.
    FILE* release() {
        FILE* stream = stream_;
        stream_ = nullptr;
        return stream;
    }

    /// Closes now. 0, or the errno of the failure. Again, or with a null stream: 0. No thread is
    /// cancelled in it.
    int close() {
        const ZUncancelled uncancelled;
        FILE* stream = release();
        return stream == nullptr || fclose(stream) == 0 ? 0 : errno;
    }

private:
    FILE* stream_;
};

/// As memcpy of a few bytes, of which names and values mostly are, without a call.
inline void zcopyFew(char* to, const char* from, size_t size) {
    const auto copyEnds = [&](auto piece) {
        auto last = piece;
        memcpy(&piece, from, sizeof piece);
        memcpy(&last, from + size - sizeof last, sizeof last);  // which may overlap
        memcpy(to, &piece, sizeof piece);
        memcpy(to + size - sizeof last, &last, sizeof last);
    };
    if (__builtin_expect(size - 8 <= 8, 1))
        copyEnds(uint64_t());
    else if (size > 16)
        memcpy(to, from, size);
    else if (size >= 4)
        copyEnds(uint32_t());
    else if (size >= 2)
        copyEnds(uint16_t());
    else if (size == 1)
        *to = *from;
}

/// As memcmp() == 0, in place for the lengths that most names have.
inline bool zsameBytes(const char* a, const char* b, size_t size) {
    if (__builtin_expect(size < 8 || size > 32, 0))
        return memcmp(a, b, size) == 0;
    const auto differAt = [a, b](size_t at) {
        uint64_t left, right;
        memcpy(&left, a + at, sizeof left);
        memcpy(&right, b + at, sizeof right);
        return left ^ right;
    };
    uint64_t differ = differAt(0) | differAt(size - 8);  // which may overlap
    if (size > 16)
        differ |= differAt(8) | differAt(size - 16);
    return differ == 0;
}

#endif
