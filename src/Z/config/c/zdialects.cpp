#include "zdialects.h"

#include <memory>

#include "ZDialects.h"
#include "ZPropHandle.h"
#include "zdialecttext.h"
#include "zinternal.h"
#include "zproperror.h"

// ---------------------------------------------------------------- presets

int zstzDialect_get(const char* name, ZDialect* dialect) {
    zclearLastError();
    if (!zhasText(name) || dialect == nullptr)
        return zparameterError();
    bool isName = true;
    const int result = zguarded(zfileGroup, [&] {
        try {
            ZDialects::get(name, *dialect);
        } catch (ZInvalidParameterException&) {
            isName = false;
        }
    });
    return isName ? result : zparameterError();
}

int zstzDialect_ofFile(const char* path, char** name, char** pattern) {
    zclearLastError();
    if (!zhasText(path) || name == nullptr || pattern == nullptr)
        return zparameterError();
    *name = *pattern = nullptr;
    return zguarded(zfileGroup, [&] {
        ZLCString found, by;
        if (!ZDialects::ofFile(path, found, by))
            return;
        *name = znewString(found.getChars(), found.getLength());
        *pattern = znewString(by.getChars(), by.getLength());
    });
}

int zstzDialect_forEach(ZDialect_callback visit, void* data) {
    zclearLastError();
    if (visit == nullptr)
        return zparameterError();
    struct Walk {
        ZDialect_callback visit;
        void* data;
        int result;
    } walk = {visit, data, 0};
    const int result = zguarded(zfileGroup, [&] {
        ZDialects::forEach(
            [](void* own, const char* name, const char* description) {
                Walk& now = *static_cast<Walk*>(own);
                if (now.result == 0)
                    now.result = now.visit(now.data, name, description);
            },
            &walk);
    });
    return result != ZPROP_OK ? result : walk.result;
}

void zstzDialect_clash(const ZDialect* dialect, const char** first, const char** second) {
    const ZDialectClash clash = zdialectClash(*dialect);
    *first = clash.first;
    *second = clash.second;
}

static bool hasNoClash(const ZDialect* dialect) {
    return dialect == nullptr || zdialectClash(*dialect).first == nullptr;
}

int zstzDialect_convert(const ZDialect* from, const void* bytes, size_t length, const ZDialect* to,
                        ZDialect_left_callback left, void* data, char** made, size_t* size) {
    zclearLastError();
    if (made == nullptr || (bytes == nullptr && length != 0) || !hasNoClash(from) ||
        !hasNoClash(to))
        return zparameterError();
    *made = nullptr;
    return zguarded(zfileGroup, [&] {
        ZBuffer out;
        ZDialects::convert(from, bytes, length, to, out, left, data);
        *made = znewString(static_cast<const char*>(out.getBuffer()), out.getLength());
        if (size != nullptr)
            *size = out.getLength();
        zclearLastError();  // of calls that were made for lines that were left out
    });
}

// ---------------------------------------------------------------- handles

static bool mayBe(const ZDialect* dialect, unsigned long attributes) {
    return (attributes & ~kKnownAttributes) == 0 && hasNoClash(dialect);
}

static std::unique_ptr<ZPROP_stz_handle> newHandle(ZPROPOpenMode mode, const ZDialect* dialect,
                                                   unsigned long attributes) {
    std::unique_ptr<ZPROP_stz_handle> handle(new ZPROP_stz_handle(mode));
    handle->properties.setAttributes(attributes, nullptr);
    if (dialect != nullptr)
        handle->properties.setDialect(*dialect);
    return handle;
}

int zstzPropOpenDialect(ZPROP_handle** out, const char* file, ZPROPOpenMode mode,
                        const ZDialect* dialect, unsigned long attributes, int storeMode,
                        unsigned long wait) {
    zclearLastError();
    if (out == nullptr || file == nullptr ||
        (mode != ZPROP_OPEN_READ && mode != ZPROP_OPEN_UPDATE) || !mayBe(dialect, attributes) ||
        storeMode < ZPROP_STORE_PLAIN || storeMode > ZPROP_STORE_SAFE)
        return zparameterError();
    *out = nullptr;
    return zguardedByLock([&] {
        std::unique_ptr<ZPROP_stz_handle> handle(newHandle(mode, dialect, attributes));
        handle->properties.setStoreMode(storeMode);
        handle->properties.setLockWait(wait);
        handle->properties.load(file);
        *out = handle.release();
    });
}

int zstzPropOpenDialectBytes(ZPROP_handle** out, const void* bytes, size_t length,
                             const ZDialect* dialect, unsigned long attributes) {
    zclearLastError();
    if (out == nullptr || (bytes == nullptr && length != 0) || !mayBe(dialect, attributes))
        return zparameterError();
    *out = nullptr;
    return zguarded(zfileGroup, [&] {
        std::unique_ptr<ZPROP_stz_handle> handle(newHandle(ZPROP_OPEN_UPDATE, dialect, attributes));
        handle->properties.loadBytes(bytes, length);
        handle->properties.resetModified();
        *out = handle.release();
    });
}

int zstzPropIsBare(ZPROP_handle* handle, const char* stanza, const char* key, int* err) {
    const ZStanzaFileProperties* properties = zliveProperties(handle);
    int own = 0, answer = 0;
    int& result = err == nullptr ? own : *err;
    if (properties == nullptr || stanza == nullptr || key == nullptr) {
        result = zparameterError();
        return 0;
    }
    result = zguarded(zreadGroup, [&] { answer = properties->isBare(stanza, key); });
    return answer;
}

int zstzPropSetBare(ZPROP_handle* handle, const char* stanza, const char* key) {
    ZStanzaFileProperties* properties = zliveProperties(handle);
    if (properties == nullptr || stanza == nullptr || key == nullptr)
        return zparameterError();
    return zguarded(zchangeGroup, [&] { properties->setBare(stanza, key); });
}
