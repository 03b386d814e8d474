// zlayerfinding.h: one search for the files of a layered configuration, its folders open while it
// lives. Never installed.
#ifndef Z_ZLAYERFINDING_H
#define Z_ZLAYERFINDING_H

#include <deque>

#include "zlayertree.h"

struct stat;

class ZLayerFinding {
public:
    explicit ZLayerFinding(const ZLayerTree& tree) : tree_(tree), baseError_(0) {}
    ZLayerFinding(const ZLayerFinding&) = delete;
    ZLayerFinding& operator=(const ZLayerFinding&) = delete;

    /// Makes `files` all files that there are, in the order in which they count: the main files by
    /// their roots, folders of drop-ins that are bad, the drop-ins by name and root, the extra
    /// ones. What can't be read is an entry that is bad; one that only its access list or the
    /// system's policy keeps from being read shows in open(). Linear in their number, but for
    /// sorting names. Once only.
    void find(ZVector<ZLayerFile>& files);
    /// Opens one that counts, to be read. -1 with errno: ESTALE if another file stands there now.
    int open(const ZLayerFile& file) const;
    /// Whether the file, once it is open, certainly has no journal beside it, unless isStill() says
    /// no then.
    bool hasNoJournal(const ZLayerFile& file) const;
    /// Whether another search would find these files, which find() has told, as areSame() says. A
    /// folder that was found long enough after its last change isn't listed again; if it has
    /// changed in any way the answer is no.
    bool isStill(const ZVector<ZLayerFile>& files) const;

private:
    struct Folder {
        ZOpenFile opened;  // none: there is no such folder
        ZFileStamp stamp;
        int error = 0;
        bool hasJournals = false;
    };
    struct Listed {
        ZLCString name;
        unsigned int root;
    };

    int base() const;
    int openFolder(const ZLCString& path, int flags, ZOpenFile& folder) const;
    bool isSomething(const ZLCString& path) const;
    bool isStillThere(unsigned int root) const;
    ZLayerFile& add(ZLayerFile::Kind kind, const ZLCString& name, unsigned int root,
                    ZVector<ZLayerFile>& files) const;
    void findMains(ZVector<ZLayerFile>& files) const;
    ZFailure list(unsigned int root);
    void listDropIns(ZVector<ZLayerFile>& files);
    void addDropIns(ZVector<ZLayerFile>& files) const;
    void addExtra(ZVector<ZLayerFile>& files) const;
    void look(ZLayerFile& file) const;
    void judgeAny(int folder, const char* name, struct stat& status, ZLayerFile& file) const;
    void judge(int folder, const char* name, const struct stat& status, ZLayerFile& file) const;

    const ZLayerTree& tree_;
    mutable ZOpenFile base_;
    mutable int baseError_;
    std::deque<Folder, ZVectorMemory<Folder>> folders_;  // of the roots' drop-ins
    ZVector<Listed> listed_;
};

#endif
