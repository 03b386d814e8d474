/* The header of the C interface in strict C99, and every function of it in the shared library under
 * its link name. Each function is called through a pointer of the type that callers rely on. */
#include <Z/zproperties.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int (*const open_)(ZPROP_handle**, const char*, ZPROPOpenMode) = zstzPropOpen;
static void (*const close_)(ZPROP_handle*) = zstzPropClose;
static int (*const store)(ZPROP_handle*, const char*) = zstzPropStore;
static int (*const exists)(ZPROP_handle*, const char*, const char*, int*) = zstzPropExists;
static int (*const numStanzas)(ZPROP_handle*, int*) = zstzPropNumStanzas;
static int (*const numKeys)(ZPROP_handle*, const char*, int*) = zstzPropNumKeys;
static int (*const numValues)(ZPROP_handle*, const char*, const char*, int*) = zstzPropNumValues;
static char* (*const getString)(ZPROP_handle*, const char*, const char*, int,
                                int*) = zstzPropGetStringValue;
static unsigned int (*const getInteger)(ZPROP_handle*, const char*, const char*, int,
                                        int*) = zstzPropGetIntegerValue;
static int (*const getBoolean)(ZPROP_handle*, const char*, const char*, int,
                               int*) = zstzPropGetBooleanValue;
static int (*const getValues)(ZPROP_handle*, ZPROP_item*, int) = zstzPropGetValues;
static void (*const freeValues)(ZPROP_handle*, ZPROP_item*, int) = zstzPropFreeValuesList;
static void (*const freeText)(char*) = zstzPropFree;
static int (*const getStanzas)(ZPROP_handle*, char***) = zstzPropGetStanzas;
static void (*const freeStanzas)(char**) = zstzPropFreeStanzas;
static int (*const getError)(ZPROP_error*) = zstzPropLastError;
static int (*const setString)(ZPROP_handle*, const char*, const char*,
                              const char*) = zstzPropSetStringValue;
static int (*const setInteger)(ZPROP_handle*, const char*, const char*,
                               unsigned int) = zstzPropSetIntegerValue;
static int (*const setBoolean)(ZPROP_handle*, const char*, const char*,
                               int) = zstzPropSetBooleanValue;
static int (*const removeKey)(ZPROP_handle*, const char*, const char*) = zstzPropRemoveKey;
static int (*const removeStanza)(ZPROP_handle*, const char*) = zstzPropRemoveStanza;
static int (*const stanzaComment)(ZPROP_handle*, const char*,
                                  const char*) = zstzPropAddStanzaComment;
static int (*const fileComment)(ZPROP_handle*, const char*) = zstzPropAddFileComment;
static int (*const lineComment)(ZPROP_handle*, const char*, const char*,
                                const char*) = zstzPropAddLineComment;
static int (*const iterInit)(ZPROP_handle*, const char*, const char*,
                             ZPROP_iter_handle**) = zstzPropIter_init;
static int (*const iterNext)(ZPROP_iter_handle*, int*) = zstzPropIter_next;
static const char* (*const iterKey)(ZPROP_iter_handle*, int*) = zstzPropIter_getKey;
static const char* (*const iterValue)(ZPROP_iter_handle*, int, int*) = zstzPropIter_getValue;
static int (*const iterKeys)(ZPROP_iter_handle*, int*) = zstzPropIter_numKeys;
static int (*const iterValues)(ZPROP_iter_handle*, int*) = zstzPropIter_numValues;
static int (*const iterChange)(ZPROP_iter_handle*, const char*) = zstzPropIter_chgValue;
static int (*const iterAdd)(ZPROP_iter_handle*, const char*) = zstzPropIter_addValue;
static int (*const iterRemove)(ZPROP_iter_handle*) = zstzPropIter_rmvValue;
static int (*const iterClose)(ZPROP_iter_handle*) = zstzPropIter_close;

static int failures = 0;

#define EXPECT(condition)                                                           \
    do {                                                                            \
        if (!(condition)) {                                                         \
            fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition); \
            ++failures;                                                             \
        }                                                                           \
    } while (0)

static void readBack(ZPROP_handle* handle) {
    int err = -1, number = 0;
    char** values = NULL;
    char** names = NULL;
    ZPROP_item items[] = {{ZPROP_ITEM_INTEGER, "s", "number", 0, &number},
                          {ZPROP_ITEM_VALUES, "s", "text", ZPROP_ITEM_OPTIONAL, &values}};
    char* text = getString(handle, "s", "text", 1, &err);
    EXPECT(err == ZPROP_OK && text != NULL && strcmp(text, "c") == 0);
    freeText(text);
    EXPECT(getInteger(handle, "s", "number", 1, &err) == 4000000000u);
    EXPECT(getBoolean(handle, "s", "truth", 1, &err) == 1);
    EXPECT(exists(handle, "s", "truth", &err) == 1 && exists(handle, "gone", NULL, &err) == 0);
    EXPECT(numStanzas(handle, &err) == 1 && numKeys(handle, "s", &err) == 3);
    EXPECT(numValues(handle, "s", "text", &err) == 2);
    EXPECT(getValues(handle, items, 2) == ZPROP_OK);
    EXPECT((unsigned int)number == 4000000000u);
    EXPECT(values != NULL && strcmp(values[0], "b") == 0 && values[2] == NULL);
    freeValues(handle, items, 2);
    EXPECT(getStanzas(handle, &names) == ZPROP_OK && strcmp(names[0], "s") == 0);
    freeStanzas(names);
}

static void walk(ZPROP_handle* handle) {
    int err = -1;
    ZPROP_iter_handle* values = NULL;
    EXPECT(iterInit(handle, "s", "text", &values) == ZPROP_OK);
    EXPECT(iterNext(values, &err) == 1 && strcmp(iterValue(values, 0, &err), "a") == 0);
    EXPECT(strcmp(iterKey(values, &err), "text") == 0 && iterKeys(values, &err) == 1);
    EXPECT(iterChange(values, "b") == ZPROP_OK && iterAdd(values, "x") == ZPROP_OK);
    EXPECT(iterRemove(values) == ZPROP_OK && iterAdd(values, "c") == ZPROP_OK);
    EXPECT(iterValues(values, &err) == 2);
    EXPECT(iterClose(values) == ZPROP_OK);
}

int main(void) {
    char file[] = "/tmp/zbase-test-XXXXXX";
    const int descriptor = mkstemp(file);
    ZPROP_handle* handle = NULL;
    ZPROP_error error;
    EXPECT(sizeof(ZPROP_item) == 3 * sizeof(void*) + (sizeof(void*) == 8 ? 16 : 8));
    EXPECT(descriptor != -1 && close(descriptor) == 0);
    EXPECT(open_(&handle, "/no/such/file", ZPROP_OPEN_READ) == ZPROP_ERR_FILE);
    EXPECT(getError(&error) == 43 && strcmp(error.file, "/no/such/file") == 0);
    EXPECT(open_(&handle, file, ZPROP_OPEN_UPDATE) == ZPROP_OK);
    EXPECT(setString(handle, "s", "text", "a") == ZPROP_OK);
    EXPECT(setInteger(handle, "s", "number", 4000000000u) == ZPROP_OK);
    EXPECT(setBoolean(handle, "s", "truth", 2) == ZPROP_OK);
    EXPECT(setString(handle, "s", "gone", "a") == ZPROP_OK);
    EXPECT(setString(handle, "gone", "k", "a") == ZPROP_OK);
    EXPECT(removeKey(handle, "s", "gone") == ZPROP_OK && removeStanza(handle, "gone") == ZPROP_OK);
    EXPECT(fileComment(handle, "f") == ZPROP_OK && stanzaComment(handle, "s", "#s") == ZPROP_OK);
    EXPECT(lineComment(handle, "s", "text", "t") == ZPROP_OK);
    walk(handle);
    EXPECT(store(handle, NULL) == ZPROP_OK);
    close_(handle);
    EXPECT(open_(&handle, file, ZPROP_OPEN_READ) == ZPROP_OK);
    readBack(handle);
    close_(handle);
    unlink(file);
    return failures == 0 ? 0 : 1;
}
