// ZProperties.h: one configuration file as an object.
//
//   ZPropertiesInterface         the read side and the file side, for clients
//   ZPropertiesMutableInterface  the write side, for clients
//   ZPropertiesLock              the lock of a configuration
//   ZAbstractProperties          adds it
//     ZProperties                look-ups, changes, notices, load and store on a cache
//   ZPropertyChanged             what observers are told
//   ZPropertiesFactoryInterface, ZAbstractPropertiesFactory
//                                make and register the shared objects of getPropertiesFor
//   ZPropRegistry                holds the process-wide registry lock for a scope
//
// Load and store stand in ZPropertiesImpl.cpp, the registry in zpropregistry.cpp, notices in
// zpropnotices.cpp, all else in ZProperties.cpp.
#ifndef Z_ZPROPERTIES_H
#define Z_ZPROPERTIES_H

#include <atomic>

#include "ZKeyMap.h"
#include "ZLCString.h"
#include "ZList.h"
#include "ZLock.h"
#include "ZObserve.h"
#include "ZPCache.h"
#include "ZUTF8String.h"

class ZAbstractPropertiesFactory;
class ZPropertiesFile;
class ZChangeNames;

/// The codeset in which text is given out. All stored text is in the local codeset.
enum ZPropertyStringType { ZPROP_STRING_LOCAL = 0, ZPROP_STRING_UTF8 = 8 };

/// The read side and the file side of a configuration; see ZProperties.
class ZEXPORT ZPropertiesInterface {
public:
    virtual int exists(const char* category, const char* key) const = 0;
    virtual int exists(const char* category) const = 0;
    virtual void getValue(const char* category, const char* key, ZAbstractMutableString& out,
                          int required, const char* defaultValue) const = 0;
    virtual unsigned int getIntegerValue(const char* category, const char* key, int required,
                                         unsigned int defaultValue) const = 0;
    virtual int getBooleanValue(const char* category, const char* key, int required,
                                int defaultValue) const = 0;
    virtual int count() const = 0;
    virtual int count(const char* category) const = 0;
    virtual int numValues(const char* category, const char* key) const = 0;
    virtual int numValues(const char* key) const = 0;
    virtual void getValues(const char* category, const char* key, ZArrayList& list,
                           ZPropertyStringType type) const = 0;
    virtual void load(const char* file) = 0;
    virtual void reload(const char* file) = 0;
    virtual void store(const char* file) = 0;
    virtual void list() const = 0;
    virtual ~ZPropertiesInterface() noexcept {}
};

/// The write side of a configuration; see ZProperties.
class ZEXPORT ZPropertiesMutableInterface {
public:
    virtual void setValue(const char* category, const char* key, const char* value) = 0;
    virtual void setIntegerValue(const char* category, const char* key, unsigned int value) = 0;
    virtual void setBooleanValue(const char* category, const char* key, int value) = 0;
    virtual void deleteKey(const char* category, const char* key) = 0;
    virtual void addFileComment(const char* text) = 0;
    virtual void addEntryComment(const char* category, const char* key, const char* text) = 0;
    virtual ~ZPropertiesMutableInterface() noexcept {}
};

/// What an observer of a properties object is told. The texts are good only during the notice;
/// `key` is null for a notice about a stanza.
class ZEXPORT ZPropertyChanged : public ZObservedParm {
public:
    /// What kind of property it is, and what has become of it.
    enum PropertyStyle { StanzaProperty = 0 };
    enum PropertyChangeType { PropertyAdded = 0, PropertyDeleted = 1, PropertyModified = 2 };

    /// Keeps the pointers.
    ZPropertyChanged(const char* stanzaName, const char* keyName, PropertyStyle propertyStyle,
                     PropertyChangeType type)
        : stanza(stanzaName), key(keyName), style(propertyStyle), changeType(type) {}

    const char* stanza;             ///< its name
    const char* key;                ///< null where the stanza is meant
    PropertyStyle style;            ///< StanzaProperty
    PropertyChangeType changeType;  ///< added, deleted or modified
};

/// The lock of a configuration. A thread that gives up its last hold sends the notices that were
/// kept back meanwhile, in their order, when the lock is free; unlock() then raises what an
/// observer raises first, and the others are told all the same.
class ZEXPORT ZPropertiesLock : public ZLock {
public:
    void unlock() override;
    /// Forgets what is kept.
    ~ZPropertiesLock() noexcept override;

    /// Whether the calling thread holds it.
    bool isHeld() const { return depth() != 0; }
};

/// Adds the lock that makes a configuration safe to share.
class ZEXPORT ZAbstractProperties : public ZObject, public ZPropertiesInterface {
public:
    /// Holds any lock for a scope. What its unlock raises is reported if an exception is on its
    /// way.
    class ZEXPORT ZPropResourceLock {
    public:
        /// Waits for the lock.
        explicit ZPropResourceLock(ZLockInterface& lock) : lock_(lock) { lock_.lock(); }
        ~ZPropResourceLock() noexcept(false);
        ZPropResourceLock(const ZPropResourceLock&) = delete;
        ZPropResourceLock& operator=(const ZPropResourceLock&) = delete;

    private:
        ZLockInterface& lock_;
    };

    ZAbstractProperties() {}
    /// The copy has a lock of its own, free.
    ZAbstractProperties(const ZAbstractProperties&) : ZObject(), ZPropertiesInterface() {}
    ~ZAbstractProperties() noexcept override {}

protected:
    mutable ZPropertiesLock lock_;
};

/// One configuration file as an object: typed look-ups and changes, notices for observers, load
/// and store. It owns no format; what the file looks like is the cache's business.
///
/// Ownership: arguments are copied. The cache belongs to the subclass that made it. Objects of
///   getPropertiesFor are shared, belong to their registry and live until the process ends.
/// Failure: ZInvalidParameterException (22) for a category or key that is null or empty, and where
///   a call says so; the classes and numbers of the other exceptions stand with the calls. After a
///   failure the object is usable.
/// Threads: any. One recursive lock covers each call; a thread that keeps an iterator open holds it
///   meanwhile. Notices go out after it is released: those of changes under an open iterator or
///   update when that has ended, from its destructor, which raises what an observer raises. `get`,
///   `keyNames` and `list` take no lock: they are for a caller who holds an iterator or knows that
///   nobody changes the object.
/// Between processes: a load takes a read lock on the whole file, a store a write lock, by fcntl,
///   and neither waits. They are advisory, and a process that closes any descriptor of a file loses
///   its locks on it.
/// Cost: look-ups and changes constant on average, whatever the number of keys. Once a stanza's key
///   list has been handed out, deleting one of its keys is linear in their number, the last one
///   excepted; a walk hands out none. A comment costs a walk over the comments that it joins.
class ZEXPORT ZProperties : public ZAbstractProperties,
                            public ZAbstractObservable,
                            public ZPropertiesMutableInterface {
public:
    /// Stands on `cache`, which stays the caller's, also if this raises ZOutOfMemoryException.
    explicit ZProperties(ZPCache* cache);
    /// Clones the cache, which then is the subclass's to delete. No file name, no observers.
    ZProperties(const ZProperties& other);
    ZProperties& operator=(const ZProperties&) = delete;
    ~ZProperties() noexcept override;

    /// Whether the key or stanza exists; a key exists with or without values.
    int exists(const char* category, const char* key) const override;
    int exists(const char* category) const override;
    /// 1 if the key's values are hidden: they stand in the side database and not in the text.
    /// Raises ZInvalidParameterException for a key that doesn't exist. The one-argument form takes
    /// "stanza.key".
    virtual int isObfuscated(const char* category, const char* key) const;
    virtual int isObfuscated(const char* key) const;

    /// The last value of the key into `out`, converted to the codeset of `out`. If there is none:
    /// the default, null counting as empty; with `required`, which admits no default,
    /// ZPropertiesMissingPropertyException (28).
    void getValue(const char* category, const char* key, ZAbstractMutableString& out, int required,
                  const char* defaultValue) const override;
    /// The last value as a number: decimal, octal with a leading 0, hexadecimal with 0x; a number
    /// beyond 32 bits gives 4294967295. As above if there is none (a default of 0 counts as none);
    /// ZPropertiesInvalidValueException with number 40 if the value is no number.
    unsigned int getIntegerValue(const char* category, const char* key, int required,
                                 unsigned int defaultValue) const override;
    /// The last value as a truth: yes, y, true, t, 1 or no, n, false, f, 0, in any case. As above;
    /// the number is 41.
    int getBooleanValue(const char* category, const char* key, int required,
                        int defaultValue) const override;
    /// Makes `list`, which must own its members, copies of all values: ZLCString or ZUTF8String.
    /// A missing key gives an empty list.
    void getValues(const char* category, const char* key, ZArrayList& list,
                   ZPropertyStringType type) const override;
    /// The number of values, 0 for a missing key. The one-argument form takes "stanza.key".
    int numValues(const char* key) const override;
    int numValues(const char* category, const char* key) const override;
    /// The number of stanzas, or of a stanza's keys.
    int count() const override;
    int count(const char* category) const override;

    /// Reads `file`, or the file that the object belongs to if that is null or empty, on top of
    /// what the object holds: once on an empty object, reload from then on. The first path given
    /// becomes the object's. Raises ZInvalidParameterException without any path,
    /// ZPropertiesIOException (43) with the call that failed and its errno, and what the format's
    /// reader raises; then the object keeps what was read so far.
    void load(const char* file) override;
    /// Forgets all, then loads. One lock over both.
    void reload(const char* file) override;
    /// Writes the side database, then the file in place, or creates it. Raises as load; the calls
    /// that can have failed are "access()", "fopen(r+)", "fcntl()" and, for the side database,
    /// "fopen(w)". What the disk does with the bytes isn't looked at.
    void store(const char* file) override;
    /// Prints stanzas, keys and plain values to standard output.
    void list() const override;

    /// How stores are made from now on: ZPROP_STORE_PLAIN, as above and the default; CHECKED, where
    /// whatever fails raises ZPropertiesIOException and leaves the object modified; SAFE, which
    /// also leaves the old or the new content after a crash at any moment, by way of a journal
    /// beside the file. In the last two, locks belong to the open file and not to the process, so
    /// that threads and objects of one process exclude each other, and a store after a load that
    /// failed raises ZInvalidParameterException until a load succeeds or
    /// allowStoreAfterFailedLoad() is called; SAFE refuses a file with a second hard link
    /// ("link()"), and needs a folder that it may write to. Another number raises
    /// ZInvalidParameterException.
    void setStoreMode(int mode);
    int storeMode() const;
    /// In which mode the last store was made: ZPROP_STORE_CHECKED in place of SAFE where the
    /// journal can't be given the file's owner, group and access list, as when neither the owner
    /// nor root stores. A crash may then have left a part of the new content.
    int lastStoreMode() const;
    /// How long loads and stores go on trying while somebody else holds the file's lock; 0, the
    /// default, fails at once. The object's lock is held meanwhile. getPropertiesFor never waits.
    void setLockWait(unsigned long milliseconds);
    /// By what getPropertiesFor finds out that somebody else has stored this object's file:
    /// ZPROP_CHANGE_SECONDS, the default, or ZPROP_CHANGE_EXACT, for which a file that was changed
    /// less than 50 ms before the load counts as changed since. Another number raises
    /// ZInvalidParameterException.
    void setChangeTest(int test);
    /// Lets the next store put what the object holds in place of a file that it couldn't read.
    void allowStoreAfterFailedLoad();

    /// The value becomes the only one of its key; null or empty empties the key and keeps it. With
    /// `obfuscated` it goes into the side database; a key that has values of the other kind raises
    /// ZInvalidParameterException. Notice: PropertyModified.
    void setValue(const char* category, const char* key, const char* value) override;
    virtual void setValue(const char* category, const char* key, const char* value, int obfuscated);
    virtual void setValue(const char* category, const char* key, const ZLCString& value);
    virtual void setValue(const char* category, const char* key, const ZUTF8String& value);
    virtual void setValue(const char* category, const char* key, const ZLCConstString& value);
    virtual void setValue(const char* category, const char* key, const ZUTF8ConstString& value);
    /// In decimal; "yes" or "no". A key with hidden values raises ZInvalidParameterException.
    void setIntegerValue(const char* category, const char* key, unsigned int value) override;
    void setBooleanValue(const char* category, const char* key, int value) override;
    /// A missing key is no error. Notice: PropertyDeleted.
    void deleteKey(const char* category, const char* key) override;
    /// A comment at the end of the file's first paragraph, or in front of the key, which is made if
    /// it is missing. No notice.
    void addFileComment(const char* text) override;
    void addEntryComment(const char* category, const char* key, const char* text) override;

    /// Called at the end of a load. Does nothing here.
    virtual void postLoad(const char* file);
    /// May rewrite a comment before it is kept. Does nothing here.
    virtual void checkComment(ZLCString& text);
    /// Passed to the cache.
    virtual void setAttributes(unsigned long flags, void* data);
    /// Raises ZInvalidParameterException if the key has values of the other kind.
    virtual void checkAccess(const char* category, const char* key, int obfuscated) const;

    /// The cache's own value list of the key, or null; no lock.
    ZArrayList* get(const char* category, const char* key) const;
    /// The stanzas' names, or a stanza's keys, into a list that must own its members; no lock.
    void keyNames(ZArrayList& list) const;
    void keyNames(const char* category, ZArrayList& list) const;
    /// The cache's own list of the stanza's keys, or null; no lock.
    ZArrayList* keyNames(const char* category) const;

    /// Whether something was changed since the last load or store. No lock.
    int isModified() const { return modified_.load(std::memory_order_relaxed); }
    void resetModified() { modified_.store(0, std::memory_order_relaxed); }
    void setModified() { modified_.store(1, std::memory_order_relaxed); }

    /// The shared object of `file` in this registry, the exact text of the path deciding. Loaded
    /// at first, and anew when the file's time has changed and there are no unsaved changes, or
    /// always with `forceReload`. Nobody deletes it. Raises as load.
    ///
    /// A reload waits for whoever holds the object, and keeps nobody waiting who asks for another
    /// file. What was changed meanwhile counts: unsaved changes win. First loads, each with the
    /// factory's call and postLoad, are made one by one.
    static ZProperties* getPropertiesFor(const char* file, ZAbstractPropertiesFactory& factory,
                                         int forceReload);

protected:
    /// Tells the observers, unless a load is under way. While the calling thread holds the lock,
    /// the notice waits for its end; it is told to those who are registered then, and not kept if
    /// there is nobody now.
    void sendChangeNotice(ZPropertyChanged::PropertyStyle style,
                          ZPropertyChanged::PropertyChangeType type, const char* category,
                          const char* key);
    /// The same of a change by this object. Observers added since the change began aren't told.
    void sendChangeNotice(ZPropertyChanged::PropertyChangeType type, const ZChangeNames& names);

    /// `text` as it is stored, in the local codeset. With ZPCACHE_STRICT set, raises
    /// ZInvalidParameterException for what that codeset can't hold; else it becomes the empty text.
    void convertToStored(const ZAbstractString& text, ZLCString& out) const;

    /// The last value of the key, not terminated and good under the lock; 0 if there is none.
    /// Raises ZPropertiesMissingPropertyException then if it is required.
    int extractValue(const char* category, const char* key, int required, const char*& text,
                     unsigned int& length) const;

    // Set by the constructor; what it leads to is guarded by lock_.
    ZPCache* cache_;
    // Guarded by lock_. The first load sets it for good.
    ZLCString fileName_;
    // Read without the lock by design.
    std::atomic<int> modified_;
    std::atomic<int> loading_;     // the cache is being filled, of which nobody is told
    std::atomic<long> timeStamp_;  // modification time of the file at the last load or store

private:
    friend class ZPropertiesFile;
    friend class ZPropertiesIterator;
    friend class ZAbstractPropertyValuesIterator;
    friend class ZStanzaFileProperties;

    // Applies one change under the lock, and tells the observers behind it. Raises
    // ZInvalidParameterException for a null or empty name; changeStanza has no key.
    template <typename Change>
    void changeKey(ZPropertyChanged::PropertyChangeType type, const char* category, const char* key,
                   Change apply);
    template <typename Change>
    void changeStanza(ZPropertyChanged::PropertyChangeType type, const char* stanza, Change apply);
    // The same of a comment, as checkComment makes it; nobody is told.
    template <typename Change>
    void changeComment(const char* text, Change apply);
    template <typename Change>
    void change(ZPropertyChanged::PropertyChangeType type, const char* category, const char* key,
                Change apply);
    void setOnly(const char* category, const char* key, const char* value, int obfuscated);
    static ZProperties* findPropertiesFor(const char* file, ZAbstractPropertiesFactory& factory);
    // With a file's side that `make` gives.
    ZProperties(ZPCache* cache, ZPropertiesFile* (*make)(ZProperties& object));

    static ZProperties* makePropertiesFor(const char* file, ZAbstractPropertiesFactory& factory);

    ZPropertiesFile* const file_;  // what the object knows of its file
};

/// Makes the objects that getPropertiesFor hands out.
class ZEXPORT ZPropertiesFactoryInterface {
public:
    /// A new object, empty; the registry keeps it.
    virtual ZProperties* makePropertiesInstance() = 0;
    virtual ~ZPropertiesFactoryInterface() noexcept {}
};

/// A factory with its registry, from file name to object. Lives as long as its objects are used.
class ZEXPORT ZAbstractPropertiesFactory : public ZPropertiesFactoryInterface, public ZObject {
public:
    ZAbstractPropertiesFactory();
    ~ZAbstractPropertiesFactory() noexcept override;

protected:
    friend class ZProperties;

    ZLock lock_;             // for subclasses; the registry has a lock of its own
    ZHashKeyMap instances_;  // ZLCString to ZProperties, not owned; guarded by ZPropRegistry
    ZArrayList names_;       // owns the file names in instances_
};

/// Holds the process-wide lock of all registries for a scope.
class ZEXPORT ZPropRegistry {
public:
    ZPropRegistry();
    ~ZPropRegistry() noexcept(false);
    ZPropRegistry(const ZPropRegistry&) = delete;
    ZPropRegistry& operator=(const ZPropRegistry&) = delete;

private:
    static void init();
    static ZLock* res_;  // made once, never destroyed
};

#endif
