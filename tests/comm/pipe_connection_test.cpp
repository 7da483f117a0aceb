// Attaching, detaching and resetting pipes, and what each pump sends. The test plays the
// managers of both ends step by step: it pumps one end and delivers what arrived to the other.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/pipe_link.h"
#include "support/pipe_responders.h"

namespace {

using dmtest::PipeEndpoint;
using dmtest::RequestThread;
using dmtest::waitUntil;

// respond() blocks until the response has been sent, so each runs on its own thread. The next
// receiveRequest must wait until a respond has taken the current request: respondToCurrent
// returns once the response is queued.
class Responses {
public:
    explicit Responses(PipeEndpoint& end) : m_end(end) {}
    ~Responses() {
        // Normally all were sent by the test; pumping here only keeps a failed test from hanging.
        waitUntil([&] {
            m_end.pump();
            return m_finished.load() == m_threads.size();
        });
        dmtest::joinAll(m_threads);
    }
    bool respondToCurrent(const char* text) {
        const size_t queued = m_end.pipe().getStatistics().outgoingResponses;
        m_threads.emplace_back([this, text] {
            m_end.pipe().respond(text, nullptr, 0);
            ++m_finished;
        });
        return waitUntil(
            [&] { return m_end.pipe().getStatistics().outgoingResponses == queued + 1; });
    }

private:
    PipeEndpoint& m_end;
    std::vector<std::thread> m_threads;
    std::atomic<size_t> m_finished{0};
};

// Over loopback: the pipes report their peer's address.
class PipeConnection : public dmtest::HandWrittenPackets {
protected:
    PipeConnection() : HandWrittenPackets(true) {}
    dm::NetCommunicationPipe& left() { return link.left.pipe(); }
    dm::NetCommunicationPipe& right() { return link.right.pipe(); }
    // A request from the left end, once queued there.
    std::unique_ptr<RequestThread> ask(const std::string& text) {
        const size_t queued = left().getStatistics().outgoingRequests;
        auto request = std::make_unique<RequestThread>(&left(), text);
        EXPECT_TRUE(waitUntil([&] { return left().getStatistics().outgoingRequests > queued; }));
        return request;
    }
    // Takes and answers `count` requests on the right end and delivers the answers.
    void answerAll(int count, const char* text = "answer") {
        Responses responses(link.right);
        for (int i = 0; i < count; ++i) {
            ASSERT_FALSE(right().receiveRequest(nullptr).empty());
            ASSERT_TRUE(responses.respondToCurrent(text));
        }
        EXPECT_EQ(count, link.right.transferTo(link.left).responses);
    }
    // Answers the right end's current request with `text` and checks that `request` gets it.
    void expectAnswered(RequestThread& request, const char* text) {
        Responses responses(link.right);
        ASSERT_TRUE(responses.respondToCurrent(text));
        EXPECT_EQ(1, link.right.transferTo(link.left).responses);
        ASSERT_TRUE(waitUntil([&] { return request.done(); }));
        EXPECT_EQ(text, request.result());
    }
    void expectNoRequestData() {
        void* data = &link;
        uint32_t size = 77;
        right().getRequestData(&data, &size);
        EXPECT_EQ(nullptr, data);
        EXPECT_EQ(0u, size);
    }
};

TEST(PipeConnectionAlone, EmptyPipeYieldsNothingAndLeavesOutputsAlone) {
    dm::NetCommunicationPipe pipe(nullptr, "empty");
    uint32_t value = 1234;
    EXPECT_STREQ("", pipe.receiveNotify(&value).c_str());
    EXPECT_STREQ("", pipe.receiveRequest(&value).c_str());
    EXPECT_EQ(1234u, value);
    EXPECT_FALSE(pipe.isConnected());
    EXPECT_STREQ("", pipe.getConnectedIP().c_str());
    EXPECT_EQ(nullptr, pipe.getManager());
    EXPECT_STREQ("empty", pipe.getName());
    // Not connected: a notification is refused, not kept for later.
    EXPECT_FALSE(pipe.sendNotify("nobody listens", 1));
    EXPECT_EQ(0u, pipe.getStatistics().outgoingNotifications);
}

TEST_F(PipeConnection, AttachReportsThePeerAndCallsTheConnectionCallback) {
    std::vector<dm::CommunicationPipe*> calls;
    left().setConnectionCallback(
        {&calls, [](void* context, dm::CommunicationPipe* pipe) {
             static_cast<std::vector<dm::CommunicationPipe*>*>(context)->push_back(pipe);
         }});
    link.left.attach();
    EXPECT_EQ(std::vector<dm::CommunicationPipe*>{&left()}, calls);
    EXPECT_TRUE(left().isConnected());
    EXPECT_STREQ("127.0.0.1", left().getConnectedIP().c_str());

    link.left.detach();
    EXPECT_FALSE(left().isConnected());
    EXPECT_STREQ("", left().getConnectedIP().c_str());
    EXPECT_EQ(1u, calls.size());  // detaching calls nothing

    // A pair with only a context counts as set but has nothing to call.
    left().setConnectionCallback({&calls, nullptr});
    link.left.attach();
    EXPECT_EQ(1u, calls.size());
}

TEST_F(PipeConnection, EachPumpSendsAtMostEightMessagesOfEachKind) {
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(left().sendNotify(("n" + std::to_string(i)).c_str(), 1));
    }
    EXPECT_EQ(8, link.left.transferTo(link.right).notifies);
    EXPECT_EQ(2, link.left.transferTo(link.right).notifies);
    EXPECT_EQ(0, link.left.transferTo(link.right).notifies);

    // Requests: only the first eight queued are looked at, and they stay queued (sent) until
    // answered, so the last two wait.
    std::vector<std::unique_ptr<RequestThread>> requests;
    for (int i = 0; i < 10; ++i) {
        requests.push_back(ask("r" + std::to_string(i)));
    }
    EXPECT_EQ(8, link.left.transferTo(link.right).requests);
    EXPECT_EQ(0, link.left.transferTo(link.right).requests);
    answerAll(8);
    EXPECT_TRUE(waitUntil([&] { return left().getStatistics().outgoingRequests == 2; }));
    EXPECT_EQ(2, link.left.transferTo(link.right).requests);
    answerAll(2);
    for (const auto& request : requests) {
        EXPECT_TRUE(waitUntil([&] { return request->done(); }));
    }

    // Responses: ten requests straight from the wire, all answered before the next pump.
    for (uint32_t id = 1000; id < 1010; ++id) {
        deliver(dmtest::pipewire::request("link", id, 0, "raw"));
    }
    ASSERT_EQ(10u, right().getStatistics().incomingRequests);
    Responses responses(link.right);
    for (int i = 0; i < 10; ++i) {
        ASSERT_FALSE(right().receiveRequest(nullptr).empty());
        ASSERT_TRUE(responses.respondToCurrent("answer"));
    }
    EXPECT_EQ(8, link.right.transferTo(link.left).responses);
    // Sent responses leave the queue when their respond() returns; until then they still count
    // among the first eight.
    ASSERT_TRUE(waitUntil([&] { return right().getStatistics().outgoingResponses == 2; }));
    EXPECT_EQ(2, link.right.transferTo(link.left).responses);
    EXPECT_EQ(0, link.right.transferTo(link.left).responses);
}

TEST_F(PipeConnection, RespondToARequestTakenBeforeAResetIsSwallowed) {
    auto request = ask("question");
    EXPECT_EQ(1, link.left.transferTo(link.right).requests);
    ASSERT_STREQ("question", right().receiveRequest(nullptr).c_str());

    link.right.attach();  // a reconnect resets the pipe
    std::atomic<bool> returned{false};
    std::thread responder([&] {
        right().respond("too late", nullptr, 0);
        returned = true;
    });
    const bool returnedAtOnce = waitUntil([&] { return returned.load(); });
    if (!returnedAtOnce) {
        link.right.pump();  // let it go, so that the failure does not hang the test
    }
    responder.join();
    EXPECT_TRUE(returnedAtOnce);
    EXPECT_EQ(0u, right().getStatistics().outgoingResponses);
    EXPECT_EQ(0, link.right.transferTo(link.left).responses);
    expectNoRequestData();

    // The asking side resends on its own reconnect and gets its answer then.
    link.left.attach();
    EXPECT_EQ(1, link.left.transferTo(link.right).requests);
    EXPECT_STREQ("question", right().receiveRequest(nullptr).c_str());
    expectAnswered(*request, "in time");
}

TEST_F(PipeConnection, ResentCompletedRequestIsIgnoredUntilTheReceiverResets) {
    auto request = ask("only once");
    EXPECT_EQ(1, link.left.transferTo(link.right).requests);
    EXPECT_STREQ("only once", right().receiveRequest(nullptr).c_str());

    // The sender reconnects and resends; the receiver has completed that id already.
    link.left.attach();
    EXPECT_EQ(1, link.left.transferTo(link.right).requests);
    EXPECT_EQ(0u, incomingRequests());
    EXPECT_STREQ("", right().receiveRequest(nullptr).c_str());
    EXPECT_EQ(1u, dm::getPipeStatistics(&right()).droppedStale);

    // Once the receiver has been reset too, any id is new again.
    link.right.attach();
    link.left.attach();
    EXPECT_EQ(1, link.left.transferTo(link.right).requests);
    EXPECT_STREQ("only once", right().receiveRequest(nullptr).c_str());
    expectAnswered(*request, "done");
}

TEST_F(PipeConnection, NotificationsQueuedBeforeAReattachAreDropped) {
    ASSERT_TRUE(left().sendNotify("stale 1", 1));
    ASSERT_TRUE(left().sendNotify("stale 2", 1));
    ASSERT_TRUE(right().sendNotify("arrived before", 1));
    EXPECT_EQ(1, link.right.transferTo(link.left).notifies);

    link.left.attach();
    EXPECT_EQ(0, link.left.transferTo(link.right).notifies);
    ASSERT_TRUE(left().sendNotify("fresh", 1));
    EXPECT_EQ(1, link.left.transferTo(link.right).notifies);
    EXPECT_STREQ("fresh", right().receiveNotify(nullptr).c_str());
    // Notifications that had arrived are kept across the reset.
    EXPECT_STREQ("arrived before", left().receiveNotify(nullptr).c_str());
}

}  // namespace
