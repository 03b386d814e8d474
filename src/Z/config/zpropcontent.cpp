// zpropcontent.cpp: a stanza file's object as a whole: from memory, and all entries; its comments;
// numbers of 64 bits and real ones.
#include <charconv>

#include "ZBuffer.h"
#include "ZPropertiesImpl.h"
#include "ZStanzaFileProperties.h"
#include "zgrammar.h"
#include "zmemorystream.h"
#include "zmodelcontent.h"
#include "zmodeledits.h"
#include "zmodelreading.h"
#include "zraise.h"
#include "zrefusal.h"

// ---------------------------------------------------------------- from memory, and all entries

void ZStanzaFileProperties::loadBytes(const void* bytes, size_t length) {
    zrequire(bytes != nullptr || length == 0);
    const ZSpan text = {static_cast<const char*>(bytes), length};
    ZResourceLock guard(lock_);
    ZPropertiesFile::of(*this).requireOneFile();
    // Bad data shows in a model that nobody has.
    ZSCFData trial;
    ZModelReading::beLike(trial, *cache_);
    zreadText(trial, fileName_.getChars(), text);
    ZModelContent::addHidden(data(), trial);
    // Where the side database is, isn't the bytes' to say: a store would write there, or remove it.
    // In an object without a file the entry is text like any other, which goes on to the next.
    const ZLCString& side = cache_->obfuscatedDBName();
    if (side.isEmpty() && !fileName_.isEmpty() && ZPropertiesFile::of(*this).dialect() == nullptr)
        trial.delLine(kSideStanza, kSideKey);
    else if (!side.isEmpty() && trial.contains(kSideStanza, kSideKey) != 0)
        trial.addLine(kSideStanza, kSideKey, side.getChars(), 0);
    ZModelEdits::noteText(trial, text);
    ZModelContent::take(data(), trial);
    setModified();
}

void ZStanzaFileProperties::getEntries(ZBuffer& out) const {
    ZBytes entries;
    {
        ZResourceLock guard(lock_);
        ZModelContent::listEntries(data(), entries);
    }
    out.setLength(0);
    const size_t size = entries.size();
    if (size != 0)
        out.setBufferNoCopy(size, entries.release());
}

const char* ZStanzaFileProperties::path() const {
    ZResourceLock guard(lock_);
    return fileName_.getChars();
}

// ---------------------------------------------------------------- comments

// Only the entries ahead of all headers belong to a stanza without a name.
static void requireCommented(const ZPropertiesFile& file, const char* stanza, const char* key) {
    zrequire(stanza == nullptr ? key == nullptr
             : key == nullptr  ? zhasText(stanza)
                               : file.hasStanzaName(stanza) && zhasText(key));
}

void ZStanzaFileProperties::getComments(const char* stanza, const char* key,
                                        ZArrayList& list) const {
    requireCommented(ZPropertiesFile::of(*this), stanza, key);
    zrequire(list.ownsMembers() != 0);
    list.removeAll();
    ZResourceLock guard(lock_);
    ZModelContent::listComments(data(), stanza, key, list);
}

void ZStanzaFileProperties::deleteComments(const char* stanza, const char* key) {
    requireCommented(ZPropertiesFile::of(*this), stanza, key);
    ZResourceLock guard(lock_);
    ZPropertiesFile::of(*this).requireOneFile();
    if (ZModelEdits::removeComments(data(), stanza, key))
        setModified();
}

// ---------------------------------------------------------------- numbers

// The last value of a key as `read` takes it, or `value` as it is if there is none.
template <typename Number>
static void readAs(const ZStanzaFileProperties& properties, const char* stanza, const char* key,
                   int required, bool (*read)(ZSpan, Number&), Number& value) {
    const ZPropertiesFile& file = ZPropertiesFile::of(properties);
    file.giveValue(stanza, key, required, [&](const char* text, unsigned int length) {
        if (!read({text, length}, value))
            zraise(ZPropertiesInvalidNumValueException(file.path().getChars(), stanza, key,
                                                       ZLCString(text, length).getChars()));
    });
}

int64_t ZStanzaFileProperties::getInteger64Value(const char* stanza, const char* key, int required,
                                                 int64_t defaultValue) const {
    readAs(*this, stanza, key, required, zreadSigned, defaultValue);
    return defaultValue;
}

double ZStanzaFileProperties::getDoubleValue(const char* stanza, const char* key, int required,
                                             double defaultValue) const {
    readAs(*this, stanza, key, required, zreadReal, defaultValue);
    return defaultValue;
}

template <typename Number>
static void write(ZStanzaFileProperties& properties, const char* stanza, const char* key,
                  Number value) {
    char text[64];
    *std::to_chars(text, text + sizeof text - 1, value).ptr = '\0';
    properties.setValue(stanza, key, text);
}

void ZStanzaFileProperties::setInteger64Value(const char* stanza, const char* key, int64_t value) {
    write(*this, stanza, key, value);
}

void ZStanzaFileProperties::setDoubleValue(const char* stanza, const char* key, double value) {
    write(*this, stanza, key, value);
}
