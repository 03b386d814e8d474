// Any bytes as what names the files of a layered configuration, and the target of a change, over a
// tree with links that lead out of it. Names are data: the files that are found are called so and
// stand where these folders are, nothing is opened or made that isn't below the prefix, and what
// was changed is there after it.
//
// The input is texts with a NUL behind each, "-" for null and ":" in lists: four bytes for flags,
// size and what to do; name, project, suffix, prefix, roots, extra files, PREFIX of variables, keys
// for these, root and drop-in of the target, value.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "Z/ZExceptionText.h"
#include "Z/ZLayers.h"
#include "Z/ZPropertiesUpdate.h"
#include "support/TempFolder.h"

namespace fs = std::filesystem;
using std::string;
using std::vector;

static const TempFolder folder;
static const string kBase = fs::canonical(folder / "").string() + "/base";
static string allowed;  // the folder that may be opened and what is below it; empty: any

static bool isBelow(const string& path, const string& top) {
    return path == top || path.compare(0, top.size() + 1, top + "/") == 0;
}

static void require(bool holds, const char* what, const string& text) {
    if (holds)
        return;
    fprintf(stderr, "%s: %s\n", what, text.c_str());
    abort();
}

// The library's calls are led here by the linker: where did this lead to?
template <typename Opened>
static Opened looked(Opened opened, const string& path, const char* what) {
    if (!allowed.empty()) {
        std::error_code error;
        const fs::path place = fs::canonical(path, error);
        require(error || isBelow(place.string(), allowed), what, place.string());
    }
    return opened;
}

static int looked(int descriptor) {
    return descriptor < 0
               ? descriptor
               : looked(descriptor, "/proc/self/fd/" + std::to_string(descriptor), "opened");
}

extern "C" {
int __real_open(const char*, int, ...);
int __real_openat(int, const char*, int, ...);
FILE* __real_fopen(const char*, const char*);
int __real_mkdirat(int, const char*, mode_t);

int __wrap_open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int mode = va_arg(arguments, int);
    va_end(arguments);
    return looked(__real_open(path, flags, mode));
}
int __wrap_openat(int at, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int mode = va_arg(arguments, int);
    va_end(arguments);
    return looked(__real_openat(at, path, flags, mode));
}
FILE* __wrap_fopen(const char* path, const char* mode) {
    FILE* const stream = __real_fopen(path, mode);
    return stream == nullptr ? stream : looked(stream, path, "opened");
}
int __wrap_mkdirat(int at, const char* path, mode_t mode) {
    const int result = __real_mkdirat(at, path, mode);
    const string top = *path == '/' ? "" : "/proc/self/fd/" + std::to_string(at) + "/";
    return result != 0 ? result : looked(result, top + path, "made");
}
}

static void makeTree() {
    static const struct {
        const char *path, *text;
    } kFiles[] = {
        {"base/usr/app.conf", "# below\n[s]\na = 1\nb = 2\n"},
        {"base/usr/app.conf.d/10.conf", "[s]\na = 3\n"},
        {"base/usr/app.conf.d/20.conf", ""},
        {"base/etc/app.conf.d/20.conf", "[s]\na =\nc = 4\n"},
        {"base/etc/app.conf.d/x*[a-z]", "[s]\nstar = 5\n"},
        {"base/etc/p/app", "[t]\nk = v\n"},
        {"base/home/.config/app.conf", "[s]\nhome = 6\n"},
        {"base/credentials/s.a", "hush"},
        {"outside/app.conf", "[outside]\nb = 7\n"},
        {"outside/app.conf.d/10.conf", "[outside]\nd = 8\n"},
    };
    static const struct {
        const char *path, *target;
    } kLinks[] = {
        {"base/run", "../outside"},
        {"base/etc/out", "../../../outside"},
        {"base/etc/app.conf", "/../outside/app.conf"},
        {"base/etc/app.conf.d/30.conf", "../../../outside/app.conf"},
        {"base/usr/app.conf.d/40.conf", "/dev/null"},
        {"base/etc/loop", "loop"},
    };
    fs::remove_all(folder / "base");
    for (const auto& file : kFiles) {
        fs::create_directories(fs::path(folder / file.path).parent_path());
        folder.write(file.path, file.text);
    }
    for (const auto& link : kLinks)
        require(symlink(link.target, (folder / link.path).c_str()) == 0, "link", link.path);
}

// What stands beside the tree.
static std::set<string> outside() {
    std::set<string> all;
    for (const char* top : {"", "outside", "outside/app.conf.d"})
        for (const auto& entry : fs::directory_iterator(folder / top))
            all.insert(entry.path().string() + "=" +
                       (entry.is_regular_file() ? TempFolder::read(entry.path().string()) : ""));
    return all;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("QELDIR", "/opt/Quillmere/nls/QEL", 0);
    setenv("CREDENTIALS_DIRECTORY", (kBase + "/credentials").c_str(), 1);
    setenv("HOME", "/home", 1);
    unsetenv("XDG_CONFIG_HOME");
    setenv("APP_S_A", "from a variable", 1);
    return 0;
}

namespace {

class Input {
public:
    Input(const uint8_t* data, size_t size) : at_(data), end_(data + size) {}
    unsigned int byte() { return at_ == end_ ? 0 : *at_++; }
    string text() {
        const uint8_t* const end = std::find(at_, end_, 0);
        const string text(at_, end);
        at_ = end == end_ ? end : end + 1;
        return text;
    }
    // With `ahead` in front of each.
    vector<string> list(const string& ahead = "") {
        const string all = text();
        vector<string> parts;
        for (size_t at = 0; all != "-" && at != string::npos;) {
            const size_t end = all.find(':', at);
            parts.push_back(ahead + all.substr(at, end == string::npos ? end : end - at));
            at = end == string::npos ? end : end + 1;
        }
        return parts;
    }

private:
    const uint8_t *at_, *end_;
};

struct Wishes {
    ZLayersTerms terms;
    char later[8];
};

struct Case {
    explicit Case(Input& input) {
        const unsigned int low = input.byte(), high = input.byte();
        size = input.byte();
        what = input.byte();
        flags = low | high << 8;
        name = input.text();
        project = input.text();
        suffix = input.text();
        prefix = kBase + "/" + input.text();
        roots = input.list();
        extra = input.list(kBase + "/");
        environment = input.text();
        keys = input.list();
        root = input.text();
        dropIn = input.text();
        value = input.text();
    }

    // Whether what the caller names himself is inside.
    bool isInside() const {
        std::error_code error;
        vector<string> paths = extra;
        paths.push_back(prefix);
        return std::all_of(paths.begin(), paths.end(), [&](const string& path) {
            const fs::path place = fs::weakly_canonical(path.c_str(), error);
            return error || isBelow(place.string(), kBase);
        });
    }

    static const char* orNull(const string& text) { return text == "-" ? nullptr : text.c_str(); }
    static const char* const* pointers(const vector<string>& list, vector<const char*>& made) {
        for (const string& part : list)
            made.push_back(part.c_str());
        made.push_back(nullptr);
        return list.empty() ? nullptr : made.data();
    }

    unsigned int flags, size, what;
    string name, project, suffix, prefix, environment, root, dropIn, value;
    vector<string> roots, extra, keys;
};

// Where a file of these terms may be said to stand.
void checkPlace(const Case& c, const ZLayerInfo& info) {
    const string path = info.path,
                 main = c.name.c_str() + string(c.suffix == "-" ? ".conf" : c.suffix);
    if (info.kind == ZLAYER_EXTRA)
        return require(std::any_of(c.extra.begin(), c.extra.end(),
                                   [&](const string& extra) { return path == extra.c_str(); }),
                       "not an extra file", path);
    const size_t name = path.rfind('/') + 1;
    const string above = path.substr(0, name - 1), own = path.substr(name), drops = main + ".d";
    require(isBelow(path, kBase), "found outside", path);
    if (info.kind == ZLAYER_MAIN)
        return require(own == main, "another name", path);
    // A folder of drop-ins that can't be read is told of as itself.
    const bool isFolder = info.state == ZLAYER_BAD && own == drops;
    require(isFolder || above.substr(above.rfind('/') + 1) == drops, "another folder", path);
}

void change(const Case& c, ZLayers& layers, const ZLayersTerms& terms) {
    layers.setTarget(Case::orNull(c.root), Case::orNull(c.dropIn));
    std::unique_ptr<ZPropertiesUpdate> update;
    if (c.what & 2)
        update.reset(new ZPropertiesUpdate(layers, 0));
    layers.setValue("s", "a", c.value.c_str());
    if (c.what & 4)
        layers.deleteKey("s", "b");
    if (update != nullptr)
        update->commit();
    else
        layers.store(nullptr);
    update.reset();
    const bool isPlain =
        std::all_of(c.value.begin(), c.value.end(), [](char at) { return isalnum(at) != 0; });
    ZLCString shadow, now;
    int line;
    if ((c.flags & (ZLAYERS_COLLECT | ZLAYERS_CREDENTIALS)) != 0 || c.environment != "-" ||
        !isPlain || layers.shadowed(shadow, line) != 0)
        return;
    const ZLayers fresh(terms);
    fresh.getValue("s", "a", now, 0, nullptr);
    require(now.equals(c.value.c_str()), "not changed to", c.value);
}

void tryTerms(const Case& c) {
    vector<const char*> roots, extra, keys;
    Wishes wishes = {};
    wishes.later[7] = static_cast<char>(c.what >> 6);
    ZLayersTerms& terms = wishes.terms;
    terms.size = sizeof terms + c.size % 9;
    if (c.size >= 200)
        terms.size = c.size - 200;
    terms.name = Case::orNull(c.name);
    terms.project = Case::orNull(c.project);
    terms.suffix = Case::orNull(c.suffix);
    terms.prefix = c.prefix.c_str();
    terms.roots = Case::pointers(c.roots, roots);
    terms.extra = Case::pointers(c.extra, extra);
    terms.environment = Case::orNull(c.environment);
    terms.keys = Case::pointers(c.keys, keys);
    terms.flags = c.flags;
    ZLayers layers(terms, c.what & 8 ? ZPCACHE_STRICT : 0);
    layers.forEachFile(
        [](void* data, const ZLayerInfo& info) { checkPlace(*static_cast<Case*>(data), info); },
        const_cast<Case*>(&c));
    layers.forEachEntry(
        [](void*, const ZLayerEntry& entry) {
            require(strcmp(entry.stanza, "outside") != 0, "read", entry.file);
        },
        nullptr);
    if (c.what & 1)
        change(c, layers, terms);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool isFresh = false;
    Input input(data, size);
    const Case c(input);
    if (!isFresh)
        makeTree();
    isFresh = (c.what & 1) == 0;
    static const std::set<string> before = outside();
    std::error_code error;
    const fs::path prefix = fs::canonical(c.prefix.c_str(), error);
    if (!c.isInside())
        return 0;
    const bool isAll = error || !c.extra.empty() || (c.flags & ZLAYERS_CREDENTIALS) != 0;
    allowed = isAll ? kBase : prefix.string();
    try {
        tryTerms(c);
    } catch (ZException&) {
        // Terms that can't be, bad files and targets.
    }
    allowed.clear();
    if (!isFresh)
        require(outside() == before, "outside has changed", "");
    return 0;
}
