#include "ZSharedLibrary.h"

#include <dlfcn.h>

#include <cerrno>
#include <cstdlib>
#include <initializer_list>
#include <memory>

#include "ZExceptionText.h"
#include "zraise.h"
#include "zshlib.h"

// ZAbstractSharedLibrary

ZAbstractSharedLibrary::ZAbstractSharedLibrary() : ZAbstractSharedLibrary(nullptr) {}

ZAbstractSharedLibrary::ZAbstractSharedLibrary(const char* name)
    : libraryName_(name), suffix_(".so"), altSuffix_(".so"), flags_(0), lastErrorNumber_(0) {}

ZAbstractSharedLibrary::~ZAbstractSharedLibrary() noexcept {}

const char* ZAbstractSharedLibrary::getLibraryName() const { return libraryName_.getChars(); }

int ZAbstractSharedLibrary::getFlags() const { return flags_; }

void ZAbstractSharedLibrary::setFlags(int flags) { flags_ = flags; }

const ZLCString& ZAbstractSharedLibrary::getLastErrorMessage() const { return lastErrorMessage_; }

int ZAbstractSharedLibrary::getLastErrorNumber() const { return lastErrorNumber_; }

void ZAbstractSharedLibrary::setLastErrorMessage(const char* message) {
    lastErrorMessage_ = message;
}

void ZAbstractSharedLibrary::setLastErrorNumber(int number) { lastErrorNumber_ = number; }

void ZAbstractSharedLibrary::setLastError(int number) {
    setLastErrorNumber(number);
    const std::unique_ptr<char, decltype(&free)> text(zdlerror(), &free);
    setLastErrorMessage(text != nullptr ? text.get() : "");
}

// ZSharedLibrary

// Nobody shall take the loader's text of an earlier failure for that of the next one. errno is left
// alone: it may be what the next failure tells.
static void dropLoaderText() {
    const int before = errno;
    dlerror();
    errno = before;
}

ZSharedLibrary::ZSharedLibrary() : handle_(nullptr) {}

ZSharedLibrary::ZSharedLibrary(const char* name) : ZAbstractSharedLibrary(name), handle_(nullptr) {}

ZSharedLibrary::ZSharedLibrary(const ZSharedLibrary& other)
    : ZAbstractSharedLibrary(other.libraryName_.getChars()), ZObject(other), handle_(nullptr) {}

ZSharedLibrary& ZSharedLibrary::operator=(const ZSharedLibrary& other) {
    if (this == &other)
        return *this;
    ZAbstractSharedLibrary::operator=(other);
    handle_ = nullptr;
    return *this;
}

ZSharedLibrary::~ZSharedLibrary() noexcept {}

int ZSharedLibrary::compare(const ZObject& other) const {
    return libraryName_.compare(static_cast<const ZSharedLibrary&>(other).libraryName_);
}

ZObject* ZSharedLibrary::clone() const { return new ZSharedLibrary(*this); }

unsigned int ZSharedLibrary::hash() const { return libraryName_.hash(); }

int ZSharedLibrary::getLocalScope() const { return flags_ != 0 && (flags_ & RTLD_GLOBAL) == 0; }

void ZSharedLibrary::setLocalScope(int local) {
    flags_ = local != 0 ? flags_ & ~RTLD_GLOBAL : flags_ | RTLD_GLOBAL;
}

int ZSharedLibrary::getLazyResolution() const { return flags_ & RTLD_LAZY; }

void ZSharedLibrary::setLazyResolution(int lazy) {
    flags_ = lazy != 0 ? (flags_ & ~RTLD_NOW) | RTLD_LAZY : (flags_ & ~RTLD_LAZY) | RTLD_NOW;
}

// Null if no name leads to a library. Of the failures the first is recorded: it is the one of the
// name that the caller knows.
void* ZSharedLibrary::openByAnyName() {
    int error = 0;
    void* handle = zdlopen(libraryName_.getChars(), flags_, &error);
    if (handle != nullptr)
        return handle;
    setLastError(error);
    for (const ZLCString* suffix : {&suffix_, &altSuffix_}) {
        ZLCString name(libraryName_);
        if (name.endsWith(suffix->getChars()))
            name.trunc(name.lastIndexOf(suffix->getChars()));
        else
            name += *suffix;
        handle = zdlopen(name.getChars(), flags_, &error);
        if (handle != nullptr)
            return handle;
    }
    return nullptr;
}

void ZSharedLibrary::loadLibrary() {
    dropLoaderText();
    void* handle = openByAnyName();
    if (handle == nullptr)
        zraise(ZSharedLibraryLoadException(libraryName_.getChars(), lastErrorMessage_.getChars(),
                                           lastErrorNumber_));
    handle_ = handle;
    if (initialize() != 0)
        zraise(
            ZSharedLibraryLoadException(libraryName_.getChars(), "initialize", lastErrorNumber_));
}

void ZSharedLibrary::unloadLibrary() {
    dropLoaderText();
    int error = 0;
    zdlclose(handle_, &error);
    if (error == 0) {
        handle_ = nullptr;
        return;
    }
    setLastError(error);
    zraise(ZSharedLibraryLoadException(libraryName_.getChars(), lastErrorMessage_.getChars(),
                                       lastErrorNumber_));
}

void* ZSharedLibrary::resolveSymbol(const char* symbol) {
    dropLoaderText();
    int error = 0;
    void* address = zdlsym(handle_, symbol, &error);
    if (address != nullptr)
        return address;
    setLastError(error);
    zraise(ZSharedLibraryResolveException(libraryName_.getChars(), symbol,
                                          lastErrorMessage_.getChars(), lastErrorNumber_));
}

void* ZSharedLibrary::getHandle() const { return handle_; }

int ZSharedLibrary::initialize() { return 0; }
