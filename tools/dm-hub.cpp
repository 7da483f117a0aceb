// dm-hub: a hub that several tools on this machine join, so that they can talk to each other.
//
//   dm-hub --port N [--name NAME] [--until-eof]
//
// Each tool that connects to port N gets a manager of its own, "NAMEc0" on port N + 1, "NAMEc1"
// on port N + 2 and so on, and a line is printed when it joins. Notifications on a pipe reach
// every other member; a request numbered k goes to member k (docs/hub-protocol.md). The hub
// runs until SIGINT or SIGTERM, or, with --until-eof, until its standard input ends.
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <cstdio>
#include <string>

#include "dm/comm.h"
#include "dm/endpoints.h"
#include "zu/string.h"
#include "zu/thread.h"

namespace {

constexpr int kPollMs = 50;

std::atomic<bool> g_interrupted{false};

void onInterrupt(int) {
    g_interrupted = true;
}

// True once standard input has reached its end (or failed).
bool inputEnded() {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (poll(&input, 1, 0) <= 0) {
        return false;
    }
    char buffer[256];
    return read(STDIN_FILENO, buffer, sizeof buffer) <= 0;
}

// A member is counted before its manager is made. One without a manager is reported once its
// manager is there, or as failed ("?") once a later member has one: this tool's members join
// one after another.
bool memberSettled(const dm::BroadcastServer& hub, size_t member, size_t count) {
    for (size_t id = member; id < count; ++id) {
        if (hub.getMemberManager(static_cast<uint32_t>(id))) {
            return true;
        }
    }
    return false;
}

void reportNewMembers(dm::BroadcastServer& hub, size_t& reported) {
    const size_t count = hub.getMemberCount();
    for (; reported < count && memberSettled(hub, reported, count); ++reported) {
        dm::CommunicationPipeManager* member =
            hub.getMemberManager(static_cast<uint32_t>(reported));
        uint32_t port = 0;
        zu::InplaceString<128> managerName("?");
        if (member) {
            member->getHost(&port);
            managerName = member->copyName();
        }
        std::printf("dm-hub: member %zu joined: manager \"%s\" on port %u\n", reported,
                    managerName.c_str(), port);
        std::fflush(stdout);
    }
}

int runHub(int port, const std::string& name, bool untilEof) {
    dm::BroadcastServer hub(name.c_str(), port);
    uint32_t listening = 0;
    if (hub.getManager()) {
        hub.getManager()->getHost(&listening);
    }
    if (listening == 0) {
        std::fprintf(stderr, "dm-hub: cannot listen on port %d\n", port);
        return 1;
    }
    std::printf("dm-hub: hub \"%s\" on port %u\n", name.c_str(), listening);
    std::fflush(stdout);
    size_t reported = 0;
    while (!g_interrupted && !(untilEof && inputEnded())) {
        reportNewMembers(hub, reported);
        poll(nullptr, 0, kPollMs);  // a signal cuts it short
    }
    std::printf("dm-hub: closing with %zu members\n", hub.getMemberCount());
    std::fflush(stdout);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"dm-hub: relays notifications and requests between the tools that join it"};
    int port = 0;
    std::string name = "dm-hub";
    bool untilEof = false;
    app.add_option("--port", port, "port the tools connect to; members get the ports above it")
        ->required()
        ->check(CLI::Range(1, 65535 - static_cast<int>(dm::BroadcastServer::kMaxMembers)));
    app.add_option("--name", name, "the hub's name; members' managers are NAMEc0, NAMEc1, ...");
    app.add_flag("--until-eof", untilEof, "also end when standard input ends");
    CLI11_PARSE(app, argc, argv);

    zu::setThreadName(zu::getCurrentThreadId(), "dm-hub main");
    signal(SIGINT, onInterrupt);
    signal(SIGTERM, onInterrupt);
    const int result = runHub(port, name, untilEof);
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    return result;
}
