// Incoming data the pipe must not trust: chunks outside their message, repeated, overlapping
// or leaving gaps, packets that end early, empty texts, oversized messages, responses larger
// than the caller's buffer. Random packets are the fuzz harness's
// (tests/fuzz/pipe_receive_fuzz.cpp).
#include <gtest/gtest.h>

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
using Bytes = std::vector<uint8_t>;

// The packet without its last `bytesRemoved` payload bytes.
net::Packet cutShort(const net::Packet& packet, uint32_t bytesRemoved) {
    net::Packet cut;
    cut.assign(packet.getID(), packet.getData(), packet.getSize() - bytesRemoved);
    return cut;
}

using Malformed = dmtest::HandWrittenPackets;

using dmtest::joined;

// --- Packets written by hand, and what the application can take afterwards ---

// A request or notification the application takes: its text, value and (requests) data.
struct Taken {
    std::string text;
    uint32_t value;
    Bytes data;
};

struct Expected {
    uint64_t droppedMalformed, droppedEmptyText;
    std::vector<Taken> requests, notifications;  // oldest first; nothing else is handed out
};

struct HandWrittenCase {
    const char* name;
    std::vector<net::Packet> packets;
    Expected expected;
};

Bytes bytesOf(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

std::vector<HandWrittenCase> handWrittenCases() {
    using pipewire::notify;
    using pipewire::request;
    const Bytes z(16, 0x5A), a(4, 0xAA), b(4, 0xBB), c(4, 0xCC), hundred(100, 3);
    const Bytes ones(6, 0x11), twos(6, 0x22);
    net::Packet sizesCut(pipewire::kPacketId), notifyCut(pipewire::kPacketId);
    sizesCut << pipewire::kRequest << "link" << uint32_t(0) << uint32_t(0) << "cut" << uint32_t(8);
    notifyCut << pipewire::kNotify << "link" << uint32_t(1) << uint32_t(0) << uint32_t(5);
    net::Packet bare(pipewire::kPacketId);
    bare << pipewire::kRequest << "link" << uint32_t(0) << uint32_t(5) << "bare";
    return {
        {"chunk outside its data, the same id taken after",
         {request("link", 0, 0, "past end", 10, 8, 4, z.data()),
          request("link", 0, 0, "wraps", 10, 0xFFFFFFFCu, 8, z.data()),
          request("link", 0, 0, "fine", 4, 0, 4, z.data())},
         {2, 0, {{"fine", 0, Bytes(4, 0x5A)}}, {}}},
        {"packets ending before their fields",
         {sizesCut, cutShort(request("link", 0, 0, "short", 100, 0, 100, hundred.data()), 90),
          cutShort(request("link", 0, 0, "short", 100, 0, 100, hundred.data()), 1), notifyCut,
          cutShort(notify("link", 2, 0, 50, 0, 50, hundred.data()), 40)},
         {5, 0, {}, {}}},
        {"chunk disagreeing with its request's size",
         {request("link", 0, 0, "two parts", 8, 0, 4, "abcd"),
          request("link", 0, 0, "two parts", 16, 4, 12, "efghijklmnop"),
          request("link", 0, 0, "two parts", 8, 4, 4, "efgh")},
         {1, 0, {{"two parts", 0, bytesOf("abcdefgh")}}, {}}},
        {"notify chunks outside their text",
         {notify("link", 0, 0, 3, 2, 2, "xy"), notify("link", 3, 0, 4, 0, 3, "abc"),
          notify("link", 3, 0, 4, 1, 3, "XYZ"), notify("link", 3, 0, 4, 3, 1, "d")},
         {2, 0, {}, {{"abcd", 0, {}}}}},
        {"request ending after its text, complete without data",
         {bare},
         {0, 0, {{"bare", 5, {}}}, {}}},
        {"empty chunk of a request with data",  // taken, it would hand out unwritten bytes
         {request("link", 0, 0, "early", 16 * 1024 * 1024, 0, 0, nullptr),
          request("link", 0, 0, "proper", 4, 0, 4, "data")},
         {1, 0, {{"proper", 0, bytesOf("data")}}, {}}},
        {"repeated chunk, and a request with a gap never handed out",
         {request("link", 0, 0, "gappy", 12, 0, 4, a.data()),
          request("link", 0, 0, "gappy", 12, 0, 4, a.data()),
          request("link", 0, 0, "gappy", 12, 8, 4, c.data()),
          request("link", 0, 0, "whole", 12, 0, 4, a.data()),
          request("link", 0, 0, "whole", 12, 4, 4, b.data()),
          request("link", 0, 0, "whole", 12, 8, 4, c.data())},
         {2, 0, {{"whole", 0, joined(a, b, c)}}, {}}},
        {"overlapping chunk dropped, the rest completes",
         {request("link", 0, 0, "overlap", 8, 0, 6, ones.data()),
          request("link", 0, 0, "overlap", 8, 2, 6, twos.data()),
          request("link", 0, 0, "overlap", 8, 6, 2, twos.data())},
         {1, 0, {{"overlap", 0, {0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x22, 0x22}}}, {}}},
        {"notifications: appended as they arrive, oldest first, to a zero byte, ids reused",
         {notify("link", 1, 7, 6, 0, 3, "abc"), notify("link", 2, 8, 1, 0, 1, "x"),
          notify("link", 1, 7, 6, 0, 3, "def"), notify("link", 0, 1, 7, 0, 4, "ab\0c"),
          notify("link", 0, 1, 7, 4, 3, "def"), notify("link", 0, 2, 3, 0, 3, "two")},
         {0, 0, {}, {{"abcdef", 7, {}}, {"x", 8, {}}, {"abdef", 1, {}}, {"two", 2, {}}}}},
        {"empty first notify chunk holds nothing back",
         {notify("link", 0, 0, 5, 0, 0, nullptr), notify("link", 1, 0, 2, 0, 2, "hi")},
         {1, 0, {}, {{"hi", 0, {}}}}},
        {"empty texts dropped and counted once, later lower ids still taken",
         {request("link", 5, 1, "", 16, 0, 16, z.data()),
          request("link", 6, 1, "", 16, 0, 8, z.data()),
          request("link", 6, 1, "", 16, 8, 8, z.data()),
          request("link", 7, 1, "", 0, 0, 0, nullptr), notify("link", 0, 3, 0, 0, 0, nullptr),
          notify("link", 1, 3, 2, 0, 2, "\0\0"), request("link", 1, 9, "fine", 4, 0, 4, "abcd"),
          notify("link", 2, 4, 2, 0, 2, "ok")},
         {0, 5, {{"fine", 9, bytesOf("abcd")}}, {{"ok", 4, {}}}}},
    };
}

TEST(HandWritten, DroppedChunksAreCountedAndOnlyWholeMessagesAreHandedOut) {
    for (const HandWrittenCase& testCase : handWrittenCases()) {
        SCOPED_TRACE(testCase.name);
        PipeLink link;
        ASSERT_TRUE(link.connected);
        dm::NetCommunicationPipe& pipe = link.right.pipe();
        for (const net::Packet& packet : testCase.packets) {
            dmtest::deliverTo(pipe, packet);
        }
        EXPECT_EQ(testCase.expected.droppedMalformed, pipe.getStatistics().droppedMalformed);
        EXPECT_EQ(testCase.expected.droppedEmptyText, pipe.getStatistics().droppedEmptyText);
        uint32_t value = 0;
        for (const Taken& request : testCase.expected.requests) {
            EXPECT_EQ(request.text, pipe.receiveRequest(&value).c_str());
            EXPECT_EQ(request.value, value);
            void* data = &value;
            uint32_t size = 0;
            pipe.getRequestData(&data, &size);
            const uint8_t* bytes = static_cast<const uint8_t*>(data);
            EXPECT_EQ(request.data, Bytes(bytes, bytes + size));
            EXPECT_TRUE(size > 0 || data == nullptr);
        }
        EXPECT_STREQ("", pipe.receiveRequest(nullptr).c_str());
        for (const Taken& notification : testCase.expected.notifications) {
            const zu::InplaceString<128> text = pipe.receiveNotify(&value);
            EXPECT_EQ(notification.text, text.c_str());
            EXPECT_EQ(notification.text.size(), text.length());
            EXPECT_EQ(notification.value, value);
        }
        EXPECT_STREQ("", pipe.receiveNotify(nullptr).c_str());
    }
}

TEST_F(Malformed, MessagesOverTheSizeLimitAreDroppedUnallocated) {
    dm::NetCommunicationPipe& pipe = link.right.pipe();
    EXPECT_EQ(512u * 1024 * 1024, pipe.getMaxMessageSize());
    // Claiming 4 GiB with the default limit.
    deliver(pipewire::request("link", 0, 0, "huge", 0xFFFFFFFFu, 0, 4, "abcd"));
    EXPECT_EQ(0u, incomingRequests());

    EXPECT_TRUE(dm::setPipeMaxMessageSize(&pipe, 1024));
    const Bytes chunk(16, 1);
    deliver(pipewire::request("link", 0, 0, "over", 1025, 0, 16, chunk.data()));
    deliver(pipewire::notify("link", 0, 0, 1025, 0, 16, chunk.data()));
    EXPECT_EQ(0u, incomingRequests());
    EXPECT_EQ(0u, incomingNotifications());
    EXPECT_EQ(3u, statistics().droppedOverLimit);
    deliver(pipewire::request("link", 0, 0, "at limit", 1024, 0, 16, chunk.data()));
    deliver(pipewire::notify("link", 0, 0, 1024, 0, 16, chunk.data()));
    EXPECT_EQ(1u, incomingRequests());
    EXPECT_EQ(1u, incomingNotifications());
}

TEST_F(Malformed, BadResponsesAreDroppedAndTheRequestStillWaits) {
    dmtest::RequestThread request(&link.right.pipe(), "waiting");
    ASSERT_TRUE(waitUntil([&] { return link.right.pipe().getStatistics().outgoingRequests; }));
    deliver(pipewire::response("link", 0, "past end", 4, 2, 4, "abcd"));
    net::Packet cut(pipewire::kPacketId);
    cut << pipewire::kResponse << "link" << uint32_t(0) << "no sizes";
    deliver(cut);
    const Bytes hundred(100, 9);
    deliver(cutShort(pipewire::response("link", 0, "short", 100, 0, 100, hundred.data()), 90));
    deliver(pipewire::response("link", 55, "nobody asked", 0, 0, 0, nullptr));
    EXPECT_FALSE(request.done());
    EXPECT_EQ(1u, link.right.pipe().getStatistics().outgoingRequests);
    EXPECT_EQ(3u, statistics().droppedMalformed);
    EXPECT_EQ(1u, statistics().droppedStale);

    deliver(pipewire::response("link", 0, "good", 0, 0, 0, nullptr));
    ASSERT_TRUE(waitUntil([&] { return request.done(); }));
    EXPECT_EQ("good", request.result());
}

// A response of `size` bytes from a real pipe into a buffer of `capacity` bytes with a guard
// area behind it.
void expectClippedResponse(uint32_t size, uint32_t capacity) {
    PipeLink link;
    ASSERT_TRUE(link.connected);
    link.start();
    Bytes answer(size);
    for (uint32_t i = 0; i < size; ++i) {
        answer[i] = static_cast<uint8_t>(i % 251);
    }
    std::thread responder([&] {
        waitUntil([&] { return !link.right.pipe().receiveRequest(nullptr).empty(); });
        link.right.pipe().respond("clipped", answer.data(), size);
    });
    constexpr uint32_t kGuard = 64;
    Bytes buffer(capacity + kGuard, 0xEE);
    uint32_t reported = 0;
    zu::InplaceString<128> text =
        link.left.pipe().sendRequest("give", 0, buffer.data(), capacity, &reported, nullptr, 0);
    responder.join();
    EXPECT_STREQ("clipped", text.c_str());
    EXPECT_EQ(size, reported);
    EXPECT_TRUE(std::equal(answer.begin(), answer.begin() + capacity, buffer.begin()));
    EXPECT_EQ(Bytes(kGuard, 0xEE), Bytes(buffer.begin() + capacity, buffer.end()));
}

TEST(PipeResponseCapacity, ResponseLargerThanTheBufferFillsItAndReportsTheFullSize) {
    expectClippedResponse(1000, 100);
    // Over several packets, most of them wholly past the buffer.
    expectClippedResponse(3 * net::Packet::kMaxPayload, 1000);
}

}  // namespace
