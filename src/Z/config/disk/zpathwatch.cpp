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

#include <cstring>

#include "zinternal.h"

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
      all_(epoll_create1(EPOLL_CLOEXEC)),
      notices_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      timer_(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)),
      mounts_(zopenFile("/proc/self/mountinfo", O_RDONLY)),
      fileWatch_(-1),
      looksOften_(false),
      pending_(hasChanged),
      wasRead_(false),
      stamp_(),
      settling_(50),
      isWritten_(false),
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

// The parts of a path, the last one first, behind those that are in `parts` already.
static void pushParts(const char* path, ZVector<ZLCString>& parts) {
    ZVector<ZLCString> own;
    for (const char* at = path; *at != '\0';) {
        const size_t length = strcspn(at, "/");
        if (length != 0 && !(length == 1 && *at == '.'))
            own.push_back(ZLCString(at, static_cast<unsigned int>(length)));
        at += length + (at[length] == '/');
    }
    parts.insert(parts.end(), own.rbegin(), own.rend());
}

// As the system does. Whether the way is another one than before.
bool ZPathWatch::followOnce() {
    ZVector<Name> before;
    before.swap(names_);
    const int fileBefore = fileWatch_;
    fileWatch_ = -1;

    ZLCString folder("/");
    ZVector<ZLCString> parts;
    pushParts(path_.getChars(), parts);
    char text[PATH_MAX];
    if (*path_.getChars() != '/' && getcwd(text, sizeof text) != nullptr)
        pushParts(text, parts);
    for (int links = 0; !parts.empty();) {
        const ZLCString part(parts.back());
        parts.pop_back();
        if (part.equals("..")) {
            folder = zfolderOf(folder.getChars());
            continue;
        }
        int watch = -1;
        if (watchFolder(folder, watch)) {
            names_.push_back({watch, part});
            if (parts.empty())
                names_.push_back({watch, zbesideName(part.getChars(), suffix_.getChars())});
        }
        ZLCString target(folder);
        if (!folder.equals("/"))
            target.append('/');
        target.append(part);
        struct stat status;
        if (lstat(target.getChars(), &status) != 0)
            break;
        if (S_ISLNK(status.st_mode)) {
            const ssize_t length = readlink(target.getChars(), text, sizeof text - 1);
            if (length <= 0 || ++links > kMostLinks)
                break;
            text[length] = '\0';
            if (*text == '/')
                folder = "/";
            pushParts(text, parts);
        } else if (parts.empty()) {
            watchFile(target);
        } else {
            folder = target;
        }
    }
    if (fileBefore >= 0)
        before.push_back({fileBefore, ZLCString()});
    forgetOthers(before);
    if (fileBefore >= 0)
        before.pop_back();
    bool isSame = before.size() == names_.size() && fileBefore == fileWatch_;
    for (size_t i = 0; isSame && i < before.size(); ++i)
        isSame = before[i].watch == names_[i].watch && before[i].name.equals(names_[i].name);
    return !isSame;
}

// Watching what is watched already changes nothing. A folder that is gone is no matter; one that
// can't be watched is.
bool ZPathWatch::watchFolder(const ZLCString& path, int& watch) {
    if (notices_.get() < 0)
        return false;
    watch = inotify_add_watch(notices_.get(), path.getChars(), kFolderEvents);
    if (watch < 0 && errno != ENOENT && errno != ENOTDIR)
        looksOften_ = true;
    return watch >= 0;
}

void ZPathWatch::watchFile(const ZLCString& path) {
    if (notices_.get() < 0)
        return;
    // The last part is no link, or was none a moment ago.
    fileWatch_ = inotify_add_watch(notices_.get(), path.getChars(), kFileEvents | IN_DONT_FOLLOW);
    if (fileWatch_ < 0 && errno != ENOENT && errno != ENOTDIR)
        looksOften_ = true;
}

void ZPathWatch::forgetOthers(const ZVector<Name>& before) {
    for (const Name& old : before) {
        bool isUsed = old.watch == fileWatch_;
        for (const Name& name : names_)
            isUsed = isUsed || name.watch == old.watch;
        if (!isUsed)
            inotify_rm_watch(notices_.get(), old.watch);  // again: it isn't there any more
    }
}

// ---------------------------------------------------------------- notices

bool ZPathWatch::concerns(int watch, const char* name) const {
    for (const Name& own : names_)
        if (own.watch == watch && own.name.equals(name))
            return true;
    return false;
}

bool ZPathWatch::isOnTheWay(int watch) const {
    for (const Name& own : names_)
        if (own.watch == watch)
            return true;
    return false;
}

void ZPathWatch::note(int watch, uint32_t mask, const char* name) {
    if ((mask & IN_Q_OVERFLOW) != 0) {
        pending_ = hasChanged;
        return;
    }
    if (watch == fileWatch_) {
        pending_ = hasChanged;
        if ((mask & IN_MODIFY) != 0) {
            lastByte_ = milliseconds();
            if (!isWritten_)
                firstByte_ = lastByte_;
            isWritten_ = true;
        }
        if ((mask & IN_CLOSE_WRITE) != 0)
            isWritten_ = false;
        return;
    }
    const bool isOwn = (mask & (IN_MOVE_SELF | IN_DELETE_SELF | IN_IGNORED | IN_UNMOUNT)) != 0;
    if (isOwn ? isOnTheWay(watch) : concerns(watch, name))
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
    return wasRead_ && !zstampFile(path_.getChars(), now) && zsameContent(before, now);
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
    if (isWritten_) {
        const int64_t now = milliseconds(), settling = static_cast<int64_t>(settling_);
        // A writer that never stops is waited for twenty times as long, and no longer.
        if (now - lastByte_ < settling && now - firstByte_ < 20 * settling) {
            setTimer(static_cast<unsigned long>(settling - (now - lastByte_)) + 1, looksOften_);
            return false;
        }
        isWritten_ = false;
    }
    const News news = pending_;
    pending_ = noNews;
    return news == hasChanged || (news == mayHaveChanged && !isAsRead());
}
