// ResourceLimit.h: a resource of the process that is short for a while.
#ifndef TESTS_SUPPORT_RESOURCELIMIT_H
#define TESTS_SUPPORT_RESOURCELIMIT_H

#include <sys/resource.h>

#include <cstdlib>

/// While one lives, the process may have no more of it than so much.
class ResourceLimit {
public:
    ResourceLimit(int resource, rlim_t most) : resource_(resource) {
        if (getrlimit(of(), &before_) != 0)
            abort();
        const rlimit limit = {most, before_.rlim_max};
        if (setrlimit(of(), &limit) != 0)
            abort();
    }
    ~ResourceLimit() { setrlimit(of(), &before_); }
    ResourceLimit(const ResourceLimit&) = delete;
    ResourceLimit& operator=(const ResourceLimit&) = delete;

private:
    __rlimit_resource of() const { return static_cast<__rlimit_resource>(resource_); }

    const int resource_;
    rlimit before_;
};

#endif
