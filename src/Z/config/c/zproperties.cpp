// zproperties.cpp: the C interface on ZStanzaFileProperties. Exceptions become result numbers in
// one place, zproperror.cpp, and cancellation alone passes through.
#include "zproperties.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "ZExceptionText.h"
#include "ZPropHandle.h"
#include "ZPropertiesImpl.h"
#include "zgrammar.h"
#include "zproperror.h"
#include "zqelutil.h"
#include "zraise.h"
#include "zrefusal.h"

int zstzPropLastError(ZPROP_error* error) { return zlastError(error); }

int zstzPropLastErrno(void) { return zlastErrno(); }

int zstzPropSetup(int how) {
    zclearLastError();
    if (how != ZPROP_SETUP_UTF8)
        return zparameterError();
    const int result = zsetUpUTF8();
    if (result < 0)
        znoteLastError(1, nullptr, 0, "no memory, no descriptor or no C.UTF-8 to set text up");
    if (result > 0)
        znoteLastError(22, nullptr, 0, "text was set up by QELDIR before, or couldn't be");
    return result == 0 ? ZPROP_OK : result < 0 ? ZPROP_ERR_VALUE : ZPROP_ERR_SETUP;
}

// ---------------------------------------------------------------- handles

int zstzPropOpen(ZPROP_handle** out, const char* file, ZPROPOpenMode mode) {
    zclearLastError();
    if (out == nullptr || file == nullptr || (mode != ZPROP_OPEN_READ && mode != ZPROP_OPEN_UPDATE))
        return zparameterError();
    *out = nullptr;
    return zguarded(zfileGroup, [&] {
        std::unique_ptr<ZPROP_stz_handle> handle(new ZPROP_stz_handle(mode));
        handle->properties.load(file);
        *out = handle.release();
    });
}

void zstzPropClose(ZPROP_handle* handle) {
    if (zliveProperties(handle) == nullptr)
        return;
    // Another thread's update holds the object, and only that thread can let it go.
    if (!static_cast<ZPROP_stz_handle*>(handle)->updatesElsewhere())
        delete handle;
}

int zstzPropStore(ZPROP_handle* handle, const char* file) {
    ZStanzaFileProperties* properties = zliveProperties(handle);
    if (properties == nullptr)
        return zparameterError();
    return zstoreResult(static_cast<ZPROP_stz_handle*>(handle),
                        zguarded(zfileGroup, [&] { properties->store(file); }));
}

// ---------------------------------------------------------------- reading

// Answers a question about the object behind `handle`; the result number goes to *err. `complete`:
// no argument is null that must not be; otherwise *err is left alone and the answer is
// `incompleteAnswer`.
template <typename Answer, typename Question>
static Answer ask(ZPROP_handle* handle, int* err, bool complete, Answer incompleteAnswer,
                  Question question) {
    if (!complete || err == nullptr) {
        zparameterError();
        return incompleteAnswer;
    }
    const Answer nothing = Answer();
    ZStanzaFileProperties* properties = zliveProperties(handle);
    if (properties == nullptr) {
        *err = zparameterError();
        return nothing;
    }
    Answer answer = nothing;
    *err = zguarded(zreadGroup, [&] { answer = question(*properties); });
    return *err == ZPROP_OK ? answer : nothing;
}

int zstzPropExists(ZPROP_handle* handle, const char* stanza, const char* key, int* err) {
    return ask(handle, err, stanza != nullptr, 0, [&](ZStanzaFileProperties& p) {
        return key == nullptr ? p.exists(stanza) : p.exists(stanza, key);
    });
}

int zstzPropIsHidden(ZPROP_handle* handle, const char* stanza, const char* key, int* err) {
    return ask(handle, err, stanza != nullptr && key != nullptr, 0, [&](ZStanzaFileProperties& p) {
        return p.exists(stanza, key) != 0 ? p.isObfuscated(stanza, key) : 0;
    });
}

int zstzPropNumStanzas(ZPROP_handle* handle, int* err) {
    return ask(handle, err, true, 0, [](ZStanzaFileProperties& p) { return p.count(); });
}

int zstzPropNumKeys(ZPROP_handle* handle, const char* stanza, int* err) {
    return ask(handle, err, stanza != nullptr, 0,
               [&](ZStanzaFileProperties& p) { return p.count(stanza); });
}

int zstzPropNumValues(ZPROP_handle* handle, const char* stanza, const char* key, int* err) {
    return ask(handle, err, stanza != nullptr && key != nullptr, 0,
               [&](ZStanzaFileProperties& p) { return p.numValues(stanza, key); });
}

// Strings that are handed out carry a word in front of them, by which zstzPropFree knows them.
static const uint32_t kStringMark = 0xC0FFEEEEu;

char* znewString(const char* text, size_t length) {
    char* block = static_cast<char*>(malloc(sizeof kStringMark + length + 1));
    if (block == nullptr)
        zraise(ZOutOfMemoryException());
    memcpy(block, &kStringMark, sizeof kStringMark);
    char* string = block + sizeof kStringMark;
    if (length != 0)
        memcpy(string, text, length);
    string[length] = '\0';
    return string;
}

void zbeginString(ZBytes& bytes) {
    zappendBytes(bytes, {reinterpret_cast<const char*>(&kStringMark), sizeof kStringMark});
}

char* zendString(ZBytes& bytes) {
    bytes.reserveMore(1);
    bytes.push('\0');
    return bytes.release() + sizeof kStringMark;
}

// Looks in front of a pointer that may not be ours: out of bounds on purpose, in this one read.
__attribute__((no_sanitize("address"), no_sanitize("thread"), noinline)) static bool hasStringMark(
    const char* string) {
    typedef uint32_t Word __attribute__((aligned(1), may_alias));
    return *reinterpret_cast<const volatile Word*>(string - sizeof kStringMark) == kStringMark;
}

static void myStrFree(char* string) {
    if (!hasStringMark(string))
        return;
    char* block = string - sizeof kStringMark;
    memset(block, 0, sizeof kStringMark);
    free(block);
}

void zstzPropFree(char* string) {
    zclearLastError();
    if (string != nullptr)
        myStrFree(string);
}

char* zstzPropGetStringValue(ZPROP_handle* handle, const char* stanza, const char* key,
                             int required, int* err) {
    return ask(handle, err, stanza != nullptr && key != nullptr, static_cast<char*>(nullptr),
               [&](ZStanzaFileProperties& p) {
                   // As getValue, but copied once.
                   char* copy = nullptr;
                   ZPropertiesFile::of(p).giveValue(
                       stanza, key, required, [&](const char* text, unsigned int length) {
                           copy = length == 0 ? nullptr : znewString(text, length);
                       });
                   return copy;
               });
}

unsigned int zstzPropGetIntegerValue(ZPROP_handle* handle, const char* stanza, const char* key,
                                     int required, int* err) {
    return ask(handle, err, stanza != nullptr && key != nullptr,
               static_cast<unsigned int>(ZPROP_ERR_PARAM), [&](ZStanzaFileProperties& p) {
                   return p.getIntegerValue(stanza, key, required, 0);
               });
}

int zstzPropGetBooleanValue(ZPROP_handle* handle, const char* stanza, const char* key, int required,
                            int* err) {
    return ask(
        handle, err, stanza != nullptr && key != nullptr, ZPROP_ERR_PARAM,
        [&](ZStanzaFileProperties& p) { return p.getBooleanValue(stanza, key, required, 0); });
}

int64_t zstzPropGetInt64Value(ZPROP_handle* handle, const char* stanza, const char* key,
                              int required, int* err) {
    return ask(
        handle, err, stanza != nullptr && key != nullptr, int64_t(0),
        [&](ZStanzaFileProperties& p) { return p.getInteger64Value(stanza, key, required, 0); });
}

double zstzPropGetDoubleValue(ZPROP_handle* handle, const char* stanza, const char* key,
                              int required, int* err) {
    return ask(
        handle, err, stanza != nullptr && key != nullptr, 0.0,
        [&](ZStanzaFileProperties& p) { return p.getDoubleValue(stanza, key, required, 0); });
}

// ---------------------------------------------------------------- lists

static void freeTexts(char** texts) {
    for (char** text = texts; text != nullptr && *text != nullptr; ++text)
        free(*text);
    free(texts);
}

// Holds an object's lock for a scope, so that a call of several steps is one for other threads: a
// walk over nothing does just that.
typedef ZPropertiesIterator ObjectLock;

static char* duplicate(const char* text) {
    char* copy = strdup(text);
    if (copy == nullptr)
        zraise(ZOutOfMemoryException());
    return copy;
}

// A list of plain copies that ends with null.
static char** duplicateAll(const ZArrayList& strings) {
    const size_t count = strings.size();
    std::unique_ptr<char*, decltype(&freeTexts)> texts(
        static_cast<char**>(calloc(count + 1, sizeof(char*))), &freeTexts);
    if (texts == nullptr)
        zraise(ZOutOfMemoryException());
    for (unsigned int i = 0; i < count; ++i)
        texts.get()[i] = duplicate(static_cast<const ZAbstractString*>(strings.get(i))->getChars());
    return texts.release();
}

static void answerItem(ZStanzaFileProperties& p, const ZPROP_item& item) {
    const int required = item.flag != ZPROP_ITEM_OPTIONAL;
    zrequire(item.result != nullptr);
    switch (item.kind) {
        case ZPROP_ITEM_BOOLEAN:
            *static_cast<int*>(item.result) = p.getBooleanValue(item.stanza, item.key, required, 0);
            break;
        case ZPROP_ITEM_INTEGER:
            *static_cast<int*>(item.result) =
                static_cast<int>(p.getIntegerValue(item.stanza, item.key, required, 0));
            break;
        case ZPROP_ITEM_STRING: {
            ZLCString text;
            p.getValue(item.stanza, item.key, text, required, nullptr);
            *static_cast<char**>(item.result) =
                text.getLength() == 0 ? nullptr : duplicate(text.getChars());
            break;
        }
        case ZPROP_ITEM_VALUES: {
            ZArrayList values(2, 1);
            p.getValues(item.stanza, item.key, values, ZPROP_STRING_LOCAL);
            *static_cast<char***>(item.result) = duplicateAll(values);
            break;
        }
        default:
            zraise(ZInvalidParameterException());
    }
}

int zstzPropGetValues(ZPROP_handle* handle, ZPROP_item* items, int count) {
    ZStanzaFileProperties* properties = zliveProperties(handle);
    if (properties == nullptr || (items == nullptr && count != 0))
        return zparameterError();
    return zguarded(zreadGroup, [&] {
        const ObjectLock lock(*properties);
        for (int i = 0; i < count; ++i)
            answerItem(*properties, items[i]);
    });
}

void zstzPropFreeValuesList(ZPROP_handle* handle, ZPROP_item* items, int count) {
    if (zliveProperties(handle) == nullptr || items == nullptr)
        return;
    for (int i = 0; i < count; ++i) {
        if (items[i].result == nullptr)
            continue;
        if (items[i].kind == ZPROP_ITEM_STRING) {
            char** text = static_cast<char**>(items[i].result);
            free(*text);
            *text = nullptr;
        } else if (items[i].kind == ZPROP_ITEM_VALUES) {
            char*** texts = static_cast<char***>(items[i].result);
            freeTexts(*texts);
            *texts = nullptr;
        }
    }
}

// Gives the texts that fill(object, list) brings, as of one moment.
template <typename Fill>
static int listTexts(ZPROP_handle* handle, char*** texts, bool complete, Fill fill) {
    ZStanzaFileProperties* properties = zliveProperties(handle);
    if (properties == nullptr || texts == nullptr || !complete)
        return zparameterError();
    *texts = nullptr;
    return zguarded(zreadGroup, [&] {
        const ObjectLock lock(*properties);  // keyNames takes none
        ZArrayList list(10, 1);
        fill(*properties, list);
        *texts = duplicateAll(list);
    });
}

int zstzPropGetStanzas(ZPROP_handle* handle, char*** names) {
    return listTexts(handle, names, true,
                     [](ZStanzaFileProperties& p, ZArrayList& list) { p.keyNames(list); });
}

int zstzPropGetKeys(ZPROP_handle* handle, const char* stanza, char*** names) {
    return listTexts(handle, names, stanza != nullptr,
                     [&](ZStanzaFileProperties& p, ZArrayList& list) { p.keyNames(stanza, list); });
}

int zstzPropGetComments(ZPROP_handle* handle, const char* stanza, const char* key, char*** lines) {
    return listTexts(handle, lines, true, [&](ZStanzaFileProperties& p, ZArrayList& list) {
        p.getComments(stanza, key, list);
    });
}

void zstzPropFreeStanzas(char** names) {
    zclearLastError();
    freeTexts(names);
}

// ---------------------------------------------------------------- changing

// Lets one change run on the object behind `handle` and turns its outcome into a result number.
// `complete`: none of the arguments that are needed is null.
template <typename Change>
static int applyChange(ZPROP_handle* handle, bool complete, Change change) {
    ZStanzaFileProperties* properties = zliveProperties(handle);
    if (properties == nullptr || !complete)
        return zparameterError();
    return zguarded(zchangeGroup, [&] { change(*properties); });
}

// Where hidden values are stays as long as there are any: without its entry, or with another, no
// load would find them.
static void requireNothingHidden(const ZStanzaFileProperties& properties) {
    const ZPropertiesFile& file = ZPropertiesFile::of(properties);
    ZResourceLock guard(file.lock());
    if (file.cache().obfuscatedCount() != 0)
        zrequireNoFault({"the entry of the side database", "stays while values are hidden"});
}

// Lets one change run on a key, or on a stanza if it is null.
template <typename Change>
static int changeEntry(ZPROP_handle* handle, bool complete, const char* stanza, const char* key,
                       Change change) {
    return applyChange(handle, complete && stanza != nullptr, [&](ZStanzaFileProperties& p) {
        if (zisSideEntry(stanza, key))
            requireNothingHidden(p);
        change(p);
    });
}

int zstzPropSetStringValue(ZPROP_handle* handle, const char* stanza, const char* key,
                           const char* value) {
    return changeEntry(handle, key != nullptr, stanza, key,
                       [&](ZStanzaFileProperties& p) { p.setValue(stanza, key, value); });
}

int zstzPropSetIntegerValue(ZPROP_handle* handle, const char* stanza, const char* key,
                            unsigned int value) {
    return changeEntry(handle, key != nullptr, stanza, key,
                       [&](ZStanzaFileProperties& p) { p.setIntegerValue(stanza, key, value); });
}

int zstzPropSetBooleanValue(ZPROP_handle* handle, const char* stanza, const char* key, int value) {
    return changeEntry(handle, key != nullptr, stanza, key,
                       [&](ZStanzaFileProperties& p) { p.setBooleanValue(stanza, key, value); });
}

int zstzPropSetInt64Value(ZPROP_handle* handle, const char* stanza, const char* key,
                          int64_t value) {
    return changeEntry(handle, key != nullptr, stanza, key,
                       [&](ZStanzaFileProperties& p) { p.setInteger64Value(stanza, key, value); });
}

int zstzPropSetDoubleValue(ZPROP_handle* handle, const char* stanza, const char* key,
                           double value) {
    return changeEntry(handle, key != nullptr, stanza, key,
                       [&](ZStanzaFileProperties& p) { p.setDoubleValue(stanza, key, value); });
}

int zstzPropAddStringValue(ZPROP_handle* handle, const char* stanza, const char* key,
                           const char* value) {
    return changeEntry(handle, key != nullptr && value != nullptr, stanza, key,
                       [&](ZStanzaFileProperties& p) { p.addValue(stanza, key, value, 0); });
}

int zstzPropRemoveComments(ZPROP_handle* handle, const char* stanza, const char* key) {
    return applyChange(handle, stanza != nullptr || key == nullptr,
                       [&](ZStanzaFileProperties& p) { p.deleteComments(stanza, key); });
}

int zstzPropRemoveKey(ZPROP_handle* handle, const char* stanza, const char* key) {
    return changeEntry(handle, key != nullptr, stanza, key,
                       [&](ZStanzaFileProperties& p) { p.deleteKey(stanza, key); });
}

int zstzPropRemoveStanza(ZPROP_handle* handle, const char* stanza) {
    return changeEntry(handle, true, stanza, nullptr,
                       [&](ZStanzaFileProperties& p) { p.deleteStanza(stanza); });
}

int zstzPropAddStanzaComment(ZPROP_handle* handle, const char* stanza, const char* text) {
    return applyChange(handle, stanza != nullptr && text != nullptr,
                       [&](ZStanzaFileProperties& p) { p.addStanzaComment(stanza, text); });
}

int zstzPropAddFileComment(ZPROP_handle* handle, const char* text) {
    return applyChange(handle, text != nullptr,
                       [&](ZStanzaFileProperties& p) { p.addFileComment(text); });
}

int zstzPropAddLineComment(ZPROP_handle* handle, const char* stanza, const char* key,
                           const char* text) {
    return applyChange(handle, stanza != nullptr && key != nullptr && text != nullptr,
                       [&](ZStanzaFileProperties& p) { p.addEntryComment(stanza, key, text); });
}

// ---------------------------------------------------------------- walking

namespace {

// A live iterator as the walk that it is; one of the two is null.
struct Walk {
    ZPROP_stz_iter_handle* keys = nullptr;
    ZPROP_stzvalue_iter_handle* values = nullptr;

    explicit Walk(ZPROP_iter_handle* iterator) {
        zclearLastError();
        if (!ZPROP_iter_handle::isGood(iterator))
            return;
        if (iterator->kind() == ZPROP_iter_handle::walksKeys)
            keys = static_cast<ZPROP_stz_iter_handle*>(iterator);
        else
            values = static_cast<ZPROP_stzvalue_iter_handle*>(iterator);
    }
    bool isGood() const { return keys != nullptr || values != nullptr; }
};

}  // namespace

static int unsuitable() {
    znoteLastError(42, nullptr, 0, "not for this walk");
    return ZPROP_ERR_ITERATOR;
}

int zstzPropIter_init(ZPROP_handle* handle, const char* stanza, const char* key,
                      ZPROP_iter_handle** out) {
    ZStanzaFileProperties* properties = zliveProperties(handle);
    if (properties == nullptr || stanza == nullptr || out == nullptr)
        return zparameterError();
    *out = nullptr;
    return zguarded(zreadGroup, [&] {
        if (key == nullptr)
            *out = new ZPROP_stz_iter_handle(*properties, stanza);
        else
            *out = new ZPROP_stzvalue_iter_handle(*properties, stanza, key);
    });
}

// Answers a question about a walk; the result number goes to *err.
template <typename Answer, typename OfKeys, typename OfValues>
static Answer askWalk(ZPROP_iter_handle* iterator, int* err, Answer nothing, OfKeys ofKeys,
                      OfValues ofValues) {
    const Walk walk(iterator);
    if (!walk.isGood() || err == nullptr) {
        const int error = zparameterError();
        if (err != nullptr)
            *err = error;
        return nothing;
    }
    Answer answer = nothing;
    *err = zguarded(zreadGroup, [&] {
        answer = walk.keys != nullptr ? ofKeys(*walk.keys) : ofValues(*walk.values);
    });
    return *err == ZPROP_OK ? answer : nothing;
}

typedef ZPROP_stz_iter_handle KeyWalk;
typedef ZPROP_stzvalue_iter_handle ValueWalk;

int zstzPropIter_next(ZPROP_iter_handle* iterator, int* err) {
    return askWalk(
        iterator, err, 0,
        [](KeyWalk& walk) {
            if (!walk.iterator.hasMore())
                return 0;
            walk.iterator.nextEntry();
            return 1;
        },
        [](ValueWalk& walk) {
            if (!walk.iterator.hasMore())
                return 0;
            walk.iterator.nextValue();
            return 1;
        });
}

static const char* const kNoText = nullptr;

const char* zstzPropIter_getKey(ZPROP_iter_handle* iterator, int* err) {
    return askWalk(
        iterator, err, kNoText, [](KeyWalk& walk) { return walk.iterator.entryName(); },
        [](ValueWalk& walk) { return walk.key.getChars(); });
}

const char* zstzPropIter_getValue(ZPROP_iter_handle* iterator, int, int* err) {
    return askWalk(
        iterator, err, kNoText, [](KeyWalk& walk) { return walk.iterator.entryValue(0); },
        [](ValueWalk& walk) {
            const ZLCString* now = walk.iterator.currentValue();
            walk.value.setChars(now == nullptr ? "" : now->getChars());
            return walk.value.getChars();
        });
}

int zstzPropIter_numKeys(ZPROP_iter_handle* iterator, int* err) {
    return askWalk(
        iterator, err, 0, [](KeyWalk& walk) { return static_cast<int>(walk.iterator.keyCount()); },
        [](ValueWalk&) { return 1; });
}

int zstzPropIter_numValues(ZPROP_iter_handle* iterator, int* err) {
    const int count = askWalk(
        iterator, err, 0, [](KeyWalk&) { return -1; },
        [](ValueWalk& walk) { return static_cast<int>(walk.iterator.valueCount()); });
    if (count != -1)
        return count;
    *err = unsuitable();
    return 0;
}

// Lets a change run on a walk over values.
template <typename Change>
static int changeWalk(ZPROP_iter_handle* iterator, Change change) {
    const Walk walk(iterator);
    if (!walk.isGood())
        return zparameterError();
    if (walk.keys != nullptr)
        return unsuitable();
    return zguarded(zreadGroup, [&] {
        if (walk.values->sideEntryOf != nullptr)
            requireNothingHidden(*walk.values->sideEntryOf);
        change(*walk.values);
    });
}

int zstzPropIter_chgValue(ZPROP_iter_handle* iterator, const char* text) {
    return changeWalk(iterator, [&](ValueWalk& walk) { walk.iterator.changeValue(text); });
}

int zstzPropIter_addValue(ZPROP_iter_handle* iterator, const char* text) {
    return changeWalk(iterator, [&](ValueWalk& walk) { walk.iterator.addValue(text); });
}

int zstzPropIter_rmvValue(ZPROP_iter_handle* iterator) {
    return changeWalk(iterator, [](ValueWalk& walk) { walk.iterator.removeValue(); });
}

int zstzPropIter_close(ZPROP_iter_handle* iterator) {
    const Walk walk(iterator);
    if (!walk.isGood())
        return zparameterError();
    // The lock belongs to the thread that made the walk, and could never be given back otherwise.
    if (!iterator->isOwn())
        return zparameterError();
    return zguarded(zreadGroup, [&] { delete iterator; });
}
