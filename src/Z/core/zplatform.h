/* zplatform.h: what the platform gives, in the words the rest of the library uses. Valid C99. */
#ifndef Z_ZPLATFORM_H
#define Z_ZPLATFORM_H

#if !defined(__linux__) || !(defined(__GNUC__) || defined(__clang__))
#error "zbase is written for Linux with g++ or clang++"
#endif

/* A class or function that programs outside the library may use. All else is hidden. zlib's headers
 * define the same name as nothing, for the same purpose, and leave ours alone if it came first. */
#undef ZEXPORT
#define ZEXPORT __attribute__((visibility("default")))

/* Plain functions keep C linkage, so that C callers and C++ callers share one symbol. */
#ifdef __cplusplus
#define Z_BEGIN_C extern "C" {
#define Z_END_C }
#else
#define Z_BEGIN_C
#define Z_END_C
#endif

#endif
