// ZMessage.cpp: the message service: who is current, the table of texts, and reports of exceptions.
// What takes strings (plain messages) stands in ZMessageText.cpp, above the strings.
#include "ZMessage.h"

#include <pthread.h>

#include <cstdio>

#include "ZException.h"
#include "zreportformats.h"

// Indexed by message number. The conversions of each text fit the inserts that the exception of
// that number hands over.
static const char* const ZDefaultMsgs[] = {
    nullptr,
    "Memory allocation failure.",
    "iconv_open failed for codepage %s to %s conversion. errno = %s.",
    "Unexpected error from pthread_mutex_init().  rc = %d.",
    "Unexpected error from pthread_mutex_destroy().  rc = %d.",
    "Unexpected error from pthread_mutex_lock().  rc = %d.",
    "Unexpected error from pthread_mutex_unlock().  rc = %d.",
    "Unexpected error from pthread_cond_init().  rc = %d.",
    "Unexpected error from pthread_cond_destroy().  rc = %d.",
    "Unexpected error from pthread_cond_wait().  rc = %d.",
    "Unexpected error from pthread_cond_signal().  rc = %d.",
    "This function is not supported on this platform.",
    "Unexpected error from Windows RegOpenKeyEx().  Open of registry key %s failed with error %s.",
    "Unexpected error from Windows RegQueryValueEx().  Read of value %s failed with error %s.",
    "Object is not cloneable.",
    "Unexpected error from pthread_attr_init().  rc = %d.",
    "Unexpected error from pthread_attr_setdetachstate().  rc = %d.",
    "Unexpected error from pthread_create().  rc = %d.",
    "Unexpected error from pthread_attr_destroy().  rc = %d.",
    "An unknown exception was caught.  No exception information available.",
    "Unexpected error from pthread_join().  rc = %d.",
    "Unexpected error from pthread_cond_timedwait().  rc = %d.",
    "A function or method was called with an invalid parameter.",
    nullptr,
    "Unexpected error from WSAStartup().  rc = %s.",
    "Unexpected error from gethostname().  rc = %s.",
    "Unexpected error from gethostnamebyname().  rc = %s.",
    "Unexpected error from pthread_cond_broadcast().  rc = %d.",
    "The configuration file %s is missing the required attribute %s in stanza %s.",
    "Unexpected error from pthread_key_create().  rc = %d.",
    "Unexpected error from pthread_setspecific().  rc = %d.",
    "The requested function is not implemented.",
    "An unexpected lock state was detected.  The current lock state is %s.",
    "An unexpected error was received when trying to obtain a process lock.  rc = %d.",
    "An unexpected error was received when trying to release a process lock.  rc = %d.",
    "Read failed for a process lock.  rc = %d.",
    "Write failed for a process lock.  rc = %d.",
    "Create failed for a process lock.  rc = %d and the lock file name is %s.",
    "Close failed for a process lock.  rc = %d and the lock file name is %s.",
    "The configuration file %s has an invalid value %s for key %s in stanza %s.",
    "The configuration file %s has an invalid numeric value %s for key %s in stanza %s.",
    "The configuration file %s has an invalid boolean value %s for key %s in stanza %s.",
    "The iterator for  configuration file %s is in an invalid state for the operation",
    "Access failed for configuration file %s.  The access function was %s and return code was %d",
    "The configuration file \"%s\" contains invalid data at line %d.\nData: \"%s\"",
    "The QELDIR environment variable is not set.",
    "The qel_mblen() function returned -1.",
    "Codeset handle create failed for codeset \"%s\".  QELDIR is \"%s\"",
    "The operation is not supported.",
    "Local codeset %s string could not be converted to UTF-8.",
    "UTF-8 string could not be converted to the local codeset %s.",
    "Shared library load/unload error (%s) %d.  %s",
    "Shared library resolve error (%s:%s) %d.  %s",
    "Unexpected end of file encounted while reading %s.",
    "Internal error encountered while loading Java property file %s.",
};
static const unsigned long kMessageCount = sizeof ZDefaultMsgs / sizeof ZDefaultMsgs[0];
static_assert(kMessageCount == 55, "the numbers are shared by all callers");

static const char kExceptionFormat[] = "Exception: %s\n File: \"%s\" %d\n Error: %d\n";
static const char kCountFormat[] = "NUM_MSGS = %d\n";
static const char kNoText[] = "No default text defined in ZMessage for the exception\n";

ZMessageService* ZMessageService::ms_ = nullptr;
ZMessageService* ZMessageService::dms_ = nullptr;

static pthread_once_t once = PTHREAD_ONCE_INIT;

// Runs init at the first use. pthread_once orders its stores before what any caller reads later.
static void makeDefaultService() { pthread_once(&once, &ZMessageService::init); }

// The two words are read by reports while setMessageService stores one: single words, and whoever
// reads an older service still finds it alive.
static ZMessageService* load(ZMessageService* const& word) {
    return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}

static void store(ZMessageService*& word, ZMessageService* service) {
    __atomic_store_n(&word, service, __ATOMIC_RELEASE);
}

void ZMessageService::init() {
    ZMessageService* service = new ZDefaultMessageService;
    // dms_ last: setMessageService takes it for the sign that this is over, and what that sets must
    // not be overwritten here.
    store(ms_, service);
    store(dms_, service);
}

ZMessageService* ZMessageService::messageService() {
    if (ZMessageService* service = load(ms_))
        return service;
    makeDefaultService();
    return load(ms_);
}

ZMessageService* ZMessageService::defaultMessageService() {
    if (ZMessageService* service = load(dms_))
        return service;
    makeDefaultService();
    return load(dms_);
}

void ZMessageService::setMessageService(const ZMessageService* service) {
    ZMessageService* standard = defaultMessageService();
    store(ms_, service == nullptr ? standard : const_cast<ZMessageService*>(service));
}

// Set while this thread's reports are the default service's, whichever is current.
static thread_local bool isByDefault = false;

int ZMessageService::routeZZException(const ZZException* exception, char* args) {
    ZMessageService* service = isByDefault ? defaultMessageService() : messageService();
    return service->outputException(exception, args);
}

void zprintByDefault(ZException& exception) {
    isByDefault = true;
    exception.print();
    isByDefault = false;
}

unsigned long ZMessageService::exceptionNumber(const ZException& exception) {
    return exception.number_;
}

const char* ZMessageService::exceptionName(const ZException& exception) { return exception.name_; }

ZObject* ZDefaultMessageService::clone() const { return new ZDefaultMessageService; }

// Reads a copy: who passed the report on may still want the inserts for a log of his own.
static void printInserts(const char* text, const ZMessageArguments& arguments) {
    va_list list;
    va_copy(list, const_cast<ZMessageArguments&>(arguments).list);
    vfprintf(stderr, text, list);
    va_end(list);
}

int ZDefaultMessageService::outputException(const ZZException* exception, char* args) const {
    const unsigned long number = exceptionNumber(*exception);
    const char* file = exception->who();
    fprintf(stderr, kExceptionFormat, exceptionName(*exception), file == nullptr ? "" : file,
            static_cast<int>(exception->where()), static_cast<int>(number));
    zprintThreadLine();
    fprintf(stderr, kCountFormat, static_cast<int>(kMessageCount));
    const char* text = number >= 1 && number < kMessageCount ? ZDefaultMsgs[number] : nullptr;
    if (text == nullptr)
        fputs(kNoText, stderr);
    else
        printInserts(text, *reinterpret_cast<ZMessageArguments*>(args));
    return 0;
}

int ZDefaultMessageService::outputException(ZException& exception) const {
    return exception.print();
}
