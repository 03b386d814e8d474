// ZPropertiesImpl.cpp: load, store and the registry.
//
// Two processes meet only in a record lock on the stanza file itself and in its modification time.
// The lock is taken without waiting. It belongs to the process and to the file: closing any
// descriptor of that file drops it, so nothing here opens the file a second time while it is held.
//
// Order of locks: ZPropRegistry, an object's lock_, the record lock.
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
#include <memory>

#include "ZExceptionText.h"
#include "ZFileMap.h"
#include "ZProperties.h"
#include "zcheck.h"
#include "zfilestream.h"
#include "zinternal.h"
#include "zkeeplines.h"
#include "zlockedfile.h"
#include "zpropoptions.h"
#include "zqelutil.h"
#include "zsafestore.h"
#include "zsidenames.h"

static const long kNoTime = LONG_MIN;

// ---------------------------------------------------------------- plain functions

void checkFileAccess(const char* file) {
    if (access(file, F_OK) == 0) {
        if (access(file, R_OK | W_OK) != 0)
            Z_RAISE_IO(file, "access()", errno);
        return;
    }
    ZLCString directory;
    if (znameOf(file) == file) {
        static const size_t kRoom = 1024;
        std::unique_ptr<char, decltype(&free)> room(static_cast<char*>(malloc(kRoom)), &free);
        if (room == nullptr)
            ZOutOfMemoryException().throwException(__FILE__, __LINE__);
        if (getcwd(room.get(), kRoom) == nullptr)
            Z_RAISE_IO(".", "access()", errno);
        directory = room.get();
    } else {
        directory = zfolderOf(file);
    }
    if (access(directory.getChars(), R_OK | W_OK) != 0) {
        const int error = errno;
        Z_RAISE_IO(directory.getChars(), "access()", error);
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
    out.append(file).append(".obf");
}

// ---------------------------------------------------------------- shared by load and store

// The path that a call means.
static ZLCString choosePath(const char* file, const ZLCString& own) {
    if (file != nullptr && *file != '\0')
        return ZLCString(file);
    if (own.getLength() == 0)
        ZInvalidParameterException().throwException(__FILE__, __LINE__);
    return own;
}

// Locks the whole file as the object's options say.
static void lockFile(int descriptor, short type, const char* path,
                     const ZPropertiesOptions& options) {
    const int error = zlockWholeFile(descriptor, type, options.lockOwner(), options.wait());
    if (error != 0)
        Z_RAISE_IO(path, "fcntl()", error);
}

// The open update through whose stream this path is reached, or null.
const ZUpdatedFile* ZProperties::updateOf(const ZLCString& path) const {
    const ZUpdatedFile* update = optionsNow().update;
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

namespace {

// Counts as loading for a scope: no change notice goes out meanwhile.
class LoadingScope {
public:
    explicit LoadingScope(std::atomic<int>& loading) : loading_(loading) { loading_ = 1; }
    ~LoadingScope() { loading_ = 0; }
    LoadingScope(const LoadingScope&) = delete;
    LoadingScope& operator=(const LoadingScope&) = delete;

private:
    std::atomic<int>& loading_;
};

// Keeps descriptor 0 occupied for a scope: a file map takes a 0 from open for none.
class InputOccupied {
public:
    InputOccupied() : opened_(-1) {
        if (fcntl(0, F_GETFD) == -1)
            opened_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
    ~InputOccupied() {
        if (opened_ >= 0)
            close(opened_);
    }
    InputOccupied(const InputOccupied&) = delete;
    InputOccupied& operator=(const InputOccupied&) = delete;

private:
    int opened_;
};

class SideMap : public ZUnixFileMap {
public:
    explicit SideMap(const ZLCString& name) : ZUnixFileMap(name, mapRead, 1) {}
    unsigned long length() const { return length_; }
};

}  // namespace

// ---------------------------------------------------------------- load

static void readSideDatabase(ZPCache& cache) {
    const ZLCString name(cache.obfuscatedDBName());
    ZBuffer buffer;
    {
        InputOccupied occupied;
        SideMap map(name);
        int error = 0;
        void* bytes = map.mapfile(&error, 0);
        if (error != 0 || bytes == nullptr)
            Z_RAISE_IO(name.getChars(), "mapFile()", error);
        buffer.setBuffer(map.length(), bytes);
    }
    cache.be_read_obfuscated(buffer);
}

// Reads the file under the lock that its descriptor has: its own bytes, or what a store that was
// stopped had written down for it. `stream` is the plain way to the bytes, empty where the descriptor
// alone is at hand; it is closed as soon as nothing needs the lock any more.
void ZProperties::readContent(ZPCache& cache, const ZLCString& path, int descriptor,
                              ZStreamGuard& stream) const {
    ZJournal journal(path.getChars());
    const bool unfinished = journal.find(descriptor);
    if (unfinished) {
        zreadText(cache, path.getChars(), journal.text());
    } else if (stream.get() != nullptr) {
        cache.be_read(path.getChars(), stream.get());
    } else {
        ZBytes bytes;
        const int error = zreadWholeFile(descriptor, bytes);
        if (error != 0)
            Z_RAISE_IO(path.getChars(), "read()", error);
        zreadText(cache, path.getChars(), {bytes.data(), bytes.size()});
    }
    // A plain reader has never kept others waiting while it reads the side database.
    if (optionsNow().storeMode == ZPROP_STORE_PLAIN)
        stream.close();
    if (cache.obfuscatedDBName().getLength() == 0)
        return;
    if (unfinished && journal.sideAction() == zsideReplaced)
        zreadSide(cache, journal.side());
    else if (!unfinished || journal.sideAction() == zsideUntouched)
        readSideDatabase(cache);
}

// The same into the object's own cache, as the end of a load.
void ZProperties::readFile(const ZLCString& path, int descriptor, FILE* stream) {
    ZStreamGuard guard(stream);
    LoadingScope loading(loading_);
    if (options_ != nullptr)
        options_->keepStamp(descriptor);
    readContent(*cache_, path, descriptor, guard);
    guard.close();
    postLoad(path.getChars());
    noteContent(path);
    loadFailed_ = 0;
    if (options_ != nullptr)
        options_->storeAllowed = false;
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
    loadFailed_ = 1;
    if (const ZUpdatedFile* update = updateOf(path)) {
        readFile(path, update->descriptor, nullptr);
        return;
    }
    FILE* opened = fopen(path.getChars(), "r");
    if (opened == nullptr)
        Z_RAISE_IO(path.getChars(), "fopen(r)", errno);
    ZStreamRoom room;
    ZStreamGuard stream(opened);
    room.lendTo(opened);
    lockFile(fileno(opened), F_RDLCK, path.getChars(), optionsNow());
    readFile(path, fileno(opened), stream.release());
}

void ZProperties::reload(const char* file) {
    ZResourceLock guard(lock_);
    choosePath(file, fileName_);
    cache_->clear();
    load(file);
}

// ---------------------------------------------------------------- store

// Neither the stanza file itself nor anything but a regular file may be removed or overwritten as
// a side database.
static void requireSideFile(const char* name, const char* path) {
    struct stat side, text;
    if (stat(name, &side) != 0)
        return;
    const bool same =
        stat(path, &text) == 0 && side.st_dev == text.st_dev && side.st_ino == text.st_ino;
    if (same || !S_ISREG(side.st_mode))
        Z_RAISE_IO(name, "fopen(w)", EINVAL);
}

// Writes the side database under the stanza file's lock, with the stanza file's owner and mode. A
// new one is made for its owner alone first, so that its values are never readable in between.
static void writeSideDatabase(const char* name, const char* path, const ZBuffer& buffer) {
    requireSideFile(name, path);
    const int descriptor = open(name, O_WRONLY | O_CREAT | O_TRUNC, S_IRUSR | S_IWUSR);
    if (descriptor == -1)
        Z_RAISE_IO(name, "fopen(w)", errno);
    FILE* opened = fdopen(descriptor, "wb");
    if (opened == nullptr) {
        const int error = errno;
        close(descriptor);
        Z_RAISE_IO(name, "fopen(w)", error);
    }
    ZStreamGuard stream(opened);
    fwrite(buffer.getBuffer(), 1, buffer.getLength(), stream.get());
    truncateHere(stream.get());
    stream.close();
    struct stat status;
    if (stat(path, &status) != 0)
        return;
    // As far as it is allowed: who may not give it away may still open it to the same people.
    const int given = chown(name, status.st_uid, status.st_gid);
    const int granted = chmod(name, status.st_mode & 07777);
    (void)given;
    (void)granted;
}

// What becomes of the side database, whose path is settled here.
bool ZProperties::prepareSideDatabase(const ZLCString& path, ZLCString& side) {
    side = cache_->obfuscatedDBName();
    if (cache_->obfuscatedCount() != 0) {
        if (side.getLength() == 0) {
            makeObfuscatedDBName(path.getChars(), side);
            cache_->setObfuscatedDBName(side.getChars());
        }
        checkFileAccess(side.getChars());
        requireSideFile(side.getChars(), path.getChars());
        return true;
    }
    if (side.getLength() != 0)
        requireSideFile(side.getChars(), path.getChars());
    return false;
}

// A text names its side database.
void ZProperties::addSideLine(const ZLCString& side) {
    if (exists(kSideStanza, kSideKey) == 0)
        cache_->addLine(kSideStanza, kSideKey, side.getChars(), 0);
}

void ZProperties::storePlainly(const ZLCString& path) {
    ZLCString side;
    if (!prepareSideDatabase(path, side)) {
        if (side.getLength() != 0)
            unlink(side.getChars());
        cache_->delLine(kSideStanza, kSideKey);
    }
    FILE* opened = fopen(path.getChars(), "r+");
    if (opened == nullptr && errno == ENOENT)
        opened = fopen(path.getChars(), "w+");
    if (opened == nullptr)
        Z_RAISE_IO(path.getChars(), "fopen(r+)", errno);
    ZStreamRoom room;
    ZStreamGuard stream(opened);
    room.lendTo(opened);
    // A new stream stands at the start.
    lockFile(fileno(opened), F_WRLCK, path.getChars(), optionsNow());
    if (cache_->obfuscatedCount() != 0) {
        ZBuffer buffer;
        cache_->be_write_obfuscated(buffer);
        if (buffer.getLength() == 0) {
            unlink(side.getChars());
            cache_->delLine(kSideStanza, kSideKey);
        } else {
            writeSideDatabase(side.getChars(), path.getChars(), buffer);
            addSideLine(side);
        }
    }
    cache_->be_write(path.getChars(), stream.get());
    truncateHere(stream.get());
    if (options_ != nullptr)
        options_->keepStamp(fileno(opened));
    // What a store that was stopped had in mind is void now.
    ZJournal(path.getChars()).remove();
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
    Z_REQUIRE(optionsNow().storeMode == ZPROP_STORE_PLAIN || loadFailed_ == 0 ||
              optionsNow().storeAllowed);
    if (const ZUpdatedFile* update = updateOf(path))
        storeTo(update->descriptor, path);
    else if (optionsNow().storeMode == ZPROP_STORE_PLAIN &&
             (cache_->attributes() & ZPCACHE_KEEP_LINES) == 0)
        storePlainly(path);
    else
        storeCarefully(path);
    noteContent(path);
    loading_ = 0;
    loadFailed_ = 0;
    if (options_ != nullptr)
        options_->storeAllowed = false;
}

// ---------------------------------------------------------------- store with options

void ZProperties::storeCarefully(const ZLCString& path) {
    ZLockedFile file(path.getChars(), optionsNow().lockOwner(), optionsNow().wait(), true);
    storeTo(file.descriptor(), path);
    const int error = file.finish();
    // A synced file has nothing left to lose.
    if (error != 0 && optionsNow().storeMode == ZPROP_STORE_CHECKED)
        Z_RAISE_IO(path.getChars(), "close()", error);
}

// Puts the object's content into the file under the lock that its descriptor has.
void ZProperties::storeTo(int descriptor, const ZLCString& path) {
    const int mode = optionsNow().storeMode;
    ZStoreWork work = {descriptor, path.getChars(), {nullptr, 0}, {nullptr, 0}, 0,
                       zsideUntouched, ZLCString(), {nullptr, 0}};
    ZBuffer packed;
    if (prepareSideDatabase(path, work.sideName))
        cache_->be_write_obfuscated(packed);
    if (packed.getLength() != 0) {
        work.sideAction = zsideReplaced;
        work.side = {static_cast<const char*>(packed.getBuffer()), packed.getLength()};
        addSideLine(work.sideName);
    } else {
        if (work.sideName.getLength() != 0)
            work.sideAction = zsideRemoved;
        cache_->delLine(kSideStanza, kSideKey);
    }
    // A rename leaves a link alone then.
    if (work.sideAction != zsideUntouched)
        zfollowLinks(work.sideName);

    ZJournal journal(path.getChars());
    if (journal.find(descriptor))
        zfinishJournal(descriptor, journal);
    ZMemoryStream stream;
    cache_->be_write(path.getChars(), stream.get());
    work.text = stream.finish();
    ZBytes oldText;
    const bool keepsLines = (cache_->attributes() & ZPCACHE_KEEP_LINES) != 0;
    if (keepsLines || mode == ZPROP_STORE_SAFE) {
        const int error = zreadWholeFile(descriptor, oldText);
        if (error != 0)
            Z_RAISE_IO(path.getChars(), "read()", error);
        work.oldText = {oldText.data(), oldText.size()};
    }
    ZBytes kept;
    if (keepsLines) {
        zkeepLines(work.oldText, work.text, kept);
        work.text = {kept.data(), kept.size()};
    }
    ZFileStamp before;
    const int error = zstampFile(descriptor, before);
    if (error != 0 && mode != ZPROP_STORE_PLAIN)
        Z_RAISE_IO(path.getChars(), "stat()", error);
    work.oldSize = error == 0 ? before.size : UINT64_MAX;  // a tail is cut off in any case
    if (mode == ZPROP_STORE_SAFE)
        zstoreSafely(work, journal);
    else
        zstoreInPlace(work, mode == ZPROP_STORE_CHECKED);
    if (mode != ZPROP_STORE_SAFE) {
        const int left = journal.remove();
        if (left != 0 && mode == ZPROP_STORE_CHECKED)
            Z_RAISE_IO(journal.name(), "unlink()", left);
    }
    if (options_ != nullptr) {
        options_->keepStamp(descriptor);
        if (options_->update != nullptr && options_->update->descriptor == descriptor)
            options_->update->stored = true;
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

// Keeps an object from waiting for a file's lock: the registry's lock is held, for all files. Needs
// the object's lock for as long.
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

}  // namespace

// Whether the file may have changed since this object was loaded or stored, by all that can be known.
bool ZProperties::isOutdated(const char* file) const {
    ZResourceLock guard(lock_);
    ZFileStamp now;
    if (zstampFile(file, now) != 0)
        return false;  // as a file that has vanished always was
    return options_ == nullptr || !options_->hasStamp || !zsameContent(options_->stamp, now);
}

ZProperties* ZProperties::getPropertiesFor(const char* file, ZAbstractPropertiesFactory& factory,
                                           int forceReload) {
    // The file is this thread's own to change: what it would get here is half done.
    Z_REQUIRE(!zisUpdatedHere(file));
    ZPropRegistry registry;
    const ZLCConstString probe(file);
    ZProperties* known = static_cast<ZProperties*>(factory.instances_.getEntry(&probe));
    if (known != nullptr) {
        if (forceReload == 0 && known->isModified() != 0)
            return known;
        const long before = known->timeStamp_;
        long stamp = before;
        const int otherSecond = checkAndSetTimeStamp(file, stamp);
        if (forceReload == 0 && !(known->testsExactly() ? known->isOutdated(file) : otherSecond))
            return known;
        known->timeStamp_ = stamp;
        ZResourceLock guard(known->lock_);
        NoWait noWait(known->options_);
        try {
            known->reload(file);
        } catch (...) {
            // The next caller tries again, instead of being handed an emptied object: by the old
            // time, or where that is the file's still, by one that no file has.
            known->timeStamp_ = stamp != before ? before : kNoTime;
            throw;
        }
        return known;
    }
    std::unique_ptr<ZProperties> made(factory.makePropertiesInstance());
    {
        ZResourceLock guard(made->lock_);
        NoWait noWait(made->options_);
        made->load(file);
    }
    std::unique_ptr<ZLCString> name(new ZLCString(file));
    factory.names_.addNoCopy(name.get());
    factory.instances_.putEntry(name.release(), made.get());
    return made.release();
}
