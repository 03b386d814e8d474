/* The C interface in strict C99, from a program of the shared library: every function is called. */
#include <Z/zproperties.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int failures = 0, err = -1;

#define EXPECT(condition)                                                           \
    do {                                                                            \
        if (!(condition)) {                                                         \
            fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition); \
            ++failures;                                                             \
        }                                                                           \
    } while (0)

static void readBack(ZPROP_handle* handle) {
    int number = 0;
    char **values = NULL, **names = NULL;
    ZPROP_item items[] = {{ZPROP_ITEM_INTEGER, "s", "number", 0, &number},
                          {ZPROP_ITEM_VALUES, "s", "text", ZPROP_ITEM_OPTIONAL, &values}};
    char* text = zstzPropGetStringValue(handle, "s", "text", 1, &err);
    EXPECT(err == ZPROP_OK && text != NULL && strcmp(text, "c") == 0);
    zstzPropFree(text);
    EXPECT(zstzPropGetIntegerValue(handle, "s", "number", 1, &err) == 4000000000u);
    EXPECT(zstzPropGetBooleanValue(handle, "s", "truth", 1, &err) == 1);
    EXPECT(zstzPropExists(handle, "s", "truth", &err) == 1);
    EXPECT(zstzPropExists(handle, "gone", NULL, &err) == 0);
    EXPECT(zstzPropNumStanzas(handle, &err) == 1 && zstzPropNumKeys(handle, "s", &err) == 3);
    EXPECT(zstzPropNumValues(handle, "s", "text", &err) == 2);
    EXPECT(zstzPropGetValues(handle, items, 2) == ZPROP_OK && (unsigned)number == 4000000000u);
    EXPECT(values != NULL && strcmp(values[0], "b") == 0 && values[2] == NULL);
    zstzPropFreeValuesList(handle, items, 2);
    EXPECT(zstzPropGetStanzas(handle, &names) == ZPROP_OK && strcmp(names[0], "s") == 0);
    zstzPropFreeStanzas(names);
}

static void walk(ZPROP_handle* handle) {
    ZPROP_iter_handle* values = NULL;
    EXPECT(zstzPropIter_init(handle, "s", "text", &values) == ZPROP_OK);
    EXPECT(zstzPropIter_next(values, &err) == 1 && zstzPropIter_numKeys(values, &err) == 1);
    EXPECT(strcmp(zstzPropIter_getValue(values, 0, &err), "a") == 0);
    EXPECT(strcmp(zstzPropIter_getKey(values, &err), "text") == 0);
    EXPECT(zstzPropIter_chgValue(values, "b") == ZPROP_OK);
    EXPECT(zstzPropIter_addValue(values, "x") == ZPROP_OK);
    EXPECT(zstzPropIter_rmvValue(values) == ZPROP_OK);
    EXPECT(zstzPropIter_addValue(values, "c") == ZPROP_OK);
    EXPECT(zstzPropIter_numValues(values, &err) == 2);
    EXPECT(zstzPropIter_close(values) == ZPROP_OK);
}

int main(void) {
    char file[] = "/tmp/zbase-test-XXXXXX";
    const int descriptor = mkstemp(file);
    ZPROP_handle* handle = NULL;
    ZPROP_error error;
    EXPECT(sizeof(ZPROP_item) == 3 * sizeof(void*) + (sizeof(void*) == 8 ? 16 : 8));
    EXPECT(descriptor != -1 && close(descriptor) == 0);
    EXPECT(zstzPropOpen(&handle, "/no/such/file", ZPROP_OPEN_READ) == ZPROP_ERR_FILE);
    EXPECT(zstzPropLastError(&error) == 43 && strcmp(error.file, "/no/such/file") == 0);
    EXPECT(zstzPropOpen(&handle, file, ZPROP_OPEN_UPDATE) == ZPROP_OK);
    EXPECT(zstzPropSetStringValue(handle, "s", "text", "a") == ZPROP_OK);
    EXPECT(zstzPropSetIntegerValue(handle, "s", "number", 4000000000u) == ZPROP_OK);
    EXPECT(zstzPropSetBooleanValue(handle, "s", "truth", 2) == ZPROP_OK);
    EXPECT(zstzPropSetStringValue(handle, "s", "gone", "a") == ZPROP_OK);
    EXPECT(zstzPropSetStringValue(handle, "gone", "k", "a") == ZPROP_OK);
    EXPECT(zstzPropRemoveKey(handle, "s", "gone") == ZPROP_OK);
    EXPECT(zstzPropRemoveStanza(handle, "gone") == ZPROP_OK);
    EXPECT(zstzPropAddFileComment(handle, "f") == ZPROP_OK);
    EXPECT(zstzPropAddStanzaComment(handle, "s", "#s") == ZPROP_OK);
    EXPECT(zstzPropAddLineComment(handle, "s", "text", "t") == ZPROP_OK);
    walk(handle);
    EXPECT(zstzPropStore(handle, NULL) == ZPROP_OK);
    zstzPropClose(handle);
    EXPECT(zstzPropOpen(&handle, file, ZPROP_OPEN_READ) == ZPROP_OK);
    readBack(handle);
    zstzPropClose(handle);
    unlink(file);
    return failures == 0 ? 0 : 1;
}
