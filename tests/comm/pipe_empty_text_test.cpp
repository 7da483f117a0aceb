// Requests and notifications with an empty text: "" means "nothing arrived" to the application,
// so a sender refuses them at once and a receiver drops (and counts) those another sender made.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/pipe_link.h"

namespace {

using dmtest::PendingRequest;
using dmtest::waitUntil;
namespace pipewire = dmtest::pipewire;

using EmptyTexts = dmtest::HandWrittenPackets;

TEST_F(EmptyTexts, SenderRefusesThemAtOnceWithALogLine) {
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
        PendingRequest empty(sender, "");
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

TEST_F(EmptyTexts, ReceiverDropsAndCountsThemWithoutHoldingBackLaterOnes) {
    const uint8_t sixteen[16] = {0x10, 0x11, 0x12};
    // One chunk with data, two chunks (counted once), none at all.
    deliver(pipewire::request("link", 5, 1, "", 16, 0, 16, sixteen));
    deliver(pipewire::request("link", 6, 1, "", 16, 0, 8, sixteen));
    deliver(pipewire::request("link", 6, 1, "", 16, 8, 8, sixteen + 8));
    deliver(pipewire::request("link", 7, 1, "", 0, 0, 0, nullptr));
    EXPECT_EQ(0u, incomingRequests());
    EXPECT_EQ(3u, statistics().droppedEmptyText);

    // No text at all, and a text of zero bytes only.
    deliver(pipewire::notify("link", 0, 3, 0, 0, 0, nullptr));
    deliver(pipewire::notify("link", 1, 3, 2, 0, 2, "\0\0"));
    EXPECT_EQ(0u, incomingNotifications());
    EXPECT_EQ(5u, statistics().droppedEmptyText);

    // A dropped request completes nothing: a lower id that follows is still taken.
    deliver(pipewire::request("link", 1, 9, "fine", 4, 0, 4, "abcd"));
    deliver(pipewire::notify("link", 2, 4, 2, 0, 2, "ok"));
    uint32_t value = 0;
    EXPECT_STREQ("fine", pipe().receiveRequest(&value).c_str());
    EXPECT_EQ(9u, value);
    void* data = nullptr;
    uint32_t size = 0;
    pipe().getRequestData(&data, &size);
    EXPECT_EQ(4u, size);
    EXPECT_STREQ("ok", pipe().receiveNotify(&value).c_str());
    EXPECT_EQ(4u, value);
    EXPECT_EQ(5u, statistics().droppedEmptyText);
}

}  // namespace
