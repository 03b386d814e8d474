#include "zdialectentries.h"

bool ZDialectEntries::next(ZDialectPart& entry, ZSpan& stanza) {
    while (reader_.next(entry)) {
        if (entry.kind == ZDialectPart::header) {
            enter(entry.name);
        } else if (entry.kind == ZDialectPart::entry || entry.kind == ZDialectPart::bareEntry) {
            stanza = stanza_.size() == 0 ? ZSpan{"", 0} : zspanOf(stanza_);
            return true;
        }
    }
    return false;
}

void ZDialectEntries::enter(ZSpan name) {
    stanza_.setSize(0);
    zappendBytes(stanza_, name);
    if (d_.repeated != ZDIALECT_NUMBERED)
        return;
    folded_.setSize(0);
    zdialectFold(d_, name, true, folded_);
    numbered_.setSize(0);
    headers_.add(name, numbered_);
    zappendBytes(stanza_, zspanBetween(numbered_.data() + folded_.size(),
                                       numbered_.data() + numbered_.size()));
}
