// differ.cpp: diff: what two files say, key by key.
#include "zstz.h"

namespace {

// One of the two files that are compared.
struct Side {
    const char* file;
    char sign;
    Handle handle;

    bool hides(const char* stanza, const char* key) const {
        return isHidden(handle.get(), stanza, key);
    }
    bool isBare(const char* stanza, const char* key) const {
        return ::isBare(handle.get(), stanza, key);
    }
    Exit read(const char* stanza, const char* key, Words& values) const {
        return valuesOf(handle.get(), file, stanza, key, values);
    }
};

// A stanza or, where `key` isn't null, a key of a file, as that names it.
struct Named {
    const Side* side;
    const char *stanza, *key;

    Exit read(Words& values) const { return side->read(stanza, key, values); }
    bool isHidden() const { return side->hides(stanza, key); }
    bool isBare() const { return side->isBare(stanza, key); }
};

// One difference: of a stanza, or of a key that `here` has. What is hidden stays so.
class Difference {
public:
    explicit Difference(const Named& here) : here_(here) {}
    // The other file has the key, too.
    void alsoIn(const Named& there) { there_ = &there; }

    Exit print(bool asJSON) const { return asJSON ? printJSON() : printText(); }

private:
    Exit printText() const {
        if (here_.key == nullptr) {
            printLine(here_, "");
            return done;
        }
        Exit failed = printSide(here_);
        if (failed == done && there_ != nullptr)
            failed = printSide(*there_);
        return failed;
    }
    // A value of several lines is one of several lines here.
    void printLine(const Named& named, const std::string& text) const {
        const char sign = named.side->sign;
        const std::string more = std::string(1, sign) + "     ";
        printf("%s%c [%s]%s%s\n", colourOf(stdout, sign == '-' ? red : green), sign, named.stanza,
               inLines(text, more.c_str()).c_str(), colourOf(stdout, plainColour));
    }
    Exit printSide(const Named& named) const {
        const std::string name = std::string(" ") + named.key;
        if (named.isHidden()) {
            printLine(named, name + " (hidden)");
            return done;
        }
        Words values;
        if (const Exit failed = named.read(values))
            return failed;
        for (const std::string& value : values)
            printLine(named, name + " = " + value);
        if (values.empty())
            printLine(named, name + (named.isBare() ? "" : " ="));
        return done;
    }

    Exit printJSON() const {
        std::string line = "{\"change\": \"";
        line += there_ != nullptr ? "modified" : here_.side->sign == '-' ? "deleted" : "added";
        line += "\", \"stanza\": " + jsonOf(here_.stanza);
        if (here_.key != nullptr)
            line += ", \"key\": " + jsonOf(here_.key);
        for (const Named* named : {&here_, there_}) {
            if (here_.key == nullptr || named == nullptr)
                continue;
            Words values;
            if (const Exit failed = named->read(values))
                return failed;
            line += named->side->sign == '-' ? ", \"old\": " : ", \"new\": ";
            line += named->isHidden() ? "{\"hidden\": null}"
                    : values.empty()  ? jsonOfNone(named->isBare())
                                      : jsonOfValues(values, false);
        }
        puts((line + "}").c_str());
        return done;
    }

    const Named here_;
    const Named* there_ = nullptr;
};

}  // namespace

// Whether both say the same of a key that both have.
static Exit compare(const Named& here, const Named& there, bool& areSame) {
    Words left, right;
    Exit failed = here.read(left);
    if (failed == done)
        failed = there.read(right);
    areSame = left == right && here.isHidden() == there.isHidden() &&
              (!left.empty() || here.isBare() == there.isBare());
    return failed;
}

// Prints what one side has and the other lacks, and, once for both, where their values differ.
static Exit printDifferences(const Side& here, const Side& there, const Options& options,
                             bool printChanged, bool& found) {
    Words stanzas;
    if (const Exit failed = stanzasOf(here.handle.get(), here.file, stanzas))
        return failed;
    Counterparts others(here.handle.get(), there.handle.get(), there.file, nullptr);
    for (const std::string& stanza : stanzas) {
        Exit failed = done;
        const char* const other = others.find(stanza);
        if (other == nullptr) {
            failed = Difference({&here, stanza.c_str(), nullptr}).print(options.json);
            found = true;
        }
        Words keys;
        if (failed == done)
            failed = keysOf(here.handle.get(), here.file, stanza.c_str(), keys);
        Counterparts otherKeys(here.handle.get(), there.handle.get(), there.file,
                               other == nullptr ? stanza.c_str() : other);
        for (const std::string& key : keys) {
            const Named named = {&here, stanza.c_str(), key.c_str()};
            const Named same = {&there, other, other == nullptr ? nullptr : otherKeys.find(key)};
            Difference difference(named);
            bool areSame = false;
            if (same.key != nullptr) {
                if (!printChanged)
                    continue;
                failed = compare(named, same, areSame);
                difference.alsoIn(same);
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
