// ZProcessLock.cpp: what locks among processes have apart from their medium: the lock that threads
// of one process go through first, and the numbers that tell who has seen which change.
//
// A release clears the update flag, and the stub its state, before other threads get in: afterwards
// both are the next holder's. If giving up the lock among threads raises, both are put back.
#include "ZProcessLock.h"

#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <exception>

#include "ZExceptionText.h"
#include "zreport.h"
#include "zscope.h"
#include "zuncancelled.h"

const unsigned long ZAbstractProcessReadWriteLock::invalidSequence;

// ---------------------------------------------------------------- the update

ZSequenceUpdate::ZSequenceUpdate()
    : sequence_(ZAbstractProcessReadWriteLock::invalidSequence),
      lastSequence_(ZAbstractProcessReadWriteLock::invalidSequence) {}

ZSequenceUpdate::ZSequenceUpdate(unsigned long sequence, unsigned long lastSequence)
    : sequence_(sequence), lastSequence_(lastSequence) {}

static int difference(unsigned long a, unsigned long b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a - b));
}

int ZSequenceUpdate::compare(const ZObject& other) const {
    const ZSequenceUpdate& update = static_cast<const ZSequenceUpdate&>(other);
    const int order = difference(sequence_, update.sequence_);
    return order != 0 ? order : difference(lastSequence_, update.lastSequence_);
}

ZObject* ZSequenceUpdate::clone() const { return new ZSequenceUpdate(*this); }

unsigned long ZSequenceUpdate::getSequence() const { return sequence_; }

unsigned long ZSequenceUpdate::getLastSequence() const { return lastSequence_; }

// ---------------------------------------------------------------- construction

// Six characters that name no file here. As mktemp makes them, whose use linkers warn of: nothing
// is opened by this name, so its race does no harm.
static ZLCString makeUpName() {
    static const char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    for (int attempt = 0; attempt < 100; ++attempt) {
        char name[] = "XXXXXX";
        uint64_t random;
        if (getrandom(&random, sizeof random, GRND_NONBLOCK) != sizeof random)
            break;
        for (size_t i = 0; i < sizeof name - 1; ++i) {
            name[i] = kLetters[random % (sizeof kLetters - 1)];
            random /= sizeof kLetters - 1;
        }
        struct stat ignored;
        if (lstat(name, &ignored) != 0)
            return ZLCString(name);
    }
    ZLCString name(static_cast<int>(getpid()));
    name.append("_");
    return name;
}

ZAbstractProcessReadWriteLock::ZAbstractProcessReadWriteLock()
    : ZAbstractProcessReadWriteLock(makeUpName().getChars()) {}

ZAbstractProcessReadWriteLock::ZAbstractProcessReadWriteLock(const char* name)
    : lockState_(unset),
      lockName_(name),
      sequence_(0),
      lastSequence_(invalidSequence),
      update_(1),
      exceptions_(std::uncaught_exceptions()) {}

ZAbstractProcessReadWriteLock::ZAbstractProcessReadWriteLock(
    const ZAbstractProcessReadWriteLock& other)
    : ZAbstractReadWriteLock(other),
      lockState_(other.lockState_.load()),
      lockName_(other.lockName_),
      sequence_(other.sequence_.load()),
      lastSequence_(other.lastSequence_.load()),
      threadLock_(other.threadLock_),
      update_(other.update_.load()),
      exceptions_(std::uncaught_exceptions()) {}

ZAbstractProcessReadWriteLock& ZAbstractProcessReadWriteLock::operator=(
    const ZAbstractProcessReadWriteLock& other) {
    if (this != &other) {
        lockName_ = other.lockName_;
        sequence_ = other.sequence_.load();
        lastSequence_ = other.lastSequence_.load();
        update_ = other.update_.load();
    }
    return *this;
}

ZAbstractProcessReadWriteLock::~ZAbstractProcessReadWriteLock() noexcept(false) {
    const zlockstate state = lockState_;
    if (state == unset)
        return;
    try {
        ZInvalidResourceStateException failure(getLockStateName(state));
        zraise(failure);
    } catch (ZException&) {
        if (std::uncaught_exceptions() <= exceptions_)
            throw;
        zreportCaught();
    }
}

// ---------------------------------------------------------------- the object

unsigned int ZAbstractProcessReadWriteLock::hash() const { return lockName_.hash(); }

int ZAbstractProcessReadWriteLock::compare(const ZObject& other) const {
    return lockName_.compare(static_cast<const ZAbstractProcessReadWriteLock&>(other).lockName_);
}

ZObject* ZAbstractProcessReadWriteLock::clone() const {
    ZAbstractNotImplementedException failure("ZAbstractProcessReadWriteLock::clone");
    zraise(failure);
}

// ---------------------------------------------------------------- grants and releases

void ZAbstractProcessReadWriteLock::checkReleasable() const {
    if (!threadLock_.mayUnlock())
        zraise(ZUnlockResourceException(6, 0));
}

void ZAbstractProcessReadWriteLock::lock(zlockstate state) {
    if (state == unset) {
        checkReleasable();
        ZAtEnd putBack([this, update = getUpdate()] { update_ = update; });
        setUpdate(0);
        threadLock_.lock(unset);
        putBack.dismiss();
        return;
    }
    const zlockstate wanted = state == protect ? write : state;
    threadLock_.lock(wanted);
    setUpdate(wanted == write ? 1 : 0);
}

void ZAbstractProcessReadWriteLock::lock() { writeLock(); }

void ZAbstractProcessReadWriteLock::readLock() { lock(read); }

void ZAbstractProcessReadWriteLock::writeLock() { lock(write); }

void ZAbstractProcessReadWriteLock::readWithIntentToWriteLock() { lock(protect); }

void ZAbstractProcessReadWriteLock::promoteReadToWriteLock() {}

void ZAbstractProcessReadWriteLock::unlock() { unlock(getUpdate()); }

void ZAbstractProcessReadWriteLock::unlock(int update) {
    checkReleasable();
    const ZUncancelled guard;  // counted and given up, or neither
    sync(update);
    lock(unset);
}

// ---------------------------------------------------------------- state and numbers

ZReadWriteLockInterface::zlockstate ZAbstractProcessReadWriteLock::getLockState() const {
    return lockState_;
}

int ZAbstractProcessReadWriteLock::haveLock(zlockstate state) const { return lockState_ == state; }

int ZAbstractProcessReadWriteLock::ownWriteLock() const { return lockState_ == write; }

int ZAbstractProcessReadWriteLock::getReaderCount() { return threadLock_.getReaderCount(); }

const ZLCString& ZAbstractProcessReadWriteLock::getLockName() const { return lockName_; }

void ZAbstractProcessReadWriteLock::setLockName(ZLCString& name) {
    if (name == lockName_)
        return;
    if (lockState_ != unset)
        unlock();
    lockName_ = name;
}

int ZAbstractProcessReadWriteLock::getUpdate() const { return update_; }

void ZAbstractProcessReadWriteLock::setUpdate(int update) { update_ = update; }

unsigned long ZAbstractProcessReadWriteLock::getSequence() const { return sequence_; }

unsigned long ZAbstractProcessReadWriteLock::incSequence() {
    const unsigned long next = sequence_ + 1;
    sequence_ = next >= invalidSequence ? 0 : next;
    return sequence_;
}

unsigned long ZAbstractProcessReadWriteLock::getLastSequence() const { return lastSequence_; }

void ZAbstractProcessReadWriteLock::setLastSequence(unsigned long sequence) {
    lastSequence_ = sequence;
}

void ZAbstractProcessReadWriteLock::setLastSequence() { lastSequence_ = getSequence(); }

int ZAbstractProcessReadWriteLock::isCurrent() const { return lastSequence_ == getSequence(); }

void ZAbstractProcessReadWriteLock::sync(int update) {
    if (haveLock(write) && update != 0)
        incSequence();
    if (!haveLock(unset))
        setLastSequence();
}

void ZAbstractProcessReadWriteLock::notifyLockObservers() {
    if (isCurrent() || countObservers() == 0)
        return;
    if (!threadLock_.ownWriteLock()) {
        threadLock_.lock(unset);
        threadLock_.lock(write);
    }
    if (!isCurrent())
        notifyObservers(ZSequenceUpdate(sequence_, lastSequence_));
}

// ---------------------------------------------------------------- the stub

ZStubProcessReadWriteLock::ZStubProcessReadWriteLock() {}

ZStubProcessReadWriteLock::ZStubProcessReadWriteLock(const char* name)
    : ZAbstractProcessReadWriteLock(name) {}

ZStubProcessReadWriteLock::ZStubProcessReadWriteLock(const ZStubProcessReadWriteLock& other)
    : ZAbstractProcessReadWriteLock(other.lockName_.getChars()) {}

ZStubProcessReadWriteLock& ZStubProcessReadWriteLock::operator=(
    const ZStubProcessReadWriteLock& other) {
    ZAbstractProcessReadWriteLock::operator=(other);
    lockState_ = other.lockState_.load();
    return *this;
}

ZObject* ZStubProcessReadWriteLock::clone() const { return new ZStubProcessReadWriteLock(*this); }

void ZStubProcessReadWriteLock::lock() { writeLock(); }

void ZStubProcessReadWriteLock::lock(zlockstate state) {
    if (state != unset) {
        ZAbstractProcessReadWriteLock::lock(state);
        lockState_ = state;
        return;
    }
    checkReleasable();
    ZAtEnd putBack([this, before = getLockState()] { lockState_ = before; });
    lockState_ = unset;
    ZAbstractProcessReadWriteLock::lock(unset);
    putBack.dismiss();
}
