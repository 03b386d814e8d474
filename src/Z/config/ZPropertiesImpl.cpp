// ZPropertiesImpl.cpp: load and store.
//
// Two processes meet only in a record lock on the stanza file itself and in its modification time.
// The lock is taken without waiting, unless the object was told to wait. It belongs to the process
// and to the file: closing any descriptor of that file drops it, so nothing here opens the file a
// second time while it is held.
//
// Order of locks: an object's lock_, the record lock.
//
// Built with 64-bit file offsets and times on 32-bit machines too.
#include "ZPropertiesImpl.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "ZExceptionText.h"
#include "zassert.h"
#include "zdialectmodel.h"
#include "zinternal.h"
#include "zkeeplines.h"
#include "zmemorystream.h"
#include "zmodelcontent.h"
#include "zmodeledits.h"
#include "zmodelreading.h"
#include "zqelutil.h"
#include "zraise.h"
#include "zsafestore.h"
#include "zscope.h"
#include "zsidefile.h"
#include "zgrammar.h"

static const long kNoTime = LONG_MIN;

// ---------------------------------------------------------------- plain functions

void checkFileAccess(const char* file) {
    if (access(file, F_OK) == 0) {
        if (access(file, R_OK | W_OK) != 0)
            zraiseIO(file, "access()", errno);
        return;
    }
    ZLCString directory;
    if (znameOf(file) == file) {
        static const size_t kRoom = 1024;
        std::unique_ptr<char, decltype(&free)> room(static_cast<char*>(malloc(kRoom)), &free);
        if (room == nullptr)
            zraise(ZOutOfMemoryException());
        if (getcwd(room.get(), kRoom) == nullptr)
            zraiseIO(".", "access()", errno);
        directory = room.get();
    } else {
        directory = zfolderOf(file);
    }
    if (access(directory.getChars(), R_OK | W_OK) != 0) {
        const int error = errno;
        zraiseIO(directory.getChars(), "access()", error);
    }
}

int checkAndSetTimeStamp(const char* file, long& timeStamp) {
    struct stat status;
    if (access(file, F_OK) != 0 || stat(file, &status) != 0)
        return 0;
    const long time = static_cast<long>(status.st_mtime);
    if (time == timeStamp)
        return 0;
    timeStamp = time;
    return 1;
}

bool zisBusy(const ZPropertiesIOException& e) {
    return ZFailure{"", e.excerrno(), nullptr}.isLockedByOthers() &&
           (strcmp(e.api(), "fcntl()") == 0 || strcmp(e.api(), "load()") == 0);
}

void makeObfuscatedDBName(const char* file, ZLCString& out) {
    char directory[4096];
    out.clear();
    if (*file != '/' && getcwd(directory, sizeof directory) != nullptr)
        out.append(directory).append('/');
    out.append(file).append(kSideSuffix);
}

// ---------------------------------------------------------------- the object and its options

ZPropertiesFile::ZPropertiesFile(ZProperties& object)
    : object_(object),
      changeTest_(ZPROP_CHANGE_SECONDS),
      outcome_(kLoaded),
      storeMode_(ZPROP_STORE_PLAIN),
      lastStoreMode_(ZPROP_STORE_PLAIN),
      lockWait_(0),
      waits_(true),
      mayStoreAnyway_(false),
      hasStamp_(false),
      stamp_(),
      update_(nullptr) {}

void ZPropertiesFile::tell(const ZPropertyChanged& change) {
    object_.sendChangeNotice(change.style, change.changeType, change.stanza, change.key);
}

ZLCString ZPropertiesFile::choosePath(const char* file) const {
    if (zhasText(file))
        return ZLCString(file);
    zrequire(object_.fileName_.getLength() != 0);
    return object_.fileName_;
}

ZLockTerms ZPropertiesFile::lockTerms() const {
    return {storeMode_ == ZPROP_STORE_PLAIN ? zlockOfProcess : zlockOfDescription,
            waits_ ? lockWait_ : 0};
}

// Whether failures are told that plain objects pass over.
bool ZPropertiesFile::isCareful() const {
    return storeMode_ != ZPROP_STORE_PLAIN || cache().isStrict() != 0;
}

void ZPropertiesFile::keepStamp(int descriptor) { hasStamp_ = !zstampFile(descriptor, stamp_); }

// The object holds what the file held when it was stamped.
void ZPropertiesFile::noteContent() {
    object_.resetModified();
    if (hasStamp_)
        object_.timeStamp_ = zsecondsOf(stamp_);
}

// The open update through whose descriptor this path is reached, or null.
ZUpdatedFile* ZPropertiesFile::updateOf(const ZLCString& path) const {
    return update_ != nullptr && zleadsTo(path.getChars(), update_->descriptor) ? update_ : nullptr;
}

// ---------------------------------------------------------------- load

void ZPropertiesFile::readInto(ZPCache& cache, const ZLCString& path, int descriptor) const {
    ZFileContent content;
    zreadContent(cache, path, {descriptor}, true, content);
}

// Reads the file under the lock that its descriptor has into the object's own cache, as a load; its
// bytes are wanted in `content`, or null. `close` gives the lock up, ahead of calls to others.
template <typename Close>
void ZPropertiesFile::readFile(const ZLCString& path, ZFileToRead file, ZFileContent* content,
                               Close close) {
    object_.loading_ = 1;  // no change notice goes out meanwhile
    const ZAtEnd loaded([this] { object_.loading_ = 0; });
    // Ahead of the reading: what somebody writes meanwhile is news.
    ZFileStamp stamp = {};
    const bool isStamped = !zstampFile(file.descriptor, stamp);
    hasStamp_ = false;
    file.size = stamp.isRegular ? stamp.size : 0;
    ZFileContent own;
    const int incomplete =
        zreadContent(cache(), path, file, content != nullptr, content != nullptr ? *content : own);
    if (incomplete != 0 && isCareful()) {
        outcome_ = kIncomplete;
        zraiseIO(path.getChars(), "read()", incomplete);
    }
    close();
    object_.postLoad(path.getChars());
    if (!hasStamp_) {  // which a store by postLoad has taken
        stamp_ = stamp;
        hasStamp_ = isStamped;
    }
    noteContent();
    outcome_ = incomplete != 0 ? kIncomplete : kLoaded;
    mayStoreAnyway_ = false;
}

void ZPropertiesFile::readAnew(const ZLCString& path, int descriptor, ZLockScope& fileLock) {
    zassert(lock().isHeld());
    ZFileContent content;
    cache().clear();
    outcome_ = kIncomplete;
    readFile(path, {descriptor}, &content, [&fileLock] { fileLock.close().passOver(); });
}

void ZPropertiesFile::load(const char* file) {
    zassert(lock().isHeld());
    const ZLCString path(choosePath(file));
    if (object_.fileName_.getLength() == 0)
        object_.fileName_ = path;
    outcome_ = kFailed;
    if (ZUpdatedFile* update = updateOf(path)) {
        outcome_ = kIncomplete;
        readFile(path, {update->descriptor}, &update->content, [] {});
        return;
    }
    bool isDirect;
    const ZLockTerms terms = lockTerms();
    ZOpenFile opened;
    ZLockScope fileLock(opened, terms.owner);
    opened.reset(zopenToRead(path.getChars(), isCareful(), isDirect));
    if (opened.get() < 0)
        zraiseIO(path.getChars(), "fopen(r)", errno);
    if (ZModelReading::isOwn(cache())) {
        zcheckIO(
            zlockWholeFile(opened.get(), F_RDLCK, terms.owner, terms.wait).of(path.getChars()));
        readFile(path, {opened.get(), nullptr, isDirect}, nullptr,
                 [&] { fileLock.close().passOver(); });
    } else {
        ZLockedStream stream(fileLock.forksBefore());
        stream.take(zstreamOn(opened.release(), "r"), "fopen(r)", path.getChars(), F_RDLCK, terms);
        readFile(path, {stream.descriptor(), stream.get(), isDirect}, nullptr,
                 [&] { stream.close(); });
    }
}

void ZPropertiesFile::reload(const char* file) {
    zassert(lock().isHeld());
    choosePath(file);
    const ZLCString path(file);  // whose text may be the cache's
    cache().clear();
    object_.load(path.getChars());
}

// ---------------------------------------------------------------- shared objects

template <typename Call>
void ZPropertiesFile::withoutWaiting(Call call) {
    const ZAtEnd again([this, waited = waits_] { waits_ = waited; });
    waits_ = false;
    call();
}

void ZPropertiesFile::loadWithoutWaiting(const char* file) {
    ZResourceLock guard(lock());
    withoutWaiting([&] { object_.load(file); });
}

// Whether the file may have changed since this object was loaded or stored, by all that can be
// known.
bool ZPropertiesFile::isOutdated(const char* file) const {
    ZResourceLock guard(lock());
    ZFileStamp now;
    if (zstampFile(file, now))
        return false;  // a file that has vanished is no reason to reload: nothing could be read
    return !hasStamp_ || !zsameContent(stamp_, now);
}

// The test for seconds takes no lock, so that who needs no reload waits for nobody.
bool ZPropertiesFile::isCurrent(const char* file, int forceReload, long& stamp) const {
    if (forceReload == 0 && object_.isModified() != 0)
        return true;
    stamp = object_.timeStamp_;
    const int otherSecond = checkAndSetTimeStamp(file, stamp);
    return forceReload == 0 &&
           !(changeTest_ == ZPROP_CHANGE_EXACT ? isOutdated(file) : otherSecond != 0);
}

// Whether there is anything to do is asked twice: before the wait for the object, and again under
// its lock, since the thread that held it may have changed or reloaded it.
void ZPropertiesFile::follow(const char* file, int forceReload) {
    long stamp;
    if (isCurrent(file, forceReload, stamp))
        return;
    ZResourceLock guard(lock());
    if (isCurrent(file, forceReload, stamp))
        return;
    const long before = object_.timeStamp_;
    object_.timeStamp_ = stamp;
    try {
        withoutWaiting([&] { object_.reload(file); });
    } catch (...) {
        // The next caller tries again, instead of being handed an emptied object: by the old time,
        // or where that is the file's still, by one that no file has.
        object_.timeStamp_ = stamp != before ? before : kNoTime;
        object_.resetModified();  // these changes are gone
        throw;
    }
}

// ---------------------------------------------------------------- updates

std::unique_ptr<ZLockedFile> ZPropertiesFile::openToUpdate(unsigned long wait) {
    return std::unique_ptr<ZLockedFile>(
        new ZLockedFile(path().getChars(), {zlockOfDescription, wait}, false));
}

void ZPropertiesFile::beginUpdate(ZUpdatedFile& file) {
    zassert(lock().isHeld() && update_ == nullptr);
    // Always anew: what a stamp doesn't tell would be overwritten.
    cache().clear();
    outcome_ = kIncomplete;
    readFile(object_.fileName_, {file.descriptor}, &file.content, [] {});
    update_ = &file;
}

void ZPropertiesFile::restore(const ZUpdatedFile& file) {
    zassert(lock().isHeld() && update_ == &file);
    object_.loading_ = 1;
    const ZAtEnd restored([this] { object_.loading_ = 0; });
    try {
        cache().clear();
        zreadText(cache(), object_.fileName_.getChars(), zspanOf(file.content.text));
        if (file.content.side.size() != 0)
            zreadSide(cache(), zspanOf(file.content.side));
    } catch (...) {
        // The object isn't what the file holds any more: no store but a plain one puts it in the
        // file's place.
        hasStamp_ = false;
        outcome_ = kFailed;
        throw;
    }
    object_.resetModified();
}

// ---------------------------------------------------------------- store

// Where the side database is or, if there is to be one, will be; else empty.
ZLCString ZPropertiesFile::settleSideName(const ZLCString& path) {
    ZLCString name(cache().obfuscatedDBName());
    if (cache().obfuscatedCount() != 0) {
        if (name.getLength() == 0) {
            makeObfuscatedDBName(path.getChars(), name);
            cache().setObfuscatedDBName(name.getChars());
            // A text from memory may name that of another file.
            if (object_.fileName_.isEmpty())
                cache().delLine(kSideStanza, kSideKey);
        }
        checkFileAccess(name.getChars());
    }
    return name;
}

// A text names its side database.
void ZPropertiesFile::addSideLine(const ZLCString& side) {
    if (object_.exists(kSideStanza, kSideKey) == 0)
        cache().addLine(kSideStanza, kSideKey, side.getChars(), 0);
}

// The name under which a store that was stopped may have left something, too.
static ZLCString ownOrDefault(const ZLCString& sideName, const ZLCString& path) {
    ZLCString name(sideName);
    if (name.getLength() == 0)
        makeObfuscatedDBName(path.getChars(), name);
    return name;
}

// Asks whether the side database, if there is a name for one, may be what a store removes or
// writes, before the text is touched; and removes one that isn't wanted any more, whatever comes of
// it. A text that isn't there yet will be the caller's.
static void requireSideFile(const ZLCString& name, const ZLCString& path, bool isWanted) {
    if (name.getLength() == 0)
        return;
    const ZOpenFile text(zopenFile(path.getChars(), O_PATH));  // which no lock goes with
    ZSideFile side(name.getChars(), text.get());
    zcheckIO(side.examine(isWanted));
    if (!isWanted)
        side.remove().passOver();
}

// Cuts off what lies behind the stream's position. Where nothing does, the system isn't asked to,
// since it takes longer over that than over all the rest.
void ZPropertiesFile::truncateAndStamp(FILE* stream) {
    fflush(stream);
    const off_t end = ftello(stream);
    const int descriptor = fileno(stream);
    keepStamp(descriptor);
    if (end < 0 || (hasStamp_ && stamp_.size <= static_cast<uint64_t>(end)))
        return;
    // A tail of the old text may stay; the result isn't looked at by design.
    zresultOf(ftruncate(descriptor, end), "ftruncate()").passOver();
    keepStamp(descriptor);
}

static ZSpan spanOf(const ZBuffer& buffer) {
    return {static_cast<const char*>(buffer.getBuffer()), buffer.getLength()};
}

static FILE* openPlainly(const char* path) {
    const ZUncancelled uncancelled;
    FILE* opened = fopen(path, "r+e");
    return opened == nullptr && errno == ENOENT ? fopen(path, "w+e") : opened;
}

void ZPropertiesFile::writeSidePlainly(const ZLCString& name, int descriptor) {
    const ZUncancelled uncancelled;
    ZBuffer buffer;
    cache().be_write_obfuscated(buffer);
    ZSideFile side(name.getChars(), descriptor);
    zcheckIO(side.examine(true));
    if (buffer.getLength() == 0) {
        side.remove().passOver();
        cache().delLine(kSideStanza, kSideKey);
        return;
    }
    zcheckIO(side.prepare(spanOf(buffer), ZPROP_STORE_PLAIN));
    side.takePlace().passOver();
    addSideLine(name);
}

// What the disk does with the bytes isn't looked at.
void ZPropertiesFile::storePlainly(const ZLCString& path) {
    ZSizeSignalGuard noSignal;
    const ZLCString name(settleSideName(path));
    const bool hasHidden = cache().obfuscatedCount() != 0;
    requireSideFile(name, path, hasHidden);
    if (!hasHidden)
        cache().delLine(kSideStanza, kSideKey);
    ZLockedStream stream;  // a new one stands at the start
    stream.take(openPlainly(path.getChars()), "fopen(r+)", path.getChars(), F_WRLCK, lockTerms());
    const int descriptor = stream.descriptor();
    if (hasHidden)
        writeSidePlainly(name, descriptor);
    cache().be_write(path.getChars(), stream.get());
    truncateAndStamp(stream.get());
    // What a store that was stopped had in mind is void now, and what it has left goes.
    ZSideFile(ownOrDefault(name, path).getChars(), descriptor).clearLeft().passOver();
    ZJournal(path.getChars(), descriptor).remove().passOver();
    stream.close();
}

void ZPropertiesFile::store(const ZLCString& path) {
    zassert(lock().isHeld() && path.getLength() != 0);
    zrequire(outcome_ == kLoaded || (outcome_ == kFailed && storeMode_ == ZPROP_STORE_PLAIN) ||
             mayStoreAnyway_);
    ZUpdatedFile* update = updateOf(path);
    // What was made of one file isn't put in the place of another.
    if (update == nullptr && update_ != nullptr && path.equals(object_.fileName_))
        zraiseIO(path.getChars(), "stat()", ESTALE);
    if (update != nullptr)
        storeTo(update->descriptor, path, &update->content);
    else if (storeMode_ == ZPROP_STORE_PLAIN && !keepsLines() && cache().isStrict() == 0)
        storePlainly(path);
    else
        storeCarefully(path);
    noteContent();
    object_.loading_ = 0;
    outcome_ = kLoaded;
    mayStoreAnyway_ = false;
}

void ZPropertiesFile::storeCarefully(const ZLCString& path) {
    ZLockedFile file(path.getChars(), lockTerms(), true);
    storeTo(file.descriptor(), path, nullptr);
    const ZFailure failure = file.finish();
    // A synced file has nothing left to lose.
    if (storeMode_ == ZPROP_STORE_CHECKED)
        zcheckIO(failure);
}

// The line of a text that a load would take apart, as bad data.
static void requireShortLines(const char* path, ZSpan text) {
    int line = 0;
    for (size_t at = 0; at < text.size;) {
        const size_t length = zlineLength(text.data + at, text.size - at, SIZE_MAX);
        ++line;
        if (length > kLongestLine) {
            const ZLCString data(text.data + at, static_cast<unsigned int>(length));
            zraise(ZPropertiesInvalidDataException(path, data.getChars(), line));
        }
        at += length;
    }
}

void ZPropertiesFile::setDialect(const ZDialect& dialect) {
    const ZDialectClash clash = zdialectClash(dialect);
    if (clash.first != nullptr)
        zrequireNoFault({clash.first, clash.second});
    setOwnDialect(dialect);
}

void ZPropertiesFile::setOwnDialect(const ZDialect& dialect) {
    zrequire(cache().count() == 0 && path().getLength() == 0 && ZModelReading::isOwn(cache()));
    cache().clear();
    ZDialect own(dialect);
    own.size = sizeof own;  // what a later version may have added is zero
    ZModelReading::storeOf(static_cast<ZSCFData&>(cache()))
        .setDialect(std::make_shared<const ZDialect>(own));
    hasOrphans_ = own.orphans == ZDIALECT_ORPHANS;
}

void ZPropertiesFile::requireSeveralValues() const {
    if (dialect() != nullptr && dialect()->values == ZDIALECT_LAST_VALUE)
        zrequireNoFault({"a key", "can't have several values"});
}

bool ZPropertiesFile::addDialectComment(const char* stanza, const char* key, const char* text) {
    if (dialect() == nullptr)
        return false;
    ZModelEdits::addComment(static_cast<ZSCFData&>(cache()), stanza, key, text);
    return true;
}

ZSpan ZPropertiesFile::finishText(const ZLCString& path, ZSpan oldText, ZSpan text,
                                  ZBytes& kept) const {
    if (dialect() != nullptr) {
        const ZPStore& store = ZModelReading::storeOf(static_cast<ZSCFData&>(cache()));
        ZBytes room;
        // Another file becomes as the one that was read.
        const bool isOther = oldText.size == 0 || !path.equals(object_.fileName_);
        const ZSpan read = store.readText();
        zdialectRewrite(
            *dialect(), store,
            ZModelEdits::oldText(cache(), isOther && read.size != 0 ? read : oldText, room), kept,
            path.getChars());
        return zspanOf(kept);
    }
    if ((cache().attributes() & ZPCACHE_KEEP_LINES) != 0) {
        ZBytes room;
        zkeepLines(ZModelEdits::oldText(cache(), oldText, room), text, kept);
        text = zspanOf(kept);
    }
    if (cache().isStrict() != 0)
        requireShortLines(path.getChars(), text);
    return text;
}

// Puts the object's content into the file under the lock that its descriptor has; `content` is what
// the file holds then.
void ZPropertiesFile::storeTo(int descriptor, const ZLCString& path, ZFileContent* content) {
    const ZUncancelled uncancelled;
    const ZLCString named(settleSideName(path));
    ZBuffer hidden;
    if (cache().obfuscatedCount() != 0)
        cache().be_write_obfuscated(hidden);
    const ZSideAction action = hidden.getLength() != 0  ? zsideReplaced
                               : named.getLength() != 0 ? zsideRemoved
                                                        : zsideUntouched;
    ZSideFile side(ownOrDefault(named, path).getChars(), descriptor);
    if (action != zsideUntouched)
        zcheckIO(side.examine(action == zsideReplaced));
    if (action == zsideReplaced)
        addSideLine(named);
    else if (dialect() == nullptr)
        cache().delLine(kSideStanza, kSideKey);

    ZJournal journal(path.getChars(), descriptor);
    if (journal.find()) {
        zfinishJournal(journal);
        if (action != zsideUntouched)  // which may have made or removed it
            zcheckIO(side.examine(action == zsideReplaced));
    }
    ZMemoryStream stream;
    ZBytes oldText, kept;
    if (dialect() == nullptr)
        cache().be_write(path.getChars(), stream.get());
    if (storeMode_ != ZPROP_STORE_PLAIN || keepsLines())
        zcheckIO(zreadWholeFile(descriptor, oldText).of(path.getChars()));
    const ZSpan text = finishText(path, zspanOf(oldText), stream.finish(), kept);
    const ZStoreWork work(text, zspanOf(oldText), action, side, spanOf(hidden));
    ZSCFData renumbered;  // likewise
    const bool isRenumbered = ZModelEdits::renumber(cache(), text, renumbered);
    ZFileContent stored;  // made ahead: what is in place can't fail for want of memory
    if (content != nullptr) {
        zcopyBytes(work.text, stored.text);
        zcopyBytes(work.sideBytes, stored.side);
    }
    lastStoreMode_ = zstore(work, journal, storeMode_);
    if (content != nullptr)
        content->swap(stored);
    // Another file is a copy.
    const bool isOwn = path.equals(object_.fileName_) != 0;
    if (isOwn)
        ZModelEdits::noteStored(cache(), std::move(kept));
    if (isOwn && isRenumbered)
        ZModelContent::take(static_cast<ZSCFData&>(cache()), renumbered);
    keepStamp(descriptor);
}
