// The property cache against a plain model of it: a vector of lines beside a map of lists. Random
// operations run on both, and after each of them all that a caller can see has to agree.
#include "support/Prelude.h"

#include "Z/ZExceptionText.h"
#include "Z/ZSCFData.h"
#include "Z/zmodelreading.h"
#include "Z/zpnameindex.h"
#include "support/CacheText.h"
#include "support/FailingAllocator.h"

using std::string;
using std::vector;

namespace {

// ---------------------------------------------------------------- the model

struct ModelLine {
    enum Type { comment, blank, stanza, key } type;
    string text;
};

struct ModelKey {
    vector<string> plain, hidden;
};

struct ModelStanza {
    vector<string> order;
    std::map<string, ModelKey> keys;
};

// Straightforward and slow: every operation walks the lines.
class Model {
public:
    vector<ModelLine> lines;
    std::map<string, ModelStanza> stanzas;
    vector<std::pair<string, string>> items;

    bool contains(const string& s) const { return stanzas.count(s) != 0; }
    bool contains(const string& s, const string& k) const {
        return contains(s) && stanzas.at(s).keys.count(k) != 0;
    }

    ModelKey& make(const string& s, const string& k) {
        ModelStanza& stanza = stanzas[s];
        if (stanza.keys.count(k) == 0)
            stanza.order.push_back(k);
        return stanza.keys[k];
    }

    void dropItem(const string& s, const string& k) {
        items.erase(std::remove(items.begin(), items.end(), std::make_pair(s, k)), items.end());
    }

    void add(const string& s, const string& k, const string& v, bool hidden) {
        ModelKey& key = make(s, k);
        if (v.empty())
            return;
        if (hidden && key.hidden.empty()) {
            dropItem(s, k);
            items.emplace_back(s, k);
        }
        (hidden ? key.hidden : key.plain).push_back(v);
    }

    void set(const string& s, const string& k, const string& v, bool hidden) {
        ModelKey& key = make(s, k);
        key.plain.clear();
        key.hidden.clear();
        dropItem(s, k);
        if (v.empty())
            return;
        (hidden ? key.hidden : key.plain).push_back(v);
        if (hidden)
            items.emplace_back(s, k);
    }

    void remove(const string& s, const string& k) {
        dropItem(s, k);
        if (!contains(s, k))
            return;
        ModelStanza& stanza = stanzas[s];
        stanza.keys.erase(k);
        stanza.order.erase(std::find(stanza.order.begin(), stanza.order.end(), k));
    }

    void remove(const string& s) {
        stanzas.erase(s);
        const auto isOfStanza = [&](const auto& item) { return item.first == s; };
        items.erase(std::remove_if(items.begin(), items.end(), isOfStanza), items.end());
    }

    // The index behind the stanza's header, or npos.
    size_t behindHeader(const string& s) const {
        for (size_t i = 0; i < lines.size(); ++i)
            if (lines[i].type == ModelLine::stanza && lines[i].text == s)
                return i + 1;
        return string::npos;
    }

    void appendHeader(const string& s) {
        lines.push_back({ModelLine::blank, ""});
        lines.push_back({ModelLine::stanza, s});
    }

    void addStanzaLine(const string& s) {
        if (contains(s))
            return;
        stanzas[s];
        appendHeader(s);
    }

    void delStanzaLine(const string& s) {
        remove(s);
        const size_t start = behindHeader(s);
        if (start == string::npos)
            return;
        size_t end = start;
        while (end < lines.size() && lines[end].type != ModelLine::stanza)
            ++end;
        lines.erase(lines.begin() + (start - 1), lines.begin() + end);
    }

    static bool wanted(const string& key, const string& text) {
        size_t t = 0;
        for (char c : "#" + key + "=") {
            while (t < text.size() && text[t] == ' ')
                ++t;
            if (t == text.size() || text[t] != c)
                return false;
            ++t;
        }
        return true;
    }

    // The index of a key's line, or of what ends its stanza.
    size_t lineOf(const string& s, const string& k) const {
        size_t i = behindHeader(s);
        while (i < lines.size() && lines[i].type != ModelLine::stanza &&
               (lines[i].type != ModelLine::key || lines[i].text != k))
            ++i;
        return i;
    }
    bool hasLine(const string& s, const string& k) const {
        const size_t i = lineOf(s, k);
        return i < lines.size() && lines[i].type == ModelLine::key;
    }

    void addLine(const string& s, const string& k, const string& v, bool hidden) {
        addStanzaLine(s);
        const bool existed = contains(s, k);
        set(s, k, v, hidden);
        if (existed && (hasLine(s, k) || hidden || v.empty()))
            return;
        if (behindHeader(s) == string::npos)
            appendHeader(s);
        size_t place = behindHeader(s);
        bool found = false;
        for (size_t i = place; i < lines.size() && lines[i].type != ModelLine::stanza; ++i) {
            if (lines[i].type == ModelLine::key) {
                place = i + 1;
            } else if (lines[i].type == ModelLine::comment) {
                found = found || wanted(k, lines[i].text);
            } else if (found) {
                place = i;
                break;
            }
        }
        lines.insert(lines.begin() + place, {ModelLine::key, k});
    }

    void delLine(const string& s, const string& k) {
        remove(s, k);
        while (hasLine(s, k))
            lines.erase(lines.begin() + lineOf(s, k));
    }

    void addFileComment(const string& text) {
        size_t i = 0, place = 0;
        while (i < lines.size() && lines[i].type != ModelLine::stanza &&
               lines[i].type != ModelLine::blank)
            ++i;
        const bool atBlank = i < lines.size() && lines[i].type == ModelLine::blank;
        if (atBlank)
            place = i;
        lines.insert(lines.begin() + place, {ModelLine::comment, text});
        if (!atBlank)
            lines.insert(lines.begin() + place + 1, {ModelLine::blank, ""});
    }

    void addStanzaComment(const string& s, const string& text) {
        addStanzaLine(s);
        if (behindHeader(s) == string::npos)
            appendHeader(s);
        size_t i = behindHeader(s);
        while (i < lines.size() && lines[i].type == ModelLine::comment)
            ++i;
        const bool closed = i < lines.size() && lines[i].type == ModelLine::blank;
        lines.insert(lines.begin() + i, {ModelLine::comment, text});
        if (!closed)
            lines.insert(lines.begin() + i + 1, {ModelLine::blank, ""});
    }

    void addLineComment(const string& s, const string& k, const string& text) {
        if (!contains(s, k))
            addLine(s, k, "", false);
        ModelLine::Type before = ModelLine::stanza;
        for (size_t i = behindHeader(s); i < lines.size(); ++i) {
            if (lines[i].type == ModelLine::key && lines[i].text == k) {
                if (before == ModelLine::stanza || before == ModelLine::key)
                    lines.insert(lines.begin() + i++, {ModelLine::blank, ""});
                lines.insert(lines.begin() + i, {ModelLine::comment, text});
                return;
            }
            before = lines[i].type;
        }
    }

    string written() const {
        string out, current;
        bool skip = false;
        for (const ModelLine& line : lines) {
            if (line.type == ModelLine::stanza) {
                skip = !contains(line.text);
                current = line.text;
                if (!skip)
                    out += "[" + current + "]\n";
                continue;
            }
            if (skip)
                continue;
            if (line.type != ModelLine::key) {
                out += line.text + "\n";
            } else if (contains(current, line.text)) {
                const ModelKey& key = stanzas.at(current).keys.at(line.text);
                for (const string& value : key.plain)
                    out += line.text + " = " + value + "\n";
                if (key.plain.empty() && key.hidden.empty())
                    out += line.text + " =\n";
            }
        }
        return out;
    }

    string records() const {
        string out;
        for (const auto& item : items)
            for (const string& value : stanzas.at(item.first).keys.at(item.second).hidden)
                out += item.first + '\0' + item.second + '\0' + value + '\0' + '\0';
        return out.empty() ? out : out.substr(0, out.size() - 1);
    }
};

// ---------------------------------------------------------------- comparison

vector<string> texts(const ZArrayList* list) {
    vector<string> result;
    for (unsigned int i = 0; list != nullptr && i < list->size(); ++i)
        result.push_back(static_cast<const ZAbstractString*>(list->get(i))->getChars());
    return result;
}

void compareAll(const Model& model, ZSCFData& cache, bool makeLists) {
    cache.checkInvariants();
    ASSERT_EQ(writtenText(cache), model.written());
    ASSERT_EQ(sideRecords(cache), model.records());
    ASSERT_EQ(cache.count(), static_cast<int>(model.stanzas.size()));
    ASSERT_EQ(cache.obfuscatedCount(), model.items.size());
    ZArrayList names(1, 1);
    cache.getNames(names);
    for (const string& name : texts(&names))
        ASSERT_TRUE(model.contains(name)) << name;
    ASSERT_EQ(names.size(), model.stanzas.size());
    for (const auto& s : model.stanzas) {
        ASSERT_EQ(cache.keyCount(s.first.c_str()), static_cast<int>(s.second.order.size()));
        if (makeLists) {
            ASSERT_EQ(texts(cache.getNames(s.first.c_str())), s.second.order);
        }
        for (const auto& k : s.second.keys) {
            const char* stanza = s.first.c_str();
            const char* key = k.first.c_str();
            const ModelKey& expected = k.second;
            const bool isHidden = expected.plain.empty() && !expected.hidden.empty();
            const vector<string>& any = isHidden ? expected.hidden : expected.plain;
            ASSERT_TRUE(cache.contains(stanza, key));
            ASSERT_EQ(cache.countValues(stanza, key), static_cast<int>(any.size()));
            ASSERT_EQ(cache.isObfuscated(stanza, key), isHidden);
            const char* text;
            unsigned int length;
            ASSERT_EQ(cache.lastValue(stanza, key, text, length), any.empty() ? 0 : 1);
            if (!any.empty()) {
                ASSERT_EQ(string(text, length), any.back());
            }
            if (makeLists) {
                ASSERT_EQ(texts(cache.get(stanza, key, ZPCache::GET_ANY)), any);
                ASSERT_EQ(texts(cache.get(stanza, key, ZPCache::GET_PLAIN)), expected.plain);
                ASSERT_EQ(texts(cache.get(stanza, key, ZPCache::GET_OBFUSCATED)), expected.hidden);
            }
        }
    }
}

class RandomOperations : public ::testing::TestWithParam<int> {};

// One step: the same change on both.
void step(std::mt19937& random, Model& model, ZSCFData& cache) {
    static const char* const kStanzas[] = {"a", "b", "c", "d", "e"};
    static const char* const kKeys[] = {"x", "y", "z", "w", "long", "k=v", "in ner"};
    static const string kValues[] = {
        "", "1", "two", "a longer value here", "[odd] # = ", string(40, '0')};
    static const char* const kComments[] = {"# note", "# z = 3",   "#w=",         "# k = v = 1",
                                            "#y = 1", "#long = 3", "# in ner = 4"};
    // And keys of which there are many samples.
    const string many = "k" + std::to_string(random() % 60);
    const string sample = "# " + many + " = 0";
    const char *s = kStanzas[random() % 5],
               *k = random() % 4 != 0 ? kKeys[random() % 7] : many.c_str();
    const char* v = kValues[random() % 6].c_str();
    const char* text = random() % 2 != 0 ? kComments[random() % 7] : sample.c_str();
    const bool hidden = random() % 3 == 0, rarely = random() % 60 == 0, first = random() % 2 == 0;
    const auto changeList = [&] {  // a caller changes a list that it was handed
        ZArrayList* list = cache.get(s, k, hidden ? ZPCache::GET_OBFUSCATED : ZPCache::GET_PLAIN);
        if (list == nullptr)
            return;
        ModelKey& key = model.stanzas[s].keys[k];
        vector<string>& values = hidden ? key.hidden : key.plain;
        if (first && !values.empty()) {
            values.erase(values.begin());
            list->remove(0u);
        } else {
            values.push_back("added");
            const ZLCString added("added");
            list->add(&added);
        }
    };
    const std::function<void()> changes[] = {
        changeList,
        [&] { model.addLine(s, k, v, hidden), cache.addLine(s, k, v, hidden); },
        [&] { model.add(s, k, v, hidden), cache.add(s, k, v, hidden); },
        [&] { model.set(s, k, v, false), cache.set(s, k, v); },
        [&] { model.set(s, k, v, true), cache.setObfuscated(s, k, v); },
        [&] { model.remove(s, k), cache.remove(s, k); },
        [&] { model.addStanzaLine(s), cache.addStanzaLine(s); },
        [&] { model.delLine(s, k), cache.delLine(s, k); },
        [&] { model.addFileComment(text), cache.addFileComment(text); },
        [&] { model.addStanzaComment(s, text), cache.addStanzaComment(s, text); },
        [&] { model.addLineComment(s, k, text), cache.addLineComment(s, k, text); },
        [&] { model.remove(s), cache.remove(s); },
        [&] { model.delStanzaLine(s), cache.delStanzaLine(s); },
    };
    // addLine more often than others, the last two rarely.
    const unsigned int often = random() % 13;
    const unsigned int what = rarely ? 11 + random() % 2 : often < 11 ? often : 1;
    SCOPED_TRACE("change " + std::to_string(what) + " of " + s + " " + k + " = " + v);
    changes[what]();
}

void fill(Model& model) {
    model.addFileComment("# head");
    model.addLine("a", "x", "1", false);
    model.addLine("a", "y", "2", false);
    model.add("a", "y", "3", false);
    model.addStanzaComment("a", "# z = sample");
    model.addStanzaComment("b", "# w=1");
    model.addLine("b", "long", "a value longer than the others by far, so that it has to move",
                  false);
    model.addStanzaLine("c");
}

TEST_P(RandomOperations, AgreeWithThePlainModel) {
    std::mt19937 random(GetParam());
    Model model;
    ZSCFData cache;
    fill(model);
    // As where very many lines come.
    if (GetParam() % 3 == 0)
        ZModelReading::storeOf(cache).expectMany();
    ASSERT_EQ(readText(cache, model.written()), 0);
    // Without lists the values stay in the store; with them each list is the truth.
    const bool makeLists = GetParam() % 2 != 0;
    for (int i = 0; i < 1500 && !::testing::Test::HasFatalFailure(); ++i) {
        SCOPED_TRACE("seed " + std::to_string(GetParam()) + ", step " + std::to_string(i));
        step(random, model, cache);
        compareAll(model, cache, makeLists);
        if (i % 200 == 199) {
            // A copy has all but the items, and goes its own way.
            std::unique_ptr<ZSCFData> copy(static_cast<ZSCFData*>(cache.clone()));
            Model copied = model;
            copied.items.clear();
            compareAll(copied, *copy, makeLists);
            copy->addLine("a", "copied", "1", 0);
            compareAll(model, cache, makeLists);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomOperations, ::testing::Range(1, 13));

// ---------------------------------------------------------------- what random steps reach rarely

// Room that can't be made ahead of a load is made on the way.
TEST(Reading, GoesOnWhereMemoryWasShortForAMoment) {
    const char* const texts[] = {"[s]\na = 1\nb = 2\n",
                                 "# c\n[s]\na = 1\n# d\nb = 2\n\n[t]\nc = 3\n"};
    for (const string text : texts)
        for (unsigned long nth = 2; nth < 60; ++nth) {
            SCOPED_TRACE(text + std::to_string(nth));
            ZSCFData cache;
            if (nth % 2 == 0) {
                ASSERT_EQ(readText(cache, "[other]\na = 1\na = 2\n"), 0);
            }
            const bool raised =
                endsWithoutMemory([&] { EXPECT_EQ(readText(cache, text), 0); }, nth / 2);
            cache.checkInvariants();
            if (!raised) {
                EXPECT_EQ(cache.countValues("s", "b"), 1);
                EXPECT_EQ(cache.addStanzaLine("u"), 0);
                cache.addLine("s", "c", "4", 0);
                cache.checkInvariants();
            }
        }
}

// What is taken out without memory stays among the others unseen, and can come again.
TEST(Removal, NeedsNoMemory) {
    for (int round = 0; round < 24; ++round) {
        SCOPED_TRACE(round);
        std::mt19937 random(static_cast<unsigned int>(round));
        Model model;
        ZSCFData cache;
        for (int i = 0; i < 80; ++i)
            model.addLine(i < 60 ? "a" : "b", "k" + std::to_string(i), "1", false);
        if (round % 2 != 0)
            ZModelReading::storeOf(cache).expectMany();
        ASSERT_EQ(readText(cache, model.written()), 0);
        for (int i = 0; i < 200; ++i) {
            const bool adds = random() % 4 == 0, keepsLine = random() % 2 == 0;
            const char* const s = random() % 4 != 0 ? "a" : "b";
            const string key = "k" + std::to_string(random() % 60 + (*s == 'b' ? 20 : 0));
            const char* const k = key.c_str();
            bool raised = false;
            if (adds) {
                model.addLine(s, k, "2", false), cache.addLine(s, k, "2", 0);
            } else if (keepsLine) {
                model.remove(s, k);
                raised = endsWithoutMemory([&] { cache.remove(s, k); }, 1, FailAllocations::onward);
            } else {
                model.delLine(s, k);
                raised =
                    endsWithoutMemory([&] { cache.delLine(s, k); }, 1, FailAllocations::onward);
            }
            EXPECT_FALSE(raised);
            if (i % 8 == 0 || i > 190)
                compareAll(model, cache, false);
        }
    }
}

TEST(Cache, ListsKeepTheirIdentity) {
    ZSCFData cache;
    ASSERT_EQ(readText(cache, "[s]\nk = 1\nk = 2\n"), 0);
    ZArrayList* plain = cache.get("s", "k", ZPCache::GET_PLAIN);
    ZArrayList* hidden = cache.get("s", "k", ZPCache::GET_OBFUSCATED);
    ZArrayList* keys = cache.getNames("s");
    cache.setObfuscated("s", "k", "h");
    EXPECT_EQ(cache.get("s", "k", ZPCache::GET_ANY), hidden);
    EXPECT_EQ(texts(plain), vector<string>());
    EXPECT_EQ(texts(hidden), vector<string>{"h"});
    cache.set("s", "k", static_cast<const ZLCString*>(hidden->get(0))->getChars());
    EXPECT_EQ(cache.get("s", "k", ZPCache::GET_ANY), plain);
    EXPECT_EQ(texts(plain), vector<string>{"h"});
    cache.addLine("s", "m", "1", 0);
    EXPECT_EQ(cache.getNames("s"), keys);
    EXPECT_EQ(texts(keys), (vector<string>{"k", "m"}));
    cache.delLine("s", static_cast<const ZLCString*>(keys->get(0))->getChars());
    EXPECT_EQ(texts(keys), vector<string>{"m"});
}

TEST(Cache, ManyKeysAndMuchChangeKeepTheTextSmallAndRight) {
    // Enough to compact the text again and again, and to grow and shrink the index.
    ZSCFData cache, again;
    const string start = "# head\n\n[t]\n# of k\nk = 1\nk = 2\n\n[s]\n";
    ASSERT_EQ(readText(cache, start), 0);
    cache.add("u", "hidden", "h", 1);
    std::map<string, string> model;
    std::mt19937 random(7);
    for (int i = 0; i < 60000; ++i) {
        const string key = "key" + std::to_string(random() % 3000);
        const string value(random() % 5 == 0 ? 0 : 1 + random() % 60,
                           static_cast<char>('a' + i % 26));
        if (value.empty())
            cache.delLine("s", key.c_str()), model.erase(key);
        else
            cache.addLine("s", key.c_str(), (model[key] = value).c_str(), 0);
    }
    cache.checkInvariants();
    ASSERT_EQ(cache.keyCount("s"), static_cast<int>(model.size()));
    const char* text;
    unsigned int length;
    for (const auto& [key, value] : model) {
        ASSERT_EQ(cache.lastValue("s", key.c_str(), text, length), 1);
        ASSERT_EQ(string(text, length), value);
    }
    EXPECT_EQ(writtenText(cache).substr(0, start.size()), start);
    EXPECT_EQ(sideRecords(cache), string("u\0hidden\0h\0", 11));
    ASSERT_EQ(readText(again, writtenText(cache)), 0);
    EXPECT_EQ(writtenText(again), writtenText(cache));
}

TEST(Cache, TheRecordOfAKeyWithSeveralLinesIsGivenBackOnce) {
    // Its second line has the number of the record that was given back before.
    ZSCFData cache;
    for (const char* key : {"k", "k", "l", "m"}) {
        cache.addLine("s", key, "1", 0);
        cache.remove("s", key);
    }
    cache.delLine("s", "m");
    cache.delStanzaLine("s");
    cache.checkInvariants();
    EXPECT_EQ(writtenText(cache), "\n");
}

TEST(Cache, CompositeKeysAreSplitAtTheFirstDot) {
    ZSCFData cache;
    cache.addLine("s.k.l", "1", 0);
    EXPECT_EQ(writtenText(cache), "\n[s]\nk.l = 1\n");
    EXPECT_EQ(cache.countValues("s.k.l"), 1);
    EXPECT_EQ(cache.countValues("s.k"), 0);
    for (const char* bad : {static_cast<const char*>(nullptr), "nodot"})
        EXPECT_THROW(cache.addLineComment(bad, "#"), ZInvalidParameterException);
}

// Names of which many have one place or one hash, at the end of the table as well.
TEST(NameIndex, KnowsWhatWasPutInAsHashesCollideAndProbesWrap) {
    const std::pair<const char*, uint32_t (*)(uint32_t)> kHashes[] = {
        {"spread", [](uint32_t i) { return i * 0x9E3779B9u; }},
        {"few", [](uint32_t i) { return i % 5 * 0x33333333u; }},
        {"one place, other marks", [](uint32_t i) { return 0xFFFFFF00u | i % 256; }},
        {"one", [](uint32_t) { return 0xFFFFFFFFu; }},
    };
    for (const auto& hash : kHashes)
        for (const uint32_t most : {20u, 700u, 6000u}) {
            SCOPED_TRACE(hash.first);
            std::mt19937 random(most);
            ZPNameIndex index;
            std::set<ZPId> there;
            const auto hashOf = [&](ZPId id) { return hash.second(id); };
            for (uint32_t step = 0; step < (most > 1000 ? most : 4 * most); ++step) {
                const ZPId id = random() % most;
                ZPNameIndex::Place place;
                const ZPId found = index.findOrPlace(
                    hashOf(id), place,
                    [&](ZPId other, uint32_t offset) { return other == id && offset == id * 3; });
                ASSERT_EQ(found, there.count(id) != 0 ? id : kNoId);
                if (found != kNoId && random() % 2 == 0) {
                    index.removeAt(place.slot, hashOf);
                    there.erase(id);
                } else if (found == kNoId && index.takes(id, 1)) {
                    index.insertAt(place, id, id * 3);
                    there.insert(id);
                } else if (found == kNoId) {
                    index.reserve(there.size() + 1 > id + 1 ? there.size() + 1 : id + 1,
                                  [&](auto insert) {
                                      for (const ZPId each : there)
                                          insert(hashOf(each), each, each * 3);
                                  });
                }
                if (step % 64 == 0)
                    index.checkInvariants([](ZPId each) { return each * 3; }, hashOf);
            }
            index.checkInvariants([](ZPId each) { return each * 3; }, hashOf);
            EXPECT_EQ(index.count(), there.size());
        }
}

}  // namespace
