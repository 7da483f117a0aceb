// Server, Client and the hub's other ways in: joining a server, waiting on other processes,
// and the dm-hub tool.
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "dm/comm.h"
#include "dm/endpoints.h"
#include "endpoints/hub_support.h"
#include "jobs/job_test_support.h"

namespace {

TEST(Client, APlaceholderDoesNothing) {
    dm::Client placeholder;
    placeholder.connect("127.0.0.1", 1);
    EXPECT_EQ(placeholder.getManager(), nullptr);
    EXPECT_EQ(placeholder.getPipe("chat"), nullptr);
    EXPECT_FALSE(placeholder.isPipeAcquired("chat"));
    placeholder.waitPipeToConnect("chat");  // nothing to wait for
    EXPECT_STREQ(placeholder.getName(), "");
}

// A server that a client and a hub both join.
TEST(Server, AClientReachesItsPipeJobsRunOnItsNameAndAHubJoinsAsAMember) {
    dmtest::LogCapture log;
    {
        dm::Server server("endpoint server", 0);
        ASSERT_NE(server.getPort(), 0);
        EXPECT_EQ(server.getID(), 0xFFFFFFFFu);
        server.registerPipe("talk");
        EXPECT_TRUE(log.waitFor("Server: \"endpoint server\" registered pipe: \"talk\".\n"));
        dm::Client client("endpoint client");
        EXPECT_FALSE(client.isPipeAcquired("talk"));
        client.connect("127.0.0.1", server.getPort());
        dmtest::runBounded("waitPipeToConnect", [&] { client.waitPipeToConnect("talk"); });
        EXPECT_TRUE(client.isPipeAcquired("talk"));
        // The server's job manager looks its pipes up by the server's name.
        server.addJob(dm::makeJob<dm::JobWaitNotify>("talk", "hello"));
        server.runJobs(false);
        ASSERT_TRUE(client.getPipe("talk")->sendNotify("hello", 0));
        dmtest::runBounded("the server's jobs", [&] { server.waitJobsToComplete(); });

        dm::BroadcastServer hub("joining hub", 0);
        hub.registerPipe("shared");
        hub.connect(&server);
        ASSERT_EQ(hub.getMemberCount(), 1u);
        dm::CommunicationPipeManager* member = hub.getMemberManager(0);
        ASSERT_NE(member, nullptr);
        EXPECT_TRUE(member->isClient());
        EXPECT_STREQ(member->getName(), "joining hubc0");
        // The hub's pipe is made on its member, which opens it on the server.
        dm::CommunicationPipeManager* serverManager = server.getManager();
        EXPECT_TRUE(dmtest::waitUntil([&] {
            return serverManager->pipeExists("shared") && server.getPipe("shared")->isConnected();
        }));
        // The server hears the hub's broadcasts.
        dmtest::runBounded("broadcastNotify", [&] { hub.broadcastNotify("shared", "hi all"); });
        uint32_t value = 0;
        EXPECT_EQ(dmtest::takeNotify(*server.getPipe("shared"), &value), "hi all");
        EXPECT_EQ(value, 0xFFFFFFFFu);
    }
    dm::deinitCommunicationManagers();
}

TEST(BroadcastServer, WaitOnProcessesReturnsOnceTheHoldersHaveComeAndGone) {
    const std::string name = "refcount hub " + std::to_string(getpid());
    dm::BroadcastServer hub(name.c_str(), 0);
    const std::string holder = std::string(DM_TEST_PROGRAM_DIR) + "/endpoints_refcount_holder";
    dmtest::ChildProcess first(holder, {name + "_refcount"}, true);
    dmtest::ChildProcess second(holder, {name + "_refcount"}, true);
    ASSERT_TRUE(first.waitForOutput("holding"));
    ASSERT_TRUE(second.waitForOutput("holding"));
    std::atomic<bool> returned{false};
    std::thread waiter([&] {
        hub.waitOnProccesses();
        returned = true;
    });
    // Holders that left before the hub looked would never be seen: let it look first.
    if (!dmtest::waitUntil([&] { return hub.hasSeenRefcountHolders(); })) {
        std::fprintf(stderr, "FATAL: waitOnProccesses never saw the holders\n");
        std::_Exit(EXIT_FAILURE);  // the waiting thread cannot be stopped
    }
    first.closeInput();
    EXPECT_EQ(first.wait(), 0);
    EXPECT_FALSE(returned.load());  // the second one still holds it
    second.closeInput();
    EXPECT_EQ(second.wait(), 0);
    if (!dmtest::waitUntil([&] { return returned.load(); })) {
        std::fprintf(stderr, "FATAL: waitOnProccesses did not return\n");
        std::_Exit(EXIT_FAILURE);
    }
    waiter.join();
}

TEST(DmHub, PrintsEachMemberAsItJoinsAndEndsWithItsInput) {
    const int port = dmtest::findFreePorts(3);
    ASSERT_NE(port, 0);
    dmtest::ChildProcess hub(
        DM_HUB_TOOL, {"--port", std::to_string(port), "--name", "tool", "--until-eof"}, true);
    ASSERT_TRUE(hub.waitForOutput("dm-hub: hub \"tool\" on port " + std::to_string(port)));
    dmtest::HubMember first(port, "first");
    ASSERT_TRUE(first.waitFor("joined \"toolc0\" as member 0"));
    EXPECT_TRUE(hub.waitForOutput("dm-hub: member 0 joined: manager \"toolc0\" on port " +
                                  std::to_string(port + 1)));
    dmtest::HubMember second(port, "second");
    ASSERT_TRUE(second.waitFor("joined \"toolc1\" as member 1"));
    EXPECT_TRUE(hub.waitForOutput("dm-hub: member 1 joined: manager \"toolc1\" on port " +
                                  std::to_string(port + 2)));
    ASSERT_TRUE(second.command("request 0 ping"));
    EXPECT_TRUE(
        second.waitFor("response \"first answers \"ping\"\" with data \"data from first\""));
    hub.closeInput();
    EXPECT_EQ(hub.wait(std::chrono::seconds(30)), 0);  // tears down two members' managers
    EXPECT_NE(hub.output().find("dm-hub: closing with 2 members"), std::string::npos);
}

}  // namespace
