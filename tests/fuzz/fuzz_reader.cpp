// Any bytes as a stanza file: reading ends, what was read is consistent, and what is written of it
// reads back to the same.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "Z/ZSCFData.h"
#include "support/CacheText.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("QELDIR", "/opt/Quillmere/nls/QEL", 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    ZSCFData cache;
    const bool whole = readText(cache, text) == 0;
    cache.checkInvariants();
    const std::string written = writtenText(cache);
    // Long lines are cut when they are read, so that the writer's may be longer than the reader's.
    if (whole && size < 8000) {
        ZSCFData again;
        if (readText(again, written) != 0 || writtenText(again) != written)
            abort();
    }
    // Edits at what was read.
    ZArrayList stanzas(1, 1);
    cache.getNames(stanzas);
    for (unsigned int i = 0; i < stanzas.size() && i < 8; ++i) {
        const ZLCString stanza(*static_cast<const ZLCString*>(stanzas.get(i)));
        ZArrayList keys(1, 1);
        cache.getNames(stanza.getChars(), keys);
        for (unsigned int k = 0; k < keys.size() && k < 8; ++k) {
            const ZLCString key(*static_cast<const ZLCString*>(keys.get(k)));
            const unsigned int change = (i + k) % 4;
            if (change == 0)
                cache.addLine(stanza.getChars(), key.getChars(), "changed", 0);
            else if (change == 1)
                cache.delLine(stanza.getChars(), key.getChars());
            else if (change == 2)
                cache.addLineComment(stanza.getChars(), key.getChars(), "# note");
            else
                cache.get(stanza.getChars(), key.getChars(), ZPCache::GET_ANY)->removeAll();
        }
        cache.addLine(stanza.getChars(), "fresh", "value", i % 3 == 0);
        if (i % 5 == 4)
            cache.delStanzaLine(stanza.getChars());
        cache.checkInvariants();
    }
    writtenText(cache);
    return 0;
}
