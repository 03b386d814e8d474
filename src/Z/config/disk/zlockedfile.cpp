// Built with 64-bit file offsets and times on 32-bit machines too.
#include "zlockedfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#if __has_include(<sys/single_threaded.h>)
#include <sys/single_threaded.h>
#define ZBASE_SINGLE_THREADED (__libc_single_threaded != 0)
#else
#define ZBASE_SINGLE_THREADED false
#endif

#include <cerrno>

// ---------------------------------------------------------------- streams

void ZLockedStream::take(FILE* opened, const char* word, const char* path, short type,
                         const ZLockTerms& terms) {
    if (opened == nullptr)
        zraiseIO(path, word, errno);
    stream_.reset(opened);
    owner_ = terms.owner;
    room_.lendTo(opened);
    zcheckIO(zlockWholeFile(descriptor(), type, terms.owner, terms.wait).of(path));
}

int ZLockedStream::close() {
    if (stream_.get() == nullptr)
        return 0;
    const ZSharedUnlock unlocked(descriptor(), owner_, forks_);
    return stream_.close();
}

FILE* zstreamOn(int descriptor, const char* mode) {
    const ZUncancelled uncancelled;
    FILE* stream = descriptor < 0 ? nullptr : fdopen(descriptor, mode);
    if (stream == nullptr && descriptor >= 0) {
        const int error = errno;
        ::close(descriptor);
        errno = error;
    }
    return stream;
}

static int openOnce(const char* path, bool onlyRegular, int flags) {
    if (onlyRegular)
        return zopenRegularFile(path, flags);
    // Who is alone can't be cancelled while he waits; and at a regular file nobody waits.
    struct stat status;
    if (ZBASE_SINGLE_THREADED || (stat(path, &status) == 0 && S_ISREG(status.st_mode)))
        return zopenFile(path, flags);
    return ::open(path, flags | O_CLOEXEC);
}

int zopenToRead(const char* path, bool onlyRegular, bool& isDirect) {
    // Most paths end in no link, and then nobody has to ask.
    int descriptor = openOnce(path, onlyRegular, O_RDONLY | O_NOFOLLOW);
    isDirect = descriptor >= 0 || errno != ELOOP;
    if (!isDirect)
        descriptor = openOnce(path, onlyRegular, O_RDONLY);
    return descriptor;
}

// ---------------------------------------------------------------- descriptors

ZLockedFile::ZLockedFile(const char* path, int folder, const ZLockTerms& terms, bool mayCreate)
    : path_(path), folder_(folder), lock_(file_, terms.owner), created_(false) {
    for (;;) {
        open(mayCreate);
        ZFailure failure = zlockWholeFile(descriptor(), F_WRLCK, terms.owner, terms.wait);
        if (failure) {
            // An empty file that somebody else has locked meanwhile is his.
            if (!failure.isLockedByOthers())
                forgetCreated();
            finish().passOver();
            zcheckIO(failure.of(path));
        }
        ZFileStamp open = {}, named = {};
        failure = zstampFile(descriptor(), open);
        if (!failure)
            failure = stampNamed(named);
        if (!failure && zsameFile(open, named))
            return;
        const bool isLost = failure && failure.error != ENOENT;
        if (isLost)
            forgetCreated();
        finish().passOver();
        if (isLost)
            zcheckIO(failure.of(path));
    }
}

int ZLockedFile::openBy(int flags, unsigned int mode) const {
    const char* path = path_.getChars();
    return folder_.get() < 0 ? zopenRegularFile(path, O_RDWR | flags, mode)
                             : zopenRegularFileAt(folder_.get(), znameOf(path),
                                                  O_RDWR | O_NOFOLLOW | flags, mode);
}

ZFailure ZLockedFile::stampNamed(ZFileStamp& stamp) const {
    if (folder_.get() < 0)
        return zstampFile(path_.getChars(), stamp);
    struct stat status;
    if (fstatat(folder_.get(), znameOf(path_.getChars()), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return zfailed("stat()");
    zstampOf(status, stamp);
    return zdone;
}

void ZLockedFile::open(bool mayCreate) {
    created_ = false;
    file_.reset(openBy(0));
    if (descriptor() < 0 && errno == ENOENT && mayCreate) {
        // Nobody has to ask what it is: between the making and the answer it would be lost.
        static const int kMade = O_RDWR | O_CREAT | O_EXCL;
        file_.reset(folder_.get() < 0
                        ? zopenFile(path_.getChars(), kMade, 0666)
                        : zopenFileAt(folder_.get(), znameOf(path_.getChars()), kMade, 0666));
        created_ = descriptor() >= 0;
        // Somebody was faster, or the path is a link that leads nowhere yet.
        if (descriptor() < 0 && errno == EEXIST)
            file_.reset(openBy(O_CREAT, 0666));
    }
    if (descriptor() < 0)
        zraiseIO(path_.getChars(), "fopen(r+)", errno);
}

// What was made here goes, if it is empty still, and what the path leads to.
void ZLockedFile::forgetCreated() {
    ZPlace place;
    ZFileStamp stamp;
    if (created_ && !zstampFile(descriptor(), stamp) && stamp.size == 0 &&
        !place.find(path_.getChars(), descriptor()))
        unlinkat(place.folder(), place.name(), 0);
    created_ = false;
}

ZLockedFile::~ZLockedFile() {
    if (descriptor() >= 0)
        forgetCreated();
    finish().passOver();
}

ZFailure ZLockedFile::finish() { return lock_.close().of(path_.getChars()); }
