// DialectStore.h: a store that holds what a text of a dialect says.
#ifndef SUPPORT_DIALECTSTORE_H
#define SUPPORT_DIALECTSTORE_H

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

// False where the text has bad data.
inline bool fillStore(const ZDialect& dialect, const std::string& text, ZPStore& store) {
    return zdialectFill(dialect, spanOf(text), store);
}

#endif
