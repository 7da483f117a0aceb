// A lone caller that reads its answer from the client's connection itself while the manager's
// thread sleeps: traffic for other pipes meanwhile, a writer that needs the connection, a
// connection that goes, and a manager destroyed under the reading caller.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "comm/hand_played_server.h"
#include "comm/manager_support.h"
#include "comm/net_communication_pipe_manager.h"
#include "net/net_test_util.h"
#include "support/manager_link.h"

namespace dmtest {
namespace {

class DirectReadTest : public ManagerTest {};

// Keeps the calling thread, and every thread it starts meanwhile, on the first CPU it may use.
class OneCpu {
public:
    OneCpu() {
        cpu_set_t one;
        CPU_ZERO(&one);
        m_ok = sched_getaffinity(0, sizeof(m_saved), &m_saved) == 0;
        for (int cpu = 0; m_ok && cpu < CPU_SETSIZE && CPU_COUNT(&one) == 0; ++cpu) {
            if (CPU_ISSET(cpu, &m_saved)) {
                CPU_SET(cpu, &one);
            }
        }
        m_ok = m_ok && sched_setaffinity(0, sizeof(one), &one) == 0;
    }
    ~OneCpu() {
        if (m_ok) {
            sched_setaffinity(0, sizeof(m_saved), &m_saved);
        }
    }
    OneCpu(const OneCpu&) = delete;
    OneCpu& operator=(const OneCpu&) = delete;
    bool ok() const { return m_ok; }

private:
    cpu_set_t m_saved{};
    bool m_ok = false;
};

// Counts a pipe's callbacks, and those that did not run on a manager's thread.
struct CallbackThreads {
    std::atomic<int> calls{0};
    std::atomic<int> callsElsewhere{0};
    static void note(void* context, dm::CommunicationPipe*) {
        auto* threads = static_cast<CallbackThreads*>(context);
        ++threads->calls;
        threads->callsElsewhere += !dm::NetCommunicationPipeManager::isManagerThread();
    }
};

TEST_F(DirectReadTest, ALoneCallerReadsItsAnswersWhileOtherPipesTrafficKeepsItsOrderAndThread) {
    constexpr int kRequests = 200;
    constexpr int kNotifications = 300;
    ManagerLink link;
    const std::string client = link.addClient();
    const ManagerLink::PipeEnds lone = link.connectPipe(client, "lone");
    const ManagerLink::PipeEnds chatty = link.connectPipe(client, "chatty");
    ASSERT_NE(lone.client, nullptr);
    ASSERT_NE(chatty.client, nullptr);
    EchoResponder responder(lone.server);
    CallbackThreads threads;
    chatty.client->setNotifyCallback({&threads, CallbackThreads::note});

    // Notifications for another pipe arrive while the caller waits on the connection.
    std::thread notifier([&] {
        for (int n = 0; n < kNotifications; ++n) {
            chatty.server->sendNotify(("note " + std::to_string(n)).c_str(), 0);
        }
    });
    for (int i = 0; i < kRequests; ++i) {
        RequestThread request(lone.client, "round " + std::to_string(i),
                              patternBytes(16 + i % 7 * 1000, i), 16 + i % 7 * 1000);
        ASSERT_TRUE(waitUntil([&] { return request.done(); }));
        ASSERT_TRUE(request.echoed()) << request.result();
    }
    notifier.join();
    EXPECT_GT(dm::getPipeStatistics(lone.client).answersReadDirectly, 0u);
    for (int n = 0; n < kNotifications; ++n) {
        ASSERT_EQ(takeNotify(*chatty.client), "note " + std::to_string(n));
    }
    // The caller dispatched some of them, but their callbacks ran on the manager's thread.
    EXPECT_GT(threads.calls.load(), 0);
    EXPECT_EQ(threads.callsElsewhere.load(), 0);
}

// On one CPU the answer is written by the responder before its caller runs again to wait for
// it: were the connection lent only after the request went, the answer would wake the manager's
// thread instead, about one round trip in seven.
TEST_F(DirectReadTest, AnAnswerQuickerThanItsCallerIsStillReadByTheCaller) {
    constexpr uint32_t kRequests = 2000;
    const OneCpu pinned;  // the threads below inherit it
    ASSERT_TRUE(pinned.ok());
    {
        ManagerLink link;
        const ManagerLink::PipeEnds ends = link.connectPipe(link.addClient(), "quick");
        ASSERT_NE(ends.client, nullptr);
        EchoResponder responder(ends.server);
        const uint32_t before = dm::getPipeStatistics(ends.client).answersReadDirectly;
        uint8_t answer[16] = {};
        const auto start = std::chrono::steady_clock::now();
        for (uint32_t i = 0; i < kRequests; ++i) {
            ends.client->sendRequest("quick", 0, answer, sizeof(answer), nullptr, &i, sizeof(i));
        }
        // One may go to the thread each time its sleep's bound (100 ms) ends during a read.
        const auto took = std::chrono::steady_clock::now() - start;
        const auto boundsEnded = static_cast<uint32_t>(took / std::chrono::milliseconds(100));
        EXPECT_GE(dm::getPipeStatistics(ends.client).answersReadDirectly - before,
                  kRequests - boundsEnded - 2);
    }
}

TEST_F(DirectReadTest, AWriterMeetingACallerThatReadsIsSentForByTheManager) {
    PlayedClient client;
    ASSERT_TRUE(client.start("read-and-write", {"reader", "writer"}));
    for (int round = 0; round < 5; ++round) {
        // The first caller is alone, so it waits on the connection; the second one finds the
        // lock taken, and the manager's thread, woken, takes the connection back and sends.
        RequestThread reading(client.pipes[0], "wait", patternBytes(32, round), 32);
        pipewire::Message first;
        ASSERT_TRUE(client.awaitRequest("wait", first));
        RequestThread writing(client.pipes[1], "write", patternBytes(48, round), 48);
        pipewire::Message second;
        ASSERT_TRUE(client.awaitRequest("write", second));

        client.server.echo(second);
        client.server.echo(first);
        ASSERT_TRUE(waitUntil([&] { return reading.done() && writing.done(); }));
        EXPECT_TRUE(reading.echoed()) << reading.result();
        EXPECT_TRUE(writing.echoed()) << writing.result();
    }
}

TEST_F(DirectReadTest, AnAnswerLaterThanTheThreadsTimeBoundIsStillReadByItsCaller) {
    PlayedClient client;
    ASSERT_TRUE(client.start("read-late", {"late"}));
    const dm::PipeStatistics before = dm::getPipeStatistics(client.pipes[0]);
    RequestThread request(client.pipes[0], "late", patternBytes(24, 7), 24);
    pipewire::Message asked;
    ASSERT_TRUE(client.awaitRequest("late", asked));
    // The answer comes after the thread's 100 ms bound has ended twice: with nothing due by
    // time, the thread leaves the connection with the reading caller.
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    client.server.echo(asked);
    ASSERT_TRUE(waitUntil([&] { return request.done(); }));
    EXPECT_TRUE(request.echoed()) << request.result();
    const dm::PipeStatistics after = dm::getPipeStatistics(client.pipes[0]);
    ASSERT_EQ(after.sentDirectly - before.sentDirectly, 1u);
    EXPECT_EQ(after.answersReadDirectly - before.answersReadDirectly, 1u);
}

TEST_F(DirectReadTest, AnAnswerDribbledByteByByteAmongOtherKindsReachesItsReadingCaller) {
    PlayedClient client;
    ASSERT_TRUE(client.start("read-dribbled", {"lone", "quiet"}));
    RequestThread request(client.pipes[0], "slowly", patternBytes(40, 5), 40);
    pipewire::Message asked;
    ASSERT_TRUE(client.awaitRequest("slowly", asked));

    // Kinds the reading caller leaves to the manager's thread come first, then a notification
    // for another pipe, then the answer, every byte sent on its own.
    std::vector<uint8_t> bytes;
    for (const net::Packet& packet :
         {pipewire::welcome(2, 0, "renamed"), pipewire::notify("quiet", 1, 9, 5, 0, 5, "aside"),
          pipewire::response("lone", asked.id, "slowly", 40, 0, 40, asked.chunk.data())}) {
        const nettest::Bytes frame = nettest::makeFrame(
            packet.getID(), {packet.getData(), packet.getData() + packet.getSize()});
        bytes.insert(bytes.end(), frame.begin(), frame.end());
    }
    const int descriptor = static_cast<int>(client.server.socket().getWaitHandle().handle);
    for (uint8_t byte : bytes) {
        ASSERT_TRUE(nettest::rawSendAll(descriptor, &byte, 1));
    }
    ASSERT_TRUE(waitUntil([&] { return request.done(); }));
    EXPECT_TRUE(request.echoed()) << request.result();
    zu::InplaceString<128> aside;
    ASSERT_TRUE(
        waitUntil([&] { return !(aside = client.pipes[1]->receiveNotify(nullptr)).empty(); }));
    EXPECT_STREQ(aside.c_str(), "aside");
    EXPECT_STREQ(client.manager->getRemoteName(), "renamed");
}

TEST_F(DirectReadTest, AReadingCallerGivesWayToALostConnectionAndToTheManagersEnd) {
    PlayedClient client;
    ASSERT_TRUE(client.start("read-then-drop", {"lone"}));
    RequestThread request(client.pipes[0], "again", patternBytes(64, 3), 64);
    pipewire::Message first;
    ASSERT_TRUE(client.awaitRequest("again", first));
    client.server.drop();

    // The manager takes the connection back, connects anew and sends the request again.
    ASSERT_TRUE(client.server.accept());
    ASSERT_TRUE(client.attached());
    pipewire::Message resent;
    ASSERT_TRUE(client.awaitRequest("again", resent));
    EXPECT_EQ(resent.chunk, first.chunk);
    client.server.echo(resent);
    ASSERT_TRUE(waitUntil([&] { return request.done(); }));
    EXPECT_TRUE(request.echoed()) << request.result();

    // Destroying the manager lets a caller that reads the connection go empty-handed.
    RequestThread unanswered(client.pipes[0], "never answered", patternBytes(16, 4), 16);
    ASSERT_TRUE(client.awaitRequest("never answered", resent));
    dm::deinitCommunicationManager("read-then-drop");
    ASSERT_TRUE(waitUntil([&] { return unanswered.done(); }));
    EXPECT_EQ(unanswered.result(), "");
}

// Takes each request of its pipe in the pipe's request callback (on the manager's thread), for
// an application thread to answer.
void takeInCallback(void* context, dm::CommunicationPipe* pipe) {
    if (!pipe->receiveRequest(nullptr).empty()) {
        static_cast<std::atomic<bool>*>(context)->store(true);
    }
}

// A server that answers only after the client answered a request of its own: the client's
// request callback must run while its lone caller waits on the connection, or neither answer
// ever comes.
TEST_F(DirectReadTest, ARequestCallbackRunsWhileALoneCallerWaitsOnTheConnection) {
    PlayedClient client;
    ASSERT_TRUE(client.start("read-callback", {"asker", "called"}));
    std::atomic<bool> taken{false};
    client.pipes[1]->setRequestCallback({&taken, takeInCallback});
    const dm::PipeStatistics before = dm::getPipeStatistics(client.pipes[0]);
    RequestThread asking(client.pipes[0], "ask", patternBytes(16, 1), 16);
    pipewire::Message asked;
    ASSERT_TRUE(client.awaitRequest("ask", asked));
    EXPECT_EQ(dm::getPipeStatistics(client.pipes[0]).sentDirectly - before.sentDirectly, 1u);

    std::thread responder([&] {
        if (waitUntil([&] { return taken.load(); }, std::chrono::seconds(4))) {
            client.pipes[1]->respond("called back", nullptr, 0);
        }
    });
    const uint8_t payload[4] = {1, 2, 3, 4};
    net::Socket& socket = client.server.socket();
    socket.sendPacket(pipewire::request("called", 1, 0, "call back", 4, 0, 4, payload));
    bool calledBack = false;
    waitUntil(
        [&] {
            socket.update();
            while (net::Packet* packet = socket.pollPacket(nullptr)) {
                const pipewire::Message message = pipewire::read(*packet);
                calledBack = calledBack ||
                             (message.kind == pipewire::kResponse && message.first == "called");
            }
            if (!calledBack) {
                const zu::WaitHandle handle = socket.getWaitHandle();
                zu::waitForAny(&handle, 1, 5);
            }
            return calledBack;
        },
        std::chrono::seconds(3));
    EXPECT_TRUE(calledBack) << "request taken by the callback: " << taken.load();

    client.server.echo(asked);  // lets the caller go whatever happened above
    responder.join();
    ASSERT_TRUE(waitUntil([&] { return asking.done(); }));
    EXPECT_TRUE(asking.echoed()) << asking.result();
}

// Destroying a manager lets a thread blocked in respond go before the pipes are destroyed; the
// responder must not touch its pipe after that. It runs at idle priority on the destroying
// thread's CPU, so that the destruction goes on the moment the responder lets its lock go.
TEST_F(DirectReadTest, ARespondLetGoByTheManagersEndLeavesThePipeAlone) {
    const OneCpu pinned;
    ASSERT_TRUE(pinned.ok());
    {
        PlayedClient client;
        ASSERT_TRUE(client.start("respond-at-end", {"answering"}));
        dm::CommunicationPipe* pipe = client.pipes[0];
        const std::vector<uint8_t> data = patternBytes(64, 2);
        client.server.socket().sendPacket(
            pipewire::request("answering", 1, 0, "question", 64, 0, 64, data.data()));
        client.server.socket().update();
        ASSERT_TRUE(waitUntil([&] { return !pipe->receiveRequest(nullptr).empty(); }));
        // Without its connection the response cannot go: respond blocks.
        client.server.drop();
        ASSERT_TRUE(waitUntil([&] { return !pipe->isConnected(); }));
        auto returned = std::make_shared<std::atomic<bool>>(false);
        std::thread responder([pipe, returned] {
            sched_param idle{};
            pthread_setschedparam(pthread_self(), SCHED_IDLE, &idle);
            pipe->respond("answer", nullptr, 0);
            returned->store(true);
        });
        const bool queued =
            waitUntil([&] { return dm::getPipeStatistics(pipe).outgoingResponses == 1; });
        dm::deinitCommunicationManager("respond-at-end");
        if (waitUntil([&] { return returned->load(); })) {
            responder.join();
        } else {
            responder.detach();  // stuck for good: it holds only its own copy of the flag
        }
        EXPECT_TRUE(queued);
        EXPECT_TRUE(returned->load());
    }
}

}  // namespace
}  // namespace dmtest
