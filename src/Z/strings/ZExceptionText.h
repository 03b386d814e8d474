// ZExceptionText.h: the exceptions that hold text of their own. ZCodesetException.h has one more.
//
//   ZZException
//     ZResourceException
//       ZOpen-, ZCloseResourceException       37, 38: number from the raise site
//       ZInvalidResourceStateException        32
//     ZAbstractNotImplementedException        31
//     ZConverterException                     2: number from the raise site
//     ZToUTF8Exception, ZFromUTF8Exception    49, 50
//     ZUnexpectedEndOfFile                    53
//     ZJavaPropertyParseException             54
//     ZPropertiesException (abstract)
//       ZPropertiesMissingPropertyException   28
//       ZPropertiesInvalidValueException      39
//         ZPropertiesInvalidNumValueException   40, raised as its base
//         ZPropertiesInvalidBoolValueException  41, raised as its base
//       ZPropertiesIteratorException          42
//       ZPropertiesIOException                43
//       ZPropertiesInvalidDataException       44
//     ZSharedLibraryException (abstract)
//       ZSharedLibraryLoadException           51
//       ZSharedLibraryResolveException        52
//
// An exception owns copies of the texts given to it, and its copies have copies of their own; null
// is the empty text. The readers give pointers that live as long as the exception. Constructing
// and copying raises ZOutOfMemoryException in place of the exception when memory runs out.
#ifndef Z_ZEXCEPTIONTEXT_H
#define Z_ZEXCEPTIONTEXT_H

#include "ZException.h"
#include "ZLCString.h"

/// A lock file can't be opened: `value` is its name.
class ZEXPORT ZOpenResourceException : public ZResourceException {
public:
    ZOpenResourceException(int number, int rc, const char* value);
    ~ZOpenResourceException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;

    const char* value() const { return value_.getChars(); }

protected:
    ZLCString value_;
};

/// A lock file can't be closed: `value` is its name.
class ZEXPORT ZCloseResourceException : public ZResourceException {
public:
    ZCloseResourceException(int number, int rc, const char* value);
    ~ZCloseResourceException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;

    const char* value() const { return value_.getChars(); }

protected:
    ZLCString value_;
};

/// A lock is in a state that doesn't allow the call (32): `value` is that state's name.
class ZEXPORT ZInvalidResourceStateException : public ZResourceException {
public:
    explicit ZInvalidResourceStateException(const char* value);
    ~ZInvalidResourceStateException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;

    const char* value() const { return value_.getChars(); }

protected:
    ZLCString value_;
};

/// The class doesn't implement the operation (31): `value` is its name.
class ZEXPORT ZAbstractNotImplementedException : public ZZException {
public:
    explicit ZAbstractNotImplementedException(const char* value);
    ~ZAbstractNotImplementedException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;

    const char* value() const { return value_.getChars(); }

protected:
    ZLCString value_;
};

/// The file `what` ends too early (53).
class ZEXPORT ZUnexpectedEndOfFile : public ZZException {
public:
    explicit ZUnexpectedEndOfFile(const char* what);
    ~ZUnexpectedEndOfFile() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;

protected:
    ZLCString what_;
};

/// The Java property file `what` can't be understood (54).
class ZEXPORT ZJavaPropertyParseException : public ZZException {
public:
    explicit ZJavaPropertyParseException(const char* what);
    ~ZJavaPropertyParseException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;

protected:
    ZLCString what_;
};

/// Text in the local codeset can't be converted to UTF-8 (49). Names the local codeset.
class ZEXPORT ZToUTF8Exception : public ZZException {
public:
    ZToUTF8Exception();
    ~ZToUTF8Exception() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;

protected:
    ZLCString localCodeset_;
};

/// Text in UTF-8 can't be converted to the local codeset (50). Names the local codeset.
class ZEXPORT ZFromUTF8Exception : public ZZException {
public:
    ZFromUTF8Exception();
    ~ZFromUTF8Exception() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;

protected:
    ZLCString localCodeset_;
};

/// A converter between two codesets can't be made. For users of the library: nothing in it raises
/// this.
class ZEXPORT ZConverterException : public ZZException {
public:
    ZConverterException(int number, int rc, const char* from, const char* to);
    ~ZConverterException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;

protected:
    ZLCString rcText_;
    ZLCString fromCodeset_;
    ZLCString toCodeset_;
};

/// Base of the failures of configuration files.
class ZEXPORT ZPropertiesException : public ZZException {
public:
    ZPropertiesException(int number, const char* name, const char* propFile);
    ~ZPropertiesException() noexcept override;

    int print() override;

    const char* propFile() const { return propFile_.getChars(); }

protected:
    ZLCString propFile_;
};

/// A value that has to be there is missing (28).
class ZEXPORT ZPropertiesMissingPropertyException : public ZPropertiesException {
public:
    ZPropertiesMissingPropertyException(const char* propFile, const char* category,
                                        const char* key);
    ~ZPropertiesMissingPropertyException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;

    const char* category() const { return category_.getChars(); }
    const char* key() const { return key_.getChars(); }

protected:
    ZLCString category_;
    ZLCString key_;
};

/// A value isn't one of those allowed (39).
class ZEXPORT ZPropertiesInvalidValueException : public ZPropertiesException {
public:
    ZPropertiesInvalidValueException(const char* propFile, const char* category, const char* key,
                                     const char* value);
    ~ZPropertiesInvalidValueException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;

    const char* category() const { return category_.getChars(); }
    const char* key() const { return key_.getChars(); }
    const char* value() const { return value_.getChars(); }

protected:
    ZLCString category_;
    ZLCString key_;
    ZLCString value_;
};

/// A value isn't a number (40). What is raised and cloned is a ZPropertiesInvalidValueException
/// with this number: catch that.
class ZEXPORT ZPropertiesInvalidNumValueException : public ZPropertiesInvalidValueException {
public:
    ZPropertiesInvalidNumValueException(const char* propFile, const char* category, const char* key,
                                        const char* value);
    ~ZPropertiesInvalidNumValueException() noexcept override;
};

/// A value isn't a truth value (41). What is raised and cloned is a
/// ZPropertiesInvalidValueException with this number: catch that.
class ZEXPORT ZPropertiesInvalidBoolValueException : public ZPropertiesInvalidValueException {
public:
    ZPropertiesInvalidBoolValueException(const char* propFile, const char* category,
                                         const char* key, const char* value);
    ~ZPropertiesInvalidBoolValueException() noexcept override;
};

/// An iterator is in no state for the operation (42).
class ZEXPORT ZPropertiesIteratorException : public ZPropertiesException {
public:
    explicit ZPropertiesIteratorException(const char* propFile);
    ~ZPropertiesIteratorException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;
};

/// A call on a configuration file failed (43): the call and its errno.
class ZEXPORT ZPropertiesIOException : public ZPropertiesException {
public:
    ZPropertiesIOException(const char* propFile, const char* api, int excerrno);
    ~ZPropertiesIOException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;

    const char* api() const { return api_.getChars(); }
    /// The errno of that call.
    int excerrno() const { return excerrno_; }

protected:
    ZLCString api_;
    int excerrno_;
};

/// A configuration file holds data that can't be understood (44): the text and its line, counted
/// from 1.
class ZEXPORT ZPropertiesInvalidDataException : public ZPropertiesException {
public:
    ZPropertiesInvalidDataException(const char* propFile, const char* baddata, int badline);
    ~ZPropertiesInvalidDataException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;

    const char* baddata() const { return baddata_.getChars(); }
    /// The line of the file, from 1; 0 where it is no text.
    int badline() const { return badline_; }

protected:
    ZLCString baddata_;
    int badline_;
};

/// Base of the failures of shared libraries.
class ZEXPORT ZSharedLibraryException : public ZZException {
public:
    ZSharedLibraryException(int number, const char* name, const char* library, const char* message,
                            int error);
    ~ZSharedLibraryException() noexcept override;

    int print() override;

protected:
    int libraryError_;
    ZLCString library_;
    ZLCString libraryMessage_;
};

/// A shared library can't be loaded or unloaded (51).
class ZEXPORT ZSharedLibraryLoadException : public ZSharedLibraryException {
public:
    ZSharedLibraryLoadException(const char* library, const char* message, int error);
    ~ZSharedLibraryLoadException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;

protected:
    ZLCString symbol_;
};

/// A symbol of a shared library can't be found (52).
class ZEXPORT ZSharedLibraryResolveException : public ZSharedLibraryException {
public:
    ZSharedLibraryResolveException(const char* library, const char* symbol, const char* message,
                                   int error);
    ~ZSharedLibraryResolveException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;

protected:
    ZLCString symbol_;
};

#endif
