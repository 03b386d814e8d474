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

// One that is there was left by somebody who was stopped: the file's lock is ours.
static ZFailure remove(const ZPlace& place, const char* name) {
    return unlinkat(place.folder(), name, 0) != 0 && errno != ENOENT ? zfailed("unlink()") : zdone;
}

static ZFailure writeNew(const ZPlace& place, const char* name, int model, ZSpan content) {
    if (const ZFailure failure = remove(place, name))
        return failure;
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

// Gives the new backup its name, and the others the next ones. The one that goes is kept until all
// have theirs, so that after a failure each gets its own name back; a single one is replaced in one
// step, which needs none of this.
static ZFailure moveOn(const ZPlace& place, const char* name, unsigned int count) {
    const ZLCString goes(zbesideName(place.name(), ".~old~"));
    const auto rename = [&](unsigned int from, unsigned int to) {
        const auto nameAt = [&](unsigned int at) {
            return at == 0 ? ZLCString(name) : at > count ? goes : nameOf(place, at);
        };
        const ZLCString before(nameAt(from)), now(nameAt(to));
        const int result =
            renameat(place.folder(), before.getChars(), place.folder(), now.getChars());
        return result != 0 && errno == ENOENT && from != 0 ? zdone : zresultOf(result, "rename()");
    };
    const unsigned int last = count > 1 ? count : 0;
    ZFailure failure = remove(place, goes.getChars());
    if (failure)
        return failure;
    unsigned int number = last;
    while (!(failure = rename(number, number + 1)) && number != 0)
        --number;
    if (!failure && count > 1)
        failure = remove(place, goes.getChars());
    // Where nothing stands, nothing was moved to.
    if (failure && count > 1)
        for (; number <= last; ++number)
            rename(number + 1, number).passOver();
    return failure;
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
