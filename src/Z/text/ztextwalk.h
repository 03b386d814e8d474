// ztextwalk.h: how walks over text step from character to character. Never installed.
#ifndef Z_ZTEXTWALK_H
#define Z_ZTEXTWALK_H

#include <cstdlib>

#include "qel/qel.h"
#include "zqelutil.h"

/// The way in which a walk over text of one codeset steps.
enum ztextstep {
    zstepASCII = 0,  // by characters; ASCII needs no service
    zstepBytes = 1   // by bytes; any other number: by characters of at most so many bytes
};

/// How walks over text of the local codeset step.
inline int zlocalTextStep() {
    const int most = static_cast<int>(qel_local_most());
    return most != zstepBytes && qel_begins_with_ascii(zgetLCSHandle()) ? zstepASCII : most;
}

/// Whether a character that begins with `byte`, which isn't the terminator, is that byte alone
/// without asking the codeset service.
inline bool zstepsByOne(int step, char byte) {
    return step == zstepBytes || (step == zstepASCII && static_cast<unsigned char>(byte) < 0x80);
}

#endif
