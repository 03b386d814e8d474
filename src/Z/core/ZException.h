// ZException.h: the exception family, as far as its fields are plain words. The classes that hold
// text stand in ZExceptionText.h.
//
//   ZException                     number, name, one location; the protocol
//     ZZException                  ties print() to the message service
//       ZOutOfMemoryException      1
//       ZInvalidPlatformException  11
//       ZNotClonableException      14
//       ZInvalidParameterException 22
//       ZNoQELEnvironmentException 45
//       ZQELMBLenException         46
//       ZUnsupportedException      48
//       ZThreadException, ZConditionException     number from the raise site, return code
//       ZResourceException (abstract)             likewise
//         ZCreate-, ZLock-, ZUnlock-, ZRead-, ZWriteResourceException
#ifndef Z_ZEXCEPTION_H
#define Z_ZEXCEPTION_H

#include "ZObject.h"

/// A failure: a message number, a name and one source location. It holds no message text; the
/// message service finds and formats it when the exception is asked to print itself.
///
/// A raise site makes a local object and calls throwException(__FILE__, __LINE__) on it; handlers
/// catch by reference, ZException& for any failure of the library. Raising writes nothing.
///
/// Threads: an exception object is used by one thread at a time.
class ZEXPORT ZException : public ZObject {
public:
    /// `name` is a static text: it is neither copied nor freed. No location yet.
    ZException(unsigned long number, const char* name);
    ~ZException() noexcept override;

    // hash(), compare() and equals() stay those of ZObject: an exception is itself alone.
    ZObject* clone() const override = 0;

    /// Stores the location in place of the one before. `file` is a static text.
    virtual void addLocation(const char* file, unsigned long line);

    /// Gives the one location, whatever `index` is; null and 0 before the first. Always 1.
    virtual int location(int index, const char*& file, int& line) const;

    /// Always 1, also before any location was added.
    virtual int locationCount() const;

    /// The file of the location, null before the first.
    virtual const char* who() const;

    /// The line of the location, 0 before the first.
    virtual unsigned long where() const;

    /// Sends the message with this class's inserts to the current message service. Its result.
    virtual int print() = 0;

    /// Records the location and raises a copy of this object, of the class that defines the
    /// operation. Never returns.
    [[noreturn]] virtual void throwException(const char* file, int line) = 0;

    /// Hands this exception to the current message service, which asks it to print itself. Its
    /// result.
    virtual int dumpException();

protected:
    friend class ZMessageService;  // reads number and name for the services

    unsigned long number_;
    const char* name_;
    const char* file_;
    unsigned long line_;
};

/// The library's own base: one road from print() to the message service.
class ZEXPORT ZZException : public ZException {
public:
    /// `name` is a static text. No location yet.
    ZZException(int number, const char* name);
    ~ZZException() noexcept override;

    int print() override;

protected:
    /// Hands `exception` and the inserts behind it, as printf takes them, to the current message
    /// service. Its result.
    static int printinternal(const ZZException* exception, ...);
};

/// Memory ran out (1). Making, copying and raising it needs none of the library's allocators.
class ZEXPORT ZOutOfMemoryException : public ZZException {
public:
    ZOutOfMemoryException();
    ~ZOutOfMemoryException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;
};

/// The service doesn't exist on this platform (11).
class ZEXPORT ZInvalidPlatformException : public ZZException {
public:
    ZInvalidPlatformException();
    ~ZInvalidPlatformException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;
};

/// The object has no copies (14).
class ZEXPORT ZNotClonableException : public ZZException {
public:
    ZNotClonableException();
    ~ZNotClonableException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;
};

/// A call with an argument or in a state that it doesn't allow (22).
class ZEXPORT ZInvalidParameterException : public ZZException {
public:
    ZInvalidParameterException();
    ~ZInvalidParameterException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;
};

/// The environment variable QELDIR isn't set (45).
class ZEXPORT ZNoQELEnvironmentException : public ZZException {
public:
    ZNoQELEnvironmentException();
    ~ZNoQELEnvironmentException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;
};

/// Text that is no valid sequence of characters in its codeset (46).
class ZEXPORT ZQELMBLenException : public ZZException {
public:
    ZQELMBLenException();
    ~ZQELMBLenException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;
};

/// The operation isn't supported for these operands (48).
class ZEXPORT ZUnsupportedException : public ZZException {
public:
    ZUnsupportedException();
    ~ZUnsupportedException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;
};

/// A thread service failed: `number` tells which, `rc` is its return code.
class ZEXPORT ZThreadException : public ZZException {
public:
    ZThreadException(int number, int rc);
    ~ZThreadException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;

protected:
    int rc_;
};

/// A condition failed: `number` tells which call, `rc` is its return code.
class ZEXPORT ZConditionException : public ZZException {
public:
    ZConditionException(int number, int rc);
    ~ZConditionException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;

protected:
    int rc_;
};

/// Base of the failures of locks and process locks. `rc` is the failed call's return code, 0 where
/// the lock was used wrongly and no call failed.
class ZEXPORT ZResourceException : public ZZException {
public:
    ZResourceException(int number, int rc);
    ~ZResourceException() noexcept override;

    int print() override;

protected:
    int rc_;
};

/// A lock can't be made (3).
class ZEXPORT ZCreateResourceException : public ZResourceException {
public:
    ZCreateResourceException(int number, int rc);
    ~ZCreateResourceException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
};

/// A lock can't be taken (5, 33), or a call needed a lock that isn't held (5 with rc 0).
class ZEXPORT ZLockResourceException : public ZResourceException {
public:
    ZLockResourceException(int number, int rc);
    ~ZLockResourceException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
};

/// A lock can't be released (6, 34), or isn't this thread's to release (6 with rc 0).
class ZEXPORT ZUnlockResourceException : public ZResourceException {
public:
    ZUnlockResourceException(int number, int rc);
    ~ZUnlockResourceException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
};

/// A lock file can't be read (35).
class ZEXPORT ZReadResourceException : public ZResourceException {
public:
    ZReadResourceException(int number, int rc);
    ~ZReadResourceException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
};

/// A lock file can't be written (36).
class ZEXPORT ZWriteResourceException : public ZResourceException {
public:
    ZWriteResourceException(int number, int rc);
    ~ZWriteResourceException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
};

#endif
