#include "zfileinherit.h"

#include <fcntl.h>

int zsetfileinheritance(int fd, int inherit) {
    return fcntl(fd, F_SETFD, inherit != 0 ? 0 : FD_CLOEXEC) == 0;
}
