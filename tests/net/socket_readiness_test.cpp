// Sockets that read only when their owner's wait says so, and waits that tell every socket
// found ready.
#include <gtest/gtest.h>

#include "net_test_util.h"
#include "zu/event.h"

namespace {

using nettest::SocketPair;

constexpr uint32_t kWaitBoundMs = 5000;

void sendFromClient(SocketPair& pair, int id) {
    net::Packet packet(id);
    packet << static_cast<int32_t>(id * 7);
    ASSERT_TRUE(pair.client->sendPacket(packet));
    pair.client->update();
}

// Waits on the server side's socket alone and reports its readiness as an owner would.
bool waitAndNote(net::Socket& socket) {
    const zu::WaitHandle handle = socket.getWaitHandle();
    bool ready = false;
    if (zu::waitForAny(&handle, 1, kWaitBoundMs, &ready) != 0 || !ready) {
        return false;
    }
    socket.noteReadable();
    return true;
}

TEST(SocketReadiness, AfterAShortReadTheNextDataOrTheEndIsReadOnceTheWaitSaysSo) {
    SocketPair pair = dmtest::connectLoopback();
    ASSERT_TRUE(pair.connected());
    pair.server->setReadsOnlyWhenReady(true);

    for (int id = 1; id <= 3; ++id) {
        sendFromClient(pair, id);
        ASSERT_TRUE(waitAndNote(*pair.server));
        net::Packet* packet = pair.server->pollPacket(nullptr);
        ASSERT_NE(packet, nullptr);
        EXPECT_EQ(packet->getID(), id);
        int32_t value = 0;
        *packet >> value;
        EXPECT_EQ(value, id * 7);
        // That read came back short: without a wait saying otherwise, nothing more is read.
        EXPECT_EQ(pair.server->pollPacket(nullptr), nullptr);
        EXPECT_TRUE(pair.server->isConnected());
    }

    // Data sent before the wait is not lost: the wait finds it.
    sendFromClient(pair, 4);
    sendFromClient(pair, 5);
    ASSERT_TRUE(waitAndNote(*pair.server));
    for (int id = 4; id <= 5; ++id) {
        net::Packet* packet = pair.server->pollPacket(nullptr);
        if (!packet) {  // the second frame came after the read that found the first
            ASSERT_TRUE(waitAndNote(*pair.server));
            packet = pair.server->pollPacket(nullptr);
        }
        ASSERT_NE(packet, nullptr);
        EXPECT_EQ(packet->getID(), id);
    }

    // A peer that closes after a short read is seen once the wait says so.
    pair.client->close();
    ASSERT_TRUE(waitAndNote(*pair.server));
    EXPECT_EQ(pair.server->pollPacket(nullptr), nullptr);
    EXPECT_FALSE(pair.server->isConnected());
}

TEST(SocketReadiness, AWaitReportsEverySocketFoundReady) {
    SocketPair first = dmtest::connectLoopback();
    SocketPair second = dmtest::connectLoopback();
    ASSERT_TRUE(first.connected() && second.connected());
    zu::Event event;
    const zu::WaitHandle handles[] = {event.getWaitHandle(), first.server->getWaitHandle(),
                                      second.server->getWaitHandle()};
    bool ready[3] = {true, true, true};

    // Nothing to read: a short wait times out and reports nothing ready.
    EXPECT_EQ(zu::waitForAny(handles, 3, 1, ready), zu::kWaitTimeout);
    EXPECT_FALSE(ready[0] || ready[1] || ready[2]);

    // Only the second has data: the first is reported idle.
    sendFromClient(second, 1);
    EXPECT_EQ(zu::waitForAny(handles, 3, kWaitBoundMs, ready), 2);
    EXPECT_FALSE(ready[0] || ready[1]);
    EXPECT_TRUE(ready[2]);

    // Both have data and the event is set: the event ends the wait, both sockets are reported,
    // and the event's signal was taken by this wait only.
    sendFromClient(first, 2);
    ASSERT_EQ(zu::waitForAny(&handles[1], 1, kWaitBoundMs), 0);
    event.signal();
    EXPECT_EQ(zu::waitForAny(handles, 3, kWaitBoundMs, ready), 0);
    EXPECT_TRUE(ready[0] && ready[1] && ready[2]);
    EXPECT_FALSE(event.tryWait());
}

}  // namespace
