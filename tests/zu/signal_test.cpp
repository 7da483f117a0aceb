#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "zu/signal.h"
#include "zu/timer.h"

namespace {

// Waits (bounded) until `condition` holds.
template <typename Condition>
bool eventually(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    return condition();
}

TEST(Signal, KeepsOneSignalUntilTakenAndTimesOutWithout) {
    zu::Signal signal;
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
    signal.signal();  // a wait that gave up leaves later signals for the next one
    EXPECT_TRUE(signal.wait(0));
}

TEST(Signal, WakesAThreadAsleepOnItEveryTime) {
    zu::Signal ping, pong;
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

TEST(Signal, EachSignalReleasesOneOfManyWaiters) {
    zu::Signal signal;
    std::atomic<int> woke{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i) {
        waiters.emplace_back([&] { woke += signal.wait(10000) ? 1 : 0; });
    }
    for (int i = 1; i <= 4; ++i) {
        signal.signal();
        EXPECT_TRUE(eventually([&] { return woke.load() >= i; }));  // taken before the next
        EXPECT_EQ(woke.load(), i);
        EXPECT_FALSE(signal.tryWait());  // the waiter took it; none is left over
    }
    for (auto& waiter : waiters) {
        waiter.join();
    }
}

}  // namespace
