/* edit.c: what a plain C program does with a stanza file. It reads typed values, changes, adds,
 * removes and comments, stores, and walks what is there then.
 *
 *     edit FILE        a file with the stanzas of service.conf
 */
#include <Z/zproperties.h>
#include <stdio.h>

/* Tells what the last call has met. */
static int complain(const char* what) {
    ZPROP_error error;
    zstzPropLastError(&error);
    fprintf(stderr, "edit: %s: %s (number %d)\n", what, error.text == NULL ? "failed" : error.text,
            error.number);
    return 1;
}

/* Several values by one call. The first that is missing or no number would end it. */
static int showListener(ZPROP_handle* handle) {
    int port = 0, tls = 0, timeout = 0;
    char* name = NULL;
    char** addresses = NULL;
    ZPROP_item items[] = {
        {ZPROP_ITEM_STRING, "service", "name", 0, &name},
        {ZPROP_ITEM_INTEGER, "listener", "port", 0, &port},
        {ZPROP_ITEM_BOOLEAN, "listener", "tls", 0, &tls},
        {ZPROP_ITEM_INTEGER, "listener", "timeout", ZPROP_ITEM_OPTIONAL, &timeout},
        {ZPROP_ITEM_VALUES, "listener", "address", 0, &addresses},
    };
    const int count = (int)(sizeof items / sizeof items[0]);
    const int result = zstzPropGetValues(handle, items, count);
    if (result == ZPROP_OK) {
        printf("%s: port %d, %s, timeout %d\n", name, port, tls ? "tls" : "no tls", timeout);
        for (char** address = addresses; *address != NULL; ++address)
            printf("  listens at %s\n", *address);
    }
    zstzPropFreeValuesList(handle, items, count);
    return result;
}

/* One more value behind those that the key has: walk to the last one, and add there. */
static int addValue(ZPROP_handle* handle, const char* stanza, const char* key, const char* value) {
    ZPROP_iter_handle* walk;
    int result = zstzPropIter_init(handle, stanza, key, &walk);
    if (result != ZPROP_OK)
        return result;
    while (zstzPropIter_next(walk, &result))
        continue;
    if (result == ZPROP_OK)
        result = zstzPropIter_addValue(walk, value);
    zstzPropIter_close(walk); /* until here other threads would wait at this handle */
    return result;
}

static int change(ZPROP_handle* handle) {
    int result = zstzPropSetBooleanValue(handle, "listener", "tls", 1);
    if (result == ZPROP_OK)
        result = zstzPropSetStringValue(handle, "listener", "certificate", "/etc/heron/new.pem");
    if (result == ZPROP_OK)
        result = addValue(handle, "printer dock-1", "media", "100x200");
    if (result == ZPROP_OK)
        result = zstzPropRemoveKey(handle, "printer dock-1", "old driver");
    if (result == ZPROP_OK)
        result = zstzPropAddLineComment(handle, "printer dock-1", "speed", "# Inches per second.");
    return result;
}

/* Each key with the number of its values and the last one, in the order of the file. */
static int showStanza(ZPROP_handle* handle, const char* stanza) {
    ZPROP_iter_handle* walk;
    int result = zstzPropIter_init(handle, stanza, NULL, &walk);
    if (result != ZPROP_OK)
        return result;
    printf("[%s], %d keys\n", stanza, zstzPropIter_numKeys(walk, &result));
    while (zstzPropIter_next(walk, &result)) {
        const char* key = zstzPropIter_getKey(walk, &result);
        printf("  %s: %d value(s), last ", key, zstzPropNumValues(handle, stanza, key, &result));
        char* value = zstzPropGetStringValue(handle, stanza, key, 0, &result);
        printf("%s\n", value == NULL ? "none" : value);
        zstzPropFree(value);
    }
    zstzPropIter_close(walk);
    return result;
}

int main(int argc, char** argv) {
    ZPROP_handle* handle;
    int failed = 0;
    if (argc != 2) {
        fprintf(stderr, "usage: edit FILE\n");
        return 2;
    }
    if (zstzPropOpen(&handle, argv[1], ZPROP_OPEN_UPDATE) != ZPROP_OK)
        return complain("open");
    if (showListener(handle) != ZPROP_OK)
        failed = complain("read");
    else if (change(handle) != ZPROP_OK)
        failed = complain("change");
    else if (zstzPropStore(handle, NULL) != ZPROP_OK)
        failed = complain("store");
    else if (showStanza(handle, "printer dock-1") != ZPROP_OK)
        failed = complain("walk");
    zstzPropClose(handle);
    return failed;
}
