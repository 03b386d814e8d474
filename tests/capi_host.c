/* A host that minds what is its own: all calls of the C interface in a process that has set text up
 * itself, without QELDIR, in a locale whose decimal point is a comma. Nothing of the process may be
 * touched: what the library must not call is caught here, and what can be asked for is compared. */
#include <Z/zdialects.h>
#include <Z/zlayers.h>
#include <Z/zproperties.h>
#include <dirent.h>
#include <dlfcn.h>
#include <fenv.h>
#include <limits.h>
#include <locale.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

extern char** environ;

/* With LOCPATH set, glibc loses its copy of that at each locale that it makes. */
__attribute__((visibility("default"))) const char* __lsan_default_suppressions(void);
const char* __lsan_default_suppressions(void) { return "leak:__argz_add_sep\n"; }

static const char* caught; /* what was called, while the library is at work */
static int atWork;

/* These take the place of the system's for the library too. */
#define CATCH(result, name, parameters, arguments) \
    result name parameters {                       \
        result(*real) parameters;                  \
        *(void**)&real = dlsym(RTLD_NEXT, #name);  \
        if (atWork)                                \
            caught = #name;                        \
        return real arguments;                     \
    }
#define CATCH_END(name, parameters)                  \
    __attribute__((noreturn)) void name parameters { \
        printf("%s was called\n", #name);            \
        fflush(stdout);                              \
        syscall(SYS_exit_group, 3);                  \
        for (;;) {                                   \
        }                                            \
    }
CATCH(char*, setlocale, (int category, const char* name), (category, name))
CATCH(int, setenv, (const char* name, const char* value, int over), (name, value, over))
CATCH(int, putenv, (char* text), (text))
CATCH(int, unsetenv, (const char* name), (name))
CATCH(sighandler_t, signal, (int number, sighandler_t handler), (number, handler))
CATCH(int, sigaction, (int number, const struct sigaction* now, struct sigaction* before),
      (number, now, before))
CATCH_END(abort, (void))
CATCH_END(exit, (__attribute__((unused)) int status))
CATCH_END(_exit, (__attribute__((unused)) int status))

ssize_t write(int descriptor, const void* bytes, size_t size) {
    if (atWork && (descriptor == 1 || descriptor == 2))
        caught = "write";
    return syscall(SYS_write, descriptor, bytes, size);
}

static int failures;
static void expect(int isSo, const char* what) {
    if (!isSo || caught != NULL) {
        atWork = 0;
        printf("%s: %s\n", what, caught != NULL ? caught : "not so");
        fflush(stdout);
        atWork = 1;
        ++failures;
    }
    caught = NULL;
}
#define EXPECT(condition) expect((condition) != 0, #condition)

/* All of the process that can be asked for, as one text. */
static void describe(char* text, size_t room) {
    struct sigaction action;
    struct dirent* entry;
    size_t at =
        (size_t)snprintf(text, room, "%s %s", setlocale(LC_ALL, NULL), localeconv()->decimal_point);
    char** variable;
    int number;
    DIR* folder = opendir("/proc/self/fd");
    for (variable = environ; *variable != NULL; ++variable)
        at += (size_t)snprintf(text + at, room - at, " %s", *variable);
    for (number = 1; number < 32; ++number)
        if (sigaction(number, NULL, &action) == 0)
            at += (size_t)snprintf(text + at, room - at, " %d:%lx", number,
                                   (unsigned long)action.sa_handler);
    while ((entry = readdir(folder)) != NULL) {
        char leadsTo[PATH_MAX];
        const ssize_t length = readlinkat(dirfd(folder), entry->d_name, leadsTo, sizeof leadsTo);
        at += (size_t)snprintf(text + at, room - at, " fd%s:%.*s", entry->d_name,
                               length < 0 ? 0 : (int)length, leadsTo);
    }
    closedir(folder);
    snprintf(text + at, room - at, " %g %d %d", strtod("1,5", NULL), fegetround(),
             uselocale((locale_t)0) == LC_GLOBAL_LOCALE);
}

static ZPROP_handle* visited;

static int visit(void* data, const ZPROP_entry* entry) {
    int err;
    ++*(int*)data;
    EXPECT(zstzPropExists(visited, entry->stanza, entry->key, &err) == 1 && err == 0);
    return entry->key != NULL && strcmp(entry->key, "last") == 0;
}

static const char kText[] =
    "# of the file\n\n[a]\n# of a\nreal = 1.5\nnumber = -9223372036854775808\nmany = 1\nmany = 2\n"
    "last =\n[\xC3\xA4]\nk = \xFF\n";

static void callAll(const char* path) {
    ZPROP_handle *handle = NULL, *other = NULL;
    ZPROP_iter_handle* walk;
    ZPROP_watch_handle* watch;
    ZPROP_error error;
    char **list = NULL, *text;
    char* word = NULL;
    size_t length;
    int err = -1, count = 0;
    ZPROP_item item = {ZPROP_ITEM_STRING, "a", "real", 0, NULL};
    item.result = &word;

    EXPECT(zstzPropOpenBytes(&handle, kText, sizeof kText - 1, ZPCACHE_KEEP_COMMENTS) == 0);
    EXPECT(zstzPropGetDoubleValue(handle, "a", "real", 1, &err) == 1.5 && err == 0);
    EXPECT(zstzPropGetInt64Value(handle, "a", "number", 1, &err) == INT64_MIN && err == 0);
    EXPECT(zstzPropGetInt64Value(handle, "a", "real", 1, &err) == 0 && err == ZPROP_ERR_VALUE);
    EXPECT(zstzPropSetDoubleValue(handle, "a", "tenth", 0.1) == 0);
    text = zstzPropGetStringValue(handle, "a", "tenth", 1, &err);
    EXPECT(text != NULL && strcmp(text, "0.1") == 0);
    zstzPropFree(text);
    visited = handle;
    EXPECT(zstzPropForEach(handle, visit, &count) == 0 && count == 6); /* ends at "last" */
    EXPECT(zstzPropGetEntries(handle, &text, &length) == 0 &&
           memcmp(text, "[a\0.real\0=1.5", 13) == 0);
    zstzPropFree(text);
    EXPECT(zstzPropPath(handle) == NULL && zstzPropIsModified(handle) == 1);
    EXPECT(zstzPropStore(handle, path) == 0);
    zstzPropClose(handle);

    EXPECT(zstzPropOpenWith(&handle, path, ZPROP_OPEN_UPDATE, ZPCACHE_KEEP_LINES | ZPCACHE_STRICT,
                            ZPROP_STORE_SAFE, 0) == 0);
    EXPECT(zstzPropOpen(&other, path, ZPROP_OPEN_READ) == 0);
    EXPECT(zstzPropWatch_open(other, &watch) == 0 && zstzPropWatch_fd(watch) >= 0);
    EXPECT(zstzPropWatch_setSettlingTime(watch, 0) == 0);
    EXPECT(zstzPropBegin(handle, 0) == 0);
    EXPECT(zstzPropSetStringValue(handle, "a", "real", "x\ny") == ZPROP_ERR_UPDATE);
    EXPECT(zstzPropLastError(&error) == 22 && error.text != NULL);
    EXPECT(zstzPropSetIntegerValue(handle, "b", "i", 1) == 0);
    EXPECT(zstzPropSetBooleanValue(handle, "b", "t", 1) == 0);
    EXPECT(zstzPropSetInt64Value(handle, "b", "w", INT64_MAX) == 0);
    EXPECT(zstzPropAddStringValue(handle, "a", "many", "3") == 0);
    EXPECT(zstzPropAddFileComment(handle, "one") == 0);
    EXPECT(zstzPropAddStanzaComment(handle, "b", "two") == 0);
    EXPECT(zstzPropAddLineComment(handle, "b", "i", "three") == 0);
    EXPECT(zstzPropGetComments(handle, "b", "i", &list) == 0 && strcmp(list[0], "#three") == 0);
    zstzPropFreeStanzas(list);
    EXPECT(zstzPropRemoveComments(handle, "b", "i") == 0);
    EXPECT(zstzPropRemoveKey(handle, "a", "last") == 0);
    EXPECT(zstzPropRemoveStanza(handle, "\xC3\xA4") == 0);
    EXPECT(zstzPropCommit(handle) == 0 && zstzPropLastStoreMode(handle, &err) == 0);
    EXPECT(zstzPropWatch_process(watch, NULL, NULL, &err) > 0 && err == 0);
    EXPECT(zstzPropWatch_close(watch) == 0);
    EXPECT(zstzPropBegin(handle, 0) == 0 && zstzPropRollback(handle) == 0);
    EXPECT(zstzPropExists(other, "b", "w", &err) == 1 && !zstzPropIsHidden(other, "b", "w", &err));
    EXPECT(zstzPropNumStanzas(other, &err) == 2 && zstzPropNumKeys(other, "b", &err) == 3);
    EXPECT(zstzPropNumValues(other, "a", "many", &err) == 3);
    EXPECT(zstzPropGetIntegerValue(other, "b", "i", 1, &err) == 1);
    EXPECT(zstzPropGetBooleanValue(other, "b", "t", 1, &err) == 1);
    EXPECT(zstzPropGetValues(other, &item, 1) == 0 && strcmp(word, "1.5") == 0);
    zstzPropFreeValuesList(other, &item, 1);
    EXPECT(zstzPropGetStanzas(other, &list) == 0 && strcmp(list[1], "b") == 0);
    zstzPropFreeStanzas(list);
    EXPECT(zstzPropGetKeys(other, "b", &list) == 0 && strcmp(list[2], "w") == 0);
    zstzPropFreeStanzas(list);
    EXPECT(zstzPropStoreBytes(other, &text, &length) == 0 && length == strlen(text));
    EXPECT(zstzPropLoadBytes(other, "[a]\nbad\n", 8) == ZPROP_ERR_FILE);
    EXPECT(zstzPropLastError(&error) == 44 && error.line == 2);
    EXPECT(zstzPropNumKeys(other, "b", &err) == 3); /* a failed load has changed nothing */
    EXPECT(zstzPropLoadBytes(other, text, length) == 0);
    zstzPropFree(text);
    EXPECT(zstzPropIter_init(other, "a", NULL, &walk) == 0 && zstzPropIter_next(walk, &err) == 1);
    EXPECT(strcmp(zstzPropIter_getKey(walk, &err), "real") == 0);
    EXPECT(zstzPropIter_numKeys(walk, &err) == 4 && zstzPropIter_close(walk) == 0);
    EXPECT(zstzPropIter_init(other, "a", "many", &walk) == 0 && zstzPropIter_next(walk, &err) == 1);
    EXPECT(strcmp(zstzPropIter_getValue(walk, 0, &err), "1") == 0);
    EXPECT(zstzPropIter_chgValue(walk, "0") == 0 && zstzPropIter_addValue(walk, "00") == 0);
    EXPECT(zstzPropIter_rmvValue(walk) == 0 && zstzPropIter_numValues(walk, &err) == 3);
    EXPECT(zstzPropIter_close(walk) == 0);
    zstzPropClose(other);
    zstzPropClose(handle);
    EXPECT(zstzPropOpen(&handle, "/no/such/file", ZPROP_OPEN_READ) == ZPROP_ERR_FILE);
}

static int countPreset(void* data, const char* name, const char* description) {
    ++*(int*)data;
    return name == NULL || *description == 0;
}

static int countFile(void* data, const ZLayerInfo* file) {
    ++*(int*)data;
    return file->path == NULL;
}

static int countEntry(void* data, const ZLayerEntry* entry) {
    ++*(int*)data;
    return entry->key == NULL;
}

static void countLine(void* data, int line, const char* text, const char* reason) {
    *(int*)data += line == 2 && strcmp(text, "b") == 0 && *reason != 0;
}

static void callAllOfDialects(const char* path) {
    ZPROP_handle* handle = NULL;
    ZDialect dialect;
    char *text, *name = NULL, *pattern = NULL, *slash;
    char root[PATH_MAX], own[64];
    const char *first, *second, *roots[] = {root, NULL};
    ZLayersTerms terms;
    size_t length;
    int err = -1, count = 0, line = 0;

    EXPECT(zstzDialect_forEach(countPreset, &count) == 0 && count >= 12);
    EXPECT(zstzDialect_ofFile("/x/my.cnf", &name, &pattern) == 0 && strcmp(name, "mysql") == 0);
    EXPECT(zstzDialect_get(name, &dialect) == 0 && zstzDialect_get("none", &dialect) != 0);
    zstzPropFree(name);
    zstzPropFree(pattern);
    zstzDialect_clash(&dialect, &first, &second);
    EXPECT(first == NULL && second == NULL);
    count = 0;
    EXPECT(zstzDialect_convert(&dialect, "[a]\nb\n", 6, NULL, countLine, &count, &text, &length) ==
           0);
    EXPECT(count == 1 && strcmp(text, "[a]\n") == 0);
    zstzPropFree(text);
    EXPECT(zstzPropOpenDialectBytes(&handle, "[a]\nb\n", 6, &dialect, 0) == 0);
    EXPECT(zstzPropIsBare(handle, "a", "b", &err) == 1 && zstzPropSetBare(handle, "a", "c") == 0);
    EXPECT(zstzPropStore(handle, path) == 0);
    zstzPropClose(handle);
    EXPECT(zstzPropOpenDialect(&handle, path, ZPROP_OPEN_UPDATE, &dialect, 0, ZPROP_STORE_SAFE,
                               0) == 0);
    EXPECT(zstzPropSetStringValue(handle, "a", "b", "1 # 2") == 0 && zstzPropBegin(handle, 0) != 0);
    EXPECT(zstzPropStore(handle, NULL) == 0);
    zstzPropClose(handle);

    snprintf(root, sizeof root, "%s", path);
    slash = strrchr(root, '/');
    EXPECT(slash != NULL);
    *slash = 0;
    snprintf(own, sizeof own, "%.*s", (int)(strcspn(slash + 1, ".")), slash + 1);
    memset(&terms, 0, sizeof terms);
    terms.size = sizeof terms;
    terms.name = own;
    terms.roots = roots;
    terms.suffix = ".conf";
    terms.dialect = &dialect;
    EXPECT(zstzLayers_open(&handle, &terms, ZPROP_OPEN_UPDATE, 0, 0) == 0);
    EXPECT(zstzPropOrigin(handle, "a", "b", 0, &text, &line) == 0 && line == 2);
    zstzPropFree(text);
    EXPECT(zstzLayers_setTarget(handle, NULL, NULL) == 0);
    count = 0;
    EXPECT(zstzLayers_forEachFile(handle, countFile, &count) == 0 && count == 1);
    EXPECT(zstzLayers_forEachEntry(handle, countEntry, &count) == 0 && count == 3);
    EXPECT(zstzPropSetStringValue(handle, "a", "b", "3") == 0 && zstzPropStore(handle, NULL) == 0);
    zstzPropClose(handle);
}

int main(int count, char** arguments) {
    static char before[100000], after[100000];
    const char* path = count > 1 ? arguments[1] : "capi_host.conf";
    char output[4096];
    int saved[2], i;
    FILE* said = tmpfile();
    if (setlocale(LC_ALL, "de_DE.UTF-8") == NULL || strtod("1,5", NULL) != 1.5)
        return printf("the locale de_DE.UTF-8 is missing\n"), 2;
    unlink(path);
    describe(before, sizeof before);
    fflush(stdout);
    for (i = 0; i < 2; ++i) {
        saved[i] = dup(i + 1);
        dup2(fileno(said), i + 1);
    }
    atWork = 1;
    EXPECT(zstzPropSetup(2) == ZPROP_ERR_PARAM);
    EXPECT(zstzPropSetup(ZPROP_SETUP_UTF8) == 0);
    callAll(path);
    unlink(path);
    callAllOfDialects(path);
    EXPECT(zstzPropSetup(ZPROP_SETUP_UTF8) == 0);
    atWork = 0;
    fflush(stdout);
    for (i = 0; i < 2; ++i) {
        dup2(saved[i], i + 1);
        close(saved[i]);
    }
    describe(after, sizeof after);
    for (i = 0; before[i] != 0 && before[i] == after[i];)
        ++i;
    if (before[i] != after[i])
        ++failures, printf("was: %.60s\nis: %.60s\n", before + i, after + i);
    rewind(said);
    while (fgets(output, sizeof output, said) != NULL)
        ++failures, printf("%s", output);
    unlink(path);
    return failures != 0;
}
