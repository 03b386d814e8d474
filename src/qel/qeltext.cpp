// qeltext.cpp: locales, and text functions on whole characters.
//
// In a codeset of one byte a character the standard functions are right as they are. In UTF-8 they
// are too, as long as what is looked for is whole characters, since no character's bytes are part
// of another. In all other codesets a hit counts only if the walk from the beginning reaches it.
#include <ctype.h>
#include <fcntl.h>
#include <langinfo.h>
#include <locale.h>
#include <pthread.h>
#include <unistd.h>
#include <wctype.h>

#include <cstdlib>
#include <cstring>

#include "qelcodeset.h"

using qel::Character;
using qel::Codeset;
using qel::codesetOf;
using qel::kNoCode;

namespace {

// A locale, and its case rules for the characters that nearly all text is made of.
struct Locale {
    locale_t locale;
    uint32_t lower[256];
    uint32_t upper[256];
};

// The rules of the process's own locale, null until somebody has needed them.
std::atomic<Locale*> ownRules{nullptr};

uint32_t lowered(const Locale* locale, uint32_t code) {
    if (code < 256)
        return locale->lower[code];
    return static_cast<uint32_t>(towlower_l(static_cast<wint_t>(code), locale->locale));
}

uint32_t uppered(const Locale* locale, uint32_t code) {
    if (code < 256)
        return locale->upper[code];
    return static_cast<uint32_t>(towupper_l(static_cast<wint_t>(code), locale->locale));
}

char loweredASCII(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c; }

bool isBytewise(qel_codeset codeset) {
    return codeset == 0 || codesetOf(codeset)->kind() == Codeset::kBytes;
}

bool isUTF8(qel_codeset codeset) {
    return codeset != 0 && codesetOf(codeset)->kind() == Codeset::kUTF8;
}

bool isASCII(char c) { return static_cast<unsigned char>(c) < 0x80; }

bool isASCII(const char* text, size_t most = SIZE_MAX) {
    const size_t n = strnlen(text, most);
    return qel::asciiRun(text, n) == n;
}

// The character at `text`, which isn't at its terminator. What is none counts as one byte.
Character characterAt(Codeset* codeset, const char* text, size_t n) {
    const unsigned char byte = static_cast<unsigned char>(*text);
    if (byte < 0x80 && codeset->beginsWithASCII())
        return {1, byte};
    const Character c = codeset->decode(text, n);
    return c.length < 1 ? Character{1, kNoCode} : c;
}

// The bytes of that character; the text's terminator ends it at the latest.
size_t step(Codeset* codeset, const char* text) {
    return static_cast<size_t>(characterAt(codeset, text, SIZE_MAX).length);
}

// Whether all of `text` is valid.
bool isValid(Codeset* codeset, const char* text) {
    while (*text != '\0') {
        const Character c = codeset->decode(text, SIZE_MAX);
        if (c.length < 1)
            return false;
        text += c.length;
    }
    return true;
}

// The first of the hits that `next` finds, from left to right, that begins where a character does,
// or null. `at` is the beginning of a character.
template <typename Next>
const char* firstWhole(Codeset* codeset, const char* at, Next next) {
    for (;;) {
        const char* hit = next(at);
        if (hit == nullptr)
            return nullptr;
        while (at < hit)
            at += step(codeset, at);
        if (at == hit)
            return hit;
    }
}

// Whether a character ends behind the `length` bytes at `text`, one of which begins there.
bool endsWhole(Codeset* codeset, const char* text, size_t length) {
    const char* const end = text + length;
    while (text < end)
        text += step(codeset, text);
    return text == end;
}

// Whether the character of `length` bytes at `text` is in `set`.
bool isMember(Codeset* codeset, const char* text, size_t length, const char* set) {
    while (*set != '\0') {
        const size_t n = step(codeset, set);
        if (n == length && memcmp(text, set, n) == 0)
            return true;
        set += n;
    }
    return false;
}

// The bytes of the leading characters whose membership in `set` is `member`.
size_t span(Codeset* codeset, const char* text, const char* set, bool member) {
    const char* at = text;
    while (*at != '\0') {
        const size_t n = step(codeset, at);
        if (isMember(codeset, at, n, set) != member)
            break;
        at += n;
    }
    return static_cast<size_t>(at - text);
}

// The most bytes, up to `n`, that whole characters of `text` take, which need not have a terminator
// in its first `n` bytes.
size_t wholeLength(qel_codeset codeset, const char* text, size_t n) {
    const size_t length = strnlen(text, n);
    if (length < n || isBytewise(codeset))
        return length;
    size_t whole = 0;
    while (whole < n) {
        const int bytes = codesetOf(codeset)->decode(text + whole, n - whole).length;
        if (bytes == qel::kCut)
            break;
        whole += bytes < 1 ? 1 : static_cast<size_t>(bytes);
    }
    return whole;
}

// What counts in a comparison without case: the lowered code, or for a byte that is no character a
// number beyond all codes.
uint32_t foldedAt(Codeset* codeset, const Locale* locale, const char*& text, size_t& left) {
    if (left == 0 || *text == '\0')
        return 0;
    const Character c = characterAt(codeset, text, left);
    const uint32_t folded =
        c.code == kNoCode ? 0x110000U + static_cast<unsigned char>(*text) : lowered(locale, c.code);
    const size_t length = c.code == kNoCode ? 1 : static_cast<size_t>(c.length);
    text += length;
    left -= length;
    return folded;
}

char* changeCase(qel_codeset handle, qel_locale localeHandle, char* text,
                 uint32_t (*changed)(const Locale*, uint32_t)) {
    if (handle == 0 || localeHandle == 0 || text == nullptr)
        return text;
    Codeset* codeset = codesetOf(handle);
    const Locale* locale = reinterpret_cast<const Locale*>(localeHandle);
    for (char* at = text; *at != '\0';) {
        const Character c = characterAt(codeset, at, SIZE_MAX);
        const uint32_t code = c.code == kNoCode ? kNoCode : changed(locale, c.code);
        if (code != c.code) {
            char bytes[8];
            const int n = codeset->encode(code, bytes, sizeof bytes);
            if (n == c.length)
                memcpy(at, bytes, static_cast<size_t>(n));
        }
        at += c.length;
    }
    return text;
}

int copyName(const char* name, char* buffer, size_t size) {
    if (name == nullptr || *name == '\0' || strlen(name) >= size)
        return -1;
    strcpy(buffer, name);
    return 0;
}

}  // namespace

int qel_set_dir(const char* dir) { return dir == nullptr ? -1 : 0; }

std::atomic<locale_t> qel_own_locale{nullptr};

static const char kOwnName[] = "C.UTF-8", kOwnCodeset[] = "UTF-8";

// The C library takes a file that it can't open once for missing from then on, so that it is asked
// only while there is a descriptor; another thread may still take the last one in between. Not
// cancelled, or the descriptor could be lost.
static locale_t openOwn(locale_t base) {
    int before;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
    const int probe = open("/", O_PATH | O_CLOEXEC);
    locale_t opened = nullptr;
    if (probe != -1) {
        close(probe);
        opened = newlocale(LC_CTYPE_MASK, kOwnName, base);
    }
    pthread_setcancelstate(before, nullptr);
    return opened;
}

// Its order is that of bytes, and so of code points, as in the C locale. The C library is asked
// where it may look elsewhere.
bool qel_can_own() {
    static const char kRules[] = "/usr/lib/locale/C.utf8/LC_CTYPE";
    if (getenv("LOCPATH") == nullptr && access(kRules, R_OK) == 0)
        return true;
    const locale_t found = openOwn(nullptr);
    if (found == nullptr)
        return false;
    freelocale(found);
    return true;
}

// The C locale is part of the C library, and so never missing.
void qel_set_own() {
    qel_own_locale.store(newlocale(LC_ALL_MASK, "C", nullptr), std::memory_order_release);
}

int qel_collate(const char* a, const char* b) {
    const locale_t own = qel_own();
    return own != nullptr ? strcoll_l(a, b, own) : strcoll(a, b);
}

const unsigned short* qel_byte_classes() {
    const locale_t own = qel_own();
    return own != nullptr ? own->__ctype_b : *__ctype_b_loc();
}

int qel_os_lang_name(char* buffer, size_t size) {
    return copyName(qel_own() != nullptr ? kOwnName : setlocale(LC_CTYPE, nullptr), buffer, size);
}

int qel_canonical_loc(const char* name, char* buffer, size_t size) {
    return copyName(name, buffer, size);
}

int qel_os_cs_name(char* buffer, size_t size) {
    return copyName(qel_own() != nullptr ? kOwnCodeset : nl_langinfo(CODESET), buffer, size);
}

static Locale tablesOf(locale_t locale) {
    Locale made;
    made.locale = locale;
    for (wint_t code = 0; code < 256; ++code) {
        made.lower[code] = static_cast<uint32_t>(towlower_l(code, locale));
        made.upper[code] = static_cast<uint32_t>(towupper_l(code, locale));
    }
    return made;
}

// Takes the locale over; 0 for none.
static qel_locale makeLocale(locale_t locale) {
    if (locale == nullptr)
        return 0;
    Locale* const made = static_cast<Locale*>(malloc(sizeof(Locale)));
    if (made == nullptr) {
        freelocale(locale);
        return 0;
    }
    *made = tablesOf(locale);
    return reinterpret_cast<qel_locale>(made);
}

qel_locale qel_loc_new(const char* name) {
    if (name == nullptr)
        return 0;
    // The process's own locale is at hand, with all its categories.
    const char* process = setlocale(LC_CTYPE, nullptr);
    const locale_t locale = process != nullptr && strcmp(name, process) == 0
                                ? duplocale(LC_GLOBAL_LOCALE)
                                : newlocale(LC_ALL_MASK, name, nullptr);
    return makeLocale(locale);
}

qel_locale qel_own_rules() {
    Locale* rules = ownRules.load(std::memory_order_acquire);
    if (rules != nullptr)
        return reinterpret_cast<qel_locale>(rules);
    const locale_t plain = newlocale(LC_ALL_MASK, "C", nullptr);
    const qel_locale made = makeLocale(openOwn(plain));
    if (made == 0 ||
        ownRules.compare_exchange_strong(rules, reinterpret_cast<Locale*>(made),
                                         std::memory_order_acq_rel, std::memory_order_acquire))
        return made;
    qel_loc_free(made);  // another thread was first
    return reinterpret_cast<qel_locale>(rules);
}

qel_locale qel_own_rules_for(qel_codeset codeset, const char* a, const char* b, size_t n) {
    const auto isPlain = [n](const char* text) { return text == nullptr || isASCII(text, n); };
    if (ownRules.load(std::memory_order_acquire) != nullptr ||
        (codeset != 0 && !(isUTF8(codeset) && isPlain(a) && isPlain(b))))
        return qel_own_rules();
    static const Locale plain = tablesOf(qel_own());
    return reinterpret_cast<qel_locale>(&plain);
}

size_t qel_ascii_match(qel_codeset codeset, const char* a, const char* b, size_t n) {
    if (!isUTF8(codeset) || a == nullptr || b == nullptr)
        return 0;
    size_t same = 0;
    while (same < n && a[same] != '\0' && isASCII(a[same]) &&
           loweredASCII(a[same]) == loweredASCII(b[same]))
        ++same;
    return same;
}

void qel_loc_free(qel_locale handle) {
    Locale* const locale = reinterpret_cast<Locale*>(handle);
    if (locale == nullptr)
        return;
    freelocale(locale->locale);
    free(locale);
}

const char* qel_strchr(qel_codeset codeset, const char* text, int c) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (isBytewise(codeset) || byte == 0 || (byte < 0x80 && isUTF8(codeset)))
        return strchr(text, byte);
    return firstWhole(codesetOf(codeset), text, [&](const char* at) {
        // A longer character may begin with the byte: that is no hit.
        const char* hit = strchr(at, byte);
        while (hit != nullptr && step(codesetOf(codeset), hit) != 1)
            hit = strchr(hit + 1, byte);
        return hit;
    });
}

const char* qel_strrchr(qel_codeset codeset, const char* text, int c) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (isBytewise(codeset) || byte == 0 || (byte < 0x80 && isUTF8(codeset)))
        return strrchr(text, byte);
    const char* last = nullptr;
    for (const char* hit = qel_strchr(codeset, text, c); hit != nullptr;
         hit = qel_strchr(codeset, hit + 1, c))
        last = hit;
    return last;
}

const char* qel_strstr(qel_codeset codeset, const char* text, const char* part) {
    if (isBytewise(codeset) || *part == '\0' ||
        (isUTF8(codeset) && isValid(codesetOf(codeset), part)))
        return strstr(text, part);
    const size_t length = strlen(part);
    return firstWhole(codesetOf(codeset), text, [&](const char* at) -> const char* {
        // A part that isn't whole characters may end in the middle of one: that is no hit.
        const char* hit = strstr(at, part);
        while (hit != nullptr && !endsWhole(codesetOf(codeset), hit, length))
            hit = strstr(hit + 1, part);
        return hit;
    });
}

const char* qel_strpbrk(qel_codeset codeset, const char* text, const char* set) {
    const char* hit = text + qel_strcspn(codeset, text, set);
    return *hit == '\0' ? nullptr : hit;
}

size_t qel_strspn(qel_codeset codeset, const char* text, const char* set) {
    return isBytewise(codeset) || (isUTF8(codeset) && isASCII(set))
               ? strspn(text, set)
               : span(codesetOf(codeset), text, set, true);
}

size_t qel_strcspn(qel_codeset codeset, const char* text, const char* set) {
    return isBytewise(codeset) || (isUTF8(codeset) && isASCII(set))
               ? strcspn(text, set)
               : span(codesetOf(codeset), text, set, false);
}

char* qel_strncpy(qel_codeset codeset, char* target, const char* source, size_t n) {
    const size_t length = wholeLength(codeset, source, n);
    memcpy(target, source, length);
    memset(target + length, 0, n - length);
    return target;
}

char* qel_strncat(qel_codeset codeset, char* target, const char* source, size_t n) {
    const size_t length = wholeLength(codeset, source, n);
    char* end = target + strlen(target);
    memcpy(end, source, length);
    end[length] = '\0';
    return target;
}

char* qel_strtok(qel_codeset codeset, char* text, const char* set, char** rest) {
    if (text == nullptr)
        text = *rest;
    if (text == nullptr)
        return nullptr;
    text += qel_strspn(codeset, text, set);
    if (*text == '\0') {
        *rest = nullptr;
        return nullptr;
    }
    char* end = text + qel_strcspn(codeset, text, set);
    if (*end == '\0') {
        *rest = nullptr;
    } else {
        *rest = end + (codeset == 0 ? 1 : step(codesetOf(codeset), end));
        *end = '\0';
    }
    return text;
}

int qel_stricmp(qel_codeset codeset, qel_locale locale, const char* a, const char* b) {
    return qel_strnicmp(codeset, locale, a, b, SIZE_MAX);
}

int qel_strnicmp(qel_codeset handle, qel_locale localeHandle, const char* a, const char* b,
                 size_t n) {
    if (a == nullptr)
        a = "";
    if (b == nullptr)
        b = "";
    if (handle == 0 || localeHandle == 0)
        return strncmp(a, b, n);
    Codeset* codeset = codesetOf(handle);
    const Locale* locale = reinterpret_cast<const Locale*>(localeHandle);
    size_t leftA = n, leftB = n;
    for (;;) {
        const uint32_t left = foldedAt(codeset, locale, a, leftA);
        const uint32_t right = foldedAt(codeset, locale, b, leftB);
        if (left != right)
            return left < right ? -1 : 1;
        if (left == 0)
            return 0;
    }
}

char* qel_strlower(qel_codeset codeset, qel_locale locale, char* text) {
    return changeCase(codeset, locale, text, lowered);
}

char* qel_strupper(qel_codeset codeset, qel_locale locale, char* text) {
    return changeCase(codeset, locale, text, uppered);
}

char* qel_strptime(qel_codeset, qel_locale locale, const char* text, const char* format,
                   struct tm* time) {
    // What the own locale shares with C has the names.
    if (locale == 0)
        return qel_own() != nullptr ? strptime_l(text, format, time, qel_own())
                                    : strptime(text, format, time);
    return strptime_l(text, format, time, reinterpret_cast<const Locale*>(locale)->locale);
}

// Whether the character is of a class, by the locale of text.
static int isOfClass(qel_wide c, int (*byThread)(wint_t), int (*byLocale)(wint_t, locale_t)) {
    const locale_t own = qel_own();
    if (own == nullptr)
        return byThread(c);
    const Locale* const rules = ownRules.load(std::memory_order_acquire);
    return byLocale(c, rules != nullptr ? rules->locale : own);
}

int qel_iswalnum(qel_wide c) { return isOfClass(c, iswalnum, iswalnum_l); }
int qel_iswalpha(qel_wide c) { return isOfClass(c, iswalpha, iswalpha_l); }
int qel_iswdigit(qel_wide c) { return isOfClass(c, iswdigit, iswdigit_l); }
int qel_iswlower(qel_wide c) { return isOfClass(c, iswlower, iswlower_l); }
int qel_iswspace(qel_wide c) { return isOfClass(c, iswspace, iswspace_l); }
int qel_iswupper(qel_wide c) { return isOfClass(c, iswupper, iswupper_l); }
