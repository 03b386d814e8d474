// A layered configuration as an object: what readers see, and that changes go into one file.
#include "support/Prelude.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

#include <thread>

#include "Z/ZDialects.h"
#include "Z/ZLayers.h"
#include "Z/ZPropertiesUpdate.h"
#include "Z/ZPropertiesWatcher.h"
#include "Z/zlayers.h"
#include "support/Raised.h"
#include "support/TempFolder.h"

using std::string;

namespace {

typedef std::vector<std::pair<const char*, const char*>> Files;

const char kMark[] = "# Made for changed keys; removed with the last of them.\n";

struct Tree {
    explicit Tree(const Files& files) {
        prefix = folder / "";
        for (const auto& file : files) {
            const string path = folder / file.first;
            std::filesystem::create_directories(path.substr(0, path.rfind('/')));
            folder.write(file.first, file.second);
        }
        terms.size = sizeof terms;
        terms.name = "app";
        terms.prefix = prefix.c_str();
        static const char* const kRoots[] = {"/usr", "/run", "/etc", nullptr};
        terms.roots = kRoots;
        terms.flags = ZLAYERS_MAY_BE_EMPTY;
    }

    string text(const string& name) const {
        std::ifstream in(folder / name, std::ios::binary);
        return in ? string(std::istreambuf_iterator<char>(in), {}) : "-";
    }

    TempFolder folder;
    string prefix;
    ZLayersTerms terms = {};
};

// All values of a key, and where the first comes from.
string valueOf(const ZLayers& layers, const Tree& tree, const char* key) {
    ZArrayList list(1, 1);
    layers.getValues("s", key, list, ZPROP_STRING_LOCAL);
    string out;
    for (unsigned int i = 0; i < list.size(); ++i)
        out += (i == 0 ? "" : ",") + string(static_cast<ZLCString*>(list.get(i))->getChars());
    ZLCString file;
    int line;
    if (list.size() == 0)
        return layers.exists("s", key) ? "empty" : "none";
    layers.getOrigin("s", key, 0, file, line);
    const string path = file.getChars();
    return out + " " + path.substr(std::min(path.size(), tree.prefix.size())) + ":" +
           std::to_string(line);
}

typedef std::function<void(ZLayers&)> Edit;

void set(ZLayers& layers, const char* key, const char* value) { layers.setValue("s", key, value); }

const Files kBase = {{"usr/app.conf", "# vendor\n[s]\na = 1\nb = 2\n"},
                     {"run/app.conf.d/90-run.conf", "[s]\nb = 3\n"}};

// What an edit leaves in the target, and what the key has then.
const struct {
    const char *root, *dropIn;
    Edit edit;
    const char *text, *key, *value;
} kChanges[] = {
    {"/etc", "50-a.conf", [](ZLayers& l) { set(l, "a", "x"); }, "\n[s]\na = x\n", "a",
     "x etc/app.conf.d/50-a.conf:4"},
    {"/etc", "50-a.conf", [](ZLayers& l) { l.deleteKey("s", "a"); }, "\n[s]\na =\n", "a", "empty"},
    {"/etc", "50-a.conf", [](ZLayers& l) { set(l, "a", ""); }, "\n[s]\na =\n", "a", "empty"},
    {"/etc", "50-a.conf",
     [](ZLayers& l) {
         set(l, "c", "1");
         l.addValue("s", "c", "2", 0);
     },
     "\n[s]\nc = 1\nc = 2\n", "c", "1,2 etc/app.conf.d/50-a.conf:4"},
    // A file above still says otherwise.
    {"/etc", "50-a.conf", [](ZLayers& l) { set(l, "b", "9"); }, "\n[s]\nb = 9\n", "b",
     "3 run/app.conf.d/90-run.conf:2"},
    {"/usr", nullptr, [](ZLayers& l) { set(l, "a", "x"); }, "# vendor\n[s]\na = x\nb = 2\n", "a",
     "x usr/app.conf:3"},
    {"/usr", nullptr, [](ZLayers& l) { l.deleteKey("s", "a"); }, "# vendor\n[s]\nb = 2\n", "a",
     "none"},
    // What was set back isn't written.
    {"/etc", "50-a.conf",
     [](ZLayers& l) {
         set(l, "a", "x");
         set(l, "a", "1");
     },
     "-", "a", "1 usr/app.conf:3"},
};

TEST(Layers, PutsChangesIntoTheTargetAlone) {
    for (const auto& row : kChanges) {
        for (const bool inUpdate : {false, true}) {
            SCOPED_TRACE(string(row.text) + (inUpdate ? " in an update" : ""));
            Tree tree(kBase);
            ZLayers layers(tree.terms);
            layers.setTarget(row.root, row.dropIn);
            if (inUpdate) {
                ZPropertiesUpdate update(layers, 0);
                row.edit(layers);
                update.commit();
            } else {
                row.edit(layers);
                layers.store(nullptr);
            }
            const string name =
                row.dropIn == nullptr ? "usr/app.conf" : string("etc/app.conf.d/") + row.dropIn;
            string wanted = row.text;
            if (row.dropIn != nullptr && wanted != "-")
                wanted = kMark + wanted;
            EXPECT_EQ(tree.text(name), wanted);
            EXPECT_EQ(valueOf(layers, tree, row.key), row.value);
            EXPECT_EQ(tree.text("run/app.conf.d/90-run.conf"), "[s]\nb = 3\n");
            ZLayers fresh(tree.terms);
            EXPECT_EQ(valueOf(fresh, tree, row.key), row.value);
            ZLCString file;
            int line = -1;
            EXPECT_EQ(layers.shadowed(file, line), row.key == string("b") ? 1u : 0u);
            EXPECT_EQ(line, row.key == string("b") ? 2 : 0);
        }
    }
}

// A unit with drop-ins, as systemd merges them: lists grow, an empty assignment forgets what is
// above it, and of what has one value the last one counts.
struct Unit : Tree {
    Unit()
        : Tree({{"usr/d.service", "[Unit]\nAfter=a\n[s]\na=/bin/d \\\n  -x\nb=1\nc=2\n"},
                {"run/d.service.d/20-more.conf", "; more\n[s]\nb=2\nb=3\n"},
                {"run/d.service.d/README", "no drop-in\n"},
                {"etc/d.service.d/30-other.conf", "[s]\na=\na=/bin/e\nc=\n"}}) {
        setenv("XDG_DATA_DIRS", TEST_SOURCE "/share", 1);
        ZDialects::get("systemd", dialect);
        terms.name = "d";
        terms.suffix = ".service";
        terms.dropInSuffix = ".conf";
        terms.dialect = &dialect;
        terms.flags |= ZLAYERS_COLLECT;
    }
    ZDialect dialect;
};

const struct {
    const char* dropIn;
    Edit edit;
    const char *text, *key, *value;
} kUnitChanges[] = {
    {"40-a.conf", [](ZLayers& l) { l.addValue("s", "b", "4", 0); }, "MARK\n\n[s]\nb = 4\n", "b",
     "1,2,3,4 usr/d.service:6"},
    {"40-a.conf", [](ZLayers& l) { set(l, "b", "4"); }, "MARK\n\n[s]\nb =\nb = 4\n", "b",
     "4 etc/d.service.d/40-a.conf:5"},
    {"40-a.conf", [](ZLayers& l) { l.deleteKey("s", "b"); }, "MARK\n\n[s]\nb =\n", "b", "empty"},
    {"30-other.conf", [](ZLayers& l) { l.addValue("s", "a", "-y", 0); },
     "[s]\na=\na=/bin/e\na=-y\nc=\n", "a", "/bin/e,-y etc/d.service.d/30-other.conf:3"},
    {"30-other.conf", [](ZLayers& l) { set(l, "c", "3"); }, "[s]\na=\na=/bin/e\nc=\nc=3\n", "c",
     "3 etc/d.service.d/30-other.conf:5"},
    {"10-low.conf", [](ZLayers& l) { set(l, "b", "3"); }, "MARK\n\n[s]\nb =\nb = 3\n", "b",
     "3,2,3 etc/d.service.d/10-low.conf:5"},
};

TEST(Layers, MergesUnitsAndDropInsAsTheirOwnerDoes) {
    {
        const Unit unit;
        ZLayers layers(unit.terms);
        EXPECT_EQ(valueOf(layers, unit, "a"), "/bin/e etc/d.service.d/30-other.conf:3");
        EXPECT_EQ(valueOf(layers, unit, "b"), "1,2,3 usr/d.service:6");
        EXPECT_EQ(valueOf(layers, unit, "c"), "empty");
        unit.folder.write("etc/d.service.d/30-other.conf", "[s]\n");
        layers.reload(nullptr);
        EXPECT_EQ(valueOf(layers, unit, "a"), "/bin/d    -x usr/d.service:4");
    }
    for (const auto& row : kUnitChanges) {
        SCOPED_TRACE(row.text);
        const Unit unit;
        ZLayers layers(unit.terms);
        layers.setTarget("/etc", row.dropIn);
        row.edit(layers);
        layers.store(nullptr);
        string text = unit.text(string("etc/d.service.d/") + row.dropIn);
        if (text.compare(0, sizeof kMark - 1, kMark) == 0)
            text.replace(0, sizeof kMark - 2, "MARK");
        EXPECT_EQ(text, row.text);
        EXPECT_EQ(valueOf(layers, unit, row.key), row.value);
    }
}

typedef unsigned int ZDialect::*Switch;

// What a change puts into a drop-in that isn't there yet, and the line above that has the key too.
const struct {
    Switch which;
    unsigned int word;
    Edit edit;
    const char *text, *shadow;
} kDialectChanges[] = {
    {&ZDialect::values, ZDIALECT_LAST_VALUE, [](ZLayers& l) { l.addValue("s", "a", "2", 0); },
     "refused", ""},
    {&ZDialect::bare, ZDIALECT_BARE, [](ZLayers& l) { l.setBare("s", "a"); }, "[s]\na\n", ""},
    {&ZDialect::bare, ZDIALECT_BARE, [](ZLayers& l) { l.deleteKey("s", "bare"); }, "[s]\nbare =\n",
     ""},
    {&ZDialect::bare, ZDIALECT_BARE, [](ZLayers& l) { l.setBare("s", "b"); }, "[s]\nb\n", "2"},
    {&ZDialect::names, ZDIALECT_FOLDED, [](ZLayers& l) { set(l, "b", "5"); }, "[s]\nB = 5\n", "2"},
    {&ZDialect::divider, ZDIALECT_BLANK, [](ZLayers& l) { l.deleteKey("s", "a"); }, "refused", ""},
    {&ZDialect::quotes, ZDIALECT_GIT_QUOTES, [](ZLayers& l) { set(l, "a", " ;"); },
     "[s]\na = \" ;\"\n", ""},
};

TEST(Layers, ChangesFilesOfADialect) {
    for (const auto& row : kDialectChanges) {
        SCOPED_TRACE(row.text);
        ZDialect dialect = {};
        dialect.size = sizeof dialect;
        dialect.comments = ZDIALECT_SEMICOLON;
        dialect.*row.which = row.word;
        string low = "[s]\na = 1\n", high = "[s]\nb = 3\n";
        if (row.which == &ZDialect::bare)
            low += "bare\n";
        if (row.which == &ZDialect::names)
            low += "B = 2\n", high = "[S]\nb = 3\n";
        if (row.which == &ZDialect::divider)
            low[low.find('=')] = high[high.find('=')] = ' ';
        Tree tree({{"usr/app.conf", low.c_str()}, {"run/app.conf.d/9.conf", high.c_str()}});
        tree.terms.dialect = &dialect;
        ZLayers layers(tree.terms);
        layers.setTarget("/etc", "1.conf");
        const string failure = raised([&] {
            row.edit(layers);
            layers.store(nullptr);
        });
        EXPECT_EQ(failure.empty(), row.text[0] == '[');
        string text = tree.text("etc/app.conf.d/1.conf");
        EXPECT_EQ(text, row.text[0] == '[' ? ";" + string(kMark + 1) + "\n" + row.text : "-");
        ZLCString file;
        int line = 0;
        EXPECT_EQ(layers.shadowed(file, line), *row.shadow == '\0' ? 0u : 1u);
        if (*row.text != '[')
            continue;
        ZBuffer merged;
        layers.storeBytes(merged);
        EXPECT_NE(merged.getLength(), 0u);
        tree.folder.write("usr/app.conf", ";");
        layers.reload(nullptr);
        for (const char* key : {"a", "b", "bare"})
            layers.deleteKey("s", key);
        layers.store(nullptr);
        EXPECT_EQ(tree.text("etc/app.conf.d/1.conf"), "-");
    }
}

TEST(Layers, RemovesADropInOfItsOwnWithItsLastKey) {
    Tree tree(kBase);
    ZLayers layers(tree.terms);
    layers.setTarget(nullptr, "50-a.conf");
    set(layers, "a", "x");
    layers.store(nullptr);
    EXPECT_EQ(tree.text("etc/app.conf.d/50-a.conf"), string(kMark) + "\n[s]\na = x\n");
    // Back to what the lower file says: the key still stands there.
    set(layers, "new", "y");
    layers.store(nullptr);
    tree.folder.write("etc/app.conf.d/50-a.conf", string(kMark) + "[s]\nnew = y\n");
    layers.reload(nullptr);
    layers.deleteKey("s", "new");
    layers.store(nullptr);
    EXPECT_FALSE(std::filesystem::exists(tree.folder / "etc/app.conf.d"));
    EXPECT_EQ(valueOf(layers, tree, "a"), "1 usr/app.conf:3");
    // An empty one that somebody has made stays his.
    std::filesystem::create_directories(tree.folder / "etc/app.conf.d");
    tree.folder.write("etc/app.conf.d/50-a.conf", "");
    set(layers, "a", "x");
    layers.store(nullptr);
    EXPECT_EQ(tree.text("etc/app.conf.d/50-a.conf"), "\n[s]\na = x\n");
}

TEST(Layers, TakesAnUpdateBack) {
    Tree tree(kBase);
    ZLayers layers(tree.terms);
    layers.setTarget("/etc", "50-a.conf");
    {
        ZPropertiesUpdate update(layers, 0);
        set(layers, "a", "x");
        EXPECT_EQ(valueOf(layers, tree, "a"), "x :0");
    }
    EXPECT_EQ(valueOf(layers, tree, "a"), "1 usr/app.conf:3");
    EXPECT_EQ(tree.text("etc/app.conf.d/50-a.conf"), "-");
    EXPECT_EQ(layers.isModified(), 0);
}

// Somebody else's lock on another file, and a store in the middle.
TEST(Layers, KeepsWhatItHasIfAnotherFileIsBusy) {
    Tree tree(kBase);
    ZLayers layers(tree.terms);
    layers.setTarget("/etc", "50-a.conf");
    const string other = tree.folder / "run/app.conf.d/90-run.conf";
    const auto lock = [&](short type) {
        static const int descriptor = open(other.c_str(), O_RDWR | O_CLOEXEC);
        struct flock whole = {};
        whole.l_type = type;
        return fcntl(descriptor, F_OFD_SETLK, &whole);
    };
    {
        ZPropertiesUpdate update(layers, 0);
        set(layers, "a", "x");
        layers.store(nullptr);
        set(layers, "a", "1");
        ASSERT_EQ(lock(F_WRLCK), 0);
        update.commit();
    }
    EXPECT_EQ(valueOf(layers, tree, "b").substr(0, 1), "3");
    EXPECT_EQ(tree.text("etc/app.conf.d/50-a.conf"), string(kMark) + "\n[s]\na = 1\n");
    EXPECT_EQ(raised([&] { ZPropertiesUpdate update(layers, 0); }), "fcntl() 11");
    EXPECT_EQ(valueOf(layers, tree, "b").substr(0, 1), "3");
    ASSERT_EQ(lock(F_UNLCK), 0);
    // What was stored isn't stored again, whatever has become of it.
    tree.folder.write("etc/app.conf.d/50-a.conf", "[s]\na = 7\n");
    set(layers, "c", "1");
    layers.store(nullptr);
    EXPECT_EQ(tree.text("etc/app.conf.d/50-a.conf"), "[s]\na = 7\nc = 1\n");
    {
        ZPropertiesUpdate update(layers, 0);
        set(layers, "a", "8");
        layers.deleteKey("s", "c");
        ASSERT_EQ(lock(F_WRLCK), 0);
        layers.store(nullptr);
        set(layers, "a", "9");
    }
    EXPECT_EQ(valueOf(layers, tree, "a") + valueOf(layers, tree, "c"), "8 :0none");
    ASSERT_EQ(lock(F_UNLCK), 0);
}

TEST(Layers, CollectsAndAdds) {
    Tree tree({{"usr/app.conf", "[s]\na = 1\n"}, {"etc/app.conf.d/9.conf", "[s]\na = 3\n"}});
    tree.terms.flags |= ZLAYERS_COLLECT;
    ZLayers layers(tree.terms);
    layers.setTarget("/etc", "9.conf");
    layers.addValue("s", "a", "4", 0);
    layers.store(nullptr);
    EXPECT_EQ(tree.text("etc/app.conf.d/9.conf"), "[s]\na = 3\na = 4\n");
    EXPECT_EQ(valueOf(layers, tree, "a"), "1,3,4 usr/app.conf:2");
    const auto store = [&] {
        layers.store(nullptr);
        return valueOf(layers, tree, "a") + "\n" + tree.text("etc/app.conf.d/9.conf");
    };
    // What the lower file says goes by a line that says so, and stays gone.
    set(layers, "a", "5");
    EXPECT_EQ(store(), "5 etc/app.conf.d/9.conf:3\n[s]\na =\na = 5\n");
    layers.addValue("s", "a", "6", 0);
    EXPECT_EQ(store(), "5,6 etc/app.conf.d/9.conf:3\n[s]\na =\na = 5\na = 6\n");
    set(layers, "c", "1");
    EXPECT_EQ(store(), "5,6 etc/app.conf.d/9.conf:3\n[s]\na =\na = 5\na = 6\nc = 1\n");
    layers.deleteKey("s", "a");
    EXPECT_EQ(store(), "empty\n[s]\na =\nc = 1\n");
    layers.addValue("s", "a", "7", 0);
    EXPECT_EQ(store(), "7 etc/app.conf.d/9.conf:3\n[s]\na =\na = 7\nc = 1\n");

    // Back to what the lower file says: nothing of the target's own is needed.
    tree.folder.write("etc/app.conf.d/9.conf", "[s]\na = 3\nb = 1\n");
    layers.reload(nullptr);
    set(layers, "a", "1");
    EXPECT_EQ(store(), "1 usr/app.conf:2\n[s]\nb = 1\n");
    tree.folder.write("etc/app.conf.d/9.conf", "[s]\nc = 1\na =\na = 7\n");
    layers.reload(nullptr);

    // What a higher file adds is no more to be taken away here.
    tree.folder.write("etc/app.conf.d/a.conf", "[s]\na = 8\n");
    layers.reload(nullptr);
    layers.addValue("s", "b", "1", 0);
    EXPECT_EQ(store(), "7,8 etc/app.conf.d/9.conf:4\n[s]\nc = 1\na =\na = 7\nb = 1\n");
    set(layers, "a", "9");
    EXPECT_EQ(store(), "9,8 etc/app.conf.d/9.conf:4\n[s]\nc = 1\na =\na = 9\nb = 1\n");
    ZLCString file;
    int line;
    EXPECT_EQ(layers.shadowed(file, line), 1u);
}

// Targets that would hide, or be hidden; and what can't be said of several files.
TEST(Layers, RefusesWhatHidesOrIsHidden) {
    Tree tree({{"usr/app.conf", "[s]\na = 1\n"}, {"run/app.conf.d/1.conf", "[s]\na = 2\n"}});
    ZLayers layers(tree.terms);
    const auto change = [&](const char* root, const char* dropIn) {
        return raised([&] {
            layers.reload(nullptr);
            layers.setTarget(root, dropIn);
            set(layers, "c", "3");
            layers.store(nullptr);
        });
    };
    const struct {
        const char *root, *dropIn, *raised;
    } kTargets[] = {
        {"/etc", nullptr, "22"}, {"/etc", "1.conf", "22"},  {"/usr", "1.conf", "22"},
        {"/opt", nullptr, "22"}, {"/etc", ".x.conf", "22"}, {"/etc", "a/b.conf", "22"},
        {"/etc", "x.txt", "22"}, {"/etc/", "2.conf", ""},
    };
    for (const auto& row : kTargets)
        EXPECT_EQ(change(row.root, row.dropIn), row.raised) << row.root << row.dropIn;
    EXPECT_EQ(tree.text("etc/app.conf.d/1.conf"), "-");
    EXPECT_EQ(raised([&] { layers.renameKey("s", "a", "z"); }), "22");
    EXPECT_EQ(raised([&] { layers.addEntryComment("s", "a", "x"); }), "22");
    EXPECT_EQ(raised([&] { layers.loadBytes("", 0); }), "22");
    tree.folder.write("run/app.conf.d/3.conf", "[s\n");
    tree.terms.flags |= ZLAYERS_SKIP_BAD;
    ZLayers skipping(tree.terms);
    skipping.setTarget("/run", "3.conf");
    set(skipping, "c", "4");
    EXPECT_EQ(raised([&] { skipping.store(nullptr); }), "22");

    tree.terms.flags |= ZLAYERS_REFUSE_SHADOWED;
    ZLayers strict(tree.terms);
    strict.setTarget("/usr", nullptr);
    set(strict, "a", "9");
    EXPECT_EQ(raised([&] { strict.store(nullptr); }), "22");
    EXPECT_EQ(tree.text("usr/app.conf"), "[s]\na = 1\n");
    ZLCString file;
    int line = 0;
    EXPECT_EQ(strict.shadowed(file, line), 1u);
    EXPECT_EQ(tree.text(file.getChars() + tree.prefix.size()) + std::to_string(line),
              "[s]\na = 2\n2");
}

// A secret stands in its own file alone, and a file that was made for nothing is gone.
TEST(Layers, LeavesNothingBehind) {
    Tree tree({{"usr/app.conf", "[s]\nb = 1\nb = 1\n"}, {"creds/s.a", "secret\n"}});
    setenv("CREDENTIALS_DIRECTORY", (tree.folder / "creds").c_str(), 1);
    tree.terms.flags |= ZLAYERS_CREDENTIALS;
    const string usr = tree.folder / "usr", etc = tree.folder / "etc";
    const char* const roots[] = {usr.c_str(), etc.c_str(), nullptr};
    tree.terms.roots = roots;
    tree.terms.prefix = nullptr;
    ZLayers layers(tree.terms);
    unsetenv("CREDENTIALS_DIRECTORY");
    layers.setTarget(nullptr, "5.conf");
    { ZPropertiesUpdate update(layers, 0); }
    layers.addValue("s", "b", "2", 0);
    layers.addValue("s", "a", "new", 1);
    const auto visit = [](void* data, const ZLayerInfo&) { ++*static_cast<int*>(data); };
    int files = 0;
    layers.forEachFile(visit, &files);
    EXPECT_EQ(files, 1);
    layers.store(nullptr);
    EXPECT_EQ(valueOf(layers, tree, "b"), "1,1,2 etc/app.conf.d/5.conf:4");
    ZStanzaFileProperties own(1);
    own.load((tree.folder / "etc/app.conf.d/5.conf").c_str());
    ZArrayList values(1, 1);
    own.getValues("s", "a", values, ZPROP_STRING_LOCAL);
    EXPECT_EQ(values.size(), 1u);
}

// Two in one layer and one in another, each adding keys of its own, by updates and by stores.
TEST(Layers, LosesNoEditOfSeveralWriters) {
    Tree tree(kBase);
    static const int kEdits = 40;
    const auto write = [&](const char* name, const char* dropIn) {
        for (int i = 0; i < kEdits; ++i)
            EXPECT_EQ(raised([&] {
                          ZLayers layers(tree.terms, 0, 60000);
                          layers.setTarget("/etc", dropIn);
                          const string key = name + std::to_string(i);
                          if (i % 2 == 0) {
                              set(layers, key.c_str(), "1");
                              return layers.store(nullptr);
                          }
                          ZPropertiesUpdate update(layers, 60000);
                          set(layers, key.c_str(), "1");
                          update.commit();
                      }),
                      "");
    };
    std::thread writers[] = {std::thread(write, "x", "1.conf"), std::thread(write, "y", "1.conf"),
                             std::thread(write, "z", "2.conf")};
    for (std::thread& writer : writers)
        writer.join();
    ZLayers layers(tree.terms);
    EXPECT_EQ(layers.count("s"), 2 + 3 * kEdits);
}

// Each step's notices once, nothing of what is below a shadow, and everything of folders that come
// and go.
TEST(Layers, TellsWhatChangesOnTheDisk) {
    struct Watcher : ZPropertiesWatcher {
        explicit Watcher(ZProperties& properties) : ZPropertiesWatcher(properties) {}
        void tell(const ZPropertyChanged& change) override {
            told += string(change.key == nullptr ? change.stanza : change.key) +
                    "+-="[change.changeType] + " ";
        }
        string told;
    };
    Tree tree(kBase);
    const auto drop = [&](const char* name, const char* text) {
        std::filesystem::create_directories(tree.folder / "etc/app.conf.d");
        tree.folder.replace(string("etc/app.conf.d/") + name, text);
    };
    const struct {
        const char* name;
        std::function<void()> change;
        const char* told;
    } kSteps[] = {
        {"nothing", [] {}, ""},
        {"a folder that comes with a file", [&] { drop("1.conf", "[s]\na = 5\n"); }, "a= "},
        {"below a shadow", [&] { drop("2.conf", "[s]\nb = 7\n"); }, ""},
        {"a file behind it", [&] { drop("95.conf", "[s]\nb = 7\nc = 1\n"); }, "b= c+ "},
        {"a file that is bad", [&] { drop("3.conf", "[s\n"); }, "line 1"},
        {"which goes", [&] { std::filesystem::remove(tree.folder / "etc/app.conf.d/3.conf"); }, ""},
        {"all goes", [&] { std::filesystem::remove_all(tree.folder / "etc"); }, "c- a= b= "},
        {"the main file is hidden",
         [&] {
             drop("1.conf", "[s]\na = 1\n");
             tree.folder.write("etc/app.conf", "");
         },
         ""},
        {"and has other content", [&] { tree.folder.write("etc/app.conf", "[s]\nd = 1\n"); },
         "d+ "},
    };
    ZLayers layers(tree.terms);
    Watcher watcher(layers);
    watcher.setSettlingTime(0);
    for (const auto& step : kSteps) {
        SCOPED_TRACE(step.name);
        step.change();
        watcher.told.clear();
        struct pollfd ready = {watcher.descriptor(), POLLIN, 0};
        string told;
        do {
            told += raised([&] { watcher.process(); });
        } while (watcher.told.size() + told.size() < strlen(step.told) &&
                 poll(&ready, 1, 9000) > 0);
        EXPECT_EQ(told + watcher.told, step.told);
        tree.terms.flags = ZLAYERS_MAY_BE_EMPTY | ZLAYERS_SKIP_BAD;
        ZLayers fresh(tree.terms);
        for (const char* key : {"a", "b", "c", "d"})
            EXPECT_EQ(valueOf(layers, tree, key), valueOf(fresh, tree, key));
    }
}

TEST(Layers, AnswersCCallers) {
    Tree tree(kBase);
    ZPROP_handle* handle = nullptr;
    ZPROP_error last;
    ASSERT_EQ(zstzLayers_open(&handle, &tree.terms, ZPROP_OPEN_UPDATE, 0, 0), ZPROP_OK);
    EXPECT_EQ(zstzPropSetStringValue(handle, "s", "a", "9"), ZPROP_OK);
    EXPECT_EQ(zstzPropStore(handle, nullptr), ZPROP_ERR_FILE);
    EXPECT_EQ(zstzPropLastError(&last), 22);
    EXPECT_STREQ(last.text, "a layered configuration needs a target for changes");
    EXPECT_EQ(zstzLayers_setTarget(handle, nullptr, "5.conf"), ZPROP_ERR_PARAM);
    zstzPropClose(handle);
    ASSERT_EQ(zstzLayers_open(&handle, &tree.terms, ZPROP_OPEN_UPDATE, 0, 0), ZPROP_OK);
    EXPECT_EQ(zstzLayers_setTarget(handle, nullptr, "5.conf"), ZPROP_OK);
    ASSERT_EQ(zstzPropBegin(handle, 0), ZPROP_OK);
    EXPECT_EQ(zstzPropSetStringValue(handle, "s", "b", "9"), ZPROP_OK);
    EXPECT_EQ(zstzPropCommit(handle), ZPROP_SHADOWED);
    EXPECT_EQ(zstzPropLastError(&last), ZPROP_SHADOWED);
    EXPECT_EQ(last.file, tree.prefix + "run/app.conf.d/90-run.conf");
    EXPECT_EQ(last.line, 2);
    char* file = nullptr;
    int line = 0;
    EXPECT_EQ(zstzPropOrigin(handle, "s", "b", 0, &file, &line), ZPROP_OK);
    EXPECT_EQ(file, tree.prefix + "run/app.conf.d/90-run.conf");
    zstzPropFree(file);
    EXPECT_EQ(zstzPropOrigin(handle, "s", "b", 1, &file, &line), ZPROP_ERR_PARAM);
    // Up to the file that says so.
    string files;
    const auto take = [](void* data, const ZLayerInfo* info) {
        *static_cast<string*>(data) += std::to_string(info->kind) + std::to_string(info->state);
        return info->kind == ZLAYER_DROP_IN ? 7 : 0;
    };
    EXPECT_EQ(zstzLayers_forEachFile(handle, take, &files), 7);
    EXPECT_EQ(files, "0010");
    // Another main file would hide the one that is there.
    EXPECT_EQ(zstzLayers_setTarget(handle, "/etc", nullptr), ZPROP_OK);
    EXPECT_EQ(zstzPropBegin(handle, 0), ZPROP_ERR_FILE);
    zstzPropLastError(&last);
    EXPECT_STREQ(last.text, "the target would hide a file of a lower root");
    zstzPropClose(handle);
}

}  // namespace
