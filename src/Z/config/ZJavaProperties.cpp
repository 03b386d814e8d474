// ZJavaProperties.cpp: one member function for each state of the reader.
//
//   1 startLine          forgets the last line, then as 2, but ":" and "=" begin a key
//   2 startLineBlanks    looks for a key or a comment
//   3 commentLine        skips to the line end: comments and the rest of bad lines
//   4 keyChars           the key; 5 keyCharEscape  behind a backslash in it
//   6 keyEndBlanksFirst  behind the key: looks for ":", "=" or the value
//   7 keyEndBlanksFinal  behind ":" or "=": looks for the value
//   8 valChars           the value; 9 valEscape  behind a backslash in it
//   10 multiLineVal      behind an escaped line end: drops blanks
//   11 to 14 uu0 to uu3  the digits of an escaped 16-bit unit
//
// Most bytes change nothing: they are one more of a key, a value or a comment. Runs of them are
// taken in one go, with the same outcome, and only the byte that ends a run meets its handler.
//
// An entry is one block: an object with the texts of key and value behind it. Measured, two blocks
// took a tenth longer for loads of up to 10^4 entries, and four fifths longer for 10^5.
//
// Built with 64-bit file offsets on 32-bit machines too.
#include "ZJavaProperties.h"

#include <cxxabi.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ZExceptionText.h"
#include "zraise.h"
#include "zlockedfile.h"
#include "zinternal.h"
#include "zreport.h"
#include "zscope.h"
#include "zutfconvert.h"

// ---------------------------------------------------------------- bytes

enum : unsigned char { kBlank = 1, kLineEnd = 2, kSeparator = 4, kBackslash = 8, kComment = 16 };

namespace {

struct ByteKinds {
    unsigned char of[256];
};

constexpr ByteKinds makeKinds() {
    ByteKinds kinds = {};
    kinds.of[int{'\t'}] = kinds.of[int{'\v'}] = kinds.of[int{'\f'}] = kinds.of[int{' '}] = kBlank;
    kinds.of[int{'\n'}] = kinds.of[int{'\r'}] = kLineEnd;
    kinds.of[int{':'}] = kinds.of[int{'='}] = kSeparator;
    kinds.of[int{'#'}] = kinds.of[int{'!'}] = kComment;
    kinds.of[int{'\\'}] = kBackslash;
    return kinds;
}

constexpr ByteKinds kKinds = makeKinds();

}  // namespace

static int kindOf(char c) { return kKinds.of[static_cast<unsigned char>(c)]; }

// ---------------------------------------------------------------- entries

namespace {

/// A UTF-8 text of a fixed length that somebody else owns.
class View final : public ZAbstractString {
public:
    View(const char* chars, unsigned int length) : chars_(chars), length_(length) {}
    ~View() noexcept override {}

    ZObject* clone() const override { return new View(chars_, length_); }
    const char* getChars() const override { return chars_; }
    unsigned int getLength() const override { return length_; }
    ZAbstractString& setChars(const ZAbstractString&) override { return *this; }  // never changes
    zcodeset_handle getCodesetHandle() const override {
        return utf8_handle_.load(std::memory_order_relaxed);
    }

private:
    const char* const chars_;
    const unsigned int length_;
};

/// A key with its value. To a map it is the key, so that strings find it. It lies over texts of
/// somebody else; a clone has its own, in one block with it.
class Entry final : public ZObject {
public:
    Entry(const View& key, const View& value) : key(key), value(value) {}
    ~Entry() noexcept override {}

    unsigned int hash() const override { return key.hash(); }
    int equals(const ZObject& other) const override {
        return key.equals(static_cast<const Entry&>(other).key);
    }

    ZObject* clone() const override {
        const size_t keyRoom = key.getLength() + size_t(1),
                     valueRoom = value.getLength() + size_t(1);
        char* block =
            static_cast<char*>(ZObject::operator new(sizeof(Entry) + keyRoom + valueRoom));
        char* keyChars = block + sizeof(Entry);
        char* valueChars = keyChars + keyRoom;
        memcpy(keyChars, key.getChars(), keyRoom);
        memcpy(valueChars, value.getChars(), valueRoom);
        return new (block)
            Entry(View(keyChars, key.getLength()), View(valueChars, value.getLength()));
    }

    const View key;
    const View value;
};

View viewOf(const ZUTF8String& s) { return View(s.getChars(), s.getLength()); }

}  // namespace

ZJavaProperties::ZJavaProperties() : entries_(10, 1), unicodeChar_(0) {}

ZJavaProperties::~ZJavaProperties() noexcept {}

ZObject* ZJavaProperties::clone() const {
    zraise(ZAbstractNotImplementedException("ZJavaProperties::clone"));
}

void ZJavaProperties::getValue(const ZAbstractString& key, ZAbstractMutableString& value) const {
    ZUTF8String probe;
    probe.setChars(key);
    value.clear();
    const Entry wanted(viewOf(probe), viewOf(probe));
    const ZObject* found = entries_.getEntry(&wanted);
    if (found != nullptr)
        value.setChars(static_cast<const Entry*>(found)->value);
}

void ZJavaProperties::setValue(const ZAbstractString& key, const ZAbstractString& value) {
    ZUTF8String utf8Key, utf8Value;
    utf8Key.setChars(key);
    utf8Value.setChars(value);
    putEntry(utf8Key, utf8Value);
}

// The map takes a clone.
void ZJavaProperties::putEntry(const ZUTF8String& key, const ZUTF8String& value) {
    Entry entry(viewOf(key), viewOf(value));
    entries_.putEntry(&entry);
}

// ---------------------------------------------------------------- the states

const ZJavaProperties::StateHandler ZJavaProperties::stateTable_[stateCount] = {
    nullptr,
    &ZJavaProperties::doStartLineState,
    &ZJavaProperties::doStartLineBlanksState,
    &ZJavaProperties::doCommentLineState,
    &ZJavaProperties::doKeyCharsState,
    &ZJavaProperties::doKeyCharEscapeState,
    &ZJavaProperties::doKeyEndBlanksFirstState,
    &ZJavaProperties::doKeyEndBlanksFinalState,
    &ZJavaProperties::doValCharsState,
    &ZJavaProperties::doValEscapeState,
    &ZJavaProperties::doMultiLineValState,
    &ZJavaProperties::doUU0State,
    &ZJavaProperties::doUU1State,
    &ZJavaProperties::doUU2State,
    &ZJavaProperties::doUU3State,
    nullptr,
    nullptr,
};

int ZJavaProperties::doStartLineState(char c) {
    key_.clear();
    value_.clear();
    if (kindOf(c) != kSeparator)
        return doStartLineBlanksState(c);
    key_.append(c);
    return keyChars;
}

int ZJavaProperties::doStartLineBlanksState(char c) {
    switch (kindOf(c)) {
        case kBlank:
            return startLineBlanks;
        case kComment:
            return commentLine;
        case kLineEnd:
            return startLine;
        case kSeparator:
            return badLine;
    }
    key_.append(c);
    return keyChars;
}

int ZJavaProperties::doCommentLineState(char c) {
    return kindOf(c) == kLineEnd ? startLine : commentLine;
}

int ZJavaProperties::doKeyCharsState(char c) {
    switch (kindOf(c)) {
        case kBackslash:
            return keyCharEscape;
        case kBlank:
            return keyEndBlanksFirst;
        case kSeparator:
            return keyEndBlanksFinal;
        case kLineEnd:
            return badLine;
    }
    key_.append(c);
    return keyChars;
}

int ZJavaProperties::doKeyCharEscapeState(char c) {
    if ((kindOf(c) & (kBackslash | kBlank | kSeparator)) == 0)
        return badLine;
    key_.append(c);
    return keyChars;
}

int ZJavaProperties::doKeyEndBlanksFirstState(char c) {
    switch (kindOf(c)) {
        case kBlank:
            return keyEndBlanksFirst;
        case kSeparator:
            return keyEndBlanksFinal;
        case kLineEnd:
            return badLine;
    }
    return doValCharsState(c);
}

int ZJavaProperties::doKeyEndBlanksFinalState(char c) {
    return kindOf(c) == kBlank ? static_cast<int>(keyEndBlanksFinal) : doValCharsState(c);
}

int ZJavaProperties::doValCharsState(char c) {
    switch (kindOf(c)) {
        case kBackslash:
            return valEscape;
        case kLineEnd:
            return putAndGoOn();
    }
    value_.append(c);
    return valChars;
}

int ZJavaProperties::doValEscapeState(char c) {
    if (kindOf(c) == kLineEnd)
        return multiLineVal;
    if (c == 'u' || c == 'U')
        return uu0;
    const bool isEscapable =
        kindOf(c) == kBackslash || kindOf(c) == kBlank || c == ':' || c == '"' || c == '\'';
    if (!isEscapable)
        return badLine;
    value_.append(c);
    return valChars;
}

int ZJavaProperties::doMultiLineValState(char c) {
    switch (kindOf(c)) {
        case kBlank:
            return multiLineVal;
        case kLineEnd:
            // An empty line ends the value. Unlike elsewhere, an entry that isn't the one sought
            // stays out, and the one sought doesn't end the load.
            if (searchKey_.isEmpty() || isSought())
                putEntry(key_, value_);
            return startLine;
    }
    return doValCharsState(c);
}

int ZJavaProperties::hexConv(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// One more digit of the unit: whether it was one.
int ZJavaProperties::appendUnit(char c) {
    const int digit = hexConv(c);
    unicodeChar_ = static_cast<unsigned short>(unicodeChar_ << 4 | (digit & 0xF));
    return digit >= 0;
}

int ZJavaProperties::doUU0State(char c) {
    unicodeChar_ = 0;
    return appendUnit(c) ? uu1 : badLine;
}

int ZJavaProperties::doUU1State(char c) { return appendUnit(c) ? uu2 : badLine; }

int ZJavaProperties::doUU2State(char c) { return appendUnit(c) ? uu3 : badLine; }

int ZJavaProperties::doUU3State(char c) {
    if (!appendUnit(c))
        return badLine;
    const unsigned short* unit = &unicodeChar_;
    unsigned char bytes[8] = {};  // all NUL behind what is written
    unsigned char* end = bytes;
    if (zconvert_UTF16_to_UTF8(&unit, unit + 1, &end, bytes + sizeof bytes - 1) != 0)
        zraise(ZToUTF8Exception());
    value_.append(reinterpret_cast<const char*>(bytes));
    return valChars;
}

int ZJavaProperties::putAndGoOn() {
    putEntry(key_, value_);
    return isSought() ? found : startLine;
}

// Collation is asked only where it could say yes: the empty text is equal to itself alone. A key
// that begins with NUL is such a text, and ends even a load that seeks nothing.
int ZJavaProperties::isSought() const {
    if (searchKey_.isEmpty())
        return *key_.getChars() == '\0';
    return key_.compare(searchKey_) == 0;
}

// ---------------------------------------------------------------- load

// Runs a step of a load: whether it went without an exception. One of the library prints itself.
template <typename Step>
__attribute__((no_sanitize("null"))) static bool runPrinted(Step step) {
    try {
        step();
        return true;
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (ZException& failure) {
        if (zreportsToSomebody())
            zrunReported([&] { failure.print(); });
    } catch (...) {
    }
    return false;
}

static const ZLockTerms kLockTerms = {zlockOfProcess, 0};

// The caller owns the stream before it can be cancelled.
static FILE* openForReading(const char* path) {
    const ZUncancelled uncancelled;
    return fopen(path, "re");
}

int ZJavaProperties::load(const char* path) {
    if (!zhasText(path))
        return 1;
    ZLockedStream stream;
    const bool ready = runPrinted(
        [&] { stream.take(openForReading(path), "fopen(r)", path, F_RDLCK, kLockTerms); });
    if (!ready)
        return 0;
    runPrinted([&] { loadProperties(stream.get(), path); });
    return 1;
}

int ZJavaProperties::load(const char* path, const char* key) {
    const ZAtEnd clear([this] { searchKey_.clear(); });
    if (!runPrinted([&] { searchKey_ = key; }))
        return 0;
    return load(path);
}

void ZJavaProperties::loadProperties(FILE* f, const char* path) {
    flockfile(f);  // so that reading a byte needn't take it
    const ZAtEnd unlock([=] { funlockfile(f); });
    int previous = 0;
    int state = startLine;
    while (state >= startLine && state <= uu3) {
        const int c = readRun(f, state, previous);
        if (c == EOF) {
            if (ferror(f))
                zraise(ZUnexpectedEndOfFile(path));
            if (!key_.isEmpty() && isSought())
                putEntry(key_, value_);
            return;
        }
        const bool isSecondOfPair =
            (c == '\r' && previous == '\n') || (c == '\n' && previous == '\r');
        previous = c;
        if (isSecondOfPair)
            continue;
        const StateHandler handler = stateTable_[state];
        if (handler == nullptr)
            zraise(ZJavaPropertyParseException(path));
        state = (this->*handler)(static_cast<char>(c));
        if (state == badLine)
            state = commentLine;
    }
}

// Takes the bytes that leave `state` as it is, as its handler would take them one by one, and gives
// the one behind them, or EOF. No line end is among them, so `previous` need only tell that.
int ZJavaProperties::readRun(FILE* f, int state, int& previous) {
    int ends = 0;
    ZUTF8String* target = nullptr;
    switch (state) {
        case keyChars:
            ends = kLineEnd | kBlank | kSeparator | kBackslash;
            target = &key_;
            break;
        case valChars:
            ends = kLineEnd | kBackslash;
            target = &value_;
            break;
        case commentLine:
            ends = kLineEnd;
            break;
        default:
            return getc_unlocked(f);
    }
    char run[256];
    unsigned int length = 0;
    for (;;) {
        const int c = getc_unlocked(f);
        const bool ended = c == EOF || (kKinds.of[c] & ends) != 0;
        if (ended || length == sizeof run) {
            if (length != 0)
                previous = 0;
            if (target != nullptr)
                target->append(run, length);
            length = 0;
        }
        if (ended)
            return c;
        run[length++] = static_cast<char>(c);
    }
}

// ---------------------------------------------------------------- store

static bool isContinuation(char c) { return (c & 0xC0) == 0x80; }

// The bytes of the character at `s` that is written as an escape, with its number: 2 or 3, or 0 if
// its bytes are written as they are.
static int escapedBytes(const char* s, const char* end, unsigned int& number) {
    const unsigned char lead = static_cast<unsigned char>(*s);
    const int length = lead >= 0xC0 && lead <= 0xDF ? 2 : lead >= 0xE0 && lead <= 0xEF ? 3 : 0;
    if (length == 0 || end - s < length)
        return 0;
    number = lead & (length == 2 ? 0x1F : 0x0F);
    for (int i = 1; i < length; ++i) {
        if (!isContinuation(s[i]))
            return 0;
        number = number << 6 | (s[i] & 0x3F);
    }
    return length;
}

// Whatever would end the value or change it must be escaped; all else reads back as it is.
static void writeValue(FILE* f, const char* s, unsigned int length) {
    const char* end = s + length;
    while (s != end) {
        unsigned int number = static_cast<unsigned char>(*s);
        const int escaped = kindOf(*s) == kLineEnd ? 1 : escapedBytes(s, end, number);
        if (escaped != 0) {
            fprintf(f, "\\u%4.4x", number);
            s += escaped;
            continue;
        }
        if (*s == '\\' || *s == ':')
            putc_unlocked('\\', f);
        putc_unlocked(*s++, f);
    }
}

static void truncateFile(FILE* stream, const char* path) {
    // What has no length, a pipe or a terminal, refuses by EINVAL and needs no truncation.
    if (ftruncate(fileno(stream), 0) != 0 && errno != EINVAL)
        zraiseIO(path, "fopen(wt)", errno);
}

// The entries are listed before the file is touched; after that nothing takes memory, so that
// nothing is raised over a file of which only a part is written, and no thread cancelled.
int ZJavaProperties::store(const char* path) const {
    zrequire(zhasText(path));
    ZArrayList entries(2, 0);
    entries_.list(entries);
    const auto entryAt = [&](unsigned int i) { return static_cast<const Entry*>(entries.get(i)); };
    for (unsigned int i = 0; i < entries.size(); ++i)
        zrequire(strpbrk(entryAt(i)->key.getChars(), "\r\n") == nullptr);

    const ZUncancelled uncancelled;
    ZLockedStream stream;
    // Not truncated yet: the old text goes only once the lock is there.
    stream.take(zstreamOn(zopenFile(path, O_WRONLY | O_CREAT, 0666), "w"), "fopen(wt)", path,
                F_WRLCK, kLockTerms);
    FILE* f = stream.get();
    truncateFile(f, path);
    {
        flockfile(f);  // so that writing a byte needn't take it
        const ZAtEnd unlock([=] { funlockfile(f); });
        fputs("#\n", f);
        for (unsigned int i = 0; i < entries.size(); ++i) {
            const Entry* entry = entryAt(i);
            fputs(entry->key.getChars(), f);
            fputs(" = ", f);
            writeValue(f, entry->value.getChars(), entry->value.getLength());
            putc_unlocked('\n', f);
        }
    }
    const bool flushed = fflush(f) == 0 && !ferror(f);
    return stream.close() == 0 && flushed ? 0 : EOF;
}
