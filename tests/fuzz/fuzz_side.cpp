// Any bytes as a side database, and any bytes as its records: reading ends in values or in the one
// exception, and what was read is written and read back to the same.
#include <zlib.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "Z/ZBuffer.h"
#include "Z/ZExceptionText.h"
#include "Z/ZSCFData.h"
#include "support/CacheText.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("QELDIR", "/opt/Quillmere/nls/QEL", 0);
    return 0;
}

static void read(const std::string& bytes) {
    ZSCFData cache;
    ZBuffer buffer(bytes.size(), const_cast<char*>(bytes.data()));
    try {
        cache.be_read_obfuscated(buffer);
    } catch (ZPropertiesInvalidDataException&) {
    }
    cache.checkInvariants();
    const std::string records = sideRecords(cache);
    if (records.empty())
        return;
    ZBuffer packed;
    cache.be_write_obfuscated(packed);
    ZSCFData again;
    again.be_read_obfuscated(packed);
    if (sideRecords(again) != records)
        abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;
    const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (data[0] % 2 == 0) {
        read(bytes);
        return 0;
    }
    std::string packed(compressBound(bytes.size()), '\0');
    uLongf length = packed.size();
    compress(reinterpret_cast<Bytef*>(&packed[0]), &length,
             reinterpret_cast<const Bytef*>(bytes.data()), bytes.size());
    packed.resize(length);
    read(packed);
    return 0;
}
