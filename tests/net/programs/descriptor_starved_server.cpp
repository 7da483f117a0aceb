// A server in a second process whose descriptor table is full, for the descriptor-starvation
// tests. It lowers its descriptor limit, starts a server, fills every free descriptor and then
// serves until told otherwise on standard input:
//
//   net_descriptor_starved_server listener   a net::Listener in a manager-like wait loop
//   net_descriptor_starved_server monitor    the debug-monitor link, updated every frame
//   net_descriptor_starved_server pipes      a pipe manager server on its own thread
//
// Output: "port N" and "full" at start. Input lines: "report" prints "accepts A" (accept
// calls since "full"), "free" closes the filling descriptors and prints
// "freed", "quit" ends. Whoever it accepts gets a packet (listener: id 7, monitor: a text
// packet, pipes: the manager's Welcome). It ends after a minute at the latest.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "dm/comm.h"
#include "dm/monitor.h"
#include "net/listener.h"
#include "zu/event.h"

namespace {

constexpr rlim_t kDescriptorLimit = 64;
constexpr auto kLifetime = std::chrono::seconds(60);
constexpr uint32_t kFrameMs = 1;
constexpr int kGreetingPacketId = 7;

std::atomic<uint64_t> g_acceptCalls{0};

}  // namespace

// Every accept the runtime makes passes through here, so the test can count them (exported,
// so that it takes the place of the C library's for the shared libraries too).
extern "C" __attribute__((visibility("default"))) int accept(int fd, sockaddr* address,
                                                             socklen_t* length) {
    using AcceptFunction = int (*)(int, sockaddr*, socklen_t*);
    static const auto realAccept = reinterpret_cast<AcceptFunction>(dlsym(RTLD_NEXT, "accept"));
    g_acceptCalls.fetch_add(1, std::memory_order_relaxed);
    return realAccept(fd, address, length);
}

namespace {

std::vector<int> g_fillers;  // descriptors that fill the table

void startStarving() {
    for (int fd; g_fillers.size() < kDescriptorLimit && (fd = open("/dev/null", O_RDONLY)) >= 0;) {
        g_fillers.push_back(fd);
    }
    g_acceptCalls = 0;
    std::printf("full\n");
}

// Answers a command on standard input, if one comes within `timeoutMs`; false once "quit" came
// (or the input ended). The test sends each command only once the one before was answered.
bool handleInput(int timeoutMs) {
    pollfd entry{STDIN_FILENO, POLLIN, 0};
    if (poll(&entry, 1, timeoutMs) != 1) {
        return true;
    }
    char line[64] = {};
    if (read(STDIN_FILENO, line, sizeof(line) - 1) <= 0 || std::strncmp(line, "quit", 4) == 0) {
        return false;
    }
    if (std::strncmp(line, "report", 6) == 0) {
        std::printf("accepts %llu\n", static_cast<unsigned long long>(g_acceptCalls.load()));
    } else if (std::strncmp(line, "free", 4) == 0) {
        for (int fd : g_fillers) {
            close(fd);
        }
        g_fillers.clear();
        std::printf("freed\n");
    }
    return true;
}

bool withinLifetime(std::chrono::steady_clock::time_point start) {
    return std::chrono::steady_clock::now() - start < kLifetime;
}

// Waits like a manager thread: on the listener and the commands together, with a bound.
int serveListener() {
    net::Listener listener(0, "127.0.0.1");
    std::printf("port %u\n", listener.getPort());
    startStarving();
    std::vector<zu::UniquePtr<net::Socket>> accepted;
    const zu::WaitHandle input{zu::WaitHandle::SocketRead, STDIN_FILENO};
    for (auto start = std::chrono::steady_clock::now(); withinLifetime(start);) {
        const zu::WaitHandle handles[2] = {listener.getWaitHandle(), input};
        zu::waitForAny(handles, 2, 100);
        if (!handleInput(0)) {
            return 0;
        }
        if (zu::UniquePtr<net::Socket> socket = listener.pollConnect()) {
            socket->sendPacket(net::Packet(kGreetingPacketId));
            accepted.push_back(std::move(socket));
        }
    }
    return 2;
}

int serveMonitor() {
    dm::init(0);
    std::printf("port %d\n", dm::getMonitorPort());
    startStarving();
    bool greeted = false;
    for (auto start = std::chrono::steady_clock::now(); withinLifetime(start);) {
        dm::update();
        if (!greeted && dm::getMonitorConnectionCount() > 0) {
            dm::print("welcome");
            greeted = true;
        }
        if (!handleInput(static_cast<int>(kFrameMs))) {
            dm::deinit();
            return 0;
        }
    }
    return 2;
}

int servePipes() {
    dm::CommunicationPipeManager* manager =
        dm::initCommunicationManagerAsServer("starved", 0, 1, true);
    uint32_t port = 0;
    manager->getHost(&port);
    std::printf("port %u\n", port);
    startStarving();
    for (auto start = std::chrono::steady_clock::now(); withinLifetime(start);) {
        if (!handleInput(100)) {
            dm::deinitCommunicationManagers();
            return 0;
        }
    }
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // each answer reaches the test at once
    const std::string mode = argc > 1 ? argv[1] : "";
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = kDescriptorLimit;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        std::printf("cannot lower the descriptor limit\n");
        return 1;
    }
    if (mode == "listener") {
        return serveListener();
    }
    if (mode == "monitor") {
        return serveMonitor();
    }
    if (mode == "pipes") {
        return servePipes();
    }
    std::printf("unknown mode\n");
    return 1;
}
