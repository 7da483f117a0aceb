// Attaching, detaching and resetting pipes, and what each pump sends. The test plays the
// managers of both ends step by step: it pumps one end and delivers what arrived to the other.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/pipe_link.h"

namespace {

using dmtest::PendingRequest;
using dmtest::PipeEndpoint;
using dmtest::PipeLink;
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
        for (std::thread& thread : m_threads) {
            thread.join();
        }
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

// Takes and answers `count` requests on `end`, and delivers the answers to its peer `to`.
void answerAll(PipeEndpoint& end, PipeEndpoint& to, int count) {
    Responses responses(end);
    for (int i = 0; i < count; ++i) {
        ASSERT_FALSE(end.pipe().receiveRequest(nullptr).empty());
        ASSERT_TRUE(responses.respondToCurrent("answer"));
    }
    EXPECT_EQ(count, end.transferTo(to).responses);
}

TEST(PipeConnection, EmptyPipeYieldsNothingAndLeavesOutputsAlone) {
    dm::NetCommunicationPipe pipe(nullptr, "empty");
    uint32_t value = 1234;
    EXPECT_STREQ("", pipe.receiveNotify(&value).c_str());
    EXPECT_STREQ("", pipe.receiveRequest(&value).c_str());
    EXPECT_EQ(1234u, value);
    void* data = &value;
    uint32_t size = 77;
    pipe.getRequestData(&data, &size);
    EXPECT_EQ(nullptr, data);
    EXPECT_EQ(0u, size);

    EXPECT_FALSE(pipe.isConnected());
    EXPECT_STREQ("", pipe.getConnectedIP().c_str());
    EXPECT_EQ(nullptr, pipe.getManager());
    EXPECT_STREQ("empty", pipe.getName());
    // Not connected: a notification is refused, not kept for later.
    EXPECT_FALSE(pipe.sendNotify("nobody listens", 1));
    EXPECT_EQ(0u, pipe.getStatistics().outgoingNotifications);
}

TEST(PipeConnection, AttachReportsThePeerAndCallsTheConnectionCallback) {
    PipeLink link;
    ASSERT_TRUE(link.connected);
    int calls = 0;
    dm::CommunicationPipe* calledWith = nullptr;
    struct Seen {
        int* calls;
        dm::CommunicationPipe** pipe;
    } seen{&calls, &calledWith};
    link.left.pipe().setConnectionCallback({&seen, [](void* context, dm::CommunicationPipe* pipe) {
                                                Seen* s = static_cast<Seen*>(context);
                                                ++*s->calls;
                                                *s->pipe = pipe;
                                            }});
    link.left.attach();
    EXPECT_EQ(1, calls);
    EXPECT_EQ(&link.left.pipe(), calledWith);
    EXPECT_TRUE(link.left.pipe().isConnected());
    EXPECT_STREQ("127.0.0.1", link.left.pipe().getConnectedIP().c_str());

    link.left.detach();
    EXPECT_FALSE(link.left.pipe().isConnected());
    EXPECT_STREQ("", link.left.pipe().getConnectedIP().c_str());
    EXPECT_EQ(1, calls);  // detaching calls nothing

    // A pair with only a context counts as set but has nothing to call.
    link.left.pipe().setConnectionCallback({&seen, nullptr});
    link.left.attach();
    EXPECT_EQ(1, calls);
}

TEST(PipeConnection, NotifyValueZeroIsSentAsTheOwnersId) {
    PipeLink link("ids", 11, 22);
    ASSERT_TRUE(link.connected);
    ASSERT_TRUE(link.left.pipe().sendNotify("zero", 0));
    ASSERT_TRUE(link.left.pipe().sendNotify("five", 5));
    EXPECT_EQ(2, link.left.transferTo(link.right).notifies);

    uint32_t value = 0;
    EXPECT_STREQ("zero", link.right.pipe().receiveNotify(&value).c_str());
    EXPECT_EQ(11u, value);
    EXPECT_STREQ("five", link.right.pipe().receiveNotify(&value).c_str());
    EXPECT_EQ(5u, value);
}

TEST(PipeConnection, EachPumpSendsAtMostEightMessagesOfEachKind) {
    PipeLink link;
    ASSERT_TRUE(link.connected);
    dm::NetCommunicationPipe& left = link.left.pipe();
    dm::NetCommunicationPipe& right = link.right.pipe();

    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(left.sendNotify(("n" + std::to_string(i)).c_str(), 1));
    }
    EXPECT_EQ(8, link.left.transferTo(link.right).notifies);
    EXPECT_EQ(2, link.left.transferTo(link.right).notifies);
    EXPECT_EQ(0, link.left.transferTo(link.right).notifies);

    // Requests: only the first eight queued are looked at, and they stay queued (sent) until
    // answered, so the last two wait.
    std::vector<std::unique_ptr<PendingRequest>> requests;
    for (int i = 0; i < 10; ++i) {
        requests.push_back(std::make_unique<PendingRequest>(left, "r" + std::to_string(i)));
    }
    ASSERT_TRUE(waitUntil([&] { return left.getStatistics().outgoingRequests == 10; }));
    EXPECT_EQ(8, link.left.transferTo(link.right).requests);
    EXPECT_EQ(0, link.left.transferTo(link.right).requests);
    answerAll(link.right, link.left, 8);
    EXPECT_TRUE(waitUntil([&] { return left.getStatistics().outgoingRequests == 2; }));
    EXPECT_EQ(2, link.left.transferTo(link.right).requests);
    answerAll(link.right, link.left, 2);
    for (const auto& request : requests) {
        EXPECT_TRUE(waitUntil([&] { return request->done(); }));
    }

    // Responses: ten requests straight from the wire, all answered before the next pump.
    for (uint32_t id = 1000; id < 1010; ++id) {
        link.left.send(dmtest::pipewire::request("link", id, 0, "raw", 0, 0, 0, nullptr));
    }
    link.right.receive();
    ASSERT_EQ(10u, right.getStatistics().incomingRequests);
    Responses responses(link.right);
    for (int i = 0; i < 10; ++i) {
        ASSERT_FALSE(right.receiveRequest(nullptr).empty());
        ASSERT_TRUE(responses.respondToCurrent("answer"));
    }
    EXPECT_EQ(8, link.right.transferTo(link.left).responses);
    // Sent responses leave the queue when their respond() returns; until then they still count
    // among the first eight.
    ASSERT_TRUE(waitUntil([&] { return right.getStatistics().outgoingResponses == 2; }));
    EXPECT_EQ(2, link.right.transferTo(link.left).responses);
    EXPECT_EQ(0, link.right.transferTo(link.left).responses);
}

TEST(PipeConnection, RequestQueuedWhileDetachedGoesOutOnAttach) {
    PipeLink link;
    ASSERT_TRUE(link.connected);
    link.left.detach();
    PendingRequest request(link.left.pipe(), "queued early");
    ASSERT_TRUE(waitUntil([&] { return link.left.pipe().getStatistics().outgoingRequests == 1; }));
    EXPECT_EQ(0, link.left.transferTo(link.right).requests);

    link.left.attach();
    EXPECT_EQ(1, link.left.transferTo(link.right).requests);
    EXPECT_STREQ("queued early", link.right.pipe().receiveRequest(nullptr).c_str());
    Responses responses(link.right);
    ASSERT_TRUE(responses.respondToCurrent("finally"));
    EXPECT_EQ(1, link.right.transferTo(link.left).responses);
    ASSERT_TRUE(waitUntil([&] { return request.done(); }));
    EXPECT_STREQ("finally", request.result());
}

TEST(PipeConnection, RespondToARequestTakenBeforeAResetIsSwallowed) {
    PipeLink link;
    ASSERT_TRUE(link.connected);
    PendingRequest request(link.left.pipe(), "question");
    ASSERT_TRUE(waitUntil([&] { return link.left.pipe().getStatistics().outgoingRequests == 1; }));
    EXPECT_EQ(1, link.left.transferTo(link.right).requests);
    ASSERT_STREQ("question", link.right.pipe().receiveRequest(nullptr).c_str());

    link.right.attach();  // a reconnect resets the pipe
    std::atomic<bool> returned{false};
    std::thread responder([&] {
        link.right.pipe().respond("too late", nullptr, 0);
        returned = true;
    });
    const bool returnedAtOnce = waitUntil([&] { return returned.load(); });
    if (!returnedAtOnce) {
        link.right.pump();  // let it go, so that the failure does not hang the test
    }
    responder.join();
    EXPECT_TRUE(returnedAtOnce);
    EXPECT_EQ(0u, link.right.pipe().getStatistics().outgoingResponses);
    EXPECT_EQ(0, link.right.transferTo(link.left).responses);
    void* data = &returned;
    uint32_t size = 5;
    link.right.pipe().getRequestData(&data, &size);
    EXPECT_EQ(nullptr, data);
    EXPECT_EQ(0u, size);

    // The asking side resends on its own reconnect and gets its answer then.
    link.left.attach();
    EXPECT_EQ(1, link.left.transferTo(link.right).requests);
    EXPECT_STREQ("question", link.right.pipe().receiveRequest(nullptr).c_str());
    Responses responses(link.right);
    ASSERT_TRUE(responses.respondToCurrent("in time"));
    EXPECT_EQ(1, link.right.transferTo(link.left).responses);
    ASSERT_TRUE(waitUntil([&] { return request.done(); }));
    EXPECT_STREQ("in time", request.result());
}

TEST(PipeConnection, ResentCompletedRequestIsIgnoredUntilTheReceiverResets) {
    PipeLink link;
    ASSERT_TRUE(link.connected);
    dm::NetCommunicationPipe& right = link.right.pipe();
    PendingRequest request(link.left.pipe(), "only once");
    ASSERT_TRUE(waitUntil([&] { return link.left.pipe().getStatistics().outgoingRequests == 1; }));
    EXPECT_EQ(1, link.left.transferTo(link.right).requests);
    EXPECT_STREQ("only once", right.receiveRequest(nullptr).c_str());

    // The sender reconnects and resends; the receiver has completed that id already.
    link.left.attach();
    EXPECT_EQ(1, link.left.transferTo(link.right).requests);
    EXPECT_EQ(0u, right.getStatistics().incomingRequests);
    EXPECT_STREQ("", right.receiveRequest(nullptr).c_str());
    EXPECT_EQ(1u, dm::getPipeStatistics(&right).droppedStale);

    // Once the receiver has been reset too, any id is new again.
    link.right.attach();
    link.left.attach();
    EXPECT_EQ(1, link.left.transferTo(link.right).requests);
    EXPECT_STREQ("only once", right.receiveRequest(nullptr).c_str());
    Responses responses(link.right);
    ASSERT_TRUE(responses.respondToCurrent("done"));
    EXPECT_EQ(1, link.right.transferTo(link.left).responses);
    ASSERT_TRUE(waitUntil([&] { return request.done(); }));
    EXPECT_STREQ("done", request.result());
}

TEST(PipeConnection, NotificationsQueuedBeforeAReattachAreDropped) {
    PipeLink link;
    ASSERT_TRUE(link.connected);
    ASSERT_TRUE(link.left.pipe().sendNotify("stale 1", 1));
    ASSERT_TRUE(link.left.pipe().sendNotify("stale 2", 1));
    ASSERT_TRUE(link.right.pipe().sendNotify("arrived before", 1));
    EXPECT_EQ(1, link.right.transferTo(link.left).notifies);

    link.left.attach();
    EXPECT_EQ(0, link.left.transferTo(link.right).notifies);
    ASSERT_TRUE(link.left.pipe().sendNotify("fresh", 1));
    EXPECT_EQ(1, link.left.transferTo(link.right).notifies);
    EXPECT_STREQ("fresh", link.right.pipe().receiveNotify(nullptr).c_str());
    // Notifications that had arrived are kept across the reset.
    EXPECT_STREQ("arrived before", link.left.pipe().receiveNotify(nullptr).c_str());
}

TEST(PipeConnection, RequestsSurviveAMoveToANewConnection) {
    PipeLink link;
    ASSERT_TRUE(link.connected);
    PendingRequest request(link.left.pipe(), "survivor");
    ASSERT_TRUE(waitUntil([&] { return link.left.pipe().getStatistics().outgoingRequests == 1; }));
    EXPECT_EQ(1, link.left.transferTo(link.right).requests);
    ASSERT_TRUE(link.reconnect());
    EXPECT_STREQ("127.0.0.1", link.left.pipe().getConnectedIP().c_str());
    EXPECT_EQ(1, link.left.transferTo(link.right).requests);
    EXPECT_STREQ("survivor", link.right.pipe().receiveRequest(nullptr).c_str());
    Responses responses(link.right);
    ASSERT_TRUE(responses.respondToCurrent("made it"));
    EXPECT_EQ(1, link.right.transferTo(link.left).responses);
    ASSERT_TRUE(waitUntil([&] { return request.done(); }));
    EXPECT_STREQ("made it", request.result());
}

}  // namespace
