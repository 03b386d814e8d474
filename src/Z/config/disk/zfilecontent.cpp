#include "zfilecontent.h"

#include <cerrno>

#include "zjournal.h"
#include "zmemorystream.h"
#include "zmodelreading.h"
#include "zsidefile.h"
#include "zwholefile.h"

int zreadContent(ZPCache& cache, const ZLCString& path, const ZFileToRead& file, bool keepsText,
                 ZFileContent& content) {
    content.side.setSize(0);
    const int descriptor = file.descriptor;
    ZJournal journal(file.place == nullptr ? path.getChars() : file.place->getChars(), descriptor,
                     file.isDirect);
    const bool unfinished = !file.hasNoJournal && journal.find();
    if (!unfinished && !keepsText) {
        if (file.stream != nullptr)
            cache.be_read(path.getChars(), file.stream);
        else
            ZModelReading::readFile(cache, path.getChars(), descriptor, file.size);
        int incomplete = cache.readError();
        if (incomplete == 0 && file.stream != nullptr && ferror(file.stream) != 0)
            incomplete = EIO;
        if (incomplete != 0)
            return incomplete;
    } else {
        if (unfinished)
            zcopyBytes(journal.text(), content.text);
        else
            zcheckIO(zreadWholeFile(descriptor, content.text).of(path.getChars()));
        zreadText(cache, path.getChars(), zspanOf(content.text));
    }
    ZLCString name(cache.obfuscatedDBName());
    if (name.getLength() == 0 || (unfinished && journal.sideAction() == zsideRemoved))
        return 0;
    if (unfinished && journal.sideAction() == zsideReplaced)
        zcopyBytes(journal.side(), content.side);
    else if (file.placeSide != nullptr && !file.placeSide(file.data, name))
        zraiseIO(path.getChars(), "mapFile()", errno);
    else
        zcheckIO(zreadSideFile(name.getChars(), descriptor, file.badModes, content.side));
    zreadSide(cache, zspanOf(content.side));
    return 0;
}
