// power.cpp: power cuts of a real file system, at each write that its disk has seen.
//
//   prove_power KIND STATES SEED
//
// KIND: ext4, ext4-1k, ext4-writeback, ext4-nodelalloc, xfs, btrfs. A file system of that kind is
// made in a file that a FUSE server keeps in memory, and mounted through a loop device. The server
// logs the bytes of each write, and each flush of the disk's cache, in their order. Processes make
// safe stores there, one scene after the other: texts that grow, shrink, stay, come and go, side
// databases that do, two and three stores one behind the other. Then the disk is made anew as a
// power cut leaves it: all writes up to the last flush before it, and of those behind it all, none,
// or by chance some, in pieces of 512 bytes. It is mounted, the file is loaded, and the next edit
// made and loaded. The content must be the old or the new one of the store that was under way, and
// where a store's process had ended, its new one. Some of the states are cut once more while the
// next edit mends them.
//
// Prints how many states there were, and the first that is wrong; 3: may not mount here. A disk
// that the file system itself takes for broken, since a block of its own was torn, says nothing of
// its files.
#define FUSE_USE_VERSION 31
#include <fcntl.h>
#include <fuse.h>
#include <linux/loop.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "Z/ZExceptionText.h"
#include "Z/ZStanzaFileProperties.h"

using std::string;

namespace {

[[noreturn]] void skip(const string& why) {
    printf("skipped: %s\n", why.c_str());
    exit(3);
}

// ---------------------------------------------------------------- a disk that logs

enum RecordType : uint32_t { written, flushed, marked };
struct Record {
    RecordType type;
    uint32_t size;    // of a write: its bytes follow in the log
    uint64_t offset;  // of a write; of a mark: its number
};

char* disk;  // the server's
size_t diskSize;
int logFile;  // in memory; whole records are appended by one call

void append(const Record& record, const char* bytes) {
    const iovec parts[] = {{const_cast<Record*>(&record), sizeof record},
                           {const_cast<char*>(bytes), record.size}};
    if (writev(logFile, parts, record.size != 0 ? 2 : 1) < 0)
        abort();
}

int diskGetattr(const char* path, struct stat* status, fuse_file_info*) {
    *status = {};
    const bool isRoot = strcmp(path, "/") == 0;
    if (!isRoot && strcmp(path, "/disk") != 0)
        return -ENOENT;
    status->st_mode = isRoot ? S_IFDIR | 0700 : S_IFREG | 0600;
    status->st_nlink = isRoot ? 2 : 1;
    status->st_size = isRoot ? 0 : static_cast<off_t>(diskSize);
    return 0;
}
int diskOpen(const char*, fuse_file_info* file) {
    file->direct_io = 1;
    return 0;
}
int diskRead(const char*, char* to, size_t size, off_t at, fuse_file_info*) {
    const size_t from = static_cast<size_t>(at);
    if (from >= diskSize)
        return 0;
    if (size > diskSize - from)
        size = diskSize - from;
    memcpy(to, disk + from, size);
    return static_cast<int>(size);
}
int diskWrite(const char*, const char* bytes, size_t size, off_t at, fuse_file_info*) {
    if (static_cast<size_t>(at) + size > diskSize)
        return -ENOSPC;
    memcpy(disk + at, bytes, size);
    append({written, static_cast<uint32_t>(size), static_cast<uint64_t>(at)}, bytes);
    return static_cast<int>(size);
}
int diskFsync(const char*, int, fuse_file_info*) {
    append({flushed, 0, 0}, nullptr);
    return 0;
}

void serve(const string& folder) {
    fuse_operations operations = {};
    operations.getattr = diskGetattr;
    operations.open = diskOpen;
    operations.read = diskRead;
    operations.write = diskWrite;
    operations.fsync = diskFsync;
    char name[] = "prove_power", single[] = "-s", foreground[] = "-f";
    string at = folder;
    char* arguments[] = {name, single, foreground, &at[0], nullptr};
    _exit(fuse_main(4, arguments, &operations, nullptr));
}

// ---------------------------------------------------------------- mounting

struct Kind {
    const char* name;
    const char* make;  // mkfs, ahead of the image
    const char* type;
    const char* options;
    size_t size;  // of the image, in MiB
};
const Kind kKinds[] = {
    {"ext4", "mkfs.ext4 -q -b 4096 -J size=4", "ext4", "", 12},
    {"ext4-1k", "mkfs.ext4 -q -b 1024 -J size=1", "ext4", "", 6},
    {"ext4-writeback", "mkfs.ext4 -q -b 4096 -J size=4", "ext4", "data=writeback", 12},
    {"ext4-nodelalloc", "mkfs.ext4 -q -b 4096 -J size=4", "ext4", "nodelalloc", 12},
    {"xfs", "mkfs.xfs -q -K --unsupported -l size=8m", "xfs", "nouuid", 32},
    {"btrfs", "mkfs.btrfs -q -M", "btrfs", "", 20},
};

string base;  // the folder of all this

// A loop device over a file.
class Loop {
public:
    explicit Loop(const string& path) : file_(open(path.c_str(), O_RDWR | O_CLOEXEC)) {
        const int control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
        for (int tries = 0; tries < 50 && device_ < 0; ++tries) {
            const int number = ioctl(control, LOOP_CTL_GET_FREE);
            name_ = "/dev/loop" + std::to_string(number);
            device_ = number < 0 ? -1 : open(name_.c_str(), O_RDWR | O_CLOEXEC);
            if (device_ >= 0 && ioctl(device_, LOOP_SET_FD, file_) != 0) {
                close(device_);
                device_ = -1;
            }
        }
        close(control);
        if (device_ < 0)
            skip("no loop device");
    }
    ~Loop() {
        ioctl(device_, LOOP_CLR_FD);
        close(device_);
        close(file_);
    }
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;
    const char* name() const { return name_.c_str(); }

private:
    int file_;
    int device_ = -1;
    string name_;
};

class Mount {
public:
    Mount(const Kind& kind, const string& image) : loop_(image), at_(base + "/mnt") {
        isMounted_ = ::mount(loop_.name(), at_.c_str(), kind.type, MS_NOATIME, kind.options) == 0;
        error_ = isMounted_ ? 0 : errno;
    }
    ~Mount() {
        if (isMounted_ && umount(at_.c_str()) != 0)
            umount2(at_.c_str(), MNT_DETACH);
    }
    int error() const { return error_; }

private:
    Loop loop_;
    const string at_;
    bool isMounted_;
    int error_;
};

// ---------------------------------------------------------------- contents

// What a file holds: everything says the generation. 0: there is no file.
struct Content {
    int generation;
    size_t filler;  // bytes of a long value; 0: no keys at all
    bool hidden;
};

typedef std::vector<Content> Scene;  // what is there first, and what each store makes of it

const Scene kScenes[] = {
    {{1, 700, false}, {2, 700, false}},                  // stays
    {{1, 100, false}, {2, 3000, false}},                 // grows
    {{1, 3000, false}, {2, 100, false}},                 // shrinks
    {{1, 7000, false}, {2, 5000, false}},                // shrinks within a block
    {{0, 0, false}, {1, 600, false}},                    // comes
    {{1, 600, false}, {2, 0, false}},                    // goes
    {{1, 600, false}, {2, 900, true}},                   // the first hidden value
    {{1, 600, true}, {2, 600, true}},                    // another one
    {{1, 2000, true}, {2, 90, false}},                   // the last one goes
    {{0, 0, false}, {1, 600, true}},                     // both come
    {{1, 100, false}, {2, 3000, true}, {3, 200, true}},  // two stores
    {{1, 3000, true}, {2, 100, true}, {1, 3000, true}},  // back to the first content
    {{1, 900, true}, {2, 5000, false}, {3, 50, false}, {1, 900, true}},
};

void setContent(ZStanzaFileProperties& p, const Content& content) {
    const string generation = std::to_string(content.generation);
    for (const char* stanza : {"s", "t", "u"})
        if (p.exists(stanza))
            p.deleteStanza(stanza);
    if (content.filler == 0)
        return;
    p.setValue("s", "k", generation.c_str());
    p.setValue("t", "filler",
               string(content.filler, static_cast<char>('a' + content.generation)).c_str());
    p.setValue("u", ("only" + generation).c_str(), "1");
    if (content.hidden)
        p.setValue("u", "h", generation.c_str(), 1);
}

string valueIn(const ZStanzaFileProperties& p, const char* stanza, const char* key) {
    ZLCString out;
    p.getValue(stanza, key, out, 0, "-");
    return out.getChars();
}

bool holds(const ZStanzaFileProperties& p, const Content& content) {
    if (content.filler == 0)
        return !p.exists("s") && !p.exists("t") && !p.exists("u");
    const string generation = std::to_string(content.generation);
    const int keys = content.hidden ? 2 : 1;
    return valueIn(p, "s", "k") == generation && p.count("u") == keys &&
           valueIn(p, "t", "filler") ==
               string(content.filler, static_cast<char>('a' + content.generation)) &&
           p.exists("u", ("only" + generation).c_str()) &&
           (!content.hidden || valueIn(p, "u", "h") == generation);
}

void load(ZStanzaFileProperties& p, const string& path, const Content& first) {
    p.setStoreMode(ZPROP_STORE_SAFE);
    if (first.generation != 0 || access(path.c_str(), F_OK) == 0)
        p.load(path.c_str());
}

// A process of its own makes the change.
void storeInChild(const string& path, const std::function<void(ZStanzaFileProperties&)>& change) {
    const pid_t child = fork();
    if (child == 0) {
        try {
            ZStanzaFileProperties p(1);
            load(p, path, {0, 0, false});
            change(p);
            p.store(path.c_str());
        } catch (ZException& e) {
            e.print();
            _exit(1);
        }
        _exit(0);
    }
    int status;
    if (waitpid(child, &status, 0) != child || status != 0) {
        printf("a store failed\n");
        exit(1);
    }
}

// ---------------------------------------------------------------- logging

std::vector<char> readImage(const string& path) {
    std::vector<char> bytes;
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    bytes.resize(static_cast<size_t>(lseek(file, 0, SEEK_END)));
    for (size_t at = 0; at < bytes.size();) {
        const ssize_t got = pread(file, &bytes[at], bytes.size() - at, static_cast<off_t>(at));
        if (got <= 0)
            abort();
        at += static_cast<size_t>(got);
    }
    close(file);
    return bytes;
}

struct Log {
    std::vector<char> image;  // what the disk held at first
    std::vector<char> bytes;
    std::vector<size_t> records;  // where each begins

    const Record& at(size_t i) const {
        return *reinterpret_cast<const Record*>(&bytes[records[i]]);
    }
    const char* data(size_t i) const { return &bytes[records[i] + sizeof(Record)]; }
};

// Of this file system alone: a sync of all would wait for others too.
void syncMount() {
    const int folder = open((base + "/mnt").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (syncfs(folder) != 0)
        abort();
    close(folder);
}

void mark(uint64_t number) { append({marked, 0, number}, nullptr); }

// Lets `work` run on a mounted disk that holds `image` at first, and logs what it writes.
Log logWhile(const Kind& kind, const std::vector<char>& image, const std::function<void()>& work) {
    logFile = memfd_create("log", 0);
    fcntl(logFile, F_SETFL, O_APPEND);
    diskSize = image.size();
    disk = static_cast<char*>(
        mmap(nullptr, diskSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    memcpy(disk, image.data(), diskSize);
    const string folder = base + "/fuse";
    const pid_t server = fork();
    if (server == 0)
        serve(folder);
    for (int tries = 0; access((folder + "/disk").c_str(), F_OK) != 0; ++tries) {
        if (tries == 500 || waitpid(server, nullptr, WNOHANG) == server)
            skip("no FUSE here");
        usleep(10000);
    }
    {
        Mount mount(kind, folder + "/disk");
        if (mount.error() != 0)
            skip(string("can't mount ") + kind.name + ": " + strerror(mount.error()));
        work();
    }
    umount2(folder.c_str(), MNT_DETACH);
    kill(server, SIGTERM);
    waitpid(server, nullptr, 0);
    munmap(disk, diskSize);
    Log log;
    log.image = image;
    log.bytes.resize(static_cast<size_t>(lseek(logFile, 0, SEEK_END)));
    if (pread(logFile, log.bytes.data(), log.bytes.size(), 0) !=
        static_cast<ssize_t>(log.bytes.size()))
        abort();
    close(logFile);
    for (size_t at = 0; at < log.bytes.size();) {
        log.records.push_back(at);
        at += sizeof(Record) + reinterpret_cast<const Record*>(&log.bytes[at])->size;
    }
    return log;
}

// ---------------------------------------------------------------- states

// One power cut: behind how many records, and which of the writes since the last flush went
// through.
struct Cut {
    size_t behind;
    enum Rest { all, none, some } rest;
    unsigned int seed;
};

void apply(std::vector<char>& image, const Log& log, const Cut& cut) {
    image = log.image;
    size_t flush = 0;
    for (size_t i = 0; i < cut.behind; ++i)
        if (log.at(i).type == flushed)
            flush = i;
    std::mt19937 chance(cut.seed);
    for (size_t i = 0; i < cut.behind; ++i) {
        const Record& record = log.at(i);
        if (record.type != written)
            continue;
        for (size_t at = 0; at < record.size; at += 512) {
            const size_t size = record.size - at < 512 ? record.size - at : 512;
            const bool goes =
                i < flush || cut.rest == Cut::all || (cut.rest == Cut::some && chance() % 2 != 0);
            if (goes)
                memcpy(&image[static_cast<size_t>(record.offset) + at], log.data(i) + at, size);
        }
    }
}

void writeImage(const string& path, const std::vector<char>& image) {
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    for (size_t at = 0; at < image.size();) {
        const ssize_t put = pwrite(file, &image[at], image.size() - at, static_cast<off_t>(at));
        if (put <= 0)
            abort();
        at += static_cast<size_t>(put);
    }
    close(file);
}

string fileOf(size_t scene) { return base + "/mnt/f" + std::to_string(scene); }

unsigned long states, before, after, mended;
unsigned long givenUp;  // disks whose own records were torn within a block, which no mount takes

// What is wrong with a file after a cut in its scene, with `done` stores ended; "" for nothing.
// `found` is the content.
string check(const string& path, const Scene& scene, size_t done, size_t& found) {
    size_t allowed[2] = {done, done + 1 < scene.size() ? done + 1 : done};
    try {
        ZStanzaFileProperties p(1);
        if (scene[done].generation != 0 || access(path.c_str(), F_OK) == 0)
            load(p, path, scene[done]);
        found = scene.size();
        for (const size_t i : allowed)
            if (holds(p, scene[i]))
                found = i;
        // A file that was made and not filled yet.
        if (found == scene.size())
            return "neither old nor new: k " + valueIn(p, "s", "k") + ", h " +
                   valueIn(p, "u", "h") + ", " + std::to_string(valueIn(p, "t", "filler").size()) +
                   " bytes";
        p.setValue("edit", "made", "yes");
        p.store(path.c_str());
        ZStanzaFileProperties again(1);
        load(again, path, {1, 1, false});
        if (valueIn(again, "edit", "made") != "yes" || !holds(again, scene[found]))
            return "the next edit is lost";
    } catch (ZPropertiesIOException& e) {
        return string(e.propFile()) + ": " + e.api() + ": " + strerror(e.excerrno());
    } catch (ZPropertiesInvalidDataException& e) {
        return string("bad data: ") + e.propFile() + ":" + std::to_string(e.badline());
    } catch (ZException&) {
        return "an exception";
    }
    return "";
}

[[noreturn]] void fail(const Kind& kind, size_t scene, const Cut& cut, const Log& log,
                       const string& why) {
    printf("%s, scene %zu, cut behind record %zu of %zu, rest %d, seed %u: %s\n", kind.name, scene,
           cut.behind, log.records.size(), cut.rest, cut.seed, why.c_str());
    const string kept = "/tmp/prove-power.image";
    std::vector<char> image;
    apply(image, log, cut);
    writeImage(kept, image);
    printf("its disk: %s\n", kept.c_str());
    exit(1);
}

// Mounts the disk that a cut leaves and checks a scene's file.
void tryCut(const Kind& kind, const Log& log, const Cut& cut, size_t number, const Scene& scene,
            size_t done) {
    std::vector<char> image;
    apply(image, log, cut);
    writeImage(base + "/image", image);
    Mount mount(kind, base + "/image");
    if (mount.error() != 0) {
        ++givenUp;
        return;
    }
    size_t found = 0;
    const string wrong = check(fileOf(number), scene, done, found);
    if (!wrong.empty())
        fail(kind, number, cut, log, wrong);
    ++states;
    ++(found == done ? before : after);
}

// Cuts once more, while the next edit is made after a cut.
void cutTheMending(const Kind& kind, const Log& log, const Cut& cut, size_t number,
                   const Scene& scene, size_t done, unsigned int most, std::mt19937& chance) {
    std::vector<char> image;
    apply(image, log, cut);
    const string path = fileOf(number);
    size_t found = scene.size();
    writeImage(base + "/image", image);
    if (Mount(kind, base + "/image").error() != 0) {
        ++givenUp;
        return;
    }
    const Log again = logWhile(kind, image, [&] {
        {
            ZStanzaFileProperties p(1);
            load(p, path, scene[done]);
            for (size_t i = done; i < scene.size() && i <= done + 1; ++i)
                if (holds(p, scene[i]))
                    found = i;
        }
        mark(0);
        storeInChild(path, [](ZStanzaFileProperties& p) { p.setValue("edit", "made", "yes"); });
        mark(1);
        syncMount();
    });
    if (found == scene.size())
        fail(kind, number, cut, log, "neither old nor new, to be mended");
    size_t from = 0;
    while (again.at(from).type != marked)
        ++from;
    for (unsigned int i = 0; i < most; ++i) {
        const size_t behind = from + chance() % (again.records.size() - from);
        const Cut next = {behind,
                          i % 4 == 0   ? Cut::all
                          : i % 4 == 1 ? Cut::none
                                       : Cut::some,
                          static_cast<unsigned int>(chance())};
        tryCut(kind, again, next, number, {scene[found]}, 0);
        ++mended;
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4)
        return 2;
    const Kind* kind = nullptr;
    for (const Kind& k : kKinds)
        if (strcmp(k.name, argv[1]) == 0)
            kind = &k;
    if (kind == nullptr)
        return 2;
    const unsigned long wanted = strtoul(argv[2], nullptr, 10);
    std::mt19937 chance(static_cast<unsigned int>(atoi(argv[3])));
    char folder[] = "/dev/shm/prove-power-XXXXXX";
    if (geteuid() != 0 || mkdtemp(folder) == nullptr)
        skip("only root may mount");
    base = folder;
    mkdir((base + "/mnt").c_str(), 0700);
    mkdir((base + "/fuse").c_str(), 0700);
    atexit([] {
        umount2((base + "/mnt").c_str(), MNT_DETACH);
        umount2((base + "/fuse").c_str(), MNT_DETACH);
        if (system(("rm -rf " + base).c_str()) != 0)
            perror("rm");
    });

    // A disk with what each scene begins with, at rest.
    const string image = base + "/first";
    if (truncate(image.c_str(), 0) != 0)
        close(open(image.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600));
    if (truncate(image.c_str(), static_cast<off_t>(kind->size << 20)) != 0 ||
        system((string(kind->make) + " " + image + " >/dev/null 2>&1").c_str()) != 0)
        skip(string("can't make ") + kind->name);
    static const size_t kCount = sizeof kScenes / sizeof *kScenes;
    {
        Mount mount(*kind, image);
        if (mount.error() != 0)
            skip(string("can't mount ") + kind->name + ": " + strerror(mount.error()));
        for (size_t i = 0; i < kCount; ++i)
            if (kScenes[i][0].generation != 0)
                storeInChild(fileOf(i),
                             [&](ZStanzaFileProperties& p) { setContent(p, kScenes[i][0]); });
        syncMount();
    }

    // Each scene has its part of the log, between two marks, and each store ends with one.
    std::vector<size_t> starts;
    const Log log = logWhile(*kind, readImage(image), [&] {
        for (size_t i = 0; i < kCount; ++i) {
            mark(i * 16);
            for (size_t store = 1; store < kScenes[i].size(); ++store) {
                storeInChild(fileOf(i),
                             [&](ZStanzaFileProperties& p) { setContent(p, kScenes[i][store]); });
                mark(i * 16 + store);
            }
            // Every other scene's rest comes to the disk by itself, in its own order.
            if (i % 2 == 0)
                syncMount();
        }
        mark(kCount * 16);
    });

    for (size_t i = 0; i < kCount; ++i) {
        size_t from = 0, to = 0;
        for (size_t r = 0; r < log.records.size(); ++r) {
            if (log.at(r).type == marked && log.at(r).offset == i * 16)
                from = r;
            if (log.at(r).type == marked && log.at(r).offset == (i + 1) * 16)
                to = r;
        }
        const unsigned long share = wanted / kCount + 1;
        for (unsigned long n = 0; n < share; ++n) {
            // Every point once as it is, then by chance.
            const size_t points = to - from + 1;
            const size_t behind = from + (n < points ? n : chance() % points);
            const Cut cut = {behind,
                             n < points                     ? Cut::all
                             : n < 2 * points && n % 2 == 0 ? Cut::none
                                                            : Cut::some,
                             static_cast<unsigned int>(chance())};
            size_t done = 0;
            for (size_t r = from; r < behind; ++r)
                if (log.at(r).type == marked)
                    done = static_cast<size_t>(log.at(r).offset - i * 16);
            if (n % 40 == 39)
                cutTheMending(*kind, log, cut, i, kScenes[i], done, 8, chance), n += 8;
            else
                tryCut(*kind, log, cut, i, kScenes[i], done);
        }
    }
    printf("%lu states, %lu old, %lu new, %lu in mending; each whole, and edited", states, before,
           after, mended);
    printf(givenUp != 0 ? "; %lu more disks that can't be mounted\n" : "\n", givenUp);
    return givenUp * 10 < states ? 0 : 1;
}
