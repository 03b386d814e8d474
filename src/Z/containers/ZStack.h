// ZStack.h: the list seen from one end.
#ifndef Z_ZSTACK_H
#define Z_ZSTACK_H

#include "ZList.h"

/// What a stack of objects offers; ZArrayStack tells what each call does. An interface without
/// ZObject: never delete through it.
class ZEXPORT ZStack {
public:
    virtual void push(ZObject* object) = 0;
    virtual ZObject* pop() = 0;
    virtual void popall() = 0;

protected:
    ~ZStack() = default;
};

/// What every stack can do through pop() alone.
class ZEXPORT ZAbstractStack : public ZStack {
public:
    /// Pops until pop() gives null, be it a null member or the end. Deletes nothing.
    void popall() override;

protected:
    ~ZAbstractStack() = default;
};

/// A stack whose top is the end of a list, with all the calls of that list. It never owns its
/// members: it neither clones nor deletes.
class ZEXPORT ZArrayStack : public ZArrayList, public ZAbstractStack {
public:
    /// An empty stack with room for `capacity` members; 0 is taken as 1.
    explicit ZArrayStack(unsigned int capacity);
    ~ZArrayStack() noexcept override;

    ZObject* clone() const override;

    void push(ZObject* object) override;

    /// Removes the top and returns it; null when the stack is empty or the top is a null member.
    ZObject* pop() override;
};

#endif
