// Helpers for the hub tests: a run of free ports, a bounded call of something that may hang,
// and member processes (dm-hub-member) that take commands.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include "support/test_support.h"

namespace dmtest {

// True when nothing listens on `port` (on any interface) at the moment.
inline bool isPortFree(int port) {
    const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<uint16_t>(port));
    const bool free = ::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(probe);
    return free;
}

// The lowest port the kernel hands out for outgoing connections and port 0: the ports picked
// below stay under it, so that no other test's connection can take one between our check and
// the hub's bind.
inline int firstEphemeralPort() {
    int low = 32768;
    if (std::FILE* range = std::fopen("/proc/sys/net/ipv4/ip_local_port_range", "r")) {
        if (std::fscanf(range, "%d", &low) != 1) {
            low = 32768;
        }
        std::fclose(range);
    }
    return low;
}

// The first of `count` consecutive ports that are free now: a hub's port and its members'.
inline int findFreePorts(int count) {
    std::mt19937 random(std::random_device{}());
    const int highest = std::max(10000 + count, firstEphemeralPort() - count - 1);
    std::uniform_int_distribution<int> pick(10000, highest);
    for (int attempt = 0; attempt < 200; ++attempt) {
        const int base = pick(random);
        bool allFree = true;
        for (int port = base; port < base + count && allFree; ++port) {
            allFree = isPortFree(port);
        }
        if (allFree) {
            return base;
        }
    }
    return 0;
}

// Runs `call`, which waits without a time-out, on a thread of its own. A call that has not
// returned in time can never be joined: the test process then ends with a message.
inline void runBounded(const char* what, const std::function<void()>& call,
                       std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    std::atomic<bool> done{false};
    std::thread runner([&] {
        call();
        done = true;
    });
    if (!waitUntil([&] { return done.load(); }, timeout)) {
        std::fprintf(stderr, "FATAL: %s did not return\n", what);
        std::fflush(stderr);
        std::_Exit(EXIT_FAILURE);
    }
    runner.join();
}

// A dm-hub-member process taking commands on its standard input.
class HubMember {
public:
    HubMember(int hubPort, const std::string& name)
        : m_process(DM_HUB_MEMBER_TOOL,
                    {"--port", std::to_string(hubPort), "--name", name, "--commands"}, true) {}

    bool waitFor(const std::string& text) { return m_process.waitForOutput(text); }
    // How often `text` occurs in what the member printed so far.
    int count(const std::string& text) const {
        return static_cast<int>(countOf(m_process.output(), text));
    }
    bool command(const std::string& line) { return m_process.writeInput(line + "\n"); }
    int quit() {
        command("quit");
        return m_process.wait();
    }
    const std::string& output() const { return m_process.output(); }

private:
    ChildProcess m_process;
};

}  // namespace dmtest
