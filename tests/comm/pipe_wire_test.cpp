// The pipe messages on the wire, read back field by field, and the reassembly rules of the
// receive handlers for packets written by hand.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/pipe_link.h"
#include "support/pipe_responders.h"

namespace {

using dmtest::PipeLink;
using dmtest::waitUntil;
namespace pipewire = dmtest::pipewire;

using Chunked = pipewire::Message;

Chunked decode(net::Packet& packet) {
    packet.setPos(0);
    return pipewire::read(packet);
}

TEST(PipeWire, NotificationPayloadIsItsTextWithoutTerminator) {
    PipeLink link;
    ASSERT_TRUE(link.connected);
    ASSERT_TRUE(link.left.pipe().sendNotify("ping", 4));
    ASSERT_TRUE(link.left.pipe().sendNotify("x", 4));
    link.left.pump();
    std::vector<net::Packet> packets = link.left.outbox().take();
    ASSERT_EQ(2u, packets.size());
    Chunked ping = decode(packets[0]);
    EXPECT_EQ(pipewire::kNotify, ping.kind);
    EXPECT_EQ(0u, ping.id);
    EXPECT_EQ(4u, ping.total);
    EXPECT_EQ(std::vector<uint8_t>({'p', 'i', 'n', 'g'}), ping.chunk);
    Chunked single = decode(packets[1]);
    EXPECT_EQ(1u, single.id);
    EXPECT_EQ(1u, single.total);
    EXPECT_EQ(std::vector<uint8_t>({'x'}), single.chunk);
}

// --- Reassembly of packets written by hand ---

using Reassembly = dmtest::HandWrittenPackets;

TEST_F(Reassembly, RequestChunksLandAtTheirOffsetsAndTheChunkEndingThePayloadCompletes) {
    std::atomic<int> completed{0};
    pipe().setRequestCallback({&completed, [](void* counter, dm::CommunicationPipe*) {
                                   ++*static_cast<std::atomic<int>*>(counter);
                               }});
    deliver({pipewire::request("link", 0, 1, "parts", 12, 4, 4, "5678"),
             pipewire::request("link", 0, 1, "parts", 12, 0, 4, "1234")});
    EXPECT_EQ(0, completed.load());
    EXPECT_EQ(1u, pipe().getStatistics().incomingRequests);
    deliver({pipewire::request("link", 0, 1, "parts", 12, 8, 4, "9abc")});
    EXPECT_EQ(1, completed.load());

    uint32_t value = 0;
    EXPECT_STREQ("parts", pipe().receiveRequest(&value).c_str());
    EXPECT_EQ(1u, value);
    void* data = nullptr;
    uint32_t size = 0;
    pipe().getRequestData(&data, &size);
    ASSERT_EQ(12u, size);
    EXPECT_EQ(0, std::memcmp("123456789abc", data, 12));
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(data) % 64);
}

// --- The worked example of docs/pipe-protocol.md, byte for byte ---

// A frame as the document shows it: length, packet id and payload in hexadecimal, 16 bytes to a
// line.
std::string frameHex(const net::Packet& packet) {
    std::vector<uint8_t> frame;
    const auto putU32 = [&](uint32_t value) {
        for (int shift = 0; shift < 32; shift += 8) {
            frame.push_back(static_cast<uint8_t>(value >> shift));
        }
    };
    putU32(4 + packet.getSize());
    putU32(static_cast<uint32_t>(packet.getID()));
    frame.insert(frame.end(), packet.getData(), packet.getData() + packet.getSize());
    std::string hex;
    char byte[4];
    for (size_t i = 0; i < frame.size(); ++i) {
        std::snprintf(byte, sizeof(byte), "%02X", frame[i]);
        hex += byte;
        hex += (i % 16 == 15 || i + 1 == frame.size()) ? "\n" : " ";
    }
    return hex;
}

TEST(PipeWire, WorkedExampleOfTheProtocolDocument) {
    PipeLink link("echo");
    ASSERT_TRUE(link.connected);
    dm::NetCommunicationPipe& asker = link.left.pipe();
    dm::NetCommunicationPipe& answerer = link.right.pipe();
    const uint8_t data[3] = {0x01, 0x02, 0x03};
    uint8_t answer[8] = {};
    uint32_t answerSize = 0;
    std::string reply;
    std::atomic<bool> answered{false};
    std::thread askerThread([&] {
        reply = asker.sendRequest("ping", 7, answer, sizeof(answer), &answerSize, data, 3).c_str();
        answered = true;
    });
    EXPECT_TRUE(waitUntil([&] { return asker.getStatistics().outgoingRequests == 1; }));
    link.left.pump();
    std::vector<net::Packet> requests = link.left.outbox().take();
    EXPECT_EQ(1u, requests.size());

    std::vector<net::Packet> responses;
    if (requests.size() == 1) {
        EXPECT_EQ(
            "31 00 00 00 CD 00 00 00 03 00 00 00 04 00 00 00\n"
            "65 63 68 6F 00 00 00 00 00 07 00 00 00 04 00 00\n"
            "00 70 69 6E 67 00 03 00 00 00 00 00 00 00 03 00\n"
            "00 00 01 02 03\n",
            frameHex(requests[0]));
        dmtest::deliverTo(answerer, requests[0]);
        EXPECT_STREQ("ping", answerer.receiveRequest(nullptr).c_str());
        std::thread answererThread([&] { answerer.respond("pong", "\xAA\xBB", 2); });
        EXPECT_TRUE(waitUntil([&] { return answerer.getStatistics().outgoingResponses == 1; }));
        link.right.pump();
        answererThread.join();
        responses = link.right.outbox().take();
    }
    EXPECT_EQ(1u, responses.size());
    if (responses.size() == 1) {
        EXPECT_EQ(
            "2C 00 00 00 CD 00 00 00 04 00 00 00 04 00 00 00\n"
            "65 63 68 6F 00 00 00 00 00 04 00 00 00 70 6F 6E\n"
            "67 00 02 00 00 00 00 00 00 00 02 00 00 00 AA BB\n",
            frameHex(responses[0]));
        dmtest::deliverTo(asker, responses[0]);
    }
    if (!waitUntil([&] { return answered.load(); })) {
        asker.close();  // releases the request: the response never came
    }
    askerThread.join();
    EXPECT_EQ("pong", reply);
    EXPECT_EQ(2u, answerSize);
    EXPECT_EQ(0xAA, answer[0]);
    EXPECT_EQ(0xBB, answer[1]);
}

}  // namespace
