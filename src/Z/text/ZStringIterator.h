// ZStringIterator.h: a walk over a string, character by character.
#ifndef Z_ZSTRINGITERATOR_H
#define Z_ZSTRINGITERATOR_H

#include "ZIterator.h"
#include "ZString.h"

/// Delivers the characters of a string one after the other, longer ones whole, each in the same
/// target string, which the caller hands over once and which every step overwrites.
///
/// Ownership: source and target stay the caller's and must outlive the iterator. The source must
///   not change during the walk; reset() picks a change up.
/// Failure: ZQELMBLenException (46) from getNext() where no valid character stands; the iterator
///   stays there, and the target is empty. ZOutOfMemoryException (1) when the target can't grow;
///   the iterator stays there too.
/// Threads: no lock inside; an iterator and its target belong to one thread, and so do its copies,
///   which share the target.
/// Cost: a step is constant, and allocates nothing.
class ZEXPORT ZStringIterator : public ZAbstractIterator {
public:
    /// Stands on the first character of `source`. Source and target are of one codeset.
    ZStringIterator(const ZLCConstString& source, ZLCString& target);
    ZStringIterator(const ZLCString& source, ZLCString& target);
    ZStringIterator(const ZUTF8ConstString& source, ZUTF8String& target);
    ZStringIterator(const ZUTF8String& source, ZUTF8String& target);

    /// The same source, position and target.
    ZStringIterator(const ZStringIterator& other);
    ZStringIterator& operator=(const ZStringIterator& other);
    ~ZStringIterator() noexcept override;

    ZObject* clone() const override;

    int hasMore() override;

    /// The target with the next character in it. At the end: the target, emptied.
    ZObject* getNext() override;

    /// Goes back to the first character, of the text that the source has now.
    virtual void reset();

private:
    const char* cursor_;  // the next byte; null for a source without text
    const ZAbstractString* source_;
    ZAbstractMutableString* target_;
    int mbMax_;  // most bytes of a character of the source; 0 where ASCII stands for itself
};

#endif
