// zlayerset.h: the files of a layered configuration in one model, and where each value comes from.
// Never installed.
#ifndef Z_ZLAYERSET_H
#define Z_ZLAYERSET_H

#include "ZSCFData.h"
#include "zlayertree.h"
#include "zpstore.h"

inline ZSpan zspanOf(const ZLCString& text) { return {text.getChars(), text.getLength()}; }
inline ZLCString ztextOf(ZSpan text) {
    return ZLCString(text.data, static_cast<unsigned int>(text.size));
}

/// Something that gives entries: a file that was found, or behind all files one variable or
/// credential.
struct ZLayer {
    enum Kind { file, variable, credential };

    Kind kind;
    ZLayerFile found;       // of the others only the path: "$NAME", or the credential's
    bool isRead;            // its text is in the model's:
    uint32_t start;         //   its begin
    uint32_t textEnd;       //   the end of what isn't hidden, or spelled anew
    uint32_t end;           //   the end of such names and values
    int badLine;            // of a bad file: from 1; 0 if it isn't about a line
    ZLCString reason;       // of a bad file: the bad line, or what failed and why
    ZBytes side;            // of a file: its side database; empty if it has none
    bool namesSide;         // of a file: it says where that is, or would be
    ZLCString stanza, key;  // of the others

    bool isBad() const { return found.state == ZLayerFile::bad; }
};

/// One entry of a file, or a value of another layer.
struct ZLayerValue {
    ZSpan stanza, key, value;
    const ZLayer* layer;
    int line;       // as origin() gives it
    bool isHidden;  // stands in a side database, or is a credential
    bool counts;    // the model has it
    bool isBare;    // has no divider
};

/// All files are in the dialect of the models they are read into. One thread at a time.
class ZLayerSet : public ZAllocated {
public:
    /// Raises as ZLayerTree's.
    explicit ZLayerSet(const ZLayersTerms& terms);

    const ZLayerTree& tree() const { return tree_; }
    /// Of the last load, in their order: the last goes before all others.
    const ZVector<ZLayer>& layers() const { return loaded_.layers; }
    /// What the last load has found; see ZLayerTree.
    const ZVector<ZLayerFile>& found() const { return loaded_.found; }

    /// Empties the model and reads all files into it, each under a lock for which `wait`
    /// milliseconds are waited. The model is of one moment: what changes meanwhile has the reading
    /// begin again. Raises ZPropertiesIOException, with "load()" and EAGAIN if that never ends, and
    /// ZPropertiesInvalidDataException; the model is empty or holds a part then. Linear in the
    /// bytes that are read, but for sorting names.
    /// One of the files, `own`, may be locked by the caller; null: none is.
    void load(ZSCFData& model, unsigned long wait, const ZFileStamp* own = nullptr);
    /// What a load has found, which belongs to the model that it has filled.
    struct Loaded {
        ZVector<ZLayerFile> found;
        ZVector<ZLayer> layers;
        ZVector<size_t> read;  // the indices of those whose text is in the model's
    };
    /// Puts something else in the place of what the last load has found, which `other` takes.
    void swapLoaded(Loaded& other);
    /// A load into another model than that which was loaded last; `before` takes what that one has
    /// found. What raises leaves the set as it was.
    void loadBeside(ZSCFData& other, unsigned long wait, const ZFileStamp* own, Loaded& before);
    /// Makes `out` what a load of the layers with an index below `end` has read, out of the model
    /// that was loaded, whatever has been changed in it since.
    void rebuild(const ZSCFData& model, size_t end, ZSCFData& out) const;

    /// Where a value of the model comes from that this set has loaded last. False if it was set
    /// since. The layer is this set's; the line counts from 1 and is 0 if the value is hidden or
    /// of no file. The first asking looks through the layer once.
    bool origin(const ZSCFData& model, const char* stanza, const char* key, uint32_t index,
                const ZLayer*& layer, int& line) const;

    /// Calls visit(value) for each entry of all layers, in their order. Those of one side database
    /// come behind its file's. Linear.
    template <typename Visit>
    void forEachValue(const ZSCFData& model, Visit visit) const {
        walk(
            model,
            [](void* data, const ZLayerValue& value) { (*static_cast<Visit*>(data))(value); },
            &visit);
    }

private:
    typedef void (*Visitor)(void* data, const ZLayerValue& value);

    // How the files of one load are read.
    struct Reading {
        unsigned long wait;
        const ZFileStamp* own;
        bool checksFirst;
        const class ZLayerFinding* finding;
    };
    bool loadFiles(ZSCFData& model, Reading& reading);
    bool readAll(ZSCFData& model, const Reading& reading);
    bool readFile(ZSCFData& model, ZLayer& layer, const Reading& reading);
    bool isLoaded(const ZSCFData& model, const ZLayer& layer) const;
    void readContent(ZSCFData& model, const ZLayer& layer, int descriptor, const Reading& reading,
                     bool keepsText, struct ZFileContent& content) const;
    void readVariables(ZSCFData& model);
    void readVariable(ZSCFData& model, ZSpan stanza, ZSpan key);
    void addValue(ZSCFData& model, ZLayer& layer, ZPStore::Kind kind, ZSpan value);
    void readCredentials(ZSCFData& model);
    void begin(ZSCFData& model, ZLayer& layer) const;
    void requireFiles() const;
    [[noreturn]] void raiseBad(const ZLayer& layer) const;
    class Counting;
    const ZLayer* layerAt(uint32_t offset) const;
    static uint32_t entryOf(const ZPStore& store, const ZLayer& layer, uint32_t place);
    int lineOf(const ZSCFData& model, const ZLayer& layer, uint32_t offset) const;
    void walk(const ZSCFData& model, Visitor visit, void* data) const;
    void walkText(const ZSCFData& model, const ZLayer& layer, Visitor visit, void* data) const;
    void walkEntries(const ZSCFData& model, const ZLayer& layer, Visitor visit, void* data) const;
    void walkHidden(const ZSCFData& model, const ZLayer& layer, Visitor visit, void* data) const;

    const ZLayerTree tree_;
    const unsigned long flags_;
    ZLCString variablePrefix_;  // empty: none count
    ZVector<ZLCString> keys_;   // stanza, key, for variables
    Loaded loaded_;
    // Of the layer that was asked for last: how many lines end ahead of each piece of its text.
    mutable const ZLayer* counted_;
    mutable ZVector<uint32_t> marks_;
};

#endif
