// ztextwalk.h: how walks over text step from character to character. Never installed.
#ifndef Z_ZTEXTWALK_H
#define Z_ZTEXTWALK_H

#include <cstdlib>

#include "zqelutil.h"

/// The way in which a walk over text of one codeset steps.
enum ztextstep {
    zstepUTF8 = 0,  // by characters; ASCII needs no service
    zstepBytes = 1  // by bytes; any other number: by characters of at most so many bytes
};

/// How walks over text of the local codeset step.
inline int zlocalTextStep() { return static_cast<int>(MB_CUR_MAX); }

/// Bytes of the character at `text`, which isn't the terminator and has `left` bytes; -1 if no valid
/// character stands there.
inline int zcharacterLength(int step, zcodeset_handle codeset, const char* text, size_t left) {
    if (step == zstepBytes || (step == zstepUTF8 && static_cast<unsigned char>(*text) < 0x80))
        return 1;
    return zmblen(codeset, text, left);
}

#endif
