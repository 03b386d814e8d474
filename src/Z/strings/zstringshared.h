// zstringshared.h: what the string classes of both codesets do alike, for ZLCString.cpp and
// ZUTF8String.cpp. Never installed.
#ifndef Z_ZSTRINGSHARED_H
#define Z_ZSTRINGSHARED_H

/// The text of `string`, then that of `addend`, as `+=` adds it.
template <typename String, typename Addend>
inline String zsum(const String& string, const Addend& addend) {
    String sum(string);
    sum += addend;
    return sum;
}

/// At most `count` bytes of `string` from `start` on.
template <typename String>
inline String zpart(const String& string, unsigned int start, unsigned int count) {
    const unsigned int length = string.getLength();
    if (start > length)
        start = length;
    const unsigned int left = length - start;
    String part;
    part.append(string.getChars() + start, count < left ? count : left);
    return part;
}

#endif
