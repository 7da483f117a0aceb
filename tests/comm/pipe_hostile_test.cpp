// A peer that means harm, byte by byte: chunks that repeat, overlap or leave gaps must never
// make the pipe hand out memory that no chunk wrote.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "comm/manager_support.h"
#include "comm/net_communication_pipe_manager.h"
#include "comm/received_ranges.h"
#include "support/pipe_link.h"
#include "support/pipe_responders.h"

namespace {

using dmtest::waitUntil;
namespace pipewire = dmtest::pipewire;
using Bytes = std::vector<uint8_t>;

using HostileChunks = dmtest::HandWrittenPackets;

using dmtest::joined;

TEST_F(HostileChunks, ScatteredChunksBeyondAFewGapsAreRefused) {
    // Every fourth byte first, then the rest: more gaps at once than a sender leaves are refused.
    const Bytes byte(1, 0x77);
    for (uint32_t offset = 0; offset < 64; offset += 4) {
        deliver(pipewire::request("link", 0, 0, "holes", 64, offset, 1, byte.data()));
    }
    EXPECT_EQ(16u - dm::ReceivedRanges::kMaxRanges, statistics().droppedMalformed);
    EXPECT_EQ(1u, incomingRequests());
}

TEST_F(HostileChunks, ResponseCompletesOnlyWithEveryByteArrived) {
    dmtest::RequestThread request(&pipe(), "give", {}, 12);
    ASSERT_TRUE(waitUntil([&] { return pipe().getStatistics().outgoingRequests; }));
    const Bytes a(4, 0xAA), b(4, 0xBB), c(4, 0xCC);
    deliver(pipewire::response("link", 0, "answer", 12, 8, 4, c.data()));  // the end alone
    deliver(pipewire::response("link", 0, "answer", 12, 0, 4, a.data()));
    deliver(pipewire::response("link", 0, "answer", 12, 0, 4, a.data()));  // repeated
    deliver(pipewire::response("link", 0, "answer", 12, 0, 0, nullptr));   // empty, not whole
    deliver(pipewire::response("link", 0, "answer", 12, 8, 4, c.data()));  // 4..8 missing
    EXPECT_FALSE(request.done());
    EXPECT_EQ(4u, statistics().droppedMalformed);

    deliver({pipewire::response("link", 0, "answer", 12, 0, 4, a.data()),
             pipewire::response("link", 0, "answer", 12, 4, 4, b.data()),
             pipewire::response("link", 0, "answer", 12, 8, 4, c.data())});
    ASSERT_TRUE(waitUntil([&] { return request.done(); }));
    EXPECT_EQ(12u, request.responseSize());
    EXPECT_EQ(joined(a, b, c), request.response());
}

}  // namespace

namespace {

using pipewire::RawPeer;

// A server manager of the test's own, and peers that speak to it by hand.
class HostilePeers : public dmtest::ManagerTest {
protected:
    dm::CommunicationPipeManager* startServer(bool createPipesOnRequest) {
        server = dm::initCommunicationManagerAsServer("hostile", 0, 9, createPipesOnRequest);
        return server;
    }
    uint32_t port() const { return dmtest::portOf(server); }
    dm::CommunicationPipeManager* server = nullptr;
};

TEST_F(HostilePeers, PipesMadeOnRequestAreBoundedAndThoseBeyondAreRefused) {
    startServer(true);
    static_cast<dm::NetCommunicationPipeManager*>(server)->setMaxPipesCreatedOnRequest(3);
    server->getPipe("own");
    RawPeer peer(port());
    ASSERT_EQ(pipewire::kWelcome, peer.next().kind);

    for (int i = 0; i < 5; ++i) {
        const std::string name = "asked-" + std::to_string(i);
        peer.send(pipewire::openPipe(name.c_str(), "flooder"));
        const pipewire::Message answer = peer.next();
        EXPECT_EQ(name, answer.first);
        EXPECT_EQ(i < 3 ? pipewire::kPipeOpened : pipewire::kPipeRefused, answer.kind) << name;
    }
    EXPECT_FALSE(server->pipeExists("asked-3"));
    // Pipes that exist are still opened: the application's own, and those made before.
    peer.send(pipewire::openPipe("own", "flooder"));
    EXPECT_EQ(pipewire::kPipeOpened, peer.next().kind);
    peer.send(pipewire::openPipe("asked-0", "flooder"));
    EXPECT_EQ(pipewire::kPipeOpened, peer.next().kind);
}

TEST_F(HostilePeers, APipeTakesMessagesOnlyFromTheConnectionItBelongsTo) {
    startServer(false);
    dm::CommunicationPipe* pipe = server->getPipe("owned");
    RawPeer owner(port()), stranger(port());
    owner.send(pipewire::openPipe("owned", "owner"));
    ASSERT_EQ(pipewire::kWelcome, owner.next().kind);
    ASSERT_EQ(pipewire::kPipeOpened, owner.next().kind);

    // The stranger's request and notification never reach the pipe; the owner's do.
    stranger.send(pipewire::request("owned", 5, 0, "poison"));
    stranger.send(pipewire::notify("owned", 0, 0, 3, 0, 3, "bad"));
    owner.send(pipewire::request("owned", 0, 0, "mine"));
    EXPECT_EQ("mine", dmtest::takeRequest(*pipe));
    ASSERT_TRUE(waitUntil([&] { return dm::getPipeStatistics(pipe).droppedOtherConnection == 2; }));
    EXPECT_TRUE(pipe->receiveNotify(nullptr).empty());

    // Nor can it answer the pipe's requests.
    std::atomic<bool> answered{false};
    std::thread asking([&] {
        pipe->sendRequest("question", 0, nullptr, 0, nullptr, nullptr, 0);
        answered = true;
    });
    ASSERT_EQ(pipewire::kRequest, owner.nextPipeMessage().kind);
    stranger.send(pipewire::response("owned", 0, "forged"));
    ASSERT_TRUE(waitUntil([&] { return dm::getPipeStatistics(pipe).droppedOtherConnection == 3; }));
    EXPECT_FALSE(answered.load());
    owner.send(pipewire::response("owned", 0, "real"));
    ASSERT_TRUE(waitUntil([&] { return answered.load(); }));
    asking.join();
}

TEST_F(HostilePeers, ATakenOverPipeSendsTheNewConnectionNoAnswerItDidNotAskFor) {
    startServer(false);
    dm::CommunicationPipe* pipe = server->getPipe("taken");
    RawPeer first(port());
    first.send(pipewire::openPipe("taken", "first"));
    first.send(pipewire::request("taken", 0, 0, "big answer"));
    ASSERT_TRUE(waitUntil([&] { return !pipe->receiveRequest(nullptr).empty(); }));
    // Far more than the connection takes while the first peer does not read.
    const Bytes answer(32u * 1024u * 1024u, 0x5F);
    std::thread responding(
        [&] { pipe->respond("for first", answer.data(), static_cast<uint32_t>(answer.size())); });
    ASSERT_TRUE(waitUntil([&] { return dm::getPipeStatistics(pipe).outgoingResponses == 1; }));

    RawPeer second(port());
    second.send(pipewire::openPipe("taken", "second"));
    ASSERT_TRUE(waitUntil([&] { return dm::getPipeStatistics(pipe).outgoingResponses == 0; }));
    responding.join();
    second.send(pipewire::request("taken", 0, 0, "own question"));
    ASSERT_TRUE(waitUntil([&] { return !pipe->receiveRequest(nullptr).empty(); }));
    pipe->respond("for second", nullptr, 0);
    const pipewire::Message received = second.nextPipeMessage();
    EXPECT_EQ(pipewire::kResponse, received.kind);
    EXPECT_EQ("for second", received.text);
}

}  // namespace
