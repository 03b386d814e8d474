// zpline.h: a line that a model keeps of its file. Never installed.
#ifndef Z_ZPLINE_H
#define Z_ZPLINE_H

#include "zplinks.h"
#include "zptext.h"

/// 8 bytes, for a file has as many of them as lines.
struct ZPLine {
    enum Type : uint32_t { comment = 0, blank = 1, key = 2 };
    /// A comment is shorter than this.
    static constexpr size_t kMaxLength = 0x3FFFFFFFu;

    uint32_t ref;   // key line: the key; comment: where its text is; blank line: the paragraph
                    // that it closes, where the group's samples are indexed
    uint32_t meta;  // the type in the low 2 bits, the length of a comment's text above

    Type type() const { return static_cast<Type>(meta & 3); }
    bool isComment() const { return type() == comment; }
    bool isBlank() const { return type() == blank; }
    bool isKey() const { return type() == key; }
    /// Of a comment.
    ZPSlice slice() const {
        zassert(isComment());
        return {ref, meta >> 2};
    }
};
static_assert(sizeof(ZPLine) == 8, "lines are to be small");

/// The lines of all groups, chained within each.
typedef ZPChainedPool<ZPLine, &ZPLine::ref> ZPLinePool;

#endif
