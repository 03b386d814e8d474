// zlayertree.h: which files a layered configuration has, and in which order. Never installed.
//
// Names are data: what a folder lists is never taken for a pattern or a path. Each way is followed
// once, part by part where there is a prefix, so that no link leads out of it; the file that was
// opened is known by its inode.
#ifndef Z_ZLAYERTREE_H
#define Z_ZLAYERTREE_H

#include "ZLCString.h"
#include "zlayerterms.h"
#include "zmemory.h"
#include "zpathwatch.h"
#include "zwholefile.h"

/// A file that was found.
struct ZLayerFile {
    enum Kind { mainFile, dropIn, extraFile };
    enum State {
        counts,    // is read
        masks,     // is empty, or a link to /dev/null: hides those of lower roots, and is not read
        hidden,    // is hidden by `other`, a file of this name in a higher root
        repeated,  // is `other` once more, which stands at a later place
        bad        // can't be read, as call and error say
    };

    ZLCString path;  // with the prefix, for messages
    ZLCString name;  // its own; empty if it is a folder of drop-ins, which is bad
    Kind kind;
    State state;
    int root;   // the index in roots(); -1: none
    int other;  // an index in the list; -1: none
    const char* call;
    int error;
    ZFileStamp stamp;  // all zero if it is bad or hidden, or is masked by a link to /dev/null
    bool isLink;       // unless it is hidden: its name is a link
};

class ZLayerTree : public ZAllocated {
public:
    /// Copies what it needs, but no dialect. Raises ZInvalidParameterException for terms that can't
    /// be: an empty name, a "/" in name or a suffix, a name or a part of the project that is "." or
    /// "..", a relative root or prefix, unknown bits in `flags`, a `size` that is smaller than the
    /// struct's first version, or anything but zeros in what it has beyond this version.
    explicit ZLayerTree(const ZLayersTerms& terms);
    /// That of the terms, or null. Requires: such terms can be.
    static const ZDialect* dialectOf(const ZLayersTerms& terms);
    ZLayerTree(const ZLayerTree&) = delete;
    ZLayerTree& operator=(const ZLayerTree&) = delete;

    /// The roots, the lowest first, the user's last.
    const ZVector<ZLCString>& roots() const { return roots_; }
    /// Whether two findings are the same, content included: no file was changed in between, as far
    /// as stamps tell. The content of a file that is hidden doesn't matter.
    static bool areSame(const ZVector<ZLayerFile>& a, const ZVector<ZLayerFile>& b);
    /// Whether none of them is so young that another change might leave no trace in its stamp.
    static bool areSettled(const ZVector<ZLayerFile>& files);

    /// The folder of the root's main file, or of its drop-ins, without the prefix.
    ZLCString folderOf(unsigned int root, bool dropIns) const;
    const ZLCString& mainName() const { return mainName_; }
    /// The main file of the highest root, with the prefix.
    ZLCString mainPath() const;
    bool hasPrefix() const { return prefix_.getLength() != 0; }
    const ZLCString& prefix() const { return prefix_; }
    /// Opens, by O_PATH, the folder that is "/" for all but the extra files. -1 with errno.
    int openBase() const;
    /// Where a file is looked for, without the prefix.
    ZLCString placeOf(const ZLayerFile& file) const;
    /// The index of a root; null: the highest. -1 if there is no such one.
    int rootOf(const char* root) const;
    /// Whether a file of this name can be a drop-in.
    bool isDropInName(const char* name) const;
    /// A path below the prefix with all links on the way to its folder followed inside it, so that
    /// it can be given to the system; folders that aren't there yet are taken as they are named.
    /// False with errno if that can't be told.
    bool physicalPath(const char* path, ZLCString& out) const;
    /// What has to be watched to know of any change: the main files, the folders of drop-ins, and
    /// what links lead to; below a prefix the links themselves too. With the prefix. Some needn't
    /// be there.
    typedef ZWatchedPath Watched;
    void listWatched(const ZVector<ZLayerFile>& files, ZVector<Watched>& out) const;

private:
    friend class ZLayerFinding;

    void setRoots(const ZLayersTerms& terms);
    ZLCString mainPlace(unsigned int root) const;
    void watch(int base, const ZLCString& path, bool isFolder, ZVector<Watched>& out) const;

    ZVector<ZLCString> roots_;
    ZLCString prefix_;   // empty: none
    ZLCString project_;  // empty: none
    ZLCString dropInSuffix_;
    ZLCString mainName_;
    ZVector<ZLCString> extra_;
    unsigned long flags_;
};

#endif
