// layers.cpp: opening a layered configuration beside finding its files, that is a look for the main
// file in each root and a listing of each folder by opendir() and readdir(), and plain loads of
// them, each into an object of its own; and how long it takes to tell where a value comes from. The
// two take turns on the same files; the medians and their ratio are told.
//
//   bench_layers [ROUNDS]
#include <dirent.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Z/ZStanzaFileProperties.h"
#include "Z/zlayerset.h"
#include "timing.h"

namespace {

using std::string;

string keyName(int number) { return "setting" + std::to_string(number); }

// A main file and drop-ins in two roots by turns, each with its own keys in stanzas of 20.
class Files {
public:
    Files(const string& folder, int files, int keys) : folder_(folder), keys_(keys) {
        for (const char* root : {"/lib", "/etc"}) {
            roots_.push_back(folder + root);
            folders_.push_back(roots_.back() + "/app.conf.d");
            std::filesystem::create_directories(folders_.back());
        }
        for (int i = 0; i < files; ++i) {
            paths_.push_back(i == 0 ? roots_[0] + "/app.conf"
                                    : folders_[i % 2] + "/" + std::to_string(10000 + i) + ".conf");
            std::ofstream out(paths_.back());
            for (int key = 0; key < keys; ++key) {
                if (key % 20 == 0)
                    out << "[" << stanzaOf(i, key) << "]\n# what follows\n";
                out << keyName(key) << " = the value of " << key << "\n";
            }
        }
        // As files are found that nobody has touched in the last moment.
        usleep(60000);
    }
    ~Files() { std::filesystem::remove_all(folder_); }

    static string stanzaOf(int file, int key) {
        return "part" + std::to_string(file) + "." + std::to_string(key / 20);
    }
    int count() const { return static_cast<int>(paths_.size()); }
    int keys() const { return keys_; }

    void loadPlainly() const {
        struct stat status;
        for (const string& root : roots_)
            stat((root + "/app.conf").c_str(), &status);
        for (const string& folder : folders_) {
            DIR* opened = opendir(folder.c_str());
            while (readdir(opened) != nullptr) {
            }
            closedir(opened);
        }
        std::vector<std::unique_ptr<ZStanzaFileProperties>> loaded;
        for (const string& path : paths_) {
            loaded.emplace_back(new ZStanzaFileProperties(1));
            loaded.back()->load(path.c_str());
        }
    }

    ZLayersTerms terms() {
        pointers_ = {roots_[0].c_str(), roots_[1].c_str(), nullptr};
        ZLayersTerms terms = {};
        terms.size = sizeof terms;
        terms.name = "app";
        terms.roots = pointers_.data();
        return terms;
    }

private:
    const string folder_;
    const int keys_;
    std::vector<string> roots_, folders_, paths_;
    std::vector<const char*> pointers_;
};

struct Loaded {
    explicit Loaded(Files& files) : set(files.terms()) { set.load(model, 0); }

    ZLayerSet set;
    ZSCFData model;
};

void compareLoads(const string& folder, int count, int keys, int rounds) {
    Files files(folder, count, keys);
    Times layered, plain;
    for (int i = 0; i < rounds; ++i) {
        double begin = now();
        { Loaded loaded(files); }
        layered.push_back(now() - begin);
        begin = now();
        files.loadPlainly();
        plain.push_back(now() - begin);
    }
    const double ratio = medianOf(layered) / medianOf(plain);
    printf("%5d files of %6d keys   %10.1f us %10.1f us   %.2f   mark 1.20%s\n", count, keys,
           medianOf(layered) * 1e6, medianOf(plain) * 1e6, ratio, ratio > 1.2 ? "  MISSED" : "");
}

// One file or many, and the last value of each, so that the first look-up has to count all lines.
void timeOrigins(const string& folder, int count, int keys, int rounds) {
    Files files(folder, count, keys);
    Times first, later;
    for (int i = 0; i < rounds; ++i) {
        Loaded loaded(files);
        const auto ask = [&](int file, int key) {
            const ZLayer* layer = nullptr;
            int line = 0;
            if (!loaded.set.origin(loaded.model, Files::stanzaOf(file, key).c_str(),
                                   keyName(key).c_str(), 0, layer, line) ||
                line != key + key / 20 * 2 + 3)
                abort();
        };
        double begin = now();
        ask(count - 1, keys - 1);
        first.push_back(now() - begin);
        const int times = std::min(keys, 1000);
        begin = now();
        for (int j = 0; j < times; ++j)
            ask(count - 1, static_cast<int>(j * 7919L % keys));
        later.push_back((now() - begin) / times);
    }
    const bool isMissed = medianOf(first) > 1e-3 || medianOf(later) > 1e-3;
    printf("%5d files of %6d keys   %10.1f us %10.2f us          mark 1000 us%s\n", count, keys,
           medianOf(first) * 1e6, medianOf(later) * 1e6, isMissed ? "  MISSED" : "");
}

}  // namespace

int main(int argc, char** argv) {
    setenv("QELDIR", "/opt/Quillmere/nls/QEL", 0);
    const int rounds = argc > 1 ? std::max(1, atoi(argv[1])) : 31;
    // Or each round would give the system the pages of its last objects back and fetch them anew,
    // which takes longer than a small load.
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    mallopt(M_MMAP_THRESHOLD, 1 << 30);
    char folder[] = "/tmp/zbase-bench-XXXXXX";
    if (mkdtemp(folder) == nullptr)
        return 1;
    const string place = string(folder) + "/t";
    printf("%-28s %13s %13s  ratio\n", "opening", "layers", "plain loads");
    compareLoads(place, 2, 20, rounds * 10);
    compareLoads(place, 20, 50, rounds * 10);
    compareLoads(place, 4, 10000, rounds);
    compareLoads(place, 1000, 5, rounds);
    printf("%-28s %13s %13s\n", "telling an origin", "first", "each later");
    timeOrigins(place, 1, 100000, rounds);
    timeOrigins(place, 10, 10000, rounds);
    std::filesystem::remove_all(folder);
    return 0;
}
