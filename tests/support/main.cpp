// main.cpp: starts a test program, by ctest, by hand or in a debugger: what it needs of its
// environment stands in the build folder.
#include <gtest/gtest.h>

#include <cstdlib>

// With LOCPATH set, glibc loses its copy of that at each locale that it makes.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
    return "leak:__argz_add_sep\n";
}

int main(int count, char** arguments) {
    // A child of a test keeps what the test gave it, be it that a variable is missing.
    if (getenv("ZBASE_BUILD") == nullptr) {
        setenv("ZBASE_BUILD", TEST_BUILD, 0);
        setenv("LOCPATH", TEST_BUILD "/locales", 0);
        setenv("QELDIR", "/opt/Quillmere/nls/QEL", 0);
    }
    testing::InitGoogleTest(&count, arguments);
    return RUN_ALL_TESTS();
}
