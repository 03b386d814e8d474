// Built with 64-bit file offsets and times on 32-bit machines too.
#include "zlayertree.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "zjournal.h"
#include "zraise.h"
#include "zrootedway.h"

static const size_t kFirstSize = offsetof(ZLayersTerms, flags) + sizeof(unsigned long);
static const unsigned long kFlags = ZLAYERS_MAY_BE_EMPTY | ZLAYERS_NEEDS_MAIN | ZLAYERS_USER |
                                    ZLAYERS_COLLECT | ZLAYERS_SKIP_BAD | ZLAYERS_REFUSE_UNSAFE |
                                    ZLAYERS_REFUSE_SHADOWED | ZLAYERS_CREDENTIALS;

// ---------------------------------------------------------------- terms

static ZLCString joined(const ZLCString& folder, const ZLCString& name) {
    ZLCString path(folder);
    if (!folder.equals("/"))
        path.append('/');
    path.append(name);
    return path;
}

// An absolute path, with one slash ahead of each part; that of "/" is empty.
static ZLCString folderPath(const char* path) {
    zrequire(*path == '/');
    ZLCString folder;
    for (; *path != '\0'; ++path)
        if (*path != '/' || (path[1] != '/' && path[1] != '\0'))
            folder.append(*path);
    return folder;
}

static bool isDots(const char* part, size_t length) {
    return (length == 1 && *part == '.') || (length == 2 && part[0] == '.' && part[1] == '.');
}

// A member that a caller's older struct doesn't have.
template <typename T>
static T later(const ZLayersTerms& terms, size_t offset) {
    T value = T();
    if (terms.size >= offset + sizeof value)
        memcpy(&value, reinterpret_cast<const char*>(&terms) + offset, sizeof value);
    return value;
}

const ZDialect* ZLayerTree::dialectOf(const ZLayersTerms& terms) {
    return later<const ZDialect*>(terms, offsetof(ZLayersTerms, dialect));
}

ZLayerTree::ZLayerTree(const ZLayersTerms& terms) : flags_(0) {
    zrequire(terms.size >= kFirstSize);
    flags_ = terms.flags;
    // A wish that isn't known here can't be fulfilled.
    const char* bytes = reinterpret_cast<const char*>(&terms);
    for (size_t i = sizeof terms; i < terms.size; ++i)
        zrequire(bytes[i] == 0);
    zrequire((flags_ & ~kFlags) == 0);
    const char* name = terms.name;
    zrequire(name != nullptr && *name != '\0' && strchr(name, '/') == nullptr &&
             !isDots(name, strlen(name)));
    const char* suffix = terms.suffix == nullptr ? ".conf" : terms.suffix;
    const char* ofDropIns = later<const char*>(terms, offsetof(ZLayersTerms, dropInSuffix));
    dropInSuffix_ = ofDropIns == nullptr ? suffix : ofDropIns;
    zrequire(strchr(suffix, '/') == nullptr && strchr(dropInSuffix_.getChars(), '/') == nullptr);
    project_ = terms.project == nullptr ? "" : terms.project;
    for (const char* part = project_.getChars(); *part != '\0';) {
        const size_t length = strcspn(part, "/");
        zrequire(!isDots(part, length));
        part += length + (part[length] == '/');
    }
    mainName_ = name;
    mainName_.append(suffix);
    if (terms.prefix != nullptr && *terms.prefix != '\0')
        prefix_ = folderPath(terms.prefix);
    setRoots(terms);
    for (const char* const* extra = terms.extra; extra != nullptr && *extra != nullptr; ++extra)
        extra_.push_back(ZLCString(*extra));
}

void ZLayerTree::setRoots(const ZLayersTerms& terms) {
    static const char* const kRoots[] = {"/usr/lib", "/usr/local/lib", "/run", "/etc", nullptr};
    const auto add = [this](const char* root) {
        const ZLCString path(folderPath(root));
        roots_.push_back(path.getLength() == 0 ? ZLCString("/") : path);
    };
    for (const char* const* root = terms.roots == nullptr ? kRoots : terms.roots; *root != nullptr;
         ++root)
        add(*root);
    zrequire(!roots_.empty());
    if ((flags_ & ZLAYERS_USER) == 0)
        return;
    const char* config = secure_getenv("XDG_CONFIG_HOME");
    const char* home = secure_getenv("HOME");
    if (config != nullptr && *config == '/')
        add(config);
    else if (home != nullptr && *home == '/')
        add(joined(folderPath(home), ".config").getChars());
}

ZLCString ZLayerTree::folderOf(unsigned int root, bool dropIns) const {
    ZLCString folder(roots_[root]);
    if (project_.getLength() != 0)
        folder = joined(folder, project_);
    if (dropIns) {
        folder = joined(folder, mainName_);
        folder.append(".d");
    }
    return folder;
}

int ZLayerTree::rootOf(const char* root) const {
    int index = static_cast<int>(roots_.size()) - 1;
    if (root == nullptr)
        return index;
    const ZLCString folder(folderPath(root));
    while (index >= 0 && !(roots_[static_cast<size_t>(index)] ==
                           (folder.getLength() == 0 ? ZLCString("/") : folder)))
        --index;
    return index;
}

bool ZLayerTree::isDropInName(const char* name) const {
    const size_t length = strlen(name), suffix = dropInSuffix_.getLength();
    return length != 0 && *name != '.' && name[length - 1] != '~' && length >= suffix &&
           strcmp(name + length - suffix, dropInSuffix_.getChars()) == 0 && !zisJournalName(name);
}

// The folder that is "/" for all but the extra files; open by O_PATH.
int ZLayerTree::openBase() const {
    return zopenFile(hasPrefix() ? prefix_.getChars() : "/", O_PATH | O_DIRECTORY);
}

ZLCString ZLayerTree::placeOf(const ZLayerFile& file) const {
    if (file.root < 0)
        return file.path;
    return joined(folderOf(static_cast<unsigned int>(file.root), file.kind == ZLayerFile::dropIn),
                  file.name);
}

ZLCString ZLayerTree::mainPlace(unsigned int root) const {
    return joined(folderOf(root, false), mainName_);
}

ZLCString ZLayerTree::mainPath() const {
    ZLCString path(prefix_);
    path.append(mainPlace(static_cast<unsigned int>(roots_.size()) - 1));
    return path;
}

// ---------------------------------------------------------------- what was found

static bool areSameStamps(const ZFileStamp& a, const ZFileStamp& b) {
    return zsameFile(a, b) && a.modified == b.modified && a.changed == b.changed &&
           a.size == b.size;
}

bool ZLayerTree::areSame(const ZVector<ZLayerFile>& a, const ZVector<ZLayerFile>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const ZLayerFile& left, const ZLayerFile& right) {
                          return left.path == right.path && left.kind == right.kind &&
                                 left.state == right.state && left.other == right.other &&
                                 left.error == right.error &&
                                 areSameStamps(left.stamp, right.stamp);
                      });
}

bool ZLayerTree::areSettled(const ZVector<ZLayerFile>& files) {
    return std::all_of(files.begin(), files.end(), [](const ZLayerFile& file) {
        return file.stamp.settled || file.stamp.inode == 0;
    });
}

bool ZLayerTree::physicalPath(const char* path, ZLCString& out) const {
    if (!hasPrefix()) {
        out = path;
        return true;
    }
    const char* name = strrchr(path, '/');
    name = name == nullptr ? path : name + 1;
    ZLCString folder(path, static_cast<unsigned int>(name - path));
    folder.append("/.");
    const ZOpenFile base(openBase());
    if (base.get() < 0)
        return false;
    struct stat status;
    ZRootedWay way(base.get());
    errno = way.go(folder.getChars(), status);
    const ZLCString place(way.place());
    if (errno != 0 && (errno != ENOENT || place.getLength() == 0))
        return false;
    ZLCString physical(prefix_);  // `path` may be the text of `out`
    physical.append(joined(place, ZLCString(name)));
    out = physical;
    return true;
}

void ZLayerTree::watch(int base, const ZLCString& path, bool isFolder,
                       ZVector<Watched>& out) const {
    const auto add = [&](const ZLCString& place, bool isFolderToo, bool isLink) {
        out.push_back({prefix_, isFolderToo, isLink});
        out.back().path.append(place);
    };
    if (!hasPrefix() || base < 0)
        return add(path, isFolder, false);
    struct stat status;
    ZRootedWay way(base);
    way.go(path.getChars(), status);
    for (const ZLCString& passed : way.passed())
        add(passed, false, true);
    // A link to /dev/null shows nothing else.
    if (way.isNull())
        return;
    const ZLCString place(way.place());
    if (place.getLength() != 0)
        add(place, isFolder, false);
    else
        add(way.end(), false, true);
}

void ZLayerTree::listWatched(const ZVector<ZLayerFile>& files, ZVector<Watched>& out) const {
    out.clear();
    const ZOpenFile base(openBase());
    for (unsigned int root = 0; root < roots_.size(); ++root) {
        watch(base.get(), mainPlace(root), false, out);
        watch(base.get(), folderOf(root, true), true, out);
    }
    for (const ZLayerFile& file : files) {
        if (file.kind == ZLayerFile::dropIn && file.isLink)
            watch(base.get(), placeOf(file), false, out);
    }
    for (const ZLCString& path : extra_)
        out.push_back({path, false, false});
}
