// A pipe at the edges of what it takes and sends: unfinished requests a peer leaves behind,
// notifications that can never complete, texts longer than a packet, and messages far larger
// than a socket queues, which go out over several pumps without blocking the sender.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.h"
#include "support/pipe_link.h"
#include "support/pipe_responders.h"

namespace {

using dmtest::PipeLink;
using dmtest::waitUntil;
namespace pipewire = dmtest::pipewire;
using Bytes = std::vector<uint8_t>;

constexpr uint32_t kMiB = 1024 * 1024;

using PipeLimits = dmtest::HandWrittenPackets;

// --- Incoming requests ---

TEST_F(PipeLimits, UnfinishedMessagesAreLimitedInAnnouncedBytesAndInNumber) {
    pipe().setMaxMessageSize(4 * kMiB + 1024);
    // Each begins with one byte and never goes on: only four fit the limit together.
    std::vector<net::Packet> begun;
    for (uint32_t id = 0; id < 10; ++id) {
        begun.push_back(pipewire::request("link", id, 0, "begun", kMiB, 0, 1, "x"));
    }
    deliver(begun);
    EXPECT_EQ(4u, incomingRequests());

    // Small ones run into the limit on their number.
    std::vector<net::Packet> small;
    for (uint32_t id = 10; id < 50; ++id) {
        small.push_back(pipewire::request("link", id, 0, "small", 2, 0, 1, "y"));
    }
    deliver(small);
    EXPECT_EQ(dm::NetCommunicationPipe::kMaxUnfinishedIncoming, incomingRequests());
    EXPECT_EQ(6u + 40 - (dm::NetCommunicationPipe::kMaxUnfinishedIncoming - 4),
              statistics().droppedOverLimit);

    // A begun one can still end, and a request whole in one packet is no burden and arrives.
    deliver({pipewire::request("link", 10, 0, "small", 2, 1, 1, "z"),
             pipewire::request("link", 60, 0, "whole", 3, 0, 3, "abc")});
    EXPECT_EQ(dm::NetCommunicationPipe::kMaxUnfinishedIncoming + 1, incomingRequests());

    // Unfinished notifications are limited in number too.
    const uint64_t droppedBefore = statistics().droppedOverLimit;
    std::vector<net::Packet> notifications;
    for (uint32_t id = 0; id < dm::NetCommunicationPipe::kMaxUnfinishedIncoming + 2; ++id) {
        notifications.push_back(pipewire::notify("link", id, 0, 2, 0, 1, "x"));
    }
    deliver(notifications);
    EXPECT_EQ(droppedBefore + 2, statistics().droppedOverLimit);
}

// An empty text means "nothing arrived" to the application: a sender refuses it at once.
TEST_F(PipeLimits, EmptyTextsAreRefusedAtOnceWithALogLine) {
    dm::NetCommunicationPipe& sender = link.left.pipe();
    dmtest::LogCapture log;
    EXPECT_FALSE(sender.sendNotify("", 0));
    EXPECT_FALSE(sender.sendNotify(nullptr, 7));
    const uint8_t data[16] = {1, 2, 3};
    uint8_t answer[16] = {};
    uint32_t answerSize = 99;
    EXPECT_STREQ(
        "",
        sender.sendRequest("", 0, answer, sizeof(answer), &answerSize, data, sizeof(data)).c_str());
    EXPECT_EQ(99u, answerSize);
    {
        // Without data, on a thread of its own: a request that was queued would block.
        dmtest::RequestThread empty(&sender, "");
        EXPECT_TRUE(waitUntil([&] { return empty.done(); }));
    }
    const dm::PipeStatistics queued = sender.getStatistics();
    EXPECT_EQ(0u, queued.outgoingRequests);
    EXPECT_EQ(0u, queued.outgoingNotifications);

    const std::string line = "Pipe \"link\": refused to send a request with an empty text\n";
    const std::vector<std::string> lines = log.lines();
    ASSERT_EQ(4u, lines.size());
    EXPECT_EQ("Pipe \"link\": refused to send a notification with an empty text\n", lines[0]);
    EXPECT_EQ(line, lines[2]);
    EXPECT_EQ(line, lines[3]);

    // Nothing went on the wire, and the pipe still sends what has a text.
    EXPECT_TRUE(sender.sendNotify("after", 0));
    const dmtest::PacketCounts arrived = link.left.transferTo(link.right);
    EXPECT_EQ(1, arrived.notifies);
    EXPECT_EQ(0, arrived.requests);
    EXPECT_STREQ("after", pipe().receiveNotify(nullptr).c_str());
}

// --- Incoming notifications ---

TEST_F(PipeLimits, ResetDropsIncompleteNotificationsAndKeepsWholeOnes) {
    deliver({pipewire::notify("link", 0, 0, 2, 0, 2, "ok"),
             pipewire::notify("link", 1, 0, 6, 0, 3, "cut"),
             pipewire::notify("link", 2, 0, 5, 0, 5, "after")});
    EXPECT_STREQ("ok", pipe().receiveNotify(nullptr).c_str());
    EXPECT_STREQ("", pipe().receiveNotify(nullptr).c_str());  // "cut" holds "after" back
    // The rest of "cut" went with the connection.
    ASSERT_TRUE(link.reconnect());
    EXPECT_STREQ("after", pipe().receiveNotify(nullptr).c_str());
}

// --- Outgoing notifications ---

TEST_F(PipeLimits, NotificationsThePeerDoesNotTakeAreQueuedUpToABoundInBytesAndNumber) {
    const std::string tenMiB(10 * kMiB, 'b');
    EXPECT_TRUE(link.left.pipe().sendNotify(tenMiB.c_str(), 1));
    EXPECT_FALSE(link.left.pipe().sendNotify(tenMiB.c_str(), 1));  // 20 MiB would be queued
    size_t queued = 1;
    while (queued < 2000 && link.left.pipe().sendNotify("small", 1)) {
        ++queued;
    }
    EXPECT_EQ(dm::NetCommunicationPipe::kMaxQueuedNotifications, queued);
}

// --- Texts too long for a packet ---

TEST(PipeLongText, TooLongTextsReturnAtOnceAndLongOnesGoInEveryChunk) {
    PipeLink link;
    ASSERT_TRUE(link.connected);
    link.start();
    const std::string tooLong(net::Packet::kMaxPayload, 't');
    std::atomic<bool> requestReturned{false};
    zu::InplaceString<128> refused("not yet");
    std::thread refusedRequest([&] {
        refused = link.left.pipe().sendRequest(tooLong.c_str(), 0, nullptr, 0, nullptr, nullptr, 0);
        requestReturned = true;
    });
    const bool returned = waitUntil([&] { return requestReturned.load(); });
    if (!returned) {
        link.left.pipe().close();  // releases it, so that the test can end
    }
    refusedRequest.join();
    ASSERT_TRUE(returned);
    EXPECT_STREQ("", refused.c_str());
    EXPECT_EQ(0u, link.left.pipe().getStatistics().outgoingRequests);

    // A long text that fits goes in every chunk; a response too long is refused at once and
    // leaves the request to be answered properly.
    const std::string longText(100 * 1024, 'L');
    const Bytes data(300 * 1024, 0x3C);
    std::thread responder([&] {
        waitUntil([&] { return longText == link.right.pipe().receiveRequest(nullptr).c_str(); });
        link.right.pipe().respond(tooLong.c_str(), nullptr, 0);
        void* received = nullptr;
        uint32_t size = 0;
        link.right.pipe().getRequestData(&received, &size);
        link.right.pipe().respond(longText.c_str(), received, size);
    });
    Bytes answer(data.size());
    uint32_t answerSize = 0;
    zu::InplaceString<128> text =
        link.left.pipe().sendRequest(longText.c_str(), 0, answer.data(), answer.size(), &answerSize,
                                     data.data(), static_cast<uint32_t>(data.size()));
    responder.join();
    EXPECT_EQ(longText, text.c_str());
    EXPECT_EQ(data.size(), answerSize);
    EXPECT_TRUE(answer == data);

    // A notification longer than one packet is delivered once, whole.
    std::string longNotification(2 * net::Packet::kMaxPayload + 1234, ' ');
    for (size_t i = 0; i < longNotification.size(); ++i) {
        longNotification[i] = static_cast<char>('a' + i % 26);
    }
    std::atomic<int> completed{0};
    link.right.pipe().setNotifyCallback({&completed, [](void* counter, dm::CommunicationPipe*) {
                                             ++*static_cast<std::atomic<int>*>(counter);
                                         }});

    ASSERT_TRUE(link.left.pipe().sendNotify(longNotification.c_str(), 5));
    ASSERT_TRUE(link.left.pipe().sendNotify("after", 6));
    uint32_t value = 0;
    EXPECT_TRUE(dmtest::takeNotify(link.right.pipe(), &value) == longNotification);
    EXPECT_EQ(5u, value);
    ASSERT_TRUE(waitUntil([&] { return completed.load() == 2; }));
    // Only the short one is left: the long one came once.
    EXPECT_STREQ("after", link.right.pipe().receiveNotify(&value).c_str());
    EXPECT_EQ(6u, value);
    EXPECT_STREQ("", link.right.pipe().receiveNotify(&value).c_str());
}

// --- Large messages ---

TEST_F(PipeLimits, LargeRequestGoesOutOverSeveralPumpsWithoutWaitingForThePeer) {
    constexpr uint32_t kSize = 24 * kMiB;
    Bytes data(kSize);
    for (uint32_t i = 0; i < kSize; ++i) {
        data[i] = static_cast<uint8_t>(i * 13 + (i >> 12));
    }
    std::atomic<bool> done{false};
    std::thread sender([&] {
        link.left.pipe().sendRequest("bulk", 1, nullptr, 0, nullptr, data.data(), kSize);
        done = true;
    });
    EXPECT_TRUE(waitUntil([&] { return link.left.pipe().getStatistics().outgoingRequests; }));

    // The right end reads nothing yet: a pump must come back with the rest still to send, the
    // connection kept, instead of waiting for room.
    EXPECT_FALSE(link.left.pump());
    EXPECT_TRUE(link.left.pipe().isConnected());
    EXPECT_GT(link.left.outbox().getQueuedSendBytes(), 0u);
    EXPECT_LT(link.left.outbox().getQueuedSendBytes(), kSize / 2);  // it paused

    // Read and pump in turns: the chunks are those of one send, in order, each with the whole
    // head and the sizes.
    Bytes joined;
    bool consecutive = true;
    waitUntil([&] {
        for (net::Packet& packet : link.left.outbox().take()) {
            packet.setPos(0);
            pipewire::Message seen = pipewire::read(packet);
            consecutive = consecutive && seen.kind == pipewire::kRequest && seen.id == 0 &&
                          seen.text == "bulk" && seen.value == 1 && seen.total == kSize &&
                          seen.endsAfterChunk && seen.offset == joined.size() &&
                          !seen.chunk.empty();
            joined.insert(joined.end(), seen.chunk.begin(), seen.chunk.end());
        }
        link.left.pump();
        return joined.size() >= kSize || !consecutive;
    });
    EXPECT_TRUE(consecutive);
    EXPECT_TRUE(joined == data);

    link.right.send(pipewire::response("link", 0, "", 0, 0, 0, nullptr));
    link.left.receive();
    if (!waitUntil([&] { return done.load(); })) {
        link.left.pipe().close();  // releases the sender, so that the test can end
    }
    sender.join();
}

TEST_F(PipeLimits, RequestCutOffByAReconnectIsSentAgainFromItsStart) {
    constexpr uint32_t kSize = 16 * kMiB;
    dmtest::RequestThread request(&link.left.pipe(), "again", dmtest::patternBytes(kSize, 5),
                                  kSize);
    EXPECT_TRUE(waitUntil([&] { return link.left.pipe().getStatistics().outgoingRequests; }));
    link.left.pump();  // part of it goes into the old connection, which nobody reads
    ASSERT_TRUE(link.reconnect());
    link.start();
    dmtest::EchoResponder responder(&link.right.pipe());
    EXPECT_TRUE(waitUntil([&] { return request.done(); }));
    EXPECT_TRUE(request.echoed());
}

}  // namespace
