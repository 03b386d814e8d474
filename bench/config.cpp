// config.cpp: the configuration beside its peers, GLib's key file and SimpleIni, in one run.
//
// For each number of keys and each layout (stanzas of 20 keys, one big stanza) a file with comments
// is written, and the same work is done with each library, comments kept: load, look-up of a value
// copied into the caller's string, look-up as a number, setting an existing key, adding and
// deleting keys, storing after one change, memory held after a load. The libraries take turns
// within each repetition, since machines are noisy, and the best time of each counts. Printed:
// microseconds or nanoseconds a piece, and ours as a share of the better peer's. Then what must
// grow with the number of keys and no faster, ours alone: where comments read like entries, and
// during walks.
//
//   config [--quick] [number of keys ...]
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "adapters.h"

extern char** environ;

namespace {

// ---------------------------------------------------------------- the work

enum Work { load, lookUp, number, setKey, addKey, deleteKey, storeFile, memory, workCount };

const char* const kWork[] = {"load", "look-up", "integer", "set",
                             "add",  "delete",  "store",   "memory"};
// Ours as a share of the better peer's, by work and number of keys.
double mark(Work work, size_t keys) {
    switch (work) {
        case load:
            return keys <= 100 || keys >= 1000000 ? 0.3 : 0.2;
        case lookUp:
        case number:
            return keys <= 100 ? 0.85 : keys >= 1000000 ? 0.45 : 0.65;
        case setKey:
            return 0.5;
        case addKey:
        case deleteKey:
            return 0.6;
        case storeFile:
            return 0.2;
        default:
            return keys >= 1000000 ? 0.65 : 0;
    }
}

struct Plan {
    std::string path, other;
    std::vector<Name> names;   // of all keys
    std::vector<Name> probes;  // in random order
    std::vector<Name> fresh;   // to be added and deleted
};

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// What this process holds in memory, in bytes.
size_t residentBytes() {
    size_t pages = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// Loads the file and prints by how much the process has grown: run in a process of its own, since
// libraries keep memory for the next time.
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
    File file;
    file.load(path);
    printf("%zu\n", residentBytes() - before);
    return 0;
}

std::string program;  // this one

double memoryPerKey(const char* which, const Plan& plan) {
    const std::string command = program + " --memory " + which + " " + plan.path;
    FILE* pipe = popen(command.c_str(), "r");
    size_t bytes = 0;
    if (pipe == nullptr || fscanf(pipe, "%zu", &bytes) != 1)
        abort();
    pclose(pipe);
    return static_cast<double>(bytes) / static_cast<double>(plan.names.size());
}

volatile size_t sink;

// Nanoseconds a piece of `times` repetitions of `action` over `names`.
template <typename Action>
double perName(const std::vector<Name>& names, Action action) {
    const double start = now();
    size_t sum = 0;
    for (const Name& name : names)
        sum += action(name);
    sink = sum;
    return (now() - start) * 1e9 / static_cast<double>(names.size());
}

template <typename File>
void measure(const Plan& plan, double* best) {
    const size_t keys = plan.names.size();
    double result[workCount];
    double start = now();
    std::unique_ptr<File> file(new File);
    file->load(plan.path.c_str());
    result[load] = (now() - start) * 1e9 / static_cast<double>(keys);
    result[lookUp] = perName(plan.probes, [&](const Name& n) { return file->get(n); });
    result[number] = perName(plan.probes, [&](const Name& n) { return file->getNumber(n); });
    result[setKey] = perName(plan.probes, [&](const Name& n) {
        file->set(n, "48151623");
        return size_t(0);
    });
    result[addKey] = perName(plan.fresh, [&](const Name& n) {
        file->set(n, "42");
        return size_t(0);
    });
    // A peer that takes tens of microseconds and more for each is measured on a few.
    auto removeName = [&](const Name& n) {
        file->remove(n);
        return size_t(0);
    };
    const size_t few = std::min<size_t>(plan.fresh.size(), 50);
    const std::vector<Name> first(plan.fresh.begin(), plan.fresh.begin() + few);
    const std::vector<Name> rest(plan.fresh.begin() + few, plan.fresh.end());
    result[deleteKey] = perName(first, removeName);
    if (!rest.empty() && result[deleteKey] < 20000)
        result[deleteKey] = perName(rest, removeName);
    file.reset(new File);
    file->load(plan.path.c_str());
    file->set(plan.probes[0], "1");
    start = now();
    file->store(plan.other.c_str());
    result[storeFile] = (now() - start) * 1e9 / static_cast<double>(keys);
    for (int w = 0; w < memory; ++w)
        best[w] = best[w] == 0 ? result[w] : std::min(best[w], result[w]);
}

// Loads of small files are repeated within one measurement, or the clock's steps would show.
template <typename File>
double loadOnly(const Plan& plan, int times) {
    const double start = now();
    for (int i = 0; i < times; ++i) {
        File file;
        file.load(plan.path.c_str());
    }
    return (now() - start) * 1e9 / times / static_cast<double>(plan.names.size());
}

Plan makePlan(const std::string& folder, size_t keys, size_t perStanza) {
    Plan plan;
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

void printRow(const char* work, double ours, double glib, double simple, double limit,
              const char* unit, bool glibIsThePeer = false) {
    const double peer = glibIsThePeer ? glib : std::min(glib, simple);
    const double ratio = ours / peer;
    printf("  %-8s %10.1f %10.1f %10.1f  %-9s %6.2f", work, ours, glib, simple, unit, ratio);
    if (limit != 0)
        printf("   %.2f %s", limit, ratio <= limit ? "met" : "MISSED");
    printf("\n");
}

void runSize(const std::string& folder, size_t keys, size_t perStanza, int repetitions) {
    const Plan plan = makePlan(folder, keys, perStanza);
    double ours[workCount] = {}, glib[workCount] = {}, simple[workCount] = {};
    for (int i = 0; i < repetitions; ++i) {
        measure<OurFile>(plan, ours);
        measure<GLibFile>(plan, glib);
        measure<SimpleFile>(plan, simple);
        if (keys <= 1000) {
            const int times = static_cast<int>(20000 / keys);
            ours[load] = std::min(ours[load], loadOnly<OurFile>(plan, times));
            glib[load] = std::min(glib[load], loadOnly<GLibFile>(plan, times));
            simple[load] = std::min(simple[load], loadOnly<SimpleFile>(plan, times));
        }
    }
    ours[memory] = memoryPerKey("zbase", plan);
    glib[memory] = memoryPerKey("glib", plan);
    simple[memory] = memoryPerKey("simpleini", plan);
    printf("%zu keys, %s\n", keys, perStanza < keys ? "stanzas of 20" : "one stanza");
    printf("  %-8s %10s %10s %10s  %-9s %6s   %s\n", "work", "zbase", "GLib", "SimpleIni", "unit",
           "ratio", "mark");
    for (int w = 0; w < workCount; ++w) {
        const Work work = static_cast<Work>(w);
        // Memory of small files is pages, not keys.
        if (work == memory && keys < 100000)
            continue;
        printRow(kWork[w], ours[w], glib[w], simple[w], mark(work, keys),
                 work == memory ? "bytes/key" : "ns/key", work == storeFile);
    }
    printf("\n");
    fflush(stdout);
}

// ---------------------------------------------------------------- what must be linear

typedef ZStanzaFileProperties Ours;

std::string numbered(const char* name, size_t i) { return name + std::to_string(i); }

void addSamples(Ours& file, size_t keys) {
    file.setValue("s", "first", "1");
    for (size_t i = keys; i-- > 0;) {
        const std::string name = numbered("at", i);
        file.setValue("s", name.c_str(), "1");
        file.addEntryComment("s", name.c_str(), numbered("sample", i).append(" = 0").c_str());
    }
}

struct Growth {
    const char* what;
    void (*prepare)(Ours&, size_t keys);
    void (*work)(Ours&, size_t keys);
};

const Growth kGrowth[] = {
    {"add keys, each with a comment that reads like an entry", [](Ours&, size_t) {}, addSamples},
    {"add keys that have samples and keys that have none", addSamples,
     [](Ours& file, size_t keys) {
         for (size_t i = 0; i < keys; ++i)
             file.setValue("s", numbered(i % 2 == 0 ? "sample" : "other", i).c_str(), "1");
     }},
    {"change all keys during a walk", addSamples,
     [](Ours& file, size_t) {
         for (ZStanzaIterator walk(file, "s"); walk.hasMore();) {
             walk.nextEntry();
             file.setValue("s", walk.entryName(), "2");
         }
     }},
    {"delete all keys during a walk", addSamples,
     [](Ours& file, size_t) {
         for (ZStanzaIterator walk(file, "s"); walk.hasMore();) {
             walk.nextEntry();
             file.deleteKey("s", walk.entryName());
         }
     }},
};

void runGrowth(int repetitions) {
    printf("ns/key at 5000, 10000, 20000, 40000 and 80000 keys\n");
    for (const Growth& growth : kGrowth) {
        printf("  %-56s", growth.what);
        for (size_t keys = 5000; keys <= 80000; keys *= 2) {
            double best = 1e9;
            for (int i = 0; i < repetitions; ++i) {
                Ours file(1);
                growth.prepare(file, keys);
                const double start = now();
                growth.work(file, keys);
                best = std::min(best, now() - start);
            }
            printf(" %7.0f", best * 1e9 / static_cast<double>(keys));
        }
        printf("\n");
    }
    printf("\n");
}

// ---------------------------------------------------------------- one edit as a whole process

double spawnEdit(const std::string& program, const std::string& path) {
    const double start = now();
    const char* arguments[] = {program.c_str(), path.c_str(), nullptr};
    pid_t pid;
    int status;
    if (posix_spawn(&pid, program.c_str(), nullptr, nullptr, const_cast<char**>(arguments),
                    environ) != 0 ||
        waitpid(pid, &status, 0) != pid || status != 0)
        abort();
    return (now() - start) * 1e6;
}

// Each library has an editing program of its own, that links nothing of the others.
void runProcesses(const std::string& folder, const std::string& here, int repetitions) {
    const char* const kPrograms[] = {"/edit_zbase", "/edit_glib", "/edit_simpleini"};
    for (size_t keys : {size_t(100), size_t(1000)}) {
        const Plan plan = makePlan(folder, keys, 20);
        double best[3] = {1e9, 1e9, 1e9};
        for (int i = 0; i < repetitions * 40; ++i)
            for (int p = 0; p < 3; ++p)
                best[p] = std::min(best[p], spawnEdit(here + kPrograms[p], plan.path));
        printf("%zu keys, one edit as a whole process\n", keys);
        printRow("edit", best[0], best[1], best[2], 0.4, "us");
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
    int repetitions = 5;
    std::vector<size_t> sizes;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--quick") == 0)
            repetitions = 1;
        else
            sizes.push_back(strtoul(argv[i], nullptr, 10));
    }
    const bool all = sizes.empty();
    if (all)
        sizes = {100, 1000, 100000, 1000000};
    char folder[] = "/tmp/zbase-bench-XXXXXX";
    if (mkdtemp(folder) == nullptr)
        return 1;
    for (size_t keys : sizes) {
        const int rounds = keys <= 1000 ? repetitions * 6 : repetitions;
        runSize(folder, keys, 20, rounds);
        runSize(folder, keys, keys, rounds);
    }
    if (all) {
        runGrowth(repetitions);
        std::string here = argv[0];
        here.resize(here.rfind('/') == std::string::npos ? 0 : here.rfind('/'));
        runProcesses(folder, here.empty() ? "." : here, repetitions);
    }
    for (const char* name : {"/in.conf", "/out.conf"})
        unlink((std::string(folder) + name).c_str());
    rmdir(folder);
    return 0;
}
