// zu::Event and zu::Signal keep one signal until a waiter takes it; both are held to the same
// behaviour.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/test_support.h"
#include "zu/event.h"
#include "zu/signal.h"
#include "zu/timer.h"

namespace {

template <typename SignalType>
class WakeTest : public ::testing::Test {};
using SignalTypes = ::testing::Types<zu::Event, zu::Signal>;
TYPED_TEST_SUITE(WakeTest, SignalTypes);

TYPED_TEST(WakeTest, KeepsOneSignalUntilTakenAndTimesOutWithout) {
    TypeParam signal;
    EXPECT_FALSE(signal.tryWait());
    signal.signal();
    signal.signal();  // merges with the first
    EXPECT_TRUE(signal.wait());
    EXPECT_FALSE(signal.wait(0));
    signal.signal();
    signal.reset();
    EXPECT_FALSE(signal.tryWait());

    zu::Timer timer;
    EXPECT_FALSE(signal.wait(30));
    EXPECT_GE(timer.getElapsedSeconds(), 0.029);
    // A wait of 1 ms never returns before its millisecond has passed.
    timer.restart();
    EXPECT_FALSE(signal.wait(1));
    EXPECT_GE(timer.getElapsedSeconds(), 0.001);
    signal.signal();  // a wait that gave up leaves later signals for the next one
    EXPECT_TRUE(signal.wait(0));
}

TYPED_TEST(WakeTest, WakesAThreadAsleepOnItEveryTime) {
    TypeParam ping, pong;
    constexpr int kRounds = 2000;
    std::thread partner([&] {
        for (int i = 0; i < kRounds; ++i) {
            ASSERT_TRUE(ping.wait(10000));
            pong.signal();
        }
    });
    int answered = 0;
    for (int i = 0; i < kRounds; ++i) {
        ping.signal();
        answered += pong.wait(10000) ? 1 : 0;
    }
    partner.join();
    EXPECT_EQ(answered, kRounds);
    EXPECT_FALSE(ping.tryWait());
    EXPECT_FALSE(pong.tryWait());
}

TYPED_TEST(WakeTest, EachSignalReleasesOneOfManyWaiters) {
    TypeParam signal;
    std::atomic<int> woke{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i) {
        waiters.emplace_back([&] { woke += signal.wait(10000) ? 1 : 0; });
    }
    for (int i = 1; i <= 4; ++i) {
        signal.signal();
        EXPECT_TRUE(dmtest::waitUntil([&] { return woke.load() >= i; }));  // before the next
        EXPECT_EQ(woke.load(), i);
        EXPECT_FALSE(signal.tryWait());  // the waiter took it; none is left over
    }
    dmtest::joinAll(waiters);
}

}  // namespace
