#include "zshlib.h"

#include <dlfcn.h>

#include <cerrno>
#include <cstring>

#include "zuncancelled.h"

static const int kNoName = 2;  // ENOENT's number, which callers know as 2
static const int kDefaultMode = RTLD_NOW | RTLD_GLOBAL;

static void tell(int* error, int number) {
    if (error != nullptr)
        *error = number;
}

void* zdlopen(const char* name, int mode, int* error) {
    tell(error, 0);
    if (name == nullptr) {
        tell(error, kNoName);
        return nullptr;
    }
    const ZUncancelled uncancelled;  // the library's own set-up may be a place for it
    void* handle = dlopen(name, mode != 0 ? mode : kDefaultMode);
    if (handle == nullptr)
        tell(error, errno);
    return handle;
}

void* zdlsym(void* handle, const char* symbol, int* error) {
    tell(error, 0);
    void* address = handle != nullptr && symbol != nullptr ? dlsym(handle, symbol) : nullptr;
    if (address == nullptr)
        tell(error, errno);
    return address;
}

void zdlclose(void* handle, int* error) {
    tell(error, 0);
    const ZUncancelled uncancelled;
    if (handle == nullptr)
        tell(error, kNoName);
    else if (dlclose(handle) != 0)
        tell(error, errno);
}

char* zdlerror(void) {
    const char* text = dlerror();
    return text != nullptr ? strdup(text) : nullptr;
}
