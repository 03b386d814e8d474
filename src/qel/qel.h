// qel.h: the codeset service: what codesets and locales mean for text. It stands on glibc's locales
// and iconv, belongs to the library, and nothing outside of it sees these names.
//
// Handles are opaque words, 0 for none; every call may run in any thread, and each call that takes
// a handle fails (or counts every byte as a character) when it is 0. Lengths are bytes, results of
// conversions too; a negative result is a failure. Wide characters are 16 bits.
#ifndef QEL_QEL_H
#define QEL_QEL_H

#include <ctype.h>
#include <locale.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>

typedef uintptr_t qel_codeset;
typedef uintptr_t qel_locale;
typedef uint16_t qel_wide;

/// Where other services keep their tables. Ours are glibc's, so this only has to succeed.
int qel_set_dir(const char* dir);

/// The process's text may have a locale of its own: C.UTF-8, whatever setlocale() has made or makes
/// of the process. qel_can_own tells whether the system has its file and lets it be read, which
/// takes memory and a descriptor where LOCPATH is set: false, too, without them; qel_set_own has
/// all text follow it from then on, and is called once at most, before there is any.
///
/// Only characters beyond ASCII differ from those of the C locale, which every process has: their
/// rules are fetched by qel_own_rules, for whoever asks of them first, since to open them takes a
/// good part of a short program's time. 0 without memory or a descriptor, or where the file is
/// none; such characters have no class until it has succeeded.
bool qel_can_own();
void qel_set_own();
qel_locale qel_own_rules();
/// Likewise, for as much as the first `n` bytes of two texts need: for ASCII alone, in UTF-8, and
/// for bytes without a codeset nothing is fetched, and nothing fails. Null is the empty text.
/// Requires: qel_own().
qel_locale qel_own_rules_for(qel_codeset codeset, const char* a, const char* b, size_t n);
/// How many bytes two texts begin with, `n` at most, that are ASCII, in UTF-8, and alike but for
/// their case: a comparison needs rules only for what follows them. 0 where one is null.
size_t qel_ascii_match(qel_codeset codeset, const char* a, const char* b, size_t n);

/// The locale that it shares with C, or null: text follows the thread's then.
extern std::atomic<locale_t> qel_own_locale;
inline locale_t qel_own() { return qel_own_locale.load(std::memory_order_acquire); }

/// Bytes of the longest character of local text.
inline size_t qel_local_most() { return qel_own() != nullptr ? 6 : MB_CUR_MAX; }

/// The order of local text, as strcoll; the classes of its bytes, as ctype.h has them for isspace.
int qel_collate(const char* a, const char* b);
const unsigned short* qel_byte_classes();
inline bool qel_isspace(char c) {
    return (qel_byte_classes()[static_cast<unsigned char>(c)] &
            static_cast<unsigned short>(_ISspace)) != 0;
}

/// While one lives, the calling thread's standard functions follow the locale of text: where that
/// is one of its own, as the C locale does, which knows ASCII only.
class QelScope {
public:
    QelScope() : before_(qel_own() != nullptr ? uselocale(qel_own()) : nullptr) {}
    ~QelScope() {
        if (before_ != nullptr)
            uselocale(before_);
    }
    QelScope(const QelScope&) = delete;
    QelScope& operator=(const QelScope&) = delete;

private:
    const locale_t before_;
};

/// Each writes a name into a buffer of `size` bytes: the language of the process's locale, the
/// canonical name of a locale, the codeset of the process's locale. 0, or negative if it can't.
int qel_os_lang_name(char* buffer, size_t size);
int qel_canonical_loc(const char* name, char* buffer, size_t size);
int qel_os_cs_name(char* buffer, size_t size);

/// A locale, independent of what setlocale() makes of the process later.
qel_locale qel_loc_new(const char* name);
void qel_loc_free(qel_locale locale);

/// A codeset by its name, a new handle at each call; "UTF8" is UTF-8.
qel_codeset qel_cs_new(const char* name);
void qel_cs_free(qel_codeset codeset);

/// Bytes written; negative for text that isn't valid, a character cut off by the end, one that the
/// target lacks, and a full target. NULs are converted like all else.
int qel_to_utf8(qel_codeset codeset, const char* source, size_t length, char* target, size_t room);
int qel_from_utf8(qel_codeset codeset, const char* source, size_t length, char* target,
                  size_t room);

/// Whether a byte below 0x80 that begins a character is that ASCII character; 0 for no codeset.
int qel_begins_with_ascii(qel_codeset codeset);

/// Bytes of the first character, of which `n` bytes are there: 0 at the end, -1 if invalid.
int qel_mblen(qel_codeset codeset, const char* text, size_t n);
/// The same, and the character; -1 too for one that doesn't fit into 16 bits.
int qel_mbtowc(qel_codeset codeset, qel_wide* wide, const char* text, size_t n);
/// Bytes written, -1 for a character that the codeset lacks.
int qel_wctomb(qel_codeset codeset, char* target, qel_wide wide);

/// The standard functions on whole characters. A byte that begins no valid character counts as one.
const char* qel_strchr(qel_codeset codeset, const char* text, int c);
const char* qel_strrchr(qel_codeset codeset, const char* text, int c);
const char* qel_strstr(qel_codeset codeset, const char* text, const char* part);
const char* qel_strpbrk(qel_codeset codeset, const char* text, const char* set);
size_t qel_strspn(qel_codeset codeset, const char* text, const char* set);
size_t qel_strcspn(qel_codeset codeset, const char* text, const char* set);
char* qel_strncpy(qel_codeset codeset, char* target, const char* source, size_t n);
char* qel_strncat(qel_codeset codeset, char* target, const char* source, size_t n);
char* qel_strtok(qel_codeset codeset, char* text, const char* set, char** rest);

int qel_stricmp(qel_codeset codeset, qel_locale locale, const char* a, const char* b);
int qel_strnicmp(qel_codeset codeset, qel_locale locale, const char* a, const char* b, size_t n);
char* qel_strlower(qel_codeset codeset, qel_locale locale, char* text);
char* qel_strupper(qel_codeset codeset, qel_locale locale, char* text);
char* qel_strptime(qel_codeset codeset, qel_locale locale, const char* text, const char* format,
                   struct tm* time);

int qel_iswalnum(qel_wide c);
int qel_iswalpha(qel_wide c);
int qel_iswdigit(qel_wide c);
int qel_iswlower(qel_wide c);
int qel_iswspace(qel_wide c);
int qel_iswupper(qel_wide c);

#endif
