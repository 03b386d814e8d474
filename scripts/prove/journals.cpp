// journals.cpp: made-up journals in a folder of somebody else's, met by root.
//
//   journals FOLDER USER COUNT SEED
//
// FOLDER, which must be fresh, gets a file and a side database of USER's and, beside them, files
// that nobody may touch. Then COUNT journals are put there, one after the other: real ones cut at
// each length, with each byte changed, and made up with good sums: other texts, other names of side
// databases, other owners, links, pipes. Each is met by what a load does and by what a store does
// with it. Every file that is opened for writing, moved or removed meanwhile must be FILE,
// FILE.obf, FILE.obf.ztmp or FILE.zjournal. The calls are led to the functions below by the linker
// (--wrap). Prints what was done.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include "Z/ZExceptionText.h"
#include "Z/ZStanzaFileProperties.h"
#include "Z/zlockedfile.h"
#include "Z/zsafestore.h"

using std::string;

static bool isWatched = false;
static unsigned long touched = 0;

// The file behind a name that is about to be written to.
static void check(const char* call, int folder, const char* name) {
    if (!isWatched)
        return;
    char link[64], path[4096] = "";
    snprintf(link, sizeof link, "/proc/self/fd/%d", folder);
    if (folder != AT_FDCWD && name[0] != '/') {
        isWatched = false;
        const ssize_t size = readlink(link, path, sizeof path - 1);
        isWatched = true;
        path[size > 0 ? size : 0] = '\0';
    }
    static const char* const kOurs[] = {"/f", "/f.obf", "/f.obf.ztmp", "/f.zjournal"};
    extern string ourFolder;
    const string whole = *path != '\0' ? string(path) + "/" + name : string(name);
    ++touched;
    for (const char* own : kOurs)
        if (whole == ourFolder + own)
            return;
    fprintf(stderr, "%s of %s\n", call, whole.c_str());
    _exit(1);
}
string ourFolder;

extern "C" {
int __real_open(const char*, int, ...);
int __real_openat(int, const char*, int, ...);
int __real_renameat(int, const char*, int, const char*);
int __real_unlinkat(int, const char*, int);
int __real_unlink(const char*);
int __real_truncate(const char*, off_t);

int __wrap_open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int mode = va_arg(arguments, int);
    va_end(arguments);
    if ((flags & (O_ACCMODE | O_CREAT | O_TRUNC)) != O_RDONLY)
        check("open", AT_FDCWD, path);
    return __real_open(path, flags, mode);
}
int __wrap_openat(int folder, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int mode = va_arg(arguments, int);
    va_end(arguments);
    if ((flags & (O_ACCMODE | O_CREAT | O_TRUNC)) != O_RDONLY)
        check("openat", folder, path);
    return __real_openat(folder, path, flags, mode);
}
int __wrap_renameat(int from, const char* name, int to, const char* newName) {
    check("renameat", from, name);
    check("renameat", to, newName);
    return __real_renameat(from, name, to, newName);
}
int __wrap_unlinkat(int folder, const char* name, int flags) {
    check("unlinkat", folder, name);
    return __real_unlinkat(folder, name, flags);
}
int __wrap_unlink(const char* path) {
    check("unlink", AT_FDCWD, path);
    return __real_unlink(path);
}
int __wrap_truncate(const char* path, off_t size) {
    check("truncate", AT_FDCWD, path);
    return __real_truncate(path, size);
}
}

namespace {

string readFile(const string& path) {
    std::ifstream in(path, std::ios::binary);
    return string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

ZSpan span(const string& s) { return {s.data(), s.size()}; }

class Scene {
public:
    Scene(const string& folder, uid_t user, unsigned int seed)
        : folder_(folder), file_(folder + "/f"), user_(user), chance_(seed) {
        own(folder_, mkdir(folder_.c_str(), 0755) == 0);
        ZStanzaFileProperties p(1);
        p.setValue("s", "k", "old");
        p.setValue("s", "filler", string(300, 'x').c_str());
        p.setValue("s", "h", "hidden", 1);
        p.store(file().c_str());
        text_ = readFile(file());
        side_ = readFile(file() + ".obf");
        put("victim", "root's", 0);
        put("friend", "the user's own", user_);
        put("stream", side_, 0);
        put("f", text_, user_), put("f.obf", side_, user_);
    }

    // One journal, met twice. Whether it counted.
    bool meet(unsigned long number) {
        makeJournal(number);
        bool counted = false;
        try {
            ZOpenFile file(::open(file_.c_str(), O_RDWR | O_CLOEXEC));
            isWatched = true;
            ZJournal journal(file_.c_str(), file.get());
            counted = journal.find();
            if (counted)
                zfinishJournal(journal);
        } catch (ZPropertiesException&) {
        }
        isWatched = false;
        unlink((file() + ".zjournal").c_str());
        if (counted)
            put("f", text_, user_), put("f.obf", side_, user_);
        return counted;
    }

    bool isWhole() const {
        return readFile(folder_ + "/victim") == "root's" &&
               readFile(folder_ + "/friend") == "the user's own" &&
               readFile(folder_ + "/stream") == side_ &&
               access((folder_ + "/new").c_str(), F_OK) != 0;
    }

private:
    const string& file() const { return file_; }
    unsigned int below(unsigned int most) { return static_cast<unsigned int>(chance_() % most); }

    void own(const string& path, bool made) {
        if (!made || chown(path.c_str(), user_, user_) != 0)
            exit(2);
    }
    void put(const string& name, const string& content, uid_t user) {
        const string path = folder_ + "/" + name;
        std::ofstream(path, std::ios::binary) << content;
        if (chown(path.c_str(), user, user) != 0)
            exit(2);
    }

    // A text that names a side database, or none.
    string anyText() {
        const string names[] = {file() + ".obf",
                                folder_ + "/victim",
                                folder_ + "/friend",
                                folder_ + "/new",
                                folder_ + "/stream",
                                "f.obf",
                                "../f.obf",
                                "/dev/null",
                                folder_ + "/f",
                                folder_ + "/f.zjournal",
                                folder_ + "/../" + "x.obf",
                                ""};
        string text = text_.substr(0, text_.find("\n[configuration-database]"));
        if (below(2) == 0)
            text += string(below(100), 'y') + "\n";
        if (below(8) != 0)
            text += "\n[configuration-database]\nfile = " + names[below(12)] + "\n";
        return text;
    }

    void makeJournal(unsigned long number) {
        const string name = file() + ".zjournal";
        if (number < base_.size() * 2 || base_.empty()) {
            // A real one: cut, then with a byte changed.
            if (base_.empty())
                base_ = written(text_ + "\n[t]\nmore = 1\n", changed(text_), zsideReplaced,
                                side_ + "x");
            string bytes = base_;
            if (number < base_.size())
                bytes.resize(number);
            else
                bytes[number - base_.size()] ^= static_cast<char>(1 << below(8));
            put("f.zjournal", bytes, user_);
            return;
        }
        switch (below(16)) {
            case 0:
                if (symlink("victim", name.c_str()) != 0)
                    exit(2);
                return;
            case 1:
                if (link((folder_ + "/victim").c_str(), name.c_str()) != 0)
                    exit(2);
                return;
            case 2:
                if (mkfifo(name.c_str(), 0666) != 0)
                    exit(2);
                return;
        }
        const ZSideAction action = static_cast<ZSideAction>(below(3));
        const string newText = below(6) == 0 ? text_ : anyText();
        const string oldText = below(4) == 0 ? anyText() : changed(text_);
        string bytes =
            written(newText, oldText, action, action == zsideReplaced ? side_ + "y" : "");
        static const uid_t kRoot = 0;
        put("f.zjournal", bytes, below(4) == 0 ? kRoot : user_);
    }

    // The text with its last byte another one: the file then is a mixture of both.
    static string changed(string text) {
        text[text.size() - 2] ^= 1;
        return text;
    }

    string written(const string& newText, const string& oldText, ZSideAction action,
                   const string& side) {
        ZOpenFile file(::open(file_.c_str(), O_RDWR | O_CLOEXEC));
        ZJournal journal(file_.c_str(), file.get());
        journal.write(span(newText), span(oldText), action, span(side));
        const string bytes = readFile(file_ + ".zjournal");
        unlink((file_ + ".zjournal").c_str());
        return bytes;
    }

    const string folder_;
    const string file_;
    const uid_t user_;
    std::mt19937 chance_;
    string text_, side_, base_;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5)
        return 2;
    ourFolder = argv[1];
    const unsigned long count = strtoul(argv[3], nullptr, 10);
    Scene scene(argv[1], static_cast<uid_t>(atoi(argv[2])),
                static_cast<unsigned int>(atoi(argv[4])));
    unsigned long counted = 0;
    for (unsigned long i = 0; i < count; ++i)
        counted += scene.meet(i);
    const bool whole = scene.isWhole();
    printf("%lu journals, %lu counted, %lu openings for writing, moves and removals, %s\n", count,
           counted, touched, whole ? "none elsewhere" : "OTHERS' FILES CHANGED");
    return whole && counted > 0 ? 0 : 1;
}
