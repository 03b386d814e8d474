// update.cpp: one update of a file, or of a text that comes by standard input.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "zstz.h"

typedef std::function<Exit(ZPROP_handle*)> Changes;

static bool isMissing(const char* file) { return access(file, F_OK) != 0 && errno == ENOENT; }

// Makes an empty file that the library can open. One that is there stays as it is.
static Exit createFile(const char* file, bool& isMade) {
    const int descriptor = open(file, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    isMade = descriptor != -1;
    if (descriptor == -1 && errno == EEXIST && isMissing(file))
        return complain(fileError,
                        "%s is a link that leads to no file; remove it, or make the "
                        "file that it names",
                        file);
    if (descriptor == -1 && errno != EEXIST)
        return complain(fileError, "%s can't be made: %s", file, strerror(errno));
    if (descriptor != -1)
        close(descriptor);
    return done;
}

// Whether a file that is empty would take the changes. What fails is told.
static Exit tryOnEmptyText(const char* file, const Options& options, const Changes& changes) {
    Handle handle;
    std::string made;
    Exit failed = openText(file, "", options, handle);
    if (failed == done)
        failed = changes(handle.get());
    if (failed == done && textOver(handle.get(), "", made) != ZPROP_OK)
        failed = reportStoring(handle.get(), file);
    return failed;
}

// A text without a file: what becomes of it goes to standard output.
static Exit updateText(const char* file, const std::string& before, const Options& options,
                       const Changes& changes) {
    Handle handle;
    Exit failed = openText(file, before, options, handle);
    if (failed == done)
        failed = changes(handle.get());
    // What isn't changed goes on as it was: the next in a pipe, or a file behind it, needs it all.
    if (failed == unmet && isStandardInput(file) && !options.dryRun)
        fwrite(before.data(), 1, before.size(), stdout);
    if (failed != done)
        return failed;
    std::string now;
    if (textOver(handle.get(), before, now) != ZPROP_OK)
        return reportStoring(handle.get(), file);
    if (options.dryRun)
        printPatch(file, before, now);
    else
        fwrite(now.data(), 1, now.size(), stdout);
    return done;
}

// A store takes the entry away that names the side database, once nothing is hidden.
static Exit dropSideEntry(ZPROP_handle* handle, const char* file) {
    bool hides = false;
    if (dialectOf(handle) != nullptr)
        return done;  // it names none there
    const auto look = [](void* to, const ZPROP_entry* entry) {
        *static_cast<bool*>(to) = entry->hidden != 0;
        return entry->hidden;  // the first ends the walk
    };
    if (zstzPropForEach(handle, look, &hides) != ZPROP_OK)
        return reportLastError(file);
    if (!hides && zstzPropRemoveKey(handle, ZPROP_SIDE_STANZA, "file") != ZPROP_OK)
        return reportLastError(file);
    return done;
}

// What the open update would make of the file.
static Exit foresee(ZPROP_handle* handle, const char* file, std::string& before, std::string& now) {
    if (updatedText(handle, before) != ZPROP_OK)
        return reportLastError(file);
    if (const Exit failed = dropSideEntry(handle, file))
        return failed;
    return textOver(handle, before, now) == ZPROP_OK ? done : reportStoring(handle, file);
}

// Says what helps where a store can't be made beside the file.
static Exit tellOtherMode(const char* why, const Options& options) {
    return complain(fileError,
                    options.layers.isChanged
                        ? "%s"
                        : "%s; --store checked writes in place, and a crash may cut that in two",
                    why);
}

static const char kSeveralNames[] =
    "a safe store puts a new file in place, and this one has several hard links";
static const char kNoFolder[] = "a safe store needs a folder that may be written to";

static Exit reportStore(ZPROP_handle* handle, const char* file, const Options& options) {
    const Failed failed = lastFailure(file);
    const int error = zstzPropLastErrno();
    const Exit code = reportStoring(handle, file);
    if (options.storeMode != ZPROP_STORE_SAFE)
        return code;
    if (error == EMLINK)
        return tellOtherMode(kSeveralNames, options);
    // What lies beside the file bears another name.
    return (error == EACCES || error == EROFS) && failed.file != file
               ? tellOtherMode(kNoFolder, options)
               : code;
}

// Whether a store would find the file as it needs it, and its folder, or the one that this would be
// made in.
static Exit checkStore(const char* file, const Options& options) {
    struct stat status;
    if (options.storeMode != ZPROP_STORE_SAFE)
        return done;
    if (stat(file, &status) == 0 && status.st_nlink > 1) {
        reportError(fileError, file, "can't be stored");
        return tellOtherMode(kSeveralNames, options);
    }
    const std::unique_ptr<char, decltype(&free)> real(realpath(file, nullptr), &free);
    const std::string path = real == nullptr ? file : real.get();
    size_t slash = path.rfind('/');
    while (slash != path.npos && slash != 0 && isMissing(path.substr(0, slash).c_str()))
        slash = path.rfind('/', slash - 1);
    const std::string folder = slash == path.npos ? "." : path.substr(0, slash + 1);
    if (faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) == 0)
        return done;
    reportError(fileError, file, folder + ": " + strerror(errno));
    return tellOtherMode(kNoFolder, options);
}

// `isNew`: the file was made for this update, and there is nothing to keep of it.
static Exit commit(ZPROP_handle* handle, const char* file, const Options& options, bool isNew) {
    if (options.backups != 0 && !isNew) {
        std::string before, now;
        if (const Exit failed = foresee(handle, file, before, now))
            return failed;
        if (before != now)
            if (const Exit failed = checkStore(file, options))
                return failed;
        if (before != now && backUp(handle, options.backups) != ZPROP_OK)
            return reportLastError(file);
    }
    const int committed = zstzPropCommit(handle);
    if (committed == ZPROP_SHADOWED)
        return reportShadowed(file);
    if (committed != ZPROP_OK)
        return options.isLayers(file) ? reportLastError(file) : reportStore(handle, file, options);
    int stored = options.storeMode;
    if (!options.isLayers(file) && zstzPropLastStoreMode(handle, &stored) == ZPROP_OK &&
        stored < options.storeMode)
        fprintf(stderr,
                "%s: note: changed in place, without a journal: it couldn't be given the "
                "file's owner and access\n",
                file);
    return done;
}

// Prints what an update of a layered configuration would do. Nothing is locked meanwhile: an update
// would make the target to lock it.
static Exit foreseeLayers(const char* file, const Options& options, const Changes& changes) {
    Handle handle;
    Exit failed = openFile(file, options, handle);
    if (failed == done)
        failed = changes(handle.get());
    if (failed != done)
        return failed;
    std::string target, before, now;
    const int result = foreseeTarget(handle.get(), target, before, now);
    if (result != ZPROP_OK && result != ZPROP_SHADOWED)
        return reportLocking(file, result);
    const Exit isShadowed = result == ZPROP_SHADOWED ? reportShadowed(file, true) : done;
    printPatch(target.c_str(), before, now);
    if (before != now)
        failed = checkStore(target.c_str(), options);
    return failed != done ? failed : isShadowed;
}

Exit update(const char* file, const Options& options, const Changes& changes) {
    if (isStandardInput(file)) {
        std::string text;
        if (options.backups != 0 || options.create)
            return complain(usage, "standard input has no file to make or to keep");
        const Exit failed = readStandardInput(text);
        return failed != done ? failed : updateText(file, text, options, changes);
    }
    if (*file == '\0')
        return complain(usage, "FILE is empty");
    if (options.isLayers(file) && options.dryRun)
        return foreseeLayers(file, options, changes);
    bool isNew = false;
    if (options.create && options.dryRun && isMissing(file))
        return updateText(file, "", options, changes);
    if (options.create) {
        // A file that is made can't be taken away again: others may have opened it.
        if (isMissing(file))
            if (const Exit failed = tryOnEmptyText(file, options, changes))
                return failed;
        if (const Exit failed = createFile(file, isNew))
            return failed;
    }
    Handle handle;
    if (const Exit failed = openFile(file, options, handle)) {
        if (!options.isLayers(file) && isMissing(file) && !options.create)
            complain(failed, "--create makes a file that is missing (set, edit, merge)");
        return failed;
    }
    const int begun = zstzPropBegin(handle.get(), options.wait);
    if (begun != ZPROP_OK)
        return reportLocking(file, begun);
    if (const Exit failed = changes(handle.get()))
        return failed;  // closing takes back what was done
    if (!options.dryRun)
        return commit(handle.get(), file, options, isNew);
    std::string before, now;
    if (const Exit failed = foresee(handle.get(), file, before, now))
        return failed;
    printPatch(file, before, now);
    return before == now ? done : checkStore(file, options);
}
