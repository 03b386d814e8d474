// ZPropertiesImpl.cpp: load, store and the registry.
//
// Two processes meet only in a record lock on the stanza file itself and in its modification time.
// The lock is taken without waiting. It belongs to the process and to the file: closing any
// descriptor of that file drops it, so nothing here opens the file a second time while it is held.
//
// Order of locks: an object's lock_, ZPropRegistry; an object's lock_, the record lock. The
// registry is held to look or to enter something, and never while an object is made, loaded or
// waited for: who holds that object may want the registry, too.
//
// Built with 64-bit file offsets and times on 32-bit machines too.
#include "ZPropertiesImpl.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "ZExceptionText.h"
#include "ZProperties.h"
#include "zraise.h"
#include "zinternal.h"
#include "zkeeplines.h"
#include "zlockedfile.h"
#include "zpropoptions.h"
#include "zqelutil.h"
#include "zsafestore.h"
#include "zscope.h"
#include "zsidefile.h"
#include "zsidenames.h"
#include "zstrict.h"

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

void makeObfuscatedDBName(const char* file, ZLCString& out) {
    char directory[4096];
    out.clear();
    if (*file != '/' && getcwd(directory, sizeof directory) != nullptr)
        out.append(directory).append('/');
    out.append(file).append(kSideSuffix);
}

// ---------------------------------------------------------------- shared by load and store

// The path that a call means.
static ZLCString choosePath(const char* file, const ZLCString& own) {
    if (file != nullptr && *file != '\0')
        return ZLCString(file);
    zrequire(own.getLength() != 0);
    return own;
}

// The open update through whose stream this path is reached, or null.
ZUpdatedFile* ZProperties::updateOf(const ZLCString& path) const {
    ZUpdatedFile* update = optionsNow().update;
    return update != nullptr && zleadsTo(path.getChars(), update->descriptor) ? update : nullptr;
}

// Cuts off what lies behind the stream's position. Where nothing does, the system isn't asked to,
// since it takes longer over that than over all the rest.
static void truncateHere(FILE* stream) {
    fflush(stream);
    const off_t end = ftello(stream);
    struct stat status;
    if (end < 0 || (fstat(fileno(stream), &status) == 0 && status.st_size <= end))
        return;
    if (ftruncate(fileno(stream), end) != 0) {
        // A tail of the old text may stay; the result isn't looked at by design.
    }
}

static ZSpan spanOf(const ZBuffer& buffer) {
    return {static_cast<const char*>(buffer.getBuffer()), buffer.getLength()};
}

// ---------------------------------------------------------------- load

// Reads the file under the lock that its descriptor has: its own bytes, or what a store that was
// stopped had written down for it; and its side database. `stream` is the plain way to the bytes,
// null where the descriptor alone is at hand or the bytes are wanted in `content` too. 0, or the
// errno of a reading by the stream that came to no end.
int ZProperties::readContent(ZPCache& cache, const ZLCString& path, int descriptor, FILE* stream,
                             ZFileContent* content) const {
    ZFileContent own;
    ZFileContent& bytes = content != nullptr ? *content : own;
    bytes.side.setSize(0);
    int incomplete = 0;
    ZJournal journal(path.getChars(), descriptor);
    const bool unfinished = journal.find();
    if (!unfinished && stream != nullptr) {
        cache.be_read(path.getChars(), stream);
        incomplete = cache.readError();
        if (incomplete == 0 && ferror(stream) != 0)
            incomplete = EIO;
        if (incomplete != 0)
            return incomplete;
    } else {
        if (unfinished) {
            zcopyBytes(journal.text(), bytes.text);
        } else if (const int error = zreadWholeFile(descriptor, bytes.text)) {
            zraiseIO(path.getChars(), "read()", error);
        }
        zreadText(cache, path.getChars(), zspanOf(bytes.text));
    }
    const ZLCString name(cache.obfuscatedDBName());
    if (name.getLength() == 0 || (unfinished && journal.sideAction() == zsideRemoved))
        return 0;
    if (unfinished && journal.sideAction() == zsideReplaced)
        zcopyBytes(journal.side(), bytes.side);
    else
        zcheckIO(name.getChars(), zreadSideFile(name.getChars(), descriptor, bytes.side));
    zreadSide(cache, zspanOf(bytes.side));
    return 0;
}

// The same into the object's own cache, as a load. `close` gives the lock up, ahead of calls to
// others.
template <typename Close>
void ZProperties::readFile(const ZLCString& path, int descriptor, FILE* stream,
                           ZFileContent* content, Close close) {
    loading_ = 1;  // no change notice goes out meanwhile
    const ZAtEnd loaded([this] { loading_ = 0; });
    if (options_ != nullptr)
        options_->keepStamp(descriptor);
    const int incomplete = readContent(*cache_, path, descriptor, stream, content);
    if (incomplete != 0 && isCareful()) {
        loadFailed_ = kIncomplete;
        zraiseIO(path.getChars(), "read()", incomplete);
    }
    close();
    postLoad(path.getChars());
    noteContent(path);
    loadFailed_ = incomplete != 0 ? kIncomplete : kLoaded;
    if (options_ != nullptr)
        options_->storeAllowed = false;
}

// Should these fail, nobody stores what is left.
void ZProperties::readUpdatedFile(const ZLCString& path, ZUpdatedFile& file) {
    loadFailed_ = kIncomplete;
    readFile(path, file.descriptor, nullptr, &file.content, [] {});
}

void ZProperties::readAndUnlock(const ZLCString& path, int descriptor, ZLockScope& lock) {
    loadFailed_ = kIncomplete;
    readFile(path, descriptor, nullptr, nullptr, [&lock] { lock.close(); });
}

// Whether failures are told that plain objects pass over.
bool ZProperties::isCareful() const {
    return optionsNow().storeMode != ZPROP_STORE_PLAIN || cache_->isStrict() != 0;
}

// The object holds what the file holds.
void ZProperties::noteContent(const ZLCString& path) {
    resetModified();
    long stamp = timeStamp_;
    checkAndSetTimeStamp(path.getChars(), stamp);
    timeStamp_ = stamp;
}

void ZProperties::load(const char* file) {
    ZResourceLock guard(lock_);
    const ZLCString path(choosePath(file, fileName_));
    if (fileName_.getLength() == 0)
        fileName_ = path;
    loadFailed_ = kFailed;
    if (ZUpdatedFile* update = updateOf(path)) {
        readUpdatedFile(path, *update);
        return;
    }
    ZReadFile opened(path.getChars(), isCareful(), optionsNow().lockOwner(), optionsNow().wait());
    readFile(path, opened.descriptor(), opened.stream(), nullptr, [&opened] { opened.close(); });
}

void ZProperties::reload(const char* file) {
    ZResourceLock guard(lock_);
    choosePath(file, fileName_);
    const ZLCString path(file);  // whose text may be the cache's
    cache_->clear();
    load(path.getChars());
}

// ---------------------------------------------------------------- store

// What becomes of the side database, whose path is settled here.
bool ZProperties::prepareSideDatabase(const ZLCString& path, ZLCString& side) {
    side = cache_->obfuscatedDBName();
    if (cache_->obfuscatedCount() != 0) {
        if (side.getLength() == 0) {
            makeObfuscatedDBName(path.getChars(), side);
            cache_->setObfuscatedDBName(side.getChars());
        }
        checkFileAccess(side.getChars());
        return true;
    }
    return false;
}

// A text names its side database.
void ZProperties::addSideLine(const ZLCString& side) {
    if (exists(kSideStanza, kSideKey) == 0)
        cache_->addLine(kSideStanza, kSideKey, side.getChars(), 0);
}

// Asks whether the side database, if there is a name for one, may be what a store removes or
// writes, ahead of both; and removes one that isn't wanted any more, whatever comes of it. A text
// that isn't there yet will be the caller's.
static void requireSideFile(const ZLCString& name, const ZLCString& path, bool isWanted,
                            bool isToGo) {
    if (name.getLength() == 0)
        return;
    const ZOpenFile text(zopenFile(path.getChars(), O_PATH));  // which no lock goes with
    ZSideFile side(name.getChars(), text.get());
    zcheckIO(side.name(), side.examine(isWanted));
    if (!isWanted && isToGo)
        side.remove();
}

static FILE* openPlainly(const char* path) {
    const ZUncancelled uncancelled;
    FILE* opened = fopen(path, "r+e");
    return opened == nullptr && errno == ENOENT ? fopen(path, "w+e") : opened;
}

void ZProperties::storePlainly(const ZLCString& path) {
    ZSizeSignalGuard noSignal;
    ZLCString name;
    const bool hasHidden = prepareSideDatabase(path, name);
    requireSideFile(name, path, hasHidden, true);
    if (!hasHidden)
        cache_->delLine(kSideStanza, kSideKey);
    ZStreamRoom room;
    ZStreamGuard stream(openPlainly(path.getChars()));
    if (stream.get() == nullptr)
        zraiseIO(path.getChars(), "fopen(r+)", errno);
    room.lendTo(stream.get());
    const int descriptor = fileno(stream.get());
    // A new stream stands at the start.
    const int error =
        zlockWholeFile(descriptor, F_WRLCK, optionsNow().lockOwner(), optionsNow().wait());
    if (error != 0)
        zraiseIO(path.getChars(), "fcntl()", error);
    if (hasHidden) {
        const ZUncancelled uncancelled;
        ZBuffer buffer;
        cache_->be_write_obfuscated(buffer);
        ZSideFile side(name.getChars(), descriptor);
        zcheckIO(side.name(), side.examine(true));
        if (buffer.getLength() == 0) {
            side.remove();
            cache_->delLine(kSideStanza, kSideKey);
        } else {
            zcheckIO(side.name(), side.prepare(spanOf(buffer), ZPROP_STORE_PLAIN));
            side.takePlace();
            addSideLine(name);
        }
    }
    cache_->be_write(path.getChars(), stream.get());
    truncateHere(stream.get());
    if (options_ != nullptr)
        options_->keepStamp(descriptor);
    // What a store that was stopped had in mind is void now, and what it has left goes.
    ZLCString sideName(name);
    if (sideName.getLength() == 0)
        makeObfuscatedDBName(path.getChars(), sideName);
    ZSideFile(sideName.getChars(), descriptor).clearLeft();
    ZJournal(path.getChars(), descriptor).remove();
    stream.close();
}

void ZProperties::store(const char* file) {
    ZLCString path(file);
    if (path.getLength() == 0) {
        ZResourceLock guard(lock_);
        path = choosePath(file, fileName_);
    }
    checkFileAccess(path.getChars());
    ZResourceLock guard(lock_);
    const bool mayReplace =
        loadFailed_ == kLoaded ||
        (loadFailed_ == kFailed && optionsNow().storeMode == ZPROP_STORE_PLAIN) ||
        optionsNow().storeAllowed;
    zrequire(mayReplace);
    static const unsigned long kOwnText = ZPCACHE_KEEP_LINES | ZPCACHE_STRICT;
    ZUpdatedFile* update = updateOf(path);
    // What was made of one file isn't put in the place of another.
    if (update == nullptr && optionsNow().update != nullptr && path.equals(fileName_))
        zraiseIO(path.getChars(), "stat()", ESTALE);
    if (update != nullptr)
        storeTo(update->descriptor, path, &update->content);
    else if (optionsNow().storeMode == ZPROP_STORE_PLAIN && (cache_->attributes() & kOwnText) == 0)
        storePlainly(path);
    else
        storeCarefully(path);
    noteContent(path);
    loading_ = 0;
    loadFailed_ = kLoaded;
    if (options_ != nullptr)
        options_->storeAllowed = false;
}

// ---------------------------------------------------------------- store with options

void ZProperties::storeCarefully(const ZLCString& path) {
    ZLockedFile file(path.getChars(), optionsNow().lockOwner(), optionsNow().wait(), true);
    storeTo(file.descriptor(), path, nullptr);
    const int error = file.finish();
    // A synced file has nothing left to lose.
    if (error != 0 && optionsNow().storeMode == ZPROP_STORE_CHECKED)
        zraiseIO(path.getChars(), "close()", error);
}

// The line of a text that a load would take apart, as bad data.
static void requireShortLines(const char* path, ZSpan text) {
    int line = 0;
    for (size_t at = 0; at < text.size;) {
        const size_t left = text.size - at;
        const void* newline = memchr(text.data + at, '\n', left);
        const size_t length =
            newline == nullptr ? left : static_cast<const char*>(newline) - (text.data + at) + 1;
        ++line;
        if (length > kLongestLine) {
            const ZLCString data(text.data + at, static_cast<unsigned int>(length));
            zraise(ZPropertiesInvalidDataException(path, data.getChars(), line));
        }
        at += length;
    }
}

// Puts the object's content into the file under the lock that its descriptor has; `content` is what
// the file holds then.
void ZProperties::storeTo(int descriptor, const ZLCString& path, ZFileContent* content) {
    const ZUncancelled uncancelled;
    const int mode = optionsNow().storeMode;
    ZStoreWork work(descriptor, path.getChars());
    ZBuffer packed;
    if (prepareSideDatabase(path, work.sideName))
        cache_->be_write_obfuscated(packed);
    requireSideFile(work.sideName, path, packed.getLength() != 0, false);
    if (packed.getLength() != 0) {
        work.sideAction = zsideReplaced;
        work.side = spanOf(packed);
        addSideLine(work.sideName);
    } else {
        if (work.sideName.getLength() != 0)
            work.sideAction = zsideRemoved;
        else
            makeObfuscatedDBName(path.getChars(), work.sideName);
        cache_->delLine(kSideStanza, kSideKey);
    }

    ZJournal journal(path.getChars(), descriptor);
    if (journal.find())
        zfinishJournal(path.getChars(), descriptor, journal);
    ZMemoryStream stream;
    cache_->be_write(path.getChars(), stream.get());
    work.text = stream.finish();
    ZBytes oldText, kept;
    const bool keepsLines = (cache_->attributes() & ZPCACHE_KEEP_LINES) != 0;
    if (keepsLines || mode != ZPROP_STORE_PLAIN) {
        const int error = zreadWholeFile(descriptor, oldText);
        if (error != 0)
            zraiseIO(path.getChars(), "read()", error);
        work.oldText = zspanOf(oldText);
    }
    if (keepsLines) {
        zkeepLines(work.oldText, work.text, kept);
        work.text = zspanOf(kept);
    }
    if (cache_->isStrict() != 0)
        requireShortLines(path.getChars(), work.text);
    ZFileContent stored;  // made ahead: what is in place can't fail for want of memory
    if (content != nullptr) {
        zcopyBytes(work.text, stored.text);
        zcopyBytes(work.side, stored.side);
    }
    const int storedMode = zstore(work, journal, mode);
    if (content != nullptr)
        content->swap(stored);
    if (options_ != nullptr) {
        options_->lastStoreMode = storedMode;
        options_->keepStamp(descriptor);
    }
}

// ---------------------------------------------------------------- registry

ZAbstractPropertiesFactory::ZAbstractPropertiesFactory() : instances_(10, 0), names_(1, 1) {}

ZAbstractPropertiesFactory::~ZAbstractPropertiesFactory() noexcept {}

ZLock* ZPropRegistry::res_ = nullptr;

void ZPropRegistry::init() { res_ = new ZLock; }

ZPropRegistry::ZPropRegistry() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, &ZPropRegistry::init);
    res_->lock();
}

ZPropRegistry::~ZPropRegistry() noexcept(false) { res_->unlock(); }

namespace {

// Keeps an object from waiting for a file's lock. Needs the object's lock for as long.
class NoWait {
public:
    explicit NoWait(ZPropertiesOptions* options) : options_(options) {
        if (options_ != nullptr)
            options_->waits = false;
    }
    ~NoWait() {
        if (options_ != nullptr)
            options_->waits = true;
    }
    NoWait(const NoWait&) = delete;
    NoWait& operator=(const NoWait&) = delete;

private:
    ZPropertiesOptions* const options_;
};

// The turn to make and load an object for a new file, for a scope: one thread at a time, so that
// threads that ask for a file at once get one object, read once, and factories are called one by
// one. A factory, or a postLoad, that waits for an object which a thread holds that asks for a new
// file, waits for ever.
class FirstLoad {
public:
    FirstLoad() {
        const ZMutexScope guard(mutex_);
        while (depth_ != 0 && pthread_equal(thread_, pthread_self()) == 0)
            pthread_cond_wait(&ended_, &mutex_);
        thread_ = pthread_self();
        ++depth_;
    }
    ~FirstLoad() {
        const ZMutexScope guard(mutex_);
        if (--depth_ == 0)
            pthread_cond_signal(&ended_);
    }
    FirstLoad(const FirstLoad&) = delete;
    FirstLoad& operator=(const FirstLoad&) = delete;

private:
    static pthread_mutex_t mutex_;
    static pthread_cond_t ended_;
    static pthread_t thread_;  // whose turn it is; guarded by mutex_
    static int depth_;         // a load may ask for another file; guarded by mutex_
};

pthread_mutex_t FirstLoad::mutex_ = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t FirstLoad::ended_ = PTHREAD_COND_INITIALIZER;
pthread_t FirstLoad::thread_;
int FirstLoad::depth_;

}  // namespace

// Whether the file may have changed since this object was loaded or stored, by all that can be
// known.
bool ZProperties::isOutdated(const char* file) const {
    ZResourceLock guard(lock_);
    ZFileStamp now;
    if (zstampFile(file, now) != 0)
        return false;  // a file that has vanished is no reason to reload: nothing could be read
    return options_ == nullptr || !options_->hasStamp || !zsameContent(options_->stamp, now);
}

// Brings a shared object up to date. Whether there is anything to do is asked twice: before the
// wait for the object, so that a caller who needs no reload doesn't wait, and again under its lock,
// since the thread that held it may have changed or reloaded it.
void ZProperties::follow(const char* file, int forceReload) {
    const auto isCurrent = [&](long& stamp) {
        if (forceReload == 0 && isModified() != 0)
            return true;
        stamp = timeStamp_;
        const int otherSecond = checkAndSetTimeStamp(file, stamp);
        return forceReload == 0 && !(testsExactly() ? isOutdated(file) : otherSecond);
    };
    long stamp;
    if (isCurrent(stamp))
        return;
    ZResourceLock guard(lock_);
    if (isCurrent(stamp))
        return;
    const long before = timeStamp_;
    timeStamp_ = stamp;
    NoWait noWait(options_);
    try {
        reload(file);
    } catch (...) {
        // The next caller tries again, instead of being handed an emptied object: by the old time,
        // or where that is the file's still, by one that no file has.
        timeStamp_ = stamp != before ? before : kNoTime;
        resetModified();  // these changes are gone
        throw;
    }
}

ZProperties* ZProperties::findPropertiesFor(const char* file, ZAbstractPropertiesFactory& factory) {
    const ZLCConstString probe(file);
    ZPropRegistry registry;
    return static_cast<ZProperties*>(factory.instances_.getEntry(&probe));
}

ZProperties* ZProperties::getPropertiesFor(const char* file, ZAbstractPropertiesFactory& factory,
                                           int forceReload) {
    // The file is this thread's own to change: what it would get here is half done.
    zrequire(!zisUpdatedHere(file));
    ZProperties* known = findPropertiesFor(file, factory);
    if (known == nullptr) {
        FirstLoad turn;
        known = findPropertiesFor(file, factory);
        if (known == nullptr)
            return makePropertiesFor(file, factory);
    }
    // Objects of a registry stay: none is removed from it.
    known->follow(file, forceReload);
    return known;
}

ZProperties* ZProperties::makePropertiesFor(const char* file, ZAbstractPropertiesFactory& factory) {
    std::unique_ptr<ZProperties> made(factory.makePropertiesInstance());
    {
        ZResourceLock guard(made->lock_);
        NoWait noWait(made->options_);
        made->load(file);
    }
    std::unique_ptr<ZLCString> name(new ZLCString(file));
    ZPropRegistry registry;
    factory.names_.addNoCopy(name.get());
    factory.instances_.putEntry(name.release(), made.get());
    return made.release();
}
