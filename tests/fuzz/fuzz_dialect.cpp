// Any bytes as a text of any dialect. The parts put together are the text; each value that is read
// and can be spelled reads back; a text rewritten by what it says stays as it is; one that was
// changed says what it was changed to.
//
// The input is four bytes for the switches, then the text.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "Z/ZException.h"
#include "Z/zgrammar.h"
#include "support/DialectStore.h"

using std::string;

static void require(bool holds, const char* what, const string& text) {
    if (holds)
        return;
    fprintf(stderr, "%s: %s\n", what, text.c_str());
    abort();
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("QELDIR", "/opt/Quillmere/nls/QEL", 0);
    return 0;
}

static ZDialect dialectOf(const uint8_t* data) {
    ZDialect d = {};
    d.size = sizeof d;
    d.comments = data[0] & 3;
    d.divider = data[0] >> 2 & 3;
    d.tails = (data[0] >> 4 & 3) + (data[2] >> 7 & 1);
    d.bare = data[0] >> 6 & 1;
    d.continued = data[1] & 3;
    d.quotes = (data[1] >> 2 & 3) % 3;
    d.repeated = (data[1] >> 4 & 3) % 3;
    d.names = (data[1] >> 6 & 3) + (data[2] >> 6 & 1);
    d.headers = data[2] & 3;
    d.orphans = data[2] >> 2 & 1;
    d.values = (data[2] >> 3 & 1) + (data[2] >> 5 & 1);
    d.lines = data[2] >> 4 & 1;
    return d;
}

static void checkParts(const ZDialect& d, const string& text) {
    const ZDialectHabit habit = {{"", 0},
                                 {"", 0},
                                 {d.divider == ZDIALECT_COLON   ? ":"
                                  : d.divider == ZDIALECT_BLANK ? " "
                                                                : "=",
                                  1},
                                 {"", 0},
                                 {"\n", 1},
                                 {"    ", 4}};
    ZDialectReader reader(d, spanOf(text));
    ZDialectPart part;
    string all;
    int line = 1;
    while (reader.next(part)) {
        require(part.line == line, "line", text);
        const string own = stringOf(part.lines);
        require(!own.empty(), "an empty part", text);
        for (char c : own)
            line += c == '\n';
        all += own;
        // Blanks with nothing behind them are no divider.
        const bool isUnsaid = d.divider == ZDIALECT_BLANK && part.value.size == 0;
        if (part.kind != ZDialectPart::entry || isUnsaid)
            continue;
        require(part.raw.data >= part.lines.data &&
                    part.raw.data + part.raw.size <= part.lines.data + part.lines.size,
                "raw outside", own);
        ZBytes spelled;
        const string value = stringOf(part.value);
        if (!zdialectEncode(d, part.value, part.raw, habit, spelled)) {
            // A backslash and a comment's sign may be read where none can be written.
            require(d.lines == ZDIALECT_SHORT_LINES ? own.size() > 4000 || d.continued != 0
                                                    : d.continued != 0,
                    "can't be spelled", own);
            continue;
        }
        const string again = "k" + stringOf(habit.divider) + stringOf(zspanOf(spelled)) + "\n";
        ZDialectReader second(d, spanOf(again));
        ZDialectPart read;
        require(second.next(read) && read.kind == ZDialectPart::entry &&
                    stringOf(read.value) == value && read.lines.size == again.size(),
                "reads otherwise", own);
    }
    require(all == text, "parts aren't the text", all);
}

static void checkRewrite(const ZDialect& d, const string& text, unsigned int what) {
    ZPStore store;
    if (!fillStore(d, text, store))
        return;
    ZBytes out;
    zdialectRewrite(d, store, spanOf(text), out);
    require(stringOf(zspanOf(out)) == text, "rewritten", stringOf(zspanOf(out)));
    // One value is changed, and one key added.
    ZPStore::Id key = ZPStore::none, stanza = ZPStore::none;
    for (ZPStore::Id k = 0; k < store.keyEnd() && k <= what % 4; ++k)
        key = k;
    if (key == ZPStore::none)
        return;
    stanza = store.key(key).stanza;
    const string stanzaName = stringOf(store.text().span(store.stanza(stanza).name));
    const string keyName = stringOf(store.text().span(store.key(key).name));
    const string value = (what & 8) != 0 ? "x y" : "changed";
    const string added = "zzadded";
    for (ZPStore::Id k = 0; k < store.keyEnd(); ++k)
        if (foldedName(d, store.text().span(store.key(k).name), false).find("dded") != string::npos)
            return;
    store.replaceValues(key, ZPStore::plain, spanOf(value));
    if ((what & 16) != 0)
        store.appendValue(store.createKey(stanza, spanOf(added)), ZPStore::plain, {"w", 1});
    try {
        zdialectRewrite(d, store, spanOf(text), out);
    } catch (ZException&) {
        return;
    }
    const string changed = stringOf(zspanOf(out));
    ZPStore again;
    require(fillStore(d, changed, again), "changed to bad data", text + "\n->\n" + changed);
    const ZPStore::Id found = again.keyInMap(spanOf(stanzaName), spanOf(keyName));
    require(found != ZPStore::none && again.values(found, ZPStore::plain).count() == 1 &&
                stringOf(again.values(found, ZPStore::plain)[0]) == value,
            "not changed", text + "\n->\n" + changed);
    require(again.keyEnd() == store.keyEnd(), "other keys", text + "\n->\n" + changed);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4)
        return 0;
    const ZDialect d = dialectOf(data);
    if (zdialectClash(d).first != nullptr)
        return 0;
    const string text(reinterpret_cast<const char*>(data) + 4, size - 4);
    checkParts(d, text);
    checkRewrite(d, text, data[3]);
    return 0;
}
