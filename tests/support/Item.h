// Item.h: a member for the containers under test, which counts itself.
#pragma once

#include "support/Prelude.h"

#include "Z/ZException.h"
#include "Z/ZList.h"

/// Equal by value; ordered by value; its hash is chosen by the test. `tag` tells equal ones apart.
class Item : public ZObject {
public:
    explicit Item(int value, unsigned int hash = 0, int tag = 0)
        : value(value), hashValue(hash), tag(tag) {
        ++live;
    }
    Item(const Item& other)
        : ZObject(other), value(other.value), hashValue(other.hashValue), tag(other.tag) {
        ++live;
    }
    Item& operator=(const Item&) = delete;
    ~Item() noexcept override {
        --live;
        if (deleted != nullptr)
            deleted->push_back(value);
    }

    unsigned int hash() const override {
        ++hashCalls;
        return hashValue;
    }
    int compare(const ZObject& other) const override {
        const int theirs = static_cast<const Item&>(other).value;
        return (value > theirs) - (value < theirs);
    }
    int equals(const ZObject& other) const override {
        ++equalsCalls;
        return compare(other) == 0;
    }
    ZObject* clone() const override { return new Item(*this); }

    const int value;
    const unsigned int hashValue;
    const int tag;

    static inline int live = 0;
    static inline unsigned long hashCalls = 0;
    static inline unsigned long equalsCalls = 0;
    static inline std::vector<int>* deleted = nullptr;  // takes the values of deleted items
};

/// Expects that every item made in a scope is gone at its end.
class NothingLeft {
public:
    NothingLeft() : before_(Item::live) {}
    ~NothingLeft() { EXPECT_EQ(Item::live, before_); }

private:
    const int before_;
};

/// Has no copies, and a destructor that raises.
class RaisingItem : public ZObject {
public:
    ~RaisingItem() noexcept(false) override {
        ZInvalidParameterException failure;
        failure.throwException("RaisingItem", 1);
    }
};

/// The values of a list's members, null as -1.
inline std::vector<int> valuesOf(const ZList& list) {
    std::vector<int> values;
    for (unsigned int i = 0; i < list.size(); ++i) {
        const ZObject* member = list.get(i);
        values.push_back(member != nullptr ? static_cast<const Item*>(member)->value : -1);
    }
    return values;
}
