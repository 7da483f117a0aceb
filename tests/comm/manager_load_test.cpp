// Pipe managers under load: many pipes over many connections, and managers destroyed while
// threads are blocked on their pipes.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "comm/manager_support.h"
#include "support/pipe_link.h"

namespace dmtest {
namespace {

class ManagerLoadTest : public ManagerTest {};

void addToResponder(void* responder, dm::CommunicationPipeManager*, dm::CommunicationPipe* pipe) {
    static_cast<EchoResponder*>(responder)->add(pipe);
}

std::string pipeName(int client, int pipe) {
    return "c" + std::to_string(client) + "-p" + std::to_string(pipe);
}

// More pipes than one pass of the server's manager takes: every one is served in turn.
TEST_F(ManagerLoadTest, ThreeHundredTwentyPipesOverThirtyTwoConnections) {
    constexpr int kClients = 32;
    constexpr int kPipesPerClient = 10;
    dm::CommunicationPipeManager* server =
        dm::initCommunicationManagerAsServer("load-server", 0, 3, true);
    EchoResponder responder;
    server->setPipeCreateCallback({&responder, addToResponder});

    std::vector<std::vector<dm::CommunicationPipe*>> pipes(kClients);
    std::vector<dm::CommunicationPipe*> allPipes;
    for (int c = 0; c < kClients; ++c) {
        dm::CommunicationPipeManager* client =
            dm::initCommunicationManagerAsClient(("load-client-" + std::to_string(c)).c_str(),
                                                 "127.0.0.1", static_cast<int>(portOf(server)));
        for (int p = 0; p < kPipesPerClient; ++p) {
            pipes[c].push_back(client->getPipe(pipeName(c, p).c_str()));
            allPipes.push_back(pipes[c].back());
        }
    }
    ASSERT_TRUE(waitUntil([&] { return every(allPipes, isConnected); }));

    // Every client asks on all its pipes at once and gets its own answers back.
    std::atomic<int> echoed{0};
    std::vector<std::thread> askers;
    for (int c = 0; c < kClients; ++c) {
        askers.emplace_back([&, c] {
            for (int p = 0; p < kPipesPerClient; ++p) {
                std::vector<uint8_t> data = patternBytes(2048, c * 100 + p);
                std::vector<uint8_t> answer(data.size());
                uint32_t size = 0;
                zu::InplaceString<128> text = pipes[c][p]->sendRequest(
                    pipeName(c, p).c_str(), 0, answer.data(), static_cast<uint32_t>(answer.size()),
                    &size, data.data(), static_cast<uint32_t>(data.size()));
                if (pipeName(c, p) == text.c_str() && size == data.size() && answer == data) {
                    ++echoed;
                }
            }
        });
    }
    dmtest::joinAll(askers);
    EXPECT_EQ(echoed.load(), kClients * kPipesPerClient);

    server->setPipeCreateCallback({});
}

TEST_F(ManagerLoadTest, DestroyingManagersUnderLoadReleasesEveryBlockedThread) {
    constexpr int kClients = 4;
    constexpr int kPipesPerClient = 4;
    constexpr size_t kDataSize = 64 * 1024;
    dm::CommunicationPipeManager* server =
        dm::initCommunicationManagerAsServer("busy-server", 0, 1, true);
    auto responder = std::make_unique<EchoResponder>();
    server->setPipeCreateCallback({responder.get(), addToResponder});

    std::vector<dm::CommunicationPipe*> pipes;
    for (int c = 0; c < kClients; ++c) {
        dm::CommunicationPipeManager* client =
            dm::initCommunicationManagerAsClient(("busy-client-" + std::to_string(c)).c_str(),
                                                 "127.0.0.1", static_cast<int>(portOf(server)));
        for (int p = 0; p < kPipesPerClient; ++p) {
            pipes.push_back(client->getPipe(pipeName(c, p).c_str()));
        }
    }
    ASSERT_TRUE(waitUntil([&] { return every(pipes, isConnected); }));

    // One thread per pipe asks until it is sent away empty-handed.
    std::atomic<int> released{0};
    std::vector<std::thread> workers;
    for (dm::CommunicationPipe* pipe : pipes) {
        workers.emplace_back([pipe, &released] {
            std::vector<uint8_t> data = patternBytes(kDataSize, 5);
            std::vector<uint8_t> answer(kDataSize);
            for (;;) {
                zu::InplaceString<128> text =
                    pipe->sendRequest("work", 0, answer.data(), kDataSize, nullptr, data.data(),
                                      static_cast<uint32_t>(data.size()));
                if (text.empty()) {
                    ++released;
                    return;
                }
            }
        });
    }
    ASSERT_TRUE(waitUntil([&] { return responder->answered() >= 100; }));

    // The server goes in the middle of the traffic.
    server->setPipeCreateCallback({});
    responder.reset();
    dm::deinitCommunicationManager("busy-server");

    // Once the clients have seen it go, every worker waits on a request that stays unanswered:
    // destroying the clients must release them all.
    const auto blocked = [](dm::CommunicationPipe* pipe) {
        auto* netPipe = static_cast<dm::NetCommunicationPipe*>(pipe);
        return !pipe->isConnected() && netPipe->getStatistics().outgoingRequests == 1;
    };
    ASSERT_TRUE(waitUntil([&] { return every(pipes, blocked); }));
    dm::deinitCommunicationManagers();
    dmtest::joinAll(workers);
    EXPECT_EQ(released.load(), kClients * kPipesPerClient);
    EXPECT_TRUE(dm::isCommunicationPipeManagerMapEmpty());
}

TEST(PipeCloseTest, ClosingAPipeReleasesBlockedCallsAndTurnsNewOnesAway) {
    TestPipeOwner owner(1);
    dm::NetCommunicationPipe pipe(&owner, "closing");
    deliverTo(pipe, pipewire::request("closing", 0, 0, "question"));
    ASSERT_STREQ(pipe.receiveRequest(nullptr).c_str(), "question");

    // Never pumped: both calls block until the pipe is closed.
    std::atomic<bool> answered{false};
    std::thread responder([&] {
        pipe.respond("answer", nullptr, 0);
        answered = true;
    });
    RequestThread request(&pipe, "asked", {}, 0);
    ASSERT_TRUE(waitUntil([&] {
        const dm::PipeStatistics sizes = pipe.getStatistics();
        return sizes.outgoingRequests == 1 && sizes.outgoingResponses == 1;
    }));
    pipe.close();
    responder.join();
    EXPECT_TRUE(answered.load());
    ASSERT_TRUE(waitUntil([&] { return request.done(); }));
    EXPECT_EQ(request.result(), "");

    // Later calls return at once.
    EXPECT_STREQ(pipe.sendRequest("too late", 0, nullptr, 0, nullptr, nullptr, 0).c_str(), "");
    pipe.respond("too late", nullptr, 0);
}

}  // namespace
}  // namespace dmtest
