#include "ZCodesetException.h"

#include <cstdlib>

#include "zcodesetfailure.h"
#include "zraise.h"

ZCodesetException::ZCodesetException(const char* codeset)
    : ZZException(47, "ZCodesetException"),
      qelDir_(ZAbstractString::BeforeSetup(), getenv("QELDIR")),
      codesetName_(ZAbstractString::BeforeSetup(), codeset) {}

ZCodesetException::~ZCodesetException() noexcept {}

ZObject* ZCodesetException::clone() const { return new ZCodesetException(*this); }

void ZCodesetException::throwException(const char* file, int line) {
    zthrowCopy(*this, file, line);
}

int ZCodesetException::print() {
    return printinternal(this, codesetName_.getChars(), qelDir_.getChars());
}

void zraiseCodesetFailure(const char* codeset) { zraise(ZCodesetException(codeset)); }
