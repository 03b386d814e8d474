// ZFileMap.h: a file mapped into memory.
#ifndef Z_ZFILEMAP_H
#define Z_ZFILEMAP_H

#include "ZLCString.h"

/// Name and mode of a file to map, and the mapping. Not deleted through this class.
class ZEXPORT ZAbstractFileMap {
public:
    /// How the file is opened and mapped. Any other value maps for reading and writing, too, but
    /// neither creates nor extends the file.
    enum zmapmode : int {
        mapRead = 0,       ///< for reading only
        mapReadWrite = 1,  ///< for reading and writing; the file is created or extended if need be
        mapUpdate = 2      ///< for reading and writing what is there
    };

    /// `option` is kept and copied with the object; nothing depends on it. No file is touched.
    ZAbstractFileMap(const ZLCString& name, zmapmode mode, int option);

    /// Map and unmap the file, as ZUnixFileMap does.
    virtual void* mapfile(int* error, unsigned long length) = 0;
    virtual void unmapfile(int* error) = 0;

protected:
    ~ZAbstractFileMap() = default;

    ZLCString name_;
    zmapmode mode_;
    int option_;
    void* address_;         // null while there is no mapping
    unsigned long length_;  // of the mapping, in bytes
};

/// A shared mapping of a file from its beginning. The descriptor stays open as long as the mapping.
///
/// Ownership: the object unmaps and closes at its end.
/// Failure: raises nothing of its own; failures come as errno values through `error`, which must
///   not be null.
/// Threads: one object is used by one thread at a time. No call is cancelled half-way.
class ZEXPORT ZUnixFileMap : public ZAbstractFileMap {
public:
    /// Keeps the name; touches no file.
    ZUnixFileMap(const ZLCString& name, zmapmode mode, int option);

    /// Same name, mode and option. If `other` is mapped, the whole file is mapped anew; a failure
    /// there leaves the copy unmapped and isn't reported.
    ZUnixFileMap(const ZUnixFileMap& other);

    /// If `other` is mapped, maps the whole of this object's own file. Nothing else is taken over.
    ZUnixFileMap& operator=(const ZUnixFileMap& other);

    /// Maps `length` bytes, the whole file if 0, and returns their address; null and `*error` set
    /// if that fails, 0 in `*error` if it succeeds. Requires: nothing is mapped; the old mapping
    /// would be lost.
    ///
    ///   file missing or empty, length 0              22
    ///   open, mmap fail                              their errno; 2 for a missing file
    ///   the whole file is longer than memory         75
    ///   the descriptor is 0 (the process closed it)  null, with 0, or 2 for an empty file
    ///
    /// With mapReadWrite a missing file is created, readable and writable for its owner alone, and
    /// a file shorter than `length` is extended. Otherwise bytes past the end of the file may be
    /// mapped, but not touched.
    void* mapfile(int* error, unsigned long length) override;

    /// Unmaps and closes. A failure of either is stored in `*error` and leaves the other done;
    /// without one, `*error` stays as it was. Nothing to do is no failure.
    void unmapfile(int* error) override;

    virtual ~ZUnixFileMap() noexcept;

private:
    int handle_;  // the open descriptor, 0 when there is none
};

#endif
