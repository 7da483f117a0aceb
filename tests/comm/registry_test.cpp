// The process-wide registry of pipe managers.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "comm/manager_support.h"
#include "net/socket.h"
#include "zu/thread.h"

namespace dmtest {
namespace {

class RegistryTest : public ManagerTest {};

TEST_F(RegistryTest, ASoleManagerServesLookupsByPipeNameAlone) {
    EXPECT_TRUE(dm::isCommunicationPipeManagerMapEmpty());
    EXPECT_EQ(dm::getCommunicationPipeManager(), nullptr);
    EXPECT_EQ(dm::getCommunicationPipe("any"), nullptr);
    EXPECT_FALSE(dm::isResourceHotLoadPipeCreated("any"));

    dm::CommunicationPipeManager* server =
        dm::initCommunicationManagerAsServer("Game", 0, 12, true);
    ASSERT_NE(server, nullptr);
    EXPECT_TRUE(server->isServer());
    EXPECT_FALSE(server->isClient());
    EXPECT_EQ(server->getID(), 12u);
    uint32_t port = 0;
    EXPECT_STREQ(server->getHost(&port), "127.0.0.1");
    EXPECT_NE(port, 0u);
    EXPECT_FALSE(dm::isCommunicationPipeManagerMapEmpty());
    EXPECT_EQ(dm::getCommunicationPipeManager(), server);
    EXPECT_EQ(dm::getCommunicationPipeManager("GAME"), server);
    EXPECT_TRUE(dm::communicationPipeManagerExists("game"));
    EXPECT_FALSE(dm::communicationPipeManagerExists("other"));

    // Asking whether a pipe exists never makes it; the lookups do.
    EXPECT_FALSE(dm::isResourceHotLoadPipeCreated("hotload"));
    dm::CommunicationPipe* pipe = dm::getCommunicationPipe("hotload");
    ASSERT_NE(pipe, nullptr);
    EXPECT_TRUE(dm::isResourceHotLoadPipeCreated("HOTLOAD"));
    EXPECT_EQ(dm::getCommunicationPipeChecked("HotLoad"), pipe);
    EXPECT_EQ(dm::getCommunicationPipe("game", "hotload"), pipe);
    EXPECT_EQ(dm::getCommunicationPipeChecked("GAME", "hotload"), pipe);
    EXPECT_EQ(dm::getCommunicationPipe("other", "hotload"), nullptr);
    EXPECT_EQ(dm::getCommunicationPipeChecked("other", "hotload"), nullptr);
}

TEST_F(RegistryTest, TwoManagersHaveNoSoleOneUntilOneIsDeinitialised) {
    dm::CommunicationPipeManager* server =
        dm::initCommunicationManagerAsServer("server", 0, 1, true);
    dm::CommunicationPipeManager* client = dm::initCommunicationManagerAsClient(
        "client", "127.0.0.1", static_cast<int>(portOf(server)));
    EXPECT_TRUE(client->isClient());
    EXPECT_EQ(dm::getCommunicationPipeManager(), nullptr);
    EXPECT_EQ(dm::getCommunicationPipe("p"), nullptr);
    EXPECT_EQ(dm::getCommunicationPipeChecked("p"), nullptr);
    EXPECT_FALSE(dm::isResourceHotLoadPipeCreated("p"));

    // A second client init under the same name (any case) returns the first, unchanged.
    EXPECT_EQ(dm::initCommunicationManagerAsClient("CLIENT", "example.invalid", 1), client);
    uint32_t port = 0;
    EXPECT_STREQ(client->getHost(&port), "127.0.0.1");
    EXPECT_EQ(port, portOf(server));

    dm::deinitCommunicationManager("Server");
    EXPECT_FALSE(dm::communicationPipeManagerExists("server"));
    EXPECT_EQ(dm::getCommunicationPipeManager(), client);
    dm::deinitCommunicationManager("no such manager");
    EXPECT_EQ(dm::getCommunicationPipeManager(), client);

    dm::deinitCommunicationManager("client");
    EXPECT_TRUE(dm::isCommunicationPipeManagerMapEmpty());
    EXPECT_EQ(dm::getCommunicationPipeManager(), nullptr);
}

TEST_F(RegistryTest, AServerInitUnderATakenNameReplacesWithoutDestroying) {
    dm::CommunicationPipeManager* first = dm::initCommunicationManagerAsServer("twice", 0, 1, true);
    dm::CommunicationPipeManager* second =
        dm::initCommunicationManagerAsServer("TWICE", 0, 2, true);
    EXPECT_NE(first, second);
    EXPECT_EQ(dm::getCommunicationPipeManager("twice"), second);
    EXPECT_EQ(dm::getCommunicationPipeManager(), second);

    // The replaced one still serves: a client reaches it.
    dm::CommunicationPipeManager* client = dm::initCommunicationManagerAsClient(
        "visitor", "127.0.0.1", static_cast<int>(portOf(first)));
    dm::CommunicationPipe* pipe = client->getPipe("still there");
    EXPECT_TRUE(waitUntil([&] { return pipe->isConnected(); }));
    EXPECT_TRUE(first->pipeExists("still there"));
    delete first;  // handed over to whoever held it
}

// What a client-connection callback saw. It waits until its manager is being destroyed (the
// manager has left the map, under the registry lock) and then asks the registry for it.
struct LateLookup {
    std::atomic<bool> entered{false};
    std::atomic<bool> returned{false};
    zu::InplaceString<128> threadName;
    int threadSlot = -1;
    dm::CommunicationPipeManager* found = nullptr;

    static void onClient(void* context, dm::CommunicationPipeManager*) {
        auto* self = static_cast<LateLookup*>(context);
        self->threadName = zu::getThreadName(zu::getCurrentThreadId());
        self->threadSlot = zu::getRegisteredThreadSlot(zu::getCurrentThreadId());
        self->entered = true;
        waitUntil([] { return dm::isCommunicationPipeManagerMapEmpty(); });
        self->found = dm::getCommunicationPipeManager("doomed");
        self->returned = true;
    }
};

TEST_F(RegistryTest, ACallbackUsingTheRegistryDoesNotHoldUpItsManagersDestruction) {
    static LateLookup lookup;  // outlives the manager whatever happens
    lookup.entered = false;
    lookup.returned = false;
    dm::CommunicationPipeManager* server =
        dm::initCommunicationManagerAsServer("doomed", 0, 1, true);
    server->setClientConnectionCallback({&lookup, LateLookup::onClient});
    net::Socket visitor;
    ASSERT_TRUE(visitor.connect("127.0.0.1", portOf(server)));
    ASSERT_TRUE(waitUntil([&] { return lookup.entered.load(); }));
    EXPECT_STREQ(lookup.threadName.c_str(), "ZMK - Communication Pipe");
    EXPECT_EQ(lookup.threadSlot, 9);

    dm::deinitCommunicationManager("doomed");  // joins the thread that waits for the lock
    EXPECT_TRUE(lookup.returned.load());
    EXPECT_EQ(lookup.found, nullptr);
}

// The pipe-create callback runs with the manager's pipe table locked, on the thread that called
// getPipe; asking the same manager for pipes from there must work.
struct CompanionMaker {
    static void onPipeCreated(void* context, dm::CommunicationPipeManager* manager,
                              dm::CommunicationPipe* pipe) {
        auto* maker = static_cast<CompanionMaker*>(context);
        const std::string name = pipe->getName();
        if (name.rfind("companion of ", 0) == 0) {
            return;
        }
        maker->existedBefore = manager->pipeExists(("companion of " + name).c_str());
        maker->companion = manager->getPipe(("companion of " + name).c_str());
        maker->sameAgain = manager->getPipe(name.c_str()) == pipe;
    }
    dm::CommunicationPipe* companion = nullptr;
    bool existedBefore = true;
    bool sameAgain = false;
};

TEST_F(RegistryTest, APipeCreateCallbackMayAskItsOwnManagerForPipes) {
    CompanionMaker maker;
    dm::CommunicationPipeManager* server = dm::initCommunicationManagerAsServer(
        "maker", 0, 1, true, {}, {&maker, CompanionMaker::onPipeCreated});
    ASSERT_NE(server, nullptr);
    dm::CommunicationPipe* pipe = server->getPipe("assets");
    ASSERT_NE(pipe, nullptr);
    EXPECT_FALSE(maker.existedBefore);
    EXPECT_TRUE(maker.sameAgain);
    ASSERT_NE(maker.companion, nullptr);
    EXPECT_EQ(server->getPipe("companion of assets"), maker.companion);
    server->setPipeCreateCallback({});
}

// copyName and copyHost hand out whole names while another thread renames the manager.
TEST_F(RegistryTest, CopiesOfNameAndHostStayWholeWhileAnotherThreadChangesThem) {
    dm::CommunicationPipeManager* client =
        dm::initCommunicationManagerAsClient("renamed", "127.0.0.1", 1);
    ASSERT_NE(client, nullptr);
    std::atomic<bool> done{false};
    std::thread renamer([&] {
        for (int i = 0; i < 2000; ++i) {
            client->setName(i % 2 ? "a name that is rather long" : "short");
            client->setHost(i % 2 ? "localhost" : "127.0.0.1", 1);
        }
        done = true;
    });
    int torn = 0;
    for (int i = 0; i < 200000 && !done.load(); ++i) {
        const std::string name = client->copyName().c_str();
        const std::string host = client->copyHost(nullptr).c_str();
        torn += name != "renamed" && name != "short" && name != "a name that is rather long";
        torn += host != "localhost" && host != "127.0.0.1";
    }
    renamer.join();
    EXPECT_EQ(torn, 0);
}

}  // namespace
}  // namespace dmtest
