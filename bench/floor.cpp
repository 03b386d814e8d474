// floor.cpp: what can't be spared. For marks of bench_config and bench_base that are missed, the
// unavoidable part of the work alone, beside the whole work and the best peer's:
//
// - a load: the file's lock, size and bytes, a look for a journal, and in fresh memory the text and
//   for each key a slot with its hash and place; no records, no lines, no order;
// - a look-up from C: the look-up from C++, and a block of malloc for the answer;
// - a look-up, also as a number, an added and a deleted key and the memory at a million keys: a
//   table of the texts' hashes and places, and the text; no records, no lines, no locks. In stanzas
//   of 20 a second table of the stanzas, with the place of the last key of each. Of a deleted key
//   the slot is marked alone;
// - a string in a map of such: the hash of its text's 20 bytes, one slot and one string; no calls,
//   no order, no other kinds of members;
// - an edit as a process: a program that links what the library links and makes its system calls.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "Z/ZKeyMap.h"
#include "adapters.h"
#include "process.h"

namespace {

typedef std::chrono::steady_clock Clock;

double nanoseconds(Clock::time_point since) {
    return std::chrono::duration<double, std::nano>(Clock::now() - since).count();
}

double medianOf(std::vector<double> times) {
    std::nth_element(times.begin(), times.begin() + times.size() / 2, times.end());
    return times[times.size() / 2];
}

// The median of some rounds of `work`, which says what it took.
template <typename Work>
double median(int rounds, Work work) {
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i)
        times.push_back(work());
    return medianOf(times);
}

volatile size_t sink;

struct Slot {
    uint32_t hash, place;
};

// A table of keys by what stands ahead of "=" in a text, as little as can be looked up in.
struct Table {
    char* text = nullptr;
    size_t size = 0, whole = 0;
    Slot* slots = nullptr;
    size_t room = 0, keys = 0;

    ~Table() {
        free(slots);
        free(text);
    }
    // In huge pages if there is much of it.
    static void* fresh(size_t bytes) {
        const size_t page = 2 * 1024 * 1024;
        if (bytes < page)
            return malloc(bytes);
        void* const block = aligned_alloc(page, (bytes + page - 1) / page * page);
        madvise(block, bytes / page * page, MADV_HUGEPAGE);
        return block;
    }
    static uint64_t hashOf(const char* name, size_t length) {
        uint64_t hash = 0x9E3779B97F4A7C15u, word = 0;
        for (size_t i = 0; i < length; i += 8) {
            memcpy(&word, name + i, std::min<size_t>(8, length - i));
            hash = (hash ^ word) * 0xD6E8FEB86659FD93u;
            hash ^= hash >> 32;
        }
        return hash;
    }
    // The slot of a name, or the free one where it would go.
    Slot& find(const char* name, size_t length, uint32_t& hash) const {
        const uint64_t whole = hashOf(name, length);
        hash = static_cast<uint32_t>(whole) | 1;
        size_t slot = ((whole >> 32) * room) >> 32;
        while (slots[slot].hash != 0 &&
               (slots[slot].hash != hash || memcmp(text + slots[slot].place, name, length) != 0))
            slot = slot + 1 == room ? 0 : slot + 1;
        return slots[slot];
    }
    void read(const char* path) {
        const int file = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
        struct flock lock = {};
        lock.l_type = F_RDLCK;
        fcntl(file, F_SETLK, &lock);
        struct stat status, journal;
        fstat(file, &status);
        sink = static_cast<size_t>(lstat((std::string(path) + ".zjournal").c_str(), &journal));
        size = static_cast<size_t>(status.st_size);
        whole = size + size / 8;
        text = static_cast<char*>(fresh(whole));
        if (::read(file, text, size) != static_cast<ssize_t>(size))
            abort();
        close(file);
        room = size / 16 + 8;
        slots = static_cast<Slot*>(fresh(room * sizeof(Slot)));
        memset(static_cast<void*>(slots), 0, room * sizeof(Slot));
        for (char* line = text; line < text + size;) {
            char* const end = static_cast<char*>(memchr(line, '\n', text + size - line));
            char* const divider = static_cast<char*>(memchr(line, '=', end - line));
            if (divider != nullptr)
                note(line, divider - line);
            line = end + 1;
        }
    }
    void note(const char* name, size_t length) {
        uint32_t hash;
        Slot& slot = find(name, length, hash);
        slot = {hash, static_cast<uint32_t>(name - text)};
        ++keys;
    }
    // The headers of a text that another table has read, each with a place for its last key.
    void readHeaders(Table& other) {
        text = other.text;
        room = other.keys / 15 + 8;
        slots = static_cast<Slot*>(calloc(room, sizeof(Slot)));
        const char* const end = text + other.size;
        for (const char* line = text; line < end;
             line = static_cast<const char*>(memchr(line, '\n', end - line)) + 1)
            if (*line == '[')
                note(line + 1, static_cast<const char*>(memchr(line, ']', end - line)) - line - 1);
        text = nullptr;
    }
    // The value is copied out, as a caller would have it.
    size_t get(const std::string& name, std::string& out) const {
        uint32_t hash;
        const char* const value =
            text + find(name.data(), name.size(), hash).place + name.size() + 2;
        out.assign(value, static_cast<const char*>(memchr(value, '\n', 16)) - value);
        return out.size();
    }
    size_t getNumber(const std::string& name) const {
        uint32_t hash;
        size_t number = 0;
        for (const char* digit =
                 text + find(name.data(), name.size(), hash).place + name.size() + 2;
             *digit != '\n'; ++digit)
            number = number * 10 + static_cast<size_t>(*digit - '0');
        return number;
    }
    void add(const std::string& name) {
        uint32_t hash;
        Slot& slot = find(name.data(), name.size(), hash);
        slot = {hash, static_cast<uint32_t>(size)};
        memcpy(text + size, name.data(), name.size());
        memcpy(text + size + name.size(), " = 42\n", 6);
        size += name.size() + 6;
    }
    void remove(const std::string& name) {
        uint32_t hash;
        find(name.data(), name.size(), hash).hash = 2;  // no name has it
    }
};

// Reads a file as little as it can be read, and gives the number of its keys.
size_t readAlone(const char* path) {
    Table table;
    table.read(path);
    return table.keys;
}

void makeFile(const char* path, size_t keys, size_t perStanza = 20) {
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

template <typename File>
double loadOf(const char* path, size_t keys) {
    const int times = static_cast<int>(std::max<size_t>(1, 20000 / keys));
    return median(9, [&] {
        const Clock::time_point start = Clock::now();
        for (int i = 0; i < times; ++i) {
            File file;
            file.load(path);
        }
        return nanoseconds(start) / times / static_cast<double>(keys);
    });
}

void loads(const char* path) {
    for (const size_t keys : {100, 1000, 10000, 100000, 1000000}) {
        makeFile(path, keys);
        const int times = static_cast<int>(std::max<size_t>(1, 20000 / keys));
        const double alone = median(9, [&] {
            const Clock::time_point start = Clock::now();
            for (int i = 0; i < times; ++i)
                sink = readAlone(path);
            return nanoseconds(start) / times / static_cast<double>(keys);
        });
        const double peer = std::min(loadOf<GLibFile>(path, keys), loadOf<SimpleFile>(path, keys));
        printRow(("load " + std::to_string(keys)).c_str(), alone, loadOf<OurFile>(path, keys), peer,
                 "ns/key");
    }
}

void lookUps(const char* path) {
    makeFile(path, 1000);
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
    const auto measure = [&](auto lookUp) {
        return median(31, [&] {
            const Clock::time_point start = Clock::now();
            for (int round = 0; round < 20; ++round)
                for (const Name& name : names)
                    lookUp(name);
            return nanoseconds(start) / 20 / static_cast<double>(names.size());
        });
    };
    const double cpp = measure([&](const Name& name) { sink = file.get(name); });
    const double block = measure([&](const Name& name) {
        const size_t length = file.get(name);
        char* const copy = static_cast<char*>(malloc(length + 5));
        memcpy(copy, file.out.getChars(), length + 1);
        sink = strlen(copy);
        free(copy);
    });
    const double c = measure([&](const Name& name) {
        int err;
        char* const text =
            zstzPropGetStringValue(handle, name.stanza.c_str(), name.key.c_str(), 0, &err);
        sink = strlen(text);
        zstzPropFree(text);
    });
    printRow("look-up from C, over C++", block, c, cpp, "ns");
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
            const Clock::time_point start = Clock::now();
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
    const Clock::time_point start = Clock::now();
    for (const Name& name : names)
        work(name);
    return nanoseconds(start) / static_cast<double>(names.size());
}

// A million keys, and what a table alone takes.
void million(const char* path, size_t perStanza) {
    const size_t keys = 1000000;
    makeFile(path, keys, perStanza);
    std::vector<Name> probes, fresh;
    const auto stanzaOf = [&](size_t key) { return "section" + std::to_string(key / perStanza); };
    for (size_t i = 0; i < 200000; ++i) {
        const size_t key = i * 387421 % keys;
        probes.push_back({stanzaOf(key), "setting" + std::to_string(key) + " "});
    }
    for (size_t i = 0; i < 20000; ++i)
        fresh.push_back({stanzaOf(i * 387421 % keys), "added" + std::to_string(i)});
    static const char* const kWork[] = {"look-up", "integer", "add", "delete"};
    std::vector<double> floors[4], ours[4], peers[4];
    std::string out;
    double bytes = 0;
    for (int round = 0; round < 5; ++round) {
        Table table, stanzas;
        table.read(path);
        stanzas.readHeaders(table);
        std::vector<uint32_t> ends(stanzas.room);
        bytes = static_cast<double>(table.size + (table.room + stanzas.room) * sizeof(Slot)) / keys;
        floors[0].push_back(perName(probes, [&](const Name& n) { sink = table.get(n.key, out); }));
        floors[1].push_back(perName(probes, [&](const Name& n) { sink = table.getNumber(n.key); }));
        floors[2].push_back(perName(fresh, [&](const Name& n) {
            stanzas.text = table.text;
            uint32_t hash;
            const Slot& stanza = stanzas.find(n.stanza.data(), n.stanza.size(), hash);
            ends[&stanza - stanzas.slots] = static_cast<uint32_t>(table.size);
            table.add(n.key);
        }));
        stanzas.text = nullptr;
        floors[3].push_back(perName(fresh, [&](const Name& n) { table.remove(n.key); }));
    }
    for (Name& name : probes)
        name.key.pop_back();
    const auto measure = [&](auto& file, std::vector<double>* times) {
        file.load(path);
        times[0].push_back(perName(probes, [&](const Name& n) { sink = file.get(n); }));
        times[1].push_back(perName(probes, [&](const Name& n) { sink = file.getNumber(n); }));
        times[2].push_back(perName(fresh, [&](const Name& n) { file.set(n, "42"); }));
        // The peer walks a long stanza for each key.
        if (perStanza < keys)
            times[3].push_back(perName(fresh, [&](const Name& n) { file.remove(n); }));
    };
    for (int round = 0; round < 5; ++round) {
        OurFile own;
        measure(own, ours);
        GLibFile glib;
        measure(glib, peers);
    }
    const std::string shape = perStanza < keys ? ", 10^6, stanzas of 20" : ", 10^6 in one stanza";
    for (int work = 0; work < 4; ++work)
        if (!ours[work].empty())
            printRow((kWork[work] + shape).c_str(), medianOf(floors[work]), medianOf(ours[work]),
                     medianOf(peers[work]), "ns");
    printf("  %-30s %10.1f\n", ("memory" + shape).c_str(), bytes);
}

void processes(const std::string& folder, const char* path) {
    makeFile(path, 100);
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
    loads(path.c_str());
    lookUps(path.c_str());
    for (const size_t count : {100, 1000, 10000, 100000})
        textMap(count);
    million(path.c_str(), 1000000);
    million(path.c_str(), 20);
    unlink(path.c_str());
    rmdir(folder);
    return 0;
}
