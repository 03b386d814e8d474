// Built with 64-bit file offsets and times on 32-bit machines too.
//
// Which dialect a file has is asked for each file that a command opens, so this has to be cheap:
// the folders are listed once for all presets, and one that no drop-in changes is read as a single
// file, with a third of the system calls that a layered configuration takes.
#include "zdialectpatterns.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "ZExceptionText.h"
#include "ZLayers.h"
#include "zinternal.h"
#include "zlayertree.h"
#include "zraise.h"
#include "zwholefile.h"

static const char kFolder[] = "zbase/dialects";
static const char kSuffix[] = ".conf", kDropIns[] = ".conf.d";

// ---------------------------------------------------------------- roots

ZDialectRoots::ZDialectRoots() {
    add(ZBASE_DATA_FOLDER);
    const char* folders = secure_getenv("XDG_DATA_DIRS");
    if (!zhasText(folders))
        folders = "/usr/local/share:/usr/share";
    // Written with the most important first.
    ZVector<ZLCString> given;
    for (const char* at = folders; *at != '\0';) {
        const size_t length = strcspn(at, ":");
        if (*at == '/')
            given.push_back(ZLCString(at, static_cast<unsigned int>(length)));
        at += length + (at[length] == ':');
    }
    for (auto root = given.rbegin(); root != given.rend(); ++root)
        add(root->getChars());
    add("/etc");
    for (const ZLCString& root : roots_)
        pointers_.push_back(root.getChars());
    pointers_.push_back(nullptr);
}

void ZDialectRoots::add(const char* root) {
    if (std::none_of(roots_.begin(), roots_.end(),
                     [root](const ZLCString& known) { return known.equals(root); }))
        roots_.push_back(ZLCString(root));
}

ZLayersTerms ZDialectRoots::terms(const char* name) const {
    ZLayersTerms terms = {};
    terms.size = sizeof terms;
    terms.name = name;
    terms.project = kFolder;
    terms.roots = pointers_.data();
    terms.flags = ZLAYERS_USER;
    return terms;
}

// ---------------------------------------------------------------- presets

// The name ahead of an ending; empty for a file without it.
static ZLCString ahead(const ZLCString& file, const char* ending) {
    const unsigned int length = file.getLength(), own = static_cast<unsigned int>(strlen(ending));
    return length > own && strcmp(file.getChars() + length - own, ending) == 0
               ? ZLCString(file.getChars(), length - own)
               : ZLCString();
}

void zlistDialects(const ZDialectRoots& roots, ZVector<ZDialectPreset>& presets) {
    const ZLayerTree tree(roots.terms("x"));
    ZVector<ZLCString> changed;  // names with a folder of drop-ins
    for (unsigned int root = 0; root < tree.roots().size(); ++root) {
        const ZLCString place(tree.folderOf(root, false));
        const ZOpenFile folder(zopenFile(place.getChars(), O_RDONLY | O_DIRECTORY));
        ZVector<ZLCString> listed;
        if (folder.get() < 0 || zlistFolder(folder.get(), listed))
            continue;
        for (const ZLCString& file : listed) {
            const ZLCString other(ahead(file, kDropIns));
            if (other.getLength() != 0)
                changed.push_back(other);
            const ZLCString name(ahead(file, kSuffix));
            if (name.getLength() == 0 || !tree.isDropInName(file.getChars()))
                continue;
            presets.push_back({name, place});
            presets.back().path.append('/').append(file);
        }
    }
    const auto isAhead = [](const ZDialectPreset& a, const ZDialectPreset& b) {
        return strcmp(a.name.getChars(), b.name.getChars()) < 0;
    };
    // Of one name the highest root comes last, and stays.
    std::stable_sort(presets.begin(), presets.end(), isAhead);
    const auto first = std::unique(
        presets.rbegin(), presets.rend(),
        [](const ZDialectPreset& a, const ZDialectPreset& b) { return a.name == b.name; });
    presets.erase(presets.begin(), first.base());
    for (ZDialectPreset& preset : presets)
        if (std::find(changed.begin(), changed.end(), preset.name) != changed.end())
            preset.path = ZLCString();
}

ZLCString zfileOfDialect(const ZLayers& preset) {
    ZLCString file;
    const auto keepCounting = [](void* to, const ZLayerInfo& info) {
        if (info.kind == ZLAYER_MAIN && info.state == ZLAYER_COUNTS)
            *static_cast<ZLCString*>(to) = ZLCString(info.path);
    };
    preset.forEachFile(keepCounting, &file);
    return file;
}

// ---------------------------------------------------------------- patterns

// Whether the one file could be read and has entries: an empty one hides others of its name.
static bool load(const ZLCString& path, ZStanzaFileProperties& file) {
    if (path.getLength() == 0)
        return false;
    try {
        file.setAttributes(ZPCACHE_STRICT, nullptr);
        file.load(path.getChars());
        return file.count() != 0;
    } catch (ZException&) {
        return false;
    }
}

ZDialectPatterns::ZDialectPatterns() {
    const ZDialectRoots roots;
    ZVector<ZDialectPreset> presets;
    zlistDialects(roots, presets);
    for (const ZDialectPreset& preset : presets) {
        ZStanzaFileProperties file(0);
        if (load(preset.path, file)) {
            add(preset.name, file);
            continue;
        }
        const ZLayers several(roots.terms(preset.name.getChars()), ZPCACHE_STRICT);
        if (zfileOfDialect(several).getLength() != 0)
            add(preset.name, several);
    }
}

void ZDialectPatterns::add(const ZLCString& dialect, const ZStanzaFileProperties& preset) {
    ZArrayList values(8, 1);
    preset.getValues("files", "pattern", values, ZPROP_STRING_LOCAL);
    for (unsigned int i = 0; i < values.size(); ++i)
        patterns_.push_back({dialect, *static_cast<const ZLCString*>(values.get(i))});
}

static ZLCString absolutePath(const char* path) {
    if (*path == '/')
        return ZLCString(path);
    char* folder = getcwd(nullptr, 0);
    if (folder == nullptr)
        zraiseIO(path, "getcwd()", errno);
    ZLCString absolute(folder);
    free(folder);
    absolute.append('/').append(path);
    return absolute;
}

bool ZDialectPatterns::find(const char* path, ZLCString& name, ZLCString& pattern) const {
    zrequire(zhasText(path));
    const ZLCString absolute(absolutePath(path));
    const Pattern* found = nullptr;
    for (const Pattern& one : patterns_)
        if ((found == nullptr || one.text.getLength() > found->text.getLength()) &&
            fnmatch(one.text.getChars(), absolute.getChars(), 0) == 0)
            found = &one;
    if (found == nullptr)
        return false;
    name = found->dialect;
    pattern = found->text;
    return true;
}
