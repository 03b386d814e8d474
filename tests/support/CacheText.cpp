#include "support/CacheText.h"

#include <zlib.h>

#include <cstdio>
#include <cstdlib>

#include "Z/ZBuffer.h"
#include "Z/ZExceptionText.h"
#include "Z/ZSqueeze.h"

int readText(ZSCFData& cache, const std::string& text, bool keepComments) {
    cache.setAttributes(keepComments ? ZPCACHE_KEEP_COMMENTS : 0, nullptr);
    FILE* stream = tmpfile();
    if (stream == nullptr)
        abort();
    fwrite(text.data(), 1, text.size(), stream);
    rewind(stream);
    int line = 0;
    try {
        cache.be_read("test", stream);
    } catch (ZPropertiesInvalidDataException& e) {
        line = static_cast<int>(e.badline());
    }
    fclose(stream);
    return line;
}

std::string writtenText(ZSCFData& cache) {
    char* text = nullptr;
    size_t size = 0;
    FILE* stream = open_memstream(&text, &size);
    if (stream == nullptr)
        abort();
    cache.be_write("test", stream);
    fclose(stream);
    const std::string result(text, size);
    free(text);
    return result;
}

std::string sideRecords(ZSCFData& cache) {
    ZBuffer packed;
    cache.be_write_obfuscated(packed);
    if (packed.getLength() == 0)
        return std::string();
    std::string result(packed.getLength() * 1100 + 64, '\0');
    ZSqueeze squeeze;
    squeeze.setSource(static_cast<unsigned char*>(packed.getBuffer()), packed.getLength());
    const long size =
        squeeze.unsqueeze(reinterpret_cast<unsigned char*>(&result[0]), result.size());
    if (size < 0)
        abort();
    result.resize(static_cast<size_t>(size));
    return result;
}

std::string compressed(const std::string& records) {
    std::string out(compressBound(records.size()), '\0');
    uLongf size = out.size();
    compress(reinterpret_cast<Bytef*>(&out[0]), &size,
             reinterpret_cast<const Bytef*>(records.data()), records.size());
    out.resize(size);
    return out;
}
