// Who is told, in which order, and what observers may do meanwhile.
#include "support/Prelude.h"

#include "Z/ZObserve.h"

namespace {

// Writes its name into a diary when told, and then does what the test wants.
class Diarist : public ZObserverInterface {
public:
    Diarist(std::vector<int>& diary, int name) : diary_(diary), name_(name) {}
    void update(ZObservableInterface* source, const ZObservedParm& parm) override {
        diary_.push_back(name_);
        source_ = source, parm_ = &parm;
        if (then)
            then();
    }
    std::function<void()> then;
    ZObservableInterface* source_ = nullptr;
    const ZObservedParm* parm_ = nullptr;

private:
    std::vector<int>& diary_;
    const int name_;
};

class Observers : public testing::Test {
public:
    ~Observers() noexcept override {}  // library objects may raise at their end; these don't

protected:
    void add(std::initializer_list<Diarist*> observers) {
        for (Diarist* observer : observers)
            observable.addObserver(observer);
    }
    std::vector<int> tell() {
        diary.clear();
        observable.notifyObservers(parm);
        return diary;
    }
    using Diary = std::vector<int>;
    Diary diary;
    Diarist one{diary, 1}, two{diary, 2}, three{diary, 3};
    ZObservedParm parm;
    ZAbstractObservable observable;
};

TEST_F(Observers, AreToldOnceEachInOrderOfRegistration) {
    EXPECT_EQ(tell(), Diary{}) << "nobody";
    add({&two, &one, &two, &three});
    EXPECT_EQ(observable.countObservers(), 3u);
    EXPECT_EQ(tell(), (Diary{2, 1, 3}));
    EXPECT_EQ(one.source_, &observable);
    EXPECT_EQ(one.parm_, &parm);
    observable.deleteObserver(&one);
    observable.deleteObserver(&one);
    observable.deleteObserver(nullptr);
    EXPECT_EQ(tell(), (Diary{2, 3}));
    observable.addObserver(&one);
    EXPECT_EQ(tell(), (Diary{2, 3, 1})) << "back at the end";
    observable.deleteObservers();
    EXPECT_EQ(observable.countObservers(), 0u);
    EXPECT_EQ(tell(), Diary{});
}

TEST_F(Observers, MayAddAndRemoveWhileTheyAreTold) {
    observable.addObserver(&one);
    one.then = [&] { add({&two, &one}); };  // the lock is recursive
    EXPECT_EQ(tell(), Diary{1});
    EXPECT_EQ(tell(), (Diary{1, 2})) << "the next time";
    one.then = [&] { observable.deleteObservers(); };
    EXPECT_EQ(tell(), Diary{1});
}

TEST_F(Observers, ThatRaiseEndTheNotificationAndFreeTheLock) {
    add({&one, &two, &three});
    two.then = [] { throw 7; };
    EXPECT_THROW(tell(), int);
    EXPECT_EQ(diary, (Diary{1, 2}));
    // Would wait for ever.
    std::thread([&] { EXPECT_EQ(observable.countObservers(), 3u); }).join();
}

TEST_F(Observers, AreCopiedAsAListOfTheirOwn) {
    add({&one, &two});
    {
        ZAbstractObservable copy(observable);
        copy.deleteObserver(&one);
        copy.addObserver(&three);
        EXPECT_EQ(tell(), (Diary{1, 2}));
        observable = copy;
        observable = *&observable;
    }
    EXPECT_EQ(tell(), (Diary{2, 3}));
}

TEST_F(Observers, ToldByTwoThreadsAreToldOneAtATime) {
    // The diary has no lock of its own: the race detector and lost lines show an overlap.
    add({&one, &two});
    const auto notify = [&] {
        for (int i = 0; i < 500; ++i)
            observable.notifyObservers(parm);
    };
    std::thread first(notify);
    notify();
    first.join();
    ASSERT_EQ(diary.size(), 2000u);
    for (size_t i = 0; i < diary.size(); i += 2)
        ASSERT_EQ(diary[i] * 10 + diary[i + 1], 12) << i;
}

TEST(Voyeurs, AreEqualWhenTheyStandForOneObserver) {
    std::vector<int> diary;
    Diarist observers[] = {{diary, 1}, {diary, 2}};
    const Voyeur low(&observers[0]), high(&observers[1]);
    EXPECT_EQ(low.compare(high), -1);
    EXPECT_EQ(high.compare(low), 1);
    const std::unique_ptr<ZObject> clone(low.clone());
    EXPECT_TRUE(clone->equals(low));
    EXPECT_EQ(clone->hash(), low.hash());
    EXPECT_EQ(static_cast<Voyeur*>(clone.get())->observer(), &observers[0]);
}

}  // namespace
