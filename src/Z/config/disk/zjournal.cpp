// Built with 64-bit file offsets and times on 32-bit machines too.
#include "zjournal.h"

#include <fcntl.h>
#include <sys/statfs.h>
#include <unistd.h>
#include <zlib.h>

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "zkeeplines.h"
#include "zraise.h"
#include "zgrammar.h"

static const char kMagic[8] = {'Z', 'B', 'A', 'S', 'E', 'J', '2', '\n'};

namespace {

struct Header {
    char magic[8];
    uint64_t textLength;
    uint64_t oldLength;
    uint64_t oldFrom;
    uint64_t oldCount;
    uint64_t sideLength;
    uint64_t inode;
    int64_t birth;
    uint32_t sideAction;
    uint32_t crc;
    uint32_t adler;
    uint32_t progress;
    int64_t placedAt;
    uint32_t progressCrc;
    uint32_t zero;
};
static_assert(sizeof(Header) == 96, "the layout is the same on both word sizes");
static const size_t kProgressAt = offsetof(Header, progress);
static const size_t kProgressSize = offsetof(Header, zero) - kProgressAt;

ZSpan spanOf(const Header& header) {
    return {reinterpret_cast<const char*>(&header), sizeof header};
}

// Both sums of the header, taken as if they and the progress were 0, and of what follows it. zlib
// counts in ints.
struct Sums {
    uLong crc = crc32(0, nullptr, 0);
    uLong adler = adler32(0, nullptr, 0);

    explicit Sums(Header header) {
        header.crc = header.adler = header.progress = header.progressCrc = 0;
        header.placedAt = 0;
        add(spanOf(header));
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

uint32_t progressCrc(const Header& header) {
    uLong crc = crc32(0, nullptr, 0);
    crc = crc32(crc, reinterpret_cast<const Bytef*>(&header.progress), sizeof header.progress);
    crc = crc32(crc, reinterpret_cast<const Bytef*>(&header.placedAt), sizeof header.placedAt);
    return static_cast<uint32_t>(crc);
}

// Which file an open one is, for as long as it exists. 0 for what can't be known for longer than
// the file system is mounted.
struct Identity {
    uint64_t inode = 0;
    int64_t birth = 0;

    explicit Identity(int descriptor) {
        struct statx status;
        if (statx(descriptor, "", AT_EMPTY_PATH, STATX_INO | STATX_BTIME, &status) != 0)
            return;
        if (numbersLast(descriptor))
            inode = status.stx_ino;
        if ((status.stx_mask & STATX_BTIME) != 0)
            birth = status.stx_btime.tv_sec * INT64_C(1000000000) + status.stx_btime.tv_nsec;
    }
    // Whether both can be of one file.
    bool agrees(uint64_t otherInode, int64_t otherBirth) const {
        return (inode == 0 || otherInode == 0 || inode == otherInode) &&
               (birth == 0 || otherBirth == 0 || birth == otherBirth);
    }

private:
    // Some file systems number their files anew with each mount.
    static bool numbersLast(int descriptor) {
        static const uint32_t kAnew[] = {0x4D44 /* FAT */, 0x2011BAB0 /* exFAT */,
                                         0x65735546 /* FUSE */};
        struct statfs system;
        if (fstatfs(descriptor, &system) != 0)
            return false;
        for (const uint32_t type : kAnew)
            if (static_cast<uint32_t>(system.f_type) == type)
                return false;
        return true;
    }
};

}  // namespace

// Where it would be, as long as no link is followed.
static ZLCString pathBeside(const char* file) {
    const char* name = znameOf(file);
    ZLCString path(file, static_cast<unsigned int>(name - file));
    path.append(zbesideName(name, kJournalSuffix));
    return path;
}

bool zisJournalName(const char* name) {
    static const size_t kLength = sizeof kJournalSuffix - 1;
    const size_t length = strlen(name);
    return length > kLength && strcmp(name + length - kLength, kJournalSuffix) == 0;
}

ZJournal::ZJournal(const char* path, int descriptor, bool isDirect)
    : filePath_(path),
      path_(pathBeside(path)),
      descriptor_(descriptor),
      isDirect_(isDirect),
      placeIsKnown_(false),
      isKnown_(false),
      text_{nullptr, 0},
      oldPart_{nullptr, 0},
      side_{nullptr, 0},
      sideAction_(zsideUntouched),
      oldLength_(0),
      oldFrom_(0),
      inode_(0),
      birth_(0),
      progress_(underWay),
      placedAt_(0) {}

ZFailure ZJournal::failed(const char* call) const { return zfailed(call).of(path()); }

// Where the file stands itself is looked for when it matters: mostly there is no journal.
ZFailure ZJournal::findPlace() {
    if (placeIsKnown_)
        return zdone;
    if (const ZFailure failure = place_.find(filePath_, descriptor_))
        return failure.of(filePath_);
    name_ = zbesideName(place_.name(), kJournalSuffix);
    path_ = place_.pathOf(name_.getChars());
    placeIsKnown_ = true;
    return zdone;
}

// ---------------------------------------------------------------- reading

// Whether anything has the journal's name; errno where not. Mostly nothing has, and a look by name
// tells.
bool ZJournal::isThere(struct stat& status) {
    if (!placeIsKnown_) {
        char link;
        if (isDirect_ || readlink(filePath_, &link, 1) < 0) {
            if (lstat(path(), &status) != 0)
                return false;
        }
        // If the file isn't there any more, what lies there isn't its journal.
        if (findPlace()) {
            errno = ENOENT;
            return false;
        }
    }
    return fstatat(place_.folder(), name_.getChars(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

// A journal that counts puts its content into the file, so only someone who may change the file
// anyway may have written it: its owner or root. Others can't give theirs to the owner.
bool ZJournal::mayBeOurs(const struct stat& status) const {
    struct stat file;
    return S_ISREG(status.st_mode) && status.st_nlink == 1 && fstat(descriptor_, &file) == 0 &&
           (status.st_uid == file.st_uid || status.st_uid == 0);
}

bool ZJournal::find() {
    struct stat status;
    if (!isThere(status)) {
        // A name that can't be looked at may be a journal's all the same.
        if (errno == EIO || errno == ENOMEM)
            zcheckIO(failed("stat()"));
        return false;
    }
    if (!mayBeOurs(status) || status.st_size < static_cast<off_t>(sizeof(Header)))
        return false;
    ZOpenFile journal(
        zopenFileAt(place_.folder(), name_.getChars(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK));
    if (journal.get() < 0 && (errno == ENOENT || errno == ELOOP))
        return false;  // its writer has just finished, or somebody plays with us
    if (journal.get() < 0)
        zcheckIO(failed("fopen(r)"));
    if (fstat(journal.get(), &status) != 0)
        zcheckIO(failed("stat()"));
    if (!mayBeOurs(status))
        return false;
    zcheckIO(zreadWholeFile(journal.get(), bytes_).of(path()));
    if (!parse() || !isOfThisFile() || !findSideName())
        return false;
    zcheckIO(zreadWholeFile(descriptor_, file_).of(filePath_));
    isKnown_ = true;
    return canBeLeft();
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
    const uint64_t lengths[] = {header.textLength, header.oldCount, header.sideLength};
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
        !(keptToEnd || keptInside) || header.zero != 0 ||
        (header.sideAction == zsideReplaced) != (header.sideLength != 0))
        return false;
    Sums sums(header);
    sums.add({bytes_.data() + sizeof header, static_cast<size_t>(left)});
    if (sums.crc != header.crc || sums.adler != header.adler || header.progress > onDisk ||
        header.progressCrc != progressCrc(header))
        return false;

    const char* at = bytes_.data() + sizeof header;
    text_ = {at, static_cast<size_t>(header.textLength)};
    oldPart_ = {at += text_.size, static_cast<size_t>(header.oldCount)};
    side_ = {at + oldPart_.size, static_cast<size_t>(header.sideLength)};
    sideAction_ = static_cast<ZSideAction>(header.sideAction);
    oldLength_ = header.oldLength;
    oldFrom_ = header.oldFrom;
    inode_ = header.inode;
    birth_ = header.birth;
    progress_ = static_cast<Progress>(header.progress);
    placedAt_ = header.placedAt;
    return true;
}

bool ZJournal::isOfThisFile() const { return Identity(descriptor_).agrees(inode_, birth_); }

// The parts must agree: a side database comes with a text that names it, and goes with one that
// did.
bool ZJournal::findSideName() {
    if (sideAction_ == zsideUntouched)
        return true;
    ZBytes old;
    ZSpan text = text_, value;
    if (sideAction_ == zsideRemoved) {
        oldText(old);
        text = {old.data(), old.size()};
    }
    if (!zfindValue(text, kSideStanza, kSideKey, value) || value.size == 0)
        return false;
    sideName_ = ZLCString(value.data, static_cast<unsigned int>(value.size));
    return true;
}

bool ZJournal::isSideBesideFile() const {
    ZPlace side;
    struct stat sideFolder, folder;
    ZLCString name(place_.name());
    name.append(kSideSuffix);
    return !side.find(sideName_.getChars()) && fstat(side.folder(), &sideFolder) == 0 &&
           fstat(place_.folder(), &folder) == 0 && sideFolder.st_dev == folder.st_dev &&
           sideFolder.st_ino == folder.st_ino && name.equals(side.name());
}

// As a whole value: not as the end of another name.
bool ZJournal::isSideNamedInFile() const {
    const char* const end = file_.data() + file_.size();
    const size_t length = sideName_.getLength();
    for (const char* at = file_.data(); at != end; ++at) {
        at = static_cast<const char*>(
            memmem(at, static_cast<size_t>(end - at), sideName_.getChars(), length));
        if (at == nullptr)
            return false;
        const char before = at == file_.data() ? '\0' : at[-1];
        const char behind = at + length == end ? '\n' : at[length];
        if ((before == ' ' || before == '=' || before == '\t') &&
            (behind == '\n' || behind == '\r'))
            return true;
    }
    return false;
}

// Bytes of the new text that are the old one's too aren't kept.
void ZJournal::oldText(ZBytes& out) const {
    zassert(oldFrom_ <= oldLength_ && oldFrom_ <= text_.size);
    out.setSize(0);
    out.reserveMore(static_cast<size_t>(oldLength_));
    // What is kept lies behind a beginning, and ahead of an end, that the new text has as well.
    const size_t start = static_cast<size_t>(oldFrom_), keptEnd = start + oldPart_.size;
    zappendBytes(out, {text_.data, start});
    zappendBytes(out, oldPart_);
    zappendBytes(out, {text_.data + keptEnd, static_cast<size_t>(oldLength_) - keptEnd});
}

bool ZJournal::canBeLeft() const {
    const ZSpan now = file();
    if (zequals(now, text_))
        return true;
    ZBytes bytes;
    oldText(bytes);
    const ZSpan old = {bytes.data(), bytes.size()};
    if (progress_ == onDisk || zequals(now, old))
        return false;
    ZFileStamp stamp;
    if (progress_ == placed && (zstampFile(descriptor_, stamp) || stamp.modified > placedAt_))
        return false;
    const size_t least = text_.size < old.size ? text_.size : old.size;
    const size_t most = text_.size > old.size ? text_.size : old.size;
    if (now.size < least || now.size > most)
        return false;
    for (size_t i = zfirstDifference(now, text_); i < now.size; ++i) {
        const char byte = now.data[i];
        const bool isNew = i < text_.size && byte == text_.data[i];
        const bool isOld = i < old.size && byte == old.data[i];
        if (!isNew && !isOld && (byte != 0 || i < least))
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

// What has the journal's name goes, or it is told whose it is.
ZFailure ZJournal::makeWay(const struct stat& status) {
    if (unlinkat(place_.folder(), name_.getChars(), 0) == 0 || errno == ENOENT)
        return zdone;
    const ZFailure failure = failed("unlink()");
    if (isKnown_ || mayBeOurs(status))
        return failure;
    char call[64];
    snprintf(call, sizeof call, "unlink() of what belongs to user %lu",
             static_cast<unsigned long>(status.st_uid));
    zraiseIO(path(), call, failure.error);
}

bool ZJournal::write(ZSpan text, ZSpan oldText, ZSideAction action, ZSpan side) {
    const size_t from = zfirstDifference(text, oldText);
    const size_t to =
        text.size == oldText.size ? lastDifference(text, oldText, from) : oldText.size;
    zassert(from <= to && (action == zsideReplaced) == (side.size != 0));
    const Identity identity(descriptor_);
    Header header = {};
    memcpy(header.magic, kMagic, sizeof kMagic);
    header.textLength = text.size;
    header.oldLength = oldText.size;
    header.oldFrom = from;
    header.oldCount = to - from;
    header.sideLength = side.size;
    header.inode = identity.inode;
    header.birth = identity.birth;
    header.sideAction = action;
    const ZSpan parts[] = {spanOf(header), text, {oldText.data + from, to - from}, side};
    Sums sums(header);
    for (size_t i = 1; i < sizeof parts / sizeof *parts; ++i)
        sums.add(parts[i]);
    header.crc = static_cast<uint32_t>(sums.crc);
    header.adler = static_cast<uint32_t>(sums.adler);
    header.progressCrc = progressCrc(header);

    zcheckIO(remove(true));
    zcheckIO(findPlace());
    journal_.reset(zopenFileAt(place_.folder(), name_.getChars(), O_WRONLY | O_CREAT | O_EXCL,
                               S_IRUSR | S_IWUSR));
    if (journal_.get() < 0)
        zcheckIO(failed("fopen(w)"));
    isKnown_ = true;
    // Its content comes behind its access.
    if (zcopyAccess(journal_.get(), descriptor_)) {
        zcheckIO(remove());
        return false;
    }
    if (const ZFailure failure = fill(parts)) {
        remove().passOver();
        zcheckIO(failure.of(path()));
    }
    return true;
}

template <size_t count>
ZFailure ZJournal::fill(const ZSpan (&parts)[count]) {
    uint64_t at = 0;
    for (const ZSpan& part : parts) {
        if (const ZFailure failure = zwriteAt(journal_.get(), part, at))
            return failure;
        at += part.size;
    }
    if (const ZFailure failure = sync())
        return failure;
    return place_.sync();
}

ZFailure ZJournal::openForMarks() {
    struct stat status;
    journal_.reset(
        zopenFileAt(place_.folder(), name_.getChars(), O_WRONLY | O_NOFOLLOW | O_NONBLOCK));
    if (journal_.get() < 0 || fstat(journal_.get(), &status) != 0)
        return failed("fopen(w)");
    return mayBeOurs(status) ? zdone : ZFailure{"fopen(w)", EPERM, path()};
}

ZFailure ZJournal::mark(Progress progress) {
    zassert(journal_.get() >= 0);
    Header header = {};
    header.progress = progress;
    if (progress == placed) {
        ZFileStamp stamp;
        if (const ZFailure failure = zstampFile(descriptor_, stamp))
            return failure.of(filePath_);
        header.placedAt = stamp.modified;
    }
    header.progressCrc = progressCrc(header);
    const ZSpan bytes = {spanOf(header).data + kProgressAt, kProgressSize};
    return zwriteAt(journal_.get(), bytes, kProgressAt).of(path());
}

ZFailure ZJournal::sync() const { return zresultOf(fsync(journal_.get()), "fsync()").of(path()); }

ZFailure ZJournal::remove(bool mustGo) {
    struct stat status = {};
    journal_.close().passOver();
    if (!isKnown_ && (!isThere(status) || (!mustGo && !mayBeOurs(status))))
        return zdone;
    const ZFailure failure = makeWay(status);
    // What is told as failed may have been done.
    if (!failure ||
        (fstatat(place_.folder(), name_.getChars(), &status, AT_SYMLINK_NOFOLLOW) != 0 &&
         errno == ENOENT))
        return zdone;
    ZOpenFile left(
        zopenFileAt(place_.folder(), name_.getChars(), O_WRONLY | O_NOFOLLOW | O_NONBLOCK));
    if (left.get() < 0 || fstat(left.get(), &status) != 0 || !mayBeOurs(status) ||
        ftruncate(left.get(), 0) != 0)
        return failure;
    unlinkat(place_.folder(), name_.getChars(), 0);  // an empty one may lie there
    return zdone;
}
