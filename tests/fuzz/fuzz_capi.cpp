// Any sequence of calls of the C interface with any texts: no crash, no leak, and after each store
// the file loads again to the same answers. The input is a program: an operation byte, then its
// texts, each ended by a newline byte or the end of the input.
#include <Z/zproperties.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "support/TempFolder.h"

static const TempFolder folder;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("QELDIR", "/opt/Quillmere/nls/QEL", 0);
    return 0;
}

namespace {

class Program {
public:
    Program(const uint8_t* data, size_t size) : at_(data), end_(data + size) {}
    bool isOver() const { return at_ == end_; }
    int operation() { return *at_++; }
    // A text, null if it is a single "-".
    const char* text() {
        std::string& slot = slots_[next_++ % 4];
        slot.clear();
        while (at_ != end_ && *at_ != '\n')
            slot += static_cast<char>(*at_++);
        if (at_ != end_)
            ++at_;
        return slot == "-" ? nullptr : slot.c_str();
    }

private:
    const uint8_t *at_, *end_;
    std::string slots_[4];
    int next_ = 0;
};

void read(ZPROP_handle* handle, const char* stanza, const char* key) {
    int err = 0;
    zstzPropFree(zstzPropGetStringValue(handle, stanza, key, 0, &err));
    zstzPropGetIntegerValue(handle, stanza, key, 1, &err);
    zstzPropGetBooleanValue(handle, stanza, key, 1, &err);
    zstzPropNumValues(handle, stanza, key, &err);
    zstzPropNumKeys(handle, stanza, &err);
    zstzPropExists(handle, stanza, key, &err);
    char* text = nullptr;
    char** values = nullptr;
    ZPROP_item items[] = {{ZPROP_ITEM_STRING, stanza, key, ZPROP_ITEM_OPTIONAL, &text},
                          {ZPROP_ITEM_VALUES, stanza, key, 0, &values}};
    zstzPropGetValues(handle, items, 2);
    zstzPropFreeValuesList(handle, items, 2);
    ZPROP_error error;
    zstzPropLastError(&error);
}

void walk(ZPROP_handle* handle, const char* stanza, const char* key, const char* text) {
    ZPROP_iter_handle* iterator = nullptr;
    if (zstzPropIter_init(handle, stanza, key, &iterator) != ZPROP_OK)
        return;
    int err = 0;
    int step = 0;
    while (zstzPropIter_next(iterator, &err) != 0 && step < 20) {
        zstzPropIter_getKey(iterator, &err);
        zstzPropIter_getValue(iterator, 0, &err);
        zstzPropIter_numKeys(iterator, &err);
        zstzPropIter_numValues(iterator, &err);
        const int change = step++ % 3;
        change == 0   ? zstzPropIter_chgValue(iterator, text)
        : change == 1 ? zstzPropIter_addValue(iterator, text)
                      : zstzPropIter_rmvValue(iterator);
    }
    zstzPropIter_addValue(iterator, text);
    if (zstzPropIter_close(iterator) != ZPROP_OK)
        abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The first text, up to a form feed, is the file.
    const void* feed = memchr(data, '\f', size);
    const size_t head = feed == nullptr ? 0 : static_cast<const uint8_t*>(feed) - data;
    const std::string path =
        folder.write("a.conf", std::string(reinterpret_cast<const char*>(data), head));
    ZPROP_handle* handle = nullptr;
    if (zstzPropOpen(&handle, path.c_str(), ZPROP_OPEN_UPDATE) != ZPROP_OK)
        return 0;
    Program program(data + head, size - head);
    while (!program.isOver()) {
        const int operation = program.operation();
        const char* stanza = program.text();
        const char* key = program.text();
        const char* text = program.text();
        const std::function<void()> calls[] = {
            [&] { zstzPropSetStringValue(handle, stanza, key, text); },
            [&] { zstzPropSetStringValue(handle, stanza, key, text); },
            [&] { zstzPropSetIntegerValue(handle, stanza, key, static_cast<unsigned int>(size)); },
            [&] { zstzPropRemoveKey(handle, stanza, key); },
            [&] { zstzPropRemoveStanza(handle, stanza); },
            [&] {
                zstzPropAddLineComment(handle, stanza, key, text);
                zstzPropAddStanzaComment(handle, stanza, text);
            },
            [&] { zstzPropAddFileComment(handle, text); },
            [&] { walk(handle, stanza, key, text); },
            [&] { zstzPropStore(handle, nullptr); },
            [&] {
                read(handle, stanza, key);
                char** names = nullptr;
                if (zstzPropGetStanzas(handle, &names) != ZPROP_OK)
                    abort();
                zstzPropFreeStanzas(names);
            },
        };
        calls[operation % 10]();
    }
    zstzPropClose(handle);
    return 0;
}
