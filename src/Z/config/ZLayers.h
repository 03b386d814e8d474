// ZLayers.h: one configuration out of the files of several folders: vendor, system, drop-ins.
#ifndef Z_ZLAYERS_H
#define Z_ZLAYERS_H

#include "ZStanzaFileProperties.h"
#include "zlayerterms.h"

class ZLayersFile;

/// A configuration whose values come from several files, see zlayerterms.h: to readers an object as
/// that of one file, with the origin of each value. What is changed goes into one of the files, the
/// target, as the changed keys alone, when the object is stored.
///
///     ZLayersTerms terms = {sizeof terms};
///     terms.name = "service";
///     ZLayers layers(terms);
///     layers.setTarget("/etc", "50-local.conf");
///     ZPropertiesUpdate update(layers, 10000);
///     layers.setValue("log", "level", "debug");
///     update.commit();
///
/// Reading: of a key the last file that has it gives all values; "key =" there gives none, and so
///   does a key without a divider. With
///   ZLAYERS_COLLECT the values of all files follow each other, and "key =" forgets those before
///   it. A load is of one moment: if a file, a folder or a link has changed meanwhile it begins
///   again, and raises ZPropertiesIOException with "load()" and EAGAIN if that never ends. A file
///   Stamps tell of changes: one that is made twice within a tick of the clock, once on either side
///   of the reading, may escape. A file that can't be read raises what loading it raises, unless
///   ZLAYERS_SKIP_BAD leaves it out; that the process has no descriptor or memory left raises
///   always. Names of files given to load, reload and store raise ZInvalidParameterException.
/// Changing: setters change the object; store(nullptr) and updates put what was changed since the
///   load into the target: under its lock, safely, as the changed keys alone, into what it holds
///   then. Removing a key that a lower file has writes "key =". Other than for values, names,
///   comments and bytes can't be changed, and what renames, comments and loadBytes would do raises
///   ZInvalidParameterException with a reason. After a store the object is as the files are; if one
///   of them can't be read then, it keeps its values, which count as stored, and has no origins for
///   them until the next load.
///   A target that isn't there is made, with its folder, which stays if nothing comes of the
///   change. A drop-in that was made here goes with its last key, and its folder if that is empty
///   then. Refused with a reason is a target that would hide a file of a lower root, is hidden
///   itself, can't be read, or stands at a later place once more; one that is empty and a link;
///   and below a prefix one that is a link, or has or gets hidden values.
///   What a credential gives is never written anywhere.
/// Dialects: with one in the terms all files are read in it and the target is changed in it, as
///   ZStanzaFileProperties::setDialect says; hidden values can be had from credentials alone. What
///   it can't say is refused with the reason, above all several values where it has the last one
///   only. "key =", which takes back what lower files say, is to this object a key without values
///   whatever the files' owner takes it for; where a blank divides it is key "" with quotes, and
///   without them it can't be said. The mark of a drop-in that was made here is a comment of the
///   dialect.
/// Shadows: a change to a key to which a file above the target gives other values is stored, and
///   shadowed() tells of it; with ZLAYERS_REFUSE_SHADOWED it raises ZInvalidParameterException,
///   nothing is stored, and shadowed() tells why.
/// Updates (ZPropertiesUpdate.h) lock the target, which need not be there, read all files anew, and
///   are undone to that. While they begin and end they wait for the other files' locks, but not
///   with the target's in their hands: beginning is tried as a whole. Watchers (see
///   ZPropertiesWatcher.h) watch all files and folders.
///   path() is the target's.
///
/// Threads and ownership: as ZProperties.
/// Cost: a load of each file, and listing their folders. An origin: at the first asking looking
///   through the file, then next to nothing.
class ZEXPORT ZLayers : public ZStanzaFileProperties {
public:
    /// Loads at once. `attributes`: ZPCACHE_STRICT, or 0. Waits up to `wait` milliseconds for each
    /// file's lock. Raises as load, and ZInvalidParameterException for terms that can't be,
    /// switches of a dialect that clash among them.
    explicit ZLayers(const ZLayersTerms& terms, unsigned long attributes = 0,
                     unsigned long wait = 0);
    ~ZLayers() noexcept override;
    ZLayers(const ZLayers&) = delete;

    void store(const char* file) override;
    void reload(const char* file) override;

    /// Where changes go: the main file of a root of the terms, or if `dropIn` isn't null that
    /// drop-in; a null root is the highest. Raises ZInvalidParameterException for another root, for
    /// a name that can't be a drop-in's, in an update and with unsaved changes; and
    /// ZPropertiesIOException where links on the way to it can't be followed.
    void setTarget(const char* root, const char* dropIn);

    /// Where the value at `index` of a key comes from: its file, and the line from 1. 0 in `line`
    /// for one that is hidden or comes from a variable ("$NAME") or credential; and an empty `file`
    /// too for one that isn't stored yet. Raises ZInvalidParameterException where there is no such
    /// value.
    void getOrigin(const char* stanza, const char* key, unsigned int index, ZLCString& file,
                   int& line) const;

    /// Calls visit(data, file) for each file that was found by the last load, in their order.
    void forEachFile(void (*visit)(void* data, const ZLayerInfo& file), void* data) const;
    /// Calls visit(data, entry) for each entry of all files, in their order, as they were loaded:
    /// also those that have lost their place. No lock is held meanwhile.
    void forEachEntry(void (*visit)(void* data, const ZLayerEntry& entry), void* data) const;

    /// Of the last store: how many of the changed keys have other values by a file above the
    /// target, and of the first of them the file and line.
    unsigned int shadowed(ZLCString& file, int& line) const;

private:
    static ZPropertiesFile* makeFile(ZProperties& object);
    ZLayersFile& layers() const;
};

#endif
