// adapters.h: one interface to the three libraries that are compared. Each is declared only if its
// library is asked for: WITH_ZBASE, WITH_GLIB, WITH_SIMPLEINI.
#ifndef BENCH_ADAPTERS_H
#define BENCH_ADAPTERS_H

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#ifdef WITH_ZBASE
#include <Z/ZStanzaFileProperties.h>
#include <Z/zproperties.h>
#endif
#ifdef WITH_GLIB
#include <glib.h>
#endif
#ifdef WITH_SIMPLEINI
#define SI_NO_CONVERSION  // plain bytes; what it would need beyond isn't packaged
#include <SimpleIni.h>
#endif

struct Name {
    std::string stanza, key;
};

#ifdef WITH_ZBASE
struct OurFile {
    ZStanzaFileProperties file{1};
    ZLCString out;

    void load(const char* path) { file.load(path); }
    size_t get(const Name& n) {
        file.getValue(n.stanza.c_str(), n.key.c_str(), out, 0, nullptr);
        return out.getLength();
    }
    size_t getNumber(const Name& n) {
        return file.getIntegerValue(n.stanza.c_str(), n.key.c_str(), 0, 0);
    }
    void set(const Name& n, const char* value) {
        file.setValue(n.stanza.c_str(), n.key.c_str(), value);
    }
    void remove(const Name& n) { file.deleteKey(n.stanza.c_str(), n.key.c_str()); }
    void store(const char* path) { file.store(path); }
};
#endif

#ifdef WITH_GLIB
struct GLibFile {
    GKeyFile* file = g_key_file_new();
    ~GLibFile() { g_key_file_free(file); }

    void load(const char* path) {
        if (!g_key_file_load_from_file(file, path, G_KEY_FILE_KEEP_COMMENTS, nullptr))
            abort();
    }
    size_t get(const Name& n) {
        char* value = g_key_file_get_string(file, n.stanza.c_str(), n.key.c_str(), nullptr);
        const size_t length = strlen(value);
        g_free(value);
        return length;
    }
    size_t getNumber(const Name& n) {
        return static_cast<size_t>(
            g_key_file_get_integer(file, n.stanza.c_str(), n.key.c_str(), nullptr));
    }
    void set(const Name& n, const char* value) {
        g_key_file_set_string(file, n.stanza.c_str(), n.key.c_str(), value);
    }
    void remove(const Name& n) {
        g_key_file_remove_key(file, n.stanza.c_str(), n.key.c_str(), nullptr);
    }
    void store(const char* path) {
        // Written plainly, as the others do it: its own save syncs the disk.
        gsize length = 0;
        char* text = g_key_file_to_data(file, &length, nullptr);
        FILE* out = fopen(path, "w");
        if (out == nullptr || fwrite(text, 1, length, out) != length || fclose(out) != 0)
            abort();
        g_free(text);
    }
};
#endif

#ifdef WITH_SIMPLEINI
struct SimpleFile {
    CSimpleIniCaseA file;
    std::string out;

    SimpleFile() { file.SetSpaces(true); }
    void load(const char* path) {
        if (file.LoadFile(path) < 0)
            abort();
    }
    size_t get(const Name& n) {
        out = file.GetValue(n.stanza.c_str(), n.key.c_str(), "");
        return out.size();
    }
    size_t getNumber(const Name& n) {
        return static_cast<size_t>(file.GetLongValue(n.stanza.c_str(), n.key.c_str()));
    }
    void set(const Name& n, const char* value) {
        file.SetValue(n.stanza.c_str(), n.key.c_str(), value);
    }
    void remove(const Name& n) { file.Delete(n.stanza.c_str(), n.key.c_str()); }
    void store(const char* path) {
        if (file.SaveFile(path, false) < 0)
            abort();
    }
};
#endif

#endif
