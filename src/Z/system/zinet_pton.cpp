#include "zinet_pton.h"

#include <arpa/inet.h>

int zinet_pton(int family, const char* text, void* address) {
    return inet_pton(family, text, address);
}
