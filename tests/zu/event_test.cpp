#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "socket_pair.h"
#include "zu/event.h"
#include "zu/timer.h"

namespace {

TEST(Event, OneWakePerSignalAndTimedWaits) {
    zu::Event event;
    EXPECT_FALSE(event.tryWait());
    event.signal();
    event.signal();  // merges with the first: still one wake
    EXPECT_TRUE(event.wait(0));
    EXPECT_FALSE(event.wait(0));
    event.signal();
    event.reset();
    EXPECT_FALSE(event.tryWait());

    // Waits time out, never before their time.
    zu::Timer timer;
    EXPECT_FALSE(event.wait(30));
    EXPECT_GE(timer.getElapsedSeconds(), 0.029);
    // A wait of 1 ms never returns before its millisecond has passed.
    timer.restart();
    EXPECT_FALSE(event.wait(1));
    EXPECT_GE(timer.getElapsedSeconds(), 0.001);
}

TEST(Event, EachSignalReleasesExactlyOneOfManyWaiters) {
    zu::Event event;
    std::atomic<int> woke{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i) {
        waiters.emplace_back([&] {
            if (event.wait(10000)) {
                ++woke;
            }
        });
    }
    for (int i = 0; i < 4; ++i) {
        event.signal();
        // Wait for that signal to be taken before giving the next, so none merge.
        for (int spin = 0; spin < 100000 && woke.load() <= i; ++spin) {
            std::this_thread::yield();
        }
    }
    for (auto& waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(woke.load(), 4);
}

TEST(WaitForAny, WaitsOnEventsAndSocketsTogether) {
    zu::Event first, second;
    SocketPair socket;
    zu::WaitHandle handles[] = {first.getWaitHandle(), socket.handle(0), second.getWaitHandle()};

    EXPECT_EQ(zu::waitForAny(handles, 3, 10), zu::kWaitTimeout);

    second.signal();
    EXPECT_EQ(zu::waitForAny(handles, 3, 1000), 2);
    EXPECT_FALSE(second.tryWait());  // the wait took the signal

    socket.send();
    EXPECT_EQ(zu::waitForAny(handles, 3, 1000), 1);
    EXPECT_EQ(zu::waitForAny(handles, 3, 1000), 1);  // readiness is not consumed

    std::thread signaller([&] { first.signal(); });
    signaller.join();
    EXPECT_EQ(zu::waitForAny(handles, 3, 1000), 0);  // lowest ready index first
    // Invalid calls fail; an empty handle never becomes ready.
    std::vector<zu::WaitHandle> tooMany(65);
    EXPECT_EQ(zu::waitForAny(tooMany.data(), tooMany.size(), 0), zu::kWaitFailed);
    zu::WaitHandle closed{zu::WaitHandle::SocketRead, 1000000};
    EXPECT_EQ(zu::waitForAny(&closed, 1, 0), zu::kWaitFailed);
    zu::WaitHandle none{};
    EXPECT_EQ(zu::waitForAny(&none, 1, 5), zu::kWaitTimeout);
}

}  // namespace
