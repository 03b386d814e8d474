// ZPropertiesImpl.h: what a properties object knows of its file: load and store. Never installed.
#ifndef Z_ZPROPERTIESIMPL_H
#define Z_ZPROPERTIESIMPL_H

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>

#include "ZLCString.h"
#include "ZProperties.h"
#include "zinternal.h"
#include "zlockedfile.h"
#include "zmemory.h"
#include "zmodelreading.h"
#include "zopenupdates.h"
#include "zpathwatch.h"
#include "zpropdiff.h"
#include "zraise.h"
#include "zrefusal.h"
#include "zscope.h"
#include "zstoremodes.h"
#include "zwholefile.h"

/// Raises ZPropertiesIOException with "access()" unless the file, or where it doesn't exist its
/// directory, may be read and written.
void checkFileAccess(const char* file);

/// 1 if the file's modification time in seconds differs from `timeStamp`, which takes it; else 0,
/// also for a file that has vanished.
int checkAndSetTimeStamp(const char* file, long& timeStamp);

/// Whether a load of several files has met somebody else's lock, or changes all the time.
bool zisBusy(const ZPropertiesIOException& e);

/// Calls attempt() again while it meets that, with growing pauses, until the time is over; ahead of
/// each but the first ask(), which may meet it too. Raises what came last.
template <typename Ask, typename Attempt>
void zretryBusy(unsigned long waitMilliseconds, Ask ask, Attempt attempt) {
    struct Tries {
        Ask& ask;
        Attempt& attempt;
        bool isFirst;
        ZLCString path;
    } tries = {ask, attempt, true, ZLCString()};
    const ZFailure failure = zretryLocked(
        waitMilliseconds,
        [](void* data) {
            Tries& own = *static_cast<Tries*>(data);
            try {
                if (!own.isFirst)
                    own.ask();
                own.isFirst = false;
                own.attempt();
                return zdone;
            } catch (ZPropertiesIOException& e) {
                if (!zisBusy(e))
                    throw;
                own.path = e.propFile();
                return ZFailure{strcmp(e.api(), "load()") == 0 ? "load()" : "fcntl()", e.excerrno(),
                                nullptr};
            }
        },
        &tries);
    zcheckIO(failure.of(tries.path.getChars()));
}

/// The default path of a file's side database: absolute, with ".obf" behind it.
void makeObfuscatedDBName(const char* file, ZLCString& out);

/// The file's side of a properties object: stamps, options, the update that is open, and the ways
/// between the disk and the object's cache. Its callers hold the object's lock, except for
/// what says otherwise.
class ZPropertiesFile : public ZAllocated {
public:
    explicit ZPropertiesFile(ZProperties& object);
    virtual ~ZPropertiesFile() {}
    static ZPropertiesFile& of(const ZProperties& object) { return *object.file_; }

    // What else the units around an object need of it.
    ZPropertiesLock& lock() const { return object_.lock_; }
    ZPCache& cache() const { return *object_.cache_; }
    void tell(const ZPropertyChanged& change);
    /// Gives the last value of a key, as getValue finds it, under the lock; nothing if there is
    /// none. Takes the lock.
    template <typename Take>
    void giveValue(const char* stanza, const char* key, int required, Take take) const {
        zrequire(hasStanzaName(stanza) && zhasText(key));
        ZResourceLock guard(lock());
        const char* text;
        unsigned int length;
        if (object_.extractValue(stanza, key, required, text, length) != 0)
            take(text, length);
    }

    const ZLCString& path() const { return object_.fileName_; }
    /// What a call means by a path that may be null or empty. Raises ZInvalidParameterException if
    /// there is none.
    ZLCString choosePath(const char* file) const;

    // --- options ---

    void setStoreMode(int mode) { storeMode_ = mode; }
    int storeMode() const { return storeMode_; }
    int lastStoreMode() const { return lastStoreMode_; }
    void setLockWait(unsigned long milliseconds) { lockWait_ = milliseconds; }
    void setChangeTest(int test) { changeTest_ = test; }
    void allowStoreAfterFailedLoad() { mayStoreAnyway_ = true; }
    /// How loads and stores lock the file.
    ZLockTerms lockTerms() const;

    // --- load ---

    virtual void load(const char* file);
    void reload(const char* file);
    /// Takes the lock. Somebody else's lock on the file makes it fail.
    void loadWithoutWaiting(const char* file);
    /// Brings the shared object up to date. Takes the lock if there is anything to do.
    void follow(const char* file, int forceReload);
    /// Reads a file under the lock that its descriptor has into another cache.
    void readInto(ZPCache& cache, const ZLCString& path, int descriptor) const;
    /// Reads it anew into the object, and gives the lock up ahead of calls to others. Should that
    /// fail, nobody stores what is left.
    void readAnew(const ZLCString& path, int descriptor, ZLockScope& fileLock);
    /// Keeps the stamp of a file that the object is known to be as.
    void keepStamp(int descriptor);

    // --- store ---

    /// The caller has made checkFileAccess(path), without the lock.
    virtual void store(const ZLCString& path);
    /// What is to be stored of a text that the cache has written, into a file that holds `oldText`;
    /// in `kept`, if it keeps lines of that. Raises for a text that a strict load would refuse.
    ZSpan finishText(const ZLCString& path, ZSpan oldText, ZSpan text, ZBytes& kept) const;

    /// Refuses what can only be done to one file, with a reason, where there are several.
    virtual void requireOneFile() const {}
    /// Before anything is loaded: the file is of this dialect. Raises ZInvalidParameterException,
    /// with a reason for switches that clash.
    void setDialect(const ZDialect& dialect);
    /// Likewise with switches that clash for others than the caller.
    void setOwnDialect(const ZDialect& dialect);
    /// The content is a copy of another object's.
    void beOfDialectOf(const ZPropertiesFile& other) { hasOrphans_ = other.hasOrphans_; }
    /// Null: it is the library's own.
    const ZDialect* dialect() const { return ZModelReading::dialectOf(cache()); }
    /// Refuses, with a reason, where a key has its last value only.
    void requireSeveralValues() const;
    /// Adds a comment to a file of another dialect, see ZModelEdits; false: it is none.
    bool addDialectComment(const char* stanza, const char* key, const char* text);
    /// Only where entries may stand ahead of all headers there is a stanza without a name.
    bool hasStanzaName(const char* name) const {
        return zhasText(name) || (hasOrphans_ && name != nullptr);
    }
    void requireNames(const char* stanza, const char* key, ZSite site = ZSite()) const {
        if (__builtin_expect(!hasStanzaName(stanza) || !zhasText(key), false))
            zrefuseNames(stanza, site);
    }

    // --- watches of several files; one file is its watcher's to read ---

    /// What has to be watched to know of any change, as far as it is known by now. False if that
    /// is the one file.
    virtual bool listWatched(ZVector<ZWatchedPath>&) const { return false; }
    /// Loads anew what has changed on the disk, and adds what that has changed here. False if
    /// somebody else's lock or change came in between. What raises leaves all as it was.
    virtual bool catchUp(ZVector<ZPropDifference>&) { return true; }

    // --- updates ---

    /// Opens the file that is to be changed, and waits up to `wait` milliseconds for its lock. May
    /// make it, to be removed if nothing is stored in it, and tell the path anew.
    virtual std::unique_ptr<ZLockedFile> openToUpdate(unsigned long wait);
    /// Whether an update that begins locks other files too. It waits for none of them while it has
    /// its own, for their owners may wait for that.
    virtual bool locksOthers() const { return false; }
    /// Raises, before a file is made again, what begins an update raises while others are locked.
    virtual void requireOthersFree() {}
    /// The file of an update is about to be given up.
    virtual void settleUpdate(const ZUpdatedFile&) {}
    /// It was.
    virtual void noteUpdateEnded() {}

    bool hasUpdate() const { return update_ != nullptr; }
    /// Its file; null without one.
    const ZUpdatedFile* update() const { return update_; }
    /// Reads the file of an update that begins.
    virtual void beginUpdate(ZUpdatedFile& file);
    void endUpdate() { update_ = nullptr; }
    /// Makes the object what the update's file held last, from memory.
    virtual void restore(const ZUpdatedFile& file);

    void setPath(const ZLCString& path) { object_.fileName_ = path; }

protected:
    // For those that aren't one file.
    void setUpdate(ZUpdatedFile& file) { update_ = &file; }
    ZUpdatedFile* openUpdate() const { return update_; }
    unsigned long lockWait() const { return lockWait_; }
    void noteStoreMode(int mode) { lastStoreMode_ = mode; }
    /// No change notice goes out while `call` runs; the object holds what its files hold then.
    template <typename Call>
    void readBy(Call call) {
        object_.loading_ = 1;
        const ZAtEnd loaded([this] { object_.loading_ = 0; });
        outcome_ = kFailed;
        call();
        object_.resetModified();
        outcome_ = kLoaded;
    }
    void requireLoaded() const { zrequire(outcome_ == kLoaded); }

private:
    // Whether a store has to look at what the file holds.
    bool keepsLines() const {
        return (cache().attributes() & ZPCACHE_KEEP_LINES) != 0 || dialect() != nullptr;
    }
    // How the last reading ended: an incomplete one has met a failure that plain objects pass over.
    enum Outcome { kLoaded, kFailed, kIncomplete };

    bool isCareful() const;
    template <typename Call>
    void withoutWaiting(Call call);
    bool isOutdated(const char* file) const;
    bool isCurrent(const char* file, int forceReload, long& stamp) const;
    ZUpdatedFile* updateOf(const ZLCString& path) const;
    template <typename Close>
    void readFile(const ZLCString& path, ZFileToRead file, ZFileContent* content, Close close);
    void noteContent();

    ZLCString settleSideName(const ZLCString& path);
    void addSideLine(const ZLCString& side);
    void storePlainly(const ZLCString& path);
    void truncateAndStamp(FILE* stream);
    void writeSidePlainly(const ZLCString& name, int descriptor);
    void storeCarefully(const ZLCString& path);
    void storeTo(int descriptor, const ZLCString& path, ZFileContent* content);

    ZProperties& object_;
    std::atomic<int> changeTest_;  // read without the lock by design
    // Guarded by the object's lock.
    Outcome outcome_;
    int storeMode_;
    int lastStoreMode_;
    unsigned long lockWait_;   // milliseconds
    bool waits_;               // false while getPropertiesFor is at work
    bool mayStoreAnyway_;      // although the last load failed
    bool hasOrphans_ = false;  // entries may stand ahead of all headers
    bool hasStamp_;            // of the last load or store
    ZFileStamp stamp_;
    ZUpdatedFile* update_;  // null: none is open
};

#endif
