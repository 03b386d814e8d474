// zpropanswers.h: how the calls of the C interface ask and change the object behind a handle.
// Never installed.
#ifndef Z_ZPROPANSWERS_H
#define Z_ZPROPANSWERS_H

#include "ZPropHandle.h"
#include "zproperror.h"

/// Holds an object's lock for a scope, so that a call of several steps is one for other threads: a
/// walk over nothing does just that.
typedef ZPropertiesIterator ZObjectLock;

/// The attributes that a handle can be opened with.
static const unsigned long kKnownAttributes =
    ZPCACHE_KEEP_COMMENTS | ZPCACHE_STRICT | ZPCACHE_KEEP_LINES;

/// A new string that zstzPropFree knows, with a NUL behind its `length` bytes.
char* znewString(const char* text, size_t length);
/// A list of copies with a null pointer behind them, for zstzPropFreeStanzas.
char** znewTexts(const ZArrayList& list);

/// Answers a question about the object behind `handle`; the result number goes to *err. `complete`:
/// no argument is null that must not be; otherwise *err is left alone and the answer is
/// `incompleteAnswer`.
template <typename Answer, typename Question>
Answer zask(ZPROP_handle* handle, int* err, bool complete, Answer incompleteAnswer,
            Question question) {
    if (!complete || err == nullptr) {
        zparameterError();
        return incompleteAnswer;
    }
    const Answer nothing = Answer();
    ZStanzaFileProperties* properties = zliveProperties(handle);
    if (properties == nullptr) {
        *err = zparameterError();
        return nothing;
    }
    Answer answer = nothing;
    *err = zguarded(zreadGroup, [&] { answer = question(*properties); });
    return *err == ZPROP_OK ? answer : nothing;
}

/// Lets one change run on the object behind `handle` and turns its outcome into a result number.
/// `complete`: none of the arguments that are needed is null.
template <typename Change>
int zapplyChange(ZPROP_handle* handle, bool complete, Change change) {
    ZStanzaFileProperties* properties = zliveProperties(handle);
    if (properties == nullptr || !complete)
        return zparameterError();
    return zguarded(zchangeGroup, [&] { change(*properties); });
}

#endif
