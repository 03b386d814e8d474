// ZMessage.h: the one place where a message number becomes something that a person reads.
//
//   ZMessageService         the exchangeable sink of reports
//   ZDefaultMessageService  writes to standard error, with the table of default texts
#ifndef Z_ZMESSAGE_H
#define Z_ZMESSAGE_H

#include <stdarg.h>

#include "ZObject.h"

/// What the opaque `args` of outputException leads to: the inserts of the exception's message,
/// ready for vfprintf. A struct, since a va_list itself is an array on some platforms and a pointer
/// on others.
///
/// Reading uses a va_list up. The default service reads a copy, so that a service may pass a report
/// on to it first and read the list itself afterwards. A service that reads the list before it
/// passes the report on, or that others pass reports on to, reads a copy (va_copy) likewise.
struct ZMessageArguments {
    va_list list;  ///< as vprintf takes it
};

/// Where reports go. The library only ever talks to the current service; a program puts its own in
/// place with setMessageService.
///
/// Ownership: a service that is set stays its owner's, who keeps it alive while it is installed
///   and until reports that other threads have begun through it have ended.
/// Strings: a service may use them in its reports, but for one: in a process that can't have any
///   (see zqelutil.h) the report of that goes to the service too, and as soon as the service then
///   makes a string, the default service reports the same and the process ends.
/// Threads: the static calls may run in any thread; concurrent first uses make one default
///   service. The lines of one report are written by separate calls: reports can interleave.
class ZEXPORT ZMessageService {
public:
    /// A plain message: `number`, where it was sent, and the first `insertCount` of the inserts (0
    /// to 6; the rest are null). 0 when done.
    virtual int outputMessage(const char* file, int line, int number, int insertCount,
                              const ZLCString* s1, const ZLCString* s2, const ZLCString* s3,
                              const ZLCString* s4, const ZLCString* s5,
                              const ZLCString* s6) const = 0;

    /// The same with inserts in UTF-8.
    virtual int outputMessageUTF8(const char* file, int line, int number, int insertCount,
                                  const ZUTF8String* s1, const ZUTF8String* s2,
                                  const ZUTF8String* s3, const ZUTF8String* s4,
                                  const ZUTF8String* s5, const ZUTF8String* s6) const = 0;

    /// An exception that is to be reported; the service asks it to print itself. 0 when done.
    virtual int outputException(ZException& exception) const = 0;

    /// An exception with its inserts: `args` is a ZMessageArguments*, good for this call. 0 when
    /// done.
    virtual int outputException(const ZZException* exception, char* args) const = 0;

    /// The current service, never null.
    static ZMessageService* messageService();

    /// The default service, never null; it lives until the process ends.
    static ZMessageService* defaultMessageService();

    /// Makes `service` current; null puts the default one back.
    static void setMessageService(const ZMessageService* service);

    /// Hands an exception with its inserts to the current service. Its result.
    static int routeZZException(const ZZException* exception, char* args);

    /// Makes the default service and installs it. Called once, by the calls above.
    static void init();

protected:
    /// The message number and the name of an exception, for services; the family has no public
    /// reader of them.
    static unsigned long exceptionNumber(const ZException& exception);
    static const char* exceptionName(const ZException& exception);

    // Pure interface: deleted through its class or through ZObject*.
    ~ZMessageService() {}

private:
    // Set once by init (dms_) or at any time (ms_); read without a lock by every report.
    static ZMessageService* ms_;
    static ZMessageService* dms_;
};

/// The service that is current when nobody has set another: writes to standard error and ignores
/// failures of writing. No state; any thread.
class ZEXPORT ZDefaultMessageService : public ZObject, public ZMessageService {
public:
    ZDefaultMessageService() {}

    ZObject* clone() const override;

    /// Name, location, number, thread, the count of messages, then the message with its inserts or
    /// a line that says that there is none. No line end behind the message.
    int outputException(const ZZException* exception, char* args) const override;
    int outputMessage(const char* file, int line, int number, int insertCount, const ZLCString* s1,
                      const ZLCString* s2, const ZLCString* s3, const ZLCString* s4,
                      const ZLCString* s5, const ZLCString* s6) const override;
    int outputMessageUTF8(const char* file, int line, int number, int insertCount,
                          const ZUTF8String* s1, const ZUTF8String* s2, const ZUTF8String* s3,
                          const ZUTF8String* s4, const ZUTF8String* s5,
                          const ZUTF8String* s6) const override;
    int outputException(ZException& exception) const override;
};

#endif
