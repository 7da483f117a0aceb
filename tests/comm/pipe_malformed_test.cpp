// Incoming data the pipe must not trust: chunks outside their message, packets that end
// early, oversized messages, responses larger than the caller's buffer. Random packets are
// the fuzz harness's (tests/fuzz/pipe_receive_fuzz.cpp).
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/pipe_link.h"

namespace {

using dmtest::PendingRequest;
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

TEST_F(Malformed, RequestChunkOutsideItsDataIsDropped) {
    const Bytes chunk(16, 0x5A);
    deliver(pipewire::request("link", 0, 0, "past end", 10, 8, 4, chunk.data()));
    deliver(pipewire::request("link", 0, 0, "wraps", 10, 0xFFFFFFFCu, 8, chunk.data()));
    EXPECT_EQ(0u, incomingRequests());
    EXPECT_EQ(2u, statistics().droppedMalformed);
    // The pipe still takes a proper one with the same id.
    deliver(pipewire::request("link", 0, 0, "fine", 4, 0, 4, chunk.data()));
    EXPECT_STREQ("fine", link.right.pipe().receiveRequest(nullptr).c_str());
}

TEST_F(Malformed, RequestPacketEndingBeforeItsFieldsIsDropped) {
    net::Packet sizesCut(pipewire::kPacketId);
    sizesCut << pipewire::kRequest << "link" << uint32_t(0) << uint32_t(0) << "cut" << uint32_t(8);
    deliver(sizesCut);
    const Bytes hundred(100, 3);
    deliver(cutShort(pipewire::request("link", 0, 0, "short", 100, 0, 100, hundred.data()), 90));
    deliver(cutShort(pipewire::request("link", 0, 0, "short", 100, 0, 100, hundred.data()), 1));
    EXPECT_EQ(0u, incomingRequests());
    EXPECT_EQ(3u, statistics().droppedMalformed);
}

TEST_F(Malformed, ChunkThatDisagreesWithItsRequestsSizeIsDropped) {
    deliver(pipewire::request("link", 0, 0, "two parts", 8, 0, 4, "abcd"));
    deliver(pipewire::request("link", 0, 0, "two parts", 16, 4, 12, "efghijklmnop"));
    deliver(pipewire::request("link", 0, 0, "two parts", 8, 4, 4, "efgh"));
    EXPECT_EQ(1u, statistics().droppedMalformed);
    EXPECT_STREQ("two parts", link.right.pipe().receiveRequest(nullptr).c_str());
    void* data = nullptr;
    uint32_t size = 0;
    link.right.pipe().getRequestData(&data, &size);
    ASSERT_EQ(8u, size);
    EXPECT_EQ(0, std::memcmp("abcdefgh", data, 8));
}

TEST_F(Malformed, NotifyChunkOutsideItsTextIsDropped) {
    deliver(pipewire::notify("link", 0, 0, 3, 2, 2, "xy"));
    net::Packet cut(pipewire::kPacketId);
    cut << pipewire::kNotify << "link" << uint32_t(1) << uint32_t(0) << uint32_t(5);
    deliver(cut);
    const Bytes fifty(50, 'f');
    deliver(cutShort(pipewire::notify("link", 2, 0, 50, 0, 50, fifty.data()), 40));
    EXPECT_EQ(0u, incomingNotifications());

    // More text than announced, spread over chunks that each lie inside it.
    deliver(pipewire::notify("link", 3, 0, 4, 0, 3, "abc"));
    deliver(pipewire::notify("link", 3, 0, 4, 1, 3, "XYZ"));
    deliver(pipewire::notify("link", 3, 0, 4, 3, 1, "d"));
    EXPECT_EQ(4u, statistics().droppedMalformed);
    EXPECT_STREQ("abcd", link.right.pipe().receiveNotify(nullptr).c_str());
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
    PendingRequest request(link.right.pipe(), "waiting");
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
    EXPECT_STREQ("good", request.result());
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
