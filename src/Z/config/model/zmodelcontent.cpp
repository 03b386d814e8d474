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
    store.forEachStanza([&](ZPId stanza) {
        addText(out, kStanza, text.span(store.stanza(stanza).name));
        for (ZPId key = store.stanza(stanza).first; key != kNoId; key = store.key(key).next) {
            addText(out, kKey, text.span(store.key(key).name));
            const ZPStore::Kind kind = store.anyKind(key);
            const ZPValueView values = store.values(key, kind);
            for (uint32_t i = 0; i < values.count(); ++i)
                addText(out, kind == ZPStore::plain ? kValue : kHidden, values[i]);
        }
    });
}

// ---------------------------------------------------------------- comments

ZModelContent::Run ZModelContent::commentsFrom(const ZPStore& store, ZPId group, ZPId first) {
    ZPId end = first;
    while (end != kNoId && store.line(end).isComment())
        end = store.line(end).next;
    return {group, first, end};
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
    // The first of the key's lines.
    for (ZPId g = store.stanza(id).group; wanted != kNoId && g != kNoId;
         g = store.group(g).nextOfStanza)
        for (ZPId l = store.group(g).first; l != kNoId; l = store.line(l).next) {
            if (!store.line(l).isKey() || store.line(l).ref != wanted)
                continue;
            ZPId first = l;
            for (ZPId p = store.line(l).prev; p != kNoId && store.line(p).isComment();
                 p = store.line(p).prev)
                first = p;
            return {g, first, l};
        }
    return {kNoId, kNoId, kNoId};
}

void ZModelContent::listComments(const ZSCFData& model, const char* stanza, const char* key,
                                 ZArrayList& list) {
    const ZPStore& store = model.store();
    const Run run = commentsOf(store, stanza, key);
    for (ZPId l = run.first; l != run.end; l = store.line(l).next) {
        const ZSpan comment = store.text().span(store.line(l).slice());
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
