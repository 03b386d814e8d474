/* tour.c: what C programs reach of the library besides the configuration: formatted text, dumps,
 * UTF-16, the loader, addresses, and the configuration once. Works in a folder of its own, which is
 * the argument. */
#include <Z/zasprintf.h>
#include <Z/zfileinherit.h>
#include <Z/zinet_ntop.h>
#include <Z/zinet_pton.h>
#include <Z/zproperties.h>
#include <Z/zqelutil.h>
#include <Z/zshlib.h>
#include <Z/zsnprintf.h>
#include <Z/zutfconvert.h>
#include <Z/zutils.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

static void text(void) {
    char line[32];
    char* long_line = NULL;
    int length = zsnprintf(line, sizeof line, "%2$s is %1$#x", 255, "255");
    printf("%s, %d bytes\n", line, length);
    if (zasprintf(&long_line, "%s has room for all of it", line) >= 0) {
        printf("%s\n", long_line);
        zasprintf_free(long_line);
    }
    printf("second part: %s\n", zstrchr(zgetLCSHandle(), "a=b", '=') + 1);
}

static void bytes(void) {
    static const unsigned short units[] = {0x00E9, 0xD83D, 0xDE00};
    unsigned char utf8[16];
    const unsigned short* from = units;
    unsigned char* to = utf8;
    if (zconvert_UTF16_to_UTF8(&from, units + 3, &to, utf8 + sizeof utf8) == 0)
        zhex_dump(stdout, (int)(to - utf8), utf8, "two characters");
}

static void services(void) {
    unsigned char address[16];
    char shown[64];
    int error = 0;
    void* library = zdlopen("libm.so.6", 0, &error);
    double (*root)(double) = NULL;
    void* symbol = zdlsym(library, "sqrt", &error);
    memcpy(&root, &symbol, sizeof root);
    if (root != NULL)
        printf("root of 81: %g\n", root(81));
    zdlclose(library, &error);
    if (zinet_pton(AF_INET6, "2001:DB8:0::1", address) == 1)
        printf("%s\n", zinet_ntop(AF_INET6, address, shown, sizeof shown));
    printf("inherited: %d\n", zsetfileinheritance(fileno(stdout), 1));
}

static int configuration(const char* folder) {
    char path[4096];
    FILE* empty;
    ZPROP_handle* handle;
    int result;
    zsnprintf(path, sizeof path, "%s/tour-c.conf", folder);
    empty = fopen(path, "w");
    if (empty == NULL || fclose(empty) != 0)
        return ZPROP_ERR_FILE;
    result = zstzPropOpen(&handle, path, ZPROP_OPEN_UPDATE);
    if (result != ZPROP_OK)
        return result;
    result = zstzPropSetIntegerValue(handle, "listener", "port", 8631);
    if (result == ZPROP_OK)
        result = zstzPropStore(handle, NULL);
    if (result == ZPROP_OK)
        printf("port %u\n", zstzPropGetIntegerValue(handle, "listener", "port", 1, &result));
    zstzPropClose(handle);
    return result;
}

int main(int count, char** arguments) {
    if (count != 2)
        return 2;
    text();
    bytes();
    services();
    return configuration(arguments[1]);
}
