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

TEST(Socket, PolledPacketCanBeCopiedAndWrittenWithoutHarmingTheNextOne) {
    SocketPair pair = dmtest::connectLoopback();
    ASSERT_TRUE(pair.connected());
    Packet first(1), second(2);
    first << "first";
    second << "second";
    pair.client->sendPacket(first);
    pair.client->sendPacket(second);
    pair.client->sendPacket(Packet(77));  // empty payload

    Packet* received = dmtest::nextPacket(*pair.server);
    ASSERT_NE(received, nullptr);
    Packet kept(*received);
    received->setPos(received->getSize());
    *received << "appended past the frame";  // must not spill into the next frame

    received = dmtest::nextPacket(*pair.server);
    ASSERT_NE(received, nullptr);
    const char* text = nullptr;
    *received >> text;
    EXPECT_STREQ(text, "second");
    kept >> text;
    EXPECT_STREQ(text, "first");
    uint32_t size = 1;
    received = dmtest::nextPacket(*pair.server, &size);
    ASSERT_NE(received, nullptr);
    EXPECT_EQ(received->getID(), 77);
    EXPECT_EQ(size, 0u);
}

TEST(Socket, LargePacketsOverfillTheOsBuffersAndTheSenderWaitsWhenTheQueueIsFull) {
    SocketPair pair = dmtest::connectLoopback();
    ASSERT_TRUE(pair.connected());
    nettest::shrinkSocketBuffers(pair);

    // A few more than the OS buffers take stay queued in the socket.
    constexpr uint32_t kFirst = 6;
    for (uint32_t i = 0; i < kFirst; ++i) {
        ASSERT_TRUE(pair.client->sendPacket(numberedPacket(i)));
    }
    EXPECT_TRUE(pair.client->hasSendsToDo());
    EXPECT_EQ(pair.client->getWaitHandle().kind, zu::WaitHandle::SocketReadWrite);

    // More than kMaxQueuedSend in total, so the sender has to wait for the reader.
    constexpr uint32_t kCount = Socket::kMaxQueuedSend / Packet::kMaxPayload + 8;
    std::atomic<uint32_t> sent{kFirst};
    std::atomic<bool> allAccepted{true};
    std::thread sender([&] {
        for (uint32_t i = kFirst; i < kCount; ++i, ++sent) {
            allAccepted = allAccepted && pair.client->sendPacket(numberedPacket(i));
        }
        dmtest::waitUntil([&] {
            pair.client->update();
            return !pair.client->hasSendsToDo();
        });
    });
    // Slow reader: nothing is read until the sender has queued close to the limit, where it
    // waits.
    dmtest::waitUntil([&] { return sent >= kCount - 12; });
    EXPECT_FALSE(dmtest::waitUntil([&] { return sent == kCount; }, std::chrono::milliseconds(300)));
    uint32_t received = 0;
    bool intact = true;
    dmtest::waitUntil([&] {
        uint32_t size = 0;
        while (Packet* packet = pair.server->pollPacket(&size)) {
            intact = intact && size == Packet::kMaxPayload &&
                     isNumberedPacket(*packet, received, Packet::kMaxPayload);
            ++received;
        }
        return received == kCount;
    });
    sender.join();
    EXPECT_TRUE(allAccepted);
    EXPECT_EQ(received, kCount);
    EXPECT_TRUE(intact);
    EXPECT_EQ(pair.client->getWaitHandle().kind, zu::WaitHandle::SocketRead);
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
