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

// A file with a bad line, which no update can begin with: its bytes are edited, and put in place
// under its lock. It stays open from the reading on.
class BadFile {
public:
    ~BadFile() { close(descriptor_); }

    Exit open(const char* file) {
        file_ = file;
        descriptor_ = ::open(file, O_RDWR | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
        if (descriptor_ == -1 || fstat(descriptor_, &status_) != 0)
            return tell(strerror(errno));
        return S_ISREG(status_.st_mode) ? done : tell("no regular file");
    }

    Exit read(std::string& text) const {
        char piece[64 * 1024];
        ssize_t got;
        text.clear();
        while ((got = pread(descriptor_, piece, sizeof piece, text.size())) > 0)
            text.append(piece, got);
        return got == 0 ? done : tell(strerror(errno));
    }

    // Puts the text in the place of what was read, unless that isn't there any more.
    Exit replace(const std::string& before, const std::string& text, unsigned long wait) const {
        std::string now;
        if (const Exit failed = lock(wait))
            return failed;
        if (const Exit failed = read(now))
            return failed;
        struct stat named;
        if (stat(file_, &named) != 0 || named.st_dev != status_.st_dev ||
            named.st_ino != status_.st_ino || now != before)
            return reportError(unmet, file_, "somebody else has stored meanwhile");
        if (write(text))
            return done;
        const int error = errno;
        write(before);
        return tell(strerror(error));
    }

private:
    Exit tell(const char* why) const { return reportError(fileError, file_, why); }

    Exit lock(unsigned long wait) const {
        static const unsigned long kPause = 20;  // milliseconds
        struct flock whole = {};
        whole.l_type = F_WRLCK;
        whole.l_whence = SEEK_SET;
        for (unsigned long waited = 0; fcntl(descriptor_, F_OFD_SETLK, &whole) != 0;
             waited += kPause) {
            if ((errno != EAGAIN && errno != EACCES) || waited >= wait)
                return tell(strerror(errno));
            usleep(kPause * 1000);
        }
        return done;
    }

    bool write(const std::string& text) const {
        size_t at = 0;
        while (at < text.size()) {
            const ssize_t put = pwrite(descriptor_, text.data() + at, text.size() - at, at);
            if (put <= 0)
                return false;
            at += put;
        }
        return ftruncate(descriptor_, text.size()) == 0 && fsync(descriptor_) == 0;
    }

    const char* file_ = nullptr;
    int descriptor_ = -1;
    struct stat status_;
};

}  // namespace

// Whether the last call has met a bad line of this file.
static bool isBadLineOf(const char* file) {
    const Failed failed = lastFailure(file);
    return failed.code == badData && failed.line > 0 && failed.file == file;
}

// What a text says of the place of hidden values isn't taken over.
static std::string sideEntryOf(const char* file, ZPROP_handle* text) {
    Words values;
    if (dialectOf(text) != nullptr)
        return "";
    valuesOf(text, file, ZPROP_SIDE_STANZA, "file", values);
    return values.empty() ? "" : values.back();
}

// Lets the copy be edited until it is good or given up. `old`: what was there; null if that is bad.
static Exit editUntilGood(const char* file, const Options& options, Copy& copy, ZPROP_handle* old,
                          std::string& text) {
    for (;;) {
        Handle trial;
        Exit failed = copy.edit();
        if (failed == done)
            failed = copy.read(text);
        if (failed == done)
            failed = openText(file, text, options, trial);
        if (failed == done && old != nullptr &&
            sideEntryOf(file, old) != sideEntryOf(file, trial.get()))
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

namespace {

// What an edit begins with.
struct Before {
    std::string text;
    bool isMissing = false;  // and may be made
    bool isBad = false;
    BadFile bad;  // where it is
    Handle old;   // the text, unless it is
};

}  // namespace

static Exit readBefore(const char* file, const Options& options, Before& before) {
    before.isMissing = options.create && access(file, F_OK) != 0 && errno == ENOENT;
    if (before.isMissing)
        return openText(file, "", options, before.old);
    Options looking;
    looking.wait = options.wait;
    looking.dialect = options.dialect;
    Handle handle;
    Exit failed = openFile(file, looking, handle);
    before.isBad = failed == badData && isBadLineOf(file);
    if (before.isBad) {
        if (options.backups != 0)
            return complain(usage, "a file with a bad line is repaired in place, without --backup");
        failed = before.bad.open(file);
        return failed == done ? before.bad.read(before.text) : failed;
    }
    const int begun = failed == done ? zstzPropBegin(handle.get(), options.wait) : ZPROP_OK;
    if (begun != ZPROP_OK)
        failed = reportLocking(file, begun);
    if (failed == done)
        failed = readNow(handle.get(), file, before.text);
    return failed == done ? openText(file, before.text, options, before.old) : failed;
}

static Exit storeText(const char* file, const Options& options, const Before& before,
                      const std::string& text) {
    if (before.isBad && options.dryRun)
        printPatch(file, before.text, text);
    if (before.isBad)
        return options.dryRun ? done : before.bad.replace(before.text, text, options.wait);
    return update(file, options, [&](ZPROP_handle* handle) -> Exit {
        std::string now;
        // The text that stands for a missing file is in no update.
        if (zstzPropPath(handle) != nullptr)
            if (const Exit unread = readNow(handle, file, now))
                return unread;
        if (now != before.text)
            return reportError(unmet, file, "somebody else has stored meanwhile");
        return zstzPropLoadBytes(handle, text.data(), text.size()) == ZPROP_OK
                   ? done
                   : reportLastError(file);
    });
}

Exit editByEditor(const char* file, const Options& options) {
    if (isStandardInput(file))
        return complain(usage, "an editor can't edit standard input");
    Before before;
    Copy copy;
    std::string text;
    Exit failed = readBefore(file, options, before);
    if (failed == done)
        failed = copy.make(file, before.text);
    if (failed != done)
        return failed;
    if ((failed = editUntilGood(file, options, copy, before.old.get(), text)) != done)
        return copy.keep(failed);
    if (text == before.text)
        return complain(done,
                        before.isMissing ? "%s isn't made: nothing was written" : "%s is unchanged",
                        file);
    failed = storeText(file, options, before, text);
    return failed == done && !options.dryRun ? done : copy.keep(failed);
}
