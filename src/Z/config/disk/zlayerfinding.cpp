// zlayerfinding.cpp: lists the files of all roots, and looks at those that count.
//
// A name is looked at and opened in its folder that is open; only a link is followed by its path.
// So thousands of drop-ins cost one short call each, and whether all is still as it was found is
// told without another list.
//
// Built with 64-bit file offsets and times on 32-bit machines too.
#include "zlayerfinding.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "zjournal.h"
#include "zrootedway.h"

static const char kOpenCall[] = "fopen(r)";
static const int kFolderMode = O_RDONLY | O_DIRECTORY | O_NONBLOCK;

static bool isNothing(int error) { return error == ENOENT || error == ENOTDIR; }

static void setBad(ZLayerFile& file, const char* call, int error) {
    file.state = ZLayerFile::bad;
    file.call = call;
    file.error = error;
}

// ---------------------------------------------------------------- folders

// The folder that is "/" for all but the extra files. Without a prefix only links need it.
int ZLayerFinding::base() const {
    if (base_.get() < 0 && baseError_ == 0) {
        base_.reset(tree_.openBase());
        baseError_ = base_.get() < 0 ? errno : 0;
    }
    errno = baseError_;
    return base_.get();
}

int ZLayerFinding::openFolder(const ZLCString& path, int flags, ZOpenFile& folder) const {
    if (!tree_.hasPrefix()) {
        folder.reset(zopenFile(path.getChars(), flags));
        return folder.get() < 0 ? errno : 0;
    }
    if (base() < 0)
        return errno;
    struct stat status;
    ZRootedWay way(base());
    const int error = way.go(path.getChars(), status);
    if (error != 0)
        return error;
    folder.reset(zopenFileAt(way.folder(), way.name(), flags | O_NOFOLLOW));
    return folder.get() < 0 ? errno : 0;
}

// Whether there is anything by this name; a link to /dev/null counts wherever that leads to.
bool ZLayerFinding::isSomething(const ZLCString& path) const {
    struct stat status;
    if (!tree_.hasPrefix())
        return stat(path.getChars(), &status) == 0;
    ZRootedWay way(base());
    return way.go(path.getChars(), status) == 0 || way.isNull();
}

ZFailure ZLayerFinding::list(unsigned int root) {
    Folder& folder = folders_[root];
    const ZLCString path(tree_.folderOf(root, true));
    folder.error = openFolder(path, kFolderMode, folder.opened);
    if (folder.error == ENOENT || (folder.error == ENOTDIR && !isSomething(path)))
        return zdone;
    if (folder.error != 0)
        return {"opendir()", folder.error, nullptr};
    // Ahead of the list, so that no change escapes both.
    const ZFailure stamped = zstampFile(folder.opened.get(), folder.stamp);
    ZVector<ZLCString> names;
    const ZFailure failure = stamped ? stamped : zlistFolder(folder.opened.get(), names);
    for (const ZLCString& name : names) {
        if (tree_.isDropInName(name.getChars()))
            listed_.push_back({name, root});
        folder.hasJournals = folder.hasJournals || zisJournalName(name.getChars());
    }
    folder.error = failure.error;
    return failure;
}

// ---------------------------------------------------------------- finding

ZLayerFile& ZLayerFinding::add(ZLayerFile::Kind kind, const ZLCString& name, unsigned int root,
                               ZVector<ZLayerFile>& files) const {
    files.emplace_back();
    ZLayerFile& file = files.back();
    file.name = name;
    file.kind = kind;
    file.root = static_cast<int>(root);
    file.other = -1;
    file.path = tree_.prefix_;
    file.path.append(tree_.placeOf(file));
    return file;
}

// Of those from `first` on, which have one name or are main files, one is left.
static void hideAllButLast(size_t first, ZVector<ZLayerFile>& files) {
    const size_t last = files.size() - 1;
    for (size_t i = first; i < last; ++i) {
        files[i].state = ZLayerFile::hidden;
        files[i].other = static_cast<int>(last);
    }
}

void ZLayerFinding::findMains(ZVector<ZLayerFile>& files) const {
    ZOpenFile folder, lastFolder;
    struct stat status, lastStatus;
    const char* name = tree_.mainName_.getChars();
    for (unsigned int root = 0; root < tree_.roots_.size(); ++root) {
        const ZLCString path(tree_.mainPlace(root));
        int error = 0;
        if (tree_.hasPrefix())
            error = openFolder(tree_.folderOf(root, false), O_PATH, folder);
        else
            name = path.getChars();
        if (error == 0 && fstatat(folder.get() < 0 ? AT_FDCWD : folder.get(), name, &status,
                                  AT_SYMLINK_NOFOLLOW) != 0)
            error = errno;
        if (isNothing(error))
            continue;
        ZLayerFile& file = add(ZLayerFile::mainFile, tree_.mainName_, root, files);
        if (error != 0)
            setBad(file, kOpenCall, error);
        lastFolder.reset(folder.release());
        lastStatus = status;
    }
    if (files.empty())
        return;
    hideAllButLast(0, files);
    ZLayerFile& last = files.back();
    if (last.state == ZLayerFile::bad)
        return;
    if (tree_.hasPrefix())
        judgeAny(lastFolder.get(), name, lastStatus, last);
    else
        judgeAny(AT_FDCWD, last.path.getChars(), lastStatus, last);
}

void ZLayerFinding::listDropIns(ZVector<ZLayerFile>& files) {
    for (unsigned int root = 0; root < tree_.roots_.size(); ++root) {
        folders_.emplace_back();
        const ZFailure failure = list(root);
        if (!failure)
            continue;
        const ZLCString path(tree_.folderOf(root, true));
        ZLayerFile& file = add(ZLayerFile::dropIn, ZLCString(), root, files);
        file.path = tree_.prefix_;
        file.path.append(path);
        setBad(file, failure.call, failure.error);
    }
}

void ZLayerFinding::addDropIns(ZVector<ZLayerFile>& files) const {
    ZVector<const Listed*> order;
    order.reserve(listed_.size());
    for (const Listed& listed : listed_)
        order.push_back(&listed);
    std::sort(order.begin(), order.end(), [](const Listed* a, const Listed* b) {
        const int names = strcmp(a->name.getChars(), b->name.getChars());
        return names != 0 ? names < 0 : a->root < b->root;
    });
    files.reserve(files.size() + order.size() + tree_.extra_.size());
    for (size_t i = 0; i < order.size();) {
        const size_t first = files.size();
        const Listed* last;
        do {
            last = order[i++];
            add(ZLayerFile::dropIn, last->name, last->root, files);
        } while (i < order.size() && order[i]->name == last->name);
        hideAllButLast(first, files);
        look(files.back());
    }
}

void ZLayerFinding::addExtra(ZVector<ZLayerFile>& files) const {
    for (const ZLCString& path : tree_.extra_) {
        files.emplace_back();
        ZLayerFile& file = files.back();
        const char* name = strrchr(path.getChars(), '/');
        file.path = path;
        file.name = name == nullptr ? path.getChars() : name + 1;
        file.kind = ZLayerFile::extraFile;
        file.root = file.other = -1;
        look(file);
    }
}

// At a drop-in or an extra file.
void ZLayerFinding::look(ZLayerFile& file) const {
    const bool isExtra = file.kind == ZLayerFile::extraFile;
    const int folder = isExtra ? AT_FDCWD : folders_[static_cast<size_t>(file.root)].opened.get();
    const char* name = isExtra ? file.path.getChars() : file.name.getChars();
    struct stat status;
    if (fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return setBad(file, kOpenCall, errno);
    judgeAny(folder, name, status, file);
}

void ZLayerFinding::judgeAny(int folder, const char* name, struct stat& status,
                             ZLayerFile& file) const {
    if (!S_ISLNK(status.st_mode))
        return judge(folder, name, status, file);
    file.isLink = true;
    if (file.kind != ZLayerFile::extraFile) {
        ZRootedWay way(base());
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

void ZLayerFinding::judge(int folder, const char* name, const struct stat& status,
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

static void findRepeated(ZVector<ZLayerFile>& files) {
    ZVector<int> order;
    for (size_t i = 0; i < files.size(); ++i)
        if (files[i].state == ZLayerFile::counts)
            order.push_back(static_cast<int>(i));
    const auto stampAt = [&files](int i) -> const ZFileStamp& {
        return files[static_cast<size_t>(i)].stamp;
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
        ZLayerFile& file = files[static_cast<size_t>(order[i])];
        file.state = ZLayerFile::repeated;
        file.other = order[last];
    }
}

void ZLayerFinding::find(ZVector<ZLayerFile>& files) {
    files.clear();
    findMains(files);
    listDropIns(files);
    addDropIns(files);
    addExtra(files);
    findRepeated(files);
}

// ---------------------------------------------------------------- what was found

int ZLayerFinding::open(const ZLayerFile& file) const {
    static const int kMode = O_RDONLY | O_NONBLOCK | O_NOCTTY;
    const ZLCString place(tree_.placeOf(file));
    ZOpenFile opened;
    if (file.kind == ZLayerFile::dropIn && !file.isLink) {
        opened.reset(zopenFileAt(folders_[static_cast<size_t>(file.root)].opened.get(),
                                 file.name.getChars(), kMode | O_NOFOLLOW));
    } else if (file.root < 0 || !tree_.hasPrefix()) {
        opened.reset(zopenFile(place.getChars(), file.isLink ? kMode : kMode | O_NOFOLLOW));
    } else {
        struct stat status;
        ZRootedWay way(base());
        errno = way.go(place.getChars(), status);
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
    ZFileStamp stamp = {};
    if (!zstampFile(opened.get(), stamp) && zsameFile(stamp, file.stamp))
        return opened.release();
    opened.close().passOver();
    errno = ESTALE;
    return -1;
}

// Who makes one has the file's lock, so that none begins while the file is read.
bool ZLayerFinding::hasNoJournal(const ZLayerFile& file) const {
    if (file.kind != ZLayerFile::dropIn || file.isLink)
        return false;
    const Folder& folder = folders_[static_cast<size_t>(file.root)];
    return folder.stamp.settled && !folder.hasJournals;
}

// Whether the folder of the root's drop-ins has the names that were listed in it; false if that
// can't be told without listing it again.
bool ZLayerFinding::isStillThere(unsigned int root) const {
    const Folder& folder = folders_[root];
    const ZLCString path(tree_.folderOf(root, true));
    if (folder.error != 0)
        return isNothing(folder.error) && !isSomething(path);
    ZFileStamp now = {};
    if (!tree_.hasPrefix())
        return !zstampFile(path.getChars(), now) && zsameContent(folder.stamp, now);
    ZOpenFile opened;
    return openFolder(path, O_PATH, opened) == 0 && !zstampFile(opened.get(), now) &&
           zsameContent(folder.stamp, now);
}

bool ZLayerFinding::isStill(const ZVector<ZLayerFile>& files) const {
    ZVector<ZLayerFile> now;
    bool isSame = !tree_.hasPrefix() || zleadsTo(tree_.prefix_.getChars(), base());
    for (unsigned int root = 0; isSame && root < tree_.roots_.size(); ++root) {
        isSame = isStillThere(root);
        if (!isSame && folders_[root].stamp.settled)
            return false;
    }
    if (!isSame) {
        ZLayerFinding(tree_).find(now);
        return ZLayerTree::areSame(files, now);
    }
    findMains(now);
    for (size_t i = now.size(); i < files.size(); ++i) {
        const ZLayerFile& file = files[i];
        now.push_back({file.path,
                       file.name,
                       file.kind,
                       file.state,
                       file.root,
                       file.other,
                       nullptr,
                       0,
                       {},
                       false});
        if (file.state != ZLayerFile::hidden)
            look(now.back());
    }
    findRepeated(now);
    return ZLayerTree::areSame(files, now);
}
