#include "ZException.h"

#include <cstdarg>

#include "ZMessage.h"

ZException::ZException(unsigned long number, const char* name)
    : number_(number), name_(name), file_(nullptr), line_(0) {}

ZException::~ZException() noexcept {}

void ZException::addLocation(const char* file, unsigned long line) {
    file_ = file;
    line_ = line;
}

int ZException::location(int, const char*& file, int& line) const {
    file = file_;
    line = static_cast<int>(line_);
    return 1;
}

int ZException::locationCount() const { return 1; }

const char* ZException::who() const { return file_; }

unsigned long ZException::where() const { return line_; }

int ZException::dumpException() {
    return ZMessageService::messageService()->outputException(*this);
}

ZZException::ZZException(int number, const char* name)
    : ZException(static_cast<unsigned long>(number), name) {}

ZZException::~ZZException() noexcept {}

int ZZException::print() { return printinternal(this); }

int ZZException::printinternal(const ZZException* exception, ...) {
    ZMessageArguments arguments;
    va_start(arguments.list, exception);
    const int result =
        ZMessageService::routeZZException(exception, reinterpret_cast<char*>(&arguments));
    va_end(arguments.list);
    return result;
}

// What every concrete class has: its copy on the heap, and the raise. The copy that is raised has
// exactly this class, so that a handler for it catches it.
#define Z_CONCRETE(Class)                                      \
    Class::~Class() noexcept {}                                \
    ZObject* Class::clone() const { return new Class(*this); } \
    void Class::throwException(const char* file, int line) {   \
        addLocation(file, static_cast<unsigned long>(line));   \
        throw Class(*this);                                    \
    }

#define Z_PLAIN(Class, number)                      \
    Class::Class() : ZZException(number, #Class) {} \
    Z_CONCRETE(Class)                               \
    int Class::print() { return printinternal(this); }

#define Z_CODE(Class)                                                          \
    Class::Class(int number, int rc) : ZZException(number, #Class), rc_(rc) {} \
    Z_CONCRETE(Class)                                                          \
    int Class::print() { return printinternal(this, rc_); }

#define Z_RESOURCE(Class)                                                \
    Class::Class(int number, int rc) : ZResourceException(number, rc) {} \
    Z_CONCRETE(Class)

Z_PLAIN(ZOutOfMemoryException, 1)
Z_PLAIN(ZInvalidPlatformException, 11)
Z_PLAIN(ZNotClonableException, 14)
Z_PLAIN(ZInvalidParameterException, 22)
Z_PLAIN(ZNoQELEnvironmentException, 45)
Z_PLAIN(ZQELMBLenException, 46)
Z_PLAIN(ZUnsupportedException, 48)

Z_CODE(ZThreadException)
Z_CODE(ZConditionException)

ZResourceException::ZResourceException(int number, int rc)
    : ZZException(number, "ZResourceException"), rc_(rc) {}

ZResourceException::~ZResourceException() noexcept {}

int ZResourceException::print() { return printinternal(this, rc_); }

Z_RESOURCE(ZCreateResourceException)
Z_RESOURCE(ZLockResourceException)
Z_RESOURCE(ZUnlockResourceException)
Z_RESOURCE(ZReadResourceException)
Z_RESOURCE(ZWriteResourceException)
