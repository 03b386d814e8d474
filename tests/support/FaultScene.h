// FaultScene.h: a stanza file with or without a side database, whose content says "old" everywhere;
// and what a store of another content, that was disturbed, has left of it.
#ifndef TESTS_SUPPORT_FAULTSCENE_H
#define TESTS_SUPPORT_FAULTSCENE_H

#include <unistd.h>

#include <set>
#include <string>

#include "Z/ZExceptionText.h"
#include "Z/ZPropertiesUpdate.h"
#include "support/Config.h"
#include "support/TempFolder.h"

struct Variant {
    const char* what;
    bool hidden, startsHidden;  // whether there is a hidden value, and was one in the old content
    bool byUpdate = false;
};

struct Scene {
    const Variant variant;
    const TempFolder folder;
    const std::string path = folder / "f", side = path + ".obf";

    explicit Scene(const Variant& v) : variant(v) {
        Config first;
        first.addFileComment(std::string(700, '#').c_str());
        change(first, "old");
        first.store(path.c_str());
    }

    bool isHidden(const std::string& value) const {
        return value == "old" ? variant.startsHidden : variant.hidden;
    }

    /// Gives the object this content, which is longer than the one before.
    void change(Config& p, const char* value) const {
        p.setValue("s", "k", value);
        p.setValue("t", "same", value);
        p.setValue("u", value, std::string(700, '#').c_str());
        if (isHidden(value))
            p.setValue("s", "h", value, 1);
        else if (p.exists("s", "h"))
            p.deleteKey("s", "h");
    }

    /// Changes and stores, all in one update or not.
    void store(Config& p, const char* value) const {
        if (!variant.byUpdate) {
            change(p, value);
            p.store(nullptr);
            return;
        }
        ZPropertiesUpdate update(p, 0);
        change(p, value);
        update.commit();
    }

    /// What all of the content says, or what is wrong with it; "none" without a file.
    std::string content(int mode = kChecked) const {
        Config p(mode);
        try {
            p.load(path.c_str());
        } catch (ZPropertiesIOException& e) {
            return access(path.c_str(), F_OK) != 0 ? "none"
                                                   : std::string("can't be loaded: ") + e.api();
        } catch (ZPropertiesInvalidDataException& e) {
            return "bad data";
        }
        const std::string value = p.value("s", "k"), same = p.value("t", "same");
        const std::string hidden = p.value("s", "h");
        const bool isWhole = value == same && hidden == (isHidden(value) ? value : "<none>") &&
                             p.exists("u", value.c_str()) && (value != "old" || p.count("u") == 1);
        return isWhole ? value : "torn: " + value + " " + same + " " + hidden;
    }

    /// Whether nothing lies about that doesn't belong there; or that doesn't go with this content.
    bool isTidy() const {
        const std::set<std::string> names = folder.names();
        return names.size() == names.count("f") + names.count("f.obf");
    }
    bool isTidyWith(const std::string& value) const {
        return isTidy() && folder.names().count("f.obf") == isHidden(value);
    }
};

const Variant kVariants[] = {{"no side database", false, false},
                             {"a new one", true, false},
                             {"another one", true, true},
                             {"no more", false, true}};

#endif
