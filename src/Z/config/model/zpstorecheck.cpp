// zpstorecheck.cpp: whether a store is whole, for tests and debug builds.
#include "zpholds.h"
#include "zpstore.h"

void ZPStore::checkInvariants() const {
    size_t used = 0;  // bytes of slices
    size_t keysSeen = 0, keysInMap = 0, stanzasInMap = 0;
    keyIndex_.checkInvariants([&](Id id) { return keys_.name(id).offset; },
                              [&](Id id) { return hashOf(id); });
    stanzaIndex_.checkInvariants([&](Id id) { return stanzas_[id].name.offset; },
                                 [&](Id id) { return znarrowHash(stanzas_[id].hash); });
    lines_.checkInvariants(text_);
    keyIndex_.forEach([&](Id id) {
        ++keysSeen;
        const ZPKey key = keys_[id];
        ZPKeyExtra* const extra = keys_.extra(id);
        used += key.name.length + key.value.length;
        if (extra != nullptr)
            for (Kind kind : {plain, hidden}) {
                extra->values[kind].checkInvariants(kind == plain ? &key.value : nullptr);
                extra->values[kind].forEachSlice(
                    [&](const ZPSlice& slice) { used += slice.length; });
            }
        ZPHOLDS(stanzas_[key.stanza].inUse);
        ZPHOLDS(findKey(text_.span(stanzas_[key.stanza].name), text_.span(key.name)) == id);
        if (isInMap(id)) {
            ++keysInMap;
            ZPHOLDS(stanzas_[key.stanza].inMap);
        } else {
            ZPHOLDS(key.line != none && key.value.length == 0);
            ZPHOLDS(keys_.isDead(id) || (keys_.next(id) == none && keys_.prev(id) == none));
        }
    });
    ZPHOLDS(keysSeen == keyIndex_.count());
    keys_.checkInvariants();
    ZPHOLDS(keysSeen + keys_.countFree() == keys_.end());
    ZPHOLDS(stanzaIndex_.count() + stanzas_.countFree() == stanzas_.end());
    size_t chained = 0;
    stanzaIndex_.forEach([&](Id id) {
        const ZPStanza& stanza = stanzas_[id];
        used += stanza.name.length;
        ZPHOLDS(stanza.inUse && (stanza.inMap || stanza.group != none));
        ZPHOLDS(findStanza(text_.span(stanza.name)) == id);
        stanzasInMap += stanza.inMap ? 1 : 0;
        uint32_t count = 0;
        Id previous = none;
        for (Id k = stanza.first; k != none; k = keys_.next(k)) {
            ZPHOLDS(isInMap(k) && keys_.stanza(k) == id && keys_.prev(k) == previous);
            previous = k;
            ++count;
        }
        ZPHOLDS(stanza.last == previous && stanza.count == count);
        ZPHOLDS(stanza.keyList() == nullptr || stanza.keyList()->size() == count);
        chained += count;
        for (Id g = stanza.group; g != none; g = group(g).nextOfStanza)
            ZPHOLDS(group(g).stanza == id);
    });
    ZPHOLDS(chained == keysInMap && stanzasInMap == stanzasInMap_);
    for (Id g = 0; g != none; g = group(g).next) {
        for (Id l = group(g).first; l != none; l = nextLine(l)) {
            if (line(l).isComment()) {
                used += comment(l).length;
            } else if (line(l).isKey()) {
                const ZPKey key = keys_[line(l).ref()];
                ZPHOLDS(key.stanza == group(g).stanza);
                ZPHOLDS(key.line == l || key.line == kSeveralIds);
            }
        }
    }
    text_.checkInvariants(used);
    uint32_t items = 0;
    Id previous = none;
    for (Id k = firstFollowed_; k != none; k = keys_.extra(k)->followedNext) {
        ZPHOLDS(isInMap(k) && keys_.extra(k)->isFollowed &&
                keys_.extra(k)->followedPrev == previous);
        previous = k;
        ++items;
    }
    ZPHOLDS(items == followedCount_ && lastFollowed_ == previous);
    for (const Cursor* c = cursors_; c != nullptr; c = c->next_) {
        ZPHOLDS(c->stanza_ != none || c->key_ == none);
        ZPHOLDS(c->key_ == none || (isInMap(c->key_) && keys_.stanza(c->key_) == c->stanza_));
        ZPHOLDS(c->key_ != none || !c->isOnKey_);
    }
}
