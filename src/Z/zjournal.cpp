// Built with 64-bit file offsets and times on 32-bit machines too.
#include "zjournal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstring>

#include "zwholefile.h"

static const char kMagic[8] = {'Z', 'B', 'A', 'S', 'E', 'J', '1', '\n'};
static const size_t kSector = 512;

namespace {

struct Header {
    char magic[8];
    uint64_t textLength;
    uint64_t oldLength;
    uint64_t oldFrom;
    uint64_t oldCount;
    uint64_t sideLength;
    uint32_t sideAction;
    uint32_t sideNameLength;
    uint32_t crc;
    uint32_t adler;
};
static_assert(sizeof(Header) == 64, "the layout is the same on both word sizes");

// Both sums of the header, taken as if they were 0, and of what follows it. zlib counts in ints.
struct Sums {
    uLong crc = crc32(0, nullptr, 0);
    uLong adler = adler32(0, nullptr, 0);

    explicit Sums(Header header) {
        header.crc = header.adler = 0;
        add({reinterpret_cast<const char*>(&header), sizeof header});
    }
    void add(ZSpan bytes) {
        static const size_t kMost = 1 << 30;
        for (size_t at = 0; at < bytes.size;) {
            const size_t count = bytes.size - at < kMost ? bytes.size - at : kMost;
            const Bytef* from = reinterpret_cast<const Bytef*>(bytes.data + at);
            crc = crc32(crc, from, static_cast<uInt>(count));
            adler = adler32(adler, from, static_cast<uInt>(count));
            at += count;
        }
    }
};

}  // namespace

size_t zfirstDifference(ZSpan a, ZSpan b) {
    const size_t most = a.size < b.size ? a.size : b.size;
    size_t at = 0;
    while (most - at >= kSector && memcmp(a.data + at, b.data + at, kSector) == 0)
        at += kSector;
    while (at < most && a.data[at] == b.data[at])
        ++at;
    return at;
}

void zcopyAccess(int descriptor, int model) {
    struct stat status;
    if (fstat(model, &status) != 0)
        return;
    // Who may not give a file away may still open it to the same people, but to no other group.
    struct stat own;
    mode_t mode = status.st_mode & 07777;
    if (fchown(descriptor, status.st_uid, status.st_gid) != 0 &&
        fchown(descriptor, static_cast<uid_t>(-1), status.st_gid) != 0 &&
        (fstat(descriptor, &own) != 0 || own.st_gid != status.st_gid))
        mode &= ~static_cast<mode_t>(S_IRWXG);
    const int granted = fchmod(descriptor, mode);
    (void)granted;
    static const char kAccessList[] = "system.posix_acl_access";
    char list[1024];
    const ssize_t length = fgetxattr(model, kAccessList, list, sizeof list);
    if (length > 0) {
        const int copied = fsetxattr(descriptor, kAccessList, list, static_cast<size_t>(length), 0);
        (void)copied;
    } else if (length < 0 && errno == ENODATA) {
        fremovexattr(descriptor, kAccessList);  // what the folder gives to new files
    }
}

ZJournal::ZJournal(const char* path)
    : target_(path),
      text_{nullptr, 0},
      oldPart_{nullptr, 0},
      side_{nullptr, 0},
      sideAction_(zsideUntouched),
      oldLength_(0),
      oldFrom_(0) {
    char link;
    if (readlink(path, &link, 1) >= 0)  // seldom, and cheaper to ask than to follow
        zfollowLinks(target_);
    name_ = target_;
    name_.append(kJournalSuffix);
}

// ---------------------------------------------------------------- reading

bool ZJournal::find(int descriptor) {
    if (access(name(), F_OK) != 0)
        return false;
    const int journal = open(name(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    struct stat status;
    if (journal < 0) {
        const int error = errno;
        // Its writer has just finished, or it is a link and none of ours, or was just begun: it gets
        // the file's access ahead of its content.
        if (error == ENOENT || error == ELOOP ||
            (stat(name(), &status) == 0 && status.st_size == 0))
            return false;
        Z_RAISE_IO(name(), "fopen(r)", error);
    }
    ZOpenFile guard(journal);
    if (fstat(journal, &status) != 0)
        Z_RAISE_IO(name(), "stat()", errno);
    if (!S_ISREG(status.st_mode) || status.st_size < static_cast<off_t>(sizeof(Header)) ||
        !mayComeFrom(status.st_uid, descriptor))
        return false;
    const int error = zreadWholeFile(journal, bytes_);
    if (error != 0)
        Z_RAISE_IO(name(), "read()", error);
    return parse() && belongsTo(descriptor);
}

// Whoever can make a file in the folder can put another one in the place of the stanza file, unless
// the folder keeps everybody from other people's files, as /tmp does. There a journal must come from
// somebody who can write the file anyway.
bool ZJournal::mayComeFrom(uid_t writer, int descriptor) const {
    struct stat folder, file;
    if (stat(zfolderOf(target()).getChars(), &folder) != 0 || fstat(descriptor, &file) != 0)
        Z_RAISE_IO(target(), "stat()", errno);
    return (folder.st_mode & S_ISVTX) == 0 || writer == 0 || writer == geteuid() ||
           writer == file.st_uid || writer == folder.st_uid;
}

// Finds the parts. False for what isn't a whole journal.
bool ZJournal::parse() {
    Header header;
    if (bytes_.size() < sizeof header)
        return false;
    memcpy(&header, bytes_.data(), sizeof header);
    if (memcmp(header.magic, kMagic, sizeof kMagic) != 0)
        return false;
    const uint64_t left = bytes_.size() - sizeof header;
    const uint64_t lengths[] = {header.textLength, header.oldCount, header.sideNameLength,
                                header.sideLength};
    uint64_t sum = 0;
    for (const uint64_t length : lengths) {
        if (length > left - sum)
            return false;
        sum += length;
    }
    // Old bytes that aren't kept are the new text's, so those must exist.
    const bool keptToEnd =
        header.oldFrom <= header.oldLength && header.oldCount == header.oldLength - header.oldFrom;
    const bool keptInside = header.oldLength == header.textLength &&
                            header.oldFrom <= header.oldLength &&
                            header.oldCount <= header.oldLength - header.oldFrom;
    if (sum != left || header.sideAction > zsideRemoved || header.oldFrom > header.textLength ||
        !(keptToEnd || keptInside))
        return false;
    Sums sums(header);
    sums.add({bytes_.data() + sizeof header, static_cast<size_t>(left)});
    if (sums.crc != header.crc || sums.adler != header.adler)
        return false;

    const char* at = bytes_.data() + sizeof header;
    text_ = {at, static_cast<size_t>(header.textLength)};
    oldPart_ = {at += text_.size, static_cast<size_t>(header.oldCount)};
    at += oldPart_.size;
    sideName_ = ZLCString(at, header.sideNameLength);
    side_ = {at + header.sideNameLength, static_cast<size_t>(header.sideLength)};
    sideAction_ = static_cast<ZSideAction>(header.sideAction);
    oldLength_ = header.oldLength;
    oldFrom_ = header.oldFrom;
    return true;
}

// Whether each sector of the file can be what the store left of it. Behind the old text's end a
// sector may also be empty: the file's length can reach the disk before its bytes.
bool ZJournal::belongsTo(int descriptor) const {
    ZBytes file;
    const int error = zreadWholeFile(descriptor, file);
    if (error != 0)
        Z_RAISE_IO(target(), "read()", error);
    const uint64_t size = file.size();
    if (size < (oldLength_ < text_.size ? oldLength_ : text_.size) ||
        size > (oldLength_ > text_.size ? oldLength_ : text_.size))
        return false;
    // The byte that the old text had there; -1 behind its end.
    const auto oldByte = [&](uint64_t i) -> int {
        if (i >= oldLength_)
            return -1;
        const bool kept = i >= oldFrom_ && i - oldFrom_ < oldPart_.size;
        return static_cast<unsigned char>(kept ? oldPart_.data[i - oldFrom_] : text_.data[i]);
    };
    // What lies ahead of the first difference is the same in both.
    const ZSpan all = {file.data(), file.size()};
    for (uint64_t start = zfirstDifference(all, text_) / kSector * kSector; start < size;
         start += kSector) {
        const uint64_t end = size - start < kSector ? size : start + kSector;
        uint64_t i = start;
        while (i < end && i < text_.size && file[i] == text_.data[i])
            ++i;
        while (i < end && static_cast<unsigned char>(file[i]) == oldByte(i))
            ++i;
        while (i < end && i >= oldLength_ && file[i] == 0)
            ++i;
        if (i != end)
            return false;
    }
    return true;
}

// ---------------------------------------------------------------- writing

// The last byte, from its end, in which texts of the same length differ, plus one.
static size_t lastDifference(ZSpan a, ZSpan b, size_t from) {
    size_t end = a.size;
    while (end > from && a.data[end - 1] == b.data[end - 1])
        --end;
    return end;
}

// Syncs the folder in which `path` stands. 0 or errno.
static int syncFolder(const ZLCString& path) {
    const int descriptor =
        open(zfolderOf(path.getChars()).getChars(), O_RDONLY | O_CLOEXEC | O_DIRECTORY);
    if (descriptor < 0)
        return errno;
    ZOpenFile guard(descriptor);
    return fsync(descriptor) == 0 ? 0 : errno;
}

void ZJournal::write(int descriptor, ZSpan text, ZSpan oldText, ZSideAction action,
                     const ZLCString& sideName, ZSpan side) {
    const size_t from = zfirstDifference(text, oldText);
    const size_t to =
        text.size == oldText.size ? lastDifference(text, oldText, from) : oldText.size;
    const ZSpan parts[] = {
        text, {oldText.data + from, to - from}, {sideName.getChars(), sideName.getLength()}, side};
    Header header = {};
    memcpy(header.magic, kMagic, sizeof kMagic);
    header.textLength = text.size;
    header.oldLength = oldText.size;
    header.oldFrom = from;
    header.oldCount = to - from;
    header.sideLength = side.size;
    header.sideAction = action;
    header.sideNameLength = sideName.getLength();
    Sums sums(header);
    for (const ZSpan& part : parts)
        sums.add(part);
    header.crc = static_cast<uint32_t>(sums.crc);
    header.adler = static_cast<uint32_t>(sums.adler);

    // A torn one that lies there doesn't count, whoever it belongs to: it makes way.
    if (unlink(name()) != 0 && errno != ENOENT)
        Z_RAISE_IO(name(), "unlink()", errno);
    const int journal = open(name(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (journal < 0)
        Z_RAISE_IO(name(), "fopen(w)", errno);
    ZOpenFile guard(journal);
    zcopyAccess(journal, descriptor);
    const char* call = "write()";
    int error = zwriteAt(journal, reinterpret_cast<const char*>(&header), sizeof header, 0);
    uint64_t at = sizeof header;
    for (const ZSpan& part : parts) {
        if (error == 0)
            error = zwriteAt(journal, part.data, part.size, at);
        at += part.size;
    }
    if (error == 0) {
        call = "fsync()";
        error = fsync(journal) == 0 ? 0 : errno;
    }
    if (error == 0)
        error = syncFolder(target_);
    if (error != 0) {
        remove();
        Z_RAISE_IO(name(), call, error);
    }
}

int ZJournal::remove() {
    if (unlink(name()) == 0 || errno == ENOENT)
        return 0;
    const int error = errno;
    if (truncate(name(), 0) != 0)
        return error;
    unlink(name());  // an empty one may lie there
    return 0;
}
