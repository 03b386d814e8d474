// Which files a layered configuration has, in which order, and that no way to one leads out of its
// prefix.
#include "support/Prelude.h"

#include <poll.h>

#include "Z/zlayerfinding.h"
#include "support/Raised.h"
#include "support/TempFolder.h"

using std::string;

namespace {

ZLayersTerms terms(const char* prefix, unsigned long flags = 0) {
    static const char* const kRoots[] = {"/usr", "/run/", "//etc", nullptr};
    ZLayersTerms made = {};
    made.size = sizeof made;
    made.name = "app";
    made.roots = kRoots;
    made.prefix = prefix;
    made.flags = flags;
    return made;
}

// "etc/f=text", a file; "f>to", a link; "f&to", one more name of a file; "f|", a fifo; "f/", a
// folder; "M", "1" and so on stand for the main file's and the drop-ins' names.
void make(const TempFolder& root, const std::vector<string>& entries) {
    for (const string& entry : entries) {
        const size_t at = entry.find_first_of("=>&|");
        const string path = root / entry.substr(0, at), rest = entry.substr(at + 1);
        std::filesystem::create_directories(path.substr(0, path.rfind('/')));
        if (at == string::npos)
            continue;
        if (entry[at] == '=')
            root.write(entry.substr(0, at), rest);
        const bool isMade = entry[at] == '>'   ? symlink(rest.c_str(), path.c_str()) == 0
                            : entry[at] == '&' ? link((root / rest).c_str(), path.c_str()) == 0
                            : entry[at] == '|' ? mkfifo(path.c_str(), 0600) == 0
                                               : true;
        EXPECT_TRUE(isMade) << entry;
    }
}

// Each file as its path and "+" counts, "0" masks, "-" hidden, "=" repeated, or an errno.
string shown(const ZLayerTree& tree, const string& prefix, ZVector<ZLayerFile>* kept = nullptr) {
    ZVector<ZLayerFile> files;
    ZLayerFinding finding(tree);
    finding.find(files);
    string out;
    for (size_t i = 0; i < files.size(); ++i) {
        const ZLayerFile& file = files[i];
        const string path = file.path.getChars();
        out += (i == 0 ? "" : " ") + path.substr(std::min(path.size(), prefix.size() + 1)) +
               (file.state == ZLayerFile::bad ? "!" + string(strerrorname_np(file.error))
                                              : string(1, "+0-="[file.state]));
        const bool isOther = file.state == ZLayerFile::hidden || file.state == ZLayerFile::repeated;
        EXPECT_EQ(file.other > static_cast<int>(i), isOther) << path;
        const int opened = file.state == ZLayerFile::counts ? finding.open(file) : -1;
        EXPECT_EQ(opened >= 0, file.state == ZLayerFile::counts) << path << strerror(errno);
        close(opened);
    }
    if (kept != nullptr)
        kept->swap(files);
    return out;
}

// clang-format off
const struct { std::vector<string> tree; const char* files; } kTrees[] = {
    {{}, ""},
    {{"usr/app.conf=a"}, "usr/app.conf+"},
    {{"usr/app.conf=a", "run/app.conf=b", "etc/app.conf=c"},
     "usr/app.conf- run/app.conf- etc/app.conf+"},
    {{"usr/app.conf=a", "etc/app.conf="}, "usr/app.conf- etc/app.conf0"},
    {{"usr/app.conf=a", "etc/app.conf>/dev/null"}, "usr/app.conf- etc/app.conf0"},
    {{"usr/app.conf=a", "etc/app.conf/"}, "usr/app.conf- etc/app.conf!EISDIR"},
    // By name over all roots, bytewise; of one name the highest.
    {{"usr/D/20.conf=a", "run/D/10.conf=b", "etc/D/20.conf=c", "etc/D/B.conf=d", "run/D/a.conf=e",
      "usr/D/\xC3\xA4.conf=f", "usr/D/b\n c.conf=g"},
     "run/D/10.conf+ usr/D/20.conf- etc/D/20.conf+ etc/D/B.conf+ run/D/a.conf+ "
     "usr/D/b\n c.conf+ usr/D/\xC3\xA4.conf+"},
    {{"usr/D/a.conf=a", "run/D/a.conf>/dev/null", "etc/D/a.conf=", "etc/D/b.conf>../../dev/null",
      "usr/D/b.conf=b", "usr/D/c.conf>b.conf", "run/D/c.conf>d", "run/D/d>/dev/null"},
     "usr/D/a.conf- run/D/a.conf- etc/D/a.conf0 usr/D/b.conf- etc/D/b.conf0 usr/D/c.conf- "
     "run/D/c.conf0"},
    // What is no drop-in.
    {{"etc/D/.conf=a", "etc/D/.a.conf=a", "etc/D/a.conf~=a", "etc/D/a.cfg=a", "etc/D/a=a",
      "etc/D/sub/a.conf=a", "etc/other.conf=a", "etc/app.d/a.conf=a"}, ""},
    // Bad ones hide as well; nothing waits for the fifo.
    {{"usr/D/a.conf=a", "etc/D/a.conf>nowhere", "etc/D/b.conf>b.conf", "etc/D/c.conf|",
      "etc/D/d.conf/", "etc/D/e.conf>../D/d.conf/."},
     "usr/D/a.conf- etc/D/a.conf!ENOENT etc/D/b.conf!ELOOP etc/D/c.conf!EINVAL "
     "etc/D/d.conf!EISDIR etc/D/e.conf!EISDIR"},
    {{"etc/D=a", "run/D>nowhere", "usr=a"}, "etc/D!ENOTDIR"},
    {{"etc/D>/dev/null", "run=a", "usr>/dev/null"}, "etc/D!ENOTDIR"},
    // One file under several names.
    {{"usr/f=a", "usr/app.conf>f", "etc/D/a.conf&usr/f", "etc/D/b.conf>../../usr/f",
      "run/D/c.conf=c", "run/D/d.conf&run/D/c.conf", "etc/D/d.conf=d"},
     "usr/app.conf= etc/D/a.conf= etc/D/b.conf+ run/D/c.conf+ run/D/d.conf- etc/D/d.conf+"},
    // Links stay below the prefix.
    {{"real/app.conf=a", "etc>/real", "usr>../../../../../real", "run>/usr"},
     "usr/app.conf- run/app.conf- etc/app.conf+"},
    {{"x/f=a", "etc/app.conf>/x/f", "etc/D>/x/d/", "x/d/a.conf>../..//../.././x/f",
      "x/d/b.conf>/x/f/"}, "etc/app.conf= etc/D/a.conf+ etc/D/b.conf!ENOTDIR"},
    {{"dev/null=text", "etc/app.conf>/dev/null", "etc/D/a.conf>/dev/x/../null", "dev/x/y=a"},
     "etc/app.conf0 etc/D/a.conf0"},
    {{"etc/app.conf>/proc/self/cwd/etc/passwd", "etc/D/a.conf>/etc/passwd"},
     "etc/app.conf!ENOENT etc/D/a.conf!ENOENT"},
};
// clang-format on

string replaced(string text, const string& from, const string& to) {
    for (size_t at = 0; (at = text.find(from, at)) != string::npos; at += to.size())
        text.replace(at, from.size(), to);
    return text;
}

TEST(LayerTree, FindsFilesInTheirOrder) {
    for (const auto& [entries, files] : kTrees) {
        const TempFolder folder;
        const string root = folder / "root";
        bool leadsOut = false;
        std::vector<string> tree;
        for (const string& entry : entries) {
            tree.push_back("root/" + replaced(entry, "/D", "/app.conf.d"));
            tree.back() = replaced(tree.back(), "&", "&root/");
            leadsOut =
                leadsOut ||
                (entry.find(">/") != string::npos && entry.find(">/dev/null") == string::npos) ||
                entry.find("../..") != string::npos;
        }
        make(folder, tree);
        mkdir(root.c_str(), 0700);
        const string expected = replaced(files, "/D", "/app.conf.d");
        SCOPED_TRACE(expected);
        EXPECT_EQ(shown(ZLayerTree(terms(root.c_str())), root), expected);
        if (leadsOut)
            continue;
        // Without a prefix the system's ways are the same.
        const string roots[] = {root + "/usr", root + "/run", root + "/etc"};
        const char* list[] = {roots[0].c_str(), roots[1].c_str(), roots[2].c_str(), nullptr};
        ZLayersTerms plain = terms("/");
        plain.roots = list;
        EXPECT_EQ(shown(ZLayerTree(plain), root), expected);
    }
}

TEST(LayerTree, TakesProjectUserFolderAndExtraFiles) {
    const TempFolder root;
    make(root,
         {"etc/p/app.cfg=a", "home/.config/p/app.cfg.d/b.cfg=b", "xdg/p/app.cfg=c", "e=e", "n="});
    const string extra[] = {root / "e", root / "none", root / "n"}, prefix = root / "";
    const char* list[] = {extra[0].c_str(), extra[1].c_str(), extra[2].c_str(), extra[0].c_str(),
                          nullptr};
    ZLayersTerms wanted = terms(prefix.c_str(), ZLAYERS_USER);
    wanted.project = "p";
    wanted.suffix = ".cfg";
    wanted.extra = list;
    const struct {
        const char *config, *home, *files;
    } kUsers[] = {{"/xdg/", "/home", "etc/p/app.cfg- xdg/p/app.cfg+"},
                  {"relative", "/home", "etc/p/app.cfg+ home/.config/p/app.cfg.d/b.cfg+"},
                  {"", "home", "etc/p/app.cfg+"}};
    for (const auto& [config, home, files] : kUsers) {
        setenv("XDG_CONFIG_HOME", config, 1);
        setenv("HOME", home, 1);
        EXPECT_EQ(shown(ZLayerTree(wanted), prefix.substr(0, prefix.size() - 1)),
                  files + string(" e= none!ENOENT n+ e+"));
    }
}

TEST(LayerTree, RefusesTermsThatCanNotBe) {
    const std::pair<const char*, void (*)(ZLayersTerms&)> kTerms[] = {
        {"size", [](ZLayersTerms& t) { t.size = offsetof(ZLayersTerms, dialect) - 1; }},
        {"no name", [](ZLayersTerms& t) { t.name = nullptr; }},
        {"empty name", [](ZLayersTerms& t) { t.name = ""; }},
        {"folder in name", [](ZLayersTerms& t) { t.name = "a/b"; }},
        {"dots", [](ZLayersTerms& t) { t.name = ".."; }},
        {"suffix", [](ZLayersTerms& t) { t.suffix = "/.conf"; }},
        {"of drop-ins", [](ZLayersTerms& t) { t.dropInSuffix = "/.conf"; }},
        {"project", [](ZLayersTerms& t) { t.project = "a/../.."; }},
        {"prefix", [](ZLayersTerms& t) { t.prefix = "image"; }},
        {"root",
         [](ZLayersTerms& t) {
             static const char* const kRoots[] = {"/a", "b", nullptr};
             t.roots = kRoots;
         }},
        {"flags", [](ZLayersTerms& t) { t.flags = 256; }},
    };
    for (const auto& [what, spoil] : kTerms) {
        ZLayersTerms wanted = terms("/");
        spoil(wanted);
        EXPECT_EQ(raised([&] { ZLayerTree tree(wanted); }), "22") << what;
    }
    // What a caller's older struct doesn't have isn't looked at.
    ZLayersTerms older = terms("/");
    older.dropInSuffix = "/.conf";
    older.size = offsetof(ZLayersTerms, dialect);
    EXPECT_EQ(raised([&] { ZLayerTree tree(older); }), "");
    struct {
        ZLayersTerms known;
        long wish;
    } later = {terms("/"), 0};
    later.known.size = sizeof later;
    EXPECT_EQ(raised([&] { ZLayerTree tree(later.known); }), "");
    later.wish = 1;
    EXPECT_EQ(raised([&] { ZLayerTree tree(later.known); }), "22");
}

TEST(LayerTree, RefusesUnsafeFilesIfAskedAndUnreadableOnes) {
    const TempFolder root;
    make(root, {"etc/app.conf.d/a.conf=a", "etc/app.conf.d/b.conf=b", "etc/app.conf.d/c.conf=c",
                "usr/app.conf.d/a.conf=a"});
    const string folder = root / "etc/app.conf.d/", prefix = root / ".";
    chmod(prefix.c_str(), 0755);
    chmod((folder + "a.conf").c_str(), 0666);
    chmod((folder + "b.conf").c_str(), 0600);
    const auto expect = [&](unsigned long flags, const char* a, const char* b, const char* c) {
        EXPECT_EQ(shown(ZLayerTree(terms(prefix.c_str(), flags)), prefix),
                  "usr/app.conf.d/a.conf- etc/app.conf.d/a.conf" + string(a) +
                      " etc/app.conf.d/b.conf" + b + " etc/app.conf.d/c.conf" + c);
    };
    expect(ZLAYERS_REFUSE_UNSAFE, "!EPERM", "+", "+");
    if (chown((folder + "c.conf").c_str(), 12345, 0) != 0)
        return;
    expect(ZLAYERS_REFUSE_UNSAFE, "!EPERM", "+", "!EPERM");
    seteuid(12345);
    expect(ZLAYERS_REFUSE_UNSAFE, "!EPERM", "!EACCES", "+");
    seteuid(0);
    expect(0, "+", "+", "+");
}

// All names of one file: that shows a walk in a walk as well.
TEST(LayerTree, TakesThousandsOfDropIns) {
    const TempFolder root;
    make(root, {"etc/app.conf.d/0.conf=a"});
    for (int i = 10001; i < 20000; ++i)
        link((root / "etc/app.conf.d/0.conf").c_str(),
             (root / ("etc/app.conf.d/" + std::to_string(i) + ".conf")).c_str());
    ZVector<ZLayerFile> files;
    const string path = root / "";
    ZLayerFinding(ZLayerTree(terms(path.c_str()))).find(files);
    ASSERT_EQ(files.size(), 10000u);
    for (int i = 0; i < 9999; ++i)
        ASSERT_TRUE(files[i].state == ZLayerFile::repeated && files[i].other == 9999) << i;
    EXPECT_EQ(files[9999].state, ZLayerFile::counts);
}

TEST(LayerTree, KnowsFilesAgain) {
    const TempFolder root;
    make(root, {"usr/app.conf=a", "etc/app.conf>f", "etc/f=b", "etc/f2=b"});
    const string path = root / "";
    const ZLayerTree tree(terms(path.c_str()));
    ZVector<ZLayerFile> before, now;
    ZLayerFinding(tree).find(before);
    root.write("usr/app.conf", "hidden, so that it doesn't matter");
    ZLayerFinding(tree).find(now);
    EXPECT_TRUE(ZLayerTree::areSame(before, now));
    root.write("etc/f", "longer");
    ZLayerFinding(tree).find(now);
    EXPECT_FALSE(ZLayerTree::areSame(before, now));
    make(root, {"etc/new>f2"});
    rename((root / "etc/new").c_str(), (root / "etc/app.conf").c_str());
    EXPECT_EQ(ZLayerFinding(tree).open(now[1]), -1);
    EXPECT_EQ(errno, ESTALE);
    ZLCString out;
    make(root, {"etc/d>/usr/./", "usr/x>../usr"});
    for (const auto& [logical, place] : {std::pair<string, string>{"/etc/d/x", "usr/x"},
                                         {"/etc/d/x/app.conf", "usr/app.conf"},
                                         {"/etc/no/../x", ""},
                                         {"/etc/d/no/such/app.conf", "usr/no/such/app.conf"},
                                         {"/etc/f/x", ""}}) {
        const bool isTold = tree.physicalPath(logical.c_str(), out);
        EXPECT_EQ(isTold ? out.getChars() : "", place.empty() ? "" : root / place) << logical;
    }
}

// With folders that have just been made, which are listed again, and with older ones.
TEST(LayerTree, SeesWhatHasChangedSinceItsSearch) {
    for (const int age : {0, 60}) {
        const std::pair<const char*, bool> changes[] = {
            {"usr/app.conf=hidden", true},
            {"run/app.conf=new", false},
            {"etc/app.conf.d/a.conf=b", false},
            {"etc/app.conf.d/b.conf=", false},
            {"usr/app.conf.d/0.conf=0", false},
            {"run/app.conf.d/a.conf=", false},
            {"f=turned", false},
        };
        for (const auto& [change, isStill] : changes) {
            const TempFolder root;
            make(root, {"usr/app.conf=a", "etc/app.conf=b", "etc/app.conf.d/a.conf=a", "f=b",
                        "usr/app.conf.d/l.conf>../../f"});
            usleep(age * 1000);
            const string path = root / "";
            const ZLayerTree tree(terms(path.c_str()));
            ZVector<ZLayerFile> files;
            ZLayerFinding finding(tree);
            finding.find(files);
            EXPECT_TRUE(finding.isStill(files));
            make(root, {change});
            EXPECT_EQ(finding.isStill(files), isStill) << change << " after " << age << " ms";
        }
    }
}

// A way in steps of names would come to "out" once a folder is moved there, or a link is turned.
TEST(LayerTree, NeverLeadsOutWhileLinksAreTurned) {
    const TempFolder root;
    make(root, {"out/a.conf=out", "out/x/y=", "in/D/sub/x=", "in/D/a.conf=in", "in/turned>D",
                "in/etc/app.conf.d>../turned", "in/etc/app.conf>../D/sub/../a.conf"});
    make(root, {"in/other>" + root / "out"});
    struct stat outside;
    ASSERT_EQ(stat((root / "out/a.conf").c_str(), &outside), 0);
    const string path = root / "in";
    std::atomic<bool> isDone(false);
    std::thread turner([&] {
        const string one = path + "/turned", two = path + "/other", in = path + "/D/sub",
                     out = root / "out/sub";
        while (!isDone) {
            renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, two.c_str(), RENAME_EXCHANGE);
            rename(in.c_str(), out.c_str());
            rename(out.c_str(), in.c_str());
        }
    });
    const ZLayerTree tree(terms(path.c_str()));
    int found = 0;
    for (int i = 0; i < 3000; ++i) {
        ZVector<ZLayerFile> files;
        ZLayerFinding(tree).find(files);
        for (const ZLayerFile& file : files) {
            EXPECT_NE(file.stamp.inode, outside.st_ino);
            found += file.state == ZLayerFile::counts;
        }
    }
    isDone = true;
    turner.join();
    EXPECT_GT(found, 0);
}

// Looks at all files again until nothing else is to be watched.
void watchAll(ZPathWatch& watch, const ZLayerTree& tree) {
    ZVector<ZLayerFile> files;
    ZVector<ZLayerTree::Watched> paths;
    do {
        ZLayerFinding(tree).find(files);
        tree.listWatched(files, paths);
    } while (watch.setPaths(paths));
    watch.hasNews();
}

bool tells(ZPathWatch& watch) {
    struct pollfd readable = {watch.descriptor(), POLLIN, 0};
    return poll(&readable, 1, 0) == 1 && watch.hasNews();
}

TEST(LayerTree, WatchesAllItsFiles) {
    const std::pair<const char*, bool> kSteps[] = {
        {"etc/app.conf=a", true},
        {"etc/app.conf=b", true},
        {"etc/other.conf=c", false},
        {"run/app.conf.d/a.conf=d", true},
        {"run/app.conf.d/a.conf=e", true},
        {"run/b.conf=f", false},
        {"-run/app.conf.d/a.conf", true},
        {"-run", true},
        {"etc/app.conf.d/l.conf>../../x/f", true},
        {"x/f=g", true},
        {"x/f=h", true},
        {"x/g=i", false},
        {"-x", true},
        {"usr/app.conf>../x/y/../g", true},
        {"x/h=i", true},
        {"x/i=j", false},
        {"x/y/z=j", true},
        {"x/g=k", true},
        {"-x/y", true},
        {"run>/real", true},
        {"real/app.conf.d/b.conf>/x/b", true},
        {"x/b=l", true},
        {"-run", true},
        {"x/b=m", false},
        {"-etc", true},
    };
    for (const bool hasPrefix : {true, false}) {
        const TempFolder root;
        make(root, {"etc/", "usr/"});
        const string path = root / "", roots[] = {root / "usr", root / "run", root / "etc"};
        const char* list[] = {roots[0].c_str(), roots[1].c_str(), roots[2].c_str(), nullptr};
        ZLayersTerms wanted = terms(hasPrefix ? path.c_str() : nullptr);
        if (!hasPrefix)
            wanted.roots = list;
        const ZLayerTree tree(wanted);
        ZPathWatch watch((root / "etc/app.conf").c_str(), ".journal");
        watchAll(watch, tree);
        for (const auto& [step, isNews] : kSteps) {
            if (!hasPrefix && strstr(step, ">/") != nullptr)
                break;
            if (*step == '-')
                std::filesystem::remove_all(root / (step + 1));
            else
                make(root, {step});
            EXPECT_EQ(tells(watch), isNews) << step << hasPrefix;
            watchAll(watch, tree);
            EXPECT_FALSE(tells(watch)) << step << hasPrefix;
        }
        watch.setSettlingTime(3600000);
        make(root, {"etc/app.conf.d/", "usr/app.conf.d/"});
        watchAll(watch, tree);
        std::ofstream one(root / "etc/app.conf.d/a.conf"), two(root / "usr/app.conf.d/a.conf");
        (one << "k = v").flush();
        (two << "k = v").flush();
        EXPECT_TRUE(!tells(watch) && watch.isBeingWritten());
        one.close();
        EXPECT_TRUE(!tells(watch) && watch.isBeingWritten());
        two.close();
        EXPECT_TRUE(tells(watch) && !watch.isBeingWritten());
    }
}

}  // namespace
