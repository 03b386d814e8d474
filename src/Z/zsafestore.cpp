// zsafestore.cpp: the order in which a store touches the disk.
//
// Checked: room for both files, then the text, then the side database.
//
// Safe
//   1. room for the text; the new side database complete under a name of its own
//   2. the journal, synced with its folder            a crash until here leaves the old content,
//   3. the text in place, the side database renamed   from here on the new one, by the journal
//   4. one sync of all that
//   5. the journal goes
//
// What fails in 3 or 4 is undone: the old text's bytes and the old side database are put back, and
// then the journal goes. Only if that fails too does the journal stay, and with it the new content.
//
// Built with 64-bit file offsets and times on 32-bit machines too.
#include "zsafestore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "zwholefile.h"

namespace {

// The call that failed, and how.
struct Failure {
    const char* call;
    int error;

    explicit operator bool() const { return error != 0; }
};

const Failure kNone = {"", 0};

Failure failed(const char* call) { return {call, errno}; }

}  // namespace

// Makes sure of the disk's blocks for a text that grows. Its length stays, so that nobody sees it.
static Failure secureRoom(int descriptor, uint64_t oldSize, uint64_t newSize) {
    if (newSize <= oldSize)
        return kNone;
    if (fallocate(descriptor, FALLOC_FL_KEEP_SIZE, static_cast<off_t>(oldSize),
                  static_cast<off_t>(newSize - oldSize)) == 0)
        return kNone;
    // Not every file system can.
    const bool cannot = errno == EOPNOTSUPP || errno == ENOSYS || errno == EINVAL;
    return cannot ? kNone : failed("fallocate()");
}

// Puts `text` in place of a text of `oldSize` bytes, of which those before `from` are the same.
static Failure overwrite(int descriptor, ZSpan text, size_t from, uint64_t oldSize) {
    const int error = zwriteAt(descriptor, text.data + from, text.size - from, from);
    if (error != 0)
        return {"write()", error};
    if (text.size < oldSize && ftruncate(descriptor, static_cast<off_t>(text.size)) != 0)
        return failed("ftruncate()");
    return kNone;
}

static Failure removeSide(const char* name) {
    return unlink(name) == 0 || errno == ENOENT ? kNone : failed("unlink()");
}

// ---------------------------------------------------------------- in place

namespace {

// Removes a file that it had to make, unless it is kept.
class NewFile {
public:
    explicit NewFile(const char* name) : name_(name), made_(false) {}
    ~NewFile() {
        if (made_)
            unlink(name_);
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    int open() {
        int descriptor = ::open(name_, O_WRONLY | O_CLOEXEC);
        if (descriptor >= 0 || errno != ENOENT)
            return descriptor;
        descriptor = ::open(name_, O_WRONLY | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
        made_ = descriptor >= 0;
        return descriptor;
    }
    void keep() { made_ = false; }

private:
    const char* name_;
    bool made_;
};

}  // namespace

void zstoreInPlace(const ZStoreWork& work, bool checked) {
    const char* sideName = work.sideName.getChars();
    const auto check = [checked](const char* path, const Failure& failure) {
        if (checked && failure)
            Z_RAISE_IO(path, failure.call, failure.error);
    };
    const bool hasSide = work.sideAction == zsideReplaced;
    NewFile made(sideName);
    // A new side database is its owner's alone until it has the text's access.
    ZOpenFile side(hasSide ? made.open() : -1);
    uint64_t oldSide = 0;
    if (hasSide) {
        struct stat status;
        if (side.get() < 0 || fstat(side.get(), &status) != 0)
            Z_RAISE_IO(sideName, "fopen(w)", errno);
        oldSide = static_cast<uint64_t>(status.st_size);
        check(sideName, secureRoom(side.get(), oldSide, work.side.size));
    }
    check(work.path, secureRoom(work.descriptor, work.oldSize, work.text.size));
    made.keep();

    check(work.path, overwrite(work.descriptor, work.text, 0, work.oldSize));
    if (hasSide) {
        const Failure failure = overwrite(side.get(), work.side, 0, oldSide);
        zcopyAccess(side.get(), work.descriptor);
        const int error = side.close();
        check(sideName, failure ? failure : Failure{"close()", error});
    } else if (work.sideAction == zsideRemoved) {
        check(sideName, removeSide(sideName));
    }
}

// ---------------------------------------------------------------- safe

namespace {

// A side database that is complete under another name and takes its place by a rename.
class SideReplacement {
public:
    explicit SideReplacement(const ZLCString& name) : name_(name), temporary_(name) {
        temporary_.append(".ztmp");
    }
    ~SideReplacement() { discard(); }
    SideReplacement(const SideReplacement&) = delete;
    SideReplacement& operator=(const SideReplacement&) = delete;

    Failure write(ZSpan bytes, int model) {
        if (unlink(temporary_.getChars()) != 0 && errno != ENOENT)
            return failed("unlink()");
        ZOpenFile file(open(temporary_.getChars(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC,
                            S_IRUSR | S_IWUSR));
        if (file.get() < 0)
            return failed("fopen(w)");
        written_ = true;
        int error = zwriteAt(file.get(), bytes.data, bytes.size, 0);
        if (error != 0)
            return {"write()", error};
        zcopyAccess(file.get(), model);
        error = file.close();
        return error == 0 ? kNone : Failure{"close()", error};
    }
    Failure takePlace() {
        if (rename(temporary_.getChars(), name_.getChars()) != 0)
            return failed("rename()");
        written_ = false;
        return kNone;
    }

private:
    void discard() {
        if (written_)
            unlink(temporary_.getChars());
    }

    const ZLCString name_;
    ZLCString temporary_;
    bool written_ = false;
};

// What the side database held before the store.
struct OldSide {
    bool exists = false;
    ZBytes bytes;

    Failure read(const ZLCString& name) {
        ZOpenFile file(open(name.getChars(), O_RDONLY | O_CLOEXEC));
        if (file.get() < 0)
            return errno == ENOENT ? kNone : failed("fopen(r)");
        exists = true;
        const int error = zreadWholeFile(file.get(), bytes);
        return error == 0 ? kNone : Failure{"read()", error};
    }
    bool equals(ZSpan other) const {
        return exists && bytes.size() == other.size &&
               (other.size == 0 || memcmp(bytes.data(), other.data, other.size) == 0);
    }
};

}  // namespace

// One sync for the text, and where the side database has changed, for that and its folder too.
static Failure syncAll(int descriptor, ZSideAction action, const ZLCString& sideName) {
    if (action == zsideUntouched)
        return fsync(descriptor) == 0 ? kNone : failed("fsync()");
    if (syncfs(descriptor) != 0)
        return failed("syncfs()");
    struct stat text, side;
    if (action == zsideRemoved || fstat(descriptor, &text) != 0 ||
        stat(sideName.getChars(), &side) != 0 || text.st_dev == side.st_dev)
        return kNone;
    // On another file system.
    ZOpenFile file(open(sideName.getChars(), O_RDONLY | O_CLOEXEC));
    return file.get() >= 0 && syncfs(file.get()) == 0 ? kNone : failed("syncfs()");
}

// Steps 3 and 4. `sideChanged` tells whether the side database is the new one.
static Failure putInPlace(const ZStoreWork& work, size_t from, SideReplacement& side,
                          bool& sideChanged) {
    sideChanged = false;
    Failure failure = overwrite(work.descriptor, work.text, from, work.oldSize);
    if (!failure && work.sideAction != zsideUntouched) {
        failure = work.sideAction == zsideReplaced ? side.takePlace()
                                                   : removeSide(work.sideName.getChars());
        sideChanged = !failure;
    }
    return failure ? failure : syncAll(work.descriptor, work.sideAction, work.sideName);
}

// The old content again, from wherever steps 3 and 4 got to. A side database that is the old one still
// is left alone, since a full disk has no room for another.
static Failure undo(const ZStoreWork& work, size_t from, const OldSide& oldSide, bool sideChanged) {
    const uint64_t longest =
        work.text.size > work.oldText.size ? work.text.size : work.oldText.size;
    Failure failure = overwrite(work.descriptor, work.oldText, from, longest);
    if (!failure && sideChanged) {
        SideReplacement side(work.sideName);
        if (!oldSide.exists)
            failure = removeSide(work.sideName.getChars());
        else if (!(failure =
                       side.write({oldSide.bytes.data(), oldSide.bytes.size()}, work.descriptor)))
            failure = side.takePlace();
    }
    return failure ? failure : syncAll(work.descriptor, work.sideAction, work.sideName);
}

void zstoreSafely(const ZStoreWork& given, ZJournal& journal) {
    ZStoreWork work = given;
    struct stat status;
    if (fstat(work.descriptor, &status) != 0)
        Z_RAISE_IO(work.path, "stat()", errno);
    // A crash would be mended under one of the names only.
    if (status.st_nlink > 1)
        Z_RAISE_IO(work.path, "link()", EMLINK);

    OldSide oldSide;
    if (work.sideAction != zsideUntouched) {
        if (const Failure failure = oldSide.read(work.sideName))
            Z_RAISE_IO(work.sideName.getChars(), failure.call, failure.error);
        const bool same =
            work.sideAction == zsideRemoved ? !oldSide.exists : oldSide.equals(work.side);
        if (same)
            work.sideAction = zsideUntouched;
    }
    const size_t from = zfirstDifference(work.text, work.oldText);
    const bool sameText = from == work.text.size && from == work.oldText.size;
    if (sameText && work.sideAction == zsideUntouched) {
        journal.remove();  // a stale one
        return;
    }

    if (const Failure failure = secureRoom(work.descriptor, work.oldSize, work.text.size))
        Z_RAISE_IO(work.path, failure.call, failure.error);
    SideReplacement side(work.sideName);
    if (work.sideAction == zsideReplaced)
        if (const Failure failure = side.write(work.side, work.descriptor))
            Z_RAISE_IO(work.sideName.getChars(), failure.call, failure.error);
    static const ZSpan kNothing = {"", 0};
    journal.write(work.descriptor, work.text, work.oldText, work.sideAction, work.sideName,
                  work.sideAction == zsideReplaced ? work.side : kNothing);
    bool sideChanged;
    Failure failure = putInPlace(work, from, side, sideChanged);
    if (failure) {
        if (!undo(work, from, oldSide, sideChanged))
            journal.remove();
        Z_RAISE_IO(work.path, failure.call, failure.error);
    }
    const int error = journal.remove();
    if (error != 0)
        Z_RAISE_IO(journal.name(), "unlink()", error);
}

void zfinishJournal(int descriptor, ZJournal& journal) {
    ZBytes file;
    const int error = zreadWholeFile(descriptor, file);
    if (error != 0)
        Z_RAISE_IO(journal.target(), "read()", error);
    ZStoreWork work = {
        descriptor,  journal.target(),     journal.text(),     {file.data(), file.size()},
        file.size(), journal.sideAction(), journal.sideName(), journal.side()};
    SideReplacement side(work.sideName);
    Failure failure = kNone;
    bool sideChanged;
    if (work.sideAction == zsideReplaced)
        failure = side.write(work.side, descriptor);
    if (!failure)
        failure = putInPlace(work, zfirstDifference(work.text, work.oldText), side, sideChanged);
    if (failure)
        Z_RAISE_IO(work.path, failure.call, failure.error);
    const int left = journal.remove();
    if (left != 0)
        Z_RAISE_IO(journal.name(), "unlink()", left);
}
