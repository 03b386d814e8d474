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
#include "zfilestream.h"
#include "zinternal.h"
#include "zqelutil.h"
#include "zsidenames.h"

static const long kNoTime = LONG_MIN;

[[noreturn]] static void raise(const char* name, const char* api, int error, int line) {
    ZPropertiesIOException(name, api, error).throwException(__FILE__, line);
}

// ---------------------------------------------------------------- plain functions

void checkFileAccess(const char* file) {
    if (access(file, F_OK) == 0) {
        if (access(file, R_OK | W_OK) != 0)
            raise(file, "access()", errno, __LINE__);
        return;
    }
    ZLCString directory;
    // On whole characters: the last byte of a multi-byte character may look like a slash.
    const char* slash = zstrrchr(zgetLCSHandle(), file, '/');
    if (slash == nullptr) {
        static const size_t kRoom = 1024;
        std::unique_ptr<char, decltype(&free)> room(static_cast<char*>(malloc(kRoom)), &free);
        if (room == nullptr)
            ZOutOfMemoryException().throwException(__FILE__, __LINE__);
        if (getcwd(room.get(), kRoom) == nullptr)
            raise(".", "access()", errno, __LINE__);
        directory = room.get();
    } else if (slash == file) {
        directory = "/";
    } else {
        directory = ZLCString(file, static_cast<unsigned int>(slash - file));
    }
    if (access(directory.getChars(), R_OK | W_OK) != 0) {
        const int error = errno;
        raise(directory.getChars(), "access()", error, __LINE__);
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

static void lockFile(FILE* stream, short type, const char* path) {
    const int error = zlockWholeFile(stream, type);
    if (error != 0)
        raise(path, "fcntl()", error, __LINE__);
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
            raise(name.getChars(), "mapFile()", error, __LINE__);
        buffer.setBuffer(map.length(), bytes);
    }
    cache.be_read_obfuscated(buffer);
}

void ZProperties::load(const char* file) {
    ZResourceLock guard(lock_);
    const ZLCString path(choosePath(file, fileName_));
    if (fileName_.getLength() == 0)
        fileName_ = path;
    FILE* opened = fopen(path.getChars(), "r");
    if (opened == nullptr)
        raise(path.getChars(), "fopen(r)", errno, __LINE__);
    ZStreamRoom room;
    ZStreamGuard stream(opened);
    room.lendTo(opened);
    lockFile(stream.get(), F_RDLCK, path.getChars());
    LoadingScope loading(loading_);
    cache_->be_read(path.getChars(), stream.get());
    stream.close();
    if (cache_->obfuscatedDBName().getLength() != 0)
        readSideDatabase(*cache_);
    postLoad(path.getChars());
    resetModified();
    long stamp = timeStamp_;
    checkAndSetTimeStamp(path.getChars(), stamp);
    timeStamp_ = stamp;
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
        raise(name, "fopen(w)", EINVAL, __LINE__);
}

// Writes the side database under the stanza file's lock, with the stanza file's owner and mode. A
// new one is made for its owner alone first, so that its values are never readable in between.
static void writeSideDatabase(const char* name, const char* path, const ZBuffer& buffer) {
    requireSideFile(name, path);
    const int descriptor = open(name, O_WRONLY | O_CREAT | O_TRUNC, S_IRUSR | S_IWUSR);
    if (descriptor == -1)
        raise(name, "fopen(w)", errno, __LINE__);
    FILE* opened = fdopen(descriptor, "wb");
    if (opened == nullptr) {
        const int error = errno;
        close(descriptor);
        raise(name, "fopen(w)", error, __LINE__);
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

void ZProperties::store(const char* file) {
    ZLCString path(file);
    if (path.getLength() == 0) {
        ZResourceLock guard(lock_);
        path = choosePath(file, fileName_);
    }
    checkFileAccess(path.getChars());
    ZResourceLock guard(lock_);
    ZLCString side(cache_->obfuscatedDBName());
    if (cache_->obfuscatedCount() != 0) {
        if (side.getLength() == 0) {
            makeObfuscatedDBName(path.getChars(), side);
            cache_->setObfuscatedDBName(side.getChars());
        }
        checkFileAccess(side.getChars());
        requireSideFile(side.getChars(), path.getChars());
    } else {
        if (side.getLength() != 0) {
            requireSideFile(side.getChars(), path.getChars());
            unlink(side.getChars());
        }
        cache_->delLine(kSideStanza, kSideKey);
    }
    FILE* opened = fopen(path.getChars(), "r+");
    if (opened == nullptr && errno == ENOENT)
        opened = fopen(path.getChars(), "w+");
    if (opened == nullptr)
        raise(path.getChars(), "fopen(r+)", errno, __LINE__);
    ZStreamRoom room;
    ZStreamGuard stream(opened);
    room.lendTo(opened);
    lockFile(stream.get(), F_WRLCK, path.getChars());  // a new stream stands at the start
    if (cache_->obfuscatedCount() != 0) {
        ZBuffer buffer;
        cache_->be_write_obfuscated(buffer);
        if (buffer.getLength() == 0) {
            unlink(side.getChars());
            cache_->delLine(kSideStanza, kSideKey);
        } else {
            writeSideDatabase(side.getChars(), path.getChars(), buffer);
            if (exists(kSideStanza, kSideKey) == 0)
                cache_->addLine(kSideStanza, kSideKey, side.getChars(), 0);
        }
    }
    cache_->be_write(path.getChars(), stream.get());
    truncateHere(stream.get());
    stream.close();
    resetModified();
    loading_ = 0;
    long stamp = timeStamp_;
    checkAndSetTimeStamp(path.getChars(), stamp);
    timeStamp_ = stamp;
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

ZProperties* ZProperties::getPropertiesFor(const char* file, ZAbstractPropertiesFactory& factory,
                                           int forceReload) {
    ZPropRegistry registry;
    const ZLCConstString probe(file);
    ZProperties* known = static_cast<ZProperties*>(factory.instances_.getEntry(&probe));
    if (known != nullptr) {
        if (forceReload == 0 && known->isModified() != 0)
            return known;
        const long before = known->timeStamp_;
        long stamp = before;
        if (checkAndSetTimeStamp(file, stamp) == 0 && forceReload == 0)
            return known;
        known->timeStamp_ = stamp;
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
    made->load(file);
    std::unique_ptr<ZLCString> name(new ZLCString(file));
    factory.names_.addNoCopy(name.get());
    factory.instances_.putEntry(name.release(), made.get());
    return made.release();
}
