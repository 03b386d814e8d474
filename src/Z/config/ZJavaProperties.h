// ZJavaProperties.h: Java property files.
#ifndef Z_ZJAVAPROPERTIES_H
#define Z_ZJAVAPROPERTIES_H

#include <stdio.h>

#include "ZMap.h"
#include "ZUTF8String.h"

/// Keys and values of Java property files, in a dialect of its own. A line is a comment, which
/// begins with "#" or "!", or an entry: `key = value`, `key:value` or `key value`. A backslash at
/// its end continues a value on the next line, whose leading blanks are dropped. A character that
/// isn't ASCII stands there in UTF-8, or as `\u` and four hexadecimal digits.
///
/// Blanks are space, tab, vertical tab and form feed. Line ends are LF, CR and the pairs of both. A
/// key ends at a blank, ":" or "="; a backslash in front makes these and itself part of it. In a
/// value a backslash may stand in front of itself, a blank, ":", both kinds of quotation marks, u
/// or U with four digits, and the line end. Any other escape (\n, \t and \= too), and a key with
/// nothing behind it, makes the line bad: it is left out without a word, and if the line end itself
/// made it bad, so is the next line. A later line with the same key replaces the earlier one. A
/// surrogate pair written as two escapes isn't joined, \u0000 adds nothing, and a last line without
/// a line end doesn't count.
///
/// What store() writes reads back the same, with these exceptions, which the format fixes:
///   - Keys are written as they are. One that is empty, that begins with "#" or "!", or that holds
///     a blank, ":", "=" or a backslash, reads back as another or not at all; nothing behind a NUL
///     is written.
///   - Values lose leading blanks. Overlong UTF-8 becomes the character that it stands for, and a
///     NUL in that shape (C0 80) is lost.
///
/// Ownership: keeps copies of all texts, in UTF-8. An object can't be copied.
/// Failure: load() raises nothing; store() and clone() raise as they say. Any call raises
///   ZOutOfMemoryException (1), except load(), which prints it. A text that can't be converted
///   between codesets counts as an empty one.
/// Threads: no lock inside; one object belongs to one thread at a time. Processes meet in a record
///   lock on the file, for which nobody waits.
class ZEXPORT ZJavaProperties : public ZObject {
public:
    ZJavaProperties();
    ZJavaProperties(const ZJavaProperties&) = delete;
    ZJavaProperties& operator=(const ZJavaProperties&) = delete;
    ~ZJavaProperties() noexcept override;

    /// Raises ZAbstractNotImplementedException (31).
    ZObject* clone() const override;

    /// Puts the value of `key` into `value`, converted to the codeset of that string; leaves it
    /// empty if there is none. A key in the local codeset is converted first.
    void getValue(const ZAbstractString& key, ZAbstractMutableString& value) const;

    /// Sets the value of `key`. Texts in the local codeset are converted.
    void setValue(const ZAbstractString& key, const ZAbstractString& value);

    /// Adds the entries of a file to those that are there. 1, also for a null or empty path, with
    /// which nothing is read; 0 if the file can't be opened or another process is writing it, which
    /// is printed as ZPropertiesIOException (43). What fails while reading is printed, too
    /// (ZUnexpectedEndOfFile, 53, for a read error); the entries read so far stay, and the result
    /// is 1. The file is read in passing and never held whole in memory. A thread may be cancelled
    /// while it reads; the entries read so far stay.
    int load(const char* path);

    /// The same, but stops behind the entry of `key` (UTF-8; the locale's collation decides whether
    /// keys are equal). Here the last line counts without a line end, too, if it is the one sought.
    int load(const char* path, const char* key);

    /// Writes all entries, in the order of a ZHashKeyMap that was made for ten, behind one comment
    /// line. 0, or EOF if writing or closing failed, after which the file isn't whole. Not
    /// cancelled.
    ///
    /// Raises ZInvalidParameterException (22) for a null or empty path or a key that holds a line
    /// end, and ZPropertiesIOException (43) if the file can't be opened for writing ("fopen(wt)")
    /// or another process uses it ("fcntl()"). An old file is left as it was in all these cases,
    /// and when memory runs out.
    int store(const char* path) const;

private:
    enum State {
        startLine = 1,
        startLineBlanks,
        commentLine,
        keyChars,
        keyCharEscape,
        keyEndBlanksFirst,
        keyEndBlanksFinal,
        valChars,
        valEscape,
        multiLineVal,
        uu0,
        uu1,
        uu2,
        uu3,
        found,    // the entry sought is in
        badLine,  // becomes commentLine at once
        stateCount
    };
    typedef int (ZJavaProperties::*StateHandler)(char c);

    int doStartLineState(char c);
    int doStartLineBlanksState(char c);
    int doCommentLineState(char c);
    int doKeyCharsState(char c);
    int doKeyCharEscapeState(char c);
    int doKeyEndBlanksFirstState(char c);
    int doKeyEndBlanksFinalState(char c);
    int doValCharsState(char c);
    int doValEscapeState(char c);
    int doMultiLineValState(char c);
    int doUU0State(char c);
    int doUU1State(char c);
    int doUU2State(char c);
    int doUU3State(char c);

    static int hexConv(char c);

    void loadProperties(FILE* f, const char* path);
    int readRun(FILE* f, int state, int& previous);
    int appendUnit(char c);
    void putEntry(const ZUTF8String& key, const ZUTF8String& value);
    int putAndGoOn();
    int isSought() const;

    static const StateHandler stateTable_[stateCount];

    ZHashMap entries_;       // of pairs that are found by their key
    ZUTF8String key_;        // of the line being read
    ZUTF8String value_;      // of the line being read
    ZUTF8String searchKey_;  // empty but in load(path, key)
    unsigned short unicodeChar_;
};

#endif
