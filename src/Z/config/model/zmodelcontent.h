// zmodelcontent.h: what the library's own model holds, as a whole: all entries in one walk, and the
// comments that belong to the file, a stanza or a key. Never installed.
#ifndef Z_ZMODELCONTENT_H
#define Z_ZMODELCONTENT_H

#include "ZList.h"
#include "ZSCFData.h"
#include "zpblock.h"
#include "zpstore.h"

struct ZModelContent {
    /// What the first byte of each text of an entry list tells.
    enum Mark : char { kStanza = '[', kKey = '.', kValue = '=', kHidden = '*' };

    /// Adds all stanzas with their keys and values to `out`, in the order of the file: a mark, the
    /// name or value and a NUL each. A key is told at its first line, with all its values behind
    /// its name; those without a line are the last of their stanza.
    static void listEntries(const ZSCFData& model, ZBytes& out);

    /// Adds the hidden values of `from` to `to`, but for keys that have plain ones there.
    static void addHidden(const ZSCFData& from, ZSCFData& to);
    /// Gives the model what another holds, in place of all its own; where its side database is
    /// stays as it was.
    static void take(ZSCFData& model, ZSCFData& other) noexcept;

    /// Adds the comments of the file if `stanza` is null, of the stanza if `key` is null, or of the
    /// key to an owning list of ZLCStrings, a line each.
    static void listComments(const ZSCFData& model, const char* stanza, const char* key,
                             ZArrayList& list);
    /// Removes them. Whether there were any.
    static bool removeComments(ZSCFData& model, const char* stanza, const char* key);

private:
    // Lines that follow each other in a group, from the first to ahead of `end`; none if they are
    // the same.
    struct Run {
        ZPId group;
        ZPId first, end;
    };
    static Run commentsOf(const ZPStore& store, const char* stanza, const char* key);
    static Run commentsFrom(const ZPStore& store, ZPId group, ZPId first);
    static Run commentsAbove(const ZPStore& store, ZPId group, ZPId line);
};

#endif
