#include "zinet_ntop.h"

#include <arpa/inet.h>

const char* zinet_ntop(int family, const void* address, char* text, socklen_t size) {
    return inet_ntop(family, address, text, size);
}
