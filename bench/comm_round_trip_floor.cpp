// What the pipes' thread design costs a 16-byte round trip before any library code runs: plain
// loopback sockets and threads, shaped step by step like a pipe round trip between a client
// and a server manager. Each step adds one piece of that shape to the last:
//
//   raw ping-pong          the caller sends and blocks in recv; the server recvs and sends
//   + server on epoll      the server thread waits in epoll_wait, then reads
//   + responder thread     the server thread wakes a responder (zu::Signal), which answers
//   + caller mutes, polls  the caller mutes its connection in an idle client manager's epoll,
//                          waits in poll (with the take-back event), reads, and unmutes
//   + 1 ms server bound    the server's epoll_wait is bounded by 1 ms instead of 100 ms
//
// The last line shows what a short bound costs each wait (on a virtual machine, arming and
// cancelling a timer that expires before the tick). Compare the step before it with the pipe's
// 16-byte round trip in comm_pipe_bench: the difference is what the library adds.
//
// Steps alternate within each of kRounds rounds, unpinned and pinned to CPU 0; medians shown.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <thread>
#include <vector>

#include "zu/event.h"
#include "zu/signal.h"

namespace {

constexpr int kRoundTrips = 10000;
constexpr int kRounds = 5;
constexpr size_t kMessageSize = 16;

enum Step { kRaw, kServerEpoll, kResponder, kCallerPolls, kShortBound, kStepCount };
const char* const kStepNames[kStepCount] = {"raw ping-pong", "+ server on epoll",
                                            "+ responder thread", "+ caller mutes, polls",
                                            "+ 1 ms server bound"};

// A connected loopback pair with Nagle off, as the pipes' sockets are.
bool connectedPair(int& client, int& server) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    bool ok = bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
              listen(listener, 1) == 0 &&
              getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    client = socket(AF_INET, SOCK_STREAM, 0);
    ok = ok && connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    server = ok ? accept(listener, nullptr, nullptr) : -1;
    close(listener);
    const int on = 1;
    setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    return server >= 0;
}

bool watchReads(int poller, int fd, bool reads) {
    epoll_event event{};
    event.events = reads ? static_cast<uint32_t>(EPOLLIN) : 0u;
    event.data.fd = fd;
    return epoll_ctl(poller, EPOLL_CTL_MOD, fd, &event) == 0;
}

int newPollerWatching(int fd) {
    const int poller = epoll_create1(0);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    epoll_ctl(poller, EPOLL_CTL_ADD, fd, &event);
    return poller;
}

void serve(Step step, int server, zu::Signal& toResponder) {
    const int poller = newPollerWatching(server);
    char message[64];
    for (int i = 0; i < kRoundTrips; ++i) {
        if (step == kRaw) {
            recv(server, message, kMessageSize, MSG_WAITALL);
            send(server, message, kMessageSize, 0);
            continue;
        }
        epoll_event ready;
        while (epoll_wait(poller, &ready, 1, step == kShortBound ? 1 : 100) < 1) {
        }
        recv(server, message, kMessageSize, MSG_WAITALL);
        if (step == kServerEpoll) {
            send(server, message, kMessageSize, 0);
        } else {
            toResponder.signal();
        }
    }
    close(poller);
}

// Microseconds per round trip of one run of `step`.
double runStep(Step step) {
    int client = -1;
    int server = -1;
    if (!connectedPair(client, server)) {
        return -1.0;
    }
    zu::Signal toResponder;
    zu::Event takeBack;  // never signalled: the caller waits on it as the pipes' caller does
    const int clientPoller = newPollerWatching(client);
    std::thread serverThread(serve, step, server, std::ref(toResponder));
    std::thread responder;
    if (step >= kResponder) {
        responder = std::thread([&] {
            const char answer[kMessageSize] = {};
            for (int i = 0; i < kRoundTrips; ++i) {
                toResponder.wait();
                send(server, answer, kMessageSize, 0);
            }
        });
    }
    char message[64] = {};
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kRoundTrips; ++i) {
        if (step < kCallerPolls) {
            send(client, message, kMessageSize, 0);
            recv(client, message, kMessageSize, MSG_WAITALL);
            continue;
        }
        watchReads(clientPoller, client, false);
        send(client, message, kMessageSize, 0);
        pollfd waits[2] = {{client, POLLIN, 0},
                           {static_cast<int>(takeBack.getWaitHandle().handle), POLLIN, 0}};
        while (poll(waits, 2, 100) < 1) {
        }
        recv(client, message, kMessageSize, MSG_WAITALL);
        watchReads(clientPoller, client, true);
    }
    const std::chrono::duration<double, std::micro> took = std::chrono::steady_clock::now() - start;
    serverThread.join();
    if (responder.joinable()) {
        responder.join();
    }
    close(clientPoller);
    close(client);
    close(server);
    return took.count() / kRoundTrips;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// Medians per step, the steps taking turns in each round.
std::vector<double> measure(bool pinned) {
    cpu_set_t saved;
    sched_getaffinity(0, sizeof(saved), &saved);
    if (pinned) {
        cpu_set_t only;
        CPU_ZERO(&only);
        CPU_SET(0, &only);
        sched_setaffinity(0, sizeof(only), &only);  // the threads started later inherit it
    }
    std::vector<std::vector<double>> runs(kStepCount);
    for (int round = 0; round < kRounds; ++round) {
        for (int k = 0; k < kStepCount; ++k) {
            const int step = (round % 2 == 0) ? k : kStepCount - 1 - k;
            runs[step].push_back(runStep(static_cast<Step>(step)));
        }
    }
    sched_setaffinity(0, sizeof(saved), &saved);
    std::vector<double> medians;
    for (const std::vector<double>& times : runs) {
        medians.push_back(median(times));
    }
    return medians;
}

}  // namespace

int main() {
    const std::vector<double> unpinned = measure(false);
    const std::vector<double> pinned = measure(true);
    std::printf("16-byte round trips, microseconds, medians of %d runs of %d\n", kRounds,
                kRoundTrips);
    std::printf("%-24s %10s %10s %14s\n", "", "unpinned", "pinned", "pinned vs raw");
    for (int step = 0; step < kStepCount; ++step) {
        std::printf("%-24s %10.1f %10.1f %13.2fx\n", kStepNames[step], unpinned[step], pinned[step],
                    pinned[step] / pinned[kRaw]);
    }
    return 0;
}
