// A pipe server in a second process for the manager tests: a server manager on the port given
// (0 picks one) that answers every request on the pipe "echo" with the same text and data, and
// every notification with one that reads "echo: " and the text.
//
//   comm_pipe_server PORT          answer as they come
//   comm_pipe_server PORT hold     take requests but never answer them
//
// Its standard output reports what it does, for the test to follow: "listening PORT" once it
// listens, then "request TEXT" for each request taken and "held N" / "answered N" counts.
// It ends after a minute at the latest.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "dm/comm.h"
#include "zu/event.h"

namespace {

constexpr auto kLifetime = std::chrono::seconds(60);

zu::Event g_work;  // signalled by the pipe's callbacks: something arrived

void signalWork(void*, dm::CommunicationPipe*) {
    g_work.signal();
}

void report(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

void answerNotifications(dm::CommunicationPipe& pipe) {
    for (;;) {
        zu::InplaceString<128> text = pipe.receiveNotify(nullptr);
        if (text.empty()) {
            return;
        }
        std::string echoed = std::string("echo: ") + text.c_str();
        pipe.sendNotify(echoed.c_str(), 0);
    }
}

// Answers (or, holding, only counts) every request that has arrived.
void serveRequests(dm::CommunicationPipe& pipe, bool hold, int& count) {
    for (;;) {
        zu::InplaceString<128> text = pipe.receiveRequest(nullptr);
        if (text.empty()) {
            return;
        }
        ++count;
        report(std::string("request ") + text.c_str());
        if (hold) {
            report("held " + std::to_string(count));
            continue;
        }
        void* data = nullptr;
        uint32_t size = 0;
        pipe.getRequestData(&data, &size);
        pipe.respond(text.c_str(), data, size);
        report("answered " + std::to_string(count));
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s PORT [hold]\n", argv[0]);
        return 2;
    }
    const bool hold = argc > 2 && std::strcmp(argv[2], "hold") == 0;
    dm::CommunicationPipeManager* server =
        dm::initCommunicationManagerAsServer("peer", std::atoi(argv[1]), 7, true);
    uint32_t port = 0;
    server->getHost(&port);
    if (port == 0) {
        std::printf("cannot listen\n");
        dm::deinitCommunicationManagers();
        return 1;
    }
    dm::CommunicationPipe* pipe = server->getPipe("echo");
    pipe->setRequestCallback({nullptr, signalWork});
    pipe->setNotifyCallback({nullptr, signalWork});
    report("listening " + std::to_string(port));

    int count = 0;
    const auto end = std::chrono::steady_clock::now() + kLifetime;
    while (std::chrono::steady_clock::now() < end) {
        g_work.wait(100);
        serveRequests(*pipe, hold, count);
        answerNotifications(*pipe);
    }
    dm::deinitCommunicationManagers();
    return 0;
}
