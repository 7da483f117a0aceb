#include <cstdio>
#include <string>

#include "demo_sections.h"
#include "demo_tools.h"
#include "dm/comm.h"
#include "zu/event.h"

namespace demo {
namespace {

zu::Event g_pipeWork;  // signalled by the pipe's callbacks

void wakePipeServer(void*, dm::CommunicationPipe*) {
    g_pipeWork.signal();
}

// Answers what arrived on the pipe: requests with their own text and data, notifications with
// "echo: " and their text.
void servePipe(dm::CommunicationPipe& pipe) {
    for (zu::InplaceString<128> text; !(text = pipe.receiveRequest(nullptr)).empty();) {
        void* data = nullptr;
        uint32_t size = 0;
        pipe.getRequestData(&data, &size);
        pipe.respond(text.c_str(), data, size);
    }
    for (zu::InplaceString<128> text; !(text = pipe.receiveNotify(nullptr)).empty();) {
        pipe.sendNotify((std::string("echo: ") + text.c_str()).c_str(), 0);
    }
}

}  // namespace

int runPipeDemo() {
    std::printf("\n== 3. a pipe between two processes, asked by dm-pipe-echo\n");
    dm::CommunicationPipeManager* server =
        dm::initCommunicationManagerAsServer("dm-demo", 0, 1, true);
    uint32_t port = 0;
    server->getHost(&port);
    dm::CommunicationPipe* pipe = server->getPipe("echo");
    pipe->setRequestCallback({nullptr, wakePipeServer});
    pipe->setNotifyCallback({nullptr, wakePipeServer});
    std::printf("server: pipe \"echo\" served by manager \"dm-demo\" on port %u\n", port);
    std::fflush(stdout);  // the tool shares this output
    pid_t client = startTool("dm-pipe-echo", {"client", "127.0.0.1", std::to_string(port), "3"});
    bool finished = client >= 0 && waitForTool(client, 10.0, [&] {
                        g_pipeWork.wait(kWaitMs);
                        servePipe(*pipe);
                    });
    dm::deinitCommunicationManagers();
    if (client >= 0 && !finished) {  // one that never started was reported by startTool
        std::printf("dm-pipe-echo did not finish\n");
    }
    return finished ? 0 : 1;
}

}  // namespace demo
