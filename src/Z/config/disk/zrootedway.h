// zrootedway.h: the way along a path below a folder that is taken for "/", as in an
// image. Never installed.
//
// Part by part on descriptors: a folder that was entered stays the same whatever becomes of its
// name, a link is only text that is followed in here, and ".." goes back to where the way came
// from. So it never leads out, even while somebody turns links and moves folders.
#ifndef Z_ZROOTEDWAY_H
#define Z_ZROOTEDWAY_H

#include <deque>

#include "ZLCString.h"
#include "zmemory.h"
#include "zwholefile.h"

struct stat;

class ZRootedWay {
public:
    /// `root` is open, by O_PATH at least, as long as the way lives.
    explicit ZRootedWay(int root) : root_(root), links_(0), isNull_(false) {}
    ZRootedWay(const ZRootedWay&) = delete;
    ZRootedWay& operator=(const ZRootedWay&) = delete;

    /// Goes to what the path names, through a link in its last part too. 0, with its status, or an
    /// errno: ELOOP beyond 40 links. Once only.
    int go(const char* path, struct stat& status);

    /// Where it has led to: a name in an open folder, which is no link; "." is the folder itself.
    int folder() const { return entered_.empty() ? root_ : entered_.back().file.get(); }
    const char* name() const { return name_.getChars(); }
    /// Whether a link has led to /dev/null, be it there or not: the way ends there, with ENOTDIR.
    bool isNull() const { return isNull_; }
    /// Where that is, without links, from the root on. Of a way that has ended early, with the rest
    /// as it is named; empty if that goes back by "..".
    ZLCString place() const;
    /// Of a way that has ended early: the place of the part that it has come to.
    ZLCString end() const { return placeOf(rest_.empty() ? name_ : rest_.back()); }
    /// The places that it has come by and place() doesn't show: links, and folders that it went
    /// back from.
    const ZVector<ZLCString>& passed() const { return passed_; }

private:
    struct Entered {
        explicit Entered(const ZLCString& called) : name(called) {}
        ZOpenFile file;
        ZLCString name;
    };

    bool endsAtNull() const;
    int follow(const ZLCString& part);
    ZLCString placeOf(const ZLCString& name) const;

    const int root_;
    std::deque<Entered, ZVectorMemory<Entered>> entered_;  // each folder below the root
    ZVector<ZLCString> rest_;                              // what is left, the next part last
    ZLCString name_;
    ZVector<ZLCString> passed_;
    int links_;
    bool isNull_;
};

/// The parts of a path, the last one first, behind those that are in `parts` already; of those that
/// are empty only a last one remains, as ".".
void zpushParts(const char* path, ZVector<ZLCString>& parts);

#endif
