// ZSharedLibrary.h: a shared library as an object.
//
//   ZAbstractSharedLibrary   name, suffixes, flags, last failure
//     ZSharedLibrary         loads, resolves and unloads through zshlib.h
#ifndef Z_ZSHAREDLIBRARY_H
#define Z_ZSHAREDLIBRARY_H

#include "ZLCString.h"

/// What every kind of shared library has: a name, the suffixes to try, the loader's flags and the
/// record of the last failure. Delete through a class of this family.
///
/// Ownership: holds copies of all texts. Threads: one object is used by one thread at a time.
class ZEXPORT ZAbstractSharedLibrary {
public:
    ZAbstractSharedLibrary();
    /// By this name; nothing is loaded.
    explicit ZAbstractSharedLibrary(const char* name);
    virtual ~ZAbstractSharedLibrary() noexcept;

    /// The name as it was given; good as long as the object.
    virtual const char* getLibraryName() const;

    /// The mode bits for dlopen: RTLD_LAZY 1, RTLD_NOW 2, RTLD_GLOBAL 0x100. 0, as at first, stands
    /// for RTLD_NOW with RTLD_GLOBAL.
    virtual int getFlags() const;
    virtual void setFlags(int flags);

    /// Text and number of the last failure; empty and 0 before the first. A later success leaves
    /// them.
    virtual const ZLCString& getLastErrorMessage() const;
    virtual int getLastErrorNumber() const;

    /// ZSharedLibrary tells what each of these does.
    virtual int getLocalScope() const = 0;
    virtual void setLocalScope(int local) = 0;
    virtual int getLazyResolution() const = 0;
    virtual void setLazyResolution(int lazy) = 0;
    virtual void loadLibrary() = 0;
    virtual void unloadLibrary() = 0;
    virtual void* resolveSymbol(const char* symbol) = 0;

    /// Record a failure. Every failure that the class itself meets passes through them.
    virtual void setLastErrorMessage(const char* message);
    virtual void setLastErrorNumber(int number);

    /// Records a failure of the loader: this number, and the text that the loader has for it, empty
    /// when it has none.
    void setLastError(int number);

protected:
    ZLCString libraryName_;
    ZLCString suffix_;     // ".so": tried first, added or taken off
    ZLCString altSuffix_;  // ".so": tried next
    int flags_;
    ZLCString lastErrorMessage_;
    int lastErrorNumber_;
};

/// A library of the dynamic loader, named by the caller and loaded on request.
///
/// Ownership: nothing is unloaded but by unloadLibrary(), also not at the end of the object. A copy
///   has the name alone: nothing is loaded there and all else is as in a new object.
/// Failure: ZSharedLibraryLoadException (51) and ZSharedLibraryResolveException (52) with library
///   name, number and the loader's text; the object records the number and the text. The number is
///   errno after the loader's call, which need not say anything: the text tells what happened.
/// Threads: as the base. What the loader still has to say of earlier failures of the thread is
///   dropped by each of loadLibrary(), unloadLibrary() and resolveSymbol().
class ZEXPORT ZSharedLibrary : public ZAbstractSharedLibrary, public ZObject {
public:
    ZSharedLibrary();
    /// By this name; nothing is loaded.
    explicit ZSharedLibrary(const char* name);
    ZSharedLibrary(const ZSharedLibrary& other);

    /// Takes everything over but the handle: nothing is loaded afterwards as far as this object
    /// knows. A library that it had loaded stays in the process.
    ZSharedLibrary& operator=(const ZSharedLibrary& other);
    ~ZSharedLibrary() noexcept override;

    /// By name alone; `other` must be a ZSharedLibrary.
    int compare(const ZObject& other) const override;
    ZObject* clone() const override;
    unsigned int hash() const override;

    /// 1 if the library's symbols would stay invisible to libraries that are loaded later, else 0.
    /// Flags of 0 stand for a global load, so they give 0.
    int getLocalScope() const override;

    /// Clears RTLD_GLOBAL, or sets it for 0. On flags of 0 clearing changes nothing, and the load
    /// is still a global one: call setLazyResolution() as well for a local load.
    void setLocalScope(int local) override;

    /// RTLD_LAZY if it is among the flags, else 0.
    int getLazyResolution() const override;

    /// Sets RTLD_LAZY and clears RTLD_NOW; the other way round for 0.
    void setLazyResolution(int lazy) override;

    /// Loads by the unchanged name; failing that with suffix_, then with altSuffix_, each added, or
    /// taken off where the name ends in it. Then initialize() runs.
    ///
    /// The first failure is recorded, even when a later try succeeds, and it is what is raised (51)
    /// when none does. 51 with the text "initialize" when that gives a nonzero value; the library
    /// is loaded then. Loading again counts up in the loader and keeps the new handle.
    void loadLibrary() override;

    /// Unloads, after which nothing is loaded. Raises 51 if the loader refuses or nothing is loaded
    /// (number 2 and no text); the handle stays as it was.
    void unloadLibrary() override;

    /// The address of a symbol, never null. Raises 52 if it isn't there, or its value is null, or
    /// nothing is loaded; in that last case the number is errno as it happened to stand.
    void* resolveSymbol(const char* symbol) override;

    /// The loader's handle, null when nothing is loaded.
    virtual void* getHandle() const;

    /// Runs after each successful load, for classes derived from this one: anything but 0 makes
    /// loadLibrary() raise. Here 0. It is no symbol of the library.
    virtual int initialize();

protected:
    void* handle_;

private:
    void* openByAnyName();
};

#endif
