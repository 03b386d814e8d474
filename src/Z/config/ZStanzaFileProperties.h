// ZStanzaFileProperties.h: the properties object of a stanza file, with what only stanzas have.
//
//   ZKVEntry, ZPropertiesKVList  a stanza handed out as pairs of key and value
//   ZStzFileItem                 one request of getItems
//   ZStanzaFileProperties        the object; its factory is nested in it
//   ZStanzaIterator, ZStanzaValueIterator
//                                the iterators, bound to it
#ifndef Z_ZSTANZAFILEPROPERTIES_H
#define Z_ZSTANZAFILEPROPERTIES_H

#include <stddef.h>
#include <stdint.h>

#include "ZProperties.h"
#include "ZPropertiesIterator.h"
#include "ZSCFData.h"
#include "zdialect.h"

/// A key with a value; owns both.
class ZEXPORT ZKVEntry : public ZObject {
public:
    /// Takes both objects over.
    ZKVEntry(ZAbstractString* key, ZAbstractString* value) : key_(key), value_(value) {}
    ZKVEntry(const ZKVEntry& other);
    ZKVEntry& operator=(const ZKVEntry&) = delete;
    ~ZKVEntry() noexcept override;

    ZObject* clone() const override;

    /// The two texts; the entry's own.
    const ZAbstractString& key() const { return *key_; }
    const ZAbstractString& value() const { return *value_; }

private:
    ZAbstractString* key_;
    ZAbstractString* value_;
};

/// Pairs of key and value, all in one codeset.
/// Threads: no lock; one thread at a time.
class ZEXPORT ZPropertiesKVList : public ZObject {
public:
    /// Any type but ZPROP_STRING_UTF8 holds local strings.
    explicit ZPropertiesKVList(ZPropertyStringType type);
    ZPropertiesKVList(const ZPropertiesKVList& other);
    ZPropertiesKVList& operator=(const ZPropertiesKVList& other);
    ~ZPropertiesKVList() noexcept override;

    ZObject* clone() const override;

    /// Appends copies, converted to the list's codeset.
    void addItem(const ZAbstractString& key, const ZAbstractString& value);
    /// The text at `i`, which the list keeps; null past the end.
    const char* getItemKey(unsigned int i) const;
    const char* getItemValue(unsigned int i) const;
    unsigned int getItemCount() const;
    void clear();

private:
    ZAbstractString* newString(const ZAbstractString& text) const;

    ZPropertyStringType type_;
    ZArrayList entries_;  // of ZKVEntry, owned
};

/// What a request of getItems asks for, and where `result` then points.
enum {
    ZSTZ_ITEM_BOOLEAN = 1,      ///< int
    ZSTZ_ITEM_INTEGER = 2,      ///< unsigned int
    ZSTZ_ITEM_STRING = 3,       ///< ZAbstractMutableString
    ZSTZ_ITEM_VALUES = 4,       ///< owning ZArrayList, which gets ZLCStrings
    ZSTZ_ITEM_UTF8_VALUES = 5,  ///< owning ZArrayList, which gets ZUTF8Strings
    ZSTZ_ITEM_STANZA = 6        ///< ZPropertiesKVList; `key` isn't used
};

/// One request of getItems.
struct ZStzFileItem {
    int kind;            ///< one of the numbers above
    const char* stanza;  ///< where to look
    const char* key;     ///< likewise; not used for a whole stanza
    int required;        ///< not 0: the entry must have a value
    void* result;        ///< where the answer goes
    union {
        const char* text;     ///< of a string
        unsigned int number;  ///< of an integer or a truth
    } default_;               ///< for kinds 1 to 3; must be 0 where the entry is required
};

/// The configuration of a stanza file. See ZProperties for ownership, failure and threads.
class ZEXPORT ZStanzaFileProperties : public ZProperties {
public:
    /// Makes objects for getPropertiesFor; they keep their comments.
    class ZEXPORT ZStanzaFilePropertiesFactory : public ZAbstractPropertiesFactory {
    public:
        ZProperties* makePropertiesInstance() override;
    };

    /// Empty. With `keepComments` a store writes comments and blank lines back.
    explicit ZStanzaFileProperties(int keepComments);
    /// Loads `file` at once; raises as load.
    ZStanzaFileProperties(const char* file, int keepComments);
    /// A copy of the content, without file and observers.
    ZStanzaFileProperties(const ZStanzaFileProperties& other);
    ~ZStanzaFileProperties() noexcept override;

    /// The one factory; it lives until the process ends.
    static ZStanzaFilePropertiesFactory* getFactory();

    using ZProperties::addEntryComment;

    void addEntryComment(const char* category, const char* key, const char* text) override;
    /// Puts "#" in front of a text that doesn't begin with it.
    void checkComment(ZLCString& text) override;

    /// One more value behind those that the key has, unless it has that value already; with
    /// `obfuscated` a hidden one. Raises ZInvalidParameterException for a null or empty name or
    /// value, and for a key with values of the other kind.
    virtual void addValue(const char* stanza, const char* key, const char* value, int obfuscated);
    virtual void addValue(const char* stanza, const char* key, const ZLCString& value,
                          int obfuscated);
    virtual void addValue(const char* stanza, const char* key, const ZUTF8String& value,
                          int obfuscated);
    virtual void addValue(const char* stanza, const char* key, const ZLCConstString& value,
                          int obfuscated);
    virtual void addValue(const char* stanza, const char* key, const ZUTF8ConstString& value,
                          int obfuscated);
    /// The members of `list`, strings in either codeset, one behind the other. The search for a
    /// value that stands already isn't begun anew for each. An empty list raises
    /// ZInvalidParameterException.
    virtual void addValues(const char* stanza, const char* key, const ZArrayList& list,
                           int obfuscated);
    /// Makes `list` the stanza's keys with their first values; empty for a missing stanza. A key
    /// without a value raises ZInvalidParameterException.
    virtual void getStanza(const char* stanza, ZPropertiesKVList& list);

    /// Makes the stanza with its header line; none if it exists. Notice: PropertyAdded, either way.
    void addStanza(const char* stanza);
    /// Removes the stanza with its lines. Notice: PropertyDeleted.
    void deleteStanza(const char* stanza);
    /// Behind the comments below the header; a missing stanza is made. No notice.
    void addStanzaComment(const char* stanza, const char* text);
    /// Answers `count` requests in order under one lock. The first that fails ends it with its
    /// exception; the results before it stay. Raises ZInvalidParameterException for null items, a
    /// count of 0 or a kind that is none.
    void getItems(ZStzFileItem* items, unsigned int count) const;
    /// Puts what these bytes say, as a file, in place of all that the object holds, as one change.
    /// Hidden values stay, but for keys to which the bytes give plain ones, and so does where the
    /// side database is, whatever the bytes say of it. Raises ZPropertiesInvalidDataException (44)
    /// and changes nothing then. No notice.
    void loadBytes(const void* bytes, size_t length);
    /// Makes `out` the text of the object as a store writes it; hidden values aren't in it.
    void storeBytes(ZBuffer& out) const;
    /// Makes `out` all stanzas, keys and values in the order of the file, as of one moment: texts
    /// with a NUL behind each, of which the first byte tells what the rest is: "[" a stanza's name,
    /// "." the name of one of its keys, "=" a value of that key, "*" a hidden one. A key stands at
    /// its first line, with all its values.
    void getEntries(ZBuffer& out) const;
    /// Makes `list`, which must own its members, the comments, a ZLCString a line without blanks at
    /// its ends: of the file if `stanza` is null (its first lines, up to the first that is no
    /// comment), of the stanza if `key` is null (directly below its header), or of the key
    /// (directly above its line). Those between a header and its first key belong to both.
    void getComments(const char* stanza, const char* key, ZArrayList& list) const;
    /// Removes these. No notice.
    void deleteComments(const char* stanza, const char* key);
    /// The last value as a signed number of 64 bits (decimal, octal with a leading 0, hexadecimal
    /// with 0x, with an optional sign) or as a real number (with "." as decimal point in any
    /// locale, "inf" and "nan"). If there is none: the default; with `required`
    /// ZPropertiesMissingPropertyException (28). ZPropertiesInvalidValueException with number 40 if
    /// the value is no such number or out of range.
    int64_t getInteger64Value(const char* stanza, const char* key, int required,
                              int64_t defaultValue) const;
    double getDoubleValue(const char* stanza, const char* key, int required,
                          double defaultValue) const;
    /// A real number is written with as few digits as give the same number back. Notice and
    /// failures as setIntegerValue.
    void setInteger64Value(const char* stanza, const char* key, int64_t value);
    void setDoubleValue(const char* stanza, const char* key, double value);
    /// The path of the object's file, empty without one. Good as long as the object if there is
    /// one.
    const char* path() const;

    /// The cache's own list of the stanza's keys, or null; no lock.
    ZArrayList* getKeys(const char* stanza) const { return keyNames(stanza); }

    // Files of other programs (zdialect.h). Their values are read, changed and stored as those of
    // the library's own; all bytes of a file that nothing is changed about stay as they are.
    // Comments, names of stanzas and keys and hidden values can't be changed in them, which raises
    // ZInvalidParameterException with a reason; and so does what the dialect can't say. Bad data is
    // what a strict load refuses, and whatever the dialect excludes.

    /// Says which dialect the file has; copied. Before the first load, of an object without a path
    /// and content. Raises ZInvalidParameterException for switches that clash, with the two as the
    /// reason.
    void setDialect(const ZDialect& dialect);
    /// Whether the key stands there without a divider, which only some dialects have. It has no
    /// values then.
    int isBare(const char* stanza, const char* key) const;
    /// Makes it such a key. Notice: PropertyModified.
    void setBare(const char* stanza, const char* key);

    // Names and lines. What each of these four is about may be missing: 0, and nothing has changed;
    // else 1. A null or empty name, and what else is refused, raises ZInvalidParameterException.
    // With ZPCACHE_KEEP_LINES the next store leaves all other bytes, and the spelling of the lines
    // that change, as they were. A walk of a stanza that is renamed ends; one on a key that is
    // renamed goes on with that key; names that walks have handed out are gone.

    /// Gives the stanza another name, at its place. Refused: a name that is taken, and the stanza
    /// of the side database. Notices: PropertyDeleted of the old, PropertyAdded of the new one.
    int renameStanza(const char* stanza, const char* name);
    /// Likewise a key, with its values, hidden ones too, and the comments ahead of it. Refused: the
    /// entry of the side database, too.
    int renameKey(const char* stanza, const char* key, const char* name);
    /// Makes the stanza's first comment that reads like an entry of this key, "# key = value", that
    /// entry, at its place. Refused: a key that is there already. Notice: PropertyAdded.
    int uncommentKey(const char* stanza, const char* key);
    /// Makes each value of the key a comment, "# key = value", at the place of the first. Refused:
    /// hidden values. Notice: PropertyDeleted.
    int disableKey(const char* stanza, const char* key);
    /// Makes `out` what a store into a file that holds these bytes would write: as storeBytes, but
    /// with ZPCACHE_KEEP_LINES by their lines. With ZPCACHE_STRICT raises
    /// ZPropertiesInvalidDataException (44) for a line that came out too long.
    void storeBytesOver(const void* bytes, size_t length, ZBuffer& out) const;
    /// In an update (ZPropertiesUpdate.h), makes `out` what the file has held since it began, or
    /// since the last store in it; ZInvalidParameterException outside of one.
    void getUpdatedBytes(ZBuffer& out) const;
    /// In an update, keeps these bytes beside the file as FILE.~1~, ahead of a store; those that
    /// were kept before move on, up to FILE.~count~. Nothing happens if FILE.~1~ holds them
    /// already. It gets the file's owner, group and access, or where the caller may not give it
    /// these is the caller's alone. Raises ZInvalidParameterException outside of an update or for a
    /// count of 0, and ZPropertiesIOException: no backup is lost then.
    void backUp(unsigned int count) const;

private:
    friend class ZLayers;
    // With a file's side that `make` gives.
    explicit ZStanzaFileProperties(ZPropertiesFile* (*make)(ZProperties& object));
    static void makeFactory();
    // Makes one edit of names or lines. Where it finds what it is about, tells what has gone and
    // what has come, each of which may be null.
    template <typename Edit>
    int changeLines(const ZChangeNames* gone, const ZChangeNames* come, Edit edit);
    ZSCFData& data() const { return *static_cast<ZSCFData*>(cache_); }

    static ZStanzaFilePropertiesFactory* factory_;
};

/// Walks the keys of a stanza; see ZPropertiesIterator.
class ZEXPORT ZStanzaIterator : public ZPropertiesIterator {
public:
    /// As ZPropertiesIterator's.
    ZStanzaIterator(ZStanzaFileProperties& properties, const char* stanza)
        : ZPropertiesIterator(properties, stanza) {}
    ~ZStanzaIterator() noexcept(false) override;
};

/// Walks the values of a key; see ZAbstractPropertyValuesIterator.
class ZEXPORT ZStanzaValueIterator : public ZAbstractPropertyValuesIterator {
public:
    /// As ZAbstractPropertyValuesIterator's.
    ZStanzaValueIterator(ZStanzaFileProperties& properties, const char* stanza, const char* key,
                         ZPropertyStringType stringType, ZPropIter_valtype valueType)
        : ZAbstractPropertyValuesIterator(properties, stanza, key, stringType, valueType) {}
    ~ZStanzaValueIterator() noexcept(false) override;
};

#endif
