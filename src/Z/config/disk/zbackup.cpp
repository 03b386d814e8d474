// Built with 64-bit file offsets and times on 32-bit machines too.
#include "zbackup.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

static ZLCString nameOf(const ZPlace& place, unsigned int number) {
    char suffix[24];
    snprintf(suffix, sizeof suffix, ".~%u~", number);
    return zbesideName(place.name(), suffix);
}

// Whether the newest backup holds this. What can't be read is another thing.
static bool isNewest(const ZPlace& place, ZSpan content) {
    ZOpenFile newest(zopenFileAt(place.folder(), nameOf(place, 1).getChars(),
                                 O_RDONLY | O_NOFOLLOW | O_NONBLOCK));
    struct stat status;
    ZBytes bytes;
    return newest.get() >= 0 && fstat(newest.get(), &status) == 0 && S_ISREG(status.st_mode) &&
           static_cast<uint64_t>(status.st_size) == content.size &&
           !zreadWholeFile(newest.get(), bytes) && zequals(zspanOf(bytes), content);
}

static ZFailure writeNew(const ZPlace& place, const char* name, int model, ZSpan content) {
    // One that is there was left by somebody who was stopped: the file's lock is ours.
    if (unlinkat(place.folder(), name, 0) != 0 && errno != ENOENT)
        return zfailed("unlink()");
    ZOpenFile file(zopenFileAt(place.folder(), name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW,
                               S_IRUSR | S_IWUSR));
    if (file.get() < 0)
        return zfailed("fopen(w)");
    // The caller alone may read it where this fails.
    zcopyAccess(file.get(), model).passOver();
    ZFailure failure = zwriteToEnd(file.get(), content, 0);
    if (!failure)
        failure = zresultOf(fsync(file.get()), "fsync()");
    return failure.orElse(file.close());
}

static ZFailure moveOn(const ZPlace& place, const char* name, unsigned int count) {
    for (unsigned int number = count; number-- > 1;)
        if (renameat(place.folder(), nameOf(place, number).getChars(), place.folder(),
                     nameOf(place, number + 1).getChars()) != 0 &&
            errno != ENOENT)
            return zfailed("rename()");
    return zresultOf(renameat(place.folder(), name, place.folder(), nameOf(place, 1).getChars()),
                     "rename()");
}

ZFailure zkeepBackup(const char* path, int descriptor, ZSpan content, unsigned int count) {
    ZPlace place;
    if (const ZFailure failure = place.find(path, descriptor))
        return failure.of(path);
    if (isNewest(place, content))
        return zdone;
    const ZLCString name(zbesideName(place.name(), ".~new~"));
    ZFailure failure = writeNew(place, name.getChars(), descriptor, content);
    if (!failure)
        failure = moveOn(place, name.getChars(), count);
    if (failure) {
        unlinkat(place.folder(), name.getChars(), 0);
        return failure.of(path);
    }
    // A folder that may not be read can't be asked to.
    place.sync().passOver();
    return zdone;
}
