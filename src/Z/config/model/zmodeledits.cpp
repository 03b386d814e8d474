#include "zmodeledits.h"

#include <algorithm>

#include "ZExceptionText.h"
#include "zdialectedits.h"
#include "zdialectmodel.h"
#include "zgrammar.h"
#include "zmodelcontent.h"
#include "zmodelreading.h"
#include "zpstore.h"
#include "zrefusal.h"

// Room for a note of what is about to be done, if stores keep lines, and the note.
namespace {

class Note {
public:
    Note(ZPStore& store, unsigned long attributes, ZSpan stanza, ZSpan key, ZSpan name)
        : oldText_(store.oldText()),
          isWanted_((attributes & ZPCACHE_KEEP_LINES) != 0),
          stanza_(stanza),
          key_(key),
          name_(name) {
        if (isWanted_)
            oldText_.reserve(stanza, key, name);
    }
    void make(ZOldText::Change change) {
        if (isWanted_)
            oldText_.note(change, stanza_, key_, name_);
    }

private:
    ZOldText& oldText_;
    const bool isWanted_;
    const ZSpan stanza_, key_, name_;
};

}  // namespace

static void refuseIf(bool speaksAgainst, const char* subject, const char* reason) {
    zrequireNoFault(speaksAgainst ? ZFault{subject, reason} : ZFault{nullptr, nullptr});
}

static const ZSpan kNothing = {"", 0};

// ---------------------------------------------------------------- texts of another dialect

// Changes the text of which the model is, and reads it again. So many keys go, and so many come:
// any other change of keys or values would be one that nobody has asked for.
template <typename Edit>
static bool changeText(ZSCFData& model, size_t gone, size_t come, Edit edit) {
    ZPStore& store = ZModelReading::storeOf(model);
    const ZDialect& dialect = *store.dialect();
    ZBytes before, now;
    zdialectRewrite(dialect, store, store.readText(), before);
    // The text knows a stanza by the number that it has there.
    ZSCFData renumbered;
    refuseIf(ZModelEdits::renumber(model, zspanOf(before), renumbered), "a change",
             "needs a store ahead of it, since stanzas get other numbers");
    ZDialectEdits edits(dialect, zspanOf(before), now);
    if (!edit(edits))
        return false;
    ZSCFData changed;
    ZModelReading::beLike(changed, model);
    ZPStore& fresh = ZModelReading::storeOf(changed);
    bool isFine = true;
    try {
        ZModelReading::readText(changed, "", zspanOf(now));
    } catch (ZPropertiesInvalidDataException&) {
        isFine = false;
    }
    refuseIf(!isFine || zdialectDifference(dialect, store, fresh) != gone ||
                 zdialectDifference(dialect, fresh, store) != come,
             "a change", "would change other lines too");
    fresh.oldText().replaceBy(zspanOf(now));
    store.take(fresh);
    return true;
}

void ZModelEdits::addComment(ZSCFData& model, const char* stanza, const char* key,
                             const char* comment) {
    zrequireNoFault(
        {"a comment", zdialectCommentFault(*model.store().dialect(), zspanOf(comment))});
    const bool makesStanza =
        stanza != nullptr && model.store().stanzaInMap(zspanOf(stanza)) == ZPStore::none;
    const bool makesKey = key != nullptr && model.contains(stanza, key) == 0;
    if (makesKey)
        model.addLine(stanza, key, nullptr, 0);
    else if (makesStanza)
        model.addStanzaLine(stanza);
    try {
        changeText(model, 0, 0, [&](ZDialectEdits& edits) {
            return stanza == nullptr ? edits.addFileComment(zspanOf(comment))
                   : key == nullptr
                       ? edits.addStanzaComment(zspanOf(stanza), zspanOf(comment))
                       : edits.addKeyComment(zspanOf(stanza), zspanOf(key), zspanOf(comment));
        });
    } catch (...) {
        if (makesStanza)
            model.delStanzaLine(stanza);
        else if (makesKey)
            model.delLine(stanza, key);
        throw;
    }
}

bool ZModelEdits::removeComments(ZSCFData& model, const char* stanza, const char* key) {
    if (model.store().dialect() == nullptr)
        return ZModelContent::removeComments(model, stanza, key);
    return changeText(model, 0, 0, [&](ZDialectEdits& edits) {
        return stanza == nullptr ? edits.removeFileComments()
               : key == nullptr  ? edits.removeStanzaComments(zspanOf(stanza))
                                 : edits.removeKeyComments(zspanOf(stanza), zspanOf(key));
    });
}

// ---------------------------------------------------------------- names and kinds of lines

bool ZModelEdits::renameStanza(ZSCFData& model, const char* stanza, const char* name) {
    ZPStore& store = model.store();
    if (model.isStrict() != 0 && store.dialect() == nullptr)
        zrequireNoFault(zfaultOfStanza(name));
    const ZPId id = store.stanzaInMap(zspanOf(stanza));
    if (id == ZPStore::none)
        return false;
    const ZPId taken = store.stanzaInMap(zspanOf(name));
    if (store.dialect() != nullptr) {
        refuseIf(taken != ZPStore::none && taken != id, "the new name", "is taken already");
        const size_t moved = taken == id ? 0 : store.stanza(id).count;
        return changeText(model, moved, moved, [&](ZDialectEdits& edits) {
            return edits.renameStanza(zspanOf(stanza), zspanOf(name));
        });
    }
    refuseIf(taken != ZPStore::none, "the new name", "is taken already");
    refuseIf(strcmp(stanza, kSideStanza) == 0 || strcmp(name, kSideStanza) == 0,
             "the stanza of the side database", "keeps its name");
    Note note(store, model.attributes(), zspanOf(stanza), kNothing, zspanOf(name));
    store.renameStanza(id, zspanOf(name));
    note.make(ZOldText::renamedStanza);
    return true;
}

bool ZModelEdits::renameKey(ZSCFData& model, const char* stanza, const char* key,
                            const char* name) {
    ZPStore& store = model.store();
    const ZSpan owner = zspanOf(stanza), before = zspanOf(key), now = zspanOf(name);
    if (model.isStrict() != 0 && store.dialect() == nullptr)
        zrequireNoFault(zfaultOfKey(name));
    const ZPId id = store.keyInMap(owner, before);
    if (id == ZPStore::none)
        return false;
    const ZPId taken = store.keyInMap(owner, now);
    if (store.dialect() != nullptr) {
        refuseIf(taken != ZPStore::none && taken != id, "the new name", "is taken already");
        return changeText(model, taken != id, taken != id, [&](ZDialectEdits& edits) {
            return edits.renameKey(owner, before, now);
        });
    }
    refuseIf(taken != ZPStore::none, "the new name", "is taken already");
    refuseIf(zisSideEntry(stanza, key) || zisSideEntry(stanza, name),
             "the entry of the side database", "keeps its name");
    // A longer name may make a line too long.
    const ZPValueView values = store.values(id, ZPStore::plain);
    for (uint32_t i = 0; i < values.count(); ++i) {
        const ZLCString value(values[i].data, static_cast<unsigned int>(values[i].size));
        model.checkValue(name, value.getChars(), 0, 1);
    }
    Note note(store, model.attributes(), owner, before, now);
    store.renameKey(id, now);
    note.make(ZOldText::renamedKey);
    return true;
}

bool ZModelEdits::uncommentKey(ZSCFData& model, const char* stanza, const char* key) {
    ZPStore& store = model.store();
    const ZSpan owner = zspanOf(stanza), name = zspanOf(key);
    refuseIf(store.keyInMap(owner, name) != ZPStore::none, "the key", "is there already");
    if (store.dialect() != nullptr)
        return changeText(model, 0, 1,
                          [&](ZDialectEdits& edits) { return edits.uncommentKey(owner, name); });
    const ZPId id = store.stanzaInMap(owner);
    if (id == ZPStore::none)
        return false;
    ZSpan value = kNothing;
    for (ZPId g = store.stanza(id).group; g != ZPStore::none; g = store.group(g).nextOfStanza)
        for (ZPId l = store.group(g).first; l != ZPStore::none; l = store.nextLine(l)) {
            if (!store.line(l).isComment() ||
                zfindDisabled(store.text().span(store.comment(l)), name, value).size == 0)
                continue;
            // The value is text of the comment, which is about to go.
            ZBytes copy;
            zcopyBytes(value, copy);
            const ZPId remembered = store.findKey(owner, name);
            if (remembered != ZPStore::none)
                store.forgetLines(remembered);
            Note note(store, model.attributes(), owner, name, kNothing);
            const ZPId made = store.createKey(id, name);
            try {
                store.appendValue(made, ZPStore::plain, zspanOf(copy));
                store.replaceComment(g, l, made);
            } catch (...) {
                store.removeKey(made);
                throw;
            }
            note.make(ZOldText::uncommentedKey);
            return true;
        }
    return false;
}

// The group and the first line of a key; none without one.
static ZPId firstLineOf(const ZPStore& store, ZPId key, ZPId& line) {
    for (ZPId g = store.stanza(store.key(key).stanza).group; g != ZPStore::none;
         g = store.group(g).nextOfStanza)
        for (line = store.group(g).first; line != ZPStore::none; line = store.nextLine(line))
            if (store.line(line).isKey() && store.line(line).ref() == key)
                return g;
    return ZPStore::none;
}

void ZModelEdits::addForgettingLines(ZSCFData& model, ZVector<ZPId>& keys) {
    ZPStore& store = model.store();
    for (const ZPId key : keys)
        if (!store.hasLine(key))
            store.placeKeyLine(key);
    std::sort(keys.begin(), keys.end());
    ZVector<bool> isDone(keys.size());
    for (ZPId g = store.firstGroup(); g != ZPStore::none && !keys.empty(); g = store.group(g).next)
        for (ZPId id = store.group(g).first; id != ZPStore::none; id = store.nextLine(id)) {
            if (!store.line(id).isKey())
                continue;
            const ZPId key = store.line(id).ref();
            const auto found = std::lower_bound(keys.begin(), keys.end(), key);
            const size_t at = static_cast<size_t>(found - keys.begin());
            if (found == keys.end() || *found != key || isDone[at])
                continue;
            isDone[at] = true;
            const ZSpan name = store.text().span(store.key(key).name);
            ZLCString comment(name.data, static_cast<unsigned int>(name.size));
            comment.append(" =");
            store.insertCommentBefore(g, id, zspanOf(comment.getChars()));
        }
}

namespace {

// Comments that were put in front of a line, and go again unless they are kept.
struct NewComments {
    ZPStore& store;
    const ZPId group, line;
    ZPId first;

    NewComments(ZPStore& s, ZPId g, ZPId l) : store(s), group(g), line(l), first(ZPStore::none) {}
    ~NewComments() {
        if (first != ZPStore::none)
            store.removeComments(group, first, line);
    }
    void add(ZSpan comment) {
        store.insertCommentBefore(group, line, comment);
        if (first == ZPStore::none)
            first = store.prevLine(line);
    }
    void keep() { first = ZPStore::none; }
};

}  // namespace

bool ZModelEdits::disableKey(ZSCFData& model, const char* stanza, const char* key) {
    ZPStore& store = model.store();
    const ZSpan owner = zspanOf(stanza), name = zspanOf(key);
    const ZPId id = store.keyInMap(owner, name);
    if (id == ZPStore::none)
        return false;
    if (store.dialect() != nullptr)
        return changeText(model, 1, 0,
                          [&](ZDialectEdits& edits) { return edits.disableKey(owner, name); });
    refuseIf(store.values(id, ZPStore::hidden).count() != 0, "a hidden value",
             "can't become a comment");
    refuseIf(strcmp(stanza, kSideStanza) == 0, "the stanza of the side database", "stays");
    const uint32_t count = store.values(id, ZPStore::plain).count();
    ZBytes comment;
    for (uint32_t i = 0; model.isStrict() != 0 && i < count; ++i) {
        zmakeDisabled(name, store.values(id, ZPStore::plain)[i], comment);
        refuseIf(comment.size() >= kLongestLine, "the entry", "is too long to become a comment");
    }
    Note note(store, model.attributes(), owner, name, kNothing);
    if (store.stanza(store.key(id).stanza).group == ZPStore::none)
        store.addHeader(store.key(id).stanza);
    if (!store.hasLine(id))
        store.placeKeyLine(id);
    ZPId line = ZPStore::none;
    const ZPId group = firstLineOf(store, id, line);
    NewComments comments(store, group, line);
    for (uint32_t i = 0; i < count || i == 0; ++i) {
        zmakeDisabled(name, count == 0 ? kNothing : store.values(id, ZPStore::plain)[i], comment);
        comments.add(zspanOf(comment));
    }
    store.removeKey(id);
    comments.keep();
    if (store.findKey(owner, name) == id)
        store.forgetLines(id);
    note.make(ZOldText::disabledKey);
    return true;
}

int ZModelEdits::isBare(const ZSCFData& model, const char* stanza, const char* key) {
    const ZPId id = model.store().keyInMap(zspanOf(stanza), zspanOf(key));
    return id != ZPStore::none && model.store().isBare(id);
}

void ZModelEdits::setBare(ZSCFData& model, const char* stanza, const char* key) {
    const ZDialect* dialect = model.store().dialect().get();
    if (dialect == nullptr || dialect->bare != ZDIALECT_BARE)
        zrequireNoFault({"a key without a divider", "can't be stored in this file"});
    model.addLine(stanza, key, nullptr, 0);
    model.store().setBare(model.store().keyInMap(zspanOf(stanza), zspanOf(key)));
}

void ZModelEdits::noteText(ZSCFData& model, ZSpan text) {
    if ((model.attributes() & ZPCACHE_KEEP_LINES) != 0 || model.store().dialect() != nullptr)
        model.store().oldText().replaceBy(text);
}

void ZModelEdits::noteStored(ZPCache& cache, ZBytes&& text) {
    if (!ZModelReading::isOwn(cache))
        return;
    ZPStore& store = static_cast<ZSCFData&>(cache).store();
    if (store.dialect() != nullptr)
        store.oldText().forget(std::move(text));
    else
        store.oldText().forget();
}

bool ZModelEdits::renumber(const ZPCache& cache, ZSpan text, ZSCFData& renumbered) {
    const ZDialect* dialect = ZModelReading::dialectOf(cache);
    if (dialect == nullptr || dialect->repeated != ZDIALECT_NUMBERED)
        return false;
    // As long as none has gone their numbers are those of the text.
    const ZPStore& before = ZModelReading::storeOf(static_cast<const ZSCFData&>(cache));
    if (!before.hasGaps())
        return false;
    ZModelReading::beLike(renumbered, cache);
    ZModelReading::readText(renumbered, "", text);
    const ZPStore& now = ZModelReading::storeOf(renumbered);
    bool isOther = false;
    before.forEachStanza([&](ZPId stanza) {
        const ZSpan name = before.text().span(before.stanza(stanza).name);
        isOther = isOther || now.stanzaInMap(name) == ZPStore::none;
    });
    return isOther;
}

ZSpan ZModelEdits::oldText(const ZPCache& cache, ZSpan fileText, ZBytes& room) {
    return ZModelReading::isOwn(cache)
               ? static_cast<const ZSCFData&>(cache).store().oldText().changed(fileText, room)
               : fileText;
}
