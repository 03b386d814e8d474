// DialectStore.h: a store that holds what a text of a dialect says.
#ifndef SUPPORT_DIALECTSTORE_H
#define SUPPORT_DIALECTSTORE_H

#include <map>
#include <string>

#include "Z/zdialectmodel.h"
#include "Z/zdialecttext.h"

inline ZSpan spanOf(const std::string& text) { return {text.data(), text.size()}; }
inline std::string stringOf(ZSpan span) { return std::string(span.data, span.size); }

inline std::string foldedName(const ZDialect& dialect, ZSpan name, bool isStanza) {
    ZBytes out;
    zdialectFold(dialect, name, isStanza, out);
    return stringOf(zspanOf(out));
}

// False where the text has bad data, or keys without a divider, which a store doesn't tell.
inline bool fillStore(const ZDialect& dialect, const std::string& text, ZPStore& store) {
    std::map<std::string, ZPStore::Id> stanzas;
    std::map<std::pair<ZPStore::Id, std::string>, ZPStore::Id> keys;
    std::map<std::string, int> counts;
    ZPStore::Id stanza = ZPStore::none;
    const auto enter = [&](const std::string& name) {
        const std::string folded = foldedName(dialect, spanOf(name), true);
        const auto known = stanzas.find(folded);
        stanza = known != stanzas.end() ? known->second : store.createStanza(spanOf(name));
        stanzas[folded] = stanza;
    };
    ZDialectReader reader(dialect, spanOf(text));
    ZDialectPart part;
    while (reader.next(part)) {
        if (part.kind == ZDialectPart::header) {
            std::string name = stringOf(part.name);
            const std::string folded = foldedName(dialect, part.name, true);
            const int count = ++counts[folded];
            const size_t mark = name.rfind('#');
            if (count > 1 && dialect.repeated == ZDIALECT_NOT_REPEATED)
                return false;
            if (dialect.repeated == ZDIALECT_NUMBERED && mark != std::string::npos)
                return false;
            if (count > 1 && dialect.repeated == ZDIALECT_NUMBERED)
                name += "#" + std::to_string(count);
            enter(name);
        } else if (part.kind == ZDialectPart::entry) {
            if (stanza == ZPStore::none && dialect.orphans == ZDIALECT_NO_ORPHANS)
                return false;
            if (stanza == ZPStore::none)
                enter("");
            const auto place = std::make_pair(stanza, foldedName(dialect, part.name, false));
            if (keys.count(place) == 0)
                keys[place] = store.createKey(stanza, part.name);
            if (dialect.values == ZDIALECT_LAST_VALUE)
                store.replaceValues(keys[place], ZPStore::plain, part.value);
            else
                store.appendValue(keys[place], ZPStore::plain, part.value);
        } else if (part.kind == ZDialectPart::bad || part.kind == ZDialectPart::bareEntry) {
            return false;
        }
    }
    return true;
}

#endif
