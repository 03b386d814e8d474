// ZFileLock.cpp: a read/write lock among processes, made of record locks on an 8-byte file.
//
//   bytes 0-3   sequence number, 0 until somebody has written; record lock "data"
//   bytes 4-7   id of the process that last passed the gate, for people only; record lock "gate"
//
// Both fields are 4 bytes in machine order, so 32-bit and 64-bit processes share one file.
//
// Everybody takes the gate exclusively on the way in. A reader gives it up once it has the data
// range (shared); a writer keeps it to the end. So a waiting writer stands in the gate and later
// readers queue behind it: writers don't starve.
//
// Invariants
// (1) While fileLock_ is free: lockState_ is set exactly if this process holds the data range, and
//     the file is open exactly then, unless a caller has opened it by hand.
// (2) Order of locks: threadLock_, fileLock_, gate, data. Record locks belong to the process, so
//     its threads have to be kept apart before the file is reached.
// (3) Nobody opens the lock file a second time while it is held: closing any descriptor of a file
//     drops all record locks that the process has on it.
// (4) The file is never deleted: a process that had opened it would go on locking a file that the
//     next one can't find.
// (5) A child process inherits object and descriptor, but no record lock: what its parent held is
//     none of its own. process_ tells the two apart, and what needs the file forgets it first.
#include "ZFileLock.h"

#include <cxxabi.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include "ZExceptionText.h"
#include "zassert.h"
#include "zraise.h"
#include "zreport.h"
#include "zscope.h"
#include "zuncancelled.h"

static const char kPrefix[] = "._zpl";
static const mode_t kMode = S_ISGID | S_IRUSR | S_IWUSR;
static const mode_t kUsableFolder = S_IFDIR | S_IWUSR | S_IXUSR;

static const unsigned int kField = sizeof(uint32_t);  // both fields and their record locks
static const unsigned int kData = 0;
static const unsigned int kGate = kData + kField;

// A thread that is cancelled while it waits for a record lock unwinds from here, but where times
// have 64 bits on a 32-bit system the header promises that fcntl raises nothing, and compilers then
// leave out the clean-up. A pointer makes no such promise, as long as they can't see through it.
static int (*const volatile recordLock)(int, int, ...) = fcntl;

// The process's id, without asking the system each time: read without a lock, written where there
// is one thread. 0 until it was asked for once.
static std::atomic<int> processId(0);

// Told by the C library in each child that fork() makes.
static void noteChild() { processId = getpid(); }

static int currentProcess() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    const int known = processId.load(std::memory_order_relaxed);
    if (known != 0)
        return known;
    pthread_once(&once, [] {
        // Where nobody will tell, it is asked for each time.
        if (pthread_atfork(nullptr, nullptr, noteChild) == 0)
            noteChild();
    });
    const int noted = processId.load(std::memory_order_relaxed);
    return noted != 0 ? noted : getpid();
}

static void raiseState(const char* name, ZSite site = ZSite()) {
    zraise(ZInvalidResourceStateException(name), site);
}

// Runs a clean-up at the end of the scope, whatever happens in it, unless it is dismissed. Giving a
// record lock up and closing are places where a thread may be cancelled: not in a clean-up.
template <typename CleanUp>
static auto onFailure(CleanUp cleanUp) {
    return ZAtEnd([=] { zrunAnyway(cleanUp); });
}

// ---------------------------------------------------------------- construction and names

// Asked before the base is built: a lock that is copied while held could not be destroyed again.
static const ZAbstractProcessReadWriteFileLock& checkedFree(
    const ZAbstractProcessReadWriteFileLock& lock) {
    if (lock.getLockState() != ZReadWriteLockInterface::unset)
        raiseState(lock.getLockStateName(lock.getLockState()));
    return lock;
}

ZAbstractProcessReadWriteFileLock::ZAbstractProcessReadWriteFileLock() : sequenceLost_(0) {
    ZAbstractProcessReadWriteFileLock::setLockFileName(lockName_.getChars());
}

ZAbstractProcessReadWriteFileLock::ZAbstractProcessReadWriteFileLock(const char* name)
    : ZAbstractProcessReadWriteLock(name), lockDirName_("."), sequenceLost_(0) {
    ZAbstractProcessReadWriteFileLock::setLockFileName(name);
}

ZAbstractProcessReadWriteFileLock::ZAbstractProcessReadWriteFileLock(const char* name,
                                                                     const char* dir)
    : ZAbstractProcessReadWriteLock(name), sequenceLost_(0) {
    ZAbstractProcessReadWriteFileLock::setLockFileName(name);
    ZAbstractProcessReadWriteFileLock::setLockDirName(dir);
}

ZAbstractProcessReadWriteFileLock::ZAbstractProcessReadWriteFileLock(
    const ZAbstractProcessReadWriteFileLock& other)
    : ZAbstractProcessReadWriteLock(checkedFree(other)),
      lockDirName_(other.lockDirName_),
      lockFileName_(other.lockFileName_),
      sequenceLost_(other.sequenceLost_.load()) {}

ZAbstractProcessReadWriteFileLock& ZAbstractProcessReadWriteFileLock::operator=(
    const ZAbstractProcessReadWriteFileLock& other) {
    checkedFree(other);
    if (this == &other)
        return *this;
    checkedFree(*this);
    ZAbstractProcessReadWriteLock::operator=(other);
    lockDirName_ = other.lockDirName_;
    lockFileName_ = other.lockFileName_;
    sequenceLost_ = other.sequenceLost_.load();
    return *this;
}

ZAbstractProcessReadWriteFileLock::~ZAbstractProcessReadWriteFileLock() noexcept(false) {}

unsigned int ZAbstractProcessReadWriteFileLock::hash() const { return lockFileName_.hash(); }

int ZAbstractProcessReadWriteFileLock::compare(const ZObject& other) const {
    return lockFileName_.compare(
        static_cast<const ZAbstractProcessReadWriteFileLock&>(other).lockFileName_);
}

const char* ZAbstractProcessReadWriteFileLock::getLockDirName() const {
    return lockDirName_.getChars();
}

const char* ZAbstractProcessReadWriteFileLock::getLockFileName() const {
    return lockFileName_.getChars();
}

void ZAbstractProcessReadWriteFileLock::setLockDirName(const char* dir) {
    struct stat status;
    if (dir != nullptr &&
        (stat(dir, &status) != 0 || (status.st_mode & kUsableFolder) != kUsableFolder))
        zraise(ZInvalidParameterException());
    if (lockDirName_ == (dir == nullptr ? "" : dir))
        return;
    if (getLockState() != unset)
        raiseState(getLockStateName(lockState_));
    lockDirName_ = dir;
    setLockFileName(getLockName().getChars());
}

void ZAbstractProcessReadWriteFileLock::setLockFileName(const char* name) {
    ZLCString path(lockDirName_);
    if (path.getLength() > 0)
        path.append("/");
    path.append(kPrefix);
    path.append(name);
    lockFileName_ = path;
}

// ---------------------------------------------------------------- grants and releases

void ZAbstractProcessReadWriteFileLock::lock() { ZAbstractProcessReadWriteFileLock::lock(write); }

void ZAbstractProcessReadWriteFileLock::lock(zlockstate state) {
    dolock(state);
    if (state == unset)
        return;
    auto giveUp = onFailure([this] { abandonGrant(); });
    if (getLastSequence() == invalidSequence)
        setLastSequence();
    if (!isCurrent() && countObservers() > 0) {
        // Observers run with everybody else shut out. Protect is held as write already, and what
        // its holder changes counts.
        if (state != write && state != protect) {
            dolock(unset);
            giveUp.dismiss();
            dolock(write);
            auto giveUpAgain = onFailure([this] { abandonGrant(); });
            setUpdate(0);
            notifyLockObservers();
            giveUpAgain.dismiss();
        } else {
            notifyLockObservers();
        }
    }
    giveUp.dismiss();
}

void ZAbstractProcessReadWriteFileLock::dolock(zlockstate state) {
    if (state == unset)
        release();
    else
        grant(state == protect ? write : state);
}

void ZAbstractProcessReadWriteFileLock::grant(zlockstate state) {
    ZAbstractProcessReadWriteLock::lock(state);
    auto leaveThreads = onFailure([this] { ZAbstractProcessReadWriteLock::lock(unset); });
    if (state == write && getLockState() != unset)
        raiseState(getLockStateName(lockState_));
    leaveThreads.dismiss();
    auto leave = onFailure([this] { leaveGrant(); });
    {
        const ZResourceLock guard(fileLock_);
        auto leaveAtOnce = onFailure([&] {
            leave.dismiss();
            leaveGrant();
        });
        if (lockState_ == unset)
            takeFile(state);
        leaveAtOnce.dismiss();
    }
    leave.dismiss();
}

// One step under fileLock_: between two, another reader could take the file, see this one among the
// readers, and leave the file to it.
void ZAbstractProcessReadWriteFileLock::leaveGrant() {
    const ZResourceLock guard(fileLock_);
    if (lockState_ == write || getReaderCount() <= 1)
        giveBack();
    ZAbstractProcessReadWriteLock::lock(unset);
}

// Requires: fileLock_ is held.
void ZAbstractProcessReadWriteFileLock::takeFile(zlockstate state) {
    zassert(lockState_ == unset);
    auto abandon = onFailure([this] { giveBack(); });
    lockFile(state);
    lockState_ = state;
    unsigned long sequence = 0;
    readSequenceNumber(&sequence);
    sequence_ = sequence;
    sequenceLost_ = 0;
    abandon.dismiss();
}

void ZAbstractProcessReadWriteFileLock::giveBack() {
    if (lockState_ != unset)
        zrunAnyway([this] { unlockFile(); });
    lockState_ = unset;
    abandonFile();
}

void ZAbstractProcessReadWriteFileLock::release() {
    checkReleasable();
    // A thread that is cancelled between the steps would leave half a lock behind.
    const ZUncancelled noCancel;
    const ZResourceLock guard(fileLock_);
    zassert(lockState_ != write || getReaderCount() == 0);
    // The reader count includes the caller. A child process that gives up what it has inherited has
    // no file to give up.
    if (lockState_ == write || (lockState_ != unset && getReaderCount() <= 1)) {
        unlockFile();
        lockState_ = unset;
    }
    ZAbstractProcessReadWriteLock::lock(unset);
}

// A release that fails leaves all held. But who is refused a grant has nothing that it could
// release.
__attribute__((no_sanitize("null"))) void ZAbstractProcessReadWriteFileLock::abandonGrant() {
    try {
        dolock(unset);
        return;
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
    }
    checkReleasable();
    leaveGrant();
}

void ZAbstractProcessReadWriteFileLock::abandonFile() {}

// ---------------------------------------------------------------- the file

void ZAbstractProcessReadWriteFileLock::lockFile(zlockstate state) {
    lockFileRange(write, kGate, kField);
    auto leaveGate = onFailure([this] { unlockFileRange(kGate, kField); });
    writePid();
    lockFileRange(state, kData, kField);
    auto leaveData = onFailure([this] { unlockFileRange(kData, kField); });
    if (state == read)
        unlockFileRange(kGate, kField);
    leaveData.dismiss();
    leaveGate.dismiss();
}

void ZAbstractProcessReadWriteFileLock::unlockFile() {
    unlockFileRange(kData, kField);
    if (getLockState() == write)
        unlockFileRange(kGate, kField);
}

void ZAbstractProcessReadWriteFileLock::readSequenceNumber(unsigned long* sequence) {
    if (sequence == nullptr) {
        readBytes(nullptr, kData, kField);  // which the system refuses
        return;
    }
    uint32_t number = static_cast<uint32_t>(*sequence);
    readBytes(&number, kData, kField);
    *sequence = number;
}

void ZAbstractProcessReadWriteFileLock::writeSequenceNumber(unsigned long sequence) {
    uint32_t number = static_cast<uint32_t>(sequence);
    writeBytes(&number, kData, kField);
}

void ZAbstractProcessReadWriteFileLock::writePid() {
    int32_t pid = getpid();
    writeBytes(&pid, kGate, kField);
}

unsigned long ZAbstractProcessReadWriteFileLock::incSequence() {
    if (lockState_ != write)
        raiseState(getLockStateName(lockState_));
    unsigned long number = sequence_;
    if (sequenceLost_) {
        number = 0;
        readSequenceNumber(&number);
    }
    ++number;
    if (number >= invalidSequence)
        number = 0;
    sequenceLost_ = 1;
    writeSequenceNumber(number);
    sequenceLost_ = 0;
    sequence_ = number;
    return number;
}

// ---------------------------------------------------------------- on a file

ZUnixProcessReadWriteFileLock::ZUnixProcessReadWriteFileLock() : fileHandle_(-1), process_(0) {}

ZUnixProcessReadWriteFileLock::ZUnixProcessReadWriteFileLock(const char* name)
    : ZAbstractProcessReadWriteFileLock(name), fileHandle_(-1), process_(0) {}

ZUnixProcessReadWriteFileLock::ZUnixProcessReadWriteFileLock(const char* name, const char* dir)
    : ZAbstractProcessReadWriteFileLock(name, dir), fileHandle_(-1), process_(0) {}

ZUnixProcessReadWriteFileLock::ZUnixProcessReadWriteFileLock(
    const ZUnixProcessReadWriteFileLock& other)
    : ZAbstractProcessReadWriteFileLock(other), fileHandle_(-1), process_(0) {
    shareFile(other);
    lockState_ = unset;  // as that of `other` is, or would be if it weren't inherited
}

ZUnixProcessReadWriteFileLock& ZUnixProcessReadWriteFileLock::operator=(
    const ZUnixProcessReadWriteFileLock& other) {
    ZAbstractProcessReadWriteFileLock::operator=(other);
    if (this == &other)
        return *this;
    forgetParent();
    // Copies may share a descriptor: it is no one's to close on its way to itself.
    if (fileHandle_ != other.fileHandle_) {
        closeOwnFile();
        shareFile(other);
    }
    return *this;
}

// The base raises if the lock is held, after this.
ZUnixProcessReadWriteFileLock::~ZUnixProcessReadWriteFileLock() noexcept(false) {
    forgetParent();
    closeOwnFile();
    if (lockState_ != unset)
        ZUnixProcessReadWriteFileLock::closeLockFile();
}

ZObject* ZUnixProcessReadWriteFileLock::clone() const {
    return new ZUnixProcessReadWriteFileLock(*this);
}

// ---------------------------------------------------------------- in a child process

int ZUnixProcessReadWriteFileLock::isInherited() const {
    const int process = process_;
    return process != 0 && abs(process) != currentProcess();
}

// The descriptor is the child's own copy: that it goes takes nothing from the parent. fileLock_ may
// be held by a thread that the child doesn't have, so threads of the child are kept apart
// otherwise.
void ZUnixProcessReadWriteFileLock::forgetParent() {
    static pthread_mutex_t oneAtATime = PTHREAD_MUTEX_INITIALIZER;
    if (!isInherited())
        return;
    const ZUncancelled uncancelled;
    pthread_mutex_lock(&oneAtATime);
    if (isInherited()) {
        if (process_ > 0)
            close(fileHandle_);
        fileHandle_ = -1;
        lockState_ = unset;
        process_ = 0;
    }
    pthread_mutex_unlock(&oneAtATime);
}

// Takes the number of another object's descriptor, which that one closes.
void ZUnixProcessReadWriteFileLock::shareFile(const ZUnixProcessReadWriteFileLock& other) {
    fileHandle_ = other.isInherited() ? -1 : other.fileHandle_.load();
    process_ = fileHandle_ == -1 ? 0 : -currentProcess();
}

ZReadWriteLockInterface::zlockstate ZUnixProcessReadWriteFileLock::getLockState() const {
    return isInherited() ? unset : ZAbstractProcessReadWriteFileLock::getLockState();
}

int ZUnixProcessReadWriteFileLock::haveLock(zlockstate state) const {
    return getLockState() == state;
}

int ZUnixProcessReadWriteFileLock::ownWriteLock() const { return getLockState() == write; }

void ZUnixProcessReadWriteFileLock::dolock(zlockstate state) {
    forgetParent();
    ZAbstractProcessReadWriteFileLock::dolock(state);
}

unsigned long ZUnixProcessReadWriteFileLock::incSequence() {
    forgetParent();
    return ZAbstractProcessReadWriteFileLock::incSequence();
}

// ---------------------------------------------------------------- the open file

int ZUnixProcessReadWriteFileLock::getFileHandle() {
    forgetParent();
    return fileHandle_;
}

int ZUnixProcessReadWriteFileLock::createLockFile() {
    forgetParent();
    if (fileHandle_ == -1) {
        const ZUncancelled uncancelled;
        fileHandle_ = open(lockFileName_.getChars(), O_RDWR | O_CREAT | O_DSYNC, kMode);
        process_ = fileHandle_ == -1 ? 0 : currentProcess();
    }
    return fileHandle_;
}

void ZUnixProcessReadWriteFileLock::closeLockFile() {
    forgetParent();
    if (fileHandle_ == -1)
        return;
    const ZUncancelled uncancelled;
    close(fileHandle_);
    fileHandle_ = -1;
    process_ = 0;
}

void ZUnixProcessReadWriteFileLock::closeOwnFile() {
    if (process_ > 0)
        ZUnixProcessReadWriteFileLock::closeLockFile();
}

void ZUnixProcessReadWriteFileLock::abandonFile() { closeLockFile(); }

void ZUnixProcessReadWriteFileLock::unlockFile() {
    ZAbstractProcessReadWriteFileLock::unlockFile();
    closeLockFile();
}

void ZUnixProcessReadWriteFileLock::lockFileRange(zlockstate state, unsigned int offset,
                                                  unsigned int length) {
    forgetParent();
    errno = 0;
    // If it can't be opened, the record lock fails, which is what callers are told.
    if (fileHandle_ == -1)
        createLockFile();
    struct flock range = {};
    switch (state) {
        case unset:
            range.l_type = F_UNLCK;
            break;
        case read:
            range.l_type = F_RDLCK;
            break;
        case protect:
        case write:
            range.l_type = F_WRLCK;
            break;
        default:
            raiseState(getLockStateName(state));
    }
    range.l_whence = SEEK_SET;
    range.l_start = offset;
    range.l_len = length;
    if (recordLock(fileHandle_, F_SETLKW, &range) != -1)
        return;
    const int error = errno;
    if (state == unset)
        zraise(ZUnlockResourceException(34, error));
    zraise(ZLockResourceException(33, error));
}

void ZUnixProcessReadWriteFileLock::unlockFileRange(unsigned int offset, unsigned int length) {
    lockFileRange(unset, offset, length);
}

void ZUnixProcessReadWriteFileLock::writeBytes(void* bytes, unsigned int offset,
                                               unsigned int length) {
    forgetParent();
    errno = 0;
    const ssize_t written = pwrite(fileHandle_, bytes, length, offset);
    if (written >= 0 && static_cast<size_t>(written) == length)
        return;
    const int error = errno;
    sequence_ = 0;
    zraise(ZWriteResourceException(36, error));
}

void ZUnixProcessReadWriteFileLock::readBytes(void* bytes, unsigned int offset,
                                              unsigned int length) {
    forgetParent();
    errno = 0;
    const ssize_t count = pread(fileHandle_, bytes, length, offset);
    if (count >= 0 && static_cast<size_t>(count) == length)
        return;
    struct stat status;
    if (errno != 0 || stat(lockFileName_.getChars(), &status) != 0) {
        const int error = errno;
        zraise(ZReadResourceException(35, error));
    }
    if (status.st_size != 0)
        zraise(ZReadResourceException(35, -1));
}

// ---------------------------------------------------------------- without a file

ZStubProcessReadWriteFileLock::ZStubProcessReadWriteFileLock() : stubSequence_(0) {}

ZStubProcessReadWriteFileLock::ZStubProcessReadWriteFileLock(const char* name)
    : ZAbstractProcessReadWriteFileLock(name), stubSequence_(0) {}

ZStubProcessReadWriteFileLock::ZStubProcessReadWriteFileLock(const char* name, const char* dir)
    : ZAbstractProcessReadWriteFileLock(name, dir), stubSequence_(0) {}

ZStubProcessReadWriteFileLock::ZStubProcessReadWriteFileLock(
    const ZStubProcessReadWriteFileLock& other)
    : ZAbstractProcessReadWriteFileLock(other), stubSequence_(0) {}

ZStubProcessReadWriteFileLock& ZStubProcessReadWriteFileLock::operator=(
    const ZStubProcessReadWriteFileLock& other) {
    ZAbstractProcessReadWriteFileLock::operator=(other);
    return *this;
}

ZObject* ZStubProcessReadWriteFileLock::clone() const {
    return new ZStubProcessReadWriteFileLock(*this);
}

void ZStubProcessReadWriteFileLock::lockFile(zlockstate) {}

void ZStubProcessReadWriteFileLock::unlockFile() {}

void ZStubProcessReadWriteFileLock::lockFileRange(zlockstate, unsigned int, unsigned int) {}

void ZStubProcessReadWriteFileLock::unlockFileRange(unsigned int, unsigned int) {}

void ZStubProcessReadWriteFileLock::readSequenceNumber(unsigned long* sequence) {
    if (sequence != nullptr)
        *sequence = stubSequence_;
}

void ZStubProcessReadWriteFileLock::writeSequenceNumber(unsigned long sequence) {
    stubSequence_ = sequence;
}

void ZStubProcessReadWriteFileLock::writeBytes(void*, unsigned int, unsigned int) {}

void ZStubProcessReadWriteFileLock::readBytes(void*, unsigned int, unsigned int) {}
