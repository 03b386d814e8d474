/* The C interface in strict C99, from a program of the shared library: the header alone, texts that
 * come out and a number that goes through. */
#include <Z/zproperties.h>
#include <string.h>

/* Checked by the compiler: an array can't have a negative size. */
#define STATIC_ASSERT(name, condition) typedef char name[(condition) ? 1 : -1]
STATIC_ASSERT(itemsHaveTheirSize, sizeof(ZPROP_item) == (sizeof(void*) == 8 ? 40 : 20));

int main(void) {
    ZPROP_handle* handle = NULL;
    ZPROP_error error;
    int number = 0, err = -1;
    ZPROP_item item = {ZPROP_ITEM_INTEGER, "s", "number", 0, &number};
    if (zstzPropOpen(&handle, "/no/such/file", ZPROP_OPEN_READ) != ZPROP_ERR_FILE ||
        zstzPropLastError(&error) != 43 || strcmp(error.file, "/no/such/file") != 0)
        return 1;
    if (zstzPropOpen(&handle, "/dev/null", ZPROP_OPEN_UPDATE) != ZPROP_OK ||
        zstzPropSetIntegerValue(handle, "s", "number", 4000000000u) != ZPROP_OK ||
        zstzPropGetValues(handle, &item, 1) != ZPROP_OK || (unsigned)number != 4000000000u ||
        zstzPropExists(handle, "s", NULL, &err) != 1 || err != ZPROP_OK)
        return 2;
    zstzPropClose(handle);
    return 0;
}
