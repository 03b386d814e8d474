#include "ZException.h"

#include <cstdarg>

#include "ZMessage.h"
#include "zraise.h"

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

ZOutOfMemoryException::ZOutOfMemoryException() : ZZException(1, "ZOutOfMemoryException") {}

ZOutOfMemoryException::~ZOutOfMemoryException() noexcept {}

ZObject* ZOutOfMemoryException::clone() const { return new ZOutOfMemoryException(*this); }

void ZOutOfMemoryException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

int ZOutOfMemoryException::print() { return printinternal(this); }

ZInvalidPlatformException::ZInvalidPlatformException()
    : ZZException(11, "ZInvalidPlatformException") {}

ZInvalidPlatformException::~ZInvalidPlatformException() noexcept {}

ZObject* ZInvalidPlatformException::clone() const { return new ZInvalidPlatformException(*this); }

void ZInvalidPlatformException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

int ZInvalidPlatformException::print() { return printinternal(this); }

ZNotClonableException::ZNotClonableException() : ZZException(14, "ZNotClonableException") {}

ZNotClonableException::~ZNotClonableException() noexcept {}

ZObject* ZNotClonableException::clone() const { return new ZNotClonableException(*this); }

void ZNotClonableException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

int ZNotClonableException::print() { return printinternal(this); }

ZInvalidParameterException::ZInvalidParameterException()
    : ZZException(22, "ZInvalidParameterException") {}

ZInvalidParameterException::~ZInvalidParameterException() noexcept {}

ZObject* ZInvalidParameterException::clone() const { return new ZInvalidParameterException(*this); }

void ZInvalidParameterException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

int ZInvalidParameterException::print() { return printinternal(this); }

ZNoQELEnvironmentException::ZNoQELEnvironmentException()
    : ZZException(45, "ZNoQELEnvironmentException") {}

ZNoQELEnvironmentException::~ZNoQELEnvironmentException() noexcept {}

ZObject* ZNoQELEnvironmentException::clone() const { return new ZNoQELEnvironmentException(*this); }

void ZNoQELEnvironmentException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

int ZNoQELEnvironmentException::print() { return printinternal(this); }

ZQELMBLenException::ZQELMBLenException() : ZZException(46, "ZQELMBLenException") {}

ZQELMBLenException::~ZQELMBLenException() noexcept {}

ZObject* ZQELMBLenException::clone() const { return new ZQELMBLenException(*this); }

void ZQELMBLenException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

int ZQELMBLenException::print() { return printinternal(this); }

ZUnsupportedException::ZUnsupportedException() : ZZException(48, "ZUnsupportedException") {}

ZUnsupportedException::~ZUnsupportedException() noexcept {}

ZObject* ZUnsupportedException::clone() const { return new ZUnsupportedException(*this); }

void ZUnsupportedException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

int ZUnsupportedException::print() { return printinternal(this); }

ZThreadException::ZThreadException(int number, int rc)
    : ZZException(number, "ZThreadException"), rc_(rc) {}

ZThreadException::~ZThreadException() noexcept {}

ZObject* ZThreadException::clone() const { return new ZThreadException(*this); }

void ZThreadException::throwException(const char* file, int line) { zthrowCopy(*this, file, line); }

int ZThreadException::print() { return printinternal(this, rc_); }

ZConditionException::ZConditionException(int number, int rc)
    : ZZException(number, "ZConditionException"), rc_(rc) {}

ZConditionException::~ZConditionException() noexcept {}

ZObject* ZConditionException::clone() const { return new ZConditionException(*this); }

void ZConditionException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

int ZConditionException::print() { return printinternal(this, rc_); }

ZResourceException::ZResourceException(int number, int rc)
    : ZZException(number, "ZResourceException"), rc_(rc) {}

ZResourceException::~ZResourceException() noexcept {}

int ZResourceException::print() { return printinternal(this, rc_); }

ZCreateResourceException::ZCreateResourceException(int number, int rc)
    : ZResourceException(number, rc) {}

ZCreateResourceException::~ZCreateResourceException() noexcept {}

ZObject* ZCreateResourceException::clone() const { return new ZCreateResourceException(*this); }

void ZCreateResourceException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

ZLockResourceException::ZLockResourceException(int number, int rc)
    : ZResourceException(number, rc) {}

ZLockResourceException::~ZLockResourceException() noexcept {}

ZObject* ZLockResourceException::clone() const { return new ZLockResourceException(*this); }

void ZLockResourceException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

ZUnlockResourceException::ZUnlockResourceException(int number, int rc)
    : ZResourceException(number, rc) {}

ZUnlockResourceException::~ZUnlockResourceException() noexcept {}

ZObject* ZUnlockResourceException::clone() const { return new ZUnlockResourceException(*this); }

void ZUnlockResourceException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

ZReadResourceException::ZReadResourceException(int number, int rc)
    : ZResourceException(number, rc) {}

ZReadResourceException::~ZReadResourceException() noexcept {}

ZObject* ZReadResourceException::clone() const { return new ZReadResourceException(*this); }

void ZReadResourceException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

ZWriteResourceException::ZWriteResourceException(int number, int rc)
    : ZResourceException(number, rc) {}

ZWriteResourceException::~ZWriteResourceException() noexcept {}

ZObject* ZWriteResourceException::clone() const { return new ZWriteResourceException(*this); }

void ZWriteResourceException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}
