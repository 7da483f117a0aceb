// A tool asks a game in another process for data: the tool's JobSendRequest against the game's
// JobWaitRequest and JobRespond, whose lines go to the game's standard output.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "dm/comm.h"
#include "dm/jobs.h"
#include "job_test_support.h"
#include "programs/answering_game.h"

namespace {

TEST(JobsAcrossProcesses, AToolsRequestIsAnsweredByTheGamesJobs) {
    dmtest::ChildProcess game("jobs_answering_game", {});
    ASSERT_TRUE(game.started());
    const int port = std::atoi(game.portAfter("listening on port ").c_str());
    ASSERT_NE(port, 0);

    const char* toolName = "jobs-tool";
    dm::initCommunicationManagerAsClient(toolName, "127.0.0.1", port);
    std::vector<uint8_t> buffer(answeringgame::kAnswerSize + 100, 0xEE);
    {
        dm::JobManager toolJobs(toolName);
        toolJobs.addNewJob<dm::JobSendRequest>("assets", "list", buffer.data(),
                                               static_cast<unsigned>(buffer.size()));
        dmtest::BatchEnd end(toolJobs);
        toolJobs.runJobs(false);
        end.wait();
    }
    const std::vector<uint8_t> answer =
        dmtest::patternBytes(answeringgame::kAnswerSize, answeringgame::kAnswerSeed);
    EXPECT_TRUE(std::equal(answer.begin(), answer.end(), buffer.begin()));
    EXPECT_EQ(buffer[answer.size()], 0xEE);  // nothing written behind the answer

    ASSERT_TRUE(dm::getCommunicationPipe(toolName, "assets")->sendNotify("received", 1));
    EXPECT_TRUE(game.waitForOutput("answered"));
    EXPECT_EQ(game.wait(), 0);
    // Each job's line once, however long the wait for the request took.
    EXPECT_EQ(dmtest::countOf(game.output(), "JobWaitRequest: Listening to pipe: assets\n"), 1u);
    EXPECT_EQ(dmtest::countOf(game.output(), "JobRespond: Responding to pipe: assets\n"), 1u);
    dm::deinitCommunicationManager(toolName);
}

}  // namespace
