// zpathwatch.h: watches the way to a file: each folder of its path, each link on it, the file; or
// to many files and folders. Never installed.
//
// Somebody may turn a link anywhere on the path, put another folder in the place of one, take it
// away and bring it back, mount something over it, or write to the file. The watch follows the path
// as the system does, asks to be told of just these names, and follows it anew when one of them has
// changed. Of a part that is missing its folder is watched until it comes back.
//
// Several paths share what they have in common, so that thousands in a folder cost little more than
// one call each.
//
// Where the system's own notices end (too many watches, a folder that may not be read), a timer has
// the caller look once a second.
#ifndef Z_ZPATHWATCH_H
#define Z_ZPATHWATCH_H

#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <set>

#include "ZLCString.h"
#include "zmemory.h"
#include "zwholefile.h"

/// One of several paths to be watched.
struct ZWatchedPath {
    ZLCString path;
    bool isFolder;  // each name in it counts
    bool isLink;    // just the name that stands there: it isn't followed
};

class ZPathWatch : public ZAllocated {
public:
    /// Begins to watch. Something that stands beside the file under its name and `suffix` counts as
    /// the file. Raises ZPropertiesIOException with "epoll_create1()" if there are no descriptors
    /// left.
    ZPathWatch(const char* path, const char* suffix);

    /// Watches these paths in place of all before; what both need stays watched without a gap. Each
    /// is followed as the first one was; in a folder each name that comes, goes, is written to or
    /// gets other attributes counts, and so does the folder itself. Whether anything else is
    /// watched now than before: until now changes may have gone unnoticed there. Linear in their
    /// number, but for look-ups of names, and so is each hasNews() from then on.
    bool setPaths(const ZVector<ZWatchedPath>& paths);

    /// Readable when hasNews() has something to read.
    int descriptor() const { return all_.get(); }

    /// Reads what has come, without waiting, and follows the path anew. Whether the file is to be
    /// read; after setPaths, whether all are to be looked at, which only the caller can tell where
    /// nothing says why this was called. While a writer hasn't closed one of the files, nothing
    /// counts until no byte has come for the settling time; the descriptor becomes readable then.
    bool hasNews();
    /// Whether that is waited for.
    bool isBeingWritten() const { return !written_.empty(); }

    /// The file is read now, as it is open here. For the one path of the constructor.
    void noteReading(int descriptor);

    /// Milliseconds; 0 waits for nobody.
    void setSettlingTime(unsigned long milliseconds) { settling_ = milliseconds; }

private:
    enum News { noNews, mayHaveChanged, hasChanged };

    struct Name {
        int watch;  // of its folder
        ZLCString name;

        bool operator<(const Name& other) const {
            return watch != other.watch ? watch < other.watch : isAhead(name, other.name);
        }
        bool operator==(const Name& other) const {
            return watch == other.watch && name == other.name;
        }
    };
    static bool isAhead(const ZLCString& a, const ZLCString& b) {
        return strcmp(a.getChars(), b.getChars()) < 0;
    }
    struct ByBytes {
        bool operator()(const ZLCString& a, const ZLCString& b) const { return isAhead(a, b); }
    };
    template <typename T>
    using Set = std::set<T, std::less<T>, ZVectorMemory<T>>;
    typedef Set<Name> Names;
    typedef Set<int> Numbers;

    // What is watched, and why. An inode has one watch for all of it.
    struct Watches {
        Names names;      // in folders on the way
        Numbers files;    // watched for their bytes
        Numbers folders;  // in which each name counts

        bool has(int watch) const;
        bool operator==(const Watches& other) const {
            return names == other.names && files == other.files && folders == other.folders;
        }
    };
    // What stands at a path that holds no link, as seen in one turn.
    struct Step {
        enum { notAsked, nothing, link, other } kind = notAsked;
        ZLCString target;  // of a link
        bool isWatched = false;
        int watch = -1;  // of a folder on the way
    };
    typedef std::map<ZLCString, Step, ByBytes, ZVectorMemory<std::pair<const ZLCString, Step>>>
        Steps;

    bool follow();
    bool followOnce();
    void followPath(const ZWatchedPath& wanted, Steps& steps);
    int addWatch(const ZLCString& path, uint32_t events);
    int watchWay(const ZLCString& folder, Steps& steps);
    static const Step& look(const ZLCString& path, Steps& steps);
    void forgetOthers(const Watches& before);
    void readNotices();
    bool isAsRead() const;
    void note(int watch, uint32_t mask, const char* name);
    void noteBytes(int watch, uint32_t mask, const char* name);
    void setTimer(unsigned long milliseconds, bool again);
    void watchWith(int descriptor, uint32_t events);

    const ZLCString path_;  // of the constructor
    const ZLCString suffix_;
    ZVector<ZWatchedPath> paths_;
    bool isSeveral_;     // they were set
    ZOpenFile all_;      // epoll over the others
    ZOpenFile notices_;  // inotify; none where there are none left
    ZOpenFile timer_;
    ZOpenFile mounts_;  // tells that something was mounted somewhere
    Watches watches_;
    bool looksOften_;  // since not everything can be watched
    News pending_;
    bool wasRead_;
    ZFileStamp stamp_;  // when it was read last
    unsigned long settling_;
    Names written_;     // to which bytes have come since anybody has closed them
    int64_t lastByte_;  // when, in milliseconds
    int64_t firstByte_;
};

#endif
