// zdialectpatterns.h: where the presets of dialects are, and which paths they are for. Never
// installed.
#ifndef Z_ZDIALECTPATTERNS_H
#define Z_ZDIALECTPATTERNS_H

#include "ZLCString.h"
#include "zlayerterms.h"
#include "zmemory.h"

/// The roots below which presets are looked for, as ZDialects.h lists them.
class ZDialectRoots {
public:
    ZDialectRoots();
    ZDialectRoots(const ZDialectRoots&) = delete;
    ZDialectRoots& operator=(const ZDialectRoots&) = delete;

    /// Those of the files of one preset; they point to this object and to `name`.
    ZLayersTerms terms(const char* name) const;

private:
    void add(const char* root);

    ZVector<ZLCString> roots_;
    ZVector<const char*> pointers_;
};

/// A preset, with the one file that says all of it: the path is empty where several files may, or
/// where that isn't known.
struct ZDialectPreset {
    ZLCString name, path;
};

/// All presets, by name. A folder that can't be listed counts as if it weren't there.
void zlistDialects(const ZDialectRoots& roots, ZVector<ZDialectPreset>& presets);

/// The file of a preset; empty where there is none, or an empty one hides those of its name.
ZLCString zfileOfDialect(const class ZLayers& preset);

/// The patterns of all presets, as they were when this was made.
class ZDialectPatterns {
public:
    /// Reads each preset's file, and its drop-ins where there are any. Raises what loads raise.
    ZDialectPatterns();

    /// As ZDialects::ofFile, without reading anything.
    bool find(const char* path, ZLCString& name, ZLCString& pattern) const;

private:
    struct Pattern {
        ZLCString dialect, text;
    };
    void add(const ZLCString& dialect, const class ZStanzaFileProperties& preset);

    ZVector<Pattern> patterns_;
};

#endif
