// base.cpp: maps, strings, locks and conversion beside what a program could use instead.
//
// Each measurement comes in pairs, "<what>/zbase/<size>" and "<what>/<peer>/<size>"; behind the
// figures stands a table of their ratios, of processor time, beside a mark where there is one. With
// --benchmark_repetitions=n the ratios are those of the medians. The last line counts the marks.
#include <benchmark/benchmark.h>
#include <iconv.h>
#include <pthread.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "Z/ZKeyMap.h"
#include "Z/ZLCString.h"
#include "Z/ZLock.h"
#include "Z/ZUTF8String.h"

namespace {

// Maps

/// An object that is its number; `step` shapes the hashes.
class Number : public ZObject {
public:
    explicit Number(unsigned int value, unsigned int step = 1) : value_(value), step_(step) {}
    unsigned int hash() const override { return value_ * step_; }
    int equals(const ZObject& other) const override {
        return value_ == static_cast<const Number&>(other).value_;
    }

private:
    unsigned int value_;
    unsigned int step_;
};

/// What makes std::unordered_map hold objects the way a ZHashMap does.
struct HashOf {
    size_t operator()(const ZObject* object) const { return object->hash(); }
};
struct EqualsOf {
    bool operator()(const ZObject* a, const ZObject* b) const { return a->equals(*b) != 0; }
};
typedef std::unordered_map<const ZObject*, ZObject*, HashOf, EqualsOf> ObjectMap;

struct TextHashOf {
    size_t operator()(const std::string* text) const { return std::hash<std::string>()(*text); }
};
struct TextEqualsOf {
    bool operator()(const std::string* a, const std::string* b) const { return *a == *b; }
};
typedef std::unordered_map<const std::string*, const void*, TextHashOf, TextEqualsOf> TextMap;

std::string keyText(unsigned int i) {
    char text[32];
    snprintf(text, sizeof(text), "server.%07u.name", i);
    return text;
}

/// `count` numbers from 0 in an order that no cache likes; the same on each run.
std::vector<unsigned int> shuffled(size_t count) {
    std::vector<unsigned int> order(count);
    for (size_t i = 0; i < count; ++i)
        order[i] = static_cast<unsigned int>(i);
    std::shuffle(order.begin(), order.end(), std::mt19937(1));
    return order;
}

/// Objects to put into maps and equal ones to look them up with, in two orders.
template <typename T>
struct Pool {
    template <typename Make>
    Pool(size_t count, Make make) {
        for (size_t i = 0; i < count; ++i)
            entries.emplace_back(make(static_cast<unsigned int>(i)));
        for (unsigned int i : shuffled(count))
            probes.emplace_back(make(i));
    }
    std::vector<std::unique_ptr<T>> entries;
    std::vector<std::unique_ptr<T>> probes;
};

Pool<Number> numbers(size_t count, unsigned int step) {
    return Pool<Number>(count, [=](unsigned int i) { return new Number(i, step); });
}
Pool<ZLCString> zstrings(size_t count) {
    return Pool<ZLCString>(count, [](unsigned int i) { return new ZLCString(keyText(i).c_str()); });
}
Pool<std::string> strings(size_t count) {
    return Pool<std::string>(count, [](unsigned int i) { return new std::string(keyText(i)); });
}

/// Looks up all probes again and again, one an iteration.
template <typename T, typename Find>
void findAll(benchmark::State& state, const Pool<T>& pool, Find find) {
    size_t next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(find(pool.probes[next].get()));
        next = next + 1 == pool.probes.size() ? 0 : next + 1;
    }
}

/// Fills a new map from `pool`, again and again; the time is that of one insertion.
template <typename T, typename Make, typename Put>
void fillAll(benchmark::State& state, const Pool<T>& pool, Make make, Put put) {
    while (state.KeepRunningBatch(static_cast<int64_t>(pool.entries.size()))) {
        auto map = make();
        for (const auto& entry : pool.entries)
            put(*map, entry.get());
        state.PauseTiming();
        map.reset();
        state.ResumeTiming();
    }
}

template <unsigned int step>
void findNumberZ(benchmark::State& state) {
    const Pool<Number> pool = numbers(state.range(0), step);
    ZHashMap map(10, 0);
    for (const auto& entry : pool.entries)
        map.putEntry(entry.get());
    findAll(state, pool, [&](const Number* probe) { return map.getEntry(probe); });
}

template <unsigned int step>
void findNumberStd(benchmark::State& state) {
    const Pool<Number> pool = numbers(state.range(0), step);
    ObjectMap map;
    for (const auto& entry : pool.entries)
        map[entry.get()] = entry.get();
    findAll(state, pool, [&](const Number* probe) { return map.find(probe)->second; });
}

template <unsigned int step>
void putNumberZ(benchmark::State& state) {
    fillAll(
        state, numbers(state.range(0), step), [] { return std::make_unique<ZHashMap>(10, 0); },
        [](ZHashMap& map, Number* entry) { map.putEntry(entry); });
}

template <unsigned int step>
void putNumberStd(benchmark::State& state) {
    fillAll(
        state, numbers(state.range(0), step), [] { return std::make_unique<ObjectMap>(); },
        [](ObjectMap& map, Number* entry) { map[entry] = entry; });
}

void findTextZ(benchmark::State& state) {
    const Pool<ZLCString> pool = zstrings(state.range(0));
    ZHashKeyMap map(10, 0);
    for (const auto& entry : pool.entries)
        map.putEntry(entry.get(), entry.get());
    findAll(state, pool, [&](const ZLCString* probe) { return map.getEntry(probe); });
}

void findTextStd(benchmark::State& state) {
    const Pool<std::string> pool = strings(state.range(0));
    std::unordered_map<std::string, const void*> map;
    for (const auto& entry : pool.entries)
        map[*entry] = entry.get();
    findAll(state, pool, [&](const std::string* probe) { return map.find(*probe)->second; });
}

void putTextZ(benchmark::State& state) {
    fillAll(
        state, zstrings(state.range(0)), [] { return std::make_unique<ZHashKeyMap>(10, 0); },
        [](ZHashKeyMap& map, ZLCString* entry) { map.putEntry(entry, entry); });
}

void putTextStd(benchmark::State& state) {
    fillAll(
        state, strings(state.range(0)), [] { return std::make_unique<TextMap>(); },
        [](TextMap& map, std::string* entry) { map[entry] = entry; });
}

// Strings

void appendChar(ZLCString& text, char c) { text.append(c); }
void appendChar(std::string& text, char c) { text.push_back(c); }

template <typename String>
void appendChars(benchmark::State& state) {
    for (auto _ : state) {
        String text;
        for (int64_t i = 0; i < state.range(0); ++i)
            appendChar(text, 'x');
        benchmark::DoNotOptimize(&text);
    }
}

template <typename String>
void appendTexts(benchmark::State& state) {
    for (auto _ : state) {
        String text;
        for (int64_t i = 0; i < state.range(0); ++i)
            text.append("twenty bytes of text");
        benchmark::DoNotOptimize(&text);
    }
}

template <typename String>
void constructText(benchmark::State& state) {
    const std::string text(state.range(0), 'x');
    const char* chars = text.c_str();
    for (auto _ : state) {
        benchmark::DoNotOptimize(chars);
        String made(chars);
        benchmark::DoNotOptimize(&made);
    }
}

void equalsZ(benchmark::State& state) {
    const std::string text(state.range(0), 'x');
    ZLCString a(text.c_str()), b(text.c_str());
    ZObject* const objects[] = {&a, &b};
    for (auto _ : state) {
        benchmark::DoNotOptimize(objects);
        benchmark::DoNotOptimize(a.equals(*static_cast<ZLCString*>(objects[1])));
    }
}

void equalsStd(benchmark::State& state) {
    std::string a(state.range(0), 'x'), b(a);
    std::string* const objects[] = {&a, &b};
    for (auto _ : state) {
        benchmark::DoNotOptimize(objects);
        benchmark::DoNotOptimize(a == *objects[1]);
    }
}

// Locks

void lockZ(benchmark::State& state) {
    ZLock lock;
    for (auto _ : state) {
        lock.lock();
        lock.unlock();
    }
}

void lockPthread(benchmark::State& state) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_t mutex;
    pthread_mutex_init(&mutex, &attributes);
    for (auto _ : state) {
        pthread_mutex_lock(&mutex);
        pthread_mutex_unlock(&mutex);
    }
    pthread_mutex_destroy(&mutex);
    pthread_mutexattr_destroy(&attributes);
}

// Conversion between the local codeset and UTF-8

/// Text of the local codeset: ASCII, or in every other place a letter of the upper half.
std::string localText(int64_t length, bool ascii) {
    std::string text;
    for (int64_t i = 0; i < length; ++i)
        text += static_cast<char>(ascii || i % 2 == 0 ? 'a' + i % 26 : 0xE0 + i % 16);
    return text;
}

template <bool ascii>
void convertZ(benchmark::State& state) {
    const ZLCString local(localText(state.range(0), ascii).c_str());
    for (auto _ : state) {
        ZUTF8String utf8(local);
        benchmark::DoNotOptimize(&utf8);
    }
}

template <bool ascii>
void convertIconv(benchmark::State& state) {
    const std::string local = localText(state.range(0), ascii);
    iconv_t converter = iconv_open("UTF-8", "ISO-8859-1");
    for (auto _ : state) {
        std::string utf8(local.size() * 2, '\0');
        char* in = const_cast<char*>(local.data());
        char* out = &utf8[0];
        size_t inLeft = local.size(), outLeft = utf8.size();
        iconv(converter, &in, &inLeft, &out, &outLeft);
        utf8.resize(utf8.size() - outLeft);
        benchmark::DoNotOptimize(&utf8);
    }
    iconv_close(converter);
}

// Ratios

/// At most so much of the peer's time; 0: no mark.
double mark(const std::string& what) {
    static const std::pair<const char*, double> kMarks[] = {
        {"find ", 1.0}, {"put ", 1.0}, {"append ", 1.0}, {"equals ", 1.0}, {"lock ", 1.2}};
    for (const auto& each : kMarks)
        if (what.compare(0, strlen(each.first), each.first) == 0)
            return each.second;
    return 0;
}

/// The usual figures on the console, and at the end each of ours beside its peer's.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    RatioReporter() : ConsoleReporter(OO_None) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            const bool single = run.run_type == Run::RT_Iteration && run.repetitions == 1;
            if (run.error_occurred || !(single || run.aggregate_name == "median"))
                continue;
            const std::string name = run.run_name.function_name;
            const size_t slash = name.find('/');
            const std::string what = name.substr(0, slash) + " " + run.run_name.args;
            times_[what][name.substr(slash + 1)] = run.GetAdjustedCPUTime();
            if (std::find(order_.begin(), order_.end(), what) == order_.end())
                order_.push_back(what);
        }
    }

    void Finalize() override {
        int met = 0, missed = 0;
        printf("\n%-32s %12s %12s  ratio\n", "", "zbase (ns)", "peer (ns)");
        for (const std::string& what : order_) {
            const std::map<std::string, double>& times = times_[what];
            for (const auto& peer : times) {
                const auto ours = times.find("zbase");
                if (peer.first == "zbase" || ours == times.end())
                    continue;
                const double ratio = ours->second / peer.second, limit = mark(what);
                const bool isMet = ratio <= limit;
                printf("%-32s %12.1f %12.1f  %.2f of %s", what.c_str(), ours->second, peer.second,
                       ratio, peer.first.c_str());
                if (limit != 0) {
                    printf("   %.2f %s", limit, isMet ? "met" : "MISSED");
                    ++(isMet ? met : missed);
                }
                printf("\n");
            }
        }
        printf("%d marks met, %d missed\n", met, missed);
    }

private:
    std::map<std::string, std::map<std::string, double>> times_;
    std::vector<std::string> order_;
};

const std::vector<int64_t> kMapSizes = {100, 1000, 10000, 100000, 1000000};
const std::vector<int64_t> kTextSizes = {5, 14, 40, 90, 1000};

void add(const char* name, void (*function)(benchmark::State&),
         const std::vector<int64_t>& sizes = {}) {
    auto* entry = benchmark::RegisterBenchmark(name, function);
    for (int64_t size : sizes)
        entry->Arg(size);
}

void addPair(const std::string& what, const char* peer, void (*ours)(benchmark::State&),
             void (*theirs)(benchmark::State&), const std::vector<int64_t>& sizes) {
    add((what + "/zbase").c_str(), ours, sizes);
    add((what + "/" + peer).c_str(), theirs, sizes);
}

}  // namespace

int main(int argc, char** argv) {
    // An 8-bit codeset where the system has one; otherwise conversion is between equal codesets.
    const bool latin1 = setlocale(LC_ALL, "en_US.ISO-8859-1") != nullptr;
    if (latin1)
        setenv("LC_ALL", "en_US.ISO-8859-1", 1);
    else
        fprintf(stderr, "no ISO-8859-1 locale here (LOCPATH): no conversion is measured\n");
    setenv("QELDIR", "/opt/Quillmere/nls/QEL", 0);

    const char* const map = "std::unordered_map";
    addPair("find number", map, findNumberZ<1>, findNumberStd<1>, kMapSizes);
    addPair("find number, hash * 15", map, findNumberZ<15>, findNumberStd<15>, kMapSizes);
    addPair("find number, hash << 12", map, findNumberZ<4096>, findNumberStd<4096>, kMapSizes);
    addPair("put number", map, putNumberZ<1>, putNumberStd<1>, kMapSizes);
    addPair("put number, hash spread", map, putNumberZ<2654435761u>, putNumberStd<2654435761u>,
            kMapSizes);
    addPair("put number, hash << 12", map, putNumberZ<4096>, putNumberStd<4096>, kMapSizes);
    addPair("find text", map, findTextZ, findTextStd, kMapSizes);
    addPair("put text", map, putTextZ, putTextStd, kMapSizes);
    addPair("append chars", "std::string", appendChars<ZLCString>, appendChars<std::string>,
            {10, 90, 1000, 100000});
    addPair("append texts", "std::string", appendTexts<ZLCString>, appendTexts<std::string>,
            {1, 4, 50, 5000});
    addPair("construct", "std::string", constructText<ZLCString>, constructText<std::string>,
            kTextSizes);
    addPair("equals", "std::string", equalsZ, equalsStd, kTextSizes);
    addPair("lock and unlock", "pthread", lockZ, lockPthread, {});
    if (latin1) {
        addPair("to UTF-8, ASCII", "iconv", convertZ<true>, convertIconv<true>, {20, 1000, 100000});
        addPair("to UTF-8, letters", "iconv", convertZ<false>, convertIconv<false>,
                {20, 1000, 100000});
    }

    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return 0;
}
