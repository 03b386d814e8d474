#include "ZPCache.h"

#include <pthread.h>

#include <charconv>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>

#include "ZException.h"
#include "zdialecttext.h"
#include "zpstore.h"
#include "zraise.h"
#include "zrefusal.h"

typedef ZPStore::Id Id;

// ---------------------------------------------------------------- ZPCache

ZLCString* ZPCache::empty_ = nullptr;

static pthread_once_t emptyOnce = PTHREAD_ONCE_INIT;

void ZPCache::makeEmpty() { empty_ = new ZLCString; }

unsigned long ZPCache::firstAttributes() {
    pthread_once(&emptyOnce, &ZPCache::makeEmpty);
    return 0;
}

ZPCache::ZPCache() : attributes_(firstAttributes()), attributeData_(nullptr), store_(new ZPStore) {}

ZPCache::ZPCache(const ZPCache& other)
    : attributes_(other.attributes_),
      attributeData_(other.attributeData_),
      store_(new ZPStore(*other.store_)) {}

ZPCache::~ZPCache() { delete store_; }

ZArrayList* ZPCache::get(const char*, const char*, get_type_e) const { return nullptr; }
ZArrayList* ZPCache::get(const char*, get_type_e) const { return nullptr; }
void ZPCache::add(const char*, const char*, const char*, int) {}
void ZPCache::add(const char*, const char*, int) {}
void ZPCache::set(const char*, const char*, const char*) {}
void ZPCache::set(const char*, const char*) {}
void ZPCache::setObfuscated(const char*, const char*, const char*) {}
void ZPCache::setObfuscated(const char*, const char*) {}
void ZPCache::remove(const char*, const char*) {}
void ZPCache::remove(const char*) {}

int ZPCache::keyCount(const char* category) const { return contains(category) != 0 ? 1 : 0; }

int ZPCache::contains(const char* category) const {
    return store_->stanzaInMap(zspanOf(category)) != ZPStore::none;
}

int ZPCache::contains(const char*, const char*) const { return 0; }
int ZPCache::isObfuscated(const char*) const { return 0; }
int ZPCache::isObfuscated(const char*, const char*) const { return 0; }

int ZPCache::count() const { return static_cast<int>(store_->stanzaCount()); }

void ZPCache::getNames(ZArrayList& list) const {
    store_->forEachStanza([&](Id stanza) {
        if (list.ownsMembers()) {
            const ZPSlice& slice = store_->stanza(stanza).name;
            const ZLCString name(store_->text(slice), slice.length);
            list.add(&name);
        } else {
            // Another list needs an object that lives as long as the stanza.
            list.add(store_->nameObject(stanza));
        }
    });
}

void ZPCache::getNames(const char*, ZArrayList&) const {}
ZArrayList* ZPCache::getNames(const char*) const { return nullptr; }

void ZPCache::clear() {
    store_->clear();
    obfuscatedDBName_.clear();
}

void ZPCache::setAttributes(unsigned long flags, void* data) {
    attributes_ |= flags;
    attributeData_ = data;
}

void ZPCache::makeKey(ZAbstractMutableString& out, const char* category, const char* key) const {
    ZLCString made(category);
    made.append('.');
    made.append(key);
    out.setChars(made.getChars());
}

int ZPCache::lastValue(const char* category, const char* key, const char*& text,
                       unsigned int& length) const {
    const ZArrayList* values = get(category, key, GET_ANY);
    if (values == nullptr || values->size() == 0)
        return 0;
    const ZAbstractString* last =
        static_cast<const ZAbstractString*>(values->get(values->size() - 1));
    text = last->getChars();
    length = last->getLength();
    return 1;
}

void ZPCache::copyValues(const char* category, const char* key, ZArrayList& list) const {
    const ZArrayList* values = get(category, key, GET_ANY);
    if (values != nullptr)
        list.addList(*values);
}

unsigned int ZPCache::obfuscatedCount() const { return store_->followedCount(); }

void ZPCache::fetchAhead(const char* category, const char* key) const {
    if (store_->isWorthFetching())
        store_->fetchAhead(zspanOf(category), zspanOf(key));
}

int ZPCache::readError() const { return store_->readError(); }

// ---------------------------------------------------------------- look-ups

static Id findKey(const ZPStore& store, const char* category, const char* key) {
    if (key == nullptr)
        return ZPStore::none;
    return store.keyInMap(zspanOf(category), zspanOf(key));
}

ZArrayList* ZPCategoryBasedCache::get(const char* category, const char* key,
                                      get_type_e type) const {
    const Id id = findKey(store(), category, key);
    if (id == ZPStore::none)
        return nullptr;
    switch (type) {
        case GET_ANY:
            return store().valueList(id, store().anyKind(id));
        case GET_PLAIN:
            return store().valueList(id, ZPStore::plain);
        case GET_OBFUSCATED:
            return store().valueList(id, ZPStore::hidden);
    }
    return nullptr;
}

int ZPCategoryBasedCache::contains(const char* category) const {
    return ZPCache::contains(category);
}

int ZPCategoryBasedCache::contains(const char* category, const char* key) const {
    return findKey(store(), category, key) != ZPStore::none;
}

int ZPCategoryBasedCache::keyCount(const char* category) const {
    const Id stanza = store().stanzaInMap(zspanOf(category));
    return stanza == ZPStore::none ? 0 : static_cast<int>(store().stanza(stanza).count);
}

int ZPCategoryBasedCache::countValues(const char* category, const char* key) const {
    const Id id = findKey(store(), category, key);
    if (id == ZPStore::none)
        return 0;
    return static_cast<int>(store().values(id, store().anyKind(id)).count());
}

int ZPCategoryBasedCache::isObfuscated(const char* category, const char* key) const {
    if (!store().mayHaveHidden())
        return 0;
    const Id id = findKey(store(), category, key);
    return id != ZPStore::none && store().anyKind(id) == ZPStore::hidden;
}

int ZPCategoryBasedCache::lastValue(const char* category, const char* key, const char*& text,
                                    unsigned int& length) const {
    const Id id = findKey(store(), category, key);
    if (id == ZPStore::none)
        return 0;
    if (store().areValuesSimple()) {
        const ZPSlice only = store().simpleValue(id);
        if (only.length == 0)
            return 0;
        text = store().text(only);
        length = only.length;
        return 1;
    }
    const ZPValueView values = store().values(id, store().anyKind(id));
    if (values.count() == 0)
        return 0;
    const ZSpan last = values[values.count() - 1];
    text = last.data == nullptr ? "" : last.data;
    length = static_cast<unsigned int>(last.size);
    return 1;
}

void ZPCategoryBasedCache::copyValues(const char* category, const char* key,
                                      ZArrayList& list) const {
    const Id id = findKey(store(), category, key);
    if (id != ZPStore::none)
        store().values(id, store().anyKind(id)).copyTo(list);
}

void ZPCategoryBasedCache::getNames(ZArrayList& list) const { ZPCache::getNames(list); }

void ZPCategoryBasedCache::getNames(const char* category, ZArrayList& list) const {
    const Id stanza = store().stanzaInMap(zspanOf(category));
    if (stanza == ZPStore::none)
        return;
    list.removeAll();
    if (!list.ownsMembers() || store().hasKeyList(stanza)) {
        list.addList(*store().keyList(stanza));
        return;
    }
    // Copies are made from the names themselves: a list that is handed out has to be kept current.
    for (Id k = store().stanza(stanza).first; k != ZPStore::none; k = store().nextKey(k)) {
        const ZPSlice& slice = store().key(k).name;
        const ZLCString key(store().text(slice), slice.length);
        list.add(&key);
    }
}

ZArrayList* ZPCategoryBasedCache::getNames(const char* category) const {
    const Id stanza = store().stanzaInMap(zspanOf(category));
    return stanza == ZPStore::none ? nullptr : store().keyList(stanza);
}

// Prints texts one behind the other, however long.
static void print(FILE* stream, std::initializer_list<ZSpan> texts) {
    for (const ZSpan& text : texts)
        if (text.size != 0)
            fwrite(text.data, 1, text.size, stream);
}

void ZPCategoryBasedCache::list(FILE* stream) const {
    const ZPStore& model = store();
    model.forEachStanza([&](Id s) {
        print(stream, {{"\n[", 2}, model.text().span(model.stanza(s).name), {"]\n", 2}});
        for (Id k = model.stanza(s).first; k != ZPStore::none; k = model.nextKey(k)) {
            const ZSpan key = model.text().span(model.key(k).name);
            const ZPValueView values = model.values(k, ZPStore::plain);
            for (uint32_t i = 0; i < values.count(); ++i)
                print(stream, {key, {" = ", 3}, values[i], {"\n", 1}});
            if (values.count() == 0)
                print(stream, {key, {" =\n", 3}});
        }
    });
}

// ---------------------------------------------------------------- changes of the map

void ZPCategoryBasedCache::add(const char* category, const char* key, const char* value,
                               int obfuscated) {
    const Id owner = store().createStanza(zspanOf(category));
    if (key == nullptr)
        return;
    const Id id = store().createKey(owner, zspanOf(key));
    const ZSpan text = zspanOf(value);
    if (text.size == 0)
        return;
    const ZPStore::Kind kind = obfuscated != 0 ? ZPStore::hidden : ZPStore::plain;
    const bool first = store().values(id, kind).count() == 0;
    store().appendValue(id, kind, text);
    if (kind == ZPStore::hidden && first)
        store().follow(id);
}

// This value in place of all values of the key; it decides whether the side database follows it.
static void setValue(ZPStore& store, Id key, ZPStore::Kind kind, ZSpan value) {
    store.replaceValues(key, kind, value);
    if (kind == ZPStore::hidden && value.size != 0)
        store.follow(key);
    else
        store.unfollow(key);
}

static void setValue(ZPStore& store, const char* category, const char* key, ZPStore::Kind kind,
                     const char* value) {
    const Id owner = store.createStanza(zspanOf(category));
    if (key != nullptr)
        setValue(store, store.createKey(owner, zspanOf(key)), kind, zspanOf(value));
}

void ZPCategoryBasedCache::set(const char* category, const char* key, const char* value) {
    setValue(store(), category, key, ZPStore::plain, value);
}

void ZPCategoryBasedCache::setObfuscated(const char* category, const char* key, const char* value) {
    setValue(store(), category, key, ZPStore::hidden, value);
}

void ZPCategoryBasedCache::remove(const char* category, const char* key) {
    const Id id = findKey(store(), category, key);
    if (id != ZPStore::none)
        store().removeKey(id);
}

void ZPCategoryBasedCache::remove(const char* category) {
    const Id stanza = store().stanzaInMap(zspanOf(category));
    if (stanza != ZPStore::none)
        store().removeStanza(stanza);
}

// ---------------------------------------------------------------- changes of map and lines

void ZPCache::checkValue(const char* key, const char* value, int obfuscated, int mayBeEmpty) const {
    const ZDialect* dialect = store().dialect().get();
    if (isStrict() == 0 && dialect == nullptr)
        return;
    if (obfuscated != 0)
        zrequireNoFault(zfaultOfHiddenValue(value, dialect));
    else
        zrequireNoFault(zfaultOfValue(key, value, mayBeEmpty != 0, dialect));
}

// Where repeated stanzas are numbered a new one stands behind all others of its name, and has to
// have the number that a load will give it.
static void requireNumber(const ZPStore& store, ZSpan name) {
    const ZDialect* dialect = store.dialect().get();
    if (dialect == nullptr || dialect->repeated != ZDIALECT_NUMBERED)
        return;
    const auto numberOf = [](ZSpan stanza) {
        const size_t base = zwithoutNumber(stanza).size;
        unsigned long number = 1;
        if (base != stanza.size)
            std::from_chars(stanza.data + base + 1, stanza.data + stanza.size, number);
        return number;
    };
    const auto folded = [dialect](ZSpan stanza) {
        ZBytes out;
        zdialectFold(*dialect, zwithoutNumber(stanza), true, out);
        return std::string(out.data(), out.size());
    };
    const std::string base = folded(name);
    const unsigned long number = numberOf(name);
    const std::string own = number == 1 ? base : base + '#' + std::to_string(number);
    bool isNext = own.size() == name.size;
    if (!store.hasGaps()) {
        const std::string last = number == 2 ? base : base + '#' + std::to_string(number - 1);
        isNext = isNext &&
                 (number == 1 || store.stanzaInMap({last.data(), last.size()}) != ZPStore::none);
    } else {
        unsigned long count = 0;
        store.forEachStanza([&](ZPStore::Id id) {
            const ZSpan other = store.text().span(store.stanza(id).name);
            if (folded(other) != base)
                return;
            ++count;
            isNext = isNext && numberOf(other) < number;
        });
        isNext = isNext && count == number - 1;
    }
    if (!isNext)
        zrequireNoFault({"a stanza's name", "would get another number"});
}

int ZPCategoryBasedCache::addStanzaLine(const char* category) {
    const ZDialect* dialect = store().dialect().get();
    if (isStrict() != 0 || dialect != nullptr)
        zrequireNoFault(zfaultOfStanza(category, dialect));
    const ZSpan name = zspanOf(category);
    if (store().stanzaInMap(name) != ZPStore::none)
        return 1;
    requireNumber(store(), name);
    store().addHeader(store().createStanza(name));
    return 0;
}

void ZPCategoryBasedCache::delStanzaLine(const char* category) {
    const Id stanza = store().findStanza(zspanOf(category));
    if (stanza == ZPStore::none)
        return;
    // The group goes first: a stanza that has neither map entry nor group is forgotten.
    const bool inMap = store().stanza(stanza).inMap;
    store().removeGroup(stanza);
    if (inMap)
        store().removeStanza(stanza);
}

void ZPCategoryBasedCache::addLine(const char* category, const char* key, const char* value,
                                   int obfuscated) {
    if (key == nullptr) {
        addStanzaLine(category);
        return;
    }
    const ZDialect* dialect = store().dialect().get();
    if (isStrict() != 0 || dialect != nullptr) {
        zrequireNoFault(zfaultOfStanza(category, dialect));
        zrequireNoFault(zfaultOfKey(key, dialect));
        checkValue(key, value, obfuscated, 1);
    }
    ZPStore& model = store();
    const ZSpan stanza = zspanOf(category), name = zspanOf(key), text = zspanOf(value);
    const ZPStore::Sought sought = model.seekToChange(stanza, name);
    Id id = sought.key;
    const bool existed = id != ZPStore::none && model.isInMap(id);
    if (!existed) {
        Id owner = model.stanzaInMap(stanza, sought);
        if (owner == ZPStore::none) {
            requireNumber(model, stanza);
            owner = model.createStanza(stanza);
            model.addHeader(owner);
        }
        if (obfuscated == 0 && model.createKeyAtOnce(owner, name, sought, text))
            return;
        id = model.createKey(owner, name, sought);
    }
    try {
        setValue(model, id, obfuscated != 0 ? ZPStore::hidden : ZPStore::plain, text);
        // A key that only the side database knew gets a line with its first plain value, or the
        // value would be missing from the file.
        if (existed && (model.hasLine(id) || obfuscated != 0 || text.size == 0))
            return;
        const Id owner = model.key(id).stanza;
        if (model.stanza(owner).group == ZPStore::none)
            model.addHeader(owner);
        model.placeKeyLine(id);
    } catch (...) {
        // Without a line it would be there for everybody but the file.
        if (!existed)
            model.removeKey(id);
        throw;
    }
}

void ZPCategoryBasedCache::delLine(const char* category, const char* key) {
    if (key == nullptr)
        return;
    const ZPStore::Sought sought = store().seekToChange(zspanOf(category), zspanOf(key));
    if (sought.key != ZPStore::none)
        store().removeWithLines(sought);
}

void ZPCategoryBasedCache::addFileComment(const char* text) {
    if (isStrict())
        zrequireNoFault(zfaultOfComment(text));
    store().addFileComment(zspanOf(text));
}

void ZPCategoryBasedCache::addStanzaComment(const char* category, const char* text) {
    if (isStrict())
        zrequireNoFault(zfaultOfComment(text));
    addStanzaLine(category);
    const Id stanza = store().stanzaInMap(zspanOf(category));
    if (store().stanza(stanza).group == ZPStore::none)
        store().addHeader(stanza);
    store().addStanzaComment(stanza, zspanOf(text));
}

void ZPCategoryBasedCache::addLineComment(const char* category, const char* key, const char* text) {
    if (isStrict())
        zrequireNoFault(zfaultOfComment(text));
    if (contains(category, key) == 0)
        addLine(category, key, nullptr, 0);
    const Id id = findKey(store(), category, key);
    if (id != ZPStore::none)
        store().addKeyComment(id, zspanOf(text));
}

void ZPCategoryBasedCache::checkInvariants() const { store().checkInvariants(); }

// ---------------------------------------------------------------- composite keys

void ZPCategoryBasedCache::validateKey(const char* composite, ZLCString& category, ZLCString& key) {
    const char* dot = composite == nullptr ? nullptr : strchr(composite, '.');
    zrequire(dot != nullptr);
    if (static_cast<size_t>(dot - composite) > 0xFFFFFFF0u)
        zraise(ZOutOfMemoryException());
    const ZLCString stanza(composite, static_cast<unsigned int>(dot - composite));
    key.setChars(dot + 1);
    category = stanza;
}

namespace {

// The two parts of a composite key.
struct Composite {
    ZLCString category, key;
    explicit Composite(const char* composite) {
        ZPCategoryBasedCache::validateKey(composite, category, key);
    }
};

}  // namespace

ZArrayList* ZPCategoryBasedCache::get(const char* key, get_type_e type) const {
    const Composite parts(key);
    return get(parts.category.getChars(), parts.key.getChars(), type);
}

void ZPCategoryBasedCache::add(const char* key, const char* value, int obfuscated) {
    const Composite parts(key);
    add(parts.category.getChars(), parts.key.getChars(), value, obfuscated);
}

void ZPCategoryBasedCache::set(const char* key, const char* value) {
    const Composite parts(key);
    set(parts.category.getChars(), parts.key.getChars(), value);
}

void ZPCategoryBasedCache::setObfuscated(const char* key, const char* value) {
    const Composite parts(key);
    setObfuscated(parts.category.getChars(), parts.key.getChars(), value);
}

int ZPCategoryBasedCache::countValues(const char* key) const {
    const Composite parts(key);
    return countValues(parts.category.getChars(), parts.key.getChars());
}

int ZPCategoryBasedCache::isObfuscated(const char* key) const {
    const Composite parts(key);
    return isObfuscated(parts.category.getChars(), parts.key.getChars());
}

void ZPCategoryBasedCache::addLine(const char* key, const char* value, int obfuscated) {
    const Composite parts(key);
    addLine(parts.category.getChars(), parts.key.getChars(), value, obfuscated);
}

void ZPCategoryBasedCache::delLine(const char* key) {
    const Composite parts(key);
    delLine(parts.category.getChars(), parts.key.getChars());
}

void ZPCategoryBasedCache::addLineComment(const char* key, const char* text) {
    const Composite parts(key);
    addLineComment(parts.category.getChars(), parts.key.getChars(), text);
}
