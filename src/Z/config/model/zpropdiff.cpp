#include "zpropdiff.h"

#include <cstring>

#include "zmodeledits.h"
#include "zmodelreading.h"

typedef ZVector<ZPropDifference> Differences;

static const char* text(const ZArrayList& list, unsigned int i) {
    return static_cast<const ZLCString*>(list.get(i))->getChars();
}

static void note(Differences& out, const char* stanza, const char* key,
                 ZPropDifference::Type type) {
    out.push_back({stanza, key, type});
}

static bool isBare(const ZPCache& cache, const char* stanza, const char* key) {
    return ZModelReading::dialectOf(cache) != nullptr &&
           ZModelEdits::isBare(static_cast<const ZSCFData&>(cache), stanza, key) != 0;
}

static bool sameValues(const ZPCache& a, const ZPCache& b, const char* stanza, const char* key) {
    const int count = a.countValues(stanza, key);
    if (count != b.countValues(stanza, key) || isBare(a, stanza, key) != isBare(b, stanza, key) ||
        a.isObfuscated(stanza, key) != b.isObfuscated(stanza, key))
        return false;
    if (count <= 1) {
        const char *left, *right;
        unsigned int leftLength, rightLength;
        return count == 0 || (a.lastValue(stanza, key, left, leftLength) != 0 &&
                              b.lastValue(stanza, key, right, rightLength) != 0 &&
                              leftLength == rightLength && memcmp(left, right, leftLength) == 0);
    }
    ZArrayList leftValues(1, 1), rightValues(1, 1);
    a.copyValues(stanza, key, leftValues);
    b.copyValues(stanza, key, rightValues);
    for (unsigned int i = 0; i < leftValues.size(); ++i)
        if (strcmp(text(leftValues, i), text(rightValues, i)) != 0)
            return false;
    return true;
}

static void findGone(const ZPCache& before, const ZPCache& after, Differences& out) {
    ZArrayList stanzas(1, 1);
    before.getNames(stanzas);
    for (unsigned int i = 0; i < stanzas.size(); ++i) {
        const char* stanza = text(stanzas, i);
        ZArrayList keys(1, 1);
        before.getNames(stanza, keys);
        for (unsigned int k = 0; k < keys.size(); ++k)
            if (after.contains(stanza, text(keys, k)) == 0)
                note(out, stanza, text(keys, k), ZPropDifference::deleted);
        if (after.contains(stanza) == 0)
            note(out, stanza, "", ZPropDifference::deleted);
    }
}

static void findNew(const ZPCache& before, const ZPCache& after, Differences& out) {
    ZArrayList stanzas(1, 1);
    after.getNames(stanzas);
    for (unsigned int i = 0; i < stanzas.size(); ++i) {
        const char* stanza = text(stanzas, i);
        if (before.contains(stanza) == 0)
            note(out, stanza, "", ZPropDifference::added);
        ZArrayList keys(1, 1);
        after.getNames(stanza, keys);
        for (unsigned int k = 0; k < keys.size(); ++k) {
            const char* key = text(keys, k);
            if (before.contains(stanza, key) == 0)
                note(out, stanza, key, ZPropDifference::added);
            else if (!sameValues(before, after, stanza, key))
                note(out, stanza, key, ZPropDifference::changed);
        }
    }
}

void zfindDifferences(const ZPCache& before, const ZPCache& after, Differences& out) {
    findGone(before, after, out);
    findNew(before, after, out);
}
