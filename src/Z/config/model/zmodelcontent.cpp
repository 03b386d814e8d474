#include "zmodelcontent.h"

#include <memory>

#include "ZLCString.h"
#include "zpstore.h"

// ---------------------------------------------------------------- entries

static void addText(ZBytes& out, char mark, ZSpan text) {
    out.reserveMore(text.size + 2);
    out.push(mark);
    zappendBytes(out, text);
    out.push('\0');
}

void ZModelContent::listEntries(const ZSCFData& model, ZBytes& out) {
    const ZPStore& store = model.store();
    const ZPText& text = store.text();
    // Most of it is names and values, which stand in the text already.
    out.reserveMore(text.size() + text.size() / 8);
    // A key is told at its first line.
    ZBytes isTold;
    isTold.reserveExactly(store.keyEnd());
    while (isTold.room() != 0)
        isTold.push(0);
    const auto tell = [&](ZPId key) {
        isTold[key] = 1;
        addText(out, kKey, text.span(store.key(key).name));
        const ZPStore::Kind kind = store.anyKind(key);
        const ZPValueView values = store.values(key, kind);
        for (uint32_t i = 0; i < values.count(); ++i)
            addText(out, kind == ZPStore::plain ? kValue : kHidden, values[i]);
    };
    store.forEachStanza([&](ZPId stanza) {
        addText(out, kStanza, text.span(store.stanza(stanza).name));
        uint32_t left = store.stanza(stanza).count;
        for (ZPId g = store.stanza(stanza).group; g != kNoId && left != 0;
             g = store.group(g).nextOfStanza)
            for (ZPId l = store.group(g).first; l != kNoId; l = store.nextLine(l)) {
                const ZPLine& line = store.line(l);
                if (!line.isKey() || !store.isInMap(line.ref()) || isTold[line.ref()] != 0)
                    continue;
                tell(line.ref());
                --left;
            }
        // Those without a line, as hidden ones are.
        for (ZPId key = store.stanza(stanza).first; key != kNoId && left != 0;
             key = store.nextKey(key))
            if (isTold[key] == 0) {
                tell(key);
                --left;
            }
    });
}

void ZModelContent::addHidden(const ZSCFData& from, ZSCFData& to) {
    const ZPStore& store = from.store();
    const auto copyOf = [&store](const ZPSlice& slice) {
        const ZSpan text = store.text().span(slice);
        return ZLCString(text.data, static_cast<unsigned int>(text.size));
    };
    for (ZPId k = store.firstFollowed(); k != kNoId; k = store.nextFollowed(k)) {
        const ZLCString stanza(copyOf(store.stanza(store.key(k).stanza).name));
        const ZLCString key(copyOf(store.key(k).name));
        const ZPId same = to.store().keyInMap(zspanOf(stanza.getChars()), zspanOf(key.getChars()));
        if (same != kNoId && to.store().values(same, ZPStore::plain).count() != 0)
            continue;
        const ZPValueView values = store.values(k, ZPStore::hidden);
        for (uint32_t i = 0; i < values.count(); ++i)
            to.add(stanza.getChars(), key.getChars(),
                   ZLCString(values[i].data, static_cast<unsigned int>(values[i].size)).getChars(),
                   1);
    }
}

void ZModelContent::take(ZSCFData& model, ZSCFData& other) noexcept {
    model.store().take(other.store());
}

// ---------------------------------------------------------------- comments

ZModelContent::Run ZModelContent::commentsFrom(const ZPStore& store, ZPId group, ZPId first) {
    ZPId end = first;
    while (end != kNoId && store.line(end).isComment())
        end = store.nextLine(end);
    return {group, first, end};
}

ZModelContent::Run ZModelContent::commentsAbove(const ZPStore& store, ZPId group, ZPId line) {
    ZPId first = line;
    for (ZPId l = store.prevLine(line); l != kNoId && store.line(l).isComment();
         l = store.prevLine(l))
        first = l;
    return {group, first, line};
}

ZModelContent::Run ZModelContent::commentsOf(const ZPStore& store, const char* stanza,
                                             const char* key) {
    if (stanza == nullptr)
        return commentsFrom(store, store.firstGroup(), store.group(store.firstGroup()).first);
    const ZPId id = store.stanzaInMap(zspanOf(stanza));
    if (id == kNoId || store.stanza(id).group == kNoId)
        return {kNoId, kNoId, kNoId};
    if (key == nullptr)
        return commentsFrom(store, store.stanza(id).group,
                            store.group(store.stanza(id).group).first);
    const ZPId wanted = store.keyInMap(zspanOf(stanza), zspanOf(key));
    if (wanted != kNoId && store.hasLine(wanted) && store.key(wanted).line != kSeveralIds &&
        store.group(store.stanza(id).group).nextOfStanza == kNoId)
        return commentsAbove(store, store.stanza(id).group, store.key(wanted).line);
    // The first of the key's lines.
    for (ZPId g = store.stanza(id).group; wanted != kNoId && g != kNoId;
         g = store.group(g).nextOfStanza)
        for (ZPId l = store.group(g).first; l != kNoId; l = store.nextLine(l)) {
            if (!store.line(l).isKey() || store.line(l).ref() != wanted)
                continue;
            return commentsAbove(store, g, l);
        }
    return {kNoId, kNoId, kNoId};
}

void ZModelContent::listComments(const ZSCFData& model, const char* stanza, const char* key,
                                 ZArrayList& list) {
    const ZPStore& store = model.store();
    const Run run = commentsOf(store, stanza, key);
    for (ZPId l = run.first; l != run.end; l = store.nextLine(l)) {
        const ZSpan comment = store.text().span(store.comment(l));
        std::unique_ptr<ZLCString> line(
            new ZLCString(comment.data, static_cast<unsigned int>(comment.size)));
        list.addNoCopy(line.get());
        line.release();
    }
}

bool ZModelContent::removeComments(ZSCFData& model, const char* stanza, const char* key) {
    ZPStore& store = model.store();
    const Run run = commentsOf(store, stanza, key);
    if (run.first == run.end)
        return false;
    store.removeComments(run.group, run.first, run.end);
    return true;
}
