// ZPropertiesUpdate.cpp: an update is a descriptor under the write lock that the object's options know,
// and a snapshot of the content, as the bytes of text and side database.
//
// Order of locks: the object's lock, the file's lock.
#include "ZPropertiesUpdate.h"

#include <memory>

#include "zcheck.h"
#include "zjournal.h"
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
            Z_RAISE_IO(path_.getChars(), "stat()", error);
        if (isOutdated())
            readAnew();
        takeSnapshot();
        updated_.thread = pthread_self();
        updated_.stored = false;
        znoteUpdate(updated_);
        options().update = &updated_;
    }
    ~Progress() {
        options().update = nullptr;
        zforgetUpdate(updated_);
        file_.finish();
    }

    void store() {
        // Somebody has put another file in its place, without asking for the lock. What he wrote isn't
        // overwritten with what was made of the old one.
        if (!zleadsTo(path(), updated_.descriptor))
            Z_RAISE_IO(path(), "stat()", ESTALE);
        properties_.store(path());
    }

    // Closes the file after a store.
    void finish() {
        const int error = file_.finish();
        // A text that was synced has nothing left to lose.
        if (error == 0 || options().storeMode != ZPROP_STORE_CHECKED)
            return;
        properties_.setModified();
        Z_RAISE_IO(path(), "close()", error);
    }

    const char* path() const { return path_.getChars(); }

    // What the object was at the beginning, or what was stored since.
    void restore() {
        if (updated_.stored) {
            readAnew();
            return;
        }
        ZPCache& cache = *properties_.cache_;
        properties_.loading_ = 1;
        try {
            cache.clear();
            zreadText(cache, path(), text_.bytes());
            if (side_.getLength() != 0)
                zreadSide(cache, {static_cast<const char*>(side_.getBuffer()), side_.getLength()});
            cache.setObfuscatedDBName(sideName_.getChars());
        } catch (...) {
            properties_.loading_ = 0;
            // The object isn't what the file holds any more: the next update reads it anew, and no
            // store but a plain one puts it in the file's place.
            options().hasStamp = false;
            properties_.loadFailed_ = 1;
            throw;
        }
        properties_.loading_ = 0;
        properties_.resetModified();
    }

private:
    ZPropertiesOptions& options() { return properties_.options(); }

    bool isOutdated() {
        return !options().hasStamp || !zsameContent(options().stamp, updated_.stamp) ||
               properties_.loadFailed_ != 0 || ZJournal(path()).find(updated_.descriptor);
    }

    void readAnew() {
        properties_.loadFailed_ = 1;
        properties_.cache_->clear();
        properties_.readFile(path_, updated_.descriptor, nullptr);
    }

    void takeSnapshot() {
        ZPCache& cache = *properties_.cache_;
        cache.be_write(path(), text_.stream());
        text_.finish();
        cache.be_write_obfuscated(side_);
        sideName_ = cache.obfuscatedDBName();
    }

    // A text in memory, first written and then read.
    class Text {
    public:
        Text() : bytes_{nullptr, 0} {}
        FILE* stream() const { return stream_.get(); }
        void finish() { bytes_ = stream_.finish(); }
        ZSpan bytes() const { return bytes_; }

    private:
        ZMemoryStream stream_;
        ZSpan bytes_;
    };

    ZProperties& properties_;
    const ZLCString path_;
    ZLockedFile file_;
    ZUpdatedFile updated_;
    Text text_;
    ZBuffer side_;
    ZLCString sideName_;
};

ZPropertiesUpdate::ZPropertiesUpdate(ZProperties& properties, unsigned long waitMilliseconds)
    : guard_(properties.lock_), progress_(nullptr) {
    Z_REQUIRE(properties.isModified() == 0);
    Z_REQUIRE(properties.fileName_.getLength() != 0);
    Z_REQUIRE(properties.options().update == nullptr);
    progress_ = new Progress(properties, waitMilliseconds);
}

ZPropertiesUpdate::~ZPropertiesUpdate() noexcept(false) {
    // The way out may be one after a failure: what fails here is reported and goes no further.
    zrunReported(__FILE__, __LINE__, [this] { rollback(); });
}

void ZPropertiesUpdate::commit() {
    Z_REQUIRE(progress_ != nullptr);
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
