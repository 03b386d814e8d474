// RecordingService.h: a message service that keeps what it is told.
#pragma once

#include "support/Prelude.h"

#include <mutex>

#include "Z/ZException.h"
#include "Z/ZLCString.h"
#include "Z/ZMessage.h"

/// The current message service from its construction to its end. Each report becomes one text:
/// "9: 22" for a plain message with its first insert, "19" for one without, "raised 6/0" for an
/// exception with number and return code ("raised 22" for one that has no return code).
class RecordingService : public ZObject, public ZMessageService {
public:
    RecordingService() : before_(messageService()) { setMessageService(this); }
    ~RecordingService() override { setMessageService(before_); }

    std::vector<std::string> reports() const {
        const std::lock_guard<std::mutex> guard(mutex_);
        return reports_;
    }

    int outputMessage(const char*, int, int number, int insertCount, const ZLCString* s1,
                      const ZLCString*, const ZLCString*, const ZLCString*, const ZLCString*,
                      const ZLCString*) const override {
        std::string text = std::to_string(number);
        if (insertCount > 0)
            text += std::string(": ") + s1->getChars();
        return add(text);
    }
    int outputMessageUTF8(const char*, int, int number, int, const ZUTF8String*, const ZUTF8String*,
                          const ZUTF8String*, const ZUTF8String*, const ZUTF8String*,
                          const ZUTF8String*) const override {
        return add(std::to_string(number));
    }
    int outputException(ZException& exception) const override { return exception.print(); }
    int outputException(const ZZException* exception, char* args) const override {
        std::string text = "raised " + std::to_string(exceptionNumber(*exception));
        if (dynamic_cast<const ZResourceException*>(exception) ||
            dynamic_cast<const ZConditionException*>(exception) ||
            dynamic_cast<const ZThreadException*>(exception))
            text +=
                "/" + std::to_string(va_arg(reinterpret_cast<ZMessageArguments*>(args)->list, int));
        return add(text);
    }

private:
    int add(const std::string& text) const {
        const std::lock_guard<std::mutex> guard(mutex_);
        reports_.push_back(text);
        return 0;
    }

    const ZMessageService* const before_;
    mutable std::mutex mutex_;
    mutable std::vector<std::string> reports_;  // guarded by mutex_
};
