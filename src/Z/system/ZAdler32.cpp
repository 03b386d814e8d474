#include "ZAdler32.h"

#include <zlib.h>

unsigned long ZAdler32::adler32(unsigned long adler, const unsigned char* buffer,
                                unsigned int length) {
    if (buffer == nullptr)
        return 1;
    return length == 0 ? adler : ::adler32(adler, buffer, length);
}
