// Files mapped into memory.
#include "support/Prelude.h"

#include <sys/mman.h>

#include "Z/ZFileMap.h"
#include "support/FileState.h"
#include "support/TempFolder.h"

using std::string;

namespace {

typedef ZAbstractFileMap::zmapmode Mode;
const Mode kRead = ZAbstractFileMap::mapRead;
const Mode kReadWrite = ZAbstractFileMap::mapReadWrite;
const Mode kOther = static_cast<Mode>(7);

class FileMap : public testing::Test {
protected:
    FileMap() { folder.write("file", "0123456789"); }
    ZLCString named(const char* name) const { return ZLCString((folder / name).c_str()); }

    const TempFolder folder;
    const string path = folder / "file";
    const ZLCString name = named("file");
    int error = -1;
};

}  // namespace

TEST_F(FileMap, ResultsForEachSituation) {
    const struct {
        const char *what, *name;
        Mode mode;
        unsigned long length;
        int error, sizeAfter;  // -1: no such file, -2: no file
    } cases[] = {
        {"whole file", "file", kRead, 0, 0, 10},
        {"reading past the end", "file", kRead, 100, 0, 10},
        {"updating past the end", "file", kOther, 100, 0, 10},
        {"longer, writable", "file", kReadWrite, 100, 0, 100},
        {"empty file, whole", "empty", kRead, 0, EINVAL, 0},
        {"empty file with a length", "empty", kRead, 100, 0, 0},
        {"missing file, whole", "missing", kRead, 0, EINVAL, -1},
        {"missing file with a length", "missing", kRead, 100, ENOENT, -1},
        {"missing file, writable", "missing", kReadWrite, 100, 0, 100},
        {"directory missing", "none/file", kReadWrite, 100, ENOENT, -1},
        {"a directory, writable", ".", kReadWrite, 100, EISDIR, -2},
        {"a directory", ".", kRead, 100, ENODEV, -2},
        {"more than there is room for", "file", kRead, ~0ul, ENOMEM, 10},
    };
    const mode_t mask = umask(0);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const bool isMapped = c.error == 0;
        folder.write("file", "0123456789");
        folder.write("empty", "");
        unlink((folder / "missing").c_str());
        const int before = openDescriptors();
        {
            ZUnixFileMap map(named(c.name), c.mode, 1);
            void* const address = map.mapfile(&error, c.length);
            EXPECT_EQ(error, c.error);
            EXPECT_EQ(address != nullptr, isMapped);
            EXPECT_EQ(openDescriptors(), before + isMapped);
            EXPECT_TRUE(!isMapped || c.name != string("file") || !memcmp(address, "01234", 5));
            struct stat status;
            const bool exists = stat((folder / c.name).c_str(), &status) == 0;
            EXPECT_EQ(c.sizeAfter == -2 ? -2 : exists ? status.st_size : -1, c.sizeAfter);
            EXPECT_TRUE(!exists || c.name != string("missing") || (status.st_mode & 07777) == 0600)
                << "for its owner alone";
            error = 77;
            for (int time = 0; time < 2; ++time) {
                map.unmapfile(&error);
                EXPECT_EQ(error, 77);
                EXPECT_EQ(openDescriptors(), before);
            }
        }
    }
    umask(mask);
}

TEST_F(FileMap, ChangesReachTheFileAndTheDestructorUnmaps) {
    const int before = openDescriptors();
    const auto isMapped = [&] { return folder.read("/proc/self/maps").find(path) != string::npos; };
    {
        ZUnixFileMap map(name, kReadWrite, 1);
        void* const address = map.mapfile(&error, 0);
        ASSERT_NE(address, nullptr);
        memcpy(address, "abc", 3);
        EXPECT_TRUE(isMapped());
    }
    EXPECT_EQ(folder.read(path), "abc3456789");
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_FALSE(isMapped());
}

TEST_F(FileMap, CopiesOfAMappingMapAnew) {
    const int before = openDescriptors();
    ZUnixFileMap map(name, kRead, 1);
    {
        const ZUnixFileMap copy(map);  // not mapped, so nothing to do
        EXPECT_EQ(openDescriptors(), before);
        ASSERT_NE(map.mapfile(&error, 5), nullptr);
        const ZUnixFileMap second(map);
        EXPECT_EQ(openDescriptors(), before + 2);
        ZUnixFileMap missing(named("missing"), kRead, 1);
        missing = map;  // its own file, which isn't there
        ZUnixFileMap other(name, kRead, 1);
        other = map;
        EXPECT_EQ(openDescriptors(), before + 3);
    }
    EXPECT_EQ(openDescriptors(), before + 1);
}

TEST_F(FileMap, AFailedMappingUnmapsNoMoreThanThereWas) {
    const long page = sysconf(_SC_PAGESIZE);
    // Two pages, of which the object gets the first, with somebody else's behind it.
    char* const pages =
        static_cast<char*>(mmap(nullptr, 2 * page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(pages, MAP_FAILED);
    munmap(pages, page);
    ZUnixFileMap map(name, kRead, 1);
    if (map.mapfile(&error, 10) != pages)
        GTEST_SKIP() << "the system chose another place";
    unlink(path.c_str());
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    EXPECT_EQ(map.mapfile(&error, 2 * page), nullptr);
    EXPECT_EQ(error, ENODEV);
    EXPECT_EQ(msync(pages + page, page, MS_ASYNC), 0);
    munmap(pages + page, page);
}

TEST_F(FileMap, DescriptorZeroCountsAsNone) {
    folder.write("empty", "");
    const int input = dup(0);
    close(0);
    ZUnixFileMap map(name, kRead, 1);
    EXPECT_EQ(map.mapfile(&error, 0), nullptr);
    EXPECT_EQ(error, 0);
    close(0);
    ZUnixFileMap none(named("empty"), kRead, 1);
    EXPECT_EQ(none.mapfile(&error, 10), nullptr);
    EXPECT_EQ(error, ENOENT);
    dup2(input, 0);
    close(input);
}

// Beyond 4 GiB a 32-bit process can't map the whole, but any beginning.
TEST_F(FileMap, BigFilesAreNoTrouble) {
    if (truncate64(path.c_str(), (int64_t(1) << 32) + 10) != 0)
        GTEST_SKIP() << "no file system for big files";
    ZUnixFileMap map(name, kRead, 1);
    void* const address = map.mapfile(&error, 4096);
    ASSERT_NE(address, nullptr);
    EXPECT_EQ(memcmp(address, "01234", 5), 0);
    map.unmapfile(&error);
    EXPECT_EQ(map.mapfile(&error, 0) != nullptr, sizeof(void*) == 8);
    EXPECT_EQ(error, sizeof(void*) == 8 ? 0 : EOVERFLOW);
}
