// The job kinds in conversation over real pipe managers: a server and clients connected over
// 127.0.0.1, each side's jobs run by a job manager named like its pipe manager. (A plain
// request answered by JobWaitRequest and JobRespond: two_process_test.cpp.)
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "dm/comm.h"
#include "dm/jobs.h"
#include "job_test_support.h"
#include "jobs/job_forward_request.h"
#include "support/manager_link.h"

namespace {

using dmtest::BatchEnd;
using dmtest::FunctionJob;
using dmtest::LogCapture;
using dmtest::ManagerLink;
using dmtest::patternBytes;

// Forwards every call to a real pipe and counts the notifications it refused.
class NotifyCountingPipe : public dm::CommunicationPipe {
public:
    explicit NotifyCountingPipe(dm::CommunicationPipe& pipe) : m_pipe(pipe) {}
    ~NotifyCountingPipe() override = default;

    int refusedNotifies() const { return m_refused.load(); }

    const char* getName() const override { return m_pipe.getName(); }
    bool isConnected() const override { return m_pipe.isConnected(); }
    dm::CommunicationPipeManager* getManager() const override { return m_pipe.getManager(); }
    zu::InplaceString<128> getConnectedIP() const override { return m_pipe.getConnectedIP(); }
    bool sendNotify(const char* text, uint32_t value) override {
        const bool queued = m_pipe.sendNotify(text, value);
        if (!queued) {
            ++m_refused;
        }
        return queued;
    }
    zu::InplaceString<128> receiveNotify(uint32_t* outValue) override {
        return m_pipe.receiveNotify(outValue);
    }
    zu::InplaceString<128> sendRequest(const char* text, uint32_t value, void* responseBuffer,
                                       uint32_t responseCapacity, uint32_t* outResponseSize,
                                       const void* data, uint32_t dataSize) override {
        return m_pipe.sendRequest(text, value, responseBuffer, responseCapacity, outResponseSize,
                                  data, dataSize);
    }
    zu::InplaceString<128> receiveRequest(uint32_t* outValue) override {
        return m_pipe.receiveRequest(outValue);
    }
    void getRequestData(void** outData, uint32_t* outSize) override {
        m_pipe.getRequestData(outData, outSize);
    }
    void respond(const char* text, const void* data, uint32_t dataSize) override {
        m_pipe.respond(text, data, dataSize);
    }
    void setConnectionCallback(dm::PipeCallback callback) override {
        m_pipe.setConnectionCallback(callback);
    }
    void setNotifyCallback(dm::PipeCallback callback) override {
        m_pipe.setNotifyCallback(callback);
    }
    void setRequestCallback(dm::PipeCallback callback) override {
        m_pipe.setRequestCallback(callback);
    }

private:
    dm::CommunicationPipe& m_pipe;
    std::atomic<int> m_refused{0};
};

TEST(PipeJobs, NotificationJobsTakeAnyNotificationAndPassItsNumberOn) {
    LogCapture log;
    ManagerLink link;
    const std::string client = link.addClient();
    const ManagerLink::PipeEnds ends = link.connectPipe(client, "events");
    ASSERT_TRUE(ends.client && ends.server);

    std::vector<uint8_t> buffer(64, 0);
    dm::JobManager clientJobs(client.c_str());
    clientJobs.addNewJob<dm::JobWaitNotify>("events", "build finished");
    clientJobs.addNewJob<dm::JobWaitNotifyAndRequest>("events", "level ready", "fetch level",
                                                      buffer.data(),
                                                      static_cast<unsigned>(buffer.size()));
    BatchEnd clientEnd(clientJobs);
    clientJobs.runJobs(false);

    // Neither text is the one the jobs name: any notification ends a wait, and is consumed, so
    // the second job gets the second one.
    EXPECT_TRUE(ends.server->sendNotify("build failed", 1));
    EXPECT_TRUE(ends.server->sendNotify("level 3 loaded", 4242));
    uint32_t value = 0;
    EXPECT_EQ(dmtest::takeRequest(*ends.server, &value), "fetch level");
    EXPECT_EQ(value, 4242u);
    const std::vector<uint8_t> level = patternBytes(40, 9);
    ends.server->respond("level data", level.data(), static_cast<uint32_t>(level.size()));
    clientEnd.wait();

    EXPECT_TRUE(std::equal(level.begin(), level.end(), buffer.begin()));
    const std::string manager = "JobManager \"" + client + "\" ";
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               manager + "Waiting for Notify \"level ready\"\n",
                               manager + "doing request: fetch level\n",
                               manager + "got response: level data from pipe: events \n"}));
}

TEST(PipeJobs, SendNotifyRetriesUntilThePipeConnectsLoggingEachRetryButNotForAnEmptyText) {
    LogCapture log;
    ManagerLink link(/*createPipesOnRequest=*/false);
    const std::string client = link.addClient();
    // The server refuses the pipe until it makes it itself: the client end stays unconnected.
    dm::CommunicationPipe* clientPipe = dm::getCommunicationPipe(client.c_str(), "late");
    ASSERT_NE(clientPipe, nullptr);
    NotifyCountingPipe countingPipe(*clientPipe);

    dm::JobManager clientJobs(client.c_str());
    // An empty text ends at once: were it retried, the batch would never end.
    clientJobs.addNewJob<dm::JobSendNotify>(clientPipe, "", 1u);
    clientJobs.addNewJob<dm::JobSendNotify>(&countingPipe, "hello", 9u);
    BatchEnd clientEnd(clientJobs);
    clientJobs.runJobs(false);
    const std::string retryLine =
        "Manager \"" + client + "\" sent a notification \"hello\" to pipe\n";
    EXPECT_TRUE(log.waitFor(retryLine, 3));

    dm::CommunicationPipe* serverPipe = link.server().getPipe("late");
    clientEnd.wait();
    uint32_t value = 0;
    EXPECT_EQ(dmtest::takeNotify(*serverPipe, &value), "hello");
    EXPECT_EQ(value, 9u);
    // One line per retry: every refusal but none of the first attempt's is followed by one.
    EXPECT_EQ(log.count(retryLine), countingPipe.refusedNotifies());
    EXPECT_EQ(log.count("Pipe \"late\": refused to send a notification with an empty text\n"), 1);

    // On a connected pipe the notification goes at once, without a line.
    const int linesBefore = log.count(retryLine);
    clientJobs.addNewJob<dm::JobSendNotify>(clientPipe, "hello", 10u);
    clientJobs.runJobs(true);
    EXPECT_EQ(dmtest::takeNotify(*serverPipe, &value), "hello");
    EXPECT_EQ(value, 10u);
    EXPECT_EQ(log.count(retryLine), linesBefore);
}

TEST(PipeJobs, ForwardRequestRelaysTextAndAnyDataBetweenTwoPipes) {
    ManagerLink link;
    const std::string asker = link.addClient();
    const std::string answerer = link.addClient();
    const ManagerLink::PipeEnds asks = link.connectPipe(asker, "asks");
    const ManagerLink::PipeEnds answers = link.connectPipe(answerer, "answers");
    ASSERT_TRUE(asks.client && asks.server && answers.client && answers.server);

    dm::JobManager hubJobs(link.serverName());
    dm::JobManager askerJobs(asker.c_str());
    dm::JobManager answererJobs(answerer.c_str());
    std::vector<uint8_t> received(2 * dm::JobForwardRequest::kBufferSize);

    // One request from the asker, relayed by the hub to the answerer and its answer back: with
    // data, with more than the hub's buffer holds (the first 64 KiB are passed on), and with
    // none (the text only).
    const struct {
        const char* text;
        size_t dataSize, relayedSize;
    } replies[] = {
        {"forty-two", 1000, 1000},
        {"big", dm::JobForwardRequest::kBufferSize + 5000, dm::JobForwardRequest::kBufferSize},
        {"pong", 0, 0}};
    for (const auto& answer : replies) {
        const std::vector<uint8_t> data = patternBytes(answer.dataSize, answer.dataSize % 251);
        answererJobs.addNewJob<dm::JobWaitRequest>("answers", "question");
        answererJobs.addNewJob<dm::JobRespond>("answers", answer.text, data.data(), data.size());
        BatchEnd answererEnd(answererJobs);
        answererJobs.runJobs(false);
        std::string text;
        uint32_t size = 0;
        askerJobs.addNewJob<FunctionJob>([&](const char*) {
            text = asks.client
                       ->sendRequest("question", 0, received.data(),
                                     static_cast<uint32_t>(received.size()), &size, nullptr, 0)
                       .c_str();
        });
        BatchEnd askerEnd(askerJobs);
        askerJobs.runJobs(false);

        // Should it not arrive, the asker's batch never ends and askerEnd reports that.
        EXPECT_EQ(dmtest::takeRequest(*asks.server), "question");
        hubJobs.addNewJob<dm::JobForwardRequest>(asks.server, answers.server, "question");
        BatchEnd hubEnd(hubJobs);
        hubJobs.runJobs(false);
        answererEnd.wait();
        hubEnd.wait();
        askerEnd.wait();
        EXPECT_EQ(text, answer.text);
        ASSERT_EQ(size, answer.relayedSize);
        EXPECT_TRUE(std::equal(data.begin(), data.begin() + size, received.begin()));
    }
}

TEST(PipeJobs, AJobNamingAnUnknownManagerEndsWithALine) {
    LogCapture log;
    dm::JobManager jobs("nobody here");
    uint8_t buffer[4] = {1, 2, 3, 4};
    jobs.addNewJob<dm::JobSendRequest>("assets", "list", buffer, 4u);
    jobs.addNewJob<dm::JobWaitNotify>("assets", "ready");
    BatchEnd end(jobs);
    jobs.runJobs(false);
    end.wait();
    EXPECT_EQ(log.count("Job: no communication manager \"nobody here\" for pipe \"assets\"\n"), 2);
    EXPECT_EQ(buffer[0], 1);
}

}  // namespace
