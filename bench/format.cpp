// format.cpp: the formatter beside the system's, on everyday formats.
//
//   bench_format [ROUNDS]
//
// Rounds of the two take turns, and the median of each counts. First zsnprintf beside snprintf,
// into a buffer; then zasprintf beside asprintf, block and free included.
#include <algorithm>
#include <chrono>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

#include "Z/zasprintf.h"
#include "Z/zsnprintf.h"

namespace {

const int kCalls = 20000;  // in a round

/// Nanoseconds a call.
template <typename Call>
double timeOf(Call call) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kCalls; ++i)
        call();
    const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - start;
    return time.count() / kCalls;
}

double medianOf(std::vector<double> times) {
    std::nth_element(times.begin(), times.begin() + static_cast<long>(times.size() / 2),
                     times.end());
    return times[times.size() / 2];
}

struct Ratio {
    double ours, theirs;
};

template <typename Ours, typename Theirs>
Ratio compare(int rounds, Ours ours, Theirs theirs) {
    std::vector<double> a, b;
    for (int i = 0; i < rounds; ++i) {
        a.push_back(timeOf(ours));
        b.push_back(timeOf(theirs));
    }
    return {medianOf(a), medianOf(b)};
}

/// Keeps the compiler from knowing a format or from dropping a result.
template <typename T>
T hidden(T value) {
    asm volatile("" : "+r"(value) : : "memory");
    return value;
}

template <typename... Args>
void measure(int rounds, const char* what, const char* format, Args... args) {
    char mine[512], system[512];
    if (zsnprintf(mine, sizeof mine, format, args...) !=
            snprintf(system, sizeof system, format, args...) ||
        strcmp(mine, system) != 0) {
        printf("%s: \"%s\" is not \"%s\"\n", what, mine, system);
        exit(1);
    }
    const Ratio buffer = compare(
        rounds, [&] { zsnprintf(hidden(mine), sizeof mine, hidden(format), args...); },
        [&] { snprintf(hidden(system), sizeof system, hidden(format), args...); });
    const Ratio block = compare(
        rounds,
        [&] {
            char* text;
            zasprintf(&text, hidden(format), args...);
            zasprintf_free(hidden(text));
        },
        [&] {
            char* text;
            if (asprintf(&text, hidden(format), args...) >= 0)
                free(hidden(text));
        });
    printf("%-22s %8.1f %8.1f  %4.2f %10.1f %8.1f  %4.2f\n", what, buffer.ours, buffer.theirs,
           buffer.ours / buffer.theirs, block.ours, block.theirs, block.ours / block.theirs);
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(1, atoi(argv[1])) : 51;
    setenv("QELDIR", "/opt/Quillmere/nls/QEL", 0);
    zgetLCSHandle();  // the set-up, and with it setlocale(), for both
    printf("%-22s %26s %27s\n", "ns a call", "snprintf, ratio", "asprintf, ratio");

    measure(rounds, "one text", "%s", "configuration-database");
    measure(rounds, "text in text", "cannot open file %s: %s", "/etc/server/main.conf",
            "No such file or directory");
    measure(rounds, "literal text alone", "the quick brown fox jumps over the lazy dog");
    measure(rounds, "one integer", "%d", 1234567);
    measure(rounds, "integers", "%d.%d.%d.%d:%u", 192, 168, 17, 4, 8080U);
    measure(rounds, "long integers", "%ld of %lu bytes, %lld left", 123456789L, 9876543210UL,
            -42LL);
    measure(rounds, "padded columns", "%-20s|%8d|%06u|%10s", "name of a thing", -1234, 77U,
            "right");
    measure(rounds, "hexadecimal", "%08x %#lx %02X%02X", 0xBEEFU, 0xDEADBEEFUL, 0x0AU, 0xFFU);
    measure(rounds, "mixed", "%s:%d: %c%s in thread %lu [%5d%%]", "main.cpp", 311, 'E', "rror",
            140234UL, 97);
    measure(rounds, "double", "%f", 3.14159265358979);
    measure(rounds, "doubles", "%.2f EUR, %8.3f kg, %e, %g", 1234.5, 0.0625, 6.02214076e23, 1e-5);
    return 0;
}
