// textdiff.cpp: what differs between two texts, line by line, as a patch.
//
// What both have at their beginning and end is taken off first. For the rest Myers' way is gone
// from both ends at once: the place where the two walks meet divides the texts. Where they don't
// meet in kMostSteps, the farthest place of the walk from the front divides them: the patch isn't
// the shortest then, but texts of which no line is the same take no time that grows with the square
// of their lines.
#include <algorithm>
#include <climits>
#include <string_view>
#include <unordered_map>

#include "zstz.h"

namespace {

const long kMostSteps = 500;
const long kNowhere = LONG_MIN / 4;
const long kContext = 3;

struct Range {
    long begin, end;
    long size() const { return end - begin; }
};

class Differ {
public:
    Differ(const std::string& before, const std::string& now)
        : old_(divide(before)), new_(divide(now)) {
        isGone_.resize(old_.lines.size());
        isMade_.resize(new_.lines.size());
        const long room = static_cast<long>(old_.lines.size() + new_.lines.size()) + 3;
        middle_ = std::min(room, kMostSteps + 2);
        front_.resize(2 * middle_ + 1);
        back_.resize(2 * middle_ + 1);
        compare({0, static_cast<long>(old_.lines.size())},
                {0, static_cast<long>(new_.lines.size())});
    }

    void print() const {
        const long oldSize = static_cast<long>(old_.lines.size());
        const long newSize = static_cast<long>(new_.lines.size());
        for (long a = 0, b = 0; skipEqual(a, b), a < oldSize || b < newSize;) {
            // A piece of the patch: on to the first change behind which enough is equal.
            const long before = std::min(kContext, std::min(a, b));
            Range gone = {a - before, a}, made = {b - before, b};
            for (;;) {
                while (gone.end < oldSize && isGone_[gone.end])
                    ++gone.end;
                while (made.end < newSize && isMade_[made.end])
                    ++made.end;
                long nextA = gone.end, nextB = made.end;
                skipEqual(nextA, nextB);
                const bool isLast = nextA == oldSize && nextB == newSize;
                const long equal = nextA - gone.end;
                const long more =
                    isLast || equal > 2 * kContext ? std::min(equal, kContext) : equal;
                gone.end += more;
                made.end += more;
                if (isLast || equal > 2 * kContext)
                    break;
            }
            printPiece(gone, made);
            a = gone.end;
            b = made.end;
        }
    }

private:
    struct Text {
        std::vector<std::string_view> lines;
        std::vector<int> numbers;  // equal ones for equal lines
    };

    Text divide(std::string_view text) {
        Text out;
        while (!text.empty()) {
            const size_t end = text.find('\n');
            const std::string_view line = text.substr(0, end == text.npos ? end : end + 1);
            out.lines.push_back(line);
            out.numbers.push_back(
                numbers_.emplace(line, static_cast<int>(numbers_.size())).first->second);
            text.remove_prefix(line.size());
        }
        return out;
    }

    bool same(long a, long b) const { return old_.numbers[a] == new_.numbers[b]; }

    void compare(Range a, Range b) {
        while (a.size() > 0 && b.size() > 0 && same(a.begin, b.begin)) {
            ++a.begin;
            ++b.begin;
        }
        while (a.size() > 0 && b.size() > 0 && same(a.end - 1, b.end - 1)) {
            --a.end;
            --b.end;
        }
        if (a.size() == 0 || b.size() == 0) {
            std::fill(isGone_.begin() + a.begin, isGone_.begin() + a.end, true);
            std::fill(isMade_.begin() + b.begin, isMade_.begin() + b.end, true);
            return;
        }
        long x = 0, y = 0;
        meet(a, b, x, y);
        compare({a.begin, a.begin + x}, {b.begin, b.begin + y});
        compare({a.begin + x, a.end}, {b.begin + y, b.end});
    }

    // The farthest place on diagonal `k` after one more step of a walk, ahead of what is equal
    // there; kNowhere if no step leads into the text.
    static long stepTo(const long* places, long steps, long k, long n, long m) {
        if (steps == 0)
            return 0;
        const auto inside = [&](long i) {
            return i >= 0 && i <= n && i - k >= 0 && i - k <= m ? i : kNowhere;
        };
        const long made = k < steps ? inside(places[k + 1]) : kNowhere;
        const long gone = k > -steps ? inside(places[k - 1] + 1) : kNowhere;
        return std::max(made, gone);
    }

    // A place on a good way from one text to the other, neither its beginning nor its end: behind
    // the first `x` and `y` lines here. A diagonal k is where x - y is k.
    void meet(Range a, Range b, long& x, long& y) {
        const long n = a.size(), m = b.size(), delta = n - m;
        long* const front = front_.data() + middle_;
        long* const back = back_.data() + middle_;
        for (long steps = 0, best = 0;; ++steps) {
            for (long k = -steps; k <= steps; k += 2) {
                long i = stepTo(front, steps, k, n, m);
                while (i >= 0 && i < n && i - k < m && same(a.begin + i, b.begin + i - k))
                    ++i;
                front[k] = i;
                const long other = delta - k;
                const bool meets =
                    delta % 2 != 0 && other >= 1 - steps && other < steps && i + back[other] >= n;
                if (meets || 2 * i - k > best) {
                    best = 2 * i - k;
                    x = i;
                    y = i - k;
                }
                if (meets)
                    return;
            }
            for (long k = -steps; k <= steps; k += 2) {
                long i = stepTo(back, steps, k, n, m);
                while (i >= 0 && i < n && i - k < m && same(a.end - 1 - i, b.end - 1 - i + k))
                    ++i;
                back[k] = i;
                const long other = delta - k;
                if (delta % 2 == 0 && other >= -steps && other <= steps && front[other] + i >= n) {
                    x = n - i;
                    y = m - i + k;
                    return;
                }
            }
            if (steps >= kMostSteps)
                return;
        }
    }

    void skipEqual(long& a, long& b) const {
        while (a < static_cast<long>(old_.lines.size()) &&
               b < static_cast<long>(new_.lines.size()) && !isGone_[a] && !isMade_[b]) {
            ++a;
            ++b;
        }
    }

    static void printLine(char sign, std::string_view line) {
        const Colour colour = sign == '-' ? red : sign == '+' ? green : plainColour;
        const bool ends = line.back() == '\n';
        const size_t size = ends ? line.size() - 1 : line.size();
        fputs(colour == plainColour ? "" : colourOf(stdout, colour), stdout);
        putchar(sign);
        fwrite(line.data(), 1, size, stdout);
        fputs(colour == plainColour ? "" : colourOf(stdout, plainColour), stdout);
        fputs(ends ? "\n" : "\n\\ No newline at end of file\n", stdout);
    }

    // Where nothing is left of a side, its line number is that of the line ahead.
    static std::string numbersOf(const Range& range) {
        return std::to_string(range.begin + (range.size() != 0)) +
               (range.size() == 1 ? "" : "," + std::to_string(range.size()));
    }

    void printPiece(const Range& gone, const Range& made) const {
        printf("@@ -%s +%s @@\n", numbersOf(gone).c_str(), numbersOf(made).c_str());
        for (long a = gone.begin, b = made.begin; a < gone.end || b < made.end;) {
            if (a < gone.end && isGone_[a]) {
                printLine('-', old_.lines[a++]);
            } else if (b < made.end && isMade_[b]) {
                printLine('+', new_.lines[b++]);
            } else {
                printLine(' ', old_.lines[a++]);
                ++b;
            }
        }
    }

    std::unordered_map<std::string_view, int> numbers_;
    const Text old_, new_;
    std::vector<bool> isGone_, isMade_;
    std::vector<long> front_, back_;
    long middle_;
};

}  // namespace

void printPatch(const char* file, const std::string& before, const std::string& now) {
    if (before == now)
        return;
    printf("--- %s\n+++ %s\n", file, file);
    Differ(before, now).print();
}
