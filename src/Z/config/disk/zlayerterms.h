/* zlayerterms.h: where the files of a layered configuration are looked for: one main file, drop-ins
 * that change single values, from several folders. Valid C99.
 *
 *   ROOT/PROJECT/NAME.conf              the main file: that of the highest root which has one
 *   ROOT/PROJECT/NAME.conf.d/A.conf     drop-ins: of all roots, in the order of their names; of one
 *                                       name that of the highest root
 *
 * Without a project they stand in ROOT itself. Hidden names, names that end in "~" and those with
 * another suffix are no drop-ins, and folders in the drop-ins' folder aren't looked into. An empty
 * file, or a link to /dev/null, hides what lower roots have under its name. A file that is reached
 * twice counts once, at its last place. What comes later goes before what comes earlier.
 *
 * A unit of systemd is NAME.service with drop-ins NAME.service.d/A.conf: `suffix` ".service",
 * `dropInSuffix` ".conf", the preset "systemd" as `dialect`, and ZLAYERS_COLLECT.
 *
 * With a dialect all files are texts of it. What the dialect says of a stanza or key that is there
 * more than once goes for each file by itself: stanzas that repeat are numbered in each, and go on
 * with those of that number in lower files; a key's last value, or those behind its last "key =",
 * are what the file gives. Names that the dialect takes for the same are the same across files,
 * spelled as in the first one that has them. A key without a divider goes before lower values as
 * "key =" does. Where values are collected, "key =" forgets in each dialect whatever stands before
 * it, and so does a key without a divider. */
#ifndef Z_ZLAYERTERMS_H
#define Z_ZLAYERTERMS_H

#include <stddef.h>

#include "z.h"
#include "zdialect.h"

/* Bits of `flags`. */
enum {
    ZLAYERS_MAY_BE_EMPTY = 1,     /* no file at all is no error */
    ZLAYERS_NEEDS_MAIN = 2,       /* drop-ins without a main file are one */
    ZLAYERS_USER = 4,             /* $XDG_CONFIG_HOME, else $HOME/.config, is the highest root */
    ZLAYERS_COLLECT = 8,          /* the values of a key are those of all files, one behind the
                                     other; "key =" forgets those before it */
    ZLAYERS_SKIP_BAD = 16,        /* a file that can't be read is left out, and listed */
    ZLAYERS_REFUSE_UNSAFE = 32,   /* a file that anybody may write to, or that belongs to neither
                                     root nor the caller, can't be read */
    ZLAYERS_REFUSE_SHADOWED = 64, /* nothing is stored if a higher file still gives one of the
                                     changed keys other values */
    ZLAYERS_CREDENTIALS = 128     /* files "stanza.key" of $CREDENTIALS_DIRECTORY give hidden values
                                     on top of all */
};

/* What a file is. */
typedef enum ZLayerKind { ZLAYER_MAIN = 0, ZLAYER_DROP_IN = 1, ZLAYER_EXTRA = 2 } ZLayerKind;
/* What has become of it. */
typedef enum ZLayerState {
    ZLAYER_COUNTS = 0,   /* its entries count, as far as no later file has the same keys */
    ZLAYER_MASKS = 1,    /* empty, or a link to /dev/null: hides those of its name in lower roots */
    ZLAYER_HIDDEN = 2,   /* a higher root has a file of its name, or another main file */
    ZLAYER_REPEATED = 3, /* stands at a later place once more */
    ZLAYER_BAD = 4       /* was left out, since it can't be read */
} ZLayerState;

/* One file of a layered configuration. */
typedef struct ZLayerInfo {
    const char* path;   /* with the prefix */
    ZLayerKind kind;    /* what it is */
    ZLayerState state;  /* what has become of it */
    const char* other;  /* the file that hides it, or as which it counts; else null */
    int line;           /* of a bad file: the line, from 1; 0 where it isn't about a line */
    const char* reason; /* of a bad file: what is wrong, or the bad line; else null */
} ZLayerInfo;

/* One entry of one of the files. */
typedef struct ZLayerEntry {
    const char* stanza; /* in which it stands */
    const char* key;    /* its name there */
    const char* value;  /* empty for "key =" and for a credential, which no list shows */
    const char* file;   /* where it stands; "$NAME" for a variable */
    int line;           /* from 1; 0 for one that is hidden, a variable or a credential */
    int isHidden;       /* whether it stands in a side database, or is a credential */
    int counts;         /* whether the configuration has it; 0: another has its place */
    int isBare;         /* whether it has no divider, which only some dialects have */
} ZLayerEntry;

/* What names the files. Start with one that is all zero but for `size` and `name`. Copied by
 * whoever is given one. */
typedef struct ZLayersTerms {
    size_t size;              /* of this struct, so that it can grow */
    const char* name;         /* of the main file, without suffix; no "/" in it */
    const char* project;      /* the folder in each root; null: none */
    const char* suffix;       /* null: ".conf" */
    const char* const* roots; /* absolute, the lowest first, a null behind the last; null: /usr/lib,
                                 /usr/local/lib, /run, /etc */
    const char* prefix;       /* the folder that is "/" for all of these, the user's folder too:
                                links on the way never lead out of it; null: none */
    const char* const* extra; /* more files, on top of all, the lowest first, a null behind the
                                 last; each must be there, an empty one too; they aren't under the
                                 prefix; null: none */
    const char* environment; /* PREFIX: on top of these, the variables PREFIX_STANZA_KEY give values
                                to the keys that some file or `keys` names; null: none do */
    const char* const* keys; /* for `environment`: stanza, key, stanza, key, a null behind the
                                last; null: none */
    unsigned long flags;     /* the bits above */
    const ZDialect* dialect; /* of all files; null: they are the library's own */
    const char* dropInSuffix; /* of drop-ins; null: that of the main file */
} ZLayersTerms;

#endif
