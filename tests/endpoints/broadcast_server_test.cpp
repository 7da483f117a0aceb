// A hub in this process and members in processes of their own (dm-hub-member), over loopback.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "dm/comm.h"
#include "dm/endpoints.h"
#include "endpoints/hub_support.h"
#include "jobs/job_test_support.h"

namespace {

using dmtest::HubMember;

constexpr int kMembers = 3;
// The hub's port, its members' and room for three more.
constexpr int kPortsNeeded = 1 + kMembers + 3;

class HubTest : public ::testing::Test {
protected:
    void SetUp() override {
        static int serial = 0;
        m_hubName = "hub" + std::to_string(++serial) + "_";
        m_port = dmtest::findFreePorts(kPortsNeeded);
        ASSERT_NE(m_port, 0);
        m_hub = std::make_unique<dm::BroadcastServer>(m_hubName.c_str(), m_port);
    }

    // With the members still connected: the teardown under test in every case.
    void TearDown() override { destroyHub(); }

    void destroyHub() {
        dmtest::runBounded("the hub's destructor", [this] { m_hub.reset(); });
    }

    std::string managerName(int id) const { return m_hubName + "c" + std::to_string(id); }
    std::string joinedLine(int id) const {
        return "joined \"" + managerName(id) + "\" as member " + std::to_string(id);
    }

    // Starts the next member and waits until it has joined with the next id.
    HubMember& addMember() {
        const int id = static_cast<int>(m_members.size());
        m_members.push_back(std::make_unique<HubMember>(m_port, "member" + std::to_string(id)));
        HubMember& member = *m_members.back();
        EXPECT_TRUE(member.waitFor(joinedLine(id))) << member.output();
        return member;
    }
    void addMembers() {
        for (int i = 0; i < kMembers; ++i) {
            addMember();
        }
    }
    HubMember& member(int id) { return *m_members[static_cast<size_t>(id)]; }

    dmtest::LogCapture m_log;  // first in, last out: the hub logs until it is gone
    std::string m_hubName;
    int m_port = 0;
    std::unique_ptr<dm::BroadcastServer> m_hub;
    std::vector<std::unique_ptr<HubMember>> m_members;
};

TEST_F(HubTest, AToolStartedBeforeTheHubJoinsOnceItIsUp) {
    destroyHub();
    m_members.push_back(std::make_unique<HubMember>(m_port, "early"));
    // It keeps trying to connect meanwhile; the hub's manager has its callbacks from the start.
    m_hub = std::make_unique<dm::BroadcastServer>(m_hubName.c_str(), m_port);
    EXPECT_TRUE(member(0).waitFor(joinedLine(0))) << member(0).output();
    addMember();
}

TEST_F(HubTest, APipeOpenedByOneMemberIsCreatedOnEveryMember) {
    addMembers();
    for (int id = 0; id < kMembers; ++id) {
        dm::CommunicationPipeManager* manager = m_hub->getMemberManager(static_cast<uint32_t>(id));
        EXPECT_TRUE(dmtest::waitUntil([&] { return manager->pipeExists("chat"); }));
    }
    // One on the hub's side, and the members' own pipes announce it again.
    m_hub->registerPipe("news");
    EXPECT_TRUE(m_log.waitFor("Server: \"" + m_hubName + "\" registered pipe: \"news\".\n"));
    for (int id = 0; id < kMembers; ++id) {
        dm::CommunicationPipeManager* manager = m_hub->getMemberManager(static_cast<uint32_t>(id));
        EXPECT_TRUE(dmtest::waitUntil([&] { return manager->pipeExists("news"); }));
        EXPECT_TRUE(m_log.waitFor("Manager \"" + managerName(id) + "\" created a pipe \"news\"\n"));
    }
}

TEST_F(HubTest, MemberAndHubNotificationsReachEveryOtherMemberOnceNumberedWithTheSender) {
    addMembers();
    ASSERT_TRUE(member(1).command("notify ping"));
    EXPECT_TRUE(member(0).waitFor("notification \"ping\" from member 1"));
    EXPECT_TRUE(member(2).waitFor("notification \"ping\" from member 1"));
    // Member 0's notifications: the number 0 arrives as the receiver's own id, which the member
    // reads back as 0. Sent after the ping has arrived, it also marks the end of anything the
    // ping could have caused.
    ASSERT_TRUE(member(0).command("notify marker"));
    EXPECT_TRUE(member(1).waitFor("notification \"marker\" from member 0"));
    EXPECT_TRUE(member(2).waitFor("notification \"marker\" from member 0"));
    EXPECT_EQ(member(0).count("notification \"ping\""), 1);
    EXPECT_EQ(member(2).count("notification \"ping\""), 1);
    EXPECT_EQ(member(1).count("notification \"ping\""), 0);
    ASSERT_TRUE(member(2).command("notify last"));
    EXPECT_TRUE(member(0).waitFor("notification \"last\" from member 2"));
    EXPECT_TRUE(member(1).waitFor("notification \"last\" from member 2"));
    EXPECT_EQ(member(0).count("notification \"marker\""), 0);
    EXPECT_EQ(member(1).count("notification \"marker\""), 1);

    // The hub's own broadcast reaches every member.
    dmtest::runBounded("broadcastNotify",
                       [this] { m_hub->broadcastNotify("chat", "from the top"); });
    for (int id = 0; id < kMembers; ++id) {
        EXPECT_TRUE(member(id).waitFor("notification \"from the top\" from the hub"));
    }
}

TEST_F(HubTest, ARequestGoesToTheMemberItsNumberNamesOrIsDroppedWhenThereIsNone) {
    addMembers();
    ASSERT_TRUE(member(0).command("request 1 who are you?"));
    EXPECT_TRUE(member(1).waitFor("answered \"who are you?\""));
    EXPECT_TRUE(member(0).waitFor(
        "response \"member1 answers \"who are you?\"\" with data \"data from member1\""));
    EXPECT_TRUE(m_log.waitFor("broadcastserver pipeRequestCallback\n"));
    // And the other way round, to a member that asked before.
    ASSERT_TRUE(member(2).command("request 0 and you?"));
    EXPECT_TRUE(member(2).waitFor(
        "response \"member0 answers \"and you?\"\" with data \"data from member0\""));
    EXPECT_EQ(member(2).count("answered"), 0);

    // A request for a member that does not exist is dropped with a line; the hub goes on.
    ASSERT_TRUE(member(0).command("request 7 anyone?"));
    EXPECT_TRUE(m_log.waitFor("BroadcastServer \"" + m_hubName +
                              "\" dropped request \"anyone?\" on pipe \"chat\": no manager with "
                              "id 7\n"));
    ASSERT_TRUE(member(1).command("request 2 still there?"));
    EXPECT_TRUE(member(1).waitFor("response \"member2 answers \"still there?\"\""));
}

// A member that leaves keeps its slot, and the next gets a new one on the port after the last.
TEST_F(HubTest, EachMemberGetsTheNextManagerNameAndPortAndALeftSlotStays) {
    addMembers();
    EXPECT_EQ(member(1).quit(), 0);
    HubMember& next = addMember();  // member 3
    ASSERT_EQ(m_hub->getMemberCount(), static_cast<size_t>(kMembers + 1));
    for (int id = 0; id <= kMembers; ++id) {
        dm::CommunicationPipeManager* manager = m_hub->getMemberManager(static_cast<uint32_t>(id));
        ASSERT_NE(manager, nullptr);
        EXPECT_EQ(std::string(manager->getName()), managerName(id));
        EXPECT_EQ(manager->getID(), static_cast<uint32_t>(id));
        uint32_t port = 0;
        manager->getHost(&port);
        EXPECT_EQ(port, static_cast<uint32_t>(m_port + id + 1));
        EXPECT_EQ(m_log.count("Server \"" + managerName(id) + "\" was connected by a client\n"), 1);
    }
    EXPECT_EQ(m_hub->getMemberManager(kMembers + 1), nullptr);
    // The slot that was left stays, unconnected: its notifications are dropped.
    ASSERT_TRUE(next.command("notify hello"));
    EXPECT_TRUE(member(0).waitFor("notification \"hello\" from member 3"));
    EXPECT_TRUE(member(2).waitFor("notification \"hello\" from member 3"));
}

TEST_F(HubTest, TearingTheHubDownWhileARequestWaitsAndMembersKeepTalkingNeitherHangsNorLeaks) {
    addMembers();
    // A member in this process that never answers: the request forwarded to it waits.
    dm::Client silent((m_hubName + "silent").c_str());
    dm::CommunicationPipe* silentPipe = silent.getPipe("chat");
    silent.connect("127.0.0.1", m_port);
    dmtest::runBounded("waitPipeToConnect", [&] { silent.waitPipeToConnect("chat"); });
    ASSERT_TRUE(silent.isPipeAcquired("chat"));
    ASSERT_TRUE(member(0).command("request 3 hello?"));
    EXPECT_TRUE(dmtest::waitUntil([&] {
        uint32_t value = 0;
        return !silentPipe->receiveRequest(&value).empty();
    }));
    // Members in this process that send without pause, so that the hub's callbacks are busy
    // on every manager while it goes.
    constexpr int kTalkers = 3;
    std::vector<std::unique_ptr<dm::Client>> talkers;
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < kTalkers; ++i) {
        talkers.push_back(
            std::make_unique<dm::Client>((m_hubName + "talker" + std::to_string(i)).c_str()));
        dm::Client& talker = *talkers.back();
        dm::CommunicationPipe* pipe = talker.getPipe("chat");
        talker.connect("127.0.0.1", m_port);
        dmtest::runBounded("waitPipeToConnect", [&] { talker.waitPipeToConnect("chat"); });
        threads.emplace_back([pipe, &stop] {
            for (int sent = 0; !stop.load(); ++sent) {
                pipe->sendNotify(("chatter " + std::to_string(sent)).c_str(), 0);
                uint32_t value = 0;
                while (!pipe->receiveNotify(&value).empty()) {
                }
                std::this_thread::yield();
            }
        });
    }
    EXPECT_TRUE(member(0).waitFor("notification \"chatter"));
    destroyHub();
    stop = true;
    dmtest::joinAll(threads);
    for (auto& talker : talkers) {
        dm::deinitCommunicationManager(talker->getName());
    }
    dm::deinitCommunicationManager(silent.getName());
}

}  // namespace
