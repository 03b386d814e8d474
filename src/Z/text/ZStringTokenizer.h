// ZStringTokenizer.h: a walk over a string, token by token.
#ifndef Z_ZSTRINGTOKENIZER_H
#define Z_ZSTRINGTOKENIZER_H

#include "ZIterator.h"
#include "ZString.h"

class ZArrayList;

/// Delivers the parts of a string between delimiters one after the other, each in the same target
/// string, which the caller hands over once and which every step overwrites. A run of delimiters
/// counts as one, those at the ends of the text as none: no token is empty.
///
/// A delimiter is one character, and a character of the text is one if its bytes stand somewhere in
/// the text of the delimiters; so none is if that is empty. Delimiters may change from call to
/// call.
///
/// Ownership: source and target stay the caller's and must outlive the tokenizer; delimiters are
///   copied. The source must not change during the walk.
/// Failure: ZQELMBLenException (46) from all calls that walk, at text that isn't valid; the
///   tokenizer then stands in front of the delimiters or the token that the walk began with, and
///   where that is a token, the target holds all text from there on. ZOutOfMemoryException (1) when
///   the target can't grow; the tokenizer stands in front of the token.
/// Threads: no lock inside; a tokenizer and its target belong to one thread, and so do its copies,
///   which share the target.
/// Cost: a step is linear in the delimiters passed and the token, and allocates nothing once the
///   target has the room.
class ZEXPORT ZStringTokenizer : public ZAbstractIterator {
public:
    /// Stands at the beginning of `source`. Delimiters of the other codeset are converted; without
    /// any they are blank, tab and the two line ends. Raises ZUnsupportedException (48) when source
    /// and target are of different codesets.
    ZStringTokenizer(const ZAbstractString& source, ZAbstractMutableString& target,
                     const ZAbstractString& delimiters);
    ZStringTokenizer(const ZAbstractString& source, ZAbstractMutableString& target);

    /// The same source, position and target, with delimiters of its own.
    ZStringTokenizer(const ZStringTokenizer& other);
    ZStringTokenizer& operator=(const ZStringTokenizer&) = delete;
    ~ZStringTokenizer() noexcept override;

    ZObject* clone() const override;

    /// Whether a token follows, by these delimiters or by its own. Moves past the delimiters in
    /// front of it. The text of `delims` is taken to be in the source's codeset.
    virtual int hasMore(const ZAbstractString& delims);
    int hasMore() override;

    /// The target with the next token in it, by these delimiters or by its own. At the end: the
    /// target, emptied.
    virtual ZObject* getNext(const ZAbstractString& delims);
    ZObject* getNext() override;

    /// Goes back to the beginning, of the text that the source has now.
    virtual void reset();

    /// Adds all tokens that still follow to `out`, each as a string of its own. One that doesn't
    /// own its members gets them all the same: the caller deletes them. The target holds the last
    /// one.
    virtual void list(ZArrayList& out);

private:
    ZStringTokenizer(const ZAbstractString& source, ZAbstractMutableString& target,
                     const char* delimiters);

    size_t skip(const ZAbstractString& delims, bool delimiters) const;
    size_t skipAll(const ZAbstractString& delims) const;
    size_t skipOther(const ZAbstractString& delims) const;

    const char* cursor_;  // the next byte
    const ZAbstractString* source_;
    ZAbstractMutableString* target_;
    ZAbstractMutableString* delimiters_;  // owned, of the source's codeset
    int mbMax_;  // most bytes of a character of the source; 0 where ASCII stands for itself
};

#endif
