#include "ZDialects.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "ZExceptionText.h"
#include "ZLayers.h"
#include "zdialectconvert.h"
#include "zdialectpatterns.h"
#include "zdialecttext.h"
#include "zinternal.h"
#include "zraise.h"
#include "zrefusal.h"
#include "zwholefile.h"

static const char kSwitches[] = "dialect";

namespace {

struct Word {
    const char* name;
    unsigned int value;
};

struct Switch {
    const char* name;
    unsigned int ZDialect::*field;
    bool hasBits;
    Word words[5];
};

const Word kNo = {"no", 0};

const Switch kAll[] = {
    {"comments",
     &ZDialect::comments,
     true,
     {{"hash", ZDIALECT_HASH}, {"semicolon", ZDIALECT_SEMICOLON}}},
    {"divider",
     &ZDialect::divider,
     false,
     {{"equals", ZDIALECT_EQUALS},
      {"colon", ZDIALECT_COLON},
      {"either", ZDIALECT_EITHER},
      {"blank", ZDIALECT_BLANK}}},
    {"tails",
     &ZDialect::tails,
     false,
     {kNo,
      {"blank", ZDIALECT_TAILS},
      {"anywhere", ZDIALECT_TAILS_ANYWHERE},
      {"hash", ZDIALECT_HASH_TAILS},
      {"semicolon", ZDIALECT_SEMICOLON_TAILS}}},
    {"bare", &ZDialect::bare, false, {kNo, {"yes", ZDIALECT_BARE}}},
    {"continued",
     &ZDialect::continued,
     false,
     {kNo,
      {"indent", ZDIALECT_INDENT},
      {"backslash", ZDIALECT_BACKSLASH},
      {"joined", ZDIALECT_JOINED}}},
    {"quotes",
     &ZDialect::quotes,
     false,
     {{"plain", ZDIALECT_PLAIN}, {"git", ZDIALECT_GIT_QUOTES}, {"shell", ZDIALECT_SHELL_QUOTES}}},
    {"repeated",
     &ZDialect::repeated,
     false,
     {kNo, {"merged", ZDIALECT_MERGED}, {"numbered", ZDIALECT_NUMBERED}}},
    {"names",
     &ZDialect::names,
     false,
     {{"exact", ZDIALECT_EXACT},
      {"folded", ZDIALECT_FOLDED},
      {"folded-blanks", ZDIALECT_FOLDED_BLANKS},
      {"folded-keys", ZDIALECT_FOLDED_KEYS},
      {"folded-stanzas", ZDIALECT_FOLDED_STANZAS}}},
    {"headers",
     &ZDialect::headers,
     true,
     {{"subsections", ZDIALECT_SUBSECTIONS}, {"tails", ZDIALECT_HEADER_TAILS}}},
    {"orphans", &ZDialect::orphans, false, {kNo, {"yes", ZDIALECT_ORPHANS}}},
    {"values",
     &ZDialect::values,
     false,
     {{"all", ZDIALECT_ALL_VALUES},
      {"last", ZDIALECT_LAST_VALUE},
      {"reset", ZDIALECT_RESET_VALUES}}},
    {"lines",
     &ZDialect::lines,
     false,
     {{"short", ZDIALECT_SHORT_LINES}, {"any", ZDIALECT_ANY_LINES}}},
};

}  // namespace

[[noreturn]] static void raiseBad(const ZLayers& preset, const char* key, const char* text) {
    ZLCString file;
    int line = 0;
    if (key != nullptr)
        preset.getOrigin(kSwitches, key, 0, file, line);
    zraise(ZPropertiesInvalidDataException(file.getChars(), text, line));
}

static void readSwitch(const ZLayers& preset, const Switch& which, ZDialect& dialect) {
    ZArrayList values(2, 1);
    preset.getValues(kSwitches, which.name, values, ZPROP_STRING_LOCAL);
    for (unsigned int i = 0; i < values.size(); ++i) {
        const char* text = static_cast<const ZLCString*>(values.get(i))->getChars();
        const Word* found = std::find_if(
            std::begin(which.words), std::end(which.words),
            [text](const Word& word) { return word.name != nullptr && !strcmp(word.name, text); });
        if (found == std::end(which.words))
            raiseBad(preset, which.name, text);
        unsigned int& field = dialect.*which.field;
        field = which.hasBits ? field | found->value : found->value;
    }
}

void ZDialects::get(const char* name, ZDialect& dialect) {
    const ZDialectRoots roots;
    const ZLayers preset(roots.terms(name), ZPCACHE_STRICT);
    if (zfileOfDialect(preset).getLength() == 0)
        zraiseIO(name, "fopen(r)", ENOENT);
    ZDialect read = {};
    read.size = sizeof read;
    ZArrayList keys(20, 1);
    if (preset.exists(kSwitches) != 0)
        preset.keyNames(kSwitches, keys);
    for (unsigned int i = 0; i < keys.size(); ++i) {
        const char* key = static_cast<const ZLCString*>(keys.get(i))->getChars();
        const Switch* which =
            std::find_if(std::begin(kAll), std::end(kAll),
                         [key](const Switch& one) { return strcmp(one.name, key) == 0; });
        if (which == std::end(kAll))
            raiseBad(preset, key, key);
        readSwitch(preset, *which, read);
    }
    const ZDialectClash clash = zdialectClash(read);
    if (clash.first != nullptr) {
        ZLCString text(clash.first);
        text.append(' ').append(clash.second);
        raiseBad(preset, nullptr, text.getChars());
    }
    dialect = read;
}

bool ZDialects::ofFile(const char* path, ZLCString& name, ZLCString& pattern) {
    zrequire(zhasText(path));
    return ZDialectPatterns().find(path, name, pattern);
}

void ZDialects::forEach(void (*visit)(void* data, const char* name, const char* description),
                        void* data) {
    zrequire(visit != nullptr);
    const ZDialectRoots roots;
    ZVector<ZDialectPreset> presets;
    zlistDialects(roots, presets);
    for (const ZDialectPreset& preset : presets) {
        const ZLCString& name = preset.name;
        const ZLCString file(zfileOfDialect(ZLayers(roots.terms(name.getChars()))));
        if (file.getLength() == 0)
            continue;
        ZStanzaFileProperties own(file.getChars(), 1);
        ZArrayList comments(4, 1);
        own.getComments(nullptr, nullptr, comments);
        const char* text =
            comments.size() == 0 ? "#" : static_cast<ZLCString*>(comments.get(0))->getChars();
        ++text;
        visit(data, name.getChars(), text + strspn(text, " "));
    }
}

static void requireNoClash(const ZDialect* dialect) {
    const ZDialectClash clash = dialect == nullptr ? ZDialectClash{} : zdialectClash(*dialect);
    if (clash.first != nullptr)
        zrequireNoFault({clash.first, clash.second});
}

void ZDialects::convert(const ZDialect* from, const void* bytes, size_t length, const ZDialect* to,
                        ZBuffer& out,
                        void (*leftOut)(void* data, int line, const char* text, const char* reason),
                        void* data) {
    zrequire(bytes != nullptr || length == 0);
    requireNoClash(from);
    requireNoClash(to);
    const auto ignore = [](void*, int, const char*, const char*) {};
    ZBytes made;
    zdialectConvert(from, "", {static_cast<const char*>(bytes), length}, to,
                    leftOut == nullptr ? ignore : leftOut, data, made);
    out.setBuffer(made.size(), made.data());
}
