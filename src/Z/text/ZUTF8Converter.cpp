// ZUTF8Converter.cpp: conversion by the codeset service.
//
// A converter that is given a directory works in a process without QELDIR too, which has no text.
// So its name is made by the constructor that doesn't ask for the set-up of text.
#include "ZUTF8Converter.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#include "ZException.h"
#include "qel/qel.h"
#include "zcodesetfailure.h"
#include "zraise.h"

ZUTF8ConverterInterface::~ZUTF8ConverterInterface() noexcept {}

ZAbstractUTF8Converter::~ZAbstractUTF8Converter() noexcept {}

// Sets text up, the process's locale with it, as the first string of a process does. It may have
// failed for good before QELDIR was set: a converter can do without, having a codeset of its own.
static void setTextUp(bool isRequired) {
    if (qel_own() != nullptr)
        return;
    if (getenv("QELDIR") != nullptr)
        zsetTextUp();
    else if (isRequired)
        zraise(ZNoQELEnvironmentException());
}

ZQELUTF8Converter::ZQELUTF8Converter()
    : localCodeSet_(ZAbstractString::BeforeSetup(), nullptr), csHandle_(0) {
    setTextUp(true);
}

ZQELUTF8Converter::ZQELUTF8Converter(const char* localCodeSet, const char* dir)
    : localCodeSet_(ZAbstractString::BeforeSetup(), localCodeSet), csHandle_(0) {
    setTextUp(dir == nullptr);
    if (dir != nullptr)
        qel_set_dir(dir);  // after the set-up, which has a directory of its own
    char systemCodeSet[32] = "";
    if (localCodeSet == nullptr && qel_os_cs_name(systemCodeSet, sizeof systemCodeSet) == 0)
        localCodeSet_ = systemCodeSet;
    if (!localCodeSet_.isEmpty())
        csHandle_ = qel_cs_new(localCodeSet_.getChars());
}

ZQELUTF8Converter::~ZQELUTF8Converter() noexcept { qel_cs_free(csHandle_); }

const ZLCString& ZQELUTF8Converter::getLocalCodeSet() const { return localCodeSet_; }

// Whether `text` begins among the bytes of `buffer`.
static bool liesIn(const char* text, const ZBuffer& buffer) {
    const uintptr_t at = reinterpret_cast<uintptr_t>(text);
    const uintptr_t begin = reinterpret_cast<uintptr_t>(buffer.getBuffer());
    return at >= begin && at - begin < buffer.getLength();
}

using Conversion = int(qel_codeset, const char*, size_t, char*, size_t);

static void convert(Conversion* conversion, unsigned long bytesPerByte, qel_codeset codeset,
                    const char* text, ZBuffer& out) {
    if (text == nullptr)
        text = "";
    if (liesIn(text, out)) {
        const ZBuffer copy(text);
        convert(conversion, bytesPerByte, codeset, static_cast<const char*>(copy.getBuffer()), out);
        return;
    }
    const size_t length = strlen(text);
    zrequireRoom(length <= (ULONG_MAX - 1) / bytesPerByte);
    out.setLength(bytesPerByte * length + 1);
    const int n =
        conversion(codeset, text, length + 1, static_cast<char*>(out.getBuffer()), out.getLength());
    if (n >= 0)
        out.setLength(static_cast<unsigned long>(n));
}

void ZQELUTF8Converter::convertToLocal(const char* utf8, ZBuffer& out) const {
    convert(qel_from_utf8, 2, csHandle_, utf8, out);
}

void ZQELUTF8Converter::convertToUTF8(const char* local, ZBuffer& out) const {
    convert(qel_to_utf8, 3, csHandle_, local, out);
}
