// dm-pipe-echo: both ends of the pipe "echo", for trying pipes out by hand.
//
//   dm-pipe-echo server PORT [N]        serve the pipe: answer every request with its own text
//                                       and data, every notification with "echo: " and its
//                                       text; PORT 0 picks a free port (printed). With N, end
//                                       once N requests are answered and the client has left;
//                                       else run until interrupted.
//   dm-pipe-echo client HOST PORT [N]   send N requests (3 by default) with binary data and a
//                                       notification, and print the answers.
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "dm/comm.h"
#include "zu/event.h"
#include "zu/thread.h"
#include "zu/timer.h"

namespace {

constexpr const char* kPipeName = "echo";
constexpr double kPatienceSeconds = 10.0;

std::atomic<bool> g_interrupted{false};
zu::Event* g_work = nullptr;  // signalled by the pipe's callbacks and by an interrupt

void onInterrupt(int) {
    g_interrupted = true;
    if (g_work) {
        g_work->signal();  // an eventfd write: safe in a signal handler
    }
}

void wakeMainLoop(void*, dm::CommunicationPipe*) {
    g_work->signal();
}

int usage() {
    std::fprintf(stderr,
                 "usage: dm-pipe-echo server PORT [N]\n"
                 "       dm-pipe-echo client HOST PORT [N]\n");
    return 2;
}

// --- Server ---

// Answers every request that has arrived; returns how many.
int answerRequests(dm::CommunicationPipe& pipe) {
    int answered = 0;
    for (zu::InplaceString<128> text; !(text = pipe.receiveRequest(nullptr)).empty();) {
        void* data = nullptr;
        uint32_t size = 0;
        pipe.getRequestData(&data, &size);
        pipe.respond(text.c_str(), data, size);
        std::printf("server: answered \"%s\" with %u bytes\n", text.c_str(), size);
        ++answered;
    }
    return answered;
}

void answerNotifications(dm::CommunicationPipe& pipe) {
    for (zu::InplaceString<128> text; !(text = pipe.receiveNotify(nullptr)).empty();) {
        std::printf("server: notification \"%s\"\n", text.c_str());
        pipe.sendNotify((std::string("echo: ") + text.c_str()).c_str(), 0);
    }
}

// Requests and notifications with an empty text cannot be answered (the pipe drops them, as
// "" means "nothing arrived"); say so, so that whoever sent them does not wait in silence.
void reportEmptyTexts(const dm::CommunicationPipe& pipe, uint64_t& reported) {
    const uint64_t dropped = dm::getPipeStatistics(&pipe).droppedEmptyText;
    if (dropped != reported) {
        std::printf("server: dropped %llu message(s) with an empty text; they get no answer\n",
                    static_cast<unsigned long long>(dropped - reported));
        reported = dropped;
    }
}

int runServer(int port, int limit) {
    dm::CommunicationPipeManager* manager =
        dm::initCommunicationManagerAsServer("dm-pipe-echo", port, 1, true);
    uint32_t listening = 0;
    manager->getHost(&listening);
    if (listening == 0) {
        std::fprintf(stderr, "dm-pipe-echo: cannot listen on port %d\n", port);
        dm::deinitCommunicationManagers();
        return 1;
    }
    dm::CommunicationPipe* pipe = manager->getPipe(kPipeName);
    pipe->setRequestCallback({nullptr, wakeMainLoop});
    pipe->setNotifyCallback({nullptr, wakeMainLoop});
    std::printf("server: pipe \"%s\" on port %u\n", kPipeName, listening);
    std::fflush(stdout);
    int answered = 0;
    uint64_t emptyReported = 0;
    // With a limit, the client that made it up is served until it leaves.
    const auto done = [&] { return limit > 0 && answered >= limit && !pipe->isConnected(); };
    while (!g_interrupted && !done()) {
        g_work->wait(100);  // the bound catches what arrived before the callbacks were set
        answerNotifications(*pipe);
        answered += answerRequests(*pipe);
        reportEmptyTexts(*pipe, emptyReported);
        std::fflush(stdout);
    }
    dm::deinitCommunicationManagers();
    return 0;
}

// --- Client ---

bool waitFor(const std::function<bool()>& condition) {
    zu::Timer timer;
    while (!condition()) {
        if (g_interrupted || timer.getElapsedSeconds() > kPatienceSeconds) {
            return false;
        }
        g_work->wait(10);
    }
    return true;
}

// Bytes that differ from request to request, so that the check means something.
std::vector<uint8_t> requestData(int number) {
    std::vector<uint8_t> data(static_cast<size_t>(number) * 1000);
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<uint8_t>(i * 7 + number);
    }
    return data;
}

// Sends the requests one after another on a thread of their own, so that the main thread can
// give up on a server that does not answer: destroying the manager releases the request.
bool sendRequests(dm::CommunicationPipe& pipe, int count) {
    std::atomic<int> good{0};
    std::atomic<bool> finished{false};
    std::thread asker([&] {
        for (int number = 1; number <= count; ++number) {
            std::string text = "request " + std::to_string(number);
            std::vector<uint8_t> data = requestData(number);
            std::vector<uint8_t> answer(data.size());
            uint32_t size = 0;
            zu::InplaceString<128> reply = pipe.sendRequest(
                text.c_str(), 0, answer.data(), static_cast<uint32_t>(answer.size()), &size,
                data.data(), static_cast<uint32_t>(data.size()));
            if (reply.empty()) {
                break;  // released: the manager is going
            }
            const bool intact = text == reply.c_str() && size == data.size() && answer == data;
            std::printf("client: \"%s\" answered \"%s\" with %u bytes, %s\n", text.c_str(),
                        reply.c_str(), size, intact ? "intact" : "CORRUPTED");
            good += intact ? 1 : 0;
        }
        finished = true;
        g_work->signal();
    });
    const bool done = waitFor([&] { return finished.load(); });
    if (!done) {
        std::printf("client: no answer from the server\n");
        dm::deinitCommunicationManagers();
    }
    asker.join();
    return done && good == count;
}

bool exchangeNotification(dm::CommunicationPipe& pipe) {
    zu::InplaceString<128> echoed;
    if (!pipe.sendNotify("goodbye", 0) ||
        !waitFor([&] { return !(echoed = pipe.receiveNotify(nullptr)).empty(); })) {
        std::printf("client: the notification was not echoed\n");
        return false;
    }
    std::printf("client: notification \"goodbye\" came back as \"%s\"\n", echoed.c_str());
    return true;
}

int runClient(const char* host, int port, int count) {
    dm::CommunicationPipeManager* manager =
        dm::initCommunicationManagerAsClient("dm-pipe-echo client", host, port);
    dm::CommunicationPipe* pipe = manager->getPipe(kPipeName);
    pipe->setNotifyCallback({nullptr, wakeMainLoop});
    if (!waitFor([&] { return pipe->isConnected(); })) {
        std::printf("client: could not open pipe \"%s\" on %s:%d\n", kPipeName, host, port);
        dm::deinitCommunicationManagers();
        return 1;
    }
    std::printf("client: pipe \"%s\" open to \"%s\"\n", kPipeName, manager->getRemoteName());
    bool ok = sendRequests(*pipe, count);
    ok = ok && exchangeNotification(*pipe);
    dm::deinitCommunicationManagers();
    return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    zu::setThreadName(zu::getCurrentThreadId(), "dm-pipe-echo main");
    zu::Event work;
    g_work = &work;
    signal(SIGINT, onInterrupt);
    signal(SIGTERM, onInterrupt);
    int result = 2;
    if (argc >= 3 && argc <= 4 && std::strcmp(argv[1], "server") == 0) {
        result = runServer(std::atoi(argv[2]), argc == 4 ? std::atoi(argv[3]) : 0);
    } else if (argc >= 4 && argc <= 5 && std::strcmp(argv[1], "client") == 0) {
        result = runClient(argv[2], std::atoi(argv[3]), argc == 5 ? std::atoi(argv[4]) : 3);
    } else {
        result = usage();
    }
    std::fflush(stdout);
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    g_work = nullptr;
    return result;
}
