#include "zproperror.h"

#include <cxxabi.h>
#include <pthread.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "ZExceptionText.h"
#include "ZMessage.h"
#include "qel/qel.h"
#include "zrefusal.h"

namespace {

// What the thread's last failing call has met. It has no destructor, since other destructors of the
// thread may still make calls: a pthread key gives the texts back, and is asked once more if a
// call was made after that.
struct LastError {
    ZPROP_error error;
    int errorNumber;  // of the system
    char* file;
    char* text;

    void clear() {
        error = {0, nullptr, 0, nullptr};
        errorNumber = 0;
    }

    void freeTexts() {
        free(file);
        free(text);
        file = text = nullptr;
        clear();
    }

    // Without memory the texts are missing; the number is there.
    void set(int number, const char* newFile, int line, const char* newText);
};

__thread LastError lastError __attribute__((tls_model("initial-exec")));

pthread_once_t keyOnce = PTHREAD_ONCE_INIT;
pthread_key_t textsKey;
bool hasTextsKey = false;

void makeTextsKey() {
    hasTextsKey = pthread_key_create(&textsKey, [](void* last) {
                      static_cast<LastError*>(last)->freeTexts();
                  }) == 0;
}

void LastError::set(int number, const char* newFile, int line, const char* newText) {
    freeTexts();
    // Where there is no key the texts stay behind when the thread ends.
    pthread_once(&keyOnce, makeTextsKey);
    if (hasTextsKey)
        pthread_setspecific(textsKey, this);
    file = newFile == nullptr ? nullptr : strdup(newFile);
    text = newText == nullptr ? nullptr : strdup(newText);
    error = {number, file, line, text};
}

// Reads the number of any exception, as a message service may.
class NumberReader : public ZDefaultMessageService {
public:
    static int numberOf(const ZException& e) { return static_cast<int>(exceptionNumber(e)); }
    static const char* nameOf(const ZException& e) { return exceptionName(e); }
};

}  // namespace

static const int kParameterNumber = 22;  // that of its exception

static void noteIO(const ZPropertiesIOException& e) {
    char reason[128];
    // In the locale of text.
    const QelScope scope;
    const char* why = strerror_r(e.excerrno(), reason, sizeof reason);
    char text[256];
    snprintf(text, sizeof text, "%s: %s", e.api(), why);
    lastError.set(NumberReader::numberOf(e), e.propFile(), 0, text);
    lastError.errorNumber = e.excerrno();
}

// Why a name or value was refused, where there is a reason.
static void noteParameter(const ZInvalidParameterException& e) {
    const ZFault fault = zfaultBehind(e);
    char text[128];
    if (fault.reason != nullptr)
        snprintf(text, sizeof text, "%s %s", fault.subject, fault.reason);
    lastError.set(NumberReader::numberOf(e), nullptr, 0,
                  fault.reason != nullptr ? text : NumberReader::nameOf(e));
}

// Turns the exception in flight into a result number, and notes what it was about. A cancelled
// thread has no exception object, which the sanitizer takes for a null reference.
__attribute__((no_sanitize("null"))) int zresultOfException(ZPropGroup group) {
    int result = ZPROP_ERR_PARAM;
    try {
        throw;
    } catch (abi::__forced_unwind&) {
        throw;  // a cancelled thread must go on unwinding, or the whole process ends
    } catch (const ZPropertiesMissingPropertyException& e) {
        lastError.set(NumberReader::numberOf(e), e.propFile(), 0, e.key());
        result = ZPROP_ERR_MISSING;
    } catch (const ZPropertiesInvalidValueException& e) {
        lastError.set(NumberReader::numberOf(e), e.propFile(), 0, e.value());
        result = ZPROP_ERR_VALUE;
    } catch (const ZPropertiesIteratorException& e) {
        lastError.set(NumberReader::numberOf(e), e.propFile(), 0, nullptr);
        result = ZPROP_ERR_ITERATOR;
    } catch (const ZPropertiesInvalidDataException& e) {
        lastError.set(NumberReader::numberOf(e), e.propFile(), e.badline(), e.baddata());
    } catch (const ZPropertiesIOException& e) {
        noteIO(e);
    } catch (const ZOutOfMemoryException& e) {
        lastError.set(NumberReader::numberOf(e), nullptr, 0, NumberReader::nameOf(e));
        result = ZPROP_ERR_VALUE;
    } catch (const std::bad_alloc&) {
        lastError.set(1, nullptr, 0, "bad_alloc");
        result = ZPROP_ERR_VALUE;
    } catch (const ZInvalidParameterException& e) {
        noteParameter(e);
    } catch (const ZException& e) {
        lastError.set(NumberReader::numberOf(e), nullptr, 0, NumberReader::nameOf(e));
    } catch (...) {
        lastError.set(19, nullptr, 0, "unknown exception");
    }
    return group == zfileGroup ? ZPROP_ERR_FILE : group == zchangeGroup ? ZPROP_ERR_UPDATE : result;
}

void zclearLastError() { lastError.clear(); }

void znoteLastError(int number, const char* file, int line, const char* text) {
    lastError.set(number, file, line, text);
}

int zlastError(ZPROP_error* error) {
    if (error == nullptr)
        return 0;
    *error = lastError.error;
    return error->number;
}

int zlastErrno() { return lastError.errorNumber; }

int zstoreResult(ZPROP_stz_handle* handle, int result) {
    // Of all refusals only that of a change which nobody would see leaves such a file.
    const bool isRefused = lastError.error.number == kParameterNumber;
    if (handle->layers == nullptr || (result != ZPROP_OK && !isRefused))
        return result;
    ZLCString file;
    int line = 0;
    if (handle->layers->shadowed(file, line) == 0)
        return result;
    const ZLCString reason(isRefused ? lastError.text : "a higher file has other values");
    lastError.set(isRefused ? kParameterNumber : ZPROP_SHADOWED, file.getChars(), line,
                  reason.getChars());
    return isRefused ? result : ZPROP_SHADOWED;
}

int zparameterError() {
    znoteLastError(kParameterNumber, nullptr, 0, "bad handle or argument");
    return ZPROP_ERR_PARAM;
}

ZStanzaFileProperties* zliveProperties(ZPROP_handle* handle) {
    zclearLastError();
    if (!ZPROP_handle::isGood(handle))
        return nullptr;
    return &static_cast<ZPROP_stz_handle*>(handle)->properties;
}
