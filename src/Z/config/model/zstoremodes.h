/* zstoremodes.h: how a configuration file is read, stored and watched for changes, beyond the plain
 * ways: the names and numbers that the classes and the C interface share. Valid C99. */
#ifndef Z_ZSTOREMODES_H
#define Z_ZSTOREMODES_H

#include "z.h"

/* What a store does about failures. */
enum {
    ZPROP_STORE_PLAIN = 0,   /* no result is looked at */
    ZPROP_STORE_CHECKED = 1, /* every result is looked at, and room is secured first */
    ZPROP_STORE_SAFE = 2     /* that, and a crash at any moment leaves the old or the new content */
};

/* What tells that somebody else has changed the file. */
enum {
    ZPROP_CHANGE_SECONDS = 0, /* another second of modification */
    ZPROP_CHANGE_EXACT = 1    /* another time in nanoseconds, size, inode or change time */
};

/* Attribute bits: what the reader keeps and what the setters refuse. */
enum {
    ZPCACHE_KEEP_COMMENTS =
        1,                 /* comments and blank lines are read, so that a store writes them back */
    ZPCACHE_STRICT = 2,    /* what a load would not give back is refused, and so are files that a
                                  load would take apart */
    ZPCACHE_KEEP_LINES = 4 /* a line whose value wasn't changed is stored byte for byte */
};

/* The stanza of a file that names its side database, where hidden values are. */
#define ZPROP_SIDE_STANZA "configuration-database"

#endif
