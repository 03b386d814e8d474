// ZSCFData.h: the property cache that reads and writes stanza files and their side databases.
#ifndef Z_ZSCFDATA_H
#define Z_ZSCFDATA_H

#include "ZPCache.h"

/// The model of a stanza file: text that people edit, with stanzas in brackets, "key = value"
/// lines, comments and blank lines; beside it the side database, a compressed block that holds the
/// values that don't stand in the text. The formats are told where they are read and written, in
/// ZSCFData.cpp.
///
/// Opening, locking and rewriting the files is the properties object's work: here a stream and a
/// buffer are given.
///
/// Failure: ZPropertiesInvalidDataException (44) for a bad line, with its number and text, or for
///   a side database that is none (line 0); what was read before stays. ZOutOfMemoryException (1).
class ZEXPORT ZSCFData : public ZPCategoryBasedCache {
public:
    ZSCFData() {}
    ZSCFData(const ZSCFData& other) : ZPCategoryBasedCache(other) {}

    /// A copy of map, lines and attributes.
    ZPCache* clone() const override;

    /// Adds what the stream holds from its position to its end, or to a read error.
    void be_read(const char* file, FILE* stream) override;
    /// Writes all at the stream's position. Failures show in the stream; nothing is raised.
    void be_write(const char* file, FILE* stream) override;
    /// Expands the buffer and adds its values, hidden.
    void be_read_obfuscated(ZBuffer& buffer) override;
    /// Makes `buffer` the compressed values, or leaves it alone if there are none.
    void be_write_obfuscated(ZBuffer& buffer) override;

private:
    friend struct ZModelReading;
    friend struct ZModelContent;
    friend struct ZModelEdits;
};

#endif
