#include "zqelutil.h"

#include <cxxabi.h>
#include <pthread.h>

#include <atomic>
#include <climits>
#include <clocale>
#include <cstdlib>
#include <cstring>

#include "ZException.h"
#include "qel/qel.h"
#include "zcodesetfailure.h"
#include "zinternal.h"
#include "zreportformats.h"
#include "zraise.h"
#include "zscope.h"

// Written once, by the set-up; names live for ever. The four that callers read without passing
// pthread_once are atomics; what set-up wrote before them can be seen by whoever sees them.
static pthread_once_t qel_once = PTHREAD_ONCE_INIT;
static std::atomic<char*> locstring_{nullptr};
static std::atomic<char*> csname_{nullptr};
static std::atomic<zcodeset_handle> zlocal_codeset_{0};
static std::atomic<zcodeset_handle> zutf8_codeset_{0};
static qel_locale local_locale_handle_ = 0;  // none where text has a locale of its own
static const char* qeldir_ = nullptr;        // only whether it is null matters

static const char kDefaultDirectory[] = "/opt/Quillmere/nls/QEL";

// Set-up by the environment has begun, or is over.
static std::atomic<bool> isBegun{false};

static void zonce_init() {
    const ZUncancelled guard;  // half of it would count as a failure for good
    isBegun.store(true, std::memory_order_release);
    if (locstring_.load(std::memory_order_relaxed) != nullptr)
        return;
    setlocale(LC_ALL, "");
    qel_set_dir(kDefaultDirectory);
    qeldir_ = getenv("QELDIR");
    if (qeldir_ == nullptr)
        return;

    char language[512] = "";
    char canonical[512] = "";
    qel_os_lang_name(language, sizeof language);
    if (qel_canonical_loc(language, canonical, sizeof canonical) != 0)
        return;
    local_locale_handle_ = qel_loc_new(canonical);
    locstring_.store(strdup(canonical), std::memory_order_release);

    char codeset[32] = "";
    if (qel_os_cs_name(codeset, sizeof codeset) != 0)
        return;
    csname_.store(strdup(codeset), std::memory_order_release);
    zlocal_codeset_.store(qel_cs_new(codeset), std::memory_order_release);
    zutf8_codeset_.store(qel_cs_new("UTF8"), std::memory_order_release);
}

namespace {

// What zsetUpUTF8 makes, and gives to the process if that has no text yet.
struct OwnSetup {
    bool isThere = qel_can_own();
    char* name = strdup("C.UTF-8");
    char* codeset = strdup("UTF-8");
    qel_codeset local = qel_cs_new("UTF8");
    qel_codeset utf8 = qel_cs_new("UTF8");

    bool isWhole() const {
        return isThere && name != nullptr && codeset != nullptr && local != 0 && utf8 != 0;
    }
    void give() {
        qel_set_own();
        qeldir_ = kDefaultDirectory;
        locstring_.store(name, std::memory_order_release);
        csname_.store(codeset, std::memory_order_release);
        zlocal_codeset_.store(local, std::memory_order_release);
        zutf8_codeset_.store(utf8, std::memory_order_release);
    }
    void drop() {
        free(name);
        free(codeset);
        qel_cs_free(local);
        qel_cs_free(utf8);
    }
};

// Of the call of zsetUpUTF8 that is under way.
pthread_mutex_t ownSetupLock = PTHREAD_MUTEX_INITIALIZER;
OwnSetup* ownSetup = nullptr;

void giveOwnSetup() {
    ownSetup->give();
    ownSetup = nullptr;
}

}  // namespace

int zsetUpUTF8(void) {
    const ZUncancelled guard;
    if (isBegun.load(std::memory_order_acquire))
        pthread_once(&qel_once, zonce_init);  // waits for whoever is at it
    if (qel_own() != nullptr)
        return 0;
    if (isBegun.load(std::memory_order_relaxed))
        return 1;
    OwnSetup setup;
    if (!setup.isWhole()) {
        setup.drop();
        return -1;
    }
    pthread_mutex_lock(&ownSetupLock);
    ownSetup = &setup;
    // Who comes first, this or the first text, sets up.
    pthread_once(&qel_once, giveOwnSetup);
    const bool isTaken = ownSetup == nullptr;
    ownSetup = nullptr;
    pthread_mutex_unlock(&ownSetupLock);
    if (!isTaken)
        setup.drop();
    return qel_own() != nullptr ? 0 : 1;
}

static void commonInit() {
    pthread_once(&qel_once, zonce_init);
    if (qeldir_ == nullptr)
        zraise(ZNoQELEnvironmentException());
    if (zlocal_codeset_.load(std::memory_order_relaxed) == 0)
        zraiseCodesetFailure(csname_.load(std::memory_order_relaxed));
    if (zutf8_codeset_.load(std::memory_order_relaxed) == 0)
        zraiseCodesetFailure("UTF8");
}

bool zsetTextUp() {
    pthread_once(&qel_once, zonce_init);
    return zlocal_codeset_.load(std::memory_order_relaxed) != 0 &&
           zutf8_codeset_.load(std::memory_order_relaxed) != 0;
}

// Set while this thread reports that set-up failed.
static thread_local bool isReporting = false;

// Reports that set-up failed; who can't do without it ends here. A message service may come back
// here from within its report, for a string or a name: there is nothing more to tell it then. Who
// can't do without is told by the default service, which needs no string, and what ended it is
// seen.
static void reportFailure(ZException& failure, bool indispensable) {
    if (isReporting) {
        if (indispensable)
            zprintByDefault(failure);
    } else {
        isReporting = true;
        const ZAtEnd reported([] { isReporting = false; });
        try {
            failure.print();
        } catch (abi::__forced_unwind&) {
            throw;  // pthread_exit in a service: the thread must go on ending
        } catch (...) {
            zprintByDefault(failure);  // a service that can't report
        }
    }
    if (indispensable)
        abort();
}

// `word` once set-up is done, or empty if it failed and that isn't the end.
template <typename Word>
static Word afterSetup(const std::atomic<Word>& word, bool indispensable) {
    const Word value = word.load(std::memory_order_acquire);
    if (value != Word())
        return value;
    try {
        commonInit();
    } catch (ZException& failure) {
        reportFailure(failure, indispensable);
    }
    return word.load(std::memory_order_acquire);
}

const char* zgetlocale(void) { return afterSetup(locstring_, false); }

const char* zgetLocalCodesetName(void) { return afterSetup(csname_, false); }

zcodeset_handle zgetUTF8Handle(void) { return afterSetup(zutf8_codeset_, true); }

zcodeset_handle zgetLCSHandle(void) { return afterSetup(zlocal_codeset_, true); }

int zset_cs_dir(const char* dir) { return dir == nullptr ? 0 : qel_set_dir(dir); }

int zlcs_to_utf8(const char* src, unsigned int srcLen, char* dst, unsigned int dstSize) {
    if (src == nullptr || srcLen == 0 || dst == nullptr || dstSize == 0)
        return 0;
    return qel_to_utf8(zgetLCSHandle(), src, srcLen, dst, dstSize);
}

int zlcs_from_utf8(const char* src, unsigned int srcLen, char* dst, unsigned int dstSize) {
    if (src == nullptr || srcLen == 0 || dst == nullptr || dstSize == 0)
        return 0;
    return qel_from_utf8(zgetLCSHandle(), src, srcLen, dst, dstSize);
}

char* zstrchr(zcodeset_handle h, const char* s, int c) {
    return const_cast<char*>(qel_strchr(h, s, c));
}

char* zstrrchr(zcodeset_handle h, const char* s, int c) {
    return const_cast<char*>(qel_strrchr(h, s, c));
}

char* zstrstr(zcodeset_handle h, const char* s, const char* t) {
    return const_cast<char*>(qel_strstr(h, s, t));
}

char* zstrpbrk(zcodeset_handle h, const char* s, const char* t) {
    return const_cast<char*>(qel_strpbrk(h, s, t));
}

size_t zstrspn(zcodeset_handle h, const char* s, const char* t) { return qel_strspn(h, s, t); }

size_t zstrcspn(zcodeset_handle h, const char* s, const char* t) { return qel_strcspn(h, s, t); }

char* zstrncpy(zcodeset_handle h, char* a, const char* b, size_t n) {
    return qel_strncpy(h, a, b, n);
}

char* zstrncat(zcodeset_handle h, char* a, const char* b, size_t n) {
    return qel_strncat(h, a, b, n);
}

char* zstrtok(zcodeset_handle h, char* a, const char* b, char** c) {
    return qel_strtok(h, a, b, c);
}

static qel_locale requireRules(qel_locale rules) {
    if (rules == 0)
        zraise(ZOutOfMemoryException());
    return rules;
}

// Passes over what two texts begin with alike in ASCII: the rules of what follows in them.
static qel_locale rulesOfRest(zcodeset_handle h, const char*& a, const char*& b, size_t& n) {
    if (qel_own() == nullptr)
        return local_locale_handle_;
    const size_t same = qel_ascii_match(h, a, b, n);
    a += same, b += same, n -= same;
    return requireRules(qel_own_rules_for(h, a, b, n > 0 ? 1 : 0));
}

int zstricmp(zcodeset_handle h, const char* a, const char* b) {
    size_t n = SIZE_MAX;
    const qel_locale rules = rulesOfRest(h, a, b, n);
    return qel_stricmp(h, rules, a, b);
}

int zstrnicmp(zcodeset_handle h, const char* a, const char* b, size_t n) {
    const qel_locale rules = rulesOfRest(h, a, b, n);
    return qel_strnicmp(h, rules, a, b, n);
}

// The rules of all characters of a text.
static qel_locale rulesOf(zcodeset_handle h, const char* text) {
    return qel_own() == nullptr ? local_locale_handle_
                                : requireRules(qel_own_rules_for(h, text, nullptr, SIZE_MAX));
}

char* zstrlower(zcodeset_handle h, char* s) { return qel_strlower(h, rulesOf(h, s), s); }

char* zstrupper(zcodeset_handle h, char* s) { return qel_strupper(h, rulesOf(h, s), s); }

char* zstrptime(zcodeset_handle h, const char* a, const char* b, struct tm* c) {
    return qel_strptime(h, local_locale_handle_, a, b, c);
}

// Of ASCII nothing has to be fetched.
static int isOfClass(zwide_char c, int (*isMember)(qel_wide)) {
    if (c >= 0x80 && qel_own() != nullptr)
        requireRules(qel_own_rules());
    return isMember(c);
}

int ziswalnum(zwide_char c) { return isOfClass(c, qel_iswalnum); }
int ziswalpha(zwide_char c) { return isOfClass(c, qel_iswalpha); }
int ziswdigit(zwide_char c) { return isOfClass(c, qel_iswdigit); }
int ziswlower(zwide_char c) { return isOfClass(c, qel_iswlower); }
int ziswspace(zwide_char c) { return isOfClass(c, qel_iswspace); }
int ziswupper(zwide_char c) { return isOfClass(c, qel_iswupper); }

// Whether zmblen() answers 1 for any text of this codeset.
static bool isLocalOfOneByte(zcodeset_handle h) {
    return h == zlocal_codeset_.load(std::memory_order_acquire) && qel_local_most() == 1;
}

int zmblen(zcodeset_handle h, const char* s, size_t n) {
    return isLocalOfOneByte(h) ? 1 : qel_mblen(h, s, n);
}

unsigned int zstrcount(zcodeset_handle h, const char* s) {
    if (s == nullptr)
        return 0;
    const size_t most = UINT_MAX;
    if (isLocalOfOneByte(h))
        return static_cast<unsigned int>(strnlen(s, most));
    const char* at = s;
    while (*at != '\0' && static_cast<size_t>(at - s) < most - 8) {  // no character takes 8 bytes
        const int n = qel_mblen(h, at, 4);
        if (n < 1)
            break;
        at += n;
    }
    return static_cast<unsigned int>(at - s);
}

// The bytes of the first character if it is of the class, else 0.
static int lengthIfClass(zcodeset_handle h, const char* s, size_t n, int (*isMember)(qel_wide)) {
    if (s == nullptr || n == 0)
        return 0;
    zwide_char c = 0;
    const int length = qel_mbtowc(h, &c, s, n);
    return length >= 1 && isOfClass(c, isMember) != 0 ? length : 0;
}

int zisalpha(zcodeset_handle h, const char* s, size_t n) {
    return lengthIfClass(h, s, n, qel_iswalpha);
}

int zisspace(zcodeset_handle h, const char* s, size_t n) {
    return lengthIfClass(h, s, n, qel_iswspace);
}

int zmbtowc(zcodeset_handle h, zwide_char* out, const char* s, size_t n) {
    *out = 0;
    return qel_mbtowc(h, out, s, n);
}
