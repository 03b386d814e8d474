// ZPropertiesUpdate.h: read, change and store a configuration file so that no other writer comes
// between.
#ifndef Z_ZPROPERTIESUPDATE_H
#define Z_ZPROPERTIESUPDATE_H

#include "ZProperties.h"

/// One update of a file: while it lives, the object is this thread's and the file is write-locked.
///
///     ZPropertiesUpdate update(file, 10000);
///     file.setIntegerValue("jobs", "done", file.getIntegerValue("jobs", "done", 0, 0) + 1);
///     update.commit();
///
/// The constructor reads the file anew, so that changes are made to what the file holds. They are
/// made with the object's usual calls. What isn't committed is forgotten: the destructor takes the
/// object back to what it was at the beginning, or at the last store inside, and the file sees
/// nothing of it. Observers are told of each change when the object's lock is free again, of those
/// that were taken back too.
///
/// Load, reload and store of that file by this object go through the update's own lock meanwhile;
/// a store is a commit that leaves the update open. getPropertiesFor of the file in this thread
/// raises ZInvalidParameterException (22).
///
/// Of several files (ZLayers.h) the target is updated: it need not be there, all files are read
/// anew, and what isn't committed takes the object back to what they held then. The wait is the
/// constructor's; at the end it is the object's own.
///
/// Ownership: a scope object, on the stack. The properties object must outlive it.
/// Failure: as each call says. An update that couldn't begin has changed nothing, but that the
///   object may have been read anew, or be empty after a reading that failed.
/// Threads: begin and end belong to one thread. Other threads' calls on the object wait, a
///   reload by getPropertiesFor too. The file's lock belongs to the open file, so that neither
///   another thread or object of this process slips by it nor another descriptor of the file
///   breaks it.
/// Cost: a load at the beginning, and the file's bytes in memory. Lists that the object handed
///   out earlier are gone, as after a reload, and again where it was taken back.
class ZEXPORT ZPropertiesUpdate {
public:
    /// Begins an update of the file that `properties` belongs to and that must exist. Waits up to
    /// `waitMilliseconds` for the file's lock, whatever the object's own wait is. Raises
    /// ZInvalidParameterException if the object has unsaved changes, has no file, or is in an
    /// update already; ZPropertiesIOException with "fopen(r+)" or, where the lock didn't come in
    /// time, "fcntl()"; and what load raises.
    ZPropertiesUpdate(ZProperties& properties, unsigned long waitMilliseconds);

    /// Ends the update. What wasn't committed is forgotten.
    ~ZPropertiesUpdate() noexcept(false);

    ZPropertiesUpdate(const ZPropertiesUpdate&) = delete;
    ZPropertiesUpdate& operator=(const ZPropertiesUpdate&) = delete;

    /// Stores in the object's mode and ends the update; the object's lock goes with the scope.
    /// Raises as store, and ZPropertiesIOException with "stat()" and ESTALE if somebody has put
    /// another file in place of the one that is locked, as editors do; the update is open then as
    /// it was. ZInvalidParameterException on one that has ended.
    void commit();

    /// Forgets the changes and ends the update, as the destructor does. Nothing on one that has
    /// ended.
    void rollback();

    /// Whether commit and rollback are still to come.
    int isOpen() const;

private:
    class Progress;

    ZProperties::ZPropResourceLock guard_;
    Progress* progress_;
};

#endif
