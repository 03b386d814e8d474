// zuncancelled.h: what mustn't be cut in two by a thread's cancellation. Never installed.
#ifndef Z_ZUNCANCELLED_H
#define Z_ZUNCANCELLED_H

#include <pthread.h>

/// Keeps the calling thread from being cancelled while it lives; a request waits until the next
/// place for it behind that. Guards nest. errno stays as it is.
///
/// It belongs around a call that makes something (open, fopen, mmap), from before the call until an
/// owner has the result: a thread that is cancelled inside the call never gets the result, and
/// nobody else can give it back. It also belongs around what has to happen as a whole, as in
/// destructors, most of which end the process if a thread ends inside them. It does not belong
/// around waits for something that others decide about: those must stay cancellable.
class ZUncancelled {
public:
    ZUncancelled() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~ZUncancelled() { pthread_setcancelstate(before_, nullptr); }
    ZUncancelled(const ZUncancelled&) = delete;
    ZUncancelled& operator=(const ZUncancelled&) = delete;

private:
    int before_;
};

#endif
