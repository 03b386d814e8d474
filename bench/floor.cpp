// floor.cpp: what can't be spared. For marks of bench_config and bench_base that are missed, the
// unavoidable part of the work alone, beside the whole work and the best peer's:
//
// - a look-up from C: the look-up from C++, and a block of malloc for the answer;
// - a look-up, also as a number, and an added key at a million keys: the library's index, the text
//   and a recursive mutex, since any thread may call; no records, no lines, no order, no observers;
// - a string in a map of such: the hash of its text's 20 bytes, one slot and one string; no calls,
//   no order, no other kinds of members;
// - an edit as a process: a program that links what the library links and makes its system calls.
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include <Z/ZKeyMap.h>
#include "zpnameindex.h"
#include "zptext.h"
#include "adapters.h"
#include "memory.h"
#include "process.h"
#include "timing.h"

namespace {

double nanoseconds(double since) { return (now() - since) * 1e9; }

// The median of some rounds of `work`, which says what it took.
template <typename Work>
double median(int rounds, Work work) {
    Times times;
    for (int i = 0; i < rounds; ++i)
        times.push_back(work());
    return medianOf(times);
}

volatile size_t sink;

// The keys of a file of one stanza by the library's own index, without records of their own: where
// a name stands is all that is known of it. Any thread may ask.
struct Table {
    ZPText text;
    ZPNameIndex index;
    pthread_mutex_t mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
    ZPId keys = 0;

    struct Locked {
        pthread_mutex_t& mutex;
        explicit Locked(pthread_mutex_t& held) : mutex(held) { pthread_mutex_lock(&mutex); }
        ~Locked() { pthread_mutex_unlock(&mutex); }
    };
    static uint32_t hashOf(ZSpan stanza, ZSpan key) {
        return zhashOfBoth(zhashOf(stanza), zhashOf(key));
    }
    void read(const char* path, size_t count, size_t more) {
        const int file = open(path, O_RDONLY | O_CLOEXEC);
        struct stat status;
        fstat(file, &status);
        const size_t size = static_cast<size_t>(status.st_size);
        if (::read(file, text.room(size, size / 4), size) != status.st_size)
            abort();
        text.commit(size);
        close(file);
        text.reserve(more * 32);
        index.reserve(count + more, [](auto) {});
        const char *line = text.at(0), *const end = line + size;
        ZSpan stanza = {nullptr, 0};
        for (const char* next; line < end; line = next + 1) {
            next = static_cast<const char*>(memchr(line, '\n', static_cast<size_t>(end - line)));
            const char* const divider =
                static_cast<const char*>(memchr(line, '=', static_cast<size_t>(next - line)));
            if (*line == '[')
                stanza = {line + 1, static_cast<size_t>(next - line) - 2};
            else if (divider != nullptr)
                index.insert(hashOf(stanza, {line, static_cast<size_t>(divider - line) - 1}),
                             keys++, static_cast<uint32_t>(line - text.at(0)));
        }
    }
    // Where the name stands, if it is there.
    uint32_t find(const Name& name, ZPNameIndex::Place& place) const {
        const ZSpan key = {name.key.data(), name.key.size()};
        uint32_t found = 0;
        index.findOrPlace(hashOf({name.stanza.data(), name.stanza.size()}, key), place,
                          [&](ZPId, uint32_t offset) {
                              found = offset;
                              return text.stands(offset, key);
                          });
        return found;
    }
    const char* valueOf(const Name& name) const {
        ZPNameIndex::Place place;
        return text.at(find(name, place)) + name.key.size() + 3;
    }
    // The value is copied out, as a caller would have it.
    size_t get(const Name& name, std::string& out) {
        const Locked lock(mutex);
        const char* const value = valueOf(name);
        out.assign(value,
                   static_cast<size_t>(static_cast<const char*>(memchr(value, '\n', 16)) - value));
        return out.size();
    }
    size_t getNumber(const Name& name) {
        const Locked lock(mutex);
        size_t number = 0;
        for (const char* digit = valueOf(name); *digit != '\n'; ++digit)
            number = number * 10 + static_cast<size_t>(*digit - '0');
        return number;
    }
    void add(const Name& name) {
        const Locked lock(mutex);
        ZPNameIndex::Place place;
        find(name, place);
        const size_t size = name.key.size();
        char* const line = text.room(size + 6);
        memcpy(line, name.key.data(), size);
        memcpy(line + size, " = 42\n", 6);
        index.insertAt(place, keys++, static_cast<uint32_t>(text.size()));
        text.commit(size + 6);
    }
};

void makeFile(const char* path, size_t keys, size_t perStanza) {
    std::ofstream out(path);
    for (size_t i = 0; i < keys; ++i) {
        if (i % perStanza == 0)
            out << "\n[section" << i / perStanza << "]\n# What belongs together\n";
        out << "setting" << i << " = " << 100000 + i * 7919 % 900000 << "\n";
    }
}

void printRow(const char* what, double floor, double whole, double peer, const char* unit) {
    printf("  %-30s %10.1f %10.1f %10.1f  %-7s %5.2f\n", what, floor, whole, peer, unit,
           floor / peer);
}

void lookUps(const char* path) {
    makeFile(path, 1000, 20);
    OurFile file;
    file.load(path);
    ZPROP_handle* handle = nullptr;
    if (zstzPropOpen(&handle, path, ZPROP_OPEN_READ) != ZPROP_OK)
        abort();
    std::vector<Name> names;
    for (size_t i = 0; i < 1000; ++i) {
        const size_t key = i * 387 % 1000;
        names.push_back({"section" + std::to_string(key / 20), "setting" + std::to_string(key)});
    }
    const auto measure = [&](Times& times, auto lookUp) {
        const double start = now();
        for (int round = 0; round < 20; ++round)
            for (const Name& name : names)
                lookUp(name);
        times.push_back(nanoseconds(start) / 20 / static_cast<double>(names.size()));
    };
    Times cpp, block, c;
    for (int round = 0; round < 101; ++round) {
        measure(cpp, [&](const Name& name) { sink = file.get(name); });
        measure(block, [&](const Name& name) {
            const size_t length = file.get(name);
            char* const copy = static_cast<char*>(malloc(length + 5));
            memcpy(copy, file.out.getChars(), length + 1);
            sink = strlen(copy);
            free(copy);
        });
        measure(c, [&](const Name& name) {
            int err;
            char* const text =
                zstzPropGetStringValue(handle, name.stanza.c_str(), name.key.c_str(), 0, &err);
            sink = strlen(text);
            zstzPropFree(text);
        });
    }
    printRow("look-up from C, over C++", medianOf(block), medianOf(c), medianOf(cpp), "ns");
    zstzPropClose(handle);
}

// A string found in a map of such: its text is hashed, a slot is read and one string compared.
void textMap(size_t count) {
    std::vector<std::unique_ptr<ZLCString>> keys, probes;
    std::vector<std::unique_ptr<std::string>> peerProbes;
    std::unordered_map<std::string, const void*> peerMap;
    std::vector<size_t> order(count);
    for (size_t i = 0; i < count; ++i)
        order[i] = i;
    std::shuffle(order.begin(), order.end(), std::mt19937(1));
    const auto textOf = [](size_t i) { return "setting." + std::to_string(1000000 + i) + ".name"; };
    for (size_t i = 0; i < count; ++i)
        keys.emplace_back(new ZLCString(textOf(i).c_str()));
    for (size_t i : order)
        probes.emplace_back(new ZLCString(textOf(i).c_str()));
    for (size_t i = 0; i < count; ++i)
        peerMap[textOf(i)] = &peerMap;
    for (size_t i : order)
        peerProbes.emplace_back(new std::string(textOf(i)));

    struct Place {
        const ZLCString* key;
        uint32_t hash;
    };
    std::vector<Place> places(count * 2);
    const auto slotOf = [&](const ZLCString& text) -> Place& {
        // All have 20 bytes.
        uint64_t words[3];
        memcpy(words, text.getChars(), 16);
        memcpy(words + 2, text.getChars() + 12, 8);
        uint64_t hash = (words[0] ^ words[1] * 0x9E3779B97F4A7C15u) * 0xD6E8FEB86659FD93u;
        hash = (hash ^ hash >> 32 ^ words[2]) * 0x9E3779B97F4A7C15u;
        size_t slot = ((hash >> 32) * places.size()) >> 32;
        for (;; slot = slot + 1 == places.size() ? 0 : slot + 1) {
            Place& place = places[slot];
            if (place.key == nullptr)
                place.hash = static_cast<uint32_t>(hash);
            if (place.key == nullptr || (place.hash == static_cast<uint32_t>(hash) &&
                                         memcmp(place.key->getChars(), text.getChars(), 20) == 0))
                return place;
        }
    };
    ZHashKeyMap map(10, 0);
    for (const auto& key : keys) {
        slotOf(*key).key = key.get();
        map.putEntry(key.get(), key.get());
    }
    const auto measure = [&](const auto& all, auto find) {
        return median(9, [&] {
            const double start = now();
            for (size_t done = 0; done < 200000; done += all.size())
                for (const auto& probe : all)
                    sink = reinterpret_cast<size_t>(find(*probe));
            const size_t rounds = (200000 + all.size() - 1) / all.size();
            return nanoseconds(start) / static_cast<double>(rounds * all.size());
        });
    };
    const double floor = measure(probes, [&](const ZLCString& text) { return slotOf(text).key; });
    const double ours = measure(probes, [&](const ZLCString& text) { return map.getEntry(&text); });
    const double peer =
        measure(peerProbes, [&](const std::string& text) { return peerMap.find(text)->second; });
    printRow(("text in a map of " + std::to_string(count)).c_str(), floor, ours, peer, "ns");
}

template <typename Work>
double perName(const std::vector<Name>& names, Work work) {
    const double start = now();
    for (const Name& name : names)
        work(name);
    return nanoseconds(start) / static_cast<double>(names.size());
}

// A million keys in one stanza.
void million(const char* path) {
    const size_t keys = 1000000;
    makeFile(path, keys, keys);
    std::vector<Name> probes, fresh;
    std::mt19937 random(42);
    for (size_t i = 0; i < 200000; ++i)
        probes.push_back({"section0", "setting" + std::to_string(random() % keys)});
    for (size_t i = 0; i < 20000; ++i)
        fresh.push_back({"section0", "added" + std::to_string(i)});
    static const char* const kWork[] = {"look-up", "integer", "add"};
    Times floors[3], ours[3], peers[3];
    std::string out;
    const auto measure = [&](auto& file, Times* times) {
        file.load(path);
        times[0].push_back(perName(probes, [&](const Name& n) { sink = file.get(n); }));
        times[1].push_back(perName(probes, [&](const Name& n) { sink = file.getNumber(n); }));
        times[2].push_back(perName(fresh, [&](const Name& n) { file.set(n, "42"); }));
    };
    for (int round = 0; round < 5; ++round) {
        fetchFreeMemory(512 * 1024 * 1024);
        {
            Table table;
            table.read(path, keys, fresh.size());
            floors[0].push_back(perName(probes, [&](const Name& n) { sink = table.get(n, out); }));
            floors[1].push_back(perName(probes, [&](const Name& n) { sink = table.getNumber(n); }));
            floors[2].push_back(perName(fresh, [&](const Name& n) { table.add(n); }));
        }
        fetchFreeMemory(512 * 1024 * 1024);
        {
            OurFile own;
            measure(own, ours);
        }
        fetchFreeMemory(512 * 1024 * 1024);
        GLibFile glib;
        measure(glib, peers);
    }
    for (int work = 0; work < 3; ++work)
        printRow((kWork[work] + std::string(", 10^6 in one stanza")).c_str(),
                 medianOf(floors[work]), medianOf(ours[work]), medianOf(peers[work]), "ns");
}

void processes(const std::string& folder, const char* path) {
    makeFile(path, 100, 20);
    static const char* const kPrograms[] = {"floor_process", "edit_zbase", "edit_glib",
                                            "edit_simpleini"};
    std::vector<double> times[4];
    for (int round = 0; round < 201; ++round)
        for (int p = 0; p < 4; ++p)
            times[p].push_back(editTime(folder, kPrograms[p], path));
    printRow("edit as a process, 100 keys", medianOf(times[0]), medianOf(times[1]),
             std::min(medianOf(times[2]), medianOf(times[3])), "us");
}

}  // namespace

int main(int, char** argv) {
    char folder[] = "/tmp/bench_floor.XXXXXX";
    if (mkdtemp(folder) == nullptr)
        return 2;
    const std::string path = std::string(folder) + "/in.conf";
    printf("  %-30s %10s %10s %10s  %-7s %s\n", "work", "floor", "zbase", "best peer", "unit",
           "floor/peer");
    const std::string self = argv[0];
    processes(self.substr(0, self.rfind('/')), path.c_str());
    lookUps(path.c_str());
    for (const size_t count : {100, 1000, 10000, 100000})
        textMap(count);
    million(path.c_str());
    unlink(path.c_str());
    rmdir(folder);
    return 0;
}
