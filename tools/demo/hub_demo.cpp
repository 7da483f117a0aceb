#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <random>
#include <string>
#include <thread>

#include "demo_sections.h"
#include "demo_tools.h"
#include "dm/comm.h"
#include "dm/endpoints.h"
#include "zu/event.h"
#include "zu/thread.h"
#include "zu/timer.h"

namespace demo {
namespace {

constexpr const char* kPipeName = "chat";
constexpr double kStepSeconds = 10.0;
constexpr uint32_t kResponseCapacity = 256;

zu::Event g_hubWork;  // signalled by the pipe's callbacks

void wakeHubDemo(void*, dm::CommunicationPipe*) {
    g_hubWork.signal();
}

bool isPortFree(int port) {
    const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<uint16_t>(port));
    const bool free = ::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(probe);
    return free;
}

// A port for the hub with the two above it free for its members, below the range the kernel
// picks outgoing connections' ports from, so that none of those can take a member's port.
int pickHubPort() {
    std::mt19937 random(std::random_device{}());
    std::uniform_int_distribution<int> pick(20000, 32000);
    for (int attempt = 0; attempt < 100; ++attempt) {
        const int port = pick(random);
        if (isPortFree(port) && isPortFree(port + 1) && isPortFree(port + 2)) {
            return port;
        }
    }
    return 0;
}

// Polls `ready` while waiting on the pipe's callbacks; false after kStepSeconds.
template <typename Ready>
bool waitFor(Ready ready) {
    zu::Timer timer;
    while (!ready()) {
        if (timer.getElapsedSeconds() > kStepSeconds) {
            return false;
        }
        g_hubWork.wait(kWaitMs);
    }
    return true;
}

// The demo's side of the conversation: it waits for tool-b's greeting, asks tool-b by the
// number the greeting came with, and says goodbye.
bool talkToMember(dm::Client& client, dm::CommunicationPipe& pipe) {
    uint32_t sender = 0;
    zu::InplaceString<128> greeting;
    if (!waitFor([&] { return !(greeting = pipe.receiveNotify(&sender)).empty(); })) {
        std::printf("dm-demo: no greeting came\n");
        return false;
    }
    std::printf("dm-demo: notification \"%s\" from member %u\n", greeting.c_str(), sender);
    std::atomic<bool> answered{false};
    char data[kResponseCapacity] = {};
    uint32_t size = 0;
    zu::InplaceString<128> response;
    std::thread asker([&] {
        response = pipe.sendRequest("what is your name?", sender, data, kResponseCapacity, &size,
                                    nullptr, 0);
        answered = true;
        g_hubWork.signal();
    });
    const bool gotAnswer = waitFor([&] { return answered.load(); });
    if (!gotAnswer) {
        dm::deinitCommunicationManager(client.getName());  // lets the request go
    }
    asker.join();
    if (!gotAnswer) {
        std::printf("dm-demo: no answer came\n");
        return false;
    }
    const uint32_t shown = size < kResponseCapacity ? size : kResponseCapacity;
    std::printf(
        "dm-demo: request \"what is your name?\" to member %u answered \"%s\" with data "
        "\"%.*s\"\n",
        sender, response.c_str(), static_cast<int>(shown), data);
    std::fflush(stdout);
    return pipe.sendNotify("goodbye", 0);  // tool-b leaves once it has heard it
}

}  // namespace

int runHubDemo() {
    std::printf("\n== 6. two tools talk through dm-hub\n");
    std::fflush(stdout);  // the tools share this output
    const int port = pickHubPort();
    const std::string portText = std::to_string(port);
    pid_t hub = port == 0 ? -1 : startTool("dm-hub", {"--port", portText, "--name", "demo-hub"});
    if (hub < 0) {
        return 1;
    }
    dm::Client client("dm-demo member");
    dm::CommunicationPipe* pipe = client.getPipe(kPipeName);
    pipe->setNotifyCallback({nullptr, wakeHubDemo});
    client.connect("127.0.0.1", port);
    bool ok = waitFor([&] { return pipe->isConnected(); });
    std::printf("dm-demo: joined the hub on port %d as \"%s\"\n", port,
                client.getManager()->getRemoteName());
    std::fflush(stdout);
    pid_t member =
        ok ? startTool("dm-hub-member", {"--port", portText, "--name", "tool-b", "--notify",
                                         "hello from tool-b", "--until-notifications", "1"})
           : -1;
    ok = member >= 0 && talkToMember(client, *pipe);
    if (member >= 0) {
        // Without a goodbye it is stopped at once.
        ok = waitForTool(member, ok ? kStepSeconds : 0.0, [] { g_hubWork.wait(kWaitMs); }) && ok;
    }
    dm::deinitCommunicationManager(client.getName());
    kill(hub, SIGTERM);
    ok = waitForTool(hub, kStepSeconds, [] { zu::sleepMs(kWaitMs); }) && ok;
    if (!ok) {
        std::printf("the hub demo did not finish\n");
    }
    return ok ? 0 : 1;
}

}  // namespace demo
