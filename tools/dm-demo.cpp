// dm-demo: shows dm at work, one service after another.
//  1. The runtime: a server thread and a client thread exchange packets over loopback TCP.
//  2. The debug-monitor link: the demo plays a game that prints text, in-place values and a
//     profile snapshot, watched by the dm-monitor tool started as a second process.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>
#include <signal.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

#include "d/profile.h"
#include "dm/monitor.h"

#include "net/listener.h"
#include "net/packet.h"
#include "net/socket.h"
#include "zu/event.h"
#include "zu/thread.h"
#include "zu/timer.h"

namespace {

constexpr int kPingId = 1;
constexpr int kPongId = 2;
constexpr int kRoundTrips = 1000;
constexpr uint32_t kWaitMs = 100;

// Waits until `socket` has a packet or `timeoutSeconds` passed.
net::Packet* waitForPacket(net::Socket& socket, double timeoutSeconds) {
    zu::Timer timer;
    while (timer.getElapsedSeconds() < timeoutSeconds &&
           (socket.isConnected() || socket.isConnecting())) {
        socket.update();
        if (net::Packet* packet = socket.pollPacket(nullptr)) {
            return packet;
        }
        zu::WaitHandle handle = socket.getWaitHandle();
        zu::waitForAny(&handle, 1, kWaitMs);
    }
    return nullptr;
}

class EchoServer : public zu::Thread {
public:
    explicit EchoServer(net::Listener& listener) : m_listener(listener) {}
    ~EchoServer() override { joinThread(); }

    int run() override {
        zu::setThreadName(zu::getCurrentThreadId(), "dm-demo server");
        net::Socket* client = acceptOne();
        if (!client) {
            return 1;
        }
        int answered = 0;
        while (net::Packet* ping = waitForPacket(*client, 5.0)) {
            int32_t number = 0;
            const char* text = "";
            *ping >> number >> text;
            net::Packet pong(kPongId);
            pong << number << (number % 100 == 0 ? "pong (a round hundred)" : "pong");
            client->sendPacket(pong);
            if (++answered == kRoundTrips) {
                break;
            }
        }
        client->update();
        delete client;
        return answered == kRoundTrips ? 0 : 1;
    }

private:
    net::Socket* acceptOne() {
        zu::Timer timer;
        while (timer.getElapsedSeconds() < 5.0) {
            if (net::Socket* socket = m_listener.pollConnect()) {
                return socket;
            }
            zu::WaitHandle handle = m_listener.getWaitHandle();
            zu::waitForAny(&handle, 1, kWaitMs);
        }
        return nullptr;
    }

    net::Listener& m_listener;
};

int runClient(uint32_t port) {
    net::Socket socket;
    if (!socket.connect("127.0.0.1", port)) {
        std::printf("client: could not connect to port %u\n", port);
        return 1;
    }
    char payload[1024];
    std::memset(payload, 'x', sizeof(payload));
    zu::Timer timer;
    for (int32_t number = 1; number <= kRoundTrips; ++number) {
        net::Packet ping(kPingId);
        ping << number << "ping";
        ping.write(payload, sizeof(payload));
        socket.sendPacket(ping);
        net::Packet* pong = waitForPacket(socket, 5.0);
        if (!pong) {
            std::printf("client: no answer to ping %d\n", number);
            return 1;
        }
        int32_t echoed = 0;
        const char* text = "";
        *pong >> echoed >> text;
        if (echoed != number) {
            std::printf("client: ping %d answered as %d\n", number, echoed);
            return 1;
        }
        if (number % 250 == 0) {
            std::printf("client: ping %4d -> \"%s\"\n", number, text);
        }
    }
    double seconds = timer.getElapsedSeconds();
    std::printf("client: %d round trips with a 1 KiB payload, %.1f us each on average\n",
                kRoundTrips, seconds * 1e6 / kRoundTrips);
    return 0;
}

int runPacketDemo() {
    std::printf("== 1. packets over loopback TCP\n");
    net::Listener listener(0, "127.0.0.1");
    if (!listener.isListening()) {
        std::printf("could not listen on loopback\n");
        return 1;
    }
    std::printf("server: listening on 127.0.0.1:%u\n", listener.getPort());
    EchoServer server(listener);
    server.startThread();
    int clientResult = runClient(listener.getPort());
    int serverResult = server.joinThread();
    return clientResult == 0 && serverResult == 0 ? 0 : 1;
}

// The folder this program lives in, where the other tools are built too.
std::string programFolder() {
    char path[PATH_MAX] = {};
    ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
    std::string self = length > 0 ? std::string(path, static_cast<size_t>(length)) : "./";
    return self.substr(0, self.rfind('/') + 1);
}

// Starts dm-monitor on `port`, expecting `packets` packets; returns its pid or -1.
pid_t startMonitorTool(int port, int packets) {
    std::string tool = programFolder() + "dm-monitor";
    std::string count = std::to_string(packets);
    std::string portText = std::to_string(port);
    const char* argv[] = {tool.c_str(), "--count",   count.c_str(),    "--timeout",
                          "10",         "127.0.0.1", portText.c_str(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    pid_t pid = -1;
    int failed =
        posix_spawn(&pid, tool.c_str(), &actions, nullptr, const_cast<char* const*>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    return failed ? -1 : pid;
}

// One game frame's worth of monitor output.
void printFrame(int frame) {
    d::Profile::ThreadProfiler::Scope scope("demo frame");
    dm::print("frame %d: hello from the game\n", frame);
    dm::printInPlace(1, "frame", "%d", frame);
    dm::printInPlace(1, "frame time", "%.1f ms", 16.6 + frame * 0.1);
    dm::printInPlace(2, "streamed", "%d KiB", frame * 256);
}

int runMonitorDemo() {
    std::printf("\n== 2. the debug-monitor link, watched by dm-monitor\n");
    std::fflush(stdout);  // the tool shares this output
    dm::init(0);
    constexpr int kFrames = 3;
    constexpr int kPacketsPerFrame = 4;
    pid_t monitor = startMonitorTool(dm::getMonitorPort(), kFrames * kPacketsPerFrame + 1);
    if (monitor < 0) {
        std::printf("could not start dm-monitor\n");
        dm::deinit();
        return 1;
    }
    int status = -1;
    int frame = 0;
    zu::Timer timer;
    while (timer.getElapsedSeconds() < 10.0 && waitpid(monitor, &status, WNOHANG) == 0) {
        dm::update();  // accepts the monitor once it connects
        if (dm::getMonitorConnectionCount() > 0 && frame < kFrames) {
            printFrame(++frame);
            if (frame == kFrames) {
                dm::createProfilePacket();
            }
        }
        zu::sleepMs(16);  // a frame
    }
    dm::deinit();
    bool finished = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (!finished) {
        kill(monitor, SIGKILL);
        waitpid(monitor, &status, 0);
    }
    return finished ? 0 : 1;
}

}  // namespace

int main() {
    zu::setThreadName(zu::getCurrentThreadId(), "dm-demo main");
    int failures = runPacketDemo();
    std::fflush(stdout);
    failures += runMonitorDemo();
    std::printf("\n%s\n", failures == 0 ? "demo finished" : "demo failed");
    return failures == 0 ? 0 : 1;
}
