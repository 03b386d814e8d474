// differ.cpp: diff: what two files say, key by key.
#include "zstz.h"

namespace {

// One of the two files that are compared.
struct Side {
    const char* file;
    char sign;
    Handle handle;

    bool has(const char* stanza, const char* key) const {
        return hasEntry(handle.get(), stanza, key);
    }
    bool hides(const char* stanza, const char* key) const {
        return isHidden(handle.get(), stanza, key);
    }
    Exit read(const char* stanza, const char* key, Words& values) const {
        return valuesOf(handle.get(), file, stanza, key, values);
    }
};

// One difference: of a stanza, or of a key that `here` has. What is hidden stays so.
class Difference {
public:
    Difference(const Side& here, const char* stanza) : here_(here), stanza_(stanza) {}
    Difference(const Side& here, const char* stanza, const char* key)
        : here_(here), stanza_(stanza), key_(key) {}
    // The other file has the key, too.
    void alsoIn(const Side& there) { there_ = &there; }

    Exit print(bool asJSON) const { return asJSON ? printJSON() : printText(); }

private:
    Exit printText() const {
        if (key_ == nullptr) {
            printLine(here_, "");
            return done;
        }
        Exit failed = printSide(here_);
        if (failed == done && there_ != nullptr)
            failed = printSide(*there_);
        return failed;
    }
    void printLine(const Side& side, const std::string& text) const {
        printf("%s%c [%s]%s%s\n", colourOf(stdout, side.sign == '-' ? red : green), side.sign,
               stanza_, text.c_str(), colourOf(stdout, plainColour));
    }
    Exit printSide(const Side& side) const {
        const std::string name = std::string(" ") + key_;
        if (side.hides(stanza_, key_)) {
            printLine(side, name + " (hidden)");
            return done;
        }
        Words values;
        if (const Exit failed = side.read(stanza_, key_, values))
            return failed;
        for (const std::string& value : values)
            printLine(side, name + " = " + value);
        if (values.empty())
            printLine(side, name + " =");
        return done;
    }

    Exit printJSON() const {
        std::string line = "{\"change\": \"";
        line += there_ != nullptr ? "modified" : here_.sign == '-' ? "deleted" : "added";
        line += "\", \"stanza\": " + jsonOf(stanza_);
        if (key_ != nullptr)
            line += ", \"key\": " + jsonOf(key_);
        for (const Side* side : {&here_, there_}) {
            if (key_ == nullptr || side == nullptr)
                continue;
            Words values;
            if (const Exit failed = side->read(stanza_, key_, values))
                return failed;
            line += side->sign == '-' ? ", \"old\": " : ", \"new\": ";
            line += side->hides(stanza_, key_) ? "{\"hidden\": null}" : jsonOfValues(values, false);
        }
        puts((line + "}").c_str());
        return done;
    }

    const Side& here_;
    const Side* there_ = nullptr;
    const char* const stanza_;
    const char* const key_ = nullptr;
};

}  // namespace

// Whether both say the same of a key that both have.
static Exit compare(const Side& here, const Side& there, const char* stanza, const char* key,
                    bool& areSame) {
    Words left, right;
    Exit failed = here.read(stanza, key, left);
    if (failed == done)
        failed = there.read(stanza, key, right);
    areSame = left == right && here.hides(stanza, key) == there.hides(stanza, key);
    return failed;
}

// Prints what one side has and the other lacks, and, once for both, where their values differ.
static Exit printDifferences(const Side& here, const Side& there, const Options& options,
                             bool printChanged, bool& found) {
    Words stanzas;
    if (const Exit failed = stanzasOf(here.handle.get(), here.file, stanzas))
        return failed;
    for (const std::string& stanza : stanzas) {
        Exit failed = done;
        if (!there.has(stanza.c_str(), nullptr)) {
            failed = Difference(here, stanza.c_str()).print(options.json);
            found = true;
        }
        Words keys;
        if (failed == done)
            failed = keysOf(here.handle.get(), here.file, stanza.c_str(), keys);
        for (const std::string& key : keys) {
            Difference difference(here, stanza.c_str(), key.c_str());
            bool areSame = false;
            if (there.has(stanza.c_str(), key.c_str())) {
                if (!printChanged)
                    continue;
                failed = compare(here, there, stanza.c_str(), key.c_str(), areSame);
                difference.alsoIn(there);
            }
            if (areSame)
                continue;
            found = true;
            if (failed == done)
                failed = difference.print(options.json);
            if (failed != done)
                break;
        }
        if (failed != done)
            return failed;
    }
    return done;
}

Exit diff(const Words& words, const Options& options) {
    Side before = {words[0].c_str(), '-', nullptr}, after = {words[1].c_str(), '+', nullptr};
    Exit failed = openFile(before.file, options, before.handle);
    if (failed == done)
        failed = openFile(after.file, options, after.handle);
    bool found = false;
    if (failed == done)
        failed = printDifferences(before, after, options, true, found);
    if (failed == done)
        failed = printDifferences(after, before, options, false, found);
    return failed != done ? failed : found ? differ : done;
}
