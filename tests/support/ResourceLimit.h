// ResourceLimit.h: a resource of the process that is short for a while.
#ifndef TESTS_SUPPORT_RESOURCELIMIT_H
#define TESTS_SUPPORT_RESOURCELIMIT_H

#include <sys/resource.h>

#include <cstdlib>

/// While one lives, the process may have no more of it than so much.
class ResourceLimit {
public:
    ResourceLimit(__rlimit_resource_t resource, rlim_t most) : resource_(resource) {
        if (getrlimit(resource_, &before_) != 0)
            abort();
        const rlimit limit = {most, before_.rlim_max};
        if (setrlimit(resource_, &limit) != 0)
            abort();
    }
    ~ResourceLimit() { setrlimit(resource_, &before_); }
    ResourceLimit(const ResourceLimit&) = delete;
    ResourceLimit& operator=(const ResourceLimit&) = delete;

private:
    const __rlimit_resource_t resource_;
    rlimit before_;
};

#endif
