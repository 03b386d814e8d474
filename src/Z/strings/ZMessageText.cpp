// ZMessageText.cpp: plain messages of the default service, whose inserts are strings.
#include <cstdio>

#include "ZMessage.h"
#include "ZString.h"
#include "zreportformats.h"

static const int kMostInserts = 6;

int ZDefaultMessageService::outputMessage(const char* file, int line, int number, int insertCount,
                                          const ZLCString* s1, const ZLCString* s2,
                                          const ZLCString* s3, const ZLCString* s4,
                                          const ZLCString* s5, const ZLCString* s6) const {
    fprintf(stderr, "Error: %d\n File: \"%s\" %d\n", number, file == nullptr ? "" : file, line);
    zprintThreadLine();
    if (insertCount < 1)
        return 0;
    fputs("Additional Information:\n", stderr);
    const ZLCString* const inserts[kMostInserts] = {s1, s2, s3, s4, s5, s6};
    for (int i = 0; i < insertCount && i < kMostInserts; ++i)
        fprintf(stderr, "%s\n", inserts[i] == nullptr ? "" : inserts[i]->getChars());
    return 0;
}

int ZDefaultMessageService::outputMessageUTF8(const char* file, int line, int number,
                                              int insertCount, const ZUTF8String* s1,
                                              const ZUTF8String* s2, const ZUTF8String* s3,
                                              const ZUTF8String* s4, const ZUTF8String* s5,
                                              const ZUTF8String* s6) const {
    const ZUTF8String* const inserts[kMostInserts] = {s1, s2, s3, s4, s5, s6};
    ZLCString local[kMostInserts];
    for (int i = 0; i < insertCount && i < kMostInserts; ++i)
        if (inserts[i] != nullptr)
            local[i] = *inserts[i];
    return outputMessage(file, line, number, insertCount, &local[0], &local[1], &local[2],
                         &local[3], &local[4], &local[5]);
}
