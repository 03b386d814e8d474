// zsafestore.cpp: the order in which a store touches the disk.
//
//   1. room for the text
//   2. safe: the journal, synced with its folder       a crash until here leaves the old content,
//   3. the new side database under a name of its own   from the first byte of 4 on the new one,
//   4. the text in place; safe: synced                 by the journal
//   5. the side database moved, or removed; safe: its folder synced
//   6. the journal goes
//
// The text is on the disk before the side database changes: so a file that holds all of the old
// text has the old side database, and a journal need not count for it. Three syncs where the text
// alone changes.
// A mixture may be on the disk meanwhile: of old and new bytes, and where the text gets shorter, of
// zeros behind its new end, since the page at that end is cleared. The journal knows all of these.
//
// What fails up to the move in 5 is undone: the old bytes are put back, and then the journal goes.
// Only if that fails too does the journal stay, and with it the new content. What fails behind it
// leaves the new content, and the journal, which the next store finishes.
//
// Checked stores take the same way without journal and syncs, and write a side database that exists
// in place: then the undoing is all there is.
//
// Built with 64-bit file offsets and times on 32-bit machines too.
#include "zsafestore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "ZSCFData.h"
#include "zraise.h"
#include "zsidefile.h"

// Puts `text` in place of a text of `oldSize` bytes, of which those before `from` are the same.
static ZFailure overwrite(int descriptor, ZSpan text, size_t from, uint64_t oldSize) {
    const int error = zwriteAt(descriptor, text.data + from, text.size - from, from);
    if (error != 0)
        return {"write()", error};
    if (text.size < oldSize && ftruncate(descriptor, static_cast<off_t>(text.size)) != 0)
        return zfailed("ftruncate()");
    return zdone;
}

namespace {

// A store that looks at its results.
class Store {
public:
    Store(const ZStoreWork& work, ZJournal& journal, int mode)
        : work_(work),
          journal_(journal),
          isSafe_(mode == ZPROP_STORE_SAFE),
          textChanges_(!zequals(work.text, work.oldText)),
          from_(zfirstDifference(work.text, work.oldText)),
          action_(work.sideAction),
          isBegun_(false) {}
    ~Store() {
        // Room that was made by zeros behind the text's end.
        if (!isBegun_ && !isSafe_ && work_.text.size > work_.oldText.size)
            takeRoomBack();
    }

    /// What the side database is now, and whether it may be written to.
    void examineSide() {
        if (action_ == zsideUntouched) {
            // A store that was stopped may have begun to make one.
            ZSideFile(work_.sideName.getChars(), work_.descriptor).clearLeft();
            return;
        }
        side_.reset(new ZSideFile(work_.sideName.getChars(), work_.descriptor));
        zcheckIO(side_->name(), side_->examine(action_ == zsideReplaced));
        if (action_ == zsideRemoved && !side_->exists()) {
            action_ = zsideUntouched;
            return;
        }
        zcheckIO(side_->name(), side_->clearLeft());
        if (isSafe_)
            zcheckIO(side_->name(), side_->checkFolder());
        if (side_->exists())
            zcheckIO(side_->name(), side_->read(oldBytes_));
        const bool isSame = action_ == zsideRemoved
                                ? !side_->exists()
                                : side_->exists() && zequals(oldSide(), work_.side);
        if (isSame)
            action_ = zsideUntouched;
    }

    bool hasNothingToDo() const { return action_ == zsideUntouched && !textChanges_; }

    void secureText() {
        zcheckIO(work_.path,
                 zsecureRoom(work_.descriptor, work_.oldText.size, work_.text.size, !isSafe_));
    }

    /// False if the journal can't have the file's access.
    bool writeJournal() {
        // What somebody else has written to the file without a sync goes to the disk ahead of the
        // journal, or a crash could leave an older text still.
        const unsigned int flags =
            SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
        if (sync_file_range(work_.descriptor, 0, 0, flags) != 0 &&
            (errno == EIO || errno == ENOSPC || errno == EDQUOT))
            zraiseIO(work_.path, "sync_file_range()", errno);
        static const ZSpan kNothing = {"", 0};
        return journal_.write(work_.text, work_.oldText, action_,
                              action_ == zsideReplaced ? work_.side : kNothing);
    }

    void prepareSide() {
        if (action_ != zsideReplaced)
            return;
        const ZFailure failure =
            side_->prepare(work_.side, isSafe_ ? ZPROP_STORE_SAFE : ZPROP_STORE_CHECKED);
        if (!failure)
            return;
        if (isSafe_)
            journal_.remove();
        zcheckIO(side_->name(), failure);
    }

    void putInPlace() {
        isBegun_ = true;
        if (const ZFailure failure = placeText())
            giveUp(work_.path, failure);
        if (action_ == zsideReplaced) {
            const ZFailure failure = side_->takePlace();
            // To be finished by the journal, whether it was moved or not.
            if (failure && isSafe_ && side_->isUnclear())
                zcheckIO(side_->name(), failure);
            if (failure)
                giveUp(side_->name(), failure);
        } else if (action_ == zsideRemoved) {
            const ZFailure failure = side_->remove();
            if (failure && side_->isUnclear())
                zcheckIO(side_->name(), failure);
            if (failure)
                giveUp(side_->name(), failure);
        }
        if (isSafe_ && action_ != zsideUntouched)
            zcheckIO(side_->name(), side_->syncFolder());
    }

private:
    ZSpan oldSide() const { return {oldBytes_.data(), oldBytes_.size()}; }

    void takeRoomBack() {
        struct stat status;
        const off_t size = static_cast<off_t>(work_.oldText.size);
        if (fstat(work_.descriptor, &status) == 0 && status.st_size > size)
            overwrite(work_.descriptor, work_.oldText, work_.oldText.size, UINT64_MAX);
    }

    ZFailure placeText() {
        if (!textChanges_)
            return zdone;
        ZFailure failure = overwrite(work_.descriptor, work_.text, from_, work_.oldText.size);
        if (failure || !isSafe_)
            return failure;
        failure = journal_.mark(ZJournal::placed);
        if (!failure && fsync(work_.descriptor) != 0)
            failure = zfailed("fsync()");
        return failure ? failure : journal_.mark(ZJournal::onDisk);
    }

    ZFailure undo() {
        // From here on the file is modified behind the mark, by us.
        if (isSafe_) {
            ZFailure failure = journal_.mark(ZJournal::underWay);
            if (!failure)
                failure = journal_.sync();
            if (failure)
                return failure;
        }
        ZFailure failure = overwrite(work_.descriptor, work_.oldText, from_, UINT64_MAX);
        if (!failure && isSafe_ && fsync(work_.descriptor) != 0)
            failure = zfailed("fsync()");
        if (side_ != nullptr && side_->isWrittenInPlace()) {
            const ZFailure ofSide = side_->putBack(oldSide());
            failure = failure ? failure : ofSide;
        }
        return failure;
    }

    [[noreturn]] void giveUp(const char* path, const ZFailure& failure) {
        if (!undo() && isSafe_)
            journal_.remove();
        ZPropertiesIOException raised(path, failure.call, failure.error);
        zraise(raised);
    }

    const ZStoreWork& work_;
    ZJournal& journal_;
    const bool isSafe_;
    const bool textChanges_;
    const size_t from_;
    ZSideAction action_;
    std::unique_ptr<ZSideFile> side_;
    ZBytes oldBytes_;  // of the side database
    bool isBegun_;     // bytes of the old text may be gone
};

}  // namespace

// Whose file it is, that is looked at. What the disk does with the bytes isn't.
static void storePlainly(const ZStoreWork& work) {
    ZSideFile side(work.sideName.getChars(), work.descriptor);
    side.clearLeft();
    if (work.sideAction != zsideUntouched)
        zcheckIO(side.name(), side.examine(work.sideAction == zsideReplaced));
    if (work.sideAction == zsideReplaced)
        zcheckIO(side.name(), side.prepare(work.side, ZPROP_STORE_PLAIN));
    overwrite(work.descriptor, work.text, 0, UINT64_MAX);
    if (work.sideAction == zsideReplaced)
        side.takePlace();
    else if (work.sideAction == zsideRemoved)
        side.remove();
}

static void storeChecked(const ZStoreWork& work, ZJournal& journal) {
    Store store(work, journal, ZPROP_STORE_CHECKED);
    store.examineSide();
    if (!store.hasNothingToDo()) {
        store.secureText();
        store.prepareSide();
        store.putInPlace();
    }
}

// False if it can't be safe.
static bool storeSafely(const ZStoreWork& work, ZJournal& journal) {
    struct stat status;
    if (fstat(work.descriptor, &status) != 0)
        zraiseIO(work.path, "stat()", errno);
    // A crash would be mended under one of the names only.
    if (status.st_nlink > 1)
        zraiseIO(work.path, "link()", EMLINK);
    Store store(work, journal, ZPROP_STORE_SAFE);
    store.examineSide();
    if (!store.hasNothingToDo()) {
        store.secureText();
        if (!store.writeJournal())
            return false;
        store.prepareSide();
        store.putInPlace();
    } else if (fsync(work.descriptor) != 0) {
        // Somebody else may have written the same.
        zraiseIO(work.path, "fsync()", errno);
    }
    return true;
}

int zstore(const ZStoreWork& work, ZJournal& journal, int mode) {
    ZSizeSignalGuard noSignal;
    if (mode == ZPROP_STORE_SAFE && !storeSafely(work, journal))
        mode = ZPROP_STORE_CHECKED;
    if (mode == ZPROP_STORE_PLAIN)
        storePlainly(work);
    else if (mode == ZPROP_STORE_CHECKED)
        storeChecked(work, journal);
    const ZFailure failure = journal.remove();
    if (mode != ZPROP_STORE_PLAIN)
        zcheckIO(journal.path().getChars(), failure);
    return mode;
}

// ---------------------------------------------------------------- after a crash

// A side database that has another name than a store gives by itself: the file must say that name
// too, so that a journal that somebody has made up leads nowhere; and what is overwritten or
// removed must be a side database.
static void requireSideDatabase(const ZJournal& journal, ZSideFile& side) {
    if (!journal.isSideNamedInFile())
        zraiseIO(journal.path().getChars(), "a side database that the file doesn't name", EPERM);
    if (!side.exists())
        return;
    ZBytes bytes;
    zcheckIO(side.name(), side.read(bytes));
    ZBuffer buffer;
    buffer.setBuffer(bytes.size(), bytes.data());
    ZSCFData scratch;
    scratch.setObfuscatedDBName(side.name());
    scratch.be_read_obfuscated(buffer);
}

static void finishSide(ZJournal& journal, ZSideFile& side) {
    zcheckIO(side.name(), side.clearLeft());
    if (journal.sideAction() == zsideReplaced) {
        ZFailure failure = side.prepare(journal.side(), ZPROP_STORE_SAFE);
        // A user who can't give a new file to the owner may still write to the old one.
        if (failure && side.exists())
            failure = side.prepare(journal.side(), ZPROP_STORE_CHECKED);
        zcheckIO(side.name(), failure);
        zcheckIO(side.name(), side.takePlace(true));
    } else {
        zcheckIO(side.name(), side.remove());
    }
    zcheckIO(side.name(), side.syncFolder());
}

void zfinishJournal(const char* path, int descriptor, ZJournal& journal) {
    ZSizeSignalGuard noSignal;
    const ZLCString name(journal.path());
    ZSideFile side(journal.sideName().getChars(), descriptor);
    bool hasSide = journal.sideAction() != zsideUntouched;
    const bool isElsewhere = hasSide && !journal.isSideBesideFile();
    // What is to go and isn't named any more lies there by itself from now on.
    if (isElsewhere && journal.sideAction() == zsideRemoved && !journal.isSideNamedInFile())
        hasSide = false;
    // Ahead of any change.
    if (hasSide)
        zcheckIO(side.name(), side.examine(journal.sideAction() == zsideReplaced));
    if (hasSide && journal.sideAction() == zsideRemoved && !side.exists())
        hasSide = false;
    zcheckIO(name.getChars(), journal.openForMarks());
    if (!zequals(journal.file(), journal.text())) {
        // Should this be cut off too, the file is modified behind an old mark.
        zcheckIO(name.getChars(), journal.mark(ZJournal::underWay));
        zcheckIO(name.getChars(), journal.sync());
        zcheckIO(path, overwrite(descriptor, journal.text(),
                                 zfirstDifference(journal.file(), journal.text()), UINT64_MAX));
        zcheckIO(name.getChars(), journal.mark(ZJournal::placed));
    }
    if (fsync(descriptor) != 0)
        zraiseIO(path, "fsync()", errno);
    zcheckIO(name.getChars(), journal.mark(ZJournal::onDisk));
    // Where the name was torn, the file has it from now on, and the next store goes on here.
    if (hasSide && isElsewhere)
        requireSideDatabase(journal, side);
    if (hasSide)
        finishSide(journal, side);
    zcheckIO(name.getChars(), journal.remove());
}
