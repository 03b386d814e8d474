// edit.cpp: one edit as a whole process: load, set one key, store. Built once for each library.
#include "adapters.h"

#ifdef WITH_ZBASE
// As a C program does it.
int main(int argc, char** argv) {
    ZPROP_handle* file = nullptr;
    if (argc != 2 || zstzPropSetup(ZPROP_SETUP_UTF8) != ZPROP_OK ||
        zstzPropOpen(&file, argv[1], ZPROP_OPEN_UPDATE) != ZPROP_OK ||
        zstzPropSetStringValue(file, "section1", "setting25", "1") != ZPROP_OK ||
        zstzPropStore(file, nullptr) != ZPROP_OK)
        return 2;
    zstzPropClose(file);
    return 0;
}
#else
#ifdef WITH_GLIB
typedef GLibFile File;
#else
typedef SimpleFile File;
#endif

int main(int argc, char** argv) {
    if (argc != 2)
        return 2;
    File file;
    file.load(argv[1]);
    file.set({"section1", "setting25"}, "1");
    file.store(argv[1]);
    return 0;
}
#endif
