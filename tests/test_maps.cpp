// Maps and key maps: the promised order, independently computed, and the index behind it.
#include "support/Prelude.h"

#include <deque>
#include <functional>
#include <thread>

#include "Z/ZKeyMap.h"
#include "Z/ZString.h"
#include "support/FailingAllocator.h"
#include "support/Item.h"

namespace {

const unsigned int kSeed = 20240612;

/// Ways to hash a value, from harmless to hostile.
struct Hashing {
    const char* what;
    unsigned int (*hash)(unsigned int value);
};

const Hashing kHashings[] = {
    {"spread", [](unsigned int v) { return v * 2654435761u; }},
    {"the value itself", [](unsigned int v) { return v; }},
    {"high bits only", [](unsigned int v) { return v << 22; }},
    {"multiples of the bucket count", [](unsigned int v) { return v * 15; }},
    {"all the same", [](unsigned int) { return 42u; }},
    {"three hashes", [](unsigned int v) { return v % 3; }},
};

typedef std::vector<std::pair<int, int>> Entries;  // value and tag

/// What a map of a fixed number of buckets promises, kept the simple way.
class Model {
public:
    explicit Model(unsigned int buckets) : buckets_(buckets) {}

    /// The tag of a key's entry, to be changed; -1 if there was none.
    int& at(const Item& key) {
        Entries& bucket = bucketOf(key);
        const auto entry = find(key);
        return (entry != bucket.end() ? *entry : bucket.emplace_back(key.value, -1)).second;
    }
    void remove(const Item& key) {
        const auto entry = find(key);
        if (entry != bucketOf(key).end())
            bucketOf(key).erase(entry);
    }
    /// -1 if it isn't there.
    int tagOf(const Item& key) {
        const auto entry = find(key);
        return entry != bucketOf(key).end() ? entry->second : -1;
    }
    void clear() { buckets_.assign(buckets_.size(), Entries()); }
    Entries entries() const {
        Entries all;
        for (const Entries& bucket : buckets_)
            all.insert(all.end(), bucket.begin(), bucket.end());
        return all;
    }

private:
    Entries& bucketOf(const Item& key) { return buckets_[key.hashValue % buckets_.size()]; }
    Entries::iterator find(const Item& key) {
        return std::find_if(bucketOf(key).begin(), bucketOf(key).end(),
                            [&](const auto& entry) { return entry.first == key.value; });
    }

    std::vector<Entries> buckets_;
};

int tagOf(const ZObject* item) {
    return item != nullptr ? static_cast<const Item*>(item)->tag : -1;
}

Entries entriesOf(const ZMap& map) {
    ZArrayList list(1, 0);
    map.list(list);
    Entries entries;
    for (ZListIterator iterator(list); const auto* item = static_cast<Item*>(iterator.getNext());)
        entries.push_back({item->value, item->tag});
    return entries;
}

/// The value of each key and the tag of what belongs to it.
Entries entriesOf(const ZKeyMap& map) {
    ZArrayList keys(1, 0), objects(1, 0);
    map.listKeys(keys);
    map.listObjects(objects);
    Entries entries;
    for (unsigned int i = 0; i < objects.size(); ++i)
        entries.push_back({static_cast<Item*>(keys.get(i))->value, tagOf(objects.get(i))});
    return entries;
}

void putInto(ZMap& map, std::initializer_list<Item*> items) {
    for (Item* item : items)
        map.putEntry(item);
}

}  // namespace

TEST(HashMap, HasTheBucketsThatItsSizeAsksFor) {
    const std::pair<unsigned int, unsigned int> cases[] = {{0, 3}, {1, 3},   {2, 3},
                                                           {3, 4}, {10, 15}, {100, 150}};
    for (const auto& [size, buckets] : cases) {
        // Two entries come out against the order of their hashes exactly if the second one's wraps
        // around into an earlier bucket.
        ZHashMap map(size, 0);
        Item last(1, buckets - 1), wraps(2, buckets), first(3, 0);
        putInto(map, {&last, &wraps, &first});
        EXPECT_EQ(entriesOf(map), (Entries{{2, 0}, {3, 0}, {1, 0}})) << size;
    }
}

// In the key map, a key's object is another item with the key's tag: both maps have one model.
TEST(HashMap, BehavesLikeItsModelAndSoDoesTheKeyMap) {
    for (const Hashing& hashing : kHashings) {
        for (int owns = 0; owns <= 1; ++owns) {
            for (unsigned int range : {12u, 60u, 700u}) {
                SCOPED_TRACE(testing::Message() << hashing.what << ", owns " << owns << ", range "
                                                << range << ", seed " << kSeed);
                NothingLeft check;
                std::mt19937 random(kSeed);
                std::deque<Item> pool;
                for (unsigned int i = 0; i < 2 * range; ++i)
                    pool.emplace_back(i % range, hashing.hash(i % range), i / range);
                ZHashMap map(10, owns);
                ZHashKeyMap keyMap(10, owns);
                Model model(15);
                for (int step = 0; step < 3000; ++step) {
                    const size_t index = random() % pool.size();
                    Item *item = &pool[index], *key = item, *object = &pool[index ^ 1];
                    ZObject* const held = map.getEntry(item);
                    if (held != nullptr && random() % 4 == 0) {  // parts of the maps themselves
                        item = static_cast<Item*>(held);
                        object = static_cast<Item*>(keyMap.getEntry(key));
                        ZArrayList keys(1, 0);
                        keyMap.listKeys(keys);
                        key = static_cast<Item*>(keys.get(keys.indexOf(key)));
                    }
                    const unsigned int kind = random() % 100;
                    if (kind < 55 + 20 * (step / 500 % 2 == 0)) {
                        model.at(*item) = item->tag;
                        map.putEntry(item);
                        keyMap.putEntry(key, object);
                    } else if (kind < 98) {
                        model.remove(*item);
                        map.removeEntry(item);
                        keyMap.removeEntry(key);
                    } else if (random() % 40 == 0) {
                        map.removeAll();
                        keyMap.removeAll();
                        model.clear();
                    } else if (random() % 8 == 0) {
                        ZHashMap copy(map), other(2, owns);
                        other = copy;
                        map = other;
                        map = *&map;
                        map.putAll(map), keyMap.putAll(keyMap);
                    }
                    if (step % 64 == 0 || step < 60) {
                        const Entries expected = model.entries();
                        ASSERT_EQ(map.size(), expected.size()) << "step " << step;
                        ASSERT_EQ(entriesOf(map), expected) << "step " << step;
                        ASSERT_EQ(entriesOf(keyMap), expected) << "step " << step;
                        const std::unique_ptr<ZObject> copy(keyMap.clone());
                        ASSERT_EQ(entriesOf(*static_cast<ZHashKeyMap*>(copy.get())), expected);
                        for (unsigned int i = 0; i < range; ++i) {
                            const Item* object = static_cast<Item*>(keyMap.getEntry(&pool[i]));
                            ASSERT_EQ(tagOf(map.getEntry(&pool[i])), model.tagOf(pool[i]));
                            ASSERT_EQ(tagOf(object), model.tagOf(pool[i]));
                            ASSERT_TRUE(object == nullptr || object->value == int(i ^ 1));
                        }
                    }
                }
            }
        }
    }
}

// A map of 15 buckets with many entries must neither ask members for their hash again nor walk.
TEST(HashMap, FindsInOneProbeWhateverTheHashesShare) {
    const unsigned int count = 20000;
    for (const Hashing& hashing : kHashings) {
        if (hashing.hash(1) == hashing.hash(4) || hashing.hash(1 << 10) == hashing.hash(0))
            continue;  // the very same hash can only be told apart by asking the members
        SCOPED_TRACE(hashing.what);
        ZHashMap map(10, 1);
        for (unsigned int i = 0; i < count; ++i) {
            Item item(i, hashing.hash(i));
            map.putEntry(&item);
        }
        std::unique_ptr<ZHashMap> copy(static_cast<ZHashMap*>(map.clone()));
        Item::hashCalls = Item::equalsCalls = 0;
        for (unsigned int i = 0; i < count; ++i) {
            const Item probe(i, hashing.hash(i));
            ASSERT_NE(copy->getEntry(&probe), nullptr);
        }
        EXPECT_EQ(Item::hashCalls, count);
        EXPECT_EQ(Item::equalsCalls, count);
    }
}

TEST(HashMap, AssignmentTakesBucketsAndOwnershipAndNullIsAbsent) {
    NothingLeft check;
    Item a(1, 4), b(2, 3);
    ZHashMap source(2, 0), target(10, 1);
    putInto(source, {&a, &b});
    putInto(target, {&a, nullptr});
    target.removeEntry(nullptr);
    EXPECT_EQ(target.contains(nullptr), 0);
    EXPECT_EQ(target.size(), 1u);
    target = source;
    EXPECT_EQ(target.getEntry(&a), &a);
    EXPECT_EQ(entriesOf(target), (Entries{{2, 0}, {1, 0}}));
    target.removeAll();  // must not delete what it only shares
}

TEST(HashMap, DeletesInItsOrder) {
    std::vector<int> deleted;
    {
        ZHashMap map(2, 1);
        for (int i = 0; i < 7; ++i)
            map.putEntry(std::make_unique<Item>(i, 10 - i).get());
        Item::deleted = &deleted;
    }
    Item::deleted = nullptr;
    EXPECT_EQ(deleted, std::vector<int>({1, 4, 0, 3, 6, 2, 5}));
}

TEST(ArrayMap, ReplacesInPlaceButAppendsAll) {
    NothingLeft check;
    Item a(1, 0, 0), b(2, 0, 0), newer(1, 0, 9);
    ZArrayMap map(1, 1), other(1, 0);
    putInto(map, {&a, &b, &newer});
    map.putEntry(map.getEntry(&b));
    EXPECT_EQ(entriesOf(map), (Entries{{1, 9}, {2, 0}}));
    EXPECT_EQ(map.getIndex(&b), 1);
    other.putEntry(&a);
    map.putAll(other);
    EXPECT_EQ(entriesOf(map), (Entries{{1, 9}, {2, 0}, {1, 0}}));
    for (int time = 0; time < 3; ++time)
        map.removeEntry(&a);
    EXPECT_EQ(entriesOf(map), (Entries{{2, 0}}));
    map.putAll(map);
    EXPECT_EQ(map.size(), 2u);

    ZHashMap replacing(2, 0);
    replacing.putAll(map);
    EXPECT_EQ(replacing.size(), 1u);
}

TEST(MapIterators, OneIsASnapshotTheOtherIsLive) {
    Item a(1, 1), b(2, 2), c(3, 0);
    ZHashMap map(2, 0);
    putInto(map, {&a, &b});
    ZMapIterator iterator(map);
    map.putEntry(&c);
    EXPECT_EQ(iterator.getNext(), &a);
    std::unique_ptr<ZMapIterator> copy(static_cast<ZMapIterator*>(iterator.clone()));
    ZMapIterator assigned(map);
    assigned = iterator;
    for (ZMapIterator* each : {copy.get(), &assigned, &iterator}) {
        EXPECT_EQ(each->getNext(), &b);
        EXPECT_EQ(each->getNext(), nullptr);
    }
    copy->reset();
    EXPECT_EQ(copy->findNext(b), &b);
    EXPECT_EQ(iterator.hasMore(), 0);

    ZArrayMap list(1, 0);
    ZArrayMapIterator live(list);
    list.putEntry(&a);
    EXPECT_EQ(live.getNext(), &a);
}

// Key maps

TEST(KeyMap, NullValuesAreValuesAndEqualKeysAreReplacedUnlessTheirHashesDiffer) {
    NothingLeft check;
    ZHashKeyMap map(2, 1);
    Item key(1, 3, 1), newer(1, 3, 2), other(1, 6, 3), value(7);  // one bucket
    const ZObject withoutCopies;
    for (const ZObject* none : {static_cast<const ZObject*>(nullptr), &withoutCopies})
        map.putEntry(none, &value);
    map.removeEntry(nullptr);
    map.putEntry(&key, nullptr);
    EXPECT_EQ(map.contains(&other), 0);
    map.putEntry(&other, nullptr);
    map.putEntry(&newer, &value);
    ZArrayList keys(1, 0);
    map.listKeys(keys);
    ASSERT_EQ(keys.size(), 2u);
    EXPECT_EQ(static_cast<Item*>(keys.get(0))->tag, 2) << "the new key object";
    EXPECT_EQ(static_cast<Item*>(keys.get(1))->tag, 3);
    EXPECT_EQ(map.getEntry(&other), nullptr);
    EXPECT_EQ(map.contains(&other), 1);
}

TEST(KeyMap, TakesTheEntriesOfAMapThatItHolds) {
    NothingLeft check;
    Item key(1, 1), value(7, 0, 2), second(3, 4);
    ZHashKeyMap inner(2, 1), map(2, 1);
    inner.putEntry(&key, &value), inner.putEntry(&second, &value);
    map.putEntry(&key, &inner);
    map.putAll(static_cast<ZHashKeyMap&>(*map.getEntry(&key)));
    EXPECT_EQ(entriesOf(map), (Entries{{1, 2}, {3, 2}}));
}

// Texts as keys

/// A string of a class that the library doesn't know, with nothing of its own.
class Derived : public ZLCString {
public:
    using ZLCString::ZLCString;
};

/// Equal to what differs from it in case alone, which has the same hash only if it is lower case.
class Caseless : public ZLCString {
public:
    using ZLCString::ZLCString;
    unsigned int hash() const override { return lowered(*this).hash(); }
    int equals(const ZObject& other) const override {
        return lowered(*this) == lowered(static_cast<const ZAbstractString&>(other));
    }

private:
    static ZLCString lowered(const ZAbstractString& string) {
        ZLCString text(string.getChars(), string.getLength());
        text.lower();
        return text;
    }
};

/// One text as a key of each kind: two that own it, two that point at it, and two strangers.
struct TextKeys {
    explicit TextKeys(const std::string& text)
        : local(text.data(), static_cast<unsigned int>(text.size())),
          utf8(local.getChars(), local.getLength()),
          derived(local.getChars(), local.getLength()),
          caseless(local.getChars(), local.getLength()),
          all{&local, &utf8, &constant, &utf8Constant, &derived, &caseless} {}
    ZLCString local;
    ZUTF8String utf8;
    ZLCConstString constant{local};
    ZUTF8ConstString utf8Constant{utf8};
    Derived derived;
    Caseless caseless;
    const ZObject* all[6];
};

std::deque<TextKeys> textKeys() {
    static const char* const kNames[] = {"Name", "name", "NAME"};
    std::deque<TextKeys> keys;
    for (unsigned int i = 0; i < 150; ++i) {
        keys.emplace_back("key" + std::to_string(i / 3) + std::string(i % 40, '.') + kNames[i % 3]);
        keys.emplace_back("cut" + std::string(i % 5 + 1, '\0') + std::to_string(i));
    }
    return keys;
}

// Beside a map that has held a stranger and so goes by hash() alone.
TEST(KeyMap, FindsTextsAndStrangersByHashAndEqualsWhateverCameFirst) {
    const std::deque<TextKeys> keys = textKeys();
    // How many kinds are put, and are looked for and removed by.
    const struct { unsigned int put, sought; } kPhases[] = {{2, 2}, {2, 4}, {2, 6}, {4, 4}, {6, 6}};
    std::mt19937 random(kSeed);
    for (int round = 0; round < 180; ++round) {
        const auto& phase = kPhases[round % std::size(kPhases)];
        std::unique_ptr<ZHashKeyMap> map(new ZHashKeyMap(10, 0));
        ZHashKeyMap expected(10, 0);
        expected.putEntry(&keys[0].derived, nullptr);
        expected.removeEntry(&keys[0].derived);
        for (int i = 0; i < 500; ++i) {
            const bool isBegin = i < 150;
            const ZObject* const key =
                keys[random() % keys.size()].all[random() % (isBegin ? 2 : phase.put)];
            const ZObject* const probe =
                keys[random() % keys.size()].all[random() % (isBegin ? 2 : phase.sought)];
            ASSERT_EQ(map->getEntry(probe), expected.getEntry(probe)) << round << ", step " << i;
            for (ZHashKeyMap* each : {map.get(), &expected})
                isBegin || i % 3 != 0 ? each->putEntry(key, key) : each->removeEntry(probe);
            if (i == 250 && round % 2 != 0)
                map.reset(new ZHashKeyMap(*map));
        }
        ZArrayList listed(1, 0), expectedList(1, 0);
        map->listKeys(listed);
        expected.listKeys(expectedList);
        ASSERT_EQ(listed.size(), expectedList.size());
        for (unsigned int i = 0; i < listed.size(); ++i)
            EXPECT_EQ(listed.get(i), expectedList.get(i));
    }
}

TEST(KeyMap, StrangersAreFoundByManyThreadsAndWithoutMemory) {
    const std::deque<TextKeys> keys = textKeys();
    ZHashKeyMap map(10, 0);
    for (const TextKeys& key : keys)
        map.putEntry(&key.local, &key.local);
    const ZHashKeyMap lean(map);
    const auto findsAll = [&keys](const ZHashKeyMap& in) {
        return std::all_of(keys.begin(), keys.end(), [&in](const TextKeys& key) {
            return in.getEntry(&key.derived) == &key.local;
        });
    };
    std::atomic<int> found(0);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] { found += findsAll(map); });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(found, 4);
    const bool withoutMemory = [&] {
        FailAllocations failure(1, FailAllocations::onward);
        return findsAll(lean);
    }();
    EXPECT_TRUE(withoutMemory);
}

/// Looks a stranger up in a map whenever it is copied, and may empty it.
class Curious : public ZObject {
public:
    Curious(ZHashKeyMap& map, const ZObject& stranger, bool empties)
        : map_(map), stranger_(stranger), empties_(empties) {}
    ZObject* clone() const override {
        map_.getEntry(&stranger_);
        if (empties_)
            map_.removeAll();
        return new Item(0);
    }

private:
    ZHashKeyMap& map_;
    const ZObject& stranger_;
    bool empties_;
};

TEST(KeyMap, CopiesThatAreMadeForItMayLookIntoItAndChangeIt) {
    const std::deque<TextKeys> keys = textKeys();
    for (const bool empties : {false, true}) {
        ZHashKeyMap map(10, 1);
        Item plain(0);
        for (size_t i = 0; i < 100; ++i)
            map.putEntry(&keys[i].local, &plain);
        const Curious curious(map, keys[50].derived, empties);
        map.putEntry(&keys[7].local, &curious);   // which is there
        map.putEntry(&keys[200].utf8, &curious);  // which isn't
        map.putEntry(&keys[201].derived, &curious);
        for (size_t i = 0; i < 100; ++i)
            map.putEntry(&keys[i].local, &plain);
        EXPECT_EQ(map.size(), empties ? 101u : 102u);
        for (size_t i = 0; i < 100; ++i)
            EXPECT_TRUE(map.contains(&keys[i].local) && map.contains(&keys[i].derived));
        EXPECT_EQ(map.contains(&keys[200].local), !empties);
        EXPECT_TRUE(map.contains(&keys[201].local));
        map.removeAll();
        EXPECT_FALSE(map.contains(&keys[7].derived));
    }
}

/// A string that does something when a map asks it.
class Calling : public ZLCString {
public:
    explicit Calling(const char* text) : ZLCString(text) {}
    ZObject* clone() const override { return new Derived(getChars()); }
    unsigned int hash() const override { return onHash(), ZLCString::hash(); }
    int equals(const ZObject& other) const override {
        const int result = ZLCString::equals(other);
        return onEquals(), result;
    }
    std::function<void()> onHash = [] {}, onEquals = [] {};
};

TEST(HashMap, MayBeChangedByTheHashAndTheComparisonThatItAsksFor) {
    ZHashMap map(10, 1);
    const auto fill = [&map] {
        for (int i = 0; i < 200; ++i) {
            ZLCString text(i);
            map.putEntry(&text);
        }
    };
    Calling probe("150");
    probe.onHash = fill;
    EXPECT_NE(map.getEntry(&probe), nullptr);
    EXPECT_EQ(map.size(), 200u);
    for (const bool refills : {false, true}) {
        Calling added("150");
        added.onEquals = [&] {
            map.removeAll();
            if (refills)
                fill(), map.getEntry(&probe);
        };
        map.putEntry(&added);
        fill();
        ZLCString text("150");
        EXPECT_TRUE(map.contains(&text));
        EXPECT_EQ(map.size(), 200u);
    }
}

// Whoever walks through a map that a comparison empties comes to nothing, whatever it may hold.
TEST(HashMap, MayBeEmptiedByAComparison) {
    std::deque<ZLCString> texts;
    for (int i = 0; i < 10; ++i)
        texts.emplace_back(i);
    enum Call { look, remove, put };
    for (const Call call : {look, remove, put}) {
        for (int i = 0; i < 22; ++i) {
            const int owns = i / 11;
            ZHashMap map(2, owns);
            for (ZLCString& text : texts)
                map.putEntry(&text);
            Calling probe(std::to_string(i % 11).c_str());  // which isn't there when it is 10
            int asked = 0;
            probe.onEquals = [&] { ++asked, map.removeAll(); };
            if (call == look)
                EXPECT_FALSE(map.contains(&probe));
            else if (call == remove)
                map.removeEntry(&probe);
            else
                map.putEntry(&probe);
            EXPECT_EQ(asked, 1);
            EXPECT_EQ(map.size(), call == put);
            ZLCString text(i % 11);
            EXPECT_EQ(map.contains(&text), call == put);
        }
    }
}

/// Equal to whatever has its hash.
class Any : public Item {
public:
    explicit Any(unsigned int hash) : Item(0, hash) {}
    int equals(const ZObject& other) const override {
        return hashValue == static_cast<const Item&>(other).hashValue;
    }
};

// However often the records were used and the index has grown.
TEST(HashMap, TheFirstOfThoseThatAProbeEqualsIsFound) {
    for (const bool again : {false, true}) {
        for (unsigned int i = 0; i < 20; ++i) {
            const unsigned int hash = i == 0 ? 20672 : i;  // that one's place is an index's last
            Any probe(hash);
            ZHashMap map(2, 0);
            std::deque<Item> items;
            const auto put = [&](unsigned int itsHash) {
                items.emplace_back(static_cast<int>(items.size()), itsHash);
                map.putEntry(&items.back());
                return &items.back();
            };
            Item* const removed = put(hash);
            const Item* const first = put(hash);
            if (again)
                map.removeEntry(removed);
            put(hash);
            while (map.size() < 3000) {
                put(1000 + map.size() * 7919);
                ASSERT_EQ(map.getEntry(&probe), again ? first : removed) << map.size();
            }
        }
    }
}

// Memory

TEST(MapMemory, MapsGiveEverythingBack) {
    const auto attempt = [] {
        ZHashMap map(2, 1);
        ZHashKeyMap keyMap(2, 1);
        for (int i = 0; i < 36; ++i) {
            Item item(i, i);
            map.putEntry(&item);
            keyMap.putEntry(&item, &item);
        }
        Item again(5, 5);
        map.putEntry(&again);
        keyMap.putEntry(&again, &again);
        ZHashMap other(map);
        other = map;
        ZHashKeyMap copy(keyMap);
        copy.putAll(keyMap);
        ZMapIterator iterator(map);
        delete iterator.clone();
    };
    NothingLeft check;
    EXPECT_GT(failEachAllocation(attempt), 100u);
}

// An insertion that fails on the way, at each growth of records and index, must leave a map that
// still finds everything.
TEST(MapMemory, AFailedPutChangesNothing) {
    NothingLeft check;
    ZHashMap map(2, 1), other(10, 1);
    for (int i = 0; i < 200; ++i) {
        Item item(i, i * 15);
        for (unsigned long nth = 1; endsWithoutMemory([&] { map.putEntry(&item); }, nth); ++nth) {
            ASSERT_EQ(map.size(), unsigned(i));
            ASSERT_EQ(map.contains(&item), 0);
        }
        for (int j = 0; j <= i; ++j) {
            const Item probe(j, j * 15);
            ASSERT_EQ(map.contains(&probe), 1) << i << " " << j;
        }
    }
    EXPECT_TRUE(endsWithoutMemory([&] { other = map; }, 150));
    EXPECT_EQ(other.isEmpty(), 1);
}
