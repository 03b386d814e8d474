// ZFileLock.h: read/write locks among processes, made of record locks on a small lock file.
//
//   ZAbstractProcessReadWriteLock
//     ZAbstractProcessReadWriteFileLock    the order of steps, with the file left open
//       ZUnixProcessReadWriteFileLock      the file and its record locks
//       ZStubProcessReadWriteFileLock      the same steps without a file
#ifndef Z_ZFILELOCK_H
#define Z_ZFILELOCK_H

#include <atomic>

#include "ZLCString.h"
#include "ZLock.h"
#include "ZProcessLock.h"

/// A process lock on a file of 8 bytes, which 32-bit and 64-bit processes share: the sequence
/// number and the id of the process that passed last. The file is "<folder>/._zpl<name>"; the first
/// grant makes it, and nobody deletes it.
///
///   this process  another process reads  another process writes or waits to write
///   read          granted                waits
///   write         waits                  waits
///
/// Threads of one process share one record lock: the first reader takes it, the last one gives it
/// up. Among processes a writer that waits goes before later readers. A process that dies gives up
/// what it held, and the number stays as it was.
///
/// A grant reads the sequence number. If it isn't the one that this process has caught up with and
/// there are observers, they are told, in the granted thread and with all others shut out, before
/// the call returns; for that, a reader's lock becomes one to write (ownWriteLock() is true), whose
/// release doesn't count as a change. An object's first grant counts as caught up. What an observer
/// raises ends the grant with nothing held, and the next grant tells again.
///
/// A process must use one object for one lock file: closing any descriptor of a file gives up all
/// record locks that the process has on it.
///
/// A child process owns nothing of what its parent held when it forked: to it the lock is in no
/// state, an unlock() there gives up the object's copy alone, and neither counts nor touches the
/// file. After that it can use the object for itself. If another thread than the forking one was in
/// a call or held the lock, the child can only make an object of its own.
///
/// Failure: a grant that fails, or whose thread is cancelled, gives back all that it had taken.
///   Opening and closing the file is never cancelled half-way; waiting for a record lock is.
///   ZLockResourceException (33) with the system's number: the lock can't be taken; 9 if the file
///   can't be opened. ZUnlockResourceException (34): it can't be given up, and is still held.
///   ZReadResourceException (35) and ZWriteResourceException (36): the file can't be read or
///   written; a release that raises 36 still holds the lock, and getSequence() is 0.
///   ZInvalidResourceStateException (32) with the state's name: not in this state.
/// Threads: as ZAbstractProcessReadWriteLock.
/// Cost: see ZUnixProcessReadWriteFileLock. Readers behind the first of their process: no system
///   call beyond those of the lock among threads.
class ZEXPORT ZAbstractProcessReadWriteFileLock : public ZAbstractProcessReadWriteLock {
public:
    /// With a name made up, in the current folder.
    ZAbstractProcessReadWriteFileLock();
    /// In the folder ".".
    explicit ZAbstractProcessReadWriteFileLock(const char* name);
    /// In the folder `dir`: see setLockDirName, which raises from here too.
    ZAbstractProcessReadWriteFileLock(const char* name, const char* dir);

    /// Copies all but the lock among threads, which is free. Raises
    /// ZInvalidResourceStateException (32) if `other` is held.
    ZAbstractProcessReadWriteFileLock(const ZAbstractProcessReadWriteFileLock& other);

    /// As the base, and both file names. Raises ZInvalidResourceStateException (32) if `other` is
    /// held, or this lock is, and changes nothing then.
    ZAbstractProcessReadWriteFileLock& operator=(const ZAbstractProcessReadWriteFileLock& other);

    ~ZAbstractProcessReadWriteFileLock() noexcept(false) override;

    /// Those of the file names. Requires: `other` is a file lock.
    unsigned int hash() const override;
    int compare(const ZObject& other) const override;

    /// To write, by this class's lock(zlockstate).
    void lock() override;
    void lock(zlockstate state) override;

    /// Counts a change in the file: the new number. Raises ZInvalidResourceStateException (32)
    /// unless the lock is held to write.
    unsigned long incSequence() override;

    virtual const char* getLockDirName() const;

    /// Chooses the folder, which must exist and let its owner write and search it:
    /// ZInvalidParameterException (22) otherwise. Null is the current folder, unchecked. Another
    /// folder while the lock is held raises ZInvalidResourceStateException (32).
    virtual void setLockDirName(const char* dir);

    virtual const char* getLockFileName() const;

    // The steps of a grant and a release: for subclasses, and for tools that look at lock files.

    /// Takes the gate and the data range of the file, to read or to write, and notes the process.
    /// If that fails, nothing of it is left.
    virtual void lockFile(zlockstate state);
    /// Gives both ranges up.
    virtual void unlockFile();
    /// A grant or a release, without the observers.
    virtual void dolock(zlockstate state);
    /// Makes the file's name from the folder and `name`.
    virtual void setLockFileName(const char* name);

    /// Takes a lock on a range of the file, or with `unset` gives it up. Offset and length in
    /// bytes.
    virtual void lockFileRange(zlockstate state, unsigned int offset, unsigned int length) = 0;
    virtual void unlockFileRange(unsigned int offset, unsigned int length) = 0;

    /// The number in the file. One that nobody has written leaves `*sequence` as it is.
    virtual void readSequenceNumber(unsigned long* sequence);
    virtual void writeSequenceNumber(unsigned long sequence);
    virtual void writePid();

    virtual void writeBytes(void* bytes, unsigned int offset, unsigned int length) = 0;
    virtual void readBytes(void* bytes, unsigned int offset, unsigned int length) = 0;

protected:
    /// Drops whatever a failed grant has left of the file. Never raises. Here: nothing.
    virtual void abandonFile();

    ZLCString lockDirName_;
    ZLCString lockFileName_;
    ZLock fileLock_;  // guards lockState_ together with the file

private:
    void grant(zlockstate state);
    void leaveGrant();
    void release();
    void takeFile(zlockstate state);
    void giveBack();
    void abandonGrant();

    std::atomic<int> sequenceLost_;  // a write of it failed: only the file knows it
};

/// The lock on a file.
///
/// Ownership: the object owns the descriptor while the lock is held; a copy takes the number of an
///   open one, which stays the original's to close.
/// Cost, in system calls. Grant to read: open, fcntl, getpid, pwrite, fcntl, fcntl, pread; release:
///   fcntl, close. Grant to write: open, fcntl, getpid, pwrite, fcntl, pread; release: pwrite if a
///   change counts, fcntl, fcntl, close. Writes are synchronous.
class ZEXPORT ZUnixProcessReadWriteFileLock : public ZAbstractProcessReadWriteFileLock {
public:
    ZUnixProcessReadWriteFileLock();
    /// By this name, in the folder "." or this one. No file is touched.
    explicit ZUnixProcessReadWriteFileLock(const char* name);
    ZUnixProcessReadWriteFileLock(const char* name, const char* dir);
    ZUnixProcessReadWriteFileLock(const ZUnixProcessReadWriteFileLock& other);
    ZUnixProcessReadWriteFileLock& operator=(const ZUnixProcessReadWriteFileLock& other);
    /// Closes the file, and raises after that if the lock is held.
    ~ZUnixProcessReadWriteFileLock() noexcept(false) override;

    ZObject* clone() const override;

    // Those of the base; in a child process, of what is its own.
    zlockstate getLockState() const override;
    int haveLock(zlockstate state) const override;
    int ownWriteLock() const override;
    void dolock(zlockstate state) override;
    unsigned long incSequence() override;

    /// The descriptor, or -1 while the file is closed.
    virtual int getFileHandle();

    /// Opens the file unless it is open, and makes it if need be: the descriptor, or -1 with errno
    /// set.
    virtual int createLockFile();

    /// Closes the file, if it is open, and with that gives up all of this process's locks on it.
    virtual void closeLockFile();

    void unlockFile() override;
    void lockFileRange(zlockstate state, unsigned int offset, unsigned int length) override;
    void unlockFileRange(unsigned int offset, unsigned int length) override;
    void writeBytes(void* bytes, unsigned int offset, unsigned int length) override;
    void readBytes(void* bytes, unsigned int offset, unsigned int length) override;

protected:
    void abandonFile() override;

private:
    int isInherited() const;
    void forgetParent();
    void shareFile(const ZUnixProcessReadWriteFileLock& other);
    void closeOwnFile();

    std::atomic<int> fileHandle_;
    // The process in which fileHandle_ means something, negative if the file was opened by an
    // object that this one was copied from; 0 while there is none.
    std::atomic<int> process_;
};

/// The same steps without a file: threads are kept apart, processes aren't, and the number lives in
/// the object. A copy counts from 0.
class ZEXPORT ZStubProcessReadWriteFileLock : public ZAbstractProcessReadWriteFileLock {
public:
    ZStubProcessReadWriteFileLock();
    /// By this name, in the folder "." or this one.
    explicit ZStubProcessReadWriteFileLock(const char* name);
    ZStubProcessReadWriteFileLock(const char* name, const char* dir);
    ZStubProcessReadWriteFileLock(const ZStubProcessReadWriteFileLock& other);
    ZStubProcessReadWriteFileLock& operator=(const ZStubProcessReadWriteFileLock& other);

    ZObject* clone() const override;

    void lockFile(zlockstate state) override;
    void unlockFile() override;
    void lockFileRange(zlockstate state, unsigned int offset, unsigned int length) override;
    void unlockFileRange(unsigned int offset, unsigned int length) override;
    /// Stores the number, unless `sequence` is null.
    void readSequenceNumber(unsigned long* sequence) override;
    void writeSequenceNumber(unsigned long sequence) override;
    void writeBytes(void* bytes, unsigned int offset, unsigned int length) override;
    void readBytes(void* bytes, unsigned int offset, unsigned int length) override;

private:
    unsigned long stubSequence_;
};

#endif
