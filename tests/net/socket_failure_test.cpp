// Sockets facing peers that fail: no listener, closes and resets mid-frame (as when the peer's
// process dies), and frames that are not ours.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

#include "net/listener.h"
#include "net/socket.h"
#include "net_test_util.h"

namespace {

using net::Packet;
using net::Socket;
using nettest::Bytes;
using nettest::RawPeer;

Bytes uint32Payload(uint32_t value) {
    Bytes payload;
    nettest::appendLE32(payload, value);
    return payload;
}

// Polls until the socket reports the connection gone; returns the ids of the packets seen.
std::vector<int> drainUntilDisconnected(Socket& socket) {
    std::vector<int> ids;
    dmtest::waitUntil([&] {
        socket.update();
        while (Packet* packet = socket.pollPacket(nullptr)) {
            ids.push_back(packet->getID());
        }
        return !socket.isConnected();
    });
    return ids;
}

void expectClosed(const Socket& socket) {
    EXPECT_FALSE(socket.isConnected());
    EXPECT_FALSE(socket.isConnecting());
    EXPECT_EQ(socket.getWaitHandle().kind, zu::WaitHandle::None);
    EXPECT_EQ(socket.getConnectedIP(), "");
}

TEST(SocketFailure, ConnectToAPortWithoutListenerEndsNeitherConnectedNorConnecting) {
    uint32_t port = 0;
    {
        net::Listener probe(0, "127.0.0.1");
        port = probe.getPort();
    }
    Socket socket;
    if (socket.connect("127.0.0.1", port)) {
        if (socket.isConnecting()) {
            EXPECT_EQ(socket.getWaitHandle().kind, zu::WaitHandle::SocketWrite);
        }
        EXPECT_TRUE(dmtest::waitUntil([&] {
            socket.update();
            return !socket.isConnecting();
        }));
    }
    expectClosed(socket);
    EXPECT_FALSE(socket.sendPacket(Packet(1)));
    EXPECT_EQ(socket.pollPacket(nullptr), nullptr);

    // The same object connects fine once somebody listens.
    net::Listener listener(0, "127.0.0.1");
    ASSERT_TRUE(socket.connect("localhost", listener.getPort()));  // by name
    EXPECT_TRUE(dmtest::waitUntil([&] {
        socket.update();
        return socket.isConnected();
    }));
    EXPECT_FALSE(socket.connect("", listener.getPort()));
    EXPECT_FALSE(socket.connect("127.0.0.1", 0x10000u + listener.getPort()));  // not a port
    expectClosed(socket);
}

// Whether the peer closes or resets, the whole frames it sent stay and the half frame goes.
TEST(SocketFailure, PeerClosingOrResettingMidFrameLeavesItsWholeFrames) {
    for (bool reset : {false, true}) {
        SCOPED_TRACE(reset ? "reset" : "closed");
        RawPeer peer;
        ASSERT_TRUE(peer.connected());
        // Two whole frames (ids 1 and 2) and the first bytes of a third.
        Bytes stream = nettest::makeFrame(1, uint32Payload(11));
        Bytes second = nettest::makeFrame(2, uint32Payload(22));
        Bytes third = nettest::makeFrame(3, Bytes(64, 0x33));
        stream.insert(stream.end(), second.begin(), second.end());
        stream.insert(stream.end(), third.begin(), third.begin() + 20);
        ASSERT_TRUE(nettest::rawSendAll(peer.fd, stream));
        if (reset) {  // the bytes are taken in before the reset, the frames stay unpolled
            zu::WaitHandle handle = peer.server->getWaitHandle();
            ASSERT_EQ(zu::waitForAny(&handle, 1, 5000), 0);
            peer.server->update();
            linger hardClose{1, 0};
            setsockopt(peer.fd, SOL_SOCKET, SO_LINGER, &hardClose, sizeof(hardClose));
        }
        peer.closeRaw();
        // Whole frames not yet polled keep it connected, also once the end has been read.
        const zu::WaitHandle handle = peer.server->getWaitHandle();
        zu::waitForAny(&handle, 1, 5000);
        peer.server->update();
        EXPECT_TRUE(peer.server->isConnected());

        EXPECT_EQ(drainUntilDisconnected(*peer.server), (std::vector<int>{1, 2}));
        expectClosed(*peer.server);
        EXPECT_FALSE(peer.server->sendPacket(Packet(1)));
    }
}

// A send failing while a frame's tail is being read straight into its owner's memory: the rest
// of the tail still goes there, and the frame behind it comes whole, as frames that arrived
// before a close do; none of the tail's bytes is ever taken for a frame's.
TEST(SocketFailure, AFailedSendWhileATailArrivesKeepsTheStreamInStep) {
    RawPeer peer;
    ASSERT_TRUE(peer.connected());
    Socket& reader = *peer.server;
    reader.setTailSteering(true);
    Bytes payload(100000);
    std::iota(payload.begin(), payload.end(), uint8_t{0});
    Bytes stream = nettest::makeFrame(7, payload);
    const Bytes next = nettest::makeFrame(8, uint32Payload(88));
    stream.insert(stream.end(), next.begin(), next.end());
    const size_t half = stream.size() / 2;
    ASSERT_TRUE(nettest::rawSendAll(peer.fd, stream.data(), half));
    ASSERT_TRUE(dmtest::waitUntil(
        [&] { return !reader.pollPacket(nullptr) && reader.awaitsTailDecision(); }));

    Bytes tail(payload.size() - 10);
    const auto readTail = [&] { return reader.readFrameTail(tail.data(), uint32_t(tail.size())); };
    ASSERT_EQ(readTail(), Socket::TailRead::kPending);
    shutdown(static_cast<int>(reader.getWaitHandle().handle), SHUT_WR);
    EXPECT_FALSE(reader.sendPacket(Packet(1)));
    ASSERT_TRUE(nettest::rawSendAll(peer.fd, stream.data() + half, stream.size() - half));
    ASSERT_TRUE(dmtest::waitUntil([&] { return readTail() != Socket::TailRead::kPending; }));
    ASSERT_EQ(readTail(), Socket::TailRead::kComplete);
    EXPECT_TRUE(std::equal(tail.begin(), tail.end(), payload.begin() + 10));
    reader.dropFrameWithTail();
    Packet* packet = dmtest::nextPacket(reader);
    ASSERT_NE(packet, nullptr);
    EXPECT_EQ(packet->getID(), 8);
}

TEST(SocketFailure, SendingToAVanishedPeerFailsWithoutASignal) {
    RawPeer peer;
    ASSERT_TRUE(peer.connected());
    linger hardClose{1, 0};
    setsockopt(peer.fd, SOL_SOCKET, SO_LINGER, &hardClose, sizeof(hardClose));
    peer.closeRaw();

    Packet packet(5);
    std::vector<uint8_t> bytes(1000, 1);
    packet.write(bytes.data(), 1000);
    // The first sends may still be taken by the OS; a broken pipe must end in false, not
    // SIGPIPE.
    EXPECT_TRUE(dmtest::waitUntil([&] { return !peer.server->sendPacket(packet); }));
    EXPECT_TRUE(dmtest::waitUntil([&] {
        peer.server->update();
        return !peer.server->isConnected();
    }));
}

TEST(SocketFailure, FrameLengthsOutsideTheLimitsCloseTheConnectionWithoutAllocating) {
    struct Case {
        const char* name;
        uint32_t length;
    };
    for (const Case& testCase : {Case{"beyond the maximum", 0xFFFFFFF0u},
                                 Case{"just beyond the maximum", Packet::kMaxPayload + 5},
                                 Case{"shorter than the id", 3}}) {
        SCOPED_TRACE(testCase.name);
        RawPeer peer;
        ASSERT_TRUE(peer.connected());
        size_t memoryBefore = nettest::virtualMemoryBytes();
        Bytes stream = nettest::makeFrame(1, uint32Payload(11));
        nettest::appendLE32(stream, testCase.length);
        nettest::appendLE32(stream, 2);
        stream.insert(stream.end(), 4096, 0x77);
        ASSERT_TRUE(nettest::rawSendAll(peer.fd, stream));

        // The frame before the bad one still arrives; then the connection is given up.
        EXPECT_EQ(drainUntilDisconnected(*peer.server), std::vector<int>{1});
        expectClosed(*peer.server);
        EXPECT_LT(nettest::virtualMemoryBytes(), memoryBefore + 64 * 1024 * 1024);
    }
}

}  // namespace
