// ZPropertiesWatcher.cpp: reads the file when the way to it or its bytes have changed, and tells
// the differences.
//
// A notice only says that something may have changed. Whether it has, the file's stamp and content
// tell: so the notices of the object's own stores, and those that many writers pile up, cost
// nothing.
//
// Built with 64-bit file offsets and times on 32-bit machines too.
#include "ZPropertiesWatcher.h"

#include <fcntl.h>

#include <cstring>
#include <memory>

#include "zraise.h"
#include "zpropdiff.h"
#include "zinternal.h"
#include "zjournal.h"
#include "zlockedfile.h"
#include "zpathwatch.h"
#include "zpropoptions.h"

ZPropertiesWatcher::ZPropertiesWatcher(ZProperties& properties)
    : properties_(properties), watch_(nullptr), descriptor_(-1), pending_(false) {
    {
        ZProperties::ZPropResourceLock guard(properties.lock_);
        path_ = properties.fileName_;
        properties.options();  // from now on a stamp is kept
    }
    zrequire(path_.getLength() != 0);
    watch_ = new ZPathWatch(path_.getChars(), kJournalSuffix);
    descriptor_ = watch_->descriptor();
}

ZPropertiesWatcher::~ZPropertiesWatcher() noexcept { delete watch_; }

void ZPropertiesWatcher::setSettlingTime(unsigned long milliseconds) {
    watch_->setSettlingTime(milliseconds);
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
    pending_ = watch_->hasNews() || pending_;
    if (!pending_ || watch_->isBeingWritten())
        return 0;
    ZVector<ZPropDifference> differences;
    {
        ZProperties::ZPropResourceLock guard(properties_.lock_);
        if (properties_.isModified() != 0 || properties_.options().update != nullptr)
            return 0;
        ZOpenFile file(zopenRegularFile(path_.getChars(), O_RDONLY));
        if (file.get() < 0 && (errno == ENOENT || errno == ENOTDIR))
            return 0;
        if (file.get() < 0)
            zraiseIO(path_.getChars(), "fopen(r)", errno);
        const ZLockOwner owner = properties_.options().lockOwner();
        ZLockScope lock(file, owner);
        const int error = zlockWholeFile(file.get(), F_RDLCK, owner, 0);
        if (zisLockedByOthers(error))
            return 0;
        if (error != 0)
            zraiseIO(path_.getChars(), "fcntl()", error);
        watch_->noteReading(file.get());
        // A content that can't be read raises here, before the object is touched, and once.
        pending_ = false;
        std::unique_ptr<ZPCache> fresh(properties_.cache_->clone());
        fresh->clear();
        properties_.readContent(*fresh, path_, file.get(), nullptr, nullptr);
        zfindDifferences(*properties_.cache_, *fresh, differences);
        if (differences.empty() && wouldStoreTheSame(*properties_.cache_, *fresh)) {
            properties_.options().keepStamp(file.get());
        } else {
            // Should this reading fail, the next call tries again, and nobody stores what is left.
            pending_ = true;
            properties_.cache_->clear();
            properties_.readAndUnlock(path_, file.get(), lock);
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
