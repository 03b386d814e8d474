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

#include "ZPropertiesImpl.h"
#include "zjournal.h"
#include "zmemorystream.h"
#include "zpathwatch.h"
#include "zpropdiff.h"
#include "zraise.h"

ZPropertiesWatcher::ZPropertiesWatcher(ZProperties& properties)
    : properties_(properties),
      watch_(nullptr),
      descriptor_(-1),
      pending_(false),
      isSeveral_(false) {
    ZVector<ZWatchedPath> paths;
    {
        ZPropertiesFile& known = ZPropertiesFile::of(properties);
        ZProperties::ZPropResourceLock guard(known.lock());
        isSeveral_ = known.listWatched(paths);
        path_ = isSeveral_ ? paths.front().path : known.path();
    }
    zrequire(path_.getLength() != 0);
    std::unique_ptr<ZPathWatch> watch(new ZPathWatch(path_.getChars(), kJournalSuffix));
    if (isSeveral_)
        watch->setPaths(paths);
    descriptor_ = watch->descriptor();
    watch_ = watch.release();
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

// What isn't watched yet may have changed unnoticed: all is looked at again once it is. False if it
// has to be tried again. What can't be read raises, and once.
static bool catchUpWithSeveral(ZPropertiesFile& known, ZPathWatch& watch,
                               ZVector<ZPropDifference>& differences) {
    static const int kMostTurns = 16;
    for (int turns = 0; turns < kMostTurns; ++turns) {
        ZVector<ZWatchedPath> paths;
        known.listWatched(paths);
        const bool isOther = watch.setPaths(paths);
        try {
            if (!known.catchUp(differences))
                return false;
        } catch (ZPropertiesException&) {
            if (differences.empty())
                throw;
            return false;  // what was found before is told first
        }
        if (!isOther)
            return true;
    }
    return false;
}

int ZPropertiesWatcher::process() {
    pending_ = watch_->hasNews() || pending_;
    if (!pending_ || watch_->isBeingWritten())
        return 0;
    ZPropertiesFile& known = ZPropertiesFile::of(properties_);
    ZVector<ZPropDifference> differences;
    if (isSeveral_) {
        ZProperties::ZPropResourceLock guard(known.lock());
        if (properties_.isModified() != 0 || known.hasUpdate())
            return 0;
        pending_ = false;
        pending_ = !catchUpWithSeveral(known, *watch_, differences);
    } else {
        ZProperties::ZPropResourceLock guard(known.lock());
        if (properties_.isModified() != 0 || known.hasUpdate())
            return 0;
        const ZLockOwner owner = known.lockTerms().owner;
        ZOpenFile file;
        ZLockScope lock(file, owner);
        file.reset(zopenRegularFile(path_.getChars(), O_RDONLY));
        if (file.get() < 0 && (errno == ENOENT || errno == ENOTDIR))
            return 0;
        if (file.get() < 0)
            zraiseIO(path_.getChars(), "fopen(r)", errno);
        const ZFailure failure = zlockWholeFile(file.get(), F_RDLCK, owner, 0);
        if (failure.isLockedByOthers())
            return 0;
        zcheckIO(failure.of(path_.getChars()));
        watch_->noteReading(file.get());
        // A content that can't be read raises here, before the object is touched, and once.
        pending_ = false;
        std::unique_ptr<ZPCache> fresh(known.cache().clone());
        fresh->clear();
        known.readInto(*fresh, path_, file.get());
        zfindDifferences(known.cache(), *fresh, differences);
        if (differences.empty() && known.dialect() == nullptr &&
            wouldStoreTheSame(known.cache(), *fresh)) {
            known.keepStamp(file.get());
        } else {
            pending_ = true;  // should this reading fail, the next call tries again
            known.readAnew(path_, file.get(), lock);
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
    ZPropertiesFile::of(properties_).tell(change);
}
