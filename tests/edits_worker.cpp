// edits_worker.cpp: what scripts/prove-edits lets several processes do at once.
//
//   make FILE KEYS HIDDEN       a file of so many keys in stanzas of 20, a comment above each stanza;
//                               with HIDDEN 1, one key more, whose value is hidden
//   check FILE KEYS HIDDEN SETS whether all of that is still there, and how many of the keys 0, 1, ...
//                               of the stanza "new" are: prints "kept 100 torn 0 comments 0", the
//                               last two being the numbers of old keys and of comments that are wrong
//   count FILE TIMES MODE       adds 1 to the key "n" of the stanza "count", so often, in updates that
//                               store in this mode
//   hide FILE MODE VALUE        sets the hidden key "word" of the stanza "secrets" by a store of this mode
//   full FILE MODE              stores more and more until there is no room: prints how it failed and
//                               what is loaded then
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "Z/ZExceptionText.h"
#include "Z/ZPropertiesUpdate.h"
#include "Z/ZStanzaFileProperties.h"

using std::string;

static const char kComment[] = "# kept by everybody, stanza ";

static string stanzaOf(int key) { return "stanza" + std::to_string(key / 20); }
static string keyOf(int key) { return "key" + std::to_string(key); }
static string valueOf(int key) { return "value number " + std::to_string(key); }

static string valueIn(const ZProperties& p, const char* stanza, const char* key) {
    ZLCString out;
    p.getValue(stanza, key, out, 0, "none");
    return out.getChars();
}

static int make(const char* file, int keys, bool hidden) {
    std::ofstream out(file);
    for (int i = 0; i < keys; ++i) {
        if (i % 20 == 0)
            out << "\n" << kComment << i / 20 << "\n  [" << stanzaOf(i) << "]\n";
        out << "  " << keyOf(i) << "=" << valueOf(i) << "\n";
    }
    out.close();
    if (!hidden)
        return 0;
    ZStanzaFileProperties p(file, 1);
    p.setAttributes(ZPCACHE_KEEP_LINES, nullptr);
    p.setValue("secrets", "word", "hush", 1);
    p.store(nullptr);
    return 0;
}

static int check(const char* file, int keys, bool hidden, int sets) {
    ZStanzaFileProperties p(1);
    p.setAttributes(ZPCACHE_STRICT, nullptr);
    p.setStoreMode(ZPROP_STORE_SAFE);
    p.load(file);
    int kept = 0, torn = 0, comments = (keys + 19) / 20, spelt = keys;
    for (int i = 0; i < sets; ++i)
        kept += valueIn(p, "new", std::to_string(i).c_str()) == std::to_string(i);
    for (int i = 0; i < keys; ++i)
        torn += valueIn(p, stanzaOf(i).c_str(), keyOf(i).c_str()) != valueOf(i);
    torn += hidden && (valueIn(p, "secrets", "word") != "hush" || !p.isObfuscated("secrets", "word"));
    std::ifstream in(file);
    for (string line; std::getline(in, line);) {
        comments -= line.compare(0, sizeof kComment - 1, kComment) == 0;
        spelt -= line.compare(0, 5, "  key") == 0;
    }
    printf("kept %d torn %d comments %d\n", kept, torn + spelt, comments);
    return kept == sets && torn + spelt == 0 && comments == 0 ? 0 : 1;
}

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

static int hide(const char* file, int mode, const char* value) {
    ZStanzaFileProperties p(1);
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
        if (command == "make")
            return make(argv[2], number(3), number(4) != 0);
        if (command == "check")
            return check(argv[2], number(3), number(4) != 0, number(5));
        if (command == "count")
            return count(argv[2], number(3), number(4));
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
