#include "net/socket.h"

#include <gtest/gtest.h>
#include <netinet/tcp.h>

#include <atomic>
#include <thread>

#include "net/listener.h"
#include "net_test_util.h"

namespace {

using net::Packet;
using net::Socket;
using nettest::Bytes;
using nettest::SocketPair;
using nettest::waitForPacket;

// A max-size payload whose bytes tell the packet's number and their own offset.
Packet numberedPacket(uint32_t number, uint32_t size = Packet::kMaxPayload) {
    Packet packet(static_cast<int>(number));
    std::vector<uint8_t> bytes(size);
    for (uint32_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<uint8_t>(number * 31 + i / 4096);
    }
    packet.write(bytes.data(), size);
    return packet;
}

bool isNumberedPacket(const Packet& packet, uint32_t number, uint32_t size) {
    if (packet.getID() != static_cast<int>(number) || packet.getSize() != size) {
        return false;
    }
    for (uint32_t i = 0; i < size; i += 509) {
        if (packet.getData()[i] != static_cast<uint8_t>(number * 31 + i / 4096)) {
            return false;
        }
    }
    return packet.getData()[size - 1] == static_cast<uint8_t>(number * 31 + (size - 1) / 4096);
}

TEST(Listener, PortZeroPicksAFreePortAndAcceptsWithoutBlocking) {
    net::Listener listener(0, "127.0.0.1");
    ASSERT_TRUE(listener.isListening());
    EXPECT_NE(listener.getPort(), 0u);
    EXPECT_EQ(listener.pollConnect(), nullptr);  // nobody waiting

    net::Listener sameAddress(listener.getPort(), "127.0.0.1");
    EXPECT_FALSE(sameAddress.isListening());
    EXPECT_EQ(sameAddress.getPort(), 0u);
    EXPECT_FALSE(net::Listener(0x10000u + dmtest::pickFreePort(), "127.0.0.1").isListening());

    SocketPair pair = dmtest::connectLoopback();
    ASSERT_TRUE(pair.connected());
    EXPECT_EQ(pair.server->getConnectedIP(), "127.0.0.1");
    EXPECT_EQ(pair.client->getConnectedIP(), "127.0.0.1");
    int noDelay = 0;
    socklen_t length = sizeof(noDelay);
    getsockopt(static_cast<int>(pair.server->getWaitHandle().handle), IPPROTO_TCP, TCP_NODELAY,
               &noDelay, &length);
    EXPECT_NE(noDelay, 0);
}

// The fields' encoding is the packet tests' business; here the bytes must arrive as sent.
TEST(Socket, PacketsTravelBothWaysIntact) {
    SocketPair pair = dmtest::connectLoopback();
    ASSERT_TRUE(pair.connected());
    Packet request(205);
    request << int32_t{-5} << "pipe name";
    ASSERT_TRUE(pair.client->sendPacket(request));
    ASSERT_TRUE(pair.client->sendPacket(Packet(77)));  // empty payload
    ASSERT_TRUE(pair.server->sendPacket(numberedPacket(3, 1000)));

    uint32_t size = 0;
    Packet* received = waitForPacket(*pair.server, &size);
    ASSERT_NE(received, nullptr);
    EXPECT_EQ(received->getID(), 205);
    ASSERT_EQ(size, request.getSize());
    EXPECT_EQ(std::memcmp(received->getData(), request.getData(), size), 0);
    received = waitForPacket(*pair.server, &size);
    ASSERT_NE(received, nullptr);
    EXPECT_EQ(received->getID(), 77);
    EXPECT_EQ(size, 0u);
    received = waitForPacket(*pair.client, &size);
    ASSERT_NE(received, nullptr);
    EXPECT_TRUE(isNumberedPacket(*received, 3, 1000));
}

TEST(Socket, PolledPacketCanBeCopiedAndWrittenWithoutHarmingTheNextOne) {
    SocketPair pair = dmtest::connectLoopback();
    ASSERT_TRUE(pair.connected());
    Packet first(1), second(2);
    first << "first";
    second << "second";
    pair.client->sendPacket(first);
    pair.client->sendPacket(second);

    Packet* received = waitForPacket(*pair.server);
    ASSERT_NE(received, nullptr);
    Packet kept(*received);
    received->setPos(received->getSize());
    *received << "appended past the frame";  // must not spill into the next frame

    received = waitForPacket(*pair.server);
    ASSERT_NE(received, nullptr);
    const char* text = nullptr;
    *received >> text;
    EXPECT_STREQ(text, "second");
    kept >> text;
    EXPECT_STREQ(text, "first");
}

TEST(Socket, ManyPacketsArrivingInOneReadAreAllPolled) {
    nettest::RawPeer peer;
    ASSERT_TRUE(peer.connected());
    constexpr uint32_t kCount = 300;
    Bytes stream;
    for (uint32_t i = 0; i < kCount; ++i) {
        Bytes payload;
        nettest::appendLE32(payload, i);
        Bytes frame = nettest::makeFrame(static_cast<int>(i), payload);
        stream.insert(stream.end(), frame.begin(), frame.end());
    }
    ASSERT_TRUE(nettest::rawSendAll(peer.fd, stream));

    uint32_t received = 0;
    dmtest::waitUntil([&] {
        while (Packet* packet = peer.server->pollPacket(nullptr)) {
            uint32_t value = 0;
            *packet >> value;
            EXPECT_EQ(packet->getID(), static_cast<int>(received));
            EXPECT_EQ(value, received);
            ++received;
        }
        return received == kCount;
    });
    EXPECT_EQ(received, kCount);
}

TEST(Socket, LargePacketsOverfillTheOsBuffersWhileTheReaderIsSlow) {
    SocketPair pair = dmtest::connectLoopback();
    ASSERT_TRUE(pair.connected());
    nettest::shrinkSocketBuffers(pair);

    constexpr uint32_t kCount = 6;
    for (uint32_t i = 0; i < kCount; ++i) {
        ASSERT_TRUE(pair.client->sendPacket(numberedPacket(i)));
    }
    EXPECT_TRUE(pair.client->hasSendsToDo());
    EXPECT_EQ(pair.client->getWaitHandle().kind, zu::WaitHandle::SocketReadWrite);

    for (uint32_t i = 0; i < kCount; ++i) {
        uint32_t size = 0;
        Packet* packet = waitForPacket(*pair.server, &size, pair.client.get());
        ASSERT_NE(packet, nullptr) << "packet " << i;
        EXPECT_EQ(size, Packet::kMaxPayload);
        EXPECT_TRUE(isNumberedPacket(*packet, i, Packet::kMaxPayload)) << "packet " << i;
    }
    EXPECT_TRUE(dmtest::waitUntil([&] {
        pair.client->update();
        return !pair.client->hasSendsToDo();
    }));
    EXPECT_EQ(pair.client->getWaitHandle().kind, zu::WaitHandle::SocketRead);
}

TEST(Socket, SenderWaitsWhenTheQueueIsFullAndLosesNothing) {
    SocketPair pair = dmtest::connectLoopback();
    ASSERT_TRUE(pair.connected());
    nettest::shrinkSocketBuffers(pair);

    // More than kMaxQueuedSend in total, so the sender has to wait for the reader.
    constexpr uint32_t kCount = Socket::kMaxQueuedSend / Packet::kMaxPayload + 8;
    constexpr uint32_t kSize = Packet::kMaxPayload - 100;
    std::vector<Packet> packets;
    for (uint32_t i = 0; i < kCount; ++i) {
        packets.push_back(numberedPacket(i, kSize));
    }
    std::atomic<uint32_t> sent{0};
    std::atomic<bool> allAccepted{true};
    std::thread sender([&] {
        for (const Packet& packet : packets) {
            allAccepted = allAccepted && pair.client->sendPacket(packet);
            ++sent;
        }
        dmtest::waitUntil([&] {
            pair.client->update();
            return !pair.client->hasSendsToDo();
        });
    });
    // Slow reader: nothing is read until the sender has queued close to the limit.
    dmtest::waitUntil([&] { return sent >= kCount - 12; });
    uint32_t received = 0;
    bool intact = true;
    dmtest::waitUntil([&] {
        while (Packet* packet = pair.server->pollPacket(nullptr)) {
            intact = intact && isNumberedPacket(*packet, received, kSize);
            ++received;
        }
        return received == kCount;
    });
    sender.join();
    EXPECT_TRUE(allAccepted);
    EXPECT_EQ(received, kCount);
    EXPECT_TRUE(intact);
}

TEST(Socket, FrameDribbledOneByteAtATimeIsAssembled) {
    nettest::RawPeer peer;
    ASSERT_TRUE(peer.connected());

    Packet original(42);
    original << "dribbled" << int32_t{-9};
    Bytes frame =
        nettest::makeFrame(42, Bytes(original.getData(), original.getData() + original.getSize()));
    zu::WaitHandle handle = peer.server->getWaitHandle();
    for (size_t i = 0; i < frame.size(); ++i) {
        ASSERT_TRUE(nettest::rawSendAll(peer.fd, &frame[i], 1));
        ASSERT_EQ(zu::waitForAny(&handle, 1, 5000), 0);
        Packet* packet = peer.server->pollPacket(nullptr);
        if (i + 1 < frame.size()) {
            ASSERT_EQ(packet, nullptr) << "after byte " << i;
            continue;
        }
        ASSERT_NE(packet, nullptr);
        const char* text = nullptr;
        int32_t value = 0;
        *packet >> text >> value;
        EXPECT_STREQ(text, "dribbled");
        EXPECT_EQ(value, -9);
    }
}

TEST(Socket, RawReaderTakingSmallPiecesSeesTheDocumentedFrames) {
    nettest::RawPeer peer;
    ASSERT_TRUE(peer.connected());
    Packet small(3);
    small << uint32_t{0xCAFE} << "hi";
    Packet big = numberedPacket(9, 100000);
    ASSERT_TRUE(peer.server->sendPacket(small));
    ASSERT_TRUE(peer.server->sendPacket(big));

    Bytes expected =
        nettest::makeFrame(3, Bytes(small.getData(), small.getData() + small.getSize()));
    Bytes bigFrame = nettest::makeFrame(9, Bytes(big.getData(), big.getData() + big.getSize()));
    expected.insert(expected.end(), bigFrame.begin(), bigFrame.end());
    Bytes got;
    dmtest::waitUntil([&] {
        peer.server->update();
        // Small reads, as many as there is data for, so the Socket sees a slow consumer.
        uint8_t piece[7];
        ssize_t count = 0;
        while (got.size() < expected.size() && nettest::waitReadable(peer.fd, 10) &&
               (count = recv(peer.fd, piece, sizeof(piece), 0)) > 0) {
            got.insert(got.end(), piece, piece + count);
        }
        return got.size() >= expected.size();
    });
    EXPECT_EQ(got, expected);
}

}  // namespace
