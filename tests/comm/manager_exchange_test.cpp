// A server and a client manager in one process, over loopback TCP: names in any letter case,
// the handshake on the wire from either side, a client that was there before its server, large
// requests both ways at once, and the manager's clock.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "comm/manager_support.h"
#include "comm/net_communication_pipe_manager.h"

namespace dmtest {
namespace {

class ManagerExchangeTest : public ManagerTest {};

TEST_F(ManagerExchangeTest, PipesMadeOnRequestAreFoundUnderAnyLetterCaseAndNamesAreKnown) {
    dm::CommunicationPipeManager* server =
        dm::initCommunicationManagerAsServer("exchange-server", 0, 5, true);
    dm::CommunicationPipeManager* client =
        dm::initCommunicationManagerAsClient("exchange-client", "127.0.0.1", portOf(server));
    ASSERT_NE(portOf(server), 0u);
    dm::CommunicationPipe* clientPipe = client->getPipe("Data");
    ASSERT_TRUE(waitUntil([&] { return clientPipe->isConnected(); }));

    // Made on the client's request, and found again under any letter case.
    ASSERT_TRUE(server->pipeExists("DATA"));
    dm::CommunicationPipe* serverPipe = server->getPipe("dAtA");
    EXPECT_TRUE(serverPipe->isConnected());
    EXPECT_STREQ(serverPipe->getName(), "Data");
    EXPECT_EQ(serverPipe->getManager(), server);
    EXPECT_EQ(client->getPipe("DATA"), clientPipe);
    EXPECT_STREQ(client->getRemoteName(), "exchange-server");
    EXPECT_STREQ(server->getRemoteName(), "exchange-client");
    EXPECT_EQ(client->getID(), 0u);  // the first connection the server accepted
    EXPECT_STREQ(clientPipe->getConnectedIP().c_str(), "127.0.0.1");
}

TEST_F(ManagerExchangeTest, ClientBeforeItsServerAttachesAndSendsWhatWasQueued) {
    // Until the server is up, its port takes connections and drops them at once.
    auto standIn = std::make_unique<net::Listener>(0, "127.0.0.1");
    const uint32_t port = standIn->getPort();
    dm::CommunicationPipeManager* client =
        dm::initCommunicationManagerAsClient("early-client", "127.0.0.1", static_cast<int>(port));
    dm::CommunicationPipe* pipe = client->getPipe("early");
    RequestThread queued(pipe, "queued before the server", patternBytes(1000, 3), 1000);
    EXPECT_FALSE(pipe->sendNotify("lost", 0));  // notifications are not kept while detached
    ASSERT_NE(acceptOne(*standIn), nullptr);    // the client tried, and was dropped
    standIn.reset();

    dm::CommunicationPipeManager* server =
        dm::initCommunicationManagerAsServer("late-server", static_cast<int>(port), 2, true);
    ASSERT_EQ(portOf(server), port);
    EchoResponder responder;
    responder.add(server->getPipe("early"));
    ASSERT_TRUE(waitUntil([&] { return queued.done(); }));
    EXPECT_TRUE(queued.echoed());
    EXPECT_TRUE(pipe->isConnected());
}

TEST_F(ManagerExchangeTest, ServerHandshakeOnTheWire) {
    dm::CommunicationPipeManager* server =
        dm::initCommunicationManagerAsServer("wire-server", 0, 9, false);
    server->getPipe("Known");
    pipewire::RawPeer first(portOf(server));
    const pipewire::Message welcome = first.next();
    EXPECT_EQ(welcome.kind, pipewire::kWelcome);
    EXPECT_EQ(welcome.value, 2u);  // the protocol version
    EXPECT_EQ(welcome.id, 0u);     // the connection's number
    EXPECT_EQ(welcome.first, "wire-server");

    // Unknown pipes are refused every time they are asked for; a long remote name is cut.
    const std::string longName(200, 'n');
    for (int attempt = 0; attempt < 2; ++attempt) {
        first.send(pipewire::openPipe("missing", longName.c_str()));
        const pipewire::Message refused = first.next();
        EXPECT_EQ(refused.kind, pipewire::kPipeRefused);
        EXPECT_EQ(refused.first, "missing");
    }
    EXPECT_EQ(std::string(127, 'n'), server->getRemoteName());
    first.send(pipewire::openPipe("KNOWN", "raw tool"));
    const pipewire::Message opened = first.next();
    EXPECT_EQ(opened.kind, pipewire::kPipeOpened);
    EXPECT_EQ(opened.first, "KNOWN");
    EXPECT_STREQ(server->getRemoteName(), "raw tool");
    EXPECT_FALSE(server->pipeExists("missing"));

    // The attached pipe takes requests from this connection.
    dm::CommunicationPipe* known = server->getPipe("known");
    EXPECT_TRUE(known->isConnected());
    first.send(pipewire::request("known", 0, 0, "over the wire"));
    uint32_t value = 1;
    EXPECT_EQ(takeRequest(*known, &value), "over the wire");
    EXPECT_EQ(value, 0u);

    // Connections are numbered in order of acceptance.
    EXPECT_EQ(pipewire::RawPeer(portOf(server)).next().id, 1u);

    // A dropped connection detaches its pipes.
    first.socket.close();
    EXPECT_TRUE(waitUntil([&] { return !known->isConnected(); }));
}

TEST_F(ManagerExchangeTest, ClientHandshakeOnTheWire) {
    net::Listener listener(0, "127.0.0.1");
    dm::CommunicationPipeManager* client = dm::initCommunicationManagerAsClient(
        "wire-client", "127.0.0.1", static_cast<int>(listener.getPort()));
    dm::CommunicationPipe* pipe = client->getPipe("p");
    zu::UniquePtr<net::Socket> socket = acceptOne(listener);
    ASSERT_NE(socket, nullptr);
    socket->sendPacket(pipewire::welcome(2, 41, "raw server"));

    // Refused, the client asks again and again.
    for (int ask = 0; ask < 3; ++ask) {
        net::Packet* packet = nextPacket(*socket);
        ASSERT_NE(packet, nullptr);
        pipewire::Message open = pipewire::read(*packet);
        ASSERT_EQ(open.kind, pipewire::kOpenPipe);
        EXPECT_EQ(open.first, "p");
        EXPECT_EQ(open.second, "wire-client");
        socket->sendPacket(pipewire::pipeMessage(pipewire::kPipeRefused, "p"));
    }
    EXPECT_FALSE(pipe->isConnected());
    EXPECT_EQ(client->getID(), 41u);
    EXPECT_STREQ(client->getRemoteName(), "raw server");

    // Opened under another letter case, it attaches the pipe (and another one made on demand).
    socket->sendPacket(pipewire::pipeMessage(pipewire::kPipeOpened, "P"));
    socket->sendPacket(pipewire::pipeMessage(pipewire::kPipeOpened, "pushed"));
    socket->update();
    ASSERT_TRUE(waitUntil([&] { return pipe->isConnected() && client->pipeExists("PUSHED"); }));
    EXPECT_TRUE(client->getPipe("pushed")->isConnected());
    socket->sendPacket(pipewire::request("p", 0, 0, "to the client"));
    socket->update();
    EXPECT_EQ(takeRequest(*pipe), "to the client");
}

// Each side's manager sends a message far larger than a socket queues before it makes its
// sender wait: neither may stop reading while it sends, or both would wait on each other.
TEST_F(ManagerExchangeTest, LargeRequestsBothWaysAtOnceBothComplete) {
    constexpr size_t kBulk = 48 * 1024 * 1024;
    dm::CommunicationPipeManager* server =
        dm::initCommunicationManagerAsServer("bulk-server", 0, 6, true);
    dm::CommunicationPipeManager* client =
        dm::initCommunicationManagerAsClient("bulk-client", "127.0.0.1", portOf(server));
    dm::CommunicationPipe* clientPipe = client->getPipe("bulk");
    ASSERT_TRUE(waitUntil([&] { return clientPipe->isConnected(); }));
    dm::CommunicationPipe* serverPipe = server->getPipe("bulk");
    ASSERT_TRUE(waitUntil([&] { return serverPipe->isConnected(); }));
    EchoResponder responder;
    responder.add(clientPipe);
    responder.add(serverPipe);

    // Echoed, so that large responses cross each other as well.
    RequestThread fromClient(clientPipe, "from client", patternBytes(kBulk, 1), kBulk);
    RequestThread fromServer(serverPipe, "from server", patternBytes(kBulk, 2), kBulk);
    EXPECT_TRUE(waitUntil([&] { return fromClient.done() && fromServer.done(); },
                          std::chrono::seconds(60)));
    EXPECT_TRUE(fromClient.echoed());
    EXPECT_TRUE(fromServer.echoed());
}

// The manager's clock, stepped by the test: intervals pass only when it says so.
class StepClock final : public dm::PipeClock {
public:
    double now() const override { return m_now.load(); }
    void advance(double seconds) { m_now.store(m_now.load() + seconds); }

private:
    std::atomic<double> m_now{100.0};  // an application some while after its start
};

// True when a packet arrives within a short while (for "nothing more comes" checks).
bool packetWithin(net::Socket& socket, std::chrono::milliseconds bound) {
    return waitUntil(
        [&] {
            socket.update();
            return socket.pollPacket(nullptr) != nullptr;
        },
        bound);
}

TEST(ManagerClock, AsksAgainForPipesAndReconnectsOnlyOnceItsIntervalsHavePassed) {
    net::Listener listener(0, "127.0.0.1");
    StepClock clock;
    dm::NetCommunicationPipeManager client("clocked", false, listener.getPort(), "127.0.0.1", 0,
                                           true, {}, {}, clock);
    client.getPipe("p");
    zu::UniquePtr<net::Socket> socket = acceptOne(listener);
    ASSERT_NE(socket, nullptr);
    socket->sendPacket(pipewire::welcome(2, 1, "server"));
    ASSERT_TRUE(packetWithin(*socket, std::chrono::seconds(10)));  // the first OpenPipe

    EXPECT_FALSE(packetWithin(*socket, std::chrono::milliseconds(300)));
    clock.advance(dm::NetCommunicationPipeManager::kOpenPipeInterval + 0.01);
    EXPECT_TRUE(packetWithin(*socket, std::chrono::seconds(10)));

    // Dropped, it waits for the reconnect interval on its clock before it tries again.
    socket.reset();
    EXPECT_FALSE(waitUntil([&] { return listener.pollConnect() != nullptr; },
                           std::chrono::milliseconds(300)));
    clock.advance(dm::NetCommunicationPipeManager::kReconnectInterval + 0.01);
    EXPECT_NE(acceptOne(listener), nullptr);
}

}  // namespace
}  // namespace dmtest
