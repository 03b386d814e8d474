// zsidenames.h: the entry of a stanza file that names its side database, for who reads it and who
// writes it. Never installed.
#ifndef Z_ZSIDENAMES_H
#define Z_ZSIDENAMES_H

static const char kSideStanza[] = "configuration-database";
static const char kSideKey[] = "file";
/// What the default name has behind the stanza file's.
static const char kSideSuffix[] = ".obf";

#endif
