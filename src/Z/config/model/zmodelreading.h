// zmodelreading.h: the ways into the library's own model that need no stream; ZSCFData.cpp has
// them. Never installed.
#ifndef Z_ZMODELREADING_H
#define Z_ZMODELREADING_H

#include <typeinfo>

#include "ZSCFData.h"
#include "zpblock.h"
#include "zpstore.h"

struct ZModelReading {
    /// Whether a cache is the library's own model, and no class of somebody else's that may read
    /// or answer otherwise.
    static bool isOwn(const ZPCache& cache) { return typeid(cache) == typeid(ZSCFData); }

    /// As be_read, from the place of an open file on. `size` is that of a regular file, which is
    /// all that is read then; 0: up to the end.
    static void readFile(ZPCache& own, const char* file, int descriptor, uint64_t size);
    /// As be_read, from memory.
    static void readText(ZPCache& own, const char* file, ZSpan text);

    /// Makes a model that is empty read as another one does.
    static void beLike(ZSCFData& fresh, const ZPCache& model) {
        fresh.setAttributes(model.attributes(), nullptr);
        if (isOwn(model))
            fresh.store().setDialect(static_cast<const ZSCFData&>(model).store().dialect());
    }
    /// The dialect of its texts; null: they are the library's own.
    static const ZDialect* dialectOf(const ZPCache& cache) {
        return isOwn(cache) ? static_cast<const ZSCFData&>(cache).store().dialect().get() : nullptr;
    }

    /// What a model stands in, for who reads more than one file into it.
    static ZPStore& storeOf(const ZSCFData& model) { return model.store(); }

private:
    friend class ZSCFData;
    static void parse(ZSCFData& cache, const char* file, size_t start);
};

#endif
