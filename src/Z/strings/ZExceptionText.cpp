#include "ZExceptionText.h"

#include "zqelutil.h"

// What every concrete class has: its copy on the heap, and the raise of a copy of this very class.
#define Z_CONCRETE(Class)                                      \
    Class::~Class() noexcept {}                                \
    ZObject* Class::clone() const { return new Class(*this); } \
    void Class::throwException(const char* file, int line) {   \
        addLocation(file, static_cast<unsigned long>(line));   \
        throw Class(*this);                                    \
    }

// Classes with one text, whose message has no other insert.
#define Z_ONE_TEXT(Class, number, field)                                                       \
    Class::Class(const char* field##text) : ZZException(number, #Class), field(field##text) {} \
    Z_CONCRETE(Class)                                                                          \
    int Class::print() { return printinternal(this, field.getChars()); }

// Classes that name the local codeset of the moment.
#define Z_LOCAL_CODESET(Class, number)                                                     \
    Class::Class() : ZZException(number, #Class), localCodeset_(zgetLocalCodesetName()) {} \
    Z_CONCRETE(Class)                                                                      \
    int Class::print() { return printinternal(this, localCodeset_.getChars()); }

// Failures of a named resource.
#define Z_NAMED_RESOURCE(Class)                            \
    Class::Class(int number, int rc, const char* value)    \
        : ZResourceException(number, rc), value_(value) {} \
    Z_CONCRETE(Class)                                      \
    int Class::print() { return printinternal(this, rc_, value_.getChars()); }

Z_NAMED_RESOURCE(ZOpenResourceException)
Z_NAMED_RESOURCE(ZCloseResourceException)

Z_ONE_TEXT(ZAbstractNotImplementedException, 31, value_)
Z_ONE_TEXT(ZUnexpectedEndOfFile, 53, what_)
Z_ONE_TEXT(ZJavaPropertyParseException, 54, what_)

Z_LOCAL_CODESET(ZToUTF8Exception, 49)
Z_LOCAL_CODESET(ZFromUTF8Exception, 50)

ZInvalidResourceStateException::ZInvalidResourceStateException(const char* value)
    : ZResourceException(32, -1), value_(value) {}

Z_CONCRETE(ZInvalidResourceStateException)

int ZInvalidResourceStateException::print() { return printinternal(this, value_.getChars()); }

ZConverterException::ZConverterException(int number, int rc, const char* from, const char* to)
    : ZZException(number, "ZConverterException"), rcText_(rc), fromCodeset_(from), toCodeset_(to) {}

Z_CONCRETE(ZConverterException)

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

Z_CONCRETE(ZPropertiesMissingPropertyException)

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

Z_CONCRETE(ZPropertiesInvalidValueException)

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

Z_CONCRETE(ZPropertiesIteratorException)

int ZPropertiesIteratorException::print() { return printinternal(this, propFile()); }

ZPropertiesIOException::ZPropertiesIOException(const char* propFile, const char* api, int excerrno)
    : ZPropertiesException(43, "ZPropertiesIOException", propFile),
      api_(api),
      excerrno_(excerrno) {}

Z_CONCRETE(ZPropertiesIOException)

int ZPropertiesIOException::print() { return printinternal(this, propFile(), api(), excerrno()); }

ZPropertiesInvalidDataException::ZPropertiesInvalidDataException(const char* propFile,
                                                                 const char* baddata, int badline)
    : ZPropertiesException(44, "ZPropertiesInvalidDataException", propFile),
      baddata_(baddata),
      badline_(badline) {}

Z_CONCRETE(ZPropertiesInvalidDataException)

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

Z_CONCRETE(ZSharedLibraryLoadException)

int ZSharedLibraryLoadException::print() {
    return printinternal(this, library_.getChars(), libraryError_, libraryMessage_.getChars());
}

ZSharedLibraryResolveException::ZSharedLibraryResolveException(const char* library,
                                                               const char* symbol,
                                                               const char* message, int error)
    : ZSharedLibraryException(52, "ZSharedLibraryResolveException", library, message, error),
      symbol_(symbol) {}

Z_CONCRETE(ZSharedLibraryResolveException)

int ZSharedLibraryResolveException::print() {
    return printinternal(this, library_.getChars(), symbol_.getChars(), libraryError_,
                         libraryMessage_.getChars());
}
