// ZPropertiesIterator.h: walks over a configuration object.
//
//   ZPropertiesIteratorInterface, ZAbstractPropertiesIterator
//     ZPropertiesIterator              the keys of a stanza
//   ZPropertyValuesIteratorInterface
//     ZAbstractPropertyValuesIterator  the values of a key, which it can change in place
//
// An iterator holds its object's lock from construction to destruction: the walk sees a stable
// object, other threads wait, and it has to be destroyed in the thread that made it. That thread
// may go on calling the object, and change and remove whatever it likes. A walk whose key has gone
// stands on none, and goes on behind the place where it was; a walk over keys ends when its stanza
// goes, as with a reload. What it had handed out of the removed goes too. The object must outlive
// its iterators. There is no way back and no copy: a new walk takes a new iterator.
#ifndef Z_ZPROPERTIESITERATOR_H
#define Z_ZPROPERTIESITERATOR_H

#include "ZProperties.h"

/// A walk over keys; ZPropertiesIterator tells what each call does.
class ZEXPORT ZPropertiesIteratorInterface {
public:
    virtual int hasMore() = 0;
    virtual void nextEntry() = 0;
    virtual const char* entryName() = 0;
    virtual const char* entryValue(unsigned int i) = 0;
    virtual unsigned int keyCount() = 0;
    virtual unsigned int valueCount() = 0;
    virtual ~ZPropertiesIteratorInterface() noexcept(false) {}
};

/// Adds nothing.
class ZEXPORT ZAbstractPropertiesIterator : public ZPropertiesIteratorInterface {};

/// Walks the keys of a stanza in the order of the file.
///
/// Failure: ZPropertiesIteratorException (42) where the walk isn't at the place that a call needs:
///   in front of the first key, behind the last, or where a key has been removed.
/// Cost: each call constant, whatever is added or removed meanwhile.
class ZEXPORT ZPropertiesIterator : public ZAbstractPropertiesIterator {
public:
    /// A walk over nothing; its entries would be composite keys.
    explicit ZPropertiesIterator(ZProperties& properties);
    /// A missing stanza has no keys. Null or empty raises ZInvalidParameterException.
    ZPropertiesIterator(ZProperties& properties, const char* stanza);
    ~ZPropertiesIterator() noexcept(false) override;
    ZPropertiesIterator(const ZPropertiesIterator&) = delete;
    ZPropertiesIterator& operator=(const ZPropertiesIterator&) = delete;

    /// 1 while nextEntry has somewhere to go.
    int hasMore() override;
    /// Moves to the next key; raises at the end.
    void nextEntry() override;
    /// The current key, good while the key is there; where the cache isn't a ZSCFData, until the
    /// next call. Raises when on none.
    const char* entryName() override;
    /// Value `i`, from 0, of the current key, good while it is there: of the kind that the key had
    /// when the walk came to it. Raises when on no key, and ZInvalidParameterException if there is
    /// no such value.
    const char* entryValue(unsigned int i) override;
    /// The number of keys.
    unsigned int keyCount() override;
    /// The number of the current key's values. Raises when on none.
    unsigned int valueCount() override;

    /// The cache's list of the values of `name` in this stanza as they are now, or null.
    virtual ZArrayList* getValues(const char* name);

private:
    class Place;

    const ZArrayList* keys();
    void requireEntry();
    const ZArrayList* values();

    ZLCString stanza_;
    ZProperties* properties_;
    ZResourceLock guard_;
    Place* place_;        // owned; null in a walk over nothing
    ZArrayList* values_;  // of the current key, once somebody has asked
    // Whether values_ has still to be fetched, whether that is under way, and which values the
    // current key had when the walk came to it; their list isn't made before it is needed.
    bool valuesPending_;
    bool valuesAsked_;
    ZPCache::get_type_e valuesKind_;
    unsigned int index_;     // of the current key in another cache's list; all ones in front of all
    ZLCString* currentKey_;  // owned; its name there, null when on none
};

/// A walk over values; ZAbstractPropertyValuesIterator tells what each call does.
class ZEXPORT ZPropertyValuesIteratorInterface {
public:
    virtual int hasMore() = 0;
    virtual const ZLCString* nextValue() = 0;
    virtual const char* nextValue(const char*& text) = 0;
    virtual void changeValue(const char* text) = 0;
    virtual void addValue(const char* text) = 0;
    virtual void removeValue() = 0;
    virtual unsigned int valueCount() = 0;
    virtual ~ZPropertyValuesIteratorInterface() noexcept(false) {}
};

/// Walks the values of a key and changes them in place.
///
/// Whoever else changes the values meanwhile: the walk keeps its index, and stands on no value
/// where that is behind the last one.
///
/// Failure: ZPropertiesIteratorException (42) where the walk isn't at the place that a call needs.
class ZEXPORT ZAbstractPropertyValuesIterator : public ZPropertyValuesIteratorInterface {
public:
    /// Which values are walked: whichever the key holds, the plain ones, the hidden ones.
    enum ZPropIter_valtype { ZPROP_ITER_AUTO = 0, ZPROP_ITER_PLAIN = 1, ZPROP_ITER_OBFUSCATED = 2 };

    /// A missing key has no values. Raises ZInvalidParameterException for a null name, a type that
    /// is none, or a key whose values are of the other kind than asked for.
    ZAbstractPropertyValuesIterator(ZProperties& properties, const char* stanza, const char* key,
                                    ZPropertyStringType stringType, ZPropIter_valtype valueType);
    ~ZAbstractPropertyValuesIterator() noexcept(false) override;
    ZAbstractPropertyValuesIterator(const ZAbstractPropertyValuesIterator&) = delete;
    ZAbstractPropertyValuesIterator& operator=(const ZAbstractPropertyValuesIterator&) = delete;

    int hasMore() override;
    /// The next value as it is stored, in the local codeset; the list's own. Raises at the end.
    const ZLCString* nextValue() override;
    /// The same in the iterator's codeset, good until the next call; also the result.
    const char* nextValue(const char*& text) override;
    /// Replaces the current value; `text` is in the iterator's codeset. Raises when on none.
    void changeValue(const char* text) override;
    /// Adds behind the current value, or at the end if the values have become fewer, and moves
    /// there. A key without values is set to it, with its stanza and line if need be, and a notice
    /// goes out; an empty text leaves it without values.
    void addValue(const char* text) override;
    /// Removes the current value and moves back, so that the walk goes on behind it. Removing the
    /// first of a walk over hidden values removes them all. Raises when on none.
    void removeValue() override;
    unsigned int valueCount() override;

    /// Whether the iterator is on a value.
    int isValid() const;
    /// That value as it is stored, the list's own; null when on none.
    const ZLCString* currentValue() const;

private:
    class Place;

    bool walksHidden() const;
    ZArrayList* values() const;
    void convert(const char* text, ZLCString& out) const;

    Place* place_;       // owned; null where the cache is no working one
    mutable int index_;  // -1 before the first value
    ZProperties* properties_;
    ZResourceLock guard_;
    ZLCString stanza_;
    ZLCString key_;
    ZPropertyStringType stringType_;
    ZAbstractString* current_;  // owned; the text last handed out
    ZPropIter_valtype valueType_;
    bool foundHidden_;  // whichever-walk: what the key held at the start
};

#endif
