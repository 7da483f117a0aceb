// zu::waitForAny over events and sockets.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "socket_pair.h"
#include "zu/event.h"

namespace {

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
