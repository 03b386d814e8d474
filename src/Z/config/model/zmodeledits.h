// zmodeledits.h: what can be done to a model's stanzas and keys beyond other values: other names,
// entries that become comments and comments that become entries. Never installed.
#ifndef Z_ZMODELEDITS_H
#define Z_ZMODELEDITS_H

#include "ZSCFData.h"
#include "zmemory.h"
#include "zpblock.h"

/// Names have text. Each call that changes something: whether there is what it is about; nothing
/// has changed if there isn't. What can't be done is refused with the reason (zrefusal.h).
struct ZModelEdits {
    /// Refused where the name is taken, or is or was that of the stanza that tells of the side
    /// database.
    static bool renameStanza(ZSCFData& model, const char* stanza, const char* name);
    static bool renameKey(ZSCFData& model, const char* stanza, const char* key, const char* name);
    /// Makes the first comment of the stanza that reads like an entry of this key, "# key = value",
    /// this entry, at its place. Refused where the key is there already.
    static bool uncommentKey(ZSCFData& model, const char* stanza, const char* key);
    /// Makes each plain value of the key a comment, at the place of the key's first line. Refused
    /// where values are hidden.
    static bool disableKey(ZSCFData& model, const char* stanza, const char* key);
    /// Puts a line "key =" ahead of the lines of each of these keys, which are there. To this model
    /// it means nothing; where it lies over others, that their values are forgotten. Sorts the
    /// keys. Linear in the lines.
    static void addForgettingLines(ZSCFData& model, ZVector<uint32_t>& keys);

    /// Adds a comment, with its sign, as ZPCache does, to a model of another dialect: of the file,
    /// of a stanza, of a key; null: not of one. A missing stanza or key is made. Of a model that
    /// was changed so, and by the calls above, comments stand in the text first of all: that is
    /// changed and read again. Linear in it.
    static void addComment(ZSCFData& model, const char* stanza, const char* key,
                           const char* comment);
    /// Removes the comments of these.
    static bool removeComments(ZSCFData& model, const char* stanza, const char* key);

    /// Whether a key stands there without a divider.
    static int isBare(const ZSCFData& model, const char* stanza, const char* key);
    /// Makes it such a key. Raises ZInvalidParameterException where the dialect has none.
    static void setBare(ZSCFData& model, const char* stanza, const char* key);

    // For stores that keep lines.

    /// The model was read from this text, which isn't in the file yet.
    static void noteText(ZSCFData& model, ZSpan text);
    /// The file holds what the model holds; of another dialect, this text.
    static void noteStored(ZPCache& cache, ZBytes&& text);
    /// Fills an empty model from the text that is to be stored, if stanzas that are numbered there
    /// get other numbers than they have in this model. False: they keep theirs.
    static bool renumber(const ZPCache& cache, ZSpan text, ZSCFData& renumbered);
    /// The text in which old lines are looked for; see ZOldText::changed.
    static ZSpan oldText(const ZPCache& cache, ZSpan fileText, ZBytes& room);
};

#endif
