// Wrapped.h: names of the system calls that the linker leads to a test's own functions (--wrap), as
// the units that touch files call them: on 32 bits those are built for big files and late dates.
// For one source of a program, which says failsNow(call) first.
#pragma once

#include <fcntl.h>

#include <cstdarg>

#if __SIZEOF_POINTER__ == 4
#define FOPEN fopen64
#define FCNTL __fcntl_time64
#define FSTAT __fstat64_time64
#define STAT __stat64_time64
#define FSTATAT __fstatat64_time64
#define OPEN open64
#define OPENAT openat64
#define MMAP mmap64
#define PREAD pread64
#define PWRITE pwrite64
#define FTRUNCATE ftruncate64
#define FALLOCATE fallocate64
#else
#define FOPEN fopen
#define FCNTL fcntl
#define FSTAT fstat
#define STAT stat
#define FSTATAT fstatat
#define OPEN open
#define OPENAT openat
#define MMAP mmap
#define PREAD pread
#define PWRITE pwrite
#define FTRUNCATE ftruncate
#define FALLOCATE fallocate
#endif

#define PASTE(a, b) a##b
#define WRAPPED(name) PASTE(__wrap_, name)
#define REAL(name) PASTE(__real_, name)

// Those that take what their other arguments say.
#define WRAP_OPEN                                                     \
    extern "C" int REAL(OPEN)(const char*, int, ...);                 \
    extern "C" int WRAPPED(OPEN)(const char* path, int flags, ...) {  \
        va_list arguments;                                            \
        va_start(arguments, flags);                                   \
        const int mode = va_arg(arguments, int);                      \
        va_end(arguments);                                            \
        return failsNow("open") ? -1 : REAL(OPEN)(path, flags, mode); \
    }
#define WRAP_OPENAT                                                                \
    extern "C" int REAL(OPENAT)(int, const char*, int, ...);                       \
    extern "C" int WRAPPED(OPENAT)(int folder, const char* path, int flags, ...) { \
        va_list arguments;                                                         \
        va_start(arguments, flags);                                                \
        const int mode = va_arg(arguments, int);                                   \
        va_end(arguments);                                                         \
        return failsNow("openat") ? -1 : REAL(OPENAT)(folder, path, flags, mode);  \
    }
#define WRAP_FCNTL(isMeant)                                     \
    extern "C" int REAL(FCNTL)(int, int, ...);                  \
    extern "C" int WRAPPED(FCNTL)(int file, int command, ...) { \
        va_list arguments;                                      \
        va_start(arguments, command);                           \
        void* argument = va_arg(arguments, void*);              \
        va_end(arguments);                                      \
        if ((isMeant) && failsNow("fcntl"))                     \
            return -1;                                          \
        return REAL(FCNTL)(file, command, argument);            \
    }
