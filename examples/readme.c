#include <Z/zproperties.h>
#include <stdio.h>

int main(void) {
    ZPROP_handle* handle;
    zstzPropSetup(ZPROP_SETUP_UTF8);
    int result = zstzPropOpen(&handle, "service.conf", ZPROP_OPEN_UPDATE);
    if (result != ZPROP_OK)
        return result;
    printf("port %u\n", zstzPropGetIntegerValue(handle, "listener", "port", 1, &result));
    if (result == ZPROP_OK)
        result = zstzPropSetStringValue(handle, "log", "level", "debug");
    if (result == ZPROP_OK)
        result = zstzPropStore(handle, NULL);
    zstzPropClose(handle);
    return result;
}
