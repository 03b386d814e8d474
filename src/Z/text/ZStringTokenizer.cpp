#include "ZStringTokenizer.h"

#include <cstring>
#include <memory>

#include "ZException.h"
#include "ZList.h"
#include "zraise.h"
#include "ztextwalk.h"

namespace {

// The result of a walk that met no valid character.
const size_t kInvalid = SIZE_MAX;

/// The bytes of a text, so that most characters are told from delimiters by one look.
class ByteSet {
public:
    explicit ByteSet(const char* text) {
        for (; *text != '\0'; ++text)
            words_[wordOf(*text)] |= bitOf(*text);
    }
    bool contains(char byte) const { return (words_[wordOf(byte)] & bitOf(byte)) != 0; }

private:
    static size_t wordOf(char byte) { return static_cast<unsigned char>(byte) / 32; }
    static uint32_t bitOf(char byte) {
        return uint32_t(1) << (static_cast<unsigned char>(byte) % 32);
    }

    uint32_t words_[8] = {};
};

/// Whether the character of `n` bytes stands in `text`, wherever.
bool standsIn(const char* text, const char* character, size_t n) {
    char bytes[16] = {};
    memcpy(bytes, character, n < sizeof bytes ? n : sizeof bytes - 1);
    return strstr(text, bytes) != nullptr;
}

ZAbstractMutableString* newStringLike(const ZAbstractString& source, const char* text) {
    if (source.getCodesetHandle() == zgetLCSHandle())
        return new ZLCString(text);
    return new ZUTF8String(text);
}

}  // namespace

ZStringTokenizer::ZStringTokenizer(const ZAbstractString& source, ZAbstractMutableString& target,
                                   const char* delimiters)
    : cursor_(source.getChars()),
      source_(&source),
      target_(&target),
      delimiters_(nullptr),
      mbMax_(zstepASCII) {
    const zcodeset_handle codeset = source.getCodesetHandle();
    if (codeset != target.getCodesetHandle())
        zraise(ZUnsupportedException());
    if (codeset == zgetLCSHandle())
        mbMax_ = zlocalTextStep();
    delimiters_ = newStringLike(source, delimiters);
}

// Once the private constructor is through, the destructor frees the delimiters whatever happens.
ZStringTokenizer::ZStringTokenizer(const ZAbstractString& source, ZAbstractMutableString& target,
                                   const ZAbstractString& delimiters)
    : ZStringTokenizer(source, target, static_cast<const char*>(nullptr)) {
    delimiters_->setChars(delimiters);
}

ZStringTokenizer::ZStringTokenizer(const ZAbstractString& source, ZAbstractMutableString& target)
    : ZStringTokenizer(source, target, " \t\r\n") {}

ZStringTokenizer::ZStringTokenizer(const ZStringTokenizer& other)
    : ZAbstractIterator(other),
      cursor_(other.cursor_),
      source_(other.source_),
      target_(other.target_),
      delimiters_(static_cast<ZAbstractMutableString*>(other.delimiters_->clone())),
      mbMax_(other.mbMax_) {}

ZStringTokenizer::~ZStringTokenizer() noexcept { delete delimiters_; }

ZObject* ZStringTokenizer::clone() const { return new ZStringTokenizer(*this); }

// How many bytes from the cursor on are characters that are delimiters, or that aren't.
size_t ZStringTokenizer::skip(const ZAbstractString& delims, bool delimiters) const {
    if (cursor_ == nullptr)
        return 0;
    const char* const delimiterText = delims.getChars();
    const ByteSet bytes(delimiterText);
    const zcodeset_handle codeset = source_->getCodesetHandle();
    size_t left = source_->getLength();
    const char* at = cursor_;
    while (*at != '\0') {
        const int length = zstepsByOne(mbMax_, *at) ? 1 : zmblen(codeset, at, left);
        if (length < 0)
            return kInvalid;
        if (length == 0)
            break;  // the text has grown behind the source's back
        const size_t n = static_cast<size_t>(length);
        const bool isDelimiter = bytes.contains(*at) && (n == 1 || standsIn(delimiterText, at, n));
        if (isDelimiter != delimiters)
            break;
        at += n;
        left -= n < left ? n : left;
    }
    return static_cast<size_t>(at - cursor_);
}

size_t ZStringTokenizer::skipAll(const ZAbstractString& delims) const {
    const size_t n = skip(delims, true);
    if (n == kInvalid)
        zraise(ZQELMBLenException());
    return n;
}

size_t ZStringTokenizer::skipOther(const ZAbstractString& delims) const {
    const size_t n = skip(delims, false);
    if (n == kInvalid) {
        target_->setChars(cursor_);
        zraise(ZQELMBLenException());
    }
    return n;
}

int ZStringTokenizer::hasMore(const ZAbstractString& delims) {
    cursor_ += skipAll(delims);
    return cursor_ != nullptr && *cursor_ != '\0';
}

int ZStringTokenizer::hasMore() { return hasMore(*delimiters_); }

ZObject* ZStringTokenizer::getNext(const ZAbstractString& delims) {
    if (cursor_ == nullptr)
        return nullptr;
    cursor_ += skipAll(delims);
    const size_t n = skipOther(delims);
    target_->clear();
    target_->append(cursor_, static_cast<unsigned int>(n));
    cursor_ += n;
    return target_;
}

ZObject* ZStringTokenizer::getNext() { return getNext(*delimiters_); }

void ZStringTokenizer::reset() { cursor_ = source_->getChars(); }

void ZStringTokenizer::list(ZArrayList& out) {
    while (hasMore()) {
        getNext();
        if (out.ownsMembers()) {
            out.add(target_);
        } else {
            std::unique_ptr<ZObject> token(target_->clone());
            out.add(token.get());
            token.release();
        }
    }
}
