#include "ZExceptionText.h"

#include "zqelutil.h"
#include "zraise.h"

ZOpenResourceException::ZOpenResourceException(int number, int rc, const char* value)
    : ZResourceException(number, rc), value_(value) {}

ZOpenResourceException::~ZOpenResourceException() noexcept {}

ZObject* ZOpenResourceException::clone() const { return new ZOpenResourceException(*this); }

void ZOpenResourceException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

int ZOpenResourceException::print() { return printinternal(this, rc_, value_.getChars()); }

ZCloseResourceException::ZCloseResourceException(int number, int rc, const char* value)
    : ZResourceException(number, rc), value_(value) {}

ZCloseResourceException::~ZCloseResourceException() noexcept {}

ZObject* ZCloseResourceException::clone() const { return new ZCloseResourceException(*this); }

void ZCloseResourceException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

int ZCloseResourceException::print() { return printinternal(this, rc_, value_.getChars()); }

ZAbstractNotImplementedException::ZAbstractNotImplementedException(const char* value)
    : ZZException(31, "ZAbstractNotImplementedException"), value_(value) {}

ZAbstractNotImplementedException::~ZAbstractNotImplementedException() noexcept {}

ZObject* ZAbstractNotImplementedException::clone() const {
    return new ZAbstractNotImplementedException(*this);
}

void ZAbstractNotImplementedException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

int ZAbstractNotImplementedException::print() { return printinternal(this, value_.getChars()); }

ZUnexpectedEndOfFile::ZUnexpectedEndOfFile(const char* what)
    : ZZException(53, "ZUnexpectedEndOfFile"), what_(what) {}

ZUnexpectedEndOfFile::~ZUnexpectedEndOfFile() noexcept {}

ZObject* ZUnexpectedEndOfFile::clone() const { return new ZUnexpectedEndOfFile(*this); }

void ZUnexpectedEndOfFile::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

int ZUnexpectedEndOfFile::print() { return printinternal(this, what_.getChars()); }

ZJavaPropertyParseException::ZJavaPropertyParseException(const char* what)
    : ZZException(54, "ZJavaPropertyParseException"), what_(what) {}

ZJavaPropertyParseException::~ZJavaPropertyParseException() noexcept {}

ZObject* ZJavaPropertyParseException::clone() const {
    return new ZJavaPropertyParseException(*this);
}

void ZJavaPropertyParseException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

int ZJavaPropertyParseException::print() { return printinternal(this, what_.getChars()); }

ZToUTF8Exception::ZToUTF8Exception()
    : ZZException(49, "ZToUTF8Exception"), localCodeset_(zgetLocalCodesetName()) {}

ZToUTF8Exception::~ZToUTF8Exception() noexcept {}

ZObject* ZToUTF8Exception::clone() const { return new ZToUTF8Exception(*this); }

void ZToUTF8Exception::throwException(const char* file, int line) { zthrowCopy(*this, file, line); }

int ZToUTF8Exception::print() { return printinternal(this, localCodeset_.getChars()); }

ZFromUTF8Exception::ZFromUTF8Exception()
    : ZZException(50, "ZFromUTF8Exception"), localCodeset_(zgetLocalCodesetName()) {}

ZFromUTF8Exception::~ZFromUTF8Exception() noexcept {}

ZObject* ZFromUTF8Exception::clone() const { return new ZFromUTF8Exception(*this); }

void ZFromUTF8Exception::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

int ZFromUTF8Exception::print() { return printinternal(this, localCodeset_.getChars()); }

ZInvalidResourceStateException::ZInvalidResourceStateException(const char* value)
    : ZResourceException(32, -1), value_(value) {}

ZInvalidResourceStateException::~ZInvalidResourceStateException() noexcept {}

ZObject* ZInvalidResourceStateException::clone() const {
    return new ZInvalidResourceStateException(*this);
}

void ZInvalidResourceStateException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

int ZInvalidResourceStateException::print() { return printinternal(this, value_.getChars()); }

ZConverterException::ZConverterException(int number, int rc, const char* from, const char* to)
    : ZZException(number, "ZConverterException"), rcText_(rc), fromCodeset_(from), toCodeset_(to) {}

ZConverterException::~ZConverterException() noexcept {}

ZObject* ZConverterException::clone() const { return new ZConverterException(*this); }

void ZConverterException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

int ZConverterException::print() {
    return printinternal(this, fromCodeset_.getChars(), toCodeset_.getChars(), rcText_.getChars());
}

ZPropertiesException::ZPropertiesException(int number, const char* name, const char* propFile)
    : ZZException(number, name), propFile_(propFile) {}

ZPropertiesException::~ZPropertiesException() noexcept {}

int ZPropertiesException::print() { return printinternal(this, propFile()); }

ZPropertiesMissingPropertyException::ZPropertiesMissingPropertyException(const char* propFile,
                                                                         const char* category,
                                                                         const char* key)
    : ZPropertiesException(28, "ZPropertiesMissingPropertyException", propFile),
      category_(category),
      key_(key) {}

ZPropertiesMissingPropertyException::~ZPropertiesMissingPropertyException() noexcept {}

ZObject* ZPropertiesMissingPropertyException::clone() const {
    return new ZPropertiesMissingPropertyException(*this);
}

void ZPropertiesMissingPropertyException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

int ZPropertiesMissingPropertyException::print() {
    return printinternal(this, propFile(), key(), category());
}

ZPropertiesInvalidValueException::ZPropertiesInvalidValueException(const char* propFile,
                                                                   const char* category,
                                                                   const char* key,
                                                                   const char* value)
    : ZPropertiesException(39, "ZPropertiesInvalidValueException", propFile),
      category_(category),
      key_(key),
      value_(value) {}

ZPropertiesInvalidValueException::~ZPropertiesInvalidValueException() noexcept {}

ZObject* ZPropertiesInvalidValueException::clone() const {
    return new ZPropertiesInvalidValueException(*this);
}

void ZPropertiesInvalidValueException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

int ZPropertiesInvalidValueException::print() {
    return printinternal(this, propFile(), value(), key(), category());
}

// The two below are raised and cloned as their base, with a number of their own.
ZPropertiesInvalidNumValueException::ZPropertiesInvalidNumValueException(const char* propFile,
                                                                         const char* category,
                                                                         const char* key,
                                                                         const char* value)
    : ZPropertiesInvalidValueException(propFile, category, key, value) {
    number_ = 40;
}

ZPropertiesInvalidNumValueException::~ZPropertiesInvalidNumValueException() noexcept {}

ZPropertiesInvalidBoolValueException::ZPropertiesInvalidBoolValueException(const char* propFile,
                                                                           const char* category,
                                                                           const char* key,
                                                                           const char* value)
    : ZPropertiesInvalidValueException(propFile, category, key, value) {
    number_ = 41;
}

ZPropertiesInvalidBoolValueException::~ZPropertiesInvalidBoolValueException() noexcept {}

ZPropertiesIteratorException::ZPropertiesIteratorException(const char* propFile)
    : ZPropertiesException(42, "ZPropertiesIteratorException", propFile) {}

ZPropertiesIteratorException::~ZPropertiesIteratorException() noexcept {}

ZObject* ZPropertiesIteratorException::clone() const {
    return new ZPropertiesIteratorException(*this);
}

void ZPropertiesIteratorException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

int ZPropertiesIteratorException::print() { return printinternal(this, propFile()); }

ZPropertiesIOException::ZPropertiesIOException(const char* propFile, const char* api, int excerrno)
    : ZPropertiesException(43, "ZPropertiesIOException", propFile),
      api_(api),
      excerrno_(excerrno) {}

ZPropertiesIOException::~ZPropertiesIOException() noexcept {}

ZObject* ZPropertiesIOException::clone() const { return new ZPropertiesIOException(*this); }

void ZPropertiesIOException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

int ZPropertiesIOException::print() { return printinternal(this, propFile(), api(), excerrno()); }

ZPropertiesInvalidDataException::ZPropertiesInvalidDataException(const char* propFile,
                                                                 const char* baddata, int badline)
    : ZPropertiesException(44, "ZPropertiesInvalidDataException", propFile),
      baddata_(baddata),
      badline_(badline) {}

ZPropertiesInvalidDataException::~ZPropertiesInvalidDataException() noexcept {}

ZObject* ZPropertiesInvalidDataException::clone() const {
    return new ZPropertiesInvalidDataException(*this);
}

void ZPropertiesInvalidDataException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

int ZPropertiesInvalidDataException::print() {
    return printinternal(this, propFile(), badline(), baddata());
}

ZSharedLibraryException::ZSharedLibraryException(int number, const char* name, const char* library,
                                                 const char* message, int error)
    : ZZException(number, name),
      libraryError_(error),
      library_(library),
      libraryMessage_(message) {}

ZSharedLibraryException::~ZSharedLibraryException() noexcept {}

int ZSharedLibraryException::print() {
    return printinternal(this, libraryError_, libraryMessage_.getChars());
}

ZSharedLibraryLoadException::ZSharedLibraryLoadException(const char* library, const char* message,
                                                         int error)
    : ZSharedLibraryException(51, "ZSharedLibraryLoadException", library, message, error) {}

ZSharedLibraryLoadException::~ZSharedLibraryLoadException() noexcept {}

ZObject* ZSharedLibraryLoadException::clone() const {
    return new ZSharedLibraryLoadException(*this);
}

void ZSharedLibraryLoadException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

int ZSharedLibraryLoadException::print() {
    return printinternal(this, library_.getChars(), libraryError_, libraryMessage_.getChars());
}

ZSharedLibraryResolveException::ZSharedLibraryResolveException(const char* library,
                                                               const char* symbol,
                                                               const char* message, int error)
    : ZSharedLibraryException(52, "ZSharedLibraryResolveException", library, message, error),
      symbol_(symbol) {}

ZSharedLibraryResolveException::~ZSharedLibraryResolveException() noexcept {}

ZObject* ZSharedLibraryResolveException::clone() const {
    return new ZSharedLibraryResolveException(*this);
}

void ZSharedLibraryResolveException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

int ZSharedLibraryResolveException::print() {
    return printinternal(this, library_.getChars(), symbol_.getChars(), libraryError_,
                         libraryMessage_.getChars());
}
