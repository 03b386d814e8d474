// zhash.h: hashes of bytes that take a few instructions and spread well. They are the library's own
// affair and may change, but for the one that callers are told. Never installed.
#ifndef Z_ZHASH_H
#define Z_ZHASH_H

#include <cstddef>
#include <cstdint>
#include <cstring>

/// The upper and lower half of a 128-bit product, folded: input bits reach all output bits.
inline uint64_t zfoldedProduct(uint64_t a, uint64_t b) {
#ifdef __SIZEOF_INT128__
    __extension__ typedef unsigned __int128 Wide;
    const Wide product = static_cast<Wide>(a) * b;
    return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
#else
    const uint64_t aLow = static_cast<uint32_t>(a), aHigh = a >> 32;
    const uint64_t bLow = static_cast<uint32_t>(b), bHigh = b >> 32;
    const uint64_t cross = aHigh * bLow + ((aLow * bLow) >> 32);
    const uint64_t middle = aLow * bHigh + static_cast<uint32_t>(cross);
    return (a * b) ^ (aHigh * bHigh + (cross >> 32) + (middle >> 32));
#endif
}

constexpr uint64_t kHashA = 0x9E3779B97F4A7C15u;
constexpr uint64_t kHashB = 0xD6E8FEB86659FD93u;

/// The hash of `size` bytes that are taken eight at a time by `map`, which changes each by itself
/// and leaves zero as it is.
template <typename Map>
__attribute__((always_inline)) inline uint64_t zhashOfMapped(const char* data, size_t size,
                                                             Map map) {
    const auto load = [&map](const char* from, auto value) {
        memcpy(&value, from, sizeof value);
        return map(static_cast<uint64_t>(value));
    };
    uint64_t hash = kHashA ^ size;
    // Two loads, which may overlap, reach all that is left.
    uint64_t first = 0, second = 0;
    // Most names have 8 to 16 bytes.
    if (__builtin_expect(size - 8 <= 8, 1)) {
        first = load(data, uint64_t());
        second = load(data + size - 8, uint64_t());
    } else if (size > 16) {
        const char* const last = data + size - 16;
        for (const char* at = data; at < last; at += 16)
            hash = zfoldedProduct(hash ^ load(at, uint64_t()), kHashB ^ load(at + 8, uint64_t()));
        first = load(last, uint64_t());
        second = load(last + 8, uint64_t());
    } else if (size >= 4) {
        first = load(data, uint32_t());
        second = load(data + size - 4, uint32_t());
    } else if (size > 0) {
        const unsigned char* bytes = reinterpret_cast<const unsigned char*>(data);
        first = map(bytes[0] | static_cast<uint64_t>(bytes[size / 2]) << 8 |
                    static_cast<uint64_t>(bytes[size - 1]) << 16);
    }
    return zfoldedProduct(hash ^ first, kHashB ^ second);
}

/// The hash of `size` bytes.
__attribute__((always_inline)) inline uint64_t zhashOf(const char* data, size_t size) {
    return zhashOfMapped(data, size, [](uint64_t eight) { return eight; });
}

/// ZObject::hash() of a text, which alone of these may not change.
inline uint32_t ztoldHash(const char* text) {
    uint32_t h = 5381;
    const auto takes = [&h](char c) {
        if (c == '\0')
            return false;
        h = (h * 33) ^ static_cast<unsigned char>(c);
        return true;
    };
    // Four at a time, for a hash is most of a look-up in a small map and of what is put into one.
    while (takes(text[0]) && takes(text[1]) && takes(text[2]) && takes(text[3]))
        text += 4;
    return h;
}

/// The hash of two things together, from theirs.
inline uint32_t zhashOfBoth(uint64_t outer, uint64_t inner) {
    return static_cast<uint32_t>(zfoldedProduct(outer ^ kHashA, inner ^ kHashB) >> 32);
}

/// As wide as indexes take it.
inline uint32_t znarrowHash(uint64_t hash) { return static_cast<uint32_t>(hash >> 32); }

/// The remainders of divisions by a number that stays: two multiplications where the machine has
/// wide ones.
class ZRemainder {
public:
    explicit ZRemainder(uint32_t divisor) : divisor_(divisor) {
#ifdef __SIZEOF_INT128__
        inverse_ = UINT64_MAX / divisor + 1;
#endif
    }
    uint32_t of(uint32_t value) const {
#ifdef __SIZEOF_INT128__
        __extension__ typedef unsigned __int128 Wide;
        return static_cast<uint32_t>(static_cast<Wide>(inverse_ * value) * divisor_ >> 64);
#else
        return value % divisor_;
#endif
    }

private:
    uint32_t divisor_;
#ifdef __SIZEOF_INT128__
    uint64_t inverse_;  // 1 / divisor in 64 bits behind the point, rounded up
#endif
};

#endif
