// editor.cpp: edit --editor: a file in the user's own editor, checked, and stored unless somebody
// else has stored meanwhile. No lock is held while he writes.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "zstz.h"

namespace {

// The copy that is edited, in a folder of its own that nobody else may enter. It bears the file's
// name, from which editors know what it holds.
class Copy {
public:
    ~Copy() {
        if (folder_.empty() || isKept_)
            return;
        // Editors leave files of their own beside it, with the same text.
        if (DIR* folder = opendir(folder_.c_str())) {
            while (const struct dirent* entry = readdir(folder))
                unlinkat(dirfd(folder), entry->d_name, 0);
            closedir(folder);
        }
        if (rmdir(folder_.c_str()) != 0)
            complain(fileError, "what is left in %s can't be removed: %s", folder_.c_str(),
                     strerror(errno));
    }

    Exit make(const char* file, const std::string& text) {
        const char* parent = getenv("TMPDIR");
        std::string folder =
            std::string(parent == nullptr || *parent == '\0' ? "/tmp" : parent) + "/zstz-XXXXXX";
        if (mkdtemp(&folder[0]) == nullptr)
            return complain(fileError, "%s: %s", folder.c_str(), strerror(errno));
        folder_ = folder;
        const char* slash = strrchr(file, '/');
        path_ = folder_ + "/" + (slash == nullptr ? file : slash + 1);
        const int descriptor = open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        FILE* stream = descriptor == -1 ? nullptr : fdopen(descriptor, "w");
        if (stream == nullptr)
            return complain(fileError, "%s: %s", path_.c_str(), strerror(errno));
        const bool isWritten = fwrite(text.data(), 1, text.size(), stream) == text.size();
        return fclose(stream) == 0 && isWritten
                   ? done
                   : complain(fileError, "%s: %s", path_.c_str(), strerror(errno));
    }

    // What it holds now; an editor may have put another file in its place.
    Exit read(std::string& text) const {
        if (isGone())
            return complain(fileError, "the editor has removed the copy that it was given");
        const int descriptor = open(path_.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        FILE* stream = descriptor == -1 ? nullptr : fdopen(descriptor, "r");
        if (stream == nullptr)
            return complain(fileError, "%s: %s", path_.c_str(), strerror(errno));
        text.clear();
        const bool isRead = readAll(stream, text);
        fclose(stream);
        return isRead ? done : complain(fileError, "%s: can't be read", path_.c_str());
    }

    // Runs the editor on it.
    Exit edit() const {
        const char* editor = getenv("VISUAL");
        if (editor == nullptr || *editor == '\0')
            editor = getenv("EDITOR");
        if (editor == nullptr || *editor == '\0')
            editor = "vi";
        setenv("ZSTZ_COPY", path_.c_str(), 1);
        const int status = system((std::string(editor) + " \"$ZSTZ_COPY\"").c_str());
        if (status == -1)
            return complain(fileError, "%s: %s", editor, strerror(errno));
        return WIFEXITED(status) && WEXITSTATUS(status) == 0
                   ? done
                   : complain(fileError, "the editor has failed: %s; set VISUAL or EDITOR", editor);
    }

    // Leaves it where it is.
    Exit keep(Exit code) {
        isKept_ = !isGone();
        return isKept_ ? complain(code, "nothing is done; what you wrote is in %s", path_.c_str())
                       : complain(code, "nothing is done");
    }

    // Asked on a terminal. Who ends the command here finds what he wrote.
    bool isWantedAgain() {
        if (isatty(STDIN_FILENO) != 1 || isatty(STDERR_FILENO) != 1)
            return false;
        if (!isGone())
            complain(done, "what you wrote is in %s", path_.c_str());
        fputs("zstz: edit it again? [Y/n] ", stderr);
        char answer[16];
        return fgets(answer, sizeof answer, stdin) != nullptr && *answer != 'n' && *answer != 'N';
    }

private:
    bool isGone() const { return access(path_.c_str(), F_OK) != 0 && errno == ENOENT; }

    std::string folder_, path_;
    bool isKept_ = false;
};

}  // namespace

// What a text says of the place of hidden values isn't taken over.
static std::string sideEntryOf(const char* file, ZPROP_handle* text) {
    Words values;
    valuesOf(text, file, ZPROP_SIDE_STANZA, "file", values);
    return values.empty() ? "" : values.back();
}

// Lets the copy be edited until it is good or given up.
static Exit editUntilGood(const char* file, Copy& copy, const std::string& before,
                          std::string& text) {
    Handle old;
    if (const Exit failed = openText(file, before, old))
        return failed;
    for (;;) {
        Handle trial;
        Exit failed = copy.edit();
        if (failed == done)
            failed = copy.read(text);
        if (failed == done)
            failed = openText(file, text, trial);
        if (failed == done && sideEntryOf(file, old.get()) != sideEntryOf(file, trial.get()))
            failed = reportError(badData, file,
                                 "[" ZPROP_SIDE_STANZA
                                 "] file can't be changed: it says where "
                                 "hidden values are");
        if (failed == done || !copy.isWantedAgain())
            return failed;
    }
}

static Exit readNow(ZPROP_handle* handle, const char* file, std::string& text) {
    return updatedText(handle, text) == ZPROP_OK ? done : reportLastError(file);
}

Exit editByEditor(const char* file, const Options& options) {
    if (isStandardInput(file))
        return complain(usage, "an editor can't edit standard input");
    std::string before, text;
    bool isMissing = options.create && access(file, F_OK) != 0 && errno == ENOENT;
    Options looking;
    looking.wait = options.wait;
    Exit failed = done;
    if (!isMissing) {
        Handle handle;
        failed = openFile(file, looking, handle);
        const int begun = failed == done ? zstzPropBegin(handle.get(), options.wait) : ZPROP_OK;
        if (begun != ZPROP_OK)
            failed = reportLocking(file, begun);
        if (failed == done)
            failed = readNow(handle.get(), file, before);
    }
    if (failed != done)
        return failed;
    Copy copy;
    if ((failed = copy.make(file, before)) != done)
        return failed;
    if ((failed = editUntilGood(file, copy, before, text)) != done)
        return copy.keep(failed);
    if (text == before)
        return complain(done, isMissing ? "%s isn't made: nothing was written" : "%s is unchanged",
                        file);
    failed = update(file, options, [&](ZPROP_handle* handle) -> Exit {
        std::string now;
        // The text that stands for a missing file is in no update.
        if (zstzPropPath(handle) != nullptr)
            if (const Exit unread = readNow(handle, file, now))
                return unread;
        if (now != before)
            return reportError(unmet, file, "somebody else has stored meanwhile");
        return zstzPropLoadBytes(handle, text.data(), text.size()) == ZPROP_OK
                   ? done
                   : reportLastError(file);
    });
    return failed == done && !options.dryRun ? done : copy.keep(failed);
}
