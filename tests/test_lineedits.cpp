// Other names, and lines of another kind, in a model whose stores keep lines: beside a text that is
// edited line by line.
#include "support/Prelude.h"

#include <sstream>

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
        end_ = text.find('\r') == string::npos ? "\n" : "\r\n";
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
                tail += end_;
            made.push_back(lines_[at].substr(0, lines_[at].find_first_not_of(" \t")) + "# " + key +
                           " =" + (value.empty() ? "" : " ") + value + tail);
        }
        erase(places);
        lines_.insert(lines_.begin() + static_cast<long>(places[0]), made.begin(), made.end());
        return true;
    }
    // One line, or none, in place of all of a key.
    bool set(const string& stanza, const string& key, const string& instead) {
        const std::vector<size_t> places = entries(stanza, key);
        erase(places);
        if (!places.empty() && !instead.empty())
            lines_.insert(lines_.begin() + static_cast<long>(places[0]), instead + end_);
        return !places.empty();
    }
    // Whether all of it is there in another text, in this order.
    bool isPartOf(const string& other) const {
        std::istringstream old(all()), now(other);
        for (string line, found; std::getline(old, line);) {
            do
                if (!std::getline(now, found))
                    return false;
            while (found != line && found != line + '\r');  // the last may have had no end
        }
        return true;
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
    string end_;
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
        ZModelEdits::noteStored(cache_, ZBytes());
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
    static const char* const kBlanks[] = {"", "  ", " ", "\t"};
    static const char* const kSigns[] = {"=", " = ", "\t=", "= "};
    const string end = random() % 4 == 0 ? "\r\n" : "\n";
    string text;
    const auto add = [&](const string& line) {
        text += kBlanks[random() % 4] + line + kBlanks[random() % 4] + end;
    };
    for (const string stanza : {"", "[s0]", "[s1] t", "[s2]"}) {
        if (!stanza.empty())
            add(stanza);
        for (size_t left = random() % 8; left > 0; --left) {
            const string entry = "k" + std::to_string(random() % 6) + kSigns[random() % 4] +
                                 (random() % 8 == 0 ? "" : string(1, "xyz"[random() % 3]));
            if (random() % 4 == 0)
                add("");
            else if (stanza.empty() || random() % 4 == 0)
                add(string("# ") + "ab"[random() % 2]);
            else
                add((random() % 3 == 0 ? "# " : "") + entry);
        }
    }
    if (random() % 2 == 0 && text.size() > end.size())
        text.resize(text.size() - end.size());
    return text;
}

TEST(LineEdits, LeaveAllOtherBytes) {
    std::mt19937 random(11);
    for (int round = 0; round < 3000; ++round) {
        const string start = randomText(random);
        SCOPED_TRACE(start);
        Text text(start);
        Model model(start);
        ZSCFData& cache = model.cache();
        string done;
        for (int step = 0; step < 6; ++step) {
            const string stanza = "s" + std::to_string(random() % 4),
                         other = "s" + std::to_string(random() % 5),
                         key = "k" + std::to_string(random() % 6),
                         name = "k" + std::to_string(random() % 8);
            const char *s = stanza.c_str(), *k = key.c_str();
            const bool isThere = cache.contains(s, k) != 0;
            const struct {
                const char* what;
                std::function<bool()> ofText, ofModel;
            } edits[] = {
                {"another stanza's name", [&] { return text.renameStanza(stanza, other); },
                 [&] { return ZModelEdits::renameStanza(cache, s, other.c_str()); }},
                {"another key's name", [&] { return text.renameKey(stanza, key, name); },
                 [&] { return ZModelEdits::renameKey(cache, s, k, name.c_str()); }},
                {"uncomment", [&] { return text.uncomment(stanza, key); },
                 [&] { return ZModelEdits::uncommentKey(cache, s, k); }},
                {"disable", [&] { return text.disable(stanza, key); },
                 [&] { return ZModelEdits::disableKey(cache, s, k); }},
                {"unset", [&] { return text.set(stanza, key, ""); },
                 [&] { return cache.delLine(s, k), isThere; }},
                {"set", [&] { return text.set(stanza, key, key + " = new"); },
                 [&] { return isThere && (cache.addLine(s, k, "new", 0), true); }},
                {"store", [] { return false; }, [&] { return model.store(), false; }},
            };
            const auto& edit = edits[random() % std::size(edits)];
            done += edit.what + (" " + stanza) + " " + key + " " + other + " " + name + "\n";
            ASSERT_EQ(isDone(edit.ofModel), edit.ofText()) << done;
            ASSERT_EQ(model.wouldStore(), text.all()) << done;
        }
        // What is added leaves all that was there in place.
        model.store();
        cache.addLineComment("s1", "k1", "# b");
        cache.addStanzaComment("s0", "# a");
        cache.addFileComment("# a");
        cache.addLine("s2", "added", "1", 0);
        ASSERT_TRUE(text.isPartOf(model.wouldStore())) << done << model.wouldStore();
    }
}

}  // namespace
