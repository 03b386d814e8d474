#include "ZFileMap.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "zuncancelled.h"

ZAbstractFileMap::ZAbstractFileMap(const ZLCString& name, zmapmode mode, int option)
    : name_(name), mode_(mode), option_(option), address_(nullptr), length_(0) {}

ZUnixFileMap::ZUnixFileMap(const ZLCString& name, zmapmode mode, int option)
    : ZAbstractFileMap(name, mode, option), handle_(0) {}

ZUnixFileMap::ZUnixFileMap(const ZUnixFileMap& other)
    : ZAbstractFileMap(other.name_, other.mode_, other.option_), handle_(0) {
    int ignored;
    if (other.address_ != nullptr)
        mapfile(&ignored, 0);
}

ZUnixFileMap& ZUnixFileMap::operator=(const ZUnixFileMap& other) {
    int ignored;
    if (this != &other && other.address_ != nullptr)
        mapfile(&ignored, 0);
    return *this;
}

ZUnixFileMap::~ZUnixFileMap() noexcept {
    int ignored;
    ZUnixFileMap::unmapfile(&ignored);
}

/// Makes the file `length` bytes long by writing its last byte. Best effort: what is missing shows
/// when the mapping is touched. Where the place can't be reached nothing is written, for that byte
/// would land at the front of the file.
static void extendTo(int handle, unsigned long length) {
    const char zero = 0;
    if (lseek(handle, static_cast<off_t>(length - 1), SEEK_SET) != -1) {
        const ssize_t written = write(handle, &zero, 1);
        static_cast<void>(written);
    }
    lseek(handle, 0, SEEK_SET);
}

void* ZUnixFileMap::mapfile(int* error, unsigned long length) {
    const ZUncancelled uncancelled;  // until the object owns descriptor and mapping
    *error = 0;
    struct stat status = {};
    if (stat(name_.getChars(), &status) == -1)
        *error = errno;
    const uint64_t size = static_cast<uint64_t>(status.st_size);
    if (size == 0)
        *error = ENOENT;
    if (length == 0 && (size == 0 || size > ULONG_MAX)) {
        *error = size == 0 ? EINVAL : EOVERFLOW;
        return nullptr;
    }
    const unsigned long wanted = length != 0 ? length : static_cast<unsigned long>(size);

    const bool creates = mode_ == mapReadWrite && *error == ENOENT;
    const int flags = O_NONBLOCK | (mode_ == mapRead ? O_RDONLY : O_RDWR) | (creates ? O_CREAT : 0);
    const int handle = open(name_.getChars(), flags, 0600);
    if (handle < 0)
        *error = errno;
    if (mode_ == mapReadWrite && handle > 0 && wanted > size)
        extendTo(handle, wanted);

    void* address = nullptr;
    if (handle > 0) {
        *error = 0;
        handle_ = handle;
        const int protection = mode_ == mapRead ? PROT_READ : PROT_READ | PROT_WRITE;
        address = mmap(nullptr, wanted, protection, MAP_SHARED, handle, 0);
        if (address == MAP_FAILED) {
            *error = errno;
            address = nullptr;
        } else {
            length_ = wanted;
        }
    }
    if (*error != 0) {
        int ignored;
        unmapfile(&ignored);
    }
    address_ = address;
    return address;
}

void ZUnixFileMap::unmapfile(int* error) {
    const ZUncancelled uncancelled;
    if (address_ != nullptr) {
        if (munmap(address_, length_) == -1)
            *error = errno;
        else
            address_ = nullptr;
    }
    if (handle_ != 0) {
        if (close(handle_) == -1)
            *error = errno;
        else
            handle_ = 0;
    }
}
