// Large answers whose bytes the client reads from the connection straight into the caller's
// buffer: played by hand, in pieces of awkward sizes, among chunks that must be dropped, and cut
// off by the manager's end.
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>

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
    static int descriptorOf(net::Socket& socket) {
        return static_cast<int>(socket.getWaitHandle().handle);
    }
    static nettest::Bytes frameOf(const net::Packet& packet) {
        return nettest::makeFrame(packet.getID(),
                                  {packet.getData(), packet.getData() + packet.getSize()});
    }
    // Sends the packets' frames as one stream, cut into pieces of awkward sizes, so that reads
    // end anywhere: inside a frame's fields, a byte into its bulk, just past its end.
    void sendInPieces(const std::vector<net::Packet>& packets) {
        std::vector<uint8_t> stream;
        for (const net::Packet& packet : packets) {
            const nettest::Bytes frame = frameOf(packet);
            stream.insert(stream.end(), frame.begin(), frame.end());
        }
        const size_t pieces[] = {1, 37, 4093, 1, 65536, 333, 20000};
        for (size_t at = 0, i = 0; at < stream.size(); ++i) {
            const size_t size = std::min(pieces[i % std::size(pieces)], stream.size() - at);
            ASSERT_TRUE(nettest::rawSendAll(descriptorOf(client.server.socket()),
                                            stream.data() + at, size));
            at += size;
        }
    }
    // Sends the first half of an answer's frame from `peer`.
    static bool sendHalfAnswer(net::Socket& peer, const char* pipe, uint32_t id,
                               const std::vector<uint8_t>& answer) {
        const uint32_t size = static_cast<uint32_t>(answer.size());
        const nettest::Bytes frame =
            frameOf(pipewire::response(pipe, id, "fetch", size, 0, size, answer.data()));
        return nettest::rawSendAll(descriptorOf(peer), frame.data(), frame.size() / 2);
    }
    // Nothing that `peer` sent waits in the OS: the manager at the other end (in this process)
    // has read it all.
    static bool readByManager(net::Socket& peer) {
        const int mine = descriptorOf(peer);
        sockaddr_in self{}, other{};
        socklen_t size = sizeof(self);
        getsockname(mine, reinterpret_cast<sockaddr*>(&self), &size);
        int unsent = 1, unread = 1;
        ioctl(mine, SIOCOUTQ, &unsent);
        for (int fd = 0; fd < 4096 && unsent == 0; ++fd) {
            size = sizeof(other);
            if (fd != mine && getpeername(fd, reinterpret_cast<sockaddr*>(&other), &size) == 0 &&
                other.sin_port == self.sin_port) {
                ioctl(fd, FIONREAD, &unread);
            }
        }
        return unsent == 0 && unread == 0;
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
    RequestThread request(client.pipes[0], "fetch", {}, answer.size());
    pipewire::Message asked;
    ASSERT_TRUE(client.awaitRequest("fetch", asked));
    ASSERT_TRUE(sendHalfAnswer(client.server.socket(), "big", asked.id, answer));
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
    ASSERT_TRUE(sendHalfAnswer(client.server.socket(), "big", asked.id, answer));
    dm::deinitCommunicationManager("steered-cut");
    ASSERT_TRUE(waitUntil([&] { return cut.done(); }));
    EXPECT_EQ(cut.result(), "");
}

// A server's pipe taken over by another connection while its answer's bytes were arriving on the
// first: the rest of them has nowhere to go, so that connection is given up rather than left
// readable and unread; the request goes out again on the new connection.
TEST_F(SteeredResponseTest, AnAnswerCutOffByItsPipeBeingTakenOver) {
    dm::CommunicationPipeManager* server =
        dm::initCommunicationManagerAsServer("steered-server", 0, 9, false);
    dm::CommunicationPipe* pipe = server->getPipe("big");
    pipewire::RawPeer first(portOf(server)), second(portOf(server));
    first.open("big");
    const std::vector<uint8_t> answer = patternBytes(200000, 9);
    RequestThread request(pipe, "fetch", {}, answer.size());
    pipewire::Message asked = first.nextPipeMessage();
    ASSERT_EQ(asked.kind, pipewire::kRequest);
    ASSERT_TRUE(sendHalfAnswer(first.socket, "big", asked.id, answer));
    ASSERT_TRUE(waitUntil([&] { return readByManager(first.socket); }));

    second.open("big");
    ASSERT_TRUE(waitUntil([&] {
        first.socket.update();
        return !first.socket.isConnected();
    }));
    EXPECT_EQ(dm::getPipeStatistics(pipe).droppedOtherConnection, 1u);
    asked = second.nextPipeMessage();
    ASSERT_EQ(asked.kind, pipewire::kRequest);
    second.send(pipewire::response("big", asked.id, "fetch", 200000, 0, 200000, answer.data()));
    ASSERT_TRUE(waitUntil([&] { return request.done(); }));
    EXPECT_TRUE(request.response() == answer);
}

}  // namespace
}  // namespace dmtest
