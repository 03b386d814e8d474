// ZUTF8Converter.h: conversion between UTF-8 and a codeset that is named at run time.
#ifndef Z_ZUTF8CONVERTER_H
#define Z_ZUTF8CONVERTER_H

#include "ZBuffer.h"
#include "ZString.h"

/// What a converter offers.
class ZEXPORT ZUTF8ConverterInterface {
public:
    /// The name of the codeset on the side that isn't UTF-8; empty when none is known.
    virtual const ZLCString& getLocalCodeSet() const = 0;

    /// Converts a text and its terminator into `out`, from UTF-8 or into it. Null is the empty
    /// text.
    virtual void convertToLocal(const char* utf8, ZBuffer& out) const = 0;
    virtual void convertToUTF8(const char* local, ZBuffer& out) const = 0;

    virtual ~ZUTF8ConverterInterface() noexcept;
};

/// What all converters of the library share.
class ZEXPORT ZAbstractUTF8Converter : public ZUTF8ConverterInterface, public ZObject {
public:
    ~ZAbstractUTF8Converter() noexcept override;
};

/// Converts by the codeset service.
///
/// A conversion fails for text that isn't valid, a character that the other side lacks, a result
/// that takes more than two bytes of the codeset for a byte of UTF-8 or three the other way, and
/// for a codeset that couldn't be opened. Nothing is raised then: the buffer keeps the length that
/// was made for the result (that many bytes for each byte of the text, and one more), and its
/// content doesn't matter. After a success it holds the result alone, as a rule less. Codesets
/// whose text holds NUL bytes inside of characters can't be converted from.
///
/// Ownership: the converter's codeset is its own; it has no copies.
/// Failure: ZNoQELEnvironmentException (45) from the constructors. ZOutOfMemoryException (1) when
///   the buffer can't grow.
/// Threads: several may convert by one converter, each into a buffer of its own.
/// Cost: linear in the text. The codeset is opened once, by the constructor.
class ZEXPORT ZQELUTF8Converter : public ZAbstractUTF8Converter {
public:
    /// Knows no codeset and can't convert. Raises ZNoQELEnvironmentException (45) when the
    /// environment variable QELDIR isn't set.
    ZQELUTF8Converter();

    /// Converts between UTF-8 and `localCodeSet`; null is the codeset of the process's locale as it
    /// is now. `dir` is where the codeset service finds its tables, from now on and for the whole
    /// process; only without it QELDIR must be set, as above. Where QELDIR is set, the text of the
    /// process is set up first, as by its first string; if that fails or has failed before, nothing
    /// is reported, and the converter works all the same. A codeset that can't be opened makes
    /// every conversion fail.
    ZQELUTF8Converter(const char* localCodeSet, const char* dir);
    ZQELUTF8Converter(const ZQELUTF8Converter&) = delete;
    ZQELUTF8Converter& operator=(const ZQELUTF8Converter&) = delete;
    ~ZQELUTF8Converter() noexcept override;

    const ZLCString& getLocalCodeSet() const override;

    /// The text may be one in `out` itself.
    void convertToLocal(const char* utf8, ZBuffer& out) const override;
    void convertToUTF8(const char* local, ZBuffer& out) const override;

private:
    ZLCString localCodeSet_;
    zcodeset_handle csHandle_;  // owned; 0: none
};

#endif
