#include "ZLocalHostName.h"

#include <netdb.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

#include "ZException.h"
#include "zraise.h"
#include "zreport.h"
#include "zuncancelled.h"

static const size_t kRoom = 256;

ZLCString ZLocalHostName::getLocalHostName() {
    const std::unique_ptr<char, decltype(&free)> name(
        static_cast<char*>(zrequireMemory(malloc(kRoom))), &free);
    if (gethostname(name.get(), kRoom) != 0) {
        zreportCode(25, errno);
        return ZLCString();
    }
    // A thread that is cancelled in there leaves the resolver locked for the whole process.
    const ZUncancelled uncancelled;
    const hostent* host = gethostbyname(name.get());
    if (host == nullptr) {
        zreportCode(26, errno);
        return ZLCString();
    }
    return ZLCString(host->h_name);
}
