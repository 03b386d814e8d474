// qelcodeset.cpp: codesets and conversion.
//
//   UTF8Codeset   strict: no overlong forms, no surrogates, nothing past U+10FFFF
//   ByteCodeset   one byte a character; tables made once from iconv
//   IconvCodeset  everything else, through pairs that are opened once and used one call at a time;
//                 what its characters of two bytes are is remembered
//
// Text is ASCII nearly always, so all of them pass runs of it in words.
#include "qelcodeset.h"

#include <iconv.h>
#include <strings.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

namespace qel {

size_t asciiRun(const char* text, size_t n) {
    const uint64_t kHighBits = 0x8080808080808080ULL;
    size_t i = 0;
    for (; n - i >= 16; i += 16) {
        uint64_t words[2];
        memcpy(words, text + i, sizeof words);
        if (((words[0] | words[1]) & kHighBits) != 0)
            break;
    }
    while (i < n && static_cast<unsigned char>(text[i]) < 0x80)
        ++i;
    return i;
}

// Whether a code of which `missing` bytes of six bits aren't there yet can become a character's.
static bool canBecome(uint32_t code, size_t missing, uint32_t least) {
    const uint32_t first = code << 6 * missing;
    const uint32_t last = first | ((uint32_t(1) << 6 * missing) - 1);
    return last >= least && first <= 0x10FFFF && !(first >= 0xD800 && last <= 0xDFFF);
}

static Character decodeUTF8(const char* text, size_t n) {
    static const uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    const Character kInvalid = {-1, kNoCode};
    const unsigned char* s = reinterpret_cast<const unsigned char*>(text);
    const unsigned char lead = s[0];
    if (lead < 0x80)
        return {1, lead};
    const size_t length = lead < 0xC2 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF5 ? 4 : 0;
    if (length == 0)
        return kInvalid;
    uint32_t code = lead & (0x7F >> length);
    for (size_t i = 1; i < length; ++i) {
        // One byte after the other: a text's terminator is no continuation, so nobody reads past
        // it.
        if (i >= n)
            return canBecome(code, length - i, kLeast[length]) ? Character{kCut, kNoCode}
                                                               : kInvalid;
        if ((s[i] & 0xC0) != 0x80)
            return kInvalid;
        code = code << 6 | (s[i] & 0x3F);
    }
    if (code < kLeast[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
        return kInvalid;
    return {static_cast<int>(length), code};
}

static int encodeUTF8(uint32_t code, char* target, size_t room) {
    char bytes[4];
    size_t length;
    if (code < 0x80) {
        bytes[0] = static_cast<char>(code);
        length = 1;
    } else if (code < 0x800) {
        bytes[0] = static_cast<char>(0xC0 | code >> 6);
        length = 2;
    } else if (code < 0x10000) {
        if (code >= 0xD800 && code <= 0xDFFF)
            return -1;
        bytes[0] = static_cast<char>(0xE0 | code >> 12);
        length = 3;
    } else if (code <= 0x10FFFF) {
        bytes[0] = static_cast<char>(0xF0 | code >> 18);
        length = 4;
    } else {
        return -1;
    }
    if (length > room)
        return -1;
    for (size_t i = length - 1; i > 0; --i) {
        bytes[i] = static_cast<char>(0x80 | (code & 0x3F));
        code >>= 6;
    }
    memcpy(target, bytes, length);
    return static_cast<int>(length);
}

// Whether all of the text is UTF-8; `tags` then says whether one of the characters U+E0000 to
// U+E007F is in it.
static bool isUTF8(const char* text, size_t n, bool* tags) {
    *tags = false;
    for (size_t i = asciiRun(text, n); i < n; i += asciiRun(text + i, n - i)) {
        const Character c = decodeUTF8(text + i, n - i);
        if (c.length < 0)
            return false;
        *tags |= c.code >= 0xE0000 && c.code <= 0xE007F;
        i += static_cast<size_t>(c.length);
    }
    return true;
}

static int resultOf(size_t length) { return length > INT_MAX ? -1 : static_cast<int>(length); }

class UTF8Codeset : public Codeset {
public:
    UTF8Codeset() : Codeset(kUTF8, true) {}

    int toUTF8(const char* source, size_t length, char* target, size_t room) override {
        bool tags;
        if (length > room || !isUTF8(source, length, &tags))
            return -1;
        memcpy(target, source, length);
        return resultOf(length);
    }
    int fromUTF8(const char* source, size_t length, char* target, size_t room) override {
        return toUTF8(source, length, target, room);
    }
    Character decode(const char* text, size_t n) override { return decodeUTF8(text, n); }
    int encode(uint32_t code, char* target, size_t room) override {
        return encodeUTF8(code, target, room);
    }
};

// Copies the run of ASCII at source + i, and moves both positions on. False if it doesn't fit.
inline bool copyASCII(const char* source, size_t length, size_t& i, char* target, size_t room,
                      size_t& used) {
    const size_t run = asciiRun(source + i, length - i);
    if (run > room - used)
        return false;
    memcpy(target + used, source + i, run);
    used += run;
    i += run;
    return true;
}

class ByteCodeset : public Codeset {
public:
    // The codes of the bytes, all below 0x10000 or kNoCode.
    static ByteCodeset* make(const uint32_t (&codes)[256]) {
        std::unique_ptr<ByteCodeset> codeset(new (std::nothrow) ByteCodeset);
        return codeset != nullptr && codeset->fill(codes) ? codeset.release() : nullptr;
    }

    int toUTF8(const char* source, size_t length, char* target, size_t room) override {
        size_t used = 0;
        for (size_t i = 0; i < length;) {
            if (beginsWithASCII_) {
                if (!copyASCII(source, length, i, target, room, used))
                    return -1;
                if (i == length)
                    break;
            }
            const UTF8Form& form = forms_[static_cast<unsigned char>(source[i++])];
            if (form.length == 0 || form.length > room - used)
                return -1;
            memcpy(target + used, form.bytes, form.length);
            used += form.length;
        }
        return resultOf(used);
    }

    int fromUTF8(const char* source, size_t length, char* target, size_t room) override {
        size_t used = 0;
        for (size_t i = 0; i < length;) {
            if (beginsWithASCII_) {
                if (!copyASCII(source, length, i, target, room, used))
                    return -1;
                if (i == length)
                    break;
            }
            const Character c = decodeUTF8(source + i, length - i);
            if (c.length < 0 || encode(c.code, target + used, room - used) < 0)
                return -1;
            i += static_cast<size_t>(c.length);
            ++used;
        }
        return resultOf(used);
    }

    Character decode(const char* text, size_t) override {
        const uint32_t code = codes_[static_cast<unsigned char>(text[0])];
        return {code == kNoCode ? -1 : 1, code};
    }

    int encode(uint32_t code, char* target, size_t room) override {
        if (code > 0xFFFF || room == 0 || pages_[code >> 8] == nullptr)
            return -1;
        const uint16_t entry = pages_[code >> 8][code & 0xFF];
        if (entry == 0)
            return -1;
        target[0] = static_cast<char>(entry & 0xFF);
        return 1;
    }

private:
    struct UTF8Form {
        unsigned char length;  // 0: the byte is no character
        char bytes[3];
    };

    ByteCodeset() : Codeset(kBytes, true) {}

    bool fill(const uint32_t (&codes)[256]) {
        for (unsigned int byte = 0; byte < 256; ++byte) {
            const uint32_t code = codes[byte];
            codes_[byte] = code;
            if (byte < 0x80 && code != byte)
                beginsWithASCII_ = false;
            if (code == kNoCode)
                continue;
            forms_[byte].length =
                static_cast<unsigned char>(encodeUTF8(code, forms_[byte].bytes, 3));
            auto& page = pages_[code >> 8];
            if (page == nullptr)
                page.reset(new (std::nothrow) uint16_t[256]());
            if (page == nullptr)
                return false;
            if (page[code & 0xFF] == 0)  // of two bytes for one character the lower is used
                page[code & 0xFF] = static_cast<uint16_t>(0x100 | byte);
        }
        return true;
    }

    uint32_t codes_[256];
    UTF8Form forms_[256] = {};
    std::unique_ptr<uint16_t[]> pages_[256];  // by the upper byte of the code; 0x100 | byte, or 0
};

// One open direction of iconv. It keeps state: one use at a time, and every use begins anew.
class IconvPair {
public:
    IconvPair(const char* to, const char* from) : pair_(iconv_open(to, from)) {}
    ~IconvPair() {
        if (isOpen())
            iconv_close(pair_);
    }
    IconvPair(const IconvPair&) = delete;
    IconvPair& operator=(const IconvPair&) = delete;

    bool isOpen() const { return pair_ != reinterpret_cast<iconv_t>(-1); }

    /// Converts all of the source, with `closed` also what waits for more text: a closing shift, or
    /// a letter that an accent might follow. Bytes written, or the negative errno of what went
    /// wrong.
    long convert(const char* source, size_t length, char* target, size_t room, bool closed = true) {
        char* in = const_cast<char*>(source);
        char* out = target;
        iconv(pair_, nullptr, nullptr, nullptr, nullptr);
        if (iconv(pair_, &in, &length, &out, &room) == static_cast<size_t>(-1) ||
            (closed && iconv(pair_, nullptr, nullptr, &out, &room) == static_cast<size_t>(-1)))
            return -static_cast<long>(errno);
        return out - target;
    }

private:
    iconv_t pair_;
};

// The characters of two bytes that iconv has been asked for. What two bytes are depends on nothing
// else, since every question begins anew. Readers take no lock: a row is published when it is
// empty, and an entry is one word.
class KnownPairs {
public:
    ~KnownPairs() {
        for (std::atomic<Row*>& row : rows_)
            delete row.load(std::memory_order_relaxed);
    }

    /// The code, which may be kNoCode; 0 if it isn't known.
    uint32_t codeOf(unsigned char first, unsigned char second) const {
        const Row* row = rows_[first].load(std::memory_order_acquire);
        return row == nullptr ? 0 : row->codes[second].load(std::memory_order_relaxed);
    }

    /// One call at a time. Without memory the pair stays unknown.
    void add(unsigned char first, unsigned char second, uint32_t code) {
        Row* row = rows_[first].load(std::memory_order_relaxed);
        if (row == nullptr) {
            row = new (std::nothrow) Row();
            if (row == nullptr)
                return;
            rows_[first].store(row, std::memory_order_release);
        }
        row->codes[second].store(code, std::memory_order_relaxed);
    }

private:
    struct Row {
        std::atomic<uint32_t> codes[256];
    };

    std::atomic<Row*> rows_[256] = {};
};

class IconvCodeset : public Codeset {
public:
    explicit IconvCodeset(const char* name)
        : Codeset(kOther, true),
          toUTF8_("UTF-8", name),
          fromUTF8_(name, "UTF-8"),
          toWide_("WCHAR_T", name) {}

    bool isOpen() const { return toUTF8_.isOpen() && fromUTF8_.isOpen() && toWide_.isOpen(); }

    /// Looks at each byte by itself. Whether each is one character below 0x10000 or no character,
    /// so that tables can take over.
    bool probe() {
        bool bytesAlone = true;
        for (unsigned int byte = 0; byte < 256; ++byte) {
            const char text = static_cast<char>(byte);
            uint32_t wide[4];
            const long n =
                toWide_.convert(&text, 1, reinterpret_cast<char*>(wide), sizeof wide, false);
            codes_[byte] = n == static_cast<long>(sizeof wide[0]) ? wide[0] : kNoCode;
            if (byte < 0x80 && codes_[byte] != byte)
                beginsWithASCII_ = false;
            if (n != -EILSEQ && codes_[byte] > 0xFFFF)
                bytesAlone = false;
        }
        return bytesAlone;
    }
    const uint32_t (&codes() const)[256] { return codes_; }

    int toUTF8(const char* source, size_t length, char* target, size_t room) override {
        return convert(toUTF8_, source, length, target, room);
    }

    int fromUTF8(const char* source, size_t length, char* target, size_t room) override {
        // iconv drops tag characters that its target lacks without a word, and takes more for UTF-8
        // than we do.
        bool tags;
        if (!isUTF8(source, length, &tags))
            return -1;
        const int n = convert(fromUTF8_, source, length, target, room);
        return n >= 0 && tags && !comesBack(source, length, target, static_cast<size_t>(n)) ? -1
                                                                                            : n;
    }

    Character decode(const char* text, size_t n) override {
        const unsigned char first = static_cast<unsigned char>(text[0]);
        if (codes_[first] != kNoCode)
            return {1, codes_[first]};
        if (n > 1) {
            const uint32_t known = pairs_.codeOf(first, static_cast<unsigned char>(text[1]));
            if (known != 0)
                return {2, known};
        }
        const std::lock_guard<std::mutex> guard(mutex_);
        for (size_t length = 1; length <= kLongest; ++length) {
            if (length > n)
                return {kCut, kNoCode};
            if (length > 1 && text[length - 1] == '\0')
                break;  // nothing reads past the terminator
            uint32_t wide[4];
            const long bytes =
                toWide_.convert(text, length, reinterpret_cast<char*>(wide), sizeof wide);
            if (bytes > 0) {
                const uint32_t code = bytes == 4 ? wide[0] : kNoCode;
                if (length == 2)
                    pairs_.add(first, static_cast<unsigned char>(text[1]), code);
                return {static_cast<int>(length), code};
            }
            if (bytes != 0 && bytes != -EINVAL)
                break;
        }
        return {-1, kNoCode};
    }

    int encode(uint32_t code, char* target, size_t room) override {
        char bytes[4];
        const int n = encodeUTF8(code, bytes, sizeof bytes);
        return n < 0 ? -1 : fromUTF8(bytes, static_cast<size_t>(n), target, room);
    }

private:
    static const size_t kLongest = 8;  // more bytes than any character has

    int convert(IconvPair& pair, const char* source, size_t length, char* target, size_t room) {
        const std::lock_guard<std::mutex> guard(mutex_);
        const long n = pair.convert(source, length, target, room);
        return n < 0 ? -1 : resultOf(static_cast<size_t>(n));
    }

    bool comesBack(const char* source, size_t length, const char* converted, size_t n) {
        const std::unique_ptr<char[]> back(new (std::nothrow) char[length]);
        return back != nullptr &&
               toUTF8(converted, n, back.get(), length) == static_cast<int>(length) &&
               memcmp(back.get(), source, length) == 0;
    }

    std::mutex mutex_;
    IconvPair toUTF8_, fromUTF8_, toWide_;  // guarded by mutex_
    uint32_t codes_[256];                   // of bytes that are a character by themselves
    KnownPairs pairs_;                      // added to under mutex_
};

static bool isOneOf(const char* name, const char* const* names) {
    for (; *names != nullptr; ++names)
        if (strcasecmp(name, *names) == 0)
            return true;
    return false;
}

static Codeset* makeCodeset(const char* name) {
    static const char* const kUTF8Names[] = {"UTF8", "UTF-8", nullptr};
    static const char* const kASCIINames[] = {"ANSI_X3.4-1968", "ASCII", "US-ASCII", nullptr};
    if (isOneOf(name, kUTF8Names))
        return new (std::nothrow) UTF8Codeset;
    if (isOneOf(name, kASCIINames)) {
        uint32_t codes[256];
        for (uint32_t byte = 0; byte < 256; ++byte)
            codes[byte] = byte < 0x80 ? byte : kNoCode;
        return ByteCodeset::make(codes);
    }
    // To iconv an empty name is the locale's codeset, and a slash begins orders to it.
    if (*name == '\0' || strchr(name, '/') != nullptr)
        return nullptr;
    std::unique_ptr<IconvCodeset> codeset(new (std::nothrow) IconvCodeset(name));
    if (codeset == nullptr || !codeset->isOpen())
        return nullptr;
    if (codeset->probe())
        return ByteCodeset::make(codeset->codes());
    return codeset.release();
}

}  // namespace qel

using qel::Codeset;
using qel::codesetOf;

qel_codeset qel_cs_new(const char* name) {
    return name == nullptr ? 0 : reinterpret_cast<qel_codeset>(qel::makeCodeset(name));
}

void qel_cs_free(qel_codeset codeset) { delete codesetOf(codeset); }

int qel_to_utf8(qel_codeset codeset, const char* source, size_t length, char* target, size_t room) {
    return codeset == 0 ? -1 : codesetOf(codeset)->toUTF8(source, length, target, room);
}

int qel_from_utf8(qel_codeset codeset, const char* source, size_t length, char* target,
                  size_t room) {
    return codeset == 0 ? -1 : codesetOf(codeset)->fromUTF8(source, length, target, room);
}

int qel_begins_with_ascii(qel_codeset codeset) {
    return codeset != 0 && codesetOf(codeset)->beginsWithASCII();
}

int qel_mblen(qel_codeset codeset, const char* text, size_t n) {
    if (text == nullptr || n == 0 || *text == '\0')
        return 0;
    if (codeset == 0)
        return -1;
    if (static_cast<unsigned char>(*text) < 0x80 && qel_begins_with_ascii(codeset))
        return 1;
    const int length = codesetOf(codeset)->decode(text, n).length;
    return length < 0 ? -1 : length;
}

int qel_mbtowc(qel_codeset codeset, qel_wide* wide, const char* text, size_t n) {
    if (text == nullptr || n == 0 || *text == '\0') {
        *wide = 0;
        return 0;
    }
    if (codeset == 0)
        return -1;
    const qel::Character c = codesetOf(codeset)->decode(text, n);
    if (c.length < 0 || c.code > 0xFFFF)
        return -1;
    *wide = static_cast<qel_wide>(c.code);
    return c.length;
}

int qel_wctomb(qel_codeset codeset, char* target, qel_wide wide) {
    const size_t kRoom = 8;  // what a caller's buffer has to hold: more than any character takes
    return codeset == 0 ? -1 : codesetOf(codeset)->encode(wide, target, kRoom);
}
