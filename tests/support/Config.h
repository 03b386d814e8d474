// Config.h: a configuration under test, and what it holds.
#ifndef TESTS_SUPPORT_CONFIG_H
#define TESTS_SUPPORT_CONFIG_H

#include <unistd.h>

#include <cstdlib>
#include <string>

#include "Z/ZSCFData.h"
#include "Z/ZStanzaFileProperties.h"

// Thousands of syncs: on a disk they would take minutes. And in memory, many stores go into one
// tick of the clock that stamps files.
inline const int kInMemory =
    access("/dev/shm", W_OK | X_OK) == 0 ? setenv("TMPDIR", "/dev/shm", 1) : 0;

const int kPlain = ZPROP_STORE_PLAIN, kChecked = ZPROP_STORE_CHECKED, kSafe = ZPROP_STORE_SAFE;
const int kModes[] = {kPlain, kChecked, kSafe};
const int kCarefulModes[] = {kChecked, kSafe};

/// The last value of a key, or `none`.
inline std::string valueIn(const ZProperties& p, const char* stanza, const char* key,
                           const char* none = "<none>") {
    ZLCString out("before");
    p.getValue(stanza, key, out, 0, none);
    return out.getChars();
}

struct Config : ZStanzaFileProperties {
    explicit Config(int mode = kPlain, unsigned long attributes = 0) : ZStanzaFileProperties(1) {
        // An object that nobody has asked for more keeps no options.
        if (attributes != 0)
            setAttributes(attributes, nullptr);
        if (mode != kPlain)
            setStoreMode(mode);
    }
    /// Loaded from this file.
    explicit Config(const std::string& path, int mode = kPlain, unsigned long attributes = 0)
        : Config(mode, attributes) {
        load(path.c_str());
    }

    std::string value(const char* stanza, const char* key) const {
        return valueIn(*this, stanza, key);
    }
    unsigned int number(const char* key) const { return getIntegerValue("s", key, 0, 0); }
    ZSCFData& data() { return *static_cast<ZSCFData*>(cache_); }
};

/// Collects what observers are told, as "+s.k ", "-s ", "~s.k ".
struct Notices : ZObserverInterface {
    void update(ZObservableInterface*, const ZObservedParm& parameter) override {
        const auto& change = static_cast<const ZPropertyChanged&>(parameter);
        told += "+-~"[change.changeType] + std::string(change.stanza) +
                (change.key == nullptr ? "" : std::string(".") + change.key) + " ";
    }
    std::string told;
};

#endif
