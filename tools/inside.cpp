// inside.cpp: the one unit that looks behind the C interface.
#include <Z/ZBuffer.h>
#include <Z/ZPropHandle.h>
#include <Z/zlayerfinding.h>
#include <Z/zproperror.h>

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

int forEachCounting(const ZLayersTerms& terms,
                    const std::function<void(const char* path, int descriptor)>& visit) {
    zclearLastError();
    return zguardedByLock([&] {
        const ZLayerTree tree(terms);
        ZVector<ZLayerFile> files;
        ZLayerFinding finding(tree);
        finding.find(files);
        for (const ZLayerFile& file : files) {
            if (file.state != ZLayerFile::counts && file.state != ZLayerFile::bad)
                continue;
            const int descriptor = file.state == ZLayerFile::bad ? -1 : finding.open(file);
            errno = file.state == ZLayerFile::bad ? file.error : errno;
            visit(file.path.getChars(), descriptor);
        }
    });
}
