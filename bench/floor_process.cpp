// floor_process.cpp: one edit as a process, as little of it as there can be: the libraries that
// zbase needs, and a file that is read, locked and written.
#include <fcntl.h>
#include <unistd.h>

#include <string>

int main(int argc, char** argv) {
    if (argc != 2)
        return 2;
    const int file = open(argv[1], O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    if (fcntl(file, F_SETLK, &lock) != 0)
        return 2;
    std::string text(65536, '\0');
    const ssize_t size = read(file, &text[0], text.size());
    return size < 0 || pwrite(file, text.data(), static_cast<size_t>(size), 0) != size;
}
