// inside.cpp: the one unit that looks behind the C interface.
#include <Z/ZBuffer.h>
#include <Z/ZPropHandle.h>
#include <Z/ZPropertiesImpl.h>
#include <Z/zdialectpatterns.h>
#include <Z/zdialecttext.h>
#include <Z/zjournal.h>
#include <Z/zlayerfinding.h>
#include <Z/zlayersfile.h>
#include <Z/zproperror.h>
#include <fcntl.h>

#include <cerrno>

#include "zstz.h"

// As the calls of the C interface are made, so that zstzPropLastError tells their failures.
template <typename Call>
static int call(ZPROP_handle* handle, Call call) {
    ZStanzaFileProperties* properties = zliveProperties(handle);
    return properties == nullptr ? zparameterError()
                                 : zguarded(zchangeGroup, [&] { call(*properties); });
}

int renameEntry(ZPROP_handle* handle, const char* stanza, const char* key, const char* name,
                bool& found) {
    return call(handle, [&](ZStanzaFileProperties& file) {
        found = (key == nullptr ? file.renameStanza(stanza, name)
                                : file.renameKey(stanza, key, name)) != 0;
    });
}

int uncommentEntry(ZPROP_handle* handle, const char* stanza, const char* key, bool& found) {
    return call(handle,
                [&](ZStanzaFileProperties& file) { found = file.uncommentKey(stanza, key) != 0; });
}

int disableEntry(ZPROP_handle* handle, const char* stanza, const char* key, bool& found) {
    return call(handle,
                [&](ZStanzaFileProperties& file) { found = file.disableKey(stanza, key) != 0; });
}

static void take(const ZBuffer& bytes, std::string& text) {
    text.assign(static_cast<const char*>(bytes.getBuffer()), bytes.getLength());
}

int updatedText(ZPROP_handle* handle, std::string& text) {
    return call(handle, [&](ZStanzaFileProperties& file) {
        ZBuffer bytes;
        file.getUpdatedBytes(bytes);
        take(bytes, text);
    });
}

int textOver(ZPROP_handle* handle, const std::string& before, std::string& text) {
    return call(handle, [&](ZStanzaFileProperties& file) {
        ZBuffer bytes;
        file.storeBytesOver(before.data(), before.size(), bytes);
        take(bytes, text);
    });
}

int backUp(ZPROP_handle* handle, unsigned int count) {
    return call(handle, [&](ZStanzaFileProperties& file) { file.backUp(count); });
}

int foreseeTarget(ZPROP_handle* handle, std::string& path, std::string& before, std::string& now) {
    ZPROP_stz_handle* several = static_cast<ZPROP_stz_handle*>(handle);
    zclearLastError();
    const int result = zguardedByLock([&] {
        ZLayersFile& layers = ZLayersFile::of(several->properties);
        ZBuffer old, fresh;
        {
            ZResourceLock guard(layers.lock());
            layers.foresee(old, fresh);
            path = layers.path().getChars();
        }
        take(old, before);
        take(fresh, now);
    });
    return zstoreResult(several, result);
}

const ZDialect* dialectOf(ZPROP_handle* handle) {
    const ZDialect* dialect = nullptr;
    call(handle,
         [&](ZStanzaFileProperties& file) { dialect = ZPropertiesFile::of(file).dialect(); });
    return dialect;
}

std::string folded(const ZDialect& dialect, const std::string& name, bool isStanza) {
    ZBytes bytes;
    zdialectFold(dialect, {name.data(), name.size()}, isStanza, bytes);
    return std::string(bytes.data(), bytes.size());
}

std::string withoutNumber(const std::string& stanza) {
    return stanza.substr(0, zwithoutNumber({stanza.data(), stanza.size()}).size);
}

int presetFor(const char* path, std::string& name, std::string& pattern) {
    static std::unique_ptr<const ZDialectPatterns> patterns;
    zclearLastError();
    return zguarded(zfileGroup, [&] {
        if (patterns == nullptr)
            patterns.reset(new ZDialectPatterns);
        ZLCString found, by;
        const bool fits = patterns->find(path, found, by);
        name = fits ? found.getChars() : "";
        pattern = fits ? by.getChars() : "";
    });
}

// As a load reads an open file: under its lock, and what a store that was stopped had written down
// for it.
static ZFailure readLocked(int descriptor, const char* path, const char* place, bool isDirect,
                           unsigned long wait, std::string& text) {
    zcheckIO(zlockWholeFile(descriptor, F_RDLCK, zlockOfDescription, wait).of(path));
    ZJournal journal(place, descriptor, isDirect);
    if (journal.find()) {
        text.assign(journal.text().data, journal.text().size);
        return zdone;
    }
    ZBytes bytes;
    const ZFailure failure = zreadWholeFile(descriptor, bytes);
    text.assign(bytes.data(), bytes.size());
    return failure;
}

int readText(const char* file, unsigned long wait, std::string& text) {
    zclearLastError();
    return zguardedByLock([&] {
        ZOpenFile open;
        ZLockScope lock(open, zlockOfDescription);
        open.reset(zopenFile(file, O_RDONLY | O_NONBLOCK));
        if (open.get() < 0)
            zraiseIO(file, "fopen(r)", errno);
        zcheckIO(readLocked(open.get(), file, file, false, wait, text).of(file));
    });
}

// 0 or errno.
static int readLayer(const ZLayerTree& tree, const ZLayerFinding& finding, const ZLayerFile& layer,
                     unsigned long wait, std::string& text) {
    ZLCString place(tree.placeOf(layer));
    if (layer.root >= 0 && !tree.physicalPath(place.getChars(), place))
        return errno;
    ZOpenFile file;
    ZLockScope lock(file, zlockOfDescription);
    file.reset(finding.open(layer));
    if (file.get() < 0)
        return errno;
    return readLocked(file.get(), layer.path.getChars(), place.getChars(), !layer.isLink, wait,
                      text)
        .error;
}

int readCounting(const ZLayersTerms& terms, unsigned long wait, std::vector<LayerText>& texts) {
    zclearLastError();
    return zguardedByLock([&] {
        struct Attempt {
            const ZLayerTree tree;
            const unsigned long wait;
            std::vector<LayerText>& texts;
        } attempt = {ZLayerTree(terms), wait, texts};
        const auto read = [](void* data) -> ZFailure {
            Attempt& now = *static_cast<Attempt*>(data);
            ZLayerFinding finding(now.tree);
            ZVector<ZLayerFile> files;
            finding.find(files);
            now.texts.clear();
            for (const ZLayerFile& file : files) {
                if (file.state != ZLayerFile::counts && file.state != ZLayerFile::bad)
                    continue;
                now.texts.push_back({file.path.getChars(), "", file.error});
                LayerText& layer = now.texts.back();
                if (file.state == ZLayerFile::counts)
                    layer.error = readLayer(now.tree, finding, file, now.wait, layer.text);
            }
            return finding.isStill(files) ? zdone : ZFailure{"load()", EAGAIN, nullptr};
        };
        zcheckIO(zretryLocked(wait, read, &attempt).of(attempt.tree.mainPath().getChars()));
    });
}
