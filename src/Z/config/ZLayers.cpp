#include "ZLayers.h"

#include "zlayersfile.h"

ZPropertiesFile* ZLayers::makeFile(ZProperties& object) { return new ZLayersFile(object); }

ZLayersFile& ZLayers::layers() const { return ZLayersFile::of(*this); }

ZLayers::ZLayers(const ZLayersTerms& terms, unsigned long attributes, unsigned long wait)
    : ZStanzaFileProperties(makeFile) {
    zrequire((attributes & ~static_cast<unsigned long>(ZPCACHE_STRICT)) == 0);
    setAttributes(attributes, nullptr);
    setLockWait(wait);
    setStoreMode(ZPROP_STORE_SAFE);
    ZResourceLock guard(lock_);
    layers().setTerms(terms);
    layers().load(nullptr);
}

ZLayers::~ZLayers() noexcept {}

void ZLayers::setTarget(const char* root, const char* dropIn) {
    ZResourceLock guard(lock_);
    zrequire(isModified() == 0);
    layers().setTarget(root, dropIn);
}

void ZLayers::store(const char* file) {
    ZResourceLock guard(lock_);
    layers().store(zhasText(file) ? ZLCString(file) : layers().path());
}

void ZLayers::reload(const char* file) { load(file); }

void ZLayers::getOrigin(const char* stanza, const char* key, unsigned int index, ZLCString& file,
                        int& line) const {
    zrequire(layers().hasStanzaName(stanza) && zhasText(key));
    ZResourceLock guard(lock_);
    const ZLayer* layer = nullptr;
    int at = 0;
    const bool has = layers().set().origin(layers().model(), stanza, key, index, layer, at);
    file = has ? layer->found.path : ZLCString();
    line = at;
}

namespace {

// What a file's entry tells, as objects of its own: visitors are called without the lock.
struct OwnInfo {
    ZLCString path, other, reason;
    ZLayerInfo info;
};

struct OwnEntry {
    ZLCString stanza, key, value, file;
    int line, isHidden, counts, isBare;
};

}  // namespace

static ZLCString reasonOf(const ZLayer& layer) {
    if (layer.found.call == nullptr)
        return layer.reason;
    ZLCString reason(layer.found.call);
    const char* why = strerrordesc_np(layer.found.error);
    reason.append(": ").append(why == nullptr ? "?" : why);
    return reason;
}

void ZLayers::forEachFile(void (*visit)(void* data, const ZLayerInfo& file), void* data) const {
    zrequire(visit != nullptr);
    ZVector<OwnInfo> files;
    {
        ZResourceLock guard(lock_);
        const ZVector<ZLayer>& all = layers().set().layers();
        for (const ZLayer& layer : all) {
            if (layer.kind != ZLayer::file)
                continue;
            const ZLayerFile& found = layer.found;
            files.push_back({found.path, ZLCString(), ZLCString(), ZLayerInfo()});
            OwnInfo& own = files.back();
            own.info.kind = static_cast<ZLayerKind>(found.kind);
            own.info.state = static_cast<ZLayerState>(found.state);
            own.info.line = layer.badLine;
            if (found.other >= 0)
                own.other = all[static_cast<size_t>(found.other)].found.path;
            if (layer.isBad())
                own.reason = reasonOf(layer);
        }
    }
    for (OwnInfo& own : files) {
        own.info.path = own.path.getChars();
        own.info.other = own.other.getLength() == 0 ? nullptr : own.other.getChars();
        own.info.reason = own.info.state == ZLAYER_BAD ? own.reason.getChars() : nullptr;
        visit(data, own.info);
    }
}

void ZLayers::forEachEntry(void (*visit)(void* data, const ZLayerEntry& entry), void* data) const {
    zrequire(visit != nullptr);
    ZVector<OwnEntry> entries;
    {
        ZResourceLock guard(lock_);
        layers().set().forEachValue(layers().model(), [&](const ZLayerValue& value) {
            // No list shows a credential.
            const bool isSecret = value.layer->kind == ZLayer::credential;
            entries.push_back({ztextOf(value.stanza), ztextOf(value.key),
                               isSecret ? ZLCString() : ztextOf(value.value),
                               value.layer->found.path, value.line, value.isHidden, value.counts,
                               value.isBare});
        });
    }
    for (const OwnEntry& own : entries)
        visit(data, {own.stanza.getChars(), own.key.getChars(), own.value.getChars(),
                     own.file.getChars(), own.line, own.isHidden, own.counts, own.isBare});
}

unsigned int ZLayers::shadowed(ZLCString& file, int& line) const {
    ZResourceLock guard(lock_);
    const ZLayersFile::Shadows& shadows = layers().shadows();
    file = shadows.file;
    line = shadows.line;
    return shadows.count;
}
