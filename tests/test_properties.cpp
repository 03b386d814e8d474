// The properties object: typed look-ups, changes, notices, walks, and the object of a stanza file.
#include "support/Prelude.h"

#include "support/CacheText.h"
#include "support/Config.h"
#include "support/Raised.h"
#include "support/Gate.h"
#include "support/RecordingService.h"

using std::string;

typedef ZAbstractPropertyValuesIterator Values;
typedef ZStanzaValueIterator Walk;

const ZPropertyStringType kLocal = ZPROP_STRING_LOCAL;

namespace {

// A stanza file object with this content.
class Loaded : public Config {
public:
    explicit Loaded(const string& text) { EXPECT_EQ(readText(data(), text), 0); }
    string written() { return writtenText(data()); }
    ZLock& lock() { return lock_; }
    /// Whether the calling thread holds the object.
    bool isLocked() { return depthOf(lock_) != 0; }
};

string text(const ZProperties& p, const char* stanza, const char* key) {
    return valueIn(p, stanza, key, nullptr);
}

// A stanza with these values of one letter each.
string stanzaOf(const char* values) {
    string text = "[s]\n";
    for (; *values != '\0'; ++values)
        text += string("k = ") + *values + "\n";
    return text;
}

// ---------------------------------------------------------------- look-ups

TEST(Properties, Integers) {
    // clang-format off
    static const std::pair<const char*, unsigned int> kNumbers[] = {
        {"0", 0}, {"010", 8}, {"0x10", 16}, {"0XfF", 255}, {"+7", 7}, {"-1", 4294967295u},
        {"-4294967295", 1}, {"-4294967296", 4294967295u}, {"999999999", 999999999},
        {"4294967295", 4294967295u}, {"4294967296", 4294967295u},
        {"99999999999999999999999", 4294967295u}, {"-99999999999999999999999", 4294967295u}};
    // clang-format on
    for (const auto& c : kNumbers)
        EXPECT_EQ(Loaded(string("[s]\nk = ") + c.first).getIntegerValue("s", "k", 0, 5), c.second)
            << c.first;
    for (const char* word : {"12abc", "1 2", "09", "-", "0x", "x"}) {
        Loaded p(string("[s]\nk = ") + word);
        EXPECT_EQ(numberOf([&] { p.getIntegerValue("s", "k", 0, 5); }), 40) << word;
    }
}

TEST(Properties, Booleans) {
    const char* const words[][5] = {{"No", "n", "false", "F", "0"}, {"yes", "Y", "TRUE", "t", "1"}};
    for (int truth : {0, 1})
        for (const char* word : words[truth])
            EXPECT_EQ(Loaded(string("[s]\nk = ") + word).getBooleanValue("s", "k", 1, 0), truth);
    for (const char* word : {"maybe", "ye", "yess", "2", "on"}) {
        Loaded p(string("[s]\nk = ") + word);
        EXPECT_EQ(numberOf([&] { p.getBooleanValue("s", "k", 0, 1); }), 41) << word;
    }
}

TEST(Properties, TheLastValueWinsAndAnAbsentOneGivesTheDefault) {
    Loaded p("[s]\nk = 1\nk = 2\nempty =\n");
    EXPECT_EQ(text(p, "s", "k"), "2");
    EXPECT_EQ(p.getIntegerValue("s", "k", 1, 0), 2u);
    EXPECT_EQ(p.numValues("s", "k"), 2);
    EXPECT_EQ(p.numValues("s.k"), 2);
    for (const char* key : {"empty", "missing"}) {
        SCOPED_TRACE(key);
        EXPECT_EQ(text(p, "s", key), "");
        EXPECT_EQ(valueIn(p, "s", key, "default"), "default");
        EXPECT_EQ(p.getIntegerValue("s", key, 0, 9), 9u);
        EXPECT_EQ(p.getBooleanValue("s", key, 0, 3), 3);
    }
}

TEST(Properties, BadArgumentsAreRefusedAndChangeNothing) {
    Loaded p("[s]\nk = 1\nh = 2\n");
    p.setValue("s", "h", "");
    p.setValue("s", "h", "hidden", 1);
    const string before = p.written();
    p.resetModified();
    ZArrayList sharing(1, 0), owning(1, 1);
    const ZLCString member("stays");
    ZLCString out;
    owning.add(&member);
    const auto badType = static_cast<ZPropertyStringType>(1);
    // clang-format off
    const std::vector<std::function<void()>> calls = {
        [&] { p.exists(nullptr); }, [&] { p.exists(""); }, [&] { p.exists("s", ""); },
        [&] { p.count(""); }, [&] { p.numValues("nodot"); }, [&] { p.numValues("s", nullptr); },
        [&] { p.isObfuscated("s", "missing"); }, [&] { p.isObfuscated("s.missing"); },
        [&] { p.isObfuscated("nodot"); }, [&] { p.getIntegerValue("s", "k", 1, 1); },
        [&] { p.getBooleanValue("s", "k", 1, 1); }, [&] { p.getValue("s", "k", out, 1, ""); },
        [&] { p.getValues("s", "k", sharing, kLocal); },
        [&] { p.getValues("s", "k", owning, badType); }, [&] { p.keyNames(sharing); },
        [&] { p.keyNames("s", sharing); }, [&] { p.setValue("", "k", "v"); },
        [&] { p.setValue("s", nullptr, "v"); }, [&] { p.setValue("s", "k", "v", 1); },
        [&] { p.setValue("s", "h", "v", 0); }, [&] { p.setIntegerValue("s", "h", 1); },
        [&] { p.setBooleanValue("s", "h", 1); }, [&] { p.deleteKey("s", ""); },
        [&] { p.addFileComment(""); }, [&] { p.addEntryComment("s", "k", nullptr); },
        [&] { p.addStanza(""); }, [&] { p.deleteStanza(nullptr); },
        [&] { p.addStanzaComment("s", ""); }, [&] { p.addValue("s", "k", "", 0); },
        [&] { p.addValue("s", "k", "v", 1); }, [&] { p.addValues("s", "k", ZArrayList(1, 1), 0); },
        [&] { p.getItems(nullptr, 1); }, [&] { ZStanzaIterator walk(p, nullptr); },
        [&] { Walk(p, nullptr, "k", kLocal, Values::ZPROP_ITER_AUTO); },
        [&] { Walk(p, "s", "k", badType, Values::ZPROP_ITER_AUTO); },
        [&] { Walk(p, "s", "h", kLocal, Values::ZPROP_ITER_PLAIN); },
        [&] { Walk(p, "s", "k", kLocal, Values::ZPROP_ITER_OBFUSCATED); }, [&] { p.load(""); },
        [&] { p.store(nullptr); }, [&] { p.reload(nullptr); },
    };
    // clang-format on
    for (size_t i = 0; i < calls.size(); ++i)
        EXPECT_EQ(numberOf(calls[i]), 22) << "call " << i;
    EXPECT_EQ(p.written(), before);
    EXPECT_EQ(p.isModified(), 0);
    EXPECT_EQ(owning.size(), 1u);
    bool free = false;  // nobody kept the lock
    std::thread([&] { free = p.count() == 1; }).join();
    EXPECT_TRUE(free);
}

// Names and targets that are texts of what the call changes.
TEST(Properties, ArgumentsMayBeTextsOfTheirTargets) {
    Loaded p("[s]\ns = k\nk = s\n");
    ZArrayList list(1, 1);
    p.getValues("s", "k", list, kLocal);
    const char* name = static_cast<ZLCString*>(list.get(0))->getChars();
    p.getValues(name, "s", list, kLocal);
    EXPECT_STREQ(static_cast<ZLCString*>(list.get(0))->getChars(), "k");
    ZPropertiesKVList pairs(kLocal);
    p.getStanza("s", pairs);
    p.getStanza(pairs.getItemKey(0), pairs);
    EXPECT_EQ(pairs.getItemCount(), 2u);
    ZLCString* stored = static_cast<ZLCString*>(p.get("s", "k")->get(0));
    p.getValue("s", "k", *stored, 0, nullptr);
    EXPECT_EQ(*stored, "s");
    p.setValue("s", "k", stored->getChars());
    EXPECT_EQ(text(p, "s", "k"), "s");
    p.addValues("s", "new", *p.keyNames("s"), 0);
    EXPECT_EQ(p.numValues("s", "new"), 2);
}

// ---------------------------------------------------------------- changes and notices

// Says of each notice whether the object was locked by its teller; what it does then is the test's.
struct Listener : Notices {
    void update(ZObservableInterface* source, const ZObservedParm& parm) override {
        Notices::update(source, parm);
        EXPECT_FALSE(static_cast<Loaded*>(source)->isLocked());
        std::exchange(then, nothing)();
    }
    static void nothing() {}
    std::function<void()> then = nothing;  // the next time only
};

TEST(Properties, ChangesTellTheirObserversAndMarkTheObject) {
    const string start = "[s]\nk = 1\nk = 2\n";
    typedef Loaded& P;
    const struct {
        void (*change)(P);
        const char* heard;
        string written;
    } kCases[] = {
        {[](P p) { p.setValue("s", "k", "v"); }, "~s.k ", "[s]\nk = v\n"},
        {[](P p) { p.setValue("s", "k", ZUTF8ConstString("v")); }, "~s.k ", "[s]\nk = v\n"},
        {[](P p) { p.setValue("s", "k", nullptr); }, "~s.k ", "[s]\nk =\n"},
        {[](P p) { p.setValue("s", "k", "", 1); }, "~s.k ", "[s]\nk =\n"},
        {[](P p) { p.setIntegerValue("s", "k", ~0u); }, "~s.k ", "[s]\nk = 4294967295\n"},
        {[](P p) { p.setBooleanValue("s", "n", 7); }, "~s.n ", start + "n = yes\n"},
        // The name goes with what it names.
        {[](P p) {
             p.deleteKey("s", static_cast<ZLCString*>(p.keyNames("s")->get(0))->getChars());
         },
         "-s.k ", "[s]\n"},
        {[](P p) { p.deleteKey("t", "k"); }, "-t.k ", start},
        {[](P p) { p.addStanza("s"); }, "+s ", start},
        {[](P p) { p.addStanza("t"); }, "+t ", start + "\n[t]\n"},
        {[](P p) { p.deleteStanza("s"); }, "-s ", ""},
        {[](P p) { p.renameStanza("s", "t"); }, "-s +t ", "[t]\nk = 1\nk = 2\n"},
        {[](P p) { p.renameStanza("t", "u"); }, nullptr, start},
        {[](P p) { p.renameKey("s", "k", "l"); }, "-s.k +s.l ", "[s]\nl = 1\nl = 2\n"},
        {[](P p) { p.renameKey("s", "l", "m"); }, nullptr, start},
        {[](P p) { p.disableKey("s", "k"); }, "-s.k ", "[s]\n# k = 1\n# k = 2\n"},
        {[](P p) { p.disableKey("s", "l"); }, nullptr, start},
        {[](P p) { p.uncommentKey("s", "l"); }, nullptr, start},
        {[](P p) { p.addFileComment("c"); }, "", "#c\n\n" + start},
        {[](P p) { p.addEntryComment("s", "k", "# c"); }, "", "[s]\n\n# c\nk = 1\nk = 2\n"},
        {[](P p) { p.addStanzaComment("s", "c"); }, "", "[s]\n#c\n\nk = 1\nk = 2\n"},
        {[](P p) { p.addValue("s", "k", "3", 0); }, "", start + "k = 3\n"},
        {[](P p) { p.addValue("s", "k", "1", 0); }, nullptr, start},
        {[](P p) { p.addValue("t", "k", "1", 0); }, "~t.k ", start + "\n[t]\nk = 1\n"},
    };
    for (size_t i = 0; i < sizeof kCases / sizeof *kCases; ++i) {
        SCOPED_TRACE(i);
        Loaded p(start);
        Listener listener;
        p.addObserver(&listener);
        kCases[i].change(p);
        // Null: nothing changed at all, and the object says so.
        EXPECT_EQ(listener.told, kCases[i].heard == nullptr ? "" : kCases[i].heard);
        EXPECT_EQ(p.isModified(), kCases[i].heard == nullptr ? 0 : 1);
        EXPECT_EQ(p.written(), kCases[i].written);
    }
}

// What was handed out, walks and the names of hidden values' keys go with another name.
TEST(Properties, OtherNamesReachAllThatKnowsThem) {
    Loaded p("[s]\na = 1\nc = 3\n# d = 4\n[t]\na = 5\n");
    p.setValue("s", "b", "hidden", 1);
    ZArrayList* keys = p.getKeys("s");
    ZStanzaIterator walk(p, "s"), ended(p, "t");
    for (int i = 0; i < 3; ++i)
        walk.nextEntry();
    ended.nextEntry();
    EXPECT_EQ(p.renameKey("s", "b", "e"), 1);
    EXPECT_EQ(keys->size(), 3u);
    EXPECT_EQ(static_cast<ZLCString*>(keys->get(2))->equals("e"), 1);
    walk.nextEntry();
    EXPECT_STREQ(walk.entryName(), "e");
    EXPECT_EQ(p.renameStanza("t", "u"), 1);
    EXPECT_EQ(ended.hasMore(), 0);
    EXPECT_EQ(p.renameStanza("s", "t"), 1);
    EXPECT_EQ(p.isObfuscated("t", "e"), 1);
    EXPECT_EQ(valueIn(p, "t", "e"), "hidden");
    EXPECT_EQ(valueIn(p, "u", "a"), "5");
    EXPECT_EQ(valueIn(p, "s", "a"), "<none>");
    EXPECT_EQ(p.uncommentKey("t", "d"), 1);
    EXPECT_EQ(valueIn(p, "t", "d"), "4");
    for (const auto refused : {+[](ZStanzaFileProperties& q) { q.renameStanza("t", "u"); },
                               +[](ZStanzaFileProperties& q) { q.renameKey("t", "a", "c"); },
                               +[](ZStanzaFileProperties& q) { q.renameKey("t", "a", ""); },
                               +[](ZStanzaFileProperties& q) { q.uncommentKey("t", "a"); },
                               +[](ZStanzaFileProperties& q) { q.disableKey("t", "e"); },
                               +[](ZStanzaFileProperties& q) { q.backUp(1); }})
        EXPECT_THROW(refused(p), ZInvalidParameterException);
    p.data().checkInvariants();
}

TEST(Properties, NoticesWaitForTheLastHoldOfTheLock) {
    Loaded p("[s]\nk = 1\n");
    Listener listener;
    p.addObserver(&listener);
    {
        ZStanzaIterator walk(p, "s");
        walk.nextEntry();
        p.setValue("s", "n", "1");
        p.setIntegerValue("s", "n", 1);
        Walk(p, "t", "k", kLocal, Values::ZPROP_ITER_AUTO).addValue("1");
        p.addStanza("u");
        p.deleteStanza("u");
        p.deleteKey("s", walk.entryName());
        EXPECT_EQ(listener.told, "");
    }
    EXPECT_EQ(listener.told, "~s.n ~s.n ~t.k +u -u -s.k ");
}

TEST(Properties, AnObserverThatRaisesStopsNobodyElsesNotice) {
    Loaded p("[s]\nk = 1\n");
    Listener listener;
    p.addObserver(&listener);
    const std::function<void()> raises = [&] {
        listener.then = raises;  // each time
        ZInvalidParameterException().throwException(__FILE__, __LINE__);
    };
    listener.then = raises;
    const auto change = [&] {
        ZStanzaIterator walk(p, "s");
        p.setValue("s", "a", "1");
        p.setValue("s", "b", "1");
    };
    RecordingService service;
    EXPECT_EQ(numberOf(change), 22);
    EXPECT_EQ(listener.told, "~s.a ~s.b ");
    EXPECT_EQ(service.reports(), std::vector<string>{"raised 22"});
    // On the way out of a failure it is reported: the failure goes on.
    for (bool byWalk : {true, false})
        EXPECT_THROW(
            {
                std::unique_ptr<ZStanzaIterator> walk(byWalk ? new ZStanzaIterator(p, "s")
                                                             : nullptr);
                Loaded::ZPropResourceLock guard(p.lock());
                p.setValue("s", "a", "2");
                throw 1;
            },
            int);
    EXPECT_EQ(service.reports().size(), 3u);
    EXPECT_FALSE(p.isLocked());
    // What an observer changes is told after what was changed before.
    listener.told.clear();
    listener.then = [&] { p.setValue("s", "c", "1"); };
    change();
    EXPECT_EQ(listener.told, "~s.a ~s.b ~s.c ");
#if CAN_UNWIND
    listener.told.clear();
    listener.then = [] { pthread_exit(nullptr); };
    std::thread(change).join();
    EXPECT_EQ(listener.told, "~s.a ~s.b ");
#endif
}

TEST(Properties, ACopyHasItsOwnContentAndNoObservers) {
    Loaded p("[s]\nk = 1\n");
    Notices notices;
    p.addObserver(&notices);
    Loaded copy(p);
    copy.setValue("s", "k", "2");
    EXPECT_EQ(p.value("s", "k") + copy.value("s", "k") + notices.told, "12");
}

// ---------------------------------------------------------------- walks

TEST(KeyWalk, HasAnEnd) {
    Loaded p("[s]\nk = 1\n");
    ZStanzaIterator walk(p, "s"), none(p, "missing");
    ZPropertiesIterator nothing(p);
    walk.nextEntry();
    EXPECT_EQ(none.keyCount(), 0u);
    for (ZPropertiesIterator* each : {static_cast<ZPropertiesIterator*>(&walk),
                                      static_cast<ZPropertiesIterator*>(&none), &nothing}) {
        EXPECT_EQ(each->hasMore(), 0);
        EXPECT_EQ(numberOf([&] { each->nextEntry(); }), 42);
    }
}

TEST(KeyWalk, AsksItsOwnGetValues) {
    struct Asked : ZPropertiesIterator {
        using ZPropertiesIterator::ZPropertiesIterator;
        ZArrayList* getValues(const char* name) override {
            asked += name;
            return ZPropertiesIterator::getValues(name);
        }
        string asked;
    };
    Loaded p("[s]\na = 1\nb = 2\nc = 3\n");
    p.setValue("s", "b", "");
    p.setValue("s", "b", "hidden", 1);
    Asked walk(p, "s");
    walk.nextEntry();
    walk.nextEntry();
    // What it came to is what it shows, though the key changes its kind meanwhile; who asks for
    // the values is told what they are now.
    p.setValue("s", "b", "");
    p.setValue("s", "b", "plain");
    EXPECT_EQ(walk.getValues(walk.entryName()), p.get("s", "b"));
    walk.asked.clear();
    EXPECT_EQ(walk.valueCount(), 0u);
    walk.nextEntry();
    EXPECT_STREQ(walk.entryValue(0), "3");
    EXPECT_EQ(walk.asked, "bc");
}

// n: goes on to the next, which must be there, +x: adds, ~x: changes, !: removes; and past the
// walk, =x: sets the key, -: deletes it.
void take(Walk& walk, Loaded& p, const char*& step) {
    const char* now = nullptr;
    const auto text = [&] { return string(1, *++step); };
    switch (*step) {
        case 'n':
            EXPECT_EQ(walk.hasMore(), 1);
            walk.nextValue(now);
            EXPECT_STREQ(now, walk.currentValue()->getChars());
            break;
        case '+':
            walk.addValue(text().c_str());
            break;
        case '~':
            walk.changeValue(text().c_str());
            break;
        case '!':
            walk.removeValue();
            EXPECT_EQ(walk.isValid(), 0);
            break;
        case '=':
            p.setValue("s", "k", text().c_str());
            break;
        default:
            p.deleteKey("s", "k");
    }
}

TEST(ValueWalk, ChangesInPlaceAndWhatItAcceptsIsThere) {
    const struct {
        const char *what, *before, *steps, *values, *now;
    } cases[] = {
        {"adds behind the second", "123", "nn+a~c", "12c3", "c"},
        {"adds in front of all", "123", "+a", "a123", "a"},
        {"removes all, one by one", "123", "n!n!n!", "", nullptr},
        {"fills an emptied one", "123", "n!n!n!+a", "a", "a"},
        {"changes at the end", "123", "nnn~c", "12c", "c"},
        {"makes a key", "", "+a+b+c", "abc", "c"},
        {"set during the walk", "", "+a+b+c=x+d+e", "xde", "e"},
        {"made during the walk", "", "=an+b", "ab", "b"},
        {"removed during the walk", "", "+a+b-+c+d", "cd", "d"},
    };
    for (const auto& c : cases)
        for (auto type : {Values::ZPROP_ITER_PLAIN, Values::ZPROP_ITER_AUTO}) {
            SCOPED_TRACE(c.what);
            Loaded p(stanzaOf(c.before));
            Walk walk(p, "s", "k", kLocal, type);
            EXPECT_EQ(numberOf([&] { walk.changeValue("x"); }), 42);
            EXPECT_EQ(numberOf([&] { walk.removeValue(); }), 42);
            EXPECT_EQ(walk.hasMore(), *c.before != '\0');
            if (*c.before == '\0') {
                EXPECT_EQ(numberOf([&] { walk.nextValue(); }), 42);
                walk.addValue("");  // nothing
            }
            for (const char* step = c.steps; *step != '\0'; ++step)
                take(walk, p, step);
            EXPECT_EQ(walk.valueCount(), strlen(c.values));
            EXPECT_EQ(walk.isValid(), c.now != nullptr);
            if (c.now != nullptr) {
                EXPECT_STREQ(walk.currentValue()->getChars(), c.now);
            }
            EXPECT_EQ(p.written(), *c.values == '\0' ? "[s]\nk =\n" : stanzaOf(c.values));
            EXPECT_EQ(p.isModified(), 1);
        }
}

// A model that isn't the library's own, for all that walks know.
class OtherModel : public ZSCFData {
public:
    ZPCache* clone() const override { return new OtherModel(*this); }
};

TEST(Walks, GoOnBehindWhateverIsRemoved) {
    typedef ZSCFData& C;
    const struct {
        const char* what;
        void (*change)(C);  // while the walk over keys is on b
        const char* rest;   // of that walk, "-" where it stands on none
        const char* other;  // the same in another model, which can't tell a key from one made anew
    } cases[] = {
        {"its key", [](C c) { c.delLine("s", "b"); }, "-cd", "-cd"},
        {"it and the next", [](C c) { c.delLine("s", "b"), c.delLine("s", "c"); }, "-d", "-d"},
        {"it and both beside",
         [](C c) { c.delLine("s", "a"), c.delLine("s", "b"), c.delLine("s", "c"); }, "-d", "-"},
        {"all but it", [](C c) { c.delLine("s", "c"), c.delLine("s", "d"), c.delLine("s", "a"); },
         "b", "b"},
        {"one in front", [](C c) { c.delLine("s", "a"); }, "bcd", "bcd"},
        {"it, made anew", [](C c) { c.delLine("s", "b"), c.addLine("s", "b", "5", 0); }, "-cdb",
         "b"},
        {"its stanza", [](C c) { c.delStanzaLine("s"); }, "-", "-"},
        {"all", [](C c) { c.clear(); }, "-", "-"},
    };
    for (const auto& c : cases)
        for (const bool isOther : {false, true}) {
            SCOPED_TRACE(c.what);
            ZSCFData own;
            OtherModel other;
            ZSCFData& cache = isOther ? other : own;
            ASSERT_EQ(readText(cache, "[s]\na = 1\nb = 2\nb = 3\nc = 3\nd = 4\n"), 0);
            ZProperties p(&cache);
            ZPropertiesIterator walk(p, "s");
            Values value(p, "s", "b", kLocal, Values::ZPROP_ITER_AUTO);
            walk.nextEntry();
            walk.nextEntry();
            EXPECT_EQ(walk.valueCount(), 2u);
            value.nextValue();
            const string key = walk.entryName();
            c.change(cache);
            cache.checkInvariants();
            const bool isThere = cache.contains("s", "b") != 0;
            EXPECT_EQ(walk.keyCount(), static_cast<unsigned int>(cache.keyCount("s")));
            string rest;
            const auto look = [&] {
                const int number = numberOf([&] { rest += walk.entryName(); });
                EXPECT_EQ(numberOf([&] { walk.entryValue(0); }), number);
                EXPECT_EQ(numberOf([&] { walk.valueCount(); }), number);
                if (number != 0) {
                    EXPECT_EQ(number, 42);
                    rest += "-";
                }
            };
            for (look(); walk.hasMore(); look())
                walk.nextEntry();
            EXPECT_EQ(rest, isOther ? c.other : c.rest);
            EXPECT_EQ(value.valueCount(), static_cast<unsigned int>(cache.countValues("s", "b")));
            EXPECT_EQ(value.isValid(), (isOther ? c.other : c.rest)[0] == 'b');
            if (!isThere) {
                EXPECT_EQ(value.hasMore(), 0);
                EXPECT_EQ(numberOf([&] { value.removeValue(); }), 42);
            }
            value.addValue("anew");
            EXPECT_STREQ(value.currentValue()->getChars(), "anew");
        }
}

TEST(ValueWalk, HiddenValues) {
    Loaded p("[s]\n");
    p.setValue("s", "h", "1", 1);
    p.addValue("s", "h", "2", 1);
    {
        Walk walk(p, "s", "h", kLocal, Values::ZPROP_ITER_OBFUSCATED);
        walk.nextValue();
        walk.removeValue();  // the first of a walk over hidden values takes all with it
        EXPECT_EQ(walk.valueCount(), 0u);
        EXPECT_EQ(p.data().obfuscatedCount(), 0u);
        EXPECT_EQ(p.exists("s", "h"), 1);
        walk.addValue("3");
    }
    EXPECT_EQ(p.isObfuscated("s", "h"), 1);
    {
        // A walk over whichever values empties in place, and puts hidden ones back as hidden.
        Walk walk(p, "s", "h", kLocal, Values::ZPROP_ITER_AUTO);
        walk.nextValue();
        walk.removeValue();
        EXPECT_EQ(p.data().obfuscatedCount(), 1u);
        walk.addValue("secret");
    }
    EXPECT_EQ(p.isObfuscated("s.h"), 1);
    EXPECT_EQ(sideRecords(p.data()), string("s\0h\0secret\0", 11));
    EXPECT_EQ(p.written(), "[s]\n");
}

// ---------------------------------------------------------------- stanzas as a whole

TEST(StanzaProperties, AddValuesMatchesInOnePass) {
    // What stands before the last match isn't seen.
    const char* const kCases[][2] = {{"bx", "abcx"}, {"ca", "abca"}, {"abc", "abc"}};
    for (const auto& [added, values] : kCases) {
        Loaded p(stanzaOf("abc"));
        ZArrayList list(1, 1);
        for (const char* v = added; *v != '\0'; ++v)
            list.addNoCopy(new ZUTF8String(string(1, *v).c_str()));
        p.addValues("s", "k", list, 0);
        EXPECT_EQ(p.written(), stanzaOf(values));
    }
}

TEST(StanzaProperties, AStanzaAsPairs) {
    Loaded p("[s]\nk = a\nk = b\nm = c\n[t]\nempty =\n");
    ZPropertiesKVList list(ZPROP_STRING_UTF8);
    p.getStanza("s", list);
    const ZPropertiesKVList copy(list);
    list.clear();
    ASSERT_EQ(copy.getItemCount(), 2u);
    EXPECT_STREQ(copy.getItemKey(0), "k");
    EXPECT_STREQ(copy.getItemValue(0), "a");
    EXPECT_STREQ(copy.getItemKey(1), "m");
    EXPECT_EQ(copy.getItemKey(2), nullptr);
    EXPECT_EQ(copy.getItemValue(2), nullptr);
    p.getStanza("missing", list);
    EXPECT_EQ(list.getItemCount(), 0u);
    EXPECT_EQ(numberOf([&] { p.getStanza("t", list); }), 22);
}

TEST(StanzaProperties, ManyRequestsInOneCall) {
    Loaded p("[s]\nb = yes\ni = 0x1F\nt = text\n");
    int truth = -1;
    unsigned int number = 0, second = 77;
    ZLCString given;
    ZArrayList local(1, 1), utf8(1, 1);
    ZPropertiesKVList pairs(kLocal);
    ZStzFileItem items[] = {
        {ZSTZ_ITEM_BOOLEAN, "s", "b", 1, &truth, {nullptr}},
        {ZSTZ_ITEM_INTEGER, "s", "i", 0, &number, {nullptr}},
        {ZSTZ_ITEM_STRING, "s", "missing", 0, &given, {"given"}},
        {ZSTZ_ITEM_VALUES, "s", "t", 0, &local, {nullptr}},
        {ZSTZ_ITEM_UTF8_VALUES, "s", "t", 0, &utf8, {nullptr}},
        {ZSTZ_ITEM_STANZA, "s", nullptr, 0, &pairs, {nullptr}},
        {7, "s", "i", 0, &second, {nullptr}},
        {ZSTZ_ITEM_INTEGER, "s", "i", 0, &second, {nullptr}},
    };
    EXPECT_EQ(numberOf([&] { p.getItems(items, 8); }), 22);
    EXPECT_EQ(truth, 1);
    EXPECT_EQ(number, 31u);
    EXPECT_EQ(given, "given");
    EXPECT_NE(dynamic_cast<ZLCString*>(local.get(0)), nullptr);
    EXPECT_NE(dynamic_cast<ZUTF8String*>(utf8.get(0)), nullptr);
    EXPECT_EQ(pairs.getItemCount(), 3u);
    EXPECT_EQ(second, 77u);
    items[0].key = "absent";
    EXPECT_EQ(numberOf([&] { p.getItems(items, 1); }), 28);
}

// No reader may ever see a number that goes back, nor a key without its value.
TEST(Properties, ThreadsSeeWholeChanges) {
    Loaded p("[s]\na = 0\n");
    std::atomic<bool> stop{false};
    const auto read = [&] {
        for (unsigned int last = 0, now; !stop; last = now) {
            now = p.getIntegerValue("s", "a", 1, 0);
            EXPECT_GE(now, last);
            ZStanzaIterator walk(p, "s");
            while (walk.hasMore()) {
                walk.nextEntry();
                EXPECT_EQ(walk.valueCount(), 1u);
            }
        }
    };
    std::thread first(read), second(read);
    for (unsigned int i = 1; i <= 2000; ++i) {
        p.setIntegerValue("s", "a", i);
        const string key = "k" + std::to_string(i % 50);
        if (i % 100 < 50)
            p.setValue("s", key.c_str(), "x");
        else
            p.deleteKey("s", key.c_str());
    }
    stop = true;
    first.join(), second.join();
}

// Look-ups without the lock may make lists side by side; whoever comes second gets the first one's.
TEST(Properties, ListsAreMadeOnceHoweverManyAsk) {
    for (int round = 0; round < 50; ++round) {
        Loaded p("[s]\nk = 1\nm = 2\n");
        typedef std::pair<const ZArrayList*, const ZArrayList*> Lists;
        const auto ask = [&] {
            const Lists lists(p.get("s", "k"), p.keyNames("s"));
            p.getIntegerValue("s", "k", 1, 0);
            return lists;
        };
        Lists others;
        std::thread other([&] { others = ask(); });
        const Lists own = ask();
        other.join();
        EXPECT_EQ(own, others);
    }
}

}  // namespace
