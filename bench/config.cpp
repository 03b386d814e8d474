// config.cpp: the configuration beside its peers, GLib's key file and SimpleIni, in one run.
//
// For each number of keys and each layout (stanzas of 20 keys, one big stanza) a file with comments
// is written, and the same work is done with each library, comments kept: load, look-up of a value
// copied into the caller's string, look-up as a number, setting an existing key, adding and
// deleting keys, storing after one change, memory held after a load; and the look-up by our C
// interface, beside the one in C++. The libraries take turns within each repetition, since machines
// are noisy, and the medians count. What they answer is compared, too. Printed: nanoseconds a
// piece, and ours as a share of the better peer's, beside its mark. Then how the cost of each
// operation grows with the number of keys, ours alone, and one edit as a whole process.
//
//   config [--quick] [--growth] [number of keys ...]
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "adapters.h"
#include "memory.h"
#include "process.h"
#include "timing.h"

namespace {

// ---------------------------------------------------------------- the work

enum Work {
    load,
    lookUp,
    number,
    setKey,
    addKey,
    deleteKey,
    storeFile,
    lookUpByC,  // its peer is our own look-up
    firstLoad,  // in a process of its own: no memory is there that other loads have left
    memory,
    workCount
};

const char* const kWork[] = {"load",   "look-up", "integer",   "set",      "add",
                             "delete", "store",   "C look-up", "1st load", "memory"};
// Ours as a share of the better peer's; 0: no mark.
double mark(Work work, size_t keys, bool isOneStanza) {
    switch (work) {
        case load:
            return keys <= 100 ? 0.35 : keys >= 1000000 ? 0.3 : 0.2;
        case lookUp:
            return keys >= 1000000 && isOneStanza ? 0.7 : 0.6;
        case number:
            return keys <= 100 ? 0.85 : keys >= 1000000 ? 0.45 : 0.65;
        case setKey:
        case addKey:
            return 0.7;
        case deleteKey:
            return 0.6;
        case storeFile:
            return 0.2;
        case lookUpByC:
            return 1.2;
        case memory:
            return keys >= 1000000 ? 0.65 : 0;
        default:
            return 0;
    }
}

// What the last line says of the marks.
int marksMet;
std::string marksMissed;

// 0 where nothing was measured.
double median(const Times& times) { return times.empty() ? 0 : medianOf(times); }

// What the libraries say to one question; ends the program when they differ.
void agree(const std::string& question, size_t answer) {
    static std::map<std::string, size_t> answers;
    const auto known = answers.emplace(question, answer).first;
    if (known->second != answer) {
        fprintf(stderr, "%s: %zu and %zu\n", question.c_str(), known->second, answer);
        abort();
    }
}

struct Plan {
    std::string what, path, other;
    std::vector<Name> names;   // of all keys
    std::vector<Name> probes;  // in random order
    std::vector<Name> fresh;   // to be added and deleted
};

// What this process holds in memory, in bytes.
size_t residentBytes() {
    size_t pages = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// Loads the file and prints by how much the process has grown and how many nanoseconds it took: run
// in a process of its own, since libraries keep memory for the next time.
template <typename File>
int printMemory(const char* path) {
    {
        std::ofstream warm(std::string(path) + ".small");
        warm << "[s]\nk = 1\n";
    }
    File first;
    first.load((std::string(path) + ".small").c_str());
    unlink((std::string(path) + ".small").c_str());
    const size_t before = residentBytes();
    const double start = now();
    File file;
    file.load(path);
    const double time = now() - start;
    printf("%zu %f\n", residentBytes() - before, time * 1e9);
    return 0;
}

// More than any of the libraries takes for so many keys. Smaller files find memory in the process;
// to touch more ahead of them would only empty the processor's caches.
void fetchFor(size_t keys) {
    if (keys >= 100000)
        fetchFreeMemory(keys * 500);
}

std::string program;  // this one

void measureAlone(const char* which, const Plan& plan, Times* times) {
    const std::string command = program + " --memory " + which + " " + plan.path;
    fetchFor(plan.names.size());
    FILE* pipe = popen(command.c_str(), "r");
    double bytes = 0, time = 0;
    if (pipe == nullptr || fscanf(pipe, "%lf %lf", &bytes, &time) != 2)
        abort();
    pclose(pipe);
    const double keys = static_cast<double>(plan.names.size());
    times[memory].push_back(bytes / keys);
    times[firstLoad].push_back(time / keys);
}

// Nanoseconds a piece of `action` over `names`; `sum` is that of its answers.
template <typename Action>
double perName(const std::vector<Name>& names, size_t& sum, Action action) {
    const double start = now();
    sum = 0;
    for (const Name& name : names)
        sum += action(name);
    return (now() - start) * 1e9 / static_cast<double>(names.size());
}

template <typename File>
void measure(const Plan& plan, Times* times) {
    const size_t keys = plan.names.size();
    double result[workCount];
    size_t sum, numbers;
    fetchFor(keys);
    double start = now();
    std::unique_ptr<File> file(new File);
    file->load(plan.path.c_str());
    result[load] = (now() - start) * 1e9 / static_cast<double>(keys);
    result[lookUp] = perName(plan.probes, sum, [&](const Name& n) { return file->get(n); });
    result[number] =
        perName(plan.probes, numbers, [&](const Name& n) { return file->getNumber(n); });
    agree(plan.what + ", lengths", sum);
    agree(plan.what + ", numbers", numbers);
    result[setKey] = perName(plan.probes, sum, [&](const Name& n) {
        file->set(n, "48151623");
        return size_t(0);
    });
    result[addKey] = perName(plan.fresh, sum, [&](const Name& n) {
        file->set(n, "42");
        return size_t(0);
    });
    perName(plan.probes, sum, [&](const Name& n) { return file->getNumber(n); });
    perName(plan.fresh, numbers, [&](const Name& n) { return file->getNumber(n); });
    agree(plan.what + ", after changes", sum + numbers);
    // A peer that takes tens of microseconds and more for each is measured on a few.
    auto removeName = [&](const Name& n) {
        file->remove(n);
        return size_t(0);
    };
    const size_t few = std::min<size_t>(plan.fresh.size(), 50);
    const std::vector<Name> first(plan.fresh.begin(), plan.fresh.begin() + few);
    const std::vector<Name> rest(plan.fresh.begin() + few, plan.fresh.end());
    result[deleteKey] = perName(first, sum, removeName);
    if (!rest.empty() && result[deleteKey] < 20000)
        result[deleteKey] = perName(rest, sum, removeName);
    file.reset(new File);
    file->load(plan.path.c_str());
    file->set(plan.probes[0], "1");
    start = now();
    file->store(plan.other.c_str());
    result[storeFile] = (now() - start) * 1e9 / static_cast<double>(keys);
    for (int w = 0; w < lookUpByC; ++w)
        times[w].push_back(result[w]);
}

double measureC(const Plan& plan) {
    ZPROP_handle* handle = nullptr;
    if (zstzPropOpen(&handle, plan.path.c_str(), ZPROP_OPEN_READ) != ZPROP_OK)
        abort();
    size_t sum;
    const double time = perName(plan.probes, sum, [&](const Name& n) {
        int err;
        char* text = zstzPropGetStringValue(handle, n.stanza.c_str(), n.key.c_str(), 0, &err);
        const size_t length = strlen(text);
        zstzPropFree(text);
        return length;
    });
    agree(plan.what + ", lengths", sum);
    zstzPropClose(handle);
    return time;
}

template <typename File>
double loadOnly(const Plan& plan, int times) {
    fetchFor(plan.names.size());
    const double start = now();
    for (int i = 0; i < times; ++i) {
        File file;
        file.load(plan.path.c_str());
    }
    return (now() - start) * 1e9 / times / static_cast<double>(plan.names.size());
}

Plan makePlan(const std::string& folder, size_t keys, size_t perStanza) {
    Plan plan;
    plan.what =
        std::to_string(keys) + (perStanza < keys ? " keys, stanzas of 20" : " keys, one stanza");
    plan.path = folder + "/in.conf";
    plan.other = folder + "/out.conf";
    std::ofstream out(plan.path);
    out << "# A file made for measuring.\n\n";
    for (size_t i = 0; i < keys; ++i) {
        const std::string stanza = "section" + std::to_string(i / perStanza);
        if (i % perStanza == 0)
            out << (i == 0 ? "" : "\n") << "[" << stanza << "]\n# What belongs together\n";
        const std::string key = "setting" + std::to_string(i);
        out << key << " = " << (100000 + i * 7919 % 900000) << "\n";
        plan.names.push_back({stanza, key});
    }
    out.close();
    std::ofstream(plan.other) << "";
    std::mt19937 random(42);
    const size_t probes = std::min<size_t>(std::max<size_t>(keys, 20000), 200000);
    for (size_t i = 0; i < probes; ++i)
        plan.probes.push_back(plan.names[random() % keys]);
    for (size_t i = 0; i < std::min<size_t>(keys, 20000); ++i)
        plan.fresh.push_back({plan.names[random() % keys].stanza, "added" + std::to_string(i)});
    return plan;
}

void printRow(const std::string& what, const char* work, double ours, double glib, double simple,
              double limit, const char* unit, double peer) {
    const double ratio = ours / peer;
    printf("  %-9s %10.1f %10.1f %10.1f  %-9s %6.2f", work, ours, glib, simple, unit, ratio);
    if (limit != 0) {
        const bool isMet = ratio <= limit;
        printf("   %.2f %s", limit, isMet ? "met" : "MISSED");
        marksMet += isMet;
        char missed[200];
        snprintf(missed, sizeof missed, "\n  %s, %s: %.2f of at most %.2f", what.c_str(), work,
                 ratio, limit);
        if (!isMet)
            marksMissed += missed;
    }
    printf("\n");
}

void runSize(const std::string& folder, size_t keys, size_t perStanza, int repetitions) {
    const Plan plan = makePlan(folder, keys, perStanza);
    Times ours[workCount], glib[workCount], simple[workCount];
    for (int i = 0; i < repetitions; ++i) {
        measure<OurFile>(plan, ours);
        ours[lookUpByC].push_back(measureC(plan));
        measure<GLibFile>(plan, glib);
        measure<SimpleFile>(plan, simple);
        measureAlone("zbase", plan, ours);
        measureAlone("glib", plan, glib);
        measureAlone("simpleini", plan, simple);
    }
    if (keys <= 1000) {
        // Loads of small files are repeated within one measurement, or the clock's steps would
        // show.
        for (Times* times : {ours, glib, simple})
            times[load].clear();
        const int times = static_cast<int>(20000 / keys);
        for (int i = 0; i < repetitions; ++i) {
            ours[load].push_back(loadOnly<OurFile>(plan, times));
            glib[load].push_back(loadOnly<GLibFile>(plan, times));
            simple[load].push_back(loadOnly<SimpleFile>(plan, times));
        }
    }
    printf("%s\n", plan.what.c_str());
    printf("  %-9s %10s %10s %10s  %-9s %6s   %s\n", "work", "zbase", "GLib", "SimpleIni", "unit",
           "ratio", "mark");
    for (int w = 0; w < workCount; ++w) {
        const Work work = static_cast<Work>(w);
        // Memory of small files is pages, not keys.
        if (work == memory && keys < 100000)
            continue;
        const double g = median(glib[w]), s = median(simple[w]);
        const double peer = work == lookUpByC   ? median(ours[lookUp])
                            : work == storeFile ? g
                                                : std::min(g, s);
        printRow(plan.what, kWork[w], median(ours[w]), g, s, mark(work, keys, perStanza >= keys),
                 work == memory ? "bytes/key" : "ns/key", peer);
    }
    printf("\n");
    fflush(stdout);
}

// ---------------------------------------------------------------- how costs grow

typedef ZStanzaFileProperties Ours;

std::string numbered(const char* name, size_t i) { return name + std::to_string(i); }

void addKeys(Ours& file, size_t keys) {
    for (size_t i = 0; i < keys; ++i)
        file.setValue("s", numbered("key", i).c_str(), "1");
}

void addSamples(Ours& file, size_t keys) {
    file.setValue("s", "first", "1");
    for (size_t i = keys; i-- > 0;) {
        const std::string name = numbered("at", i);
        file.setValue("s", name.c_str(), "1");
        file.addEntryComment("s", name.c_str(), numbered("sample", i).append(" = 0").c_str());
    }
}

void nothing(Ours&, size_t) {}

// Of each key, in the order of the file.
template <typename Action>
void eachKey(size_t keys, Action action) {
    for (size_t i = 0; i < keys; ++i)
        action(numbered("key", i).c_str());
}

template <typename Action>
void eachStep(Ours& file, Action action) {
    for (ZStanzaIterator walk(file, "s"); walk.hasMore();) {
        walk.nextEntry();
        action(walk);
    }
}

struct Growth {
    const char* what;
    void (*prepare)(Ours&, size_t keys);
    void (*work)(Ours&, size_t keys);
};

// All in one stanza, unless said otherwise.
const Growth kGrowth[] = {
    {"load", addKeys,
     [](Ours& file, size_t) {
         file.store("grown.conf");
         file.reload("grown.conf");
     }},
    {"getValue", addKeys,
     [](Ours& file, size_t keys) {
         ZLCString out;
         eachKey(keys, [&](const char* key) { file.getValue("s", key, out, 1, nullptr); });
     }},
    {"exists, numValues and isObfuscated", addKeys,
     [](Ours& file, size_t keys) {
         eachKey(keys, [&](const char* key) {
             file.exists("s", key), file.numValues("s", key), file.isObfuscated("s", key);
         });
     }},
    {"getValues", addKeys,
     [](Ours& file, size_t keys) {
         ZArrayList list(1, 1);
         eachKey(keys,
                 [&](const char* key) { file.getValues("s", key, list, ZPROP_STRING_LOCAL); });
     }},
    {"setValue of a new key", nothing, addKeys},
    {"setValue of a known one", addKeys, addKeys},
    {"setValue of a hidden one", nothing,
     [](Ours& file, size_t keys) {
         eachKey(keys, [&](const char* key) { file.setValue("s", key, "1", 1); });
     }},
    {"setValue, each in a stanza of its own", nothing,
     [](Ours& file, size_t keys) {
         eachKey(keys, [&](const char* stanza) { file.setValue(stanza, "k", "1"); });
     }},
    {"addValue, all of one key, different", nothing,
     [](Ours& file, size_t keys) {
         ZArrayList list(1, 1);
         eachKey(keys, [&](const char* value) { list.addNoCopy(new ZLCString(value)); });
         file.addValues("s", "k", list, 0);
     }},
    {"deleteKey, in file order", addKeys,
     [](Ours& file, size_t keys) {
         eachKey(keys, [&](const char* key) { file.deleteKey("s", key); });
     }},
    {"deleteKey, the last one first", addKeys,
     [](Ours& file, size_t keys) {
         for (size_t i = keys; i-- > 0;)
             file.deleteKey("s", numbered("key", i).c_str());
     }},
    {"addEntryComment", addKeys,
     [](Ours& file, size_t keys) {
         eachKey(keys, [&](const char* key) { file.addEntryComment("s", key, "note"); });
     }},
    {"addStanza and deleteStanza", nothing,
     [](Ours& file, size_t keys) {
         eachKey(keys, [&](const char* stanza) { file.addStanza(stanza); });
         eachKey(keys, [&](const char* stanza) { file.deleteStanza(stanza); });
     }},
    {"getStanza", addKeys,
     [](Ours& file, size_t) {
         ZPropertiesKVList list(ZPROP_STRING_LOCAL);
         file.getStanza("s", list);
     }},
    {"a walk over keys and values", addKeys,
     [](Ours& file, size_t) { eachStep(file, [](ZStanzaIterator& walk) { walk.entryValue(0); }); }},
    {"a walk that sets each key", addSamples,
     [](Ours& file, size_t) {
         eachStep(file, [&](ZStanzaIterator& w) { file.setValue("s", w.entryName(), "2"); });
     }},
    {"a walk that deletes each key", addSamples,
     [](Ours& file, size_t) {
         eachStep(file, [&](ZStanzaIterator& w) { file.deleteKey("s", w.entryName()); });
     }},
    {"a walk over the values of one key that changes each", nothing,
     [](Ours& file, size_t keys) {
         ZStanzaValueIterator add(file, "s", "k", ZPROP_STRING_LOCAL,
                                  ZStanzaValueIterator::ZPROP_ITER_AUTO);
         eachKey(keys, [&](const char* value) { add.addValue(value); });
         ZStanzaValueIterator change(file, "s", "k", ZPROP_STRING_LOCAL,
                                     ZStanzaValueIterator::ZPROP_ITER_AUTO);
         while (change.hasMore()) {
             change.nextValue();
             change.changeValue("x");
         }
     }},
    {"new keys, each with a comment that reads like an entry", nothing, addSamples},
    {"new keys that have samples and keys that have none", addSamples,
     [](Ours& file, size_t keys) {
         for (size_t i = 0; i < keys; ++i)
             file.setValue("s", numbered(i % 2 == 0 ? "sample" : "other", i).c_str(), "1");
     }},
};

void runGrowth(const std::string& folder, bool isQuick) {
    const std::vector<size_t> sizes =
        isQuick ? std::vector<size_t>{1000} : std::vector<size_t>{1000, 10000, 100000, 1000000};
    if (chdir(folder.c_str()) != 0)
        abort();
    printf("ns/key at 1,000 to 1,000,000 keys, and how often the first is in the last\n");
    for (const Growth& growth : kGrowth) {
        printf("  %-56s", growth.what);
        double first = 0, last = 0;
        for (size_t keys : sizes) {
            Times times;
            for (int i = 0; i < (keys > 100000 ? 1 : 5); ++i) {
                fetchFor(keys);
                Ours file(1);
                growth.prepare(file, keys);
                const double start = now();
                growth.work(file, keys);
                times.push_back((now() - start) * 1e9 / static_cast<double>(keys));
            }
            last = median(times);
            first = first == 0 ? last : first;
            printf(" %7.0f", last);
            fflush(stdout);
        }
        printf(" %6.1f\n", last / first);
    }
    unlink("grown.conf");
    printf("\n");
}

// ---------------------------------------------------------------- one edit as a whole process

// Each library has an editing program of its own, that links nothing of the others; ours is
// written in C.
void runProcesses(const std::string& folder, const std::string& here, int repetitions) {
    const char* const kPrograms[] = {"edit_zbase", "edit_glib", "edit_simpleini"};
    for (size_t keys : {size_t(100), size_t(1000)}) {
        const Plan plan = makePlan(folder, keys, 20);
        Times times[3];
        // In each order alike: what ran last has left the caches to its own liking.
        int order[] = {0, 1, 2};
        for (int i = 0; i < repetitions * 42; ++i) {
            for (int p : order)
                times[p].push_back(editTime(here, kPrograms[p], plan.path));
            std::next_permutation(order, order + 3);
        }
        printf("%zu keys, one edit as a whole process\n", keys);
        const double glib = median(times[1]), simple = median(times[2]);
        printRow(plan.what, "edit", median(times[0]), glib, simple, 0.9, "us",
                 std::min(glib, simple));
        printf("\n");
    }
}

}  // namespace

int main(int argc, char** argv) {
    setenv("QELDIR", "/opt/Quillmere/nls/QEL", 0);
    program = argv[0];
    if (argc == 4 && strcmp(argv[1], "--memory") == 0) {
        if (strcmp(argv[2], "zbase") == 0)
            return printMemory<OurFile>(argv[3]);
        return strcmp(argv[2], "glib") == 0 ? printMemory<GLibFile>(argv[3])
                                            : printMemory<SimpleFile>(argv[3]);
    }
    bool isQuick = false, growthAlone = false;
    std::vector<size_t> sizes;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--quick") == 0)
            isQuick = true;
        else if (strcmp(argv[i], "--growth") == 0)
            growthAlone = true;
        else
            sizes.push_back(strtoul(argv[i], nullptr, 10));
    }
    const int repetitions = isQuick ? 1 : 5;
    const bool all = sizes.empty();
    if (all && !growthAlone)
        sizes = {100, 1000, 10000, 100000, 1000000};
    char folder[] = "/tmp/zbase-bench-XXXXXX";
    if (mkdtemp(folder) == nullptr)
        return 1;
    const std::unique_ptr<char, decltype(&free)> self(realpath("/proc/self/exe", nullptr), &free);
    std::string here = self.get();
    here.resize(here.rfind('/'));
    // First, while the system's memory is as programs find it that have done nothing else.
    if (all && !growthAlone)
        runProcesses(folder, here, repetitions);
    for (size_t keys : sizes) {
        const int rounds = keys <= 1000 ? repetitions * 6 : repetitions;
        runSize(folder, keys, 20, rounds);
        runSize(folder, keys, keys, rounds);
    }
    if (all)
        runGrowth(folder, isQuick);
    for (const char* name : {"/in.conf", "/out.conf"})
        unlink((std::string(folder) + name).c_str());
    rmdir(folder);
    const long missed = std::count(marksMissed.begin(), marksMissed.end(), '\n');
    if (!marksMissed.empty())
        printf("Missed:%s\n", marksMissed.c_str());
    printf("%d marks met, %ld missed\n", marksMet, missed);
    return 0;
}
