// fastdelegate::FastDelegate2: free functions, member functions and callables, bound without
// owning them.
#include <gtest/gtest.h>

#include <string>

#include "zu/fast_delegate.h"

namespace {

using Delegate = fastdelegate::FastDelegate2<const char*, const char*, bool>;

bool sameText(const char* a, const char* b) {
    return std::string(a) == b;
}

struct Collector {
    int calls = 0;
    bool take(const char* name, const char*) {
        ++calls;
        return name[0] == 't';
    }
};

TEST(FastDelegateTest, CallsWhatItIsBoundTo) {
    Delegate empty;
    EXPECT_TRUE(empty.empty());
    EXPECT_FALSE(empty);
    EXPECT_TRUE(!empty);

    Delegate function(&sameText);
    ASSERT_TRUE(function);
    EXPECT_TRUE(function("a", "a"));
    EXPECT_FALSE(function("a", "b"));

    Collector collector;
    Delegate member(&collector, &Collector::take);
    EXPECT_TRUE(member("take", ""));
    EXPECT_FALSE(member("skip", ""));
    EXPECT_EQ(collector.calls, 2);

    // A copy calls the same object; clearing one leaves the other bound.
    Delegate copy = member;
    copy.clear();
    EXPECT_TRUE(copy.empty());
    EXPECT_TRUE(member("t", ""));
    EXPECT_EQ(collector.calls, 3);

    std::string seen;
    auto remember = [&seen](const char* a, const char* b) {
        seen = std::string(a) + b;
        return true;
    };
    Delegate callable(remember);
    Delegate callableCopy(callable);
    EXPECT_TRUE(callableCopy("x", "y"));
    EXPECT_EQ(seen, "xy");

    Delegate none(nullptr);
    EXPECT_TRUE(none.empty());
}

}  // namespace
