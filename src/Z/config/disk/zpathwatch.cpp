// Built with 64-bit file offsets and times on 32-bit machines too.
#include "zpathwatch.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "zinternal.h"
#include "zrootedway.h"

static const uint32_t kFileEvents =
    IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF;
static const uint32_t kFolderEvents = IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE |
                                      IN_CLOSE_WRITE | IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF |
                                      IN_ONLYDIR;
static const int kMostLinks = 40;  // as many as the system follows
static const unsigned long kOften = 1000;

static int64_t milliseconds() {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<int64_t>(time.tv_sec) * 1000 + time.tv_nsec / 1000000;
}

ZPathWatch::ZPathWatch(const char* path, const char* suffix)
    : path_(path),
      suffix_(suffix),
      paths_({{path, false, false}}),
      isSeveral_(false),
      all_(epoll_create1(EPOLL_CLOEXEC)),
      notices_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      timer_(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)),
      mounts_(zopenFile("/proc/self/mountinfo", O_RDONLY)),
      looksOften_(false),
      pending_(hasChanged),
      wasRead_(false),
      stamp_(),
      settling_(50),
      lastByte_(0),
      firstByte_(0) {
    if (all_.get() < 0 || timer_.get() < 0)
        zraiseIO(path, "epoll_create1()", errno);
    watchWith(notices_.get(), EPOLLIN);
    watchWith(timer_.get(), EPOLLIN);
    watchWith(mounts_.get(), EPOLLPRI);
    follow();
}

void ZPathWatch::watchWith(int descriptor, uint32_t events) {
    struct epoll_event event = {};
    event.events = events;
    event.data.fd = descriptor;
    if (descriptor >= 0)
        epoll_ctl(all_.get(), EPOLL_CTL_ADD, descriptor, &event);
}

void ZPathWatch::setTimer(unsigned long milliseconds, bool again) {
    struct itimerspec time = {};
    time.it_value.tv_sec = static_cast<time_t>(milliseconds / 1000);
    time.it_value.tv_nsec = static_cast<long>(milliseconds % 1000) * 1000000;
    if (again)
        time.it_interval.tv_sec = static_cast<time_t>(kOften / 1000);
    timerfd_settime(timer_.get(), 0, &time, nullptr);
}

// ---------------------------------------------------------------- the way to the file

// Until nothing changes any more: what was turned while it was followed may have gone unnoticed.
// Whether it was another way than before.
bool ZPathWatch::follow() {
    const bool lookedOften = looksOften_;
    looksOften_ = notices_.get() < 0;
    int times = 0;
    while (times < 5 && followOnce())
        ++times;
    if (looksOften_ != lookedOften)
        setTimer(looksOften_ ? kOften : 0, true);
    return times != 0;
}

bool ZPathWatch::setPaths(const ZVector<ZWatchedPath>& paths) {
    paths_ = paths;
    isSeveral_ = true;
    return follow();
}

static void pushNames(const char* path, ZVector<ZLCString>& parts) {
    zpushParts(path, parts);
    parts.erase(std::remove(parts.begin(), parts.end(), "."), parts.end());
}

// Whether the ways are others than before.
bool ZPathWatch::followOnce() {
    Watches before;
    std::swap(before, watches_);
    Steps steps;
    for (const ZWatchedPath& path : paths_)
        followPath(path, steps);
    forgetOthers(before);
    return !(before == watches_);
}

// As the system does.
void ZPathWatch::followPath(const ZWatchedPath& wanted, Steps& steps) {
    ZLCString folder("/");
    ZVector<ZLCString> parts;
    pushNames(wanted.path.getChars(), parts);
    char text[PATH_MAX];
    if (*wanted.path.getChars() != '/' && getcwd(text, sizeof text) != nullptr)
        pushNames(text, parts);
    for (int links = 0; !parts.empty();) {
        const ZLCString part(parts.back());
        parts.pop_back();
        if (part.equals("..")) {
            folder = zfolderOf(folder.getChars());
            continue;
        }
        const bool isLast = parts.empty();
        const int watch = watchWay(folder, steps);
        if (watch >= 0) {
            watches_.names.insert({watch, part});
            if (isLast && !wanted.isFolder)
                watches_.names.insert({watch, zbesideName(part.getChars(), suffix_.getChars())});
        }
        if (isLast && wanted.isLink)
            return;
        ZLCString target(folder);
        if (!folder.equals("/"))
            target.append('/');
        target.append(part);
        const Step& step = look(target, steps);
        if (step.kind == Step::nothing)
            return;
        if (step.kind == Step::link) {
            if (++links > kMostLinks)
                return;
            if (*step.target.getChars() == '/')
                folder = "/";
            pushNames(step.target.getChars(), parts);
        } else if (isLast && !wanted.isFolder) {
            // It is no link, or was none a moment ago.
            const int file = addWatch(target, kFileEvents | IN_DONT_FOLLOW);
            if (file >= 0)
                watches_.files.insert(file);
            return;
        } else {
            folder = target;
        }
    }
    if (!wanted.isFolder)
        return;
    const int watch = addWatch(folder, kFolderEvents | IN_MODIFY);
    if (watch >= 0)
        watches_.folders.insert(watch);
}

// Watching what is watched already changes nothing, or adds events. What is gone is no matter; what
// can't be watched is.
int ZPathWatch::addWatch(const ZLCString& path, uint32_t events) {
    if (notices_.get() < 0)
        return -1;
    const int watch = inotify_add_watch(notices_.get(), path.getChars(), events | IN_MASK_ADD);
    if (watch < 0 && errno != ENOENT && errno != ENOTDIR)
        looksOften_ = true;
    return watch;
}

int ZPathWatch::watchWay(const ZLCString& folder, Steps& steps) {
    Step& step = steps[folder];
    if (!step.isWatched)
        step.watch = addWatch(folder, kFolderEvents);
    step.isWatched = true;
    return step.watch;
}

const ZPathWatch::Step& ZPathWatch::look(const ZLCString& path, Steps& steps) {
    Step& step = steps[path];
    if (step.kind != Step::notAsked)
        return step;
    struct stat status;
    if (lstat(path.getChars(), &status) != 0) {
        step.kind = Step::nothing;
    } else if (!S_ISLNK(status.st_mode)) {
        step.kind = Step::other;
    } else {
        char text[PATH_MAX];
        const ssize_t length = readlink(path.getChars(), text, sizeof text);
        step.kind = length <= 0 ? Step::nothing : Step::link;
        if (length > 0)
            step.target = ZLCString(text, static_cast<unsigned int>(length));
    }
    return step;
}

bool ZPathWatch::Watches::has(int watch) const {
    const auto first = names.lower_bound({watch, ZLCString()});
    return (first != names.end() && first->watch == watch) || files.count(watch) != 0 ||
           folders.count(watch) != 0;
}

void ZPathWatch::forgetOthers(const Watches& before) {
    Numbers old(before.files);
    old.insert(before.folders.begin(), before.folders.end());
    for (const Name& name : before.names)
        old.insert(old.end(), name.watch);
    for (const int watch : old)
        if (!watches_.has(watch))
            inotify_rm_watch(notices_.get(), watch);  // again: it isn't there any more
}

// ---------------------------------------------------------------- notices

// A file by its own watch, or by a name in its folder's.
void ZPathWatch::noteBytes(int watch, uint32_t mask, const char* name) {
    if ((mask & IN_MODIFY) != 0) {
        lastByte_ = milliseconds();
        if (written_.empty())
            firstByte_ = lastByte_;
        written_.insert({watch, name});
    }
    if ((mask & (IN_CLOSE_WRITE | IN_MOVED_FROM | IN_DELETE)) != 0)
        written_.erase({watch, name});
}

void ZPathWatch::note(int watch, uint32_t mask, const char* name) {
    if ((mask & IN_Q_OVERFLOW) != 0) {
        pending_ = hasChanged;
        return;
    }
    if (watches_.files.count(watch) != 0) {
        pending_ = hasChanged;
        // Of one path, whatever stands there now is the file that is written to.
        noteBytes(isSeveral_ ? watch : -1, mask, "");
        return;
    }
    const bool isOwn = (mask & (IN_MOVE_SELF | IN_DELETE_SELF | IN_IGNORED | IN_UNMOUNT)) != 0;
    const bool isFolder = watches_.folders.count(watch) != 0;
    if (isFolder && !isOwn)
        noteBytes(watch, mask, name);
    if (isFolder || (isOwn ? watches_.has(watch) : watches_.names.count({watch, name}) != 0))
        pending_ = hasChanged;
}

void ZPathWatch::readNotices() {
    alignas(struct inotify_event) char buffer[4096];
    while (notices_.get() >= 0) {
        ssize_t size;
        {
            const ZUncancelled uncancelled;
            size = read(notices_.get(), buffer, sizeof buffer);
        }
        if (size < 0 && errno == EINTR)
            continue;
        if (size <= 0)
            return;
        for (const char* at = buffer; at < buffer + size;) {
            const struct inotify_event* event = reinterpret_cast<const struct inotify_event*>(at);
            at += sizeof *event + event->len;
            note(event->wd, event->mask, event->len != 0 ? event->name : "");
        }
    }
}

void ZPathWatch::noteReading(int descriptor) { wasRead_ = !zstampFile(descriptor, stamp_); }

// Where all is watched, a young file has no secrets: what comes later is told.
bool ZPathWatch::isAsRead() const {
    ZFileStamp before = stamp_, now;
    before.settled = before.settled || !looksOften_;
    return !isSeveral_ && wasRead_ && !zstampFile(path_.getChars(), now) &&
           zsameContent(before, now);
}

bool ZPathWatch::hasNews() {
    struct epoll_event events[4];
    const ZUncancelled uncancelled;
    const int count = epoll_wait(all_.get(), events, 4, 0);
    bool isNotice = false;
    for (int i = 0; i < count; ++i) {
        uint64_t times;
        if (events[i].data.fd == timer_.get() && read(timer_.get(), &times, sizeof times) < 0)
            continue;
        isNotice = isNotice || events[i].data.fd == notices_.get();
    }
    readNotices();
    // Always: of a mount nothing is left to see once the caller's poll has told him, whatever else
    // has come meanwhile.
    const bool isOtherWay = follow();
    if (pending_ == noNews && (isOtherWay || !isNotice))
        pending_ = mayHaveChanged;
    readNotices();  // of watches that were given up
    if (!written_.empty()) {
        const int64_t now = milliseconds(), settling = static_cast<int64_t>(settling_);
        // A writer that never stops is waited for twenty times as long, and no longer.
        if (now - lastByte_ < settling && now - firstByte_ < 20 * settling) {
            setTimer(static_cast<unsigned long>(settling - (now - lastByte_)) + 1, looksOften_);
            return false;
        }
        written_.clear();
    }
    const News news = pending_;
    pending_ = noNews;
    return news == hasChanged || (news == mayHaveChanged && !isAsRead());
}
