// ZPropertiesWatcher.h: notices when another process has stored a configuration file.
#ifndef Z_ZPROPERTIESWATCHER_H
#define Z_ZPROPERTIESWATCHER_H

#include "ZProperties.h"

class ZPathWatch;

/// Watches the file of a properties object, keeps the object up to date and its observers informed.
/// There is no thread in it: the caller polls the descriptor, beside others that he waits for, and
/// calls process() when there is something to read.
///
///     ZPropertiesWatcher watcher(file);
///     struct pollfd ready = {watcher.descriptor(), POLLIN, 0};
///     do
///         watcher.process();
///     while (poll(&ready, 1, -1) >= 0);
///
/// The first call deals with what has happened between the object's load and the watcher's
/// beginning.
///
/// The file may be rewritten in place or replaced by another one, as editors do; links anywhere on
/// its path may be turned, folders replaced, taken away and brought back, or mounted over. Where
/// the system can't tell of all that (inotify's limits, a folder that may not be read), the
/// descriptor becomes readable once a second, to look.
///
/// Of a configuration out of several files (ZLayers.h) all its files and folders are watched, also
/// those that aren't there yet, and what is told is how its values change.
///
/// Ownership: the properties object must outlive the watcher.
/// Failure: as each call says.
/// Threads: one at a time may call a watcher; the object's lock is taken where it is needed.
///   Observers are told by the thread that calls process(), when it has released the lock.
/// Cost: reading the file twice and comparing it with the object, for each change of the file.
class ZEXPORT ZPropertiesWatcher {
public:
    /// Begins to watch; the file needn't be there. Raises ZInvalidParameterException (22) for an
    /// object without a file, and ZPropertiesIOException (43) with "epoll_create1()" where there
    /// are no descriptors left.
    explicit ZPropertiesWatcher(ZProperties& properties);
    virtual ~ZPropertiesWatcher() noexcept;

    ZPropertiesWatcher(const ZPropertiesWatcher&) = delete;
    ZPropertiesWatcher& operator=(const ZPropertiesWatcher&) = delete;

    /// For poll or epoll: readable when something has happened around the file. The watcher's own.
    int descriptor() const { return descriptor_; }

    /// How long a file that somebody writes to, and hasn't closed, must have got no byte before it
    /// is read: 50 milliseconds at first; 0 waits for nobody.
    void setSettlingTime(unsigned long milliseconds);

    /// Reads what has come, without waiting. If the file has other content than the object, the
    /// object is loaded anew, and tell() is called once for each key that was added, deleted or has
    /// other values, and for each stanza that came or went. The number of these calls.
    ///
    /// Nothing is loaded, and the next call tries again, while the object has unsaved changes or is
    /// in an update, and while the file is missing or locked by a writer; a writer that ends makes
    /// the descriptor readable. Raises what load raises; the object is then what it was.
    int process();

protected:
    /// One difference. Tells the object's observers.
    virtual void tell(const ZPropertyChanged& change);

    /// The object that is kept up to date.
    ZProperties& properties() const { return properties_; }

private:
    ZProperties& properties_;
    ZPathWatch* watch_;
    int descriptor_;
    bool pending_;    // something has happened that process() hasn't dealt with
    ZLCString path_;  // as the object says it; of several files, of one
    bool isSeveral_;
};

#endif
