// The game's side of a request in a second process: a server pipe manager "game" on a port the
// system picks, printed as "listening on port <n>", and a batch of jobs that waits for a
// request on the pipe "assets", answers it with kAnswerSize pattern bytes (seed kAnswerSeed),
// and then waits for the notification that the answer arrived before the process ends.
#include <cstdio>

#include "../job_test_support.h"
#include "answering_game.h"
#include "dm/comm.h"
#include "dm/jobs.h"

int main() {
    dm::CommunicationPipeManager* server = dm::initCommunicationManagerAsServer("game", 0, 1, true);
    uint32_t port = 0;
    server->getHost(&port);
    std::printf("listening on port %u\n", port);
    std::fflush(stdout);

    const std::vector<uint8_t> answer =
        dmtest::patternBytes(answeringgame::kAnswerSize, answeringgame::kAnswerSeed);
    {
        dm::JobManager jobs("game");
        jobs.addNewJob<dm::JobWaitRequest>("assets", "list");
        jobs.addNewJob<dm::JobRespond>("assets", "here", answer.data(), answer.size());
        jobs.addNewJob<dm::JobWaitNotify>("assets", "received");
        jobs.runJobs(true);
    }
    dm::deinitCommunicationManagers();
    std::printf("answered\n");
    return 0;
}
