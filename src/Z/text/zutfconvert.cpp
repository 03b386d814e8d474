#include "zutfconvert.h"

static const int kDone = 0;
static const int kTargetFull = 2;

static bool isHighSurrogate(unsigned int unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
static bool isLowSurrogate(unsigned int unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

int zconvert_UTF16_to_UTF8(const unsigned short** src, const unsigned short* srcEnd,
                           unsigned char** dst, unsigned char* dstEnd) {
    while (*src < srcEnd) {
        const unsigned short* in = *src;
        uint32_t point = *in++;
        if (isHighSurrogate(point) && in < srcEnd && isLowSurrogate(*in))
            point = 0x10000 + ((point - 0xD800) << 10) + (*in++ - 0xDC00u);

        const int length = point <= 0x7F ? 1 : point <= 0x7FF ? 2 : point <= 0xFFFF ? 3 : 4;
        if (dstEnd - *dst < length)
            return kTargetFull;
        static const unsigned char kLead[] = {0, 0x00, 0xC0, 0xE0, 0xF0};
        for (int i = length - 1; i > 0; --i, point >>= 6)
            (*dst)[i] = static_cast<unsigned char>(0x80 | (point & 0x3F));
        **dst = static_cast<unsigned char>(kLead[length] | point);
        *dst += length;
        *src = in;
    }
    return kDone;
}
