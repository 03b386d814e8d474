/* zdialect.h: how a file that isn't this library's own spells stanzas, keys and values. Valid C99.
 *
 * A text is lines, which end at a newline or the text's end; a carriage return ahead of the newline
 * belongs to the line's end. Blanks are space, tab, vertical tab, form feed and carriage return.
 * Blanks at both ends of a line are no part of what it says. Then a line is, in this order: part
 * of the value above (see `continued`), blank, a comment, a header, an entry, or bad data. A
 * byte-order mark ahead of the first line and NULs in any line are bad data. */
#ifndef Z_ZDIALECT_H
#define Z_ZDIALECT_H

#include <stddef.h>

#include "z.h"

/* `comments`, bits: with what a comment begins. */
enum {
    ZDIALECT_HASH = 1,     /* "#" */
    ZDIALECT_SEMICOLON = 2 /* ";" */
};

/* `divider`: what stands between key and value, with blanks around it. Keys can't be empty. */
enum {
    ZDIALECT_EQUALS = 0, /* the first "=" */
    ZDIALECT_COLON = 1,  /* the first ":" */
    ZDIALECT_EITHER = 2, /* the first of both */
    ZDIALECT_BLANK = 3   /* the first blanks */
};

/* `tails`: whether a comment may stand behind a value or a key without one, on its line. It begins
 * at a comment character. */
enum {
    ZDIALECT_NO_TAILS = 0,
    ZDIALECT_TAILS = 1,          /* behind a blank on the same line */
    ZDIALECT_TAILS_ANYWHERE = 2, /* behind any character; not within quotes */
    ZDIALECT_HASH_TAILS = 3,     /* likewise, only "#" whatever begins a comment line */
    ZDIALECT_SEMICOLON_TAILS = 4 /* behind a blank, only ";" */
};

/* `bare`: a line without a divider. */
enum {
    ZDIALECT_NOT_BARE = 0, /* is bad data */
    ZDIALECT_BARE = 1      /* is a key of its own kind, which has no value and isn't "key =";
                              a divider behind a comment's begin is none then */
};

/* `continued`: values of several lines. */
enum {
    ZDIALECT_ONE_LINE = 0,
    ZDIALECT_INDENT = 1,    /* Lines that are indented deeper than their key's (in bytes) belong to
                              the value: each gives a newline and its text; blank lines between them
                              give a newline each; comment lines between them nothing. A bare key
                              has no such lines, a value in shell quotes may have none. */
    ZDIALECT_BACKSLASH = 2, /* A backslash as the line's last byte, ahead of which an even number
                               of them stands: the value has a space there, and goes on with the
                               next line that is no comment, its leading blanks included. */
    ZDIALECT_JOINED = 3     /* A backslash as the line's last byte: the value goes on with the next
                               line, whatever that is, its leading blanks included; nothing stands
                               there for both. With git's quotes a backslash that another one makes
                               a byte isn't one of these; within quotes it is. */
                            /* Of both: a backslash within a comment isn't one; blanks at the whole
                               value's ends are no part of it; behind it must be a line. */
};

/* `quotes` */
enum {
    ZDIALECT_PLAIN = 0,       /* are bytes like others */
    ZDIALECT_GIT_QUOTES = 1,  /* Double quotes, in any part of a value, keep blanks and comment
                                characters; in them and outside a backslash makes one byte of the
                                character behind it: itself of a quote and a backslash, the control
                                character of n, t and b. Any other backslash is bad data. */
    ZDIALECT_SHELL_QUOTES = 2 /* A value that begins with ' or " ends with the next one of these,
                                 which is bad data if anything but a comment follows, or if there is
                                 none. Within "..." a backslash ahead of a quote or backslash goes
                                 away; all others, and all in '...', are bytes. Elsewhere quotes are
                                 bytes. */
};

/* `repeated`: a header that was there before. */
enum {
    ZDIALECT_NOT_REPEATED = 0, /* is bad data */
    ZDIALECT_MERGED = 1,       /* goes on with the stanza */
    ZDIALECT_NUMBERED = 2      /* begins another: NAME, NAME#2, NAME#3, ... */
};

/* `names`: which spellings of stanzas and keys are the same. An object has the first one. */
enum {
    ZDIALECT_EXACT = 0,
    ZDIALECT_FOLDED = 1,        /* those that differ in the case of ASCII letters */
    ZDIALECT_FOLDED_BLANKS = 2, /* or in blanks too */
    ZDIALECT_FOLDED_KEYS = 3,   /* keys that differ in the case of ASCII letters */
    ZDIALECT_FOLDED_STANZAS = 4 /* stanzas that do */
};

/* `headers`, bits. Without any, a header is "[name]", and what stands behind "]" is ignored.
 * A name can't be empty. */
enum {
    ZDIALECT_SUBSECTIONS = 1, /* [a "b"] too, which is the stanza a.b: a backslash ahead of a quote
                                 or backslash in the quotes goes away, any other one is bad data;
                                 the case of b counts whatever `names` is, but where names are
                                 folded [a.B] is a.b */
    ZDIALECT_HEADER_TAILS = 2 /* behind "]" only blanks and a comment may stand */
};

/* `orphans`: entries ahead of the first header. */
enum {
    ZDIALECT_NO_ORPHANS = 0, /* are bad data */
    ZDIALECT_ORPHANS = 1     /* belong to the stanza with the empty name */
};

/* `values`: a key that stands in its stanza more than once. "key =" has none to give. */
enum {
    ZDIALECT_ALL_VALUES = 0,  /* has all values; once they are changed the last one that isn't empty
                                 is the key's last line, which those take who want only one */
    ZDIALECT_LAST_VALUE = 1,  /* has the last one; a change goes there */
    ZDIALECT_RESET_VALUES = 2 /* has those behind its last "key =", which forgets all above it */
};

/* `lines` */
enum {
    ZDIALECT_SHORT_LINES = 0, /* a line of more than 8191 bytes, its end counted, is bad data */
    ZDIALECT_ANY_LINES = 1
};

/* A dialect. Start with one that is all zero but for `size`: "#" begins comments then too, since
 * some character must. */
typedef struct ZDialect {
    size_t size;            /* of this struct, so that it can grow */
    unsigned int comments;  /* bits, as all of these from the list above */
    unsigned int divider;   /* between key and value */
    unsigned int tails;     /* comments behind values */
    unsigned int bare;      /* keys without a divider */
    unsigned int continued; /* values of several lines */
    unsigned int quotes;    /* what they mean */
    unsigned int repeated;  /* headers */
    unsigned int names;     /* which are the same */
    unsigned int headers;   /* bits */
    unsigned int orphans;   /* entries ahead of the first header */
    unsigned int values;    /* of a key that stands there more than once */
    unsigned int lines;     /* how long they may be */
} ZDialect;

#endif
