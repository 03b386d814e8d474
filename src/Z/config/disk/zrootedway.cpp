// Built with 64-bit file offsets and times on 32-bit machines too.
#include "zrootedway.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

static const int kMostLinks = 40;  // as many as the system follows

void zpushParts(const char* path, ZVector<ZLCString>& parts) {
    ZVector<ZLCString> own;
    for (const char* at = path; *at != '\0';) {
        const size_t length = strcspn(at, "/");
        const bool isLast = at[length] == '\0' || at[length + 1] == '\0';
        if (length != 0)
            own.push_back(ZLCString(at, static_cast<unsigned int>(length)));
        // What has a slash behind it is a folder.
        if (at[length] == '/' && isLast)
            own.push_back(ZLCString("."));
        at += length + (at[length] == '/');
    }
    parts.insert(parts.end(), own.rbegin(), own.rend());
}

int ZRootedWay::go(const char* path, struct stat& status) {
    zpushParts(path, rest_);
    name_ = ".";
    while (!rest_.empty()) {
        if (links_ != 0 && endsAtNull()) {
            isNull_ = true;
            return ENOTDIR;
        }
        const ZLCString part(rest_.back());
        int error;
        if (part.equals(".")) {
            rest_.pop_back();
            continue;
        }
        if (part.equals("..")) {
            if (!entered_.empty()) {
                passed_.push_back(placeOf(ZLCString(".")));
                entered_.pop_back();
            }
            rest_.pop_back();
            continue;
        }
        if (rest_.size() == 1) {
            if (fstatat(folder(), part.getChars(), &status, AT_SYMLINK_NOFOLLOW) != 0)
                return errno;
            if (!S_ISLNK(status.st_mode)) {
                name_ = part;
                rest_.pop_back();
                return 0;
            }
            error = follow(part);
        } else {
            ZOpenFile next(
                zopenFileAt(folder(), part.getChars(), O_PATH | O_DIRECTORY | O_NOFOLLOW));
            if (next.get() >= 0) {
                entered_.emplace_back(part);
                entered_.back().file.reset(next.release());
                rest_.pop_back();
                continue;
            }
            error = errno == ENOTDIR || errno == ELOOP ? follow(part) : errno;
        }
        if (error != 0)
            return error;
    }
    return fstatat(folder(), ".", &status, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
}

// The next part is a link, or was one a moment ago.
int ZRootedWay::follow(const ZLCString& part) {
    char text[PATH_MAX];
    const ssize_t length = readlinkat(folder(), part.getChars(), text, sizeof text - 1);
    if (length < 0)
        return errno == EINVAL ? ENOTDIR : errno;
    if (++links_ > kMostLinks)
        return ELOOP;
    text[length] = '\0';
    if (*text == '\0')
        return ENOENT;
    passed_.push_back(placeOf(part));
    rest_.pop_back();
    if (*text == '/')
        entered_.clear();
    zpushParts(text, rest_);
    return 0;
}

bool ZRootedWay::endsAtNull() const {
    const size_t count = rest_.size();
    if (count == 0 || !rest_[0].equals("null"))
        return false;
    return (count == 2 && entered_.empty() && rest_[1].equals("dev")) ||
           (count == 1 && entered_.size() == 1 && entered_[0].name.equals("dev"));
}

ZLCString ZRootedWay::placeOf(const ZLCString& name) const {
    ZLCString place;
    for (const Entered& folder : entered_) {
        place.append('/');
        place.append(folder.name);
    }
    if (!name.equals(".")) {
        place.append('/');
        place.append(name);
    }
    return place;
}

ZLCString ZRootedWay::place() const {
    ZLCString place(placeOf(name_));
    for (size_t i = rest_.size(); i-- > 0;) {
        if (rest_[i].equals(".."))
            return ZLCString();
        if (rest_[i].equals("."))
            continue;
        place.append('/');
        place.append(rest_[i]);
    }
    if (place.getLength() == 0)
        place = "/";
    return place;
}
