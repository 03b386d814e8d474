// zpathwatch.h: watches the way to a file: each folder of its path, each link on it, the file.
// Never installed.
//
// Somebody may turn a link anywhere on the path, put another folder in the place of one, take it
// away and bring it back, mount something over it, or write to the file. The watch follows the path
// as the system does, asks to be told of just these names, and follows it anew when one of them has
// changed. Of a part that is missing its folder is watched until it comes back.
//
// Where the system's own notices end (too many watches, a folder that may not be read), a timer has
// the caller look once a second.
#ifndef Z_ZPATHWATCH_H
#define Z_ZPATHWATCH_H

#include <cstdint>

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

    /// Readable when hasNews() has something to read.
    int descriptor() const { return all_.get(); }

    /// Reads what has come, without waiting, and follows the path anew. Whether the file is to be
    /// read. While a writer hasn't closed it, nothing counts until no byte has come for the
    /// settling time; the descriptor becomes readable then.
    bool hasNews();
    /// Whether that is waited for.
    bool isBeingWritten() const { return isWritten_; }

    /// The file is read now, as it is open here.
    void noteReading(int descriptor);

    /// Milliseconds; 0 waits for nobody.
    void setSettlingTime(unsigned long milliseconds) { settling_ = milliseconds; }

private:
    enum News { noNews, mayHaveChanged, hasChanged };

    struct Name {
        int watch;  // of its folder
        ZLCString name;
    };

    bool follow();
    bool followOnce();
    bool watchFolder(const ZLCString& path, int& watch);
    void watchFile(const ZLCString& path);
    void forgetOthers(const ZVector<Name>& before);
    void readNotices();
    bool isAsRead() const;
    void note(int watch, uint32_t mask, const char* name);
    bool isOnTheWay(int watch) const;
    bool concerns(int watch, const char* name) const;
    void setTimer(unsigned long milliseconds, bool again);
    void watchWith(int descriptor, uint32_t events);

    const ZLCString path_;
    const ZLCString suffix_;
    ZOpenFile all_;      // epoll over the others
    ZOpenFile notices_;  // inotify; none where there are none left
    ZOpenFile timer_;
    ZOpenFile mounts_;  // tells that something was mounted somewhere
    ZVector<Name> names_;
    int fileWatch_;    // of the file itself; -1 while there is none
    bool looksOften_;  // since not everything can be watched
    News pending_;
    bool wasRead_;
    ZFileStamp stamp_;  // when it was read last
    unsigned long settling_;
    bool isWritten_;    // bytes have come since anybody has closed it
    int64_t lastByte_;  // when, in milliseconds
    int64_t firstByte_;
};

#endif
