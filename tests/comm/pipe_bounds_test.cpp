// What a peer can make a pipe manager hold: unfinished data is bounded per connection (all its
// pipes together) and grows only with bytes that arrived; whole messages nobody takes stop the
// reading of their connection, so that TCP holds the sender back, and nothing is lost.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "comm/net_communication_pipe.h"
#include "support/loopback.h"
#include "support/manager_link.h"
#include "support/pipe_link.h"
#include "support/pipe_responders.h"

namespace {

using dmtest::waitUntil;
namespace pipewire = dmtest::pipewire;

constexpr uint32_t kKiB = 1024;
constexpr uint32_t kMiB = 1024 * kKiB;

using PipeBuffers = dmtest::HandWrittenPackets;

TEST_F(PipeBuffers, TwoBytesAnnouncingHalfAGibibyteHoldNoMoreThanTheyBrought) {
    constexpr uint32_t kAnnounced = 512 * kMiB;
    deliver({pipewire::request("link", 0, 0, "huge", kAnnounced, 0, 1, "a"),
             pipewire::request("link", 0, 0, "huge", kAnnounced, kAnnounced - 1, 1, "z")});
    EXPECT_EQ(1u, statistics().unfinishedIncomingBytes);
    EXPECT_EQ(1u, statistics().droppedOverLimit);
    // The same from a notification: its text holds what came.
    deliver(pipewire::notify("link", 0, 0, kAnnounced, 0, 1, "n"));
    EXPECT_EQ(2u, statistics().unfinishedIncomingBytes);
}

using pipewire::RawPeer;

TEST(ConnectionBudget, PipesOfOneConnectionShareTheBoundOnUnfinishedData) {
    dmtest::ManagerLink link;
    dm::CommunicationPipeManager& server = link.server();
    ASSERT_TRUE(dm::setConnectionIncomingLimits(&server, kMiB, 64 * kMiB));
    const std::vector<uint8_t> chunk(192 * kKiB, 0x5A);
    auto beginRequest = [&](RawPeer& peer, const std::string& pipe, uint32_t offset) {
        peer.send(pipewire::request(pipe.c_str(), 0, 0, "part", kMiB, offset,
                                    static_cast<uint32_t>(chunk.size()), chunk.data()));
    };
    auto stats = [&](const std::string& pipe) {
        return dm::getPipeStatistics(server.getPipe(pipe.c_str()));
    };

    RawPeer peer(link.port());
    ASSERT_TRUE(peer.connected);
    // Five chunks fit the bound together; the sixth pipe's would take it over.
    for (int p = 0; p < 6; ++p) {
        const std::string pipe = "share-" + std::to_string(p);
        peer.open(pipe);
        beginRequest(peer, pipe, 0);
    }
    ASSERT_TRUE(waitUntil([&] { return stats("share-5").droppedConnectionLimit == 1; }));
    uint64_t held = 0;
    for (int p = 0; p < 6; ++p) {
        held += stats("share-" + std::to_string(p)).unfinishedIncomingBytes;
    }
    EXPECT_EQ(5 * chunk.size(), held);
    EXPECT_EQ(0u, stats("share-5").incomingRequests);
    // The rest of the dropped request is dropped too, rather than started anew.
    beginRequest(peer, "share-5", static_cast<uint32_t>(chunk.size()));
    EXPECT_TRUE(waitUntil([&] { return stats("share-5").droppedConnectionLimit == 2; }));
    EXPECT_EQ(0u, stats("share-5").unfinishedIncomingBytes);

    // Another connection has a budget of its own.
    RawPeer other(link.port());
    ASSERT_TRUE(other.connected);
    other.open("other");
    beginRequest(other, "other", 0);
    EXPECT_TRUE(waitUntil([&] { return stats("other").unfinishedIncomingBytes == chunk.size(); }));
    EXPECT_EQ(0u, stats("other").droppedConnectionLimit);
}

// A client that floods notifications which the server's application does not take.
TEST(ConnectionBudget, FloodNobodyReadsPausesTheConnectionAndLosesNothing) {
    dmtest::ManagerLink link;
    constexpr uint64_t kQueuedBound = 256 * kKiB;
    ASSERT_TRUE(dm::setConnectionIncomingLimits(&link.server(), 64 * kMiB, kQueuedBound));
    const dmtest::ManagerLink::PipeEnds flood = link.connectPipe(link.addClient(), "flood");
    const dmtest::ManagerLink::PipeEnds calm = link.connectPipe(link.addClient(), "calm");
    ASSERT_TRUE(flood.client && calm.client);

    // The sender runs into a full queue once TCP no longer takes its packets.
    const std::string padding(100, '.');
    int sent = 0;
    const bool refused = waitUntil(
        [&] {
            for (int i = 0; i < 1000; ++i, ++sent) {
                if (!flood.client->sendNotify((std::to_string(sent) + padding).c_str(), 0)) {
                    return true;
                }
            }
            return false;
        },
        std::chrono::seconds(60));
    ASSERT_TRUE(refused);
    const dm::PipeStatistics held = dm::getPipeStatistics(flood.server);
    EXPECT_LT(held.queuedIncomingBytes, kQueuedBound + 1024);
    EXPECT_LT(held.incomingNotifications, static_cast<size_t>(sent));

    // The server serves its other connection meanwhile.
    dmtest::EchoResponder responder(calm.server);
    EXPECT_STREQ("hello",
                 calm.client->sendRequest("hello", 0, nullptr, 0, nullptr, nullptr, 0).c_str());
    responder.stop();

    // Taking the messages resumes reading: every one arrives once, in order.
    int taken = 0;
    bool inOrder = true;
    waitUntil(
        [&] {
            for (zu::InplaceString<128> text;
                 !(text = flood.server->receiveNotify(nullptr)).empty(); ++taken) {
                inOrder = inOrder && text == (std::to_string(taken) + padding).c_str();
            }
            return taken >= sent || !inOrder;
        },
        std::chrono::seconds(60));
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(sent, taken);
    EXPECT_TRUE(flood.client->sendNotify("after", 0));
}

}  // namespace
