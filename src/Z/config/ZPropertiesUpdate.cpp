// ZPropertiesUpdate.cpp: an update is a descriptor under the write lock that the object's options
// know, and a snapshot of the content, as the bytes of text and side database.
//
// Order of locks: the object's lock, the file's lock.
#include "ZPropertiesUpdate.h"

#include <memory>

#include "zraise.h"
#include "zlockedfile.h"
#include "zpropoptions.h"
#include "zreport.h"

class ZPropertiesUpdate::Progress : public ZAllocated {
public:
    Progress(ZProperties& properties, unsigned long wait)
        : properties_(properties),
          path_(properties.fileName_),
          file_(path_.getChars(), zlockOfDescription, wait, false) {
        updated_.descriptor = file_.descriptor();
        const int error = zstampFile(updated_.descriptor, updated_.stamp);
        if (error != 0)
            zraiseIO(path_.getChars(), "stat()", error);
        // Always: what a stamp doesn't tell would be overwritten.
        properties_.cache_->clear();
        properties_.readUpdatedFile(path_, updated_);
        updated_.thread = pthread_self();
        znoteUpdate(updated_);
        options().update = &updated_;
    }
    ~Progress() {
        options().update = nullptr;
        zforgetUpdate(updated_);
        file_.finish();
    }

    void store() {
        // Somebody has put another file in its place, without asking for the lock. What he wrote
        // isn't overwritten with what was made of the old one.
        if (!zleadsTo(path(), updated_.descriptor))
            zraiseIO(path(), "stat()", ESTALE);
        properties_.store(path());
    }

    // Closes the file after a store.
    void finish() {
        const int error = file_.finish();
        // A text that was synced has nothing left to lose.
        if (error == 0 || options().storeMode != ZPROP_STORE_CHECKED)
            return;
        properties_.setModified();
        zraiseIO(path(), "close()", error);
    }

    const char* path() const { return path_.getChars(); }

    // What the object was at the beginning, or what was stored since: from memory, whatever has
    // become of the file.
    void restore() {
        ZPCache& cache = *properties_.cache_;
        properties_.loading_ = 1;
        try {
            cache.clear();
            zreadText(cache, path(), zspanOf(updated_.content.text));
            if (updated_.content.side.size() != 0)
                zreadSide(cache, zspanOf(updated_.content.side));
        } catch (...) {
            properties_.loading_ = 0;
            // The object isn't what the file holds any more: no store but a plain one puts it in
            // the file's place.
            options().hasStamp = false;
            properties_.loadFailed_ = ZProperties::kFailed;
            throw;
        }
        properties_.loading_ = 0;
        properties_.resetModified();
    }

private:
    ZPropertiesOptions& options() { return properties_.options(); }

    ZProperties& properties_;
    const ZLCString path_;
    ZLockedFile file_;
    ZUpdatedFile updated_;
};

ZPropertiesUpdate::ZPropertiesUpdate(ZProperties& properties, unsigned long waitMilliseconds)
    : guard_(properties.lock_), progress_(nullptr) {
    zrequire(properties.isModified() == 0);
    zrequire(properties.fileName_.getLength() != 0);
    zrequire(properties.options().update == nullptr);
    progress_ = new Progress(properties, waitMilliseconds);
}

ZPropertiesUpdate::~ZPropertiesUpdate() noexcept(false) {
    // The way out may be one after a failure: what fails here is reported and goes no further.
    zrunReported([this] { rollback(); });
}

void ZPropertiesUpdate::commit() {
    zrequire(progress_ != nullptr);
    progress_->store();
    const std::unique_ptr<Progress> ended(progress_);
    progress_ = nullptr;
    ended->finish();
}

void ZPropertiesUpdate::rollback() {
    const std::unique_ptr<Progress> ended(progress_);
    progress_ = nullptr;
    if (ended != nullptr)
        ended->restore();
}

int ZPropertiesUpdate::isOpen() const { return progress_ != nullptr; }
