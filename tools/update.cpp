// update.cpp: one update of a file, or of a text that comes by standard input.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "zstz.h"

typedef std::function<Exit(ZPROP_handle*)> Changes;

// Makes an empty file that the library can open. One that is there stays as it is.
static Exit createFile(const char* file) {
    const int descriptor = open(file, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (descriptor == -1 && errno != EEXIST)
        return complain(fileError, "%s: %s", file, strerror(errno));
    if (descriptor != -1)
        close(descriptor);
    return done;
}

static bool isMissing(const char* file) { return access(file, F_OK) != 0 && errno == ENOENT; }

// Whether a file that is empty would take the changes. What fails is told.
static Exit tryOnEmptyText(const char* file, const Changes& changes) {
    Handle handle;
    const Exit failed = openText(file, "", handle);
    return failed != done ? failed : changes(handle.get());
}

// A text without a file: what becomes of it goes to standard output.
static Exit updateText(const char* file, const std::string& before, const Options& options,
                       const Changes& changes) {
    Handle handle;
    Exit failed = openText(file, before, handle);
    if (failed == done)
        failed = changes(handle.get());
    if (failed != done)
        return failed;
    std::string now;
    if (textOver(handle.get(), before, now) != ZPROP_OK)
        return reportLastError(file);
    if (options.dryRun)
        printPatch(file, before, now);
    else
        fwrite(now.data(), 1, now.size(), stdout);
    return done;
}

// A store takes the entry away that names the side database, once nothing is hidden.
static Exit dropSideEntry(ZPROP_handle* handle, const char* file) {
    bool hides = false;
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
    return textOver(handle, before, now) == ZPROP_OK ? done : reportLastError(file);
}

static Exit commit(ZPROP_handle* handle, const char* file, const Options& options) {
    if (options.backups != 0) {
        std::string before, now;
        if (const Exit failed = foresee(handle, file, before, now))
            return failed;
        if (before != now && backUp(handle, options.backups) != ZPROP_OK)
            return reportLastError(file);
    }
    if (zstzPropCommit(handle) != ZPROP_OK)
        return reportLastError(file);
    int stored = options.storeMode;
    if (zstzPropLastStoreMode(handle, &stored) == ZPROP_OK && stored < options.storeMode)
        fprintf(stderr,
                "%s: note: changed in place, without a journal: it couldn't be given the "
                "file's owner and access\n",
                file);
    return done;
}

Exit update(const char* file, const Options& options, const Changes& changes) {
    if (isStandardInput(file)) {
        std::string text;
        if (options.backups != 0 || options.create)
            return complain(usage, "standard input has no file to make or to keep");
        const Exit failed = readStandardInput(text);
        return failed != done ? failed : updateText(file, text, options, changes);
    }
    if (options.create && options.dryRun && isMissing(file))
        return updateText(file, "", options, changes);
    if (options.create) {
        // A file that is made can't be taken away again: others may have opened it.
        if (isMissing(file))
            if (const Exit failed = tryOnEmptyText(file, changes))
                return failed;
        if (const Exit failed = createFile(file))
            return failed;
    }
    Handle handle;
    if (const Exit failed = openFile(file, options, handle)) {
        if (isMissing(file))
            complain(failed, "--create makes a file that is missing (set, edit, merge)");
        return failed;
    }
    const int begun = zstzPropBegin(handle.get(), options.wait);
    if (begun != ZPROP_OK)
        return reportLocking(file, begun);
    if (const Exit failed = changes(handle.get()))
        return failed;  // closing takes back what was done
    if (!options.dryRun)
        return commit(handle.get(), file, options);
    std::string before, now;
    if (const Exit failed = foresee(handle.get(), file, before, now))
        return failed;
    printPatch(file, before, now);
    return done;
}
