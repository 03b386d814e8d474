// zpropertiescontent.cpp: the content of a handle as a whole: from and to memory, and in one walk.
#include <cstring>
#include <memory>

#include "ZBuffer.h"
#include "ZPropertiesImpl.h"
#include "zmodelcontent.h"
#include "zdialects.h"
#include "zproperror.h"
#include "zproperties.h"

// ---------------------------------------------------------------- from and to memory

int zstzPropOpenBytes(ZPROP_handle** out, const void* bytes, size_t length,
                      unsigned long attributes) {
    return zstzPropOpenDialectBytes(out, bytes, length, nullptr, attributes);
}

int zstzPropLoadBytes(ZPROP_handle* handle, const void* bytes, size_t length) {
    ZStanzaFileProperties* properties = zliveProperties(handle);
    if (properties == nullptr || (bytes == nullptr && length != 0))
        return zparameterError();
    return zguarded(zfileGroup, [&] { properties->loadBytes(bytes, length); });
}

// Gives what fill(object, bytes) adds as a new string.
template <typename Fill>
static int giveBytes(ZPROP_handle* handle, char** bytes, size_t* length, Fill fill) {
    *bytes = nullptr;
    ZStanzaFileProperties* properties = zliveProperties(handle);
    if (properties == nullptr)
        return zparameterError();
    return zguarded(zreadGroup, [&] {
        ZBytes string;
        zbeginString(string);
        const size_t before = string.size();
        fill(*properties, string);
        const size_t added = string.size() - before;
        *bytes = zendString(string);
        if (length != nullptr)
            *length = added;
    });
}

int zstzPropStoreBytes(ZPROP_handle* handle, char** bytes, size_t* length) {
    zclearLastError();
    if (bytes == nullptr)
        return zparameterError();
    return giveBytes(handle, bytes, length, [](ZStanzaFileProperties& p, ZBytes& out) {
        ZBuffer text;
        p.storeBytes(text);
        zappendBytes(out, {static_cast<const char*>(text.getBuffer()), text.getLength()});
    });
}

const char* zstzPropPath(ZPROP_handle* handle) {
    const ZStanzaFileProperties* properties = zliveProperties(handle);
    if (properties == nullptr) {
        zparameterError();
        return nullptr;
    }
    const char* path = "";
    zguarded(zreadGroup, [&] { path = properties->path(); });
    return *path == '\0' ? nullptr : path;
}

int zstzPropIsModified(ZPROP_handle* handle) {
    const ZStanzaFileProperties* properties = zliveProperties(handle);
    if (properties == nullptr) {
        zparameterError();
        return 0;
    }
    return properties->isModified();
}

// ---------------------------------------------------------------- entries

int zstzPropGetEntries(ZPROP_handle* handle, char** block, size_t* length) {
    zclearLastError();
    if (block == nullptr || length == nullptr)
        return zparameterError();
    // The object's own getEntries would make a block that has to be copied behind the mark.
    return giveBytes(handle, block, length, [](ZStanzaFileProperties& p, ZBytes& out) {
        const ZPropertiesFile& file = ZPropertiesFile::of(p);
        ZResourceLock guard(file.lock());
        ZModelContent::listEntries(static_cast<const ZSCFData&>(file.cache()), out);
    });
}

// Tells what a block of entries holds; see zstzPropGetEntries.
static void visitEntries(const char* at, const char* end, ZPROP_entry_callback visit, void* data) {
    ZPROP_entry entry = {nullptr, nullptr, nullptr, 0};
    bool isTold = true;  // the key at hand, which is told alone only where it has no values
    while (at < end) {
        const char mark = *at;
        const char* const text = at + 1;
        at = text + strlen(text) + 1;
        const bool isValue = mark == ZModelContent::kValue || mark == ZModelContent::kHidden;
        if (!isValue && !isTold && visit(data, &entry) != 0)
            return;
        if (mark == ZModelContent::kStanza) {
            entry = {text, nullptr, nullptr, 0};
            isTold = true;
            if (visit(data, &entry) != 0)
                return;
        } else if (mark == ZModelContent::kKey) {
            entry = {entry.stanza, text, nullptr, 0};
            isTold = false;
        } else {
            isTold = true;
            const ZPROP_entry value = {entry.stanza, entry.key, text,
                                       mark == ZModelContent::kHidden};
            if (visit(data, &value) != 0)
                return;
        }
    }
    if (!isTold)
        visit(data, &entry);
}

int zstzPropForEach(ZPROP_handle* handle, ZPROP_entry_callback visit, void* data) {
    ZStanzaFileProperties* properties = zliveProperties(handle);
    if (properties == nullptr || visit == nullptr)
        return zparameterError();
    ZBuffer entries;
    const int result = zguarded(zreadGroup, [&] { properties->getEntries(entries); });
    if (result == ZPROP_OK && entries.getLength() != 0) {
        const char* const first = static_cast<const char*>(entries.getBuffer());
        visitEntries(first, first + entries.getLength(), visit, data);
        zclearLastError();
    }
    return result;
}
