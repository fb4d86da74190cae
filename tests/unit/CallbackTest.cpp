// SPDX-License-Identifier: Apache-2.0
// Calls held as values: Callback and Slot.
#include "SR_Callback.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <stdexcept>
#include <string>

namespace {

using sentrel::BaseCallback;
using sentrel::Callback;
using sentrel::Slot;

struct Target {
    std::string Describe(const int& value) {
        last = &value;
        return "<" + std::to_string(value) + ">";
    }
    int Double(int value) { return 2 * value; }
    int Negate(int value) { return -value; }
    void Increment(int& value) { ++value; }
    int Throw(int value) { throw std::out_of_range(std::to_string(value)); }

    const int* last = nullptr;
};

// Counts its live objects.
class Counted : public BaseCallback<int, int> {
public:
    explicit Counted(int& liveObjects) : live(liveObjects) { ++live; }
    ~Counted() override { --live; }
    int call(int argument) const override { return argument + 1; }

private:
    int& live;
};

TEST(CallbackTest, ACallReachesTheMethodOfTheObject) {
    Target target;
    const Callback<Target, std::string, const int&> callback(&target, &Target::Describe);
    const int value = 7;
    EXPECT_EQ("<7>", callback.call(value));
    EXPECT_EQ(&value, target.last) << "a reference is passed on, not a copy";
}

TEST(CallbackTest, ACallWithoutAResultPassesTheReferenceOn) {
    Target target;
    const Callback<Target, void, int&> callback(&target, &Target::Increment);
    int value = 1;
    callback.call(value);
    EXPECT_EQ(2, value);
}

TEST(CallbackTest, TwoCallbacksOnOneObjectKeepTheirMethods) {
    Target target;
    const Callback<Target, int, int> twice(&target, &Target::Double);
    const Callback<Target, int, int> negated(&target, &Target::Negate);
    EXPECT_EQ(10, twice.call(5));
    EXPECT_EQ(-5, negated.call(5));
}

TEST(CallbackTest, ACallbackDoesNotOwnItsObject) {
    Target target;
    {
        const Callback<Target, int, int> callback(&target, &Target::Double);
        EXPECT_EQ(2, callback.call(1));
    }
    EXPECT_EQ(4, target.Double(2));
}

TEST(CallbackTest, AnExceptionOfTheMethodPassesThrough) {
    Target target;
    const Slot<int, int> slot(
        boost::make_shared<Callback<Target, int, int> >(&target, &Target::Throw));
    EXPECT_THROW(slot(3), std::out_of_range);
}

TEST(CallbackTest, ASlotCallsItsCallable) {
    Target target;
    const Slot<int, int> slot(
        boost::make_shared<Callback<Target, int, int> >(&target, &Target::Double));
    EXPECT_EQ(42, slot(21));
}

TEST(CallbackTest, CopiesOfASlotShareTheCallableUntilTheLastIsGone) {
    int live = 0;
    {
        Slot<int, int> second(boost::make_shared<Counted>(live));
        {
            const Slot<int, int> first(boost::make_shared<Counted>(live));
            ASSERT_EQ(2, live);
            second = first;
            EXPECT_EQ(1, live) << "the callable that lost its last slot is destroyed";
            EXPECT_EQ(2, first(1));
        }
        EXPECT_EQ(1, live);
        EXPECT_EQ(3, second(2));
    }
    EXPECT_EQ(0, live);
}

}  // namespace
