#include "zlayers.h"

#include <cstring>

#include "ZLayers.h"
#include "zinternal.h"
#include "zproperror.h"

// Null for a bad handle and for one of a single file.
static ZLayers* liveLayers(ZPROP_handle* handle) {
    return zliveProperties(handle) == nullptr ? nullptr
                                              : static_cast<ZPROP_stz_handle*>(handle)->layers;
}

int zstzLayers_open(ZPROP_handle** out, const ZLayersTerms* terms, ZPROPOpenMode mode,
                    unsigned long attributes, unsigned long wait) {
    zclearLastError();
    if (out == nullptr || terms == nullptr ||
        (mode != ZPROP_OPEN_READ && mode != ZPROP_OPEN_UPDATE))
        return zparameterError();
    *out = nullptr;
    return zguardedByLock([&] {
        std::unique_ptr<ZLayers> layers(new ZLayers(*terms, attributes, wait));
        *out = new ZPROP_stz_handle(mode, std::move(layers));
    });
}

int zstzLayers_setTarget(ZPROP_handle* handle, const char* root, const char* dropIn) {
    ZLayers* layers = liveLayers(handle);
    if (layers == nullptr)
        return zparameterError();
    return zguarded(zreadGroup, [&] { layers->setTarget(root, dropIn); });
}

int zstzPropOrigin(ZPROP_handle* handle, const char* stanza, const char* key, unsigned int index,
                   char** file, int* line) {
    ZLayers* layers = liveLayers(handle);
    if (file != nullptr)
        *file = nullptr;
    if (layers == nullptr || file == nullptr || line == nullptr)
        return zparameterError();
    return zguarded(zreadGroup, [&] {
        ZLCString path;
        layers->getOrigin(stanza, key, index, path, *line);
        *file = znewString(path.getChars(), path.getLength());
    });
}

namespace {

// Ends a walk whose visits have no result.
template <typename What>
struct Walk {
    int (*visit)(void* data, const What* what);
    void* data;
    int result;

    static void step(void* walk, const What& what) {
        Walk& own = *static_cast<Walk*>(walk);
        if (own.result == 0)
            own.result = own.visit(own.data, &what);
    }
};

}  // namespace

template <typename What>
static int walk(ZPROP_handle* handle, int (*visit)(void* data, const What* what), void* data,
                void (ZLayers::*each)(void (*step)(void*, const What&), void*) const) {
    const ZLayers* layers = liveLayers(handle);
    if (layers == nullptr || visit == nullptr)
        return zparameterError();
    Walk<What> own = {visit, data, 0};
    const int result = zguarded(zreadGroup, [&] { (layers->*each)(&Walk<What>::step, &own); });
    return result != ZPROP_OK ? result : own.result;
}

int zstzLayers_forEachFile(ZPROP_handle* handle, ZLayers_file_callback visit, void* data) {
    return walk(handle, visit, data, &ZLayers::forEachFile);
}

int zstzLayers_forEachEntry(ZPROP_handle* handle, ZLayers_entry_callback visit, void* data) {
    return walk(handle, visit, data, &ZLayers::forEachEntry);
}
