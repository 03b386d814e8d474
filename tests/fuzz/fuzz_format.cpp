// Any bytes as a format: nothing is read behind its NUL, nothing written behind the target, and all
// ways to format do what the model does. The first byte chooses the target's size; if it is odd,
// the rest makes floating-point formats and numbers instead.
//
// Every other argument is a pointer to text, so that any directive finds what it may follow. The
// pointers' low halves are small, as they are widths and precisions too. What is bounded: the
// system library takes seconds and gigabytes for a floating-point number with a precision of
// millions, and the model for any, so formats with such digits are only measured, or left out.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <string>

#include "Z/zsnprintf.h"
#include "support/FormatModel.h"

namespace {

const size_t kMostBytes = 400;
const int kArguments = 600;  // more than so many bytes can name

char* guard;  // where the unreadable page begins
char** pointerBlock;
alignas(16) uint64_t floatBlock[4];  // a width, a precision and a number

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
void beginArguments(va_list& ap, void* block = pointerBlock) {
    struct Layout {
        unsigned int generalUsed, floatingUsed;
        void *overflow, *saved;
    };
    static_assert(sizeof(va_list) == sizeof(Layout), "needs the va_list of x86-64");
    const Layout layout = {48, 176, block, nullptr};
    memcpy(&ap, &layout, sizeof layout);
}

/// A format's text right in front of the guard.
const char* placed(const char* text, size_t length) {
    char* const format = guard - length - 1;
    memcpy(format, text, length);
    format[length] = '\0';
    return format;
}

bool hasManyDigits(const std::string& format) {
    static const std::regex kNumber("[1-9][0-9]{4}");
    return std::regex_search(format, kNumber);
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

void compare(const char* format, size_t size, void* block = pointerBlock) {
    va_list ap;
    beginArguments(ap, block);
    const std::string fault = formatFault(format, ap, size + 1);
    if (!fault.empty()) {
        fputs(fault.c_str(), stderr);
        abort();
    }
}

void formatPointers(const char* text, size_t length, size_t size) {
    const std::string whole(text, length);
    const bool isLarge = hasManyDigits(whole);
    if (isLarge && whole.find_first_of("eEfgG") != std::string::npos)
        return;
    const char* const format = placed(text, length);
    va_list ap;
    beginArguments(ap);
    format_context c;
    const bool isGood = zvsnprintf_parse(&c, zgetLCSHandle(), format, ap) == 0;
    const bool isUsable = !isGood || !takesNumbersForTexts(c);
    if (isUsable && isGood && isLarge) {
        std::string target(size + 1, '#');
        require(zvsnprintf_render(&c, &target[0], static_cast<int>(size)) ==
                zvsnprintf_render(&c, nullptr, 0));
        require(target[size] == '#');
    }
    zvsnprintf_done(&c);
    if (isUsable && !isLarge)
        compare(format, size);
}

/// A format with its arguments, as the input brings them.
struct __attribute__((packed)) FloatCase {
    uint16_t bits, width, precision;
    uint64_t value;
    uint16_t exponent;  // of a long double alone
};

void formatFloats(const char* data, size_t left, size_t size) {
    while (left != 0) {
        FloatCase c = {};  // zeros where the input has ended
        memcpy(&c, data, std::min(left, sizeof c));
        const bool isLong = c.bits & 0x80;
        const size_t used = std::min(left, isLong ? sizeof c : offsetof(FloatCase, exponent));
        data += used;
        left -= used;
        std::string text = "<%";
        for (int i = 0; i < 6; ++i) {
            if (c.bits >> i & 1)
                text += "#- +'0"[i];
        }
        text += std::string("*.*") + (isLong ? "L" : "") + "eEfgG"[(c.bits >> 8) % 5] + '>';
        floatBlock[0] = static_cast<uint64_t>(c.width % 4000 - 2000);
        floatBlock[1] = c.precision % 1400;
        // Any exponent, and of a long double a significand as the processor wants it.
        floatBlock[2] = isLong ? c.value | 1ULL << 63 : c.value;
        floatBlock[3] = c.exponent;
        compare(placed(text.data(), text.size()), size, floatBlock);
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
    pointerBlock = static_cast<char**>(calloc(kArguments, sizeof(char*)));
    for (int i = 0; i < kArguments; ++i)
        pointerBlock[i] = texts + i * 2 % 512;
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
