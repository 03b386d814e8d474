// dialects.cpp: loading a file in another dialect beside loading the same bytes in the library's
// own, which take turns; the medians and their ratio are told.
//
//   bench_dialects [ROUNDS]
//   bench_dialects default ROUNDS   the own dialect alone: nanoseconds a key of a load and a
//                                   look-up, for bench/beside, which compares two builds
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Z/ZStanzaFileProperties.h"
#include "timing.h"
#ifdef WITH_DIALECTS
#include "Z/ZDialects.h"
#endif

namespace {

using std::string;

string stanzaName(int key) { return "part" + std::to_string(key / 20); }
string keyName(int key) { return "setting" + std::to_string(key); }

// What all dialects but those with a blank as divider read alike.
void writeFile(const string& path, int keys) {
    std::ofstream out(path);
    for (int key = 0; key < keys; ++key) {
        if (key % 20 == 0)
            out << "[" << stanzaName(key) << "]\n# what follows\n";
        out << keyName(key) << " = the value of " << key << "\n";
    }
}

#ifdef WITH_DIALECTS
double timeLoad(const string& path, const ZDialect* dialect, int times) {
    const double begin = now();
    for (int i = 0; i < times; ++i) {
        ZStanzaFileProperties file(1);
        if (dialect != nullptr)
            file.setDialect(*dialect);
        file.load(path.c_str());
        if (file.exists("part0", "setting0") == 0)
            abort();
    }
    return (now() - begin) / times;
}

void compare(const string& path, const char* name, int keys, int rounds) {
    ZDialect dialect;
    ZDialects::get(name, dialect);
    const int times = std::max(1, 20000 / keys);
    Times own, other;
    for (int i = 0; i < rounds; ++i) {
        own.push_back(timeLoad(path, nullptr, times));
        other.push_back(timeLoad(path, &dialect, times));
    }
    const double ratio = medianOf(other) / medianOf(own);
    printf("%-16s %7d keys %9.1f ns %9.1f ns   %.2f   mark 1.50%s\n", name, keys,
           medianOf(own) * 1e9 / keys, medianOf(other) * 1e9 / keys, ratio,
           ratio > 1.5 ? "  MISSED" : "");
}

void compareAll(const string& path, int rounds) {
    printf("%-29s %11s %12s   ratio\n", "loading", "own", "dialect");
    for (const int keys : {100, 10000, 1000000}) {
        writeFile(path, keys);
        const int some = keys == 1000000 ? std::max(1, rounds / 6) : rounds;
        for (const char* name : {"systemd", "desktop", "git", "samba", "php", "mysql",
                                 "configparser", "supervisord", "lax"})
            compare(path, name, keys, some);
    }
}
#endif

void timeDefault(const string& path, int rounds) {
    for (const int keys : {100, 10000, 100000}) {
        writeFile(path, keys);
        const int times = std::max(1, 100000 / keys);
        Times loads, gets;
        ZLCString value;
        std::vector<std::pair<string, string>> names;
        for (int i = 0; i < keys; ++i) {
            const int key = static_cast<int>(i * 7919LL % keys);
            names.emplace_back(stanzaName(key), keyName(key));
        }
        for (int round = 0; round < rounds; ++round) {
            double begin = now();
            for (int i = 0; i < times; ++i) {
                ZStanzaFileProperties file(1);
                file.load(path.c_str());
            }
            loads.push_back((now() - begin) / times / keys);
            ZStanzaFileProperties file(1);
            file.load(path.c_str());
            begin = now();
            for (int i = 0; i < times; ++i)
                for (const auto& name : names)
                    file.getValue(name.first.c_str(), name.second.c_str(), value, 1, nullptr);
            gets.push_back((now() - begin) / times / keys);
        }
        printf("%d load %.2f look-up %.2f\n", keys,
               *std::min_element(loads.begin(), loads.end()) * 1e9,
               *std::min_element(gets.begin(), gets.end()) * 1e9);
    }
}

}  // namespace

int main(int argc, char** argv) {
    setenv("QELDIR", "/opt/Quillmere/nls/QEL", 0);
    const bool isDefault = argc > 2 && strcmp(argv[1], "default") == 0;
    const int rounds = argc > 1 ? std::max(1, atoi(argv[isDefault ? 2 : 1])) : 31;
    // Or each round would give the system the pages of its last objects back and fetch them anew.
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    mallopt(M_MMAP_THRESHOLD, 1 << 30);
    char folder[] = "/tmp/zbase-bench-XXXXXX";
    if (mkdtemp(folder) == nullptr)
        return 1;
    const string path = string(folder) + "/file.conf";
    if (isDefault)
        timeDefault(path, rounds);
#ifdef WITH_DIALECTS
    else {
        setenv("XDG_DATA_DIRS", ZBASE_SHARE, 1);
        compareAll(path, rounds);
    }
#endif
    std::filesystem::remove_all(folder);
    return 0;
}
