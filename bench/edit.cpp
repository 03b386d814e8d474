// edit.cpp: one edit as a whole process: load, set one key, store. Built once for each library.
#include "adapters.h"

#ifdef WITH_ZBASE
typedef OurFile File;
#elif defined WITH_GLIB
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
