// ZPropertiesUpdate.cpp: an update is a descriptor under the write lock that the object's file
// knows, and a snapshot of the content, as the bytes of text and side database.
//
// Order of locks: the object's lock, the file's lock.
#include "ZPropertiesUpdate.h"

#include <memory>

#include "ZPropertiesImpl.h"
#include "zraise.h"
#include "zreport.h"

class ZPropertiesUpdate::Progress : public ZAllocated {
public:
    Progress(ZProperties& properties, unsigned long wait)
        : properties_(properties),
          known_(ZPropertiesFile::of(properties)),
          file_(known_.openToUpdate(wait)) {
        updated_.descriptor = file_->descriptor();
        updated_.isNew = file_->isCreated();
        updated_.thread = pthread_self();
        zcheckIO(zstampFile(updated_.descriptor, updated_.stamp).of(path()));
        known_.beginUpdate(updated_);
        znoteUpdate(updated_);
    }
    ~Progress() {
        known_.endUpdate();
        zforgetUpdate(updated_);
    }

    // Tries again as a whole while one of several files is locked.
    static Progress* makeAmongOthers(ZProperties& properties, unsigned long wait) {
        Progress* made = nullptr;
        zretryBusy(
            wait, [&] { ZPropertiesFile::of(properties).requireOthersFree(); },
            [&] { made = new Progress(properties, 0); });
        return made;
    }

    // Gives the file up, ahead of what the object does without it.
    static void end(std::unique_ptr<Progress> ended) {
        ZPropertiesFile& known = ended->known_;
        ended.reset();
        known.noteUpdateEnded();
    }

    void store() {
        // Somebody has put another file in its place, without asking for the lock. What he wrote
        // isn't overwritten with what was made of the old one.
        if (!zleadsTo(path(), updated_.descriptor))
            zraiseIO(path(), "stat()", ESTALE);
        properties_.store(path());
    }

    // Ahead of closing the file, which is then as it stays.
    void settle() { known_.settleUpdate(updated_); }

    // Closes the file after a store.
    void finish() {
        file_->forgetCreated();  // there was nothing to store
        const ZFailure failure = file_->finish();
        // A text that was synced has nothing left to lose.
        if (!failure || known_.storeMode() != ZPROP_STORE_CHECKED)
            return;
        properties_.setModified();
        zcheckIO(failure);
    }

    // What the object was at the beginning, or what was stored since: from memory, whatever has
    // become of the file.
    void restore() { known_.restore(updated_); }

private:
    const char* path() const { return known_.path().getChars(); }

    ZProperties& properties_;
    ZPropertiesFile& known_;
    const std::unique_ptr<ZLockedFile> file_;
    ZUpdatedFile updated_;
};

ZPropertiesUpdate::ZPropertiesUpdate(ZProperties& properties, unsigned long waitMilliseconds)
    : guard_(ZPropertiesFile::of(properties).lock()), progress_(nullptr) {
    const ZPropertiesFile& known = ZPropertiesFile::of(properties);
    zrequire(properties.isModified() == 0);
    zrequire(known.path().getLength() != 0);
    zrequire(!known.hasUpdate());
    progress_ = known.locksOthers() ? Progress::makeAmongOthers(properties, waitMilliseconds)
                                    : new Progress(properties, waitMilliseconds);
}

ZPropertiesUpdate::~ZPropertiesUpdate() noexcept(false) {
    // The way out may be one after a failure: what fails here is reported and goes no further.
    zrunReported([this] { rollback(); });
}

void ZPropertiesUpdate::commit() {
    zrequire(progress_ != nullptr);
    progress_->store();
    std::unique_ptr<Progress> ended(progress_);
    progress_ = nullptr;
    ended->settle();
    ended->finish();
    Progress::end(std::move(ended));
}

void ZPropertiesUpdate::rollback() {
    std::unique_ptr<Progress> ended(progress_);
    progress_ = nullptr;
    if (ended == nullptr)
        return;
    ended->settle();
    try {
        ended->restore();
    } catch (...) {
        Progress::end(std::move(ended));
        throw;
    }
    Progress::end(std::move(ended));
}

int ZPropertiesUpdate::isOpen() const { return progress_ != nullptr; }
