// ZPCache.h: the model of one configuration file in memory.
//
//   ZPCache               what a properties object asks of its model
//   ZPCategoryBasedCache  the working model: stanzas, keys, values and retained lines
//
// A stanza of the file format is called a category here; the two words mean the same.
#ifndef Z_ZPCACHE_H
#define Z_ZPCACHE_H

#include <stdio.h>

#include "ZBuffer.h"
#include "ZLCString.h"
#include "ZList.h"
#include "zstoremodes.h"

class ZPStore;

/// The model behind a properties object. It answers look-ups from a two-level map of stanzas and
/// keys, remembers the layout of the file as a list of retained lines, so that a store writes back
/// what was read with new entries where a reader of the file expects them, and keeps the order of
/// the keys whose values belong into the side database.
///
/// Texts are in the local codeset; names are compared byte by byte, so case matters. A null
/// category counts as the empty name. Nothing outside owns what the cache holds: arguments are
/// copied, and lists that are handed out stay the cache's.
///
/// Failure: ZOutOfMemoryException (1), and ZInvalidParameterException (22) for a composite key that
///   is null or has no ".". An operation that fails half way leaves map and lines as far as they
///   got, and usable.
/// Threads: no lock here; the owner's lock covers every call. Look-ups alone may run side by side.
/// Cost: look-ups and changes constant on average. Deleting a key is linear in the stanza's keys
///   once their list was handed out, the last one excepted. A comment walks over those that it
///   joins; one for a key without a line walks to the end of the file.
class ZEXPORT ZPCache {
public:
    /// Which values of a key are meant: the plain ones, the hidden ones, or the plain ones unless
    /// only hidden ones are there.
    enum get_type_e { GET_ANY = 0, GET_PLAIN = 1, GET_OBFUSCATED = 2 };

    ZPCache();
    /// Copies map, lines and attributes. The copy has no side database and follows no hidden keys.
    ZPCache(const ZPCache& other);
    virtual ~ZPCache();
    ZPCache& operator=(const ZPCache&) = delete;

    /// Memory as library objects get it: raises ZOutOfMemoryException.
    static void* operator new(size_t size) { return ZObject::operator new(size); }
    static void operator delete(void* memory) noexcept { ZObject::operator delete(memory); }

    /// A copy of map, lines and attributes, as the constructor makes it.
    virtual ZPCache* clone() const = 0;

    /// The values of a key in order, as ZLCString members of a list that the cache owns: the same
    /// object at each call, current until the key goes. A caller may change the list, and every
    /// later look-up, count and store sees that. Null for a missing stanza or key, or another
    /// `type`.
    virtual ZArrayList* get(const char* category, const char* key, get_type_e type) const;
    virtual ZArrayList* get(const char* key, get_type_e type) const;

    // Changes of the map alone. A value that is null or empty adds none, but the key exists then; a
    // null key just makes the stanza.

    /// One more value of its kind.
    virtual void add(const char* category, const char* key, const char* value, int obfuscated);
    virtual void add(const char* key, const char* value, int obfuscated);
    /// This plain value in place of all values.
    virtual void set(const char* category, const char* key, const char* value);
    virtual void set(const char* key, const char* value);
    /// This hidden value in place of all values; the side database then holds the key last.
    virtual void setObfuscated(const char* category, const char* key, const char* value);
    virtual void setObfuscated(const char* key, const char* value);
    /// Takes the key or the stanza out of the map; the lines stay.
    virtual void remove(const char* category, const char* key);
    virtual void remove(const char* category);

    /// How many values a look-up of any kind would give; 0 for a missing key.
    virtual int countValues(const char* key) const = 0;
    virtual int countValues(const char* category, const char* key) const = 0;

    /// The number of a stanza's keys; whether it exists.
    virtual int keyCount(const char* category) const;
    virtual int contains(const char* category) const;
    /// Whether the key exists, with or without values.
    virtual int contains(const char* category, const char* key) const;
    /// 1 if the key has hidden values and no plain one.
    virtual int isObfuscated(const char* key) const;
    virtual int isObfuscated(const char* category, const char* key) const;
    /// The number of stanzas.
    virtual int count() const;

    /// Appends the stanza names, in file order, those without a header line last.
    virtual void getNames(ZArrayList& list) const;
    /// Makes `list` the keys of the stanza in the order of their first appearance; leaves it alone
    /// if there is no such stanza.
    virtual void getNames(const char* category, ZArrayList& list) const;
    /// The stanza's key list itself, or null: the cache's, current until the stanza goes.
    virtual ZArrayList* getNames(const char* category) const;

    /// Prints the map, not the lines: plain values only.
    virtual void list(FILE* stream) const = 0;

    /// Reads or writes the file's format at the stream's position; `file` is for messages.
    virtual void be_read(const char* file, FILE* stream) = 0;
    virtual void be_write(const char* file, FILE* stream) = 0;
    /// The errno at which the last be_read's stream failed, or 0. What was read until then was
    /// added.
    int readError() const;
    /// Adds what the side database's bytes hold, or fills `buffer` with them; leaves `buffer`
    /// alone if there is nothing to write.
    virtual void be_read_obfuscated(ZBuffer& buffer) = 0;
    virtual void be_write_obfuscated(ZBuffer& buffer) = 0;

    // Changes of map and lines.

    /// Removes the key and its lines.
    virtual void delLine(const char* key) = 0;
    virtual void delLine(const char* category, const char* key) = 0;
    /// Sets the one value of a key, and gives a key that has no line one: behind the stanza's last
    /// key, or at the end of the paragraph in which a comment reads like an entry for it. A null
    /// key makes the stanza alone.
    virtual void addLine(const char* category, const char* key, const char* value,
                         int obfuscated) = 0;
    virtual void addLine(const char* key, const char* value, int obfuscated) = 0;
    /// To the end of the file's first paragraph, or in front of all, closed by a blank line.
    virtual void addFileComment(const char* text) = 0;
    /// Directly in front of the key's line, with a blank line before it if a key or the header
    /// stands there. A missing key is made.
    virtual void addLineComment(const char* key, const char* text) = 0;
    virtual void addLineComment(const char* category, const char* key, const char* text) = 0;

    /// Forgets all but the attributes.
    virtual void clear();
    /// Sets further attribute bits and stores the data word.
    virtual void setAttributes(unsigned long flags, void* data);
    /// The bits that are set: ZPCACHE_KEEP_COMMENTS and the others of zstoremodes.h.
    unsigned long attributes() const { return attributes_; }
    /// Makes the composite key "category.key".
    virtual void makeKey(ZAbstractMutableString& out, const char* category, const char* key) const;

    /// The last value that get with GET_ANY would list, without making the list: its text, not
    /// terminated, good until the next change. 0 if there is none. A class that overrides get
    /// overrides this too if the two would differ.
    virtual int lastValue(const char* category, const char* key, const char*& text,
                          unsigned int& length) const;
    /// Adds copies of all values that get with GET_ANY would list to an owning `list`.
    virtual void copyValues(const char* category, const char* key, ZArrayList& list) const;

    /// With ZPCACHE_STRICT set, raises ZInvalidParameterException for a value of this key that a
    /// load wouldn't give back. `mayBeEmpty`: a key without a value is meant too.
    void checkValue(const char* key, const char* value, int obfuscated, int mayBeEmpty) const;
    int isStrict() const { return (attributes_ & ZPCACHE_STRICT) != 0; }

    /// The path of the side database, empty while there is none.
    const ZLCString& obfuscatedDBName() const { return obfuscatedDBName_; }
    void setObfuscatedDBName(const char* name) { obfuscatedDBName_ = name; }
    /// The number of keys that the side database follows.
    unsigned int obfuscatedCount() const;

    /// The shared empty text.
    static const ZLCString& emptyText() { return *empty_; }

    /// Has the memory fetched at which a change of that key looks first, if that takes time: for
    /// whoever is about to take the owner's lock, which isn't needed here. Any thread may call it.
    void fetchAhead(const char* category, const char* key) const;

protected:
    /// Where map and lines are.
    ZPStore& store() const { return *store_; }

    ZLCString obfuscatedDBName_;
    unsigned long attributes_;
    void* attributeData_;

    static ZLCString* empty_;  // made once, by the first constructor

private:
    // Walks know the store, to keep their places.
    friend class ZPropertiesIterator;
    friend class ZAbstractPropertyValuesIterator;

    static void makeEmpty();
    static unsigned long firstAttributes();  // sees to empty_ before anything needs giving back

    ZPStore* store_;
};

/// The working model. What the file formats look like is left to a subclass: clone and the four
/// be_ operations stay pure.
class ZEXPORT ZPCategoryBasedCache : public ZPCache {
public:
    ZPCategoryBasedCache() {}
    ZPCategoryBasedCache(const ZPCategoryBasedCache& other) : ZPCache(other) {}

    // Composite keys "stanza.key" are split at the first "."; a later one belongs to the key.
    ZArrayList* get(const char* category, const char* key, get_type_e type) const override;
    ZArrayList* get(const char* key, get_type_e type) const override;
    void add(const char* category, const char* key, const char* value, int obfuscated) override;
    void add(const char* key, const char* value, int obfuscated) override;
    void set(const char* category, const char* key, const char* value) override;
    void set(const char* key, const char* value) override;
    void setObfuscated(const char* category, const char* key, const char* value) override;
    void setObfuscated(const char* key, const char* value) override;
    void remove(const char* category, const char* key) override;
    void remove(const char* category) override;
    int countValues(const char* key) const override;
    int countValues(const char* category, const char* key) const override;
    int keyCount(const char* category) const override;
    int contains(const char* category) const override;
    int contains(const char* category, const char* key) const override;
    int isObfuscated(const char* key) const override;
    int isObfuscated(const char* category, const char* key) const override;
    void getNames(ZArrayList& list) const override;
    void getNames(const char* category, ZArrayList& list) const override;
    ZArrayList* getNames(const char* category) const override;
    void list(FILE* stream) const override;
    void delLine(const char* key) override;
    void delLine(const char* category, const char* key) override;
    void addLine(const char* category, const char* key, const char* value, int obfuscated) override;
    void addLine(const char* key, const char* value, int obfuscated) override;
    void addFileComment(const char* text) override;
    void addLineComment(const char* key, const char* text) override;
    void addLineComment(const char* category, const char* key, const char* text) override;
    int lastValue(const char* category, const char* key, const char*& text,
                  unsigned int& length) const override;
    void copyValues(const char* category, const char* key, ZArrayList& list) const override;

    /// Makes the stanza with a header line behind a blank line, at the end. 1, with nothing
    /// changed, if it exists; else 0.
    int addStanzaLine(const char* category);
    /// Removes the stanza with its header and all lines up to the next one; the blank line in
    /// front of the header stays.
    void delStanzaLine(const char* category);
    /// Behind the comments that follow the header, closed by a blank line. A missing stanza is
    /// made.
    void addStanzaComment(const char* category, const char* text);
    /// Splits "stanza.key"; raises ZInvalidParameterException for a null text or one without ".".
    static void validateKey(const char* composite, ZLCString& category, ZLCString& key);

    /// Ends the process if the storage is inconsistent. For tests.
    void checkInvariants() const;
};

#endif
