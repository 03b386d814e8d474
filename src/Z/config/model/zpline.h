// zpline.h: a line that a model keeps of its file. Never installed.
#ifndef Z_ZPLINE_H
#define Z_ZPLINE_H

#include "zplinks.h"
#include "zptext.h"

/// 4 bytes, for a file has as many of them as lines.
struct ZPLine {
    enum Type : uint32_t { comment = 0, blank = 1, key = 2 };

    /// What a line refers to is below.
    static constexpr uint32_t kMostRefs = uint32_t(1) << 30;

    uint32_t bits;  // the type in the low 2, the rest above

    static ZPLine make(Type type, uint32_t ref) { return {ref << 2 | type}; }
    Type type() const { return static_cast<Type>(bits & 3); }
    bool isComment() const { return type() == comment; }
    bool isBlank() const { return type() == blank; }
    bool isKey() const { return type() == key; }
    /// Key line: the key; comment: where ZPLinePool has it; blank line: the paragraph that it
    /// closes, where the group's samples are indexed.
    uint32_t ref() const { return bits >> 2; }
    void setRef(uint32_t ref) { bits = ref << 2 | type(); }
};
static_assert(sizeof(ZPLine) == 4, "lines are to be small");

/// The lines of all groups, chained within each, and where the text of comments is.
class ZPLinePool : public ZPChainedPool<ZPLine, &ZPLine::bits> {
public:
    /// Where the text of a comment line is.
    ZPSlice comment(ZPId line) const {
        zassert((*this)[line].isComment());
        return comments_[(*this)[line].ref()];
    }
    void setComment(ZPId line, ZPSlice text) { comments_[(*this)[line].ref()] = text; }

    /// As ZPBlock::expect.
    void expectComments(size_t more, size_t spare) { comments_.expect(more, spare); }
    void reserveComments(size_t more) {
        if (comments_.end() + more > ZPLine::kMostRefs)
            zraise(ZOutOfMemoryException());
        comments_.reserveMore(more);
    }
    /// A comment line to be taken. Needs room.
    ZPLine newComment(ZPSlice text) {
        return ZPLine::make(ZPLine::comment, comments_.take(std::move(text)));
    }
    /// As of any chained pool.
    void giveBack(ZPId id) {
        if ((*this)[id].isComment())
            comments_.giveBack((*this)[id].ref());
        ZPChainedPool::giveBack(id);
    }
    /// How many comments there are; ends the process if the pool tells otherwise. For checks.
    size_t countComments() const { return comments_.end() - comments_.countFree(); }

private:
    ZPPool<ZPSlice, &ZPSlice::offset> comments_;
};

#endif
