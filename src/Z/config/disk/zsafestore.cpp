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

#include "ZSCFData.h"
#include "zmemorystream.h"
#include "zraise.h"

namespace {

// A store that looks at its results, as stages in this order.
class Store {
public:
    Store(const ZStoreWork& work, ZJournal& journal, int mode)
        : work_(work),
          journal_(journal),
          descriptor_(journal.descriptor()),
          isSafe_(mode == ZPROP_STORE_SAFE),
          textChanges_(!zequals(work.text, work.oldText)),
          from_(zfirstDifference(work.text, work.oldText)),
          side_(work.side),
          action_(work.sideAction),
          isBegun_(false) {}
    ~Store() {
        // Room that was made by zeros behind the text's end.
        if (!isBegun_ && !isSafe_ && work_.text.size > work_.oldText.size)
            takeRoomBack();
    }

    /// Finds out what is to be done to the side database, and whether it can be.
    void settleSide() {
        if (action_ == zsideRemoved && !side_.exists()) {
            action_ = zsideUntouched;
            return;
        }
        // A store that was stopped may have begun to make one.
        const ZFailure failure = side_.clearLeft();
        if (action_ == zsideUntouched)
            return;
        zcheckIO(failure);
        if (isSafe_)
            zcheckIO(side_.checkFolder());
        if (side_.exists())
            zcheckIO(side_.read(oldSide_));
        if (action_ == zsideReplaced && side_.exists() &&
            zequals(zspanOf(oldSide_), work_.sideBytes))
            action_ = zsideUntouched;
    }

    bool hasNothingToDo() const { return action_ == zsideUntouched && !textChanges_; }

    void secureText() {
        zcheckIO(zsecureRoom(descriptor_, work_.oldText.size, work_.text.size, !isSafe_)
                     .of(journal_.filePath()));
    }

    /// False if the journal can't have the file's access.
    bool writeJournal() {
        // What somebody else has written to the file without a sync goes to the disk ahead of the
        // journal, or a crash could leave an older text still.
        const unsigned int flags =
            SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
        if (sync_file_range(descriptor_, 0, 0, flags) != 0 &&
            (errno == EIO || errno == ENOSPC || errno == EDQUOT))
            zraiseIO(journal_.filePath(), "sync_file_range()", errno);
        static const ZSpan kNothing = {"", 0};
        return journal_.write(work_.text, work_.oldText, action_,
                              action_ == zsideReplaced ? work_.sideBytes : kNothing);
    }

    void prepareSide() {
        if (action_ != zsideReplaced)
            return;
        const ZFailure failure =
            side_.prepare(work_.sideBytes, isSafe_ ? ZPROP_STORE_SAFE : ZPROP_STORE_CHECKED);
        if (failure && isSafe_)
            journal_.remove().passOver();
        zcheckIO(failure);
    }

    void putInPlace() {
        zassert(!isBegun_ && !hasNothingToDo());
        isBegun_ = true;
        if (const ZFailure failure = placeText())
            giveUp(failure);
        if (action_ == zsideUntouched)
            return;
        const bool isRemoval = action_ == zsideRemoved;
        if (const ZFailure failure = isRemoval ? side_.remove() : side_.takePlace()) {
            // What may have been done all the same isn't undone: the journal finishes it.
            if (side_.isUnclear() && (isSafe_ || isRemoval))
                zcheckIO(failure);
            giveUp(failure);
        }
        if (isSafe_)
            zcheckIO(side_.syncFolder());
    }

private:
    void takeRoomBack() {
        struct stat status;
        const off_t size = static_cast<off_t>(work_.oldText.size);
        if (fstat(descriptor_, &status) == 0 && status.st_size > size)
            zresultOf(ftruncate(descriptor_, size), "ftruncate()").passOver();
    }

    ZFailure placeText() {
        if (!textChanges_)
            return zdone;
        const ZSpan changed = zspanFrom(work_.text, from_);
        ZFailure failure = work_.text.size < work_.oldText.size
                               ? zwriteToEnd(descriptor_, changed, from_)
                               : zwriteAt(descriptor_, changed, from_);
        if (!failure && isSafe_)
            failure = syncText();
        return {failure.call, failure.error, journal_.filePath()};  // whosever step it was
    }
    ZFailure syncText() {
        if (const ZFailure failure = journal_.mark(ZJournal::placed))
            return failure;
        if (const ZFailure failure = zresultOf(fsync(descriptor_), "fsync()"))
            return failure;
        return journal_.mark(ZJournal::onDisk);
    }

    ZFailure undo() {
        // From here on the file is modified behind the mark, by us.
        if (isSafe_) {
            if (const ZFailure failure = journal_.mark(ZJournal::underWay))
                return failure;
            if (const ZFailure failure = journal_.sync())
                return failure;
        }
        ZFailure failure = zwriteToEnd(descriptor_, zspanFrom(work_.oldText, from_), from_);
        if (!failure && isSafe_)
            failure = zresultOf(fsync(descriptor_), "fsync()");
        return side_.isWrittenInPlace() ? failure.orElse(side_.putBack(zspanOf(oldSide_)))
                                        : failure;
    }

    [[noreturn]] void giveUp(const ZFailure& failure) {
        if (!undo() && isSafe_)
            journal_.remove().passOver();
        zraiseIO(failure.path, failure.call, failure.error);
    }

    const ZStoreWork& work_;
    ZJournal& journal_;
    const int descriptor_;
    const bool isSafe_;
    const bool textChanges_;
    const size_t from_;  // bytes of both texts ahead of it are the same
    ZSideFile& side_;
    ZSideAction action_;
    ZBytes oldSide_;  // as far as the side database is to be changed
    bool isBegun_;    // bytes of the old text may be gone
};

}  // namespace

// What the disk does with the bytes isn't looked at.
static void storePlainly(const ZStoreWork& work, int descriptor) {
    work.side.clearLeft().passOver();
    if (work.sideAction == zsideReplaced)
        zcheckIO(work.side.prepare(work.sideBytes, ZPROP_STORE_PLAIN));
    zwriteToEnd(descriptor, work.text, 0).passOver();
    if (work.sideAction == zsideReplaced)
        work.side.takePlace().passOver();
    else if (work.sideAction == zsideRemoved)
        work.side.remove().passOver();
}

static void storeChecked(const ZStoreWork& work, ZJournal& journal) {
    Store store(work, journal, ZPROP_STORE_CHECKED);
    store.settleSide();
    if (store.hasNothingToDo())
        return;
    store.secureText();
    store.prepareSide();
    store.putInPlace();
}

// False if it can't be safe.
static bool storeSafely(const ZStoreWork& work, ZJournal& journal) {
    struct stat status;
    if (fstat(journal.descriptor(), &status) != 0)
        zraiseIO(journal.filePath(), "stat()", errno);
    // A crash would be mended under one of the names only.
    if (status.st_nlink > 1)
        zraiseIO(journal.filePath(), "link()", EMLINK);
    Store store(work, journal, ZPROP_STORE_SAFE);
    store.settleSide();
    if (store.hasNothingToDo()) {
        // Somebody else may have written the same.
        zcheckIO(zresultOf(fsync(journal.descriptor()), "fsync()").of(journal.filePath()));
        return true;
    }
    store.secureText();
    if (!store.writeJournal())
        return false;
    store.prepareSide();
    store.putInPlace();
    return true;
}

int zstore(const ZStoreWork& work, ZJournal& journal, int mode) {
    ZSizeSignalGuard noSignal;
    if (mode == ZPROP_STORE_SAFE && !storeSafely(work, journal))
        mode = ZPROP_STORE_CHECKED;
    if (mode == ZPROP_STORE_PLAIN)
        storePlainly(work, journal.descriptor());
    else if (mode == ZPROP_STORE_CHECKED)
        storeChecked(work, journal);
    const ZFailure failure = journal.remove();
    if (mode != ZPROP_STORE_PLAIN)
        zcheckIO(failure);
    return mode;
}

// ---------------------------------------------------------------- after a crash

// A side database that has another name than a store gives by itself: the file must say that name
// too, so that a journal that somebody has made up leads nowhere; and what is overwritten or
// removed must be a side database.
static void requireSideDatabase(const ZJournal& journal, ZSideFile& side) {
    if (!journal.isSideNamedInFile())
        zraiseIO(journal.path(), "a side database that the file doesn't name", EPERM);
    if (!side.exists())
        return;
    ZBytes bytes;
    zcheckIO(side.read(bytes));
    ZSCFData scratch;
    scratch.setObfuscatedDBName(side.name());
    zreadSide(scratch, zspanOf(bytes));
}

static void finishSide(ZJournal& journal, ZSideFile& side) {
    zcheckIO(side.clearLeft());
    if (journal.sideAction() == zsideReplaced) {
        ZFailure failure = side.prepare(journal.side(), ZPROP_STORE_SAFE);
        // A user who can't give a new file to the owner may still write to the old one.
        if (failure && side.exists())
            failure = side.prepare(journal.side(), ZPROP_STORE_CHECKED);
        zcheckIO(failure);
        zcheckIO(side.takePlace(true));
    } else {
        zcheckIO(side.remove());
    }
    zcheckIO(side.syncFolder());
}

static void finishText(ZJournal& journal) {
    const int descriptor = journal.descriptor();
    if (!zequals(journal.file(), journal.text())) {
        // Should this be cut off too, the file is modified behind an old mark.
        zcheckIO(journal.mark(ZJournal::underWay));
        zcheckIO(journal.sync());
        const size_t from = zfirstDifference(journal.file(), journal.text());
        zcheckIO(
            zwriteToEnd(descriptor, zspanFrom(journal.text(), from), from).of(journal.filePath()));
        zcheckIO(journal.mark(ZJournal::placed));
    }
    zcheckIO(zresultOf(fsync(descriptor), "fsync()").of(journal.filePath()));
    zcheckIO(journal.mark(ZJournal::onDisk));
}

void zfinishJournal(ZJournal& journal) {
    ZSizeSignalGuard noSignal;
    ZSideFile side(journal.sideName().getChars(), journal.descriptor());
    bool hasSide = journal.sideAction() != zsideUntouched;
    const bool isElsewhere = hasSide && !journal.isSideBesideFile();
    // What is to go and isn't named any more lies there by itself from now on.
    if (isElsewhere && journal.sideAction() == zsideRemoved && !journal.isSideNamedInFile())
        hasSide = false;
    // Ahead of any change.
    if (hasSide)
        zcheckIO(side.examine(journal.sideAction() == zsideReplaced));
    if (hasSide && journal.sideAction() == zsideRemoved && !side.exists())
        hasSide = false;
    zcheckIO(journal.openForMarks());
    finishText(journal);
    // Where the name was torn, the file has it from now on, and the next store goes on here.
    if (hasSide && isElsewhere)
        requireSideDatabase(journal, side);
    if (hasSide)
        finishSide(journal, side);
    zcheckIO(journal.remove());
}
