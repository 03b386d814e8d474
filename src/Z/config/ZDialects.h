// ZDialects.h: dialects by their names, as files describe them.
#ifndef Z_ZDIALECTS_H
#define Z_ZDIALECTS_H

#include "ZBuffer.h"
#include "ZLCString.h"
#include "zdialect.h"

/// A preset is a stanza file NAME.conf in the folder zbase/dialects below one of these, the lowest
/// first: the installation's data folder, those of $XDG_DATA_DIRS (else /usr/share and
/// /usr/local/share), /etc, and the user's $XDG_CONFIG_HOME (else $HOME/.config). Of one name the
/// highest counts; drop-ins NAME.conf.d/*.conf change single switches (see zlayerterms.h).
///
///     # What the file says of itself.
///     [dialect]
///     comments = hash
///     comments = semicolon
///     divider = either
///     [files]
///     pattern = */setup.cfg
///
/// Switches are named as the struct's members. Their words, the first one where nothing is said:
/// divider equals, colon, either, blank; tails no, blank, anywhere, hash, semicolon; bare no, yes;
/// continued no, indent, backslash, joined; quotes plain, git, shell; repeated no, merged,
/// numbered; names exact, folded, folded-blanks, folded-keys, folded-stanzas; orphans no, yes;
/// values all, last, reset; lines short, any. A line for each bit that is set have comments (hash,
/// semicolon) and headers (subsections, tails). Patterns are the shell's, over the absolute path; a
/// "*" takes slashes too.
/// Which dialect a file has is never guessed from what it holds.
///
/// Threads: any. Cost: reads the files anew each time, but for convert.
class ZEXPORT ZDialects {
public:
    /// Raises ZPropertiesIOException with "fopen(r)" and ENOENT where there is no preset of this
    /// name, or an empty file hides it; ZPropertiesInvalidDataException for one that has an unknown
    /// word or that clashes (the reason is its text), and what loads raise;
    /// ZInvalidParameterException for a name that can't be one.
    static void get(const char* name, ZDialect& dialect);
    /// The preset with the longest pattern that the path fits, of these the first by name, and that
    /// pattern. False if there is none. A relative path counts from the working directory; nothing
    /// is asked of the file. Raises as get.
    static bool ofFile(const char* path, ZLCString& name, ZLCString& pattern);
    /// Calls visit(data, name, description) for each preset, by name; the description is the first
    /// comment of its file, without "#".
    static void forEach(void (*visit)(void* data, const char* name, const char* description),
                        void* data);

    /// Makes `out` what the text says, spelled as is usual in another dialect; null for a dialect:
    /// the library's own. Stanzas, keys and comments keep their order; what stands behind a value
    /// goes ahead of its line where the other dialect has no such comments. A stanza that is there
    /// several times, numbered or not, is so there if it may be, else all of it stands where its
    /// first header does. Names get their first spelling. Calls leftOut(data, line, text, reason),
    /// unless that is null, for each line that can't be said there or says nothing: a line of a key
    /// of which a later one counts, one that says where hidden values are. Nothing is read or
    /// written but these bytes.
    /// Raises ZPropertiesInvalidDataException for a bad line, ahead of the first call, and
    /// ZInvalidParameterException for switches that clash. Cost: linear, but for names that the
    /// other dialect folds, which are looked for.
    static void convert(const ZDialect* from, const void* bytes, size_t length, const ZDialect* to,
                        ZBuffer& out,
                        void (*leftOut)(void* data, int line, const char* text, const char* reason),
                        void* data);
};

#endif
