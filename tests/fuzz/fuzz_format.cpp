// Any bytes as a format: nothing is read behind its NUL, nothing written behind the target, and the
// three ways to format agree. The first byte chooses the target's size; if it is odd, the rest makes
// floating-point formats and numbers instead, and the system library is asked for the same.
//
// Every argument is a pointer to text, so that any directive finds what it may follow. The pointers'
// low halves are small, as they are widths and precisions too. What is bounded: the system library
// takes seconds and gigabytes for a floating-point number with a precision of millions, so formats
// with such digits and such a conversion are left out.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "Z/zasprintf.h"
#include "Z/zsnprintf.h"

namespace {

const size_t kMostBytes = 400;
const int kArguments = 600;  // more than so many bytes can name
const int kLongestResult = 100000;

char* guard;  // where the unreadable page begins
char** argumentBlock;

void require(bool holds) {
    if (!holds)
        abort();
}

void* mapAt(uintptr_t address, size_t size) {
    void* const block = mmap(reinterpret_cast<void*>(address), size, PROT_READ | PROT_WRITE,
                             MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    require(block == reinterpret_cast<void*>(address));
    return block;
}

/// A va_list that takes everything from the block, as it is laid out on x86-64.
void beginArguments(va_list& ap) {
    struct Layout {
        unsigned int generalUsed, floatingUsed;
        void *overflow, *saved;
    };
    static_assert(sizeof(va_list) == sizeof(Layout), "needs the va_list of x86-64");
    const Layout layout = {48, 176, argumentBlock, nullptr};
    memcpy(&ap, &layout, sizeof layout);
}

/// A format's text right in front of the guard.
const char* placed(const char* text, size_t length) {
    char* const format = guard - length - 1;
    memcpy(format, text, length);
    format[length] = '\0';
    return format;
}

bool isTooSlow(const std::string& format) {
    if (format.find_first_of("eEfgG") == std::string::npos)
        return false;
    size_t digits = 0;
    for (char c : format) {
        digits = c >= '0' && c <= '9' ? digits + (digits != 0 || c != '0') : 0;
        if (digits > 4)
            return true;
    }
    return false;
}

/// Whether a text is asked for where another directive made the argument something else: the
/// caller's fault, whom nothing can save.
bool takesNumbersForTexts(const format_context& c) {
    return std::any_of(c.directives, c.directives + c.directive_count, [&c](auto& d) {
        const int fetched = c.args[d.arg_index].type;
        return (d.type == ZFORMAT_TYPE_TEXT || d.type == ZFORMAT_TYPE_WIDE_TEXT) &&
               fetched != ZFORMAT_TYPE_TEXT && fetched != ZFORMAT_TYPE_WIDE_TEXT &&
               fetched != ZFORMAT_TYPE_POINTER;
    });
}

void formatPointers(const char* text, size_t length, size_t size) {
    if (isTooSlow(std::string(text, length)))
        return;
    const char* const format = placed(text, length);
    va_list ap;
    beginArguments(ap);
    format_context c;
    const bool isGood = zvsnprintf_parse(&c, zgetLCSHandle(), format, ap) == 0;
    const bool isUsable = !isGood || !takesNumbersForTexts(c);
    zvsnprintf_done(&c);
    if (!isUsable)
        return;
    beginArguments(ap);
    const int whole = zvsnprintf(nullptr, 0, format, ap);
    const std::unique_ptr<char[]> target(new char[size + 1]);
    std::fill_n(target.get(), size + 1, '#');
    beginArguments(ap);
    require(zvsnprintf(target.get(), static_cast<int>(size), format, ap) == whole);
    require(target[size] == '#');
    require(whole < 0 || size == 0 || memchr(target.get(), '\0', size) != nullptr);
    if (whole > kLongestResult)
        return;
    char untouched[] = "";
    char* made = untouched;
    beginArguments(ap);
    require(zvasprintf(&made, format, ap) == whole);
    if (whole < 0) {
        require(made == untouched);
        return;
    }
    require(made[whole] == '\0');
    // Wide text may end earlier, at the border of a character.
    if (std::string(format).find('S') == std::string::npos && size != 0)
        require(memcmp(target.get(), made, std::min<size_t>(size - 1, whole)) == 0);
    zasprintf_free(made);
}

/// Takes values from the input; zeros when it has ended.
class Input {
public:
    Input(const char* data, size_t size) : data_(data), left_(size) {}
    template <typename T>
    T take() {
        T value = {};
        const size_t n = std::min(left_, sizeof value);
        memcpy(&value, data_, n);
        data_ += n;
        left_ -= n;
        return value;
    }
    bool isEmpty() const { return left_ == 0; }

private:
    const char* data_;
    size_t left_;
};

template <typename Float>
void compare(const char* format, size_t size, int width, int precision, Float value) {
    char ours[9000], system[9000];
    const int length = snprintf(system, sizeof system, format, width, precision, value);
    require(zsnprintf(ours, sizeof ours, format, width, precision, value) == length);
    require(strcmp(ours, system) == 0);
    const std::unique_ptr<char[]> target(new char[size + 1]);
    target[size] = '#';
    require(zsnprintf(target.get(), static_cast<int>(size), format, width, precision, value) ==
            length);
    require(target[size] == '#');
    const size_t shown = std::min<size_t>(size - 1, length);
    require(memcmp(target.get(), system, shown) == 0 && target[shown] == '\0');
    char* made;
    require(zasprintf(&made, format, width, precision, value) == length);
    require(strcmp(made, system) == 0);
    zasprintf_free(made);
}

void formatFloats(const char* data, size_t length, size_t size) {
    Input input(data, length);
    while (!input.isEmpty()) {
        const unsigned int bits = input.take<uint16_t>();
        const int width = input.take<uint16_t>() % 4000 - 2000;
        const int precision = input.take<uint16_t>() % 1400;
        std::string text = "<%";  // without the flag 0: a precision ends it here and not there
        for (int i = 0; i < 5; ++i) {
            if (bits >> i & 1)
                text += "#- +'"[i];
        }
        text += "*.*";
        const bool isLong = bits & 0x80;
        if (isLong)
            text += 'L';
        text += "eEfgG"[(bits >> 8) % 5];
        text += '>';
        const char* const format = placed(text.data(), text.size());
        long double value = input.take<double>();
        if (isLong) {
            // Any exponent, and a significand as the processor wants it.
            value = 0;
            const uint64_t significand = input.take<uint64_t>() | 1ULL << 63;
            const uint16_t exponent = input.take<uint16_t>();
            memcpy(&value, &significand, sizeof significand);
            memcpy(reinterpret_cast<char*>(&value) + 8, &exponent, sizeof exponent);
        }
        if (isLong)
            compare(format, size + 1, width, precision, value);
        else
            compare(format, size + 1, width, precision, static_cast<double>(value));
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("QELDIR", "/opt/Quillmere/nls/QEL", 0);
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    char* const formats = static_cast<char*>(mapAt(uintptr_t(0x200000000000), 2 * page));
    guard = formats + page;
    require(mprotect(guard, page, PROT_NONE) == 0);
    char* const texts = static_cast<char*>(mapAt(uintptr_t(0x210000000000), page));
    for (size_t i = 0; i + 2 < page; ++i)
        texts[i] = static_cast<char>(i % 64 < 2 ? 0 : i % 2 == 0 ? 'a' + i % 26 : 0);
    argumentBlock = static_cast<char**>(calloc(kArguments, sizeof(char*)));
    for (int i = 0; i < kArguments; ++i)
        argumentBlock[i] = texts + i * 2 % 512;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0 || size > kMostBytes)
        return 0;
    const char* const text = reinterpret_cast<const char*>(data) + 1;
    if (data[0] & 1)
        formatFloats(text, size - 1, data[0] / 2);
    else
        formatPointers(text, size - 1, data[0] / 2);
    return 0;
}
