// Callers that write their requests and responses themselves while the manager's thread
// sleeps: racing its passes from many threads on one pipe and on many, and a frame the system
// takes only in part. (Requests cut off by a lost connection: manager_connection_test.cpp.)
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "comm/hand_played_server.h"
#include "comm/manager_support.h"
#include "support/manager_link.h"

namespace dmtest {
namespace {

class DirectWriteTest : public ManagerTest {};

uint64_t sentDirectly(const std::vector<dm::CommunicationPipe*>& pipes, bool inPart = false) {
    uint64_t count = 0;
    for (dm::CommunicationPipe* pipe : pipes) {
        const dm::PipeStatistics statistics = dm::getPipeStatistics(pipe);
        count += inPart ? statistics.sentDirectlyInPart : statistics.sentDirectly;
    }
    return count;
}

TEST_F(DirectWriteTest, CallersOnOnePipeAndOnManyPipesRaceTheManagersPasses) {
    constexpr int kSharedCallers = 10;  // more than a pass sends of one pipe
    constexpr int kOwnPipes = 8;
    constexpr int kRequests = 60;
    constexpr int kNotifications = 300;
    ManagerLink link;
    EchoResponder responder;
    const std::string busy = link.addClient();
    const std::string spread = link.addClient();
    const ManagerLink::PipeEnds shared = link.connectPipe(busy, "shared");
    ASSERT_NE(shared.client, nullptr);
    responder.add(shared.server);
    std::vector<dm::CommunicationPipe*> clientPipes = {shared.client};
    std::vector<dm::CommunicationPipe*> serverPipes = {shared.server};
    for (int p = 0; p < kOwnPipes; ++p) {
        const ManagerLink::PipeEnds ends =
            link.connectPipe(spread, ("own " + std::to_string(p)).c_str());
        ASSERT_NE(ends.client, nullptr);
        responder.add(ends.server);
        clientPipes.push_back(ends.client);
        serverPipes.push_back(ends.server);
    }

    // Requests of every size on the shared pipe and on pipes of their own, while notifications
    // keep the managers' passes busy on the shared one.
    std::atomic<int> echoed{0};
    const auto ask = [&](dm::CommunicationPipe* pipe, int caller) {
        for (int i = 0; i < kRequests; ++i) {
            const size_t size = i % 20 == 0 ? 300 * 1024 : 16 + (i * 997) % 4000;
            const std::vector<uint8_t> data = patternBytes(size, caller * 1000 + i);
            const std::string text = "caller " + std::to_string(caller) + " #" + std::to_string(i);
            std::vector<uint8_t> answer(size);
            uint32_t answerSize = 0;
            const zu::InplaceString<128> got =
                pipe->sendRequest(text.c_str(), 0, answer.data(), static_cast<uint32_t>(size),
                                  &answerSize, data.data(), static_cast<uint32_t>(size));
            echoed += text == got.c_str() && answerSize == size && answer == data;
        }
    };
    std::vector<std::thread> callers;
    for (int c = 0; c < kSharedCallers; ++c) {
        callers.emplace_back(ask, shared.client, c);
    }
    for (int p = 0; p < kOwnPipes; ++p) {
        callers.emplace_back(ask, clientPipes[p + 1], kSharedCallers + p);
    }
    int notified = 0;
    for (int n = 0; n < kNotifications; ++n) {
        notified += shared.client->sendNotify(("note " + std::to_string(n)).c_str(), 0);
    }
    dmtest::joinAll(callers);
    EXPECT_EQ(echoed.load(), (kSharedCallers + kOwnPipes) * kRequests);

    // The echoed notifications came back whole and in the order they were sent.
    int next = 0;
    ASSERT_TRUE(waitUntil([&] {
        uint32_t value = 0;
        for (zu::InplaceString<128> text; !(text = shared.client->receiveNotify(&value)).empty();) {
            EXPECT_EQ(std::string(text.c_str()), "echo: note " + std::to_string(next));
            EXPECT_EQ(value, ManagerLink::kServerId);  // sent with 0: the sending manager's id
            ++next;
        }
        return next == notified;
    }));
    // Both directions took the direct way at times.
    EXPECT_GT(sentDirectly(clientPipes), 0u);
    EXPECT_GT(sentDirectly(serverPipes), 0u);
}

TEST_F(DirectWriteTest, AFrameTheSystemTakesInPartIsFinishedByTheManager) {
    constexpr int kPipes = 40;
    constexpr size_t kSize = 240 * 1024;  // one packet each
    std::vector<std::string> names;
    for (int p = 0; p < kPipes; ++p) {
        names.push_back("bulk " + std::to_string(p));
    }
    PlayedClient client;
    ASSERT_TRUE(client.start("partial-client", names));
    HandPlayedServer& server = client.server;
    const std::vector<dm::CommunicationPipe*>& pipes = client.pipes;

    // Nobody reads at the far end: the system's buffers fill, and a frame goes in part. One
    // caller at a time, so that each finds the manager idle and writes itself.
    std::vector<std::unique_ptr<RequestThread>> requests;
    for (int p = 0; p < kPipes && sentDirectly(pipes, true) == 0; ++p) {
        const uint64_t before = sentDirectly(pipes);
        requests.push_back(std::make_unique<RequestThread>(pipes[p], "bulk " + std::to_string(p),
                                                           patternBytes(kSize, p), kSize));
        waitUntil([&] { return sentDirectly(pipes) > before; }, std::chrono::seconds(1));
    }
    ASSERT_GT(sentDirectly(pipes, true), 0u);

    // Every frame arrives whole, the rest of the partial one from the manager.
    int answered = 0;
    const int asked = static_cast<int>(requests.size());
    ASSERT_TRUE(server.serve([&] { return answered == asked; },
                             [&](const pipewire::Message& request) {
                                 const int p = std::stoi(request.text.substr(5));
                                 EXPECT_EQ(request.chunk, patternBytes(kSize, p));
                                 server.echo(request);
                                 ++answered;
                             }));
    for (const auto& request : requests) {
        ASSERT_TRUE(waitUntil([&] { return request->done(); }));
        EXPECT_TRUE(request->echoed()) << request->result();
    }
}

}  // namespace
}  // namespace dmtest
