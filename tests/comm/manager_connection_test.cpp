// Connections of pipe managers: a server in a second process, killed in the middle of requests
// and started again; redirects; a server of another protocol version.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "comm/manager_support.h"

namespace dmtest {
namespace {

constexpr const char* kServerProgram = "comm_pipe_server";

struct ConnectionLog {
    std::atomic<int> calls{0};
    static void record(void* context, dm::CommunicationPipeManager*) {
        ++static_cast<ConnectionLog*>(context)->calls;
    }
};

class ManagerConnectionTest : public ManagerTest {
protected:
    // A member, so that it outlives the managers, which the fixture destroys.
    ConnectionLog m_connections;
};

// Starts the server program on `port` and waits until it listens.
std::unique_ptr<ChildProcess> startServerProcess(uint32_t port, bool hold) {
    std::vector<std::string> args = {std::to_string(port)};
    if (hold) {
        args.push_back("hold");
    }
    auto child = std::make_unique<ChildProcess>(kServerProgram, args);
    if (!child->started() || !child->waitForOutput("listening " + std::to_string(port) + "\n")) {
        ADD_FAILURE() << "server process did not come up: " << child->output();
        return nullptr;
    }
    return child;
}

bool allDone(const std::vector<std::unique_ptr<RequestThread>>& requests) {
    return every(requests, [](const auto& request) { return request->done(); });
}

TEST_F(ManagerConnectionTest, RequestsSurviveTheServerProcessBeingKilledAndRestarted) {
    const uint32_t port = pickFreePort();
    ASSERT_NE(port, 0u);
    auto holding = startServerProcess(port, true);
    ASSERT_NE(holding, nullptr);
    dm::CommunicationPipeManager* client =
        dm::initCommunicationManagerAsClient("survivor", "127.0.0.1", static_cast<int>(port));
    dm::CommunicationPipe* pipe = client->getPipe("echo");
    ASSERT_TRUE(waitUntil([&] { return pipe->isConnected(); }));

    constexpr uint32_t kRequests = 4;
    std::vector<std::unique_ptr<RequestThread>> requests;
    for (uint32_t i = 0; i < kRequests; ++i) {
        const size_t size = 1000 + 70000 * i;
        requests.push_back(std::make_unique<RequestThread>(pipe, "outstanding " + std::to_string(i),
                                                           patternBytes(size, 10 + i), size));
    }
    // Every request has reached the server, which holds them unanswered: now it dies.
    ASSERT_TRUE(holding->waitForOutput("held " + std::to_string(kRequests)));
    holding->kill();
    ASSERT_TRUE(waitUntil([&] { return !pipe->isConnected(); }));
    EXPECT_FALSE(allDone(requests));

    auto restarted = startServerProcess(port, false);
    ASSERT_NE(restarted, nullptr);
    ASSERT_TRUE(waitUntil([&] { return allDone(requests); }));
    for (const auto& request : requests) {
        EXPECT_TRUE(request->echoed()) << request->result();
    }
    EXPECT_TRUE(pipe->isConnected());
    EXPECT_STREQ(client->getRemoteName(), "peer");
    // Each was sent again exactly once.
    EXPECT_TRUE(restarted->waitForOutput("answered " + std::to_string(kRequests)));
    EXPECT_EQ(restarted->output().find("answered " + std::to_string(kRequests + 1)),
              std::string::npos);

    // More callers at once than a pass sends, behind one large request that cannot be written
    // directly: each answer must make room for the next.
    std::vector<std::unique_ptr<RequestThread>> crowd;
    for (uint32_t i = 0; i < 24; ++i) {
        const size_t size = i == 0 ? 300 * 1024 : 10 * i;
        crowd.push_back(std::make_unique<RequestThread>(pipe, "binary " + std::to_string(i),
                                                        patternBytes(size, i), size));
    }
    ASSERT_TRUE(waitUntil([&] { return allDone(crowd); }));
    for (const auto& request : crowd) {
        EXPECT_TRUE(request->echoed()) << request->result();
    }

    // A lone caller, one request at a time, reads its answers from the connection itself.
    for (uint32_t i = 0; i < 20; ++i) {
        RequestThread alone(pipe, "alone " + std::to_string(i), patternBytes(16, i), 16);
        ASSERT_TRUE(waitUntil([&] { return alone.done(); }));
        EXPECT_TRUE(alone.echoed()) << alone.result();
    }
    EXPECT_GT(dm::getPipeStatistics(pipe).answersReadDirectly, 0u);

    ASSERT_TRUE(pipe->sendNotify("across", 0));
    uint32_t value = 0;
    EXPECT_EQ(takeNotify(*pipe, &value), "echo: across");
    EXPECT_EQ(value, 7u);  // the server's id
}

// Connects a client manager with one pipe and waits until the pipe is attached; returns the
// name of the server it ended up with.
std::string connectedServerName(const char* clientName, uint32_t port) {
    dm::CommunicationPipeManager* client =
        dm::initCommunicationManagerAsClient(clientName, "127.0.0.1", static_cast<int>(port));
    dm::CommunicationPipe* pipe = client->getPipe((std::string("lobby of ") + clientName).c_str());
    if (!waitUntil([&] { return pipe->isConnected(); })) {
        return "(not connected)";
    }
    return client->getRemoteName();
}

TEST_F(ManagerConnectionTest, ARedirectSendsExactlyTheNextClientElsewhere) {
    dm::CommunicationPipeManager* hub = dm::initCommunicationManagerAsServer("hub", 0, 0, true);
    dm::CommunicationPipeManager* target =
        dm::initCommunicationManagerAsServer("target", 0, 1, true);
    const uint32_t hubPort = portOf(hub);

    // Without a client-connection callback the redirect waits.
    hub->setRedirect("127.0.0.1", portOf(target));
    EXPECT_EQ(connectedServerName("first", hubPort), "hub");

    hub->setClientConnectionCallback({&m_connections, ConnectionLog::record});
    EXPECT_EQ(connectedServerName("second", hubPort), "target");
    EXPECT_EQ(connectedServerName("third", hubPort), "hub");
    EXPECT_EQ(m_connections.calls.load(), 2);
    EXPECT_TRUE(target->getPipe("lobby of second")->isConnected());

    // A client that leaves takes the address of a pending redirect with it: the next client is
    // sent to an empty address, drops, and comes back to the address it was given.
    hub->setRedirect("127.0.0.1", portOf(target));
    dm::deinitCommunicationManager("first");
    ASSERT_TRUE(waitUntil([&] { return !hub->getPipe("lobby of first")->isConnected(); }));
    EXPECT_EQ(connectedServerName("fourth", hubPort), "hub");
    EXPECT_EQ(m_connections.calls.load(), 4);  // the fourth came twice
    EXPECT_FALSE(target->pipeExists("lobby of fourth"));
}

TEST_F(ManagerConnectionTest, AWelcomeOfAnotherVersionDropsTheConnection) {
    net::Listener listener(0, "127.0.0.1");
    dm::CommunicationPipeManager* client = dm::initCommunicationManagerAsClient(
        "versioned", "127.0.0.1", static_cast<int>(listener.getPort()));
    client->setClientConnectionCallback({&m_connections, ConnectionLog::record});
    dm::CommunicationPipe* pipe = client->getPipe("p");

    for (int attempt = 1; attempt <= 2; ++attempt) {
        zu::UniquePtr<net::Socket> socket = acceptOne(listener);
        ASSERT_NE(socket, nullptr);
        socket->sendPacket(pipewire::welcome(3, 0, "future server"));
        socket->sendPacket(pipewire::pipeMessage(pipewire::kPipeOpened, "p"));
        ASSERT_TRUE(waitUntil([&] {
            socket->update();
            while (socket->pollPacket(nullptr)) {
            }
            return !socket->isConnected();
        }));
        EXPECT_TRUE(waitUntil([&] { return m_connections.calls.load() == attempt; }));
        // Nothing after the welcome was taken: the pipe never attached.
        EXPECT_FALSE(pipe->isConnected());
        // And the client comes back for another try.
    }
}

}  // namespace
}  // namespace dmtest
