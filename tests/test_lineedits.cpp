// Other names, and lines of another kind, in a model whose stores keep lines: beside a text that is
// edited line by line.
#include "support/Prelude.h"

#include <random>

#include "zgrammar.h"
#include "zkeeplines.h"
#include "zmemorystream.h"
#include "zmodeledits.h"

using std::string;

namespace {

typedef std::vector<string> Lines;

ZSpan spanOf(const string& text) { return {text.data(), text.size()}; }
string textOf(ZSpan span) { return string(span.data, span.size); }

// A text as people would edit it.
class Text {
public:
    explicit Text(const string& text) {
        for (size_t at = 0; at < text.size(); at += lines_.back().size())
            lines_.push_back(text.substr(at, text.find('\n', at) - at + 1));
    }
    string all() const {
        string out;
        for (const string& line : lines_)
            out += line;
        return out;
    }

    bool renameStanza(const string& stanza, const string& name) {
        const size_t at = header(stanza);
        if (at == lines_.size() || header(name) != lines_.size())
            return false;
        replace(lines_[at], stanza, name);
        return true;
    }
    bool renameKey(const string& stanza, const string& key, const string& name) {
        const std::vector<size_t> places = entries(stanza, key);
        if (places.empty() || !entries(stanza, name).empty())
            return false;
        for (const size_t at : places)
            replace(lines_[at], key, name);
        return true;
    }
    bool uncomment(const string& stanza, const string& key) {
        if (!entries(stanza, key).empty())
            return false;
        for (size_t at = header(stanza) + 1; at < lines_.size() && !isHeader(at); ++at) {
            const ZLineParts parts = partsOf(at);
            if (parts.kind != zlineComment)
                continue;
            string text = textOf(parts.name).substr(1);
            const size_t first = text.find_first_not_of(' ');
            text = first == string::npos ? "" : text.substr(first);
            const ZLineParts entry = ZLineGrammar().divide(spanOf(text));
            if (entry.kind != zlineEntry || textOf(entry.name) != key)
                continue;
            replace(lines_[at], textOf(parts.name), text);
            return true;
        }
        return false;
    }
    bool disable(const string& stanza, const string& key) {
        const std::vector<size_t> places = entries(stanza, key);
        if (places.empty())
            return false;
        Lines made;
        bool hasValues = false;
        for (const size_t at : places)
            hasValues = hasValues || partsOf(at).value.size != 0;
        for (const size_t at : places) {
            const ZLineParts parts = partsOf(at);
            const string value = textOf(parts.value);
            // An empty entry is no value.
            if (value.empty() && (hasValues || at != places[0]))
                continue;
            // What stands behind the value stays.
            const char* end = lines_[at].data() + lines_[at].size();
            string tail(parts.value.data + parts.value.size, end);
            if (at != places[0] && (tail.empty() || tail.back() != '\n'))
                tail += '\n';
            made.push_back(lines_[at].substr(0, lines_[at].find_first_not_of(' ')) + "# " + key +
                           " =" + (value.empty() ? "" : " ") + value + tail);
        }
        erase(places);
        lines_.insert(lines_.begin() + static_cast<long>(places[0]), made.begin(), made.end());
        return true;
    }
    bool unset(const string& stanza, const string& key) {
        const std::vector<size_t> places = entries(stanza, key);
        erase(places);
        return !places.empty();
    }

private:
    ZLineParts partsOf(size_t at) const { return ZLineGrammar().divideRaw(spanOf(lines_[at])); }
    bool isHeader(size_t at) const { return partsOf(at).kind == zlineHeader; }
    size_t header(const string& stanza) const {
        size_t at = 0;
        while (at < lines_.size() && !(isHeader(at) && textOf(partsOf(at).name) == stanza))
            ++at;
        return at;
    }
    std::vector<size_t> entries(const string& stanza, const string& key) const {
        std::vector<size_t> places;
        for (size_t at = header(stanza) + 1; at < lines_.size() && !isHeader(at); ++at)
            if (partsOf(at).kind == zlineEntry && textOf(partsOf(at).name) == key)
                places.push_back(at);
        return places;
    }
    void erase(const std::vector<size_t>& places) {
        for (size_t i = places.size(); i-- > 0;)
            lines_.erase(lines_.begin() + static_cast<long>(places[i]));
    }
    static void replace(string& line, const string& before, const string& now) {
        line.replace(line.find(before), before.size(), now);
    }

    Lines lines_;
};

// The model, and what its file holds.
class Model {
public:
    explicit Model(const string& text) : file_(text) {
        cache_.setAttributes(ZPCACHE_KEEP_COMMENTS | ZPCACHE_KEEP_LINES | ZPCACHE_STRICT, nullptr);
        zreadText(cache_, "text", spanOf(text));
    }
    ZSCFData& cache() { return cache_; }

    string wouldStore() {
        cache_.checkInvariants();
        ZMemoryStream stream;
        cache_.be_write("text", stream.get());
        ZBytes room, kept;
        zkeepLines(ZModelEdits::oldText(cache_, spanOf(file_), room), stream.finish(), kept);
        return textOf(zspanOf(kept));
    }
    void store() {
        file_ = wouldStore();
        ZModelEdits::noteStored(cache_);
    }

private:
    ZSCFData cache_;
    string file_;
};

// Raises where the change is refused, as where nothing is there to be changed: false.
template <typename Change>
bool isDone(Change change) {
    try {
        return change();
    } catch (ZInvalidParameterException&) {
        return false;
    }
}

string randomText(std::mt19937& random) {
    static const char* const kIndents[] = {"", "  ", " "};
    static const char* const kSigns[] = {"=", " = ", "  =", "= "};
    string text;
    int unique = 0;
    for (const char* stanza : {"s0", "s1", "s2"}) {
        text += string(kIndents[random() % 3]) + "[" + stanza + "]" + kIndents[random() % 3] + "\n";
        const int count = static_cast<int>(random() % 8);
        for (int i = 0; i < count; ++i) {
            const string entry = "k" + std::to_string(random() % 6) + kSigns[random() % 4] +
                                 (random() % 8 == 0 ? "" : "v" + std::to_string(unique++)) + "\n";
            const string indent = kIndents[random() % 3];
            if (random() % 3 == 0)
                text += indent + "#" + kIndents[random() % 3] + entry;
            else if (random() % 4 == 0)
                text += indent + "# note " + std::to_string(unique++) + "\n";
            else if (random() % 4 == 0)
                text += indent + "\n";
            else
                text += indent + entry;
        }
    }
    if (random() % 2 == 0)
        text.pop_back();
    return text;
}

TEST(LineEdits, LeaveAllOtherBytes) {
    std::mt19937 random(11);
    for (int round = 0; round < 3000; ++round) {
        const string start = randomText(random);
        SCOPED_TRACE(start);
        Text text(start);
        Model model(start);
        string done;
        for (int step = 0; step < 6; ++step) {
            const string stanza = "s" + std::to_string(random() % 4),
                         other = "s" + std::to_string(random() % 5),
                         key = "k" + std::to_string(random() % 6),
                         name = "k" + std::to_string(random() % 8);
            ZSCFData& cache = model.cache();
            const char *s = stanza.c_str(), *k = key.c_str();
            bool changed = false, expected = false;
            switch (random() % 6) {
                case 0:
                    expected = text.renameStanza(stanza, other);
                    changed =
                        isDone([&] { return ZModelEdits::renameStanza(cache, s, other.c_str()); });
                    done += "rename " + stanza + " " + other + "\n";
                    break;
                case 1:
                    expected = text.renameKey(stanza, key, name);
                    changed =
                        isDone([&] { return ZModelEdits::renameKey(cache, s, k, name.c_str()); });
                    done += "rename " + stanza + " " + key + " " + name + "\n";
                    break;
                case 2:
                    expected = text.uncomment(stanza, key);
                    changed = isDone([&] { return ZModelEdits::uncommentKey(cache, s, k); });
                    done += "uncomment " + stanza + " " + key + "\n";
                    break;
                case 3:
                    expected = text.disable(stanza, key);
                    changed = isDone([&] { return ZModelEdits::disableKey(cache, s, k); });
                    done += "disable " + stanza + " " + key + "\n";
                    break;
                case 4:
                    expected = text.unset(stanza, key);
                    changed = cache.contains(s, k) != 0;
                    cache.delLine(s, k);
                    done += "unset " + stanza + " " + key + "\n";
                    break;
                default:
                    model.store();
                    done += "store\n";
            }
            ASSERT_EQ(changed, expected) << done;
            ASSERT_EQ(model.wouldStore(), text.all()) << done;
        }
    }
}

}  // namespace
