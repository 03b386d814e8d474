#include "ZStack.h"

void ZAbstractStack::popall() {
    while (pop() != nullptr) {
    }
}

ZArrayStack::ZArrayStack(unsigned int capacity) : ZArrayList(capacity, 0) {}

ZArrayStack::~ZArrayStack() noexcept {}

ZObject* ZArrayStack::clone() const { return new ZArrayStack(*this); }

void ZArrayStack::push(ZObject* object) { add(object); }

ZObject* ZArrayStack::pop() {
    if (isEmpty())
        return nullptr;
    const unsigned int top = size() - 1;
    ZObject* object = get(top);
    remove(top);
    return object;
}
