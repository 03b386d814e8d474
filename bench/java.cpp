// java.cpp: loading a Java property file beside a plain loop that reads lines, splits them at the
// first "=" and fills a std::unordered_map. Each load begins with an empty map and ends with its
// destruction. The two take turns on the same files, of 10^2 to 10^5 entries; the medians and their
// ratio are told.
//
//   bench_java [ROUNDS]
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <unordered_map>
#include <vector>

#include "Z/ZJavaProperties.h"

namespace {

double processorTime() {
    timespec now;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double medianOf(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

void writeFile(const std::string& path, int entries) {
    std::ofstream out(path);
    out << "# messages of a program\n";
    for (int i = 0; i < entries; ++i)
        out << "message.group" << i % 97 << ".number" << i << " = The text of message " << i
            << ", as long as most\n";
}

void loadOurs(const std::string& path, int entries) {
    ZJavaProperties properties;
    properties.load(path.c_str());
    ZUTF8String value;
    const int last = entries - 1;
    const std::string key =
        "message.group" + std::to_string(last % 97) + ".number" + std::to_string(last);
    properties.getValue(ZUTF8ConstString(key.c_str()), value);
    if (value.isEmpty())
        abort();
}

void loadPlain(const std::string& path, int entries) {
    std::unordered_map<std::string, std::string> map;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        const size_t split = line.find('=');
        if (split != std::string::npos)
            map[line.substr(0, split)] = line.substr(split + 1);
    }
    if (map.size() != static_cast<size_t>(entries))
        abort();
}

/// Seconds a load.
double timeOf(void (*load)(const std::string&, int), const std::string& path, int entries) {
    const int times = std::max(1, 20000 / entries);
    const double begin = processorTime();
    for (int i = 0; i < times; ++i)
        load(path, entries);
    return (processorTime() - begin) / times;
}

}  // namespace

int main(int argc, char** argv) {
    setenv("QELDIR", "/opt/Quillmere/nls/QEL", 0);
    const int rounds = argc > 1 ? std::max(1, atoi(argv[1])) : 15;
    char folder[] = "/tmp/zbase-bench-XXXXXX";
    if (mkdtemp(folder) == nullptr)
        return 1;
    const std::string path = std::string(folder) + "/bench.properties";
    printf("%-10s %14s %14s  ratio\n", "entries", "zbase (us)", "getline (us)");
    for (int entries : {100, 1000, 10000, 100000}) {
        writeFile(path, entries);
        std::vector<double> ours, plain;
        for (int i = 0; i < rounds; ++i) {
            ours.push_back(timeOf(loadOurs, path, entries));
            plain.push_back(timeOf(loadPlain, path, entries));
        }
        printf("%-10d %14.1f %14.1f  %.2f\n", entries, medianOf(ours) * 1e6, medianOf(plain) * 1e6,
               medianOf(ours) / medianOf(plain));
    }
    unlink(path.c_str());
    rmdir(folder);
    return 0;
}
