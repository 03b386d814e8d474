// zlayertree.cpp: lists the files of all roots, and looks at those that count.
//
// A name is looked at once, in its folder that is open; only a link is followed by its path. So
// thousands of drop-ins cost one call each.
//
// Built with 64-bit file offsets and times on 32-bit machines too.
#include "zlayertree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>

#include "zraise.h"
#include "zrootedway.h"
#include "zscope.h"
#include "zuncancelled.h"

static const size_t kFirstSize = offsetof(ZLayersTerms, flags) + sizeof(unsigned long);
static const unsigned long kFlags = ZLAYERS_MAY_BE_EMPTY | ZLAYERS_NEEDS_MAIN | ZLAYERS_USER |
                                    ZLAYERS_COLLECT | ZLAYERS_SKIP_BAD | ZLAYERS_REFUSE_UNSAFE |
                                    ZLAYERS_REFUSE_SHADOWED | ZLAYERS_CREDENTIALS;
static const char kOpenCall[] = "fopen(r)";

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

ZLayerTree::ZLayerTree(const ZLayersTerms& terms) : flags_(terms.flags) {
    zrequire(terms.size >= kFirstSize);
    // A wish that isn't known here can't be fulfilled.
    const char* bytes = reinterpret_cast<const char*>(&terms);
    for (size_t i = sizeof terms; i < terms.size; ++i)
        zrequire(bytes[i] == 0);
    zrequire((flags_ & ~kFlags) == 0);
    const char* name = terms.name;
    zrequire(name != nullptr && *name != '\0' && strchr(name, '/') == nullptr &&
             !isDots(name, strlen(name)));
    suffix_ = terms.suffix == nullptr ? ".conf" : terms.suffix;
    zrequire(strchr(suffix_.getChars(), '/') == nullptr);
    project_ = terms.project == nullptr ? "" : terms.project;
    for (const char* part = project_.getChars(); *part != '\0';) {
        const size_t length = strcspn(part, "/");
        zrequire(!isDots(part, length));
        part += length + (part[length] == '/');
    }
    mainName_ = name;
    mainName_.append(suffix_);
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
    const size_t length = strlen(name), suffix = suffix_.getLength();
    return length != 0 && *name != '.' && name[length - 1] != '~' && length >= suffix &&
           strcmp(name + length - suffix, suffix_.getChars()) == 0;
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

ZLCString ZLayerTree::mainPath() const {
    ZLCString path(prefix_);
    path.append(joined(folderOf(static_cast<unsigned int>(roots_.size()) - 1, false), mainName_));
    return path;
}

// ---------------------------------------------------------------- finding

class ZLayerTree::Finder {
public:
    Finder(const ZLayerTree& tree, ZVector<ZLayerFile>& files)
        : tree_(tree), files_(files), base_(tree.openBase()), baseError_(errno) {}

    void findMains();
    void listDropIns();
    void addDropIns();
    void addExtra();
    void findRepeated();

private:
    struct Listed {
        ZLCString name;
        unsigned int root;
    };
    enum Folder { isThere, isMissing, isBad };

    Folder openFolder(const ZLCString& path, ZOpenFile& folder, int& error) const;
    ZFailure list(unsigned int root);
    ZLayerFile& add(ZLayerFile::Kind kind, const ZLCString& name, unsigned int root);
    void hideAhead(size_t first, size_t winner);
    void look(int folder, const char* name, ZLayerFile& file) const;
    void judge(int folder, const char* name, const struct stat& status, ZLayerFile& file) const;

    const ZLayerTree& tree_;
    ZVector<ZLayerFile>& files_;
    const ZOpenFile base_;
    const int baseError_;
    std::deque<ZOpenFile, ZVectorMemory<ZOpenFile>> folders_;  // of the roots' drop-ins
    ZVector<Listed> listed_;
};

static bool isNothing(int error) { return error == ENOENT || error == ENOTDIR; }

static void setBad(ZLayerFile& file, const char* call, int error) {
    file.state = ZLayerFile::bad;
    file.call = call;
    file.error = error;
}

// By O_PATH; what is no folder is opened too.
ZLayerTree::Finder::Folder ZLayerTree::Finder::openFolder(const ZLCString& path, ZOpenFile& folder,
                                                          int& error) const {
    if (!tree_.hasPrefix()) {
        folder.reset(zopenFile(path.getChars(), O_PATH));
        error = folder.get() < 0 ? errno : 0;
    } else if (base_.get() < 0) {
        error = baseError_;
    } else {
        struct stat status;
        ZRootedWay way(base_.get());
        error = way.go(path.getChars(), status);
        if (way.isNull())
            return isBad;
        if (error == 0) {
            folder.reset(zopenFileAt(way.folder(), way.name(), O_PATH | O_NOFOLLOW));
            error = folder.get() < 0 ? errno : 0;
        }
    }
    return error == 0 ? isThere : isNothing(error) ? isMissing : isBad;
}

ZLayerFile& ZLayerTree::Finder::add(ZLayerFile::Kind kind, const ZLCString& name,
                                    unsigned int root) {
    files_.emplace_back();
    ZLayerFile& file = files_.back();
    file.name = name;
    file.kind = kind;
    file.root = static_cast<int>(root);
    file.other = -1;
    file.path = tree_.prefix_;
    file.path.append(tree_.placeOf(file));
    return file;
}

// Of those from `first` on, which have one name or are main files, one is left.
void ZLayerTree::Finder::hideAhead(size_t first, size_t winner) {
    for (size_t i = first; i < winner; ++i) {
        files_[i].state = ZLayerFile::hidden;
        files_[i].other = static_cast<int>(winner);
    }
}

void ZLayerTree::Finder::findMains() {
    const char* name = tree_.mainName_.getChars();
    ZOpenFile folder, winner;
    for (unsigned int root = 0; root < tree_.roots_.size(); ++root) {
        int error;
        struct stat status;
        const Folder state = openFolder(tree_.folderOf(root, false), folder, error);
        if (state != isThere && isNothing(error))
            continue;
        if (state == isThere && fstatat(folder.get(), name, &status, AT_SYMLINK_NOFOLLOW) != 0 &&
            isNothing(errno))
            continue;
        ZLayerFile& file = add(ZLayerFile::mainFile, tree_.mainName_, root);
        if (state == isBad)
            setBad(file, kOpenCall, error);
        winner.reset(folder.release());
    }
    if (files_.empty())
        return;
    hideAhead(0, files_.size() - 1);
    if (files_.back().state != ZLayerFile::bad)
        look(winner.get(), name, files_.back());
}

ZFailure ZLayerTree::Finder::list(unsigned int root) {
    ZVector<ZLCString> names;
    const ZFailure failure = zlistFolder(folders_[root].get(), names);
    for (const ZLCString& name : names)
        if (tree_.isDropInName(name.getChars()))
            listed_.push_back({name, root});
    return failure;
}

void ZLayerTree::Finder::listDropIns() {
    for (unsigned int root = 0; root < tree_.roots_.size(); ++root) {
        folders_.emplace_back();
        const ZLCString path(tree_.folderOf(root, true));
        int error;
        const Folder state = openFolder(path, folders_.back(), error);
        ZFailure failure;
        if (state == isBad)
            failure = {"opendir()", error, nullptr};
        else if (state == isThere)
            failure = list(root);
        if (!failure)
            continue;
        ZLayerFile& file =
            add(ZLayerFile::dropIn, ZLCString(strrchr(path.getChars(), '/') + 1), root);
        file.path = tree_.prefix_;
        file.path.append(path);
        setBad(file, failure.call, failure.error);
    }
}

void ZLayerTree::Finder::addDropIns() {
    ZVector<const Listed*> order;
    order.reserve(listed_.size());
    for (const Listed& listed : listed_)
        order.push_back(&listed);
    std::sort(order.begin(), order.end(), [](const Listed* a, const Listed* b) {
        const int names = strcmp(a->name.getChars(), b->name.getChars());
        return names != 0 ? names < 0 : a->root < b->root;
    });
    files_.reserve(files_.size() + order.size() + tree_.extra_.size());
    for (size_t i = 0; i < order.size();) {
        const size_t first = files_.size();
        const Listed* last;
        do {
            last = order[i++];
            add(ZLayerFile::dropIn, last->name, last->root);
        } while (i < order.size() && order[i]->name == last->name);
        hideAhead(first, files_.size() - 1);
        look(folders_[last->root].get(), last->name.getChars(), files_.back());
    }
}

void ZLayerTree::Finder::addExtra() {
    for (const ZLCString& path : tree_.extra_) {
        files_.emplace_back();
        ZLayerFile& file = files_.back();
        const char* name = strrchr(path.getChars(), '/');
        file.path = path;
        file.name = name == nullptr ? path.getChars() : name + 1;
        file.kind = ZLayerFile::extraFile;
        file.root = file.other = -1;
        look(AT_FDCWD, path.getChars(), file);
    }
}

void ZLayerTree::Finder::look(int folder, const char* name, ZLayerFile& file) const {
    const bool isExtra = file.kind == ZLayerFile::extraFile;
    struct stat status;
    if (fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return setBad(file, kOpenCall, errno);
    if (!S_ISLNK(status.st_mode))
        return judge(folder, name, status, file);
    file.isLink = true;
    if (!isExtra) {
        ZRootedWay way(base_.get());
        const int error = way.go(tree_.placeOf(file).getChars(), status);
        if (way.isNull()) {
            file.state = ZLayerFile::masks;
            return;
        }
        if (tree_.hasPrefix()) {
            if (error != 0)
                return setBad(file, kOpenCall, error);
            return judge(way.folder(), way.name(), status, file);
        }
    }
    if (fstatat(folder, name, &status, 0) != 0)
        return setBad(file, kOpenCall, errno);
    judge(folder, name, status, file);
}

void ZLayerTree::Finder::judge(int folder, const char* name, const struct stat& status,
                               ZLayerFile& file) const {
    static const mode_t kAllRead = S_IRUSR | S_IRGRP | S_IROTH;
    if (S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3)) {
        file.state = ZLayerFile::masks;
        return;
    }
    if (!S_ISREG(status.st_mode))
        return setBad(file, kOpenCall, S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
    if ((tree_.flags_ & ZLAYERS_REFUSE_UNSAFE) != 0 &&
        ((status.st_mode & S_IWOTH) != 0 || (status.st_uid != 0 && status.st_uid != geteuid())))
        return setBad(file, "fstat()", EPERM);
    const bool isMask = status.st_size == 0 && file.kind != ZLayerFile::extraFile;
    // Asked only where the mode leaves it open.
    if (!isMask && (status.st_mode & kAllRead) != kAllRead &&
        faccessat(folder, name, R_OK, AT_EACCESS) != 0 && errno == EACCES)
        return setBad(file, kOpenCall, EACCES);
    file.state = isMask ? ZLayerFile::masks : ZLayerFile::counts;
    zstampOf(status, file.stamp);
}

void ZLayerTree::Finder::findRepeated() {
    ZVector<int> order;
    for (size_t i = 0; i < files_.size(); ++i)
        if (files_[i].state == ZLayerFile::counts)
            order.push_back(static_cast<int>(i));
    const auto stampAt = [this](int i) -> const ZFileStamp& {
        return files_[static_cast<size_t>(i)].stamp;
    };
    std::sort(order.begin(), order.end(), [&](int a, int b) {
        const ZFileStamp &left = stampAt(a), &right = stampAt(b);
        if (left.inode != right.inode)
            return left.inode < right.inode;
        return left.device != right.device ? left.device < right.device : a > b;
    });
    for (size_t i = 1, last = 0; i < order.size(); ++i) {
        if (!zsameFile(stampAt(order[i]), stampAt(order[last]))) {
            last = i;
            continue;
        }
        ZLayerFile& file = files_[static_cast<size_t>(order[i])];
        file.state = ZLayerFile::repeated;
        file.other = order[last];
    }
}

void ZLayerTree::find(ZVector<ZLayerFile>& files) const {
    files.clear();
    Finder finder(*this, files);
    finder.findMains();
    finder.listDropIns();
    finder.addDropIns();
    finder.addExtra();
    finder.findRepeated();
}

// ---------------------------------------------------------------- what was found

int ZLayerTree::open(const ZLayerFile& file) const {
    static const int kMode = O_RDONLY | O_NONBLOCK | O_NOCTTY;
    struct stat status;
    ZFileStamp stamp = {};
    ZOpenFile opened;
    if (file.root < 0 || !hasPrefix()) {
        opened.reset(zopenFile(placeOf(file).getChars(), file.isLink ? kMode : kMode | O_NOFOLLOW));
    } else {
        const ZOpenFile base(openBase());
        if (base.get() < 0)
            return -1;
        ZRootedWay way(base.get());
        errno = way.go(placeOf(file).getChars(), status);
        if (errno != 0)
            return -1;
        opened.reset(zopenFileAt(way.folder(), way.name(), kMode | O_NOFOLLOW));
    }
    if (opened.get() < 0) {
        // It has become a link.
        if (errno == ELOOP)
            errno = ESTALE;
        return -1;
    }
    if (!zstampFile(opened.get(), stamp) && zsameFile(stamp, file.stamp))
        return opened.release();
    opened.close().passOver();
    errno = ESTALE;
    return -1;
}

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
        watch(base.get(), joined(folderOf(root, false), mainName_), false, out);
        watch(base.get(), folderOf(root, true), true, out);
    }
    for (const ZLayerFile& file : files) {
        if (file.kind == ZLayerFile::dropIn && file.isLink)
            watch(base.get(), placeOf(file), false, out);
    }
    for (const ZLCString& path : extra_)
        out.push_back({path, false, false});
}
