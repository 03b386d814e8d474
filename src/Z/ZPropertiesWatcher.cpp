// ZPropertiesWatcher.cpp: watches the file's inode, for writers that open it under any name, and the
// folders of its path and of the real file, for those who put another file in its place.
//
// An event only says that something may have changed. Whether it has, the file's stamp and content
// tell: so the events of the object's own stores, and those that many writers pile up, cost no notice.
//
// Built with 64-bit file offsets and times on 32-bit machines too.
#include "ZPropertiesWatcher.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "zcheck.h"
#include "zpropdiff.h"
#include "zinternal.h"
#include "zjournal.h"
#include "zlockedfile.h"
#include "zpropoptions.h"

static const uint32_t kFileEvents =
    IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF;
static const uint32_t kFolderEvents =
    IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_CLOSE_WRITE | IN_ONLYDIR;

ZPropertiesWatcher::ZPropertiesWatcher(ZProperties& properties)
    : properties_(properties),
      descriptor_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      fileWatch_(-1),
      pending_(true) {
    const int error = errno;
    try {
        {
            ZProperties::ZPropResourceLock guard(properties.lock_);
            path_ = properties.fileName_;
            properties.options();  // from now on a stamp is kept
        }
        Z_REQUIRE(path_.getLength() != 0);
        if (descriptor_ < 0)
            Z_RAISE_IO(path_.getChars(), "inotify_init1()", error);
        watch();
    } catch (...) {
        if (descriptor_ >= 0)
            close(descriptor_);
        throw;
    }
}

ZPropertiesWatcher::~ZPropertiesWatcher() noexcept { close(descriptor_); }

// Watching what is watched already changes nothing.
void ZPropertiesWatcher::watch() {
    const ZLCString folder(zfolderOf(path_.getChars()));
    if (inotify_add_watch(descriptor_, folder.getChars(), kFolderEvents) < 0)
        Z_RAISE_IO(folder.getChars(), "inotify_add_watch()", errno);
    name_ = target_ = znameOf(path_.getChars());
    ZLCString real(path_);
    if (zfollowLinks(real)) {
        target_ = znameOf(real.getChars());
        inotify_add_watch(descriptor_, zfolderOf(real.getChars()).getChars(), kFolderEvents);
    }
    fileWatch_ = inotify_add_watch(descriptor_, path_.getChars(), kFileEvents);
}

// Whether a name in one of the folders is the file's, or its journal's: a store that was stopped
// leaves its content there.
bool ZPropertiesWatcher::concerns(const char* name) const {
    for (const ZLCString* own : {&name_, &target_}) {
        const unsigned int length = own->getLength();
        if (strncmp(name, own->getChars(), length) == 0 &&
            (name[length] == '\0' || strcmp(name + length, kJournalSuffix) == 0))
            return true;
    }
    return false;
}

// Reads all that has come; whether any of it concerns the file.
bool ZPropertiesWatcher::readEvents() {
    alignas(struct inotify_event) char buffer[4096];
    bool found = false;
    for (;;) {
        const ssize_t size = read(descriptor_, buffer, sizeof buffer);
        if (size < 0 && errno == EINTR)
            continue;
        if (size <= 0)
            return found;
        for (const char* at = buffer; at < buffer + size;) {
            const struct inotify_event* event = reinterpret_cast<const struct inotify_event*>(at);
            at += sizeof *event + event->len;
            found = found || event->wd == fileWatch_ || (event->mask & IN_Q_OVERFLOW) != 0 ||
                    (event->len != 0 && concerns(event->name));
        }
    }
}

// Comments and their places make no difference to tell, but one to who stores.
static bool wouldStoreTheSame(ZPCache& a, ZPCache& b) {
    ZMemoryStream streams[2];
    a.be_write("", streams[0].get());
    b.be_write("", streams[1].get());
    const ZSpan left = streams[0].finish(), right = streams[1].finish();
    return left.size == right.size &&
           (left.size == 0 || memcmp(left.data, right.data, left.size) == 0);
}

int ZPropertiesWatcher::process() {
    pending_ = readEvents() || pending_;
    if (!pending_)
        return 0;
    watch();  // the path may lead to another file now
    std::vector<ZPropDifference> differences;
    {
        ZProperties::ZPropResourceLock guard(properties_.lock_);
        if (properties_.isModified() != 0 || properties_.options().update != nullptr)
            return 0;
        ZOpenFile file(zopenRegularFile(path_.getChars(), O_RDONLY));
        if (file.get() < 0 && errno == ENOENT)
            return 0;
        if (file.get() < 0)
            Z_RAISE_IO(path_.getChars(), "fopen(r)", errno);
        const ZLockOwner owner = properties_.options().lockOwner();
        const int error = zlockWholeFile(file.get(), F_RDLCK, owner, 0);
        if (zisLockedByOthers(error))
            return 0;
        if (error != 0)
            Z_RAISE_IO(path_.getChars(), "fcntl()", error);
        // A content that can't be read raises here, before the object is touched, and once.
        pending_ = false;
        std::unique_ptr<ZPCache> fresh(properties_.cache_->clone());
        fresh->clear();
        properties_.readContent(*fresh, path_, file.get(), nullptr, nullptr);
        zfindDifferences(*properties_.cache_, *fresh, differences);
        if (differences.empty() && wouldStoreTheSame(*properties_.cache_, *fresh)) {
            properties_.options().keepStamp(file.get());
            zunlockWholeFile(file.get(), owner);
        } else {
            // Should this reading fail, the next call tries again, and nobody stores what is left.
            pending_ = true;
            properties_.cache_->clear();
            properties_.readAndUnlock(path_, file.get(), owner);
            pending_ = false;
        }
    }
    for (const ZPropDifference& difference : differences) {
        static const ZPropertyChanged::PropertyChangeType kTypes[] = {
            ZPropertyChanged::PropertyAdded, ZPropertyChanged::PropertyDeleted,
            ZPropertyChanged::PropertyModified};
        tell(ZPropertyChanged(difference.stanza.getChars(),
                              difference.key.getLength() == 0 ? nullptr : difference.key.getChars(),
                              ZPropertyChanged::StanzaProperty, kTypes[difference.type]));
    }
    return static_cast<int>(differences.size());
}

void ZPropertiesWatcher::tell(const ZPropertyChanged& change) {
    properties_.sendChangeNotice(change.style, change.changeType, change.stanza, change.key);
}
