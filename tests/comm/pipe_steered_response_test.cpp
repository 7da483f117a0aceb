// Large answers whose bytes the client reads from the connection straight into the caller's
// buffer: played by hand, in pieces of awkward sizes, among chunks that must be dropped, and cut
// off by the manager's end.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "comm/hand_played_server.h"
#include "comm/manager_support.h"
#include "net/net_test_util.h"

namespace dmtest {
namespace {

class SteeredResponseTest : public ManagerTest {
protected:
    // Sends the packets' frames as one stream, cut into pieces of awkward sizes, so that reads
    // end anywhere: inside a frame's fields, a byte into its bulk, just past its end.
    void sendInPieces(const std::vector<net::Packet>& packets) {
        std::vector<uint8_t> stream;
        for (const net::Packet& packet : packets) {
            const nettest::Bytes frame = nettest::makeFrame(
                packet.getID(), {packet.getData(), packet.getData() + packet.getSize()});
            stream.insert(stream.end(), frame.begin(), frame.end());
        }
        const int descriptor = static_cast<int>(client.server.socket().getWaitHandle().handle);
        const size_t pieces[] = {1, 37, 4093, 1, 65536, 333, 20000};
        for (size_t at = 0, i = 0; at < stream.size(); ++i) {
            const size_t size = std::min(pieces[i % std::size(pieces)], stream.size() - at);
            ASSERT_TRUE(nettest::rawSendAll(descriptor, stream.data() + at, size));
            at += size;
        }
    }

    PlayedClient client;
};

TEST_F(SteeredResponseTest, ALargeAnswerArrivesWholeAmongChunksThatMustBeDropped) {
    ASSERT_TRUE(client.start("steered", {"big", "quiet"}));
    const std::vector<uint8_t> answer = patternBytes(300000, 7);
    RequestThread request(client.pipes[0], "fetch", {}, answer.size() + 10000);
    pipewire::Message asked;
    ASSERT_TRUE(client.awaitRequest("fetch", asked));

    const uint8_t* bytes = answer.data();
    sendInPieces({
        pipewire::response("big", asked.id, "fetch", 300000, 0, 200000, bytes),
        // Reaching past the answer's end (though not past the buffer's), overlapping the
        // bytes that came, and for a request nobody waits for: all dropped.
        pipewire::response("big", asked.id, "fetch", 300000, 290000, 20000, bytes),
        pipewire::response("big", asked.id, "fetch", 300000, 150000, 60000, bytes),
        pipewire::response("big", asked.id + 99, "fetch", 300000, 200000, 100000, bytes),
        pipewire::response("big", asked.id, "fetch", 300000, 200000, 100000, bytes + 200000),
        pipewire::notify("quiet", 1, 0, 5, 0, 5, "after"),  // read along with the last bulk
    });
    ASSERT_TRUE(waitUntil([&] { return request.done(); }));
    EXPECT_EQ(request.result(), "fetch");
    ASSERT_EQ(request.responseSize(), answer.size());
    EXPECT_TRUE(std::equal(answer.begin(), answer.end(), request.response().begin()));
    EXPECT_EQ(takeNotify(*client.pipes[1]), "after");
    const dm::PipeStatistics statistics = dm::getPipeStatistics(client.pipes[0]);
    EXPECT_EQ(statistics.droppedMalformed, 2u);
    EXPECT_EQ(statistics.droppedStale, 1u);

    // An answer larger than the caller's buffer goes the usual way: what fits, and its size.
    RequestThread small(client.pipes[0], "partly", {}, 50000);
    ASSERT_TRUE(client.awaitRequest("partly", asked));
    sendInPieces({pipewire::response("big", asked.id, "partly", 120000, 0, 120000, bytes)});
    ASSERT_TRUE(waitUntil([&] { return small.done(); }));
    EXPECT_EQ(small.responseSize(), 120000u);
    EXPECT_TRUE(std::equal(small.response().begin(), small.response().end(), bytes));
}

TEST_F(SteeredResponseTest, AnAnswerCutOffHalfWayInByALostConnectionOrTheManagersEnd) {
    ASSERT_TRUE(client.start("steered-cut", {"big"}));
    const std::vector<uint8_t> answer = patternBytes(200000, 8);
    // Only the first half of the answer's frame comes: the caller's buffer is being filled.
    const auto sendHalfAnswer = [&](uint32_t id) {
        const net::Packet whole =
            pipewire::response("big", id, "fetch", 200000, 0, 200000, answer.data());
        const nettest::Bytes frame =
            nettest::makeFrame(whole.getID(), {whole.getData(), whole.getData() + whole.getSize()});
        const int descriptor = static_cast<int>(client.server.socket().getWaitHandle().handle);
        return nettest::rawSendAll(descriptor, frame.data(), frame.size() / 2);
    };
    RequestThread request(client.pipes[0], "fetch", {}, answer.size());
    pipewire::Message asked;
    ASSERT_TRUE(client.awaitRequest("fetch", asked));
    ASSERT_TRUE(sendHalfAnswer(asked.id));
    client.server.drop();

    // The request goes out again on the next connection, and its answer comes whole.
    ASSERT_TRUE(client.server.accept());
    ASSERT_TRUE(client.attached());
    ASSERT_TRUE(client.awaitRequest("fetch", asked));
    sendInPieces({pipewire::response("big", asked.id, "fetch", 200000, 0, 200000, answer.data())});
    ASSERT_TRUE(waitUntil([&] { return request.done(); }));
    EXPECT_TRUE(request.response() == answer);

    RequestThread cut(client.pipes[0], "fetch", {}, answer.size());
    ASSERT_TRUE(client.awaitRequest("fetch", asked));
    ASSERT_TRUE(sendHalfAnswer(asked.id));
    dm::deinitCommunicationManager("steered-cut");
    ASSERT_TRUE(waitUntil([&] { return cut.done(); }));
    EXPECT_EQ(cut.result(), "");
}

}  // namespace
}  // namespace dmtest
