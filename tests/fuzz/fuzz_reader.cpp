// Any bytes as a stanza file; behind a first byte 0, as a side database; behind a first byte 1, as
// its records. Reading ends, what was read is consistent, and what is written of it reads back to
// the same.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "Z/ZBuffer.h"
#include "Z/ZExceptionText.h"
#include "Z/ZSCFData.h"
#include "support/CacheText.h"

using std::string;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("QELDIR", "/opt/Quillmere/nls/QEL", 0);
    return 0;
}

static void readSide(const string& bytes) {
    ZSCFData cache, again;
    ZBuffer buffer(bytes.size(), const_cast<char*>(bytes.data())), packed;
    try {
        cache.be_read_obfuscated(buffer);
    } catch (ZPropertiesInvalidDataException&) {
    }
    cache.checkInvariants();
    const string records = sideRecords(cache);
    if (records.empty())
        return;
    cache.be_write_obfuscated(packed);
    again.be_read_obfuscated(packed);
    if (sideRecords(again) != records)
        abort();
}

static void edit(ZSCFData& cache) {
    ZArrayList stanzas(1, 1);
    cache.getNames(stanzas);
    for (unsigned int i = 0; i < stanzas.size() && i < 8; ++i) {
        const ZLCString name(*static_cast<const ZLCString*>(stanzas.get(i)));
        const char* stanza = name.getChars();
        ZArrayList keys(1, 1);
        cache.getNames(stanza, keys);
        for (unsigned int k = 0; k < keys.size() && k < 8; ++k) {
            const ZLCString key(*static_cast<const ZLCString*>(keys.get(k)));
            const unsigned int change = (i + k) % 4;
            if (change == 0)
                cache.addLine(stanza, key.getChars(), "changed", 0);
            else if (change == 1)
                cache.delLine(stanza, key.getChars());
            else if (change == 2)
                cache.addLineComment(stanza, key.getChars(), "# note");
            else
                cache.get(stanza, key.getChars(), ZPCache::GET_ANY)->removeAll();
        }
        cache.addLine(stanza, "fresh", "value", i % 3 == 0);
        if (i % 5 == 4)
            cache.delStanzaLine(stanza);
        cache.checkInvariants();
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const string text(reinterpret_cast<const char*>(data), size);
    if (size != 0 && data[0] < 2) {
        const string records = text.substr(1);
        readSide(data[0] == 0 ? records : compressed(records));
        return 0;
    }
    ZSCFData cache;
    const bool whole = readText(cache, text) == 0;
    cache.checkInvariants();
    const string written = writtenText(cache);
    // Long lines are cut when they are read, so that the writer's may be longer than the reader's.
    if (whole && size < 8000) {
        ZSCFData again;
        if (readText(again, written) != 0 || writtenText(again) != written)
            abort();
    }
    edit(cache);
    writtenText(cache);
    return 0;
}
