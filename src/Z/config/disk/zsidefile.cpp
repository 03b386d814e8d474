// Built with 64-bit file offsets and times on 32-bit machines too.
#include "zsidefile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "zstoremodes.h"

// ---------------------------------------------------------------- rules

// What is known of the text; one that isn't there will be the caller's.
static int statusOf(int text, struct stat& status) {
    if (text >= 0)
        return fstat(text, &status);
    status = {};
    status.st_uid = geteuid();
    return 0;
}

// 0, or why a file of this status isn't the side database of a text of that one.
static int refusal(const struct stat& side, const struct stat& text) {
    if (S_ISLNK(side.st_mode))
        return ELOOP;
    if (!S_ISREG(side.st_mode) || (side.st_dev == text.st_dev && side.st_ino == text.st_ino))
        return EINVAL;
    if (side.st_nlink > 1)
        return EMLINK;
    return side.st_uid == text.st_uid ? 0 : EPERM;
}

// ---------------------------------------------------------------- looking

ZSideFile::ZSideFile(const char* name, int text)
    : name_(name),
      text_(text),
      exists_(false),
      inode_(0),
      prepared_{nullptr, 0},
      inPlace_(false),
      written_(false),
      newInode_(0),
      isUnclear_(false) {}

ZSideFile::~ZSideFile() { discard(); }

ZFailure ZSideFile::failed(const char* call) const { return zfailed(call).of(name()); }

ZFailure ZSideFile::find() {
    if (placeIsKnown())
        return zdone;
    if (const ZFailure failure = place_.find(name()))
        return failure.as("fopen(w)").of(name());
    temporary_ = zbesideName(place_.name(), ".ztmp");
    return zdone;
}

ZFailure ZSideFile::examine(bool wanted) {
    if (const ZFailure failure = find())
        return wanted || (failure.error != ENOENT && failure.error != ENOTDIR) ? failure : zdone;
    struct stat side, text;
    if (statusOf(text_, text) != 0)
        return failed("stat()");
    exists_ = fstatat(place_.folder(), place_.name(), &side, AT_SYMLINK_NOFOLLOW) == 0;
    if (!exists_ && errno != ENOENT)
        return failed("stat()");
    if (!exists_)
        return !wanted || isOwnersPlace() ? zdone : ZFailure{"fopen(w)", EPERM, name()};
    inode_ = side.st_ino;
    return {"fopen(w)", refusal(side, text), name()};
}

// Whether the text's owner can be meant to have a new file in this folder.
bool ZSideFile::isOwnersPlace() const {
    struct stat folder, text;
    if (fstat(place_.folder(), &folder) != 0 || statusOf(text_, text) != 0)
        return false;
    const bool othersWrite = (text.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    if (!othersWrite &&
        (text.st_uid == 0 || text.st_uid == geteuid() || folder.st_uid == text.st_uid))
        return true;
    ZPlace own;
    struct stat ownFolder;
    return !own.find("", text_) && fstat(own.folder(), &ownFolder) == 0 &&
           ownFolder.st_dev == folder.st_dev && ownFolder.st_ino == folder.st_ino;
}

// Opens the one that was examined, and no other that has taken its place.
ZFailure ZSideFile::openExisting(int flags, ZOpenFile& file) const {
    struct stat side, text;
    file.reset(zopenFileAt(place_.folder(), place_.name(), flags | O_NOFOLLOW | O_NONBLOCK));
    const char* call = (flags & O_ACCMODE) == O_RDONLY ? "fopen(r)" : "fopen(w)";
    if (file.get() < 0)
        return failed(call);
    if (fstat(file.get(), &side) != 0 || statusOf(text_, text) != 0)
        return failed("stat()");
    return {call, side.st_ino != inode_ ? ESTALE : refusal(side, text), name()};
}

ZFailure ZSideFile::read(ZBytes& bytes) const {
    zassert(exists_);
    ZOpenFile file;
    if (const ZFailure failure = openExisting(O_RDONLY, file))
        return failure;
    return zreadWholeFile(file.get(), bytes).of(name());
}

// ---------------------------------------------------------------- room

ZFailure zsecureRoom(int descriptor, uint64_t oldSize, uint64_t newSize, bool mayLengthen) {
    if (newSize <= oldSize)
        return zdone;
    if (fallocate(descriptor, FALLOC_FL_KEEP_SIZE, static_cast<off_t>(oldSize),
                  static_cast<off_t>(newSize - oldSize)) == 0)
        return zdone;
    ZFailure failure = zfailed("fallocate()");
    if (failure.error != EOPNOTSUPP && failure.error != ENOSYS && failure.error != EINVAL)
        return failure;
    if (!mayLengthen)
        return zdone;
    static const char kZeros[4096] = {};
    failure = zdone;
    for (uint64_t at = oldSize; at < newSize && !failure;) {
        const size_t size =
            newSize - at < sizeof kZeros ? static_cast<size_t>(newSize - at) : sizeof kZeros;
        failure = zwriteAt(descriptor, {kZeros, size}, at);
        at += size;
    }
    // Some find out only when it comes to the disk.
    if (!failure)
        failure = zresultOf(fdatasync(descriptor), "fdatasync()");
    if (failure && ftruncate(descriptor, static_cast<off_t>(oldSize)) != 0)
        return zfailed("ftruncate()");
    return failure;
}

// ---------------------------------------------------------------- writing

ZFailure ZSideFile::clearLeft() {
    if (const ZFailure failure = find())
        return failure;
    if (unlinkat(place_.folder(), temporary_.getChars(), 0) == 0 || errno == ENOENT)
        return zdone;
    return failed("unlink()");
}

void ZSideFile::discard() {
    if (written_)
        unlinkat(place_.folder(), temporary_.getChars(), 0);
    written_ = false;
}

ZFailure ZSideFile::prepare(ZSpan bytes, int mode) {
    zassert(placeIsKnown() && text_ >= 0);
    prepared_ = bytes;
    inPlace_ = mode != ZPROP_STORE_SAFE && exists_;
    return (inPlace_ ? prepareExisting(mode) : prepareNew(mode)).of(name());
}

ZFailure ZSideFile::prepareExisting(int mode) {
    if (const ZFailure failure = openExisting(O_WRONLY, target_))
        return failure;
    // What the text gives now, as far as it is allowed; nobody gets at more by a failure.
    struct stat side, text;
    if (zcopyAccess(target_.get(), text_) && fstat(target_.get(), &side) == 0 &&
        fstat(text_, &text) == 0)
        fchmod(target_.get(), side.st_mode & text.st_mode & 07777);
    if (mode == ZPROP_STORE_PLAIN)
        return zdone;
    if (fstat(target_.get(), &side) != 0)
        return failed("stat()");
    return zsecureRoom(target_.get(), static_cast<uint64_t>(side.st_size), prepared_.size, true);
}

ZFailure ZSideFile::prepareNew(int mode) {
    if (const ZFailure failure = clearLeft())
        return failure.as("fopen(w)");
    target_.reset(zopenFileAt(place_.folder(), temporary_.getChars(), O_WRONLY | O_CREAT | O_EXCL,
                              S_IRUSR | S_IWUSR));
    if (target_.get() < 0)
        return failed("fopen(w)");
    written_ = true;
    struct stat made;
    newInode_ = fstat(target_.get(), &made) == 0 ? made.st_ino : 0;
    ZFailure failure = zcopyAccess(target_.get(), text_);
    if (!failure) {
        failure = zwriteToEnd(target_.get(), prepared_, 0);
        if (!failure && mode == ZPROP_STORE_SAFE)
            failure = zresultOf(fsync(target_.get()), "fsync()");
        failure = failure.orElse(target_.close());
        if (mode == ZPROP_STORE_PLAIN)
            return zdone;
    }
    if (failure)
        discard();
    return failure;
}

ZFailure ZSideFile::putBack(ZSpan old) {
    zassert(inPlace_);
    if (const ZFailure failure = openExisting(O_WRONLY, target_))
        return failure;
    return zwriteToEnd(target_.get(), old, 0).of(name());
}

ZFailure ZSideFile::takePlace(bool synced) {
    zassert(inPlace_ ? target_.get() >= 0 : written_);
    isUnclear_ = false;
    if (inPlace_) {
        ZFailure failure = zwriteToEnd(target_.get(), prepared_, 0);
        if (!failure && synced)
            failure = zresultOf(fsync(target_.get()), "fsync()");
        return failure.orElse(target_.close()).of(name());
    }
    if (renameat(place_.folder(), temporary_.getChars(), place_.folder(), place_.name()) != 0) {
        // What is told as failed may have been done.
        const ZFailure failure = failed("rename()");
        struct stat now;
        const bool isThere =
            fstatat(place_.folder(), place_.name(), &now, AT_SYMLINK_NOFOLLOW) == 0;
        isUnclear_ = !isThere && errno != ENOENT;
        if (!isThere || newInode_ == 0 || now.st_ino != newInode_)
            return failure;
    }
    written_ = false;
    return zdone;
}

ZFailure ZSideFile::remove() {
    isUnclear_ = false;
    if (!placeIsKnown() || unlinkat(place_.folder(), place_.name(), 0) == 0 || errno == ENOENT)
        return zdone;
    const ZFailure failure = failed("unlink()");
    struct stat left;
    if (fstatat(place_.folder(), place_.name(), &left, AT_SYMLINK_NOFOLLOW) == 0)
        return failure;
    isUnclear_ = errno != ENOENT;
    return isUnclear_ ? failure : zdone;
}

// ---------------------------------------------------------------- loading

ZFailure zreadSideFile(const char* name, int text, unsigned int badModes, ZBytes& bytes) {
    const auto failed = [name](int error) { return ZFailure{"mapFile()", error, name}; };
    // Asked ahead: to open a device may do something.
    struct stat named;
    if (lstat(name, &named) == 0 && !S_ISREG(named.st_mode))
        return failed(S_ISLNK(named.st_mode) ? ELOOP : S_ISDIR(named.st_mode) ? ENODEV : EINVAL);
    ZOpenFile file(zopenFile(name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK));
    if (file.get() < 0)
        return failed(errno == ENOENT ? EINVAL : errno);
    struct stat side, owner;
    if (fstat(file.get(), &side) != 0 || statusOf(text, owner) != 0)
        return failed(errno);
    if (S_ISDIR(side.st_mode))
        return failed(ENODEV);
    if (!S_ISREG(side.st_mode) || side.st_size == 0)
        return failed(EINVAL);
    if ((side.st_mode & badModes) != 0)
        return failed(EPERM);
    // The text itself as its own side database is bad data.
    const int error = refusal(side, owner);
    if (error != 0 && error != EINVAL)
        return failed(error);
    return failed(zreadWholeFile(file.get(), bytes).error);
}
