// edits.cpp: what shared edits cost: store modes beside each other, an update of one key beside
// what others do for one, a load's look for a journal. A file of 1000 keys in stanzas of 20. Last,
// how the keeping of lines grows with the text.
//
// Each figure is the median of many runs, those that are compared taking turns.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "Z/ZPropertiesUpdate.h"
#include "Z/ZStanzaFileProperties.h"
#include "Z/zjournal.h"
#include "Z/zkeeplines.h"
#include "adapters.h"

using std::string;

// ---------------------------------------------------------------- syncs, counted by the linker's
// help

static int syncs;
#define COUNT_SYNC(name)                     \
    extern "C" int __real_##name(int);       \
    extern "C" int __wrap_##name(int file) { \
        ++syncs;                             \
        return __real_##name(file);          \
    }
COUNT_SYNC(fsync)
COUNT_SYNC(fdatasync)
COUNT_SYNC(syncfs)

// ---------------------------------------------------------------- measuring

typedef std::function<void()> Work;

// The median times of several works that take turns, in microseconds.
static std::vector<double> measure(int runs, const std::vector<Work>& works) {
    std::vector<std::vector<double>> times(works.size());
    for (int run = 0; run < runs; ++run)
        for (size_t i = 0; i < works.size(); ++i) {
            const auto start = std::chrono::steady_clock::now();
            works[i]();
            const std::chrono::duration<double, std::micro> took =
                std::chrono::steady_clock::now() - start;
            times[i].push_back(took.count());
        }
    std::vector<double> medians;
    for (std::vector<double>& all : times) {
        std::sort(all.begin(), all.end());
        medians.push_back(all[all.size() / 2]);
    }
    return medians;
}

static void compare(const char* what, double ours, const char* peer, double theirs, double mark) {
    printf("%-40s %10.1f us  %-34s %10.1f us  ratio %5.2f", what, ours, peer, theirs,
           ours / theirs);
    if (mark > 0)
        printf("  mark %.2f%s", mark, ours / theirs > mark ? "  MISSED" : "");
    printf("\n");
}

static bool runProcess(const std::vector<const char*>& words) {
    std::vector<char*> arguments;
    for (const char* word : words)
        arguments.push_back(const_cast<char*>(word));
    arguments.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status == 0;
}

// ---------------------------------------------------------------- what is measured

static void makeFile(const string& path) {
    FILE* file = fopen(path.c_str(), "w");
    for (int i = 0; i < 1000; ++i) {
        if (i % 20 == 0)
            fprintf(file, "\n# stanza number %d\n[section%d]\n", i / 20, i / 20);
        fprintf(file, "setting%d = value number %d\n", i, i);
    }
    fclose(file);
}

struct Ours {
    ZStanzaFileProperties file{1};
    unsigned int number = 0;

    Ours(const string& path, int mode) {
        file.setStoreMode(mode);
        file.load(path.c_str());
    }
    void change() { file.setIntegerValue("section1", "setting25", ++number); }
    void store() {
        change();
        file.store(nullptr);
    }
    void update() {
        ZPropertiesUpdate update(file, 0);
        change();
        update.commit();
    }
};

// GLib's load, set and save. `flags` say how its save goes about the disk.
static void editWithGLib(const char* path, GFileSetContentsFlags flags) {
    static int number = 0;
    GKeyFile* file = g_key_file_new();
    if (!g_key_file_load_from_file(file, path, G_KEY_FILE_KEEP_COMMENTS, nullptr))
        abort();
    g_key_file_set_integer(file, "section1", "setting25", ++number);
    gsize size;
    char* text = g_key_file_to_data(file, &size, nullptr);
    if (!g_file_set_contents_full(path, text, static_cast<gssize>(size), flags, 0644, nullptr))
        abort();
    g_free(text);
    g_key_file_free(file);
}

// Takes old lines over into a new text of so many: the values of one key stand all together, as a
// store writes them, and all of them are others if `changed`.
static Work keepLines(int lines, bool changed) {
    string old = "[s]\n", now = "[s]\n";
    for (int i = 0; i < lines; ++i) {
        old += i % 2 ? "\n# c\n" : "\nk=1\n";
        now += i % 2 ? "\n# c\n" : "\nk = 1\n";
    }
    for (int i = 0; changed && i < lines; ++i)
        old += "m = " + std::to_string(i) + "\n", now += "m = a" + std::to_string(i) + "\n";
    return [=] {
        ZBytes kept;
        zkeepLines({old.data(), old.size()}, {now.data(), now.size()}, kept);
    };
}

int main(int argc, char** argv) {
    char folder[] = "edits-XXXXXX";
    if (mkdtemp(folder) == nullptr || chdir(folder) != 0)
        return 1;
    const string names[] = {"plain", "checked", "safe", "glib", "crudini", "zstz"};
    for (const string& name : names)
        makeFile(name);

    Ours plain("plain", ZPROP_STORE_PLAIN), checked("checked", ZPROP_STORE_CHECKED),
        safe("safe", ZPROP_STORE_SAFE);
    std::vector<double> t = measure(2001, {[&] { plain.store(); }, [&] { checked.store(); }});
    compare("checked store", t[1], "plain store", t[0], 1.1);

    safe.store();
    syncs = 0;
    safe.store();
    printf("%-40s %10d                                          mark 3%s\n",
           "syncs of a safe store", syncs, syncs > 3 ? "  MISSED" : "");
    t = measure(101, {[&] { safe.store(); },
                      [&] { editWithGLib("glib", G_FILE_SET_CONTENTS_CONSISTENT); }});
    compare("safe store", t[0], "GLib's load, set, synced save", t[1], 0);
    t = measure(101, {[&] { safe.update(); },
                      [&] { editWithGLib("glib", G_FILE_SET_CONTENTS_CONSISTENT); }});
    compare("safe update", t[0], "GLib's load, set, synced save", t[1], 0);

    t = measure(
        2001, {[&] { checked.update(); }, [&] { editWithGLib("glib", G_FILE_SET_CONTENTS_NONE); }});
    compare("checked update", t[0], "GLib's load, set, unsynced save", t[1], 0.7);

    const char* zstz = argc > 1 ? argv[1] : "zstz";
    const auto setWith = [](const char* program, std::vector<const char*> words) {
        words.insert(words.begin(), program);
        if (!runProcess(words))
            printf("%s can't be run\n", program);
    };
    t = measure(
        31, {[&] {
                 setWith(zstz, {"set", "zstz", "section1", "setting25", "1"});
             },
             [&] {
                 setWith(zstz, {"set", "--store", "checked", "zstz", "section1", "setting25", "2"});
             },
             [&] {
                 setWith("crudini", {"--set", "crudini", "section1", "setting25", "1"});
             }});
    compare("zstz set, safe, a process", t[0], "crudini --set", t[2], 0.1);
    compare("zstz set, checked, a process", t[1], "crudini --set", t[2], 0.1);

    // The look alone, made many times, since it is lost in the noise of whole loads.
    const int file = open("plain", O_RDONLY);
    t = measure(2001, {[&] { plain.file.reload(nullptr); },
                       [&] {
                           for (int i = 0; i < 100; ++i)
                               ZJournal("plain", file).find();
                       }});
    close(file);
    const double look = t[1] / 100;
    compare("load, with the look for a journal", t[0], "without: less what the look takes",
            t[0] - look, 1.05);
    printf("%-40s %10.2f us\n", "the look", look);

    // A walk in a walk would take hundred times as long for ten times the lines.
    for (const bool changed : {false, true}) {
        t = measure(11, {keepLines(100000, changed), keepLines(10000, changed)});
        compare(changed ? "keeping lines, changed, 100,000" : "keeping lines, 100,000", t[0],
                "10,000", t[1], 30);
    }

    for (const string& name : names)
        unlink(name.c_str());
    if (chdir("..") == 0)
        rmdir(folder);
    return 0;
}
