// ZCodesetException.h: the failure that means that there can be no strings.
#ifndef Z_ZCODESETEXCEPTION_H
#define Z_ZCODESETEXCEPTION_H

#include "ZException.h"
#include "ZLCString.h"

/// A codeset can't be opened (47): its name, and the value of QELDIR at construction, empty when
/// that isn't set. Its own strings are made without the set-up that it reports.
class ZEXPORT ZCodesetException : public ZZException {
public:
    /// Null, when not even the name is known, is the empty text.
    explicit ZCodesetException(const char* codeset);
    ~ZCodesetException() noexcept override;
    ZObject* clone() const override;
    [[noreturn]] void throwException(const char* file, int line) override;
    int print() override;

protected:
    ZLCString qelDir_;
    ZLCString codesetName_;
};

#endif
