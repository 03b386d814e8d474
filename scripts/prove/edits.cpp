// edits.cpp: what scripts/prove-edits lets several processes do at once, and zstz has no word for.
//
//   count FILE TIMES MODE   adds 1 to the key "n" of the stanza "count", so often, in updates that
//                           store in this mode
//   layers PREFIX DROPIN NAME TIMES
//                           counts in the layers of "app" likewise, into this drop-in, each time
//                           with a key more: NAME and the number
//   hide FILE MODE VALUE    sets the hidden key "word" of the stanza "secrets" by such a store
//   full FILE MODE          stores more and more until there is no room: prints how it failed, and
//                           what is loaded then
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Z/ZExceptionText.h"
#include "Z/ZLayers.h"
#include "Z/ZPropertiesUpdate.h"
#include "Z/ZStanzaFileProperties.h"

using std::string;

static int count(const char* file, int times, int mode) {
    ZStanzaFileProperties p(1);
    p.setStoreMode(mode);
    p.setLockWait(600000);
    p.load(file);
    for (int i = 0; i < times; ++i) {
        ZPropertiesUpdate update(p, 600000);
        p.setIntegerValue("count", "n", p.getIntegerValue("count", "n", 0, 0) + 1);
        update.commit();
    }
    return 0;
}

static int countInLayers(const char* prefix, const char* dropIn, const string& name, int times) {
    const char* const roots[] = {"/usr", "/etc", nullptr};
    ZLayersTerms terms = {};
    terms.size = sizeof terms;
    terms.name = "app";
    terms.prefix = prefix;
    terms.roots = roots;
    ZLayers layers(terms, 0, 600000);
    layers.setTarget("/etc", dropIn);
    for (int i = 0; i < times; ++i) {
        ZPropertiesUpdate update(layers, 600000);
        layers.setIntegerValue("count", dropIn, layers.getIntegerValue("count", dropIn, 0, 0) + 1);
        layers.setIntegerValue("new", (name + std::to_string(i)).c_str(),
                               static_cast<unsigned int>(i));
        update.commit();
    }
    return 0;
}

static int hide(const char* file, int mode, const char* value) {
    ZStanzaFileProperties p(1);
    p.setAttributes(ZPCACHE_KEEP_LINES, nullptr);
    p.setStoreMode(mode);
    try {
        p.load(file);
    } catch (ZPropertiesIOException&) {
        // What can't be read is asked of the store too.
        if (mode != ZPROP_STORE_PLAIN)
            p.allowStoreAfterFailedLoad();
    }
    p.setValue("secrets", "word", value, 1);
    p.store(nullptr);
    return 0;
}

static int fill(const char* file, int mode) {
    ZStanzaFileProperties p(1);
    p.setStoreMode(mode);
    p.setValue("s", "k", "0");
    p.store(file);
    for (int i = 1; i < 1000; ++i) {
        p.setIntegerValue("s", "k", static_cast<unsigned int>(i));
        p.setValue("s", ("filler" + std::to_string(i)).c_str(), string(4000, 'x').c_str());
        try {
            p.store(file);
        } catch (ZPropertiesIOException& e) {
            ZStanzaFileProperties now(file, 1);
            const int loaded = static_cast<int>(now.getIntegerValue("s", "k", 1, 0));
            const bool whole = loaded == i - 1 && now.count("s") == i;
            printf("%s: %s, %s content after it\n", e.api(), strerror(e.excerrno()),
                   whole ? "old" : "other");
            return whole && p.isModified() ? 0 : 1;
        }
    }
    printf("never full\n");
    return 1;
}

int main(int argc, char** argv) {
    const string command = argc > 2 ? argv[1] : "";
    const auto number = [&](int i) { return i < argc ? atoi(argv[i]) : 0; };
    try {
        if (command == "count")
            return count(argv[2], number(3), number(4));
        if (command == "layers" && argc > 5)
            return countInLayers(argv[2], argv[3], argv[4], number(5));
        if (command == "hide" && argc > 4)
            return hide(argv[2], number(3), argv[4]);
        if (command == "full")
            return fill(argv[2], number(3));
    } catch (ZPropertiesIOException& e) {
        fprintf(stderr, "%s: %s: %s\n", e.propFile(), e.api(), strerror(e.excerrno()));
        return 3;
    } catch (ZException&) {
        fprintf(stderr, "%s failed\n", command.c_str());
        return 3;
    }
    return 2;
}
